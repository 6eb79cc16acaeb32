#include "platform/process.h"

#include "platform/file.h"
#include "tests/platform/role.h"

#include <cstdlib>
#include <iostream>
#include <iterator>

namespace {

CTestRole const g_variable("say-variable", [](std::string const &strName) {
    char const *psz = std::getenv(strName.c_str());
    std::fputs(psz != nullptr ? psz : "(none)", stdout);
    return 7;
});

// Its input and its other arguments, for a program that no shell starts.
CTestRole const g_repeater("repeat-input", [](std::string const &strFile) {
    std::string const strInput(std::istreambuf_iterator<char>(std::cin), {});
    std::ofstream(strFile) << strInput;
    return static_cast<int>(strInput.size() % 100);
});

// Not quite for ever: nothing is left of a test that failed.
CTestRole const g_writer("write-for-ever", [](std::string const &strFile) {
    for (int i = 0; i < 1000 && !std::filesystem::exists(strFile + ".end"); ++i) {
        std::ofstream(strFile, std::ios::app) << 'x';
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return 0;
});

} // namespace

TEST(ProcessTest, ChildrenGetNoHandleButTheirStreams)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "/proc is of Linux alone";
    }
    CTempDir const dir;
    CTestHandle const hFile(
        CreateFileA(dir.File("file").c_str(), GENERIC_WRITE, 3, nullptr, CREATE_NEW, 0, nullptr));
    std::ofstream const leaky(dir.File("other")); // a host's own, which children could inherit
    EXPECT_EQ(
        RunCommand("for f in 3 4 5 6 7 8 9; do test -e /proc/$$/fd/$f && exit $f; done; exit 0"),
        0u);
}

TEST(ProcessTest, CommandsGetForeignTextAsVariablesOnly)
{
    CTempDir const dir;
    std::string const strOut = dir.File("out");
    std::string const strForeign =
        "a\"; touch x; $(touch x) `touch x` & echo > x | %PATH% \x01\xFF";
    std::string const strLine = "\"" + OwnProgram() + "\" --role say-variable QOMA_TEXT" +
                                (kIsPosix ? " > \"$OUT\"" : " > \"%OUT%\"");
    DWORD const dwExit =
        RunCommand(strLine, {{"QOMA_TEXT", strForeign.c_str()}, {"OUT", strOut.c_str()}});
    EXPECT_EQ(dwExit, 7u);
    EXPECT_EQ(Contents(strOut), strForeign);

    PlatEnvType const bad = {"A B", ""};
    CPlatCommand command;
    EXPECT_FAILS(command.Start("exit 0", &bad, 1), ERROR_INVALID_PARAMETER);
}

TEST(ProcessTest, AProgramGetsArgumentsAndInputToTheLetter)
{
    CTempDir const dir;
    std::string const strOut = dir.File("a \"b\\\" $(c) %PATH%"); // and no shell in between
    std::string const strFile = kIsPosix ? strOut : dir.File("a $(c) %PATH%");
    std::string const strInput(3007, 'x');
    std::string const strProgram = OwnProgram();
    char const *const apsz[] = {strProgram.c_str(), "--role", "repeat-input", strFile.c_str()};
    CPlatCommand command;
    DWORD dwExit = 0;
    ASSERT_TRUE(command.StartProgram(apsz, std::size(apsz), strInput.data(), strInput.size()));
    EXPECT_TRUE(command.Wait(kdwLimit, &dwExit));
    EXPECT_EQ(dwExit, 7u);
    EXPECT_EQ(Contents(strFile), strInput);

    char const *const pszNone = "/no/such/program";
    CPlatCommand missing;
    EXPECT_FALSE(missing.StartProgram(&pszNone, 1, nullptr, 0));
}

// What a command starts goes with it, however deaf, and not by itself.
TEST(ProcessTest, ACommandEndsWithAllThatItStarted)
{
    CTempDir const dir;
    std::string const strFile = dir.File("file");
    std::string const strOwn = "\"" + OwnProgram() + "\" --role write-for-ever \"" + strFile + "\"";
    auto const grows = [&] {
        std::size_t const cb = Contents(strFile).size();
        return WaitFor([&] { return Contents(strFile).size() != cb; }, std::chrono::seconds(1));
    };
    {
        CPlatCommand command;
        DWORD dwExit = 0;
        std::string const strDeaf = "trap '' TERM; " + strOwn + " & wait; wait";
        ASSERT_TRUE(command.Start((kIsPosix ? strDeaf : strOwn).c_str(), nullptr, 0));
        ASSERT_TRUE(WaitFor([&] { return !Contents(strFile).empty(); }));
        EXPECT_FALSE(command.Wait(10, &dwExit));
        command.End(200);
        EXPECT_TRUE(command.Wait(kdwLimit, &dwExit));
        EXPECT_FALSE(grows());
    }
    CPlatCommand command;
    std::string const strBehind = kIsPosix ? strOwn + " &" : "start /b \"\" " + strOwn;
    DWORD dwExit = 99;
    ASSERT_TRUE(command.Start(strBehind.c_str(), nullptr, 0));
    EXPECT_TRUE(command.Wait(kdwLimit, &dwExit));
    EXPECT_EQ(dwExit, 0u);
    EXPECT_TRUE(grows()) << "what it left in the background goes on";
    Fill(dir.File("file.end"), "");
    EXPECT_TRUE(WaitFor([&] { return !grows(); }));
}
