#pragma once

/// @file
/// Reading HKEY_LOCAL_MACHINE. On Windows it is the system's registry; on POSIX it is a text file in
/// the format of the Windows registry editor (docs/registry-file.md). PlatSetRegistryFile works on
/// both.

#include "platform/base.h"

#include <cstdint>

#ifdef _WIN32

#include <winreg.h>

/// What our own reading of HKEY_LOCAL_MACHINE begins from: the system's, or a private key with the contents
/// of the file that PlatSetRegistryFile has chosen, as it is now. Other code of the process goes on reading
/// the system's. Not to be closed.
HKEY PlatLocalMachine();
#undef HKEY_LOCAL_MACHINE
#define HKEY_LOCAL_MACHINE (PlatLocalMachine())

#else

using HKEY = struct HKEY__ *;
using REGSAM = DWORD;

inline HKEY const HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(static_cast<UINT_PTR>(0x80000002u));

inline constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
inline constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
inline constexpr REGSAM KEY_READ = 0x20019;
inline constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;

inline constexpr DWORD REG_NONE = 0;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_EXPAND_SZ = 2;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_DWORD = 4;
inline constexpr DWORD REG_MULTI_SZ = 7;
inline constexpr DWORD REG_QWORD = 11;

// Each call gives 0 or a Win32 error number, which is not stored as the last error. Any thread.
//
// An open key keeps the contents that it was opened from. The file is looked at again when a key is
// opened under HKEY_LOCAL_MACHINE; contents that have not changed are not read again.

/// As Win32, except: only HKEY_LOCAL_MACHINE and keys opened here; dwOptions must be 0. Texts are
/// UTF-8. ERROR_FILE_NOT_FOUND: there is no such key, or no file. ERROR_BAD_PATHNAME: pszSubKey
/// begins with a backslash. ERROR_ACCESS_DENIED: dwAccess asks for something else than reading,
/// unless it is KEY_ALL_ACCESS. On failure *phKey is null.
LONG RegOpenKeyExA(HKEY hKey, char const *pszSubKey, DWORD dwOptions, REGSAM dwAccess, HKEY *phKey);

/// As Win32: pszValue null or "" is the key's own value; pdwReserved must be null; pdwType may be
/// null. *pcbData is the size of pData in bytes before and of the value after the call; sizes of
/// texts count their terminator. A null pData only asks for the size. ERROR_MORE_DATA: pData is too
/// small, *pcbData is the size needed and pData is as it was. ERROR_FILE_NOT_FOUND: no such value, nothing is changed.
LONG RegQueryValueExA(HKEY hKey, char const *pszValue, DWORD *pdwReserved, DWORD *pdwType,
                      BYTE *pData, DWORD *pcbData);

/// As Win32, except: pdwReserved, pszClass, pcchClass and pLastWrite must be null
/// (ERROR_INVALID_PARAMETER). *pcchName is the size of pszName in bytes with the terminator before,
/// and the length of the name without it after the call. Keys come in the order of their names,
/// without case. ERROR_NO_MORE_ITEMS: dwIndex is past the last one. ERROR_MORE_DATA: pszName is too
/// small.
LONG RegEnumKeyExA(HKEY hKey, DWORD dwIndex, char *pszName, DWORD *pcchName, DWORD *pdwReserved,
                   char *pszClass, DWORD *pcchClass, void *pLastWrite);

/// As Win32: ERROR_INVALID_HANDLE for a key that is closed already; closing HKEY_LOCAL_MACHINE does
/// nothing.
LONG RegCloseKey(HKEY hKey);

#endif

// ---- Which file

/// Chooses the file that HKEY_LOCAL_MACHINE is read from, from now on; null chooses the default
/// again: `$XDG_CONFIG_HOME/qoma/registry.reg`, else `~/.config/qoma/registry.reg`; on Windows the
/// default is the system's registry itself, and a chosen file covers it for the callers of this
/// header only. A file that does not exist is an empty registry, and may appear later. 0;
/// ERROR_INVALID_PARAMETER for an empty path; ERROR_INVALID_DATA or the reason of the system when
/// the file cannot be read: PlatRegistryProblem then tells why, and the registry is empty until the
/// file is right. Any thread; keys that are open stay as they are.
DWORD PlatSetRegistryFile(char const *pszPath);

/// Copies the path of the file in use into pszPath, cut to cbPath bytes and always terminated.
/// Returns the length of the whole path, 0 when there is no file (no home directory; the system's
/// registry on Windows).
DWORD PlatRegistryFile(char *pszPath, DWORD cbPath);

/// A number for the state of the file in use. As long as it stays the same the file has not changed. 0
/// when there is no file.
std::uint64_t PlatRegistryStamp();

/// Why the file in its present state is refused, such as `/etc/x.reg:12: "dword:" needs 1 to 8
/// hexadecimal digits`. Copied and cut as above; returns the length of the whole text, 0 when there
/// is no problem. While there is one, the last good contents of the file hold.
DWORD PlatRegistryProblem(char *pszText, DWORD cbText);

/// Keys that are open in this process, for tests of leaks. Always 0 on Windows, which keeps no
/// count.
DWORD PlatLiveKeys();
