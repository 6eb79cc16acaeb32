#include "hub/event_store.h"

namespace {

constexpr std::size_t kNewest = 10000; // events in memory: what sinks that keep up need no disk for

} // namespace

bool CEventStore::Write(std::vector<HubEvent> &events, std::string *pstrError)
{
    std::vector<SinkPlace> places;
    std::vector<GivenUpEvent> givenUp;
    {
        CPlatGuard const lock(m_mutex);
        for (auto const &[strSink, place] : m_places) {
            places.push_back(place);
        }
        givenUp = m_givenUp;
    }
    if (!m_journal.Write(events, places, givenUp, pstrError)) {
        return false;
    }
    CPlatGuard const lock(m_mutex);
    for (SinkPlace const &place : places) {
        auto const it = m_places.find(place.strSink);
        if (it != m_places.end() && it->second.dwPlace == place.dwPlace &&
            it->second.dwEpoch == place.dwEpoch) {
            m_places.erase(it);
        }
    }
    m_givenUp.erase(m_givenUp.begin(),
                    m_givenUp.begin() + static_cast<std::ptrdiff_t>(givenUp.size()));
    for (HubEvent &event : events) {
        m_dwLast = event.dwPlace;
        m_newest.push_back(std::make_shared<HubEvent const>(std::move(event)));
    }
    while (m_newest.size() > kNewest) {
        m_newest.pop_front();
    }
    return true;
}

bool CEventStore::HasNews() const
{
    CPlatGuard const lock(m_mutex);
    return !m_places.empty() || !m_givenUp.empty();
}

bool CEventStore::After(std::uint64_t dwPlace, std::size_t cMost, std::vector<HubEventPtr> *pEvents,
                        std::string *pstrError)
{
    {
        CPlatGuard const lock(m_mutex);
        if (!m_newest.empty() && m_newest.front()->dwPlace <= dwPlace + 1) {
            for (std::size_t n = dwPlace + 1 - m_newest.front()->dwPlace;
                 n < m_newest.size() && pEvents->size() < cMost; ++n) {
                pEvents->push_back(m_newest[n]);
            }
            return true;
        }
        if (dwPlace >= m_dwLast) {
            return true;
        }
    }
    JournalQuery query;
    query.dwAfter = dwPlace;
    query.cMost = cMost;
    std::vector<HubEvent> events;
    if (!m_journal.Read(query, &events, pstrError)) {
        return false;
    }
    for (HubEvent &event : events) {
        pEvents->push_back(std::make_shared<HubEvent const>(std::move(event)));
    }
    return true;
}

std::uint64_t CEventStore::Last() const
{
    CPlatGuard const lock(m_mutex);
    return m_dwLast;
}

bool CEventStore::Begin(std::string const &strSink, SinkPlace *pPlace, std::string *pstrError)
{
    std::uint64_t dwFirst = 0;
    std::uint64_t dwLast = 0;
    if (!m_journal.Bounds(&dwFirst, &dwLast, pstrError) ||
        !m_journal.PlaceOf(strSink, pPlace, pstrError)) {
        return false;
    }
    CPlatGuard const lock(m_mutex);
    m_dwLast = std::max(m_dwLast, dwLast);
    // One that has just left and comes again may have told more than is written.
    auto const it = m_places.find(strSink);
    if (it != m_places.end() && it->second.dwEpoch == pPlace->dwEpoch) {
        pPlace->dwPlace = it->second.dwPlace;
    }
    return true;
}

void CEventStore::Done(SinkPlace const &place)
{
    CPlatGuard const lock(m_mutex);
    m_places[place.strSink] = place;
}

void CEventStore::GiveUp(GivenUpEvent const &event)
{
    CPlatGuard const lock(m_mutex);
    m_givenUp.push_back(event);
}
