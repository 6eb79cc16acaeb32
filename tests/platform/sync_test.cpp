#include "platform/sync.h"

#include "tests/platform/role.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <list>

namespace {

constexpr DWORD kdwTaken = WAIT_OBJECT_0;
constexpr DWORD kdwTimeout = WAIT_TIMEOUT;
constexpr DWORD kdwAbandoned = WAIT_ABANDONED;

DWORD WaitElsewhere(HANDLE hObject, DWORD dwMilliseconds = 0)
{
    return OnOtherThread([=] {
        DWORD const dwResult = WaitForSingleObject(hObject, dwMilliseconds);
        ReleaseMutex(hObject); // of an event: fails, and does no harm
        return dwResult;
    });
}

// Returns when a thread that has nothing to do but wait is in its wait: as the kernel shows on Linux,
// and elsewhere after a time in which any thread gets there.
void AwaitSleep(unsigned idThread)
{
    std::string strLine;
    do {
        std::this_thread::sleep_for(std::chrono::milliseconds(kIsPosix ? 1 : 200));
        std::ifstream file("/proc/self/task/" + std::to_string(idThread) + "/stat");
        std::getline(file, strLine);
    } while (kIsPosix && strLine.substr(strLine.rfind(')') + 1, 2) != " S");
}

unsigned __stdcall WaitForGiven(void *pvObject)
{
    return WaitForSingleObject(pvObject, kdwLimit);
}

// What holds for mutexes holds for those with a name too.
class MutexTest : public testing::TestWithParam<bool> {
protected:
    static HANDLE Make(BOOL fOwner)
    {
        return CreateMutexA(nullptr, fOwner, GetParam() ? UniqueName("mutex").c_str() : nullptr);
    }
};

INSTANTIATE_TEST_SUITE_P(, MutexTest, testing::Bool(),
                         [](auto const &param) { return param.param ? "named" : "unnamed"; });

} // namespace

TEST_P(MutexTest, RecursiveForItsOwnerAndOfNoUseToOthers)
{
    CTestHandle const hMutex(Make(TRUE));
    EXPECT_EQ(WaitForSingleObject(hMutex, 0), kdwTaken);
    EXPECT_EQ(WaitForSingleObject(hMutex, INFINITE), kdwTaken);
    for (int nHold = 0; nHold < 3; ++nHold) {
        EXPECT_EQ(WaitElsewhere(hMutex), kdwTimeout) << nHold;
        EXPECT_EQ(OnOtherThread([&] { return ReleaseMutex(hMutex) ? NO_ERROR : GetLastError(); }),
                  DWORD{ERROR_NOT_OWNER});
        EXPECT_TRUE(ReleaseMutex(hMutex));
    }
    EXPECT_FAILS(ReleaseMutex(hMutex), ERROR_NOT_OWNER);
    EXPECT_EQ(WaitElsewhere(hMutex), kdwTaken);
}

TEST_P(MutexTest, GoesOnAsAbandonedOnceWhenItsOwnerEnds)
{
    CTestHandle const hMutex(Make(FALSE));
    auto const pfnKeep = [](void *pv) -> unsigned {
        WaitForSingleObject(pv, INFINITE);
        WaitForSingleObject(pv, INFINITE);
        _endthreadex(0);
        return 0;
    };
    for (bool fOurThread : {true, false}) {
        if (fOurThread) {
            CTestHandle const hThread(StartThread(pfnKeep, hMutex));
            EXPECT_EQ(WaitForSingleObject(hThread, kdwLimit), kdwTaken);
        } else {
            OnOtherThread([&] { return WaitForSingleObject(hMutex, INFINITE); });
        }
        EXPECT_EQ(WaitForSingleObject(hMutex, kdwLimit), kdwAbandoned) << fOurThread;
        EXPECT_EQ(WaitElsewhere(hMutex), kdwTimeout); // held once more, as any other
        EXPECT_TRUE(ReleaseMutex(hMutex));
        EXPECT_EQ(WaitElsewhere(hMutex), kdwTaken);
    }
}

TEST_P(MutexTest, CountsRightUnderContention)
{
    constexpr int kcThreads = 4;
    constexpr int kcRounds = 5000;
    CTestHandle const hMutex(Make(FALSE));
    int nCount = 0; // no atomic: the mutex alone guards it
    std::vector<std::thread> aThreads;
    for (int nThread = 0; nThread < kcThreads; ++nThread) {
        aThreads.emplace_back([&] {
            for (int nRound = 0; nRound < kcRounds;) {
                // With short time-outs among the waits, which must lose no wake-up of the others.
                if (WaitForSingleObject(hMutex, nRound % 3 == 0 ? 1 : INFINITE) != WAIT_OBJECT_0) {
                    continue;
                }
                ++nCount;
                ++nRound;
                ReleaseMutex(hMutex);
            }
        });
    }
    for (auto &thread : aThreads) {
        thread.join();
    }
    EXPECT_EQ(nCount, kcThreads * kcRounds);
}

