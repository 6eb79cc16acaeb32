#include "tests/agent/agent_fixture.h"

namespace {

TEST_F(AgentTest, AButtonPressIsClaimedResetAndFreedBeforeTheClientHears)
{
    std::string const strClaim = "Set 1.1.1.25/5 406a1e7dc3529e4ba1f63e90c4d27b15";
    std::string const strFree = "Set 1.1.1.25/5 " + std::string(32, '0');
    std::string const strOff = "Set 1.2.2.2.7/1 01000000";
    Connect(0);
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
    m_agent.Shutdown(); // the callback has returned
}

} // namespace
