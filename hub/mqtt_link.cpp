#include "hub/mqtt_link.h"

#include "hub/waiter.h"
#include "platform/descriptor.h"
#include "platform/lock.h"

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

using std::chrono::milliseconds;
using Clock = MqttLinkEvents::Clock;

namespace {

constexpr milliseconds kFirstPause{500};
constexpr milliseconds kLongestPause{4000};
constexpr milliseconds kFarewell{1000}; // for the acknowledgment of the last message
constexpr milliseconds kLongestTurn{1000};
constexpr milliseconds kOpeningTurn{20};
constexpr int kKeepAlive = 15; // s: after half as much again the broker gives a silent hub up
constexpr int kQos = 1;

struct MosquittoEnd {
    void operator()(mosquitto *p) const { mosquitto_destroy(p); }
};

// What stands between a message of a Send and its acknowledgment.
enum SendStateType {
    eSS_WAITING, // for a connection, or the thread
    eSS_SENT,
    eSS_TAKEN,
    eSS_REFUSED,
};

struct Flight {
    MqttNamedMessage what;
    SendStateType eState = eSS_WAITING;
    int nMid = 0;       // once it is sent
    std::string strWhy; // it is refused
};

// What became of handing one to the library.
struct Published {
    std::string strId;
    int nResult = 0;
    int nMid = 0;
};

std::string TextOf(int nResult)
{
    return nResult == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(nResult);
}

milliseconds Until(Clock::time_point tp)
{
    auto const left = std::chrono::ceil<milliseconds>(tp - Clock::now());
    return std::clamp(left, milliseconds(0), kLongestTurn);
}

} // namespace

class CMqttLinkImpl {
public:
    CMqttLinkImpl(HubMqttSettings const &settings, std::optional<MqttMessage> will,
                  MqttLinkEvents events);
    ~CMqttLinkImpl();

    void Start();
    HubOutcomeType Send(std::vector<MqttNamedMessage> messages, std::size_t *pcTaken,
                        std::string *pstrWhy);
    void Post(MqttMessage message);
    void Subscribe(std::string const &strTopic);
    void SetWill(std::optional<MqttMessage> will);
    void Stop(std::optional<MqttMessage> last);

private:
    void Configure();
    void ConfigureTls();
    void HandleEvents();
    void SetTheWill();

    // The thread.
    void Run();
    bool Open();
    void Serve();
    int Turn(milliseconds limit);
    int Publish(MqttMessage const &message, int *pnMid);
    void PublishWaiting();
    void PublishFlights();
    void NotePublished(std::vector<Published> const &published);
    void SayFarewell();
    void Pause();
    void Lost(std::string const &strWhy);
    bool MustLeave();
    void OnConnect(int nCode);
    void OnPublished(int nMid);
    std::string Refusal(int nCode) const;

    void CountTaken() PLAT_REQUIRES(m_mx);
    void Board(std::vector<MqttNamedMessage> messages) PLAT_REQUIRES(m_mx);
    // What a Send has come to, or nothing as long as it has to wait.
    std::optional<HubOutcomeType> Result(std::string *pstrWhy) PLAT_REQUIRES(m_mx);

    HubMqttSettings const m_settings;
    std::string const m_strPlace;
    MqttLinkEvents const m_events;
    std::unique_ptr<mosquitto, MosquittoEnd> m_pClient; // used by the thread alone
    CHubWaiter m_waiter;
    std::string m_strBroken; // why no connection can ever be made, or empty

    // The thread's own.
    std::string m_strLog;    // the library's last word on what went wrong
    bool m_bOpened = false;  // once at least
    bool m_bOnline = false;  // the broker has taken us
    bool m_bGreeted = false; // and the owner has heard of it
    bool m_bLeave = false;   // this connection is over
    int m_nLastMid = 0;      // of the farewell, until it is acknowledged
    milliseconds m_pause = kFirstPause;
    Clock::time_point m_tpTurn;

    CPlatMutex m_mx; // a leaf
    std::condition_variable m_cv;
    bool m_bStopped PLAT_GUARDED_BY(m_mx) = false;
    bool m_bConnected PLAT_GUARDED_BY(m_mx) = false;
    bool m_bRefused PLAT_GUARDED_BY(m_mx) = false; // the last connection, by the broker
    bool m_bNewWill PLAT_GUARDED_BY(m_mx) = false;
    std::optional<MqttMessage> m_will PLAT_GUARDED_BY(m_mx);
    std::optional<MqttMessage> m_last PLAT_GUARDED_BY(m_mx);
    std::string m_strWhy PLAT_GUARDED_BY(m_mx); // there is no connection
    std::deque<MqttMessage> m_waiting PLAT_GUARDED_BY(m_mx);
    // Of the last Send, in its order; what came back too early stays for the next one.
    std::vector<Flight> m_flights PLAT_GUARDED_BY(m_mx);
    std::size_t m_cTaken PLAT_GUARDED_BY(m_mx) = 0; // of them, from the front

