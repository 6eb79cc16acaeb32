// The program tracedeck as a process. It lies beside this one, if it has been built.

#include "platform/console.h"
#include "platform/file.h"
#include "platform/window.h"
#include "tests/platform/role.h"

TEST(TraceDeckTest, ShowsLinesSafelyAndKeepsThemInAFile)
{
    auto const path = std::filesystem::path(OwnProgram())
                          .replace_filename(kIsPosix ? "tracedeck" : "tracedeck.exe");
    if (!std::filesystem::exists(path)) {
        GTEST_SKIP() << "tracedeck has not been built";
    }
    CTempDir const dir;
    std::string const strTitle = UniqueName("deck");
    Fill(dir.File("log"), "before\n");
    std::vector<std::string> const line{path.string(), "--title", strTitle, "--out",
                                        dir.File("log")};
    std::vector<std::string> const shell{"/bin/sh", "-c", R"(exec "$@" >"$0")", dir.File("out")};
    std::vector<std::string> shown = shell;
    shown.insert(shown.end(), line.begin(), line.end());
    CRoleProcess deck(kIsPosix ? shown : line);
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
    EXPECT_EQ(Contents(dir.File("log")),
              "before\n" + strShown); // each line at once, not at the end
    if (kIsPosix) {
        EXPECT_EQ(Contents(dir.File("out")), strShown);
    }

    EXPECT_EQ(CRoleProcess({path.string(), "--title", strTitle}).ExitCode(), 1u) << "in use";
    if (kIsPosix) {
        deck.End(kdwLimit);
    } else {
        PlatCloseViewerWindow(hWnd); // there may be no console to send a request through
    }
    EXPECT_EQ(deck.ExitCode(), 0u);
    EXPECT_EQ(FindWindowA(nullptr, strTitle.c_str()), nullptr);
}
