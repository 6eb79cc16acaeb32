#include "platform/posix/error.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace {

struct ErrorPairType {
    int nErrno;
    DWORD dwError;
};

constexpr ErrorPairType g_aErrors[] = {
    {0, NO_ERROR},
    {EPERM, ERROR_ACCESS_DENIED},
    {EACCES, ERROR_ACCESS_DENIED},
    {EISDIR, ERROR_ACCESS_DENIED}, // as CreateFileA on a directory
    {ETXTBSY, ERROR_ACCESS_DENIED},
    {ENOENT, ERROR_FILE_NOT_FOUND},
    {ENOTDIR, ERROR_PATH_NOT_FOUND},
    {ENXIO, ERROR_NOT_READY},
    {ENODEV, ERROR_NOT_READY},
    {EIO, ERROR_IO_DEVICE},
    {ENOEXEC, ERROR_BAD_EXE_FORMAT},
    {EBADF, ERROR_INVALID_HANDLE},
    {EAGAIN, ERROR_NOT_ENOUGH_MEMORY},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {EFAULT, ERROR_NOACCESS},
    {EBUSY, ERROR_BUSY},
    {EEXIST, ERROR_FILE_EXISTS},
    {EXDEV, ERROR_NOT_SAME_DEVICE},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {EFBIG, ERROR_DISK_FULL},
    {ENOSPC, ERROR_DISK_FULL},
    {EDQUOT, ERROR_DISK_FULL},
    {ESPIPE, ERROR_SEEK},
    {EROFS, ERROR_WRITE_PROTECT},
    {EPIPE, ERROR_NO_DATA},
    {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
    {ELOOP, ERROR_CANT_RESOLVE_FILENAME},
    {ENOSYS, ERROR_NOT_SUPPORTED},
    {EOPNOTSUPP, ERROR_NOT_SUPPORTED},
    {ETIMEDOUT, ERROR_TIMEOUT},
    {ECANCELED, ERROR_OPERATION_ABORTED},
};

} // namespace

DWORD PlatErrorFromErrno(int nErrno)
{
    auto const p = std::ranges::find(g_aErrors, nErrno, &ErrorPairType::nErrno);
    return p != std::end(g_aErrors) ? p->dwError : ERROR_GEN_FAILURE;
}

void PlatFailErrno()
{
    SetLastError(PlatErrorFromErrno(errno));
}
