#include "tests/agent/agent_fixture.h"

namespace {

TEST_F(AgentTest, ADrainTurnsEachTrapIntoItsNotification)
{
    Connect(0);
    EXPECT_EQ(m_agent.ReadTraps(), 0u);
    DWORD dwInstance = 0;
    ASSERT_EQ(m_agent.Add(&dwInstance, eNF_SELECT, "x"), 0u);
    std::string const strWhole = "NETADDR=LINK0;" + std::string(335, 'y');
    m_script.Push(0, "x");
    m_script.Push(1, strWhole + "cut");
    m_script.Push(1, "x;NETADDR=LINK01;"); // another client's
    m_script.Push(1, "x;NETADDR=LINK0;SWINST=1;");
    m_script.Push(3, "\x10");
    m_script.Push(3, "\xEF");
    m_script.Push(9, "\1");
    m_script.Push(7, "\5");
    m_script.Push(7, "\6");
    EXPECT_EQ(m_agent.ReadTraps(), 50u);
    EXPECT_EQ(m_client.Wait(5),
              (Lines{"0 7 0 0 [" + strWhole + "] []", "0 7 0 0 [x;NETADDR=LINK0;SWINST=1;] []",
                     "1 8 1 0 [] []", "1 8 0 0 [] []", "4 0 0 0 [] []"}));
    m_script.Push(5, "\1");
    m_script.Fail("ReadTrap", 5);
    EXPECT_EQ(m_agent.ReadTraps(), 5u);
}

TEST_F(AgentTest, AButtonPressIsClaimedResetAndFreedBeforeTheClientHears)
{
    std::string const strClaim = "Set 1.1.1.25/5 406a1e7dc3529e4ba1f63e90c4d27b15";
    std::string const strFree = "Set 1.1.1.25/5 " + std::string(32, '0');
    std::string const strOff = "Set 1.2.2.2.7/1 01000000";
    Connect(0);
    m_script.Push(4, "\1"); // not pressed
    m_script.Push(4, "\2");
    m_script.Fail("Set 1.1.1.25", 170);
    m_script.Raise(0);
    EXPECT_EQ(m_script.Take(), (Lines{strClaim, strOff}));
    m_client.m_fnOnNotify = [&] { EXPECT_EQ(m_script.Take(), (Lines{strClaim, strOff, strFree})); };
    m_script.Fail(strOff, 5);
    m_script.Fail(strFree, 5);
    m_script.Push(4, "\2");
    m_script.Raise(0);
    EXPECT_EQ(m_client.Wait(1), Lines{"2 16 0 2 [] []"});
}

// Drains on two threads, entries that are replaced meanwhile, and a Shutdown in the middle of it.
TEST_F(AgentTest, DrainsRunBesideOperationsAndShutdown)
{
    for (int nRound = 0; nRound < 20; ++nRound) {
        Connect(0);
        std::atomic<bool> bStop{false};
        auto const Drain = [&](auto fnDrain) {
            while (!bStop) {
                m_script.Push(4, "\2");
                m_script.Push(1, "x;NETADDR=LINK0;");
                fnDrain();
            }
        };
        std::thread library([&] { Drain([&] { m_script.Raise(0); }); });
        std::thread client([&] { Drain([&] { m_agent.ReadTraps(); }); });
        DWORD dwInstance = 0;
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(m_agent.Add(&dwInstance, eNF_SELECT, "x"), 0u);
        }
        EXPECT_EQ(m_agent.Shutdown(), 0u);
        bStop = true;
        library.join();
        client.join();
    }
    EXPECT_FALSE(m_client.Wait(1).empty());
}

} // namespace
