#include "foundation/g_qthread.h"
#include "platform/probe.h"
#include "platform/thread.h"
#include "tests/support/guards.h"

#include <vector>

namespace {

LONG const c_eNoKind = 7; // no worker: the test itself can be it, with every step in its hands

// Writes down the priority of each node that it works. Priority 9 holds the worker until the test opens
// the gate.
class CTestThread : public CGQThread {
public:
    explicit CTestThread(LONG eKind, LONG nPriority = -1)
        : CGQThread("worker", eKind, -1, nPriority, 77)
    {
    }
    ~CTestThread() override { EndWorker(); }

    DWORD ProcessEntry(CNode *pNode, CGQThread *pSelf, DWORD dwParam) override
    {
        EXPECT_TRUE(pSelf == this && dwParam == 77);
        if (pNode->m_nPriority == 9) {
            m_fAtGate = true;
            EXPECT_TRUE(WaitFor([&] { return m_fGateOpen.load(); }));
        }
        *m_pstrWorked += std::to_string(pNode->m_nPriority);
        return 5; // a failure, which changes nothing
    }

    void PostOwned(std::vector<DWORD> const &priorities)
    {
        for (DWORD nPriority : priorities) {
            EXPECT_EQ(Post("n", GMemAlloc(16, 0, ""), 16, nPriority), eGE_OK);
        }
    }

    void HoldWorker()
    {
        PostOwned({9});
        EXPECT_TRUE(WaitFor([&] { return m_fAtGate.load(); }));
    }

    using CGQThread::m_eRun;
    using CGQThread::m_fIdled;
    using CGQThread::m_hDone;
    using CGQThread::m_hThread;
    std::atomic<bool> m_fAtGate{false};
    std::atomic<bool> m_fGateOpen{false};
    std::string m_strWorked;
    std::string *m_pstrWorked = &m_strWorked; // the worker's; read when it has ended or is drained
};

} // namespace

class CThreadKinds : public testing::TestWithParam<LONG> {};
INSTANTIATE_TEST_SUITE_P(GQThread, CThreadKinds, testing::Values(eTK_BEGINTHREADEX, eTK_AFXTHREAD));

TEST_P(CThreadKinds, StopOfABusyWorker_WorksOffTheListByPriority)
{
    CCountersGuard guard;
    CTestThread thread(GetParam(), THREAD_PRIORITY_LOWEST);
    EXPECT_TRUE(WaitFor([&] { return thread.m_fIdled != 0; }));
    EXPECT_EQ(GetThreadPriority(thread.m_hThread), THREAD_PRIORITY_LOWEST);
    EXPECT_EQ(thread.WaitDrained(), eGE_OK);
    thread.HoldWorker();
    thread.PostOwned({5, 5, 6, 4});
    EXPECT_EQ(thread.Stop(), eGE_OK);
    EXPECT_EQ(thread.Post("late", nullptr, 0, 8), eGE_OK); // the caller cannot tell
    {
        CGQueueGuard const lock(thread);
        EXPECT_EQ(thread.GetCount(), 4u);
    }
    thread.m_fGateOpen = true;
    EXPECT_TRUE(WaitForSingleObject(thread.m_hDone, 30000) == WAIT_OBJECT_0);
    EXPECT_EQ(thread.m_strWorked, "96554");
}

TEST_P(CThreadKinds, LastRelease_FinishesTheNodeInWorkAndDeliversNoOther)
{
    CCountersGuard guard;
    std::string strWorked;
    auto *pThread = new CTestThread(GetParam());
    pThread->m_pstrWorked = &strWorked;
    INC_OBJECT_COUNTER(0, "CTestThread");
    pThread->HoldWorker();
    pThread->PostOwned({1});
    std::thread opener([&] { // the node in work ends only after the release has begun
        EXPECT_TRUE(WaitFor([&] { return pThread->m_eRun == eRS_STOPPING; }));
        pThread->m_fGateOpen = true;
    });
    EXPECT_EQ(pThread->Release(), 0);
    opener.join();
    EXPECT_EQ(strWorked, "9");
}

