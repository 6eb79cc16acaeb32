#pragma once

/// @file
/// Processes: starting a program, commands with all that they start, and what a process knows of itself.

#include "platform/base.h"

#include <cstddef>
#include <memory>

#ifdef _WIN32

#include <process.h>

#else

using HMODULE = void *;

struct STARTUPINFOA {
    DWORD cb; ///< must be sizeof(STARTUPINFOA)
    char *lpReserved;
    char *lpDesktop;
    char *lpTitle;
    DWORD dwX;
    DWORD dwY;
    DWORD dwXSize;
    DWORD dwYSize;
    DWORD dwXCountChars;
    DWORD dwYCountChars;
    DWORD dwFillAttribute;
    DWORD dwFlags; ///< must be 0
    WORD wShowWindow;
    WORD cbReserved2;
    BYTE *lpReserved2;
    HANDLE hStdInput;
    HANDLE hStdOutput;
    HANDLE hStdError;
};

struct PROCESS_INFORMATION {
    HANDLE hProcess;
    HANDLE hThread;
    DWORD dwProcessId;
    DWORD dwThreadId;
};

/// As Win32: both handles of *pInfo can be waited on and must be closed. Except:
/// - There are a program and nothing else: no command line, flags, environment, folder or security descriptors,
///   and nothing in the startup record (ERROR_INVALID_PARAMETER otherwise).
/// - The child gets our three standard streams and no other handle, whatever fInherit says.
/// - "hThread" and dwThreadId stand for the process once more.
/// - The child starts with no signal blocked or ignored.
BOOL CreateProcessA(char const *pszProgram, char *pszCommandLine,
                    SECURITY_ATTRIBUTES *pProcessSecurity, SECURITY_ATTRIBUTES *pThreadSecurity,
                    BOOL fInherit, DWORD dwFlags, void *pEnvironment, char const *pszDirectory,
                    STARTUPINFOA *pStartup, PROCESS_INFORMATION *pInfo);

DWORD GetCurrentProcessId();

/// As Win32, for the process's own program file only: hModule must be null (else 0 with
/// ERROR_MOD_NOT_FOUND).
DWORD GetModuleFileNameA(HMODULE hModule, char *pszBuffer, DWORD cch);

/// There is no debugger to tell.
inline void OutputDebugStringA(char const *) {}

#endif

/// One variable of a command's environment.
struct PlatEnvType {
    char const *pszName;  ///< letters, digits and underscores, not beginning with a digit
    char const *pszValue; ///< any text
};

class CPlatCommandImpl;

/// A command line of the system's shell (/bin/sh -c, cmd.exe /c), or a program, with all the processes that
/// it starts: a process group or a job object of its own, which an interrupt at our terminal does not reach. One thread
/// starts it and waits; End may be called by any thread between Start and the destructor. When this
/// process ends, however it does, on Windows a command that still runs ends with it; elsewhere it goes on.
class CPlatCommand {
public:
    CPlatCommand();
    /// Lets go of the command. What of it still runs goes on.
    ~CPlatCommand();
    CPlatCommand(CPlatCommand const &) = delete;
    CPlatCommand &operator=(CPlatCommand const &) = delete;

    /// Starts it, once, with an empty standard input, with our standard error for its own and for its
    /// standard output, and with our environment, to which the `cVariables` pairs are added (or in which
    /// they take the place of what has their name). What comes from outside belongs in these pairs and
    /// never into the command. FALSE with the last error; ERROR_INVALID_PARAMETER for a null argument, a
    /// name that is none, or a second start.
    BOOL Start(char const *pszCommand, PlatEnvType const *pVariables, std::size_t cVariables);

    /// The same for a program with its arguments, which no shell sees: the `cArguments` texts, 1 or more, the
    /// first of which is the program, looked for on PATH if it has no slash. Its standard input holds the
    /// cbInput bytes, and then ends; what it does not read of them holds up nobody.
    BOOL StartProgram(char const *const *ppszArguments, std::size_t cArguments, void const *pInput,
                      std::size_t cbInput);

    /// Waits at most `dwMilliseconds` (INFINITE: without a limit) for the end of the shell. What it left
    /// running in the background is not waited for. TRUE with its exit code; FALSE if it has not ended.
    BOOL Wait(DWORD dwMilliseconds, DWORD *pdwExitCode);

    /// Has all its processes end: asks them to (SIGTERM), and ends by force those that have not gone
    /// after `dwMilliseconds`. Systems without such a request end them at once. Must not be called when
    /// the command has ended and its process number may have gone to another one: after a Wait that
    /// gave TRUE.
    void End(DWORD dwMilliseconds);

private:
    std::unique_ptr<CPlatCommandImpl> m_pImpl;
};
