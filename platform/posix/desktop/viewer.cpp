#include "platform/posix/desktop/viewer.h"

#include "platform/posix/error.h"
#include "platform/posix/files/fileobject.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>

namespace {

constexpr int kcBacklog = 128;
constexpr std::size_t kcMaxPeers = 512;
constexpr std::size_t kcbStep =
    64 * 1024;                     // a buffer grows by what has come, not by what is promised
constexpr int knAcceptPause = 100; // ms, when we have no descriptor for a new peer

} // namespace

sockaddr_un WindowSocket(std::string const &strPath)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s.sock", strPath.c_str());
    return address;
}

bool IsOwnUser(int fdSocket)
{
    ucred peer = {};
    socklen_t cb = sizeof peer;
    return ::getsockopt(fdSocket, SOL_SOCKET, SO_PEERCRED, &peer, &cb) == 0 &&
           peer.uid == ::geteuid();
}

// One process that sends to our window: the message of it that is under way.
class CViewerPeer {
public:
    explicit CViewerPeer(CDescriptor fd) : m_fd(std::move(fd)) {}
    int Get() const { return m_fd.Get(); }

    // Takes what has come, and hands on at most one message. False if the peer is to be dropped.
    bool OnReadable(PlatCopyDataFn pfnCopyData, void *pContext)
    {
        return m_cbHeader < sizeof m_header ? ReadHeader(pfnCopyData, pContext)
                                            : ReadPayload(pfnCopyData, pContext);
    }

private:
    bool ReadHeader(PlatCopyDataFn pfnCopyData, void *pContext)
    {
        auto *pb = reinterpret_cast<char *>(&m_header);
        if (!ReadSome(pb + m_cbHeader, sizeof m_header - m_cbHeader, m_cbHeader)) {
            return false;
        }
        if (m_cbHeader < sizeof m_header) {
            return true;
        }
        if (m_header.dwMagic != kdwWindowMagic || m_header.cbData > kcbMaxCopyData) {
            return false;
        }
        return m_header.cbData != 0 ? ReadPayload(pfnCopyData, pContext)
                                    : Deliver(pfnCopyData, pContext);
    }

    bool ReadPayload(PlatCopyDataFn pfnCopyData, void *pContext)
    {
        if (m_cbPayload == m_ab.size()) {
            m_ab.resize(std::min<std::size_t>(m_header.cbData, m_cbPayload + kcbStep));
        }
        if (!ReadSome(m_ab.data() + m_cbPayload, m_ab.size() - m_cbPayload, m_cbPayload)) {
            return false;
        }
        return m_cbPayload < m_header.cbData || Deliver(pfnCopyData, pContext);
    }

    bool ReadSome(char *pb, std::size_t cb, std::size_t &cbSum)
    {
        ssize_t const cbNow = ::recv(m_fd.Get(), pb, cb, MSG_DONTWAIT);
        if (cbNow < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        cbSum += static_cast<std::size_t>(cbNow);
        return cbNow != 0;
    }

    bool Deliver(PlatCopyDataFn pfnCopyData, void *pContext)
    {
        COPYDATASTRUCT const data = {static_cast<ULONG_PTR>(m_header.dwData), m_header.cbData,
                                     m_ab.data()};
        std::int64_t const nAnswer = pfnCopyData(pContext, &data);
        m_cbHeader = 0;
        m_cbPayload = 0;
        m_ab.resize(std::min(m_ab.size(), kcbStep));
        m_ab.shrink_to_fit();
        m_ab.clear();
        // A sender waits for its answer, so there is room for it; one who does not wait is dropped.
        return ::send(m_fd.Get(), &nAnswer, sizeof nAnswer, MSG_NOSIGNAL | MSG_DONTWAIT) ==
               sizeof nAnswer;
    }

    CDescriptor m_fd;
    MessageHeaderType m_header = {};
    std::size_t m_cbHeader = 0;  // of it that have come
    std::size_t m_cbPayload = 0; // the same
    std::vector<char> m_ab;
};

CViewerWindow::CViewerWindow(PlatCopyDataFn pfnCopyData, void *pContext)
    : m_pfnCopyData(pfnCopyData), m_pContext(pContext)
{
}

CViewerWindow::~CViewerWindow()
{
    Shutdown();
}

void CViewerWindow::Shutdown()
{
    m_apPeers.clear();
    if (!m_fdListen.IsOpen()) {
        return;
    }
    ::unlink(WindowSocket(m_strPath).sun_path);
    m_fdListen.Reset();
    ::unlink(LockPath().c_str());
    // Not by the close alone: a child that is just being started has copies of our descriptors.
    ::flock(m_fdOwner.Get(), LOCK_UN);
}

DWORD CViewerWindow::Open(std::string const &strPath)
{
    m_strPath = strPath;
    DWORD const dwError = OwnTitle();
    if (dwError != NO_ERROR) {
        return dwError;
    }
    m_fdWake.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    CDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!m_fdWake.IsOpen() || !fd.IsOpen()) {
        return PlatErrorFromErrno(errno);
    }
    sockaddr_un const address = WindowSocket(strPath);
    ::unlink(address.sun_path);
    if (::bind(fd.Get(), reinterpret_cast<sockaddr const *>(&address), sizeof address) != 0 ||
        ::listen(fd.Get(), kcBacklog) != 0) {
        return PlatErrorFromErrno(errno);
    }
    m_fdListen = std::move(fd);
    return NO_ERROR;
}

