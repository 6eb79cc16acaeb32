#include "platform/posix/kernel/owned.h"

#include <cxxabi.h>

extern "C" void *__dso_handle __attribute__((visibility("hidden")));

constinit thread_local CThreadState t_plThread{};

void PlatAbandonOwned()
{
    while (COwnedLock *pLock = t_plThread.m_pFirstOwned) {
        pLock->Abandon();
    }
}

void PlatHookThreadExit()
{
    if (t_plThread.m_fExitHooked) {
        return;
    }
    t_plThread.m_fExitHooked = true;
    // Not a thread_local object with a destructor: that runs once, and another such destructor that
    // takes a mutex after it would go unseen. This way the hook can be set again.
    abi::__cxa_thread_atexit(
        [](void *) {
            t_plThread.m_fExitHooked = false;
            PlatAbandonOwned();
        },
        nullptr, &__dso_handle);
}
