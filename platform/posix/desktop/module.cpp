#include "platform/module.h"

#include <dlfcn.h>
#include <filesystem>
#include <string>

namespace {

std::string FileName(char const *pszName)
{
    std::string strFile = pszName;
    if (std::filesystem::path(strFile).extension().empty()) {
        strFile += ".so";
    }
    return strFile;
}

std::string BesideProgram(std::string const &strFile)
{
    std::error_code error;
    auto const program = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string() : (program.parent_path() / strFile).string();
}

HMODULE Open(char const *pszName, int nMode)
{
    if (pszName == nullptr || *pszName == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::string const strFile = FileName(pszName);
    HMODULE hModule = nullptr;
    if (strFile.find('/') == std::string::npos) {
        std::string const strBeside = BesideProgram(strFile);
        hModule = strBeside.empty() ? nullptr : dlopen(strBeside.c_str(), nMode);
    }
    if (hModule == nullptr) {
        hModule = dlopen(strFile.c_str(), nMode);
    }
    if (hModule == nullptr) {
        SetLastError(ERROR_MOD_NOT_FOUND);
    }
    return hModule;
}

} // namespace

// Everything is bound at once: a module that lacks something fails here, not in the middle of a call.
HMODULE LoadLibraryA(char const *pszName)
{
    return Open(pszName, RTLD_NOW | RTLD_LOCAL);
}

HMODULE GetModuleHandleA(char const *pszName)
{
    HMODULE const hModule = Open(pszName, RTLD_NOW | RTLD_NOLOAD);
    if (hModule != nullptr) {
        dlclose(hModule); // dlopen has counted
    }
    return hModule;
}

FARPROC GetProcAddress(HMODULE hModule, char const *pszName)
{
    void *const pProc = hModule == nullptr ? nullptr : dlsym(hModule, pszName);
    if (pProc == nullptr) {
        SetLastError(ERROR_PROC_NOT_FOUND);
    }
    return reinterpret_cast<FARPROC>(pProc);
}

BOOL FreeLibrary(HMODULE hModule)
{
    if (hModule == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return dlclose(hModule) == 0 ? TRUE : FALSE;
}
