// The writer of a hub.

#include "hub/hub_impl.h"
#include "session/event_text.h"

#include <algorithm>

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using std::chrono::system_clock;

namespace {

constexpr std::size_t kTogether =
    5000; // events in one transaction at most: more, and a slow disk is no brake
constexpr milliseconds kFlush{250}; // so long what sinks have told can be unwritten
constexpr milliseconds kLook{500};  // so long a replay can be unseen
constexpr seconds kTryAgain{1};     // after a write that failed
constexpr minutes kPrunePeriod{1};
constexpr minutes kSayDroppedPeriod{1};

} // namespace

void CHubImpl::RunWriter()
{
    while (true) {
        bool const bLast = m_bWriterEnds; // what came before it is taken below
        TakeEvents(bLast ? SessionClock::now() : SessionClock::now() + kFlush);
        WritePending();
        if (bLast && (m_pending.empty() || m_tpTry > Clock::now()) &&
            m_pEvents->NotificationsLeft() == 0) {
            break;
        }
        KeepHouse();
    }
    if (!m_pending.empty()) {
        m_log(eHL_ERROR,
              std::to_string(m_pending.size()) + " events are lost, the journal takes none");
    }
}

// What comes together is written together: the first one is waited for, the others are taken as they are there.
void CHubImpl::TakeEvents(SessionTime tpEnd)
{
    auto event = m_pEvents->Take(tpEnd);
    for (std::size_t c = 0; event; event = m_pEvents->Take(SessionClock::now())) {
        AddEvent(*event);
        if (++c >= kTogether) {
            break;
        }
    }
    BoundPending();
}

void CHubImpl::AddEvent(SessionEvent const &event)
{
    if (auto const *const pChange = std::get_if<LinkChange>(&event.what)) {
        NoteState(event.strDevice, *pChange, event.tpTime);
    } else if (auto const *const pDropped = std::get_if<DroppedEvents>(&event.what)) {
        m_log(eHL_ERROR, std::to_string(pDropped->cEvents) + " events were dropped, too many came");
        CPlatGuard const lock(m_mutex);
        m_journal.cDropped += pDropped->cEvents;
    } else if (auto const &notification = std::get<Notification>(event.what);
               !notification.strModel.empty()) {
        CPlatGuard const lock(m_mutex);
        auto const it = m_devices.find(event.strDevice);
        if (it != m_devices.end()) {
            it->second.status.state.strModel = notification.strModel;
        }
    }
    if (auto made = m_envelopes->Make(event)) {
        m_pending.push_back(std::move(*made));
    }
}

void CHubImpl::NoteState(std::string const &strDevice, LinkChange const &change,
                         system_clock::time_point tpTime)
{
    bool const bUp = change.eState == eSL_CONNECTED || change.eState == eSL_BACK;
    std::string const strReason = ReasonText(change);
    m_log(bUp ? eHL_NOTICE : eHL_WARNING, strDevice + ": link " + StateName(change.eState) +
                                              (strReason.empty() ? "" : ": " + strReason));
    CPlatGuard const lock(m_mutex);
    auto const it = m_devices.find(strDevice);
    if (it == m_devices.end() || it->second.pSession == nullptr) {
        return; // it has left meanwhile
    }
    HubDeviceStatus &status = it->second.status;
    status.state.strAddress = change.strAddress;
    status.state.bAvailable = bUp;
    status.state.strState = StateName(change.eState);
    status.strReason = strReason;
    status.tpSince = tpTime;
    for (auto const &pRunner : m_runners) {
        pRunner->Tell(status.state);
    }
}

// While the disk takes nothing the oldest go.
void CHubImpl::BoundPending()
{
    std::uint64_t cDropped = 0;
    CPlatGuard const lock(m_mutex);
    for (; m_pending.size() > m_settings.journal.cWaiting; ++cDropped) {
        m_pending.pop_front();
    }
    m_journal.cDropped += cDropped;
    m_journal.cWaiting = m_pending.size();
    m_cDroppedNow += cDropped;
    if (cDropped > 0 && Clock::now() >= m_tpSayDropped) {
        m_tpSayDropped = Clock::now() + kSayDroppedPeriod;
        m_log(eHL_ERROR, "more than " + std::to_string(m_settings.journal.cWaiting) +
                             " events wait for the journal: the oldest are dropped, " +
                             std::to_string(m_cDroppedNow) + " so far");
    }
}

