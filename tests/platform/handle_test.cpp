#include "platform/probe.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "tests/platform/role.h"

#include <atomic>
#include <cstdint>
#include <set>

namespace {

HANDLE MakeEvent()
{
    return CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

} // namespace

TEST(Handle, ValuesFitTheNarrowestPointerAndStayStale)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "Windows gives the value of a closed handle to the next one";
    }
    CTestHandle const hFirst(MakeEvent()); // the table is not empty
    std::set<HANDLE> setClosed;
    for (int n = 0; n < 5000; ++n) {
        HANDLE const hEvent = MakeEvent();
        auto const nValue = reinterpret_cast<std::uintptr_t>(hEvent);
        ASSERT_EQ(nValue % 4, 0u);
        ASSERT_LT(nValue, 0x80000000u);
        ASSERT_TRUE(setClosed.insert(hEvent).second) << n;
        ASSERT_TRUE(CloseHandle(hEvent));
    }
    for (HANDLE hClosed : setClosed) {
        ASSERT_FALSE(SetEvent(hClosed));
    }
}

TEST(Handle, TheTwoLowBitsOfAValueAreTheCallersToUse)
{
    CTestHandle const hEvent(MakeEvent());
    EXPECT_TRUE(SetEvent(static_cast<char *>(HANDLE(hEvent)) + 3));
    EXPECT_EQ(WaitForSingleObject(hEvent, 0), DWORD{WAIT_OBJECT_0});
}

TEST(Handle, UseWhileTheyAreClosedAndMadeAnewTouchesNoOther)
{
    constexpr int kcRounds = 20000;
    DWORD const cBefore = PlatHandleCount();
    {
        // One thread makes and closes events, two others use whatever they find, often too late. The
        // bystander is never found by them, so nothing may ever happen to it.
        CTestHandle const hBystander(MakeEvent());
        std::atomic<HANDLE> ahShared[4]{};
        std::atomic<bool> fStop{false};
        auto const use = [&](int nFirst) {
            for (int n = nFirst; !fStop; ++n) {
                HANDLE const hEvent = ahShared[n % 4];
                SetEvent(hEvent);
                WaitForSingleObject(hEvent, 0);
                ReleaseMutex(hEvent);
                ResetEvent(hEvent);
            }
        };
        std::thread first(use, 0), second(use, 2);
        for (int n = 0; n < kcRounds; ++n) {
            HANDLE const hNew = n % 3 == 0 ? CreateMutexA(nullptr, FALSE, nullptr) : MakeEvent();
            HANDLE const hOld = ahShared[n % 4].exchange(hNew);
            EXPECT_TRUE(!hOld || CloseHandle(hOld));
            if (kIsPosix) { // the value of this one was never shared, nor was that of any before it
                CTestHandle const hPrivate(MakeEvent());
                ASSERT_EQ(WaitForSingleObject(hPrivate, 0), DWORD{WAIT_TIMEOUT});
            }
        }
        fStop = true;
        first.join();
        second.join();
        for (auto &hShared : ahShared) {
            EXPECT_TRUE(CloseHandle(hShared));
        }
        EXPECT_EQ(WaitForSingleObject(hBystander, 0), DWORD{WAIT_TIMEOUT});
    }
    EXPECT_TRUE(!kIsPosix || PlatHandleCount() == cBefore); // Windows counts its runtime's own, too
}
