#include "platform/posix/kernel/named.h"

#include "platform/posix/error.h"
#include "platform/posix/kernel/futex.h"
#include "platform/posix/kernel/named_page.h"
#include <climits>
#include <memory>
#include <new>

namespace {

// A waiter of a shared auto-reset event can be killed between being woken and taking the signal. The
// others look again after this time, in milliseconds.
constexpr DWORD kdwRecheck = 1000;
// A killed owner wakes nobody, and a waiter may be killed between being woken and taking the mutex: the
// others look this often, in milliseconds.
constexpr DWORD kdwRecheckOwner = 50;
// A holder in another process is mostly done within this many looks (a line written to a log).
constexpr int kcSpin = 100;

// The rights that a request amounts to; generic ones as they are mapped for mutexes and events.
DWORD GrantedAccess(DWORD dwAccess, DWORD dwAll)
{
    if ((dwAccess & (GENERIC_ALL | MAXIMUM_ALLOWED)) != 0) {
        return dwAll;
    }
    if ((dwAccess & GENERIC_EXECUTE) != 0) {
        dwAccess |= SYNCHRONIZE;
    }
    if ((dwAccess & GENERIC_WRITE) != 0 && dwAll == EVENT_ALL_ACCESS) {
        dwAccess |= EVENT_MODIFY_STATE;
    }
    return dwAccess;
}

template <class T>
HANDLE MakeHandle(CNamedShared *pShared, DWORD dwAccess)
{
    auto pHandle = std::unique_ptr<T>(new (std::nothrow) T(pShared, dwAccess));
    if (!pHandle) {
        pShared->ReleaseHandle();
    }
    return PlatHandleCreate(std::move(pHandle));
}

CNamedShared *AcquireToCreate(char const *pszName, EHandleKind eKind, bool fManual, bool fSet,
                              bool &fExisted)
{
    DWORD dwError = NO_ERROR;
    CNamedShared *pShared =
        CNamedShared::Acquire(pszName, eKind, /*fCreate=*/true, fManual, fSet, fExisted, dwError);
    if (!pShared) {
        SetLastError(dwError);
    }
    return pShared;
}

// The handle of a created object with the last error that goes with it; takes over pShared.
template <class T>
HANDLE MakeCreatedHandle(CNamedShared *pShared, DWORD dwAccess, bool fExisted)
{
    HANDLE const hObject = MakeHandle<T>(pShared, dwAccess);
    if (hObject) {
        SetLastError(fExisted ? ERROR_ALREADY_EXISTS : NO_ERROR);
    }
    return hObject;
}

template <class T>
HANDLE OpenNamed(char const *pszName, DWORD dwAccess, DWORD dwAll)
{
    DWORD dwError = ERROR_INVALID_PARAMETER;
    bool fExisted;
    CNamedShared *pShared = nullptr;
    if (pszName) {
        pShared = CNamedShared::Acquire(pszName, T::kKind, /*fCreate=*/false, /*fManual=*/false,
                                        /*fSet=*/false, fExisted, dwError);
    }
    if (pShared && dwAccess == 0) {
        pShared->ReleaseHandle();
        pShared = nullptr;
        dwError = ERROR_ACCESS_DENIED;
    }
    if (!pShared) {
        SetLastError(dwError);
        return nullptr;
    }
    return MakeHandle<T>(pShared, GrantedAccess(dwAccess, dwAll));
}

int LockSpinning(pthread_mutex_t &mutex)
{
    int rc = EBUSY;
    for (int nTry = 0; rc == EBUSY && nTry < kcSpin; ++nTry) {
        rc = pthread_mutex_trylock(&mutex);
    }
    return rc;
}

// Sleeps on a word beside the mutex that says when to try again. The C library's own lock is not to be
// slept in: where a waiter is killed after it was woken, and somebody else has taken the mutex without
// seeing waiters, nobody wakes the rest any more.
int LockUntil(CNamedPage &page, CPlatDeadline const &deadline)
{
    int rc;
    page.m_cWaiters.fetch_add(1);
    for (;;) {
        std::uint32_t const cReleases = page.m_cReleases.load();
        rc = pthread_mutex_trylock(&page.m_mutex);
        if (rc != EBUSY || deadline.HasPassed()) {
            break;
        }
        CPlatDeadline const recheck(kdwRecheckOwner);
        PlatFutexWait(page.m_cReleases, cReleases, deadline.Earlier(recheck), eFS_SHARED);
    }
    page.m_cWaiters.fetch_sub(1);
    return rc;
}

void UnlockPage(CNamedPage &page)
{
    pthread_mutex_unlock(&page.m_mutex);
    if (page.m_cWaiters.load() == 0) { // may stay too high after a kill, which costs but a call
        return;
    }
    page.m_cReleases.fetch_add(1);
    PlatFutexWake(&page.m_cReleases, 1, eFS_SHARED);
}

int LockMutex(CNamedPage &page, DWORD dwMilliseconds)
{
    if (dwMilliseconds == 0) {
        return pthread_mutex_trylock(&page.m_mutex);
    }
    int const rc = LockSpinning(page.m_mutex);
    if (rc != EBUSY) {
        return rc;
    }
    return LockUntil(page, CPlatDeadline(dwMilliseconds));
}

// An owner holds a reference to the object, so that the page stays mapped while the mutex in it is on
// the thread's list of robust ones.

void ReleaseNamed(CNamedShared &shared)
{
    if (!shared.Leave()) {
        return;
    }
    UnlockPage(*shared.m_pPage);
    shared.Release();
}

void AbandonNamed(COwnedLock &lock)
{
    auto &shared = static_cast<CNamedShared &>(lock);
    shared.m_pPage->m_fAbandoned.store(true, std::memory_order_relaxed);
    UnlockPage(*shared.m_pPage);
    shared.Release();
}

// Whether a wait is over, taking the signal of an auto-reset event. nSeen: the state when it began.
bool TakeEvent(CNamedPage &page, std::uint32_t &nNow, std::uint32_t nSeen)
{
    nNow = page.m_state.load(std::memory_order_acquire);
    if (page.m_fManual) {
        return (nNow & knEventSet) != 0 || nNow / knEventCall != nSeen / knEventCall;
    }
    while ((nNow & knEventSet) != 0) {
        if (page.m_state.compare_exchange_weak(nNow, nNow & ~knEventSet,
                                               std::memory_order_acquire)) {
            return true;
        }
    }
    return false;
}

} // namespace

