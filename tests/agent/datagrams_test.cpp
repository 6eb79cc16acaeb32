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
    // Sends it and looks at what comes back.
    void ExpectEcho(std::string const &strText)
    {
        Send(strText);
        std::string strEcho(70000, '\0');
        ASSERT_EQ(PlatSocketWait(m_peer, false, 20000), 1);
        int const cb = ws::recvfrom(m_peer, strEcho.data(), 70000, 0, nullptr, nullptr);
        EXPECT_EQ(strEcho.substr(0, static_cast<std::size_t>(cb)), strText.substr(0, 349));
    }
    static std::string Line(std::string const &str) { return "0 7 0 0 [" + str + "] [127.0.0.1]"; }
    SOCKET m_peer;
};

TEST_F(DatagramTest, EachIsEchoedAndNoSequenceIsDeliveredTwice)
{
    struct {
        std::string strText;
        DWORD dwDelivered; // the last sequence from then on; 77: it is dropped
    } const aCases[] = {{"hello", 0},
                        {std::string(349, '\xFF'), 0},
                        {std::string(350, 'y'), 0}, // cut
                        {"KICKSEQ=5;", 5},
                        {"KICKSEQ=5;", 77},
                        {"abc;KICKSEQ=6;def", 6},
                        {"KICKSEQ=4;", 77},
                        {"KICKSEQ=9;KICKSEQ=1;", 9},
                        {"KICKSEQ=99999999999999999999999;", 0x7FFFFFFF}};
    Lines wanted;
    for (auto const &c : aCases) {
        ExpectEcho(c.strText);
        if (c.dwDelivered != 77) {
            wanted.push_back(Line(c.strText.substr(0, 349).c_str()));
            EXPECT_TRUE(WaitFor([&] { return m_probe.dwLastKickSeq == c.dwDelivered; }));
        }
    }
    EXPECT_EQ(m_client.Wait(wanted.size()), wanted);
}

TEST_F(DatagramTest, AnEmptyOneEndsTheListenerUntilTheNextInit)
{
    Send("");
    EXPECT_TRUE(WaitFor([&] { return m_probe.wPort == 0; }));
    EXPECT_EQ(m_probe.socket, INVALID_SOCKET);
    EXPECT_EQ(m_agent.Shutdown(), 0u);
    Connect(1);
    ExpectEcho("again");
    EXPECT_EQ(m_client.Wait(1), Lines{Line("again")});
}

} // namespace
