#pragma once
/// @file
/// What a hub says of its work, one line at a time.
#include <functional>
#include <string>

/// How much it matters, by the numbers of the system's journal.
enum HubLogLevel {
    eHL_ERROR = 3,   ///< something is lost, or about to be
    eHL_WARNING = 4, ///< something does not work, and is tried again
    eHL_NOTICE = 5,  ///< what somebody who looks after it wants to see
    eHL_INFO = 6,    ///< the rest
};

/// Called by any thread of the hub, several at once.
using HubLogFn = std::function<void(HubLogLevel, std::string const &strLine)>;
