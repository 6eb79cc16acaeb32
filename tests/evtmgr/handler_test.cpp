// Category table, filter and line format.

#include "platform/process.h"
#include "tests/evtmgr/evtmgr_fixture.h"
#include "tests/support/viewer.h"
#include "trace/g_trace.h"

namespace {

// A handler of a host's own.
class CKeepingHandler : public CGBaseEvtHandler {
public:
    CKeepingHandler() : CGBaseEvtHandler(g_pEvtMgr, "CKeepingHandler") {}
    char const *GetModuleName() override { return "Own"; }
    DWORD LoadModuleParams() override { return 0; }
    LONG IsOn() override { return m_State; }
    DWORD WriteText(char *pszText) override { return m_strLines.append(pszText).append("|"), 0; }

    std::string m_strLines;
};

TEST_F(CEvtMgrTest, TableTakesWhatTheRegistryHasAndKeepsTheRest)
{
    EXPECT_EQ(CategoryIndex(0), 0);
    for (LONG nRow = 1; nRow <= 64; ++nRow) {
        EXPECT_EQ(CategoryIndex(1ull << (nRow - 1) | 1), nRow); // the highest bit decides
    }
    CCategory table("table");
    Reg("\n[t]\n\"Display Level\"=dword:7\n\n[t\\5]\n\"Long Name\"=\"five\"\n\"Display Long "
        "Name\"=dword:0\n"
        "\n[t\\63]\n\"Long Name\"=hex:" +
        ReplaceAll(std::string(1023, 'a'), "a", "61,") +
        "61\n\"Display Short Name\"=dword:0\n"
        "\n[t\\64]\n\"Short Name\"=\"s64\"\n\"Long Name\"=hex:61,62,63\n");
    EXPECT_EQ(table.Load("t"), 0u);
    Reg("\n[t\\64]\n\"Short Name\"=\"" + std::string(1024, 'x') + "\"\n"); // one byte too long
    table.Load("t");
    table.Load(std::string(1021, 'k').c_str()); // a row's key would not fit its buffer
    EXPECT_EQ(table.m_fDisplayLevel, 7);
    EXPECT_STREQ(table.m_Rows[5].m_strLongName.m_pszText, "five");
    EXPECT_EQ(table.m_Rows[5].m_fDisplayLongName, 0);
    EXPECT_EQ(table.m_Rows[63].m_fDisplayShortName, 0);
    EXPECT_EQ(std::string(table.m_Rows[63].m_strLongName.m_pszText), std::string(1023, 'a'));
    EXPECT_STREQ(table.m_Rows[64].m_strShortName.m_pszText, "s64");
    EXPECT_STREQ(table.m_Rows[64].m_strLongName.m_pszText, "abc"); // had no terminator
}

TEST_F(CEvtMgrTest, Filter)
{
    struct Case {
        LONG nState;
        std::uint64_t baseMask, customMask;
        LONG nMaxLevel;
        std::uint64_t base, custom;
        LONG nLevel, fExpected;
    };
    // No mask of its own; base and custom masks; levels, of which -1 and -2 are special; states.
    Case const cases[] = {
        {1, 0, 0, 0, 0, 0, 0, 1},   {1, 7, 0, 2, 8, 0, 0, 0},    {1, 9, 0, 2, 8, 0, 0, 1},
        {1, 9, 4, 2, 8, 3, 0, 0},   {1, 9, 4, 2, 8, 6, 0, 1},    {1, 9, 0, 2, 8, 0, 3, 0},
        {1, 9, 0, 3, 8, 0, 3, 1},   {1, 1, 1, -1, 1, 0, 0, 0},   {1, 0, 0, -9, 1, 1, -1, 1},
        {1, 0, 0, -9, 1, 1, -2, 1}, {1, 0, 0, 0, 0x21, 1, 5, 1}, {1, 1, 1, -4, 1, 0, -3, 0},
        {0, 1, 1, 9, 1, 0, -1, 0},  {0, 1, 1, 9, 0x20, 0, 0, 0}, {2, 1, 1, 9, 1, 0, -2, 0}};
    CGFileEvtHandler *pHandler = Install("");
    EXPECT_TRUE(pHandler->m_BaseCategoryMask == 0 && pHandler->m_CustomCategoryMask == 0);
    for (Case const &c : cases) {
        pHandler->m_State = c.nState;
        pHandler->m_BaseCategoryMask = c.baseMask;
        pHandler->m_CustomCategoryMask = c.customMask;
        pHandler->m_Level = c.nMaxLevel;
        EXPECT_EQ(pHandler->IsEventOn(c.base, c.custom, c.nLevel), c.fExpected) << &c - cases;
        // What the manager says beforehand is the same, but for events that masks and levels do not stop.
        bool const fSpecial = c.nLevel == -1 || c.nLevel == -2 || (c.base & 0x20) != 0;
        EXPECT_EQ(g_pEvtMgr->MayBeTaken(c.base, c.custom, c.nLevel), c.fExpected || fSpecial);
    }
    pHandler->m_State = 0;
}

// Whatever way a handler takes to what it takes, the next event finds it.
TEST_F(CEvtMgrTest, HandlerThatNoReloadHasSeen)
{
    Install("\n[$M\\Own]\n\"Level\"=dword:3\n");
    auto report = [](LONG nLevel) { g_pEvtMgr->Report(eEB_INFO, 0, nLevel, "%d", int{nLevel}); };
    auto *pOwn = new CKeepingHandler;
    ++g_cObjects;
    pOwn->m_State = 1;
    pOwn->m_Level = 2;
    pOwn->m_BaseCategoryMask |= eEB_INFO;
    report(1); // refused by all that are in the list
    g_pEvtMgr->AddNode("own", static_cast<CGBaseEvtHandler *>(pOwn), 0, 1);
    report(2);
    report(3);
    pOwn->LoadParams();
    report(3);
    pOwn->m_BaseCategoryMask &= ~eEB_INFO;
    report(3);
    EXPECT_EQ(pOwn->m_strLines, "[UNKWN]:  2|[UNKWN]:  3|");
    pOwn->AddRef(); // the list gives up two
}

TEST_F(CEvtMgrTest, ViewerHearsWhileItsHandlerIsOn)
{
    std::string const strTitle = "events " + std::to_string(GetCurrentProcessId());
    CTestViewer viewer(strTitle);
    std::string const strViewer =
        "\n[SOFTWARE\\Norvale\\TraceDeck]\n\"Title\"=\"" + strTitle + "\"\n";
    Install(ReplaceAll(ReplaceAll(m_strOn, "\\File]", "\\TD]"), "\"File Name\"=\"$LOG\"\n", "") +
            strViewer);
    auto const report = [](char const *psz) { g_pEvtMgr->Report(eEB_INFO, 0, 1, "%s", psz); };
    report("not connected");
    TdConnect();
    report("heard");
    Reg("\n[$M\\TD]\n\"State\"=dword:0\n" + strViewer + "\"Time Stamp\"=dword:1\n");
    LoadParameters();
    EXPECT_EQ(g_fTdTimeStamp, 1u) << "a reload is the viewer's, too";
    report("off");
    EXPECT_EQ(
        viewer.Messages(),
        (std::vector{std::string("[T]: heard\0", 11),
                     std::string("[T]: LoadParameters: BEGIN Loading new parameters\0", 50)}));
}

TEST_F(CEvtMgrTest, Line)
{
    CGFileEvtHandler *pHandler = Install(
        "\n[$B\\4]\n\"Short Name\"=\"I\"\n\"Long Name\"=\"Info\"\n"
        "\n[$B\\6]\n\"Long Name\"=\"ERR \"\n\"Display Long Name\"=dword:0\n"
        "\n[$M\\Custom Category\\64]\n\"Short Name\"=\"c\"\n\"Long Name\"=\"Cust\"\n"
        "\n[$M\\Custom Category\\1]\n\"Long Name\"=\"hidden\"\n\"Display Long Name\"=dword:0\n"
        "\"Short Name\"=\"h\"\n\"Display Short Name\"=dword:0\n"
        "\n[$M\\File]\n\"File Name\"=\"$LOG\"\n\"State\"=dword:1\n");
    CGQueueGuard const guard(*pHandler->m_pEvtMgr);
    CCategory *&pBase = pHandler->m_pEvtMgr->m_pBaseCategory;
    auto line = [&](std::uint64_t base, std::uint64_t custom, LONG nLevel)
                    PLAT_REQUIRES(pHandler->m_pEvtMgr) {
                        pHandler->OpenLogFile(eOF_TRUNCATE);
                        pHandler->WriteEvent("hello", base, custom, nLevel);
                        return ReadLog();
                    };
    EXPECT_EQ(line(8, 0, 2), "[UNKWN]: I Infohello\r\n");
    EXPECT_EQ(line(8, 1ull << 63, 2), "[UNKWN]: Ic InfoCusthello\r\n");
    EXPECT_EQ(line(0x20, 1, 0), "[UNKWN]:  ERR hello\r\n"); // forced; the custom name is not
    pBase->m_fDisplayShortName = pBase->m_fDisplayLongName = 0;
    pHandler->m_pCustomCategory->m_fDisplayLevel = 1; // one table is enough
    EXPECT_EQ(line(8, 0, 2), "[UNKWN]: [ 2] hello\r\n");
    EXPECT_EQ(line(0x30, 0, -1), "[UNKWN]:      ERR hello\r\n");
    EXPECT_EQ(line(0, 0, -2), "[UNKWN]:      hello\r\n");
    EXPECT_EQ(line(0, 0, -3), "[UNKWN]: [-3] hello\r\n");
    for (CCategory **ppTable : {&pHandler->m_pCustomCategory, &pBase}) {
        (*ppTable)->Release();
        *ppTable = nullptr; // as if there had been no memory: a table without names
    }
    EXPECT_EQ(g_pEvtMgr->ReloadParameters(), 1u);
    EXPECT_EQ(line(0x20, 1, -1), "[UNKWN]:  hello\r\n");
    pHandler->WriteLine(20, "12345678901234567890123"); // one more character goes when it is cut
    EXPECT_TRUE(ReadLog().ends_with("hello\r\n123456789012345678\r\n")) << ReadLog();
}

} // namespace