bool CNamedHandle::Allows(DWORD dwRight) const
{
    if ((m_dwAccess & dwRight) == dwRight) {
        return true;
    }
    SetLastError(ERROR_ACCESS_DENIED);
    return false;
}

HANDLE CNamedMutex::Create(char const *pszName, bool fInitialOwner)
{
    bool fExisted = false;
    CNamedShared *pShared =
        AcquireToCreate(pszName, kKind, /*fManual=*/false, fInitialOwner, fExisted);
    if (!pShared) {
        return nullptr;
    }
    bool const fOwned = fInitialOwner && !fExisted; // made locked, before others could see it
    if (fOwned) {
        pShared->AddRef();
        pShared->Own(&AbandonNamed);
    }
    HANDLE const hMutex = MakeCreatedHandle<CNamedMutex>(pShared, MUTEX_ALL_ACCESS, fExisted);
    if (!hMutex && fOwned) {
        ReleaseNamed(*pShared);
    }
    return hMutex;
}

HANDLE CNamedMutex::Open(char const *pszName, DWORD dwAccess)
{
    return OpenNamed<CNamedMutex>(pszName, dwAccess, MUTEX_ALL_ACCESS);
}

DWORD CNamedMutex::Wait(DWORD dwMilliseconds)
{
    if (!Allows(SYNCHRONIZE)) {
        return WAIT_FAILED;
    }
    if (m_pShared->Reenter()) {
        return WAIT_OBJECT_0;
    }
    CNamedPage &page = *m_pShared->m_pPage;
    int const rc = LockMutex(page, dwMilliseconds);
    if (rc == EBUSY) {
        return WAIT_TIMEOUT;
    }
    if (rc != 0 && rc != EOWNERDEAD) {
        SetLastError(PlatErrorFromErrno(rc));
        return WAIT_FAILED;
    }
    if (rc == EOWNERDEAD) {
        pthread_mutex_consistent(&page.m_mutex);
    }
    bool const fLeft = page.m_fAbandoned.exchange(false, std::memory_order_relaxed);
    m_pShared->AddRef();
    m_pShared->Own(&AbandonNamed);
    return rc == EOWNERDEAD || fLeft ? WAIT_ABANDONED : WAIT_OBJECT_0;
}

BOOL CNamedMutex::Release()
{
    if (!m_pShared->IsMine()) {
        SetLastError(ERROR_NOT_OWNER);
        return FALSE;
    }
    ReleaseNamed(*m_pShared);
    return TRUE;
}

HANDLE CNamedEvent::Create(char const *pszName, bool fManualReset, bool fInitialState)
{
    bool fExisted = false;
    CNamedShared *pShared = AcquireToCreate(pszName, kKind, fManualReset, fInitialState, fExisted);
    return pShared ? MakeCreatedHandle<CNamedEvent>(pShared, EVENT_ALL_ACCESS, fExisted) : nullptr;
}

HANDLE CNamedEvent::Open(char const *pszName, DWORD dwAccess)
{
    return OpenNamed<CNamedEvent>(pszName, dwAccess, EVENT_ALL_ACCESS);
}

DWORD CNamedEvent::Wait(DWORD dwMilliseconds)
{
    if (!Allows(SYNCHRONIZE)) {
        return WAIT_FAILED;
    }
    CNamedPage &page = *m_pShared->m_pPage;
    std::uint32_t nNow;
    std::uint32_t const nSeen = page.m_state.load(std::memory_order_relaxed);
    if (TakeEvent(page, nNow, nSeen)) {
        return WAIT_OBJECT_0;
    }
    CPlatDeadline const deadline(dwMilliseconds);
    while (dwMilliseconds != 0 && !deadline.HasPassed()) {
        CPlatDeadline const recheck(kdwRecheck);
        PlatFutexWait(page.m_state, nNow, deadline.Earlier(recheck), eFS_SHARED);
        if (TakeEvent(page, nNow, nSeen)) {
            return WAIT_OBJECT_0;
        }
    }
    return WAIT_TIMEOUT;
}

BOOL CNamedEvent::Set()
{
    if (!Allows(EVENT_MODIFY_STATE)) {
        return FALSE;
    }
    CNamedPage &page = *m_pShared->m_pPage;
    std::uint32_t nOld = page.m_state.load(std::memory_order_relaxed);
    while (!page.m_state.compare_exchange_weak(nOld, (nOld + knEventCall) | knEventSet,
                                               std::memory_order_release,
                                               std::memory_order_relaxed)) {
    }
    // Who waits is not counted, since a killed waiter would stay counted: hence always a call.
    PlatFutexWake(&page.m_state, page.m_fManual ? INT_MAX : 1, eFS_SHARED);
    return TRUE;
}

BOOL CNamedEvent::Reset()
{
    if (!Allows(EVENT_MODIFY_STATE)) {
        return FALSE;
    }
    m_pShared->m_pPage->m_state.fetch_and(~knEventSet, std::memory_order_acq_rel);
    return TRUE;
}
