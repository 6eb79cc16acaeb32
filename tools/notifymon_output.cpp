#include "tools/notifymon_output.h"

#include "dolrtl/QOMADolC.h"
#include "platform/fifo.h"
#include "tools/showable.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace {

std::string PlainText(EventJson const &value)
{
    return value.is_string() ? value.get<std::string>() : value.is_null() ? "" : value.dump();
}

std::string FieldNames(char const *EventField::*pszName, char const *pszPrefix)
{
    std::string strNames;
    for (EventField const &field : EventFields()) {
        strNames += (strNames.empty() ? "" : ", ") + (pszPrefix + std::string(field.*pszName));
    }
    return strNames;
}

// The field that a format names at n, "%{name}", and how long that is there; null if it names none.
EventField const *FieldAt(std::string const &strFormat, std::size_t n, std::size_t *pcb)
{
    for (EventField const &field : EventFields()) {
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
        } else if (EventField const *const pField = FieldAt(strFormat, n, &cb)) {
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

std::string Listed(std::vector<std::string> const &texts)
{
    std::string strList;
    for (std::string const &strText : texts) {
        strList += (strList.empty() ? "" : ", ") + strText;
    }
    return strList;
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
        [&](EventField const &field) {
            strLine += Showable(PlainText(field.pfnValue(event, notification)));
        });
    return strLine;
}

std::string FormatProblem(std::string const &strFormat)
{
    bool const bGood = WalkFormat(
        strFormat, [](std::string const &) {}, [](EventField const &) {});
    return bGood
               ? ""
               : "a % begins neither %% nor one of %{" + FieldNames(&EventField::pszName, "") + "}";
}

std::string FormatFields()
{
    return FieldNames(&EventField::pszName, "");
}

std::string EnvironmentNames()
{
    return FieldNames(&EventField::pszVariable, "NOTIFY_");
}

std::vector<std::pair<std::string, std::string>> EnvironmentOf(SessionEvent const &event,
                                                               Notification const &notification)
{
    std::vector<std::pair<std::string, std::string>> variables;
    for (EventField const &field : EventFields()) {
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
