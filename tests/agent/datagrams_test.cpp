#include "tests/agent/agent_fixture.h"

namespace {

// A device on this machine.
class CPeer {
public:
    CPeer()
    {
        WSADATA data;
        ws::WSAStartup(257, &data);
        m_socket = ws::socket(AF_INET, SOCK_DGRAM, 0);
    }
    ~CPeer()
    {
        ws::closesocket(m_socket);
        ws::WSACleanup();
    }
    void Send(WORD wPort, std::string const &strText)
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = ws::htons(wPort);
        to.sin_addr.s_addr = ws::inet_addr("127.0.0.1");
        ws::sendto(m_socket, strText.data(), static_cast<int>(strText.size()), 0,
                   reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
    std::string Receive() // an echo, or "none" after a while
    {
        std::string strText(70000, '\0');
        if (PlatSocketWait(m_socket, false, 20000) != 1) {
            return "none";
        }
        int const cb = ws::recvfrom(m_socket, strText.data(), 70000, 0, nullptr, nullptr);
        strText.resize(cb < 0 ? 0 : static_cast<std::size_t>(cb));
        return strText;
    }

private:
    SOCKET m_socket;
};

class DatagramTest : public AgentTest {
protected:
    void SetUp() override { Connect(1); }
    static std::string Line(std::string const &strText)
    {
        return "0 7 0 0 [" + strText + "] [127.0.0.1]";
    }
    CPeer m_peer;
};

TEST_F(DatagramTest, EachIsEchoedAndNoSequenceIsDeliveredTwice)
{
    struct {
        char const *pszText;
        DWORD dwLastAfter;
        bool bDelivered;
    } const aCases[] = {
        {"hello", 0, true},
        {"KICKSEQ=5;", 5, true},
        {"KICKSEQ=5;", 5, false},
        {"KICKSEQ=4;", 5, false},
        {"abc;KICKSEQ=6;def", 6, true},
        {"hello", 6, false},
        {"KICKSEQ=7", 6, false},
        {"KICKSEQ=0;", 6, false},
        {"KICKSEQ=9;KICKSEQ=1;", 9, true},
        {"KICKSEQ=-1;", 0xFFFFFFFF, true},
    };
    Lines delivered;
    for (auto const &c : aCases) {
        m_peer.Send(m_probe.wPort, c.pszText);
        EXPECT_EQ(m_peer.Receive(), c.pszText);
        if (c.bDelivered) {
            delivered.push_back(Line(c.pszText));
            EXPECT_TRUE(WaitFor([&] { return m_probe.dwLastKickSeq == c.dwLastAfter; }));
        }
    }
    EXPECT_EQ(m_client.Wait(delivered.size()), delivered);
}

TEST_F(DatagramTest, AnyBytesAreSurvived)
{
    std::string const strZero("a\0KICKSEQ=9;", 12);
    std::string const strFull(349, '\xFF');
    Lines wanted{Line("a"), Line(strFull)};
    for (std::string const &strText : {strZero, strFull}) {
        m_peer.Send(m_probe.wPort, strText);
        EXPECT_EQ(m_peer.Receive(), strText);
    }
    for (std::size_t cb : {350u, 65507u}) {
        if (kIsPosix) { // cut
            m_peer.Send(m_probe.wPort, std::string(cb, 'y'));
            EXPECT_EQ(m_peer.Receive(), std::string(349, 'y'));
            wanted.push_back(Line(std::string(349, 'y')));
        }
    }
    EXPECT_EQ(m_client.Wait(wanted.size()), wanted);
    // An empty one ends the listener, and on Windows so does an oversized one.
    m_peer.Send(m_probe.wPort, kIsPosix ? "" : std::string(350, 'y'));
    EXPECT_TRUE(WaitFor([&] { return m_probe.wPort == 0; }));
    EXPECT_EQ(m_probe.socket, INVALID_SOCKET);
    EXPECT_EQ(m_agent.Shutdown(), 0u);
    EXPECT_EQ(m_probe.CloseSocket(), 0u); // no datagram thread: nothing changes
    Connect(1);
    EXPECT_EQ(m_probe.bStopDatagrams, 0);
    m_peer.Send(m_probe.wPort, "again");
    EXPECT_EQ(m_client.Wait(1), Lines{Line("again")});
}

TEST_F(AgentTest, TheSequenceIsReadAsANumberOfAnyLength)
{
    struct {
        char const *pszText;
        DWORD dwResult;
        DWORD dwSequence;
    } const aCases[] = {
        {"", 50, 77},
        {"KICKSE=1;", 50, 77},
        {"KICKSEQ=12", 0, 77},
        {"KICKSEQ=;", 0, 0},
        {"x;KICKSEQ=12abc;y;", 0, 12},
        {"KICKSEQ= \t+7;", 0, 7},
        {"KICKSEQ=+-7;", 0, 0},
        {"KICKSEQ=-2147483648;", 0, 0x80000000},
        {"KICKSEQ=-99999999999999999999999;", 0, 0x80000000},
        {"KICKSEQ=2147483648;", 0, 0x7FFFFFFF},
        {"KICKSEQ=99999999999999999999999;", 0, 0x7FFFFFFF},
    };
    for (auto const &c : aCases) {
        std::string strText = c.pszText;
        DWORD dwSequence = 77;
        EXPECT_EQ(m_probe.GetKickSeq(strText.data(), &dwSequence), c.dwResult) << c.pszText;
        EXPECT_EQ(dwSequence, c.dwSequence) << c.pszText;
        EXPECT_EQ(strText, c.pszText);
        EXPECT_EQ(m_probe.GetKickSeq(strText.data(), nullptr), 87u);
    }
    EXPECT_EQ(m_probe.GetKickSeq(nullptr, nullptr), 87u);
}

} // namespace
