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
    for (int n = 0; n < cLines; ++n) {
        G_REPORT(eEB_ERROR, eEC_NONE, eEL_ERROR, "%s %d.", strTag.c_str(), n);
    }
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
    while (!std::ranges::all_of(writers, [](CRoleProcess &writer) { return writer.HasEnded(); })) {
        CRoleProcess victim("write-lines", "victim 1073741824 " + m_reg.m_strPath);
        victim.HasEnded(static_cast<DWORD>(10 + cKills++ * 7 % 60));
        victim.Kill();
    }
    EXPECT_EQ(CountLines(ReadLog()), wanted);
}

// The next that waits for it has it abandoned.
void DieWithTheMutex(HANDLE hMutex)
{
    std::thread([=] { EXPECT_EQ(WaitForSingleObject(hMutex, INFINITE), WAIT_OBJECT_0); }).join();
}

TEST_F(CEvtMgrTest, LineThatADeadWriterCutIsEnded)
{
    CGFileEvtHandler *pHandler = Install(m_strOn);
    std::string strMutex = ReplaceAll(m_strLog, "\\", "/"); // the name of every spelling
    CTestHandle const hMutex(OpenMutexA(SYNCHRONIZE, FALSE, GStrLower(strMutex.data())));
    auto cut = [&] { std::ofstream(m_strLog, std::ios::binary | std::ios::app) << "cut"; };
    DieWithTheMutex(hMutex);
    Site("one");
    cut();
    DieWithTheMutex(hMutex);
    Site("two");
    cut(); // by a process that nobody was there to see
    pHandler->OpenLogFile(eOF_APPEND);
    Site("three");
    DieWithTheMutex(hMutex); // behind a whole line
    Site("four");
    EXPECT_EQ(ReadLog(), "[T]: one\r\ncut\r\n[T]: two\r\ncut\r\n[T]: three\r\n[T]: four\r\n");
}

// There is room for 6 bytes of a line or for 1, and none for its end.
TEST_F(CEvtMgrTest, LineThatAFullDiskCutIsEnded)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "a process has no limit for its files there";
    }
    Reg(m_strOn + m_strAppend);
    for (std::string const strEnd : {"[T]:\r\n", "\n"}) {
        std::string const strFull = std::string(8192 - 2 - strEnd.size(), 'x') + "\r\n";
        std::ofstream(m_strLog, std::ios::binary) << strFull;
        EXPECT_EQ(RunCommand("trap '' XFSZ; ulimit -f 16; exec '" + OwnProgram() +
                             "' --role write-lines 'w 3 " + m_reg.m_strPath + "'"),
                  0u);
        EXPECT_EQ(ReadLog(), strFull + strEnd);
    }
}

// Nobody takes anything out of it before the writer has ended, and it has no room for all lines.
TEST_F(CEvtMgrTest, LogThatIsAPipeIsNotReadAndHoldsNobodyUp)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "a pipe has no name for its writers there";
    }
    Reg(ReplaceAll(m_strOn, "$LOG", "/dev/stdout"));
    CTestHandle const hMutex(CreateMutexA(nullptr, FALSE, "/dev/stdout"));
    DieWithTheMutex(hMutex);
    constexpr int kcLines = 8000;
    std::string const strDone = m_strLog + ".done";
    EXPECT_EQ(RunCommand("{ '" + OwnProgram() + "' --role write-lines 'w " +
                         std::to_string(kcLines) + ' ' + m_reg.m_strPath + "'; : >'" + strDone +
                         "'; } | { until [ -e '" + strDone + "' ]; do sleep 0.05; done; cat >'" +
                         m_strLog + "'; }"),
              0u);
    int const cWhole = CountLines(ReadLog())["w"];
    EXPECT_TRUE(cWhole > 1000 && cWhole < kcLines) << cWhole;
}

} // namespace
