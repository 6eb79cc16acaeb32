#pragma once

// The commands of --exec.

#include "platform/lock.h"
#include "platform/process.h"
#include "session/session_event.h"

#include <list>
#include <string>

class CHooks {
public:
    /// strCommand: a line of the system's shell; empty for none.
    explicit CHooks(std::string strCommand) : m_strCommand(std::move(strCommand)) {}

    /// Runs the command for the notification, and waits for its end, 10 seconds at most. What there is to
    /// say about it goes to the standard error. One thread. Nothing after End.
    void Run(SessionEvent const &event, Notification const &notification);

    /// Ends the commands that still run, with all that they have started: asks them to, and by force when
    /// tpLimit comes. Waits until they have gone. Any thread.
    void End(SessionTime tpLimit);

    /// The same by force, at once. Any thread, another one's End notwithstanding.
    void Kill();

private:
    bool Start(CPlatCommand &command, SessionEvent const &event, Notification const &notification);
    void Sweep() PLAT_REQUIRES(m_mx);
    void Close();

    std::string const m_strCommand;
    CPlatMutex m_mx; // a leaf, held for moments only
    // Under the lock as well, until m_bEnded: then it stays as it is, and may be read without.
    std::list<CPlatCommand> m_running;
    bool m_bEnded PLAT_GUARDED_BY(m_mx) = false;
};
