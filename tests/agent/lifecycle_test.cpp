#include "agent/dol_callback.h"
#include "platform/probe.h"
#include "platform/sync.h"
#include "tests/agent/agent_fixture.h"

namespace {

constexpr DWORD kNotConnected = 2250, kRefused = 1307, kConnected = 1247;

TEST_F(AgentTest, WithoutALinkEveryOperationGivesTheState)
{
    for (DWORD const dwState : {kNotConnected, kRefused}) {
        DWORD dw = 77;
        EXPECT_EQ((Counts{m_agent.Shutdown(), m_agent.RestartDolRtl(), m_agent.ReadTraps(),
                          m_agent.Add(&dw, eNF_SELECT, "x"), m_agent.Delete(dw, eNF_SELECT, "x"),
                          m_agent.Modify(&dw, nullptr, "x"),
                          m_agent.InitiateSrvQDiscovery(&dw, nullptr)}),
                  Counts(7, dwState));
        EXPECT_EQ(dw, 77u);
        EXPECT_EQ(CNotifyAgent(m_agent).ReadTraps(), dwState) << "a copy knows it too";
        EXPECT_EQ(m_script.Take(), Lines{});
        m_script.m_strDeviceId.assign(260, 'A'); // another line's; fills the buffer, with no end
        m_script.Fail("Init", 5);
        EXPECT_EQ(m_agent.Init("a", 1, 1), kRefused);
        EXPECT_EQ(m_script.Take(), (Lines{"Init a 1 4", "GetDeviceId", "delete"}));
    }
    m_script.m_strDeviceId = "xvellumaxx";
    EXPECT_EQ(m_agent.Init("a", 1, 1), 0u);
}

TEST_F(AgentTest, InitChoosesTransportAndPortAndPassesTheCodeOn)
{
    struct {
        char const *pszAddress;
        DWORD dwPort;
        int bNetwork;
        std::string strLine, strDeviceId;
        DWORD dwDeviceIdResult, dwCode;
    } const aCases[] = {{nullptr, 255, 0, "Init null 255 3", "VelluMax", 0, 0},
                        {"LINK7", 80, 0, "Init LINK7 80 3", "", 0, 5},
                        {"h", 255, 2, "Init h 0 4", "other", 31, 0},
                        {"", 256, 1, "Init  256 4", "VelluMax", 0, 1231}};
    for (auto const &c : aCases) {
        m_script.m_strDeviceId = c.strDeviceId;
        m_script.Fail("GetDeviceId", c.dwDeviceIdResult);
        m_script.Fail("Init", c.dwCode);
        EXPECT_EQ(m_agent.Init(c.pszAddress, c.dwPort, c.bNetwork), c.dwCode) << c.strLine;
        EXPECT_EQ(m_agent.Init(c.pszAddress, c.dwPort, c.bNetwork), kConnected);
        EXPECT_EQ(m_agent.Shutdown(), 0u);
        EXPECT_EQ(m_script.Take(), (Lines{c.strLine, "GetDeviceId", "delete"}));
        EXPECT_EQ(ws::socket(AF_INET, SOCK_DGRAM, 0), INVALID_SOCKET) << "WSACleanup is missing";
    }
}

TEST_F(AgentTest, ARestartOnTheLibrarysThreadConnectsAgainAndTellsOnce)
{
    Connect(1);
    EXPECT_EQ(m_agent.Add(nullptr, eNF_FAX_UPLOAD, nullptr), 0u);
    m_probe.dwLastKickSeq = 9;
    m_script.Take();
    m_script.Raise(2);
    EXPECT_EQ(DolRtlCallback(1, 0), 0u);
    m_script.Raise(1);
    EXPECT_EQ(m_script.Take(), (Lines{"delete", "Init LINK0 80 4", "GetDeviceId"}));
    EXPECT_EQ(m_probe.Traps(), Counts(4, 0));
    EXPECT_EQ(m_probe.dwLastKickSeq, 0u);
    EXPECT_EQ(m_client.Wait(1), Lines{"3 0 0 0 [] []"});
    m_script.Fail("Init", 1231);
    m_script.Raise(1);
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
            EXPECT_TRUE(WaitFor([&] { return m_script.m_bRaising.load(); }));
        }
    };
    EXPECT_EQ(m_agent.Init("a", 1, 0), kRefused);
    library.join();
    EXPECT_EQ(m_script.Take(), (Lines{"Init a 1 3", "GetDeviceId", "delete"}));
}

