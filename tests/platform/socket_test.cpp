#include "platform/common/namecache.h"
#include "platform/runtime.h"
#include "platform/socket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <list>
#include <string>
#include <thread>
#include <vector>

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
    explicit CSocket(SOCKET s) : m_s(s) { EXPECT_NE(s, INVALID_SOCKET) << ws::WSAGetLastError(); }
    explicit CSocket(int nType) : CSocket(ws::socket(AF_INET, nType, 0)) {}
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
    std::string Receive(std::size_t cb = 2000) const
    {
        if (PlatSocketWait(m_s, false, kLimit) != 1) {
            return "[nothing came]";
        }
        std::string str(cb, '#');
        int const n = ws::recvfrom(m_s, str.data(), static_cast<int>(cb), 0, nullptr, nullptr);
        return n < 0 ? "[error " + std::to_string(ws::WSAGetLastError()) + "]"
                     : str.substr(0, static_cast<std::size_t>(n));
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

// A call's result with the last error poisoned before: 0, or the error.
int ErrorOf(std::function<bool()> const &fnFails)
{
    ws::WSASetLastError(4711);
    return fnFails() ? ws::WSAGetLastError() : 0;
}

#define EXPECT_FAILS(nError, failure) EXPECT_EQ(ErrorOf([&] { return failure; }), nError)

} // namespace

TEST_F(Sockets, WhatIsNoOpenSocketIsRefusedByEveryCall)
{
    CSocket closed(SOCK_STREAM);
    SOCKET const stale = closed;
    closed.Close();
    sockaddr_in address = Loopback(9);
    char ch = 0;
    int const n = sizeof(address);
    for (SOCKET const s : {INVALID_SOCKET, SOCKET{0}, stale, SOCKET{0x7ffffffc}, stale + 1}) {
        EXPECT_FAILS(WSAENOTSOCK, ws::accept(s, nullptr, nullptr) == INVALID_SOCKET);
        EXPECT_FAILS(WSAENOTSOCK, PlatConnect(s, At(address), n, 0) < 0);
        EXPECT_FAILS(WSAENOTSOCK, ws::recvfrom(s, &ch, 1, 0, nullptr, nullptr) < 0);
        EXPECT_FAILS(WSAENOTSOCK, ws::send(s, &ch, 1, 0) < 0);
        EXPECT_FAILS(WSAENOTSOCK, ws::sendto(s, &ch, 1, 0, At(address), n) < 0);
        EXPECT_FAILS(WSAENOTSOCK, PlatSocketWait(s, false, 0) < 0);
        EXPECT_FAILS(WSAENOTSOCK, ws::closesocket(s) < 0);
    }
    for (int i = 0; i < 5000 && kIsPosix; ++i) { // Windows gives a number again at once
        CSocket const other(SOCK_DGRAM);
        ASSERT_NE(ws::closesocket(stale), 0);
    }
}

