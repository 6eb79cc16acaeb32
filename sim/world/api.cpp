// What scenarios call (sim/sim.h), and the allocations that the world can refuse.
#include "sim/world/world.h"

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <new>

std::uint32_t SimBelow(std::uint32_t n)
{
    return static_cast<std::uint32_t>(g_world.m_work.Below(n));
}

SimTime SimNow()
{
    return g_world.Now();
}

SimTime SimDuration()
{
    return static_cast<SimTime>(g_world.Options().dHours * 3600 * static_cast<double>(kSimSecond));
}

int SimChoice(char const *pszName, int nOwn)
{
    CInWorld const inWorld;
    auto const &choices = g_world.Options().choices;
    auto const it = choices.find(pszName);
    return it != choices.end() ? it->second : nOwn;
}

void SimSetTroubles(SimTroubles const &troubles)
{
    CInWorld const inWorld;
    SimTroubles rates = troubles;
    for (auto const &[pszName, pn] : {std::pair{"stall", &rates.nStall},
                                      {"spurious", &rates.nSpurious},
                                      {"refuse", &rates.nRefuse},
                                      {"short", &rates.nShort},
                                      {"drop", &rates.nDrop},
                                      {"repeat", &rates.nRepeat},
                                      {"reorder", &rates.nReorder},
                                      {"reset", &rates.nReset}}) {
        if (SimChoice(pszName, 1) == 0) {
            *pn = 0; // switched off on the command line
        }
    }
    g_world.m_rates = rates;
}

bool SimSetRefusals(bool fOn)
{
    bool const fBefore = t_pSimThread->fRefusable;
    t_pSimThread->fRefusable = fOn;
    return fBefore;
}

int SimSpawn(int nHost, char const *pszRole, int nArgument)
{
    CInWorld const inWorld;
    int const nProcess = g_world.Spawn(nHost, pszRole, nArgument);
    g_world.Point("spawn");
    return nProcess;
}

bool SimIsAlive(int nProcess)
{
    return g_world.Process(nProcess).fAlive;
}

void SimAwaitEnd(int nProcess)
{
    CInWorld const inWorld;
    while (g_world.Process(nProcess).fAlive) {
        g_world.Block({eWT_PROCESS, static_cast<std::uint64_t>(nProcess)});
    }
}

void SimKill(int nProcess, std::uint32_t cCalls)
{
    CInWorld const inWorld;
    g_world.Process(nProcess).cCallsLeft = cCalls + 1;
    g_world.Point("kill");
}

SimHoldings SimHeld(int nProcess)
{
    CInWorld const inWorld;
    int cThreads = 0;
    for (auto const &pThread : g_world.Threads()) {
        bool const fLives =
            pThread->eState == CSimThread::eRUNNABLE || pThread->eState == CSimThread::eBLOCKED;
        cThreads += fLives && pThread->nProcess == nProcess;
    }
    return {cThreads, CountSocketsOf(nProcess),
            static_cast<int>(g_world.Process(nProcess).files.size())};
}

int SimProcess()
{
    return t_pSimThread->nProcess;
}

int SimHost()
{
    return g_world.Process(t_pSimThread->nProcess).nHost;
}

void *SimBoard()
{
    return g_world.m_pBoard.get();
}

char const *SimFolder()
{
    return g_world.Folder().c_str();
}

CSimLimit::CSimLimit(char const *pszCall, std::uint32_t dwMilliseconds)
{
    g_world.Watch(*t_pSimThread, pszCall, dwMilliseconds * kSimMillisecond);
}

CSimLimit::~CSimLimit()
{
    g_world.Watch(*t_pSimThread, nullptr, kNever);
}

namespace {

void *Allocate(std::size_t cb, std::size_t cbAlign) noexcept
{
    if (t_pSimThread != nullptr && t_cInWorld == 0 && g_world.Refuses()) {
        return nullptr;
    }
    return cbAlign == 0 ? std::malloc(cb)
                        : std::aligned_alloc(cbAlign, (cb + cbAlign - 1) / cbAlign * cbAlign);
}

// What is gone must not look as if it were still there.
void Free(void *pv) noexcept
{
    if (pv != nullptr && t_pSimThread != nullptr) {
        std::memset(pv, 0xDD, malloc_usable_size(pv));
    }
    std::free(pv);
}

void *AllocateOrThrow(std::size_t cb, std::size_t cbAlign)
{
    void *const pv = Allocate(cb, cbAlign);
    if (pv == nullptr) {
        throw std::bad_alloc();
    }
    return pv;
}

} // namespace

void *operator new(std::size_t cb)
{
    return AllocateOrThrow(cb, 0);
}
void *operator new[](std::size_t cb)
{
    return AllocateOrThrow(cb, 0);
}
void *operator new(std::size_t cb, std::align_val_t eAlign)
{
    return AllocateOrThrow(cb, static_cast<std::size_t>(eAlign));
}
void *operator new[](std::size_t cb, std::align_val_t eAlign)
{
    return AllocateOrThrow(cb, static_cast<std::size_t>(eAlign));
}
void *operator new(std::size_t cb, std::nothrow_t const &) noexcept
{
    return Allocate(cb, 0);
}
void *operator new[](std::size_t cb, std::nothrow_t const &) noexcept
{
    return Allocate(cb, 0);
}
void operator delete(void *pv) noexcept
{
    Free(pv);
}
void operator delete[](void *pv) noexcept
{
    Free(pv);
}
void operator delete(void *pv, std::size_t) noexcept
{
    Free(pv);
}
void operator delete[](void *pv, std::size_t) noexcept
{
    Free(pv);
}
void operator delete(void *pv, std::align_val_t) noexcept
{
    Free(pv);
}
void operator delete[](void *pv, std::align_val_t) noexcept
{
    Free(pv);
}
void operator delete(void *pv, std::size_t, std::align_val_t) noexcept
{
    Free(pv);
}
void operator delete[](void *pv, std::size_t, std::align_val_t) noexcept
{
    Free(pv);
}
