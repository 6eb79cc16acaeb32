#include "tools/notifymon_output.h"

#include "dolrtl/QOMADolC.h"
#include "platform/fifo.h"
#include "tools/showable.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace {

struct ResultName {
    DWORD dwResult;
    char const *pszName;
};

// Where a number means one thing to the agent and another to the access library, both are said.
constexpr std::array kResultNames{
    ResultName{0, "no error"},
    ResultName{eDR_REFUSED, "the device refused"},
    ResultName{8, "not enough memory"},
    ResultName{eDR_BAD_ANSWER, "the device's answer makes no sense"},
    ResultName{eDR_WRONG_LENGTH, "too long for the device"},
    ResultName{29, "the job could not be written whole"},
    ResultName{eDR_DEVICE_FAILED, "the device failed"},
    ResultName{50, "not supported over this link"},
    ResultName{51, "not subscribed"},
    ResultName{87, "invalid parameter"},
    ResultName{110, "the target could not be opened"},
    ResultName{eDR_TIMEOUT, "no answer from the device in time"},
    ResultName{eDR_BUSY, "another host holds it"},
    ResultName{eDR_NO_SUCH_OBJECT, "the device has no such object"},
    ResultName{eDR_BAD_ADDRESS, "bad address"},
    ResultName{eDR_CONNECT_REFUSED, "nothing listens at that address and port"},
    ResultName{eDR_NOT_STARTED, "the link was not started"},
    ResultName{eDR_UNREACHABLE, "no way to the device"},
    ResultName{eDR_LINK_LOST, "the link is lost"},
    ResultName{1247, "already connected"},
    ResultName{eDR_VERSION_MISMATCH, "the device speaks another version of the protocol"},
    ResultName{1307, "a device of another product line"},
    ResultName{eDR_WRONG_TYPE, "wrong data type for the object"},
    ResultName{eDR_DEVICE_FULL, "the panel takes no more entries"},
    ResultName{2250, "not connected"},
};

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

// RFC 3339, in UTC, with milliseconds.
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

// A text, a number or null.
using Json = nlohmann::ordered_json;

Json NumberOrNull(std::optional<DWORD> const &number)
{
    return number ? Json(*number) : Json();
}

struct Field {
    char const *pszName;     // in JSON and formats
    char const *pszVariable; // behind NOTIFY_
    Json (*pfnValue)(SessionEvent const &event, Notification const &notification);
};

constexpr std::array kFields{
    Field{"kind", "KIND", [](auto const &, auto const &n) { return Json(KindName(n.eType)); }},
    Field{"notifyCode", "CODE", [](auto const &, auto const &n) { return Json(n.dwNotifyCode); }},
    Field{"nValue", "NVALUE", [](auto const &, auto const &n) { return Json(n.nValue); }},
    Field{"dwValue", "DWVALUE", [](auto const &, auto const &n) { return Json(n.dwValue); }},
    Field{"option", "OPTION", [](auto const &, auto const &n) { return Json(n.strOption); }},
    Field{"senderAddress", "SENDER_ADDRESS",
          [](auto const &, auto const &n) { return Json(n.strSenderAddress); }},
    Field{"senderName", "SENDER_NAME",
          [](auto const &, auto const &n) { return Json(n.strSenderName); }},
    Field{"time", "TIME", [](auto const &e, auto const &) { return Json(TimeText(e.tpTime)); }},
    Field{"device", "DEVICE", [](auto const &e, auto const &) { return Json(e.strDevice); }},
    Field{"text", "TEXT", [](auto const &, auto const &n) { return Json(n.strText); }},
    Field{"sequence", "SEQUENCE",
          [](auto const &, auto const &n) { return NumberOrNull(n.sequence); }},
    // The two that answers to discovery jobs alone have.
    Field{"model", "MODEL", [](auto const &, auto const &n) { return Json(n.strModel); }},
    Field{"srvq", "SRVQ", [](auto const &, auto const &n) { return NumberOrNull(n.srvq); }},
};
constexpr std::size_t kcFieldsOfAll = kFields.size() - 2;

std::string PlainText(Json const &value)
{
    return value.is_string() ? value.get<std::string>() : value.is_null() ? "" : value.dump();
}

std::string FieldNames(char const *Field::*pszName, char const *pszPrefix)
{
    std::string strNames;
    for (Field const &field : kFields) {
        strNames += (strNames.empty() ? "" : ", ") + (pszPrefix + std::string(field.*pszName));
    }
    return strNames;
}

// The field that a format names at n, "%{name}", and how long that is there; null if it names none.
Field const *FieldAt(std::string const &strFormat, std::size_t n, std::size_t *pcb)
{
    for (Field const &field : kFields) {
        std::string const strWhole = "%{" + std::string(field.pszName) + "}";
        if (strFormat.compare(n, strWhole.size(), strWhole) == 0) {
            *pcb = strWhole.size();
            return &field;
        }
    }
    return nullptr;
}

// Hands fnText the plain pieces of a format and fnField its fields. False at what is neither.
template <class Text, class Of>
bool WalkFormat(std::string const &strFormat, Text fnText, Of fnField)
{
    for (std::size_t n = 0; n < strFormat.size();) {
        std::size_t cb = 1;
        if (strFormat[n] != '%') {
            cb = std::min(strFormat.find('%', n), strFormat.size()) - n;
            fnText(strFormat.substr(n, cb));
        } else if (strFormat.compare(n, 2, "%%") == 0) {
            cb = 2;
            fnText("%");
        } else if (Field const *const pField = FieldAt(strFormat, n, &cb)) {
            fnField(*pField);
        } else {
            return false;
        }
        n += cb;
    }
    return true;
}

