// Option strings as the device gets them. A text of the client's goes through the agent and must come out
// with the agent's own clauses in force, whatever the text says; then clients write any values to the
// device's objects, and what is on its panel leaves as datagrams that fit, and that their echo ends.
// Input: the client's text (length in 2 bytes), then writes: client and what to do (1 byte), object and type
// (1 byte), value (length in 2 bytes).

#include "device/device_model.h"
#include "device/discovery_job.h"
#include "device/kick_sender.h"
#include "fuzz/agent_double.h"

#include <set>

namespace {

constexpr std::size_t kcMaxPanel = 256;
constexpr ClientId kcClients = 4;

LinkBytes BytesOf(std::string const &str)
{
    return LinkBytes(str.begin(), str.end());
}

// The option string that the agent makes of a client's text.
std::string ThroughTheAgent(std::string const &strText)
{
    static CFuzzedAgent *const s_pAgent = new CFuzzedAgent;
    g_library = {};
    DWORD dwInstance = 0;
    DWORD const dwResult = s_pAgent->Agent().Add(&dwInstance, eNF_SELECT, strText.c_str());
    Must((dwResult == 0) == (strText[0] != '\0'), "only an empty text is refused");
    if (dwResult != 0) {
        return {};
    }
    std::string const strOption = g_library.sets.back().second;
    std::string strValue;
    Must(FindClause(strOption, "NETADDR=", &strValue) && strValue == "LINK1", "our address counts");
    Must(FindClause(strOption, "SWINST=", &strValue) && strValue == std::to_string(dwInstance),
         "our number counts");
    Must(strOption.starts_with(strText.c_str()), "the client's text is not touched");
    return strOption;
}

void CheckPanel(CDeviceModel const &model)
{
    std::set<std::pair<ClientId, std::string>> entries;
    for (PanelEntry const &entry : model.Panel()) {
        Must(entries.emplace(entry.owner, entry.strText).second, "an entry is there once");
        Must(!entry.strText.empty() && entry.strText.size() <= kMaxOptionText, "an entry fits");
    }
    Must(entries.size() <= kcMaxPanel, "the panel has an end");
    Must(model.TokenHolder() <= kcClients, "a client has the token, or nobody");
}

// Everything that a client could see of the device.
std::string Everything(CDeviceModel const &model)
{
    std::string strAll = std::to_string(model.TokenHolder());
    for (int nRow = 0; nRow < eDO_COUNT; ++nRow) {
        LinkBytes value;
        Must(model.Get(nRow, g_deviceObjects[nRow].dataType, &value) == eLR_OK, "all can be read");
        strAll.append(value.begin(), value.end()).append(1, '\n');
    }
    for (PanelEntry const &entry : model.Panel()) {
        strAll += std::to_string(entry.owner) + entry.strText + '\n';
    }
    return strAll;
}

void Write(CDeviceModel &model, unsigned nWhat, unsigned nWhere, std::string const &strValue)
{
    ClientId const client = nWhat % kcClients + 1;
    ObjectChanges changes;
    if (nWhat >= 0xF0) {
        model.PressButton();
    } else if (nWhat >= 0xE0) {
        model.ClientGone(client, &changes);
        Must(model.TokenHolder() != client, "who has gone has no token");
    } else {
        std::string const strBefore = Everything(model);
        DWORD const dwResult =
            model.Set(client, client % 2 == 0, static_cast<int>(nWhere % eDO_COUNT),
                      static_cast<BYTE>(nWhere >> 3 & 15), BytesOf(strValue), &changes);
        Must(dwResult == eLR_OK || (changes.empty() && Everything(model) == strBefore),
             "what is refused changes nothing");
    }
    CheckPanel(model);
}

// Every entry of a client on a network, picked: sent once, as a datagram that fits, until its echo comes.
void PickAll(CDeviceModel const &model)
{
    std::vector<std::pair<LinkAddress, std::string>> sent;
    CKickSender kicks(
        [&](LinkAddress const &to, std::string const &str) { sent.emplace_back(to, str); },
        [](DeviceEvent const &) {});
    std::size_t cAdded = 0;
    for (PanelEntry const &entry : model.Panel()) {
        std::string strAddress;
        LinkAddress to;
        if (entry.fNetwork && FindClause(entry.strText, "NETADDR=", &strAddress) &&
            ParseHostAndPort(strAddress, &to)) {
            Must(FormatAddress(to) == strAddress, "an address is printed as it was read");
            Must(kicks.Add(to, entry.strText) == ++cAdded, "an entry of the panel can be sent");
        }
    }
    LinkTime const now = LinkClock::now();
    for (std::size_t n = 0; n < cAdded;
         ++n) { // one at a time to an address: the next after its echo
        kicks.Run(now);
        Must(n < sent.size(), "what waits is sent when its turn comes");
        auto const [to, strDatagram] = sent[n];
        Must(strDatagram.size() <= CKickSender::kMaxDatagram, "a datagram fits");
        Must(kicks.Echo(to.wPort, strDatagram), "its echo ends it");
        Must(!kicks.Echo(to.wPort, strDatagram), "once");
    }
    Must(kicks.Run(now) == LinkTime::max() && sent.size() == cAdded,
         "nothing is left, or sent twice");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *pData, std::size_t cbData)
{
    CFuzzInput input(pData, cbData);
    CDeviceModel model;
    Write(model, 1, eDO_UI_ADD_OPTION | eLD_TEXT << 3, ThroughTheAgent(input.Chunk()));
    while (!input.IsEmpty()) {
        unsigned const nWhat = input.Byte();
        unsigned const nWhere = input.Byte();
        Write(model, nWhat, nWhere, input.Chunk());
    }
    PickAll(model);
    return 0;
}
