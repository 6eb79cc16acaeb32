#include "tests/agent/agent_fixture.h"
#include "tests/support/site_recorder.inc"

namespace {

class DeliveryTest : public AgentTest {
protected:
    void Post(DWORD dwKind, int nValue, std::string const &str = "")
    {
        CCallbackQThread *const pThread = m_probe.pCallbackQThread;
        pThread->PostCallback(dwKind, &m_agent, nValue, 0, str.c_str(), str.c_str(), str.c_str());
    }
};

TEST_F(DeliveryTest, MessagesAreCountedAndDeliveredInOrderOneAtATime)
{
    std::latch inside{2};
    m_client.m_fnOnNotify = [&] { // the first call holds up the others
        if (!inside.try_wait()) {
            inside.arrive_and_wait();
        }
    };
    Connect(0);
    Post(4, 0);
    EXPECT_EQ(m_client.Wait(1), Lines{"4 0 0 0 [] []"});
    DWORD const cMemory = g_cMemory, cbMemory = g_cbMemory, cObjects = g_cObjects;
    Post(99, 0);
    EXPECT_EQ(g_cMemory - cMemory, 2u) << "message, and the node's name";
    EXPECT_EQ(g_cbMemory - cbMemory, sizeof(CallbackMsgType) + 1);
    Post(1, 1);
    Post(1, -1);
    Post(0, 0, std::string(400, 'x'));
    Post(3, 0);
    inside.count_down();
    EXPECT_EQ(m_client.Wait(4),
              (Lines{"1 8 1 0 [] []", "1 8 4294967295 0 [] []",
                     "0 7 0 0 [" + std::string(349, 'x') + "] [" + std::string(15, 'x') + "]",
                     "3 0 0 0 [] []"}));
    EXPECT_TRUE(WaitFor([&] { return g_cObjects == cObjects - 1; }));
}

TEST_F(DeliveryTest, WhatTheQueueDoesNotTakeIsReleased)
{
    Connect(0);
    DWORD const cMemory = g_cMemory;
    m_probe.pCallbackQThread.load()->Stop();
    Post(4, 0);
    EXPECT_EQ(g_cMemory, cMemory);
    CCallbackQThread::PostTo(nullptr, 4, &m_agent, 0, 0, nullptr, nullptr, nullptr);
    CNotifyAgent silent(nullptr, 0); // its messages come and go, and nothing else happens
    ASSERT_EQ(silent.Init("a", 1, 0), 0u);
    m_script.Push(7, "\6");
    EXPECT_EQ(silent.ReadTraps(), 0u);
    EXPECT_EQ(silent.Shutdown(), 0u);
}

TEST_F(DeliveryTest, TheThreadsReportTheirComingAndGoing)
{
    CSiteRecorder recorder;
    Connect(1);
    m_agent.Shutdown();
    std::string strAll;
    for (CSiteReport const &report : recorder.Take()) {
        if (report.fCustom == 0 && report.nLevel == 1 && report.fBase < 4) {
            strAll += std::to_string(report.fBase) + report.strText + "\n";
        }
    }
    EXPECT_EQ(strAll, "1CCallbackQThread: Entry\n2CCallbackQThread: Exit\n"
                      "1CDatagramQThread: Entry\n2CDatagramQThread: Exit\n"
                      "1~CDatagramQThread: Entry\n2~CDatagramQThread: Exit\n"
                      "1~CCallbackQThread: Entry\n2~CCallbackQThread: Exit\n");
}

} // namespace
