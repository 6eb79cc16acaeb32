#include "platform/window.h"

#include "platform/lock.h"
#include "platform/posix/error.h"
#include "platform/posix/files/fileobject.h"
#include "platform/posix/kernel/rundir.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <new>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kcBacklog = 128;
constexpr std::size_t kcMaxPeers = 512;
constexpr std::size_t kcbStep =
    64 * 1024;                     // a buffer grows by what has come, not by what is promised
constexpr int knBusyTries = 50;    // for a window whose backlog is full, 10 ms each
constexpr int knAcceptPause = 100; // ms, when we have no descriptor for a new peer

constexpr std::uint32_t kdwMagic = 0x314D5751; // "QWM1"

struct MessageHeaderType {
    std::uint32_t dwMagic;
    std::uint32_t cbData;
    std::uint64_t dwData;
};
static_assert(sizeof(MessageHeaderType) == 16);

class CDescriptor {
public:
    CDescriptor() = default;
    explicit CDescriptor(int fd) : m_fd(fd) {}
    CDescriptor(CDescriptor &&other) noexcept : m_fd(other.Detach()) {}
    CDescriptor &operator=(CDescriptor &&other) noexcept
    {
        Reset(other.Detach());
        return *this;
    }
    ~CDescriptor() { Reset(); }

