#include "devlink/link_stream.h"

#include "devlink/link_protocol.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <tuple>

namespace {

// What a blocking socket that says it can be written takes without blocking.
constexpr std::size_t kSendPiece = 2048;
constexpr std::size_t kReceivePiece = 4096;
// Backstop of SendPiece should a socket that can be written block all the same.
constexpr DWORD kSendTimeoutMs = 500;

// A decimal number without sign or leading zeroes. Gives the place after it, null if there is none.
char const *ParseNumber(char const *p, char const *pEnd, DWORD dwMax, DWORD *pdw)
{
    auto const [pNext, error] = std::from_chars(p, pEnd, *pdw);
    bool const fLeadingZero = pNext - p > 1 && *p == '0';
    return error == std::errc() && !fLeadingZero && *pdw <= dwMax ? pNext : nullptr;
}

sockaddr const *AsSockAddr(sockaddr_in const *p)
{
    return reinterpret_cast<sockaddr const *>(p);
}

void Configure(SOCKET s)
{
    // Requests are small and wait for their answers; joining them up would only delay both.
    int const fOn = 1;
    ws::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char const *>(&fOn), sizeof fOn);
    ws::setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<char const *>(&kSendTimeoutMs),
                   sizeof kSendTimeoutMs);
}

} // namespace

DWORD MillisecondsUntil(LinkTime then)
{
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(then - LinkClock::now()).count();
    return static_cast<DWORD>(std::clamp<long long>(left, 0, 0x7FFFFFFF));
}

bool LinkAddress::operator<(LinkAddress const &other) const
{
    return std::tie(dwHost, wPort) < std::tie(other.dwHost, other.wPort);
}

bool ParseDottedAddress(std::string const &str, DWORD *pdwHost)
{
    char const *p = str.data();
    char const *const pEnd = p + str.size();
    DWORD dwHost = 0;
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && (p == pEnd || *p++ != '.')) {
            return false;
        }
        DWORD dwPart = 0;
        p = ParseNumber(p, pEnd, 255, &dwPart);
        if (!p) {
            return false;
        }
        dwHost = dwHost << 8 | dwPart;
    }
    *pdwHost = dwHost;
    return p == pEnd;
}

bool ParseHostAndPort(std::string const &str, LinkAddress *pAddress)
{
    std::size_t const nColon = str.find(':');
    DWORD dwHost = 0;
    DWORD dwPort = 0;
    if (nColon == std::string::npos || !ParseDottedAddress(str.substr(0, nColon), &dwHost)) {
        return false;
    }
    char const *const pEnd = str.data() + str.size();
    if (ParseNumber(str.data() + nColon + 1, pEnd, 65535, &dwPort) != pEnd || dwPort == 0) {
        return false;
    }
    DWORD const dwNet = dwHost >> 24;
    if (dwNet == 0 || dwNet >= 224) {
        return false;
    }
    *pAddress = {dwHost, static_cast<WORD>(dwPort)};
    return true;
}

std::string FormatAddress(LinkAddress const &address)
{
    char sz[32];
    std::snprintf(sz, sizeof sz, "%u.%u.%u.%u:%u", static_cast<unsigned>(address.dwHost >> 24),
                  static_cast<unsigned>(address.dwHost >> 16 & 255),
                  static_cast<unsigned>(address.dwHost >> 8 & 255),
                  static_cast<unsigned>(address.dwHost & 255),
                  static_cast<unsigned>(address.wPort));
    return sz;
}

sockaddr_in ToSockAddr(LinkAddress const &address)
{
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = ws::htons(address.wPort);
    sa.sin_addr.s_addr = ws::htonl(address.dwHost);
    return sa;
}

LinkAddress FromSockAddr(sockaddr_in const &address)
{
    return {static_cast<DWORD>(ws::ntohl(address.sin_addr.s_addr)), ws::ntohs(address.sin_port)};
}

bool CSocketLibrary::Start()
{
    WSADATA data{};
    m_fStarted = m_fStarted || ws::WSAStartup(0x0202, &data) == 0;
    return m_fStarted;
}

CSocketLibrary::~CSocketLibrary()
{
    if (m_fStarted) {
        ws::WSACleanup();
    }
}

void CLinkSocket::Set(SOCKET s)
{
    SOCKET const sOld = m_s.exchange(s);
    if (sOld != INVALID_SOCKET) {
        ws::closesocket(sOld);
    }
}

CLinkStream::CLinkStream(SOCKET s) : m_socket(s)
{
    if (s != INVALID_SOCKET) {
        Configure(s);
    }
}

