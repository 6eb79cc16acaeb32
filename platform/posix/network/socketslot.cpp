#include "platform/posix/network/socketslot.h"

#include "platform/check.h"
#include "platform/lock.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <unistd.h>

namespace {

constexpr unsigned kIndexBits = 12;
constexpr unsigned kGenerationBits = 17; // with the two low bits of a SOCKET, all fits in 31 bits
constexpr unsigned kFreeReserve = 64;    // slots that rest before one of them is used again
static_assert(1u << kIndexBits == kMaxSockets);

constinit std::array<CSocketSlot, kMaxSockets> g_sockets{};
constinit std::atomic<DWORD> g_cLive{0};
constinit std::atomic<int> g_cSocketStarts{0};

// The free slots. A slot that was closed waits behind others, so that a stale SOCKET is told from a new
// one for as long as possible. Nothing is called under the mutex.
constinit CPlatMutex g_freeMutex;
constinit std::array<std::uint16_t, kMaxSockets> g_free PLAT_GUARDED_BY(g_freeMutex){};
constinit unsigned g_nFirstFree PLAT_GUARDED_BY(g_freeMutex) = 0;
constinit unsigned g_cFree PLAT_GUARDED_BY(g_freeMutex) = 0;
constinit unsigned
    g_cTouched PLAT_GUARDED_BY(g_freeMutex) = 0; // slots from here on were never used

constexpr std::uint32_t kGenerationMask = (1u << kGenerationBits) - 1;

std::uint32_t Generation(std::uint64_t qwState)
{
    return static_cast<std::uint32_t>(qwState >> 32);
}

SOCKET MakeSocket(unsigned nIndex, std::uint32_t dwGeneration)
{
    return static_cast<SOCKET>((dwGeneration << kIndexBits | nIndex) << 2);
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

// The kernel has one word, EPIPE, for three situations.
int BrokenPipe(CSocketSlot const &socket)
{
    switch (socket.eState.load()) {
    case ESocketLink::eNEVER:
        return WSAENOTCONN;
    case ESocketLink::eSEND_SHUT:
        return WSAESHUTDOWN;
    default:
        return WSAECONNRESET;
    }
}

int TakeFreeIndex()
{
    CPlatGuard const lock(g_freeMutex);
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
    CPlatGuard const lock(g_freeMutex);
    PLAT_CHECK(nIndex < g_cTouched && g_cFree < g_cTouched);
    g_free[(g_nFirstFree + g_cFree++) % kMaxSockets] = static_cast<std::uint16_t>(nIndex);
}

// The slot that s names, if s can name one; its generation comes out for the test under the state word.
CSocketSlot *SlotOf(SOCKET s, std::uint32_t &dwGeneration)
{
    std::uint64_t const qw = s;
    dwGeneration = static_cast<std::uint32_t>(qw >> (kIndexBits + 2)) & kGenerationMask;
    bool const bWellFormed = (qw & 3) == 0 && qw >> (kIndexBits + kGenerationBits + 2) == 0;
    return bWellFormed ? &g_sockets[(qw >> 2) & (kMaxSockets - 1)] : nullptr;
}

} // namespace

bool SocketsAreStarted()
{
    return g_cSocketStarts.load() > 0 || SocketFail(WSANOTINITIALISED) == 0;
}

void SocketsStart()
{
    g_cSocketStarts.fetch_add(1);
}

bool SocketsEnd()
{
    int cStarts = g_cSocketStarts.load();
    do {
        if (cStarts == 0) {
            return false;
        }
    } while (!g_cSocketStarts.compare_exchange_weak(cStarts, cStarts - 1));
    return true;
}

int SocketFail(int nError)
{
    SetLastError(static_cast<DWORD>(nError));
    return SOCKET_ERROR;
}

int SocketErrorOf(int nErrno)
{
    auto const p = std::ranges::find(kErrors, nErrno, &CErrorPair::nErrno);
    return p != std::end(kErrors) ? p->nError : WSAEINVAL;
}

int SocketFailAs(CSocketSlot const &socket, int nErrno)
{
    if (socket.IsClosing()) {
        return SocketFail(WSAEINTR);
    }
    return SocketFail(nErrno == EPIPE ? BrokenPipe(socket) : SocketErrorOf(nErrno));
}

SOCKET SocketOpenSlot(int fd, int nType, ESocketLink eState)
{
    int const nIndex = TakeFreeIndex();
    if (nIndex < 0) {
        ::close(fd);
        SocketFail(WSAEMFILE);
        return INVALID_SOCKET;
    }
    CSocketSlot &socket = g_sockets[static_cast<unsigned>(nIndex)];
    PLAT_CHECK((socket.qwState.load() & (kSocketOpen | kSocketUses)) == 0);
    socket.fd = fd;
    socket.nType = nType;
    socket.bBound = eState == ESocketLink::eCONNECTED;
    socket.eState = eState;
    socket.dwRecvTimeout = 0;
    socket.dwSendTimeout = 0;
    std::uint32_t dwGeneration = (Generation(socket.qwState.load()) + 1) & kGenerationMask;
    dwGeneration += dwGeneration == 0 ? 1 : 0; // a SOCKET is never 0
    g_cLive.fetch_add(1);
    socket.qwState.store(std::uint64_t{dwGeneration} << 32 | kSocketOpen);
    return MakeSocket(static_cast<unsigned>(nIndex), dwGeneration);
}

CSocketSlot *SocketTakeUse(SOCKET s, std::uint64_t qwMarks, std::uint64_t *pqwBefore)
{
    std::uint32_t dwGeneration = 0;
    CSocketSlot *const pSocket = SlotOf(s, dwGeneration);
    if (pSocket == nullptr) {
        return nullptr;
    }
    std::uint64_t qw = pSocket->qwState.load();
    do {
        if (Generation(qw) != dwGeneration ||
            (qw & (kSocketOpen | kSocketClosing)) != kSocketOpen) {
            return nullptr;
        }
    } while (!pSocket->qwState.compare_exchange_weak(qw, (qw + 1) | qwMarks));
    if (pqwBefore != nullptr) {
        *pqwBefore = qw;
    }
    return pSocket;
}

void SocketGiveUse(CSocketSlot &socket)
{
    std::uint64_t const qwBefore = socket.qwState.fetch_sub(1);
    PLAT_CHECK((qwBefore & kSocketUses) != 0 && (qwBefore & kSocketOpen) != 0);
    if ((qwBefore & kSocketClosing) == 0 || (qwBefore & kSocketUses) != 1) {
        return;
    }
    ::close(socket.fd); // on Linux the number is free whatever it returns, EINTR included
    socket.qwState.store(qwBefore & ~(kSocketOpen | kSocketClosing | kSocketUses));
    g_cLive.fetch_sub(1);
    GiveFreeIndex(static_cast<unsigned>(&socket - g_sockets.data()));
}

DWORD PlatLiveSockets()
{
    return g_cLive.load();
}
