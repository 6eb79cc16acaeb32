// The client of the trace viewer: settings, search for the window, the line and its places.

#include "trace/g_trace.h"

#include "platform/fifo.h"
#include "platform/process.h"
#include "tests/support/guards.h"
#include "tests/support/reg_file.h"
#include "tests/support/viewer.h"

#include <algorithm>
#include <thread>

namespace {

class CTraceTest : public testing::Test {
protected:
    // The client's state is the process's: a run of all cases in one process begins each with this.
    CTraceTest()
    {
        g_TdMode = 0;
        g_hTdWindow = nullptr;
        g_fTdAutoStart = g_fTdTimeStamp = g_fTdExeName = 0;
        TdSetCurrent(2, 1);
    }
    // Values of the client's key, and keys below it: $K is its path.
    void Reg(std::string const &str)
    {
        m_reg.Write(ReplaceAll("\n[$K]\n" + str, "$K", "SOFTWARE\\Norvale\\TraceDeck"));
    }
    std::string TakeFile()
    {
        std::string const str = Contents(m_strFile);
        std::filesystem::remove(m_strFile);
        return str;
    }
    CTempDir m_dir;
    CRegFile m_reg{m_dir.File("test.reg")};
    std::string const m_strFile = m_dir.File("trace.log");
    // All masks open, names for module 1 and level 0, a file of our own.
    std::string const m_strOn =
        ReplaceAll("\"Level Mask\"=dword:ffff\n\"Module "
                   "Mask\"=hex:ff,ff,ff,ff,ff,ff,ff,ff\n\"DebugFilePath\"=\"$F\"\n"
                   "\n[$K\\Modules\\0]\n\n[$K\\Modules\\1]\n\"Short Name\"=\"[M1] \"\n"
                   "\n[$K\\Levels\\0]\n\"Short Name\"=\"E: \"\n",
                   "$F", ReplaceAll(m_strFile, "\\", "\\\\"));
};

TEST_F(CTraceTest, SettingsAndTables)
{
    m_reg.Write("");
    EXPECT_EQ(TdLoadSettings(eTM_VIEWER), 0u);
    EXPECT_EQ(g_TdMode, 0u);
    EXPECT_STREQ(g_szTdDebugFile, "c:\\debug.log");
    EXPECT_EQ(std::string(g_szTdExeName).substr(0, 10), "test_trace");
    auto rows = [](std::string const &strTable, int cRows) {
        std::string str;
        for (int n = 0; n < cRows; ++n) {
            str += "\n[$K\\" + strTable + "\\" + std::to_string(n) +
                   "]\n\"Short Name\"=\"1234567890\"\n";
        }
        return str;
    };
    Reg("\"Title\"=\"a title\"\n\"Path\"=hex:61,62\n" + rows("Modules", 70) + rows("Levels", 12));
    EXPECT_EQ(TdLoadSettings(eTM_DEBUGGER) + TdLoadSettings(eTM_VIEWER), 2u);
    EXPECT_EQ(g_TdMode, std::uint64_t{eTM_DEBUGGER | eTM_VIEWER});
    EXPECT_EQ(g_cTdModules, kcTdModules);
    EXPECT_EQ(g_cTdLevels, kcTdLevels);
    EXPECT_STREQ(g_TdModuleNames[63], "1234567");
    EXPECT_STREQ(g_TdLevelNames[7], "123");
    // A row without a name keeps what it held and counts among the modules, but ends the levels.
    Reg("\"Title\"=\"" + std::string(64, 't') + "\"\n\"DebugFile\"=dword:1\n" + rows("Modules", 2) +
        "\n[$K\\Modules\\2]\n" + rows("Levels", 2) + "\n[$K\\Levels\\2]\n");
    EXPECT_EQ(TdLoadSettings(eTM_DEBUGGER), 1u);
    EXPECT_EQ(g_TdMode, std::uint64_t{eTM_DEBUGGER | eTM_FILE});
    EXPECT_STREQ(g_szTdTitle, "a title"); // the new one is too wide
    EXPECT_STREQ(g_szTdPath, "ab");       // had no terminator
    EXPECT_EQ(g_cTdModules, 3);
    EXPECT_STREQ(g_TdModuleNames[2], "1234567");
    EXPECT_EQ(g_cTdLevels, 2);
    EXPECT_STREQ(TdGuidToText({0x1a2b3c, 0x4d, 0xe5f6, {1, 0x23, 0xab, 0, 0, 0xff, 0x10, 9}}),
                 "{001A2B3C-004D-E5F6-0123-AB0000FF1009}");
}

TEST_F(CTraceTest, LinesInTheFile)
{
    Reg(m_strOn);
    TdLoadSettings(0);
    std::thread loader([] { // the client has no owner: any thread may load while others log
        for (int n = 0; n < 50; ++n) {
            TdLoadSettings(0);
        }
    });
    auto expect = [&](std::uint64_t mode, std::uint64_t module, DWORD dwLevel,
                      std::string const &strText, std::string const &strExpected) {
        g_TdMode = mode;
        TdSetCurrent(module, dwLevel);
        TdLog("%s", strText.c_str());
        EXPECT_EQ(TakeFile(), strExpected);
    };
    for (std::uint64_t mode : {4u, 6u}) { // the debugger adds a line end of its own
        expect(mode, 2, 1, "text", "[M1] E: text\r\n");
        for (std::size_t cchShown : {246u, 247u}) { // a line of 255 characters is whole
            std::string const strShown = "[M1] E: " + std::string(cchShown, 'x') + "\r\n";
            expect(mode, 2, 1, std::string(cchShown == 246 ? 248 : 247, 'x'), strShown);
        }
    }
    expect(eTM_FILE, 3, 2, "text", "[OTHER]- text\r\n");
    expect(eTM_FILE, 2, 1, "text\r\n", "[M1] E: text\r\n");
    expect(eTM_FILE, 2, 1, "text\n", "[M1] E: text\n\r\n");
    expect(eTM_DEBUGGER, 2, 1, "not for the file", "");
    expect(eTM_FILE, 0, 1, "no module", "");
    expect(eTM_FILE, 2, 0x10000, "level not in the mask", "");
    TdSetCurrent(2, 1);
    loader.join();
    g_fTdTimeStamp = g_fTdExeName = 1;
    TdLog("%d", 42);
    std::string const str = TakeFile();
    EXPECT_EQ(str.find_first_not_of("0123456789", 1), std::max(str.find('}'), std::size_t{9}));
    EXPECT_TRUE(str.ends_with("}[M1] E: \"" + std::string(g_szTdExeName) + "\" 42\r\n")) << str;
}

TEST_F(CTraceTest, FileThatIsAPipeThatNobodyReads)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "a pipe is no file there";
    }
    ASSERT_EQ(std::system(("mkfifo " + m_strFile).c_str()), 0);
    CPlatFifo fifo;
    ASSERT_TRUE(fifo.Open(m_strFile.c_str()));
    Reg(m_strOn);
    TdLoadSettings(eTM_FILE);
    auto const start = std::chrono::steady_clock::now();
    for (int n = 0; n < 8000; ++n) { // more than it has room for
        TdLog("%d", n);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

// Its window comes some time after its program was started. Who connects meanwhile starts no second one.
TEST_F(CTraceTest, ViewerIsStartedOnceAndTakesLines)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "a script is no program there";
    }
    std::string const strProgram = m_dir.File("program"), strStarted = m_dir.File("started");
    Fill(strProgram, "#!/bin/sh\necho once >>" + strStarted + "\n");
    std::filesystem::permissions(strProgram, std::filesystem::perms::owner_all);
    std::string const strTitle = "trace " + std::to_string(GetCurrentProcessId());
    std::string const strViewer =
        "\"Title\"=\"" + strTitle + "\"\n\"Path\"=\"" + strProgram + "\"\n";
    Reg(strViewer + m_strOn);
    TdConnect();
    EXPECT_EQ(g_TdMode, std::uint64_t{eTM_VIEWER}) << "not tried again, and no program started";
    g_TdMode = 0;
    Reg(strViewer + "\"Auto Start\"=dword:1\n" + m_strOn);
    std::unique_ptr<CTestViewer> pViewer;
    std::thread other([&] {
        EXPECT_TRUE(WaitFor([&] { return Contents(strStarted) == "once\n"; }));
        g_TdMode = 0; // as if the connection had not begun
        TdConnect();
        std::this_thread::sleep_for(std::chrono::seconds(1)); // as a program takes its time
        pViewer = std::make_unique<CTestViewer>(strTitle);
    });
    TdConnect();
    other.join();
    EXPECT_EQ(Contents(strStarted), "once\n");
    TdLog("text");
    EXPECT_EQ(pViewer->Messages(), std::vector{std::string("[M1] E: text\0", 13)});
    EXPECT_EQ(TakeFile(), "");

    // Where lines go to a file, nobody looks for a viewer.
    g_TdMode = 0;
    g_hTdWindow = nullptr;
    Reg(strViewer + "\"DebugFile\"=dword:1\n" + m_strOn);
    TdConnect();
    EXPECT_EQ(g_hTdWindow, nullptr);
}

TEST_F(CTraceTest, ViewerThatCannotBeStartedIsToldOnce)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "a message box waits for a person there";
    }
    Reg("\"Title\"=\"no such window\"\n\"Path\"=\"/no/such/program\"\n\"Auto Start\"=dword:1\n");
    testing::internal::CaptureStderr();
    TdConnect();
    TdConnect();
    std::string const str = testing::internal::GetCapturedStderr();
    std::size_t const n = str.find("ERROR!  Unable to start the TraceDeck executable!");
    EXPECT_TRUE(n != std::string::npos && str.find("ERROR!", n + 1) == std::string::npos) << str;
}

} // namespace
