#include "platform/probe.h"
#include "tests/agent/agent_fixture.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr std::size_t kcSenders = 48;
constexpr std::size_t kcMostWaiting = 20000; // adding to the queue takes time with its length
constexpr std::size_t kcUnderWay = 64; // datagrams; all fit into a socket's buffer, so none is lost

// Datagrams of a test; QOMA_FLOOD says how many.
std::size_t Size()
{
    char const *const psz = std::getenv("QOMA_FLOOD");
    return psz != nullptr ? std::strtoul(psz, nullptr, 10) : 20000;
}

std::string Numbered(std::size_t n)
{
    return "Paper Archive;NETADDR=127.0.0.1:9;KICKSEQ=" + std::to_string(n) + ";";
}

// The client: must hear 1, 2, 3... It can be kept from going on.
class CListener {
public:
    CListener() { s_pListener = this; }
    static DWORD OnNotify(CallbackType, CallbackDataType *pData)
    {
        CListener &own = *s_pListener;
        WaitFor([&] { return !own.m_fHeldUp; }, std::chrono::seconds(300));
        if (Numbered(own.m_cHeard + 1) != static_cast<char const *>(pData->strOption)) {
            ++own.m_cWrong;
        }
        ++own.m_cHeard;
        return 0;
    }

    std::atomic<bool> m_fHeldUp{false};
    std::atomic<std::size_t> m_cHeard{0};
    std::atomic<std::size_t> m_cWrong{0};

private:
    static inline CListener *s_pListener = nullptr;
};

// Many senders on this machine. What they send is echoed in the order of sending, each to its sender.
class CSenders {
public:
    explicit CSenders(WORD wPort)
    {
        m_to.sin_family = AF_INET;
        m_to.sin_port = ws::htons(wPort);
        m_to.sin_addr.s_addr = ws::inet_addr("127.0.0.1");
        for (SOCKET &s : m_sockets) {
            s = ws::socket(AF_INET, SOCK_DGRAM, 0);
        }
    }
    ~CSenders()
    {
        for (SOCKET const s : m_sockets) {
            ws::closesocket(s);
        }
    }
    void Send(std::string strText)
    {
        Shoot(m_cSent, strText);
        m_underWay.push_back(std::move(strText));
        ++m_cSent;
        TakeEchoes(kcUnderWay);
    }
    void TakeEchoes(std::size_t cLeft = 0)
    {
        for (char ab[1000]; m_underWay.size() > cLeft; m_underWay.pop_front()) {
            SOCKET const s = m_sockets.at((m_cSent - m_underWay.size()) % kcSenders);
            ASSERT_EQ(PlatSocketWait(s, false, 20000), 1) << "no echo of " << m_underWay.front();
            int const cb = ws::recvfrom(s, ab, sizeof ab, 0, nullptr, nullptr);
            ASSERT_EQ(std::string(ab, static_cast<std::size_t>(cb)),
                      m_underWay.front().substr(0, 349));
        }
    }
    // Without a look at what comes back.
    void Shoot(std::size_t nSender, std::string const &strText)
    {
        ws::sendto(m_sockets.at(nSender % kcSenders), strText.data(),
                   static_cast<int>(strText.size()), 0, reinterpret_cast<sockaddr *>(&m_to),
                   sizeof m_to);
    }
    std::size_t Sent() const { return m_cSent; }

private:
    sockaddr_in m_to{};
    std::array<SOCKET, kcSenders> m_sockets{};
    std::deque<std::string> m_underWay;
    std::size_t m_cSent = 0;
};

class FloodTest : public ::testing::Test {
protected:
    FloodTest() { EXPECT_EQ(m_agent.Init("10.0.0.9", kNotifyNoPort, 1), 0u); }
    ~FloodTest() override { m_agent.Shutdown(); }

    // As many new ones as duplicates and rubbish together.
    void SendMixed(CSenders &senders, std::size_t nFirst, std::size_t cNew)
    {
        static std::string const kHostile[] = {
            "%n%n%s%s;KICKSEQ=%d;", std::string(349, '\xFF'),
            std::string(9000, 'A'), "KICKSEQ=",
            "$(reboot);KICKSEQ=0;", std::string("KICKSEQ=7\0;", 11)};
        for (std::size_t n = nFirst; n < nFirst + cNew && !HasFatalFailure(); ++n) {
            senders.Send(Numbered(n));
            senders.Send(n % 8 != 0 ? Numbered(n - m_random() % std::min<std::size_t>(n, 1000))
                                    : kHostile[m_random() % std::size(kHostile)]);
        }
        senders.TakeEchoes();
    }
    void Show(char const *pszWhen) const
    {
        PlatMemoryType const memory = PlatMemory();
        std::printf(
            "%-28s %8zu heard, %8u blocks of %10u bytes counted, %7.2f MB in use, %7.2f MB held\n",
            pszWhen, m_listener.m_cHeard.load(), static_cast<unsigned>(g_cMemory),
            static_cast<unsigned>(g_cbMemory), static_cast<double>(memory.cbInUse) / 1e6,
            static_cast<double>(memory.cbHeld) / 1e6);
    }

