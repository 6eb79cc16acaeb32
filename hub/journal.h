#pragma once
/// @file
/// CJournal: events on the disk, and how far each sink has come with them. A SQLite database in WAL mode, so that
/// others can read it while the hub writes; what a call has written is on the disk when it returns.
#include "hub/hub_event.h"
#include "platform/lock.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// Which events are looked for.
struct JournalQuery {
    std::uint64_t dwAfter = 0;                                  ///< places above this one
    std::uint64_t dwBefore = ~std::uint64_t{0} >> 1;            ///< and below this one
    std::optional<std::chrono::system_clock::time_point> since; ///< of this time or later
    std::string strDevice;                                      ///< of this device; empty for all
    std::string strType;       ///< of this type, without the prefix; a pattern; empty for all
    std::string strText;       ///< whose envelope has this text in it; empty for all
    std::size_t cMost = 100;   ///< so many at most
    bool bNewestFirst = false; ///< in which order, and which ones if there are more
};

/// How far a sink has come.
struct SinkPlace {
    std::string strSink;
    std::uint64_t dwPlace = 0; ///< all up to here are done with
    std::uint64_t dwEpoch = 0; ///< counts who has set it back
};

/// An event that a sink did not take and that is not tried again.
struct GivenUpEvent {
    std::string strSink;
    std::uint64_t dwPlace = 0;
    std::string strWhy;
};

class CDatabase;

/// Any thread may call anything; each call holds the one connection for its time. On failure *pstrError is one line,
/// and the journal as it was.
class CJournal {
public:
    ~CJournal();
    CJournal(CJournal const &) = delete;
    CJournal &operator=(CJournal const &) = delete;

    /// The hub's own: makes the file and its folder if they are not there, and keeps every other hub away from it.
    /// Null with the reason.
    static std::unique_ptr<CJournal> Open(std::string const &strFile, std::string *pstrError);

    /// Of somebody who looks, or sets a sink back: the file has to be there.
    static std::unique_ptr<CJournal> Look(std::string const &strFile, std::string *pstrError);

    /// Writes the events as one transaction, the places and those given up with them, and tells each event its
    /// place. A place that somebody has set back meanwhile, so that its epoch is another one, stays so.
    bool Write(std::span<HubEvent> events, std::span<SinkPlace const> places,
               std::span<GivenUpEvent const> givenUp, std::string *pstrError);

    /// The events that fit.
    bool Read(JournalQuery const &query, std::vector<HubEvent> *pEvents, std::string *pstrError);

    /// The first and the last place that is there, 0 and the last one there ever was if there is none.
    bool Bounds(std::uint64_t *pdwFirst, std::uint64_t *pdwLast, std::string *pstrError);

    /// How far the sink has come. One that is new begins behind the last event.
    bool PlaceOf(std::string const &strSink, SinkPlace *pPlace, std::string *pstrError);

    /// Has the sink begin anew with the first event of that time or later, of those that it has had; *pcEvents is
    /// how many more it gets than it would have. False, too, when there is no such sink.
    bool SetBack(std::string const &strSink, std::chrono::system_clock::time_point tpSince,
                 std::uint64_t *pcEvents, std::string *pstrError);

    /// Whether anybody else has written since the last call, such as SetBack.
    bool HasChanged();

    /// Removes what is older than tpKeep, and the oldest while the file is larger than cbKeep; a part of it, so
    /// that it takes no longer than a moment. *pbMore: there is more to remove.
    bool Prune(std::chrono::system_clock::time_point tpKeep, std::uint64_t cbKeep, bool *pbMore,
               std::string *pstrError);

    std::uint64_t Size(); ///< bytes that the file takes, 0 if that cannot be found out

private:
    CJournal();
    static std::unique_ptr<CJournal> OpenFile(std::string const &strFile, bool bOwn,
                                              std::string *pstrError);
    template <class F>
    bool Guarded(std::string *pstrError, F fn);

    CPlatMutex m_mutex;                 // a leaf
    std::unique_ptr<CDatabase> m_pLock; // held by the hub whose journal it is
    std::unique_ptr<CDatabase> m_pDatabase PLAT_PT_GUARDED_BY(m_mutex);
    std::int64_t m_nVersion PLAT_GUARDED_BY(m_mutex) = 0; // of others' changes
};
