#pragma once
/// @file
/// Sends notifications as datagrams and sends them again until their echo comes.
///
/// Each gets the clause `KICKSEQ=<n>;` at its end, n rising by one over the whole device, from 1. A
/// receiver passes over every number that is not above the last one it took, so that towards one
/// address a datagram waits until the one before it was echoed or given up.
///
/// It can be told to misbehave. Drop, Repeat and Reorder count transmissions, first ones and repeated
/// ones alike: the next n are not sent, are sent twice, or are overtaken by the datagram that follows.
/// LoseEchoes takes no notice of the next n echoes that it waits for.
///
/// No lock, no thread, no socket: the owner calls it under its lock and gives it a function that sends.
#include "device/device_event.h"
#include "devlink/link_stream.h"

#include <functional>
#include <list>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

/// The odds of each kind of misbehaviour, from 0 to 1.
struct KickOdds {
    double dDrop = 0;     ///< not sent
    double dRepeat = 0;   ///< sent twice
    double dReorder = 0;  ///< overtaken by the next
    double dLoseEcho = 0; ///< its echo is not heard
    unsigned nSeed = 1;   ///< the same seed, the same misfortunes
};

/// How many of the next transmissions, or echoes, each kind of misbehaviour takes.
struct KickCounts {
    unsigned cDrop = 0;     ///< not sent
    unsigned cRepeat = 0;   ///< sent twice
    unsigned cReorder = 0;  ///< overtaken by the next
    unsigned cLoseEcho = 0; ///< echoes that are not heard
};

/// A notification that waits for its turn or its echo.
struct KickStatus {
    DWORD dwSequence = 0;    ///< its number
    LinkAddress to;          ///< who is to get it
    std::string strDatagram; ///< its bytes
    unsigned cTries = 0;     ///< so far
};

/// What sends datagrams until their echoes come, see above.
class CKickSender {
public:
    static constexpr std::size_t kMaxDatagram = 349; ///< bytes; the receiver takes no more
    /// Of a text, so that a separator and a clause with the longest number still fit.
    static constexpr std::size_t kMaxText = kMaxDatagram - sizeof(";KICKSEQ=4294967295;") + 1;

    using SendFn = std::function<void(LinkAddress const &, std::string const &)>; ///< one datagram
    using EventFn = std::function<void(DeviceEvent const &)>; ///< what became of one

    /// Both are called from Run and Echo.
    CKickSender(SendFn send, EventFn onEvent)
        : m_send(std::move(send)), m_onEvent(std::move(onEvent))
    {
    }

    /// From the next transmission on. cTries counts the first one too.
    void SetPace(std::chrono::milliseconds interval, unsigned cTries);

    /// Takes a text to send, for the pick of that number (0: for none). Its own number, or nothing when it is
    /// too long or too many wait.
    std::optional<DWORD> Add(LinkAddress const &to, std::string const &strText, DWORD dwPick = 0);

    /// Bytes have come from that port. True if they are the echo of one that waits for it. The
    /// address is not compared: a host with several may answer from another one.
    bool Echo(WORD wFromPort, std::string const &strBytes);

    /// Sends what is due. When to call again; LinkTime::max() when nothing waits.
    LinkTime Run(LinkTime now);

    /// All that wait, for one address in the order of their going.
    std::vector<KickStatus> Waiting() const;
    bool IsIdle() const { return m_cWaiting == 0; }     ///< none waits
    KickCounts const &Counts() const { return m_next; } ///< what is left of what follows

    /// @{
    /// The next c transmissions are not sent, are sent twice, are overtaken; the next c echoes are lost.
    void Drop(unsigned c) { m_next.cDrop = c; }
    void Repeat(unsigned c) { m_next.cRepeat = c; }
    void Reorder(unsigned c) { m_next.cReorder = c; }
    void LoseEchoes(unsigned c) { m_next.cLoseEcho = c; }
    /// @}
    /// Misbehaves by chance as well.
    void SetOdds(KickOdds const &odds);

private:
    struct Kick {
        DWORD dwSequence = 0;
        DWORD dwPick = 0;
        std::string strDatagram;
        unsigned cTries = 0;
        bool fMayBeHeld = true;
        bool fHeld = false; // lets the one behind it go first
        LinkTime due = LinkTime::min();
    };
    using Kicks = std::list<Kick>;

    LinkTime RunOne(LinkAddress const &to, Kicks &kicks, LinkTime now);
    void Uncount();
    void HoldBack(LinkAddress const &to, Kick &kick, LinkTime now);
    void ReleaseIfOvertaken(Kicks &kicks, LinkTime now);
    bool Serve(LinkAddress const &to, Kick &kick, LinkTime now); // false: given up
    void Transmit(LinkAddress const &to, Kick const &kick);
    bool Misbehaves(unsigned *pcNext, double dOdds);
    void Report(DeviceEventKind eKind, LinkAddress const &to, Kick const &kick);

    SendFn m_send;
    EventFn m_onEvent;
    std::chrono::milliseconds m_interval{500};
    unsigned m_cMaxTries = 10;
    DWORD m_dwLastSequence = 0;
    std::map<LinkAddress, Kicks> m_waiting; // no empty lists
    std::size_t m_cWaiting = 0;

    KickCounts m_next;
    KickOdds m_odds;
    std::minstd_rand m_random;
};