    CCountersGuard m_counters;
    CDolScript m_script;
    CListener m_listener;
    CNotifyAgent m_agent{CListener::OnNotify, 0};
    CNotifyAgentProbe m_probe{m_agent};
    std::mt19937 m_random{1};
};

TEST_F(FloodTest, AllAreEchoedNewOnesAreHeardInOrderAndMemoryIsWhatTheClientHasNotTaken)
{
    std::size_t const cHeldUp = std::min(Size() / 4, kcMostWaiting);
    std::size_t const cTotal = Size() / 2;
    CSenders senders(m_probe.wPort);
    SendMixed(senders, 1, 100);
    ASSERT_TRUE(WaitFor([&] { return m_listener.m_cHeard == 100; }));
    auto const before = PlatMemory();
    DWORD const cBlocks = g_cMemory;
    DWORD const cbBlocks = g_cbMemory;
    Show("before");

    m_listener.m_fHeldUp = true;
    SendMixed(senders, 101, cHeldUp);
    Show("the client takes nothing");
    // One is with the client. Each waiting one has a message, a node, and the node's name.
    constexpr std::size_t kcbEach = sizeof(CallbackMsgType) + sizeof "eCT_SELECT_NOTIFY";
    ASSERT_TRUE(WaitFor([&] { return g_cMemory - cBlocks == 2 * cHeldUp; }));
    EXPECT_EQ(g_cbMemory - cbBlocks, kcbEach * cHeldUp);
    DWORD const cFull = g_cMemory;
    for (std::size_t n = 0; n < cHeldUp && !HasFatalFailure(); ++n) {
        senders.Send(Numbered(1 + n));
    }
    senders.TakeEchoes();
    EXPECT_EQ(g_cMemory, cFull) << "what was heard before takes no memory";
    Show("as many again, nothing new");

    m_listener.m_fHeldUp = false;
    SendMixed(senders, 101 + cHeldUp, cTotal - cHeldUp);
    ASSERT_TRUE(WaitFor([&] { return g_cMemory == cBlocks; }, std::chrono::seconds(300)));
    auto const after = PlatMemory();
    Show("the client has taken all");
    EXPECT_EQ(g_cbMemory, cbBlocks);
    EXPECT_EQ(m_listener.m_cHeard, 100 + cTotal);
    EXPECT_EQ(m_listener.m_cWrong, 0u);
    EXPECT_LE(after.cbInUse, before.cbInUse + 100000);

    senders.Send("KICKSEQ=99999999999999999999;");
    senders.Send(Numbered(101 + cTotal));
    senders.TakeEchoes();
    EXPECT_TRUE(WaitFor([&] { return m_listener.m_cHeard == 101 + cTotal; }));
    EXPECT_EQ(m_probe.dwLastKickSeq, 0x7FFFFFFFu) << "a number that shuts out all that follow";
    std::printf("%zu datagrams, each echoed\n", senders.Sent());
}

TEST_F(FloodTest, AnEmptyOneEndsTheListenerUntilTheNextInit)
{
    CSenders(m_probe.wPort).Shoot(0, "");
    EXPECT_TRUE(WaitFor([&] { return m_probe.wPort == 0; }));
    EXPECT_EQ(m_probe.socket, INVALID_SOCKET);
    EXPECT_EQ(m_agent.Shutdown(), 0u);
    EXPECT_EQ(m_agent.Init("10.0.0.9", kNotifyNoPort, 1), 0u);
    CSenders senders(m_probe.wPort);
    senders.Send(Numbered(1));
    senders.TakeEchoes();
    EXPECT_TRUE(WaitFor([&] { return m_listener.m_cHeard == 1; }));
    EXPECT_EQ(m_listener.m_cWrong, 0u);
}

TEST_F(FloodTest, ShutdownEndsInTheMiddle)
{
    CSenders senders(m_probe.wPort);
    std::atomic<bool> fStop{false};
    std::vector<std::thread> threads;
    for (std::size_t nThread = 0; nThread < 2; ++nThread) {
        threads.emplace_back([&, nThread] {
            for (std::size_t n = 1 + nThread; !fStop; n += 2) {
                senders.Shoot(n, Numbered(n));
            }
        });
    }
    EXPECT_TRUE(WaitFor([&] { return m_listener.m_cHeard > 100; }));
    auto const tpStart = std::chrono::steady_clock::now();
    EXPECT_EQ(m_agent.Shutdown(), 0u);
    std::chrono::duration<double> const time = std::chrono::steady_clock::now() - tpStart;
    EXPECT_LT(time.count(), 1.0);
    std::size_t const cHeard = m_listener.m_cHeard;
    fStop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(m_listener.m_cHeard, cHeard);
    std::printf("Shutdown took %.0f ms\n", time.count() * 1e3);
}

} // namespace
