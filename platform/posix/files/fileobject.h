#pragma once

#include "platform/base.h"
#include "platform/posix/kernel/handle.h"
#include <fcntl.h>
#include <sys/resource.h>

// Open files as handles, and opening by Win32's rules for the families that need a file of their own.

class CFileObject : public CHandleObject {
public:
    static constexpr EHandleKind kKind = eHK_FILE;

    enum EType {
        eFT_DISK,   ///< a regular file: transfers go on until they are complete
        eFT_DEVICE, ///< a device or a FIFO: one read gives what is there
    };

    /// Owns fd.
    CFileObject(int fd, DWORD dwAccess, EType eType)
        : m_fd(fd), m_dwAccess(dwAccess), m_eType(eType)
    {
    }
    ~CFileObject() override;

    int const m_fd;
    DWORD const m_dwAccess; ///< GENERIC_READ, GENERIC_WRITE
    EType const m_eType;
};

struct COpenedFile {
    int m_fd = -1; ///< close with PlatCloseFile
    bool m_fExisted = false;
    bool m_fDisk = false;
};

/// Opens a file as CreateFileA does, share modes included; the arguments have been checked. `fwExtra`
/// are open(2) flags to add, O_NONBLOCK among them for what is never read whatever dwAccess says; `nMode` the
/// permissions of a new file. 0 or the Win32 error.
DWORD PlatOpenFile(char const *pszName, DWORD dwAccess, DWORD dwShare, DWORD dwDisposition,
                   int fwExtra, unsigned nMode, COpenedFile *pOpened);

/// What Windows says where open(2) gives ENOENT: whether it is the file that is missing
/// (ERROR_FILE_NOT_FOUND) or a folder on the way (ERROR_PATH_NOT_FOUND).
DWORD PlatNotFoundError(char const *pszName);

/// Gives up the share modes and the descriptor. 0, or -1 with errno.
int PlatCloseFile(int fd);

/// Whether the name, relative to a folder's descriptor, still leads to what was opened under it.
bool PlatIsSameFile(int fd, char const *pszName, int fdFolder = AT_FDCWD);

/// What this process may write to a file behind which place, in bytes; RLIM_INFINITY without a limit.
rlim_t PlatFileSizeLimit();

/// Writes everything: cb bytes, or fewer with errno set. Raises neither SIGPIPE nor SIGXFSZ.
std::size_t PlatWriteAll(int fd, void const *pBuffer, std::size_t cb);
