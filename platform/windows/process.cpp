#include "platform/process.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>
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

BOOL RunCommand(char const *pszCommand, PlatEnvType const *pVariables, std::size_t cVariables,
                DWORD dwMilliseconds, DWORD *pdwExitCode)
{
    // The outer quotes are what /s takes off again; the rest is the line as it was given.
    std::string strLine = std::string("cmd.exe /s /c \"") + pszCommand + "\"";
    std::vector<char> achEnvironment = EnvironmentBlock(pVariables, cVariables);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info = {};
    if (!CreateProcessA(nullptr, strLine.data(), nullptr, nullptr, /*bInheritHandles=*/TRUE, 0,
                        achEnvironment.data(), nullptr, &startup, &info)) {
        return FALSE;
    }
    WaitForSingleObject(info.hProcess, dwMilliseconds);
    if (pdwExitCode != nullptr && !GetExitCodeProcess(info.hProcess, pdwExitCode)) {
        *pdwExitCode = STILL_ACTIVE;
    }
    CloseHandle(info.hThread);
    CloseHandle(info.hProcess);
    return TRUE;
}

} // namespace

void PlatSetDebugOutput(bool) {}

BOOL PlatRunCommand(char const *pszCommand, PlatEnvType const *pVariables, std::size_t cVariables,
                    DWORD dwMilliseconds, DWORD *pdwExitCode)
{
    bool fKnown = pszCommand != nullptr && (pVariables != nullptr || cVariables == 0);
    for (std::size_t i = 0; fKnown && i < cVariables; ++i) {
        fKnown = IsEnvironmentName(pVariables[i].pszName) && pVariables[i].pszValue != nullptr;
    }
    if (!fKnown) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    try {
        return RunCommand(pszCommand, pVariables, cVariables, dwMilliseconds, pdwExitCode);
    } catch (std::bad_alloc const &) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
}
