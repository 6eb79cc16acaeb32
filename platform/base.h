#pragma once

/// @file
/// The ground that every platform header stands on: the words, the error numbers, the last error and
/// the interlocked operations of Win32 under their own names.
///
/// On Windows this is the system's own header. Elsewhere it declares exactly what the system uses, in
/// the system's own widths: DWORD and LONG are 32 bits on every target, DWORD_PTR is as wide as a
/// pointer. Error numbers are Win32's, whatever the host's own are.

#ifdef _WIN32

#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

inline constexpr bool kIsPosix = false;

#else

#include <cstddef>
#include <cstdint>

/// True where the platform layer is our own, for what only one kind of target can do.
inline constexpr bool kIsPosix = true;

/// @{
/// Calling conventions mean nothing here.
#define WINAPI
#define CALLBACK
#define __stdcall
#define __cdecl
/// @}

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using UINT = std::uint32_t;
using ULONG = std::uint32_t;
using LONG = std::int32_t;
using BOOL = int;
using CHAR = char;
using LONGLONG = std::int64_t;
using ULONGLONG = std::uint64_t;
using DWORD_PTR = std::uintptr_t;
using UINT_PTR = std::uintptr_t;
using ULONG_PTR = std::uintptr_t;
using LONG_PTR = std::intptr_t;
using LPVOID = void *;
using LPCVOID = void const *;
using LPSTR = char *;
using LPCSTR = char const *;
using LPBYTE = BYTE *;
using LPDWORD = DWORD *;
using LPLONG = LONG *;
using HANDLE = void *;
using WPARAM = UINT_PTR;
using LPARAM = LONG_PTR;
using LRESULT = LONG_PTR;

struct SECURITY_ATTRIBUTES; ///< never defined: nobody can ask for what is not there
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES *;

inline constexpr int TRUE = 1;
inline constexpr int FALSE = 0;
inline constexpr int MAX_PATH = 260;
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)))

/// The exit code of a thread or process that has not ended.
inline constexpr DWORD STILL_ACTIVE = 259;

/// @{
/// Access rights that objects of every kind share.
inline constexpr DWORD READ_CONTROL = 0x00020000u;
inline constexpr DWORD STANDARD_RIGHTS_REQUIRED = 0x000F0000u;
inline constexpr DWORD SYNCHRONIZE = 0x00100000u;
inline constexpr DWORD MAXIMUM_ALLOWED = 0x02000000u;
inline constexpr DWORD GENERIC_ALL = 0x10000000u;
inline constexpr DWORD GENERIC_EXECUTE = 0x20000000u;
inline constexpr DWORD GENERIC_WRITE = 0x40000000u;
inline constexpr DWORD GENERIC_READ = 0x80000000u;
/// @}

