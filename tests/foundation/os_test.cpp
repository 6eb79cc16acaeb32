#include "foundation/g_os.h"
#include "tests/support/guards.h"
#include "tests/support/site_recorder.h"

TEST(GMem, AllocAndFree_MoveTheCountersTogether)
{
    CCountersGuard guard;
    char *psz = static_cast<char *>(GMemAlloc(100, 1, "f"));
    EXPECT_EQ(g_cMemory, guard.m_cMemory + 1);
    EXPECT_EQ(g_cbMemory, guard.m_cbMemory + 100);
    GMemFree(&psz, 100, 2, "f");
    GMemFree(&psz, 100, 3, "f"); // the cleared pointer makes the second call harmless
    GMemFree(nullptr, 100, 4, "f");
}

TEST(GCounters, Macros_ReportUnlessThereIsNoMaskOrReadyManager)
{
    CCountersGuard guard;
    auto const fnName = [] { return ADD_FAILURE() << "evaluated", "Thing"; };
    INC_OBJECT_COUNTER(1, fnName()); // without a manager
    EXPECT_EQ(g_cObjects, guard.m_cObjects + 1);
    CSiteRecorder recorder;
    NEW_OPERATOR(0, fnName());
    INC_OBJECT_COUNTER(0, fnName());
    DEC_OBJECT_COUNTER(0, fnName());
    recorder.SetReady(false);
    DEC_OBJECT_COUNTER(1, fnName());
    recorder.ExpectOnly({});
    recorder.SetReady(true);
    g_cObjects = 4;
    g_cbMemory = 100;
    int const nLine = __LINE__; // of this very line; the next three follow
    INC_OBJECT_COUNTER(eEC_CREATE, "Thing");
    DEC_OBJECT_COUNTER(eEC_OBJECT, nullptr);
    NEW_OPERATOR(eEC_CREATE, "Thing");
    INC_MEMSUM_COUNTER(1, 20, 7, "caller");
    DEC_MEMSUM_COUNTER(1, 15, 8, "caller");
    g_cObjects = guard.m_cObjects;
    g_cbMemory = guard.m_cbMemory;
    auto const fnPlace = [&](int n) {
        return "line file = " + std::to_string(nLine + n) + " " + __FILE__;
    };
    recorder.ExpectOnly(
        {{8, 0x1000000000000000u, 2, "INC_OBJECT_COUNTER 5: Thing: g_cObjects " + fnPlace(1)},
         {8, 0x8000000000000000u, 2, "DEC_OBJECT_COUNTER 4: : g_cObjects " + fnPlace(2)},
         {32, 0x1000000000000000u, -1, "NEW_OPERATOR: Thing: NEW FAILED " + fnPlace(3)},
         {8, 1, 2, "INC_MEMSUM_COUNTER [20:120]: g_cbMemory line file = 7 caller"},
         {8, 1, 2, "DEC_MEMSUM_COUNTER [15:105]: g_cbMemory line file = 8 caller"}});
}

TEST(GMutexAndGEvent, Named_AreSharedByNameAndClosedOnceByVariable)
{
    std::string strPath = "C:\\Logs\\\\QOMA\\" + std::to_string(std::random_device{}());
    std::string const strName = "c:/logs//qoma/" + strPath.substr(14);
    char const *const pszName = strName.c_str();
    HANDLE hFirst = nullptr;
    HANDLE hSecond = nullptr;
    EXPECT_EQ(GMutexOpen(&hFirst, MUTEX_ALL_ACCESS, 0, pszName), eGE_MUTEX_OPEN);
    EXPECT_EQ(GMutexCreateNamed(&hFirst, strPath.data()), eGE_OK);
    EXPECT_EQ(strPath, strName); // one name for every spelling of a path
    EXPECT_EQ(GEventCreate(&hSecond, nullptr, 0, 0, pszName), eGE_EVENT_CREATE); // a mutex has it
    EXPECT_EQ(GMutexOpen(&hSecond, MUTEX_ALL_ACCESS, 0, pszName), eGE_OK);
    EXPECT_EQ(GMutexClose(&hSecond), eGE_OK);
    EXPECT_EQ(GMutexClose(&hFirst), eGE_OK);
    EXPECT_EQ(GMutexClose(&hFirst), eGE_MUTEX_CLOSE);
    EXPECT_EQ(GEventCreate(&hFirst, nullptr, /*fManualReset=*/0, 1, pszName), eGE_OK);
    EXPECT_EQ(GEventCreate(&hSecond, nullptr, 0, 0, pszName), eGE_OK);
    EXPECT_EQ(WaitForSingleObject(hSecond, 0), static_cast<DWORD>(WAIT_OBJECT_0));
    EXPECT_EQ(GEventClose(&hFirst), eGE_OK);
    EXPECT_EQ(GEventClose(&hFirst), eGE_EVENT_CLOSE);
    EXPECT_EQ(GEventClose(&hSecond), eGE_OK);
}
