// The network, which is memory, and the calls on it. A socket's descriptor is a number that no file has.
#include "sim/world/world.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

void ForgetFile(int fd);

namespace {

constexpr int kFirstSocket = 1'000'000;
constexpr std::uint32_t kNet = 0x0A000000; // 10.0.0.H is host H
constexpr std::uint16_t kFirstPort = 32768;
constexpr std::uint16_t kLastPort = 60999;
constexpr std::size_t kMostDatagrams = 64; // that wait for a receiver
constexpr int kMostPieces = 3;             // of what is sent at once
constexpr SimTime kNear = 100'000;         // the longest way within a host
constexpr SimTime kSynAgain = kSimSecond;
constexpr int kcSyns = 60;

struct AddressType {
    std::uint32_t dwHost = 0; // host order
    std::uint16_t wPort = 0;
};

struct Datagram {
    AddressType from;
    std::string strBytes;
};

enum EType { eSTREAM, eDATAGRAM, eEPOLL, eEVENT };
enum EStage { eNEW, eLISTENING, eCONNECTING, eCONNECTED, eBROKEN };

struct CSimSocket;
using SocketPtr = std::shared_ptr<CSimSocket>;

struct CSimSocket {
    int fd = 0;
    int nProcess = 0;
    int nHost = 0;
    EType eType = eSTREAM;
    bool fNonBlocking = false;
    bool fBound = false;
    bool fClosed = false;
    AddressType own, peer;
    EStage eStage = eNEW;
    int nError = 0;
    bool fNoMore = false; // the peer has said so
    bool fSendShut = false;
    bool fReceiveShut = false;
    std::weak_ptr<CSimSocket> other;
    std::string strReceived;
    std::size_t cbUnderWay = 0; // to this one
    SimTime lastArrival = 0;    // likewise
    std::deque<SocketPtr> backlog;
    std::deque<Datagram> datagrams;
    std::map<int, epoll_event> watched;
    std::vector<int> watchers;
    std::uint64_t qwCount = 0;
};

struct PartitionType {
    int nHostA, nHostB;
    SimTime until;
};

std::map<int, SocketPtr> g_sockets;
std::vector<PartitionType> g_partitions;
int g_nLastSocket = kFirstSocket;
std::uint16_t g_wLastPort = kFirstPort;

int FailWith(int nErrno)
{
    errno = nErrno;
    return -1;
}

SocketPtr Find(int fd)
{
    auto const it = g_sockets.find(fd);
    return it != g_sockets.end() ? it->second : nullptr;
}

bool IsOurs(int fd)
{
    return t_pSimThread != nullptr && fd >= kFirstSocket;
}

SocketPtr Make(EType eType, int nProcess)
{
    auto pSocket = std::make_shared<CSimSocket>();
    pSocket->fd = ++g_nLastSocket;
    pSocket->nProcess = nProcess;
    pSocket->nHost = g_world.Process(nProcess).nHost;
    pSocket->eType = eType;
    return pSocket;
}

int Open(EType eType, bool fNonBlocking)
{
    if (g_world.Refuses()) {
        return FailWith(EMFILE);
    }
    SocketPtr const pSocket = Make(eType, t_pSimThread->nProcess);
    pSocket->fNonBlocking = fNonBlocking;
    g_sockets[pSocket->fd] = pSocket;
    return pSocket->fd;
}

void Changed(CSimSocket const &socket)
{
    g_world.Wake({eWT_SOCKET, static_cast<std::uint64_t>(socket.fd)});
    for (int const fd : socket.watchers) {
        g_world.Wake({eWT_SOCKET, static_cast<std::uint64_t>(fd)});
    }
    g_world.Wake({eWT_ANY_SOCKET});
}

AddressType FromSystem(sockaddr const *pAddress)
{
    sockaddr_in sa;
    std::memcpy(&sa, pAddress, sizeof sa);
    return {ntohl(sa.sin_addr.s_addr), ntohs(sa.sin_port)};
}

void ToSystem(AddressType const &address, sockaddr *pAddress, socklen_t *pcb)
{
    if (pAddress == nullptr) {
        return;
    }
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(address.dwHost);
    sa.sin_port = htons(address.wPort);
    std::memcpy(pAddress, &sa, std::min<std::size_t>(*pcb, sizeof sa));
    *pcb = sizeof sa;
}

bool IsLoopback(std::uint32_t dwHost)
{
    return dwHost >> 24 == 127;
}

std::uint32_t AddressOf(int nHost)
{
    return kNet + static_cast<std::uint32_t>(nHost);
}

int HostOf(CSimSocket const &from, std::uint32_t dwHost)
{
    return IsLoopback(dwHost) || dwHost == 0 ? from.nHost : static_cast<int>(dwHost - kNet);
}

SimTime PartedUntil(int nHostA, int nHostB)
{
    std::erase_if(g_partitions, [](PartitionType const &p) { return p.until <= g_world.Now(); });
    SimTime until = 0;
    for (PartitionType const &p : g_partitions) {
        if ((p.nHostA == nHostA && p.nHostB == nHostB) ||
            (p.nHostA == nHostB && p.nHostB == nHostA)) {
            until = std::max(until, p.until);
        }
    }
    return until;
}

SimTime Way(int nHostA, int nHostB)
{
    SimTime const most = nHostA == nHostB ? kNear : g_world.m_rates.dwDelayMs * kSimMillisecond;
    return 1 + static_cast<SimTime>(g_world.m_network.Below(static_cast<std::uint64_t>(most)));
}

// Who has that port; listeners and datagram sockets, those only that are open.
SocketPtr FindBound(EType eType, int nHost, AddressType const &address)
{
    for (auto const &[fd, pSocket] : g_sockets) {
        bool const fKind = pSocket->eType == eType && pSocket->fBound && pSocket->nHost == nHost &&
                           (eType == eDATAGRAM || pSocket->eStage == eLISTENING);
        if (fKind && pSocket->own.wPort == address.wPort &&
            (pSocket->own.dwHost == 0 || pSocket->own.dwHost == address.dwHost)) {
            return pSocket;
        }
    }
    return nullptr;
}

bool IsTaken(CSimSocket const &asker, AddressType const &address)
{
    return std::ranges::any_of(g_sockets, [&](auto const &entry) {
        CSimSocket const &s = *entry.second;
        bool const fSame =
            s.own.dwHost == 0 || address.dwHost == 0 || s.own.dwHost == address.dwHost;
        bool const fCounts = asker.eType == eDATAGRAM || s.eStage == eLISTENING;
        return &s != &asker && s.eType == asker.eType && s.fBound && s.nHost == asker.nHost &&
               s.own.wPort == address.wPort && fSame && fCounts;
    });
}

void GivePort(CSimSocket &socket)
{
    do {
        g_wLastPort =
            g_wLastPort == kLastPort ? kFirstPort : static_cast<std::uint16_t>(g_wLastPort + 1);
        socket.own.wPort = g_wLastPort;
    } while (IsTaken(socket, socket.own));
    socket.fBound = true;
}

void GiveOwnAddress(CSimSocket &socket, std::uint32_t dwTo)
{
    if (socket.own.wPort == 0) {
        GivePort(socket);
    }
    if (socket.own.dwHost == 0 && socket.eType == eSTREAM) {
        socket.own.dwHost = IsLoopback(dwTo) ? dwTo : AddressOf(socket.nHost);
    }
}

// ---- Streams

void Break(CSimSocket &socket, int nError)
{
    if (socket.eStage != eBROKEN) {
        socket.eStage = eBROKEN;
        socket.nError = nError;
        Changed(socket);
    }
}

// What comes to the peer after all that came before.
void Deliver(CSimSocket const &from, SocketPtr const &pTo, std::function<void(CSimSocket &)> fn)
{
    SimTime arrival = g_world.Now() + Way(from.nHost, pTo->nHost);
    if (SimTime const until = PartedUntil(from.nHost, pTo->nHost); until > 0) {
        arrival =
            std::max(arrival, until + static_cast<SimTime>(g_world.m_network.Below(kSimSecond)));
    }
    pTo->lastArrival = std::max(pTo->lastArrival + 1, arrival);
    g_world.At(pTo->lastArrival, [pTo, fn = std::move(fn)] { fn(*pTo); });
}

void SendReset(CSimSocket const &from, SocketPtr const &pTo)
{
    Deliver(from, pTo, [](CSimSocket &to) { Break(to, ECONNRESET); });
}

void ReceivePiece(CSimSocket &to, std::string const &strPiece)
{
    to.cbUnderWay -= strPiece.size();
    if (to.fClosed) {
        if (SocketPtr const pOther = to.other.lock()) {
            SendReset(to, pOther);
        }
        return;
    }
    if (to.eStage == eCONNECTED) {
        to.strReceived += strPiece;
        Changed(to);
    }
}

std::size_t Room(CSimSocket const &socket)
{
    SocketPtr const pOther = socket.other.lock();
    std::size_t const cb = pOther ? pOther->strReceived.size() + pOther->cbUnderWay : 0;
    return cb < g_world.m_rates.cbBuffer ? g_world.m_rates.cbBuffer - cb : 0;
}

void SendPieces(CSimSocket &socket, char const *p, std::size_t cb)
{
    SocketPtr const pOther = socket.other.lock();
    if (!pOther) {
        return;
    }
    for (int n = 1; cb > 0; ++n) {
        std::size_t const cbPiece = n == kMostPieces ? cb : 1 + g_world.m_network.Below(cb);
        std::string strPiece(p, cbPiece);
        pOther->cbUnderWay += cbPiece;
        Deliver(socket, pOther, [strPiece](CSimSocket &to) { ReceivePiece(to, strPiece); });
        p += cbPiece;
        cb -= cbPiece;
        if (g_world.m_network.OneIn(g_world.m_rates.nReset)) {
            SendReset(socket, pOther);
            Break(socket, ECONNRESET);
            return;
        }
    }
}

void SendEnd(CSimSocket &socket)
{
    if (SocketPtr const pOther = socket.other.lock();
        pOther && !socket.fSendShut && socket.eStage == eCONNECTED) {
        Deliver(socket, pOther, [](CSimSocket &to) {
            to.fNoMore = true;
            Changed(to);
        });
    }
    socket.fSendShut = true;
}

void Join(SocketPtr const &pClient, SocketPtr const &pListener)
{
    SocketPtr const pServer = Make(eSTREAM, pListener->nProcess);
    pServer->own = pClient->peer;
    pServer->peer = pClient->own;
    pServer->fBound = true;
    pServer->eStage = pClient->eStage = eCONNECTED;
    pServer->other = pClient;
    pClient->other = pServer;
    pListener->backlog.push_back(pServer);
    Changed(*pListener);
    Changed(*pClient);
}

void TryToReach(SocketPtr const &pClient, int cTries)
{
    if (pClient->fClosed || pClient->eStage != eCONNECTING) {
        return;
    }
    int const nHost = HostOf(*pClient, pClient->peer.dwHost);
    bool fHost = false;
    for (int n = 0; !fHost && n < static_cast<int>(kFirstPort) && n < g_world.ProcessCount(); ++n) {
        fHost = g_world.Process(n).nHost == nHost && g_world.Process(n).fAlive;
    }
    SocketPtr const pListener = fHost ? FindBound(eSTREAM, nHost, pClient->peer) : nullptr;
    bool const fFull = pListener && pListener->backlog.size() >= 64;
    if (nHost == pClient->nHost || (PartedUntil(pClient->nHost, nHost) == 0 && !fFull)) {
        return pListener ? Join(pClient, pListener) : Break(*pClient, ECONNREFUSED);
    }
    if (cTries == kcSyns) {
        return Break(*pClient, ETIMEDOUT);
    }
    g_world.At(g_world.Now() + kSynAgain, [pClient, cTries] { TryToReach(pClient, cTries + 1); });
}

// ---- What is ready

std::uint32_t Ready(CSimSocket const &socket)
{
    bool fIn = false, fOut = true, fHup = false;
    switch (socket.eType) {
    case eEVENT:
        fIn = socket.qwCount > 0;
        break;
    case eEPOLL:
        return 0;
    case eDATAGRAM:
        fIn = !socket.datagrams.empty() || socket.fReceiveShut;
        fHup = socket.fReceiveShut && socket.fSendShut;
        break;
    case eSTREAM:
        fIn = !socket.strReceived.empty() || socket.fNoMore || socket.fReceiveShut ||
              socket.eStage == eBROKEN || !socket.backlog.empty();
        fOut = socket.eStage == eBROKEN || socket.eStage == eNEW || socket.fSendShut ||
               (socket.eStage == eCONNECTED && Room(socket) >= g_world.m_rates.cbBuffer / 3);
        fHup = socket.eStage == eBROKEN || socket.eStage == eNEW ||
               (socket.fSendShut && (socket.fNoMore || socket.fReceiveShut));
        break;
    }
    return (fIn ? EPOLLIN : 0u) | (fOut ? EPOLLOUT : 0u) | (fHup ? EPOLLHUP : 0u) |
           (socket.nError != 0 ? EPOLLERR : 0u);
}

SimTime DueIn(int nMilliseconds)
{
    return nMilliseconds < 0 ? kNever : g_world.Now() + nMilliseconds * kSimMillisecond;
}

// Until one of these is ready; false when the call is not to wait, or was waiting for what is closed now.
bool AwaitReady(CSimSocket const &socket, std::uint32_t dwEvents, int fFlags)
{
    while ((Ready(socket) & (dwEvents | EPOLLERR | EPOLLHUP)) == 0) {
        if (socket.fNonBlocking || (fFlags & MSG_DONTWAIT) != 0) {
            errno = EAGAIN;
            return false;
        }
        g_world.Block({eWT_SOCKET, static_cast<std::uint64_t>(socket.fd)});
    }
    return true;
}

int TakeError(CSimSocket &socket)
{
    return std::exchange(socket.nError, 0);
}

ssize_t ReceiveStream(CSimSocket &socket, char *p, std::size_t cb, int fFlags)
{
    if (socket.eStage == eNEW || socket.eStage == eLISTENING) {
        return FailWith(ENOTCONN);
    }
    if (!AwaitReady(socket, EPOLLIN, fFlags)) {
        return -1;
    }
    if (socket.strReceived.empty()) {
        int const nError = TakeError(socket);
        return nError != 0 ? FailWith(nError) : 0;
    }
    std::size_t const cbTaken = std::min(cb, socket.strReceived.size());
    std::memcpy(p, socket.strReceived.data(), cbTaken);
    if ((fFlags & MSG_PEEK) == 0) {
        socket.strReceived.erase(0, cbTaken);
        if (SocketPtr const pOther = socket.other.lock()) {
            Changed(*pOther);
        }
    }
    return static_cast<ssize_t>(cbTaken);
}

ssize_t ReceiveDatagram(CSimSocket &socket, char *p, std::size_t cb, int fFlags, sockaddr *pFrom,
                        socklen_t *pcbFrom)
{
    if (!AwaitReady(socket, EPOLLIN, fFlags)) {
        return -1;
    }
    if (socket.nError != 0) {
        return FailWith(TakeError(socket));
    }
    if (socket.datagrams.empty()) {
        return 0;
    }
    Datagram const datagram = socket.datagrams.front();
    if ((fFlags & MSG_PEEK) == 0) {
        socket.datagrams.pop_front();
    }
    std::size_t const cbTaken = std::min(cb, datagram.strBytes.size());
    std::memcpy(p, datagram.strBytes.data(), cbTaken);
    ToSystem(datagram.from, pFrom, pcbFrom);
    return static_cast<ssize_t>(cbTaken);
}

ssize_t SendStream(CSimSocket &socket, char const *p, std::size_t cb, int fFlags)
{
    if (socket.eStage == eNEW || socket.eStage == eLISTENING || socket.eStage == eCONNECTING) {
        return FailWith(ENOTCONN);
    }
    while (socket.eStage == eCONNECTED && !socket.fSendShut && Room(socket) == 0) {
        if (socket.fNonBlocking || (fFlags & MSG_DONTWAIT) != 0) {
            return FailWith(EAGAIN);
        }
        g_world.Block({eWT_SOCKET, static_cast<std::uint64_t>(socket.fd)});
    }
    if (socket.eStage != eCONNECTED || socket.fSendShut) {
        int const nError = TakeError(socket);
        return FailWith(nError != 0 ? nError : EPIPE);
    }
    std::size_t const cbSent = std::min(cb, Room(socket));
    SendPieces(socket, p, cbSent);
    return static_cast<ssize_t>(cbSent);
}

void DeliverDatagram(int nHost, AddressType const &from, AddressType const &to,
                     std::string const &strBytes)
{
    SocketPtr const pSocket = FindBound(eDATAGRAM, nHost, to);
    bool const fWanted = pSocket && (pSocket->peer.wPort == 0 || pSocket->peer.wPort == from.wPort);
    if (fWanted && pSocket->datagrams.size() < kMostDatagrams) {
        pSocket->datagrams.push_back({from, strBytes});
        Changed(*pSocket);
    }
}

ssize_t SendDatagram(CSimSocket &socket, char const *p, std::size_t cb, AddressType const &to)
{
    if (socket.fSendShut) {
        return FailWith(EPIPE);
    }
    if (to.wPort == 0) {
        return FailWith(EDESTADDRREQ);
    }
    GiveOwnAddress(socket, to.dwHost);
    int const nHost = HostOf(socket, to.dwHost);
    AddressType from = socket.own;
    if (from.dwHost == 0) {
        from.dwHost = IsLoopback(to.dwHost) ? 0x7F000001 : AddressOf(socket.nHost);
    }
    auto const &rates = g_world.m_rates;
    CRandom &random = g_world.m_network;
    if (random.OneIn(rates.nDrop) || PartedUntil(socket.nHost, nHost) > 0) {
        return static_cast<ssize_t>(cb);
    }
    int const cTimes = random.OneIn(rates.nRepeat) ? 2 : 1;
    for (int i = 0; i < cTimes; ++i) {
        SimTime const late =
            random.OneIn(rates.nReorder) ? static_cast<SimTime>(random.Below(2 * kSimSecond)) : 0;
        g_world.At(
            g_world.Now() + Way(socket.nHost, nHost) + late,
            [nHost, from, to, str = std::string(p, cb)] { DeliverDatagram(nHost, from, to, str); });
    }
    return static_cast<ssize_t>(cb);
}

void Close(CSimSocket &socket)
{
    socket.fClosed = true;
    for (SocketPtr const &pWaiting : socket.backlog) {
        Close(*pWaiting);
    }
    if (socket.eType == eEPOLL) {
        for (auto const &[fd, event] : socket.watched) {
            if (SocketPtr const pWatched = Find(fd)) {
                std::erase(pWatched->watchers, socket.fd);
            }
        }
    }
    for (int const fd : socket.watchers) {
        if (SocketPtr const pSet = Find(fd)) {
            pSet->watched.erase(socket.fd);
        }
    }
    SocketPtr const pOther = socket.other.lock();
    if (pOther && socket.eStage == eCONNECTED) {
        if (socket.strReceived.empty()) {
            SendEnd(socket);
        } else {
            SendReset(socket, pOther);
        }
    }
    socket.eStage = eBROKEN;
}

// A socket of that number that the caller may use; null with errno.
SocketPtr Use(int fd)
{
    SocketPtr pSocket = Find(fd);
    if (!pSocket || pSocket->nProcess != t_pSimThread->nProcess) {
        errno = EBADF;
        return nullptr;
    }
    return pSocket;
}

int TakeReady(CSimSocket &set, epoll_event *pEvents, int cMost)
{
    int c = 0;
    // From a random place on, as nobody may count on an order.
    std::size_t const nStart = g_world.m_network.Below(set.watched.size());
    std::size_t n = 0;
    std::vector<std::pair<int, epoll_event>> ready;
    for (auto const &[fd, event] : set.watched) {
        SocketPtr const pSocket = Find(fd);
        std::uint32_t const dw =
            pSocket ? Ready(*pSocket) & (event.events | EPOLLERR | EPOLLHUP) : 0;
        if (dw != 0 && event.events != 0) {
            ready.emplace_back(n >= nStart ? 0 : 1, epoll_event{dw, event.data});
        }
        ++n;
    }
    std::ranges::stable_sort(ready, {}, &std::pair<int, epoll_event>::first);
    for (auto const &[nPart, event] : ready) {
        if (c < cMost) {
            pEvents[c++] = event;
        }
    }
    return c;
}

} // namespace