TEST_F(Sockets, WhatCannotBeDoneIsRefusedAtOnce)
{
    CSocket datagram(SOCK_DGRAM), stream(SOCK_STREAM), listener(SOCK_STREAM);
    sockaddr_in taken = listener.Bind();
    EXPECT_EQ(ws::listen(listener, 1), 0);
    char ch = 0;
    EXPECT_FAILS(WSAEADDRINUSE, ws::bind(stream, At(taken), sizeof(taken)) < 0);
    EXPECT_FAILS(WSAENOTCONN, ws::recv(stream, &ch, 1, 0) < 0);
    EXPECT_FAILS(WSAEMSGSIZE, datagram.SendTo(taken, std::string(70'000, 'x')) < 0);
    if (kIsPosix) { // documented for Windows too, but Wine has other answers, or none
        CSocket fresh(SOCK_DGRAM);
        // A socket without a port can never get anything: it says so instead of waiting.
        EXPECT_FAILS(WSAEINVAL, ws::recv(fresh, &ch, 1, 0) < 0);
        EXPECT_FAILS(WSAENOTCONN, ws::send(stream, &ch, 1, 0) < 0);
    }
}

TEST_F(Sockets, DatagramsCarryTheirSenderAndTheirLength)
{
    CSocket receiver(SOCK_DGRAM), sender(SOCK_DGRAM);
    sockaddr_in const to = receiver.Bind();
    sockaddr_in const from = sender.Bind();
    char ab[350] = {};
    sockaddr_in seen{};
    int cb = sizeof(seen);
    EXPECT_EQ(sender.SendTo(to, "hello"), 5);
    ASSERT_EQ(ws::recvfrom(receiver, ab, 349, 0, At(seen), &cb), 5);
    EXPECT_EQ(std::string(ab), "hello");
    EXPECT_EQ(std::memcmp(&seen, &from, sizeof(from)), 0);
    EXPECT_EQ(sender.SendTo(to, ""), 0);
    EXPECT_EQ(sender.SendTo(to, "0123456789"), 10);
    EXPECT_EQ(sender.SendTo(to, "next"), 4);
    EXPECT_EQ(receiver.Receive(), "");
    EXPECT_EQ(receiver.Receive(4), "0123"); // cut, and what was cut off is gone
    EXPECT_EQ(receiver.Receive(), "next");
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

TEST_F(Sockets, WaitsEndWithTheirTime)
{
    CSocket receiver(SOCK_DGRAM), sender(SOCK_DGRAM);
    sockaddr_in const to = receiver.Bind();
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(PlatSocketWait(receiver, false, 0), 0);
    EXPECT_EQ(PlatSocketWait(receiver, false, 60), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(55));
    EXPECT_EQ(PlatSocketWait(receiver, true, 0), 1);
    sender.SendTo(to, "x");
    EXPECT_EQ(PlatSocketWait(receiver, false, INFINITE), 1);
    EXPECT_EQ(receiver.Receive(), "x");
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
        nError = ErrorOf([&] { return PlatConnect(s, At(address), sizeof(address), 100) != 0; });
    }
    EXPECT_EQ(nError, WSAETIMEDOUT);
    for (int i = 0; i < 50; ++i) {
        CSocket socket(SOCK_STREAM);
        CloseUnder(socket,
                   [&](SOCKET s) { return ws::connect(s, At(address), sizeof(address)) != 0; });
    }
    listener.Close();
    CSocket refused(SOCK_STREAM);
    EXPECT_FAILS(WSAECONNREFUSED, PlatConnect(refused, At(address), sizeof(address), kLimit) != 0);
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

// ---- Streams

TEST_F(Sockets, AStreamCarriesEverythingAndTellsItsEnd)
{
    CStreamPair pair;
    std::string strSent(5'000'000, ' ');
    for (std::size_t i = 0; i < strSent.size(); ++i) {
        strSent[i] = static_cast<char>(i * 31 >> 3);
    }
    std::thread sender([&] {
        EXPECT_EQ(ws::send(pair.one, strSent.data(), static_cast<int>(strSent.size()), 0),
                  5'000'000);
        EXPECT_EQ(ws::shutdown(pair.one, 1), 0);
        EXPECT_FAILS(WSAESHUTDOWN, ws::send(pair.one, "x", 1, 0) < 0);
    });
    std::string strGot;
    char ab[10'000];
    int n;
    while ((n = ws::recv(pair.other, ab, sizeof(ab), 0)) > 0) {
        strGot.append(ab, static_cast<std::size_t>(n));
    }
    sender.join();
    EXPECT_EQ(n, 0);
    EXPECT_TRUE(strGot == strSent);
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
    EXPECT_FAILS(kIsPosix ? WSAECONNRESET : 0, ws::recv(pair.one, &ch, 1, 0) < 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_LT(ws::send(pair.one, &ch, 1, 0), 0);
    }
}

// ---- Names

TEST_F(Sockets, TheOwnNameGivesAddressesThatAPeerCanReach)
{
    char szName[256];
    ASSERT_EQ(ws::gethostname(szName, sizeof(szName)), 0);
    hostent const *const pHost = ws::gethostbyname(szName);
    ASSERT_NE(pHost, nullptr);
    ASSERT_EQ(pHost->h_length, 4);
    std::vector<sockaddr_in> own;
    for (char **pp = pHost->h_addr_list; *pp != nullptr; ++pp) {
        own.push_back(Loopback());
        std::memcpy(&own.back().sin_addr, *pp, 4);
    }
    ASSERT_FALSE(own.empty());
    auto const cLoopback = std::ranges::count_if(
        own, [](sockaddr_in const &a) { return ws::ntohl(a.sin_addr.s_addr) >> 24 == 127; });
    EXPECT_TRUE(cLoopback == 0 || cLoopback == std::ssize(own));
    if (!kIsPosix && cLoopback != 0) {
        GTEST_SKIP() << "Wine without /proc does not see the interfaces";
    }
    // The first is where a datagram to the outside would leave from, if there is a way out.
    CSocket route(SOCK_DGRAM);
    sockaddr_in address = Loopback(9);
    address.sin_addr.s_addr = ws::inet_addr("198.51.100.1");
    int cb = sizeof(address);
    if (ws::connect(route, At(address), cb) == 0 && ws::getsockname(route, At(address), &cb) == 0) {
        EXPECT_EQ(own[0].sin_addr.s_addr, address.sin_addr.s_addr);
    }
}

TEST_F(Sockets, LookupsBelongToTheirThread)
{
    hostent const *const pHost = ws::gethostbyname("127.0.0.1");
    ASSERT_NE(pHost, nullptr);
    std::thread([] { EXPECT_NE(ws::gethostbyname("127.9.9.9"), nullptr); }).join();
    in_addr first;
    std::memcpy(&first, pHost->h_addr_list[0], 4);
    EXPECT_STREQ(ws::inet_ntoa(first), "127.0.0.1");
    EXPECT_EQ(pHost->h_addr_list[1], nullptr);
    EXPECT_TRUE(ws::gethostbyname("no such..name") == nullptr);
    EXPECT_TRUE(ws::gethostbyaddr("abcd", 2, AF_INET) == nullptr);
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
