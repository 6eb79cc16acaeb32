#include "agent/dol_callback.h"

#include <new>

#include "agent/QOMANoAg.h"
#include "dolrtl/QOMADolC.h"

namespace {

thread_local int t_cInCallback = 0;

struct CCallbackScope {
    CCallbackScope() { ++t_cInCallback; }
    ~CCallbackScope() { --t_cInCallback; }
};

} // namespace

DWORD DolRtlCallback(DWORD dwEvent, DWORD_PTR dwContext)
{
    if (dwContext == 0) {
        return 0;
    }
    CNotifyAgent &agent = *reinterpret_cast<CNotifyAgent *>(dwContext);
    CCallbackScope const scope;
    try {
        if (dwEvent == eDE_TRAP_PENDING) {
            agent.ReadTraps();
        } else if (dwEvent == eDE_RESTART_LINK) {
            agent.RestartDolRtl();
        }
    } catch (std::bad_alloc const &) {
        // Nobody to tell: the traps are still with the library.
    }
    return 0;
}

bool InDolRtlCallback()
{
    return t_cInCallback != 0;
}
