#include "platform/common/namelookup.h"
#include "platform/runtime.h"
#include "platform/socket.h"
#include "platform/socketset.h"
#include "tests/support/guards.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <list>
#include <string>
#include <thread>
#include <utility>

namespace {

constexpr DWORD kLimit = 20'000; // milliseconds: only a broken build needs them

sockaddr_in Loopback(unsigned short nPort = 0)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = ws::htons(nPort);
    address.sin_addr.s_addr = ws::inet_addr("127.0.0.1");
    return address;
}

sockaddr *At(sockaddr_in &address)
{
    return reinterpret_cast<sockaddr *>(&address);
}

class CSocket {
public:
    explicit CSocket(int nType) : m_s(ws::socket(AF_INET, nType, 0))
    {
        EXPECT_NE(m_s, INVALID_SOCKET) << ws::WSAGetLastError();
    }
    ~CSocket() { Close(); }
    CSocket(CSocket const &) = delete;
    CSocket &operator=(CSocket const &) = delete;

    operator SOCKET() const { return m_s; }
    void Close()
    {
        if (m_s != INVALID_SOCKET) {
            EXPECT_EQ(ws::closesocket(m_s), 0);
        }
        m_s = INVALID_SOCKET;
    }

    // Binds to a port of the system's choice on the loopback interface; the address that came of it.
    sockaddr_in Bind()
    {
        sockaddr_in address = Loopback();
        EXPECT_EQ(ws::bind(m_s, At(address), sizeof(address)), 0) << ws::WSAGetLastError();
        int cb = sizeof(address);
        EXPECT_EQ(ws::getsockname(m_s, At(address), &cb), 0);
        return address;
    }

    int SendTo(sockaddr_in address, std::string const &str) const
    {
        return ws::sendto(m_s, str.data(), static_cast<int>(str.size()), 0, At(address),
                          sizeof(address));
    }

    // One datagram, or a text in brackets that tells what came instead.
    std::string Receive() const
    {
        if (PlatSocketWait(m_s, false, kLimit) != 1) {
            return "[nothing came]";
        }
        char ab[100];
        int const n = ws::recvfrom(m_s, ab, sizeof ab, 0, nullptr, nullptr);
        return n < 0 ? "[error]" : std::string(ab, static_cast<std::size_t>(n));
    }

private:
    SOCKET m_s;
};

class Sockets : public testing::Test {
protected:
    void SetUp() override
    {
        WSADATA data;
        ASSERT_EQ(ws::WSAStartup(0x0101, &data), 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(PlatLiveSockets(), 0u);
        EXPECT_EQ(ws::WSACleanup(), 0);
    }
};

// The error of a call that fails, else 0.
int ErrorOf(bool fFails)
{
    return fFails ? ws::WSAGetLastError() : 0;
}

} // namespace

TEST_F(Sockets, AClosedSocketIsNoOtherOne)
{
    CSocket closed(SOCK_STREAM);
    SOCKET const stale = closed;
    closed.Close();
    char ch = 0;
    for (SOCKET const s : {INVALID_SOCKET, SOCKET{0}, stale}) {
        EXPECT_EQ(ErrorOf(ws::recvfrom(s, &ch, 1, 0, nullptr, nullptr) < 0), WSAENOTSOCK);
        EXPECT_EQ(ErrorOf(ws::send(s, &ch, 1, 0) < 0), WSAENOTSOCK);
        EXPECT_EQ(ErrorOf(ws::closesocket(s) < 0), WSAENOTSOCK);
    }
    for (int i = 0; i < 5000 && kIsPosix; ++i) { // Windows gives a number again at once
        CSocket const other(SOCK_DGRAM);
        ASSERT_NE(ws::closesocket(stale), 0);
    }
}

TEST_F(Sockets, AsManyAsTheUserMayHave)
{
    PlatRaiseSocketLimit();
    std::list<CSocket> sockets;
    std::size_t c = 0;
    for (; c < 6000; ++c) {
        SOCKET const s = ws::socket(AF_INET, SOCK_DGRAM, 0);
        if (s == INVALID_SOCKET) {
            break; // the user's own limit
        }
        ASSERT_EQ(ws::closesocket(s), 0);
        sockets.emplace_back(SOCK_DGRAM);
    }
    sockaddr_in const address = sockets.back().Bind(); // the last one is as good as the first
    EXPECT_EQ(ws::sendto(sockets.front(), "x", 1, 0, reinterpret_cast<sockaddr const *>(&address),
                         sizeof address),
              1);
    char ch = 0;
    EXPECT_EQ(ws::recv(sockets.back(), &ch, 1, 0), 1);
    EXPECT_GT(c, 200u);
}

