#include "dolrtl/link_threads.h"

#include "platform/check.h"
#include "platform/process.h"

#include <atomic>
#include <new>

// What the objects of one process have in common. It has no destructor to run at the process's end: objects that
// were never deleted may be at work then.
struct CProcessShare {
    static CProcessShare &Mine();
    CLinkThreads *Take() PLAT_EXCLUDES(mx);
    CLinkThreads *GiveBack() PLAT_EXCLUDES(mx);

    std::atomic<DWORD> idProcess{0}; // whose it is, 0 before anybody's
    CPlatMutex mx;                   // before the locks of the threads; held while they are started
    CLinkThreads *pThreads PLAT_GUARDED_BY(mx) = nullptr;
    std::size_t cShares PLAT_GUARDED_BY(mx) = 0;
};

namespace {

CProcessShare g_first;
std::atomic<CProcessShare *> g_pProcess{&g_first};

} // namespace

// Without a lock, since one might have been held when this process was forked.
CProcessShare &CProcessShare::Mine()
{
    DWORD const id = GetCurrentProcessId();
    CProcessShare *pProcess = g_pProcess.load();
    DWORD idOwner = 0;
    if (pProcess->idProcess.compare_exchange_strong(idOwner, id) || idOwner == id) {
        return *pProcess;
    }
    // The parent's. What it points to stays as it is, like all that the parent had.
    auto *const pOwn = new CProcessShare;
    pOwn->idProcess = id;
    if (g_pProcess.compare_exchange_strong(pProcess, pOwn)) {
        return *pOwn;
    }
    delete pOwn;
    return *pProcess; // another thread of this process was faster
}

// Null when the threads cannot be had.
CLinkThreads *CProcessShare::Take()
{
    CPlatGuard const lock(mx);
    if (!pThreads) {
        std::unique_ptr<CLinkThreads, void (*)(CLinkThreads *)> pNew(
            new CLinkThreads(*this), [](CLinkThreads *p) { delete p; });
        if (!pNew->m_loop.Start() || !pNew->m_pCallbacks->Start()) {
            return nullptr;
        }
        pThreads = pNew.release();
    }
    ++cShares;
    return pThreads;
}

// The threads if that was the last share: they are the caller's now.
CLinkThreads *CProcessShare::GiveBack()
{
    CPlatGuard const lock(mx);
    PLAT_CHECK(cShares > 0 && pThreads);
    return --cShares == 0 ? std::exchange(pThreads, nullptr) : nullptr;
}

CLinkThreads::CLinkThreads(CProcessShare &process)
    : m_process(process), m_pCallbacks(std::make_shared<CCallbackThreads>(m_loop))
{
}

// The loop after those that are its clients.
CLinkThreads::~CLinkThreads()
{
    m_pCallbacks->End();
}

CLinkThreads *CLinkThreads::Share()
{
    return CProcessShare::Mine().Take();
}

void CLinkThreads::GiveBack()
{
    delete m_process.GiveBack();
}
