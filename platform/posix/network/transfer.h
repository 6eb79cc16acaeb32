#pragma once

/// @file
/// What waits on a socket: receiving, sending, connecting, each with the time it may take.

#include "platform/posix/network/socketslot.h"

#include <chrono>
#include <limits>

/// The end of a wait, on the monotonic clock.
class CSocketDeadline {
public:
    /// dwMilliseconds from now; INFINITE for none.
    explicit CSocketDeadline(DWORD dwMilliseconds)
        : m_bInfinite(dwMilliseconds == INFINITE),
          m_end(std::chrono::steady_clock::now() +
                std::chrono::milliseconds(m_bInfinite ? 0 : dwMilliseconds))
    {
    }

    /// For poll: milliseconds left, rounded up, -1 for no limit.
    int Remaining() const
    {
        if (m_bInfinite) {
            return -1;
        }
        auto const left =
            std::chrono::ceil<std::chrono::milliseconds>(m_end - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return 0;
        }
        constexpr int kMost = std::numeric_limits<int>::max();
        return left.count() > kMost ? kMost : static_cast<int>(left.count());
    }

private:
    bool m_bInfinite;
    std::chrono::steady_clock::time_point m_end;
};

/// Waits for an event of poll's. @return 1 when it is there, 0 when the time is up, SOCKET_ERROR with the last error.
int SocketPollUntil(CSocketSlot const &socket, short nEvents, CSocketDeadline const &deadline);

/// @{
/// Whether an address is one of IPv4; whether there is a place for one, or none is wanted. False with the last
/// error.
bool SocketIsAddress(sockaddr const *pAddress, int cbAddress);
bool SocketIsAddressPlace(sockaddr const *pAddress, int const *pcbAddress);
/// @}

/// @{
/// As recvfrom and sendto; without an address as recv and send.
int SocketReceive(SOCKET s, char *pBuffer, int cbBuffer, int nFlags, sockaddr *pFrom, int *pcbFrom);
int SocketSend(SOCKET s, char const *pBuffer, int cbBuffer, int nFlags, sockaddr const *pTo,
               int cbTo);
/// @}

/// Connects a stream socket, within that time. @return 0, or SOCKET_ERROR with the last error.
int SocketConnect(CSocketSlot const &socket, sockaddr const *pAddress, DWORD dwMilliseconds);

/// @{
/// The same in two steps; the second fails with WSAEWOULDBLOCK while the attempt goes on.
int SocketConnectBegin(CSocketSlot const &socket, sockaddr const *pAddress);
int SocketConnectEnd(CSocketSlot const &socket);
/// @}
