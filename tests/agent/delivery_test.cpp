#include "tests/agent/agent_fixture.h"

namespace {

class DeliveryTest : public AgentTest {
protected:
    void Post(DWORD dwKind, int nValue, std::string const &strText = "")
    {
        CCallbackQThread *const pThread = m_probe.pCallbackQThread;
        pThread->PostCallback(dwKind, &m_agent, nValue, 0, strText.c_str(), strText.c_str(),
                              strText.c_str());
    }
};

TEST_F(DeliveryTest, MessagesAreCountedAndDeliveredInOrderOneAtATime)
{
    std::latch inside{1};
    std::latch go{1};
    m_client.m_fnOnNotify = [&] { // the first call holds up the others
        if (!inside.try_wait()) {
            inside.count_down();
            go.wait();
        }
    };
    Connect(0);
    Post(4, 0);
    inside.wait();
    DWORD const cMemory = g_cMemory;
    DWORD const cbMemory = g_cbMemory;
    DWORD const cObjects = g_cObjects;
    Post(99, 0);
    EXPECT_EQ(g_cMemory - cMemory, 2u) << "message, and the node's name";
    EXPECT_EQ(g_cbMemory - cbMemory, sizeof(CallbackMsgType) + 1);
    Post(5, 0);
    Post(1, 1);
    Post(1, -1);
    Post(0, 0, std::string(400, 'x'));
    Post(3, 0);
    EXPECT_EQ(g_cObjects - cObjects, 6u);
    go.count_down();
    EXPECT_EQ(m_client.Wait(5),
              (Lines{"4 0 0 0 [] []", "1 8 1 0 [] []", "1 8 4294967295 0 [] []",
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
    CNotifyAgent silent(nullptr, 0);
    ASSERT_EQ(silent.Init("a", 1, 0), 0u);
    m_script.Push(7, "\6");
    EXPECT_EQ(silent.ReadTraps(), 0u);
    EXPECT_TRUE(WaitFor([&] { return g_cMemory < cMemory + 20; }));
    EXPECT_EQ(silent.Shutdown(), 0u);
    EXPECT_EQ(m_client.Wait(0), Lines{});
}

} // namespace
