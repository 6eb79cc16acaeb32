// The file handler at work: one log of many processes.

#include "tests/evtmgr/evtmgr_fixture.h"
#include "tests/platform/role.h"

#include <algorithm>
#include <list>
#include <sstream>

namespace {

void Site(char const *psz)
{
    G_REPORT(eEB_ERROR, eEC_NONE, eEL_ERROR, "%s", psz);
}

// "TAG LINES SETTINGS": writes that many lines.
CTestRole const g_writer("write-lines", [](std::string const &strArgument) {
    std::istringstream argument(strArgument);
    std::string strTag, strReg;
    int cLines = 0;
    std::getline(argument >> strTag >> cLines >> std::ws, strReg);
    PlatSetRegistryFile(strReg.c_str());
    GInstallEvtMgr("mgr");
    for (int n = 0; n < cLines; ++n)
        G_REPORT(eEB_ERROR, eEC_NONE, eEL_ERROR, "%s %d.", strTag.c_str(), n);
    return static_cast<int>(GRemoveEvtMgr("mgr"));
});

// Eight processes on one log, one of which is killed and started anew all the time.
TEST_F(CEvtMgrTest, LinesOfManyProcessesAreWholeAndOnce)
{
    int const kcLines = kIsPosix ? 14500 : 1000; // seven times that in all
    Reg(m_strOn + m_strAppend);
    std::list<CRoleProcess> writers;
    std::map<std::string, int> wanted;
    for (std::string const strTag : {"w0", "w1", "w2", "w3", "w4", "w5", "w6"}) {
        wanted[strTag] = kcLines;
        writers.emplace_back("write-lines",
                             strTag + ' ' + std::to_string(kcLines) + ' ' + m_reg.m_strPath);
    }
    int cKills = 0;
    auto hasEnded = [](CRoleProcess const &writer) {
        return WaitForSingleObject(writer.m_info.hProcess, 0) == WAIT_OBJECT_0;
    };
    while (!std::ranges::all_of(writers, hasEnded)) {
        CRoleProcess victim("write-lines", "victim 1073741824 " + m_reg.m_strPath);
        WaitForSingleObject(victim.m_info.hProcess, static_cast<DWORD>(10 + cKills++ * 7 % 60));
        victim.Kill();
    }
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
