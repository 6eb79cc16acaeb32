#include "hub/sink_runner.h"

#include "hub/make_sink.h"

#include <algorithm>

using std::chrono::milliseconds;
using std::chrono::system_clock;

namespace {

constexpr std::size_t kFetch = 500;              // events at once
constexpr std::chrono::seconds kJournalPause{1}; // when the journal cannot be read

} // namespace

CSinkRunner::CSinkRunner(HubSinkSettings settings, std::unique_ptr<CHubSink> pSink,
                         CEventStore &store, SinkPlace const &place, HubRulesPtr pRules,
                         HubLogFn log)
    : m_settings(std::move(settings)), m_pSink(std::move(pSink)), m_store(store),
      m_log(std::move(log)), m_pause(m_settings.firstPause), m_dwEpoch(place.dwEpoch),
      m_place(place), m_pRules(std::move(pRules))
{
    m_status.strName = m_settings.strName;
    m_status.strKind = HubSinkKind(m_settings);
    m_thread = std::thread([this] { Run(); });
}

CSinkRunner::~CSinkRunner()
{
    m_thread.join();
}

void CSinkRunner::Wake()
{
    {
        CPlatGuard const lock(m_mutex);
        m_bWoken = true;
    }
    m_cv.notify_all();
}

void CSinkRunner::SetRules(HubRulesPtr pRules)
{
    CPlatGuard const lock(m_mutex);
    m_pRules = std::move(pRules);
}

void CSinkRunner::SetBack(SinkPlace const &place)
{
    {
        CPlatGuard const lock(m_mutex);
        if (place.dwEpoch == m_place.dwEpoch) {
            return;
        }
        m_place = place;
        m_tpSetBack = system_clock::now();
        m_bWoken = true;
    }
    m_log(eHL_NOTICE, m_settings.strName + ": set back, events are handed on once more");
    m_cv.notify_all();
}

void CSinkRunner::Tell(HubDeviceState const &state)
{
    {
        CPlatGuard const lock(m_mutex);
        m_news[state.strDevice] = state;
        m_bWoken = true;
    }
    m_cv.notify_all();
}

void CSinkRunner::Forget(std::string const &strDevice)
{
    {
        CPlatGuard const lock(m_mutex);
        m_news[strDevice] = std::nullopt;
        m_bWoken = true;
    }
    m_cv.notify_all();
}

void CSinkRunner::Stop()
{
    {
        CPlatGuard const lock(m_mutex);
        if (m_bStopped) {
            return;
        }
        m_bStopped = true;
    }
    m_pSink->Stop();
    m_cv.notify_all();
}

bool CSinkRunner::IsStopped() const
{
    CPlatGuard const lock(m_mutex);
    return m_bStopped;
}

bool CSinkRunner::Ended(Clock::time_point tpEnd)
{
    CPlatWaitGuard lock(m_mutex);
    while (!m_bEnded && m_cv.wait_until(lock.Native(), tpEnd) != std::cv_status::timeout) {
    }
    return m_bEnded;
}

HubSinkStatus CSinkRunner::Status() const
{
    std::uint64_t const dwLast = m_store.Last();
    CPlatGuard const lock(m_mutex);
    HubSinkStatus status = m_status;
    status.cWaiting = dwLast > m_place.dwPlace ? dwLast - m_place.dwPlace : 0;
    if (status.cWaiting > 0 && m_tpOldest != system_clock::time_point{}) {
        status.oldest =
            std::max(std::chrono::seconds(0),
                     std::chrono::floor<std::chrono::seconds>(system_clock::now() - m_tpOldest));
    }
    return status;
}

// ---- The thread

void CSinkRunner::Run()
{
    while (!IsStopped()) {
        TellNews();
        if (HubEventPtr const pEvent = Next()) {
            HandOn(*pEvent);
        } else {
            Rest(Clock::time_point::max());
        }
    }
    CPlatGuard const lock(m_mutex);
    m_bEnded = true;
    m_cv.notify_all();
}

void CSinkRunner::TellNews()
{
    std::map<std::string, std::optional<HubDeviceState>> news;
    {
        CPlatGuard const lock(m_mutex);
        m_bWoken = false;
        news.swap(m_news);
    }
    for (auto const &[strDevice, state] : news) {
        if (state) {
            m_pSink->Tell(*state);
        } else {
            m_pSink->Forget(strDevice);
        }
    }
}

// The event whose turn it is; null if there is none for now.
HubEventPtr CSinkRunner::Next()
{
    std::uint64_t dwPlace = 0;
    {
        CPlatGuard const lock(m_mutex);
        dwPlace = m_place.dwPlace;
        if (m_dwEpoch != m_place.dwEpoch) {
            m_dwEpoch = m_place.dwEpoch;
            m_fetched.clear();
        }
    }
    while (!m_fetched.empty() && m_fetched.front()->dwPlace <= dwPlace) {
        m_fetched.pop_front();
    }
    if (m_fetched.empty()) {
        Fetch();
    }
    CPlatGuard const lock(m_mutex);
    m_tpOldest = m_fetched.empty() ? system_clock::time_point{} : m_fetched.front()->tpTime;
    return m_fetched.empty() ? nullptr : m_fetched.front();
}

