#include "platform/posix/network/transfer.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>

namespace {

constexpr int kMaxIcmpRetries = 16; // errors of earlier datagrams that one call swallows

// Runs transfer(flags) until it gives something else than "interrupted", or, with a time-out, until the
// time is up. With a time-out the transfer itself never blocks: another thread may have taken what poll
// has seen.
template <typename Transfer>
ssize_t Transact(CSocketSlot const &socket, short nEvents, DWORD dwTimeout, Transfer transfer)
{
    if (dwTimeout == 0) {
        ssize_t n;
        do {
            n = transfer(0);
        } while (n < 0 && errno == EINTR);
        return n < 0 ? SocketFailAs(socket, errno) : n;
    }
    CSocketDeadline const deadline(dwTimeout);
    for (;;) {
        int const nReady = SocketPollUntil(socket, nEvents, deadline);
        if (nReady <= 0) {
            return nReady < 0 ? SOCKET_ERROR : SocketFail(WSAETIMEDOUT);
        }
        ssize_t const n = transfer(MSG_DONTWAIT);
        if (n >= 0) {
            return n;
        }
        if (errno != EINTR && errno != EAGAIN) {
            return SocketFailAs(socket, errno);
        }
    }
}

bool IsBuffer(char const *pBuffer, int cbBuffer)
{
    bool const bGood = cbBuffer >= 0 && (pBuffer != nullptr || cbBuffer == 0);
    if (!bGood) {
        SocketFail(WSAEFAULT);
    }
    return bGood;
}

// A datagram socket that is connected hears of datagrams that found no receiver. That is no failure of
// the present call.
template <typename Transfer>
ssize_t IgnoringIcmp(Transfer transfer)
{
    ssize_t n = transfer();
    for (int i = 0; n < 0 && errno == ECONNREFUSED && i < kMaxIcmpRetries; ++i) {
        n = transfer();
    }
    return n;
}

int SendStream(CSocketSlot const &socket, char const *pBuffer, int cbBuffer)
{
    int cbDone = 0;
    do {
        ssize_t const n = Transact(socket, POLLOUT, socket.dwSendTimeout.load(), [&](int nMore) {
            return ::send(socket.fd, pBuffer + cbDone, static_cast<std::size_t>(cbBuffer - cbDone),
                          MSG_NOSIGNAL | nMore);
        });
        if (n < 0) {
            return cbDone > 0 ? cbDone : SOCKET_ERROR; // the next call tells the reason
        }
        cbDone += static_cast<int>(n);
    } while (cbDone < cbBuffer);
    return cbDone;
}

int SendDatagram(CSocketSlot &socket, char const *pBuffer, int cbBuffer, sockaddr const *pTo)
{
    socklen_t const cbTo = pTo != nullptr ? sizeof(sockaddr_in) : 0;
    ssize_t const n = Transact(socket, POLLOUT, socket.dwSendTimeout.load(), [&](int nMore) {
        return IgnoringIcmp([&] {
            return ::sendto(socket.fd, pBuffer, static_cast<std::size_t>(cbBuffer),
                            MSG_NOSIGNAL | nMore, pTo, cbTo);
        });
    });
    if (n >= 0) {
        socket.bBound = true; // the first datagram gives the socket a port
    }
    return static_cast<int>(n);
}

void SetBlocking(CSocketSlot const &socket, bool bBlocking)
{
    int const nFlags = ::fcntl(socket.fd, F_GETFL);
    ::fcntl(socket.fd, F_SETFL, bBlocking ? nFlags & ~O_NONBLOCK : nFlags | O_NONBLOCK);
}

// How an attempt has ended.
int ConnectionError(CSocketSlot const &socket)
{
    int nError = 0;
    socklen_t cb = sizeof(nError);
    ::getsockopt(socket.fd, SOL_SOCKET, SO_ERROR, &nError, &cb);
    return nError != 0 ? SocketFailAs(socket, nError) : 0;
}

// The attempt is on its way: waits for its end. A close that came before the attempt has shut down
// nothing, so its mark is looked at here, after the start; one that comes later ends the wait.
int AwaitConnection(CSocketSlot const &socket, CSocketDeadline const &deadline)
{
    if (socket.IsClosing()) {
        return SocketFail(WSAEINTR);
    }
    int const nReady = SocketPollUntil(socket, POLLOUT, deadline);
    if (nReady <= 0) {
        return nReady < 0 ? SOCKET_ERROR : SocketFail(WSAETIMEDOUT);
    }
    return ConnectionError(socket);
}

} // namespace

