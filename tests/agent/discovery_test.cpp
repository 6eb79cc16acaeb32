#include "tests/agent/agent_fixture.h"

#include "platform/fifo.h"
#include "platform/sync.h"

#include <cstdlib>
#include <thread>

namespace {

TEST_F(AgentTest, TheDiscoveryJobNamesTheAgentToTheLetter)
{
    CTempDir dir;
    std::string const strTarget = dir.File("target");
    for (int const bNetwork : {0, 1}) {
        Fill(strTarget, "");
        Connect(bNetwork);
        m_probe.strHostAddress = "10.1.2.3";
        m_probe.wPort = 1037;
        DWORD dw = 99999;
        EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dw, strTarget.c_str()), 0u);
        EXPECT_EQ(Contents(strTarget),
                  std::string("\x1B%-12345X@PJL SELECT=\"\x01\x15TYPE=<ECHO>;NETADDR=") +
                      (bNetwork ? "10.1.2.3:1037" : "LINK0") + ";SRVQ=" + std::to_string(dw) +
                      ";\"\x1B%-12345X");
        EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dw, dir.File("none").c_str()),
                  DWORD{ERROR_OPEN_FAILED});
        EXPECT_EQ(dw, 0u);
        EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dw, nullptr), DWORD{ERROR_INVALID_PARAMETER});
        EXPECT_EQ(m_agent.InitiateSrvQDiscovery(nullptr, strTarget.c_str()),
                  DWORD{ERROR_INVALID_PARAMETER});
        m_agent.Shutdown();
    }
}

TEST_F(AgentTest, ADiscoveryTargetThatTakesNothingHoldsUpTheOtherOperationsForABoundedTime)
{
    CTempDir dir;
    std::string const strTarget = dir.File("target");
    if (!kIsPosix || std::system(("mkfifo " + strTarget).c_str()) != 0) {
        GTEST_SKIP() << "no named pipes among this system's files";
    }
    Connect(0);
    DWORD dw = 99999;
    EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dw, strTarget.c_str()), DWORD{ERROR_OPEN_FAILED});
    CPlatFifo reader;
    ASSERT_TRUE(reader.Open(strTarget.c_str()));
    Fill(strTarget, std::string(65536, 'x')); // all that it holds
    std::thread writer([&] {
        EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dw, strTarget.c_str()), DWORD{ERROR_WRITE_FAULT});
    });
    EXPECT_TRUE(WaitFor([&] {
        bool const bHeld = WaitForSingleObject(m_probe.hMutex, 50) == WAIT_TIMEOUT;
        return bHeld || !ReleaseMutex(m_probe.hMutex);
    }));
    EXPECT_EQ(m_agent.Add(nullptr, eNF_FAX_UPLOAD, nullptr), 0u); // after it
    writer.join();
    char achRead[65536];
    EXPECT_EQ(reader.Read(achRead, sizeof achRead, 30000), 65536);
    EXPECT_EQ(m_agent.InitiateSrvQDiscovery(&dw, strTarget.c_str()), 0u);
    std::string const strJob(achRead, reader.Read(achRead, sizeof achRead, 30000));
    EXPECT_NE(strJob.find("SRVQ=" + std::to_string(dw) + ";"), strJob.npos);
}

} // namespace