void CloseSocketsOf(int nProcess)
{
    for (auto it = g_sockets.begin(); it != g_sockets.end();) {
        SocketPtr const pSocket = it->second;
        if (pSocket->nProcess == nProcess) {
            Close(*pSocket);
            it = g_sockets.erase(it);
        } else {
            ++it;
        }
    }
}

int CountSocketsOf(int nProcess)
{
    return static_cast<int>(std::ranges::count_if(
        g_sockets, [&](auto const &entry) { return entry.second->nProcess == nProcess; }));
}

void SimPartition(int nHostA, int nHostB, SimTime until)
{
    CInWorld const inWorld;
    g_partitions.push_back({nHostA, nHostB, until});
}

extern "C" {

int socket(int nFamily, int nType, int nProtocol) noexcept
{
    WORLD_CALL(socket, nFamily, nType, nProtocol);
    int const nKind = nType & 0xFF;
    if (nFamily != AF_INET || (nKind != SOCK_STREAM && nKind != SOCK_DGRAM)) {
        return FailWith(EAFNOSUPPORT);
    }
    return Open(nKind == SOCK_STREAM ? eSTREAM : eDATAGRAM, (nType & SOCK_NONBLOCK) != 0);
}

int bind(int fd, sockaddr const *pAddress, socklen_t cb) noexcept
{
    WORLD_CALL(bind, fd, pAddress, cb);
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        return -1;
    }
    AddressType const address = FromSystem(pAddress);
    if (address.dwHost != 0 && !IsLoopback(address.dwHost) &&
        address.dwHost != AddressOf(pSocket->nHost)) {
        return FailWith(EADDRNOTAVAIL);
    }
    if (pSocket->fBound) {
        return FailWith(EINVAL);
    }
    if (address.wPort != 0 && IsTaken(*pSocket, address)) {
        return FailWith(EADDRINUSE);
    }
    pSocket->own = address;
    pSocket->fBound = true;
    if (address.wPort == 0) {
        GivePort(*pSocket);
    }
    return 0;
}

