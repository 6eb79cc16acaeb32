#include "platform/window.h"

#include "tests/platform/role.h"
#include "tests/support/reg_file.h"
#include "tests/support/viewer.h"

namespace {

LRESULT Send(HWND hWnd, std::string const &str, ULONG_PTR dwData = 0)
{
    std::string strCopy = str;
    COPYDATASTRUCT data = {dwData, static_cast<DWORD>(strCopy.size()), strCopy.data()};
    return SendMessageA(hWnd, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&data));
}

// Wine's queue takes less than Windows's.
std::string Large()
{
    return std::string((kIsPosix ? kcbMaxCopyData : 60'000) - 1, 'x') + "y";
}

CTestRole const g_sender("send-messages", [](std::string const &strTitle) {
    HWND const hWnd = FindWindowA(nullptr, strTitle.c_str());
    bool const fRight = hWnd != nullptr && Send(hWnd, "") == 0 &&
                        Send(hWnd, "a line", 1000) == 1006 &&
                        Send(hWnd, Large()) == static_cast<LRESULT>(Large().size());
    return fRight ? 0 : 1;
});

// A viewer whose callback tells that it was reached, by a file, and never returns.
CTestRole const g_stuck("stuck-viewer", [](std::string const &strFile) {
    static std::string s_strFile;
    s_strFile = strFile;
    auto const onCopyData = [](void *, COPYDATASTRUCT const *) -> LRESULT {
        Fill(s_strFile + ".reached", "");
        Sleep(INFINITE);
        return 1;
    };
    HWND const hWnd = PlatCreateViewerWindow(strFile.c_str(), onCopyData, nullptr);
    Fill(strFile + (hWnd != nullptr ? ".ready" : ".refused"), "");
    PlatRunViewerWindow(hWnd);
    return 0;
});

} // namespace

TEST(WindowTest, MessagesOfEverySizePassBetweenProcesses)
{
    std::string const strTitle = UniqueName("Window");
    CTestViewer viewer(strTitle);
    EXPECT_EQ(CRoleProcess("send-messages", strTitle).ExitCode(), 0u);
    EXPECT_EQ(viewer.Messages(), (std::vector<std::string>{"", "a line", Large()}));
}

TEST(WindowTest, ManySendersAtOnceLoseNothing)
{
    constexpr int kcSenders = 6;
    constexpr int kcMessages = 200;
    CTestViewer viewer(UniqueName("Window"));
    std::vector<std::thread> senders;
    for (int i = 0; i < kcSenders; ++i) {
        senders.emplace_back([&viewer, i] {
            for (int n = 0; n < kcMessages; ++n) {
                EXPECT_NE(Send(viewer.m_hWnd, std::to_string(i) + ":" + std::to_string(n)), 0);
            }
        });
    }
    for (std::thread &sender : senders) {
        sender.join();
    }
    // Whole, once, and each sender's in its order.
    std::vector<int> anNext(kcSenders);
    for (std::string const &str : viewer.Messages()) {
        int const i = str[0] - '0';
        EXPECT_EQ(str, std::to_string(i) + ":" + std::to_string(anNext.at(i)++));
    }
    EXPECT_EQ(anNext, std::vector<int>(kcSenders, kcMessages));
}

TEST(WindowTest, TitlesAreWholeAndGoWithTheirWindow)
{
    std::string const strTitle = UniqueName("Window");
    HWND hGone;
    {
        CTestViewer const viewer(strTitle);
        hGone = viewer.m_hWnd;
        EXPECT_EQ(FindWindowA(nullptr, ReplaceAll(strTitle, "Win", "wIN").c_str()), hGone);
        EXPECT_EQ(FindWindowA(nullptr, (strTitle + " ").c_str()), nullptr);
        EXPECT_EQ(FindWindowA(nullptr, strTitle.substr(1).c_str()), nullptr);
    }
    EXPECT_EQ(FindWindowA(nullptr, strTitle.c_str()), nullptr);
    EXPECT_FAILS(Send(hGone, "x"), ERROR_INVALID_WINDOW_HANDLE);
    if (kIsPosix) {
        EXPECT_FAILS(Send(hGone, Large() + "x"), ERROR_INVALID_PARAMETER);
    }
}

TEST(WindowTest, MayBeClosedBeforeItRuns)
{
    auto const onCopyData = [](void *, COPYDATASTRUCT const *) -> LRESULT { return 1; };
    HWND const hWnd = PlatCreateViewerWindow(UniqueName("Window").c_str(), onCopyData, nullptr);
    EXPECT_EQ(Send(hWnd, "x"), 1); // straight, to a window of the own thread
    PlatCloseViewerWindow(hWnd);
    EXPECT_TRUE(PlatRunViewerWindow(hWnd));
    PlatDestroyViewerWindow(hWnd);
}

TEST(WindowTest, AViewerThatDiesReleasesItsSendersAndItsTitle)
{
    CTempDir const dir;
    std::string const strTitle = dir.File("viewer");
    CRoleProcess stuck("stuck-viewer", strTitle);
    ASSERT_TRUE(WaitForFile(strTitle + ".ready"));
    HWND const hDead = FindWindowA(nullptr, strTitle.c_str());
    ASSERT_NE(hDead, nullptr);
    std::thread sender([&] {
        EXPECT_EQ(Send(hDead, "x"), 0);
        if (kIsPosix) {
            EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_WINDOW_HANDLE});
        }
    });
    EXPECT_TRUE(WaitForFile(strTitle + ".reached"));
    // The title is taken as long as the process lives, stuck or not.
    CRoleProcess const second("stuck-viewer", strTitle);
    EXPECT_TRUE(WaitForFile(strTitle + ".refused"));
    stuck.Kill();
    sender.join();
    EXPECT_EQ(FindWindowA(nullptr, strTitle.c_str()), nullptr);
    CTestViewer viewer(strTitle); // in the place of what the killed one left
    EXPECT_EQ(Send(FindWindowA(nullptr, strTitle.c_str()), "abc"), 3);
    EXPECT_EQ(Send(hDead, "x"), 0);
    EXPECT_EQ(viewer.Messages(), std::vector<std::string>{"abc"});
}

