#include "platform/posix/network/socketslot.h"

#include "platform/check.h"
#include "platform/lock.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <unistd.h>

namespace {

constexpr unsigned kIndexBits = 16;
constexpr unsigned kGenerationBits = 13; // with the two low bits of a SOCKET, all fits in 31 bits
constexpr unsigned kFreeReserve = 64;    // slots that rest before one of them is used again
constexpr unsigned kChunk = 1024;        // slots that are made at a time
static_assert(1u << kIndexBits == kMaxSockets);

// The first slots cost no allocation; chunks stay once they are there, so that a slot is found without a lock.
constinit std::array<CSocketSlot, kChunk> g_firstChunk{};
constinit std::array<std::atomic<CSocketSlot *>, kMaxSockets / kChunk> g_chunks{
    g_firstChunk.data()};
constinit std::atomic<DWORD> g_cLive{0};
constinit std::atomic<int> g_cSocketStarts{0};

// The free slots. A slot that was closed waits behind others, so that a stale SOCKET is told from a new
// one for as long as possible. Nothing is called under the mutex.
constinit CPlatMutex g_freeMutex;
constinit unsigned g_nFirstFree PLAT_GUARDED_BY(g_freeMutex) = 0;
constinit unsigned g_nLastFree PLAT_GUARDED_BY(g_freeMutex) = 0;
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

// Null for one that was never made.
CSocketSlot *SlotAt(unsigned nIndex)
{
    CSocketSlot *const pChunk = g_chunks[nIndex / kChunk].load(std::memory_order_acquire);
    return pChunk != nullptr ? pChunk + nIndex % kChunk : nullptr;
}

CSocketSlot *TakeNewSlot() PLAT_REQUIRES(g_freeMutex)
{
    if (g_cTouched == kMaxSockets) {
        return nullptr;
    }
    auto &chunk = g_chunks[g_cTouched / kChunk];
    if (chunk.load() == nullptr) {
        auto *const pNew = new (std::nothrow) CSocketSlot[kChunk];
        if (pNew == nullptr) {
            return nullptr;
        }
        chunk.store(pNew, std::memory_order_release);
    }
    CSocketSlot *const pSlot = SlotAt(g_cTouched);
    pSlot->nIndex = g_cTouched++;
    return pSlot;
}

CSocketSlot *TakeFreeSlot()
{
    CPlatGuard const lock(g_freeMutex);
    CSocketSlot *pSlot = g_cFree < kFreeReserve ? TakeNewSlot() : nullptr;
    if (pSlot == nullptr && g_cFree > 0) {
        pSlot = SlotAt(g_nFirstFree);
        g_nFirstFree = pSlot->nNextFree;
        --g_cFree;
    }
    return pSlot;
}

void GiveFreeSlot(CSocketSlot &slot)
{
    CPlatGuard const lock(g_freeMutex);
    PLAT_CHECK(slot.nIndex < g_cTouched && g_cFree < g_cTouched);
    (g_cFree == 0 ? g_nFirstFree : SlotAt(g_nLastFree)->nNextFree) = slot.nIndex;
    g_nLastFree = slot.nIndex;
    ++g_cFree;
}

// The slot that s names, if s can name one; its generation comes out for the test under the state word.
CSocketSlot *SlotOf(SOCKET s, std::uint32_t &dwGeneration)
{
    std::uint64_t const qw = s;
    dwGeneration = static_cast<std::uint32_t>(qw >> (kIndexBits + 2)) & kGenerationMask;
    bool const bWellFormed = (qw & 3) == 0 && qw >> (kIndexBits + kGenerationBits + 2) == 0;
    return bWellFormed ? SlotAt(static_cast<unsigned>(qw >> 2) & (kMaxSockets - 1)) : nullptr;
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
    CSocketSlot *const pSocket = TakeFreeSlot();
    if (pSocket == nullptr) {
        ::close(fd);
        SocketFail(WSAEMFILE);
        return INVALID_SOCKET;
    }
    CSocketSlot &socket = *pSocket;
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
    return MakeSocket(socket.nIndex, dwGeneration);
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
    GiveFreeSlot(socket);
}

DWORD PlatLiveSockets()
{
    return g_cLive.load();
}
