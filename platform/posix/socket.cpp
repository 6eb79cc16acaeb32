#include "platform/socket.h"

#include "platform/posix/socketstate.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <mutex>
#include <poll.h>
#include <unistd.h>

// How a close meets the threads that are inside a call
//
// A call takes a use of the slot for its time, and the descriptor is closed by whoever gives back the last
// use after the slot was marked as closing; so the number can not come to mean another file under a thread
// that still has it in hand. closesocket marks the slot first and then shuts the socket down in both
// directions. The kernel keeps that state, also for a datagram socket that is not connected (where it
// reports ENOTCONN all the same): a receive that is blocked returns, and one that begins only now does not
// block. `connect` is the exception, since a connection attempt can begin after a shutdown; it looks at
// the mark once the attempt is on its way.

namespace {

constexpr unsigned kMaxSockets = 4096;
constexpr unsigned kIndexBits = 12;
constexpr unsigned kGenerationBits = 17; // with the two low bits of a SOCKET, all fits in 31 bits
constexpr unsigned kFreeReserve = 64;    // slots that rest before one of them is used again
constexpr int kMaxIcmpRetries = 16;      // errors of earlier datagrams that one call swallows

static_assert(1u << kIndexBits == kMaxSockets);

enum class eLink : int { eNEVER, eCONNECTED, eSEND_SHUT };

// The state word: generation in the high half; in the low half two marks and the number of uses.
constexpr std::uint64_t kClosing = std::uint64_t{1} << 31;
constexpr std::uint64_t kOpen = std::uint64_t{1} << 30;
constexpr std::uint64_t kUses = kOpen - 1;

struct CSocket {
    std::atomic<std::uint64_t> qwState{0};
    int fd = 0;    // constant while the slot is open, without meaning otherwise
    int nType = 0; // likewise: SOCK_STREAM or SOCK_DGRAM
    std::atomic<bool> bBound{false};
    std::atomic<eLink> eState{eLink::eNEVER};
    std::atomic<DWORD> dwRecvTimeout{0}; // milliseconds, 0 for none
    std::atomic<DWORD> dwSendTimeout{0};