TEST_F(Sockets, ADatagramThatFoundNobodyIsNoErrorOfTheNextCall)
{
    CSocket gone(SOCK_DGRAM), sender(SOCK_DGRAM), peer(SOCK_DGRAM);
    sockaddr_in const nobody = gone.Bind();
    gone.Close();
    sockaddr_in const own = sender.Bind();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(sender.SendTo(nobody, "x"), 1);
    }
    peer.SendTo(own, "heard");
    EXPECT_EQ(sender.Receive(), "heard");
}

// ---- Closing under other threads

namespace {

// Two stream sockets that are connected with each other.
struct CStreamPair {
    CStreamPair()
    {
        CSocket listener(SOCK_STREAM);
        sockaddr_in address = listener.Bind();
        EXPECT_EQ(ws::listen(listener, 1), 0);
        EXPECT_EQ(PlatConnect(one, At(address), sizeof(address), kLimit), 0);
        other = ws::accept(listener, nullptr, nullptr);
    }
    ~CStreamPair() { ws::closesocket(other); }
    CSocket one{SOCK_STREAM};
    SOCKET other = INVALID_SOCKET;
};

// Makes the call in a thread, closes the socket as it is about to block, and sees the call return: in
// time, with an error, again and again.
void CloseUnder(
    CSocket &socket, std::function<bool(SOCKET)> const &fnFails,
    std::function<void()> const &fnWhileItReturns = [] {})
{
    std::atomic<bool> bCalling = false;
    bool bFailed = false;
    int nError = 0;
    std::thread caller([&, s = SOCKET(socket)] {
        bCalling = true;
        bFailed = fnFails(s);
        nError = ws::WSAGetLastError();
    });
    while (!bCalling) {
        std::this_thread::yield();
    }
    socket.Close();
    fnWhileItReturns();
    caller.join(); // would not return if the wake-up were lost
    EXPECT_TRUE(bFailed);
    EXPECT_TRUE(!kIsPosix || nError == WSAEINTR || nError == WSAENOTSOCK) << nError;
}

bool ReceiveFails(SOCKET s)
{
    char ab[100];
    return ws::recvfrom(s, ab, sizeof(ab), 0, nullptr, nullptr) == SOCKET_ERROR;
}

} // namespace

TEST_F(Sockets, CloseWakesEveryKindOfWait)
{
    for (int i = 0; i < 100; ++i) {
        CSocket receiving(SOCK_DGRAM);
        receiving.Bind();
        CloseUnder(receiving, ReceiveFails);

        CSocket waiting(SOCK_DGRAM);
        waiting.Bind();
        CloseUnder(waiting, [](SOCKET s) {
            return PlatSocketWait(s, false, INFINITE) == SOCKET_ERROR || !kIsPosix;
        });

        CSocket listener(SOCK_STREAM);
        listener.Bind();
        EXPECT_EQ(ws::listen(listener, 1), 0);
        CloseUnder(listener,
                   [](SOCKET s) { return ws::accept(s, nullptr, nullptr) == INVALID_SOCKET; });

        CStreamPair reading;
        CloseUnder(reading.one, [](SOCKET s) {
            char ch;
            return ws::recv(s, &ch, 1, 0) < (kIsPosix ? 0 : 1); // Wine may call it the end
        });

        CStreamPair writing;
        CloseUnder(writing.one, [](SOCKET s) {
            std::string const str(1 << 16, 'x');
            while (ws::send(s, str.data(), static_cast<int>(str.size()), 0) >= 0) {
            }
            return true;
        });
    }
}

TEST_F(Sockets, AConnectionAttemptEndsWithItsTimeOrTheClose)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "a listener whose queue is full refuses there";
    }
    CSocket listener(SOCK_STREAM);
    sockaddr_in address = listener.Bind();
    ASSERT_EQ(ws::listen(listener, 0), 0);
    std::list<CSocket> queued;
    int nError = 0;
    for (int i = 0; i < 20 && nError == 0; ++i) { // until the queue is full
        SOCKET const s = queued.emplace_back(SOCK_STREAM);
        nError = ErrorOf(PlatConnect(s, At(address), sizeof(address), 100) != 0);
    }
    EXPECT_EQ(nError, WSAETIMEDOUT);
    for (int i = 0; i < 50; ++i) {
        CSocket socket(SOCK_STREAM);
        CloseUnder(socket,
                   [&](SOCKET s) { return ws::connect(s, At(address), sizeof(address)) != 0; });
    }
    listener.Close();
    CSocket refused(SOCK_STREAM);
    EXPECT_EQ(ErrorOf(PlatConnect(refused, At(address), sizeof(address), kLimit) != 0),
              WSAECONNREFUSED);
}

