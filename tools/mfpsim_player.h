#pragma once
/// @file
/// One device of a tape, played again: what it answers, what it sends by itself and when, and where its clients
/// depart from the tape (docs/tape.md). No thread, no lock, no socket: its owner says what has happened and does what
/// it is told.

#include "device/soft_device.h"
#include "tools/mfpsim_tape.h"

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// Something that the device is to do now.
struct TapeAct {
    enum Kind {
        eFRAME,    ///< to the link
        eDATAGRAM, ///< strBytes to the address
        eDROP,     ///< the link
        eCUT,      ///< all links, for so many milliseconds
        eGARBAGE,  ///< to all links
    };
    Kind eKind = eFRAME;
    DWORD dwLink = 0; ///< of today
    LinkFrame frame{};
    LinkAddress to{};
    std::string strBytes{};
    DWORD dwMilliseconds = 0;
};

/// See above.
class CTapePlayer {
public:
    using DepartFn =
        std::function<void(std::string const &)>; ///< how a client departs, in one line

    /// Of that device, counted from 1. The tape has to outlive it.
    CTapePlayer(Tape const &tape, unsigned nDevice, double dSpeed, DepartFn onDeparture);

    std::size_t LeftOut() const { return m_cLeftOut; } ///< datagrams that belong to no entry
    bool HasClients() const { return !m_tracks.empty(); }

    /// @{
    /// What clients do.
    void LinkUp(LinkTime now, DWORD dwLink, bool fNetwork, std::string const &strAddress);
    void LinkDown(LinkTime now, DWORD dwLink, bool fByClient);
    std::optional<DeviceReply> Request(LinkTime now, DWORD dwLink, LinkFrame const &frame);
    void Echo(LinkTime now, std::string const &strBytes);
    /// @}

    /// What is due by now; when to ask again if no client does anything.
    std::vector<TapeAct> Run(LinkTime now, LinkTime *pNext);
    bool IsAtEnd() const { return m_nNext == m_steps.size(); } ///< all has been played

private:
    // A request, as far as it has to be the same.
    struct Asked {
        BYTE kind = 0;
        LinkBytes oid;
        LinkBytes rest;
        int nRow = -1;
        std::string strText; // of an entry, whole
        bool fEntry = false;
    };
    struct Step {
        enum Kind {
            eUP,
            eREQUEST,
            eECHO,
            eHANG_UP, // so far the client's
            eSEND_FRAME,
            eSEND_DATAGRAM,
            eDROP,
            eALL,
            eANSWER, // behind what else the device sends
        };
        Kind eKind;
        TapeItem const *pItem;
        TapeItem const *pAnswer = nullptr; // to a request
        std::size_t nTrack = 0;            // none for eALL
        std::size_t nRequest = 0;          // of an answer, a step
        DWORD dwNumber = 0;                // of today's request
        bool fAnsweredLater = false;       // in a step of its own
        bool fDone = false;
        LinkTime at = LinkTime::min(); // when a client has done it
    };
    struct Question { // changes nothing: asked as often as one likes
        TapeItem const *pItem;
        TapeItem const *pAnswer;
        bool fUsed = false;
    };
    // One link of the tape, and who has its place today.
    struct Track {
        bool fNetwork = false;
        std::string strAddress;
        DWORD dwLink = 0;       // of today, 0: nobody yet
        bool fOver = false;     // today's has ended, or never came
        bool fMayLeave = false; // its end is no departure
        std::vector<std::size_t> steps;
        std::vector<Question> questions;
        std::vector<LinkFrame> history;                           // of today's changes
        std::vector<std::pair<std::string, std::string>> entries; // texts of the tape and of today
        std::map<WORD, WORD> trapIds;                             // of the tape and of today
    };
    using Answers = std::map<TapeItem const *, TapeItem const *>;

    // Taking the tape apart.
    void AddItem(TapeItem const &item, Answers const &answers);
    void AddRequest(TapeItem const &item, TapeItem const *pAnswer);
    void AddAnswer(TapeItem const &item);
    void AddDatagram(TapeItem const &item);
    void AddStep(Step::Kind eKind, TapeItem const &item, std::size_t nTrack);

    // Requests.
    static Asked Read(LinkFrame const &frame);
    bool Fits(LinkFrame const &ofTape, Asked const &asked) const;
    Step *FindRequest(Track &track, Asked const &asked);
    Question *FindQuestion(Track &track, Asked const &asked);
    bool FitsAll(Track const &track, std::vector<LinkFrame> const &history) const;
    bool HasHeard(Track const &track) const;
    bool TradePlaces(Track &track, LinkFrame const &frame);
    void Reset(Track &track);
    void Take(Track &track, Step &step, Asked const &asked, LinkFrame const &frame, LinkTime now);
    std::optional<DeviceReply> Reply(LinkFrame const &request, TapeItem const &item,
                                     TapeItem const *pAnswer) const;
    DeviceReply Unforeseen(Track const *pTrack, LinkFrame const &frame);

    Track *FindTrack(DWORD dwLink);
    static bool IsDatagram(Step const &step);
    LinkTime DueOf(Step const &step) const;
    bool PassClient(Step &step, LinkTime now, LinkTime due, std::vector<TapeAct> *pActs,
                    LinkTime *pNext);
    void Play(Step const &step, std::vector<TapeAct> *pActs);
    std::optional<TapeAct> Datagram(Step const &step) const;
    LinkFrame OfToday(Track const &track, LinkFrame frame) const;
    void SkipTrack(Track &track);
    void Depart(unsigned nLine, std::string const &strWhat);

    Tape const &m_tape;
    double const m_dSpeed;
    DepartFn const m_onDeparture;
    std::vector<Step> m_steps;
    std::deque<Track> m_tracks;
    std::map<DWORD, std::size_t> m_trackOf; // by the link's number on the tape
    std::size_t m_cLeftOut = 0;
    // While it is taken apart: the request of an answer, and what had been sent by then.
    std::map<TapeItem const *, std::pair<std::size_t, std::size_t>> m_awaited;
    std::size_t m_cSends = 0;

    std::size_t m_nNext = 0;                   // of the steps
    LinkTime m_passed;                         // when the one before it was, or should have been
    LinkTime m_passedAt;                       // when it really was
    LinkTime m_again = LinkTime::min();        // when a datagram is to be sent again
    std::map<std::string, std::string> m_sent; // datagrams of today, and of the tape
    std::map<std::string, std::string> m_own;  // users' texts of the tape and of today
    std::set<std::string> m_ownToday;
};
