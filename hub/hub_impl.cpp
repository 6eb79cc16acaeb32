#include "hub/hub_impl.h"

#include "session/event_text.h"

#include <algorithm>

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::system_clock;

namespace {

constexpr seconds kForTakingBack{1};   // from a device that answers
constexpr seconds kForDevices{3};      // until all devices have ended
constexpr seconds kForSinks{3};        // until all sinks have
constexpr seconds kRoundTripLimit{35}; // three checks of a session, and some more

// Whether it waits for its turn.
bool HasStandby(HubSettings const &settings)
{
    return std::any_of(settings.sinks.begin(), settings.sinks.end(),
                       [](HubSinkSettings const &sink) {
                           auto const *const pMqtt = std::get_if<HubMqttSettings>(&sink.kind);
                           return pMqtt != nullptr && pMqtt->bStandby;
                       });
}

} // namespace

CHubImpl::CHubImpl(HubLogFn log, MakeHubSinkFn makeSink)
    : m_log(std::move(log)), m_makeSink(std::move(makeSink))
{
}

CHubImpl::~CHubImpl() = default;

bool CHubImpl::Start(HubSettings const &settings, std::string *pstrError)
{
    m_pJournal = CJournal::Open(settings.journal.strFile, pstrError);
    if (m_pJournal == nullptr) {
        return false;
    }
    m_pStore = std::make_unique<CEventStore>(*m_pJournal);
    m_pEvents = std::make_shared<CEventQueue>(settings.journal.cWaiting);
    m_pSupervisor = std::make_unique<CSupervisor>();
    m_envelopes.emplace(settings.strSite);
    {
        CPlatGuard const lock(m_mutex);
        m_settings.journal.strFile = settings.journal.strFile;
        m_settings.strSite = settings.strSite;
        m_settings.strHub = settings.strHub;
        m_bActive = !HasStandby(settings);
    }
    m_writer = std::thread([this] { RunWriter(); });
    Apply(settings);
    return true;
}

void CHubImpl::Apply(HubSettings const &settings)
{
    bool bOther = false;
    {
        CPlatGuard const lock(m_mutex);
        bOther = settings.journal.strFile != m_settings.journal.strFile ||
                 settings.strSite != m_settings.strSite || settings.strHub != m_settings.strHub;
        HubSettings applied = settings;
        applied.journal.strFile = m_settings.journal.strFile;
        applied.strSite = m_settings.strSite;
        applied.strHub = m_settings.strHub;
        m_settings = std::move(applied);
    }
    if (bOther) {
        m_log(eHL_WARNING, "another site, hub or journal file takes a restart of the hub");
    }
    // A sink that is new hears of the devices before their first events.
    RemoveDevices(settings.devices);
    RemoveSinks(settings.sinks);
    ApplySinks(settings.sinks);
    ApplyDevices(settings.devices);
    if (!HasStandby(settings)) {
        TakeTurn(/*bOurs=*/true);
    }
}

// ---- Devices

namespace {

template <class T, class Same>
bool IsIn(std::vector<T> const &list, Same same)
{
    return std::any_of(list.begin(), list.end(), same);
}

} // namespace

void CHubImpl::RemoveDevices(std::vector<SessionOptions> const &devices)
{
    {
        CPlatGuard const lock(m_mutex);
        for (auto it = m_devices.begin(); it != m_devices.end();) {
            Device &device = it->second;
            if (IsIn(devices,
                     [&](SessionOptions const &options) { return options == device.options; })) {
                ++it;
                continue;
            }
            if (device.pSession != nullptr) {
                device.pSession->End(SessionClock::now() + kForTakingBack);
                m_leavers.push_back(std::move(device.pSession));
            }
            bool const bChanged = IsIn(devices, [&](SessionOptions const &options) {
                return options.strDevice == device.options.strDevice;
            });
            m_log(eHL_NOTICE, it->first + (bChanged ? ": changed" : ": no longer heard"));
            for (auto const &pRunner : m_runners) {
                pRunner->Forget(it->first);
            }
            it = m_devices.erase(it);
        }
    }
    // One that has only changed gets its former text back, and not a second one.
    AwaitLeavers(Clock::now() + kForTakingBack);
}

