#include "platform/socket.h"
#include "platform/common/namelookup.h"

#include <cstring>
#include <mswsock.h>
#include <new>

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

// The time is up with nTimeout.
int AwaitConnection(SOCKET s, DWORD dwMilliseconds, int nTimeout)
{
    int const nReady = PlatSocketWait(s, /*bWrite=*/true, dwMilliseconds);
    if (nReady <= 0) {
        return nReady < 0 ? SOCKET_ERROR : Fail(nTimeout);
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

// The record of a reverse lookup. Plain data: nothing of it need be destroyed when a thread ends.
struct CNameRecord {
    hostent host;
    char szName[256];
    in_addr address;
    char *apAddresses[2];
    char *pNoAlias;
};

thread_local CNameRecord t_record;

hostent *FillRecord(std::string const &strName, in_addr address)
{
    CNameRecord &record = t_record;
    lstrcpynA(record.szName, strName.c_str(), sizeof(record.szName));
    record.address = address;
    record.apAddresses[0] = reinterpret_cast<char *>(&record.address);
    record.host = {record.szName, &record.pNoAlias, AF_INET, sizeof(in_addr), record.apAddresses};
    return &record.host;
}

// On a thread that may outlive whoever asked, and so with a start of its own.
CNameCache::CAnswer ResolveName(std::uint32_t dwAddress)
{
    WSADATA data;
    int const nError = WSAStartup(MAKEWORD(2, 2), &data);
    if (nError != 0) {
        return {{}, nError};
    }
    hostent const *const pHost =
        ::gethostbyaddr(reinterpret_cast<char const *>(&dwAddress), sizeof(dwAddress), AF_INET);
    CNameCache::CAnswer answer{{}, WSAGetLastError()};
    if (pHost != nullptr && pHost->h_name != nullptr) {
        answer = {pHost->h_name, 0};
    }
    WSACleanup();
    return answer;
}

} // namespace

namespace ws {

hostent *gethostbyaddr(char const *pAddress, int cbAddress, int nType)
{
    in_addr address;
    if (nType != AF_INET || pAddress == nullptr || cbAddress < static_cast<int>(sizeof(address))) {
        WSASetLastError(nType != AF_INET ? WSAEAFNOSUPPORT : WSAEFAULT);
        return nullptr;
    }
    std::memcpy(&address, pAddress, sizeof(address));
    try {
        static CNameLookup s_lookup(ResolveName, WSATRY_AGAIN);
        CNameCache::CAnswer const answer = s_lookup.Find(address.s_addr);
        if (!answer.strName.empty()) {
            return FillRecord(answer.strName, address);
        }
        WSASetLastError(answer.nError);
    } catch (std::bad_alloc const &) {
        WSASetLastError(WSAENOBUFS);
    }
    return nullptr;
}

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
        nResult = AwaitConnection(s, dwMilliseconds, WSAETIMEDOUT);
    }
    int const nError = nResult != 0 ? WSAGetLastError() : 0;
    (void)SetBlocking(s, true); // fails only for a socket that was closed meanwhile
    return nResult != 0 ? Fail(nError) : 0;
}

int PlatConnectBegin(SOCKET s, sockaddr const *pAddress, int cbAddress)
{
    bool const bBegun = SetBlocking(s, false) == 0 && (connect(s, pAddress, cbAddress) == 0 ||
                                                       WSAGetLastError() == WSAEWOULDBLOCK);
    return bBegun ? 0 : SOCKET_ERROR;
}

int PlatConnectEnd(SOCKET s)
{
    return AwaitConnection(s, 0, WSAEWOULDBLOCK) == 0 && SetBlocking(s, true) == 0 ? 0
                                                                                   : SOCKET_ERROR;
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
