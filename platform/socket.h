#pragma once

/// @file
/// Sockets under Winsock's names, in the namespace `ws` since other systems have calls of the same
/// names with other types. The address records (`sockaddr_in`, `in_addr`, `hostent`) are the
/// system's own.
///
/// On POSIX a SOCKET is a slot number with a generation, never a descriptor: a stale, foreign or
/// invalid SOCKET fails with WSAENOTSOCK. One thread may close a socket while others are inside a
/// call on it.

#include "platform/base.h"
#include "platform/sync.h" // INFINITE

#ifdef _WIN32

#include <winsock2.h>
#include <ws2tcpip.h>

namespace ws {
using ::accept;
using ::bind;
using ::closesocket;
using ::connect;
using ::gethostbyname;
using ::gethostname;
using ::getpeername;
using ::getsockname;
using ::htonl;
using ::htons;
using ::inet_addr;
using ::inet_ntoa;
using ::listen;
using ::ntohl;
using ::ntohs;
using ::send;
using ::sendto;
using ::setsockopt;
using ::shutdown;
using ::WSACleanup;
using ::WSAGetLastError;
using ::WSASetLastError;
using ::WSAStartup;

/// @{
/// As Win32, except: what a stranger sends to a datagram socket is never an error. A datagram longer than
/// the buffer is cut to it, and one of our own that found no receiver is not reported to `recvfrom`.
SOCKET socket(int nFamily, int nType, int nProtocol);
int recv(SOCKET s, char *pBuffer, int cbBuffer, int nFlags);
int recvfrom(SOCKET s, char *pBuffer, int cbBuffer, int nFlags, sockaddr *pFrom, int *pcbFrom);
/// @}

/// As Win32, except: waits half a second at most, as on other systems below, and needs no start.
hostent *gethostbyaddr(char const *pAddress, int cbAddress, int nType);
} // namespace ws

#else

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

// Some C libraries define these as macros, which would take ws::htons apart.
#undef htonl
#undef htons
#undef ntohl
#undef ntohs

using SOCKET = UINT_PTR;
inline constexpr SOCKET INVALID_SOCKET = ~static_cast<SOCKET>(0);
inline constexpr int SOCKET_ERROR = -1;

inline constexpr int SD_RECEIVE = 0;
inline constexpr int SD_SEND = 1;
inline constexpr int SD_BOTH = 2;

inline constexpr int WSAEINTR = 10004;
inline constexpr int WSAEACCES = 10013;
inline constexpr int WSAEFAULT = 10014;
inline constexpr int WSAEINVAL = 10022;
inline constexpr int WSAEMFILE = 10024;
inline constexpr int WSAEWOULDBLOCK = 10035;
inline constexpr int WSAEINPROGRESS = 10036;
inline constexpr int WSAEALREADY = 10037;
inline constexpr int WSAENOTSOCK = 10038;
inline constexpr int WSAEDESTADDRREQ = 10039;
inline constexpr int WSAEMSGSIZE = 10040;
inline constexpr int WSAEPROTOTYPE = 10041;
inline constexpr int WSAENOPROTOOPT = 10042;
inline constexpr int WSAEPROTONOSUPPORT = 10043;
inline constexpr int WSAESOCKTNOSUPPORT = 10044;
inline constexpr int WSAEOPNOTSUPP = 10045;
inline constexpr int WSAEAFNOSUPPORT = 10047;
inline constexpr int WSAEADDRINUSE = 10048;
inline constexpr int WSAEADDRNOTAVAIL = 10049;
inline constexpr int WSAENETDOWN = 10050;
inline constexpr int WSAENETUNREACH = 10051;
inline constexpr int WSAENETRESET = 10052;
inline constexpr int WSAECONNABORTED = 10053;
inline constexpr int WSAECONNRESET = 10054;
inline constexpr int WSAENOBUFS = 10055;
inline constexpr int WSAEISCONN = 10056;
inline constexpr int WSAENOTCONN = 10057;
inline constexpr int WSAESHUTDOWN = 10058;
inline constexpr int WSAETIMEDOUT = 10060;
inline constexpr int WSAECONNREFUSED = 10061;
inline constexpr int WSAEHOSTUNREACH = 10065;
inline constexpr int WSAVERNOTSUPPORTED = 10092;
inline constexpr int WSANOTINITIALISED = 10093;
inline constexpr int WSAHOST_NOT_FOUND = 11001;
inline constexpr int WSATRY_AGAIN = 11002;
inline constexpr int WSANO_RECOVERY = 11003;
inline constexpr int WSANO_DATA = 11004;

struct WSADATA {
    WORD wVersion;
    WORD wHighVersion;
    char szDescription[257];
    char szSystemStatus[129];
    unsigned short iMaxSockets;
    unsigned short iMaxUdpDg;
    char *lpVendorInfo;
};

