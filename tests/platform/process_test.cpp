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

} // namespace

TEST(ProcessTest, ChildrenGetNoHandleButTheirStreams)
{
    if (!kIsPosix)
        GTEST_SKIP() << "/proc is of Linux alone";
    CTempDir const dir;
    auto const open = [&](char const *pszName) {
        return CreateFileA(dir.File(pszName).c_str(), GENERIC_WRITE, 3, nullptr, CREATE_NEW, 0,
                           nullptr);
    };
    CTestHandle const hFile(open("file"));
    std::ofstream const leaky(dir.File("other")); // a host's own, which children could inherit
    CRoleProcess shell(StartProgram("/bin/sh -c \"for f in 3 4 5 6 7 8 9; do "
                                    "test -e /proc/$$/fd/$f && exit $f; done; exit 0\"",
                                    open("out")));
    EXPECT_EQ(shell.ExitCode(), 0u);
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