int listen(int fd, int cBacklog) noexcept
{
    WORLD_CALL(listen, fd, cBacklog);
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        return -1;
    }
    if (IsTaken(*pSocket, pSocket->own)) {
        return FailWith(EADDRINUSE);
    }
    pSocket->eStage = eLISTENING;
    return 0;
}

int accept4(int fd, sockaddr *pAddress, socklen_t *pcb, int fFlags)
{
    WORLD_CALL(accept4, fd, pAddress, pcb, fFlags);
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        return -1;
    }
    if (pSocket->eStage != eLISTENING) {
        return FailWith(EINVAL);
    }
    if (!AwaitReady(*pSocket, EPOLLIN, 0)) {
        return -1;
    }
    if (pSocket->fReceiveShut || pSocket->backlog.empty()) {
        return FailWith(EINVAL);
    }
    if (g_world.Refuses()) {
        return FailWith(EMFILE);
    }
    SocketPtr const pAccepted = pSocket->backlog.front();
    pSocket->backlog.pop_front();
    pAccepted->fNonBlocking = (fFlags & SOCK_NONBLOCK) != 0;
    g_sockets[pAccepted->fd] = pAccepted;
    ToSystem(pAccepted->peer, pAddress, pcb);
    return pAccepted->fd;
}

int connect(int fd, sockaddr const *pAddress, socklen_t cb)
{
    WORLD_CALL(connect, fd, pAddress, cb);
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        return -1;
    }
    AddressType const to = FromSystem(pAddress);
    if (pSocket->eType == eDATAGRAM) {
        GiveOwnAddress(*pSocket, to.dwHost);
        pSocket->own.dwHost = IsLoopback(to.dwHost) ? 0x7F000001 : AddressOf(pSocket->nHost);
        pSocket->peer = to;
        return 0;
    }
    if (pSocket->eStage != eNEW) {
        return FailWith(pSocket->eStage == eCONNECTING ? EALREADY : EISCONN);
    }
    pSocket->peer = to;
    GiveOwnAddress(*pSocket, to.dwHost);
    pSocket->eStage = eCONNECTING;
    g_world.At(g_world.Now() + Way(pSocket->nHost, HostOf(*pSocket, to.dwHost)),
               [pSocket] { TryToReach(pSocket, 0); });
    if (pSocket->fNonBlocking) {
        return FailWith(EINPROGRESS);
    }
    while (pSocket->eStage == eCONNECTING) {
        g_world.Block({eWT_SOCKET, static_cast<std::uint64_t>(fd)});
    }
    return pSocket->eStage == eCONNECTED ? 0 : FailWith(TakeError(*pSocket));
}

