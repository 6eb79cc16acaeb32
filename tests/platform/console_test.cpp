#include "platform/console.h"

#include "platform/probe.h"
#include "tests/platform/role.h"

#include <atomic>
#include <csignal>

namespace {

std::atomic<int> g_cCalls{0};
std::atomic<DWORD> g_dwEvent{99};
std::atomic<DWORD> g_idThread{0};
HANDLE g_hHandled = nullptr;

BOOL WINAPI Take(DWORD dwEvent)
{
    ++g_cCalls;
    g_dwEvent = dwEvent;
    g_idThread = GetCurrentThreadId();
    return SetEvent(g_hHandled);
}

BOOL WINAPI TakeNothing(DWORD)
{
    return FALSE;
}

void RaiseAndAwait(int nSignal)
{
    std::raise(nSignal);
    EXPECT_EQ(WaitForSingleObject(g_hHandled, kdwLimit), DWORD{WAIT_OBJECT_0});
}

} // namespace

TEST(ConsoleTest, AHandlerIsAskedOnAThreadOfTheLayerThatGoesWithIt)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "what reaches a console cannot be made there without one";
    }
    CTestHandle const hHandled(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    g_hHandled = hHandled;
    // Once for nothing, since a sanitizer has a thread of its own from the first new thread on.
    ASSERT_TRUE(SetConsoleCtrlHandler(&Take, TRUE));
    ASSERT_TRUE(SetConsoleCtrlHandler(&Take, FALSE));
    DWORD const cThreads = PlatThreadCount();
    ASSERT_TRUE(SetConsoleCtrlHandler(&Take, TRUE));
    ASSERT_TRUE(SetConsoleCtrlHandler(&TakeNothing, TRUE)); // asked first
    RaiseAndAwait(SIGINT);
    EXPECT_EQ(g_dwEvent, DWORD{CTRL_C_EVENT});
    EXPECT_NE(g_idThread, GetCurrentThreadId());
    EXPECT_TRUE(SetConsoleCtrlHandler(nullptr, TRUE));
    std::raise(SIGINT); // ignored
    RaiseAndAwait(SIGTERM);
    EXPECT_EQ(g_dwEvent, DWORD{CTRL_CLOSE_EVENT});
    EXPECT_EQ(g_cCalls, 2);
    EXPECT_TRUE(SetConsoleCtrlHandler(nullptr, FALSE));
    EXPECT_TRUE(SetConsoleCtrlHandler(&TakeNothing, FALSE));
    EXPECT_TRUE(SetConsoleCtrlHandler(&Take, FALSE));
    EXPECT_EQ(PlatThreadCount(), cThreads);
}
