#include "agent/dol_callback.h"
#include "tests/agent/agent_fixture.h"

#include "platform/probe.h"

namespace {

constexpr DWORD kNotConnected = 2250, kRefused = 1307, kConnected = 1247;

TEST_F(AgentTest, WithoutALinkEveryOperationGivesTheState)
{
    auto const ExpectEverywhere = [&](DWORD dwState) {
        DWORD dw = 77;
        EXPECT_EQ(m_agent.Shutdown(), dwState);
        EXPECT_EQ(m_agent.RestartDolRtl(), dwState);
        EXPECT_EQ(m_agent.ReadTraps(), dwState);
        EXPECT_EQ(m_agent.Add(&dw, eNF_SELECT, "x"), dwState);
        EXPECT_EQ(m_agent.Delete(dw, eNF_SELECT, "x"), dwState);
        EXPECT_EQ(m_agent.Modify(&dw, nullptr, "x"), dwState);
        EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dw, nullptr), dwState);
        EXPECT_EQ(dw, 77u);
        EXPECT_EQ(m_script.Take(), Lines{});
    };
    ExpectEverywhere(kNotConnected);
    std::string const strOurs = std::exchange(m_script.m_strDeviceId, "Norvale Other 3");
    m_script.Fail("Init", 5);
    EXPECT_EQ(m_agent.Init("a", 1, 1), kRefused);
    EXPECT_EQ(m_script.Take(), (Lines{"Init a 1 4", "GetDeviceId", "delete"}));
    ExpectEverywhere(kRefused);
    m_script.m_strDeviceId = strOurs;
    EXPECT_EQ(m_agent.Init("a", 1, 1), 0u);
}

TEST_F(AgentTest, InitChoosesTransportAndPortAndPassesTheCodeOn)
{
    struct {
        char const *pszAddress;
        DWORD dwPort;
        int bNetwork;
        std::string strLine;
        std::string strDeviceId;
        DWORD dwDeviceIdResult;
        DWORD dwCode;
    } const aCases[] = {{nullptr, 255, 0, "Init null 255 3", "xvellumaxx", 0, 0},
                        {"LINK7", 80, 0, "Init LINK7 80 3", "", 0, 5},
                        {"h", 255, 2, "Init h 0 4", std::string(300, 'V') + "VELLUMAX", 31, 0},
                        {"", 256, 1, "Init  256 4", "VelluMax", 0, 1231}};
    for (auto const &c : aCases) {
        m_script.m_strDeviceId = c.strDeviceId;
        m_script.m_dwDeviceIdResult = c.dwDeviceIdResult;
        m_script.Fail("Init", c.dwCode);
        EXPECT_EQ(m_agent.Init(c.pszAddress, c.dwPort, c.bNetwork), c.dwCode) << c.strLine;
        EXPECT_EQ(m_agent.Init(c.pszAddress, c.dwPort, c.bNetwork), kConnected);
        EXPECT_EQ(m_script.Take(), (Lines{c.strLine, "GetDeviceId"}));
        EXPECT_EQ(m_agent.Shutdown(), 0u);
        EXPECT_EQ(m_script.Take(), Lines{"delete"});
    }
    m_script.m_strDeviceId.assign(260, 'A'); // fills the buffer, with no end
    m_script.m_dwDeviceIdResult = 0;
    EXPECT_EQ(m_agent.Init("h", 0, 1), kRefused);
}

TEST_F(AgentTest, ARestartOnTheLibrarysThreadConnectsAgainAndTellsOnce)
{
    Connect(1);
    DWORD dwInstance = 0;
    EXPECT_EQ(m_agent.Add(&dwInstance, eNF_SELECT | eNF_FAX_UPLOAD, "x"), 0u);
    m_probe.dwLastKickSeq = 9;
    m_script.Take();
    std::thread([&] { m_script.Raise(2); }).join();
    EXPECT_EQ(DolRtlCallback(1, 0), 0u);
    EXPECT_EQ(m_script.Take(), Lines{});
    std::thread([&] { m_script.Raise(1); }).join();
    EXPECT_EQ(m_script.Take(), (Lines{"delete", "Init LINK0 80 4", "GetDeviceId"}));
    EXPECT_EQ(m_probe.Traps(), Counts(4, 0));
    EXPECT_EQ(m_probe.dwLastKickSeq, 0u);
    EXPECT_EQ(m_client.Wait(1), Lines{"3 0 0 0 [] []"});
    m_script.Fail("Init", 1231);
    std::thread([&] { m_script.Raise(1); }).join();
    EXPECT_EQ(m_agent.Shutdown(), 0u); // a failed library Init counts as connected
    EXPECT_EQ(m_client.Wait(0), Lines{});
}

