#include "platform/sync.h"

#include "platform/posix/kernel/futex.h"
#include "platform/posix/kernel/named.h"
#include "platform/posix/kernel/slot.h"

// Mutexes and events without a name live in their slot alone. What is free or set is taken with one
// compare-and-swap; only who must sleep or wake somebody takes the slot's lock. The waiters of an event
// are released one by one in their order, each by its own word, so that a SetEvent is never spent
// on a waiter that has not run yet. A mutex goes to whoever comes first, since handing it to a
// sleeper makes every other thread wait for that one to be scheduled.

#include <sched.h>

namespace {

// A sleep that was not worth its two switches.
constexpr std::int64_t knsBriskSleep = 50'000;

// A waiter that lost the race for a released mutex so often gets it handed over.
constexpr std::uint32_t kcMaxLost = 2;

std::int64_t MonotonicNs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

BOOL Fail(DWORD dwError)
{
    SetLastError(dwError);
    return FALSE;
}

DWORD FailWait(DWORD dwError)
{
    SetLastError(dwError);
    return WAIT_FAILED;
}

bool IsEvent(EHandleKind eKind)
{
    return eKind == eHK_EVENT_AUTO || eKind == eHK_EVENT_MANUAL;
}

// What a signalled slot's word becomes when a waiter takes its signal. A mutex's owner holds a
// reference, so that its slot is not used again while it is on a thread's list.
SlotWord TakenFrom(SlotWord sw)
{
    switch (SlotKindOf(sw)) {
    case eHK_MUTEX:
        return (sw & ~kswSignalled) + 1;
    case eHK_EVENT_AUTO:
        return sw & ~kswSignalled;
    default:
        return sw; // stays signalled for all
    }
}

// Tries to take the signal for as long as the bits in swMask stay what they were in sw, which comes
// back as last seen.
bool TryTake(CHandleSlot &slot, SlotWord &sw, SlotWord swMask)
{
    SlotWord const swIdentity = sw & swMask;
    while ((sw & kswSignalled) != 0 && (sw & swMask) == swIdentity) {
        SlotWord const swTaken = TakenFrom(sw);
        if (swTaken == sw ||
            slot.m_word.compare_exchange_weak(sw, swTaken, std::memory_order_acquire,
                                              std::memory_order_acquire)) {
            return true;
        }
    }
    return false;
}

void Push(CHandleSlot &slot, CWaitNode &node) PLAT_REQUIRES(slot.m_lock)
{
    // One that was woken in vain goes back to its place at the head.
    bool const fFront = node.m_cLost > 0;
    node.m_pPrev = fFront ? nullptr : slot.m_pLastWaiter;
    node.m_pNext = fFront ? slot.m_pFirstWaiter : nullptr;
    (node.m_pPrev ? node.m_pPrev->m_pNext : slot.m_pFirstWaiter) = &node;
    (node.m_pNext ? node.m_pNext->m_pPrev : slot.m_pLastWaiter) = &node;
}

void Remove(CHandleSlot &slot, CWaitNode &node) PLAT_REQUIRES(slot.m_lock)
{
    PLAT_CHECK((node.m_pPrev ? node.m_pPrev->m_pNext : slot.m_pFirstWaiter) == &node);
    PLAT_CHECK((node.m_pNext ? node.m_pNext->m_pPrev : slot.m_pLastWaiter) == &node);
    (node.m_pPrev ? node.m_pPrev->m_pNext : slot.m_pFirstWaiter) = node.m_pNext;
    (node.m_pNext ? node.m_pNext->m_pPrev : slot.m_pLastWaiter) = node.m_pPrev;
    if (!slot.m_pFirstWaiter) {
        slot.m_word.fetch_and(~kswWaiters, std::memory_order_relaxed);
    }
}

// Takes the first waiter off the list and tells it eState; its word is to be woken after the lock.
std::atomic<std::uint32_t> *Dismiss(CHandleSlot &slot, std::uint32_t eState)
    PLAT_REQUIRES(slot.m_lock)
{
    PLAT_CHECK(slot.m_pFirstWaiter != nullptr);
    CWaitNode &node = *slot.m_pFirstWaiter;
    Remove(slot, node);
    node.m_state.store(eState, std::memory_order_release); // from here the node may be gone
    return &node.m_state;
}

bool TakeOrEnqueue(CHandleSlot &slot, CWaitNode &node)
{
    CPlatGuard guard(slot.m_lock);
    SlotWord sw = slot.m_word.load(std::memory_order_acquire);
    for (;;) {
        if (TryTake(slot, sw, /*swMask=*/0)) {
            return true;
        }
        // In one step with the look at the signal: who signals after this sees a waiter.
        if (slot.m_word.compare_exchange_weak(sw, sw | kswWaiters, std::memory_order_acquire,
                                              std::memory_order_acquire)) {
            break;
        }
    }
    node.m_state.store(CWaitNode::eWN_WAITING, std::memory_order_relaxed);
    Push(slot, node);
    return false;
}

// The deadline has come: off the list, unless the waiter was dismissed meanwhile.
bool Withdraw(CHandleSlot &slot, CWaitNode &node)
{
    CPlatGuard guard(slot.m_lock);
    if (node.m_state.load(std::memory_order_acquire) != CWaitNode::eWN_WAITING) {
        return false;
    }
    Remove(slot, node);
    return true;
}

bool SleepUntilTaken(CHandleSlot &slot, DWORD dwMilliseconds)
{
    CPlatDeadline const deadline(dwMilliseconds);
    CWaitNode node;
    while (!TakeOrEnqueue(slot, node)) {
        if (!PlatFutexWait(node.m_state, CWaitNode::eWN_WAITING, deadline) &&
            Withdraw(slot, node)) {
            return false;
        }
        if (node.m_state.load(std::memory_order_acquire) == CWaitNode::eWN_GRANTED) {
            return true;
        }
        ++node.m_cLost;
    }
    return true;
}

// Where others share the core, the one that a thread waits for is often among them: to give way once can
// save the sleep and the wake-up.
bool TakeAfterYield(CHandleSlot &slot)
{
    ::sched_yield();
    SlotWord sw = slot.m_word.load(std::memory_order_acquire);
    return TryTake(slot, sw, /*swMask=*/0);
}

// Signals an event or a thread's end. Behind the slot's lock the caller wakes the one whose word comes
// back, if any: woken before, it might run at once, and want the lock.
std::atomic<std::uint32_t> *DismissReleased(CHandleSlot &slot)
{
    std::atomic<std::uint32_t> *pWake = nullptr;
    CPlatGuard guard(slot.m_lock);
    bool const fAll = SlotKindOf(slot.m_word.load(std::memory_order_relaxed)) != eHK_EVENT_AUTO;
    if (fAll || !slot.m_pFirstWaiter) {
        slot.m_word.fetch_or(kswSignalled, std::memory_order_release);
    }
    while (slot.m_pFirstWaiter) {
        if (pWake) {
            PlatFutexWake(pWake, 1);
        }
        pWake = Dismiss(slot, CWaitNode::eWN_GRANTED);
        if (!fAll) {
            break;
        }
    }
    return pWake;
}

void ReleaseOwned(CHandleSlot &slot);

void AbandonSlot(COwnedLock &lock)
{
    auto &slot = static_cast<CHandleSlot &>(lock);
    slot.m_fAbandoned = true;
    ReleaseOwned(slot);
}

// The caller has just taken the signal.
DWORD Taken(CHandleSlot &slot, EHandleKind eKind)
{
    if (eKind != eHK_MUTEX) {
        return WAIT_OBJECT_0;
    }
    slot.Own(&AbandonSlot);
    bool const fAbandoned = slot.m_fAbandoned;
    slot.m_fAbandoned = false;
    return fAbandoned ? WAIT_ABANDONED : WAIT_OBJECT_0;
}

// With waiters: lets the mutex go and wakes one, or hands it over together with the owner's reference.
void ReleaseToWaiter(CHandleSlot &slot)
{
    std::atomic<std::uint32_t> *pWake = nullptr;
    bool fHandOver = false;
    {
        CPlatGuard guard(slot.m_lock);
        fHandOver = slot.m_pFirstWaiter && slot.m_pFirstWaiter->m_cLost >= kcMaxLost;
        if (!fHandOver) {
            slot.m_word.fetch_or(kswSignalled, std::memory_order_release);
        }
        if (slot.m_pFirstWaiter) {
            pWake = Dismiss(slot, fHandOver ? CWaitNode::eWN_GRANTED : CWaitNode::eWN_RETRY);
        }
    }
    if (pWake) {
        PlatFutexWake(pWake, 1);
    }
    if (!fHandOver) {
        PlatHandleRelease(&slot);
    }
}

void LetGo(CHandleSlot &slot)
{
    SlotWord sw = slot.m_word.load(std::memory_order_relaxed);
    while ((sw & kswWaiters) == 0) {
        if (slot.m_word.compare_exchange_weak(sw, (sw | kswSignalled) - 1,
                                              std::memory_order_acq_rel,
                                              std::memory_order_relaxed)) {
            if ((sw & kswRefs) == 1) {
                SlotDestroy(slot);
            }
            return;
        }
    }
    ReleaseToWaiter(slot);
}

// The last hold is gone: the mutex is free, and the owner's reference goes.
void ReleaseOwned(CHandleSlot &slot)
{
    CThreadState &thread = t_plThread;
    bool const fWake = thread.m_pWakeBehind == &slot;
    LetGo(slot);
    if (!fWake) {
        return;
    }
    thread.m_pWakeBehind = nullptr;
    PlatFutexWake(thread.m_pWake, 1);
}

// Sets the event behind the handle; the last sleeper that this releases, mostly the only one, is left for
// the caller to wake.
BOOL SetAndDismiss(HANDLE hEvent, std::atomic<std::uint32_t> *&pWake)
{
    CHandleSlot *pSlot = SlotOf(hEvent);
    SlotWord sw = pSlot ? pSlot->m_word.load(std::memory_order_relaxed) : 0;
    // Written also when it is set already: what the caller did before must be seen by the waiter.
    while (IsOpenAs(sw, hEvent) && IsEvent(SlotKindOf(sw)) && (sw & kswWaiters) == 0) {
        if (pSlot->m_word.compare_exchange_weak(sw, sw | kswSignalled, std::memory_order_release,
                                                std::memory_order_relaxed)) {
            return TRUE;
        }
    }
    if (!IsEvent(SlotKindOf(sw))) {
        CHandleRef<CNamedEvent> event(hEvent);
        return event && event->Set();
    }
    pSlot = PlatHandleHold(hEvent, SlotKindOf(sw));
    if (!pSlot) {
        return FALSE;
    }
    pWake = DismissReleased(*pSlot);
    PlatHandleRelease(pSlot);
    return TRUE;
}

DWORD WaitOnObject(HANDLE hObject, DWORD dwMilliseconds)
{
    CHandleSlot *pSlot = SlotHoldAny(hObject);
    if (!pSlot) {
        return WAIT_FAILED;
    }
    CHandleObject *pObject = PlatHandleObject(pSlot);
    DWORD const dwResult =
        pObject ? pObject->Wait(dwMilliseconds) : SlotWait(*pSlot, dwMilliseconds);
    PlatHandleRelease(pSlot);
    return dwResult;
}

HANDLE CreateUnnamed(EHandleKind eKind, bool fSignalled, bool fOwned)
{
    HANDLE hObject = nullptr;
    CHandleSlot *pSlot = SlotOpen(eKind, fSignalled ? kswSignalled : 0, /*cRefs=*/fOwned ? 2 : 1,
                                  /*pObject=*/nullptr, &hObject);
    if (!pSlot) {
        return nullptr;
    }
    if (fOwned) {
        Taken(*pSlot, eKind);
    }
    SetLastError(NO_ERROR);
    return hObject;
}

} // namespace

