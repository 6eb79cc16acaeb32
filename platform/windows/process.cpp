#include "platform/process.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

bool IsEnvironmentName(char const *psz)
{
    if (psz == nullptr || *psz == '\0' || (*psz >= '0' && *psz <= '9')) {
        return false;
    }
    return std::strspn(psz, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_") ==
           std::strlen(psz);
}

bool IsVariable(char const *pszEntry, PlatEnvType const &variable)
{
    std::size_t const cch = std::strlen(variable.pszName);
    return _strnicmp(pszEntry, variable.pszName, cch) == 0 && pszEntry[cch] == '=';
}

// Our environment with the pairs in it, as CreateProcessA takes it.
std::vector<char> EnvironmentBlock(PlatEnvType const *pVariables, std::size_t cVariables)
{
    std::vector<char> ach;
    auto const append = [&ach](std::string const &str) {
        ach.insert(ach.end(), str.c_str(), str.c_str() + str.size() + 1);
    };
    std::unique_ptr<char, decltype(&FreeEnvironmentStringsA)> const pszBlock(
        GetEnvironmentStringsA(), &FreeEnvironmentStringsA);
    for (char const *psz = pszBlock.get(); psz != nullptr && *psz != '\0';
         psz += std::strlen(psz) + 1) {
        bool fReplaced = false;
        for (std::size_t i = 0; i < cVariables; ++i) {
            fReplaced = fReplaced || IsVariable(psz, pVariables[i]);
        }
        if (!fReplaced) {
            append(psz);
        }
    }
    for (std::size_t i = 0; i < cVariables; ++i) {
        append(std::string(pVariables[i].pszName) + "=" + pVariables[i].pszValue);
    }
    ach.push_back('\0');
    return ach;
}

// A handle, for a scope or longer.
class CHandle {
public:
    explicit CHandle(HANDLE h = nullptr) : m_h(h == INVALID_HANDLE_VALUE ? nullptr : h) {}
    ~CHandle()
    {
        if (m_h != nullptr) {
            CloseHandle(m_h);
        }
    }
    CHandle(CHandle &&other) noexcept : m_h(std::exchange(other.m_h, nullptr)) {}
    CHandle &operator=(CHandle &&other) noexcept
    {
        std::swap(m_h, other.m_h);
        return *this;
    }
    HANDLE Get() const { return m_h; }

private:
    HANDLE m_h;
};

CHandle InheritableCopy(HANDLE h)
{
    HANDLE hCopy = nullptr;
    DuplicateHandle(GetCurrentProcess(), h, GetCurrentProcess(), &hCopy, 0, TRUE,
                    DUPLICATE_SAME_ACCESS);
    return CHandle(hCopy);
}

// With fKill, its processes end when its last handle goes, which the system sees to in any case.
BOOL SetKillOnClose(HANDLE hJob, bool fKill)
{
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = fKill ? JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE : 0;
    return SetInformationJobObject(hJob, JobObjectExtendedLimitInformation, &limits, sizeof limits);
}

// One argument as the runtime of a program takes it apart: quotes, and backslashes before quotes.
std::string QuotedArgument(std::string const &str)
{
    std::string strOut = "\"";
    std::size_t cBackslashes = 0;
    for (char const ch : str) {
        if (ch == '"') {
            strOut.append(cBackslashes + 1, '\\');
        }
        cBackslashes = ch == '\\' ? cBackslashes + 1 : 0;
        strOut += ch;
    }
    return strOut.append(cBackslashes, '\\') + "\"";
}

} // namespace

