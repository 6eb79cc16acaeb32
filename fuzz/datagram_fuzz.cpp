// Datagrams of any bytes from any sender, through the agent's receive loop to the client. Each is echoed as
// it came, to where it came from; a number that is not above the last one is dropped, whatever stands
// around it; the client hears the rest, once each and in order.
// Input: the last number taken (2 bytes), then datagrams: sender (1 byte), length (2 bytes), bytes.

#include "fuzz/agent_double.h"
#include "platform/socket.h"

#include <climits>
#include <cstring>

namespace {

constexpr std::size_t kcbText = 349;
constexpr std::size_t kcbName = 259;

struct Datagram {
    unsigned nSender = 0;
    std::string strBytes;
};
std::vector<Datagram> g_waiting; // in their order
std::size_t g_nNext = 0;
std::vector<Datagram> g_echoes;

std::string AddressOf(unsigned nSender)
{
    return "10.0.0." + std::to_string(nSender);
}

// Senders have names of many lengths; every fourth has none.
std::string NameOf(unsigned nSender)
{
    return nSender % 4 == 0 ? "" : std::string(2 * nSender, 'n');
}

// The number of the first clause, or dwBefore when there is none.
DWORD NumberIn(std::string const &strText, DWORD dwBefore)
{
    std::size_t const nKey = strText.find("KICKSEQ=");
    std::size_t const nEnd = nKey == std::string::npos ? nKey : strText.find(';', nKey);
    if (nEnd == std::string::npos) {
        return dwBefore;
    }
    long long const n =
        std::strtoll(strText.substr(nKey + 8, nEnd - nKey - 8).c_str(), nullptr, 10);
    return static_cast<DWORD>(std::clamp<long long>(n, INT_MIN, INT_MAX));
}

CFuzzedAgent::Heard Expected(DWORD dwLast)
{
    CFuzzedAgent::Heard heard;
    DWORD dwNumber = 0;
    for (std::size_t n = 0; n < g_echoes.size(); ++n) {
        std::string const strText = g_waiting[n].strBytes.substr(0, kcbText).c_str();
        unsigned const nSender = g_waiting[n].nSender;
        dwNumber = NumberIn(strText, dwNumber);
        if (dwLast == 0 || dwNumber > dwLast) {
            heard.push_back(CFuzzedAgent::Line(eCT_SELECT_NOTIFY, 0, 0, strText, AddressOf(nSender),
                                               NameOf(nSender).substr(0, kcbName)));
            dwLast = dwNumber;
        }
    }
    return heard;
}

} // namespace

// The socket library's calls in the loop, by the names that the linker knows them under.
extern "C" {

int __wrap__ZN2ws8recvfromEmPciiP8sockaddrPi(SOCKET, char *pBuffer, int cb, int, sockaddr *pFrom,
                                             int *)
{
    if (g_nNext == g_waiting.size()) {
        return SOCKET_ERROR;
    }
    Datagram const &datagram = g_waiting[g_nNext++];
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = ws::htonl(0x0A000000u + datagram.nSender);
    std::memcpy(pFrom, &from, sizeof from);
    return static_cast<int>(datagram.strBytes.copy(pBuffer, static_cast<std::size_t>(cb)));
}

int __wrap__ZN2ws6sendtoEmPKciiPK8sockaddri(SOCKET, char const *p, int cb, int, sockaddr const *pTo,
                                            int)
{
    sockaddr_in to;
    std::memcpy(&to, pTo, sizeof to);
    g_echoes.push_back({ws::ntohl(to.sin_addr.s_addr) & 255, std::string(p, p + cb)});
    return g_echoes.size() % 8 == 0 ? SOCKET_ERROR : cb; // a failed echo changes nothing
}

hostent *__wrap__ZN2ws13gethostbyaddrEPKcii(char const *pAddress, int, int)
{
    static std::string s_strName;
    static hostent s_entry;
    s_strName = NameOf(static_cast<unsigned char>(pAddress[3]));
    s_entry.h_name = s_strName.data();
    return s_strName.empty() ? nullptr : &s_entry;
}
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *pData, std::size_t cbData)
{
    static CFuzzedAgent *const s_pAgent = new CFuzzedAgent;
    CFuzzInput input(pData, cbData);
    DWORD const dwLast = input.Word();
    g_waiting.clear();
    g_echoes.clear();
    g_nNext = 0;
    while (!input.IsEmpty()) {
        unsigned const nSender = input.Byte();
        g_waiting.push_back({nSender, input.Chunk()});
    }
    CNotifyAgentProbe::ReceiveDatagrams(s_pAgent->Agent(), dwLast);
    for (std::size_t n = 0; n < g_echoes.size(); ++n) {
        Must(g_echoes[n].nSender == g_waiting[n].nSender &&
                 g_echoes[n].strBytes == g_waiting[n].strBytes.substr(0, kcbText),
             "a datagram is echoed as it came");
    }
    bool const bAll = g_echoes.size() == g_waiting.size();
    Must(bAll || g_waiting[g_echoes.size()].strBytes.empty(), "all up to an empty one are echoed");
    Must(s_pAgent->Take() == Expected(dwLast), "the client hears each new one once, in order");
    return 0;
}
