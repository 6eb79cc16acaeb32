// The file handler at work: one log of many processes.

#include "platform/process.h"
#include "platform/sync.h"
#include "tests/evtmgr/evtmgr_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

namespace {

void Site(char const *psz)
{
    G_REPORT(eEB_ERROR, eEC_NONE, eEL_ERROR, "%s", psz);
}

// The program itself once more, as the writer that main below can be.
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
TEST_F(CEvtMgrTest, LinesOfManyProcessesAreWholeAndOnce)
{
    int const kcLines = kIsPosix ? 14500 : 1000; // seven times that in all
    Reg(m_strOn + m_strAppend);
    std::vector<HANDLE> writers;
    std::map<std::string, int> wanted;
    for (char const *pszTag : {"w0", "w1", "w2", "w3", "w4", "w5", "w6"}) {
        writers.push_back(StartWriter(m_reg.m_strPath, pszTag, kcLines));
        wanted[pszTag] = kcLines;
    }
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
    EXPECT_EQ(CountLines(ReadLog()), wanted);
}

TEST_F(CEvtMgrTest, LineThatADeadWriterCutIsEnded)
{
    Install(m_strOn);
    std::string strMutex = ReplaceAll(m_strLog, "\\", "/"); // the name of every spelling
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

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (argc != 4)
        return RUN_ALL_TESTS();
    PlatSetRegistryFile(argv[1]);
    GInstallEvtMgr("mgr");
    for (int n = 0; n < std::atoi(argv[3]); ++n)
        G_REPORT(eEB_ERROR, eEC_NONE, eEL_ERROR, "%s %d.", argv[2], n);
    return static_cast<int>(GRemoveEvtMgr("mgr"));
}