class CPlatCommandImpl {
public:
    BOOL Start(char const *pszCommand, PlatEnvType const *pVariables, std::size_t cVariables)
    {
        SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
        CHandle const in(CreateFileA("NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                     &inherited, OPEN_EXISTING, 0, nullptr));
        // The outer quotes are what /s takes off again; the rest is the line as it was given.
        return Launch(std::string("cmd.exe /s /c \"") + pszCommand + "\"", in.Get(),
                      EnvironmentBlock(pVariables, cVariables));
    }

    // The input is in the pipe, whole, before the program begins.
    BOOL StartProgram(std::string const &strLine, void const *pInput, std::size_t cbInput)
    {
        HANDLE hRead = nullptr;
        HANDLE hWrite = nullptr;
        auto const cb = static_cast<DWORD>(cbInput);
        if (!CreatePipe(&hRead, &hWrite, nullptr, cb + 1)) {
            return FALSE;
        }
        CHandle const read(hRead);
        CHandle const write(hWrite);
        DWORD cbWritten = 0;
        if (cb > 0 && !WriteFile(hWrite, pInput, cb, &cbWritten, nullptr)) {
            return FALSE;
        }
        CHandle const in(InheritableCopy(hRead));
        return Launch(strLine, in.Get(), EnvironmentBlock(nullptr, 0));
    }

    BOOL Launch(std::string strLine, HANDLE hInput, std::vector<char> achEnvironment)
    {
        CHandle job(CreateJobObjectA(nullptr, nullptr));
        if (job.Get() == nullptr || !SetKillOnClose(job.Get(), true)) {
            return FALSE;
        }
        CHandle const out(InheritableCopy(GetStdHandle(STD_ERROR_HANDLE)));
        STARTUPINFOA startup = {};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = hInput;
        startup.hStdOutput = out.Get();
        startup.hStdError = out.Get();
        PROCESS_INFORMATION info = {};
        if (!CreateProcessA(nullptr, strLine.data(), nullptr, nullptr, /*bInheritHandles=*/TRUE,
                            CREATE_NEW_PROCESS_GROUP | CREATE_SUSPENDED, achEnvironment.data(),
                            nullptr, &startup, &info)) {
            return FALSE;
        }
        CHandle const thread(info.hThread);
        m_process = CHandle(info.hProcess);
        if (!AssignProcessToJobObject(job.Get(), info.hProcess)) {
            DWORD const dwError = GetLastError();
            TerminateProcess(info.hProcess, dwError);
            SetLastError(dwError);
            return FALSE;
        }
        m_job = std::move(job);
        ResumeThread(info.hThread);
        return TRUE;
    }

    CHandle m_process; // empty before the start
    CHandle m_job;
};

CPlatCommand::CPlatCommand() : m_pImpl(std::make_unique<CPlatCommandImpl>()) {}

CPlatCommand::~CPlatCommand()
{
    SetKillOnClose(m_pImpl->m_job.Get(), false);
}

BOOL CPlatCommand::Start(char const *pszCommand, PlatEnvType const *pVariables,
                         std::size_t cVariables)
{
    bool fKnown = pszCommand != nullptr && (pVariables != nullptr || cVariables == 0) &&
                  m_pImpl->m_process.Get() == nullptr;
    for (std::size_t i = 0; fKnown && i < cVariables; ++i) {
        fKnown = IsEnvironmentName(pVariables[i].pszName) && pVariables[i].pszValue != nullptr;
    }
    if (!fKnown) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    try {
        return m_pImpl->Start(pszCommand, pVariables, cVariables);
    } catch (std::bad_alloc const &) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
}

BOOL CPlatCommand::StartProgram(char const *const *ppszArguments, std::size_t cArguments,
                                void const *pInput, std::size_t cbInput)
{
    if (ppszArguments == nullptr || cArguments == 0 || *ppszArguments[0] == '\0' ||
        (pInput == nullptr && cbInput > 0) || cbInput > MAXLONG ||
        m_pImpl->m_process.Get() != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    try {
        std::string strLine;
        for (std::size_t i = 0; i < cArguments; ++i) {
            strLine += (i > 0 ? " " : "") + QuotedArgument(ppszArguments[i]);
        }
        return m_pImpl->StartProgram(strLine, pInput, cbInput);
    } catch (std::bad_alloc const &) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
}

BOOL CPlatCommand::Wait(DWORD dwMilliseconds, DWORD *pdwExitCode)
{
    return WaitForSingleObject(m_pImpl->m_process.Get(), dwMilliseconds) == WAIT_OBJECT_0 &&
           GetExitCodeProcess(m_pImpl->m_process.Get(), pdwExitCode);
}

void CPlatCommand::End(DWORD)
{
    TerminateJobObject(m_pImpl->m_job.Get(), 1);
}
