#include "platform/socket.h"

#include "platform/posix/network/socketslot.h"
#include "platform/posix/network/transfer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>

namespace {

int SetTimeout(std::atomic<DWORD> &dwTimeout, char const *pValue, int cbValue)
{
    if (pValue == nullptr || cbValue < static_cast<int>(sizeof(DWORD))) {
        return SocketFail(WSAEFAULT);
    }
    DWORD dw = 0;
    std::memcpy(&dw, pValue, sizeof(dw));
    dwTimeout = dw;
    return 0;
}

bool IsKernelOption(int nLevel, int nOption)
{
    if (nLevel == IPPROTO_TCP) {
        return nOption == TCP_NODELAY;
    }
    return nLevel == SOL_SOCKET &&
           (nOption == SO_BROADCAST || nOption == SO_KEEPALIVE || nOption == SO_LINGER ||
            nOption == SO_RCVBUF || nOption == SO_REUSEADDR || nOption == SO_SNDBUF);
}

// Troubles of one connection that ended in the queue, not of the listening socket.
bool AcceptAgain(int nErrno)
{
    constexpr int kTroubles[] = {EINTR,  ECONNABORTED, EPROTO,    ENOPROTOOPT,  ENETDOWN,
                                 ENONET, ENETUNREACH,  EHOSTDOWN, EHOSTUNREACH, EOPNOTSUPP};
    return std::ranges::find(kTroubles, nErrno) != std::end(kTroubles);
}

template <typename GetName>
int NameOf(CSocketSlot const &socket, sockaddr *pAddress, int *pcbAddress, GetName getName)
{
    if (pAddress == nullptr || !SocketIsAddressPlace(pAddress, pcbAddress)) {
        return SocketFail(WSAEFAULT);
    }
    socklen_t cb = sizeof(sockaddr_in);
    if (getName(socket.fd, pAddress, &cb) != 0) {
        return SocketFailAs(socket, errno);
    }
    *pcbAddress = static_cast<int>(cb);
    return 0;
}

} // namespace

namespace ws {

int WSAStartup(WORD wVersion, WSADATA *pData)
{
    if (pData == nullptr) {
        return WSAEFAULT;
    }
    unsigned const nMajor = wVersion & 0xffu;
    unsigned const nMinor = wVersion >> 8;
    if (nMajor == 0) {
        return WSAVERNOTSUPPORTED;
    }
    constexpr WORD kHighest = 0x0202;
    bool const bKnown = (nMajor == 1 && nMinor <= 1) || (nMajor == 2 && nMinor <= 2);
    *pData = WSADATA{};
    pData->wVersion = bKnown ? wVersion : nMajor == 1 ? WORD{0x0101} : kHighest;
    pData->wHighVersion = kHighest;
    pData->iMaxSockets = static_cast<unsigned short>(std::min(kMaxSockets, 65535u));
    SocketsStart();
    return 0;
}

int WSACleanup()
{
    return SocketsEnd() ? 0 : SocketFail(WSANOTINITIALISED);
}

int WSAGetLastError()
{
    return static_cast<int>(GetLastError());
}

void WSASetLastError(int nError)
{
    SetLastError(static_cast<DWORD>(nError));
}

SOCKET socket(int nFamily, int nType, int nProtocol)
{
    int nError = 0;
    if (!SocketsAreStarted()) {
        return INVALID_SOCKET;
    }
    if (nFamily != AF_INET) {
        nError = WSAEAFNOSUPPORT;
    } else if (nType != SOCK_STREAM && nType != SOCK_DGRAM) {
        nError = WSAESOCKTNOSUPPORT;
    }
    int const fd = nError == 0 ? ::socket(nFamily, nType | SOCK_CLOEXEC, nProtocol) : -1;
    if (fd < 0) {
        SocketFail(nError != 0 ? nError : SocketErrorOf(errno));
        return INVALID_SOCKET;
    }
    return SocketOpenSlot(fd, nType, ESocketLink::eNEVER);
}

int closesocket(SOCKET s)
{
    std::uint64_t qwBefore = 0;
    CSocketSlot *const pSocket = SocketTakeUse(s, kSocketClosing, &qwBefore);
    if (pSocket == nullptr) {
        return SocketFail(WSAENOTSOCK);
    }
    if ((qwBefore & kSocketUses) != 0) {
        ::shutdown(pSocket->fd, SHUT_RDWR); // what it returns says nothing, see above
    }
    SocketGiveUse(*pSocket);
    return 0;
}

int bind(SOCKET s, sockaddr const *pAddress, int cbAddress)
{
    CSocketUse const use(s);
    if (!use || !SocketIsAddress(pAddress, cbAddress)) {
        return SOCKET_ERROR;
    }
    if (use->IsStream()) {
        int const nOn = 1; // Windows gives out the port of a connection that is only winding down
        ::setsockopt(use->fd, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn));
    }
    if (::bind(use->fd, pAddress, sizeof(sockaddr_in)) != 0) {
        return SocketFailAs(*use, errno);
    }
    use->bBound = true;
    return 0;
}

int listen(SOCKET s, int cBacklog)
{
    CSocketUse const use(s);
    if (!use) {
        return SOCKET_ERROR;
    }
    if (!use->bBound.load()) {
        return SocketFail(use->IsStream() ? WSAEINVAL : WSAEOPNOTSUPP);
    }
    return ::listen(use->fd, cBacklog) == 0 ? 0 : SocketFailAs(*use, errno);
}

