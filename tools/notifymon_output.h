#pragma once
/// @file
/// How notifymon shows events and names results.
#include "session/event_text.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

/// Why a discovery job could not be written to the target: the agent's result, and what a pipe tells.
std::string DiscoveryProblem(std::string const &strTarget, DWORD dwResult);

/// Showable text in quotes, with a backslash before quotes and backslashes.
std::string Quoted(std::string const &str);

/// One line for a person, without a line end, of showable characters alone.
std::string TextLine(Notification const &notification);

/// The same by a --format that FormatProblem has nothing to say against.
std::string FormatLine(std::string const &strFormat, SessionEvent const &event,
                       Notification const &notification);

/// What is wrong with a format, or nothing.
std::string FormatProblem(std::string const &strFormat);

/// The names of a format's fields, and those of a command's variables, with commas.
std::string FormatFields();
std::string EnvironmentNames();

/// The fields as NOTIFY_KIND, NOTIFY_CODE, … for the environment of a command.
std::vector<std::pair<std::string, std::string>> EnvironmentOf(SessionEvent const &event,
                                                               Notification const &notification);

/// What a person is told of a link's change or of dropped events, in showable characters.
std::string ChangeText(LinkChange const &change);
std::string DroppedText(DroppedEvents const &dropped);
