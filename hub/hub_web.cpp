#include "hub/hub_web.h"

#include "session/event_text.h"
#include "web/web_server.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

constexpr std::chrono::milliseconds kLook{300}; // how long an event may be in the journal unseen
constexpr std::size_t kKept = 2000;             // events for those who come back
constexpr std::size_t kAtOnce = 500;            // events out of the journal
constexpr DWORD kMostRows = 1000;
constexpr DWORD kRows = 50;
constexpr unsigned kAll = 1; // the one topic

WebConfig ConfigOf(HubListenSettings const &settings)
{
    WebConfig config;
    config.strAddress = settings.strAddress;
    config.wPort = settings.wPort;
    return config;
}

WebReply Reply(Json const &json)
{
    return {200, json.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

Json TimeOrNull(std::optional<std::chrono::system_clock::time_point> const &time)
{
    return time ? Json(TimeText(*time)) : Json();
}

std::string Lower(std::string str)
{
    std::transform(str.begin(), str.end(), str.begin(), [](char ch) {
        return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
    });
    return str;
}

Json DeviceJson(HubDeviceStatus const &device)
{
    std::uint64_t cEvents = 0;
    for (auto const &[strType, c] : device.events) {
        cEvents += c;
    }
    return {{"name", device.state.strDevice},
            {"address", device.state.strAddress},
            {"model", device.state.strModel},
            {"state", device.state.strState},
            {"up", device.state.bAvailable},
            {"since", TimeText(device.tpSince)},
            {"reason", device.strReason},
            {"events", cEvents},
            {"lastEvent", TimeOrNull(device.lastEvent)}};
}

// Whether one of the texts that the list shows holds it, in any case.
bool Shows(HubDeviceStatus const &device, std::string const &strFilter)
{
    return Lower(device.state.strDevice + "\n" + device.state.strAddress + "\n" +
                 device.state.strModel + "\n" + device.state.strState + "\n" + device.strReason)
               .find(strFilter) != std::string::npos;
}

Json SinkJson(HubSinkStatus const &sink)
{
    return {{"name", sink.strName},
            {"kind", sink.strKind},
            {"waiting", sink.cWaiting},
            {"oldestSeconds", sink.oldest.count()},
            {"delivered", sink.cDelivered},
            {"retries", sink.cRetries},
            {"givenUp", sink.cGivenUp},
            {"problem", sink.strProblem},
            {"lastDelivered", TimeOrNull(sink.lastDelivered)}};
}

Json EventJsonOf(HubEvent const &event)
{
    return {{"place", event.dwPlace},
            {"event", Json::parse(event.strJson, nullptr, /*allow_exceptions=*/false)}};
}

// A place in the journal; dwElse if it is missing. Nothing if it is no number.
std::optional<std::uint64_t> PlaceOf(WebRequest const &request, char const *pszName,
                                     std::uint64_t dwElse)
{
    auto const str = request.query(pszName);
    if (!str) {
        return dwElse;
    }
    char const *const pEnd = str->data() + str->size();
    auto const [p, error] = std::from_chars(str->data(), pEnd, dwElse);
    bool const bGood = error == std::errc() && p == pEnd && !str->empty();
    return bGood ? std::optional(dwElse) : std::nullopt;
}

} // namespace

CHubWeb::CHubWeb(HubListenSettings const &settings, std::string strJournal, CHub &hub)
    : m_hub(hub), m_strJournal(std::move(strJournal)), m_events(kKept),
      m_pServer(std::make_unique<CWebServer>(ConfigOf(settings)))
{
    m_pServer->Page("/", "hub.html");
    for (char const *const pszFile : {"hub.js", "style.css", "icon.svg"}) {
        m_pServer->Page(std::string("/") + pszFile, pszFile);
    }
    m_pServer->Get("/api/status", [this](WebRequest const &) { return Status(); });
    m_pServer->Get("/api/devices", [this](WebRequest const &request) { return Devices(request); });
    m_pServer->Get("/api/events", [this](WebRequest const &request) { return Events(request); });
    m_pServer->Stream("/api/live", m_events,
                      [](WebRequest const &) { return std::optional(WebTopics{kAll}); });
}

CHubWeb::~CHubWeb()
{
    {
        CPlatGuard const lock(m_mutex);
        m_bEnding = true;
    }
    m_cv.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    m_pServer->Stop();
}

bool CHubWeb::Start(std::string *pstrError)
{
    m_pJournal = CJournal::Look(m_strJournal, pstrError);
    if (!m_pJournal || !m_pServer->Start(pstrError)) {
        return false;
    }
    m_thread = std::thread([this] { Watch(); });
    return true;
}

std::string CHubWeb::Url() const
{
    return m_pServer->Url();
}

WebReply CHubWeb::Status()
{
    HubStatus const status = m_hub.Status();
    Json sinks = Json::array();
    for (HubSinkStatus const &sink : status.sinks) {
        sinks.push_back(SinkJson(sink));
    }
    auto const cUp = std::count_if(status.devices.begin(), status.devices.end(),
                                   [](auto const &device) { return device.state.bAvailable; });
    HubJournalStatus const &journal = status.journal;
    return Reply({{"site", status.strSite},
                  {"hub", status.strHub},
                  {"active", status.bActive},
                  {"started", TimeText(status.tpStarted)},
                  {"devices", {{"total", status.devices.size()}, {"up", cUp}}},
                  {"journal",
                   {{"last", journal.dwLast},
                    {"written", journal.cWritten},
                    {"waiting", journal.cWaiting},
                    {"dropped", journal.cDropped},
                    {"bytes", journal.cbSize},
                    {"problem", journal.strProblem}}},
                  {"sinks", std::move(sinks)}});
}

WebReply CHubWeb::Devices(WebRequest const &request)
{
    auto const offset = request.Number("offset", 0, 1'000'000);
    auto const limit = request.Number("limit", kRows, kMostRows);
    if (!offset || !limit) {
        return WebReply::Error(400, "offset and limit are numbers, limit 1000 at most");
    }
    std::string const strFilter = Lower(request.query("filter").value_or(""));
    HubStatus const status = m_hub.Status();
    Json rows = Json::array();
    std::size_t cMatching = 0;
    for (HubDeviceStatus const &device : status.devices) {
        if (!Shows(device, strFilter)) {
            continue;
        }
        if (cMatching >= *offset && rows.size() < *limit) {
            rows.push_back(DeviceJson(device));
        }
        ++cMatching;
    }
    return Reply({{"total", status.devices.size()}, {"matching", cMatching}, {"devices", rows}});
}

WebReply CHubWeb::Events(WebRequest const &request)
{
    JournalQuery query;
    auto const before = PlaceOf(request, "before", query.dwBefore);
    auto const limit = request.Number("limit", kRows, kMostRows);
    if (!before || !limit) {
        return WebReply::Error(400, "before and limit are numbers, limit 1000 at most");
    }
    query.dwBefore = *before;
    query.cMost = *limit + std::size_t{1}; // one more tells whether there are more
    query.bNewestFirst = true;
    query.strDevice = request.query("device").value_or("");
    query.strType = request.query("type").value_or("");
    query.strText = request.query("text").value_or("");
    std::vector<HubEvent> events;
    std::string strError;
    if (!m_pJournal->Read(query, &events, &strError)) {
        return WebReply::Error(503, strError);
    }
    bool const bMore = events.size() > *limit;
    Json rows = Json::array();
    for (std::size_t i = 0; i < std::min<std::size_t>(events.size(), *limit); ++i) {
        rows.push_back(EventJsonOf(events[i]));
    }
    return Reply({{"more", bMore}, {"events", std::move(rows)}});
}

// False at the end.
bool CHubWeb::Pause()
{
    CPlatWaitGuard lock(m_mutex);
    auto const tpEnd = std::chrono::steady_clock::now() + kLook;
    while (!m_bEnding && m_cv.wait_until(lock.Native(), tpEnd) != std::cv_status::timeout) {
    }
    return !m_bEnding;
}

void CHubWeb::Watch()
{
    JournalQuery query;
    query.dwAfter = m_hub.Status().journal.dwLast;
    query.cMost = kAtOnce;
    while (Pause()) {
        std::vector<HubEvent> events;
        std::string strError; // the journal's problem is in the status
        static_cast<void>(m_hub.Search(query, &events, &strError));
        for (HubEvent const &event : events) {
            m_events.Add(kAll,
                         EventJsonOf(event).dump(-1, ' ', false, Json::error_handler_t::replace));
            query.dwAfter = event.dwPlace;
        }
    }
}
