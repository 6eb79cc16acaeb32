// Cases that need a second process start this very program again in a role: `test_platform --role NAME ARG`.

#pragma once

#include "platform/process.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "tests/support/guards.h"

#include <type_traits>
#include <vector>

// Defines what the program does in a role; the result is its exit code.
struct CTestRole {
    CTestRole(char const *pszName, int (*pfnRun)(std::string const &strArgument));
};

// Where this program lies.
std::string OwnProgram();

// A program, mostly this one in a role, ended at the latest with the block.
class CRoleProcess {
public:
    CRoleProcess(char const *pszRole, std::string const &strArgument);
    explicit CRoleProcess(std::vector<std::string> const &arguments);
    ~CRoleProcess();
    CRoleProcess(CRoleProcess const &) = delete;
    CRoleProcess &operator=(CRoleProcess const &) = delete;

    // Asks it to end, as far as the system knows that, and has it ended in any case.
    void End(DWORD dwMilliseconds);
    void Kill() { End(0); }
    bool HasEnded(DWORD dwMilliseconds = 0);
    // Waits for its end.
    DWORD ExitCode();

private:
    CPlatCommand m_command;
    bool m_fEnded = false;
    DWORD m_dwExitCode = STILL_ACTIVE;
};

// How long a wait may take that a broken build alone lets run out, in milliseconds.
inline constexpr DWORD kdwLimit = 60000;

// A command's exit code, once it has ended.
inline DWORD RunCommand(std::string const &strCommand,
                        std::vector<PlatEnvType> const &variables = {})
{
    CPlatCommand command;
    DWORD dwExit = STILL_ACTIVE;
    EXPECT_TRUE(command.Start(strCommand.c_str(), variables.data(), variables.size()));
    EXPECT_TRUE(command.Wait(kdwLimit, &dwExit));
    return dwExit;
}

// The call gives FALSE or null and this last error.
#define EXPECT_FAILS(call, dwExpected)                                                             \
    do {                                                                                           \
        SetLastError(0xDEADBEEF);                                                                  \
        EXPECT_FALSE(call);                                                                        \
        EXPECT_EQ(GetLastError(), DWORD{dwExpected});                                              \
    } while (false)

// Closes at the end of its block, if there is something left to close.
class CTestHandle {
public:
    explicit CTestHandle(HANDLE hObject) : m_hObject(hObject) { EXPECT_NE(hObject, nullptr); }
    ~CTestHandle() { Close(); }
    CTestHandle(CTestHandle const &) = delete;
    CTestHandle &operator=(CTestHandle const &) = delete;

    operator HANDLE() const { return m_hObject; }
    void Close()
    {
        if (!m_hObject) {
            return;
        }
        EXPECT_TRUE(CloseHandle(m_hObject));
        m_hObject = nullptr;
    }

private:
    HANDLE m_hObject;
};

inline std::string UniqueName(char const *pszWhat)
{
    std::random_device random;
    return std::string("qoma test/") + pszWhat + " " + std::to_string(random()) +
           std::to_string(random());
}

// Processes tell each other by files how far they are.
inline bool WaitForFile(std::string const &strName)
{
    return WaitFor([&] { return std::filesystem::exists(strName); });
}

template <class Code>
unsigned __stdcall RunThreadCode(void *pvArgument)
{
    return Code{}(pvArgument);
}

inline HANDLE StartThread(unsigned(__stdcall *pfnStart)(void *), void *pvArgument = nullptr,
                          unsigned fwFlags = 0, unsigned *pidThread = nullptr)
{
    return reinterpret_cast<HANDLE>(
        _beginthreadex(nullptr, 0, pfnStart, pvArgument, fwFlags, pidThread));
}

// A lambda without captures as a thread's code: by itself it lacks the calling convention.
template <class Code>
    requires std::is_empty_v<Code>
HANDLE StartThread(Code, void *pvArgument = nullptr, unsigned fwFlags = 0,
                   unsigned *pidThread = nullptr)
{
    return StartThread(&RunThreadCode<Code>, pvArgument, fwFlags, pidThread);
}

// Waits for the thread's end.
inline DWORD ExitCodeOf(HANDLE hThread)
{
    DWORD dwCode = WAIT_FAILED;
    EXPECT_EQ(WaitForSingleObject(hThread, kdwLimit), DWORD{WAIT_OBJECT_0});
    EXPECT_TRUE(GetExitCodeThread(hThread, &dwCode));
    return dwCode;
}

// The result of a call on a thread of its own.
template <class Call>
auto OnOtherThread(Call call)
{
    decltype(call()) result{};
    std::thread([&] { result = call(); }).join();
    return result;
}
