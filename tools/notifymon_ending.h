#pragma once

// How notifymon ends: at Ctrl-C or SIGTERM, when its time is up, or because its work is done; within a
// bound, whatever waits for whom.

#include "platform/lock.h"
#include "session/session_event.h"

#include <condition_variable>
#include <functional>
#include <thread>

/// One at a time in a process, since the console's handler has no argument. A thread of its own waits for
/// the request; what is left of the bound then is everybody else's.
class CEnding {
public:
    /// rTimeout: seconds until the end is asked for by itself, 0 for never.
    explicit CEnding(double rTimeout);
    ~CEnding();
    CEnding(CEnding const &) = delete;
    CEnding &operator=(CEnding const &) = delete;

    /// Who has to hear of the request, on the ending's own thread, with the time by which the program will
    /// have ended. Runs at once if the end has been asked for already. Empty: nobody any more, which waits
    /// for a call that is under way.
    void SetListener(std::function<void(SessionTime tpLimit)> fnOnEnd);

    /// What goes at once when there is no time left: before the program is ended by force.
    void SetLastAct(std::function<void()> fnLastAct);

    /// Asks for the end. With bAtOnce, and if that has been asked for before, the program ends then and
    /// there. What comes on the heels of the first request is the same one: shells and wrappers send a
    /// signal to the program and to its group.
    void Ask(bool bAtOnce);

    bool IsAsked() const;
    /// Whether it was the time that asked.
    bool IsTimedOut() const;
    /// By when the program will have ended; without a request, a whole bound from now.
    SessionTime Limit() const;

    /// Ends the process with the exit code, and leaves everything as it is. For a program that would have
    /// to wait for a device.
    [[noreturn]] static void Leave(int nExitCode);

private:
    void Run(double rTimeout);
    [[noreturn]] void EndByForce() PLAT_REQUIRES(m_mx);

    mutable CPlatMutex m_mx; // before what the listener and the last act take
    std::condition_variable m_cv;
    std::function<void(SessionTime)> m_fnOnEnd PLAT_GUARDED_BY(m_mx);
    std::function<void()> m_fnLastAct PLAT_GUARDED_BY(m_mx);
    bool m_bAsked PLAT_GUARDED_BY(m_mx) = false;
    bool m_bTimedOut PLAT_GUARDED_BY(m_mx) = false;
    bool m_bTelling PLAT_GUARDED_BY(m_mx) = false;
    bool m_bDone PLAT_GUARDED_BY(m_mx) = false;
    SessionTime m_tpLimit PLAT_GUARDED_BY(m_mx); // with m_bAsked
    std::thread m_thread;
};