    bool IsStream() const { return nType == SOCK_STREAM; }
    bool IsClosing() const { return (qwState.load() & kClosing) != 0; }
};

constinit std::array<CSocket, kMaxSockets> g_sockets{};
constinit std::atomic<DWORD> g_cLive{0};
constinit std::atomic<int> g_cStarts{0};

// The free slots. A slot that was closed waits behind others, so that a stale SOCKET is told from a new
// one for as long as possible. The mutex guards the four below it; nothing is called under it.
constinit std::mutex g_freeMutex;
constinit std::array<std::uint16_t, kMaxSockets> g_free{};
constinit unsigned g_nFirstFree = 0;
constinit unsigned g_cFree = 0;
constinit unsigned g_cTouched = 0; // slots from here on were never used

constexpr std::uint32_t kGenerationMask = (1u << kGenerationBits) - 1;

std::uint32_t Generation(std::uint64_t qwState)
{
    return static_cast<std::uint32_t>(qwState >> 32);
}

SOCKET MakeSocket(unsigned nIndex, std::uint32_t dwGeneration)
{
    return static_cast<SOCKET>((dwGeneration << kIndexBits | nIndex) << 2);
}

int Fail(int nError)
{
    SetLastError(static_cast<DWORD>(nError));
    return SOCKET_ERROR;
}

struct CErrorPair {
    int nErrno;
    int nError;
};

constexpr CErrorPair kErrors[] = {
    {EINTR, WSAEINTR},
    {EACCES, WSAEACCES},
    {EPERM, WSAEACCES},
    {EFAULT, WSAEFAULT},
    {EMFILE, WSAEMFILE},
    {ENFILE, WSAEMFILE},
    {EAGAIN, WSAEWOULDBLOCK},
    {EINPROGRESS, WSAEINPROGRESS},
    {EALREADY, WSAEALREADY},
    {EBADF, WSAENOTSOCK},
    {ENOTSOCK, WSAENOTSOCK},
    {EMSGSIZE, WSAEMSGSIZE},
    {EPROTOTYPE, WSAEPROTOTYPE},
    {ENOPROTOOPT, WSAENOPROTOOPT},
    {EPROTONOSUPPORT, WSAEPROTONOSUPPORT},
    {ESOCKTNOSUPPORT, WSAESOCKTNOSUPPORT},
    {EOPNOTSUPP, WSAEOPNOTSUPP},
    {EAFNOSUPPORT, WSAEAFNOSUPPORT},
    {EADDRINUSE, WSAEADDRINUSE},
    {EADDRNOTAVAIL, WSAEADDRNOTAVAIL},
    {ENETDOWN, WSAENETDOWN},
    {ENETUNREACH, WSAENETUNREACH},
    {ENETRESET, WSAENETRESET},
    {ECONNABORTED, WSAECONNABORTED},
    {ECONNRESET, WSAECONNRESET},
    {ENOBUFS, WSAENOBUFS},
    {ENOMEM, WSAENOBUFS},
    {EISCONN, WSAEISCONN},
    {EDESTADDRREQ, WSAENOTCONN}, // what Winsock says to a send without any address
    {ENOTCONN, WSAENOTCONN},
    {ESHUTDOWN, WSAESHUTDOWN},
    {ETIMEDOUT, WSAETIMEDOUT},
    {ECONNREFUSED, WSAECONNREFUSED},
    {EHOSTDOWN, WSAEHOSTUNREACH},
    {EHOSTUNREACH, WSAEHOSTUNREACH},
};

int ErrorOf(int nErrno)
{
    auto const p = std::ranges::find(kErrors, nErrno, &CErrorPair::nErrno);
    return p != std::end(kErrors) ? p->nError : WSAEINVAL;
}

// The kernel has one word, EPIPE, for three situations.
int BrokenPipe(CSocket const &socket)
{
    switch (socket.eState.load()) {
    case eLink::eNEVER:
        return WSAENOTCONN;
    case eLink::eSEND_SHUT:
        return WSAESHUTDOWN;
    default:
        return WSAECONNRESET;
    }
}

int FailAs(CSocket const &socket, int nErrno)
{
    if (socket.IsClosing()) {
        return Fail(WSAEINTR);
    }
    return Fail(nErrno == EPIPE ? BrokenPipe(socket) : ErrorOf(nErrno));
}

// ---- Slots

int TakeFreeIndex()
{
    std::lock_guard const lock(g_freeMutex);
    if (g_cTouched < kMaxSockets && g_cFree < kFreeReserve) {
        return static_cast<int>(g_cTouched++);
    }
    if (g_cFree == 0) {
        return -1;
    }
    unsigned const nIndex = g_free[g_nFirstFree];
    g_nFirstFree = (g_nFirstFree + 1) % kMaxSockets;
    --g_cFree;
    return static_cast<int>(nIndex);
}

void GiveFreeIndex(unsigned nIndex)
{
    std::lock_guard const lock(g_freeMutex);
    g_free[(g_nFirstFree + g_cFree++) % kMaxSockets] = static_cast<std::uint16_t>(nIndex);
}

// Takes ownership of fd, also when it fails.
SOCKET OpenSlot(int fd, int nType, eLink eState)
{
    int const nIndex = TakeFreeIndex();
    if (nIndex < 0) {
        ::close(fd);
        Fail(WSAEMFILE);
        return INVALID_SOCKET;
    }
    CSocket &socket = g_sockets[static_cast<unsigned>(nIndex)];
    socket.fd = fd;
    socket.nType = nType;
    socket.bBound = eState == eLink::eCONNECTED;
    socket.eState = eState;
    socket.dwRecvTimeout = 0;
    socket.dwSendTimeout = 0;
    std::uint32_t dwGeneration = (Generation(socket.qwState.load()) + 1) & kGenerationMask;
    dwGeneration += dwGeneration == 0 ? 1 : 0; // a SOCKET is never 0
    g_cLive.fetch_add(1);
    socket.qwState.store(std::uint64_t{dwGeneration} << 32 | kOpen);
    return MakeSocket(static_cast<unsigned>(nIndex), dwGeneration);
}

// The slot that s names, if s can name one; its generation comes out for the test under the state word.
CSocket *SlotOf(SOCKET s, std::uint32_t &dwGeneration)
{
    std::uint64_t const qw = s;
    dwGeneration = static_cast<std::uint32_t>(qw >> (kIndexBits + 2)) & kGenerationMask;
    bool const bWellFormed = (qw & 3) == 0 && qw >> (kIndexBits + kGenerationBits + 2) == 0;
    return bWellFormed ? &g_sockets[(qw >> 2) & (kMaxSockets - 1)] : nullptr;
}

// Takes one use and sets qwMarks, if s is open and nobody has begun to close it.
CSocket *TakeUse(SOCKET s, std::uint64_t qwMarks, std::uint64_t *pqwBefore = nullptr)
{
    std::uint32_t dwGeneration = 0;
    CSocket *const pSocket = SlotOf(s, dwGeneration);
    if (pSocket == nullptr) {
        return nullptr;
    }
    std::uint64_t qw = pSocket->qwState.load();
    do {
        if (Generation(qw) != dwGeneration || (qw & (kOpen | kClosing)) != kOpen) {
            return nullptr;
        }
    } while (!pSocket->qwState.compare_exchange_weak(qw, (qw + 1) | qwMarks));
    if (pqwBefore != nullptr) {
        *pqwBefore = qw;
    }
    return pSocket;
}

void GiveUse(CSocket &socket)
{
    std::uint64_t const qwBefore = socket.qwState.fetch_sub(1);
    if ((qwBefore & kClosing) == 0 || (qwBefore & kUses) != 1) {
        return;
    }
    ::close(socket.fd); // on Linux the number is free whatever it returns, EINTR included
    socket.qwState.store(qwBefore & ~(kOpen | kClosing | kUses));
    g_cLive.fetch_sub(1);
    GiveFreeIndex(static_cast<unsigned>(&socket - g_sockets.data()));
}

// A call's use of a socket. False, with the reason as last error, when there is none.
class CUse {
public:
    explicit CUse(SOCKET s)
    {
        if (!SocketsAreStarted()) {
            return;
        }
        m_pSocket = TakeUse(s, 0);
        if (m_pSocket == nullptr) {
            Fail(WSAENOTSOCK);
        }
    }
    ~CUse()
    {
        if (m_pSocket != nullptr) {
            GiveUse(*m_pSocket);
        }
    }
    CUse(CUse const &) = delete;
    CUse &operator=(CUse const &) = delete;

