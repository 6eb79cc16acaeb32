#include "platform/posix/descriptor.h"
#include "platform/posix/desktop/child.h"
#include "platform/posix/error.h"
#include "platform/process.h"
#include "platform/sync.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int knKillTime = 100; // ms, for what nothing can refuse
constexpr int knPollSlice = 5;  // ms; there is no event for the end of a group

bool IsEnvironmentName(char const *psz)
{
    if (psz == nullptr || *psz == '\0' || (*psz >= '0' && *psz <= '9')) {
        return false;
    }
    return std::strspn(psz, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_") ==
           std::strlen(psz);
}

void SetVariable(std::vector<std::string> &astrEnvironment, PlatEnvType const &variable)
{
    std::string const strStart = std::string(variable.pszName) + "=";
    std::erase_if(astrEnvironment,
                  [&](std::string const &str) { return str.starts_with(strStart); });
    astrEnvironment.push_back(strStart + variable.pszValue);
}

// A program's input, in memory: it is whole before the program begins, and nobody has to feed it.
DWORD FillInput(void const *pInput, std::size_t cbInput, CDescriptor &fdInput)
{
    CDescriptor const fd(::memfd_create("input", MFD_CLOEXEC));
    if (!fd.IsOpen()) {
        return PlatErrorFromErrno(errno);
    }
    ssize_t const cb = ::pwrite(fd.Get(), pInput, cbInput, 0); // its place stays at the beginning
    if (cb >= 0) {
        fdInput.Reset(
            ::fcntl(fd.Get(), F_DUPFD_CLOEXEC, 3)); // above the streams, whose place it takes
    }
    if (!fdInput.IsOpen()) {
        return PlatErrorFromErrno(errno);
    }
    return static_cast<std::size_t>(cb) == cbInput ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
}

DWORD StartShell(char const *pszCommand, std::vector<PlatEnvType> const &aVariables,
                 std::shared_ptr<CChild> &pChild)
{
    CStartRecord start;
    start.m_strProgram = "/bin/sh";
    start.m_astrArguments = {"sh", "-c", pszCommand};
    for (PlatEnvType const &variable : aVariables) {
        SetVariable(start.m_astrEnvironment, variable);
    }
    start.m_fCommand = true;
    return SpawnChild(start, pChild);
}

DWORD StartArguments(std::vector<std::string> astrArguments, void const *pInput,
                     std::size_t cbInput, std::shared_ptr<CChild> &pChild)
{
    CDescriptor fdInput;
    DWORD const dwError = FillInput(pInput, cbInput, fdInput);
    if (dwError != ERROR_SUCCESS) {
        return dwError;
    }
    CStartRecord start;
    start.m_strProgram = astrArguments.front();
    start.m_astrArguments = std::move(astrArguments);
    start.m_fCommand = true;
    start.m_fdInput = fdInput.Get();
    return SpawnChild(start, pChild);
}

} // namespace

class CPlatCommandImpl {
public:
    std::shared_ptr<CChild> m_pChild; // null before the start; leads its group
};

CPlatCommand::CPlatCommand() : m_pImpl(std::make_unique<CPlatCommandImpl>()) {}
CPlatCommand::~CPlatCommand() = default;

BOOL CPlatCommand::Start(char const *pszCommand, PlatEnvType const *pVariables,
                         std::size_t cVariables)
{
    bool fKnown = pszCommand != nullptr && (pVariables != nullptr || cVariables == 0) &&
                  m_pImpl->m_pChild == nullptr;
    for (std::size_t i = 0; fKnown && i < cVariables; ++i) {
        fKnown = IsEnvironmentName(pVariables[i].pszName) && pVariables[i].pszValue != nullptr;
    }
    if (!fKnown) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    DWORD const dwError = WithMemory([&] {
        return StartShell(pszCommand, {pVariables, pVariables + cVariables}, m_pImpl->m_pChild);
    });
    return SetLastError(dwError), dwError == ERROR_SUCCESS;
}

BOOL CPlatCommand::StartProgram(char const *const *ppszArguments, std::size_t cArguments,
                                void const *pInput, std::size_t cbInput)
{
    if (ppszArguments == nullptr || cArguments == 0 || *ppszArguments[0] == '\0' ||
        (pInput == nullptr && cbInput > 0) || m_pImpl->m_pChild != nullptr) {
        return SetLastError(ERROR_INVALID_PARAMETER), FALSE;
    }
    DWORD const dwError = WithMemory([&] {
        return StartArguments({ppszArguments, ppszArguments + cArguments}, pInput, cbInput,
                              m_pImpl->m_pChild);
    });
    return SetLastError(dwError), dwError == ERROR_SUCCESS;
}

BOOL CPlatCommand::Wait(DWORD dwMilliseconds, DWORD *pdwExitCode)
{
    CChild &child = *m_pImpl->m_pChild;
    if (child.Wait(dwMilliseconds) != WAIT_OBJECT_0) {
        return FALSE;
    }
    *pdwExitCode = child.ExitCode();
    return TRUE;
}

void CPlatCommand::End(DWORD dwMilliseconds)
{
    pid_t const pid = m_pImpl->m_pChild->Number();
    // The number is the group's as long as any of its processes lives, the shell or another one; the shell
    // counts until somebody has looked at its end.
    auto const fnIsGone = [&] {
        return m_pImpl->m_pChild->HasEnded() && ::kill(-pid, 0) != 0 && errno == ESRCH;
    };
    auto const fnGoesWithin = [&](std::int64_t nMilliseconds) {
        std::int64_t const nDeadline = NowMilliseconds() + nMilliseconds;
        while (!fnIsGone() && NowMilliseconds() < nDeadline) {
            ::poll(nullptr, 0, knPollSlice);
        }
        return fnIsGone();
    };
    ::kill(-pid, SIGTERM);
    ::kill(-pid, SIGCONT); // one that is stopped hears nothing else
    if (!fnGoesWithin(dwMilliseconds)) {
        ::kill(-pid, SIGKILL);
        fnGoesWithin(knKillTime);
    }
}
