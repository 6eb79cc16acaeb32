#include "tests/agent/agent_fixture.h"

#include <array>

namespace {

// Two agents with a callback each, which the test decides.
class TwoAgentsTest : public ::testing::Test {
protected:
    static DWORD OnNotify(CallbackType, CallbackDataType *pData)
    {
        s_afnInside.at(pData->dwClientData)();
        return 0;
    }
    TwoAgentsTest()
    {
        for (CNotifyAgent *const pAgent : {&m_first, &m_second}) {
            EXPECT_EQ(pAgent->Init("a", 1, 0), 0u);
        }
    }
    // Has both called back, each until both are inside; then fnWork of each goes on.
    void EnterBoth(std::function<void()> fnFirst, std::function<void()> fnSecond)
    {
        auto const Enter = [this](std::function<void()> fnWork) {
            return [this, fnWork] {
                ++m_cInside;
                EXPECT_TRUE(WaitFor([&] { return m_cInside >= 2; }));
                fnWork();
                ++m_cDone;
            };
        };
        s_afnInside = {Enter(fnFirst), Enter(fnSecond)};
        for (CNotifyAgent *const pAgent : {&m_first, &m_second}) {
            CCallbackQThread::PostTo(CNotifyAgentProbe{*pAgent}.pCallbackQThread, eCT_ADF_NOTIFY, 0,
                                     0, nullptr, nullptr, nullptr);
        }
        EXPECT_TRUE(WaitFor([&] { return m_cInside == 2; }));
    }

    static inline std::array<std::function<void()>, 2> s_afnInside;
    CCountersGuard m_counters;
    CDolScript m_script;
    std::atomic<int> m_cInside{0}, m_cDone{0};
    CNotifyAgent m_first{OnNotify, 0}, m_second{OnNotify, 1};
};

TEST_F(TwoAgentsTest, CallbacksThatCallEachOthersOperationsEndWithTheirAgents)
{
    CNotifyAgent copy(m_first);
    auto const AddTo = [&](CNotifyAgent &agent) {
        EXPECT_TRUE(
            WaitFor([&] { return m_script.m_cLive == 0; })); // both wait for their callbacks
        EXPECT_EQ(agent.Add(nullptr, eNF_ADF, nullptr), 2250u);
    };
    EnterBoth([&] { AddTo(copy), AddTo(m_second); }, [&] { AddTo(m_first); });
    std::thread other([&] { EXPECT_EQ(m_second.Shutdown(), 0u); });
    EXPECT_EQ(m_first.Shutdown(), 0u);
    other.join();
}

TEST_F(TwoAgentsTest, OfTwoCallbacksThatEndEachOthersAgentsOneIsRefused)
{
    DWORD dwFirst = 99;
    DWORD dwSecond = 99;
    EnterBoth([&] { dwFirst = m_second.Shutdown(); }, [&] { dwSecond = m_first.Shutdown(); });
    EXPECT_TRUE(WaitFor([&] { return m_cDone == 2; }));
    EXPECT_EQ(dwFirst + dwSecond, 50u);
    EXPECT_EQ(m_first.Shutdown() + m_second.Shutdown(), 2250u)
        << "the other one is still connected";
}

// A client that adds and deletes in a loop, with a library that takes its time.
TEST_F(AgentTest, WhoWaitsForTheMutexHasItsTurnBeforeThoseWhoComeLater)
{
    Connect(0);
    std::atomic<int> cSlowCalls{0};
    m_script.m_fnOnCall = [&](std::string const &strLine) {
        if (strLine.find("Trap 1.3.7.2.1") != strLine.npos) {
            ++cSlowCalls;
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
    };
    std::atomic<bool> bStop{false};
    std::thread busy([&] {
        while (!bStop) {
            m_agent.Add(nullptr, eNF_FAX_UPLOAD, nullptr);
            m_agent.Delete(0, eNF_FAX_UPLOAD, nullptr);
        }
    });
    auto const ExpectSoon = [&](char const *pszWho, auto fnWait) {
        EXPECT_TRUE(WaitFor([&] { return cSlowCalls > 0; }));
        cSlowCalls = 0;
        fnWait();
        EXPECT_LE(cSlowCalls, 5) << pszWho
                                 << ": the one under way, one before it, and a slow machine's";
    };
    std::atomic<bool> bCalled{false};
    m_client.m_fnOnNotify = [&] {
        if (bCalled) { // by the restart
            return;
        }
        ExpectSoon("in a callback", [&] { EXPECT_EQ(m_agent.Add(nullptr, eNF_ADF, nullptr), 0u); });
        bCalled = true;
    };
    m_script.Push(7, "\6");
    m_script.Raise(0);
    EXPECT_TRUE(WaitFor([&] { return bCalled.load(); }));
    ExpectSoon("a restart", [&] { m_script.Raise(1); });
    bStop = true;
    busy.join();
}

} // namespace
