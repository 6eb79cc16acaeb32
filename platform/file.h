#pragma once

/// @file
/// Files: Win32's handles and the runtime's descriptors. Any thread may call anything here; a handle
/// that another thread closes in the middle of a call is kept until the call has ended.

#include "platform/base.h"

#ifdef _WIN32

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

inline BOOL PlatAppendFile(HANDLE hFile, void const *pBuffer, DWORD cb, DWORD *pcbWritten)
{
    SetFilePointerEx(hFile, LARGE_INTEGER{}, /*lpNewFilePointer=*/nullptr, FILE_END);
    return WriteFile(hFile, pBuffer, cb, pcbWritten, /*lpOverlapped=*/nullptr);
}

#else

inline constexpr DWORD FILE_SHARE_READ = 1;
inline constexpr DWORD FILE_SHARE_WRITE = 2;
inline constexpr DWORD FILE_SHARE_DELETE = 4;

inline constexpr DWORD CREATE_NEW = 1;
inline constexpr DWORD CREATE_ALWAYS = 2;
inline constexpr DWORD OPEN_EXISTING = 3;
inline constexpr DWORD OPEN_ALWAYS = 4;
inline constexpr DWORD TRUNCATE_EXISTING = 5;

inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;

inline constexpr DWORD FILE_BEGIN = 0;
inline constexpr DWORD FILE_CURRENT = 1;
inline constexpr DWORD FILE_END = 2;
inline constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFFu;

inline constexpr DWORD FILE_TYPE_UNKNOWN = 0;
inline constexpr DWORD FILE_TYPE_DISK = 1;
inline constexpr DWORD FILE_TYPE_CHAR = 2;

struct OVERLAPPED;

/// As Win32, INVALID_HANDLE_VALUE with the last error on failure, and on success the last error is
/// ERROR_ALREADY_EXISTS when CREATE_ALWAYS or OPEN_ALWAYS found the file, else 0. Except:
/// - The name goes to the system as it is: the separator is "/", a backslash is a letter like others.
///   FIFOs and devices open too, without waiting for the other side: a FIFO that nobody reads is a pipe
///   that nobody serves, ERROR_PIPE_BUSY for whoever wants to write to it.
/// - Access is GENERIC_READ, GENERIC_WRITE or both; flags are 0 or FILE_ATTRIBUTE_NORMAL; there is no
///   template file and no security descriptor. Anything else is ERROR_INVALID_PARAMETER.
/// - Share modes hold for regular files, between all handles and descriptors that this layer opened for
///   one user, in this process and in others, and end with the process that set them, however it ends.
///   Other users, and programs that do not use this layer, neither see nor heed them, and no lock of theirs
///   keeps anybody out. Each open file costs a second descriptor. Where the user's directory for shared
///   objects (CreateMutexA) cannot be had there are no share modes. FILE_SHARE_DELETE is accepted and
///   means nothing: names can be removed and given to other files at any time.
/// - It takes up to one second where a file server has the file, or where another process of the user's was
///   stopped while it opened this very file, and then fails with ERROR_SHARING_VIOLATION.
/// - No handle reaches a child process.
HANDLE CreateFileA(char const *pszName, DWORD dwAccess, DWORD dwShare,
                   SECURITY_ATTRIBUTES *pSecurity, DWORD dwDisposition, DWORD dwFlags,
                   HANDLE hTemplate);

/// As Win32: a success with 0 bytes is the end of a file. Except: no overlapped operation
/// (ERROR_INVALID_PARAMETER).
BOOL ReadFile(HANDLE hFile, void *pBuffer, DWORD cb, DWORD *pcbRead, OVERLAPPED *pOverlapped);

/// As Win32, ERROR_DISK_FULL (also at this process's limit of a file's size, which raises no signal) and
/// ERROR_NO_DATA (a pipe that nobody reads any more) among the errors. All bytes are written or the call
/// fails; *pcbWritten then tells how many went out before. Except: no overlapped operation
/// (ERROR_INVALID_PARAMETER). A FIFO that was opened for writing alone and takes nothing for 2 seconds is
/// ERROR_TIMEOUT.
BOOL WriteFile(HANDLE hFile, void const *pBuffer, DWORD cb, DWORD *pcbWritten,
               OVERLAPPED *pOverlapped);

/// WriteFile behind the end of the file, wherever that lies by now; the file pointer is behind what was
/// written then. On Linux one call of the system, where SetFilePointer and WriteFile are three.
BOOL PlatAppendFile(HANDLE hFile, void const *pBuffer, DWORD cb, DWORD *pcbWritten);

/// As Win32: the new position in bytes, with a null pnHigh at most 32 bits of it
/// (ERROR_INVALID_PARAMETER otherwise). A failure leaves the position alone: ERROR_NEGATIVE_SEEK in
/// front of the file, ERROR_INVALID_PARAMETER for an unknown method.
DWORD SetFilePointer(HANDLE hFile, LONG nDistance, LONG *pnHigh, DWORD dwMethod);

/// As Win32: FILE_TYPE_DISK for a regular file, FILE_TYPE_UNKNOWN with the last error for what is no file.
/// Except: anything else is FILE_TYPE_CHAR, FIFOs among it.
DWORD GetFileType(HANDLE hFile);

inline constexpr int _O_RDONLY = 0;
inline constexpr int _O_WRONLY = 1;
inline constexpr int _O_RDWR = 2;
inline constexpr int _O_APPEND = 0x8;
inline constexpr int _O_NOINHERIT = 0x80;
inline constexpr int _O_CREAT = 0x100;
inline constexpr int _O_TRUNC = 0x200;
inline constexpr int _O_EXCL = 0x400;
inline constexpr int _O_BINARY = 0x8000;

inline constexpr int _S_IWRITE = 0x80;
inline constexpr int _S_IREAD = 0x100;

/// As Win32's runtime: the descriptor, or -1 with errno. Shares everything with other openers, and is
/// refused with EACCES while another one does not. Except: _O_BINARY must be set, since there is no
/// text mode (EINVAL, as for any flag that is not listed), and children never inherit the descriptor. Nothing
/// here reads by it, so writes to a FIFO have the limit that WriteFile tells of, whatever the flags say.
int _open(char const *pszName, int nFlags, int nMode = 0);

/// As Win32's runtime: cb, or -1 with errno. All bytes are written or the call fails, as in WriteFile.
int _write(int fd, void const *pBuffer, unsigned int cb);

/// As Win32's runtime: 0, or -1 with errno (EBADF).
int _close(int fd);

#endif
