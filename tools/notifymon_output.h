#pragma once
/*
 * How notifymon shows notifications and names results.
 */
#include "agent/QOMANoAg.h"

#include <string>
#include <utility>
#include <vector>

/* One notification, copied out of the record that the agent lends to the callback. */
struct Notification {
    CallbackType eType;
    DWORD dwNotifyCode;
    int nValue;
    DWORD dwValue;
    std::string strOption;
    std::string strSenderAddress;
    std::string strSenderName;
};

/* "eCT_SELECT_NOTIFY" and so on; "eCT_<number>" for a kind that this program does not know. */
std::string KindName(CallbackType eType);

/* A result code of the agent in words, with its number: "not connected (2250)". */
std::string ResultText(DWORD dwResult);

/* Showable text in quotes, with a backslash before quotes and backslashes. */
std::string Quoted(std::string const &str);

/* One line for a person, without a line end, of showable characters alone. */
std::string TextLine(Notification const &notification);

/* One JSON object, without a line end. Bytes that are not UTF-8 become U+FFFD. */
std::string JsonLine(Notification const &notification);

/* The fields as NOTIFY_KIND, NOTIFY_CODE, … for the environment of a command. */
std::vector<std::pair<std::string, std::string>> EnvironmentOf(Notification const &notification);
