#include "platform/window.h"

#include "platform/lock.h"
#include "platform/posix/desktop/viewer.h"
#include "platform/posix/error.h"
#include "platform/posix/files/fileobject.h"
#include "platform/posix/kernel/rundir.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <memory>
#include <new>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int knBusyTries = 50; // for a window whose backlog is full, 10 ms each

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

// A connection to the window whose files have this path; not open with errno if there is none.
CDescriptor ConnectWindow(std::string const &strPath)
{
    // A blocking connect would wait for ever at a full backlog.
    CDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un const address = WindowSocket(strPath);
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

// What an HWND stands for: a window that was found, or made here (then m_pViewer is set), and our
// connection to it.
class CWindow {
public:
    CWindow(std::string strPath, CDescriptor fd)
        : m_strPath(std::move(strPath)), m_fd(std::move(fd))
    {
    }
    CWindow(std::string strPath, std::shared_ptr<CViewerWindow> pViewer)
        : m_strPath(std::move(strPath)), m_pViewer(std::move(pViewer))
    {
    }

    std::string const m_strPath;
    std::shared_ptr<CViewerWindow> const m_pViewer;

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
        MessageHeaderType const header = {kdwWindowMagic, data.cbData, data.dwData};
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

std::shared_ptr<CViewerWindow> ViewerOf(HWND hWnd)
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
    auto pViewer = std::make_shared<CViewerWindow>(pfnCopyData, pContext);
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
    std::shared_ptr<CViewerWindow> const pViewer = ViewerOf(hWnd);
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
    if (std::shared_ptr<CViewerWindow> const pViewer = ViewerOf(hWnd)) {
        pViewer->Close();
    }
}

void PlatDestroyViewerWindow(HWND hWnd)
{
    if (std::shared_ptr<CViewerWindow> const pViewer = ViewerOf(hWnd)) {
        pViewer->Shutdown();
        Windows().Remove(hWnd);
    }
}
