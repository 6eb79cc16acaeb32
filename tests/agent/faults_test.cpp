#include "platform/probe.h"
#include "tests/agent/agent_fixture.h"
#include "tests/support/alloc_fault.h"

#include <thread>

namespace {

// Nothing is left of what the story used: neither counted block nor handle, thread or socket.
class FaultTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        EXPECT_TRUE(WaitFor([&] {
            return PlatHandleCount() <= m_cHandles && PlatThreadCount() <= m_cThreads;
        })) << PlatHandleCount()
            << " handles, before " << m_cHandles << "; " << PlatThreadCount() << " threads, before "
            << m_cThreads;
        EXPECT_EQ(PlatLiveSockets(), m_cSockets);
    }
    static DWORD ThreadsAtRest()
    {
        std::thread([] {}).join(); // with the first one a sanitizer starts its own
        return PlatThreadCount();
    }
    static DWORD OnNotify(CallbackType, CallbackDataType *) { return ++s_cHeard; }

    static inline std::atomic<DWORD> s_cHeard{0};
    CCountersGuard m_counters;
    DWORD const m_cHandles = PlatHandleCount(), m_cThreads = ThreadsAtRest();
    DWORD const m_cSockets = PlatLiveSockets();
    CDolScript m_script;
};

// Whichever fails, on whatever thread: a code or a lost notification.
TEST_F(FaultTest, EachAllocationMayFail)
{
    CTempDir const dir;
    std::string const strTarget = dir.File("target");
    std::fclose(std::fopen(strTarget.c_str(), "w"));
    for (int const bNetwork : {0, 1}) {
        DWORD dwWorst = 0;
        auto const Check = [&](DWORD dwResult) {
            EXPECT_TRUE(dwResult == 0 || dwResult == 8 || dwResult == 110) << dwResult;
            dwWorst |= dwResult;
        };
        auto const Story = [&] {
            s_cHeard = 0;
            dwWorst = 0;
            CNotifyAgent agent(OnNotify, 0);
            Check(agent.Init("a", 1, bNetwork));
            if (dwWorst != 0) {
                return;
            }
            DWORD dw = 0;
            Check(agent.Add(&dw, eNF_SELECT | eNF_FAX_UPLOAD, "x"));
            Check(agent.Modify(&dw, "x", "y"));
            try {
                m_script.Push(7, "\6");
            } catch (std::bad_alloc const &) {
            }
            DWORD const cMemory = g_cMemory;
            m_script.Raise(0); // in vain where the worker could not be started
            WaitFor([&] { return g_cMemory <= cMemory; }, std::chrono::seconds(1));
            Check(agent.InitiateSrvQDiscovery(&dw, strTarget.c_str()));
            m_script.Raise(1);
            agent.Shutdown();
            m_script.Take();
        };
        EXPECT_GT(FailEachAllocation(Story, CAllocFault::eAllThreads), 20u);
        EXPECT_EQ(dwWorst, 0u) << "the last run had no fault";
        EXPECT_GE(s_cHeard, 1u);
    }
}

TEST_F(FaultTest, ManyLivesWithEventsInFlight)
{
    CNotifyAgent agent(OnNotify, 0);
    std::atomic<bool> bStop{false};
    auto const Repeat = [&](auto fnWork) {
        return std::thread([&bStop, fnWork] {
            while (!bStop) {
                fnWork();
            }
        });
    };
    std::thread aThreads[] = {
        Repeat([&] {
            m_script.Push(1, "NETADDR=LINK0;");
            m_script.Push(4, "\2");
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
        EXPECT_TRUE(dwInit == 0 || dwInit == 1247) << dwInit; // the restart may have come first
        DWORD const dwShutdown = agent.Shutdown();
        EXPECT_TRUE(dwShutdown == 0 || dwShutdown == 2250) << dwShutdown;
    }
    bStop = true;
    for (std::thread &thread : aThreads) {
        thread.join();
    }
    agent.Shutdown();
    EXPECT_GT(s_cHeard, 0u);
}

} // namespace