    explicit operator bool() const { return m_pSocket != nullptr; }
    CSocket &operator*() const { return *m_pSocket; }
    CSocket *operator->() const { return m_pSocket; }

private:
    CSocket *m_pSocket = nullptr;
};

// ---- Waiting

class CDeadline {
public:
    explicit CDeadline(DWORD dwMilliseconds)
        : m_bInfinite(dwMilliseconds == INFINITE),
          m_end(std::chrono::steady_clock::now() +
                std::chrono::milliseconds(m_bInfinite ? 0 : dwMilliseconds))
    {
    }

    // For poll: milliseconds left, rounded up, -1 for no limit.
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

// 1 when an event is there, 0 when the time is up, -1 with the last error.
int PollUntil(CSocket const &socket, short nEvents, CDeadline const &deadline)
{
    for (;;) {
        pollfd entry = {socket.fd, nEvents, 0};
        int const nMilliseconds = deadline.Remaining();
        int const nResult = ::poll(&entry, 1, nMilliseconds);
        if (socket.IsClosing()) {
            return Fail(WSAEINTR);
        }
        if (nResult > 0) {
            return 1;
        }
        if (nResult < 0 && errno != EINTR) {
            return FailAs(socket, errno);
        }
        if (nResult == 0 && nMilliseconds == 0) {
            return 0;
        }
    }
}

// Runs transfer(flags) until it gives something else than "interrupted", or, with a time-out, until the
// time is up. With a time-out the transfer itself never blocks: another thread may have taken what poll
// has seen.
template <typename Transfer>
ssize_t Transact(CSocket const &socket, short nEvents, DWORD dwTimeout, Transfer transfer)
{
    if (dwTimeout == 0) {
        ssize_t n;
        do {
            n = transfer(0);
        } while (n < 0 && errno == EINTR);
        return n < 0 ? FailAs(socket, errno) : n;
    }
    CDeadline const deadline(dwTimeout);
    for (;;) {
        int const nReady = PollUntil(socket, nEvents, deadline);
        if (nReady <= 0) {
            return nReady < 0 ? SOCKET_ERROR : Fail(WSAETIMEDOUT);
        }
        ssize_t const n = transfer(MSG_DONTWAIT);
        if (n >= 0) {
            return n;
        }
        if (errno != EINTR && errno != EAGAIN) {
            return FailAs(socket, errno);
        }
    }
}

// ---- Arguments

bool IsAddress(sockaddr const *pAddress, int cbAddress)
{
    if (pAddress == nullptr || cbAddress < static_cast<int>(sizeof(sockaddr_in))) {
        Fail(WSAEFAULT);
        return false;
    }
    if (pAddress->sa_family != AF_INET) {
        Fail(WSAEAFNOSUPPORT);
        return false;
    }
    return true;
}

// For a place where an address goes: none wanted, or one that is large enough.
bool IsAddressPlace(sockaddr const *pAddress, int const *pcbAddress)
{
    bool const bGood =
        pAddress == nullptr ||
        (pcbAddress != nullptr && *pcbAddress >= static_cast<int>(sizeof(sockaddr_in)));
    if (!bGood) {
        Fail(WSAEFAULT);
    }
    return bGood;
}

bool IsBuffer(char const *pBuffer, int cbBuffer)
{
    bool const bGood = cbBuffer >= 0 && (pBuffer != nullptr || cbBuffer == 0);
    if (!bGood) {
        Fail(WSAEFAULT);
    }
    return bGood;
}

// ---- Transfers

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

int Receive(SOCKET s, char *pBuffer, int cbBuffer, int nFlags, sockaddr *pFrom, int *pcbFrom)
{
    CUse const use(s);
    if (!use || !IsBuffer(pBuffer, cbBuffer) || !IsAddressPlace(pFrom, pcbFrom)) {
        return SOCKET_ERROR;
    }
    if ((nFlags & ~MSG_PEEK) != 0) {
        return Fail(WSAEOPNOTSUPP);
    }
    if (!use->IsStream() && !use->bBound.load()) {
        return Fail(WSAEINVAL); // nothing can come, ever
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
        return Fail(
            WSAEINTR); // woken by the close: neither the end of a stream nor an empty datagram
    }
    if (n >= 0 && bWantFrom) {
        *pcbFrom = static_cast<int>(cbFrom);
    }
    return static_cast<int>(n);
}

int SendStream(CSocket const &socket, char const *pBuffer, int cbBuffer)
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

int SendDatagram(CSocket &socket, char const *pBuffer, int cbBuffer, sockaddr const *pTo)
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

int Send(SOCKET s, char const *pBuffer, int cbBuffer, int nFlags, sockaddr const *pTo, int cbTo)
{
    CUse const use(s);
    if (!use || !IsBuffer(pBuffer, cbBuffer)) {
        return SOCKET_ERROR;
    }
    if (nFlags != 0) {
        return Fail(WSAEOPNOTSUPP);
    }
    if (use->IsStream()) {
        return SendStream(*use, pBuffer, cbBuffer);
    }
    if (pTo != nullptr && !IsAddress(pTo, cbTo)) {
        return SOCKET_ERROR;
    }
    return SendDatagram(*use, pBuffer, cbBuffer, pTo);
}

// ---- Connecting

void SetBlocking(CSocket const &socket, bool bBlocking)
{
    int const nFlags = ::fcntl(socket.fd, F_GETFL);
    ::fcntl(socket.fd, F_SETFL, bBlocking ? nFlags & ~O_NONBLOCK : nFlags | O_NONBLOCK);
}

// The attempt is on its way: waits for its end. A close that came before the attempt has shut down
// nothing, so its mark is looked at here, after the start; one that comes later ends the wait.
int AwaitConnection(CSocket const &socket, CDeadline const &deadline)
{
    if (socket.IsClosing()) {
        return Fail(WSAEINTR);
    }
    int const nReady = PollUntil(socket, POLLOUT, deadline);
    if (nReady <= 0) {
        return nReady < 0 ? SOCKET_ERROR : Fail(WSAETIMEDOUT);
    }
    int nError = 0;
    socklen_t cb = sizeof(nError);
    ::getsockopt(socket.fd, SOL_SOCKET, SO_ERROR, &nError, &cb);
    return nError != 0 ? FailAs(socket, nError) : 0;
}

int ConnectStream(CSocket const &socket, sockaddr const *pAddress, DWORD dwMilliseconds)
{
    CDeadline const deadline(dwMilliseconds);
    SetBlocking(socket, false);
    int nResult = ::connect(socket.fd, pAddress, sizeof(sockaddr_in));
    if (nResult != 0) {
        nResult = errno == EINPROGRESS ? AwaitConnection(socket, deadline) : FailAs(socket, errno);
    }
    SetBlocking(socket, true);
    return nResult;
}

int SetTimeout(std::atomic<DWORD> &dwTimeout, char const *pValue, int cbValue)
{
    if (pValue == nullptr || cbValue < static_cast<int>(sizeof(DWORD))) {
        return Fail(WSAEFAULT);
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
int NameOf(CSocket const &socket, sockaddr *pAddress, int *pcbAddress, GetName getName)
{
    if (pAddress == nullptr || !IsAddressPlace(pAddress, pcbAddress)) {
        return Fail(WSAEFAULT);
    }
    socklen_t cb = sizeof(sockaddr_in);
    if (getName(socket.fd, pAddress, &cb) != 0) {
        return FailAs(socket, errno);
    }
    *pcbAddress = static_cast<int>(cb);
    return 0;
}

} // namespace

bool SocketsAreStarted()
{
    return g_cStarts.load() > 0 || Fail(WSANOTINITIALISED) == 0;
}

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
    pData->iMaxSockets = static_cast<unsigned short>(kMaxSockets);
    g_cStarts.fetch_add(1);
    return 0;
}

int WSACleanup()
{
    int cStarts = g_cStarts.load();
    do {
        if (cStarts == 0) {
            return Fail(WSANOTINITIALISED);
        }
    } while (!g_cStarts.compare_exchange_weak(cStarts, cStarts - 1));
    return 0;
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
        Fail(nError != 0 ? nError : ErrorOf(errno));
        return INVALID_SOCKET;
    }
    return OpenSlot(fd, nType, eLink::eNEVER);
}

int closesocket(SOCKET s)
{
    std::uint64_t qwBefore = 0;
    CSocket *const pSocket = TakeUse(s, kClosing, &qwBefore);
    if (pSocket == nullptr) {
        return Fail(WSAENOTSOCK);
    }
    if ((qwBefore & kUses) != 0) {
        ::shutdown(pSocket->fd, SHUT_RDWR); // what it returns says nothing, see above
    }
    GiveUse(*pSocket);
    return 0;
}

int bind(SOCKET s, sockaddr const *pAddress, int cbAddress)
{
    CUse const use(s);
    if (!use || !IsAddress(pAddress, cbAddress)) {
        return SOCKET_ERROR;
    }
    if (use->IsStream()) {
        int const nOn = 1; // Windows gives out the port of a connection that is only winding down
        ::setsockopt(use->fd, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn));
    }
    if (::bind(use->fd, pAddress, sizeof(sockaddr_in)) != 0) {
        return FailAs(*use, errno);
    }
    use->bBound = true;
    return 0;
}