int CLinkStream::Open()
{
    SOCKET const s = ws::socket(AF_INET, SOCK_STREAM, 0);
    if (s == INVALID_SOCKET) {
        return ws::WSAGetLastError();
    }
    m_socket.Set(s);
    if (m_fClosed) { // Close came before there was a socket for it to close
        Close();
    }
    return 0;
}

int CLinkStream::Connect(LinkAddress const &address, LinkTime deadline)
{
    if (int const nError = Open()) {
        return nError;
    }
    sockaddr_in const sa = ToSockAddr(address);
    if (PlatConnect(Socket(), AsSockAddr(&sa), sizeof sa, MillisecondsUntil(deadline)) != 0) {
        return ws::WSAGetLastError();
    }
    Configure(Socket());
    return 0;
}

int CLinkStream::BeginConnect(LinkAddress const &address)
{
    if (int const nError = Open()) {
        return nError;
    }
    sockaddr_in const sa = ToSockAddr(address);
    return PlatConnectBegin(Socket(), AsSockAddr(&sa), sizeof sa) == 0 ? 0 : ws::WSAGetLastError();
}

int CLinkStream::EndConnect()
{
    if (PlatConnectEnd(Socket()) != 0) {
        return ws::WSAGetLastError();
    }
    Configure(Socket());
    return 0;
}

void CLinkStream::FinishSending()
{
    static_cast<void>(ws::shutdown(m_socket.Get(), SD_SEND)); // fails when the link is gone anyway
}

void CLinkStream::Close()
{
    m_fClosed = true;
    m_socket.Close();
}

bool CLinkStream::SendPiece(BYTE const *p, std::size_t cb, LinkTime deadline, std::size_t *pcbSent)
{
    // The first piece is tried even when the time is just up.
    if (PlatSocketWait(m_socket.Get(), /*bWrite=*/true, MillisecondsUntil(deadline)) != 1) {
        return false;
    }
    int const n = ws::send(m_socket.Get(), reinterpret_cast<char const *>(p),
                           static_cast<int>(std::min(cb, kSendPiece)), 0);
    if (n <= 0) {
        return false;
    }
    *pcbSent = static_cast<std::size_t>(n);
    return true;
}

bool CLinkStream::SendUnclosed(LinkBytes const &frame, LinkTime deadline)
{
    for (std::size_t nPos = 0; nPos < frame.size();) {
        std::size_t cbSent = 0;
        if (!SendPiece(frame.data() + nPos, frame.size() - nPos, deadline, &cbSent)) {
            return false;
        }
        nPos += cbSent;
    }
    return true;
}

bool CLinkStream::Send(LinkBytes const &frame, LinkTime deadline)
{
    bool const fSent = SendUnclosed(frame, deadline);
    if (!fSent) {
        Close();
    }
    return fSent;
}

int CLinkStream::SendSome(BYTE const *p, std::size_t cb)
{
    int const nReady = PlatSocketWait(m_socket.Get(), /*bWrite=*/true, 0);
    if (nReady <= 0) {
        return nReady;
    }
    int const n = ws::send(m_socket.Get(), reinterpret_cast<char const *>(p),
                           static_cast<int>(std::min(cb, kSendPiece)), 0);
    return n > 0 ? n : -1;
}

bool CLinkStream::ReadSome()
{
    BYTE piece[kReceivePiece];
    int const n = ws::recv(m_socket.Get(), reinterpret_cast<char *>(piece), sizeof piece, 0);
    if (n <= 0) {
        return false;
    }
    m_decoder.Feed(piece, static_cast<std::size_t>(n));
    return true;
}

LinkReceive CLinkStream::NextFrame(LinkFrame *pFrame)
{
    if (m_decoder.Next(pFrame)) {
        return eRX_FRAME;
    }
    return m_decoder.IsGarbage() ? eRX_GARBAGE : eRX_TIMEOUT;
}

LinkReceive CLinkStream::Receive(LinkFrame *pFrame, LinkTime deadline)
{
    for (;;) {
        if (LinkReceive const eReceive = NextFrame(pFrame); eReceive != eRX_TIMEOUT) {
            return eReceive;
        }
        int const nReady =
            PlatSocketWait(m_socket.Get(), /*bWrite=*/false, MillisecondsUntil(deadline));
        if (nReady == 0) {
            return eRX_TIMEOUT;
        }
        if (nReady < 0 || !ReadSome()) {
            return eRX_CLOSED;
        }
    }
}

LinkAddress CLinkStream::Peer() const
{
    sockaddr_in sa{};
    int cb = sizeof sa;
    if (ws::getpeername(m_socket.Get(), reinterpret_cast<sockaddr *>(&sa), &cb) != 0) {
        return {};
    }
    return FromSockAddr(sa);
}
