#include "platform/process.h"

#include "platform/posix/desktop/child.h"
#include "platform/posix/error.h"
#include "platform/posix/kernel/handle.h"
#include "platform/sync.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

class CProcessObject : public CHandleObject {
public:
    static constexpr EHandleKind kKind = eHK_PROCESS;
    explicit CProcessObject(std::shared_ptr<CChild> pChild) : m_pChild(std::move(pChild)) {}
    DWORD Wait(DWORD dwMilliseconds) override { return m_pChild->Wait(dwMilliseconds); }

private:
    std::shared_ptr<CChild> const m_pChild;
};

HANDLE CreateChildHandle(std::shared_ptr<CChild> const &pChild)
{
    return PlatHandleCreate(std::make_unique<CProcessObject>(pChild));
}

DWORD StartProgram(std::string strProgram, PROCESS_INFORMATION *pInfo)
{
    CStartRecord start;
    start.m_astrArguments = {strProgram};
    bool const fHere = strProgram.find('/') == std::string::npos;
    start.m_strProgram = (fHere ? "./" : "") + strProgram;
    std::shared_ptr<CChild> pChild;
    DWORD const dwError = SpawnChild(start, pChild);
    if (dwError != ERROR_SUCCESS) {
        return dwError;
    }
    auto const dwNumber = static_cast<DWORD>(pChild->Number());
    PROCESS_INFORMATION info = {CreateChildHandle(pChild), CreateChildHandle(pChild), dwNumber,
                                dwNumber};
    if (info.hProcess == nullptr || info.hThread == nullptr) {
        // A process that nobody could wait for must not run.
        ::kill(pChild->Number(), SIGKILL);
        CloseHandle(info.hProcess != nullptr ? info.hProcess : INVALID_HANDLE_VALUE);
        return ERROR_NO_SYSTEM_RESOURCES;
    }
    *pInfo = info;
    return ERROR_SUCCESS;
}

} // namespace

BOOL CreateProcessA(char const *pszProgram, char *pszCommandLine,
                    SECURITY_ATTRIBUTES *pProcessSecurity, SECURITY_ATTRIBUTES *pThreadSecurity,
                    BOOL, DWORD dwFlags, void *pEnvironment, char const *pszDirectory,
                    STARTUPINFOA *pStartup, PROCESS_INFORMATION *pInfo)
{
    bool const fKnown = pszProgram != nullptr && pszCommandLine == nullptr &&
                        pProcessSecurity == nullptr && pThreadSecurity == nullptr && dwFlags == 0 &&
                        pEnvironment == nullptr && pszDirectory == nullptr && pStartup != nullptr &&
                        pStartup->cb == sizeof(STARTUPINFOA) && pStartup->dwFlags == 0 &&
                        pInfo != nullptr;
    DWORD const dwError = !fKnown ? ERROR_INVALID_PARAMETER
                          : *pszProgram == '\0'
                              ? ERROR_PATH_NOT_FOUND
                              : WithMemory([&] { return StartProgram(pszProgram, pInfo); });
    return dwError == ERROR_SUCCESS ? TRUE : (SetLastError(dwError), FALSE);
}

DWORD GetCurrentProcessId()
{
    return static_cast<DWORD>(::getpid());
}

DWORD GetModuleFileNameA(HMODULE hModule, char *pszBuffer, DWORD cch)
{
    if (hModule != nullptr) {
        return SetLastError(ERROR_MOD_NOT_FOUND), 0;
    }
    char szPath[PATH_MAX];
    ssize_t const cchLink = ::readlink("/proc/self/exe", szPath, sizeof szPath);
    if (cchLink < 0) {
        return PlatFailErrno(), 0;
    }
    if (pszBuffer == nullptr || cch == 0) {
        return SetLastError(ERROR_INSUFFICIENT_BUFFER), 0;
    }
    std::string_view strPath(szPath, static_cast<std::size_t>(cchLink));
    constexpr std::string_view kstrGone =
        " (deleted)"; // what the kernel adds for a replaced program
    if (strPath.ends_with(kstrGone)) {
        strPath.remove_suffix(kstrGone.size());
    }
    std::size_t const cchCopied = std::min<std::size_t>(strPath.size(), cch - 1);
    std::memcpy(pszBuffer, strPath.data(), cchCopied);
    pszBuffer[cchCopied] = '\0';
    if (cchCopied < strPath.size()) {
        return SetLastError(ERROR_INSUFFICIENT_BUFFER), cch;
    }
    return static_cast<DWORD>(cchCopied);
}