int listen(SOCKET s, int cBacklog)
{
    CUse const use(s);
    if (!use) {
        return SOCKET_ERROR;
    }
    if (!use->bBound.load()) {
        return Fail(use->IsStream() ? WSAEINVAL : WSAEOPNOTSUPP);
    }
    return ::listen(use->fd, cBacklog) == 0 ? 0 : FailAs(*use, errno);
}

SOCKET accept(SOCKET s, sockaddr *pAddress, int *pcbAddress)
{
    CUse const use(s);
    if (!use || !IsAddressPlace(pAddress, pcbAddress)) {
        return INVALID_SOCKET;
    }
    sockaddr_in from{};
    socklen_t cbFrom = sizeof(from);
    int fd;
    do {
        fd = ::accept4(use->fd, reinterpret_cast<sockaddr *>(&from), &cbFrom, SOCK_CLOEXEC);
    } while (fd < 0 && use->IsStream() && !use->IsClosing() && AcceptAgain(errno));
    if (fd < 0) {
        FailAs(*use, errno);
        return INVALID_SOCKET;
    }
    if (pAddress != nullptr) {
        std::memcpy(pAddress, &from, sizeof(from));
        *pcbAddress = sizeof(from);
    }
    return OpenSlot(fd, SOCK_STREAM, eLink::eCONNECTED);
}

