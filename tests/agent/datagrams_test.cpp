#include "tests/agent/agent_fixture.h"

namespace {

class DatagramTest : public AgentTest {
protected:
    DatagramTest() // m_peer is a device on this machine
    {
        WSADATA data;
        ws::WSAStartup(257, &data);
        m_peer = ws::socket(AF_INET, SOCK_DGRAM, 0);
        Connect(1);
    }
    ~DatagramTest() override
    {
        ws::closesocket(m_peer);
        ws::WSACleanup();
    }
    void Send(std::string const &strText)
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = ws::htons(m_probe.wPort);
        to.sin_addr.s_addr = ws::inet_addr("127.0.0.1");
        ws::sendto(m_peer, strText.data(), static_cast<int>(strText.size()), 0,
                   reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
    SOCKET m_peer;
};

TEST_F(DatagramTest, AnEmptyOneEndsTheListenerUntilTheNextInit)
{
    Send("");
    EXPECT_TRUE(WaitFor([&] { return m_probe.wPort == 0; }));
    EXPECT_EQ(m_probe.socket, INVALID_SOCKET);
    EXPECT_EQ(m_agent.Shutdown(), 0u);
    Connect(1);
    Send("again");
    EXPECT_EQ(PlatSocketWait(m_peer, false, 20000), 1) << "no echo";
    EXPECT_EQ(m_client.Wait(1), Lines{"0 7 0 0 [again] [127.0.0.1]"});
}

} // namespace
