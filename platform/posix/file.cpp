#include "platform/file.h"
#include "platform/posix/error.h"
#include "platform/posix/fileobject.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr DWORD kdwShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Share modes are byte locks on the file itself, far behind any contents. They belong to the open
// descriptor, so the kernel drops them when a process is killed, and a write never looks at them. Each
// opener locks one byte, of its own, in the region of each statement that it makes, and finds the
// statements of others by asking whether anything in a region is locked. (A byte of its own, since a
// descriptor without read access can take exclusive locks only.)
enum EShareRegion : int { eSR_READS, eSR_WRITES, eSR_DENIES_READ, eSR_DENIES_WRITE };

constexpr off_t knShareBase = off_t{1} << 62;
constexpr off_t kcbRegion = off_t{1} << 43;
constexpr int knSlotBitsOfFd =
    20; // the kernel's limit for descriptors; process numbers have 22 bits
constexpr int kcSlotTries = 64;

struct flock RegionLock(EShareRegion eRegion, short nType)
{
    struct flock lock = {};
    lock.l_type = nType;
    lock.l_whence = SEEK_SET;
    lock.l_start = knShareBase + kcbRegion * eRegion;
    lock.l_len = kcbRegion;
    return lock;
}

// Whether another descriptor has made the statement. A file system without locks says no.
bool IsStated(int fd, EShareRegion eRegion)
{
    struct flock lock = RegionLock(eRegion, F_WRLCK);
    return ::fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

void State(int fd, EShareRegion eRegion, bool fWritable)
{
    struct flock lock = RegionLock(eRegion, fWritable ? F_WRLCK : F_RDLCK);
    lock.l_start += static_cast<off_t>(::getpid()) << knSlotBitsOfFd | fd;
    lock.l_len = 1;
    // Only processes of another container can have the same numbers.
    for (int i = 0; i < kcSlotTries && ::fcntl(fd, F_OFD_SETLK, &lock) != 0; ++i) {
        ++lock.l_start;
    }
}

void SleepMillisecond()
{
    timespec ts = {0, 1'000'000};
    ::nanosleep(&ts, nullptr);
}

// Makes looking for others' statements and making one's own a single step. Who holds it does so for a
// few system calls; a stranger who uses the same kind of lock for long keeps us out.
bool LockGate(int fd)
{
    constexpr int kcTries = 2000; // of about 1 ms
    for (int i = 0; i < kcTries; ++i) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) {
            return true;
        }
        SleepMillisecond();
    }
    return false;
}

// Takes the share mode of a regular file, or ERROR_SHARING_VIOLATION.
DWORD TakeShare(int fd, DWORD dwAccess, DWORD dwShare, bool fWritable)
{
    bool const fReads = (dwAccess & GENERIC_READ) != 0;
    bool const fWrites = (dwAccess & GENERIC_WRITE) != 0;
    bool const fDeniesRead = (dwShare & FILE_SHARE_READ) == 0;
    bool const fDeniesWrite = (dwShare & FILE_SHARE_WRITE) == 0;
    if (!LockGate(fd)) {
        return ERROR_SHARING_VIOLATION;
    }
    bool const fClash =
        (fReads && IsStated(fd, eSR_DENIES_READ)) || (fWrites && IsStated(fd, eSR_DENIES_WRITE)) ||
        (fDeniesRead && IsStated(fd, eSR_READS)) || (fDeniesWrite && IsStated(fd, eSR_WRITES));
    if (!fClash) {
        bool const afStates[] = {fReads, fWrites, fDeniesRead, fDeniesWrite};
        for (int n = eSR_READS; n <= eSR_DENIES_WRITE; ++n) {
            if (afStates[n]) {
                State(fd, static_cast<EShareRegion>(n), fWritable);
            }
        }
    }
    ::flock(fd, LOCK_UN);
    return fClash ? ERROR_SHARING_VIOLATION : ERROR_SUCCESS;
}

