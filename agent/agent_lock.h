#pragma once
/*
 * What every operation of the agent begins and ends with: its mutex, and the edge where a memory
 * exception becomes a result code.
 */
#include <atomic>
#include <new>

#include "platform/sync.h"

class CDolRtl;
class CNotifyAgent;

/* How long a thread that must not wait for ever sleeps between two looks at the link. */
constexpr DWORD kLinkLookMs = 20; /* ms */

/*
 * Holds an agent's mutex (recursive, the first lock in the order) for a scope. Two kinds of callers
 * must not wait for it without a limit, since Shutdown holds it while it waits for them: the client's
 * callback, which Shutdown waits for, and a restart on the library's thread, which the destructor of
 * the access object waits for. They name the link, which Shutdown has cleared before it begins to wait:
 * once it is null they give up, and IsHeld says so.
 */
class CAgentLock {
public:
    /* pWhileLinked: null to wait without a limit. */
    explicit CAgentLock(HANDLE hMutex, std::atomic<CDolRtl *> const *pWhileLinked = nullptr)
        : m_hMutex(hMutex), m_bHeld(Enter(pWhileLinked))
    {
    }
    ~CAgentLock()
    {
        if (m_bHeld) {
            ReleaseMutex(m_hMutex);
        }
    }
    CAgentLock(CAgentLock const &) = delete;
    CAgentLock &operator=(CAgentLock const &) = delete;

    /* Whether the mutex was entered, so that the work may be done. */
    bool IsHeld() const { return m_bHeld; }

private:
    /* A failed wait counts as entered: an agent whose mutex could not be had works without one. */
    bool Enter(std::atomic<CDolRtl *> const *pWhileLinked) const
    {
        if (pWhileLinked == nullptr) {
            WaitForSingleObject(m_hMutex, INFINITE);
            return true;
        }
        while (WaitForSingleObject(m_hMutex, kLinkLookMs) == WAIT_TIMEOUT) {
            if (*pWhileLinked == nullptr) {
                return false;
            }
        }
        return true;
    }

    HANDLE const m_hMutex;
    bool const m_bHeld;
};

/* Runs work, which returns a result code; an allocation that it could not have gives 8. */
template <class Work>
DWORD CatchNoMemory(Work work)
{
    try {
        return work();
    } catch (std::bad_alloc const &) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

/*
 * Runs work under the agent's mutex, if state, which is asked under it, says that the agent is connected;
 * returns that answer otherwise. The shape of every operation that needs a link.
 */
template <class State, class Work>
DWORD RunConnected(HANDLE hMutex, std::atomic<CDolRtl *> const *pWhileLinked, State state,
                   Work work)
{
    CAgentLock const lock(hMutex, pWhileLinked);
    DWORD const dwState = state();
    if (!lock.IsHeld() || dwState != ERROR_ALREADY_INITIALIZED) {
        return dwState;
    }
    return CatchNoMemory(work);
}
