#include "platform/process.h"

#include "platform/file.h"
#include "tests/platform/role.h"
#include "tests/support/guards.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace {

std::string OwnProgram()
{
    char szProgram[MAX_PATH * 4] = "";
    EXPECT_NE(GetModuleFileNameA(nullptr, szProgram, sizeof szProgram), 0u);
    return szProgram;
}

CTestRole const g_say("say", [](std::string const &str) {
    std::fwrite(str.data(), 1, str.size(), stdout);
    return 0;
});
CTestRole const g_variable("say-variable", [](std::string const &strName) {
    char const *psz = std::getenv(strName.c_str());
    std::fputs(psz != nullptr ? psz : "(none)", stdout);
    return 0;
});
CTestRole const g_folder("say-folder", [](std::string const &) {
    std::fputs(std::filesystem::current_path().string().c_str(), stdout);
    return 0;
});
CTestRole const g_exit("exit", [](std::string const &str) { return std::stoi(str); });
CTestRole const g_sleep("sleep", [](std::string const &) {
    Sleep(INFINITE);
    return 0;
});
CTestRole const g_keep("keep-variable", [](std::string const &strName) {
    std::ofstream(std::getenv("OUT"), std::ios::binary) << std::getenv(strName.c_str());
    return 7;
});

/// Starts the command line with its output in a pipe, and returns all that comes out.
std::string OutputOf(std::string strLine, char *pszEnvironment = nullptr,
                     char const *pszFolder = nullptr)
{
    HANDLE hRead = nullptr;
    HANDLE hWrite = nullptr;
    EXPECT_TRUE(CreatePipe(&hRead, &hWrite, nullptr, 0));
    EXPECT_TRUE(SetHandleInformation(hWrite, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT));
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = hWrite;
    PROCESS_INFORMATION info{};
    EXPECT_TRUE(CreateProcessA(nullptr, strLine.data(), nullptr, nullptr, TRUE, 0, pszEnvironment,
                               pszFolder, &startup, &info))
        << strLine << ": " << GetLastError();
    CloseHandle(hWrite);
    std::string strOutput;
    char ach[1000];
    DWORD cb = 0;
    SetLastError(0);
    while (ReadFile(hRead, ach, sizeof ach, &cb, nullptr)) {
        strOutput.append(ach, cb);
    }
    EXPECT_EQ(GetLastError(), DWORD{ERROR_BROKEN_PIPE});
    EXPECT_EQ(WaitForSingleObject(info.hThread, kdwLimit), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(WaitForSingleObject(info.hProcess, kdwLimit), DWORD{WAIT_OBJECT_0});
    for (HANDLE const hObject : {hRead, info.hProcess, info.hThread}) {
        EXPECT_TRUE(CloseHandle(hObject));
    }
    return strOutput;
}

std::string Quoted(std::string const &str)
{
    return "\"" + str + "\"";
}

/// Starts nothing; the last error.
DWORD StartError(char const *pszProgram, char const *pszLine, char const *pszFolder = nullptr)
{
    std::string strLine = pszLine != nullptr ? pszLine : "";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    SetLastError(0xDEADBEEF);
    EXPECT_FALSE(CreateProcessA(pszProgram, pszLine != nullptr ? strLine.data() : nullptr, nullptr,
                                nullptr, FALSE, 0, nullptr, pszFolder, &startup, &info));
    return GetLastError();
}

} // namespace

TEST(ProcessTest, CommandLinesAreTakenApartAsOnWindows)
{
    struct {
        char const *pszGiven;
        char const *pszTaken;
    } const aCases[] = {
        {"plain", "plain"},
        {R"("two words")", "two words"},
        {R"(two" "words)", "two words"},
        {R"("")", ""},
        {R"(a\b)", R"(a\b)"},
        {R"("a b\\")", R"(a b\)"},
        {R"(a\\\"b)", R"(a\"b)"},
        {R"("a \"b\" c")", R"(a "b" c)"},
        {R"("a\\b\\\\" )", R"(a\\b\\)"},
        {"$HOME;`x`'*", "$HOME;`x`'*"},
    };
    for (auto const &test : aCases) {
        EXPECT_EQ(OutputOf(Quoted(OwnProgram()) + " --role\tsay  " + test.pszGiven), test.pszTaken)
            << test.pszGiven;
    }
}

TEST(ProcessTest, EnvironmentAndFolderAreThoseGiven)
{
    CTempDir const dir;
    std::string const strRole = Quoted(OwnProgram()) + " --role ";
    char szBlock[] = "QOMA_TEST=a=b c\0OTHER=x\0";
    EXPECT_EQ(OutputOf(strRole + "say-variable QOMA_TEST", szBlock), "a=b c");
    EXPECT_EQ(OutputOf(strRole + "say-variable QOMA_TEST"), "(none)");
    std::string const strFolder = std::filesystem::canonical(dir.File("")).string();
    EXPECT_EQ(std::filesystem::path(OutputOf(strRole + "say-folder x", nullptr, strFolder.c_str())),
              std::filesystem::path(strFolder));
}

