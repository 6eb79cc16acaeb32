#pragma once

// CSession: one device heard for good. It wraps an agent and does what every client of it has to do: waits
// for the device, subscribes and subscribes again, notices a link that is lost and a listener that has
// gone silent, and yields all of it as events.

#include "session/session_event.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class CSessionImpl;
class CSupervisor;

/// Which device, and what to hear of it.
struct SessionOptions {
    std::string strDevice; ///< the name that its events carry
    std::string
        strAddress; ///< the device's dotted address or host name; over a local link the name
                    ///< that this client wants to have at the device, or empty
    DWORD dwPort = kNotifyNoPort; ///< TCP port of the device link, or kNotifyNoPort
    bool bLocal = false;          ///< a local link instead of the network
    DWORD dwFlags = 0;            ///< eNF_ bits to subscribe to
    std::vector<std::string>
        rgstrOption; ///< for eNF_SELECT: one panel entry each, none of them empty

    bool
    operator==(SessionOptions const &) const = default; ///< the same device, heard in the same way
};

/// What a session has asked of its agent's listener, over a network link, since it began.
struct SessionHealth {
    std::uint64_t cEchoes = 0;       ///< checks that were echoed
    std::uint64_t cEchoesMissed = 0; ///< checks that were not
    std::uint64_t cHeard = 0;        ///< checks that came through to the agent's callback thread
    std::uint64_t cSilenced = 0; ///< times that the link was started anew for the listener's sake
};

/// What every session waits for in the background, and how it goes about it:
///
/// - A device that is not there, or that turns out to be another line's, is tried again with growing
///   pauses, 30 s at most (the access library looks for one that is merely away by itself, more often).
///   The same goes for a subscription that failed.
/// - Every 4 s the device is asked to take an entry off its panel that it does not have. Its refusal is the
///   answer that is wanted. No answer twice, or a link that is known to be broken, is a lost link: it is
///   noticed after 11 s at most.
/// - Over a network every 10 s a datagram goes to the agent's own port at this machine, whose echo shows
///   that the listener listens. It says KICKSEQ=0, which leaves the agent's filter alone, and is kept from
///   the client. A listener that has ended (an empty datagram, from whomever, does that) is replaced by
///   starting the link anew.
/// - A datagram that is no pick of ours and has raised the number that the filter compares with would hide
///   the device's next ones. The link is then started anew, too.
///
/// Any thread may call any function.
class CSession {
public:
    /// Begins at once: the first event is WAITING, INCOMPLETE or CONNECTED. The supervisor must outlive
    /// the object and the queue's events tell what happens. May throw std::bad_alloc.
    CSession(CSupervisor &supervisor, SessionOptions options, std::shared_ptr<CEventQueue> pEvents);

    /// Asks for the end as End does, with no time to take entries back. Does not wait: the supervisor's
    /// destructor does.
    ~CSession();

    CSession(CSession const &) = delete;
    CSession &operator=(CSession const &) = delete;

    /// Asks for the end: no event follows it that has not been on its way. What is on the device's panel
    /// is taken back as long as it answers and tpTakeBack has not passed; then the link is closed, and
    /// the rest goes with it. Returns at once.
    void End(SessionTime tpTakeBack);

    /// Waits until the end that was asked for has come. False when tpEnd has passed before: a call of the
    /// access library still waits for the device, which can take 5 s.
    bool WaitForEnd(SessionTime tpEnd);

    /// Has the agent write a discovery job to the target; on success *pdwSequence is its number. Result
    /// as CNotifyAgent::InitiateSrvQDiscovery.
    DWORD Discover(std::string const &strTarget, DWORD *pdwSequence);

    /// What the device is told, as "a.b.c.d:port" or the local link's text; empty when that cannot be
    /// found out.
    std::string AdvertisedAddress();

    /// As it stands now.
    SessionHealth Health() const;

private:
    std::shared_ptr<CSessionImpl> const m_pImpl;
};
