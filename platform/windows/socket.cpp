#include "platform/socket.h"

#include <mswsock.h>

#ifndef SIO_UDP_CONNRESET
#define SIO_UDP_CONNRESET _WSAIOW(IOC_VENDOR, 12)
#endif

namespace {

// A wait looks after the socket this often, in milliseconds: a close on another thread does not end a
// `select` on every version of the system.
constexpr DWORD kSlice = 200;

int Fail(int nError)
{
    WSASetLastError(nError);
    return SOCKET_ERROR;
}

// 1, 0 when the time was up, SOCKET_ERROR.
int SelectOnce(SOCKET s, bool bWrite, DWORD dwMilliseconds)
{
    fd_set ready;
    fd_set failed; // where a connection attempt that failed shows
    FD_ZERO(&ready);
    FD_ZERO(&failed);
    ready.fd_count = failed.fd_count = 1;
    ready.fd_array[0] = failed.fd_array[0] = s;
    timeval limit = {static_cast<long>(dwMilliseconds / 1000),
                     static_cast<long>(dwMilliseconds % 1000 * 1000)};
    int const n = select(0, bWrite ? nullptr : &ready, bWrite ? &ready : nullptr,
                         bWrite ? &failed : nullptr, &limit);
    return n > 0 ? 1 : n;
}

int AwaitConnection(SOCKET s, DWORD dwMilliseconds)
{
    int const nReady = PlatSocketWait(s, /*bWrite=*/true, dwMilliseconds);
    if (nReady <= 0) {
        return nReady < 0 ? SOCKET_ERROR : Fail(WSAETIMEDOUT);
    }
    int nError = 0;
    int cb = sizeof(nError);
    if (getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char *>(&nError), &cb) != 0) {
        return SOCKET_ERROR;
    }
    return nError != 0 ? Fail(nError) : 0;
}

int SetBlocking(SOCKET s, bool bBlocking)
{
    u_long nNonBlocking = bBlocking ? 0 : 1;
    return ioctlsocket(s, static_cast<long>(FIONBIO), &nNonBlocking);
}

} // namespace

namespace ws {

SOCKET socket(int nFamily, int nType, int nProtocol)
{
    SOCKET const s = ::socket(nFamily, nType, nProtocol);
    if (s != INVALID_SOCKET && nType == SOCK_DGRAM) {
        BOOL bReport = FALSE;
        DWORD cb = 0;
        // A system that does not know the switch does not report either.
        (void)WSAIoctl(s, SIO_UDP_CONNRESET, &bReport, sizeof(bReport), nullptr, 0, &cb, nullptr,
                       nullptr);
    }
    return s;
}

int recv(SOCKET s, char *pBuffer, int cbBuffer, int nFlags)
{
    int const n = ::recv(s, pBuffer, cbBuffer, nFlags);
    return n < 0 && WSAGetLastError() == WSAEMSGSIZE ? cbBuffer : n;
}

int recvfrom(SOCKET s, char *pBuffer, int cbBuffer, int nFlags, sockaddr *pFrom, int *pcbFrom)
{
    int const n = ::recvfrom(s, pBuffer, cbBuffer, nFlags, pFrom, pcbFrom);
    return n < 0 && WSAGetLastError() == WSAEMSGSIZE ? cbBuffer : n;
}

} // namespace ws

int PlatConnect(SOCKET s, sockaddr const *pAddress, int cbAddress, DWORD dwMilliseconds)
{
    if (SetBlocking(s, false) != 0) {
        return SOCKET_ERROR;
    }
    int nResult = connect(s, pAddress, cbAddress);
    if (nResult != 0 && WSAGetLastError() == WSAEWOULDBLOCK) {
        nResult = AwaitConnection(s, dwMilliseconds);
    }
    int const nError = nResult != 0 ? WSAGetLastError() : 0;
    (void)SetBlocking(s, true); // fails only for a socket that was closed meanwhile
    return nResult != 0 ? Fail(nError) : 0;
}

int PlatSocketWait(SOCKET s, bool bWrite, DWORD dwMilliseconds)
{
    ULONGLONG const qwEnd = GetTickCount64() + dwMilliseconds;
    for (;;) {
        ULONGLONG const qwNow = GetTickCount64();
        ULONGLONG const qwLeft = dwMilliseconds == INFINITE ? kSlice
                                 : qwNow < qwEnd            ? qwEnd - qwNow
                                                            : 0;
        DWORD const dwSlice = qwLeft < kSlice ? static_cast<DWORD>(qwLeft) : kSlice;
        int const nResult = SelectOnce(s, bWrite, dwSlice);
        if (nResult != 0 || qwLeft == 0) {
            return nResult;
        }
    }
}

DWORD PlatLiveSockets()
{
    return 0;
}