TEST(WindowTest, GarbageAtTheSocketDisturbsNobody)
{
    if (!kIsPosix || RunCommand("python3 -c \"\"") != 0) {
        GTEST_SKIP() << "needs a local socket and python3 to write to it";
    }
    std::string const strTitle = UniqueName("window");
    CTestViewer viewer(strTitle);
    // Peers that talk nonsense are closed; those that stop half-way wait, and hold up nobody.
    DWORD const dwExit = RunCommand(R"(python3 -c '
import os, socket, struct
n = 0xCBF29CE484222325
for b in os.environ["TITLE"].encode():
    n = ((n ^ b) * 0x100000001B3) % 2**64
def talk(data):
    s = socket.socket(socket.AF_UNIX)
    s.connect("/dev/shm/qoma-%d/window-%016x.sock" % (os.geteuid(), n))
    s.sendall(data)
    s.settimeout(30)
    return s
good = 0x314D5751
halves = [talk(b""), talk(b"QW"), talk(struct.pack("<IIQ", good, 5, 0) + b"ab")]
for bad in [b"GET / HTTP/1.0\r\n\r\n", struct.pack("<IIQ", good, 4 * 1024 * 1024 + 1, 0), b"\xff" * 70000]:
    try:
        assert talk(bad).recv(8) == b""
    except ConnectionError:
        pass
s = talk(struct.pack("<IIQ", good, 3, 100) + b"abc")
assert struct.unpack("<q", s.recv(8))[0] == 103
halves[2].sendall(b"cde")
assert struct.unpack("<q", halves[2].recv(8))[0] == 5
')",
                                    {{"TITLE", strTitle.c_str()}});
    EXPECT_EQ(dwExit, 0u);
    EXPECT_EQ(viewer.Messages(), (std::vector<std::string>{"abc", "abcde"}));
}
