#include "platform/posix/error.h"

#include <cerrno>

DWORD PlatErrorFromErrno(int nErrno)
{
    switch (nErrno) {
    case 0:
        return NO_ERROR;
    case EPERM:
    case EACCES:
    case EISDIR: // as CreateFileA on a directory
    case ETXTBSY:
        return ERROR_ACCESS_DENIED;
    case ENOENT:
        return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
        return ERROR_PATH_NOT_FOUND;
    case ENXIO:
    case ENODEV:
        return ERROR_NOT_READY;
    case EIO:
        return ERROR_IO_DEVICE;
    case ENOEXEC:
        return ERROR_BAD_EXE_FORMAT;
    case EBADF:
        return ERROR_INVALID_HANDLE;
    case EAGAIN:
    case ENOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    case EFAULT:
        return ERROR_NOACCESS;
    case EBUSY:
        return ERROR_BUSY;
    case EEXIST:
        return ERROR_FILE_EXISTS;
    case EXDEV:
        return ERROR_NOT_SAME_DEVICE;
    case EINVAL:
        return ERROR_INVALID_PARAMETER;
    case ENFILE:
    case EMFILE:
        return ERROR_TOO_MANY_OPEN_FILES;
    case EFBIG:
    case ENOSPC:
    case EDQUOT:
        return ERROR_DISK_FULL;
    case ESPIPE:
        return ERROR_SEEK;
    case EROFS:
        return ERROR_WRITE_PROTECT;
    case EPIPE:
        return ERROR_NO_DATA;
    case ENAMETOOLONG:
        return ERROR_FILENAME_EXCED_RANGE;
    case ENOTEMPTY:
        return ERROR_DIR_NOT_EMPTY;
    case ELOOP:
        return ERROR_CANT_RESOLVE_FILENAME;
    case ENOSYS:
    case EOPNOTSUPP:
        return ERROR_NOT_SUPPORTED;
    case ETIMEDOUT:
        return ERROR_TIMEOUT;
    case ECANCELED:
        return ERROR_OPERATION_ABORTED;
    default:
        return ERROR_GEN_FAILURE;
    }
}

void PlatFailErrno()
{
    SetLastError(PlatErrorFromErrno(errno));
}
