#pragma once

/// @file
/// The table of sockets, and the use that a call makes of one.
///
/// How a close meets the threads that are inside a call: a call takes a use of the slot for its time, and the
/// descriptor is closed by whoever gives back the last use after the slot was marked as closing; so the number can
/// not come to mean another file under a thread that still has it in hand. closesocket marks the slot first and
/// then shuts the socket down in both directions. The kernel keeps that state, also for a datagram socket that is
/// not connected (where it reports ENOTCONN all the same): a receive that is blocked returns, and one that begins
/// only now does not block. `connect` is the exception, since a connection attempt can begin after a shutdown; it
/// looks at the mark once the attempt is on its way.

#include "platform/socket.h"

#include <atomic>
#include <cstdint>

inline constexpr unsigned kMaxSockets = 65536; ///< open at a time; the table grows up to that

/// How far a stream socket has come.
enum class ESocketLink : int { eNEVER, eCONNECTED, eSEND_SHUT };

/// @{
/// The state word: generation in the high half; in the low half two marks and the number of uses.
inline constexpr std::uint64_t kSocketClosing = std::uint64_t{1} << 31;
inline constexpr std::uint64_t kSocketOpen = std::uint64_t{1} << 30;
inline constexpr std::uint64_t kSocketUses = kSocketOpen - 1;
/// @}

/// A place in the table.
struct CSocketSlot {
    std::atomic<std::uint64_t> qwState{0};
    int fd = 0;    ///< constant while the slot is open, without meaning otherwise
    int nType = 0; ///< likewise: SOCK_STREAM or SOCK_DGRAM
    std::atomic<bool> bBound{false};
    std::atomic<ESocketLink> eState{ESocketLink::eNEVER};
    std::atomic<DWORD> dwRecvTimeout{0}; ///< milliseconds, 0 for none
    std::atomic<DWORD> dwSendTimeout{0};
    std::uint32_t nIndex = 0;    ///< its place; constant once it was used
    std::uint32_t nNextFree = 0; ///< the one behind it, while it is free; under the table's lock

    bool IsStream() const { return nType == SOCK_STREAM; }
    bool IsClosing() const { return (qwState.load() & kSocketClosing) != 0; }
};

/// @{
/// True between WSAStartup and its WSACleanup; otherwise the last error is WSANOTINITIALISED. SocketsStart counts
/// one start, SocketsEnd takes one back, and is false when there is none.
bool SocketsAreStarted();
void SocketsStart();
bool SocketsEnd();
/// @}

/// Sets the last error. @return SOCKET_ERROR
int SocketFail(int nError);

/// What Winsock calls an errno; WSAEINVAL for what it has no word for.
int SocketErrorOf(int nErrno);

/// SocketFail for a call on that socket that gave nErrno; WSAEINTR if it is being closed.
int SocketFailAs(CSocketSlot const &socket, int nErrno);

/// Makes a SOCKET of a descriptor of type SOCK_STREAM or SOCK_DGRAM and takes it over, also when it fails: then
/// INVALID_SOCKET with the last error.
SOCKET SocketOpenSlot(int fd, int nType, ESocketLink eState);

/// Takes one use of a socket and sets qwMarks, if it is open and nobody has begun to close it; null otherwise.
/// *pqwBefore, if given, is the state word before.
CSocketSlot *SocketTakeUse(SOCKET s, std::uint64_t qwMarks, std::uint64_t *pqwBefore = nullptr);

/// Gives it back, and closes the socket with the last one after a mark.
void SocketGiveUse(CSocketSlot &socket);

/// A call's use of a socket. False, with the reason as last error, when there is none.
class CSocketUse {
public:
    explicit CSocketUse(SOCKET s)
    {
        if (!SocketsAreStarted()) {
            return;
        }
        m_pSocket = SocketTakeUse(s, 0);
        if (m_pSocket == nullptr) {
            SocketFail(WSAENOTSOCK);
        }
    }
    ~CSocketUse()
    {
        if (m_pSocket != nullptr) {
            SocketGiveUse(*m_pSocket);
        }
    }
    CSocketUse(CSocketUse const &) = delete;
    CSocketUse &operator=(CSocketUse const &) = delete;

    explicit operator bool() const { return m_pSocket != nullptr; }
    CSocketSlot &operator*() const { return *m_pSocket; }
    CSocketSlot *operator->() const { return m_pSocket; }

private:
    CSocketSlot *m_pSocket = nullptr;
};
