#pragma once
/// @file
/// CEventStore: the journal as the sinks see it, with the newest events in memory, since most sinks are near the end.
#include "hub/journal.h"

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

using HubEventPtr = std::shared_ptr<HubEvent const>;

/// Any thread may call anything. What sinks tell is kept until the next Write; what they had told and a crash took
/// with it they get once more.
class CEventStore {
public:
    explicit CEventStore(CJournal &journal) : m_journal(journal) {}
    CEventStore(CEventStore const &) = delete;
    CEventStore &operator=(CEventStore const &) = delete;

    /// Writes the events, and what sinks have told, to the disk; from then on the events can be had here. False
    /// with the reason: nothing was written, and the call can be made again. One thread.
    bool Write(std::vector<HubEvent> &events, std::string *pstrError);
    bool HasNews() const; ///< whether a Write without events would write anything

    /// The first events behind the place, cMost at most.
    bool After(std::uint64_t dwPlace, std::size_t cMost, std::vector<HubEventPtr> *pEvents,
               std::string *pstrError);
    std::uint64_t Last() const; ///< the place of the last event

    /// Where a sink begins: its place becomes what the journal has, as in CJournal::PlaceOf.
    bool Begin(std::string const &strSink, SinkPlace *pPlace, std::string *pstrError);
    void Done(SinkPlace const &place);      ///< a sink has come so far
    void GiveUp(GivenUpEvent const &event); ///< and this one it will not get

    CJournal &Journal() { return m_journal; }

private:
    CJournal &m_journal;
    mutable CPlatMutex m_mutex; // a leaf; not held while the disk is asked
    std::deque<HubEventPtr> m_newest PLAT_GUARDED_BY(m_mutex); // without a gap
    std::uint64_t m_dwLast PLAT_GUARDED_BY(m_mutex) = 0;
    std::map<std::string, SinkPlace> m_places PLAT_GUARDED_BY(m_mutex); // not written yet
    std::vector<GivenUpEvent> m_givenUp PLAT_GUARDED_BY(m_mutex);       // not written yet
};