int getsockname(int fd, sockaddr *pAddress, socklen_t *pcb) noexcept
{
    WORLD_CALL(getsockname, fd, pAddress, pcb);
    SocketPtr const pSocket = Use(fd);
    if (pSocket) {
        ToSystem(pSocket->own, pAddress, pcb);
    }
    return pSocket ? 0 : -1;
}

int getpeername(int fd, sockaddr *pAddress, socklen_t *pcb) noexcept
{
    WORLD_CALL(getpeername, fd, pAddress, pcb);
    SocketPtr const pSocket = Use(fd);
    if (!pSocket || pSocket->peer.wPort == 0 || pSocket->eStage == eBROKEN) {
        return FailWith(pSocket ? ENOTCONN : EBADF);
    }
    ToSystem(pSocket->peer, pAddress, pcb);
    return 0;
}

int shutdown(int fd, int nHow) noexcept
{
    WORLD_CALL(shutdown, fd, nHow);
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        return -1;
    }
    bool const fConnected = pSocket->eStage == eCONNECTED || pSocket->peer.wPort != 0;
    if (nHow != SHUT_RD) {
        SendEnd(*pSocket);
    }
    pSocket->fReceiveShut = pSocket->fReceiveShut || nHow != SHUT_WR;
    if (pSocket->eStage == eCONNECTING) {
        Break(*pSocket, 0);
    }
    if (pSocket->eStage == eLISTENING && nHow != SHUT_WR) {
        pSocket->eStage = eBROKEN;
    }
    Changed(*pSocket);
    return fConnected ? 0 : FailWith(ENOTCONN);
}

