#include "tools/mfpsim_control.h"

#include "platform/localsocket.h"
#include "tools/showable.h"

#include <filesystem>
#include <iostream>
#include <optional>

namespace {

constexpr std::size_t kMaxCalls = 16;
constexpr std::size_t kMaxLine = 4096;
constexpr DWORD kSendTimeMs = 1000;
constexpr char kDone[] = "ok";
constexpr char kError[] = "error: ";

std::string SocketError(int nError)
{
    switch (nError) {
    case WSAEADDRINUSE:
        return "it is in use";
    case WSAEAFNOSUPPORT:
        return "this system has no such sockets";
    case WSAEFAULT:
        return "the path is too long";
    case WSAEADDRNOTAVAIL:
        return "there is no such folder";
    case WSAEACCES:
        return "permission denied";
    case WSAECONNREFUSED:
        return "nobody listens there";
    default:
        return "error " + std::to_string(nError);
    }
}

bool SendLine(SOCKET s, std::string strLine)
{
    strLine += '\n';
    return ws::send(s, strLine.data(), static_cast<int>(strLine.size()), 0) ==
           static_cast<int>(strLine.size());
}

// Lines out of a stream. One thread.
class CLineReader {
public:
    explicit CLineReader(SOCKET s) : m_s(s) {}

    // The next line without its end; nothing at the stream's, also if a line is too long.
    std::optional<std::string> Next()
    {
        std::size_t nEnd;
        while ((nEnd = m_strPending.find('\n')) == std::string::npos) {
            char piece[512];
            int const n = ws::recv(m_s, piece, sizeof piece, 0);
            if (n <= 0 || m_strPending.size() > kMaxLine) {
                return std::nullopt;
            }
            m_strPending.append(piece, static_cast<std::size_t>(n));
        }
        std::string strLine = m_strPending.substr(0, nEnd);
        m_strPending.erase(0, nEnd + 1);
        return strLine;
    }

private:
    SOCKET const m_s;
    std::string m_strPending;
};

} // namespace

CControlSocket::~CControlSocket()
{
    m_fEnding = true;
    bool const fListened = m_listener.IsOpen();
    m_listener.Close();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    for (Call &call : m_calls) {
        static_cast<void>(
            ws::shutdown(call.socket.Get(), SD_RECEIVE)); // its last answer may go out
        call.thread.join();
    }
    if (fListened) {
        std::error_code error;
        std::filesystem::remove(m_strPath, error); // the next one could do with it lying there
    }
}

bool CControlSocket::Start(std::string const &strPath, std::string *pstrError)
{
    m_strPath = strPath;
    m_listener.Set(PlatListenLocal(strPath.c_str()));
    if (!m_listener.IsOpen()) {
        *pstrError =
            "cannot listen for commands at " + strPath + ": " + SocketError(ws::WSAGetLastError());
        return false;
    }
    m_thread = std::thread([this] { Accept(); });
    return true;
}

void CControlSocket::Accept()
{
    while (!m_fEnding) {
        SOCKET const s = ws::accept(m_listener.Get(), nullptr, nullptr);
        std::erase_if(m_calls, [](Call &call) {
            bool const fFinished = call.fFinished;
            if (fFinished) {
                call.thread.join();
            }
            return fFinished;
        });
        if (s == INVALID_SOCKET) { // the end, or a shortage that may pass
            m_simulation.Sleep(50);
        } else if (m_calls.size() == kMaxCalls) {
            SendLine(s, std::string(kError) + "too many callers");
            ws::closesocket(s);
        } else {
            // A caller that does not read its answer must not hold up the end.
            ws::setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<char const *>(&kSendTimeMs),
                           sizeof kSendTimeMs);
            Call &call = m_calls.emplace_back(s);
            call.thread = std::thread([this, &call] { Serve(call); });
        }
    }
}

void CControlSocket::Serve(Call &call)
{
    CCommandSession session(m_simulation);
    CLineReader reader(call.socket.Get());
    while (auto const strLine = reader.Next()) {
        if (!Answer(call, session, *strLine)) {
            break;
        }
    }
    call.socket.Close();
    call.fFinished = true;
}

bool CControlSocket::Answer(Call &call, CCommandSession &session, std::string const &strLine)
{
    CommandResult const result = session.Execute(strLine);
    bool fSent = true;
    for (std::string const &strAnswer : result.lines) {
        fSent = fSent && SendLine(call.socket.Get(), Showable(strAnswer));
    }
    fSent = fSent &&
            SendLine(call.socket.Get(), result.fDone ? kDone : kError + Showable(result.strError));
    if (result.fQuit) {
        m_simulation.Quit();
    }
    return fSent;
}

bool TellSimulation(std::string const &strPath, std::string const &strCommand)
{
    CSocketLibrary const library;
    CLinkSocket const socket(PlatConnectLocal(strPath.c_str()));
    if (!socket.IsOpen()) {
        std::cerr << "mfpsim: cannot reach " << strPath << ": "
                  << SocketError(ws::WSAGetLastError()) << std::endl;
        return false;
    }
    CLineReader reader(socket.Get());
    SendLine(socket.Get(), strCommand);
    while (auto const strLine = reader.Next()) {
        if (*strLine == kDone) {
            return true;
        }
        if (strLine->starts_with(kError)) {
            std::cerr << "mfpsim: " << strLine->substr(sizeof kError - 1) << std::endl;
            return false;
        }
        std::cout << *strLine << std::endl;
    }
    std::cerr << "mfpsim: " << strPath << " has hung up" << std::endl;
    return false;
}