SOCKET accept(SOCKET s, sockaddr *pAddress, int *pcbAddress)
{
    CSocketUse const use(s);
    if (!use || !SocketIsAddressPlace(pAddress, pcbAddress)) {
        return INVALID_SOCKET;
    }
    sockaddr_in from{};
    socklen_t cbFrom = sizeof(from);
    int fd;
    do {
        fd = ::accept4(use->fd, reinterpret_cast<sockaddr *>(&from), &cbFrom, SOCK_CLOEXEC);
    } while (fd < 0 && use->IsStream() && !use->IsClosing() && AcceptAgain(errno));
    if (fd < 0) {
        SocketFailAs(*use, errno);
        return INVALID_SOCKET;
    }
    if (pAddress != nullptr) {
        std::memcpy(pAddress, &from, sizeof(from));
        *pcbAddress = sizeof(from);
    }
    return SocketOpenSlot(fd, SOCK_STREAM, ESocketLink::eCONNECTED);
}

int connect(SOCKET s, sockaddr const *pAddress, int cbAddress)
{
    return PlatConnect(s, pAddress, cbAddress, INFINITE);
}

int getsockname(SOCKET s, sockaddr *pAddress, int *pcbAddress)
{
    CSocketUse const use(s);
    if (!use) {
        return SOCKET_ERROR;
    }
    if (!use->bBound.load()) {
        return SocketFail(WSAEINVAL);
    }
    return NameOf(*use, pAddress, pcbAddress, ::getsockname);
}

int getpeername(SOCKET s, sockaddr *pAddress, int *pcbAddress)
{
    CSocketUse const use(s);
    return use ? NameOf(*use, pAddress, pcbAddress, ::getpeername) : SOCKET_ERROR;
}

int shutdown(SOCKET s, int nHow)
{
    CSocketUse const use(s);
    if (!use) {
        return SOCKET_ERROR;
    }
    if (!use->IsStream()) {
        return SocketFail(
            WSAEOPNOTSUPP); // "shut down" on a datagram socket is this layer's own mark
    }
    if (nHow < SD_RECEIVE || nHow > SD_BOTH) {
        return SocketFail(WSAEINVAL);
    }
    if (::shutdown(use->fd, nHow) != 0) {
        return SocketFailAs(*use, errno);
    }
    if (nHow != SD_RECEIVE) {
        use->eState = ESocketLink::eSEND_SHUT;
    }
    return 0;
}

int setsockopt(SOCKET s, int nLevel, int nOption, char const *pValue, int cbValue)
{
    CSocketUse const use(s);
    if (!use) {
        return SOCKET_ERROR;
    }
    if (nLevel == SOL_SOCKET && nOption == SO_RCVTIMEO) {
        return SetTimeout(use->dwRecvTimeout, pValue, cbValue);
    }
    if (nLevel == SOL_SOCKET && nOption == SO_SNDTIMEO) {
        return SetTimeout(use->dwSendTimeout, pValue, cbValue);
    }
    if (!IsKernelOption(nLevel, nOption)) {
        return SocketFail(WSAENOPROTOOPT);
    }
    if (pValue == nullptr || cbValue < 0) {
        return SocketFail(WSAEFAULT);
    }
    int const n = ::setsockopt(use->fd, nLevel, nOption, pValue, static_cast<socklen_t>(cbValue));
    return n == 0 ? 0 : SocketFailAs(*use, errno);
}

int recv(SOCKET s, char *pBuffer, int cbBuffer, int nFlags)
{
    return SocketReceive(s, pBuffer, cbBuffer, nFlags, nullptr, nullptr);
}

int recvfrom(SOCKET s, char *pBuffer, int cbBuffer, int nFlags, sockaddr *pFrom, int *pcbFrom)
{
    return SocketReceive(s, pBuffer, cbBuffer, nFlags, pFrom, pcbFrom);
}

int send(SOCKET s, char const *pBuffer, int cbBuffer, int nFlags)
{
    return SocketSend(s, pBuffer, cbBuffer, nFlags, nullptr, 0);
}

int sendto(SOCKET s, char const *pBuffer, int cbBuffer, int nFlags, sockaddr const *pTo, int cbTo)
{
    return SocketSend(s, pBuffer, cbBuffer, nFlags, pTo, cbTo);
}

} // namespace ws

int PlatConnect(SOCKET s, sockaddr const *pAddress, int cbAddress, DWORD dwMilliseconds)
{
    CSocketUse const use(s);
    if (!use || !SocketIsAddress(pAddress, cbAddress)) {
        return SOCKET_ERROR;
    }
    int const nResult = use->IsStream() ? SocketConnect(*use, pAddress, dwMilliseconds)
                        : ::connect(use->fd, pAddress, sizeof(sockaddr_in)) == 0
                            ? 0
                            : SocketFailAs(*use, errno);
    if (nResult == 0) {
        use->bBound = true;
        use->eState = ESocketLink::eCONNECTED;
    }
    return nResult;
}

int PlatConnectBegin(SOCKET s, sockaddr const *pAddress, int cbAddress)
{
    CSocketUse const use(s);
    return use && SocketIsAddress(pAddress, cbAddress) ? SocketConnectBegin(*use, pAddress)
                                                       : SOCKET_ERROR;
}

int PlatConnectEnd(SOCKET s)
{
    CSocketUse const use(s);
    if (!use || SocketConnectEnd(*use) != 0) {
        return SOCKET_ERROR;
    }
    use->bBound = true;
    use->eState = ESocketLink::eCONNECTED;
    return 0;
}

int PlatSocketWait(SOCKET s, bool bWrite, DWORD dwMilliseconds)
{
    CSocketUse const use(s);
    return use ? SocketPollUntil(*use, bWrite ? POLLOUT : POLLIN, CSocketDeadline(dwMilliseconds))
               : SOCKET_ERROR;
}