inline constexpr DWORD NO_ERROR = 0u;
inline constexpr DWORD ERROR_SUCCESS = 0u;
inline constexpr DWORD ERROR_INVALID_FUNCTION = 1u;
inline constexpr DWORD ERROR_FILE_NOT_FOUND = 2u;
inline constexpr DWORD ERROR_PATH_NOT_FOUND = 3u;
inline constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4u;
inline constexpr DWORD ERROR_ACCESS_DENIED = 5u;
inline constexpr DWORD ERROR_INVALID_HANDLE = 6u;
inline constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8u;
inline constexpr DWORD ERROR_BAD_FORMAT = 11u;
inline constexpr DWORD ERROR_INVALID_ACCESS = 12u;
inline constexpr DWORD ERROR_INVALID_DATA = 13u;
inline constexpr DWORD ERROR_OUTOFMEMORY = 14u;
inline constexpr DWORD ERROR_NOT_SAME_DEVICE = 17u;
inline constexpr DWORD ERROR_NO_MORE_FILES = 18u;
inline constexpr DWORD ERROR_WRITE_PROTECT = 19u;
inline constexpr DWORD ERROR_NOT_READY = 21u;
inline constexpr DWORD ERROR_SEEK = 25u;
inline constexpr DWORD ERROR_WRITE_FAULT = 29u;
inline constexpr DWORD ERROR_READ_FAULT = 30u;
inline constexpr DWORD ERROR_GEN_FAILURE = 31u;
inline constexpr DWORD ERROR_SHARING_VIOLATION = 32u;
inline constexpr DWORD ERROR_LOCK_VIOLATION = 33u;
inline constexpr DWORD ERROR_HANDLE_EOF = 38u;
inline constexpr DWORD ERROR_HANDLE_DISK_FULL = 39u;
inline constexpr DWORD ERROR_NOT_SUPPORTED = 50u;
inline constexpr DWORD ERROR_REM_NOT_LIST = 51u;
inline constexpr DWORD ERROR_FILE_EXISTS = 80u;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87u;
inline constexpr DWORD ERROR_BROKEN_PIPE = 109u;
inline constexpr DWORD ERROR_OPEN_FAILED = 110u;
inline constexpr DWORD ERROR_BUFFER_OVERFLOW = 111u;
inline constexpr DWORD ERROR_DISK_FULL = 112u;
inline constexpr DWORD ERROR_CALL_NOT_IMPLEMENTED = 120u;
inline constexpr DWORD ERROR_SEM_TIMEOUT = 121u;
inline constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122u;
inline constexpr DWORD ERROR_INVALID_NAME = 123u;
inline constexpr DWORD ERROR_MOD_NOT_FOUND = 126u;
inline constexpr DWORD ERROR_PROC_NOT_FOUND = 127u;
inline constexpr DWORD ERROR_NEGATIVE_SEEK = 131u;
inline constexpr DWORD ERROR_DIR_NOT_EMPTY = 145u;
inline constexpr DWORD ERROR_BAD_PATHNAME = 161u;
inline constexpr DWORD ERROR_SIGNAL_REFUSED = 156u;
inline constexpr DWORD ERROR_BUSY = 170u;
inline constexpr DWORD ERROR_ALREADY_EXISTS = 183u;
inline constexpr DWORD ERROR_BAD_EXE_FORMAT = 193u;
inline constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206u;
inline constexpr DWORD ERROR_BAD_PIPE = 230u;
inline constexpr DWORD ERROR_PIPE_BUSY = 231u;
inline constexpr DWORD ERROR_NO_DATA = 232u;
inline constexpr DWORD ERROR_MORE_DATA = 234u;
inline constexpr DWORD ERROR_NO_MORE_ITEMS = 259u;
inline constexpr DWORD ERROR_DIRECTORY = 267u;
inline constexpr DWORD ERROR_NOT_OWNER = 288u;
inline constexpr DWORD ERROR_OPERATION_ABORTED = 995u;
inline constexpr DWORD ERROR_IO_PENDING = 997u;
inline constexpr DWORD ERROR_NOACCESS = 998u;
inline constexpr DWORD ERROR_BADDB = 1009u;
inline constexpr DWORD ERROR_BADKEY = 1010u;
inline constexpr DWORD ERROR_CANTOPEN = 1011u;
inline constexpr DWORD ERROR_CANTREAD = 1012u;
inline constexpr DWORD ERROR_KEY_DELETED = 1018u;
inline constexpr DWORD ERROR_IO_DEVICE = 1117u;
inline constexpr DWORD ERROR_ALREADY_INITIALIZED = 1247u;
inline constexpr DWORD ERROR_INVALID_OWNER = 1307u;
inline constexpr DWORD ERROR_INVALID_WINDOW_HANDLE = 1400u;
inline constexpr DWORD ERROR_INVALID_THREAD_ID = 1444u;
inline constexpr DWORD ERROR_NO_SYSTEM_RESOURCES = 1450u;
inline constexpr DWORD ERROR_TIMEOUT = 1460u;
inline constexpr DWORD ERROR_UNKNOWN_PRINTER_DRIVER = 1797u;
inline constexpr DWORD ERROR_INVALID_PRINTER_NAME = 1801u;
inline constexpr DWORD ERROR_CANT_RESOLVE_FILENAME = 1921u;
inline constexpr DWORD ERROR_NOT_CONNECTED = 2250u;

/// @{
/// As Win32. Each copy of the layer (the program's, a module's) keeps words of its own: a module's
/// last error is asked for inside that module.
DWORD WINAPI GetLastError();
void WINAPI SetLastError(DWORD dwError);
/// @}

/// @{
/// As Win32: full barriers, and the new value.
inline LONG InterlockedIncrement(LONG volatile *pn)
{
    return __atomic_add_fetch(pn, 1, __ATOMIC_SEQ_CST);
}

inline LONG InterlockedDecrement(LONG volatile *pn)
{
    return __atomic_sub_fetch(pn, 1, __ATOMIC_SEQ_CST);
}
/// @}

#endif
