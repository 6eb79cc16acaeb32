#pragma once

// The receiving side of a window: who sends, and the loop that hands on what came. What goes over the socket is
// said here, too.

#include "platform/posix/descriptor.h"
#include "platform/window.h"

#include <cstdint>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/un.h>
#include <thread>
#include <vector>

inline constexpr std::uint32_t kdwWindowMagic = 0x314D5751; // "QWM1"

struct MessageHeaderType {
    std::uint32_t dwMagic;
    std::uint32_t cbData;
    std::uint64_t dwData;
};
static_assert(sizeof(MessageHeaderType) == 16);

// Of the window whose files have this path.
sockaddr_un WindowSocket(std::string const &strPath);
bool IsOwnUser(int fdSocket);

class CViewerPeer; // one process that sends to our window

// The receiving side. All but Close belongs to the thread that made it.
class CViewerWindow {
public:
    CViewerWindow(PlatCopyDataFn pfnCopyData, void *pContext);
    ~CViewerWindow();
    CViewerWindow(CViewerWindow const &) = delete;
    CViewerWindow &operator=(CViewerWindow const &) = delete;

    DWORD Open(std::string const &strPath);
    // Until Close. 0 or a Win32 error.
    DWORD Run();
    // Never taken back, so it does not matter whether the loop runs already.
    void Close();
    // Senders that wait see the end of their connections.
    void Shutdown();

    bool IsOwnThread() const { return std::this_thread::get_id() == m_idThread; }
    LRESULT Call(COPYDATASTRUCT const *pData) { return m_pfnCopyData(m_pContext, pData); }

private:
    std::vector<pollfd> PollRecords() const;
    void ServePeers(std::vector<pollfd> const &aPoll);
    void AcceptPeer();
    std::string LockPath() const { return m_strPath + ".lock"; }
    DWORD OwnTitle();

    std::string m_strPath;
    PlatCopyDataFn const m_pfnCopyData;
    void *const m_pContext;
    std::thread::id const m_idThread = std::this_thread::get_id();
    CDescriptor m_fdOwner;
    CDescriptor m_fdWake;
    CDescriptor m_fdListen;
    std::vector<std::unique_ptr<CViewerPeer>> m_apPeers;
    bool m_fPaused = false;
};
