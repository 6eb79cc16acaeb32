#pragma once

// Events for programs and people: as JSON, field by field, and results in words. Any thread.

#include "session/session_event.h"

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <vector>

using EventJson = nlohmann::ordered_json;

/// One field of a notification.
struct EventField {
    char const *pszName;     ///< in JSON and formats
    char const *pszVariable; ///< behind NOTIFY_
    /// Its value: a text, a number or null.
    EventJson (*pfnValue)(SessionEvent const &event, Notification const &notification);
};

/// All of them, in the order in which they are shown.
std::span<EventField const> EventFields();

/// The event as one object: "kind", "time", "device" and what its kind has. An answer to a discovery job has two
/// fields more than other notifications.
EventJson ObjectOf(SessionEvent const &event);

/// An object as one line. Bytes that are not UTF-8 become U+FFFD.
std::string LineOf(EventJson const &object);

/// ObjectOf as one line.
std::string JsonLine(SessionEvent const &event);

/// "eCT_SELECT_NOTIFY"
std::string KindName(CallbackType eType);

/// RFC 3339, in UTC, with milliseconds.
std::string TimeText(std::chrono::system_clock::time_point tp);

/// "waiting", "connected", "lost", "incomplete", "restarting" or "back".
char const *StateName(LinkStateType eState);

/// The names of the eNF_ bits, as command lines have them.
std::vector<std::string> FlagNames(DWORD dwFlags);

/// Why the link's state has changed, in words: a result, what happened, or both.
std::string ReasonText(LinkChange const &change);

/// A result code of the agent in words, with its number: "not connected (2250)".
std::string ResultText(DWORD dwResult);
