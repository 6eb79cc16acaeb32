#include "foundation/g_os.h"
#include "foundation/g_text.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/guards.h"
#include "tests/support/site_recorder.h"

#include <fstream>
#include <set>

TEST(GMem, AllocAndFree_MoveTheCountersTogether)
{
    CCountersGuard guard;
    char *psz = static_cast<char *>(GMemAlloc(100, 1, "f"));
    EXPECT_EQ(g_cMemory, guard.m_cMemory + 1);
    EXPECT_EQ(g_cbMemory, guard.m_cbMemory + 100);
    GMemFree(&psz, 100, 2, "f");
    GMemFree(&psz, 100, 3, "f"); // the cleared pointer makes the second call harmless
    GMemFree(nullptr, 100, 4, "f");
    void *pUncounted = ::operator new(10);
    GMemFree(&pUncounted, 0, 5, "f");
    EXPECT_EQ(pUncounted, nullptr);
    CAllocFault fault(1);
    EXPECT_EQ(GMemAlloc(8, 6, "f"), nullptr);
}

TEST(GCounters, Macros_ReportWithTheirMaskLevelAndFormat)
{
    CCountersGuard guard;
    CSiteRecorder recorder;
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

TEST(GCounters, WithoutMaskOrReadyManager_MoveSilentlyAndEvaluateNothing)
{
    CCountersGuard guard;
    auto const fnName = [] { return ADD_FAILURE(), "Thing"; };
    INC_OBJECT_COUNTER(1, fnName()); // without a manager
    EXPECT_EQ(g_cObjects, guard.m_cObjects + 1);
    CSiteRecorder recorder;
    NEW_OPERATOR(0, fnName());
    INC_OBJECT_COUNTER(0, fnName());
    DEC_OBJECT_COUNTER(0, fnName());
    recorder.SetReady(false);
    DEC_OBJECT_COUNTER(1, fnName());
    recorder.ExpectOnly({});
}

TEST(GText, Table_HoldsThreeEmptyTextsAndPairsOfSeparateStrings)
{
    char const *const apszPairs[] = {"(",  ")", "[",  "]", "{",  "}",  "\r\n", "=",
                                     "|",  " ", "-",  ":", ";",  "\\", "/",    ",",
                                     "\\", "/", "\t", ".", "\"", "*",  "\r",   "\n"};
    std::set<void const *> addresses;
    for (std::size_t n = 0; n < eGT_COUNT; ++n) {
        EXPECT_STREQ(g_aszText[n], n < 3 ? "" : apszPairs[(n - 3) / 2]) << n;
        addresses.insert(g_aszText[n]);
    }
    EXPECT_EQ(addresses.size(), 51u);
    EXPECT_EQ(std::string(g_aszText[eGT_EMPTY_WIDE], 4), std::string(4, '\0'));
    EXPECT_STREQ(g_aszText[eGT_SEMICOLON], ";"); // the enumerators keep step with the texts
    EXPECT_STREQ(g_aszText[eGT_LF_2], "\n");
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
    EXPECT_EQ(GMutexCreate(&hSecond, nullptr, 1, pszName), eGE_OK); // it exists, and is had
    EXPECT_EQ(GMutexClose(&hFirst), eGE_OK);
    EXPECT_EQ(GMutexClose(&hFirst), eGE_MUTEX_CLOSE);
    EXPECT_EQ(GMutexClose(&hSecond), eGE_OK);
    EXPECT_EQ(GEventCreate(&hFirst, nullptr, /*fManualReset=*/0, 0, pszName), eGE_OK);
    EXPECT_EQ(GMutexCreateNamed(&hSecond, strPath.data()), eGE_MUTEX_CREATE); // now an event has it
    EXPECT_EQ(GEventCreate(&hSecond, nullptr, 0, 0, pszName), eGE_OK);
    SetEvent(hFirst);
    EXPECT_EQ(WaitForSingleObject(hSecond, 0), static_cast<DWORD>(WAIT_OBJECT_0));
    EXPECT_EQ(GEventClose(&hFirst), eGE_OK);
    EXPECT_EQ(GEventClose(&hFirst), eGE_EVENT_CLOSE);
    EXPECT_EQ(GEventClose(&hSecond), eGE_OK);
    EXPECT_EQ(GEventClose(nullptr), eGE_NULL_ARGUMENT);
    EXPECT_EQ(GThreadSetPriority(hFirst, 2, -1), eGE_OK); // not even looked at
    EXPECT_EQ(GThreadSetPriority(hFirst, 2, 1), eGE_THREAD_PRIORITY);
}

TEST(GReg, QueryAndEnum_GiveTheSystemsStatusAndKeepDefaults)
{
    CTempDir dir;
    std::ofstream(dir.File("r.reg")) << "Windows Registry Editor Version 5.00\n\n"
                                        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\QomaTest\\Child]\n"
                                        "\"Level\"=dword:00000007\n";
    ASSERT_EQ(PlatSetRegistryFile(dir.File("r.reg").c_str()), 0u);
    DWORD const cKeys = PlatLiveKeys();
    DWORD dwLevel = 55;
    DWORD cb = sizeof dwLevel;
    auto *pbLevel = reinterpret_cast<BYTE *>(&dwLevel);
    EXPECT_EQ(GRegQueryValue("SOFTWARE\\QomaNone", "Level", pbLevel, &cb), 2);
    EXPECT_EQ(GRegQueryValue("SOFTWARE\\QomaTest", "Level", pbLevel, &cb), 2);
    EXPECT_EQ(dwLevel, 55u);
    EXPECT_EQ(GRegQueryValue("software\\qomatest\\child", "level", pbLevel, &(cb = 4)), 0);
    EXPECT_EQ(dwLevel, 7u);

    HKEY hKey = nullptr;
    HKEY hChild = nullptr;
    char szName[64] = "";
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\QomaTest", 0, KEY_READ, &hKey), 0);
    EXPECT_EQ(GRegOpenEnumKey(hKey, &hChild, 0, szName, &(cb = sizeof szName)), 0);
    EXPECT_STREQ(szName, "Child");
    EXPECT_EQ(RegQueryValueExA(hChild, "Level", nullptr, nullptr, pbLevel, &(cb = 4)), 0);
    EXPECT_EQ(GRegOpenEnumKey(hKey, &hChild, 1, szName, &(cb = sizeof szName)), 259); // no more
    RegCloseKey(hChild);
    RegCloseKey(hKey);
    EXPECT_EQ(PlatLiveKeys(), cKeys);
    PlatSetRegistryFile(nullptr);
}
