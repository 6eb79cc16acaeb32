#pragma once
/// @file
/// The client's end of a device link: what stands behind one CDolRtl.
///
/// It has no threads of its own. The loop that all objects of the process share receives its frames, keeps
/// the link alive with pings, and after a break probes for the device; it never runs foreign code and never
/// waits for one device. The threads that call back call the user's callback, one call at a time. Another
/// one may exist while a host name is looked up.
///
/// The object is shared between its CDolRtl and what End cannot wait for: the thread that calls back when
/// End runs on it, and the lookup of a name, which nothing can interrupt.
///
/// Lock: m_mx, before those of the shared threads. It is never held during a call of the callback, a send, a
/// receive or a connect.
#include "devlink/link_frame.h"
#include "devlink/link_loop.h"
#include "devlink/link_stream.h"
#include "dolrtl/callback_threads.h"
#include "dolrtl/link_pauses.h"
#include "dolrtl/QOMADolC.h"
#include "platform/lock.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <string>

class CLinkThreads;

/// A trap that nobody has read yet.
struct WaitingTrap {
    WORD wTrapId = 0;  ///< under which the object was registered
    BYTE dataType = 0; ///< a LinkDataType
    LinkBytes value;   ///< words in host order; no more of it than an object's value may have
};

/// @{
/// What the library says of a socket's error, and of a device's result.
DWORD LinkResultOfSocketError(int nError);
DWORD LinkResultOfDevice(DWORD dwResult);
/// @}