int getsockopt(int fd, int nLevel, int nOption, void *pv, socklen_t *pcb) noexcept
{
    WORLD_CALL(getsockopt, fd, nLevel, nOption, pv, pcb);
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        return -1;
    }
    int const n = nLevel == SOL_SOCKET && nOption == SO_ERROR ? TakeError(*pSocket) : 0;
    std::memcpy(pv, &n, sizeof n);
    *pcb = sizeof n;
    return 0;
}

int setsockopt(int fd, int nLevel, int nOption, void const *pv, socklen_t cb) noexcept
{
    WORLD_CALL(setsockopt, fd, nLevel, nOption, pv, cb);
    return Use(fd) ? 0 : -1;
}

ssize_t recvfrom(int fd, void *pv, std::size_t cb, int fFlags, sockaddr *pFrom, socklen_t *pcbFrom)
{
    WORLD_CALL(recvfrom, fd, pv, cb, fFlags, pFrom, pcbFrom);
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        return -1;
    }
    char *const p = static_cast<char *>(pv);
    return pSocket->eType == eSTREAM ? ReceiveStream(*pSocket, p, cb, fFlags)
                                     : ReceiveDatagram(*pSocket, p, cb, fFlags, pFrom, pcbFrom);
}

ssize_t recv(int fd, void *pv, std::size_t cb, int fFlags)
{
    return recvfrom(fd, pv, cb, fFlags, nullptr, nullptr);
}

