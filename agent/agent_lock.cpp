#include "agent/agent_lock.h"

#include <condition_variable>

#include "agent/callback_qthread.h"
#include "agent/dol_callback.h"
#include "agent/stack_list.h"
#include "platform/check.h"
#include "platform/lock.h"

namespace {

// A thread that waits for an agent's mutex.
struct WaiterType {
    HANDLE hMutex;
    std::condition_variable cvLook; // it is first now, or an agent with this mutex is being ended
    WaiterType *m_pNext = nullptr;
};

using EndingType = CAgentEnding::EntryType;

// Of all agents. The lock is held for a walk through them. An agent's mutex is taken and released under it, and
// never waited for: the order of those who wait is that of the list.
CPlatMutex g_mtxGate;
CStackList<WaiterType> g_waiters PLAT_GUARDED_BY(g_mtxGate);
CStackList<EndingType> g_endings PLAT_GUARDED_BY(g_mtxGate);

thread_local CAgentLock const *t_pInnermost = nullptr;

WaiterType *FirstFor(HANDLE hMutex) PLAT_REQUIRES(g_mtxGate)
{
    return g_waiters.Find([&](WaiterType const &waiter) { return waiter.hMutex == hMutex; });
}

bool IsBeingEnded(HANDLE hMutex) PLAT_REQUIRES(g_mtxGate)
{
    return g_endings.Find([&](EndingType const &ending) { return ending.hMutex == hMutex; }) !=
           nullptr;
}

// Whether pAgent's callback waits for the callback of pInside: follows who waits for whom. No circle was ever let
// in, so the way has an end.
bool WaitsFor(CNotifyAgent const *pAgent, CNotifyAgent const *pInside) PLAT_REQUIRES(g_mtxGate)
{
    while (pAgent != nullptr && pAgent != pInside) {
        EndingType const *const pEnding =
            g_endings.Find([&](EndingType const &ending) { return ending.pInside == pAgent; });
        pAgent = pEnding != nullptr ? pEnding->pAgent : nullptr;
    }
    return pAgent != nullptr;
}

} // namespace

CAgentLock::CAgentLock(HANDLE hMutex) : m_hMutex(hMutex), m_pOuter(t_pInnermost), m_bHeld(Enter())
{
    if (m_bHeld) {
        t_pInnermost = this;
    }
}

CAgentLock::~CAgentLock()
{
    if (!m_bHeld) {
        return;
    }
    PLAT_CHECK(t_pInnermost == this);
    t_pInnermost = m_pOuter;
    CPlatGuard const gate(g_mtxGate);
    ReleaseMutex(m_hMutex);
    if (WaiterType *const pFirst = FirstFor(m_hMutex)) {
        pFirst->cvLook.notify_one();
    }
}

bool CAgentLock::IsHeldFurtherOut() const
{
    CAgentLock const *pLock = m_pOuter;
    while (pLock != nullptr && pLock->m_hMutex != m_hMutex) {
        pLock = pLock->m_pOuter;
    }
    return pLock != nullptr;
}

// A failed wait counts as entered: an agent whose mutex could not be had works without one.
bool CAgentLock::Enter() const
{
    if (IsHeldFurtherOut()) {
        WaitForSingleObject(m_hMutex, INFINITE);
        return true;
    }
    bool const bMayGiveUp = InDolRtlCallback() || CCallbackQThread::Calling() != nullptr;
    bool bHeld = false;
    WaiterType waiter{m_hMutex, {}};
    CPlatWaitGuard gate(g_mtxGate);
    g_waiters.Add(waiter);
    for (;;) {
        bHeld = FirstFor(m_hMutex) == &waiter && WaitForSingleObject(m_hMutex, 0) != WAIT_TIMEOUT;
        if (bHeld || (bMayGiveUp && IsBeingEnded(m_hMutex))) {
            break;
        }
        waiter.cvLook.wait(gate.Native());
    }
    g_waiters.Remove(waiter);
    return bHeld; // who gives up wakes nobody: who ends an agent has its mutex, and releases it
}

CAgentEnding::CAgentEnding(HANDLE hMutex, CNotifyAgent const *pAgent)
    : m_entry{hMutex, pAgent, CCallbackQThread::Calling()}
{
    CPlatGuard const gate(g_mtxGate);
    m_bMayWait = m_entry.pInside == nullptr || !WaitsFor(pAgent, m_entry.pInside);
    if (!m_bMayWait) {
        return;
    }
    g_endings.Add(m_entry);
    g_waiters.Find([&](WaiterType &waiter) { // all of them: the callbacks may stand anywhere
        if (waiter.hMutex == hMutex) {
            waiter.cvLook.notify_one();
        }
        return false;
    });
}

CAgentEnding::~CAgentEnding()
{
    if (m_bMayWait) {
        CPlatGuard const gate(g_mtxGate);
        g_endings.Remove(m_entry);
    }
}