    std::thread m_thread; // the last: it uses all of the above
};

CMqttLinkImpl::CMqttLinkImpl(HubMqttSettings const &settings, std::optional<MqttMessage> will,
                             MqttLinkEvents events)
    : m_settings(settings), m_strPlace(settings.strHost + ":" + std::to_string(settings.wPort)),
      m_events(std::move(events)), m_will(std::move(will)),
      m_strWhy("there is no connection to " + m_strPlace + " yet")
{
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
    // The name by which the broker keeps the session: the same after a restart, another for each hub.
    std::string const strClient =
        m_settings.strBase + "-" + m_settings.strSite + "-" + m_settings.strHub;
    m_pClient.reset(mosquitto_new(strClient.c_str(), /*clean_session=*/false, this));
    if (!m_pClient) {
        throw std::bad_alloc();
    }
    Configure();
}

CMqttLinkImpl::~CMqttLinkImpl()
{
    Stop(std::nullopt);
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void CMqttLinkImpl::Start()
{
    m_thread = std::thread([this] { Run(); });
}

void CMqttLinkImpl::Configure()
{
    mosquitto *const p = m_pClient.get();
    // All calls come from one thread, or TLS would be read and written by two at once.
    mosquitto_int_option(p, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_max_inflight_messages_set(p, CMqttLink::kWindow);
    if (!m_settings.strUser.empty()) {
        mosquitto_username_pw_set(p, m_settings.strUser.c_str(), m_settings.strPassword.c_str());
    }
    if (m_settings.bTls) {
        ConfigureTls();
    }
    SetTheWill();
    HandleEvents();
}

void CMqttLinkImpl::ConfigureTls()
{
    auto const file = [](std::string const &str) { return str.empty() ? nullptr : str.c_str(); };
    mosquitto *const p = m_pClient.get();
    int nResult = MOSQ_ERR_SUCCESS;
    if (m_settings.strCaFile.empty()) {
        nResult = mosquitto_int_option(p, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
    }
    if (nResult == MOSQ_ERR_SUCCESS) {
        nResult =
            mosquitto_tls_set(p, file(m_settings.strCaFile), nullptr, file(m_settings.strCertFile),
                              file(m_settings.strKeyFile), nullptr);
    }
    if (nResult != MOSQ_ERR_SUCCESS) {
        // It is never made without TLS instead.
        m_strBroken = "the files for TLS cannot be used: " + TextOf(nResult);
    }
}

void CMqttLinkImpl::HandleEvents()
{
    mosquitto *const p = m_pClient.get();
    mosquitto_connect_callback_set(p, [](mosquitto *, void *pUser, int nCode) {
        static_cast<CMqttLinkImpl *>(pUser)->OnConnect(nCode);
    });
    mosquitto_publish_callback_set(p, [](mosquitto *, void *pUser, int nMid) {
        static_cast<CMqttLinkImpl *>(pUser)->OnPublished(nMid);
    });
    mosquitto_message_callback_set(
        p, [](mosquitto *, void *pUser, mosquitto_message const *pMessage) {
            auto const &events = static_cast<CMqttLinkImpl *>(pUser)->m_events;
            auto const *const pText = static_cast<char const *>(pMessage->payload);
            auto const cb = static_cast<std::size_t>(pMessage->payloadlen);
            events.message({pMessage->topic, std::string(pText, cb), pMessage->retain});
        });
    mosquitto_log_callback_set(p, [](mosquitto *, void *pUser, int nLevel, char const *psz) {
        if (nLevel == MOSQ_LOG_ERR) {
            static_cast<CMqttLinkImpl *>(pUser)->m_strLog = psz;
        }
    });
}

void CMqttLinkImpl::SetTheWill()
{
    CPlatGuard const lock(m_mx);
    m_bNewWill = false;
    mosquitto_will_clear(m_pClient.get());
    if (m_will) {
        mosquitto_will_set(m_pClient.get(), m_will->strTopic.c_str(),
                           static_cast<int>(m_will->strPayload.size()), m_will->strPayload.data(),
                           kQos, m_will->bRetain);
    }
}

// ---- What others ask for

std::optional<HubOutcomeType> CMqttLinkImpl::Result(std::string *pstrWhy)
{
    if (m_cTaken == m_flights.size()) {
        return eHO_TAKEN;
    }
    if (Flight const &next = m_flights[m_cTaken]; next.eState == eSS_REFUSED) {
        *pstrWhy = next.strWhy;
        return eHO_REFUSED;
    }
    if (m_bStopped) {
        *pstrWhy = "the end is near";
        return eHO_LATER;
    }
    if (m_bRefused) {
        *pstrWhy = m_strWhy;
        return eHO_LATER;
    }
    return std::nullopt;
}

// What is on its way already goes on, whatever else is with it now.
void CMqttLinkImpl::Board(std::vector<MqttNamedMessage> messages)
{
    std::vector<Flight> flights;
    for (MqttNamedMessage &message : messages) {
        auto const it = std::find_if(m_flights.begin(), m_flights.end(), [&](Flight const &flight) {
            return flight.what.strId == message.strId;
        });
        bool const bFlies = it != m_flights.end() && it->eState != eSS_WAITING;
        flights.push_back(bFlies ? std::move(*it) : Flight{std::move(message), eSS_WAITING, 0, ""});
    }
    m_flights = std::move(flights);
    m_cTaken = 0;
    CountTaken();
}

void CMqttLinkImpl::CountTaken()
{
    while (m_cTaken < m_flights.size() && m_flights[m_cTaken].eState == eSS_TAKEN) {
        ++m_cTaken;
    }
}

HubOutcomeType CMqttLinkImpl::Send(std::vector<MqttNamedMessage> messages, std::size_t *pcTaken,
                                   std::string *pstrWhy)
{
    CPlatWaitGuard lock(m_mx);
    Board(std::move(messages));
    m_waiter.Wake();
    std::optional<HubOutcomeType> eResult;
    std::size_t cBefore = 0;
    do {
        cBefore = m_cTaken;
        auto const tpEnd = Clock::now() + m_settings.limit;
        while (!(eResult = Result(pstrWhy)) &&
               m_cv.wait_until(lock.Native(), tpEnd) == std::cv_status::no_timeout) {
        }
    } while (!eResult && m_cTaken > cBefore);
    if (!eResult) {
        *pstrWhy = m_bConnected ? m_strPlace + " does not acknowledge" : m_strWhy;
    }
    *pcTaken = m_cTaken;
    m_flights.erase(m_flights.begin(), m_flights.begin() + static_cast<std::ptrdiff_t>(m_cTaken));
    // What has not left is not to leave without being asked for; what is refused has been told.
    std::erase_if(m_flights, [](Flight const &flight) {
        return flight.eState == eSS_WAITING || flight.eState == eSS_REFUSED;
    });
    m_cTaken = 0;
    return eResult.value_or(eHO_LATER);
}

void CMqttLinkImpl::Post(MqttMessage message)
{
    CPlatGuard const lock(m_mx);
    if (m_bConnected && !m_bStopped) {
        m_waiting.push_back(std::move(message));
        m_waiter.Wake();
    }
}

void CMqttLinkImpl::Subscribe(std::string const &strTopic)
{
    mosquitto_subscribe(m_pClient.get(), nullptr, strTopic.c_str(), kQos);
}

void CMqttLinkImpl::SetWill(std::optional<MqttMessage> will)
{
    CPlatGuard const lock(m_mx);
    m_will = std::move(will);
    m_bNewWill = true;
    m_waiter.Wake();
}

void CMqttLinkImpl::Stop(std::optional<MqttMessage> last)
{
    CPlatGuard const lock(m_mx);
    if (!m_bStopped) {
        m_bStopped = true;
        m_last = std::move(last);
    }
    m_cv.notify_all();
    m_waiter.Wake();
}

// ---- The thread

bool CMqttLinkImpl::MustLeave()
{
    CPlatGuard const lock(m_mx);
    return m_bStopped || m_bNewWill;
}

void CMqttLinkImpl::Run()
{
    for (;;) {
        SetTheWill();
        if (Open()) {
            Serve();
        }
        bool bPause = true;
        std::string strWhy;
        {
            CPlatGuard const lock(m_mx);
            m_bConnected = false;
            m_waiting.clear();
            if (m_bStopped) {
                return;
            }
            bPause = !m_bNewWill;
            strWhy = m_strWhy;
        }
        if (bPause) {
            m_events.failed(strWhy);
            Pause();
        }
    }
}

// Begins a connection; whether it comes about shows while it is served.
bool CMqttLinkImpl::Open()
{
    if (!m_strBroken.empty()) {
        Lost(m_strBroken);
        return false;
    }
    m_bOnline = false;
    m_bGreeted = false;
    m_bLeave = false;
    mosquitto *const p = m_pClient.get();
    int const nResult = m_bOpened ? mosquitto_reconnect_async(p)
                                  : mosquitto_connect_async(p, m_settings.strHost.c_str(),
                                                            m_settings.wPort, kKeepAlive);
    m_bOpened = true;
    if (nResult != MOSQ_ERR_SUCCESS) {
        Lost(TextOf(nResult));
    }
    return nResult == MOSQ_ERR_SUCCESS;
}

void CMqttLinkImpl::Lost(std::string const &strWhy)
{
    CPlatGuard const lock(m_mx);
    m_bConnected = false;
    m_strWhy = "no connection to " + m_strPlace + ": " + strWhy;
    if (!m_strLog.empty()) {
        m_strWhy += " (" + m_strLog + ")";
    }
    m_strLog.clear();
}

// Keeps the connection until it breaks or has to be left.
void CMqttLinkImpl::Serve()
{
    auto const tpLimit = Clock::now() + m_settings.limit;
    m_tpTurn = tpLimit;
    while (!m_bLeave && !MustLeave()) {
        int const nResult = Turn(Until(m_tpTurn));
        if (nResult != MOSQ_ERR_SUCCESS) {
            return m_bLeave ? void() : Lost(TextOf(nResult));
        }
        if (m_bOnline) {
            if (!std::exchange(m_bGreeted, true)) {
                m_events.connected();
            }
            m_tpTurn = m_events.turn();
            PublishWaiting();
        } else if (Clock::now() >= tpLimit) {
            return Lost("no answer");
        }
    }
    if (m_bOnline) {
        SayFarewell();
    }
}

// Waits once, and does what can be done then. By poll: the library's own loop cannot have descriptors above
// 1023, which a hub of many devices does.
int CMqttLinkImpl::Turn(milliseconds limit)
{
    mosquitto *const p = m_pClient.get();
    int const nSocket = mosquitto_socket(p);
    if (nSocket == -1) {
        return MOSQ_ERR_CONN_LOST;
    }
    // A broker holds the second of several acknowledgments back until the first has been.
    PlatDescriptorAckAtOnce(nSocket);
    int const nReady =
        m_waiter.Wait(nSocket, kPlatReadable | (mosquitto_want_write(p) ? kPlatWritable : 0),
                      m_bOnline ? limit : std::min(limit, kOpeningTurn));
    int nResult = MOSQ_ERR_SUCCESS;
    // Before the broker has taken us the library does not always say that it wants to write.
    if ((nReady & kPlatWritable) || !m_bOnline) {
        nResult = mosquitto_loop_write(p, 1);
    }
    // Also when there is nothing at the socket: TLS may have it already.
    if (nResult == MOSQ_ERR_SUCCESS) {
        nResult = mosquitto_loop_read(p, 1);
    }
    return nResult == MOSQ_ERR_SUCCESS ? mosquitto_loop_misc(p) : nResult;
}

void CMqttLinkImpl::OnConnect(int nCode)
{
    CPlatGuard const lock(m_mx);
    m_bRefused = nCode != 0;
    if (m_bRefused) {
        m_strWhy = Refusal(nCode);
        m_bLeave = true;
        m_cv.notify_all();
        return;
    }
    m_bConnected = true;
    m_bOnline = true;
    m_pause = kFirstPause;
}

std::string CMqttLinkImpl::Refusal(int nCode) const
{
    constexpr int kBadUser = 4;
    constexpr int kNotAuthorised = 5;
    std::string strWhy = m_strPlace + " refuses the connection: ";
    if (nCode == kBadUser || nCode == kNotAuthorised) {
        return strWhy + (m_settings.strUser.empty()
                             ? "it wants a user and a password"
                             : "user \"" + m_settings.strUser + "\" or the password is not right");
    }
    return strWhy + mosquitto_connack_string(nCode);
}

void CMqttLinkImpl::OnPublished(int nMid)
{
    if (m_nLastMid == nMid) {
        m_nLastMid = 0;
    }
    CPlatGuard const lock(m_mx);
    // As a rule it is the next one.
    auto const it = std::find_if(
        m_flights.begin() + static_cast<std::ptrdiff_t>(m_cTaken), m_flights.end(),
        [&](Flight const &flight) { return flight.eState == eSS_SENT && flight.nMid == nMid; });
    if (it == m_flights.end()) {
        return;
    }
    it->eState = eSS_TAKEN;
    CountTaken();
    // Whoever waits is woken for what it can return with, not for each of hundreds.
    if (m_cTaken == m_flights.size() || m_flights[m_cTaken].eState == eSS_REFUSED) {
        m_cv.notify_all();
    }
}

int CMqttLinkImpl::Publish(MqttMessage const &message, int *pnMid)
{
    return mosquitto_publish(m_pClient.get(), pnMid, message.strTopic.c_str(),
                             static_cast<int>(message.strPayload.size()), message.strPayload.data(),
                             kQos, message.bRetain);
}

void CMqttLinkImpl::PublishWaiting()
{
    std::deque<MqttMessage> waiting;
    {
        CPlatGuard const lock(m_mx);
        waiting.swap(m_waiting);
    }
    for (MqttMessage const &message : waiting) {
        Publish(message, nullptr);
    }
    PublishFlights();
}

// Never under the lock: the library has locks of its own, and holds them when it tells of an acknowledgment. That
// comes by this thread, so not before the numbers are known.
void CMqttLinkImpl::PublishFlights()
{
    std::vector<MqttNamedMessage> waiting;
    {
        CPlatGuard const lock(m_mx);
        for (Flight const &flight : m_flights) {
            if (flight.eState == eSS_WAITING) {
                waiting.push_back(flight.what);
            }
        }
    }
    std::vector<Published> published;
    for (MqttNamedMessage const &message : waiting) {
        int nMid = 0;
        int const nResult = Publish(message.message, &nMid);
        if (nResult == MOSQ_ERR_NOMEM) {
            break;
        }
        published.push_back({message.strId, nResult, nMid});
    }
    NotePublished(published);
}

void CMqttLinkImpl::NotePublished(std::vector<Published> const &published)
{
    CPlatGuard const lock(m_mx);
    auto itFrom = m_flights.begin(); // both are in one order
    for (Published const &one : published) {
        auto const it = std::find_if(itFrom, m_flights.end(), [&](Flight const &flight) {
            return flight.eState == eSS_WAITING && flight.what.strId == one.strId;
        });
        if (it == m_flights.end()) {
            continue; // nobody waits for it any more
        }
        itFrom = it + 1;
        // Anything else is the connection's affair: what the library has taken it sends again by itself.
        bool const bRefused =
            one.nResult == MOSQ_ERR_INVAL || one.nResult == MOSQ_ERR_PAYLOAD_SIZE ||
            one.nResult == MOSQ_ERR_MALFORMED_UTF8 || one.nResult == MOSQ_ERR_OVERSIZE_PACKET;
        it->eState = bRefused ? eSS_REFUSED : eSS_SENT;
        it->nMid = one.nMid;
        if (bRefused) {
            it->strWhy = "the message cannot be published: " + TextOf(one.nResult);
            m_cv.notify_all();
        }
    }
}

// A proper end, behind which the broker keeps the will to itself.
void CMqttLinkImpl::SayFarewell()
{
    PublishWaiting();
    std::optional<MqttMessage> last;
    {
        CPlatGuard const lock(m_mx);
        last.swap(m_last);
    }
    if (last) {
        Publish(*last, &m_nLastMid);
        auto const tpEnd = Clock::now() + kFarewell;
        while (m_nLastMid && Clock::now() < tpEnd && Turn(Until(tpEnd)) == MOSQ_ERR_SUCCESS) {
        }
    }
    mosquitto_disconnect(m_pClient.get());
}

void CMqttLinkImpl::Pause()
{
    auto const tpEnd = Clock::now() + m_pause;
    m_pause = std::min(m_pause * 2, kLongestPause);
    while (!MustLeave() && Clock::now() < tpEnd) {
        m_waiter.Wait(-1, 0, Until(tpEnd));
    }
}

// ---- The public face

CMqttLink::CMqttLink(HubMqttSettings const &settings, std::optional<MqttMessage> will,
                     MqttLinkEvents events)
    : m_pImpl(std::make_unique<CMqttLinkImpl>(settings, std::move(will), std::move(events)))
{
}

CMqttLink::~CMqttLink() = default;

void CMqttLink::Start()
{
    m_pImpl->Start();
}

HubOutcomeType CMqttLink::Send(std::vector<MqttNamedMessage> messages, std::size_t *pcTaken,
                               std::string *pstrWhy)
{
    return m_pImpl->Send(std::move(messages), pcTaken, pstrWhy);
}

void CMqttLink::Post(MqttMessage message)
{
    m_pImpl->Post(std::move(message));
}

void CMqttLink::Subscribe(std::string const &strTopic)
{
    m_pImpl->Subscribe(strTopic);
}

void CMqttLink::SetWill(std::optional<MqttMessage> will)
{
    m_pImpl->SetWill(std::move(will));
}

void CMqttLink::Stop(std::optional<MqttMessage> last)
{
    m_pImpl->Stop(std::move(last));
}
