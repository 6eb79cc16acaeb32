// The manager: reports, reloads, installation and the final report.

#include "tests/evtmgr/evtmgr_fixture.h"
#include "tests/support/alloc_fault.h"

#include <thread>

namespace {

void Site(LONG nLevel, char const *psz)
{
    G_REPORT(eEB_ENTRY, eEC_NONE, nLevel, "%s", psz);
}

TEST_F(CEvtMgrTest, VisitsAndReports)
{
    CGFileEvtHandler *const pHandler = Install(m_strOn);
    CGEvtMgr *pMgr = g_pEvtMgr;
    EXPECT_EQ(pMgr->ForEachNode(eEO_WRITE_FULL, nullptr), 0); // no record: stops at once
    EXPECT_EQ(pMgr->ForEachNode(eEO_REMOVE + 1, nullptr), 1);
    SetLastError(0xdeadbeef);
    EXPECT_EQ(pMgr->Report(8, 0, 1, "%s %d%%", "full", 5), 0u);
    pHandler->m_Level = 0; // the level of what has none
    EXPECT_EQ(pMgr->ReportBase(8, "base %c", 'x'), 0u);
    pHandler->m_Level = 1;
    Site(1, std::string(5000, 'y').c_str());
    for (DWORD cb : {0u, 17u, 9u}) {
        pMgr->DumpRawData(8, 0, 1, "\x07\x01\x00\x0e%BCDEFGHIJK\xffz", cb);
    }
    EXPECT_EQ(GetLastError(), 0xdeadbeef);
    std::string const str = "[T]: : DumpRawData: ", str8 = "07 01 00 0e 25 42 43 44  45 ",
                      str9 = " \x01 \x0e%BCDE";
    EXPECT_EQ(ReadLog(), "[T]: full 5%\r\n[T]: base x\r\n[T]: " + std::string(1023, 'y') + "\r\n" +
                             str + std::string(49, ' ') + "| \r\n" + str + str8 +
                             "46 47 48 49 4a 4b ff | " + str9 + "FGHIJK\xff\r\n" + str + "7a " +
                             std::string(46, ' ') + "| z\r\n" + str + str8 + std::string(21, ' ') +
                             "| " + str9 + "\r\n");
    EXPECT_EQ(FailEachAllocation([] { Site(2, "refused, so it allocates nothing"); }), 0u);
}

TEST_F(CEvtMgrTest, ReloadTakesWhatHasChanged)
{
    Install(ReplaceAll(m_strOn, "Level\"=dword:1", "Level\"=dword:0"));
    Site(1, "too high");
    Reg(m_strOn);
    LoadParameters(); // empties the log: a missing Append is 0
    Site(1, "taken");
    // What is missing keeps its value; 4 bytes of a mask fill its low half.
    Reg("\n[$M\\File]\n\"File Name\"=\"$LOG\"\n\"Base Category Mask\"=hex:fe,ff,ff,ff\n" +
        m_strAppend);
    LoadParameters();
    Site(1, "base does not fit");
    G_REPORT(1ull << 40, eEC_NONE, eEL_TRACE, "high half");
    Reg("\n[$M\\File]\n\"State\"=dword:0\n\"Level\"=hex:0z\n"); // malformed: nothing changes
    LoadParameters();
    Reg("\n[$M\\File]\n\"State\"=dword:2\n"); // anything but 1 is off, and the log stays as it is
    LoadParameters();
    Site(-1, "not taken");
    std::string const strBegin = "[T]: LoadParameters: BEGIN Loading new parameters\r\n";
    std::string const strEnd = "[T]: LoadParameters: END   Loading new parameters\r\n";
    EXPECT_EQ(ReadLog(), strEnd + "[T]: taken\r\n" + strBegin + strEnd + "[T]: high half\r\n" +
                             strBegin + strEnd + strBegin);
}

TEST_F(CEvtMgrTest, InstallAndRemove)
{
    auto unheard = [] { G_REPORT(eEB_ENTRY, eEC_NONE, eEL_TRACE, "%d", (ADD_FAILURE(), 0)); };
    unheard(); // without a manager the arguments are not evaluated
    EXPECT_EQ(GInstallEvtMgr(""), DWORD{eGE_NULL_ARGUMENT});
    Install(m_strOn);
    EXPECT_EQ(GInstallEvtMgr("mgr"), DWORD{eGE_BAD_STATE});
    EXPECT_EQ(g_pEvtMgr->m_fReady.exchange(0), 1);
    unheard(); // nor when it is not ready
    g_pEvtMgr->m_fReady = 1;
    EXPECT_EQ(GRemoveEvtMgr("mgr"), DWORD{eGE_OK});
    EXPECT_EQ(GRemoveEvtMgr("mgr"), DWORD{eGE_OK}); // does nothing
    EXPECT_EQ(g_pEvtMgr, nullptr);
    // What goes while there still is a handler is told; the final report appends.
    EXPECT_EQ(ReadLog(), "[T]: CGReference::Release: Removing object \"CCategory[CGTdEvtHandler:"
                         "CGBaseEvtHandler]\"\r\n"
                         "[T]: RemoveEvtMgr: g_cMemory g_cbMemory g_cObjects = 0 0 0\r\n");
}

TEST_F(CEvtMgrTest, HostThatKeepsItsManagersItself)
{
    Reg(m_strOn + m_strAppend);
    CGEvtMgr *pMgr = nullptr;
    CreateEvtMgr(&pMgr, "mgr");
    g_pEvtMgr = pMgr;
    if (g_pEvtMgr && g_pEvtMgr->m_fReady) {
        g_pEvtMgr->Report(eEB_INFO, 0, 1, "in %d", 1);
    }
    g_pEvtMgr = nullptr;
    RemoveEvtMgr(&pMgr, "mgr");
    EXPECT_EQ(pMgr, nullptr);
    std::thread site([] { // sees it as soon as it is there, and whole
        while (!g_pEvtMgr) {
            std::this_thread::yield();
        }
        Site(1, "in 2");
    });
    CreateEvtMgr(&g_pEvtMgr, "mgr");
    site.join();
    RemoveEvtMgr(&g_pEvtMgr, "mgr");
    EXPECT_EQ(g_pEvtMgr, nullptr);
    std::string const str = ReadLog();
    EXPECT_EQ(str.substr(0, 11), "[T]: in 1\r\n");
    EXPECT_NE(str.find("\n[T]: in 2\r\n"), str.npos) << str;
}

TEST_F(CEvtMgrTest, CountersTellUnlessTheyHaveNoMask)
{
    Install(ReplaceAll(m_strOn, "Level\"=dword:1", "Level\"=dword:2"));
    std::string const strObjects = std::to_string(g_cObjects);
    std::string const strOneMore = std::to_string(g_cObjects + 1);
    std::string const strBytes = std::to_string(g_cbMemory);
    std::string const strMore = std::to_string(g_cbMemory + 20);
    auto unheard = [] { return ADD_FAILURE() << "evaluated", "Thing"; };
    int const nLine = __LINE__; // of this very line; those of the reports follow
    INC_OBJECT_COUNTER(eEC_CREATE, "Thing");
    DEC_OBJECT_COUNTER(eEC_OBJECT, nullptr);
    NEW_OPERATOR(eEC_CREATE, "Thing");
    INC_MEMSUM_COUNTER(1, 20, 7, "caller");
    DEC_MEMSUM_COUNTER(1, 20, 8, "caller");
    INC_OBJECT_COUNTER(0, unheard());
    DEC_OBJECT_COUNTER(0, unheard());
    NEW_OPERATOR(0, unheard());
    auto place = [&](int n) {
        return "line file = " + std::to_string(nLine + n) + " " + __FILE__ + "\r\n";
    };
    EXPECT_EQ(
        ReadLog(),
        "[T]: INC_OBJECT_COUNTER " + strOneMore + ": Thing: g_cObjects " + place(1) +
            "[T]: DEC_OBJECT_COUNTER " + strObjects + ": : g_cObjects " + place(2) +
            "[T]: NEW_OPERATOR: Thing: NEW FAILED " + place(3) +
            "[T]: INC_MEMSUM_COUNTER [20:" + strMore + "]: g_cbMemory line file = 7 caller\r\n" +
            "[T]: DEC_MEMSUM_COUNTER [20:" + strBytes + "]: g_cbMemory line file = 8 caller\r\n");
}

TEST_F(CEvtMgrTest, FinalReportNamesLeaks)
{
    Reg(m_strOn + m_strAppend);
    std::string strExpected;
    auto expect = [&](LONG cOthers, DWORD cbLeft, DWORD cObjects, std::string const &str) {
        CGEvtMgr *pMgr = nullptr;
        g_cEvtMgrs = cOthers;
        CreateEvtMgr(&pMgr, "mgr");
        g_cMemory += cbLeft / 10, g_cbMemory += cbLeft, g_cObjects += cObjects;
        EXPECT_EQ(RemoveEvtMgr(&pMgr, "mgr"), 0u);
        g_cMemory -= cbLeft / 10, g_cbMemory -= cbLeft, g_cObjects -= cObjects;
        EXPECT_EQ(ReadLog(), strExpected += ReplaceAll(str, "$", "[T]: RemoveEvtMgr: ")) << str;
    };
    std::string const strMemory = "$MEMORY LEAK, g_cMemory g_cbMemory = 7 70\r\n";
    std::string const strObjects = "$OBJECT LEAK, g_cObjects = 2\r\n";
    expect(0, 70, 0, strMemory);
    expect(0, 0, 2, strObjects);
    expect(0, 70, 2, strMemory + strObjects);
    expect(1, 70, 2, "$g_cMemory g_cbMemory g_cObjects = 7 70 2\r\n"); // not the last manager
    expect(-1, 70, 2, "$g_cMemory g_cbMemory g_cObjects = 7 70 2\r\n");
    EXPECT_EQ(RemoveEvtMgr(nullptr, "mgr"), DWORD{eGE_NULL_ARGUMENT});
    EXPECT_EQ(g_cEvtMgrs.exchange(0), -1);
}

// Whoever reports sees the parameters of one load, and the log has every line, whole.
TEST_F(CEvtMgrTest, ReloadsUnderReports)
{
    std::string const strReg = m_strOn + m_strAppend + "\n[$B\\4]\n\"Long Name\"=\"[T]:\"\n";
    Install(ReplaceAll(strReg, "[T]:", "a"));
    std::atomic<bool> fEnd{false};
    std::map<std::string, int> reports{{"w0", 0}, {"w1", 0}, {"w2", 0}, {"w3", 0}};
    std::vector<std::thread> threads;
    for (auto &report : reports) {
        threads.emplace_back([&] {
            for (; !fEnd; ++report.second) {
                G_REPORT(eEB_INFO, eEC_OBJECT, eEL_TRACE, "%s %d.", report.first.c_str(),
                         report.second);
                std::this_thread::yield();
            }
        });
    }
    int const kcReloads =
        kIsPosix ? 1000 : 20; // each makes hundreds of calls to a slow registry there
    for (int n = 0; n < kcReloads; ++n) {
        if (n == kcReloads / 2) {
            Reg(ReplaceAll(strReg, "[T]:", "bbbb"));
        }
        LoadParameters();
    }
    fEnd = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    GRemoveEvtMgr("mgr");
    std::string const strLog = ReplaceAll(ReadLog(), "bbbb bbbb", "[T]: ");
    EXPECT_EQ(CountLines(ReplaceAll(strLog, "a a", "[T]: ")), reports);
}

} // namespace
