#pragma once

// What a session yields, and the bounded queue that keeps it until somebody takes it.

#include "agent/QOMANoAg.h"
#include "platform/lock.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <variant>
#include <vector>

/// The clock of every pause and limit.
using SessionClock = std::chrono::steady_clock;
using SessionTime = SessionClock::time_point;

/// One notification, copied out of the record that the agent lends to its callback.
struct Notification {
    CallbackType eType = eCT_SELECT_NOTIFY; ///< its kind
    /// As in CallbackDataType.
    /// @{
    DWORD dwNotifyCode = 0;
    int nValue = 0;
    DWORD dwValue = 0;
    std::string strOption;
    std::string strSenderAddress;
    std::string strSenderName;
    /// @}

    // What strOption says, for a person and a script; filled in by ReadOption.
    std::string strText; ///< the client's own entry, without the clauses that the agent added
    std::optional<DWORD> sequence; ///< the number of its KICKSEQ= clause, as the agent reads it
    std::optional<DWORD> srvq;     ///< of the answer to a discovery job: the job's number
    std::string strModel;          ///< of such an answer: the device's model
};

/// Fills in the fields that are read out of strOption. An entry that the text begins with is strText to
/// the letter; of any other text it is what stands before the last NETADDR= clause.
void ReadOption(Notification &notification, std::vector<std::string> const &entries);

/// How it stands with a device. A session tells each change once, in this order: WAITING never or first;
/// then CONNECTED; after that BACK ends what LOST, INCOMPLETE or RESTARTING began.
enum LinkStateType {
    eSL_WAITING,    ///< not there yet; the session goes on trying
    eSL_CONNECTED,  ///< for the first time, with all subscriptions
    eSL_LOST,       ///< the device does not answer; the session goes on trying
    eSL_INCOMPLETE, ///< it answers, but a subscription failed; it is tried again
    eSL_RESTARTING, ///< the agent's listener had been silenced; the link is started anew
    eSL_BACK,       ///< as CONNECTED, once more
};

/// A change of the link's state.
struct LinkChange {
    LinkStateType eState = eSL_WAITING; ///< since now
    DWORD dwResult = 0;                 ///< why, as an agent's result; 0 for none
    std::string
        strWhat; ///< INCOMPLETE: the subscription; RESTARTING: what happened; else a remark or empty
    std::string strAddress;               ///< "10.1.2.3:19290", or "local link, port 19290"
    DWORD dwFlags = 0;                    ///< CONNECTED, BACK: the eNF_ bits that are subscribed
    std::vector<std::string> rgstrOption; ///< CONNECTED, BACK: the entries on the panel
};

/// So many events were dropped, which would have stood here: nobody took them in time.
struct DroppedEvents {
    std::uint64_t cEvents = 0; ///< 1 or more
};

/// What a session yields.
struct SessionEvent {
    std::string strDevice;                        ///< the session's name; empty for DroppedEvents
    std::chrono::system_clock::time_point tpTime; ///< when it was learnt of
    std::variant<Notification, LinkChange, DroppedEvents> what; ///< one of the three
};

/// Events of any number of sessions on their way to one taker. Any thread may call anything.
class CEventQueue {
public:
    /// cLimit: how many events wait at most. When one more comes, the oldest goes.
    explicit CEventQueue(std::size_t cLimit) : m_cLimit(cLimit) {}
    CEventQueue(CEventQueue const &) = delete;
    CEventQueue &operator=(CEventQueue const &) = delete;

    /// Never waits. May throw std::bad_alloc; the queue is as before then.
    void Put(SessionEvent event);

    /// The next event, or nothing when tpEnd has passed or the queue was stopped. In the place of what
    /// was dropped stands a DroppedEvents.
    std::optional<SessionEvent> Take(SessionTime tpEnd);

    /// From now on nothing is handed out, whatever waits.
    void Stop();
    bool IsStopped() const; ///< whether Stop has been called

    /// The notifications that nobody has taken, those that were dropped and not yet told included.
    std::uint64_t NotificationsLeft() const;

private:
    std::size_t const m_cLimit;
    mutable CPlatMutex m_mx; // a leaf
    std::condition_variable m_cv;
    std::deque<SessionEvent> m_events PLAT_GUARDED_BY(m_mx);
    std::uint64_t m_cDropped PLAT_GUARDED_BY(m_mx) = 0;
    bool m_bStopped PLAT_GUARDED_BY(m_mx) = false;
};
