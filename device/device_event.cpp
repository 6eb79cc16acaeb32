#include "device/device_event.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

struct EventRow {
    DeviceEventKind eKind;
    char const *pszName;
    char const *pszLine; // the fields' names in braces
};

constexpr std::array g_events{
    EventRow{eEV_LISTENING, "listening", "listening on {address}"},
    EventRow{eEV_LINK_UP, "link-up", "link {link} up: {use} {address}"},
    EventRow{eEV_LINK_DOWN, "link-down", "link {link} down: {reason}"},
    EventRow{eEV_LINK_REFUSED, "link-refused", "link {link} refused: {reason}"},
    EventRow{eEV_ENTRY_ADDED, "entry-added", "entry added: {text} (link {link})"},
    EventRow{eEV_ENTRY_DELETED, "entry-deleted", "entry deleted: {text} (link {link})"},
    EventRow{eEV_ENTRY_GONE, "entry-gone", "entry gone with link {link}: {text}"},
    EventRow{eEV_TRAP_ON, "trap-on", "trap on: {object} (link {link})"},
    EventRow{eEV_TRAP_OFF, "trap-off", "trap off: {object} (link {link})"},
    EventRow{eEV_TRAP_SENT, "trap-sent", "trap sent: {object} (link {link})"},
    EventRow{eEV_SET_REFUSED, "set-refused", "{object} refused: result {result} (link {link})"},
    EventRow{eEV_PRESS_CLAIMED, "press-claimed", "press claimed (link {link})"},
    EventRow{eEV_CLAIM_REFUSED, "claim-refused", "claim refused (link {link})"},
    EventRow{eEV_TOKEN_FREED, "token-freed", "token freed (link {link})"},
    EventRow{eEV_PICKED, "picked", "picked: {text}"},
    EventRow{eEV_FEEDER, "feeder", "feeder: {state}"},
    EventRow{eEV_BUTTON, "button", "button: pressed"},
    EventRow{eEV_FAX, "fax", "fax: waits"},
    EventRow{eEV_NOT_SENT, "not-sent", "not sent, {reason}: {text}"},
    EventRow{eEV_KICK_SENT, "kick-sent", "kick {sequence} sent to {address} (try {try})"},
    EventRow{eEV_KICK_ECHOED, "kick-echoed", "kick {sequence} echoed"},
    EventRow{eEV_KICK_GIVEN_UP, "kick-given-up",
             "kick {sequence} given up, {address} does not answer"},
    EventRow{eEV_KICK_DROPPED, "kick-dropped", "kick {sequence} dropped"},
    EventRow{eEV_KICK_REPEATED, "kick-repeated", "kick {sequence} repeated"},
    EventRow{eEV_KICK_HELD_BACK, "kick-held-back", "kick {sequence} held back"},
    EventRow{eEV_KICK_ECHO_LOST, "kick-echo-lost", "kick {sequence} echo lost"},
    EventRow{eEV_JOB_TAKEN, "job-taken", "job taken: SRVQ={number} from {address}"},
    EventRow{eEV_JOB_REFUSED, "job-refused", "job refused: {reason}"},
    EventRow{eEV_JOB_NOT_ANSWERED, "job-not-answered",
             "job not answered: {address} has not registered for {object}"},
    EventRow{eEV_PRINT_PATH, "print-path", "{text}"},
    EventRow{eEV_CUT, "cut", "links cut for {ms} ms"},
    EventRow{eEV_GARBAGE, "garbage", "garbage sent"},
    EventRow{eEV_PANEL, "panel", "{text}"},
    EventRow{eEV_HABIT, "habit", "misbehaviour: {habit} {value}"},
};

constexpr bool RowsAreInOrder()
{
    for (std::size_t n = 0; n < g_events.size(); ++n) {
        if (g_events[n].eKind != static_cast<DeviceEventKind>(n)) {
            return false;
        }
    }
    return g_events.size() == eEV_COUNT;
}
static_assert(RowsAreInOrder());

EventRow const &RowOf(DeviceEventKind eKind)
{
    return g_events[static_cast<std::size_t>(eKind)];
}

std::string ValueText(DeviceEvent const &event, std::string_view strName)
{
    auto const it = std::find_if(event.fields.begin(), event.fields.end(),
                                 [&](auto const &field) { return field.pszName == strName; });
    if (it == event.fields.end()) {
        return {};
    }
    auto const *const pText = std::get_if<std::string>(&it->value);
    return pText ? *pText : std::to_string(std::get<std::uint64_t>(it->value));
}

} // namespace

char const *DeviceEventName(DeviceEventKind eKind)
{
    return RowOf(eKind).pszName;
}

std::string DeviceEventLine(DeviceEvent const &event)
{
    std::string_view strRest = RowOf(event.eKind).pszLine;
    std::string strLine;
    for (std::size_t nOpen; (nOpen = strRest.find('{')) != std::string_view::npos;) {
        std::size_t const nClose = strRest.find('}', nOpen);
        strLine += strRest.substr(0, nOpen);
        strLine += ValueText(event, strRest.substr(nOpen + 1, nClose - nOpen - 1));
        strRest.remove_prefix(nClose + 1);
    }
    strLine += strRest;
    return strLine;
}
