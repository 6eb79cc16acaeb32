#include "platform/fifo.h"
#include "platform/file.h"
#include "platform/posix/error.h"
#include "platform/posix/files/fileobject.h"
#include "platform/posix/files/share.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr DWORD kdwShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Does not wait for what may never come: a FIFO's reader, a line's carrier. Who has a lease (a file server)
// gets a moment to put the file in order.
int OpenRetried(char const *pszName, int fwFlags, unsigned nMode)
{
    constexpr int kcTries = 1000; // of about 1 ms
    for (int i = 0;; ++i) {
        int const fd = ::open(pszName, fwFlags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, nMode);
        if (fd >= 0 || (errno != EINTR && (errno != EWOULDBLOCK || i >= kcTries))) {
            return fd;
        }
        if (errno == EWOULDBLOCK) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
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
    case ETXTBSY:     // a program that runs is open, and not for writers
    case EWOULDBLOCK: // a lease
        return ERROR_SHARING_VIOLATION;
    case ENXIO:
        return PlatIsFifo(pszName) ? ERROR_PIPE_BUSY : PlatErrorFromErrno(nErrno);
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

// From here on reads and writes wait for what they need.
bool MakeBlocking(int fd)
{
    int const fwFlags = ::fcntl(fd, F_GETFL);
    return fwFlags >= 0 && ::fcntl(fd, F_SETFL, fwFlags & ~O_NONBLOCK) == 0;
}

// What follows a successful open(2): the kind of file, its share mode, its emptying.
DWORD FinishOpen(DWORD dwAccess, DWORD dwShare, DWORD dwDisposition, bool fOnlyWrites,
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
        bool const fBounded = S_ISFIFO(st.st_mode) && fOnlyWrites;
        return fBounded || MakeBlocking(opened.m_fd) ? ERROR_SUCCESS : PlatErrorFromErrno(errno);
    }
    DWORD const dwError = PlatTakeShare(opened.m_fd, dwAccess, dwShare);
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
    bool const fOnlyWrites = dwAccess == GENERIC_WRITE || (fwExtra & O_NONBLOCK) != 0;
    DWORD const dwError = FinishOpen(dwAccess, dwShare, dwDisposition, fOnlyWrites, opened);
    if (dwError != ERROR_SUCCESS) {
        PlatCloseFile(opened.m_fd);
        return dwError;
    }
    *pOpened = opened;
    return ERROR_SUCCESS;
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
    std::unique_ptr<CFileObject> pFile(new (std::nothrow)
                                           CFileObject(opened.m_fd, dwAccess, eType));
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
    DWORD const dwError = PlatOpenFile(pszName, kadwAccess[nAccess], kdwShareAll, dwDisposition,
                                       O_NONBLOCK | ((nFlags & _O_APPEND) != 0 ? O_APPEND : 0),
                                       nPermissions, &opened);
    if (dwError != ERROR_SUCCESS) {
        errno = ErrnoFromOpenError(dwError);
        return -1;
    }
    return opened.m_fd;
}
