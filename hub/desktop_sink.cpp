#include "hub/desktop_sink.h"

#include "hub/waiter.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <set>
#include <utility>

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr char kServer[] = "org.freedesktop.Notifications";
constexpr char kPath[] = "/org/freedesktop/Notifications";
constexpr milliseconds kLongestWait{1000};

struct BusEnd {
    void operator()(sd_bus *p) const { sd_bus_close_unref(p); }
};
struct MessageEnd {
    void operator()(sd_bus_message *p) const { sd_bus_message_unref(p); }
};
using Message = std::unique_ptr<sd_bus_message, MessageEnd>;
using Capabilities = std::set<std::string>;

// What a bubble says about an event of a type; its entry's text is put in front.
constexpr std::pair<std::string_view, char const *> kWords[] = {
    {"panel.picked", "was picked at the panel"},
    {"button.pressed", "The scan button was pressed"},
    {"feeder.changed", "The document feeder has changed"},
    {"fax.waiting", "A fax is waiting"},
    {"link.lost", "The device does not answer any more"},
    {"link.back", "The device is back"},
};

std::string WordsFor(HubEvent const &event)
{
    std::string_view const strType = ShortHubType(event);
    auto const *const pRow = std::find_if(std::begin(kWords), std::end(kWords),
                                          [&](auto const &row) { return row.first == strType; });
    std::string const strWords =
        pRow == std::end(kWords) ? std::string(strType) : std::string(pRow->second);
    return event.strText.empty() ? strWords : event.strText + " " + strWords;
}

std::string Escaped(std::string const &strText)
{
    std::string str;
    for (char const ch : strText) {
        switch (ch) {
        case '&':
            str += "&amp;";
            break;
        case '<':
            str += "&lt;";
            break;
        case '>':
            str += "&gt;";
            break;
        default:
            str += ch;
        }
    }
    return str;
}

} // namespace

class CDesktopSinkImpl {
public:
    explicit CDesktopSinkImpl(HubDesktopSettings const &settings) : m_settings(settings) {}

    HubOutcomeType Deliver(HubEvent const &event, std::string *pstrWhy);
    void Stop();

private:
    bool Connect(std::string *pstrWhy);
    bool AskCapabilities(Capabilities *pCapabilities, std::string *pstrWhy);
    bool Notify(HubEvent const &event, Capabilities const &capabilities, std::string *pstrWhy);
    Message NewCall(char const *pszMember);
    Message Call(Message call, std::string *pstrWhy);
    int WaitForBus(steady_clock::time_point tpEnd);

    HubDesktopSettings const m_settings;
    CHubWaiter m_waiter;
    std::atomic<bool> m_bStopped{false};
    std::unique_ptr<sd_bus, BusEnd> m_pBus;
};

void CDesktopSinkImpl::Stop()
{
    m_bStopped = true;
    m_waiter.Wake();
}

bool CDesktopSinkImpl::Connect(std::string *pstrWhy)
{
    if (m_pBus && sd_bus_is_open(m_pBus.get()) > 0) {
        return true;
    }
    m_pBus.reset();
    sd_bus *pBus = nullptr;
    int nResult = 0;
    if (m_settings.strBus.empty()) {
        nResult = sd_bus_open_user(&pBus);
        m_pBus.reset(pBus);
    } else if ((nResult = sd_bus_new(&pBus)) >= 0) {
        m_pBus.reset(pBus);
        nResult = sd_bus_set_address(pBus, m_settings.strBus.c_str());
        if (nResult >= 0) {
            nResult = sd_bus_set_bus_client(pBus, 1);
        }
        if (nResult >= 0) {
            nResult = sd_bus_start(pBus);
        }
    }
    if (nResult < 0) {
        m_pBus.reset();
        *pstrWhy = std::string("no session bus to be reached: ") + std::strerror(-nResult);
    }
    return nResult >= 0;
}

Message CDesktopSinkImpl::NewCall(char const *pszMember)
{
    sd_bus_message *pMessage = nullptr;
    sd_bus_message_new_method_call(m_pBus.get(), &pMessage, kServer, kPath, kServer, pszMember);
    return Message(pMessage);
}

// Waits for the bus, tpEnd or Stop. Below 0 for a bus that is lost.
int CDesktopSinkImpl::WaitForBus(steady_clock::time_point tpEnd)
{
    int const nEvents = sd_bus_get_events(m_pBus.get());
    if (nEvents < 0) {
        return nEvents;
    }
    auto const left = std::chrono::ceil<milliseconds>(tpEnd - steady_clock::now());
    m_waiter.Wait(sd_bus_get_fd(m_pBus.get()), nEvents, std::min(left, kLongestWait));
    return 0;
}

