#pragma once
// A device that sends datagrams and waits for their echoes, against servers that echo.
//
// A server is a class with a Port(), ready when its constructor has returned.

#include "bench/bench.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

// A datagram socket at a free port of 127.0.0.1. Its receives end after a second: a lost datagram must not
// hang the run.
class CUdpSocket {
public:
    CUdpSocket() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = Local(0);
        timeval const second{1, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second);
        if (bind(m_fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            throw std::runtime_error("cannot bind a datagram socket");
        }
    }
    ~CUdpSocket() { close(m_fd); }
    CUdpSocket(CUdpSocket const &) = delete;
    CUdpSocket &operator=(CUdpSocket const &) = delete;
    int Fd() const { return m_fd; }
    std::uint16_t Port() const
    {
        sockaddr_in address{};
        socklen_t cb = sizeof address;
        getsockname(m_fd, reinterpret_cast<sockaddr *>(&address), &cb);
        return ntohs(address.sin_port);
    }
    static sockaddr_in Local(std::uint16_t wPort)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(wPort);
        return address;
    }

private:
    int const m_fd;
};

class CEchoDevice {
public:
    explicit CEchoDevice(std::uint16_t wPort)
    {
        sockaddr_in const address = CUdpSocket::Local(wPort);
        if (connect(m_socket.Fd(), reinterpret_cast<sockaddr const *>(&address), sizeof address) !=
            0) {
            throw std::runtime_error("cannot connect a datagram socket");
        }
    }
    void Send()
    {
        char sz[128];
        int const cb = std::snprintf(sz, sizeof sz,
                                     "Paper Archive;NETADDR=127.0.0.1:1037;SWINST=4711;KICKSEQ=%d;",
                                     ++m_nKick);
        m_cSent += send(m_socket.Fd(), sz, static_cast<std::size_t>(cb), 0) == cb;
    }
    bool Receive()
    {
        char ab[512];
        return recv(m_socket.Fd(), ab, sizeof ab, 0) > 0;
    }

private:
    CUdpSocket m_socket;
    int m_nKick = 0;
    int m_cSent = 0;
};

// One datagram outstanding, all on one core.
template <class Server>
void EchoBackToBack(benchmark::State &state)
{
    COneCore const core;
    Server server;
    CEchoDevice device(server.Port());
    for (auto _ : state) {
        device.Send();
        if (!device.Receive()) {
            state.SkipWithError("no echo");
        }
    }
}

// The same with a pause before each datagram, in which the server finishes what it does after its echo.
template <class Server>
void EchoPaced(benchmark::State &state)
{
    timespec const pause{0, 150'000};
    COneCore const core;
    Server server;
    CEchoDevice device(server.Port());
    CSamples samples(state);
    for (auto _ : state) {
        clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
        std::int64_t const nStart = NowNs();
        device.Send();
        if (!device.Receive()) {
            state.SkipWithError("no echo");
        }
        samples.Add(NowNs() - nStart);
    }
}

// As many as go: 16 outstanding.
template <class Server>
void EchoFlood(benchmark::State &state)
{
    constexpr int kcOutstanding = 16;
    Server server;
    CEchoDevice device(server.Port());
    for (int n = 0; n < kcOutstanding; ++n) {
        device.Send();
    }
    for (auto _ : state) {
        if (!device.Receive()) {
            state.SkipWithError("no echo");
        }
        device.Send();
    }
}

// Registers a server for all three rows.
template <class Server>
bool EchoPeer(std::string const &strWho)
{
    benchmark::RegisterBenchmark(("echo-back-to-back/" + strWho).c_str(), EchoBackToBack<Server>)
        ->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark(("echo-paced/" + strWho).c_str(), EchoPaced<Server>)
        ->UseManualTime();
    benchmark::RegisterBenchmark(("echo-flood/" + strWho).c_str(), EchoFlood<Server>)
        ->MinTime(0.2) // until the threads have found their cores
        ->MeasureProcessCPUTime()
        ->UseRealTime();
    return true;
}