ssize_t __recvfrom_chk(int fd, void *pv, std::size_t cb, std::size_t, int fFlags, sockaddr *pFrom,
                       socklen_t *pcbFrom)
{
    return recvfrom(fd, pv, cb, fFlags, pFrom, pcbFrom);
}

ssize_t __recv_chk(int fd, void *pv, std::size_t cb, std::size_t, int fFlags)
{
    return recvfrom(fd, pv, cb, fFlags, nullptr, nullptr);
}

ssize_t sendto(int fd, void const *pv, std::size_t cb, int fFlags, sockaddr const *pTo,
               socklen_t cbTo)
{
    WORLD_CALL(sendto, fd, pv, cb, fFlags, pTo, cbTo);
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        return -1;
    }
    char const *const p = static_cast<char const *>(pv);
    return pSocket->eType == eSTREAM
               ? SendStream(*pSocket, p, cb, fFlags)
               : SendDatagram(*pSocket, p, cb, pTo != nullptr ? FromSystem(pTo) : pSocket->peer);
}

ssize_t send(int fd, void const *pv, std::size_t cb, int fFlags)
{
    return sendto(fd, pv, cb, fFlags, nullptr, 0);
}

// ---- Waiting for several

int poll(pollfd *pEntries, nfds_t c, int nMilliseconds)
{
    WORLD_CALL(poll, pEntries, c, nMilliseconds);
    SimTime const due = DueIn(nMilliseconds);
    for (;;) {
        int cReady = 0;
        for (nfds_t n = 0; n < c; ++n) {
            SocketPtr const pSocket = Find(pEntries[n].fd);
            std::uint32_t const dwWanted =
                static_cast<std::uint32_t>(pEntries[n].events) | EPOLLERR | EPOLLHUP;
            pEntries[n].revents =
                pSocket ? static_cast<short>(Ready(*pSocket) & dwWanted) : short{POLLNVAL};
            cReady += pEntries[n].revents != 0;
        }
        if (cReady > 0 || nMilliseconds == 0) {
            return cReady;
        }
        WaitKey const key = c == 1 ? WaitKey{eWT_SOCKET, static_cast<std::uint64_t>(pEntries[0].fd)}
                            : c == 0 ? WaitKey{eWT_TIME}
                                     : WaitKey{eWT_ANY_SOCKET};
        if (!g_world.Block(key, due)) {
            return 0;
        }
    }
}