TEST_F(Sockets, AReceiverNeverGetsADatagramOfAnotherSocket)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "Windows gives a number again at once";
    }
    CSocket sender(SOCK_DGRAM);
    for (int i = 0; i < 500; ++i) {
        CSocket old(SOCK_DGRAM);
        old.Bind();
        CloseUnder(old, ReceiveFails, [&] {
            CSocket fresh(SOCK_DGRAM); // would get the number of the old one, were it free already
            sender.SendTo(fresh.Bind(), "mine");
            EXPECT_EQ(fresh.Receive(), "mine");
        });
    }
}

TEST_F(Sockets, APeerThatResetIsAnErrorAndNoSignal)
{
    CStreamPair pair;
    linger const reset{1, 0};
    ws::setsockopt(pair.other, SOL_SOCKET, SO_LINGER, reinterpret_cast<char const *>(&reset),
                   sizeof(reset));
    EXPECT_EQ(ws::closesocket(std::exchange(pair.other, INVALID_SOCKET)), 0);
    char ch = 0;
    // Wine lingers and ends the stream in order.
    EXPECT_EQ(ErrorOf(ws::recv(pair.one, &ch, 1, 0) < 0), kIsPosix ? WSAECONNRESET : 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_LT(ws::send(pair.one, &ch, 1, 0), 0);
    }
}

// ---- Names

// So that a device is told an address that it can reach.
TEST_F(Sockets, TheOwnNameGivesFirstTheAddressOfTheWayOut)
{
    char szName[256];
    ASSERT_EQ(ws::gethostname(szName, sizeof(szName)), 0);
    hostent const *const pHost = ws::gethostbyname(szName);
    ASSERT_NE(pHost, nullptr);
    in_addr first;
    std::memcpy(&first, pHost->h_addr_list[0], 4);
    CSocket route(SOCK_DGRAM);
    sockaddr_in address = Loopback(9);
    address.sin_addr.s_addr = ws::inet_addr("198.51.100.1");
    int cb = sizeof(address);
    if (ws::connect(route, At(address), cb) != 0 ||
        (!kIsPosix && ws::ntohl(first.s_addr) >> 24 == 127)) {
        GTEST_SKIP() << "no way out, or a Wine that does not see the interfaces";
    }
    EXPECT_EQ(ws::getsockname(route, At(address), &cb), 0);
    EXPECT_EQ(first.s_addr, address.sin_addr.s_addr);
}

TEST_F(Sockets, LookupsBelongToTheirThread)
{
    hostent const *const pHost = ws::gethostbyname("127.0.0.1");
    ASSERT_NE(pHost, nullptr);
    std::thread([] { EXPECT_NE(ws::gethostbyname("127.9.9.9"), nullptr); }).join();
    in_addr first;
    std::memcpy(&first, pHost->h_addr_list[0], 4);
    EXPECT_STREQ(ws::inet_ntoa(first), "127.0.0.1");
}

TEST(SocketNames, LookupsThatHangHoldUpNobodyForLong)
{
    static std::atomic<bool> s_fHangs{true};
    CNameLookup lookup(
        [](std::uint32_t dwAddress) -> CNameCache::CAnswer {
            EXPECT_TRUE(WaitFor([&] { return !s_fHangs || dwAddress == 99; }));
            return {"name", 0};
        },
        WSATRY_AGAIN);
    auto const tpStart = std::chrono::steady_clock::now();
    for (std::uint32_t dw = 1; dw <= 40; ++dw) {
        if (dw == 7) { // somebody else, whose name is there at once
            EXPECT_EQ(lookup.Find(99).strName, "name");
        }
        EXPECT_EQ(lookup.Find(dw / 2).nError, WSATRY_AGAIN);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - tpStart, std::chrono::seconds(3));
    s_fHangs = false;
    EXPECT_TRUE(WaitFor([&] { return lookup.Find(1).strName == "name"; }))
        << "the late answer is kept";
}

TEST(SocketNames, AnswersAreKeptForTheirTimeInABoundedTable)
{
    CNameCache cache;
    CNameCache::Time const start{};
    cache.Store(1, {"one", 0}, start);
    cache.Store(2, {"", WSANO_DATA}, start);
    auto const last = start + CNameCache::kLifetime - std::chrono::milliseconds(1);
    EXPECT_NE(cache.Find(1, last), nullptr);
    ASSERT_NE(cache.Find(2, last), nullptr); // "no name" is an answer too
    EXPECT_EQ(cache.Find(2, last)->nError, WSANO_DATA);
    EXPECT_EQ(cache.Find(1, start + CNameCache::kLifetime), nullptr);
    cache.Store(1, {"again", 0}, last); // now 2 is the one that is due first
    for (std::uint32_t dw = 100; dw < 100 + CNameCache::kEntries - 1; ++dw) {
        cache.Store(dw, {"other", 0}, last);
    }
    EXPECT_EQ(cache.Find(2, last), nullptr);
    ASSERT_NE(cache.Find(1, last), nullptr);
    EXPECT_EQ(cache.Find(1, last)->strName, "again");
}