// The first ones that wait; before them, where they would stand, how many were dropped.
std::vector<HubEvent> CHubImpl::NextToWrite(std::size_t cEvents)
{
    std::vector<HubEvent> events;
    if (m_cDroppedNow > 0) {
        events.push_back(
            *m_envelopes->Make({"", system_clock::now(), DroppedEvents{m_cDroppedNow}}));
    }
    events.insert(events.end(), m_pending.begin(),
                  m_pending.begin() + static_cast<std::ptrdiff_t>(cEvents));
    return events;
}

void CHubImpl::WritePending()
{
    auto const now = Clock::now();
    bool const bFlush = m_pStore->HasNews() && (now >= m_tpFlush || m_bWriterEnds);
    while (now >= m_tpTry && (!m_pending.empty() || bFlush)) {
        std::size_t const cEvents = std::min(kTogether, m_pending.size());
        std::vector<HubEvent> events = NextToWrite(cEvents);
        std::vector<std::pair<std::string, std::string>> written; // device, type
        for (HubEvent const &event : events) {
            written.emplace_back(event.strDevice, ShortHubType(event));
        }
        std::string strError;
        bool const bGood = m_pStore->Write(events, &strError);
        CPlatGuard const lock(m_mutex);
        if (bGood != m_journal.strProblem.empty()) {
            m_log(bGood ? eHL_NOTICE : eHL_ERROR,
                  bGood ? "the journal takes events again"
                        : "the journal takes no events, they wait in memory: " + strError);
        }
        m_journal.strProblem = bGood ? "" : strError;
        if (!bGood) {
            m_tpTry = now + kTryAgain;
            return;
        }
        m_cDroppedNow = 0;
        m_pending.erase(m_pending.begin(),
                        m_pending.begin() + static_cast<std::ptrdiff_t>(cEvents));
        m_tpFlush = now + kFlush;
        ++m_journal.cCommits;
        CountWritten(written);
        if (m_pending.empty()) {
            return;
        }
    }
}

void CHubImpl::CountWritten(std::vector<std::pair<std::string, std::string>> const &written)
{
    m_journal.cWritten += written.size();
    m_journal.cWaiting = m_pending.size();
    for (auto const &[strDevice, strType] : written) {
        auto const it = m_devices.find(strDevice);
        if (it != m_devices.end()) {
            ++it->second.status.events[strType];
            it->second.status.lastEvent = system_clock::now();
        }
    }
    for (auto const &pRunner : m_runners) {
        pRunner->Wake();
    }
}

void CHubImpl::KeepHouse()
{
    auto const now = Clock::now();
    if (now >= m_tpLook) {
        m_tpLook = now + kLook;
        LookForSetBacks();
    }
    if (now >= m_tpPrune) {
        Prune();
    }
}

void CHubImpl::Prune()
{
    HubJournalSettings keep;
    {
        CPlatGuard const lock(m_mutex);
        keep = m_settings.journal;
    }
    std::string strError;
    bool bMore = false;
    if (!m_pJournal->Prune(system_clock::now() - keep.keep, keep.cbKeep, &bMore, &strError)) {
        m_log(eHL_WARNING, "cannot remove old events from the journal: " + strError);
    }
    m_tpPrune = bMore ? Clock::now() : Clock::now() + kPrunePeriod;
}

void CHubImpl::LookForSetBacks()
{
    if (!m_pJournal->HasChanged()) {
        return;
    }
    CPlatGuard const lock(m_mutex);
    for (auto const &pRunner : m_runners) {
        SinkPlace place;
        std::string strError;
        if (m_pJournal->PlaceOf(pRunner->Settings().strName, &place, &strError)) {
            pRunner->SetBack(place);
        }
    }
}