/// What stands behind one CDolRtl.
class CLinkClient final : public std::enable_shared_from_this<CLinkClient>,
                          private CLinkLoop::CClient,
                          private CCallbackThreads::CClient {
public:
    /// As CDolRtl's constructor. Nothing runs before Init.
    CLinkClient(DolRtlCallbackFn pfnCallback, DWORD_PTR dwContext);

    /// @{
    /// As the operations of CDolRtl. May throw std::bad_alloc.
    DWORD Init(char const *pszAddress, DWORD dwPort, DWORD dwTransport) PLAT_EXCLUDES(m_mx);
    DWORD ReadTrap(WaitingTrap *pTrap) PLAT_EXCLUDES(m_mx);
    char const *Address() const { return m_pszAddress; }
    DWORD Port() const { return m_dwPort; }
    /// @}

    /// Sends a request and waits for its answer: the device's result, or a failure of the link. On
    /// eDR_OK *pAnswer (which may be null) gets what follows the result.
    DWORD Request(BYTE kind, LinkBytes payload, LinkBytes *pAnswer) PLAT_EXCLUDES(m_mx);

    /// Ends the link, and calls back no more. Once, and the last call from outside.
    void End() PLAT_EXCLUDES(m_mx);

private:
    enum State { eLS_IDLE, eLS_UP, eLS_LOST };

    // What the loop does for it.
    enum Step {
        eST_UP,      // receives
        eST_PAUSE,   // waits for the next look for the device
        eST_LOOKUP,  // looks: for its host's name
        eST_CONNECT, // whether it takes a connection
        eST_HELLO,   // whether it answers
        eST_DONE,    // nothing any more
    };

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

    // Connecting (the caller of Init; what is static or takes a stream, the loop, too).
    static DWORD CheckTarget(char const *pszAddress, DWORD dwPort, DWORD dwTransport);
    DWORD Connect(LinkTime deadline) PLAT_EXCLUDES(m_mx);
    LinkBytes HelloFrame(BYTE use) const;
    DWORD Hello(CLinkStream &stream, LinkTime deadline);
    DWORD ReadHelloAnswer(LinkFrame const &frame, BYTE use);
    void KeepAddress(std::string const &strText);
    bool KnowsHost(DWORD *pdwHost) const;
    DWORD AwaitHost(LinkTime deadline, DWORD *pdwHost) PLAT_EXCLUDES(m_mx);
    DWORD LookedUp(DWORD *pdwHost) PLAT_REQUIRES(m_mx);
    void StartLookup() PLAT_REQUIRES(m_mx);
    static void LookUp(std::shared_ptr<CLinkClient> pSelf, std::shared_ptr<NameLookup> pLookup);
    bool UseStream(std::shared_ptr<CLinkStream> pStream) PLAT_EXCLUDES(m_mx);
    LinkAddress DeviceAt(DWORD dwHost) const;
    bool ShareThreads() PLAT_EXCLUDES(m_mx);
    void JoinLoop(bool fConnected) PLAT_EXCLUDES(m_mx);

    // Requests (any thread).
    bool WaitForTurn(CPlatWaitGuard &lock, LinkTime deadline) PLAT_REQUIRES(m_mx);
    bool SendFrame(CPlatWaitGuard &lock, LinkBytes const &frame, LinkTime deadline)
        PLAT_REQUIRES(m_mx);

    // The link (the loop).
    void OnReady(DWORD dwStream, bool fRead, bool fWrite) override PLAT_EXCLUDES(m_mx);
    LinkTime OnTime(LinkTime now) override PLAT_EXCLUDES(m_mx);
    void ServeLink(LinkTime now);
    DWORD ReasonToLose(LinkTime now) PLAT_EXCLUDES(m_mx);
    DWORD TakeFrames(LinkTime now);
    DWORD SendPing() PLAT_EXCLUDES(m_mx);
    void Dispatch(LinkFrame const &frame);
    void TakeAnswer(LinkFrame const &frame) PLAT_EXCLUDES(m_mx);
    void TakeTrap(LinkFrame const &frame) PLAT_EXCLUDES(m_mx);
    void LoseLink(DWORD dwReason) PLAT_EXCLUDES(m_mx);

    // The search for the device (the loop).
    void BeginSearch(LinkTime now, bool fGoodLink);
    void Search(LinkTime now);
    DWORD Look(LinkTime now);
    DWORD BeginLook(LinkTime now) PLAT_EXCLUDES(m_mx);
    DWORD LookAtHost(DWORD dwHost) PLAT_EXCLUDES(m_mx);
    DWORD AskHost() PLAT_EXCLUDES(m_mx);
    DWORD SayHello() PLAT_EXCLUDES(m_mx);
    DWORD HearHello() PLAT_EXCLUDES(m_mx);
    void DeviceFound() PLAT_EXCLUDES(m_mx);

    bool Watch(bool fWrite) PLAT_REQUIRES(m_mx);
    void DropStream() PLAT_REQUIRES(m_mx);
    std::shared_ptr<CLinkStream> Stream() PLAT_EXCLUDES(m_mx);
    bool IsEnding() PLAT_EXCLUDES(m_mx);
    void WakeLoop() PLAT_REQUIRES(m_mx);

    // Callbacks (their threads; RaiseEvent any).
    void RaiseEvent() PLAT_REQUIRES(m_mx);
    bool OnTurn() noexcept override PLAT_EXCLUDES(m_mx);
    bool TakeEvent(DWORD *pdwEvent) PLAT_REQUIRES(m_mx);

    void SayGoodbye(CPlatWaitGuard &lock) PLAT_REQUIRES(m_mx);

    // Constant after construction.
    CSocketLibrary m_library;
    DolRtlCallbackFn const m_pfnCallback;
    DWORD_PTR const m_dwContext;

    // Written by Init before it joins the loop, constant from then on.
    std::string m_strHost;   // network: where the device is
    std::string m_strWanted; // what Init was given
    std::string m_strGiven;  // local: what the device calls this client
    DWORD m_dwPort = 0;
    BYTE m_use = 0;
    LinkPauseKey m_pauseKey;

    // Points into one of the texts above, each of which is written once before it is pointed to.
    std::atomic<char const *> m_pszAddress{""};

    // Init's until it lets the loop serve this, the loop's from then on.
    Step m_eStep = eST_DONE;
    LinkTime m_since;    // the link stands since then
    LinkTime m_pingDue;  // of a link
    LinkTime m_due;      // when a link has been silent for too long; when a step of the search ends
    DWORD m_dwPause = 0; // milliseconds, the search's last one
    bool m_fReady = false; // the stream can be read, or its connecting has ended

    CPlatMutex m_mx;
    std::condition_variable m_cv; // any change of what it guards
    bool m_fStarted PLAT_GUARDED_BY(m_mx) = false;
    bool m_fEnding PLAT_GUARDED_BY(m_mx) = false;
    State m_eState PLAT_GUARDED_BY(m_mx) = eLS_IDLE;
    CLinkThreads *m_pThreads PLAT_GUARDED_BY(m_mx) = nullptr; // a share, from Init to End
    CLinkLoop::Place m_place PLAT_GUARDED_BY(m_mx) = 0;
    bool m_fServed PLAT_GUARDED_BY(m_mx) = false; // by the loop, from the end of Init on
    std::shared_ptr<CLinkStream> m_pStream PLAT_GUARDED_BY(m_mx);
    DWORD m_dwStream PLAT_GUARDED_BY(m_mx) = 0;    // its number with the loop
    bool m_fWatched PLAT_GUARDED_BY(m_mx) = false; // the loop's set has it
    bool m_fSending PLAT_GUARDED_BY(m_mx) = false; // a thread sends on it
    bool m_fBroken PLAT_GUARDED_BY(m_mx) = false;  // a send has failed
    DWORD m_dwLastNumber PLAT_GUARDED_BY(m_mx) = 0;
    std::map<DWORD, PendingRequest *> m_pending PLAT_GUARDED_BY(m_mx);
    std::shared_ptr<NameLookup> m_pLookup PLAT_GUARDED_BY(m_mx);
    std::deque<WaitingTrap> m_traps PLAT_GUARDED_BY(m_mx);
    bool m_fTrapEvent PLAT_GUARDED_BY(m_mx) = false;
    bool m_fRestartEvent PLAT_GUARDED_BY(m_mx) = false;
};