void CHubImpl::AwaitLeavers(Clock::time_point tpEnd)
{
    std::vector<std::unique_ptr<CSession>> leavers;
    {
        CPlatGuard const lock(m_mutex);
        leavers.swap(m_leavers);
    }
    for (auto const &pSession : leavers) {
        (void)pSession->WaitForEnd(tpEnd); // the supervisor goes on with one that is not ready
    }
}

void CHubImpl::ApplyDevices(std::vector<SessionOptions> const &devices)
{
    CPlatGuard const lock(m_mutex);
    for (SessionOptions const &options : devices) {
        auto const [it, bNew] = m_devices.try_emplace(options.strDevice);
        if (!bNew) {
            continue;
        }
        Device &device = it->second;
        device.options = options;
        device.status.state.strDevice = options.strDevice;
        device.status.state.strState = StateName(eSL_WAITING);
        device.status.tpSince = system_clock::now();
        if (m_bActive) {
            BeginDevice(device);
        }
        for (auto const &pRunner : m_runners) {
            pRunner->Tell(device.status.state);
        }
    }
}

void CHubImpl::BeginDevice(Device &device)
{
    device.tpHeard = Clock::now();
    device.cHeard = 0;
    device.pSession = std::make_unique<CSession>(*m_pSupervisor, device.options, m_pEvents);
}

// A standby's: never waits, since a sink's thread calls.
void CHubImpl::TakeTurn(bool bOurs)
{
    CPlatGuard const lock(m_mutex);
    if (m_bActive == bOurs || m_bEnding) {
        return;
    }
    m_bActive = bOurs;
    m_log(eHL_NOTICE, bOurs ? "takes over, no other hub hears the devices"
                            : "gives back, another hub hears the devices");
    for (auto &[strDevice, device] : m_devices) {
        if (bOurs) {
            BeginDevice(device);
        } else if (device.pSession != nullptr) {
            device.pSession->End(SessionClock::now() + kForTakingBack);
            device.pSession.reset(); // the supervisor goes on with it
            device.status.state.bAvailable = false;
            device.status.state.strState = StateName(eSL_WAITING);
            device.status.tpSince = system_clock::now();
        }
    }
}

// ---- Sinks

void CHubImpl::RemoveSinks(std::vector<HubSinkSettings> const &sinks)
{
    std::list<std::unique_ptr<CSinkRunner>> leaving;
    {
        CPlatGuard const lock(m_mutex);
        for (auto it = m_runners.begin(); it != m_runners.end();) {
            auto const itHere = it++;
            HubSinkSettings const &settings = (*itHere)->Settings();
            if (IsIn(sinks, [&](HubSinkSettings const &sink) { return sink == settings; })) {
                continue;
            }
            m_log(eHL_NOTICE, settings.strName + ": ends");
            leaving.splice(leaving.end(), m_runners, itHere);
        }
    }
    LeaveSinks(std::move(leaving));
}

// Waits for them without a limit: two of one name must not run side by side, and each delivery has its own.
void CHubImpl::LeaveSinks(std::list<std::unique_ptr<CSinkRunner>> leaving)
{
    for (auto const &pRunner : leaving) {
        pRunner->Stop();
    }
    for (auto const &pRunner : leaving) {
        (void)pRunner->Ended(Clock::time_point::max());
    }
}

void CHubImpl::ApplySinks(std::vector<HubSinkSettings> const &sinks)
{
    HubRulesPtr pRules;
    {
        CPlatGuard const lock(m_mutex);
        pRules = std::make_shared<std::vector<HubRule> const>(m_settings.rules);
        for (auto const &pRunner : m_runners) {
            pRunner->SetRules(pRules);
        }
    }
    for (HubSinkSettings const &settings : sinks) {
        bool bRuns = false;
        {
            CPlatGuard const lock(m_mutex);
            bRuns = std::any_of(m_runners.begin(), m_runners.end(), [&](auto const &pRunner) {
                return pRunner->Settings().strName == settings.strName;
            });
        }
        if (!bRuns) {
            BeginSink(settings, pRules);
        }
    }
}