TEST_P(MutexTest, OutlivesItsHandleForOwnerAndWaiter)
{
    HANDLE const hMutex = Make(FALSE);
    CTestHandle const hOwned(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    CTestHandle const hEnd(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    std::thread owner([&] {
        WaitForSingleObject(hMutex, INFINITE);
        SetEvent(hOwned);
        WaitForSingleObject(hEnd, INFINITE);
    });
    WaitForSingleObject(hOwned, INFINITE);
    unsigned idWaiter = 0;
    CTestHandle const hWaiter(StartThread(&WaitForGiven, hMutex, 0, &idWaiter));
    AwaitSleep(idWaiter);
    EXPECT_TRUE(CloseHandle(hMutex));
    EXPECT_FAILS(ReleaseMutex(hMutex), ERROR_INVALID_HANDLE);
    std::list<CTestHandle> aOthers; // none of them may be taken for the closed one
    for (int n = 0; n < 300; ++n) {
        aOthers.emplace_back(CreateMutexA(nullptr, FALSE, nullptr));
    }
    SetEvent(hEnd);
    owner.join();
    EXPECT_EQ(ExitCodeOf(hWaiter), kdwAbandoned);
}

TEST(Mutex, AbandonedWithoutAWaiterItLeavesNothingToThoseMadeLater)
{
    CTestHandle hLeft(CreateMutexA(nullptr, FALSE, nullptr));
    EXPECT_EQ(OnOtherThread([&] { return WaitForSingleObject(hLeft, 0); }), kdwTaken);
    hLeft.Close();
    for (int n = 0; n < 5000; ++n) { // one of them in its very place
        CTestHandle const hNew(CreateMutexA(nullptr, FALSE, nullptr));
        ASSERT_EQ(WaitForSingleObject(hNew, 0), kdwTaken) << n;
        ASSERT_TRUE(ReleaseMutex(hNew));
    }
}

TEST(Event, StatesAfterEachCall)
{
    for (int n = 0; n < 8; ++n) {
        SCOPED_TRACE(n);
        BOOL const fManual = n & 1, fSet = n & 2;
        std::string const strName = UniqueName("event");
        CTestHandle const hEvent(
            CreateEventA(nullptr, fManual, fSet, n & 4 ? strName.c_str() : nullptr));
        EXPECT_EQ(WaitForSingleObject(hEvent, 0), fSet ? kdwTaken : kdwTimeout);
        EXPECT_EQ(WaitForSingleObject(hEvent, 0), fSet && fManual ? kdwTaken : kdwTimeout);
        EXPECT_TRUE(SetEvent(hEvent) && SetEvent(hEvent));
        EXPECT_EQ(WaitElsewhere(hEvent), kdwTaken);
        EXPECT_EQ(WaitElsewhere(hEvent), fManual ? kdwTaken : kdwTimeout);
        EXPECT_TRUE(SetEvent(hEvent) && ResetEvent(hEvent));
        EXPECT_EQ(WaitForSingleObject(hEvent, 0), kdwTimeout);
    }
}

TEST(Event, EachCallReleasesOneSleeperOfAnAutoResetOneAndAllOfAManualResetOne)
{
    constexpr unsigned kcWaiters = 4;
    for (BOOL fManual : {FALSE, TRUE}) {
        CTestHandle const hEvent(CreateEventA(nullptr, fManual, FALSE, nullptr));
        std::list<CTestHandle> aThreads;
        for (unsigned n = 0; n < kcWaiters; ++n) {
            unsigned idThread = 0;
            aThreads.emplace_back(StartThread(&WaitForGiven, hEvent, 0, &idThread));
            AwaitSleep(idThread);
        }
        // One right after the other: none may be swallowed because the one before it is not used yet.
        for (unsigned n = 0; n < (fManual ? 1 : kcWaiters); ++n) {
            EXPECT_TRUE(SetEvent(hEvent));
        }
        EXPECT_TRUE(ResetEvent(hEvent));
        for (auto const &hThread : aThreads) {
            EXPECT_EQ(ExitCodeOf(hThread), kdwTaken) << fManual;
        }
    }
}

// Whoever holds the mutex more than once may wait for the sleeper before the last release.
TEST(Event, SetBehindAMutexWakesItsSleeperAtTheLatestWhenThatIsLetGo)
{
    for (int const cHolds : {0, 1, 2}) {
        SCOPED_TRACE(cHolds);
        CTestHandle const hMutex(CreateMutexA(nullptr, FALSE, nullptr));
        CTestHandle const hEvent(CreateEventA(nullptr, TRUE, FALSE, nullptr));
        unsigned idThread = 0;
        CTestHandle const hSleeper(StartThread(&WaitForGiven, hEvent, 0, &idThread));
        AwaitSleep(idThread);
        OnOtherThread([&] { // whose end is a release too
            for (int n = 0; n < cHolds; ++n) {
                WaitForSingleObject(hMutex, INFINITE);
            }
            EXPECT_TRUE(PlatSetEventBehind(hEvent, hMutex) && PlatSetEventBehind(hEvent, hMutex));
            EXPECT_EQ(WaitForSingleObject(hEvent, 0), kdwTaken);
            if (cHolds != 1) {
                EXPECT_EQ(WaitForSingleObject(hSleeper, kdwLimit), kdwTaken);
            } else if (kIsPosix) {
                EXPECT_EQ(WaitForSingleObject(hSleeper, 50), kdwTimeout); // it would long have run
            }
            return 0;
        });
        EXPECT_EQ(ExitCodeOf(hSleeper), kdwTaken);
        EXPECT_FAILS(PlatSetEventBehind(hMutex, hMutex), ERROR_INVALID_HANDLE);
    }
}

TEST(Event, PingPongLosesNoTurn)
{
    constexpr int kcRounds = 3000;
    std::string const strPong = UniqueName("pong");
    CTestHandle const hPing(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    CTestHandle const hPong(CreateEventA(nullptr, FALSE, FALSE, strPong.c_str()));
    int nTurn = 0; // no atomic: the events order the two threads
    std::thread other([&] {
        for (int nRound = 0; nRound < kcRounds; ++nRound) {
            WaitForSingleObject(hPing, kdwLimit);
            ++nTurn;
            SetEvent(hPong);
        }
    });
    for (int nRound = 0; nRound < kcRounds; ++nRound) {
        ++nTurn;
        SetEvent(hPing);
        EXPECT_EQ(WaitForSingleObject(hPong, kdwLimit), kdwTaken);
        EXPECT_EQ(nTurn, 2 * (nRound + 1));
    }
    other.join();
}

TEST(Wait, LastsItsTimeAndNotMuchLonger)
{
    using Clock = std::chrono::steady_clock;
    for (bool const fNamed : {false, true}) {
        std::string const strName = UniqueName("event");
        CTestHandle const hEvent(
            CreateEventA(nullptr, FALSE, FALSE, fNamed ? strName.c_str() : nullptr));
        CTestHandle const hMutex(
            CreateMutexA(nullptr, TRUE, fNamed ? (strName + "m").c_str() : nullptr));
        for (HANDLE hObject : {HANDLE(hMutex), HANDLE(hEvent)}) {
            auto const start = Clock::now();
            EXPECT_EQ(WaitElsewhere(hObject, 40), kdwTimeout);
            // Below: Windows counts in its own ticks, and may be one of them early.
            EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(kIsPosix ? 40 : 20));
            EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
        }
        ReleaseMutex(hMutex);
    }
}

TEST(Named, ManyHandlesAreOneObjectThatGoesWithTheLast)
{
    std::string const strName = UniqueName("object");
    CTestHandle hMutex(CreateMutexA(nullptr, FALSE, strName.c_str()));
    {
        CTestHandle const hAgain(CreateMutexA(nullptr, TRUE, ("Local\\" + strName).c_str()));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
        EXPECT_EQ(WaitElsewhere(hMutex), kdwTaken); // the second creator does not own it
        EXPECT_EQ(WaitForSingleObject(hAgain, 0), kdwTaken);
        EXPECT_EQ(WaitElsewhere(hMutex), kdwTimeout);
        EXPECT_TRUE(ReleaseMutex(hMutex)); // through any of its handles
    }
    EXPECT_FAILS(CreateMutexA(nullptr, FALSE, ("a\\" + strName).c_str()), ERROR_PATH_NOT_FOUND);
    hMutex.Close();
    EXPECT_FAILS(OpenMutexA(MUTEX_ALL_ACCESS, FALSE, strName.c_str()), ERROR_FILE_NOT_FOUND);
}

TEST(Named, AHandleAllowsWhatItWasOpenedFor)
{
    std::string const strName = UniqueName("rights");
    CTestHandle const hAll(CreateEventA(nullptr, TRUE, TRUE, strName.c_str()));
    CTestHandle const hMutex(CreateMutexA(nullptr, FALSE, (strName + "m").c_str()));
    struct {
        DWORD dwAccess;
        bool fWait, fSet;
    } const aCases[] = {{SYNCHRONIZE, true, false},     {EVENT_MODIFY_STATE, false, true},
                        {GENERIC_EXECUTE, true, false}, {GENERIC_WRITE, false, true},
                        {GENERIC_ALL, true, true},      {MAXIMUM_ALLOWED, true, true}};
    for (auto const &c : aCases) {
        CTestHandle const hEvent(OpenEventA(c.dwAccess, FALSE, strName.c_str()));
        CTestHandle const hAgain(OpenMutexA(c.dwAccess, FALSE, (strName + "m").c_str()));
        SetLastError(NO_ERROR);
        EXPECT_EQ(ResetEvent(hEvent), c.fSet) << c.dwAccess;
        EXPECT_EQ(SetEvent(hEvent), c.fSet) << c.dwAccess;
        EXPECT_EQ(GetLastError(), c.fSet ? NO_ERROR : DWORD{ERROR_ACCESS_DENIED}) << c.dwAccess;
        SetLastError(NO_ERROR);
        for (HANDLE const hObject : {HANDLE(hEvent), HANDLE(hAgain)}) {
            EXPECT_EQ(WaitForSingleObject(hObject, 0), c.fWait ? kdwTaken : WAIT_FAILED)
                << c.dwAccess;
        }
        EXPECT_EQ(GetLastError(), c.fWait ? NO_ERROR : DWORD{ERROR_ACCESS_DENIED}) << c.dwAccess;
    }
    if (kIsPosix) { // Windows gives a handle that is good for nothing
        EXPECT_FAILS(OpenEventA(0, FALSE, strName.c_str()), ERROR_ACCESS_DENIED);
    }
}

// Whoever closes it, and although its owner lives on.
TEST(Named, AMutexThatIsOwnedGoesWithItsLastHandleToo)
{
    std::string const strName = UniqueName("owned");
    for (bool const fByOwner : {true, false}) {
        HANDLE const hMutex = CreateMutexA(nullptr, TRUE, strName.c_str());
        EXPECT_EQ(GetLastError(), DWORD{NO_ERROR}) << fByOwner;
        EXPECT_TRUE(fByOwner ? CloseHandle(hMutex)
                             : OnOtherThread([&] { return CloseHandle(hMutex); }));
        EXPECT_FAILS(OpenMutexA(MUTEX_ALL_ACCESS, FALSE, strName.c_str()), ERROR_FILE_NOT_FOUND);
    }
    CTestHandle const hNew(CreateMutexA(nullptr, FALSE, strName.c_str()));
    EXPECT_EQ(WaitElsewhere(hNew), kdwTaken) << "not held by who held the ones before";
}

namespace {

// With no room in memory, and none in /tmp either unless strRoom says "next".
CTestRole const g_crowded("name-without-room", [](std::string const &strRoom) {
    std::string const strName = UniqueName("crowded");
    HANDLE const hEvent = CreateEventA(nullptr, TRUE, TRUE, strName.c_str());
    EXPECT_EQ(GetLastError(), strRoom == "next" ? NO_ERROR : DWORD{ERROR_DISK_FULL});
    if (hEvent != nullptr) {
        CTestHandle const hAgain(OpenEventA(EVENT_ALL_ACCESS, FALSE, strName.c_str()));
        EXPECT_TRUE(ResetEvent(hAgain));
        EXPECT_EQ(WaitForSingleObject(hEvent, 0), kdwTimeout) << "another object";
        EXPECT_TRUE(CloseHandle(hEvent));
    }
    for (std::string const strBase : {"/dev/shm/qoma-0", "/tmp/qoma-0"}) {
        for (auto const &entry : std::filesystem::directory_iterator(strBase)) {
            EXPECT_EQ(entry.path().string().find(".new-"), std::string::npos) << entry;
        }
    }
    return testing::Test::HasFailure() ? 1 : 0;
});

} // namespace

TEST(Named, AFullMemoryIsNoReasonToDie)
{
    // In folders of these processes' own, with one page each, which is taken.
    std::string const strFull =
        " && mount -t tmpfs -o size=4k none $D && mkdir -m 700 $D/qoma-0 && "
        "echo x > $D/taken && \"$PROGRAM\" --role name-without-room ";
    if (!kIsPosix || RunCommand("[ $(id -u) = 0 ] && unshare -m true") != 0) {
        GTEST_SKIP() << "needs the right to mount";
    }
    EXPECT_EQ(RunCommand("PROGRAM='" + OwnProgram() + "' exec unshare -m sh -c '" +
                         "mkdir -p -m 700 /tmp/qoma-0 && D=/dev/shm" + strFull + "next && D=/tmp" +
                         strFull + "none'"),
              0u);
}

TEST(Named, NamesAreToldApart)
{
    // Case, signs that a file name cannot hold, and an end that a file name is too short for.
    std::string const strStem = UniqueName("name");
    std::string const strFill(250 - strStem.size(), '/');
    std::list<CTestHandle> aHandles;
    for (std::string const &strName :
         {strStem + "a", strStem + "A", strStem + "/a", strStem + "%2Fa", strStem + "..",
          "./" + strStem, strStem + strFill + "1", strStem + strFill + "2"}) {
        aHandles.emplace_back(CreateMutexA(nullptr, FALSE, strName.c_str()));
        EXPECT_EQ(GetLastError(), DWORD{NO_ERROR}) << strName;
    }
}

namespace {

// Makes the mutex and owns it, says so, and never lets go.
int HoldMutex(std::string const &strName)
{
    HANDLE const hMutex = CreateMutexA(nullptr, TRUE, (strName + "m").c_str());
    HANDLE const hTaken = OpenEventA(EVENT_MODIFY_STATE, FALSE, (strName + "e").c_str());
    if (hMutex && hTaken && SetEvent(hTaken)) {
        Sleep(INFINITE);
    }
    return 1;
}

CTestRole const g_holdRole("hold-mutex", &HoldMutex);

} // namespace

TEST(Processes, AKilledOwnersMutexIsAbandonedAndThenGoneWithItsLastHandle)
{
    std::string const strName = UniqueName("left");
    CTestHandle const hTaken(CreateEventA(nullptr, FALSE, FALSE, (strName + "e").c_str()));
    for (int nRound = 0; nRound < 3; ++nRound) {
        CRoleProcess holder("hold-mutex", strName);
        ASSERT_EQ(WaitForSingleObject(hTaken, kdwLimit), kdwTaken);
        CTestHandle hMutex(OpenMutexA(MUTEX_ALL_ACCESS, FALSE, (strName + "m").c_str()));
        EXPECT_EQ(WaitForSingleObject(hMutex, 0), kdwTimeout);
        DWORD dwSleeper = WAIT_FAILED;
        std::thread sleeper([&] {
            dwSleeper = WaitForSingleObject(hMutex, kdwLimit);
            ReleaseMutex(hMutex);
        });
        if (nRound == 1) {
            Sleep(20); // once with the waiter asleep, mostly
        }
        holder.Kill();
        sleeper.join();
        EXPECT_EQ(dwSleeper, kdwAbandoned);
        hMutex.Close();
        EXPECT_FAILS(OpenMutexA(MUTEX_ALL_ACCESS, FALSE, (strName + "m").c_str()),
                     ERROR_FILE_NOT_FOUND);
    }
    CRoleProcess lonely("hold-mutex", strName);
    ASSERT_EQ(WaitForSingleObject(hTaken, kdwLimit), kdwTaken);
    lonely.Kill(); // nobody else has the mutex open: it is gone, not abandoned
    CTestHandle const hNew(CreateMutexA(nullptr, FALSE, (strName + "m").c_str()));
    EXPECT_EQ(GetLastError(), DWORD{NO_ERROR});
    EXPECT_EQ(WaitElsewhere(hNew), kdwTaken);
}

TEST(Processes, WhatAKilledOneLeftIsSweptByALaterOne)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "the system does it";
    }
    std::string const strName = UniqueName("swept");
    CTestHandle const hTaken(CreateEventA(nullptr, FALSE, FALSE, (strName + "e").c_str()));
    CRoleProcess left("hold-mutex", strName);
    ASSERT_EQ(WaitForSingleObject(hTaken, kdwLimit), kdwTaken);
    left.Kill();
    EXPECT_EQ(CRoleProcess("hold-mutex", UniqueName("later")).ExitCode(), 1u); // nobody hears it
    std::string const strFile = strName.substr(strName.rfind(' ') + 1) + "m";
    EXPECT_EQ(
        RunCommand("[ -z \"$(find /dev/shm /tmp/qoma-* -name '*" + strFile + "' 2>/dev/null)\" ]"),
        0u);
}
