#pragma once

/// @file
/// Processes: starting, waiting for and ending them, pipes to them, and what a process knows of itself.

#include "platform/base.h"
#include "platform/thread.h" // STILL_ACTIVE

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
    DWORD dwFlags; ///< 0 or STARTF_USESTDHANDLES
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

inline constexpr DWORD STARTF_USESTDHANDLES = 0x100;
inline constexpr DWORD CREATE_NEW_PROCESS_GROUP = 0x200;

inline constexpr DWORD STD_INPUT_HANDLE = static_cast<DWORD>(-10);
inline constexpr DWORD STD_OUTPUT_HANDLE = static_cast<DWORD>(-11);
inline constexpr DWORD STD_ERROR_HANDLE = static_cast<DWORD>(-12);

/// As Win32: both handles of *pInfo can be waited on and must be closed; the program is looked for on
/// PATH only when there is no pszProgram; the command line is taken apart by the rules of the runtime
/// (quotes, backslashes before quotes). Except:
/// - The child gets its three standard streams and no other handle, whatever fInherit says. With
///   STARTF_USESTDHANDLES, which needs fInherit, each of the three is an inheritable handle
///   (ERROR_INVALID_HANDLE otherwise) or null for none; without it they are our own.
/// - dwFlags is 0 or CREATE_NEW_PROCESS_GROUP, no security descriptors; else ERROR_INVALID_PARAMETER.
/// - "hThread" and dwThreadId stand for the process once more.
/// - The child starts with no signal blocked or ignored.
BOOL CreateProcessA(char const *pszProgram, char *pszCommandLine,
                    SECURITY_ATTRIBUTES *pProcessSecurity, SECURITY_ATTRIBUTES *pThreadSecurity,
                    BOOL fInherit, DWORD dwFlags, void *pEnvironment, char const *pszDirectory,
                    STARTUPINFOA *pStartup, PROCESS_INFORMATION *pInfo);

/// As Win32, except: an exit code has 8 bits here; a process that a signal ended has 128 plus its
/// number, and one that TerminateProcess ended the code given there.
BOOL GetExitCodeProcess(HANDLE hProcess, DWORD *pdwExitCode);

/// As Win32: ends the process at once; ERROR_ACCESS_DENIED when it has ended already.
BOOL TerminateProcess(HANDLE hProcess, UINT nExitCode);

DWORD GetCurrentProcessId();

/// As Win32, for CTRL_C_EVENT and CTRL_BREAK_EVENT (console.h) to a group that a process started with
/// CREATE_NEW_PROCESS_GROUP leads. Except: that group hears CTRL_C_EVENT too.
BOOL GenerateConsoleCtrlEvent(DWORD dwCtrlEvent, DWORD dwProcessGroupId);

/// As Win32: two file handles, read with ReadFile, written with WriteFile, closed with CloseHandle.
/// cbBuffer is not acted on.
BOOL CreatePipe(HANDLE *phRead, HANDLE *phWrite, SECURITY_ATTRIBUTES *pSecurity, DWORD cbBuffer);

/// As Win32: an inheritable handle of the process's own stream, which closing does not close.
HANDLE GetStdHandle(DWORD dwWhich);

/// As Win32, for the process's own program file only: hModule must be null (else 0 with
/// ERROR_MOD_NOT_FOUND).
DWORD GetModuleFileNameA(HMODULE hModule, char *pszBuffer, DWORD cch);

/// There is no debugger to tell: the text goes to the standard error stream if PlatSetDebugOutput asked
/// for it, else nowhere. Keeps the last error and errno.
void OutputDebugStringA(char const *pszText);

#endif

/// Switches whether OutputDebugStringA writes to the standard error stream; off at the start. On
/// Windows nothing changes, the debugger gets the text.
void PlatSetDebugOutput(bool fOn);

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
