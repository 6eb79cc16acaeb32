#pragma once
/// @file
/// How it stands with a hub at one moment, for metrics, pages and the service's status line: copies, which belong
/// to whoever asked for them.
#include "hub/sink.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// One device.
struct HubDeviceStatus {
    HubDeviceState state;                          ///< "waiting" until something else is known
    std::chrono::system_clock::time_point tpSince; ///< when that began
    std::string strReason;                         ///< why, in words, or empty
    std::map<std::string, std::uint64_t>
        events; ///< how many were journalled, by type without prefix
    std::optional<std::chrono::system_clock::time_point> lastEvent; ///< of what was journalled

    // What the session has asked of the agent's own listener since it began.
    std::uint64_t cEchoes = 0;       ///< checks that were echoed
    std::uint64_t cEchoesMissed = 0; ///< checks that were not
    std::uint64_t cSilenced =
        0; ///< restarts, since the listener had ended or its filter hid what comes
};

/// One sink.
struct HubSinkStatus {
    std::string strName;
    std::string strKind;          ///< "exec", "webhook", …, as the settings have it
    std::uint64_t cDelivered = 0; ///< events that were taken, repeats counted
    std::uint64_t cRetries = 0;   ///< tries that came to eHO_LATER
    std::uint64_t cGivenUp = 0;   ///< refused, too old, or gone from the journal before their turn
    std::uint64_t cWaiting = 0;   ///< events of the journal that have not been looked at
    std::chrono::seconds oldest{0}; ///< how long the first of those has waited, 0 without any
    std::string strProblem;         ///< why the last try failed, empty after one that did not
    std::optional<std::chrono::system_clock::time_point> lastDelivered;
};

/// The journal.
struct HubJournalStatus {
    std::uint64_t cWritten = 0; ///< events, since the start
    std::uint64_t cCommits = 0; ///< transactions that they took
    std::uint64_t cWaiting = 0; ///< events in memory that are not on the disk yet
    std::uint64_t cDropped = 0; ///< events that never came to the disk
    std::uint64_t dwLast = 0;   ///< the place of the last event
    std::uint64_t cbSize = 0;   ///< of the database
    std::string strProblem;     ///< why it takes nothing, empty if it does
};

/// All of it.
struct HubStatus {
    std::string strSite;
    std::string strHub;
    bool bActive = true; ///< false: a standby that lets another hub do it
    std::chrono::system_clock::time_point tpStarted;
    std::vector<HubDeviceStatus> devices;
    std::vector<HubSinkStatus> sinks;
    HubJournalStatus journal;
};