namespace ws {

// Every call may come from any thread. "Fails" means SOCKET_ERROR (INVALID_SOCKET, null) with the
// reason in WSAGetLastError, which is GetLastError of the thread. Calls while the library is not
// started fail with WSANOTINITIALISED. Lengths of addresses and buffers are in bytes.

/// @{
/// As Win32 for versions 1.0 to 2.2, except: the last WSACleanup closes no sockets; one that is
/// still open can then only be closed, and counts as a leak (PlatLiveSockets).
int WSAStartup(WORD wVersion, WSADATA *pData);
int WSACleanup();
int WSAGetLastError();
void WSASetLastError(int nError);
/// @}

/// As Win32, except: IPv4 stream and datagram sockets only. No child process inherits a socket.
SOCKET socket(int nFamily, int nType, int nProtocol);

/// As Win32, except: `closesocket` never waits. A thread that is blocked in a call on the socket
/// returns from it with WSAEINTR (a datagram that came in time is still delivered); one that comes
/// later gets WSAENOTSOCK. The port is free again when the last of them has left.
int closesocket(SOCKET s);

/// @{
/// As Win32; a stream socket may bind the port of a connection that has just ended.
int bind(SOCKET s, sockaddr const *pAddress, int cbAddress);
int listen(SOCKET s, int cBacklog);
SOCKET accept(SOCKET s, sockaddr *pAddress, int *pcbAddress);
int connect(SOCKET s, sockaddr const *pAddress, int cbAddress);
int getsockname(SOCKET s, sockaddr *pAddress, int *pcbAddress);
int getpeername(SOCKET s, sockaddr *pAddress, int *pcbAddress);
/// @}

/// As Win32, except: stream sockets only (WSAEOPNOTSUPP).
int shutdown(SOCKET s, int nHow);

/// As Win32, except: of level SOL_SOCKET only SO_BROADCAST, SO_KEEPALIVE, SO_LINGER, SO_RCVBUF,
/// SO_REUSEADDR, SO_SNDBUF, and the time-outs SO_RCVTIMEO and SO_SNDTIMEO (a DWORD of milliseconds,
/// 0 for none; an expired one is WSAETIMEDOUT); of IPPROTO_TCP only TCP_NODELAY; others
/// WSAENOPROTOOPT.
int setsockopt(SOCKET s, int nLevel, int nOption, char const *pValue, int cbValue);

/// @{
/// As Win32, except:
/// - a datagram longer than the buffer is cut to it and is no error, so that a stranger's oversized
///   datagram cannot look like the failure of a socket;
/// - a datagram that an earlier `sendto` could not deliver is never reported here.
/// nFlags: 0 or MSG_PEEK. No call raises a signal.
int recv(SOCKET s, char *pBuffer, int cbBuffer, int nFlags);
int recvfrom(SOCKET s, char *pBuffer, int cbBuffer, int nFlags, sockaddr *pFrom, int *pcbFrom);
/// @}

/// @{
/// As Win32: `send` on a blocking stream returns when all bytes are on their way or it fails.
/// nFlags: 0.
int send(SOCKET s, char const *pBuffer, int cbBuffer, int nFlags);
int sendto(SOCKET s, char const *pBuffer, int cbBuffer, int nFlags, sockaddr const *pTo, int cbTo);
/// @}

/// @{
/// As Win32. For the name of this host, `gethostbyname` gives the IPv4 addresses of its interfaces
/// that are up, that of the default route first, and a loopback address only when there is no other.
/// The record belongs to the calling thread and lives until its next lookup. `gethostbyaddr` takes
/// AF_INET only and keeps an answer, found or not, for 30 seconds. It waits for one for half a second at
/// most, and for less while others are waited for: what comes later fails with WSATRY_AGAIN, and is there for
/// the next who asks.
int gethostname(char *pszName, int cbName);
hostent *gethostbyname(char const *pszName);
hostent *gethostbyaddr(char const *pAddress, int cbAddress, int nType);
/// @}

/// As Win32; the text belongs to the calling thread and lives until its next call.
char *inet_ntoa(in_addr address);
DWORD inet_addr(char const *pszAddress); ///< network order; INADDR_NONE when it is no address

inline unsigned short htons(unsigned short n)
{
    return ::htons(n);
}
inline unsigned short ntohs(unsigned short n)
{
    return ::ntohs(n);
}
inline DWORD htonl(DWORD n)
{
    return ::htonl(n);
}
inline DWORD ntohl(DWORD n)
{
    return ::ntohl(n);
}

} // namespace ws

#endif

// ---- What Win32 has no short call for, on every system

/// Connects s, a new blocking stream socket, within dwMilliseconds (INFINITE: as long as the system
/// tries). 0, or SOCKET_ERROR with WSAGetLastError: WSAETIMEDOUT when the time was up, WSAEINTR when
/// s was closed meanwhile, else as `connect`. After a failure the socket is good for `closesocket`
/// only.
int PlatConnect(SOCKET s, sockaddr const *pAddress, int cbAddress, DWORD dwMilliseconds);

/// @{
/// The same in two steps, for who waits for many sockets. The first begins, and gives 0 when the attempt is on its
/// way or done already; s joins a set after it, and once it can be written, or shows something to read, the second
/// tells: 0 when s is connected, and blocks from here on, or SOCKET_ERROR with WSAGetLastError: WSAEWOULDBLOCK
/// while the attempt goes on, else as PlatConnect.
int PlatConnectBegin(SOCKET s, sockaddr const *pAddress, int cbAddress);
int PlatConnectEnd(SOCKET s);
/// @}

/// Waits until s can be read (a datagram, bytes, the end of the stream, or a connection to accept)
/// or, with bWrite, until it can be written. dwMilliseconds: 0 only asks, INFINITE has no limit. 1
/// when it can (also when the next call would fail at once), 0 when the time was up, SOCKET_ERROR
/// with WSAGetLastError otherwise: WSAEINTR or WSAENOTSOCK when s was closed meanwhile
/// (on Windows 1 as well, and the next call fails).
int PlatSocketWait(SOCKET s, bool bWrite, DWORD dwMilliseconds);

/// Sockets that are open in this process, for tests of leaks. Always 0 on Windows, which keeps no
/// count.
DWORD PlatLiveSockets();
