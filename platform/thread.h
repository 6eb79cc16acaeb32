#pragma once

#include "platform/base.h"

#include <functional>

// Threads by handle.

#ifdef _WIN32

#include <process.h>

#else

inline constexpr DWORD CREATE_SUSPENDED = 0x00000004u;
inline constexpr DWORD STACK_SIZE_PARAM_IS_A_RESERVATION = 0x00010000u;

inline constexpr int THREAD_PRIORITY_IDLE = -15;
inline constexpr int THREAD_PRIORITY_LOWEST = -2;
inline constexpr int THREAD_PRIORITY_BELOW_NORMAL = -1;
inline constexpr int THREAD_PRIORITY_NORMAL = 0;
inline constexpr int THREAD_PRIORITY_ABOVE_NORMAL = 1;
inline constexpr int THREAD_PRIORITY_HIGHEST = 2;
inline constexpr int THREAD_PRIORITY_TIME_CRITICAL = 15;
inline constexpr int THREAD_PRIORITY_ERROR_RETURN = 0x7FFFFFFF;

/// As the Windows runtime's, except:
/// - pSecurity is not looked at; flags other than the two above fail with EINVAL;
/// - closing the handle of a thread that was created suspended and never resumed ends that thread;
/// - an exception that leaves pfnStart ends the process.
/// Failure: 0, with errno EINVAL or EAGAIN and the last error set. A wait for the handle that succeeds
/// means that the thread is gone from the process, its thread_local objects destroyed.
std::uintptr_t __cdecl _beginthreadex(void *pSecurity, unsigned cbStack,
                                      unsigned(__stdcall *pfnStart)(void *), void *pvArgument,
                                      unsigned fwFlags, unsigned *pidThread);

/// As the Windows runtime's: ends the calling thread. Destructors of objects on its stack do not run,
/// those of its thread_local objects do.
[[noreturn]] void __cdecl _endthreadex(unsigned nExitCode);

/// As Win32, for a thread that was created suspended: 1 when it begins to run by this, 0 when it ran before,
/// (DWORD)-1 on failure.
DWORD WINAPI ResumeThread(HANDLE hThread);

/// As Win32 for -15, -2 to 2 and 15 (others: ERROR_INVALID_PARAMETER), except: what an unprivileged
/// process may not do is remembered only. A thread can be made nicer than the rest, and mostly not
/// taken back: the system then leaves it as it is, without an error here.
BOOL WINAPI SetThreadPriority(HANDLE hThread, int nPriority);
/// As Win32: the priority last set, THREAD_PRIORITY_ERROR_RETURN on a bad handle.
int WINAPI GetThreadPriority(HANDLE hThread);

/// As Win32. The number is the one that the system's own tools show.
DWORD WINAPI GetCurrentThreadId();

/// As Win32: STILL_ACTIVE while the thread has not ended.
BOOL WINAPI GetExitCodeThread(HANDLE hThread, LPDWORD pdwExitCode);

#endif

// ---- What Win32 has no short call for, on every system

/// Runs fnWork, which must not throw, on a thread that nobody waits for: for a call into the system that cannot
/// be interrupted. Until the thread has ended it keeps the module of this copy of the layer loaded, so that a
/// host which unloads it meanwhile does not pull the code away. False, and nothing runs, when no thread can be
/// had. Throws std::bad_alloc.
bool PlatRunDetached(std::function<void()> fnWork);
