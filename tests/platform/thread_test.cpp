#include "platform/thread.h"

#include "platform/probe.h"
#include "tests/platform/role.h"

#include <atomic>

namespace {

// What a thread that was not waited for leaves in the counts may take a moment to go.
bool ComesDownTo(DWORD (*pfnCount)(), DWORD cWanted)
{
    return WaitFor([&] { return pfnCount() <= cWanted; });
}

unsigned __stdcall SetGivenEvent(void *pvEvent)
{
    return SetEvent(pvEvent) ? 7 : 8;
}

struct CSetAtEnd {
    explicit CSetAtEnd(std::atomic<int> *pn) : m_pn(pn) {}
    ~CSetAtEnd() { *m_pn = 1; }
    std::atomic<int> *m_pn;
};

unsigned __stdcall EndBelowNoexcept(void *pvEnds) noexcept
{
    auto *aEnds = static_cast<std::atomic<int> *>(pvEnds);
    CSetAtEnd const ofStack(&aEnds[1]);
    if (kIsPosix) { // mingw's runtime frees such an object before it destroys it
        thread_local CSetAtEnd s_ofThread(nullptr);
        s_ofThread.m_pn = &aEnds[0];
    }
    _endthreadex(0x80000001u);
    return 0;
}

} // namespace

TEST(Thread, SuspendedRunsAtTheResume)
{
    CTestHandle const hRan(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    CTestHandle const hThread(StartThread(&SetGivenEvent, hRan, CREATE_SUSPENDED));
    EXPECT_EQ(WaitForSingleObject(hRan, 20), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(ResumeThread(hThread), 1u);
    EXPECT_EQ(ExitCodeOf(hThread), 7u);
}

TEST(Thread, KeepsItsPriorityAndTheSystemHearsOfIt)
{
    CTestHandle const hEvent(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    unsigned idThread = 0;
    CTestHandle const hThread(StartThread(&SetGivenEvent, hEvent, CREATE_SUSPENDED, &idThread));
    for (int const nPriority : {THREAD_PRIORITY_TIME_CRITICAL, THREAD_PRIORITY_HIGHEST,
                                THREAD_PRIORITY_LOWEST, THREAD_PRIORITY_IDLE}) {
        EXPECT_TRUE(SetThreadPriority(hThread, nPriority));
        EXPECT_EQ(GetThreadPriority(hThread), nPriority);
    }
    if (kIsPosix) {
        EXPECT_FAILS(SetThreadPriority(hThread, THREAD_PRIORITY_HIGHEST + 1),
                     ERROR_INVALID_PARAMETER);
        EXPECT_FAILS(SetThreadPriority(hThread, THREAD_PRIORITY_LOWEST - 1),
                     ERROR_INVALID_PARAMETER);
        std::string const strStat = "/proc/$PPID/task/" + std::to_string(idThread) + "/stat";
        EXPECT_EQ(RunCommand("[ $(cut -d ' ' -f 19 " + strStat + ") = 19 ]"), 0u);
    }
    EXPECT_EQ(ResumeThread(hThread), 1u);
    ExitCodeOf(hThread);
}

TEST(Thread, EndThreadGivesTheCodeAndUnwindsNothing)
{
    std::atomic<int> aEnds[2]{};
    CTestHandle const hThread(StartThread(&EndBelowNoexcept, aEnds));
    EXPECT_EQ(ExitCodeOf(hThread), 0x80000001u);
    EXPECT_EQ(aEnds[1], 0);
    EXPECT_EQ(aEnds[0], kIsPosix ? 1 : 0); // a waiter is told after all that a thread does
}

TEST(Thread, HundredsOfThemLeaveNothing)
{
    CTestHandle const hEvent(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    ExitCodeOf(CTestHandle(StartThread(&SetGivenEvent, hEvent)));
    DWORD const cHandles = PlatHandleCount();
    DWORD const cThreads = PlatThreadCount();
    for (int n = 0; n < 300; ++n) {
        ResetEvent(hEvent);
        CTestHandle hThread(StartThread(&SetGivenEvent, hEvent));
        EXPECT_TRUE(n % 3 != 0 || ExitCodeOf(hThread) == 7);
        if (n % 3 == 1) {
            hThread.Close(); // while it runs, mostly
        }
        EXPECT_EQ(WaitForSingleObject(hEvent, kdwLimit), DWORD{WAIT_OBJECT_0});
        if (kIsPosix && n % 3 == 2) { // Windows keeps such a thread for ever
            CTestHandle(StartThread(&SetGivenEvent, hEvent, CREATE_SUSPENDED)).Close();
        }
    }
    EXPECT_TRUE(ComesDownTo(&PlatThreadCount, cThreads));
    EXPECT_TRUE(ComesDownTo(&PlatHandleCount, cHandles));
}
