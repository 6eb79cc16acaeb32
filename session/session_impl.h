#pragma once

// What stands behind one CSession: the steps that a supervisor runs, and the agent's callback.
//
// Everything that can wait for the device happens in a step. The callback only looks, queues and wakes: one
// that entered a locked operation of the agent while Shutdown waits for its thread would get nothing done.

#include "session/growing_pause.h"
#include "session/session.h"
#include "session/silencing.h"
#include "session/supervisor.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>

class CSessionImpl : public CSupervised {
public:
    static std::shared_ptr<CSessionImpl> Create(CSupervisor &supervisor, SessionOptions options,
                                                std::shared_ptr<CEventQueue> pEvents);
    CSessionImpl(CSupervisor &supervisor, SessionOptions options,
                 std::shared_ptr<CEventQueue> pEvents, DWORD dwId);
    ~CSessionImpl() override;

    std::optional<SessionTime> Step() override;

    void End(SessionTime tpTakeBack);
    bool WaitForEnd(SessionTime tpEnd);
    CNotifyAgent &Agent() { return m_agent; }
    SessionHealth Health() const { return {m_cEchoes, m_cMissed, m_cHeard, m_cSilenced}; }

private:
    struct PanelEntry {
        std::string strOption;
        DWORD dwInstance = 0;
        bool bPlaced = false;
        bool bMayBeThere = false; // placed, or the answer to that did not come
    };
    static DWORD OnNotification(CallbackType eType, CallbackDataType *pData);
    void Hear(CallbackType eType, CallbackDataType const &data);
    void JudgeSequence(Notification const &notification);
    bool IsOurs(Notification const &notification) const;
    void Silence(std::string strHow);

    SessionTime DoWhatIsDue();
    void Connect();
    void Reconnected();
    void BeginLink();
    void RestartIfSilenced();
    void Subscribe();
    DWORD Place(PanelEntry &entry);
    void Unsubscribe(SessionTime tpEnd);
    bool IsSubscribed() const;
    void Heartbeat();
    void CheckListener();
    std::optional<WORD> ToldPort();
    void LoseLink(DWORD dwResult);
    void Disconnect(DWORD dwResult);
    bool IsEnding();
    void Finish();

    void Tell(LinkStateType eState, DWORD dwResult = 0, std::string strWhat = {});

    CSupervisor &m_supervisor;
    SessionOptions const m_options;
    std::shared_ptr<CEventQueue> const m_pEvents;
    DWORD const m_dwId;             // in the agent's word for us, which is too narrow for a pointer
    std::string const m_strProbe;   // the datagram to our own port
    std::string const m_strAddress; // of the device, for people

    // For Health.
    std::atomic<std::uint64_t> m_cEchoes{0};
    std::atomic<std::uint64_t> m_cMissed{0};
    std::atomic<std::uint64_t> m_cHeard{0};
    std::atomic<std::uint64_t> m_cSilenced{0};

    CSilencing m_silencing;
    std::atomic<bool> m_bReconnected{false}; // the agent has restarted the link by itself

    // The step's own.
    std::vector<PanelEntry> m_entries;
    DWORD m_dwSubscribed = 0;  // flags but eNF_SELECT
    bool m_bConnected = false; // the agent is, or its library tries to be
    bool m_bReachable = false; // the device answers
    bool m_bBroken = false;    // the library has lost its link, and will restart it
    bool m_bAsks = true;       // the device tells entries that it has from those it has not
    WORD m_wListenerPort = 0;  // 0: not asked for yet
    bool m_bHasEchoed = false; // the listener has been heard since the last connect
    unsigned m_cUnanswered = 0;
    unsigned m_cEchoesMissed = 0;
    SessionTime m_tpConnect;
    SessionTime m_tpSubscribe;
    SessionTime m_tpHeartbeat;
    SessionTime m_tpListener;
    CGrowingPause m_connectPause;
    CGrowingPause m_subscribePause;

    CPlatMutex m_mx; // a leaf but for the queue's lock
    std::condition_variable m_cv;
    bool m_bEndAsked PLAT_GUARDED_BY(m_mx) = false;
    bool m_bEnded PLAT_GUARDED_BY(m_mx) = false;
    SessionTime m_tpTakeBack PLAT_GUARDED_BY(m_mx);
    bool m_bEverUp PLAT_GUARDED_BY(m_mx) = false;
    std::optional<LinkStateType> m_told PLAT_GUARDED_BY(m_mx); // the state told last
    DWORD m_dwTold PLAT_GUARDED_BY(m_mx) = 0;                  // and why

    CNotifyAgent m_agent; // last: its threads use what stands above
};