TEST_P(CThreadKinds, ManyLives_LeaveNoThreadHandleOrNode)
{
    CCountersGuard guard;
    DWORD cHandles = 0;
    DWORD cThreads = 0;
    for (int nLife = 0; nLife < 220; ++nLife) {
        if (nLife == 20) { // the runtime has what it keeps by now
            cHandles = PlatHandleCount();
            cThreads = PlatThreadCount();
        }
        CTestThread thread(GetParam());
        thread.PostOwned({1, 2});
        // So that destruction meets the worker in another place each time, and in no order with it.
        std::this_thread::sleep_for(std::chrono::milliseconds(nLife % 3));
    }
    // A worker signals its end shortly before it is gone.
    EXPECT_TRUE(
        WaitFor([&] { return PlatHandleCount() <= cHandles && PlatThreadCount() <= cThreads; }));
}

namespace {

// Leaves its thread behind in its last steps, as a thread that ends under the lock of Windows' loader is.
class CLingeringThread : public CGQThread {
public:
    CLingeringThread() : CGQThread("lingering", eTK_BEGINTHREADEX, -1, -1, 0) {}
    ~CLingeringThread() override { EndWorker(); }

    DWORD ProcessEntry(CNode *, CGQThread *, DWORD) override
    {
        struct CLastStep {
            ~CLastStep()
            {
                EXPECT_TRUE(WaitFor([] { return s_fReleased.load(); })) << "we were waited for";
                s_fOver = true;
            }
        };
        static thread_local CLastStep s_lastStep;
        (void)&s_lastStep;
        return 0;
    }

    static inline std::atomic<bool> s_fReleased{false};
    static inline std::atomic<bool> s_fOver{false};
};

} // namespace

TEST(GQThread, LastSteps_ThatDoNotEnd_AreNotWaitedFor)
{
    auto *pThread = new CLingeringThread;
    INC_OBJECT_COUNTER(0, "CLingeringThread");
    EXPECT_EQ(pThread->Post("n", nullptr, 0, 1), eGE_OK);
    EXPECT_EQ(pThread->WaitDrained(), eGE_OK);
    EXPECT_EQ(pThread->Release(), 0);
    CLingeringThread::s_fReleased = true;
    EXPECT_TRUE(WaitFor([] { return CLingeringThread::s_fOver.load(); }));
}

TEST(GQThread, ManyPosters_LoseNoNode)
{
    CCountersGuard guard;
    CTestThread thread(eTK_BEGINTHREADEX, /*nPriority=*/12345); // which fails, and is dropped
    std::vector<DWORD> const priorities(1000, 5);
    std::thread other([&] { thread.PostOwned(priorities); });
    thread.PostOwned(priorities);
    other.join();
    EXPECT_EQ(thread.WaitDrained(), eGE_OK);
    EXPECT_EQ(thread.m_strWorked, std::string(2000, '5'));
}

TEST(GQThread, LastCallOfStopAndAbort_DecidesWhatIsWorked)
{
    for (std::string const strCalls : {"S", "A", "SA", "AS", ""}) {
        CCountersGuard guard;
        CTestThread thread(c_eNoKind);
        EXPECT_EQ(thread.m_hThread, INVALID_HANDLE_VALUE);
        thread.PostOwned({1, 3, 2});
        for (char const chCall : strCalls) {
            chCall == 'S' ? thread.Stop() : thread.Abort();
        }
        if (!strCalls.empty()) { // else nobody works the list, and the destructor frees it
            EXPECT_EQ(CGQThread::QThreadEntry(&thread), eGE_OK); // not what ProcessEntry returned
            EXPECT_TRUE(WaitForSingleObject(thread.m_hDone, 0) == WAIT_OBJECT_0);
            EXPECT_EQ(thread.m_strWorked, strCalls.back() == 'S' ? "321" : "");
        }
    }
}
