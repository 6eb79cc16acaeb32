#include "tests/agent/agent_fixture.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace {

std::string Contents(std::string const &strFile)
{
    std::ifstream file(strFile, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string Job(std::string const &strAddress, DWORD dwSequence)
{
    return "\x1B%-12345X@PJL SELECT=\"\x01\x15TYPE=<ECHO>;NETADDR=" + strAddress +
           ";SRVQ=" + std::to_string(dwSequence) + ";\"\x1B%-12345X";
}

TEST_F(AgentTest, TheDiscoveryJobNamesTheAgentToTheLetter)
{
    CTempDir const dir;
    std::string const strTarget = dir.File("target");
    for (int bNetwork : {0, 1}) {
        std::ofstream{strTarget};
        Connect(bNetwork);
        m_probe.strHostAddress = "10.1.2.3";
        m_probe.wPort = 1037;
        DWORD dwSequence = 99999;
        EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dwSequence, strTarget.c_str()), 0u);
        EXPECT_EQ(Contents(strTarget), Job(bNetwork ? "10.1.2.3:1037" : "LINK0", dwSequence));
        m_agent.Shutdown();
    }
}

TEST_F(AgentTest, ADiscoveryThatFailsGivesItsCodeAndNoNumber)
{
    CTempDir const dir;
    Connect(0);
    DWORD dwSequence = 5;
    EXPECT_EQ(m_agent.InitiateSrvQDiscovery(nullptr, "x"), 87u);
    EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dwSequence, nullptr), 87u);
    EXPECT_EQ(dwSequence, 5u);
    EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dwSequence, dir.File("missing").c_str()), 110u);
    EXPECT_EQ(dwSequence, 0u);
    EXPECT_FALSE(std::filesystem::exists(dir.File("missing")));
    EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dwSequence, dir.File("").c_str()), 110u);
    if (kIsPosix) {
        dwSequence = 5;
        EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dwSequence, "/dev/full"), 29u);
        EXPECT_EQ(dwSequence, 0u);
    }
}

TEST_F(AgentTest, ASlowTargetHoldsUpTheOtherOperations)
{
    CTempDir const dir;
    std::string const strTarget = dir.File("fifo");
    if (!kIsPosix || std::system(("mkfifo " + strTarget).c_str()) != 0) {
        GTEST_SKIP() << "no named pipes among this system's files";
    }
    Connect(0);
    std::atomic<bool> bRead{false};
    std::atomic<int> cStarted{0};
    m_script.m_fnOnCall = [&](std::string const &) { EXPECT_TRUE(bRead); };
    DWORD dwSequence = 0;
    std::thread writer([&] {
        ++cStarted;
        EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dwSequence, strTarget.c_str()), 0u);
    });
    EXPECT_TRUE(
        WaitFor([&] { return *m_probe.strNetAddr != '\0'; })); // it is about to open the pipe
    std::thread adder([&] {
        ++cStarted;
        EXPECT_EQ(m_agent.Add(nullptr, eNF_ADF, nullptr), 0u);
    });
    EXPECT_TRUE(WaitFor([&] { return cStarted == 2; }));
    bRead = true;
    std::string const strJob = Contents(strTarget);
    writer.join();
    adder.join();
    m_script.m_fnOnCall = nullptr;
    EXPECT_EQ(strJob, Job("LINK0", dwSequence));
}

} // namespace