int ppoll(pollfd *pEntries, nfds_t c, timespec const *pTime, sigset_t const *)
{
    SimTime const time = pTime == nullptr ? -1 : pTime->tv_sec * kSimSecond + pTime->tv_nsec;
    return poll(
        pEntries, c,
        pTime == nullptr ? -1 : static_cast<int>((time + kSimMillisecond - 1) / kSimMillisecond));
}

int __poll_chk(pollfd *pEntries, nfds_t c, int nMilliseconds, std::size_t)
{
    return poll(pEntries, c, nMilliseconds);
}

int epoll_create1(int fFlags) noexcept
{
    WORLD_CALL(epoll_create1, fFlags);
    return Open(eEPOLL, false);
}

int epoll_ctl(int fdSet, int nWhat, int fd, epoll_event *pEvent) noexcept
{
    WORLD_CALL(epoll_ctl, fdSet, nWhat, fd, pEvent);
    SocketPtr const pSet = Use(fdSet);
    SocketPtr const pSocket = Use(fd);
    if (!pSet || !pSocket) {
        return -1;
    }
    bool const fThere = pSet->watched.contains(fd);
    if (fThere == (nWhat == EPOLL_CTL_ADD)) {
        return FailWith(fThere ? EEXIST : ENOENT);
    }
    if (nWhat != EPOLL_CTL_DEL && (pEvent->events & (EPOLLET | EPOLLONESHOT)) != 0) {
        g_world.Fail("a way of waiting for sockets that the world does not know");
    }
    if (nWhat == EPOLL_CTL_DEL) {
        pSet->watched.erase(fd);
        std::erase(pSocket->watchers, fdSet);
        return 0;
    }
    pSet->watched[fd] = *pEvent;
    if (!fThere) {
        pSocket->watchers.push_back(fdSet);
    }
    Changed(*pSocket);
    return 0;
}

int epoll_wait(int fdSet, epoll_event *pEvents, int cMost, int nMilliseconds)
{
    WORLD_CALL(epoll_wait, fdSet, pEvents, cMost, nMilliseconds);
    SocketPtr const pSet = Use(fdSet);
    if (!pSet) {
        return -1;
    }
    SimTime const due = DueIn(nMilliseconds);
    for (;;) {
        int const c = TakeReady(*pSet, pEvents, cMost);
        if (c > 0 || nMilliseconds == 0 ||
            !g_world.Block({eWT_SOCKET, static_cast<std::uint64_t>(fdSet)}, due)) {
            return c;
        }
    }
}

int eventfd(unsigned nCount, int fFlags) noexcept
{
    WORLD_CALL(eventfd, nCount, fFlags);
    int const fd = Open(eEVENT, (fFlags & EFD_NONBLOCK) != 0);
    if (fd >= 0) {
        Find(fd)->qwCount = nCount;
    }
    return fd;
}

// ---- What files have, too

ssize_t read(int fd, void *pv, std::size_t cb)
{
    WORLD_CALL(read, fd, pv, cb);
    if (!IsOurs(fd)) {
        return REAL(read)(fd, pv, cb);
    }
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        return -1;
    }
    if (pSocket->eType != eEVENT) {
        return recvfrom(fd, pv, cb, 0, nullptr, nullptr);
    }
    if (!AwaitReady(*pSocket, EPOLLIN, 0)) {
        return -1;
    }
    std::memcpy(pv, &pSocket->qwCount, sizeof pSocket->qwCount);
    pSocket->qwCount = 0;
    return sizeof pSocket->qwCount;
}

ssize_t write(int fd, void const *pv, std::size_t cb)
{
    WORLD_CALL(write, fd, pv, cb);
    if (!IsOurs(fd)) {
        return REAL(write)(fd, pv, cb);
    }
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        return -1;
    }
    if (pSocket->eType != eEVENT) {
        return sendto(fd, pv, cb, 0, nullptr, 0);
    }
    std::uint64_t qw = 0;
    std::memcpy(&qw, pv, sizeof qw);
    pSocket->qwCount += qw;
    Changed(*pSocket);
    return sizeof qw;
}