TEST(ProcessTest, RefusalsTellWhatIsWrong)
{
    CTempDir const dir;
    std::ofstream(dir.File("text.exe")) << "no program\n";
    std::filesystem::permissions(dir.File("text.exe"), std::filesystem::perms::all);
    EXPECT_EQ(StartError(dir.File("none.exe").c_str(), nullptr), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(StartError(dir.File("none/none.exe").c_str(), nullptr), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(StartError(nullptr, "qoma-no-such-program x"), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(StartError(dir.File("text.exe").c_str(), nullptr), DWORD{ERROR_BAD_EXE_FORMAT});
    EXPECT_EQ(StartError(OwnProgram().c_str(), nullptr, dir.File("none").c_str()),
              DWORD{ERROR_DIRECTORY});
}

TEST(ProcessTest, ExitCodesAndWaits)
{
    EXPECT_EQ(CRoleProcess("exit", "0").ExitCode(), 0u);
    EXPECT_EQ(CRoleProcess("exit", "201").ExitCode(), 201u);

    std::string strLine = Quoted(OwnProgram()) + " --role sleep x";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    ASSERT_TRUE(CreateProcessA(OwnProgram().c_str(), strLine.data(), nullptr, nullptr, FALSE, 0,
                               nullptr, nullptr, &startup, &info));
    CTestHandle const hProcess(info.hProcess);
    CTestHandle const hThread(info.hThread);
    DWORD dwCode = 0;
    EXPECT_TRUE(GetExitCodeProcess(hProcess, &dwCode));
    EXPECT_EQ(dwCode, DWORD{STILL_ACTIVE});
    EXPECT_EQ(WaitForSingleObject(hProcess, 30), DWORD{WAIT_TIMEOUT});
    std::thread waiter(
        [&] { EXPECT_EQ(WaitForSingleObject(hProcess, kdwLimit), DWORD{WAIT_OBJECT_0}); });
    EXPECT_TRUE(TerminateProcess(hProcess, 1234));
    waiter.join();
    EXPECT_EQ(WaitForSingleObject(hThread, kdwLimit), DWORD{WAIT_OBJECT_0});
    EXPECT_TRUE(GetExitCodeProcess(hProcess, &dwCode));
    EXPECT_EQ(dwCode, 1234u);
    if (kIsPosix) { // Windows says the same, Wine does not
        EXPECT_FAILS(TerminateProcess(hProcess, 1), ERROR_ACCESS_DENIED);
    }
    EXPECT_FAILS(TerminateProcess(nullptr, 1), ERROR_INVALID_HANDLE);
    EXPECT_FAILS(GetExitCodeProcess(nullptr, &dwCode), ERROR_INVALID_HANDLE);
}

TEST(ProcessTest, ChildrenGetNoHandleButTheirStreams)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "/proc is of Linux alone";
    }
    CTempDir const dir;
    HANDLE const hFile =
        CreateFileA(dir.File("file").c_str(), GENERIC_WRITE, 3, nullptr, CREATE_NEW, 0, nullptr);
    std::ofstream const leaky(
        dir.File("other")); // a host's own descriptor, which children could inherit
    EXPECT_EQ(
        OutputOf(
            "/bin/sh -c \"for f in 3 4 5 6 7 8 9; do test -e /proc/$$/fd/$f && echo $f; done\""),
        "");
    CloseHandle(hFile);
}

TEST(ProcessTest, CommandsGetForeignTextAsVariablesOnly)
{
    CTempDir const dir;
    std::string const strOut = dir.File("out");
    std::string const strForeign =
        "a\"; touch x; $(touch x) `touch x` & echo > x | %PATH% \x01\xFF";
    PlatEnvType const aVariables[] = {{"QOMA_TEXT", strForeign.c_str()}, {"OUT", strOut.c_str()}};
    DWORD dwExit = 99;
    ASSERT_TRUE(PlatRunCommand((Quoted(OwnProgram()) + " --role keep-variable QOMA_TEXT").c_str(),
                               aVariables, 2, kdwLimit, &dwExit));
    EXPECT_EQ(dwExit, 7u);
    std::ifstream file(strOut, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), strForeign);

    ASSERT_TRUE(PlatRunCommand("exit 3", nullptr, 0, kdwLimit, &dwExit));
    EXPECT_EQ(dwExit, 3u);
    PlatEnvType const bad = {"A B", ""};
    EXPECT_FAILS(PlatRunCommand("exit 0", &bad, 1, 0, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(PlatRunCommand(nullptr, nullptr, 0, 0, nullptr), ERROR_INVALID_PARAMETER);
}
