// The program tracedeck as a process. It lies beside this one, if it has been built.

#include "platform/console.h"
#include "platform/file.h"
#include "platform/window.h"
#include "tests/platform/role.h"
#include "tests/support/guards.h"

#include <fstream>
#include <iterator>

namespace {

std::string Contents(std::string const &strName)
{
    std::ifstream file(strName, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class TraceDeckTest : public testing::Test {
protected:
    void SetUp() override
    {
        char szProgram[MAX_PATH * 4] = "";
        GetModuleFileNameA(nullptr, szProgram, sizeof szProgram);
        m_path = std::filesystem::path(szProgram).replace_filename(kIsPosix ? "tracedeck"
                                                                            : "tracedeck.exe");
        if (!std::filesystem::exists(m_path)) {
            GTEST_SKIP() << "tracedeck has not been built";
        }
    }

    /// Starts the program with its streams in the files out and err.
    PROCESS_INFORMATION Start(std::string const &strArguments)
    {
        std::string strLine = "\"" + m_path.string() + "\" " + strArguments;
        HANDLE ahStreams[2];
        for (int i = 0; i < 2; ++i) {
            ahStreams[i] = CreateFileA(m_dir.File(i == 0 ? "out" : "err").c_str(), GENERIC_WRITE, 3,
                                       nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
            EXPECT_TRUE(
                SetHandleInformation(ahStreams[i], HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT));
        }
        STARTUPINFOA startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = ahStreams[0];
        startup.hStdError = ahStreams[1];
        PROCESS_INFORMATION info{};
        EXPECT_TRUE(CreateProcessA(nullptr, strLine.data(), nullptr, nullptr, TRUE,
                                   CREATE_NEW_PROCESS_GROUP, nullptr, nullptr, &startup, &info));
        CloseHandle(ahStreams[0]);
        CloseHandle(ahStreams[1]);
        CloseHandle(info.hThread);
        return info;
    }

    DWORD End(PROCESS_INFORMATION const &info)
    {
        DWORD dwCode = STILL_ACTIVE;
        EXPECT_EQ(WaitForSingleObject(info.hProcess, kdwLimit), DWORD{WAIT_OBJECT_0});
        GetExitCodeProcess(info.hProcess, &dwCode);
        TerminateProcess(info.hProcess, 1);
        CloseHandle(info.hProcess);
        return dwCode;
    }

    std::string Errors() { return Contents(m_dir.File("err")); }

    CTempDir m_dir;
    std::filesystem::path m_path;
};

} // namespace

TEST_F(TraceDeckTest, ShowsLinesSafelyAndKeepsThemInAFile)
{
    std::string const strTitle = UniqueName("deck");
    std::ofstream(m_dir.File("log"), std::ios::binary) << "before\n";
    PROCESS_INFORMATION const info =
        Start("--title \"" + strTitle + "\" --out \"" + m_dir.File("log") + "\"");
    HWND hWnd = nullptr;
    ASSERT_TRUE(
        WaitFor([&] { return (hWnd = FindWindowA(nullptr, strTitle.c_str())) != nullptr; }));
    std::string const aLines[] = {std::string("{00000001}[SPL] a line\0", 23), "no end",
                                  std::string("\x1B[2J\a\r\nx\x80\xC0\xAF\xE2\x82\r\n\0behind", 21),
                                  "gr\xC3\xBC\xC3\x9F\xE2\x80\xAE\xC2\x9B\xF0\x9F\x98\x80\t!"};
    for (std::string str : aLines) {
        COPYDATASTRUCT data = {0, static_cast<DWORD>(str.size()), str.data()};
        EXPECT_EQ(SendMessageA(hWnd, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&data)), TRUE);
    }
    std::string strShown = "{00000001}[SPL] a line\nno end\n"
                           "\\x1B[2J\\x07\\x0D\\x0Ax\\x80\\xC0\\xAF\\xE2\\x82\n"
                           "gr\xC3\xBC\xC3\x9F\\xE2\\x80\\xAE\\xC2\\x9B\xF0\x9F\x98\x80\t!\n";
    EXPECT_EQ(Contents(m_dir.File("log")),
              "before\n" + strShown); // each line at once, not at the end
    if (kIsPosix) {
        EXPECT_EQ(Contents(m_dir.File("out")), strShown);
    }

    EXPECT_EQ(End(Start("--title \"" + strTitle + "\"")), 1u);
    EXPECT_NE(Errors().find("in use"), std::string::npos) << Errors();

    if (kIsPosix) {
        EXPECT_TRUE(GenerateConsoleCtrlEvent(CTRL_C_EVENT, info.dwProcessId));
    } else {
        PlatCloseViewerWindow(hWnd); // there may be no console to send Ctrl-C through
    }
    EXPECT_EQ(End(info), 0u);
    EXPECT_EQ(FindWindowA(nullptr, strTitle.c_str()), nullptr);
}

TEST_F(TraceDeckTest, BadArgumentsGiveOneClearLine)
{
    for (char const *pszArguments : {"--bogus", "--title", "stray"}) {
        EXPECT_EQ(End(Start(pszArguments)), 2u) << pszArguments;
        std::string const strErrors = Errors();
        EXPECT_TRUE(strErrors.starts_with("tracedeck: ")) << strErrors;
        EXPECT_EQ(std::count(strErrors.begin(), strErrors.end(), '\n'), 1) << strErrors;
    }
    EXPECT_EQ(End(Start("--out \"" + m_dir.File("none/log") + "\"")), 1u);
    EXPECT_NE(Errors().find("cannot open"), std::string::npos) << Errors();
    EXPECT_EQ(End(Start("--help")), 0u);
    EXPECT_NE(Contents(m_dir.File("out")).find("--title"), std::string::npos);
}
