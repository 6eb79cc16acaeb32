// Queue threads: what several threads post is worked once and in the order of each poster's, until the thread is
// stopped, aborted or released at any moment.
#include "sim/scenarios/scenario.h"

#include "foundation/g_qthread.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kcPosters = 3;

struct WorkType {
    std::size_t nPoster;
    int nNumber;
};

class CWorker final : public CGQThread {
public:
    explicit CWorker(LONG eKind) : CGQThread("CWorker", eKind, -1, -1, 0)
    {
        INC_OBJECT_COUNTER(eEC_NONE, m_strObjectName.m_pszText);
    }
    ~CWorker() override
    {
        EndWorker();
        m_fGone = true;
    }
    DWORD ProcessEntry(CNode *pNode, CGQThread *, DWORD) override
    {
        if (m_fInside.exchange(true) || m_fGone) {
            SimFail("a node is worked while another one is, or after the end");
        }
        auto const *const pWork = static_cast<WorkType const *>(pNode->m_pData);
        if (pWork->nNumber <= m_last[pWork->nPoster]) {
            SimFail("node %d of poster %zu comes after %d", pWork->nNumber, pWork->nPoster,
                    m_last[pWork->nPoster].load());
        }
        m_last[pWork->nPoster] = pWork->nNumber;
        ++m_cWorked;
        if (SimOneIn(20)) {
            Rest(20);
        }
        m_fInside = false;
        return 0;
    }

    std::atomic<int> m_cWorked{0};
    std::array<std::atomic<int>, kcPosters> m_last{};

private:
    std::atomic<bool> m_fInside{false};
    std::atomic<bool> m_fGone{false};
};

// Posts until nothing is taken any more, or for so many times. How many were taken.
int PostSome(CWorker &worker, std::size_t nPoster, int cMost)
{
    for (int i = 1; i <= cMost; ++i) {
        WorkType *pWork = static_cast<WorkType *>(GMemAlloc(sizeof(WorkType), __LINE__, __FILE__));
        *pWork = {nPoster, i};
        bool fTaken = false;
        worker.Post("work", pWork, sizeof *pWork, 5, &fTaken);
        if (!fTaken) {
            GMemFree(&pWork, sizeof *pWork, __LINE__, __FILE__);
            return i - 1;
        }
        if (SimOneIn(4)) {
            Rest(5);
        }
    }
    return cMost;
}

void Round()
{
    auto *const pWorker = new CWorker(SimOneIn(2) ? eTK_BEGINTHREADEX : eTK_AFXTHREAD);
    std::atomic<int> cTaken{0};
    std::vector<std::thread> posters;
    int const cMost = 1 + static_cast<int>(SimBelow(20));
    std::uint32_t const nEnd = SimBelow(4);
    for (std::size_t n = 0; n < kcPosters; ++n) {
        posters.emplace_back([&, n] { cTaken += PostSome(*pWorker, n, cMost); });
    }
    Rest(nEnd == 0 ? 0 : 50);
    if (nEnd == 1) {
        pWorker->Stop();
    } else if (nEnd == 2) {
        pWorker->Abort();
    }
    for (std::thread &poster : posters) {
        poster.join();
    }
    if (nEnd == 3) {
        // Nobody stops it: all that was taken is worked.
        CSimLimit const limit("a queue thread with work", 60'000);
        while (pWorker->m_cWorked < cTaken) {
            Sleep(1);
        }
    }
    CSimLimit const limit("the last Release of a queue thread", 60'000);
    pWorker->Release();
}

} // namespace

void QueueScenario(int)
{
    SimTroubles troubles;
    troubles.nStall = SimOneIn(2) ? 0 : 100;
    troubles.nSpurious = 20;
    SimSetTroubles(troubles);
    CNothingLeft const nothingLeft;
    for (SimTime const end = SimNow() + SimDuration(); SimNow() < end;) {
        Round();
    }
}
