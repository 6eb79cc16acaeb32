#pragma once
/// @file
/// A TCP connection that carries frames, with a deadline on everything.
///
/// One thread may receive while another sends; two senders at once would mix their bytes and have to
/// be kept apart by the owner. Close may be called by any thread at any time and wakes both.
#include "devlink/link_frame.h"
#include "platform/socket.h"

#include <atomic>
#include <chrono>
#include <string>

/// @{
/// Deadlines are on the monotonic clock.
using LinkClock = std::chrono::steady_clock;
using LinkTime = LinkClock::time_point;
/// @}

/// Whole milliseconds until then, rounded up, 0 when it has passed.
DWORD MillisecondsUntil(LinkTime then);

/// An IPv4 address and port, both in host order.
struct LinkAddress {
    DWORD dwHost = 0; ///< 0: none
    WORD wPort = 0;   ///< 0: none

    /// @{
    /// By host, then by port.
    bool operator==(LinkAddress const &) const = default;
    bool operator<(LinkAddress const &other) const;
    /// @}
};

/// Four decimal numbers from 0 to 255 with dots, nothing else ("010" and "1.2.3" are refused).
bool ParseDottedAddress(std::string const &str, DWORD *pdwHost);
/// "a.b.c.d:port", port 1 to 65535, to a single host: not 0.x, not multicast, not broadcast.
bool ParseHostAndPort(std::string const &str, LinkAddress *pAddress);
std::string FormatAddress(LinkAddress const &address); ///< "a.b.c.d:port"

/// @{
/// From and to the socket calls' own form.
sockaddr_in ToSockAddr(LinkAddress const &address);
LinkAddress FromSockAddr(sockaddr_in const &address);
/// @}

/// Holds a start of the socket library. One thread at a time.
class CSocketLibrary {
public:
    CSocketLibrary() { Start(); }
    ~CSocketLibrary();
    CSocketLibrary(CSocketLibrary const &) = delete;
    CSocketLibrary &operator=(CSocketLibrary const &) = delete;

    /// Another try if none has succeeded yet. Whether the library can be used.
    bool Start();

private:
    bool m_fStarted = false;
};

/// Owns a socket; closed once, whoever comes first.
class CLinkSocket {
public:
    /// @{
    /// Takes the socket over.
    explicit CLinkSocket(SOCKET s = INVALID_SOCKET) : m_s(s) {}
    ~CLinkSocket() { Close(); }
    CLinkSocket(CLinkSocket const &) = delete;
    CLinkSocket &operator=(CLinkSocket const &) = delete;
    /// @}

    /// The socket, for a call; INVALID_SOCKET once it is closed. Stays the owner's.
    SOCKET Get() const { return m_s.load(); }
    /// Whether there is one.
    bool IsOpen() const { return Get() != INVALID_SOCKET; }
    void Set(SOCKET s); ///< closes what it held
    /// Any thread, any number of times.
    void Close() { Set(INVALID_SOCKET); }

private:
    std::atomic<SOCKET> m_s;
};

/// How a Receive ended.
enum LinkReceive {
    eRX_FRAME,
    eRX_TIMEOUT,
    eRX_CLOSED,  ///< by the peer, by Close, or by an error
    eRX_GARBAGE, ///< the peer does not speak this protocol
};

/// One connection of the device link.
class CLinkStream {
public:
    /// Takes a connected socket over, or makes one at Connect.
    explicit CLinkStream(SOCKET s = INVALID_SOCKET);

    /// Connects. 0, or the socket library's error (WSAETIMEDOUT when the time was up).
    int Connect(LinkAddress const &address, LinkTime deadline);
    /// @{
    /// The same for an owner who waits for the socket itself: begins, and once the socket can be written or shows
    /// something to read, EndConnect is WSAEWOULDBLOCK while the attempt goes on, else as Connect.
    int BeginConnect(LinkAddress const &address);
    int EndConnect();
    /// @}

    /// Sends the frame whole. False when it could not be sent by then or the connection broke; part of
    /// it may be under way, so the stream is of no further use and has been closed.
    bool Send(LinkBytes const &frame, LinkTime deadline);
    /// The same, but leaves a stream that is of no further use to its owner to be closed.
    bool SendUnclosed(LinkBytes const &frame, LinkTime deadline);

    /// Waits for one whole frame. After anything but eRX_FRAME and eRX_TIMEOUT the stream is of no use.
    LinkReceive Receive(LinkFrame *pFrame, LinkTime deadline);

    /// @{
    /// For an owner who waits for the socket itself, one thread at a time: none of them waits. SendSome gives
    /// the bytes that were sent, 0 when the peer takes none now, -1 when the connection is broken. ReadSome
    /// takes in some of what has come, once something has, and is false at the end of the connection.
    /// NextFrame is eRX_TIMEOUT when no whole frame has come yet.
    SOCKET Socket() const { return m_socket.Get(); }
    int SendSome(BYTE const *p, std::size_t cb);
    bool ReadSome();
    LinkReceive NextFrame(LinkFrame *pFrame);
    /// @}

    /// Tells the peer that nothing more comes; what it still sends can be received.
    void FinishSending();
    /// For good: a Connect that comes later, or is under way, fails.
    void Close();
    LinkAddress Peer() const; ///< zeroes when not connected

private:
    int Open();
    bool SendPiece(BYTE const *p, std::size_t cb, LinkTime deadline, std::size_t *pcbSent);

    std::atomic<bool> m_fClosed{false};
    CLinkSocket m_socket;
    CLinkDecoder m_decoder; // the receiving thread's
};