DWORD CViewerWindow::Run()
{
    for (;;) {
        std::vector<pollfd> aPoll = PollRecords();
        int const cReady = ::poll(aPoll.data(), aPoll.size(), m_fPaused ? knAcceptPause : -1);
        if (cReady < 0 && errno != EINTR) {
            return PlatErrorFromErrno(errno);
        }
        if (aPoll[0].revents != 0) {
            return NO_ERROR;
        }
        m_fPaused = false;
        ServePeers(aPoll);
        if (aPoll[1].revents != 0) {
            AcceptPeer();
        }
    }
}

void CViewerWindow::Close()
{
    (void)::eventfd_write(m_fdWake.Get(), 1);
}

std::vector<pollfd> CViewerWindow::PollRecords() const
{
    std::vector<pollfd> aPoll = {{m_fdWake.Get(), POLLIN, 0},
                                 {m_fPaused ? -1 : m_fdListen.Get(), POLLIN, 0}};
    for (auto const &pPeer : m_apPeers) {
        aPoll.push_back({pPeer->Get(), POLLIN, 0});
    }
    return aPoll;
}

void CViewerWindow::ServePeers(std::vector<pollfd> const &aPoll)
{
    for (std::size_t i = 0; i < m_apPeers.size(); ++i) {
        if (aPoll[i + 2].revents != 0 && !m_apPeers[i]->OnReadable(m_pfnCopyData, m_pContext)) {
            m_apPeers[i] = nullptr;
        }
    }
    std::erase(m_apPeers, nullptr);
}

void CViewerWindow::AcceptPeer()
{
    CDescriptor fd(::accept4(m_fdListen.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!fd.IsOpen()) {
        m_fPaused = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        return;
    }
    // One too many is sent away, not left at the door, where it would wait for its answer.
    if (IsOwnUser(fd.Get()) && m_apPeers.size() < kcMaxPeers) {
        m_apPeers.push_back(std::make_unique<CViewerPeer>(std::move(fd)));
    }
}

// Who holds this lock owns the title; it goes with its process, however that ends, and what lies at
// the socket's path is then a leftover.
DWORD CViewerWindow::OwnTitle()
{
    for (;;) {
        m_fdOwner.Reset(::open(LockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        if (!m_fdOwner.IsOpen()) {
            return PlatErrorFromErrno(errno);
        }
        if (::flock(m_fdOwner.Get(), LOCK_EX | LOCK_NB) != 0) {
            return errno == EWOULDBLOCK ? ERROR_ALREADY_EXISTS : PlatErrorFromErrno(errno);
        }
        // The owner before us may have removed the file between our two steps.
        if (PlatIsSameFile(m_fdOwner.Get(), LockPath().c_str())) {
            return NO_ERROR;
        }
    }
}