    bool IsOpen() const { return m_fd >= 0; }
    int Get() const { return m_fd; }
    int Detach()
    {
        int const fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void Reset(int fd = -1)
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

// The path, without its ending, of what belongs to a title. Equal for titles that differ in the case of
// ASCII letters only; a hash, since the path of a socket has room for some 100 bytes.
DWORD WindowPath(char const *pszTitle, std::string &strPath)
{
    DWORD const dwError = PlatRunDir(strPath);
    if (dwError != NO_ERROR) {
        return dwError;
    }
    std::uint64_t nHash = 0xCBF29CE484222325u;
    for (; *pszTitle != '\0'; ++pszTitle) {
        char const ch =
            *pszTitle >= 'A' && *pszTitle <= 'Z' ? static_cast<char>(*pszTitle + 32) : *pszTitle;
        nHash = (nHash ^ static_cast<unsigned char>(ch)) * 0x100000001B3u;
    }
    char szName[40];
    std::snprintf(szName, sizeof szName, "/window-%016llx", static_cast<unsigned long long>(nHash));
    strPath += szName;
    return NO_ERROR;
}

sockaddr_un SocketAddress(std::string const &strPath)
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

// A connection to the window whose files have this path; not open with errno if there is none.
CDescriptor ConnectWindow(std::string const &strPath)
{
    // A blocking connect would wait for ever at a full backlog.
    CDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un const address = SocketAddress(strPath);
    auto const *pAddress = reinterpret_cast<sockaddr const *>(&address);
    int nResult = -1;
    for (int i = 0; fd.IsOpen() && i < knBusyTries; ++i) {
        nResult = ::connect(fd.Get(), pAddress, sizeof address);
        if (nResult == 0 || (errno != EAGAIN && errno != EINTR)) {
            break;
        }
        ::poll(nullptr, 0, 10);
    }
    if (nResult != 0) {
        fd.Reset();
        return fd;
    }
    if (!IsOwnUser(fd.Get()) || ::fcntl(fd.Get(), F_SETFL, 0) != 0) {
        fd.Reset();
        errno = ENOENT;
    }
    return fd;
}

bool SendAll(int fd, void const *pData, std::size_t cb)
{
    auto const *pb = static_cast<char const *>(pData);
    while (cb != 0) {
        ssize_t const cbNow = ::send(fd, pb, cb, MSG_NOSIGNAL);
        if (cbNow < 0 && errno == EINTR) {
            continue;
        }
        if (cbNow <= 0) {
            return false;
        }
        pb += cbNow;
        cb -= static_cast<std::size_t>(cbNow);
    }
    return true;
}

bool ReceiveAll(int fd, void *pData, std::size_t cb)
{
    ssize_t cbNow;
    do {
        cbNow = ::recv(fd, pData, cb, MSG_WAITALL);
    } while (cbNow < 0 && errno == EINTR);
    return cbNow == static_cast<ssize_t>(cb);
}

// One process that sends to our window: the message of it that is under way.
class CPeer {
public:
    explicit CPeer(CDescriptor fd) : m_fd(std::move(fd)) {}
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
        if (m_header.dwMagic != kdwMagic || m_header.cbData > kcbMaxCopyData) {
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

// The receiving side. All but Close belongs to the thread that made it.
class CViewer {
public:
    CViewer(PlatCopyDataFn pfnCopyData, void *pContext)
        : m_pfnCopyData(pfnCopyData), m_pContext(pContext)
    {
    }
    ~CViewer() { Shutdown(); }

    // Senders that wait see the end of their connections.
    void Shutdown()
    {
        m_apPeers.clear();
        if (!m_fdListen.IsOpen()) {
            return;
        }
        ::unlink(SocketAddress(m_strPath).sun_path);
        m_fdListen.Reset();
        ::unlink(LockPath().c_str());
        // Not by the close alone: a child that is just being started has copies of our descriptors.
        ::flock(m_fdOwner.Get(), LOCK_UN);
    }

    DWORD Open(std::string const &strPath)
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
        sockaddr_un const address = SocketAddress(strPath);
        ::unlink(address.sun_path);
        if (::bind(fd.Get(), reinterpret_cast<sockaddr const *>(&address), sizeof address) != 0 ||
            ::listen(fd.Get(), kcBacklog) != 0) {
            return PlatErrorFromErrno(errno);
        }
        m_fdListen = std::move(fd);
        return NO_ERROR;
    }

    bool IsOwnThread() const { return std::this_thread::get_id() == m_idThread; }

    DWORD Run()
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

    // Never taken back, so it does not matter whether the loop runs already.
    void Close() { (void)::eventfd_write(m_fdWake.Get(), 1); }

    LRESULT Call(COPYDATASTRUCT const *pData) { return m_pfnCopyData(m_pContext, pData); }

private:
    std::vector<pollfd> PollRecords() const
    {
        std::vector<pollfd> aPoll = {{m_fdWake.Get(), POLLIN, 0},
                                     {m_fPaused ? -1 : m_fdListen.Get(), POLLIN, 0}};
        for (auto const &pPeer : m_apPeers) {
            aPoll.push_back({pPeer->Get(), POLLIN, 0});
        }
        return aPoll;
    }

    void ServePeers(std::vector<pollfd> const &aPoll)
    {
        for (std::size_t i = 0; i < m_apPeers.size(); ++i) {
            if (aPoll[i + 2].revents != 0 && !m_apPeers[i]->OnReadable(m_pfnCopyData, m_pContext)) {
                m_apPeers[i] = nullptr;
            }
        }
        std::erase(m_apPeers, nullptr);
    }

    void AcceptPeer()
    {
        CDescriptor fd(::accept4(m_fdListen.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!fd.IsOpen()) {
            m_fPaused = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
            return;
        }
        // One too many is sent away, not left at the door, where it would wait for its answer.
        if (IsOwnUser(fd.Get()) && m_apPeers.size() < kcMaxPeers) {
            m_apPeers.push_back(std::make_unique<CPeer>(std::move(fd)));
        }
    }

    std::string LockPath() const { return m_strPath + ".lock"; }

    // Who holds this lock owns the title; it goes with its process, however that ends, and what lies at
    // the socket's path is then a leftover.
    DWORD OwnTitle()
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

    std::string m_strPath;
    PlatCopyDataFn const m_pfnCopyData;
    void *const m_pContext;
    std::thread::id const m_idThread = std::this_thread::get_id();
    CDescriptor m_fdOwner;
    CDescriptor m_fdWake;
    CDescriptor m_fdListen;
    std::vector<std::unique_ptr<CPeer>> m_apPeers;
    bool m_fPaused = false;
};

// What an HWND stands for: a window that was found, or made here (then m_pViewer is set), and our
// connection to it.
class CWindow {
public:
    CWindow(std::string strPath, CDescriptor fd)
        : m_strPath(std::move(strPath)), m_fd(std::move(fd))
    {
    }
    CWindow(std::string strPath, std::shared_ptr<CViewer> pViewer)
        : m_strPath(std::move(strPath)), m_pViewer(std::move(pViewer))
    {
    }

    std::string const m_strPath;
    std::shared_ptr<CViewer> const m_pViewer;

    // Whether the window still exists, without a word to it.
    bool IsAlive()
    {
        if (m_pViewer != nullptr || !m_mutex.try_lock()) {
            return true; // ours; or somebody is talking to it
        }
        CPlatGuard const lock(m_mutex, std::adopt_lock);
        char ch;
        return m_fd.IsOpen() && ::recv(m_fd.Get(), &ch, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
               (errno == EAGAIN || errno == EINTR);
    }

    bool Send(COPYDATASTRUCT const &data, LRESULT *pnAnswer)
    {
        CPlatGuard const lock(m_mutex);
        if (!m_fd.IsOpen() && m_pViewer != nullptr) {
            m_fd = ConnectWindow(m_strPath);
        }
        if (!m_fd.IsOpen()) {
            return false;
        }
        MessageHeaderType const header = {kdwMagic, data.cbData, data.dwData};
        std::int64_t nAnswer = 0;
        bool const fDone = SendAll(m_fd.Get(), &header, sizeof header) &&
                           SendAll(m_fd.Get(), data.lpData, data.cbData) &&
                           ReceiveAll(m_fd.Get(), &nAnswer, sizeof nAnswer);
        if (!fDone) {
            m_fd.Reset();
        }
        *pnAnswer = static_cast<LRESULT>(nAnswer);
        return fDone;
    }

private:
    CPlatMutex m_mutex; // held for the length of a message; after the mutex of the windows, if both
    CDescriptor m_fd PLAT_GUARDED_BY(m_mutex); // not open once the window has gone
};

// The windows that this process knows. Numbers are never used again: a window that has gone stays gone.
class CWindows {
public:
    HWND Add(std::shared_ptr<CWindow> pWindow)
    {
        CPlatGuard const lock(m_mutex);
        m_nLast += 4;
        m_windows.emplace(m_nLast, std::move(pWindow));
        return reinterpret_cast<HWND>(m_nLast);
    }

    std::shared_ptr<CWindow> Get(HWND hWnd)
    {
        CPlatGuard const lock(m_mutex);
        auto const it = m_windows.find(reinterpret_cast<UINT_PTR>(hWnd));
        return it != m_windows.end() ? it->second : nullptr;
    }

    // One that lives; those found to have gone are forgotten on the way.
    HWND Find(std::string const &strPath)
    {
        CPlatGuard const lock(m_mutex);
        for (auto it = m_windows.begin(); it != m_windows.end();) {
            if (it->second->m_strPath != strPath) {
                ++it;
            } else if (it->second->IsAlive()) {
                return reinterpret_cast<HWND>(it->first);
            } else {
                it = m_windows.erase(it);
            }
        }
        return nullptr;
    }

    void Remove(HWND hWnd)
    {
        std::shared_ptr<CWindow> pWindow; // destroyed after the lock has gone
        CPlatGuard const lock(m_mutex);
        auto const it = m_windows.find(reinterpret_cast<UINT_PTR>(hWnd));
        if (it != m_windows.end()) {
            pWindow = std::move(it->second);
            m_windows.erase(it);
        }
    }

private:
    CPlatMutex m_mutex;
    std::map<UINT_PTR, std::shared_ptr<CWindow>> m_windows PLAT_GUARDED_BY(m_mutex);
    UINT_PTR m_nLast PLAT_GUARDED_BY(m_mutex) = 0x10000;
};

CWindows &Windows()
{
    static CWindows *const s_pWindows = new CWindows; // for the use of late threads never destroyed
    return *s_pWindows;
}

std::shared_ptr<CViewer> ViewerOf(HWND hWnd)
{
    std::shared_ptr<CWindow> const pWindow = Windows().Get(hWnd);
    return pWindow ? pWindow->m_pViewer : nullptr;
}

HWND FailWindow(DWORD dwError)
{
    SetLastError(dwError);
    return nullptr;
}

HWND FindByTitle(char const *pszTitle)
{
    std::string strPath;
    DWORD const dwError = WindowPath(pszTitle, strPath);
    if (dwError != NO_ERROR) {
        return FailWindow(dwError);
    }
    if (HWND const hWnd = Windows().Find(strPath)) {
        return hWnd;
    }
    CDescriptor fd = ConnectWindow(strPath);
    if (!fd.IsOpen()) {
        return FailWindow(errno == EAGAIN ? ERROR_BUSY : ERROR_FILE_NOT_FOUND);
    }
    return Windows().Add(std::make_shared<CWindow>(strPath, std::move(fd)));
}

HWND CreateViewer(char const *pszTitle, PlatCopyDataFn pfnCopyData, void *pContext)
{
    std::string strPath;
    DWORD dwError = WindowPath(pszTitle, strPath);
    if (dwError != NO_ERROR) {
        return FailWindow(dwError);
    }
    auto pViewer = std::make_shared<CViewer>(pfnCopyData, pContext);
    dwError = pViewer->Open(strPath);
    if (dwError != NO_ERROR) {
        return FailWindow(dwError);
    }
    return Windows().Add(std::make_shared<CWindow>(strPath, std::move(pViewer)));
}

} // namespace

HWND FindWindowA(char const *pszClass, char const *pszTitle)
{
    if (pszClass != nullptr || pszTitle == nullptr) {
        return FailWindow(ERROR_INVALID_PARAMETER);
    }
    try {
        return FindByTitle(pszTitle);
    } catch (std::bad_alloc const &) {
        return FailWindow(ERROR_NOT_ENOUGH_MEMORY);
    }
}

LRESULT SendMessageA(HWND hWnd, UINT nMessage, WPARAM, LPARAM lParam)
{
    auto const *pData = reinterpret_cast<COPYDATASTRUCT const *>(lParam);
    if (nMessage != WM_COPYDATA || pData == nullptr || pData->cbData > kcbMaxCopyData ||
        (pData->lpData == nullptr && pData->cbData != 0)) {
        return SetLastError(ERROR_INVALID_PARAMETER), 0;
    }
    std::shared_ptr<CWindow> const pWindow = Windows().Get(hWnd);
    if (pWindow == nullptr) {
        return SetLastError(ERROR_INVALID_WINDOW_HANDLE), 0;
    }
    // As on Windows a thread calls its own window straight; through the socket it would wait for itself.
    if (pWindow->m_pViewer != nullptr && pWindow->m_pViewer->IsOwnThread()) {
        return pWindow->m_pViewer->Call(pData);
    }
    LRESULT nAnswer = 0;
    if (!pWindow->Send(*pData, &nAnswer)) {
        return SetLastError(ERROR_INVALID_WINDOW_HANDLE), 0;
    }
    return nAnswer;
}

int MessageBoxA(HWND, char const *pszText, char const *pszCaption, UINT)
{
    try {
        std::string str(pszCaption != nullptr ? pszCaption : "Error");
        str.append(": ").append(pszText != nullptr ? pszText : "");
        for (char &ch : str) {
            ch = static_cast<unsigned char>(ch) < ' ' ? ' ' : ch;
        }
        str += '\n';
        (void)PlatWriteAll(STDERR_FILENO, str.data(), str.size());
    } catch (std::bad_alloc const &) {
        // No memory for one line: the caller has worse to tell than we have.
    }
    return IDOK;
}

BOOL MessageBeep(UINT)
{
    if (::isatty(STDERR_FILENO) != 0) {
        (void)PlatWriteAll(STDERR_FILENO, "\a", 1);
    }
    return TRUE;
}

HWND PlatCreateViewerWindow(char const *pszTitle, PlatCopyDataFn pfnCopyData, void *pContext)
{
    if (pszTitle == nullptr || pfnCopyData == nullptr) {
        return FailWindow(ERROR_INVALID_PARAMETER);
    }
    try {
        return CreateViewer(pszTitle, pfnCopyData, pContext);
    } catch (std::bad_alloc const &) {
        return FailWindow(ERROR_NOT_ENOUGH_MEMORY);
    }
}

BOOL PlatRunViewerWindow(HWND hWnd)
{
    std::shared_ptr<CViewer> const pViewer = ViewerOf(hWnd);
    if (pViewer == nullptr) {
        return SetLastError(ERROR_INVALID_WINDOW_HANDLE), FALSE;
    }
    if (!pViewer->IsOwnThread()) {
        return SetLastError(ERROR_INVALID_THREAD_ID), FALSE;
    }
    DWORD dwError;
    try {
        dwError = pViewer->Run();
    } catch (std::bad_alloc const &) {
        dwError = ERROR_NOT_ENOUGH_MEMORY;
    }
    return dwError == NO_ERROR ? TRUE : (SetLastError(dwError), FALSE);
}

void PlatCloseViewerWindow(HWND hWnd)
{
    if (std::shared_ptr<CViewer> const pViewer = ViewerOf(hWnd)) {
        pViewer->Close();
    }
}

void PlatDestroyViewerWindow(HWND hWnd)
{
    if (std::shared_ptr<CViewer> const pViewer = ViewerOf(hWnd)) {
        pViewer->Shutdown();
        Windows().Remove(hWnd);
    }
}