DWORD SlotWait(CHandleSlot &slot, DWORD dwMilliseconds)
{
    SlotWord sw = slot.m_word.load(std::memory_order_acquire);
    EHandleKind const eKind = SlotKindOf(sw); // held, so it stays
    if (TryTake(slot, sw, /*swMask=*/0)) {
        return Taken(slot, eKind);
    }
    if (dwMilliseconds == 0) {
        return WAIT_TIMEOUT;
    }
    // Only while one thing follows another: for a thread that mostly waits for long it would be one more
    // turn in front of those who have work.
    if (t_plThread.m_fBrisk && TakeAfterYield(slot)) {
        return Taken(slot, eKind);
    }
    std::int64_t const nsStart = MonotonicNs();
    bool const fTaken = SleepUntilTaken(slot, dwMilliseconds);
    t_plThread.m_fBrisk = MonotonicNs() - nsStart < knsBriskSleep;
    return fTaken ? Taken(slot, eKind) : WAIT_TIMEOUT;
}

void SlotSignal(CHandleSlot &slot)
{
    if (std::atomic<std::uint32_t> *pWake = DismissReleased(slot)) {
        PlatFutexWake(pWake, 1);
    }
}

HANDLE WINAPI CreateMutexA(LPSECURITY_ATTRIBUTES /*pAttributes*/, BOOL fInitialOwner,
                           LPCSTR pszName)
{
    if (pszName && *pszName) {
        return CNamedMutex::Create(pszName, fInitialOwner != FALSE);
    }
    return CreateUnnamed(eHK_MUTEX, /*fSignalled=*/!fInitialOwner,
                         /*fOwned=*/fInitialOwner != FALSE);
}

