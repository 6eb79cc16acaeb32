#pragma once
/// @file
/// The client's end of a device link: what stands behind one CDolRtl.
///
/// Two threads belong to it, both started by Init. The link thread receives frames, keeps the link
/// alive with pings, and after a break probes for the device; it never runs foreign code. The callback
/// thread calls the user's callback, one call at a time. A third one may exist while a host name is
/// looked up.
///
/// The object is shared between its CDolRtl and the threads that End cannot wait for: the callback
/// thread when End runs on it, and the lookup of a name, which nothing can interrupt.
///
/// Lock: m_mx, a leaf. It is never held during a call of the callback, a send, a receive or a connect.
#include "devlink/link_frame.h"
#include "devlink/link_stream.h"
#include "dolrtl/link_pauses.h"
#include "dolrtl/QOMADolC.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

/// A trap that nobody has read yet.
struct WaitingTrap {
    WORD wTrapId = 0;  ///< under which the object was registered
    BYTE dataType = 0; ///< a LinkDataType
    LinkBytes value;   ///< words in host order; no more of it than an object's value may have
};

/// What stands behind one CDolRtl.
class CLinkClient : public std::enable_shared_from_this<CLinkClient> {
public:
    /// As CDolRtl's constructor. Nothing runs before Init.
    CLinkClient(DolRtlCallbackFn pfnCallback, DWORD_PTR dwContext);

    /// @{
    /// As the operations of CDolRtl. May throw std::bad_alloc.
    DWORD Init(char const *pszAddress, DWORD dwPort, DWORD dwTransport);
    DWORD ReadTrap(WaitingTrap *pTrap);
    char const *Address() const { return m_pszAddress; }
    DWORD Port() const { return m_dwPort; }
    /// @}

    /// Sends a request and waits for its answer: the device's result, or a failure of the link. On
    /// eDR_OK *pAnswer (which may be null) gets what follows the result.
    DWORD Request(BYTE kind, LinkBytes payload, LinkBytes *pAnswer);

    /// Ends the link and the threads. Once, and the last call from outside.
    void End();

private:
    enum State { eLS_IDLE, eLS_UP, eLS_LOST };

    struct PendingRequest {
        bool fDone = false;
        DWORD dwResult = eDR_OK;
        LinkBytes answer;
    };

    struct NameLookup {
        std::string strHost;
        bool fDone = false;
        bool fFound = false;
        DWORD dwHost = 0;
    };

    using Lock = std::unique_lock<std::mutex>;

    // Connecting (the caller of Init, then the link thread).
    DWORD CheckTarget(char const *pszAddress, DWORD dwPort, DWORD dwTransport);
    DWORD Connect(BYTE use, LinkTime deadline);
    DWORD Hello(CLinkStream &stream, BYTE use, LinkTime deadline);
    DWORD ReadHelloAnswer(LinkFrame const &frame, BYTE use);
    void KeepAddress(std::string const &strText);
    DWORD FindHost(LinkTime deadline, DWORD *pdwHost);
    void StartLookup(std::string const &strHost);
    static void LookUp(std::shared_ptr<CLinkClient> pSelf, std::shared_ptr<NameLookup> pLookup);
    bool UseStream(std::shared_ptr<CLinkStream> pStream);
    bool StartThreads();

    // Requests (any thread).
    bool WaitForTurn(Lock &lock, LinkTime deadline);
    bool SendFrame(Lock &lock, LinkBytes const &frame, LinkTime deadline);

    // The link thread.
    void RunLink();
    void ReceiveUntilLost();
    DWORD ReceiveOne(LinkTime *pPingDue, LinkTime *pGiveUp);
    void Dispatch(LinkFrame const &frame);
    void TakeAnswer(LinkFrame const &frame);
    void TakeTrap(LinkFrame const &frame);
    void LoseLink(DWORD dwReason);
    void ProbeUntilReached(bool fGoodLink);
    bool SleepUnlessEnding(DWORD dwMilliseconds);
    bool IsEnding();

    // The callback thread.
    void RunCallbacks();

    void SayGoodbye(Lock &lock);

    // Constant after construction.
    CSocketLibrary m_library;
    DolRtlCallbackFn const m_pfnCallback;
    DWORD_PTR const m_dwContext;

    // Written by Init before it starts the threads, constant from then on.
    std::string m_strHost;   // network: where the device is
    std::string m_strWanted; // what Init was given
    std::string m_strGiven;  // local: what the device calls this client
    DWORD m_dwPort = 0;
    BYTE m_use = 0;
    LinkPauseKey m_pauseKey;
    std::thread m_thLink;
    std::thread m_thCallback;

    // Points into one of the texts above, each of which is written once before it is pointed to.
    std::atomic<char const *> m_pszAddress{""};

    std::mutex m_mx;              // guards all that follows
    std::condition_variable m_cv; // any change of what follows
    bool m_fStarted = false;
    bool m_fEnding = false;
    State m_eState = eLS_IDLE;
    std::shared_ptr<CLinkStream> m_pStream;
    bool m_fSending = false; // a thread sends on m_pStream
    DWORD m_dwLastNumber = 0;
    std::map<DWORD, PendingRequest *> m_pending;
    std::shared_ptr<NameLookup> m_pLookup;
    std::deque<WaitingTrap> m_traps;
    bool m_fMayCall = false; // both threads are in their members, so that a callback may run End
    bool m_fTrapEvent = false;
    bool m_fRestartEvent = false;
};