// The destructor of the link waits for the restart, which waits for the mutex that is held meanwhile.
TEST_F(AgentTest, ARestartGivesUpWhenItsLinkIsEnded)
{
    m_script.m_strDeviceId = "other";
    std::thread library;
    m_script.m_fnOnCall = [&](std::string const &strLine) {
        if (strLine == "GetDeviceId") {
            library = std::thread([&] { m_script.Raise(1); });
            EXPECT_TRUE(WaitFor([&] { return m_script.IsRaising(); }));
        }
    };
    EXPECT_EQ(m_agent.Init("a", 1, 0), kRefused);
    library.join();
    EXPECT_EQ(m_script.Take(), (Lines{"Init a 1 3", "GetDeviceId", "delete"}));
}

TEST_F(AgentTest, TheCallbackMayCallTheAgentWhileShutdownWaitsForIt)
{
    std::latch inside{1};
    std::latch go{1};
    DWORD dwAdd = 0, dwShutdown = 0, dwRestart = 0;
    m_client.m_fnOnNotify = [&] {
        dwShutdown = m_agent.Shutdown();
        dwRestart = m_agent.RestartDolRtl();
        inside.count_down();
        go.wait();
        DWORD dwInstance = 0;
        dwAdd = m_agent.Add(&dwInstance, eNF_SELECT, "x");
    };
    Connect(0);
    m_script.Push(7, "\6");
    m_script.Push(7, "\6");
    m_script.Raise(0);
    inside.wait();
    std::thread closer([&] { EXPECT_EQ(m_agent.Shutdown(), 0u); });
    EXPECT_TRUE(WaitFor([&] { return m_script.Live() == 0; }));
    go.count_down();
    closer.join();
    EXPECT_EQ(Counts({dwShutdown, dwRestart, dwAdd}), Counts({50, 50, 2250}));
    EXPECT_EQ(m_client.Wait(1).size(), 1u) << "what was queued is dropped";
}

TEST_F(AgentTest, CopiesBorrowAndOnlyTheOwnerEnds)
{
    DWORD const cHandles = PlatHandleCount();
    {
        CNotifyAgent source(CClient::OnNotify, 0xC11E27);
        ASSERT_EQ(source.Init("a", 1, 1), 0u);
        CNotifyAgent copy(source);
        CNotifyAgent assigned(nullptr, 0);
        ASSERT_EQ(assigned.Init("b", 1, 0), 0u);
        m_script.Take();
        EXPECT_EQ(&(assigned = copy), &assigned);
        EXPECT_EQ(m_script.Take(), Lines{"delete"});
        EXPECT_EQ(m_script.Live(), 1u);
        EXPECT_EQ(copy.Add(nullptr, eNF_FAX_UPLOAD, nullptr), 0u);
        EXPECT_EQ(copy.Shutdown(), 0u);
        EXPECT_EQ(copy.Shutdown(), kNotConnected);
        EXPECT_EQ(m_script.Take(), Lines{"Trap 1.3.7.2.1/1 7"});
        EXPECT_EQ(source.Shutdown(), 0u);
        EXPECT_EQ(assigned.Add(nullptr, eNF_FAX_UPLOAD, nullptr), kNotConnected);
        EXPECT_EQ(copy.Init("c", 1, 0), 0u); // now a link of its own
        CNotifyAgent const ofCopy(copy);
        EXPECT_EQ(copy.Shutdown(), 0u);
    }
    EXPECT_TRUE(WaitFor([&] { return PlatHandleCount() <= cHandles; }));
}

} // namespace