int connect(SOCKET s, sockaddr const *pAddress, int cbAddress)
{
    return PlatConnect(s, pAddress, cbAddress, INFINITE);
}

int getsockname(SOCKET s, sockaddr *pAddress, int *pcbAddress)
{
    CUse const use(s);
    if (!use) {
        return SOCKET_ERROR;
    }
    if (!use->bBound.load()) {
        return Fail(WSAEINVAL);
    }
    return NameOf(*use, pAddress, pcbAddress, ::getsockname);
}

int getpeername(SOCKET s, sockaddr *pAddress, int *pcbAddress)
{
    CUse const use(s);
    return use ? NameOf(*use, pAddress, pcbAddress, ::getpeername) : SOCKET_ERROR;
}

int shutdown(SOCKET s, int nHow)
{
    CUse const use(s);
    if (!use) {
        return SOCKET_ERROR;
    }
    if (!use->IsStream()) {
        return Fail(WSAEOPNOTSUPP); // "shut down" on a datagram socket is this layer's own mark
    }
    if (nHow < SD_RECEIVE || nHow > SD_BOTH) {
        return Fail(WSAEINVAL);
    }
    if (::shutdown(use->fd, nHow) != 0) {
        return FailAs(*use, errno);
    }
    if (nHow != SD_RECEIVE) {
        use->eState = eLink::eSEND_SHUT;
    }
    return 0;
}

