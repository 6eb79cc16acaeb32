#pragma once

// A run of notifymon: sessions, and what is done with their events.

#include "platform/lock.h"
#include "session/session.h"
#include "session/supervisor.h"
#include "tools/notifymon_diagnostics.h"
#include "tools/notifymon_ending.h"
#include "tools/notifymon_hooks.h"
#include "tools/notifymon_options.h"

#include <list>
#include <memory>

/// Sessions that are started, and ended within the bound of the program's end.
class CSessions {
public:
    /// Both outlive the object, and so does `hooks`, whose commands go with the sessions.
    CSessions(CEnding &ending, CHooks &hooks);
    /// End has to have been called.
    ~CSessions();
    CSessions(CSessions const &) = delete;
    CSessions &operator=(CSessions const &) = delete;

    CSession &Start(SessionOptions const &options);
    CEventQueue &Events() { return *m_pEvents; }

    /// Ends them all. A device that does not answer in time is told of, and the program left with the exit
    /// code, since there would be more to wait for.
    void End(int nExitCode);

private:
    void AskForEnd(SessionTime tpLimit);

    CEnding &m_ending;
    CHooks &m_hooks;
    std::shared_ptr<CEventQueue> const m_pEvents = std::make_shared<CEventQueue>(kEventLimit);
    CSupervisor m_supervisor;
    CPlatMutex m_mx; // of the list while it grows, which the thread that lets it grow reads without
    std::list<std::pair<std::string, CSession>> m_sessions;
};

/// Does the whole run. The exit code.
int RunMonitor(Options const &options, CDiagnostics &diagnostics, CEnding &ending);