// The answer to a call, or nothing with the reason.
Message CDesktopSinkImpl::Call(Message call, std::string *pstrWhy)
{
    Message answer;
    auto const keep = [](sd_bus_message *p, void *pUser, sd_bus_error *) {
        static_cast<Message *>(pUser)->reset(sd_bus_message_ref(p));
        return 1;
    };
    // The slot goes before what its answer would be put into.
    struct SlotEnd {
        void operator()(sd_bus_slot *p) const { sd_bus_slot_unref(p); }
    };
    sd_bus_slot *pNew = nullptr;
    int nResult =
        call ? sd_bus_call_async(m_pBus.get(), &pNew, call.get(), keep, &answer, UINT64_MAX)
             : -ENOMEM;
    std::unique_ptr<sd_bus_slot, SlotEnd> const pSlot(pNew);
    auto const tpEnd = steady_clock::now() + m_settings.limit;
    while (nResult >= 0 && !answer) {
        if (m_bStopped || steady_clock::now() >= tpEnd) {
            *pstrWhy = m_bStopped ? "the end is near" : "the desktop does not answer";
            return nullptr;
        }
        nResult = sd_bus_process(m_pBus.get(), nullptr);
        if (nResult == 0) {
            nResult = WaitForBus(tpEnd);
        }
    }
    if (nResult < 0) {
        *pstrWhy = std::string("the session bus is lost: ") + std::strerror(-nResult);
        m_pBus.reset();
        return nullptr;
    }
    if (sd_bus_error const *const pError = sd_bus_message_get_error(answer.get())) {
        *pstrWhy = std::string("the desktop shows nothing: ") + pError->name + ": " +
                   (pError->message ? pError->message : "");
        return nullptr;
    }
    return answer;
}

bool CDesktopSinkImpl::AskCapabilities(Capabilities *pCapabilities, std::string *pstrWhy)
{
    Message const answer = Call(NewCall("GetCapabilities"), pstrWhy);
    if (!answer) {
        return false;
    }
    sd_bus_message *const p = answer.get();
    char const *psz = nullptr;
    if (sd_bus_message_enter_container(p, SD_BUS_TYPE_ARRAY, "s") >= 0) {
        while (sd_bus_message_read_basic(p, SD_BUS_TYPE_STRING, &psz) > 0) {
            pCapabilities->insert(psz);
        }
    }
    return true;
}

bool CDesktopSinkImpl::Notify(HubEvent const &event, Capabilities const &capabilities,
                              std::string *pstrWhy)
{
    std::string strTitle = event.strDevice;
    std::string strBody = WordsFor(event);
    if (!capabilities.contains("body")) {
        strTitle += ": " + std::exchange(strBody, "");
    } else if (capabilities.contains("body-markup")) {
        strBody = Escaped(strBody);
    }
    Message call = NewCall("Notify");
    // Application, the bubble to replace, icon, title, body; no actions; hints; as long as the server likes.
    if (call && sd_bus_message_append(call.get(), "susssasa{sv}i", "notifyhub", 0, "printer",
                                      strTitle.c_str(), strBody.c_str(), 0, 1, "category", "s",
                                      "device", -1) < 0) {
        *pstrWhy = "the event is no text that a bus can carry";
        return false;
    }
    return Call(std::move(call), pstrWhy) != nullptr;
}

HubOutcomeType CDesktopSinkImpl::Deliver(HubEvent const &event, std::string *pstrWhy)
{
    if (m_bStopped) {
        *pstrWhy = "the end is near";
        return eHO_LATER;
    }
    Capabilities capabilities;
    bool const bTaken = Connect(pstrWhy) && AskCapabilities(&capabilities, pstrWhy) &&
                        Notify(event, capabilities, pstrWhy);
    return bTaken ? eHO_TAKEN : eHO_LATER;
}

// ---- The public face

CDesktopSink::CDesktopSink(HubDesktopSettings const &settings)
    : m_pImpl(std::make_unique<CDesktopSinkImpl>(settings))
{
}

CDesktopSink::~CDesktopSink() = default;

HubOutcomeType CDesktopSink::Deliver(HubEvent const &event, std::string *pstrWhy)
{
    return m_pImpl->Deliver(event, pstrWhy);
}

void CDesktopSink::Stop()
{
    m_pImpl->Stop();
}