TEST_F(AgentTest, TheCallbackMayCallTheAgentWhileShutdownWaitsForIt)
{
    std::atomic<bool> bInside{false};
    m_client.m_fnOnNotify = [&] {
        EXPECT_EQ(m_agent.Shutdown(), 50u); // it would wait for this thread
        EXPECT_EQ(m_agent.RestartDolRtl(), 50u);
        bInside = true;
        EXPECT_TRUE(WaitFor([&] { return m_script.m_cLive == 0; }));
        EXPECT_EQ(m_agent.Add(nullptr, eNF_ADF, nullptr), kNotConnected);
    };
    Connect(0);
    for (int i = 0; i < 100; ++i) {
        m_script.Push(7, "\6");
    }
    m_script.Raise(0);
    EXPECT_TRUE(WaitFor([&] { return bInside.load(); }));
    EXPECT_EQ(m_agent.Shutdown(), 0u);
    EXPECT_LT(m_client.Wait(1).size(), 100u) << "what is queued is dropped";
}

// A client's own drain: nothing but the agent knows that it is inside the link.
TEST_F(AgentTest, ShutdownWaitsForADrain)
{
    Connect(0);
    std::atomic<bool> bInside{false};
    m_script.m_fnOnCall = [&](std::string const &strLine) {
        if (strLine == "ReadTrap") {
            bInside = true;
            EXPECT_TRUE(WaitFor([&] { return m_probe.pDolRtl == nullptr; }));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            EXPECT_EQ(m_script.m_cLive, 1) << "the link is gone while it is read";
        }
    };
    std::thread client([&] { EXPECT_EQ(m_agent.ReadTraps(), 0u); });
    EXPECT_TRUE(WaitFor([&] { return bInside.load(); }));
    EXPECT_EQ(m_agent.Shutdown(), 0u);
    client.join();
}

TEST_F(AgentTest, CopiesBorrowAndOnlyTheOwnerEnds)
{
    DWORD const cHandles = PlatHandleCount();
    {
        CNotifyAgent source(CClient::OnNotify, 0xC11E27);
        CNotifyAgent assigned(nullptr, 0);
        ASSERT_EQ(assigned.Init("b", 1, 0), 0u);
        ASSERT_EQ(source.Init("a", 1, 1), 0u);
        CNotifyAgentProbe const probe{source};
        probe.strHostAddress = "10.1.2.3";
        CNotifyAgent copy(source);
        DWORD dw = 0;
        EXPECT_EQ(copy.Add(&dw, eNF_SELECT, "a"), 0u);
        EXPECT_NE(m_script.Take().back().find("=10.1.2.3:" + std::to_string(probe.wPort) + ";"),
                  std::string::npos)
            << "a pick would not be heard";
        assigned = copy;
        EXPECT_EQ(copy.Add(nullptr, eNF_FAX_UPLOAD, nullptr), 0u);
        std::atomic<bool> bAllowed{false}; // until then the first call holds up the second one
        m_client.m_fnOnNotify = [&] { EXPECT_TRUE(WaitFor([&] { return bAllowed.load(); })); };
        m_script.Push(7, "\6");
        m_script.Push(7, "\6");
        EXPECT_EQ(std::make_unique<CNotifyAgent>(copy)->ReadTraps(),
                  0u); // told in the source's name
        EXPECT_NE(WaitForSingleObject(probe.hMutex, 0), WAIT_FAILED)
            << "the copy that has gone closed it";
        ReleaseMutex(probe.hMutex);
        bAllowed = true;
        EXPECT_EQ(m_client.Wait(2), Lines(2, "4 0 0 0 [] []"));
        EXPECT_EQ(copy.Shutdown(), 0u);
        EXPECT_EQ(copy.Shutdown(), kNotConnected);
        EXPECT_EQ(CNotifyAgentProbe{copy}.wPort, 0); // it is the source's
        EXPECT_EQ(m_script.Take(), (Lines{"delete", "Trap 1.3.7.2.1/1 7"}));
        EXPECT_EQ(source.Shutdown(), 0u);
        EXPECT_EQ(assigned.Add(nullptr, eNF_FAX_UPLOAD, nullptr), kNotConnected);
        EXPECT_EQ(copy.Init("c", 1, 0), 0u); // now a link of its own
        CNotifyAgent const ofCopy(copy);
        EXPECT_EQ(copy.Shutdown(), 0u);
    }
    EXPECT_TRUE(WaitFor([&] { return PlatHandleCount() <= cHandles; }));
}

} // namespace
