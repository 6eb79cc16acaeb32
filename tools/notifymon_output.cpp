#include "tools/notifymon_output.h"

#include "dolrtl/QOMADolC.h"
#include "tools/showable.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace {

struct ResultName {
    DWORD dwResult;
    char const *pszName;
};

/* Where a number means one thing to the agent and another to the access library, both are said. */
constexpr std::array kResultNames{
    ResultName{0, "no error"},
    ResultName{eDR_REFUSED, "the device refused"},
    ResultName{8, "not enough memory"},
    ResultName{eDR_BAD_ANSWER, "the device's answer makes no sense"},
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

std::string JsonLine(Notification const &notification)
{
    nlohmann::ordered_json const object{
        {"kind", KindName(notification.eType)},
        {"notifyCode", notification.dwNotifyCode},
        {"nValue", notification.nValue},
        {"dwValue", notification.dwValue},
        {"option", notification.strOption},
        {"senderAddress", notification.strSenderAddress},
        {"senderName", notification.strSenderName},
    };
    return object.dump(-1, ' ', /*ensure_ascii=*/false,
                       nlohmann::ordered_json::error_handler_t::replace);
}

std::vector<std::pair<std::string, std::string>> EnvironmentOf(Notification const &notification)
{
    return {
        {"NOTIFY_KIND", KindName(notification.eType)},
        {"NOTIFY_CODE", std::to_string(notification.dwNotifyCode)},
        {"NOTIFY_NVALUE", std::to_string(notification.nValue)},
        {"NOTIFY_DWVALUE", std::to_string(notification.dwValue)},
        {"NOTIFY_OPTION", notification.strOption},
        {"NOTIFY_SENDER_ADDRESS", notification.strSenderAddress},
        {"NOTIFY_SENDER_NAME", notification.strSenderName},
    };
}
