// The files of named objects: how an object is found, made, and given up.

#include "platform/posix/error.h"
#include "platform/posix/kernel/named.h"
#include "platform/posix/kernel/named_page.h"
#include "platform/posix/kernel/rundir.h"
#include "platform/posix/kernel/signalguard.h"
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <new>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <utility>

struct CNamedShared::NewType {
    char const *pszName;
    EHandleKind eKind;
    bool fManual;
    bool fSet;
};

constinit CPlatMutex CNamedShared::s_lock;
constinit CNamedShared *CNamedShared::s_pFirst = nullptr;

namespace {

constexpr char kszMagic[8] = "QOMAnm1";
constexpr int kcMaxTries = 1000;

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
    static constinit bool s_afSwept[kcRunDirs] = {}; // under the lock of open objects
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

} // namespace

CNamedShared::CNamedShared(std::string strPath, int fd, CNamedPage *pPage)
    : m_pPage(pPage), m_strPath(std::move(strPath)), m_fd(fd), m_pNextNamed(s_pFirst)
{
    s_pFirst = this;
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
    CNamedShared **ppLink = &s_pFirst;
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
        CPlatGuard const guard(s_lock);
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
    for (CNamedShared *p = s_pFirst; p; p = p->m_pNextNamed) {
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
    // One at a time in this process by the lock; another copy of the layer in it has another address.
    char szSuffix[64];
    std::snprintf(szSuffix, sizeof szSuffix, ".new-%ld-%p", static_cast<long>(getpid()),
                  static_cast<void *>(&s_lock));
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
        CPlatGuard const guard(s_lock);
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