bool CHubImpl::BeginSink(HubSinkSettings const &settings, HubRulesPtr const &pRules)
{
    std::string strError;
    SinkPlace place;
    std::unique_ptr<CHubSink> pSink;
    try {
        HubSinkHost const host{m_log, [this](bool bOurs) { TakeTurn(bOurs); }};
        pSink = m_makeSink(settings, host);
    } catch (std::exception const &error) {
        strError = error.what();
    }
    if (pSink == nullptr || !m_pStore->Begin(settings.strName, &place, &strError)) {
        m_log(eHL_ERROR, settings.strName + ": cannot begin: " + strError);
        return false;
    }
    CPlatGuard const lock(m_mutex);
    m_runners.push_back(
        std::make_unique<CSinkRunner>(settings, std::move(pSink), *m_pStore, place, pRules, m_log));
    for (auto const &[strDevice, device] : m_devices) {
        m_runners.back()->Tell(device.status.state);
    }
    return true;
}

// ---- The end

bool CHubImpl::End()
{
    {
        CPlatGuard const lock(m_mutex);
        m_bEnding = true;
        for (auto &[strDevice, device] : m_devices) {
            if (device.pSession != nullptr) {
                device.pSession->End(SessionClock::now() + kForTakingBack);
                m_leavers.push_back(std::move(device.pSession));
            }
        }
        for (auto const &pRunner : m_runners) {
            pRunner->Stop();
        }
    }
    AwaitLeavers(Clock::now() + kForDevices);
    m_bWriterEnds = true;
    m_writer.join(); // it writes what has come until now, and where the sinks are
    bool bAll = true;
    std::list<std::unique_ptr<CSinkRunner>> runners;
    {
        CPlatGuard const lock(m_mutex);
        runners.swap(m_runners);
    }
    auto const tpEnd = Clock::now() + kForSinks;
    for (auto &pRunner : runners) {
        if (!pRunner->Ended(tpEnd)) {
            bAll = false;
            m_log(eHL_WARNING, pRunner->Settings().strName + ": does not end, and is left behind");
            (void)pRunner.release(); // its thread goes with the process
        }
    }
    std::vector<HubEvent> none;
    std::string strIgnored; // they are handed on once more
    (void)m_pStore->Write(none, &strIgnored);
    return bAll;
}

// ---- What is asked

HubStatus CHubImpl::Status() const
{
    HubStatus status;
    status.tpStarted = m_tpStarted;
    std::uint64_t const dwLast = m_pStore->Last();
    std::uint64_t const cbSize = m_pJournal->Size();
    CPlatGuard const lock(m_mutex);
    status.strSite = m_settings.strSite;
    status.strHub = m_settings.strHub;
    status.bActive = m_bActive;
    status.journal = m_journal;
    status.journal.dwLast = dwLast;
    status.journal.cbSize = cbSize;
    for (auto const &[strDevice, device] : m_devices) {
        HubDeviceStatus &added = status.devices.emplace_back(device.status);
        if (device.pSession != nullptr) {
            SessionHealth const health = device.pSession->Health();
            added.cEchoes = health.cEchoes;
            added.cEchoesMissed = health.cEchoesMissed;
            added.cSilenced = health.cSilenced;
        }
    }
    for (auto const &pRunner : m_runners) {
        status.sinks.push_back(pRunner->Status());
    }
    return status;
}

bool CHubImpl::Search(JournalQuery const &query, std::vector<HubEvent> *pEvents,
                      std::string *pstrError)
{
    return m_pJournal->Read(query, pEvents, pstrError);
}

// Only over a network, and only while the device is there, can an agent be asked.
bool CHubImpl::Lives()
{
    auto const now = Clock::now();
    bool bLives = true;
    CPlatGuard const lock(m_mutex);
    for (auto &[strDevice, device] : m_devices) {
        bool const bAsks =
            device.pSession != nullptr && !device.options.bLocal && device.status.state.bAvailable;
        std::uint64_t const cHeard = bAsks ? device.pSession->Health().cHeard : 0;
        if (!bAsks || cHeard != device.cHeard) {
            device.cHeard = cHeard;
            device.tpHeard = now;
        } else if (now - device.tpHeard > kRoundTripLimit) {
            m_log(eHL_ERROR, strDevice + ": what reaches its listener does not come through");
            bLives = false;
        }
    }
    return bLives;
}
