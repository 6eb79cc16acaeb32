#include "sim/scenarios/scenario.h"

#include "foundation/g_os.h"
#include "platform/probe.h"
#include "platform/socket.h"
#include "platform/sync.h"

#include <cstring>

namespace {

struct RoleType {
    char const *pszName;
    void (*pfn)(int);
};

constexpr RoleType kRoles[] = {
    {"queue", QueueScenario}, {"agents", AgentsScenario}, {"named", NamedScenario},
    {"log", LogScenario},     {"namer", NamerRole},       {"logger", LoggerRole},
    {"device", DeviceRole},   {"client", ClientRole},
};

} // namespace

void SimRole(char const *pszRole, int nArgument)
{
    for (RoleType const &role : kRoles) {
        if (std::strcmp(role.pszName, pszRole) == 0) {
            return role.pfn(nArgument);
        }
    }
    SimFail("there is no role %s", pszRole);
}

void Rest(std::uint32_t dwMostMs)
{
    Sleep(SimBelow(dwMostMs + 1));
}

CNothingLeft::CNothingLeft()
    : m_held(SimHeld(SimProcess())), m_cHandles(PlatHandleCount()), m_cSockets(PlatLiveSockets())
{
}

CNothingLeft::~CNothingLeft()
{
    // Threads that nobody waits for are given the time that they need.
    constexpr int kcLooks = 100;
    for (int i = 0; i < kcLooks && SimHeld(SimProcess()).cThreads > m_held.cThreads; ++i) {
        Sleep(1000);
    }
    SimHoldings const held = SimHeld(SimProcess());
    if (held.cThreads != m_held.cThreads || held.cSockets != m_held.cSockets ||
        held.cFiles != m_held.cFiles) {
        SimFail("left: %d threads, %d sockets, %d files more than at the beginning",
                held.cThreads - m_held.cThreads, held.cSockets - m_held.cSockets,
                held.cFiles - m_held.cFiles);
    }
    if (PlatHandleCount() != m_cHandles || PlatLiveSockets() != m_cSockets) {
        SimFail("left: %d handles, %d sockets of the layer's",
                static_cast<int>(PlatHandleCount() - m_cHandles),
                static_cast<int>(PlatLiveSockets() - m_cSockets));
    }
    if (g_cObjects != 0 || g_cMemory != 0 || g_cbMemory != 0) {
        SimFail("left: %d objects, %d blocks, %d bytes", static_cast<int>(g_cObjects.load()),
                static_cast<int>(g_cMemory.load()), static_cast<int>(g_cbMemory.load()));
    }
}
