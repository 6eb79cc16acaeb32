#pragma once
/// @file
/// From what a session yields to the envelope that everybody else sees.
#include "hub/hub_event.h"
#include "session/session_event.h"

#include <array>
#include <cstdint>
#include <optional>
#include <random>
#include <string>

/// Identifiers of 26 letters and digits: 48 bits of time and 80 that nobody can guess, in the alphabet that has no
/// letters which look like digits. Sorted as text they are sorted by time, to the millisecond, and those of one
/// millisecond in the order of their making. One thread.
class CEventIds {
public:
    CEventIds();
    std::string Next(std::chrono::system_clock::time_point tp); ///< for an event of that time

private:
    std::mt19937_64 m_random;
    std::int64_t m_nLast = -1;             // milliseconds, of the last one
    std::array<std::uint16_t, 5> m_tail{}; // its 80 bits
};

/// Makes envelopes. One thread.
class CEnvelopes {
public:
    /// strSite is the first half of "source".
    explicit CEnvelopes(std::string strSite) : m_strSite(std::move(strSite)) {}

    /// The event with its envelope; it has no place yet. Nothing for what tells only what another event tells
    /// better: the agent's word that it has restarted a link, which is followed by link.back.
    std::optional<HubEvent> Make(SessionEvent const &event);

private:
    std::string const m_strSite;
    CEventIds m_ids;
};
