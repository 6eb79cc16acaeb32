#include "platform/process.h"

#include "platform/file.h"
#include "tests/platform/role.h"

#include <cstdlib>

namespace {

CTestRole const g_variable("say-variable", [](std::string const &strName) {
    char const *psz = std::getenv(strName.c_str());
    std::fputs(psz != nullptr ? psz : "(none)", stdout);
    return 7;
});
CTestRole const g_sleep("sleep", [](std::string const &) {
    Sleep(INFINITE);
    return 0;
});

/// All that comes out of a command line.
std::string OutputOf(std::string const &strLine)
{
    HANDLE hRead = nullptr;
    HANDLE hWrite = nullptr;
    EXPECT_TRUE(CreatePipe(&hRead, &hWrite, nullptr, 0));
    CRoleProcess process(StartProgram(strLine, hWrite));
    std::string strOutput;
    char ach[1000];
    DWORD cb = 0;
    SetLastError(0);
    while (ReadFile(hRead, ach, sizeof ach, &cb, nullptr))
        strOutput.append(ach, cb);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_BROKEN_PIPE});
    EXPECT_TRUE(CloseHandle(hRead));
    process.ExitCode();
    return strOutput;
}

} // namespace

TEST(ProcessTest, RefusalsTellWhatIsWrong)
{
    CTempDir const dir;
    Fill(dir.File("text.exe"), "no program\n");
    std::filesystem::permissions(dir.File("text.exe"), std::filesystem::perms::all);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    auto const starts = [&](char const *pszName) {
        return CreateProcessA(dir.File(pszName).c_str(), nullptr, nullptr, nullptr, FALSE, 0,
                              nullptr, nullptr, &startup, &info);
    };
    EXPECT_FAILS(starts("none/none.exe"), ERROR_PATH_NOT_FOUND);
    EXPECT_FAILS(starts("text.exe"), ERROR_BAD_EXE_FORMAT);
}

TEST(ProcessTest, AProcessRunsUntilItIsTerminated)
{
    CRoleProcess process("sleep", "x");
    HANDLE const hProcess = process.m_info.hProcess;
    DWORD dwCode = 0;
    EXPECT_TRUE(GetExitCodeProcess(hProcess, &dwCode));
    EXPECT_EQ(dwCode, DWORD{STILL_ACTIVE});
    EXPECT_EQ(WaitForSingleObject(hProcess, 30), DWORD{WAIT_TIMEOUT});
    std::thread waiter([&] { EXPECT_EQ(process.ExitCode(), 1234u); });
    EXPECT_TRUE(TerminateProcess(hProcess, 1234));
    waiter.join();
    if (kIsPosix) { // Windows says the same, Wine does not
        EXPECT_FAILS(TerminateProcess(hProcess, 1), ERROR_ACCESS_DENIED);
    }
}

TEST(ProcessTest, ChildrenGetNoHandleButTheirStreams)
{
    if (!kIsPosix)
        GTEST_SKIP() << "/proc is of Linux alone";
    CTempDir const dir;
    CTestHandle const hFile(
        CreateFileA(dir.File("file").c_str(), GENERIC_WRITE, 3, nullptr, CREATE_NEW, 0, nullptr));
    std::ofstream const leaky(dir.File("other")); // a host's own, which children could inherit
    EXPECT_EQ(OutputOf("/bin/sh -c \"for f in 3 4 5 6 7 8 9; do "
                       "test -e /proc/$$/fd/$f && echo $f; done\""),
              "");
}

TEST(ProcessTest, CommandsGetForeignTextAsVariablesOnly)
{
    CTempDir const dir;
    std::string const strOut = dir.File("out");
    std::string const strForeign =
        "a\"; touch x; $(touch x) `touch x` & echo > x | %PATH% \x01\xFF";
    PlatEnvType const aVariables[] = {{"QOMA_TEXT", strForeign.c_str()}, {"OUT", strOut.c_str()}};
    std::string const strLine = "\"" + OwnProgram() + "\" --role say-variable QOMA_TEXT" +
                                (kIsPosix ? " > \"$OUT\"" : " > \"%OUT%\"");
    DWORD dwExit = 99;
    ASSERT_TRUE(PlatRunCommand(strLine.c_str(), aVariables, 2, kdwLimit, &dwExit));
    EXPECT_EQ(dwExit, 7u);
    EXPECT_EQ(Contents(strOut), strForeign);

    PlatEnvType const bad = {"A B", ""};
    EXPECT_FAILS(PlatRunCommand("exit 0", &bad, 1, 0, nullptr), ERROR_INVALID_PARAMETER);
}
