// The two handlers at work: one log of many processes, the viewer's window, the example file.

#include "platform/process.h"
#include "platform/sync.h"
#include "platform/window.h"
#include "tests/evtmgr/evtmgr_fixture.h"
#include "trace/g_trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <future>
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
    Install(m_strOn);
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
}

// A trace viewer: a window on a thread of its own that keeps what it is sent, terminators included.
LRESULT KeepLine(void *pLines, COPYDATASTRUCT const *pData)
{
    static_cast<std::string *>(pLines)->append(static_cast<char const *>(pData->lpData),
                                               pData->cbData);
    return 1;
}

TEST_F(CFileHandlerTest, ViewerThatIsThereGetsTheLines)
{
    std::string const strTitle = "qoma test viewer " + std::to_string(GetCurrentProcessId());
    std::string strLines;
    std::promise<HWND> made;
    std::thread viewer([&] {
        HWND const hWnd = PlatCreateViewerWindow(strTitle.c_str(), KeepLine, &strLines);
        made.set_value(hWnd);
        EXPECT_TRUE(PlatRunViewerWindow(hWnd));
        PlatDestroyViewerWindow(hWnd);
    });
    HWND const hWnd = made.get_future().get();
    std::string const strReg = "\n[SOFTWARE\\Norvale\\TraceDeck]\n\"Level Mask\"=dword:1\n\"Module "
                               "Mask\"=hex:1\n\"Title\"=";
    Install(strReg + "\"no such window\"\n" + ReplaceAll(m_strOn, "File]", "TD]"));
    EXPECT_EQ(g_TdMode, std::uint64_t{eTM_DEBUGGER});
    TdConnect();
    Site("no window yet");
    Reg(strReg + "\"" + strTitle + "\"\n");
    TdConnect(); // the attempt is not repeated
    EXPECT_EQ(g_TdMode.exchange(eTM_DEBUGGER), std::uint64_t{eTM_DEBUGGER | eTM_VIEWER});
    TdConnect();
    Site("live");
    TdSetCurrent(1, 1);
    TdLog("line %d", 1);
    Reg("\n[$M\\TD]\n\"State\"=dword:2\n");
    g_pEvtMgr.load()->ReloadParameters();
    Site("off");
    PlatCloseViewerWindow(hWnd);
    viewer.join();
    EXPECT_EQ(ReplaceAll(strLines, std::string(1, '\0'), "$"), "[T]: live$[OTHER]- line 1$");
    g_hTdWindow = nullptr;
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