HANDLE WINAPI OpenMutexA(DWORD dwAccess, BOOL /*fInherit*/, LPCSTR pszName)
{
    return CNamedMutex::Open(pszName, dwAccess);
}

BOOL WINAPI ReleaseMutex(HANDLE hMutex)
{
    CHandleSlot *pSlot = SlotOf(hMutex);
    SlotWord const sw = pSlot ? pSlot->m_word.load(std::memory_order_relaxed) : 0;
    if (!IsOpenAs(sw, hMutex) || SlotKindOf(sw) != eHK_MUTEX) {
        CHandleRef<CNamedMutex> mutex(hMutex);
        return mutex && mutex->Release();
    }
    // The owner's reference keeps the slot what it is, so no more need be held here.
    if (!pSlot->IsMine()) {
        return Fail(ERROR_NOT_OWNER);
    }
    if (pSlot->Leave()) {
        ReleaseOwned(*pSlot);
    }
    return TRUE;
}

HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES /*pAttributes*/, BOOL fManualReset,
                           BOOL fInitialState, LPCSTR pszName)
{
    if (pszName && *pszName) {
        return CNamedEvent::Create(pszName, fManualReset != FALSE, fInitialState != FALSE);
    }
    return CreateUnnamed(fManualReset ? eHK_EVENT_MANUAL : eHK_EVENT_AUTO, fInitialState != FALSE,
                         /*fOwned=*/false);
}

