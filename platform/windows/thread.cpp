#include "platform/thread.h"

#include <memory>
#include <new>

namespace {

struct CDetached {
    std::function<void()> fnWork;
    HMODULE hModule; // counted once more for the thread
};

unsigned __stdcall RunDetached(void *pvDetached)
{
    HMODULE hModule = nullptr;
    {
        std::unique_ptr<CDetached> const pDetached(static_cast<CDetached *>(pvDetached));
        hModule = pDetached->hModule;
        pDetached->fnWork();
    }
    FreeLibraryAndExitThread(hModule, 0); // this code may be gone by the time it could return
}

} // namespace

bool PlatRunDetached(std::function<void()> fnWork)
{
    HMODULE hModule = nullptr;
    if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                            reinterpret_cast<LPCSTR>(&RunDetached), &hModule)) {
        return false;
    }
    std::unique_ptr<CDetached> pDetached(new (std::nothrow) CDetached{std::move(fnWork), hModule});
    auto const hThread = reinterpret_cast<HANDLE>(
        pDetached != nullptr ? _beginthreadex(nullptr, 0, &RunDetached, pDetached.get(), 0, nullptr)
                             : 0);
    if (hThread == nullptr) {
        FreeLibrary(hModule);
        return false;
    }
    static_cast<void>(pDetached.release()); // the thread's
    CloseHandle(hThread);
    return true;
}
