#pragma once
/// @file
/// What every operation of the agent begins and ends with: its mutex, and the edge where a memory
/// exception becomes a result code.
#include <new>

#include "platform/sync.h"

class CNotifyAgent;

/// Holds an agent's mutex (recursive, the first lock in the order) for a scope. It goes to those who wait
/// in the order in which they came, so that nobody waits for more than the operations before its own.
///
/// Who holds it may be waiting for callbacks, the clients' or the library's (see CAgentEnding), so a thread
/// inside one must not wait for it without a reason to end: it gives up as soon as an agent with this mutex
/// is being ended, and IsHeld says so. Inside the callback of any agent, as two that are being ended may
/// call each other's operations in theirs.
class CAgentLock {
public:
    /// @{
    /// Enters, or gives up; leaves if it has entered. On one thread the last one made is the first to go.
    explicit CAgentLock(HANDLE hMutex);
    ~CAgentLock();
    CAgentLock(CAgentLock const &) = delete;
    CAgentLock &operator=(CAgentLock const &) = delete;
    /// @}

    /// Whether the mutex was entered, so that the work may be done.
    bool IsHeld() const { return m_bHeld; }

private:
    bool IsHeldFurtherOut() const;
    bool Enter() const;

    HANDLE const m_hMutex;
    CAgentLock const *const m_pOuter; // the next one that this thread holds
    bool const m_bHeld;
};

/// Says for a scope, under pAgent's mutex, that this thread ends the agent's link and waits for callbacks in
/// doing so. Wakes the threads that must not wait for that mutex meanwhile.
class CAgentEnding {
public:
    /// @{
    /// Begins and ends the scope. pAgent has its link of its own, and no copy's.
    CAgentEnding(HANDLE hMutex, CNotifyAgent const *pAgent);
    ~CAgentEnding();
    CAgentEnding(CAgentEnding const &) = delete;
    CAgentEnding &operator=(CAgentEnding const &) = delete;
    /// @}

    /// False inside a callback that pAgent's own callback waits for, itself or by way of others: each would
    /// wait for the other, for ever.
    bool MayWait() const { return m_bMayWait; }

    /// What is known of it, for agent_lock.cpp.
    struct EntryType {
        HANDLE hMutex;                ///< of the agent that is being ended
        CNotifyAgent const *pAgent;   ///< whose callback is waited for
        CNotifyAgent const *pInside;  ///< whose callback the thread is inside, or null
        EntryType *m_pNext = nullptr; ///< in the list of all
    };

private:
    EntryType m_entry;
    bool m_bMayWait;
};

/// What an operation returns that has found no link: dwState, an answer of IsDeviceInitialized, but for one
/// that another thread's Init has changed since.
constexpr DWORD WithoutLink(DWORD dwState)
{
    return dwState == ERROR_ALREADY_INITIALIZED ? ERROR_NOT_CONNECTED : dwState;
}

/// Runs work, which returns a result code; an allocation that it could not have gives 8.
template <class Work>
DWORD CatchNoMemory(Work work)
{
    try {
        return work();
    } catch (std::bad_alloc const &) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

/// Runs work under the agent's mutex, if state, which is asked under it, says that the agent is connected;
/// returns that answer otherwise. The shape of every operation that needs a link.
template <class State, class Work>
DWORD RunConnected(HANDLE hMutex, State state, Work work)
{
    CAgentLock const lock(hMutex);
    DWORD const dwState = state();
    if (!lock.IsHeld() || dwState != ERROR_ALREADY_INITIALIZED) {
        return WithoutLink(dwState);
    }
    return CatchNoMemory(work);
}