int SocketPollUntil(CSocketSlot const &socket, short nEvents, CSocketDeadline const &deadline)
{
    for (;;) {
        pollfd entry = {socket.fd, nEvents, 0};
        int const nMilliseconds = deadline.Remaining();
        int const nResult = ::poll(&entry, 1, nMilliseconds);
        if (socket.IsClosing()) {
            return SocketFail(WSAEINTR);
        }
        if (nResult > 0) {
            return 1;
        }
        if (nResult < 0 && errno != EINTR) {
            return SocketFailAs(socket, errno);
        }
        if (nResult == 0 && nMilliseconds == 0) {
            return 0;
        }
    }
}

bool SocketIsAddress(sockaddr const *pAddress, int cbAddress)
{
    if (pAddress == nullptr || cbAddress < static_cast<int>(sizeof(sockaddr_in))) {
        SocketFail(WSAEFAULT);
        return false;
    }
    if (pAddress->sa_family != AF_INET) {
        SocketFail(WSAEAFNOSUPPORT);
        return false;
    }
    return true;
}

bool SocketIsAddressPlace(sockaddr const *pAddress, int const *pcbAddress)
{
    bool const bGood =
        pAddress == nullptr ||
        (pcbAddress != nullptr && *pcbAddress >= static_cast<int>(sizeof(sockaddr_in)));
    if (!bGood) {
        SocketFail(WSAEFAULT);
    }
    return bGood;
}

int SocketReceive(SOCKET s, char *pBuffer, int cbBuffer, int nFlags, sockaddr *pFrom, int *pcbFrom)
{
    CSocketUse const use(s);
    if (!use || !IsBuffer(pBuffer, cbBuffer) || !SocketIsAddressPlace(pFrom, pcbFrom)) {
        return SOCKET_ERROR;
    }
    if ((nFlags & ~MSG_PEEK) != 0) {
        return SocketFail(WSAEOPNOTSUPP);
    }
    if (!use->IsStream() && !use->bBound.load()) {
        return SocketFail(WSAEINVAL); // nothing can come, ever
    }
    bool const bWantFrom = pFrom != nullptr && !use->IsStream();
    socklen_t cbFrom = sizeof(sockaddr_in);
    auto const receive = [&](int nMore) {
        cbFrom = sizeof(sockaddr_in);
        return ::recvfrom(use->fd, pBuffer, static_cast<std::size_t>(cbBuffer), nFlags | nMore,
                          bWantFrom ? pFrom : nullptr, bWantFrom ? &cbFrom : nullptr);
    };
    ssize_t const n = Transact(*use, POLLIN, use->dwRecvTimeout.load(), [&](int nMore) {
        return use->IsStream() ? receive(nMore) : IgnoringIcmp([&] { return receive(nMore); });
    });
    if (n == 0 && use->IsClosing()) {
        return SocketFail(
            WSAEINTR); // woken by the close: neither the end of a stream nor an empty datagram
    }
    if (n >= 0 && bWantFrom) {
        *pcbFrom = static_cast<int>(cbFrom);
    }
    return static_cast<int>(n);
}

int SocketSend(SOCKET s, char const *pBuffer, int cbBuffer, int nFlags, sockaddr const *pTo,
               int cbTo)
{
    CSocketUse const use(s);
    if (!use || !IsBuffer(pBuffer, cbBuffer)) {
        return SOCKET_ERROR;
    }
    if (nFlags != 0) {
        return SocketFail(WSAEOPNOTSUPP);
    }
    if (use->IsStream()) {
        return SendStream(*use, pBuffer, cbBuffer);
    }
    if (pTo != nullptr && !SocketIsAddress(pTo, cbTo)) {
        return SOCKET_ERROR;
    }
    return SendDatagram(*use, pBuffer, cbBuffer, pTo);
}

int SocketConnect(CSocketSlot const &socket, sockaddr const *pAddress, DWORD dwMilliseconds)
{
    CSocketDeadline const deadline(dwMilliseconds);
    SetBlocking(socket, false);
    int nResult = ::connect(socket.fd, pAddress, sizeof(sockaddr_in));
    if (nResult != 0) {
        nResult =
            errno == EINPROGRESS ? AwaitConnection(socket, deadline) : SocketFailAs(socket, errno);
    }
    SetBlocking(socket, true);
    return nResult;
}

int SocketConnectBegin(CSocketSlot const &socket, sockaddr const *pAddress)
{
    SetBlocking(socket, false);
    if (::connect(socket.fd, pAddress, sizeof(sockaddr_in)) != 0 && errno != EINPROGRESS) {
        return SocketFailAs(socket, errno);
    }
    return socket.IsClosing() ? SocketFail(WSAEINTR) : 0; // as in AwaitConnection
}

int SocketConnectEnd(CSocketSlot const &socket)
{
    int const nReady = SocketPollUntil(socket, POLLOUT, CSocketDeadline(0));
    if (nReady <= 0) {
        return nReady < 0 ? SOCKET_ERROR : SocketFail(WSAEWOULDBLOCK);
    }
    int const nResult = ConnectionError(socket);
    SetBlocking(socket, true);
    return nResult;
}