int setsockopt(SOCKET s, int nLevel, int nOption, char const *pValue, int cbValue)
{
    CUse const use(s);
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
        return Fail(WSAENOPROTOOPT);
    }
    if (pValue == nullptr || cbValue < 0) {
        return Fail(WSAEFAULT);
    }
    int const n = ::setsockopt(use->fd, nLevel, nOption, pValue, static_cast<socklen_t>(cbValue));
    return n == 0 ? 0 : FailAs(*use, errno);
}

int recv(SOCKET s, char *pBuffer, int cbBuffer, int nFlags)
{
    return Receive(s, pBuffer, cbBuffer, nFlags, nullptr, nullptr);
}

int recvfrom(SOCKET s, char *pBuffer, int cbBuffer, int nFlags, sockaddr *pFrom, int *pcbFrom)
{
    return Receive(s, pBuffer, cbBuffer, nFlags, pFrom, pcbFrom);
}

int send(SOCKET s, char const *pBuffer, int cbBuffer, int nFlags)
{
    return Send(s, pBuffer, cbBuffer, nFlags, nullptr, 0);
}

int sendto(SOCKET s, char const *pBuffer, int cbBuffer, int nFlags, sockaddr const *pTo, int cbTo)
{
    return Send(s, pBuffer, cbBuffer, nFlags, pTo, cbTo);
}

} // namespace ws

int PlatConnect(SOCKET s, sockaddr const *pAddress, int cbAddress, DWORD dwMilliseconds)
{
    CUse const use(s);
    if (!use || !IsAddress(pAddress, cbAddress)) {
        return SOCKET_ERROR;
    }
    int const nResult = use->IsStream() ? ConnectStream(*use, pAddress, dwMilliseconds)
                        : ::connect(use->fd, pAddress, sizeof(sockaddr_in)) == 0
                            ? 0
                            : FailAs(*use, errno);
    if (nResult == 0) {
        use->bBound = true;
        use->eState = eLink::eCONNECTED;
    }
    return nResult;
}

int PlatSocketWait(SOCKET s, bool bWrite, DWORD dwMilliseconds)
{
    CUse const use(s);
    return use ? PollUntil(*use, bWrite ? POLLOUT : POLLIN, CDeadline(dwMilliseconds))
               : SOCKET_ERROR;
}

DWORD PlatLiveSockets()
{
    return g_cLive.load();
}