void CSinkRunner::Fetch()
{
    std::uint64_t dwPlace = 0;
    {
        CPlatGuard const lock(m_mutex);
        dwPlace = m_place.dwPlace;
    }
    std::vector<HubEventPtr> events;
    std::string strError;
    if (!m_store.After(dwPlace, kFetch, &events, &strError)) {
        m_log(eHL_ERROR, m_settings.strName + ": the journal cannot be read: " + strError);
        Rest(Clock::now() + kJournalPause);
        return;
    }
    m_fetched.assign(events.begin(), events.end());
    if (!m_fetched.empty()) {
        MissedUntil(m_fetched.front()->dwPlace);
    }
}

// Places are given without a gap: what is not there any more was too old for the journal.
void CSinkRunner::MissedUntil(std::uint64_t dwPlace)
{
    std::uint64_t cMissed = 0;
    {
        CPlatGuard const lock(m_mutex);
        if (dwPlace <= m_place.dwPlace + 1) {
            return;
        }
        cMissed = dwPlace - m_place.dwPlace - 1;
        m_status.cGivenUp += cMissed;
    }
    m_log(eHL_ERROR, m_settings.strName + ": " + std::to_string(cMissed) +
                         " events have left the journal before they could be handed on");
    Advance(dwPlace - 1);
}

bool CSinkRunner::IsWanted(HubEvent const &event) const
{
    HubRulesPtr pRules;
    {
        CPlatGuard const lock(m_mutex);
        pRules = m_pRules;
    }
    return IsForSink(*pRules, m_settings.strName, event.strDevice, ShortHubType(event),
                     event.strText);
}

// The event and those behind it that the sink wants, as far as they have been fetched.
std::vector<HubEvent const *> CSinkRunner::WantedFrom(HubEvent const &first) const
{
    std::vector<HubEvent const *> events;
    for (HubEventPtr const &pEvent : m_fetched) {
        if (pEvent->dwPlace >= first.dwPlace && IsWanted(*pEvent)) {
            events.push_back(pEvent.get());
        }
    }
    return events;
}

void CSinkRunner::HandOn(HubEvent const &event)
{
    if (!IsWanted(event)) {
        Advance(event.dwPlace);
        return;
    }
    std::vector<HubEvent const *> const events = WantedFrom(event);
    std::string strWhy;
    std::size_t cTaken = 0;
    HubOutcomeType const eOutcome = m_pSink->DeliverSome(events, &cTaken, &strWhy);
    if (cTaken > 0) {
        Taken(cTaken);
        Advance(events[cTaken - 1]->dwPlace);
    }
    if (eOutcome == eHO_REFUSED) {
        GiveUp(*events[cTaken], "refused: " + strWhy);
    } else if (eOutcome == eHO_LATER) {
        Failed(*events[cTaken], strWhy);
    }
}

void CSinkRunner::Taken(std::size_t cEvents)
{
    bool bAgain = false;
    {
        CPlatGuard const lock(m_mutex);
        bAgain = !m_status.strProblem.empty();
        m_status.strProblem.clear();
        m_status.cDelivered += cEvents;
        m_status.lastDelivered = system_clock::now();
    }
    m_pause = m_settings.firstPause;
    if (bAgain) {
        m_log(eHL_NOTICE, m_settings.strName + ": takes events again");
    }
}

// An event that is handed on once more since somebody wanted it so is as old as that wish.
bool CSinkRunner::IsTooOld(HubEvent const &event) const
{
    CPlatGuard const lock(m_mutex);
    return system_clock::now() - std::max(event.tpTime, m_tpSetBack) > m_settings.giveUp;
}

void CSinkRunner::Failed(HubEvent const &event, std::string const &strWhy)
{
    if (IsStopped()) {
        return;
    }
    bool bFirst = false;
    {
        CPlatGuard const lock(m_mutex);
        ++m_status.cRetries;
        bFirst = m_status.strProblem.empty();
        m_status.strProblem = strWhy;
    }
    if (bFirst) {
        m_log(eHL_WARNING, m_settings.strName + ": " + strWhy + "; trying again");
    }
    if (IsTooOld(event)) {
        GiveUp(event, strWhy);
        return;
    }
    Rest(Clock::now() + m_pause);
    m_pause = std::min(m_pause * 2, std::max(m_settings.longestPause, m_settings.firstPause));
}

void CSinkRunner::GiveUp(HubEvent const &event, std::string const &strWhy)
{
    SinkPlace place;
    {
        CPlatGuard const lock(m_mutex);
        ++m_status.cGivenUp;
        m_status.strProblem = strWhy;
        place = m_place;
    }
    m_log(eHL_ERROR, m_settings.strName + ": event " + event.strId + " is given up: " + strWhy);
    m_store.GiveUp({place.strSink, event.dwPlace, strWhy});
    Advance(event.dwPlace);
}

void CSinkRunner::Advance(std::uint64_t dwPlace)
{
    SinkPlace place;
    {
        CPlatGuard const lock(m_mutex);
        if (m_dwEpoch != m_place.dwEpoch) {
            return; // set back meanwhile
        }
        m_place.dwPlace = dwPlace;
        place = m_place;
    }
    m_store.Done(place);
}

// Until then; shorter for the end, and for what else comes up unless it is the pause before a retry.
void CSinkRunner::Rest(Clock::time_point tpEnd)
{
    CPlatWaitGuard lock(m_mutex);
    while (!m_bStopped) {
        bool const bNews = m_bWoken && (tpEnd == Clock::time_point::max() || !m_news.empty() ||
                                        m_dwEpoch != m_place.dwEpoch);
        if (bNews) {
            break;
        }
        if (tpEnd == Clock::time_point::max()) {
            m_cv.wait(lock.Native());
        } else if (m_cv.wait_until(lock.Native(), tpEnd) == std::cv_status::timeout) {
            break;
        }
    }
}
