#pragma once

// The commands of --exec.

#include "platform/process.h"
#include "session/session_event.h"

#include <list>
#include <mutex>
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
    void Sweep();
    void Close();

    std::string const m_strCommand;
    std::mutex
        m_mx; // guards what follows, held for moments only; once m_bEnded the list stays as it is
    std::list<CPlatCommand> m_running;
    bool m_bEnded = false;
};
