#include "hub/mqtt_sink.h"

#include "hub/mqtt_link.h"
#include "platform/lock.h"

#include <nlohmann/json.hpp>

#include <map>
#include <optional>
#include <utility>

using std::chrono::milliseconds;
using Clock = MqttLinkEvents::Clock;

namespace {

constexpr milliseconds kTakeOver{5000};   // from somebody who is gone
constexpr milliseconds kClaimPause{1000}; // before it says again that it is the one
constexpr char kOnline[] = "online";
constexpr char kOffline[] = "offline";

std::string StateText(HubDeviceState const &state)
{
    nlohmann::json const json{
        {"state", state.strState}, {"address", state.strAddress}, {"model", state.strModel}};
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace

class CMqttSinkImpl {
public:
    CMqttSinkImpl(HubMqttSettings const &settings, HubSinkHost const &host);
    ~CMqttSinkImpl() { Stop(); }

    HubOutcomeType Deliver(std::vector<HubEvent const *> const &events, std::size_t *pcTaken,
                           std::string *pstrWhy);
    void Tell(HubDeviceState const &state);
    void Forget(std::string const &strDevice);
    void Stop();

private:
    // On the link's thread.
    void OnConnected();
    void OnFailed(std::string const &strWhy);
    void OnMessage(MqttMessage const &message);
    Clock::time_point OnTurn();
    void TakeSite();
    void GiveBack();

    MqttMessage SiteMessage(bool bOnline) const;
    std::optional<MqttMessage> Will() const;
    MqttLinkEvents Events();
    void ClaimSite() PLAT_REQUIRES(m_mx);
    void PublishState(HubDeviceState const &state) PLAT_REQUIRES(m_mx);
    void Retain(std::string const &strTopic, std::string const &strPayload) PLAT_REQUIRES(m_mx);

    HubMqttSettings const m_settings;
    CMqttTopics const m_topics;
    HubSinkHost const m_host;

    bool m_bToldOfFailure = false; // the link thread's own
    // And this, too: what was heard about the site since the connection began.
    std::string m_strSite;                                // its availability
    std::string m_strActive;                              // the hub that hears it
    Clock::time_point m_tpDue = Clock::time_point::max(); // this hub takes the site

    CPlatMutex m_mx; // taken before the link's
    bool m_bHears PLAT_GUARDED_BY(m_mx);
    std::map<std::string, HubDeviceState> m_devices PLAT_GUARDED_BY(m_mx);

    CMqttLink m_link; // the last: its thread uses all of the above
};

CMqttSinkImpl::CMqttSinkImpl(HubMqttSettings const &settings, HubSinkHost const &host)
    : m_settings(settings), m_topics(settings), m_host(host), m_bHears(!settings.bStandby),
      m_link(settings, settings.bStandby ? std::nullopt : Will(), Events())
{
    m_link.Start();
}

MqttMessage CMqttSinkImpl::SiteMessage(bool bOnline) const
{
    return {m_topics.Availability(), bOnline ? kOnline : kOffline, /*bRetain=*/true};
}

std::optional<MqttMessage> CMqttSinkImpl::Will() const
{
    return SiteMessage(/*bOnline=*/false);
}

MqttLinkEvents CMqttSinkImpl::Events()
{
    return {[this] { OnConnected(); }, [this](std::string const &strWhy) { OnFailed(strWhy); },
            [this](MqttMessage const &message) { OnMessage(message); },
            [this] { return OnTurn(); }};
}

HubOutcomeType CMqttSinkImpl::Deliver(std::vector<HubEvent const *> const &events,
                                      std::size_t *pcTaken, std::string *pstrWhy)
{
    std::vector<MqttNamedMessage> messages;
    for (HubEvent const *const pEvent : events) {
        std::string const strTopic = m_topics.Of(pEvent->strDevice, ShortHubType(*pEvent));
        messages.push_back({pEvent->strId, {strTopic, pEvent->strJson, /*bRetain=*/false}});
        if (messages.size() == CMqttLink::kWindow) {
            break;
        }
    }
    return m_link.Send(std::move(messages), pcTaken, pstrWhy);
}

void CMqttSinkImpl::Stop()
{
    CPlatGuard const lock(m_mx);
    m_link.Stop(m_bHears ? std::optional(SiteMessage(/*bOnline=*/false)) : std::nullopt);
}

// ---- What is retained at the broker, as long as this hub is the one that hears

void CMqttSinkImpl::Retain(std::string const &strTopic, std::string const &strPayload)
{
    if (m_bHears) {
        m_link.Post({strTopic, strPayload, /*bRetain=*/true});
    }
}

void CMqttSinkImpl::PublishState(HubDeviceState const &state)
{
    if (m_settings.bHomeAssistant) {
        Retain(m_topics.HomeTopic(state.strDevice), m_topics.HomePayload(state));
    }
    Retain(m_topics.Of(state.strDevice, "state"), StateText(state));
    Retain(m_topics.Of(state.strDevice, "availability"), state.bAvailable ? kOnline : kOffline);
}

void CMqttSinkImpl::Tell(HubDeviceState const &state)
{
    CPlatGuard const lock(m_mx);
    m_devices[state.strDevice] = state;
    PublishState(state);
}

void CMqttSinkImpl::Forget(std::string const &strDevice)
{
    CPlatGuard const lock(m_mx);
    m_devices.erase(strDevice);
    if (m_settings.bHomeAssistant) {
        Retain(m_topics.HomeTopic(strDevice), "");
    }
    // What is retained goes by an empty text.
    Retain(m_topics.Of(strDevice, "availability"), "");
    Retain(m_topics.Of(strDevice, "state"), "");
}

// That this hub is the one, and how it stands with its devices.
void CMqttSinkImpl::ClaimSite()
{
    Retain(m_topics.Active(), m_settings.strHub);
    Retain(m_topics.Availability(), kOnline);
    for (auto const &[strDevice, state] : m_devices) {
        PublishState(state);
    }
}

// ---- The link's thread

void CMqttSinkImpl::OnConnected()
{
    if (std::exchange(m_bToldOfFailure, false)) {
        m_host.log(eHL_NOTICE, "connected to " + m_settings.strHost);
    }
    m_strSite.clear();
    m_strActive.clear();
    m_link.Subscribe(m_topics.Availability());
    m_link.Subscribe(m_topics.Active());
    CPlatGuard const lock(m_mx);
    if (m_settings.bStandby) {
        // Before it says anything it hears how it stands: the first may be back.
        m_tpDue = Clock::now() + (m_bHears ? kClaimPause : kTakeOver);
    } else {
        ClaimSite();
    }
}

// Of a hub that hears the next event tells; one that stands by would be no help and nobody would know.
void CMqttSinkImpl::OnFailed(std::string const &strWhy)
{
    if (m_settings.bStandby && !std::exchange(m_bToldOfFailure, true)) {
        m_host.log(eHL_WARNING, strWhy + "; trying again");
    }
}

void CMqttSinkImpl::OnMessage(MqttMessage const &message)
{
    (message.strTopic == m_topics.Active() ? m_strActive : m_strSite) = message.strPayload;
    bool const bOther = !m_strActive.empty() && m_strActive != m_settings.strHub;
    bool const bOnline = m_strSite == kOnline;
    if (m_settings.bStandby && bOther && bOnline) {
        m_tpDue = Clock::time_point::max();
        return GiveBack();
    }
    CPlatGuard const lock(m_mx);
    // A late will of one who was before us, or a claim that crossed ours. Not at once: two hubs that both think
    // they are the first must not answer each other as fast as they can.
    bool const bContested = message.strTopic == m_topics.Active() ? bOther && !m_settings.bStandby
                                                                  : m_strSite == kOffline;
    if (m_tpDue == Clock::time_point::max() && (!m_bHears || bContested)) {
        m_tpDue = Clock::now() + (m_bHears ? kClaimPause : kTakeOver);
    }
}

Clock::time_point CMqttSinkImpl::OnTurn()
{
    if (m_tpDue <= Clock::now()) {
        m_tpDue = Clock::time_point::max();
        TakeSite();
    }
    return m_tpDue;
}

void CMqttSinkImpl::TakeSite()
{
    {
        CPlatGuard const lock(m_mx);
        if (m_bHears) {
            return ClaimSite();
        }
        m_bHears = true;
        m_link.SetWill(Will());
    }
    m_host.onTurn(true);
}

void CMqttSinkImpl::GiveBack()
{
    {
        CPlatGuard const lock(m_mx);
        if (!m_bHears) {
            return;
        }
        m_bHears = false;
        m_link.SetWill(std::nullopt);
    }
    m_host.onTurn(false);
}

// ---- The public face

CMqttSink::CMqttSink(HubMqttSettings const &settings, HubSinkHost const &host)
    : m_pImpl(std::make_unique<CMqttSinkImpl>(settings, host))
{
}

CMqttSink::~CMqttSink() = default;

HubOutcomeType CMqttSink::Deliver(HubEvent const &event, std::string *pstrWhy)
{
    std::size_t cTaken = 0;
    return m_pImpl->Deliver({&event}, &cTaken, pstrWhy);
}

HubOutcomeType CMqttSink::DeliverSome(std::vector<HubEvent const *> const &events,
                                      std::size_t *pcTaken, std::string *pstrWhy)
{
    return m_pImpl->Deliver(events, pcTaken, pstrWhy);
}

void CMqttSink::Tell(HubDeviceState const &state)
{
    m_pImpl->Tell(state);
}

void CMqttSink::Forget(std::string const &strDevice)
{
    m_pImpl->Forget(strDevice);
}

void CMqttSink::Stop()
{
    m_pImpl->Stop();
}