int close(int fd)
{
    WORLD_CALL(close, fd);
    if (!IsOurs(fd)) {
        ForgetFile(fd);
        return REAL(close)(fd);
    }
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        g_world.Fail("a descriptor is closed that is none, or was closed before");
    }
    Close(*pSocket);
    g_sockets.erase(fd);
    return 0;
}

int fcntl(int fd, int nCommand, ...)
{
    va_list args;
    va_start(args, nCommand);
    void *const pvArgument = va_arg(args, void *);
    va_end(args);
    WORLD_CALL(fcntl, fd, nCommand, pvArgument);
    if (!IsOurs(fd)) {
        return REAL(fcntl)(fd, nCommand, pvArgument);
    }
    SocketPtr const pSocket = Use(fd);
    if (!pSocket) {
        return -1;
    }
    if (nCommand == F_SETFL) {
        pSocket->fNonBlocking = (reinterpret_cast<std::uintptr_t>(pvArgument) & O_NONBLOCK) != 0;
        return 0;
    }
    return nCommand == F_GETFL ? O_RDWR | (pSocket->fNonBlocking ? O_NONBLOCK : 0) : 0;
}

// ---- Names

int gethostname(char *psz, std::size_t cb) noexcept
{
    WORLD_CALL(gethostname, psz, cb);
    std::snprintf(psz, cb, "host%d", g_world.Process(t_pSimThread->nProcess).nHost);
    return 0;
}

int getifaddrs(ifaddrs **ppList) noexcept
{
    WORLD_CALL(getifaddrs, ppList);
    struct OneType {
        ifaddrs entry;
        sockaddr_in address;
    };
    auto *const p = static_cast<OneType *>(std::calloc(2, sizeof(OneType)));
    std::uint32_t const adwHosts[] = {0x7F000001,
                                      AddressOf(g_world.Process(t_pSimThread->nProcess).nHost)};
    for (int i = 0; i < 2; ++i) {
        p[i].address.sin_family = AF_INET;
        p[i].address.sin_addr.s_addr = htonl(adwHosts[i]);
        p[i].entry.ifa_addr = reinterpret_cast<sockaddr *>(&p[i].address);
        p[i].entry.ifa_flags = IFF_UP | IFF_RUNNING | (i == 0 ? IFF_LOOPBACK : 0);
        p[i].entry.ifa_next = i == 0 ? &p[1].entry : nullptr;
    }
    *ppList = &p->entry;
    return 0;
}

void freeifaddrs(ifaddrs *pList) noexcept
{
    return t_pSimThread == nullptr ? REAL(freeifaddrs)(pList) : std::free(pList);
}

int getaddrinfo(char const *pszName, char const *pszService, addrinfo const *pHints,
                addrinfo **ppList)
{
    WORLD_CALL(getaddrinfo, pszName, pszService, pHints, ppList);
    g_world.Block({eWT_TIME},
                  g_world.Now() + static_cast<SimTime>(g_world.m_network.Below(3 * kSimSecond)));
    if (std::strncmp(pszName, "host", 4) != 0) {
        return EAI_NONAME;
    }
    struct OneType {
        addrinfo info;
        sockaddr_in address;
    };
    auto *const p = static_cast<OneType *>(std::calloc(1, sizeof(OneType)));
    p->address.sin_family = AF_INET;
    p->address.sin_addr.s_addr = htonl(AddressOf(std::atoi(pszName + 4)));
    p->info.ai_family = AF_INET;
    p->info.ai_addr = reinterpret_cast<sockaddr *>(&p->address);
    p->info.ai_addrlen = sizeof p->address;
    *ppList = &p->info;
    return 0;
}

void freeaddrinfo(addrinfo *pList) noexcept
{
    return t_pSimThread == nullptr ? REAL(freeaddrinfo)(pList) : std::free(pList);
}

int getnameinfo(sockaddr const *pAddress, socklen_t cbAddress, char *pszName, socklen_t cbName,
                char *pszService, socklen_t cbService, int fFlags)
{
    WORLD_CALL(getnameinfo, pAddress, cbAddress, pszName, cbName, pszService, cbService, fFlags);
    SimTime const most = g_world.m_network.OneIn(10) ? 10 * kSimSecond : 10 * kSimMillisecond;
    g_world.Block({eWT_TIME}, g_world.Now() + static_cast<SimTime>(g_world.m_network.Below(
                                                  static_cast<std::uint64_t>(most))));
    std::uint32_t const dwHost = FromSystem(pAddress).dwHost;
    if (IsLoopback(dwHost) || g_world.m_network.OneIn(4)) {
        return EAI_NONAME;
    }
    std::snprintf(pszName, cbName, "host%u", dwHost - kNet);
    return 0;
}

} // extern "C"
