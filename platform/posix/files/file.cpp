#include "platform/file.h"
#include "platform/posix/error.h"
#include "platform/posix/files/fileobject.h"
#include "platform/posix/files/share.h"
#include "platform/posix/kernel/signalguard.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

// How long a FIFO may take nothing before a write to it fails.
constexpr std::chrono::seconds kWriteLimit{2};

using Clock = std::chrono::steady_clock;

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

// For a descriptor that does not block: until it takes something again, or is broken. False, with errno,
// when the time is up.
bool AwaitRoom(int fd, Clock::time_point deadline)
{
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd entry = {fd, POLLOUT, 0};
    if (left > 0 && (::poll(&entry, 1, static_cast<int>(left)) >= 0 || errno == EINTR)) {
        return true;
    }
    errno = ETIMEDOUT;
    return false;
}

std::size_t WriteUntilDone(WriteCall *pfnWrite, int fd, void const *pBuffer, std::size_t cb)
{
    auto const *pb = static_cast<char const *>(pBuffer);
    std::size_t cbDone = 0;
    Clock::time_point deadline; // of the wait for the next byte to be taken, if there is one
    while (cbDone < cb) {
        ssize_t const cbNow = pfnWrite(fd, pb + cbDone, cb - cbDone);
        if (cbNow > 0) {
            cbDone += static_cast<std::size_t>(cbNow);
            deadline = {};
        } else if (cbNow == 0) {
            errno = EIO; // a device that takes nothing would hold us for ever
            break;
        } else if (errno == EAGAIN) {
            if (deadline == Clock::time_point()) {
                deadline = Clock::now() + kWriteLimit;
            }
            if (!AwaitRoom(fd, deadline)) {
                break;
            }
        } else if (errno != EINTR) {
            break;
        }
    }
    return cbDone;
}

std::size_t WriteAll(WriteCall *pfnWrite, int fd, void const *pBuffer, std::size_t cb, bool fDisk)
{
    // The guard is five calls of the system, of which most writes to a disk have no need.
    if (fDisk && PlatFileSizeLimit() == RLIM_INFINITY) {
        return WriteUntilDone(pfnWrite, fd, pBuffer, cb);
    }
    CWriteSignalGuard const guard;
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

} // namespace

CFileObject::~CFileObject()
{
    PlatCloseFile(m_fd);
}

bool PlatIsSameFile(int fd, char const *pszName, int fdFolder)
{
    struct stat stOpen;
    struct stat stNamed;
    return ::fstat(fd, &stOpen) == 0 && ::fstatat(fdFolder, pszName, &stNamed, 0) == 0 &&
           stOpen.st_dev == stNamed.st_dev && stOpen.st_ino == stNamed.st_ino;
}

int PlatCloseFile(int fd)
{
    PlatDropShare(fd);
    // The descriptor is gone after EINTR as well.
    return ::close(fd) == 0 || errno == EINTR ? 0 : -1;
}

rlim_t PlatFileSizeLimit()
{
    rlimit limit;
    return ::getrlimit(RLIMIT_FSIZE, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

std::size_t PlatWriteAll(int fd, void const *pBuffer, std::size_t cb)
{
    return WriteAll(&::write, fd, pBuffer, cb, /*fDisk=*/false);
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

DWORD GetFileType(HANDLE hFile)
{
    CHandleRef<CFileObject> const file(hFile);
    if (!file) {
        return FILE_TYPE_UNKNOWN;
    }
    return file->m_eType == CFileObject::eFT_DISK ? FILE_TYPE_DISK : FILE_TYPE_CHAR;
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
