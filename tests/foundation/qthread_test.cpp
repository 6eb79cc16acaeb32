#include "foundation/g_qthread.h"
#include "platform/probe.h"
#include "platform/thread.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/guards.h"

#include <string>

namespace {

LONG const c_eNoKind = 7; // no worker: the test itself can be it, with every step in its hands

// Writes down the priority of each node that it works. The node named "gate" holds the worker until the
// test opens the gate.
class CTestThread : public CGQThread {
public:
    explicit CTestThread(LONG eKind, LONG nPriority = -1)
        : CGQThread("worker", eKind, -1, nPriority, 77)
    {
    }
    ~CTestThread() override { EndWorker(); }

    DWORD ProcessEntry(CNode *pNode, CGQThread *pSelf, DWORD dwParam) override
    {
        EXPECT_EQ(pSelf, this);
        EXPECT_EQ(dwParam, 77u);
        if (pNode->m_strName.m_pszText == std::string("gate")) {
            m_fAtGate = true;
            EXPECT_TRUE(WaitFor([&] { return m_fGateOpen.load(); }));
        }
        *m_pstrWorked += std::to_string(pNode->m_nPriority);
        return 5; // a failure, which changes nothing
    }

    // Posts a node whose payload the queue owns.
    void PostOwned(char const *pszName, DWORD nPriority)
    {
        EXPECT_EQ(Post(pszName, GMemAlloc(16, 0, ""), 16, nPriority), eGE_OK);
    }

    void HoldWorker()
    {
        PostOwned("gate", 9);
        EXPECT_TRUE(WaitFor([&] { return m_fAtGate.load(); }));
    }

    bool HasEnded(DWORD dwMilliseconds) const
    {
        return WaitForSingleObject(m_hDone, dwMilliseconds) == WAIT_OBJECT_0;
    }

    using CGQThread::m_eRun;
    using CGQThread::m_fIdled;
    using CGQThread::m_hThread;
    using CGQThread::m_idThread;
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
    EXPECT_NE(thread.m_idThread, static_cast<DWORD>(-1));
    EXPECT_TRUE(WaitFor([&] { return thread.m_fIdled != 0; }));
    EXPECT_EQ(GetThreadPriority(thread.m_hThread), THREAD_PRIORITY_LOWEST);
    EXPECT_EQ(thread.WaitDrained(), eGE_OK);
    thread.HoldWorker();
    for (DWORD nPriority : {5, 5, 6, 4}) {
        thread.PostOwned("n", nPriority);
    }
    EXPECT_EQ(thread.Stop(), eGE_OK);
    EXPECT_EQ(thread.Post("late", nullptr, 0, 8), eGE_OK); // the caller cannot tell
    EXPECT_EQ(thread.GetCount(), 4u);
    thread.m_fGateOpen = true;
    EXPECT_TRUE(thread.HasEnded(30000));
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
    pThread->PostOwned("n", 1);
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
        thread.PostOwned("n", 1);
        thread.PostOwned("n", 2);
        // So that destruction meets the worker in another place each time, and in no order with it.
        std::this_thread::sleep_for(std::chrono::milliseconds(nLife % 3));
    }
    // A worker signals its end shortly before it is gone.
    EXPECT_TRUE(
        WaitFor([&] { return PlatHandleCount() <= cHandles && PlatThreadCount() <= cThreads; }));
}

TEST(GQThread, ManyPosters_LoseNoNode)
{
    CCountersGuard guard;
    CTestThread thread(eTK_BEGINTHREADEX, /*nPriority=*/12345); // which fails, and is dropped
    auto const fnPost = [&] {
        for (int n = 0; n < 1000; ++n) {
            thread.PostOwned("n", 5);
        }
    };
    std::thread other(fnPost);
    fnPost();
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
        for (DWORD nPriority : {1, 3, 2}) {
            thread.PostOwned("n", nPriority);
        }
        for (char const chCall : strCalls) {
            chCall == 'S' ? thread.Stop() : thread.Abort();
        }
        if (strCalls.empty()) {
            continue; // nobody works the list, and the destructor frees it without a wait
        }
        EXPECT_EQ(CGQThread::QThreadEntry(&thread), eGE_OK); // not what ProcessEntry returned
        EXPECT_TRUE(thread.HasEnded(0));
        EXPECT_EQ(thread.m_strWorked, strCalls.back() == 'S' ? "321" : "");
        EXPECT_EQ(thread.GetCount(), 0u);
    }
    EXPECT_EQ(CGQThread::QThreadEntry(nullptr), eGE_NULL_ARGUMENT);
    EXPECT_EQ(CGQThread::QThreadEntryAfx(nullptr), eGE_NULL_ARGUMENT);
}

TEST(GQThread, AllocationFaults_LeaveNothingBehind)
{
    CCountersGuard guard;
    std::size_t const cFaults = FailEachAllocation([] {
        auto *pThread = new (std::nothrow) CGQThread("worker", eTK_AFXTHREAD, -1, -1, 0);
        if (pThread == nullptr) {
            return;
        }
        INC_OBJECT_COUNTER(0, "CGQThread");
        void *pData = GMemAlloc(8, 0, "");
        if (pData != nullptr && pThread->Post("node", pData, 8, 1) != eGE_OK) {
            GMemFree(&pData, 8, 0, "");
        }
        pThread->Release();
    });
    EXPECT_GE(cFaults,
              7u); // object, three names, payload, node, its name; the platform's beside them
}
