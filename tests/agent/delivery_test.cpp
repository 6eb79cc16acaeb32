#include "tests/agent/agent_fixture.h"

namespace {

void Post(CNotifyAgentProbe const &probe, DWORD dwKind, int nValue, std::string const &str = "")
{
    probe.pCallbackQThread.load()->PostCallback(dwKind, &probe.a, nValue, 0, str.c_str(),
                                                str.c_str(), str.c_str());
}

TEST_F(AgentTest, MessagesAreDeliveredInOrderOneAtATime)
{
    std::atomic<bool> bAllowed{false};
    m_client.m_fnOnNotify = [&] { EXPECT_TRUE(WaitFor([&] { return bAllowed.load(); })); };
    Connect(0);
    Post(m_probe, 4, 0);
    EXPECT_EQ(m_client.Wait(1), Lines{"4 0 0 0 [] []"});
    DWORD const cObjects = g_cObjects;
    Post(m_probe, 99, 0);
    Post(m_probe, 1, 1);
    Post(m_probe, 1, -1);
    Post(m_probe, 0, 0, std::string(400, 'x'));
    Post(m_probe, 3, 0);
    bAllowed = true; // until now the first call has held up the others
    EXPECT_EQ(m_client.Wait(4),
              (Lines{"1 8 1 0 [] []", "1 8 4294967295 0 [] []",
                     "0 7 0 0 [" + std::string(349, 'x') + "] [" + std::string(15, 'x') + "]",
                     "3 0 0 0 [] []"}));
    EXPECT_TRUE(WaitFor([&] { return g_cObjects == cObjects - 1; }));
}

TEST_F(AgentTest, AnEchoToTheAgentItselfIsNotAnsweredInItsTurn)
{
    Connect(1);
    sockaddr_in self{};
    self.sin_family = AF_INET;
    self.sin_port = ws::htons(m_probe.wPort);
    self.sin_addr.s_addr = ws::inet_addr("127.0.0.1");
    for (char const *psz : {"x", "y"}) { // without a number: each would be heard again and again
        ws::sendto(m_probe.socket, psz, 1, 0, reinterpret_cast<sockaddr *>(&self), sizeof self);
        EXPECT_EQ(m_client.Wait(1), Lines{std::string("0 7 0 0 [") + psz + "] [127.0.0.1]"});
    }
}

// The first sender has a name, the second one mostly none.
TEST_F(AgentTest, ASendersNameIsItsOwn)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "has one loopback address";
    }
    Connect(1);
    auto const NameOf = [](DWORD dwAddress) -> std::string {
        hostent const *const pEntry =
            ws::gethostbyaddr(reinterpret_cast<char const *>(&dwAddress), 4, AF_INET);
        return pEntry != nullptr ? pEntry->h_name : "";
    };
    for (char const *pszSender : {"127.0.0.1", "127.0.0.99"}) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = ws::inet_addr(pszSender);
        NameOf(address.sin_addr.s_addr); // a look-up that takes its time is given up: for now
        SOCKET const s = ws::socket(AF_INET, SOCK_DGRAM, 0);
        EXPECT_EQ(ws::bind(s, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        address.sin_addr.s_addr = ws::inet_addr("127.0.0.1");
        address.sin_port = ws::htons(m_probe.wPort);
        ws::sendto(s, "x", 1, 0, reinterpret_cast<sockaddr *>(&address), sizeof address);
        ws::closesocket(s);
        EXPECT_EQ(m_client.Wait(1), Lines{std::string("0 7 0 0 [x] [") + pszSender + "]"});
        EXPECT_EQ(m_client.m_strSenderName, NameOf(ws::inet_addr(pszSender)));
    }
}

TEST_F(AgentTest, WhatTheQueueDoesNotTakeIsReleased)
{
    Connect(0);
    DWORD const cMemory = g_cMemory;
    CNode none;
    none.m_pData = nullptr; // no message is no call
    EXPECT_EQ(m_probe.pCallbackQThread.load()->ProcessEntry(&none, nullptr, 0), 0u);
    m_probe.pCallbackQThread.load()->Stop();
    Post(m_probe, 4, 0);
    EXPECT_EQ(g_cMemory, cMemory);
    CNotifyAgent silent(nullptr, 0); // its messages come and go, and nothing else happens
    ASSERT_EQ(silent.Init("a", 1, 0), 0u);
    m_script.Push(7, "\6");
    EXPECT_EQ(silent.ReadTraps(), 0u);
    EXPECT_EQ(silent.Shutdown(), 0u);
}

} // namespace
