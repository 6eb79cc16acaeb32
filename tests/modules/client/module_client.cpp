// A client of the agent as a module of its own, which the test loads and unloads: with it the agent's
// module and the access library come into the process and leave it.

#include "agent/QOMANoAg.h"
#include "platform/export.h"
#include "platform/sync.h"
#include "platform/thread.h"

#include <atomic>
#include <memory>

namespace {

std::atomic<DWORD> g_cHeard{0};
std::unique_ptr<CNotifyAgent> g_pLocal;
std::unique_ptr<CNotifyAgent> g_pNetwork;

DWORD OnNotify(CallbackType, CallbackDataType *)
{
    ++g_cHeard;
    return 0;
}

DWORD Connect(std::unique_ptr<CNotifyAgent> &pAgent, char const *pszAddress, DWORD dwPort,
              int bNetwork, DWORD dwFlags)
{
    pAgent = std::make_unique<CNotifyAgent>(&OnNotify, 1);
    DWORD dwResult = pAgent->Init(pszAddress, dwPort, bNetwork);
    DWORD dwInstance = 0;
    return dwResult != NO_ERROR ? dwResult : pAgent->Add(&dwInstance, dwFlags, "Loaded");
}

} // namespace

// Two agents, so that events come by both roads: traps and datagrams.
extern "C" PLAT_EXPORT DWORD ClientConnect(DWORD dwPort)
{
    DWORD const dwResult = Connect(g_pLocal, nullptr, dwPort, 0, eNF_ADF | eNF_FAX_UPLOAD);
    return dwResult != NO_ERROR
               ? dwResult
               : Connect(g_pNetwork, "127.0.0.1", dwPort, 1, eNF_SELECT | eNF_FAX_UPLOAD);
}

extern "C" PLAT_EXPORT DWORD ClientHeard()
{
    return g_cHeard;
}

extern "C" PLAT_EXPORT DWORD ClientDisconnect()
{
    DWORD const dwLocal = g_pLocal->Shutdown();
    DWORD const dwNetwork = g_pNetwork->Shutdown();
    g_pLocal.reset();
    g_pNetwork.reset();
    return dwLocal != NO_ERROR ? dwLocal : dwNetwork;
}

// Leaves a thread behind that goes on when *pnStage is 1, and makes it 2.
extern "C" PLAT_EXPORT DWORD ClientLinger(std::atomic<int> *pnStage)
{
    return PlatRunDetached([pnStage] {
        while (*pnStage != 1) {
            Sleep(1);
        }
        *pnStage = 2;
    });
}
