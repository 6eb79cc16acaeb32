#include "tests/agent/agent_fixture.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace {

class DiscoveryTest : public AgentTest {
protected:
    static std::string Contents(std::string const &strFile)
    {
        std::ifstream file(strFile, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::string Job(std::string const &strAddress) const
    {
        return "\x1B%-12345X@PJL SELECT=\"\x01\x15TYPE=<ECHO>;NETADDR=" + strAddress +
               ";SRVQ=" + std::to_string(m_dw) + ";\"\x1B%-12345X";
    }
    DWORD Discover(std::string const &str)
    {
        return m_agent.InitiateSrvQDiscovery(&m_dw, str.c_str());
    }

    CTempDir m_dir;
    std::string m_strTarget = m_dir.File("target");
    DWORD m_dw = 99999;
};

TEST_F(DiscoveryTest, TheJobNamesTheAgentToTheLetter)
{
    for (int const bNetwork : {0, 1}) {
        std::ofstream{m_strTarget};
        Connect(bNetwork);
        m_probe.strHostAddress = "10.1.2.3";
        m_probe.wPort = 1037;
        EXPECT_EQ(Discover(m_strTarget), 0u);
        EXPECT_EQ(Contents(m_strTarget), Job(bNetwork ? "10.1.2.3:1037" : "LINK0"));
        m_agent.Shutdown();
    }
}

TEST_F(DiscoveryTest, AFailureGivesItsCodeAndNoNumber)
{
    Connect(0);
    EXPECT_EQ(m_agent.InitiateSrvQDiscovery(nullptr, "x"), 87u);
    EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&m_dw, nullptr), 87u);
    EXPECT_EQ(std::exchange(m_dw, 5), 99999u);
    EXPECT_EQ(Discover(m_strTarget), 110u);
    EXPECT_EQ(std::exchange(m_dw, 5), 0u);
    EXPECT_FALSE(std::filesystem::exists(m_strTarget));
    EXPECT_EQ(Discover(m_dir.File("")), 110u);
    if (kIsPosix) {
        EXPECT_EQ(Discover("/dev/full"), 29u);
        EXPECT_EQ(m_dw, 0u);
    }
}

TEST_F(DiscoveryTest, ASlowTargetHoldsUpTheOtherOperations)
{
    if (!kIsPosix || std::system(("mkfifo " + m_strTarget).c_str()) != 0) {
        GTEST_SKIP() << "no named pipes among this system's files";
    }
    Connect(0);
    std::thread writer([&] { EXPECT_EQ(Discover(m_strTarget), 0u); });
    EXPECT_TRUE(WaitFor([&] { // the mutex is held for as long as nobody opens the other end
        bool const bHeld = WaitForSingleObject(m_probe.hMutex, 50) == WAIT_TIMEOUT;
        return bHeld || !ReleaseMutex(m_probe.hMutex);
    }));
    std::string const strJob = Contents(m_strTarget);
    writer.join();
    EXPECT_EQ(strJob, Job("LINK0"));
}

} // namespace