std::string SenderText(Notification const &notification)
{
    if (notification.strSenderAddress.empty()) {
        return {};
    }
    std::string strText = " from " + Showable(notification.strSenderAddress);
    if (!notification.strSenderName.empty()) {
        strText += " (" + Showable(notification.strSenderName) + ")";
    }
    return strText;
}

struct FlagName {
    DWORD dwFlag;
    char const *pszName;
};
constexpr std::array kFlagNames{FlagName{eNF_SELECT, "select"}, FlagName{eNF_ADF, "adf"},
                                FlagName{eNF_SCANNER_BUTTON, "button"},
                                FlagName{eNF_FAX_UPLOAD, "fax"}};

std::vector<std::string> FlagNames(DWORD dwFlags)
{
    std::vector<std::string> names;
    for (FlagName const &name : kFlagNames) {
        if ((dwFlags & name.dwFlag) != 0) {
            names.emplace_back(name.pszName);
        }
    }
    return names;
}

std::string Listed(std::vector<std::string> const &texts)
{
    std::string strList;
    for (std::string const &strText : texts) {
        strList += (strList.empty() ? "" : ", ") + strText;
    }
    return strList;
}

constexpr std::array kStateNames{"waiting",    "connected",  "lost",
                                 "incomplete", "restarting", "back"};
static_assert(kStateNames.size() == eSL_BACK + 1);

// Why, in words: a result, what happened, or both.
std::string ReasonText(LinkChange const &change)
{
    if (change.dwResult == 0) {
        return change.strWhat;
    }
    return (change.strWhat.empty() ? "" : change.strWhat + ": ") + ResultText(change.dwResult);
}

Json ObjectOf(SessionEvent const &event, Notification const &notification)
{
    Json object;
    for (std::size_t n = 0; n < (notification.srvq ? kFields.size() : kcFieldsOfAll); ++n) {
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

std::string Quoted(std::string const &str)
{
    std::string strEscaped;
    for (char ch : str) {
        strEscaped += ch == '"' || ch == '\\' ? "\\" : "";
        strEscaped += ch;
    }
    return "\"" + Showable(strEscaped) + "\"";
}

std::string ResultText(DWORD dwResult)
{
    char const *pszName = "a code of the access library";
    for (auto const &name : kResultNames) {
        if (name.dwResult == dwResult) {
            pszName = name.pszName;
        }
    }
    return std::string(pszName) + " (" + std::to_string(dwResult) + ")";
}

std::string DiscoveryProblem(std::string const &strTarget, DWORD dwResult)
{
    if (dwResult == ERROR_OPEN_FAILED && PlatIsFifo(strTarget.c_str())) {
        return "nobody reads from it";
    }
    return ResultText(dwResult);
}

std::string TextLine(Notification const &notification)
{
    std::string strLine = KindName(notification.eType) +
                          " code=" + std::to_string(notification.dwNotifyCode) +
                          " nValue=" + std::to_string(notification.nValue) +
                          " dwValue=" + std::to_string(notification.dwValue);
    if (!notification.strOption.empty()) {
        strLine += " option=" + Quoted(notification.strOption);
    }
    return strLine + SenderText(notification);
}

std::string FormatLine(std::string const &strFormat, SessionEvent const &event,
                       Notification const &notification)
{
    std::string strLine;
    WalkFormat(
        strFormat, [&](std::string const &strText) { strLine += strText; },
        [&](Field const &field) {
            strLine += Showable(PlainText(field.pfnValue(event, notification)));
        });
    return strLine;
}

std::string FormatProblem(std::string const &strFormat)
{
    bool const bGood = WalkFormat(
        strFormat, [](std::string const &) {}, [](Field const &) {});
    return bGood ? ""
                 : "a % begins neither %% nor one of %{" + FieldNames(&Field::pszName, "") + "}";
}

std::string FormatFields()
{
    return FieldNames(&Field::pszName, "");
}

std::string EnvironmentNames()
{
    return FieldNames(&Field::pszVariable, "NOTIFY_");
}

std::string JsonLine(SessionEvent const &event)
{
    Json const object =
        std::visit([&](auto const &what) { return ObjectOf(event, what); }, event.what);
    return object.dump(-1, ' ', /*ensure_ascii=*/false, Json::error_handler_t::replace);
}

std::vector<std::pair<std::string, std::string>> EnvironmentOf(SessionEvent const &event,
                                                               Notification const &notification)
{
    std::vector<std::pair<std::string, std::string>> variables;
    for (Field const &field : kFields) {
        variables.emplace_back(std::string("NOTIFY_") + field.pszVariable,
                               PlainText(field.pfnValue(event, notification)));
    }
    return variables;
}

std::string ChangeText(LinkChange const &change)
{
    std::string const strReason = Showable(ReasonText(change));
    std::vector<std::string> entries;
    for (std::string const &strOption : change.rgstrOption) {
        entries.push_back(Quoted(strOption));
    }
    switch (change.eState) {
    case eSL_WAITING:
        return "waiting for the device at " + Showable(change.strAddress) + ": " + strReason;
    case eSL_CONNECTED:
        return "connected to " + Showable(change.strAddress) + ", subscribed to " +
               Listed(FlagNames(change.dwFlags)) + (entries.empty() ? "" : " with ") +
               Listed(entries);
    case eSL_LOST:
        return (change.dwResult == eDR_LINK_LOST ? "" : "the link is lost: ") + strReason;
    case eSL_INCOMPLETE:
        return "cannot subscribe to " + strReason;
    case eSL_RESTARTING:
        return "the listener was silenced: " + strReason + "; starting the link anew";
    case eSL_BACK:
        return "the link is back, subscribed again";
    }
    return {};
}

std::string DroppedText(DroppedEvents const &dropped)
{
    return std::to_string(dropped.cEvents) + " events were dropped, nobody took them in time";
}