int OpenRetried(char const *pszName, int fwFlags, unsigned nMode)
{
    int fd;
    do {
        fd = ::open(pszName, fwFlags | O_CLOEXEC | O_NOCTTY, nMode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Opens or creates, and knows which of the two it was.
int OpenAlways(char const *pszName, int fwFlags, unsigned nMode, bool *pfExisted)
{
    constexpr int kcTries = 8; // others may create and remove the file under our hands
    for (int i = 0; i < kcTries; ++i) {
        *pfExisted = false;
        int fd = OpenRetried(pszName, fwFlags | O_CREAT | O_EXCL, nMode);
        if (fd >= 0 || errno != EEXIST) {
            return fd;
        }
        *pfExisted = true;
        fd = OpenRetried(pszName, fwFlags, nMode);
        if (fd >= 0 || errno != ENOENT) {
            return fd;
        }
    }
    // A link that leads nowhere: it exists for O_EXCL and does not for open.
    *pfExisted = false;
    return OpenRetried(pszName, fwFlags | O_CREAT, nMode);
}

int OpenByDisposition(char const *pszName, DWORD dwDisposition, int fwFlags, unsigned nMode,
                      bool *pfExisted)
{
    switch (dwDisposition) {
    case CREATE_NEW:
        *pfExisted = false;
        return OpenRetried(pszName, fwFlags | O_CREAT | O_EXCL, nMode);
    case CREATE_ALWAYS:
    case OPEN_ALWAYS:
        return OpenAlways(pszName, fwFlags, nMode, pfExisted);
    default:
        *pfExisted = true;
        return OpenRetried(pszName, fwFlags, nMode);
    }
}

DWORD OpenError(char const *pszName, int nErrno)
{
    switch (nErrno) {
    case ENOENT:
        return PlatNotFoundError(pszName);
    case ETXTBSY: // a program that runs is open, and not for writers
        return ERROR_SHARING_VIOLATION;
    default:
        return PlatErrorFromErrno(nErrno);
    }
}

int AccessFlags(DWORD dwAccess, DWORD dwDisposition)
{
    // CREATE_ALWAYS empties a file that it may only read.
    if (dwDisposition == CREATE_ALWAYS) {
        dwAccess |= GENERIC_WRITE;
    }
    if ((dwAccess & GENERIC_WRITE) == 0) {
        return O_RDONLY;
    }
    return (dwAccess & GENERIC_READ) != 0 ? O_RDWR : O_WRONLY;
}

// What follows a successful open(2): the kind of file, its share mode, its emptying.
DWORD FinishOpen(DWORD dwAccess, DWORD dwShare, DWORD dwDisposition, bool fWritable,
                 COpenedFile &opened)
{
    struct stat st;
    if (::fstat(opened.m_fd, &st) != 0) {
        return PlatErrorFromErrno(errno);
    }
    if (S_ISDIR(st.st_mode)) {
        return ERROR_ACCESS_DENIED;
    }
    opened.m_fDisk = S_ISREG(st.st_mode);
    if (!opened.m_fDisk) {
        return ERROR_SUCCESS;
    }
    DWORD const dwError = TakeShare(opened.m_fd, dwAccess, dwShare, fWritable);
    if (dwError != ERROR_SUCCESS) {
        return dwError;
    }
    bool const fEmpty = dwDisposition == CREATE_ALWAYS || dwDisposition == TRUNCATE_EXISTING;
    // Only now: a file that is shared with nobody must not lose its contents to a failed open.
    if (fEmpty && opened.m_fExisted && ::ftruncate(opened.m_fd, 0) != 0) {
        return PlatErrorFromErrno(errno);
    }
    return ERROR_SUCCESS;
}

bool AreArgumentsKnown(DWORD dwAccess, DWORD dwShare, DWORD dwDisposition, DWORD dwFlags)
{
    constexpr DWORD kdwAccess = GENERIC_READ | GENERIC_WRITE;
    return (dwAccess & kdwAccess) != 0 && (dwAccess & ~kdwAccess) == 0 &&
           (dwShare & ~kdwShareAll) == 0 && dwDisposition >= CREATE_NEW &&
           dwDisposition <= TRUNCATE_EXISTING && (dwFlags & ~FILE_ATTRIBUTE_NORMAL) == 0 &&
           (dwDisposition != TRUNCATE_EXISTING || (dwAccess & GENERIC_WRITE) != 0);
}

HANDLE FailOpen(DWORD dwError)
{
    SetLastError(dwError);
    return INVALID_HANDLE_VALUE;
}

// While it lives, a write of this thread to a pipe without a reader gives EPIPE and no signal, and a
// signal that was pending before is still pending afterwards.
class CPipeSignalGuard {
public:
    CPipeSignalGuard()
    {
        sigset_t pending;
        ::sigpending(&pending);
        m_fWasPending = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
    }
    ~CPipeSignalGuard()
    {
        int const nErrno = errno;
        timespec const tsNone = {};
        if (!m_fWasPending) {
            while (::sigtimedwait(&m_pipe, nullptr, &tsNone) < 0 && errno == EINTR) {
            }
        }
        ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
        errno = nErrno;
    }
    CPipeSignalGuard(CPipeSignalGuard const &) = delete;
    CPipeSignalGuard &operator=(CPipeSignalGuard const &) = delete;

private:
    sigset_t m_pipe;
    sigset_t m_before;
    bool m_fWasPending;
};

ssize_t ReadRetried(int fd, void *pBuffer, std::size_t cb)
{
    ssize_t cbRead;
    do {
        cbRead = ::read(fd, pBuffer, cb);
    } while (cbRead < 0 && errno == EINTR);
    return cbRead;
}

using WriteCall = ssize_t(int fd, void const *pBuffer, std::size_t cb);

// write(2) behind the end of the file, wherever the file pointer stands.
ssize_t AppendOnce(int fd, void const *pBuffer, std::size_t cb)
{
    iovec const part = {const_cast<void *>(pBuffer), cb};
    ssize_t const cbDone = ::pwritev2(fd, &part, 1, /*offset=*/-1, RWF_APPEND);
    if (cbDone >= 0 || (errno != ENOSYS && errno != EOPNOTSUPP)) {
        return cbDone;
    }
    (void)::lseek(fd, 0, SEEK_END); // fails on a pipe, which has but one place to write to
    return ::write(fd, pBuffer, cb);
}

std::size_t WriteUntilDone(WriteCall *pfnWrite, int fd, void const *pBuffer, std::size_t cb)
{
    auto const *pb = static_cast<char const *>(pBuffer);
    std::size_t cbDone = 0;
    while (cbDone < cb) {
        ssize_t const cbNow = pfnWrite(fd, pb + cbDone, cb - cbDone);
        if (cbNow > 0) {
            cbDone += static_cast<std::size_t>(cbNow);
        } else if (cbNow == 0) {
            errno = EIO; // a device that takes nothing would hold us for ever
            break;
        } else if (errno != EINTR) {
            break;
        }
    }
    return cbDone;
}

std::size_t WriteAll(WriteCall *pfnWrite, int fd, void const *pBuffer, std::size_t cb, bool fDisk)
{
    if (fDisk) {
        return WriteUntilDone(pfnWrite, fd, pBuffer, cb);
    }
    CPipeSignalGuard const guard;
    return WriteUntilDone(pfnWrite, fd, pBuffer, cb);
}

BOOL WriteBy(WriteCall *pfnWrite, HANDLE hFile, void const *pBuffer, DWORD cb, DWORD *pcbWritten)
{
    if (pcbWritten == nullptr) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    *pcbWritten = 0;
    CHandleRef<CFileObject> const file(hFile);
    if (!file) {
        return FALSE;
    }
    if ((file->m_dwAccess & GENERIC_WRITE) == 0) {
        return SetLastError(ERROR_ACCESS_DENIED), FALSE;
    }
    bool const fDisk = file->m_eType == CFileObject::eFT_DISK;
    *pcbWritten = static_cast<DWORD>(WriteAll(pfnWrite, file->m_fd, pBuffer, cb, fDisk));
    return *pcbWritten == cb ? TRUE : (PlatFailErrno(), FALSE);
}

// Where a move of the file pointer is to end; -1 with the last error when no file pointer can be there.
std::int64_t SeekTarget(std::int64_t nBase, LONG nDistance, LONG const *pnHigh)
{
    std::int64_t nMove = nDistance;
    if (pnHigh != nullptr) {
        nMove = static_cast<std::int64_t>(static_cast<std::uint64_t>(static_cast<DWORD>(*pnHigh))
                                              << 32 |
                                          static_cast<DWORD>(nDistance));
    }
    std::int64_t nTarget;
    if (__builtin_add_overflow(nBase, nMove, &nTarget)) {
        return SetLastError(ERROR_INVALID_PARAMETER), -1;
    }
    if (nTarget < 0) {
        return SetLastError(ERROR_NEGATIVE_SEEK), -1;
    }
    if (pnHigh == nullptr && nTarget > 0xFFFFFFFF) {
        return SetLastError(ERROR_INVALID_PARAMETER), -1;
    }
    return nTarget;
}

// The runtime's errno for an open that failed.
int ErrnoFromOpenError(DWORD dwError)
{
    switch (dwError) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
        return ENOENT;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
        return EEXIST;
    case ERROR_TOO_MANY_OPEN_FILES:
        return EMFILE;
    case ERROR_NOT_ENOUGH_MEMORY:
        return ENOMEM;
    case ERROR_DISK_FULL:
        return ENOSPC;
    case ERROR_INVALID_PARAMETER:
        return EINVAL;
    default:
        return EACCES;
    }
}

DWORD DispositionFromFlags(int nFlags)
{
    if ((nFlags & _O_CREAT) == 0) {
        return (nFlags & _O_TRUNC) != 0 ? TRUNCATE_EXISTING : OPEN_EXISTING;
    }
    if ((nFlags & _O_EXCL) != 0) {
        return CREATE_NEW;
    }
    return (nFlags & _O_TRUNC) != 0 ? CREATE_ALWAYS : OPEN_ALWAYS;
}

} // namespace

CFileObject::~CFileObject()
{
    if (m_fOwned) {
        PlatCloseFile(m_fd);
    }
}

DWORD PlatNotFoundError(char const *pszName)
{
    char const *pszSlash = std::strrchr(pszName, '/');
    if (pszSlash != nullptr && pszSlash[1] == '\0') {
        return ERROR_PATH_NOT_FOUND;
    }
    // Without memory of its own: an open that fails for want of it must not fail twice.
    char szFolder[PATH_MAX] = ".";
    std::size_t const cch =
        pszSlash != nullptr ? static_cast<std::size_t>(pszSlash + 1 - pszName) : 0;
    if (cch >= sizeof szFolder) {
        return ERROR_PATH_NOT_FOUND;
    }
    if (cch != 0) {
        std::memcpy(szFolder, pszName, cch);
        szFolder[cch] = '\0';
    }
    struct stat st;
    bool const fFolder = ::stat(szFolder, &st) == 0 && S_ISDIR(st.st_mode);
    return fFolder ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

DWORD PlatOpenFile(char const *pszName, DWORD dwAccess, DWORD dwShare, DWORD dwDisposition,
                   int fwExtra, unsigned nMode, COpenedFile *pOpened)
{
    if (pszName == nullptr || *pszName == '\0') {
        return ERROR_PATH_NOT_FOUND;
    }
    int const fwFlags = AccessFlags(dwAccess, dwDisposition) | fwExtra;
    COpenedFile opened;
    opened.m_fd = OpenByDisposition(pszName, dwDisposition, fwFlags, nMode, &opened.m_fExisted);
    if (opened.m_fd < 0) {
        return OpenError(pszName, errno);
    }
    bool const fWritable = (fwFlags & O_ACCMODE) != O_RDONLY;
    DWORD const dwError = FinishOpen(dwAccess, dwShare, dwDisposition, fWritable, opened);
    if (dwError != ERROR_SUCCESS) {
        PlatCloseFile(opened.m_fd);
        return dwError;
    }
    *pOpened = opened;
    return ERROR_SUCCESS;
}

bool PlatIsSameFile(int fd, char const *pszName)
{
    struct stat stOpen;
    struct stat stNamed;
    return ::fstat(fd, &stOpen) == 0 && ::stat(pszName, &stNamed) == 0 &&
           stOpen.st_dev == stNamed.st_dev && stOpen.st_ino == stNamed.st_ino;
}

int PlatCloseFile(int fd)
{
    // By hand, and not by the close alone: a child that another thread is starting has a copy of the
    // descriptor until it runs its program, and would keep the locks as long.
    struct flock lock = RegionLock(eSR_READS, F_UNLCK);
    lock.l_len = 0;
    int const nErrno = errno;
    (void)::fcntl(fd, F_OFD_SETLK, &lock);
    errno = nErrno;
    // The descriptor is gone after EINTR as well.
    return ::close(fd) == 0 || errno == EINTR ? 0 : -1;
}

std::size_t PlatWriteAll(int fd, void const *pBuffer, std::size_t cb)
{
    return WriteAll(&::write, fd, pBuffer, cb, /*fDisk=*/false);
}

HANDLE CreateFileA(char const *pszName, DWORD dwAccess, DWORD dwShare,
                   SECURITY_ATTRIBUTES *pSecurity, DWORD dwDisposition, DWORD dwFlags,
                   HANDLE hTemplate)
{
    if (!AreArgumentsKnown(dwAccess, dwShare, dwDisposition, dwFlags) || pSecurity != nullptr ||
        hTemplate != nullptr) {
        return FailOpen(ERROR_INVALID_PARAMETER);
    }
    COpenedFile opened;
    DWORD const dwError = PlatOpenFile(pszName, dwAccess, dwShare, dwDisposition, 0, 0666, &opened);
    if (dwError != ERROR_SUCCESS) {
        return FailOpen(dwError);
    }
    auto const eType = opened.m_fDisk ? CFileObject::eFT_DISK : CFileObject::eFT_DEVICE;
    std::unique_ptr<CFileObject> pFile(new (std::nothrow) CFileObject(
        opened.m_fd, dwAccess, eType, /*fOwned=*/true, /*fInherit=*/false));
    if (!pFile) {
        PlatCloseFile(opened.m_fd);
    }
    HANDLE const hFile = PlatHandleCreate(std::move(pFile));
    if (hFile == nullptr) {
        return INVALID_HANDLE_VALUE;
    }
    bool const fTellsExisted = dwDisposition == CREATE_ALWAYS || dwDisposition == OPEN_ALWAYS;
    SetLastError(fTellsExisted && opened.m_fExisted ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return hFile;
}

BOOL ReadFile(HANDLE hFile, void *pBuffer, DWORD cb, DWORD *pcbRead, OVERLAPPED *pOverlapped)
{
    if (pcbRead == nullptr || pOverlapped != nullptr) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    *pcbRead = 0;
    CHandleRef<CFileObject> const file(hFile);
    if (!file) {
        return FALSE;
    }
    if ((file->m_dwAccess & GENERIC_READ) == 0) {
        return SetLastError(ERROR_ACCESS_DENIED), FALSE;
    }
    auto *pb = static_cast<char *>(pBuffer);
    while (*pcbRead < cb) {
        ssize_t const cbNow = ReadRetried(file->m_fd, pb + *pcbRead, cb - *pcbRead);
        if (cbNow < 0) {
            return PlatFailErrno(), FALSE;
        }
        if (cbNow == 0 && file->m_eType == CFileObject::eFT_PIPE) {
            return SetLastError(ERROR_BROKEN_PIPE), FALSE;
        }
        *pcbRead += static_cast<DWORD>(cbNow);
        if (cbNow == 0 || file->m_eType != CFileObject::eFT_DISK) {
            break;
        }
    }
    return TRUE;
}

BOOL WriteFile(HANDLE hFile, void const *pBuffer, DWORD cb, DWORD *pcbWritten,
               OVERLAPPED *pOverlapped)
{
    if (pOverlapped != nullptr) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    return WriteBy(&::write, hFile, pBuffer, cb, pcbWritten);
}

BOOL PlatAppendFile(HANDLE hFile, void const *pBuffer, DWORD cb, DWORD *pcbWritten)
{
    return WriteBy(&AppendOnce, hFile, pBuffer, cb, pcbWritten);
}

DWORD SetFilePointer(HANDLE hFile, LONG nDistance, LONG *pnHigh, DWORD dwMethod)
{
    CHandleRef<CFileObject> const file(hFile);
    if (!file) {
        return INVALID_SET_FILE_POINTER;
    }
    if (dwMethod > FILE_END) {
        return SetLastError(ERROR_INVALID_PARAMETER), INVALID_SET_FILE_POINTER;
    }
    // The end is found by going there. To ask for the file's size costs more, and makes the next write
    // dearer: a kernel that was asked for a file gives its next change a time of its own.
    int const fd = file->m_fd;
    std::int64_t const nHere = dwMethod == FILE_BEGIN ? 0 : ::lseek(fd, 0, SEEK_CUR);
    bool const fToEnd = dwMethod == FILE_END && nHere >= 0;
    std::int64_t const nBase = fToEnd ? ::lseek(fd, 0, SEEK_END) : nHere;
    if (nBase < 0) {
        return PlatFailErrno(), INVALID_SET_FILE_POINTER;
    }
    std::int64_t const nTarget = SeekTarget(nBase, nDistance, pnHigh);
    if (nTarget < 0) {
        if (fToEnd) {
            ::lseek(fd, nHere, SEEK_SET); // a failure moves nothing
        }
        return INVALID_SET_FILE_POINTER;
    }
    bool const fThere = fToEnd && nTarget == nBase;
    if (!fThere && ::lseek(fd, nTarget, SEEK_SET) < 0) {
        return PlatFailErrno(), INVALID_SET_FILE_POINTER;
    }
    if (pnHigh != nullptr) {
        *pnHigh = static_cast<LONG>(nTarget >> 32);
    }
    auto const dwLow = static_cast<DWORD>(nTarget);
    if (dwLow == INVALID_SET_FILE_POINTER) {
        SetLastError(NO_ERROR); // how a caller tells this position from a failure
    }
    return dwLow;
}

BOOL SetHandleInformation(HANDLE hObject, DWORD dwMask, DWORD dwFlags)
{
    CHandleRef<CFileObject> const file(hObject);
    if (!file) {
        return FALSE;
    }
    if (dwMask != HANDLE_FLAG_INHERIT || (dwFlags & ~HANDLE_FLAG_INHERIT) != 0) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    file->m_fInherit = dwFlags != 0;
    return TRUE;
}

int _open(char const *pszName, int nFlags, int nMode)
{
    constexpr int kfwKnown =
        _O_WRONLY | _O_RDWR | _O_APPEND | _O_NOINHERIT | _O_CREAT | _O_TRUNC | _O_EXCL | _O_BINARY;
    constexpr DWORD kadwAccess[] = {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE};
    int const nAccess = nFlags & (_O_WRONLY | _O_RDWR);
    DWORD const dwDisposition = DispositionFromFlags(nFlags);
    bool const fReadOnly = nAccess == _O_RDONLY;
    if (pszName == nullptr || (nFlags & ~kfwKnown) != 0 || (nFlags & _O_BINARY) == 0 ||
        nAccess == 3 || (fReadOnly && dwDisposition == TRUNCATE_EXISTING)) {
        errno = EINVAL;
        return -1;
    }
    unsigned const nPermissions = (nMode & _S_IWRITE) != 0 ? 0666 : 0444;
    COpenedFile opened;
    DWORD const dwError =
        PlatOpenFile(pszName, kadwAccess[nAccess], kdwShareAll, dwDisposition,
                     (nFlags & _O_APPEND) != 0 ? O_APPEND : 0, nPermissions, &opened);
    if (dwError != ERROR_SUCCESS) {
        errno = ErrnoFromOpenError(dwError);
        return -1;
    }
    return opened.m_fd;
}

int _write(int fd, void const *pBuffer, unsigned int cb)
{
    std::size_t const cbWritten = PlatWriteAll(fd, pBuffer, cb);
    return cbWritten == cb ? static_cast<int>(cb) : -1;
}

int _close(int fd)
{
    return PlatCloseFile(fd);
}
