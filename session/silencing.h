#pragma once

// What keeps an agent's listener from hearing its device: an empty datagram ends it, and one with a high number has
// its filter hold back all that the device sends from then on. A restart of the link makes it hear again.

#include "platform/lock.h"
#include "session/growing_pause.h"

#include <optional>
#include <string>

/// The numbers that the listener has taken, and how it was silenced, if it was. Any thread.
class CSilencing {
public:
    /// A datagram of that number has passed the agent's filter, which from now on holds back everything that has no
    /// higher one; bOurs: its text is what our device would send. Whether the number hides the device's own.
    bool Hides(DWORD dwSequence, bool bOurs);

    /// The listener is silenced, in that way. False if that is known already.
    bool Note(std::string strHow);

    /// When the link is to be started anew, if it is.
    std::optional<SessionTime> RestartAt() const;

    /// The link is started anew now: why, if it is to be. It stays noted until Forget.
    std::optional<std::string> BeginRestart();

    /// The agent's filter has begun anew.
    void Forget();

private:
    struct Silenced {
        std::string strHow;
        SessionTime tpRestart;
    };

    mutable CPlatMutex m_mx; // a leaf
    std::optional<Silenced> m_silenced PLAT_GUARDED_BY(m_mx);
    CGrowingPause m_pause PLAT_GUARDED_BY(m_mx);
    SessionTime m_tpLastRestart PLAT_GUARDED_BY(m_mx);
    DWORD m_dwLastSequence PLAT_GUARDED_BY(m_mx) = 0; // of a pick of ours, since the last connect
};