HANDLE WINAPI OpenEventA(DWORD dwAccess, BOOL /*fInherit*/, LPCSTR pszName)
{
    return CNamedEvent::Open(pszName, dwAccess);
}

BOOL WINAPI SetEvent(HANDLE hEvent)
{
    std::atomic<std::uint32_t> *pWake = nullptr;
    BOOL const fSet = SetAndDismiss(hEvent, pWake);
    if (pWake) {
        PlatFutexWake(pWake, 1);
    }
    return fSet;
}

BOOL PlatSetEventBehind(HANDLE hEvent, HANDLE hMutex)
{
    CHandleSlot *pMutex = SlotOf(hMutex);
    CThreadState &thread = t_plThread;
    // Held once: the release to come is this caller's, and nobody further out waits for the sleeper before.
    bool const fBehind = pMutex &&
                         IsOpenAs(pMutex->m_word.load(std::memory_order_relaxed), hMutex) &&
                         pMutex->IsMineOnce() && !thread.m_pWakeBehind;
    if (!fBehind) {
        return SetEvent(hEvent);
    }
    thread.m_pWake = nullptr;
    BOOL const fSet = SetAndDismiss(hEvent, thread.m_pWake);
    if (thread.m_pWake) {
        thread.m_pWakeBehind = pMutex;
    }
    return fSet;
}

BOOL WINAPI ResetEvent(HANDLE hEvent)
{
    CHandleSlot *pSlot = SlotOf(hEvent);
    SlotWord sw = pSlot ? pSlot->m_word.load(std::memory_order_relaxed) : 0;
    while (IsOpenAs(sw, hEvent) && IsEvent(SlotKindOf(sw))) {
        if (pSlot->m_word.compare_exchange_weak(sw, sw & ~kswSignalled, std::memory_order_acq_rel,
                                                std::memory_order_relaxed)) {
            return TRUE;
        }
    }
    CHandleRef<CNamedEvent> event(hEvent);
    return event && event->Reset();
}

DWORD WINAPI WaitForSingleObject(HANDLE hObject, DWORD dwMilliseconds)
{
    CHandleSlot *pSlot = SlotOf(hObject);
    SlotWord sw = pSlot ? pSlot->m_word.load(std::memory_order_acquire) : 0;
    if (!IsOpenAs(sw, hObject)) {
        return FailWait(ERROR_INVALID_HANDLE);
    }
    EHandleKind const eKind = SlotKindOf(sw);
    if (eKind == eHK_MUTEX && pSlot->Reenter()) {
        return WAIT_OBJECT_0;
    }
    if (eKind == eHK_MUTEX || IsEvent(eKind)) {
        if (TryTake(*pSlot, sw, kswOpen | kswKind | kswGeneration)) {
            return Taken(*pSlot, eKind);
        }
    }
    return WaitOnObject(hObject, dwMilliseconds);
}

void WINAPI Sleep(DWORD dwMilliseconds)
{
    if (dwMilliseconds == 0) {
        sched_yield();
        return;
    }
    CPlatDeadline const deadline(dwMilliseconds);
    if (!deadline.Time()) {
        for (;;) {
            pause();
        }
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, deadline.Time(), nullptr) == EINTR) {
    }
}

DWORD WINAPI SleepEx(DWORD dwMilliseconds, BOOL /*fAlertable*/)
{
    Sleep(dwMilliseconds);
    return 0;
}
