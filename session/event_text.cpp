#include "session/event_text.h"

#include "capi/qoma_notify.h"
#include "session/subscriptions.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace {

using Json = EventJson;

constexpr std::array kStateNames{"waiting",    "connected",  "lost",
                                 "incomplete", "restarting", "back"};
static_assert(kStateNames.size() == eSL_BACK + 1);

Json NumberOrNull(std::optional<DWORD> const &number)
{
    return number ? Json(*number) : Json();
}

} // namespace

std::string KindName(CallbackType eType)
{
    switch (eType) {
    case eCT_SELECT_NOTIFY:
        return "eCT_SELECT_NOTIFY";
    case eCT_ADF_NOTIFY:
        return "eCT_ADF_NOTIFY";
    case eCT_SCANNER_BUTTON_NOTIFY:
        return "eCT_SCANNER_BUTTON_NOTIFY";
    case eCT_LINK_RECOVERED:
        return "eCT_LINK_RECOVERED";
    case eCT_FAX_UPLOAD_NOTIFY:
        return "eCT_FAX_UPLOAD_NOTIFY";
    }
    return "eCT_" + std::to_string(static_cast<int>(eType));
}

std::string TimeText(std::chrono::system_clock::time_point tp)
{
    auto const ms = std::chrono::floor<std::chrono::milliseconds>(tp);
    auto const day = std::chrono::floor<std::chrono::days>(ms);
    std::chrono::year_month_day const date(day);
    std::chrono::hh_mm_ss const time(ms - day);
    char sz[40];
    std::snprintf(
        sz, sizeof sz, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
        static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
        static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
        static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    return sz;
}

std::string ResultText(DWORD dwResult)
{
    // That one can be said more exactly here.
    bool const bNotOverLink = dwResult == ERROR_NOT_SUPPORTED;
    char const *const pszName = bNotOverLink ? "not supported over this link"
                                             : qoma_strerror(static_cast<qoma_result>(dwResult));
    return std::string(pszName) + " (" + std::to_string(dwResult) + ")";
}

std::vector<std::string> FlagNames(DWORD dwFlags)
{
    std::vector<std::string> names;
    for (SubscriptionName const &name : kSubscriptions) {
        if ((dwFlags & name.dwFlag) != 0) {
            names.emplace_back(name.pszName);
        }
    }
    return names;
}

std::string ReasonText(LinkChange const &change)
{
    if (change.dwResult == 0) {
        return change.strWhat;
    }
    return (change.strWhat.empty() ? "" : change.strWhat + ": ") + ResultText(change.dwResult);
}

namespace {

constexpr std::array kFields{
    EventField{"kind", "KIND", [](auto const &, auto const &n) { return Json(KindName(n.eType)); }},
    EventField{"notifyCode", "CODE",
               [](auto const &, auto const &n) { return Json(n.dwNotifyCode); }},
    EventField{"nValue", "NVALUE", [](auto const &, auto const &n) { return Json(n.nValue); }},
    EventField{"dwValue", "DWVALUE", [](auto const &, auto const &n) { return Json(n.dwValue); }},
    EventField{"option", "OPTION", [](auto const &, auto const &n) { return Json(n.strOption); }},
    EventField{"senderAddress", "SENDER_ADDRESS",
               [](auto const &, auto const &n) { return Json(n.strSenderAddress); }},
    EventField{"senderName", "SENDER_NAME",
               [](auto const &, auto const &n) { return Json(n.strSenderName); }},
    EventField{"time", "TIME",
               [](auto const &e, auto const &) { return Json(TimeText(e.tpTime)); }},
    EventField{"device", "DEVICE", [](auto const &e, auto const &) { return Json(e.strDevice); }},
    EventField{"text", "TEXT", [](auto const &, auto const &n) { return Json(n.strText); }},
    EventField{"sequence", "SEQUENCE",
               [](auto const &, auto const &n) { return NumberOrNull(n.sequence); }},
    // The two that answers to discovery jobs alone have.
    EventField{"model", "MODEL", [](auto const &, auto const &n) { return Json(n.strModel); }},
    EventField{"srvq", "SRVQ", [](auto const &, auto const &n) { return NumberOrNull(n.srvq); }},
};
constexpr std::size_t kcFieldsOfAll = kFields.size() - 2;

Json ObjectOf(SessionEvent const &event, Notification const &notification)
{
    Json object;
    std::size_t const cFields = notification.srvq ? kFields.size() : kcFieldsOfAll;
    for (std::size_t n = 0; n < cFields; ++n) {
        object[kFields[n].pszName] = kFields[n].pfnValue(event, notification);
    }
    return object;
}

Json ObjectOf(SessionEvent const &event, LinkChange const &change)
{
    Json object{{"kind", "link"},
                {"time", TimeText(event.tpTime)},
                {"device", event.strDevice},
                {"state", kStateNames[change.eState]},
                {"address", change.strAddress}};
    if (change.eState == eSL_CONNECTED || change.eState == eSL_BACK) {
        object["subscribed"] = FlagNames(change.dwFlags);
        object["entries"] = change.rgstrOption;
    } else {
        object["result"] = change.dwResult;
        object["reason"] = ReasonText(change);
    }
    return object;
}

Json ObjectOf(SessionEvent const &event, DroppedEvents const &dropped)
{
    return {{"kind", "dropped"}, {"time", TimeText(event.tpTime)}, {"count", dropped.cEvents}};
}

} // namespace

std::span<EventField const> EventFields()
{
    return kFields;
}

EventJson ObjectOf(SessionEvent const &event)
{
    return std::visit([&](auto const &what) { return ObjectOf(event, what); }, event.what);
}

std::string LineOf(EventJson const &object)
{
    return object.dump(-1, ' ', /*ensure_ascii=*/false, Json::error_handler_t::replace);
}

std::string JsonLine(SessionEvent const &event)
{
    return LineOf(ObjectOf(event));
}

char const *StateName(LinkStateType eState)
{
    return kStateNames[eState];
}
