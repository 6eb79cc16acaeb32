#pragma once

#include "platform/base.h"

// Mutexes, events, waits and handles.

#ifndef _WIN32

inline constexpr DWORD INFINITE = 0xFFFFFFFFu; ///< ms
inline constexpr DWORD WAIT_OBJECT_0 = 0u;
inline constexpr DWORD WAIT_ABANDONED = 0x80u;
inline constexpr DWORD WAIT_TIMEOUT = 258u;
inline constexpr DWORD WAIT_FAILED = 0xFFFFFFFFu;

inline constexpr DWORD MUTEX_MODIFY_STATE = 0x0001u;
inline constexpr DWORD MUTEX_ALL_ACCESS = 0x1F0001u;
inline constexpr DWORD EVENT_MODIFY_STATE = 0x0002u;
inline constexpr DWORD EVENT_ALL_ACCESS = 0x1F0003u;

/// As Win32, except:
/// - pAttributes is not looked at: nothing is inherited, and a named object belongs to its user alone;
/// - when a mutex is released it is free for whoever comes first. A waiter that was woken and came too
///   late twice gets it handed over, so none waits for ever, but the order of waiters is not kept;
/// - "Global\" and "Local\" both mean this user's processes (two spaces of names).
/// Last errors: 0 for a new object, ERROR_ALREADY_EXISTS with a handle, and with no handle
/// ERROR_INVALID_HANDLE (the name belongs to an event), ERROR_PATH_NOT_FOUND (a backslash inside the
/// name), ERROR_FILENAME_EXCED_RANGE (260 bytes or more), ERROR_NO_SYSTEM_RESOURCES (262,144 handles),
/// ERROR_ACCESS_DENIED (this user's directory for shared objects cannot be made or is another's),
/// ERROR_DISK_FULL (no room for a page, neither in the memory that all users share nor in /tmp).
///
/// A free mutex is taken and released without a call to the kernel, named or not. A named one vanishes
/// with its last handle in any process, owned or not, killed ones included (what a process did not close
/// when it ended is not found again, and swept away by a later one). When its owner is killed, a wait with
/// a time-out hears of it up to 50 ms later, one without at once.
HANDLE WINAPI CreateMutexA(LPSECURITY_ATTRIBUTES pAttributes, BOOL fInitialOwner, LPCSTR pszName);

/// As Win32, except: fInherit is not looked at. Rights are kept: a wait needs SYNCHRONIZE.
HANDLE WINAPI OpenMutexA(DWORD dwAccess, BOOL fInherit, LPCSTR pszName);

/// As Win32: ERROR_NOT_OWNER for a thread that does not own it.
BOOL WINAPI ReleaseMutex(HANDLE hMutex);

/// As Win32, except: as CreateMutexA, and with a *named* auto-reset event two calls of SetEvent in a
/// row may release one waiter only, if that one has not run in between. Unnamed events release one
/// waiter per call, in the order in which they came.
HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES pAttributes, BOOL fManualReset, BOOL fInitialState,
                           LPCSTR pszName);

/// As Win32, except: fInherit is not looked at. Rights are kept: SetEvent and ResetEvent need
/// EVENT_MODIFY_STATE, a wait SYNCHRONIZE.
HANDLE WINAPI OpenEventA(DWORD dwAccess, BOOL fInherit, LPCSTR pszName);

BOOL WINAPI SetEvent(HANDLE hEvent);
BOOL WINAPI ResetEvent(HANDLE hEvent);

/// As Win32, for mutexes, events, threads and processes, except: INVALID_HANDLE_VALUE does not stand
/// for this process; it fails with ERROR_INVALID_HANDLE as every value that is no handle. Times are
/// counted on the monotonic clock; a wait never ends before its time. Closing the handle meanwhile
/// does not disturb the wait.
DWORD WINAPI WaitForSingleObject(HANDLE hObject, DWORD dwMilliseconds);

/// As Win32: FALSE with ERROR_INVALID_HANDLE for null and for a handle that was closed before, TRUE
/// for INVALID_HANDLE_VALUE (which stands for this process there, and is not to be closed).
BOOL WINAPI CloseHandle(HANDLE hObject);

/// As Win32. 0 gives way to other threads.
void WINAPI Sleep(DWORD dwMilliseconds);

/// As Win32, except: nothing can be queued to a thread, so the result is always 0.
DWORD WINAPI SleepEx(DWORD dwMilliseconds, BOOL fAlertable);

/// SetEvent by the owner of hMutex, an unnamed mutex that it is about to release: result, last error and
/// effect are those of SetEvent, but a thread that sleeps for the event gets to run behind the release,
/// and so does not wake only to find the mutex taken. Until the release the caller waits for nothing that
/// the sleeper has to do. Whoever does not own hMutex, or owns it more than once, calls SetEvent in effect.
BOOL PlatSetEventBehind(HANDLE hEvent, HANDLE hMutex);

#else

inline BOOL PlatSetEventBehind(HANDLE hEvent, HANDLE /*hMutex*/)
{
    return SetEvent(hEvent);
}

#endif
