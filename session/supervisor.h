#pragma once

// The threads of all sessions of a process.

#include "platform/lock.h"
#include "session/session_event.h"

#include <condition_variable>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

/// What a supervisor looks after: work that is done in steps.
class CSupervised {
public:
    virtual ~CSupervised() = default;

    /// Does what is due, which may take as long as a few calls of the access library. Returns when the
    /// next step is due, SessionTime::max() for only when it is woken, or nothing when the work is over.
    /// One step of an object runs at a time, on any thread of the supervisor. Must not let an
    /// exception out.
    virtual std::optional<SessionTime> Step() = 0;
};

/// One thread waits for whatever is due next, and does it. While it is busy another one waits, so that a
/// device that keeps a step waiting holds up nobody else: as long as no step blocks, there are two
/// threads at most, however many sessions there are.
class CSupervisor {
public:
    /// cMaxThreads: how many steps can be under way at once; 1 or more. Starts the first thread;
    /// throws std::system_error when there can be none.
    explicit CSupervisor(std::size_t cMaxThreads = 32);

    /// Waits until all work is over, without a limit of its own. Whoever gave it to us has asked for its
    /// end before.
    ~CSupervisor();

    CSupervisor(CSupervisor const &) = delete;
    CSupervisor &operator=(CSupervisor const &) = delete;

    /// Takes the work on; its first step is due at once. Any thread.
    void Add(std::shared_ptr<CSupervised> pWork);

    /// Makes the next step of the work due at once; while one is running, right behind it. Nothing
    /// happens when the work is over. Any thread, a step's own included.
    void Wake(CSupervised const *pWork);

private:
    struct Entry {
        std::shared_ptr<CSupervised> pWork;
        SessionTime tpDue;
        bool bRunning = false;
        bool bWoken = false; // while it ran
    };
    using Due = std::pair<SessionTime, CSupervised const *>;

    void RunThread();
    void RunStep(CSupervised const *pKey) PLAT_REQUIRES(m_mx);
    void SetDue(Entry &entry, SessionTime tpDue) PLAT_REQUIRES(m_mx);
    void SeeThatOneWaits() PLAT_REQUIRES(m_mx);

    std::size_t const m_cMaxThreads;
    CPlatMutex m_mx; // a leaf, never held during a step
    std::condition_variable m_cv;
    std::map<CSupervised const *, Entry> m_work PLAT_GUARDED_BY(m_mx);
    std::set<Due> m_due PLAT_GUARDED_BY(m_mx); // the work that no step runs of
    std::vector<std::thread> m_threads PLAT_GUARDED_BY(m_mx);
    std::size_t m_cWaiting PLAT_GUARDED_BY(m_mx) = 0; // threads that no step keeps busy
    bool m_bEnding PLAT_GUARDED_BY(m_mx) = false;
};
