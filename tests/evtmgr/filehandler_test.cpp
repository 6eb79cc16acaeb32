// The two handlers at work: one log of many processes, the viewer's window, the example file.

#include "platform/process.h"
#include "platform/sync.h"
#include "tests/evtmgr/evtmgr_fixture.h"
#include "tests/support/test_viewer.h"
#include "trace/g_trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>

namespace {

using CFileHandlerTest = CEvtMgrTest;

void Site(char const *psz)
{
    G_REPORT(eEB_ERROR, eEC_NONE, eEL_ERROR, "%s", psz);
}

// The program itself once more, in the part of main below.
HANDLE StartWriter(std::string const &strReg, char const *pszTag, int cLines)
{
    char szSelf[MAX_PATH] = "";
    GetModuleFileNameA(nullptr, szSelf, sizeof(szSelf));
    std::string strLine = "writer \"" + strReg + "\" " + pszTag + ' ' + std::to_string(cLines);
    STARTUPINFOA startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info = {};
    EXPECT_TRUE(CreateProcessA(szSelf, strLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               &startup, &info));
    CloseHandle(info.hThread);
    return info.hProcess;
}

// Eight processes on one log, one of which is killed and started anew all the time.
TEST_F(CFileHandlerTest, LinesOfManyProcessesAreWholeAndOnce)
{
    int const kcLines = kIsPosix ? 14500 : 1000; // seven times that in all
    Reg(m_strOn + m_strAppend);
    std::vector<HANDLE> writers;
    for (char const *pszTag : {"w0", "w1", "w2", "w3", "w4", "w5", "w6"})
        writers.push_back(StartWriter(m_reg.m_strPath, pszTag, kcLines));
    int cKills = 0;
    auto hasEnded = [](HANDLE h) { return WaitForSingleObject(h, 0) == WAIT_OBJECT_0; };
    while (!std::all_of(writers.begin(), writers.end(), hasEnded)) {
        HANDLE const hVictim = StartWriter(m_reg.m_strPath, "victim", 1 << 30);
        WaitForSingleObject(hVictim, static_cast<DWORD>(10 + cKills++ * 7 % 60)); // it never ends
        TerminateProcess(hVictim, 9);
        EXPECT_EQ(WaitForSingleObject(hVictim, 30000), WAIT_OBJECT_0);
        CloseHandle(hVictim);
    }
    std::for_each(writers.begin(), writers.end(), CloseHandle);
    std::map<std::string, int> seen;
    std::istringstream log(ReadLog());
    for (std::string strLine; std::getline(log, strLine);) {
        char szTag[8] = "";
        int nLine = 0, cch = 0;
        if (std::sscanf(strLine.c_str(), "[T]: %7[w0-9] %d of the log%n", szTag, &nLine, &cch) ==
            2) {
            ASSERT_STREQ(strLine.c_str() + cch, "\r") << strLine;
            ASSERT_EQ(nLine, seen[szTag]++) << strLine;
        }
    }
    EXPECT_EQ(seen.size(), 7u);
    for (auto const &[strTag, cSeen] : seen)
        EXPECT_EQ(cSeen, kcLines) << strTag;
    RecordProperty("kills", cKills);
}

TEST_F(CFileHandlerTest, LineThatADeadWriterCutIsEnded)
{
    Reg(m_strOn);
    GInstallEvtMgr("mgr");
    std::string strMutex =
        ReplaceAll(m_strLog, "\\", "/"); // the name to which every spelling leads
    HANDLE const hMutex = OpenMutexA(SYNCHRONIZE, FALSE, GStrLower(strMutex.data()));
    auto dieWithTheMutex = [=] { EXPECT_EQ(WaitForSingleObject(hMutex, INFINITE), WAIT_OBJECT_0); };
    std::thread(dieWithTheMutex).join();
    Site("one");
    std::ofstream(m_strLog, std::ios::binary | std::ios::app) << "cut";
    std::thread(dieWithTheMutex).join();
    Site("two");
    EXPECT_EQ(ReadLog(), "[T]: one\r\ncut\r\n[T]: two\r\n");
    CloseHandle(hMutex);
    GRemoveEvtMgr("mgr");
}

TEST_F(CFileHandlerTest, TraceHandlerIsOnOnceTheWindowIsKnown)
{
    CTestViewer viewer;
    Reg("\n[SOFTWARE\\Norvale\\TraceDeck]\n\"Title\"=\"" + viewer.m_strTitle + "\"\n" +
        ReplaceAll(m_strOn, "File]", "TD]"));
    GInstallEvtMgr("mgr");
    EXPECT_EQ(g_TdMode, std::uint64_t{eTM_DEBUGGER});
    Site("before the viewer is known");
    TdConnect();
    Site("live");
    Reg("\n[$M\\TD]\n\"State\"=dword:2\n");
    LoadParameters(); // says so first
    Site("off");
    GRemoveEvtMgr("mgr");
    g_hTdWindow = nullptr;
    std::vector<std::string> const lines = viewer.End();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], std::string("[T]: live") + '\0');
}

TEST_F(CFileHandlerTest, ExampleFileWorksAsItStands)
{
    std::ifstream file(std::filesystem::path(__FILE__).parent_path() / "../../docs/example.reg",
                       std::ios::binary);
    std::string str{std::istreambuf_iterator<char>(file), {}};
    if (str.empty())
        GTEST_SKIP() << "the sources are not here";
    std::ofstream(m_reg.m_strPath)
        << ReplaceAll(str, "notifymon.log", ReplaceAll(m_strLog, "\\", "\\\\"));
    GInstallEvtMgr("notifymon");
    G_REPORT(eEB_ENTRY, eEC_OBJECT, eEL_TRACE, "entered");
    Site("failed");
    GRemoveEvtMgr("notifymon");
    str = ReplaceAll(ReadLog(), "[NOTIFYMON]: ", "$");
    EXPECT_TRUE(str.starts_with("$[ 1]> Entry: (life) entered\r\n$    E ERROR: failed\r\n")) << str;
    EXPECT_TRUE(
        str.ends_with("$    I Info: RemoveEvtMgr: g_cMemory g_cbMemory g_cObjects = 0 0 0\r\n"))
        << str;
    EXPECT_EQ(g_cTdModules + g_cTdLevels, 3);
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (argc != 4)
        return RUN_ALL_TESTS();
    PlatSetRegistryFile(argv[1]);
    GInstallEvtMgr("mgr");
    for (int n = 0; n < std::atoi(argv[3]); ++n)
        G_REPORT(eEB_ERROR, eEC_NONE, eEL_ERROR, "%s %d of the log", argv[2], n);
    return static_cast<int>(GRemoveEvtMgr("mgr"));
}
