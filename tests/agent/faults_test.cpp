#include "tests/agent/agent_fixture.h"

#include "platform/probe.h"
#include "tests/support/alloc_fault.h"

namespace {

class FaultTest : public ::testing::Test {
protected:
    static DWORD OnNotify(CallbackType, CallbackDataType *)
    {
        ++s_cHeard;
        return 0;
    }
    static inline std::atomic<int> s_cHeard{0};
    CDolScript m_script;
};

// Whichever allocation fails, on whatever thread: a code or a lost notification, and nothing is left.
TEST_F(FaultTest, EachAllocationMayFail)
{
    CTempDir const dir;
    std::string const strTarget = dir.File("target");
    std::fclose(std::fopen(strTarget.c_str(), "w"));
    CCountersGuard const counters;
    DWORD const cHandles = PlatHandleCount();
    DWORD const cThreads = PlatThreadCount();
    for (int bNetwork : {0, 1}) {
        bool bWhole = false;
        std::size_t const cFaults = FailEachAllocation(
            [&] {
                s_cHeard = 0;
                bWhole = true;
                auto const Check = [&](DWORD dwResult) {
                    EXPECT_TRUE(dwResult == 0 || dwResult == 8 || dwResult == 110) << dwResult;
                    bWhole = bWhole && dwResult == 0;
                };
                CNotifyAgent agent(OnNotify, 0);
                DWORD dw = 0;
                DWORD const dwInit = agent.Init("a", 1, bNetwork);
                Check(dwInit);
                if (dwInit == 0) {
                    Check(agent.Add(&dw, eNF_SELECT | eNF_FAX_UPLOAD, "x"));
                    Check(agent.Modify(&dw, "x", "y"));
                    try {
                        m_script.Push(7, "\6");
                    } catch (std::bad_alloc const &) {
                    }
                    DWORD const cMemory = g_cMemory;
                    m_script.Raise(0);
                    // Where the worker could not be started the wait is in vain.
                    WaitFor([&] { return g_cMemory <= cMemory; }, std::chrono::seconds(1));
                    Check(agent.InitiateSrvQDiscovery(&dw, strTarget.c_str()));
                    m_script.Raise(1);
                    agent.Shutdown();
                }
                m_script.Take();
            },
            CAllocFault::eAllThreads);
        EXPECT_GT(cFaults, 20u);
        EXPECT_TRUE(bWhole);
        EXPECT_GE(s_cHeard, 1);
    }
    EXPECT_TRUE(WaitFor([&] { return PlatHandleCount() <= cHandles; }));
    EXPECT_TRUE(WaitFor([&] { return PlatThreadCount() == cThreads; }));
}

// Traps, restarts, datagrams and two clients' threads, while the link comes and goes.
TEST_F(FaultTest, ManyLivesWithEventsInFlightLeaveNothing)
{
    CCountersGuard const counters;
    DWORD const cHandles = PlatHandleCount();
    DWORD const cThreads = PlatThreadCount();
    DWORD const cSockets = PlatLiveSockets();
    {
        CNotifyAgent agent(OnNotify, 0);
        std::atomic<bool> bStop{false};
        auto const Repeat = [&](auto fnWork) {
            return std::thread([&, fnWork] {
                while (!bStop) {
                    fnWork();
                }
            });
        };
        std::thread aThreads[] = {
            Repeat([&] {
                m_script.Push(7, "\6");
                m_script.Raise(0);
            }),
            Repeat([&] {
                m_script.Raise(1);
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }),
            Repeat([&] {
                DWORD dw = 0;
                agent.Add(&dw, eNF_SELECT | eNF_FAX_UPLOAD, "x");
                agent.Delete(dw, eNF_SELECT, "x");
                m_script.Take();
            }),
            Repeat([&] { agent.ReadTraps(); }),
        };
        for (int i = 0; i < 200; ++i) {
            DWORD const dwInit = agent.Init("a", 1, i % 2);
            EXPECT_TRUE(dwInit == 0 || dwInit == 1247) << dwInit;
            DWORD const dwShutdown = agent.Shutdown();
            EXPECT_TRUE(dwShutdown == 0 || dwShutdown == 2250) << dwShutdown;
        }
        bStop = true;
        for (std::thread &thread : aThreads) {
            thread.join();
        }
        agent.Shutdown();
        EXPECT_GT(s_cHeard, 0);
    }
    EXPECT_TRUE(WaitFor([&] { return PlatHandleCount() <= cHandles; }));
    EXPECT_EQ(PlatLiveSockets(), cSockets);
    EXPECT_TRUE(WaitFor([&] { return PlatThreadCount() == cThreads; }));
}

} // namespace
