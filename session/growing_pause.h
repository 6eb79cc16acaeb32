#pragma once

#include "session/session_event.h"

#include <algorithm>
#include <chrono>

/// Pauses between tries: each is twice as long as the one before it, up to a limit.
class CGrowingPause {
public:
    /// The first one, and any that does not grow.
    static constexpr std::chrono::milliseconds kFirst{500};

    /// When the next try is due.
    SessionTime Next()
    {
        auto const pause = m_next;
        m_next = std::min(m_next * 2, kLongest);
        return SessionClock::now() + pause;
    }
    void Reset() { m_next = kFirst; } ///< the next one is the first again

private:
    static constexpr std::chrono::milliseconds kLongest{30000};
    std::chrono::milliseconds m_next = kFirst;
};
