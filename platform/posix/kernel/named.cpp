#include "platform/posix/kernel/named.h"

#include "platform/posix/error.h"
#include "platform/posix/kernel/futex.h"
#include "platform/posix/kernel/rundir.h"
#include "platform/posix/kernel/signalguard.h"
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <utility>

// What all processes see. m_state of an event: bit 0 is "set", the bits above count the calls of
// SetEvent, so that a waiter of a manual-reset event that was set and reset at once does not miss it.
struct CNamedPage {
    char m_szMagic[8];
    std::uint32_t m_cbPage; // with the magic: made by a layer of this shape and word size
    EHandleKind m_eKind;
    bool m_fManual;
    std::atomic<std::uint32_t> m_state;
    std::atomic<std::uint32_t> m_cWaiters; // of a mutex: those asleep on m_cReleases
    std::atomic<std::uint32_t> m_cReleases;
    std::atomic<bool> m_fAbandoned; // its owner's thread ended, and the process lives on
    char m_szName[MAX_PATH];        // for a person who looks at the file
    pthread_mutex_t m_mutex;
};

struct CNamedShared::NewType {
    char const *pszName;
    EHandleKind eKind;
    bool fManual;
    bool fSet;
};

namespace {

constexpr char kszMagic[8] = "QOMAnm1";
constexpr std::uint32_t knEventSet = 1;
constexpr std::uint32_t knEventCall = 2;
// A waiter of a shared auto-reset event can be killed between being woken and taking the signal. The
// others look again after this time, in milliseconds.
constexpr DWORD kdwRecheck = 1000;
// A killed owner wakes nobody, and a waiter may be killed between being woken and taking the mutex: the
// others look this often, in milliseconds.
constexpr DWORD kdwRecheckOwner = 50;
// A holder in another process is mostly done within this many looks (a line written to a log).
constexpr int kcSpin = 100;
constexpr int kcMaxTries = 1000;

// Guards the list of open objects, and opening and closing as a whole, within this process. A leaf.
constinit std::mutex g_namedLock;
constinit CNamedShared *g_pFirstNamed = nullptr;

bool LockFile(int fd, int nOperation)
{
    int rc;
    do {
        rc = flock(fd, nOperation);
    } while (rc != 0 && errno == EINTR);
    return rc == 0;
}

CNamedPage *MapPage(int fd)
{
    void *pv = mmap(nullptr, sizeof(CNamedPage), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return pv == MAP_FAILED ? nullptr : static_cast<CNamedPage *>(pv);
}

bool IsSameFile(int fd, std::string const &strPath)
{
    struct stat stOpen, stPath;
    return fstat(fd, &stOpen) == 0 && stat(strPath.c_str(), &stPath) == 0 &&
           stOpen.st_ino == stPath.st_ino && stOpen.st_dev == stPath.st_dev;
}

bool IsPageOfOurs(int fd)
{
    struct stat st;
    return fstat(fd, &st) == 0 && st.st_size == static_cast<off_t>(sizeof(CNamedPage));
}

// Takes the room for a page at once. One that is only cut to its size would be filled in at the first
// touch, and where there is no room then the process is killed.
bool TakeRoom(int fd)
{
    CWriteSignalGuard const guard;
    int nErrno;
    do {
        nErrno = posix_fallocate(fd, 0, sizeof(CNamedPage));
    } while (nErrno == EINTR);
    errno = nErrno;
    return nErrno == 0;
}

// Removes what killed processes left behind, once in the life of this one: nobody holds those files.
void SweepOnce(unsigned nPlace, char const *pszDir)
{
    static constinit bool s_afSwept[kcRunDirs] = {}; // under g_namedLock
    if (std::exchange(s_afSwept[nPlace], true)) {
        return;
    }
    std::error_code error;
    std::filesystem::directory_iterator it(pszDir, error), itEnd;
    for (; !error && it != itEnd; it.increment(error)) {
        std::string const strName = it->path().filename(), strFile = it->path();
        if (!strName.starts_with("local.") && !strName.starts_with("global.")) {
            continue;
        }
        int const fd = open(strFile.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (fd >= 0 && LockFile(fd, LOCK_EX | LOCK_NB) && IsSameFile(fd, strFile)) {
            unlink(strFile.c_str());
        }
        if (fd >= 0) {
            close(fd);
        }
    }
}

void InitMutex(pthread_mutex_t &mutex, bool fLocked)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    // Recursive, for a thread that comes through two copies of this layer in one process.
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    // Nobody else knows it yet. Tried, as a thing that cannot wait: our own lock is held here.
    if (fLocked) {
        pthread_mutex_trylock(&mutex);
    }
}

void InitPage(CNamedPage &page, char const *pszName, EHandleKind eKind, bool fManual, bool fSet)
{
    std::memcpy(page.m_szMagic, kszMagic, sizeof kszMagic);
    page.m_cbPage = sizeof page;
    page.m_eKind = eKind;
    page.m_fManual = fManual;
    std::snprintf(page.m_szName, sizeof page.m_szName, "%s", pszName);
    if (eKind == eHK_NAMED_MUTEX) {
        InitMutex(page.m_mutex, fSet);
    } else {
        page.m_state.store(fSet ? knEventSet : 0, std::memory_order_relaxed);
    }
}

// A name's file below a run directory, with the slash in front. 0 or a Win32 error.
DWORD FileOf(char const *pszName, std::string &strFile)
{
    char const *pszSpace = "local";
    if (std::strlen(pszName) >= MAX_PATH) {
        return ERROR_FILENAME_EXCED_RANGE;
    }
    if (std::strncmp(pszName, "Local\\", 6) == 0) {
        pszName += 6;
    } else if (std::strncmp(pszName, "Global\\", 7) == 0) {
        pszName += 7;
        pszSpace = "global";
    }
    if (*pszName == '\0') {
        return ERROR_INVALID_NAME;
    }
    if (std::strchr(pszName, '\\')) {
        return ERROR_PATH_NOT_FOUND;
    }
    strFile = std::string("/") + pszSpace + "." + PlatFileNameFor(pszName);
    return NO_ERROR;
}

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

CNamedShared::CNamedShared(std::string strPath, int fd, CNamedPage *pPage)
    : m_pPage(pPage), m_strPath(std::move(strPath)), m_fd(fd), m_pNextNamed(g_pFirstNamed)
{
    g_pFirstNamed = this;
}

CNamedShared::~CNamedShared()
{
    munmap(m_pPage, sizeof *m_pPage);
}

void CNamedShared::AddRef()
{
    m_cRefs.fetch_add(1, std::memory_order_relaxed);
}

void CNamedShared::Release()
{
    if (m_cRefs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

// Nobody finds the object any more, neither here nor, unless another process has it open, there. True when
// none has.
bool CNamedShared::GiveUpName()
{
    CNamedShared **ppLink = &g_pFirstNamed;
    while (*ppLink != this) {
        ppLink = &(*ppLink)->m_pNextNamed;
    }
    *ppLink = m_pNextNamed;
    bool const fAlone = LockFile(m_fd, LOCK_EX | LOCK_NB);
    if (fAlone && IsSameFile(m_fd, m_strPath)) {
        unlink(m_strPath.c_str());
    }
    close(m_fd);
    return fAlone;
}

void CNamedShared::ReleaseHandle()
{
    bool fGone = false;
    {
        std::lock_guard guard(g_namedLock);
        if (--m_cHandles > 0) {
            return;
        }
        fGone = GiveUpName();
    }
    // Whoever closes what it owns would keep a page that is of no use to anybody.
    if (fGone && IsMine()) {
        Abandon();
    }
    Release();
}

CNamedShared *CNamedShared::Find(std::string const &strPath)
{
    for (CNamedShared *p = g_pFirstNamed; p; p = p->m_pNextNamed) {
        if (p->m_strPath == strPath) {
            ++p->m_cHandles;
            return p;
        }
    }
    return nullptr;
}

CNamedShared *CNamedShared::OpenFile(std::string &strPath, DWORD &dwError)
{
    for (;;) {
        int const fd = open(strPath.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) {
            dwError = PlatErrorFromErrno(errno);
            return nullptr;
        }
        // Alone with it: killed processes left it. A second look at the path, since another may have
        // removed the file and put a new one there while we came.
        bool const fLeftOver = LockFile(fd, LOCK_EX | LOCK_NB);
        if (fLeftOver && IsSameFile(fd, strPath)) {
            unlink(strPath.c_str());
        }
        if (fLeftOver || !LockFile(fd, LOCK_SH) || !IsSameFile(fd, strPath)) {
            close(fd);
            continue;
        }
        CNamedPage *pPage = IsPageOfOurs(fd) ? MapPage(fd) : nullptr;
        if (pPage && std::memcmp(pPage->m_szMagic, kszMagic, sizeof kszMagic) == 0) {
            if (auto *pShared = new (std::nothrow) CNamedShared(std::move(strPath), fd, pPage)) {
                return pShared;
            }
        }
        dwError = pPage ? ERROR_NOT_ENOUGH_MEMORY : ERROR_INVALID_HANDLE;
        if (pPage) {
            munmap(pPage, sizeof *pPage);
        }
        close(fd);
        return nullptr;
    }
}

CNamedShared *CNamedShared::MakeFile(std::string &strPath, NewType const &what, DWORD &dwError)
{
    // One at a time in this process by g_namedLock; another copy of the layer in it has another address.
    char szSuffix[64];
    std::snprintf(szSuffix, sizeof szSuffix, ".new-%ld-%p", static_cast<long>(getpid()),
                  static_cast<void *>(&g_namedLock));
    std::string const strNew = strPath + szSuffix;
    unlink(strNew.c_str()); // of a process killed half-way that had our number
    int const fd = open(strNew.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    CNamedPage *pPage = nullptr;
    if (fd >= 0 && LockFile(fd, LOCK_SH) && TakeRoom(fd)) {
        pPage = MapPage(fd);
    }
    if (pPage) {
        InitPage(*pPage, what.pszName, what.eKind, what.fManual, what.fSet);
    }
    bool const fPlaced = pPage && link(strNew.c_str(), strPath.c_str()) == 0;
    dwError = fPlaced ? NO_ERROR : PlatErrorFromErrno(errno);
    unlink(strNew.c_str());
    CNamedShared *pShared =
        fPlaced ? new (std::nothrow) CNamedShared(std::move(strPath), fd, pPage) : nullptr;
    if (pShared) {
        return pShared;
    }
    if (fPlaced) {
        unlink(strPath.c_str());
        dwError = ERROR_NOT_ENOUGH_MEMORY;
    }
    if (pPage) {
        if (what.eKind == eHK_NAMED_MUTEX && what.fSet) {
            pthread_mutex_unlock(&pPage->m_mutex);
        }
        munmap(pPage, sizeof *pPage);
    }
    if (fd >= 0) {
        close(fd);
    }
    return nullptr;
}

CNamedShared *CNamedShared::OpenAnywhere(std::string const &strFile, DWORD &dwError)
{
    dwError = ERROR_ACCESS_DENIED; // until a place is ours
    for (unsigned n = 0; n < kcRunDirs; ++n) {
        RunDirText szDir;
        if (!PlatRunDirAt(n, /*fMake=*/dwError == ERROR_ACCESS_DENIED, szDir)) {
            continue;
        }
        std::string strPath = szDir + strFile;
        CNamedShared *pShared = Find(strPath);
        if (!pShared) {
            pShared = OpenFile(strPath, dwError);
        }
        if (pShared || dwError != ERROR_FILE_NOT_FOUND) {
            return pShared;
        }
    }
    return nullptr;
}

CNamedShared *CNamedShared::MakeAnywhere(std::string const &strFile, NewType const &what,
                                         DWORD &dwError)
{
    for (unsigned n = 0; n < kcRunDirs; ++n) {
        RunDirText szDir;
        if (!PlatRunDirAt(n, /*fMake=*/true, szDir)) {
            continue;
        }
        SweepOnce(n, szDir);
        std::string strPath = szDir + strFile;
        CNamedShared *pShared = MakeFile(strPath, what, dwError);
        if (pShared || dwError != ERROR_DISK_FULL) {
            return pShared;
        }
    }
    return nullptr;
}

CNamedShared *CNamedShared::Acquire(char const *pszName, EHandleKind eKind, bool fCreate,
                                    bool fManual, bool fSet, bool &fExisted, DWORD &dwError)
try {
    std::string strFile;
    dwError = FileOf(pszName, strFile);
    if (dwError != NO_ERROR) {
        return nullptr;
    }
    CNamedShared *pShared = nullptr;
    {
        std::lock_guard guard(g_namedLock);
        // Each further turn means that another process has just made the object, or has swept away the
        // page that was still being made ready. The limit is for a directory that is gone altogether.
        for (int cTries = 0; !pShared && cTries < kcMaxTries; ++cTries) {
            pShared = OpenAnywhere(strFile, dwError);
            fExisted = pShared != nullptr;
            if (pShared || !fCreate || dwError != ERROR_FILE_NOT_FOUND) {
                break;
            }
            pShared = MakeAnywhere(strFile, {pszName, eKind, fManual, fSet}, dwError);
            if (dwError != ERROR_FILE_EXISTS && dwError != ERROR_FILE_NOT_FOUND) {
                break;
            }
        }
    }
    if (pShared && pShared->m_pPage->m_eKind != eKind) {
        pShared->ReleaseHandle();
        dwError = ERROR_INVALID_HANDLE;
        return nullptr;
    }
    return pShared;
} catch (std::bad_alloc const &) { // the texts above; nothing is open while they are made
    dwError = ERROR_NOT_ENOUGH_MEMORY;
    return nullptr;
}

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
