#include "tests/agent/agent_fixture.h"

namespace {

TEST_F(AgentTest, ADrainTurnsEachTrapIntoItsNotification)
{
    Connect(0);
    DWORD dw = 0;
    ASSERT_EQ(m_agent.Add(&dw, eNF_SELECT, "x"), 0u);
    std::string const strWhole = "NETADDR=LINK0;" + std::string(335, 'y');
    struct {
        int nTrapId;
        std::string strValue, strLine;
    } const aCases[] = {{1, strWhole + "cut", "0 7 0 0 [" + strWhole + "] []"},
                        {1, "x;NETADDR=LINK01;", ""}, // another client's
                        {3, "\x10", "1 8 1 0 [] []"},
                        {3, "\xEF", "1 8 0 0 [] []"},
                        {7, "\6", "4 0 0 0 [] []"}};
    Lines wanted;
    for (auto const &c : aCases) {
        m_script.Push(c.nTrapId, c.strValue);
        wanted.insert(wanted.end(), c.strLine.empty() ? 0 : 1, c.strLine);
    }
    EXPECT_EQ(m_agent.ReadTraps(), 0u);
    EXPECT_EQ(m_client.Wait(wanted.size()), wanted);
    m_script.Push(5, "x");
    m_script.m_dwReadTrapEnd = 5;
    EXPECT_EQ(m_agent.ReadTraps(), 5u);
}

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
