#include "device/discovery_job.h"
#include "devlink/link_protocol.h"
#include "tools/mfpsim_web.h"
#include "web/web_server.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kKeptEvents = 200'000; // of all devices together
constexpr std::size_t kMostKept = 5000;      // of one device
constexpr std::size_t kLeastKept = 200;      // of one among many
constexpr std::size_t kShownBytes = 512;     // of a frame's payload
constexpr DWORD kMostRows = 1000;            // of devices or events in one answer
constexpr DWORD kRows = 50;
constexpr char kDevicePath[] = "/api/devices/(\\d{1,6})";

// What clients wrote need not be UTF-8.
std::string Dump(Json const &json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

WebReply Reply(Json const &json)
{
    return {200, Dump(json)};
}

std::string TimeText(std::chrono::system_clock::time_point time)
{
    auto const ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() %
        1000;
    auto const day = std::chrono::floor<std::chrono::days>(time);
    std::chrono::year_month_day const date(day);
    auto const ofDay =
        static_cast<unsigned>(std::chrono::duration_cast<std::chrono::seconds>(time - day).count());
    char sz[40];
    std::snprintf(sz, sizeof sz, "%04d-%02u-%02uT%02u:%02u:%02u.%03uZ",
                  static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                  static_cast<unsigned>(date.day()), ofDay / 3600, ofDay / 60 % 60, ofDay % 60,
                  static_cast<unsigned>(ms));
    return sz;
}

std::string Hex(LinkBytes const &bytes)
{
    static char const s_szDigits[] = "0123456789abcdef";
    std::string str;
    for (std::size_t i = 0; i < std::min(bytes.size(), kShownBytes); ++i) {
        str += s_szDigits[bytes[i] >> 4];
        str += s_szDigits[bytes[i] & 15];
    }
    return str;
}

std::string Lower(std::string str)
{
    std::transform(str.begin(), str.end(), str.begin(), [](char ch) {
        return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
    });
    return str;
}

// What a client's user wrote, without the clauses that the agent put behind it.
std::string OwnText(std::string const &strOption)
{
    std::size_t nEnd = strOption.find(";NETADDR=");
    std::string str = strOption.substr(0, nEnd);
    while (!str.empty() && str.back() == ';') {
        str.pop_back();
    }
    return str;
}

// The object that a request is about, if it is about one.
char const *ObjectOf(LinkFrame const &frame)
{
    if (frame.kind < eLK_GET || frame.kind > eLK_UNTRAP) {
        return nullptr;
    }
    CLinkReader reader(frame.payload);
    int const nRow = FindDeviceObject(reader.Bytes8());
    return nRow < 0 ? nullptr : g_deviceObjects[nRow].pszName;
}

Json HabitsJson(DeviceHabits const &habits)
{
    return {{"drop", habits.kicks.cDrop},
            {"repeat", habits.kicks.cRepeat},
            {"reorder", habits.kicks.cReorder},
            {"loseEcho", habits.kicks.cLoseEcho},
            {"refuseClaim", habits.cRefuseClaims},
            {"garble", habits.cGarble},
            {"late", habits.dwLateMs},
            {"mute", habits.fMute}};
}

Json EntriesJson(std::vector<PanelEntry> const &panel)
{
    Json list = Json::array();
    for (PanelEntry const &entry : panel) {
        Json json{{"id", entry.dwId},
                  {"number", list.size() + 1},
                  {"text", OwnText(entry.strText)},
                  {"option", entry.strText},
                  {"link", entry.owner}};
        std::string strTarget;
        if (entry.fNetwork && FindClause(entry.strText, "NETADDR=", &strTarget)) {
            json["target"] = strTarget;
        }
        list.push_back(std::move(json));
    }
    return list;
}

Json LinksJson(std::vector<LinkStatus> const &links)
{
    Json list = Json::array();
    for (LinkStatus const &link : links) {
        list.push_back({{"id", link.id},
                        {"kind", link.fNetwork ? "network" : "local"},
                        {"address", link.strAddress},
                        {"entries", link.cEntries},
                        {"objects", link.objects}});
    }
    return list;
}

} // namespace

// Threads: events come from the devices' threads under their locks, requests from the server's. m_mxPress is a
// leaf; CWebEvents has a leaf of its own.
class CSimWebImpl {
public:
    explicit CSimWebImpl(std::size_t cDevices)
        : m_events(
              std::clamp(kKeptEvents / std::max<std::size_t>(cDevices, 1), kLeastKept, kMostKept)),
          m_claimers(cDevices)
    {
    }

    void Event(std::size_t nDevice, DeviceEvent const &event);
    void Frame(std::size_t nDevice, DeviceFrame const &frame);
    bool Start(CSimulation &simulation, std::string const &strPlace, std::string *pstrError);
    void Stop() { m_pServer.reset(); }
    std::string Url() const { return m_pServer->Url(); }

private:
    // A device of the path, counted from 1; 0 if there is none such.
    std::size_t DeviceOf(WebRequest const &request) const;
    Json Begin(std::size_t nDevice, char const *pszKind) const;
    Json StateJson(std::size_t nDevice);
    Json SummaryJson(std::size_t nDevice);
    WebReply ListDevices(WebRequest const &request);
    WebReply ListEvents(std::size_t nDevice, WebRequest const &request);
    WebReply Pick(std::size_t nDevice, WebRequest const &request);
    WebReply Command(std::string const &strDevice, WebRequest const &request);
    std::optional<WebTopics> TopicsOf(WebRequest const &request) const;
    void AddRoutes(CWebServer &server);

    std::chrono::steady_clock::time_point const m_start = std::chrono::steady_clock::now();
    CWebEvents m_events;
    std::vector<std::atomic<ClientId>>
        m_claimers; // of the last press, also when the token is free again
    CSimulation *m_pSimulation = nullptr;
    std::unique_ptr<CWebServer> m_pServer; // last: it uses all above
};

// ---- What happens

Json CSimWebImpl::Begin(std::size_t nDevice, char const *pszKind) const
{
    std::chrono::duration<double, std::milli> const since =
        std::chrono::steady_clock::now() - m_start;
    return {{"device", nDevice},
            {"kind", pszKind},
            {"t", std::round(since.count() * 1000) / 1000},
            {"at", TimeText(std::chrono::system_clock::now())}};
}

void CSimWebImpl::Event(std::size_t nDevice, DeviceEvent const &event)
{
    Json json = Begin(nDevice, DeviceEventName(event.eKind));
    ClientId link = 0;
    for (DeviceEventField const &field : event.fields) {
        std::visit([&](auto const &value) { json[field.pszName] = value; }, field.value);
        if (field.pszName == std::string_view("link")) {
            link = static_cast<ClientId>(std::get<std::uint64_t>(field.value));
        }
    }
    if (event.eKind == eEV_BUTTON || event.eKind == eEV_PRESS_CLAIMED) {
        m_claimers[nDevice - 1] = link;
    }
    m_events.Add(static_cast<unsigned>(nDevice), Dump(json));
}

void CSimWebImpl::Frame(std::size_t nDevice, DeviceFrame const &frame)
{
    static char const *const s_fates[] = {"", "late", "not sent", "made senseless"};
    Json json = Begin(nDevice, frame.fFromClient ? "frame-in" : "frame-out");
    json["link"] = frame.dwLink;
    json["frame"] = frame.frame.kind;
    json["number"] = frame.frame.dwNumber;
    if (char const *const pszObject = ObjectOf(frame.frame)) {
        json["object"] = pszObject;
    }
    if ((frame.frame.kind & kLinkAnswerBit) != 0) {
        CLinkReader reader(frame.frame.payload);
        json["result"] = reader.Word32();
    }
    if (frame.eFate != eFF_SENT) {
        json["fate"] = s_fates[frame.eFate];
    }
    json["size"] = frame.frame.payload.size();
    json["bytes"] = Hex(frame.frame.payload);
    m_events.Add(static_cast<unsigned>(nDevice), Dump(json));
}

// ---- What is

Json CSimWebImpl::StateJson(std::size_t nDevice)
{
    CSoftDevice &device = m_pSimulation->Device(nDevice);
    DeviceStatus const status = device.Status();
    ClientId const claimer = m_claimers[nDevice - 1];
    char const *const pszPress = status.fPressWaits ? "waiting" : claimer ? "claimed" : "none";
    return {{"number", nDevice},
            {"model", device.Config().strModel},
            {"serial", device.Config().strSerial},
            {"address", device.Config().strListen + ":" + std::to_string(device.Port())},
            {"entries", EntriesJson(device.Panel())},
            {"links", LinksJson(status.links)},
            {"feeder", status.fFeeder},
            {"fax", status.fFax},
            {"press", {{"state", pszPress}, {"link", claimer}, {"held", status.tokenHolder != 0}}},
            {"cutMs", status.dwCutMs},
            {"waiting", status.kicks.size()},
            {"habits", HabitsJson(status.habits)}};
}

Json CSimWebImpl::SummaryJson(std::size_t nDevice)
{
    CSoftDevice &device = m_pSimulation->Device(nDevice);
    DeviceStatus const status = device.Status();
    std::size_t cEntries = 0;
    for (LinkStatus const &link : status.links) {
        cEntries += link.cEntries;
    }
    Json states = Json::array();
    auto const add = [&](bool fIs, char const *pszState) {
        if (fIs) {
            states.push_back(pszState);
        }
    };
    add(status.dwCutMs > 0, "cut");
    add(status.fFeeder, "paper");
    add(status.fPressWaits, "pressed");
    add(status.tokenHolder != 0, "claimed");
    add(status.fFax, "fax");
    add(!status.kicks.empty(), "sending");
    add(status.habits.fMute, "mute");
    return {{"number", nDevice},
            {"model", device.Config().strModel},
            {"serial", device.Config().strSerial},
            {"address", device.Config().strListen + ":" + std::to_string(device.Port())},
            {"links", status.links.size()},
            {"entries", cEntries},
            {"states", std::move(states)}};
}

WebReply CSimWebImpl::ListDevices(WebRequest const &request)
{
    auto const offset = request.Number("offset", 0, 1'000'000);
    auto const limit = request.Number("limit", kRows, kMostRows);
    if (!offset || !limit) {
        return WebReply::Error(400, "offset and limit are numbers, limit up to 1000");
    }
    std::string const strFilter = Lower(request.query("filter").value_or(""));
    Json list = Json::array();
    std::size_t cMatching = 0;
    std::size_t cLinks = 0;
    for (std::size_t n = 1; n <= m_pSimulation->Count(); ++n) {
        Json json = SummaryJson(n);
        cLinks += json["links"].get<std::size_t>();
        std::string strText;
        for (char const *pszKey : {"model", "serial", "address"}) {
            strText += json[pszKey].get<std::string>() + " ";
        }
        for (auto const &state : json["states"]) {
            strText += state.get<std::string>() + " ";
        }
        if (Lower(strText).find(strFilter) == std::string::npos) {
            continue;
        }
        if (cMatching++ >= *offset && list.size() < *limit) {
            list.push_back(std::move(json));
        }
    }
    return Reply({{"total", m_pSimulation->Count()},
                  {"links", cLinks},
                  {"matching", cMatching},
                  {"devices", std::move(list)}});
}

WebReply CSimWebImpl::ListEvents(std::size_t nDevice, WebRequest const &request)
{
    auto const limit = request.Number("limit", kRows, kMostKept);
    if (!limit) {
        return WebReply::Error(400, "limit is a number up to " + std::to_string(kMostKept));
    }
    WebTopics const topics{static_cast<unsigned>(nDevice)};
    std::string const strRun = m_events.Run() + "-";
    std::uint64_t qwAfter = *limit ? m_events.Before(topics, *limit) : m_events.Last();
    // In the pieces that the events are kept in, so that none is taken apart and put together again.
    std::string strList;
    for (WebEvent const &event :
         m_events.Read(topics, qwAfter, *limit, std::chrono::milliseconds(0)).events) {
        qwAfter = event.qwId;
        strList += (strList.empty() ? "" : ",") +
                   event.strJson.substr(0, event.strJson.size() - 1) + ",\"id\":\"" + strRun +
                   std::to_string(event.qwId) + "\"}";
    }
    return {200,
            "{\"last\":\"" + strRun + std::to_string(qwAfter) + "\",\"events\":[" + strList + "]}"};
}

// ---- What one does

WebReply CSimWebImpl::Pick(std::size_t nDevice, WebRequest const &request)
{
    Json const body = Json::parse(request.strBody, nullptr, false);
    if (!body.is_object() || !body.contains("entry") || !body["entry"].is_number_unsigned()) {
        return WebReply::Error(400, "the body has to be {\"entry\": ID}");
    }
    std::string strError;
    if (!m_pSimulation->Device(nDevice).PickId(body["entry"].get<DWORD>(), &strError)) {
        return WebReply::Error(409, strError);
    }
    return Reply({{"done", 1}, {"of", 1}, {"lines", Json::array()}});
}

WebReply CSimWebImpl::Command(std::string const &strDevice, WebRequest const &request)
{
    Json const body = Json::parse(request.strBody, nullptr, false);
    if (!body.is_object() || !body.contains("command") || !body["command"].is_string()) {
        return WebReply::Error(400, "the body has to be {\"command\": \"...\"}");
    }
    std::string const strCommand = body["command"].get<std::string>();
    if (strCommand.find_first_of("\r\n") != std::string::npos) {
        return WebReply::Error(400, "one command at a time");
    }
    CCommandSession session(*m_pSimulation);
    CommandResult const result = session.Execute(strDevice + " " + strCommand);
    if (!result.fDone) {
        return WebReply::Error(409, result.strError);
    }
    if (result.fQuit) {
        m_pSimulation->Quit();
    }
    return Reply({{"done", result.cDone}, {"of", result.cOf}, {"lines", result.lines}});
}

// ---- The server

std::size_t CSimWebImpl::DeviceOf(WebRequest const &request) const
{
    std::size_t const n = std::stoul(request.captures[0]);
    return n <= m_pSimulation->Count() ? n : 0;
}

// ?devices=1,5,7; without it all.
std::optional<WebTopics> CSimWebImpl::TopicsOf(WebRequest const &request) const
{
    std::string const strList = request.query("devices").value_or("");
    WebTopics topics;
    char const *p = strList.data();
    char const *const pEnd = p + strList.size();
    while (p != pEnd) {
        unsigned n = 0;
        auto const [pNext, error] = std::from_chars(p, pEnd, n);
        if (error != std::errc() || n == 0 || n > m_pSimulation->Count() ||
            (pNext != pEnd && (*pNext != ',' || pNext + 1 == pEnd))) {
            return std::nullopt;
        }
        topics.insert(n);
        p = pNext == pEnd ? pEnd : pNext + 1;
    }
    return topics;
}

void CSimWebImpl::AddRoutes(CWebServer &server)
{
    server.Page("/", m_pSimulation->Count() == 1 ? "panel.html" : "fleet.html");
    server.Page("/panel", "panel.html");
    server.Page("/devices", "fleet.html");
    for (char const *pszFile :
         {"style.css", "panel.js", "fleet.js", "events.js", "way.js", "stream.js", "icon.svg"}) {
        server.Page(std::string("/") + pszFile, pszFile);
    }
    auto const ofDevice = [this](auto pfn) {
        return [this, pfn](WebRequest const &request) {
            std::size_t const n = DeviceOf(request);
            return n == 0 ? WebReply::Error(404, "there is no such device")
                          : (this->*pfn)(n, request);
        };
    };
    server.Get("/api/devices", [this](auto const &request) { return ListDevices(request); });
    server.Get(kDevicePath, [this](auto const &request) {
        std::size_t const n = DeviceOf(request);
        return n == 0 ? WebReply::Error(404, "there is no such device") : Reply(StateJson(n));
    });
    server.Get(std::string(kDevicePath) + "/events", ofDevice(&CSimWebImpl::ListEvents));
    server.Post(std::string(kDevicePath) + "/pick", ofDevice(&CSimWebImpl::Pick));
    server.Post("/api/devices/(\\d{1,6}|all)/commands",
                [this](auto const &request) { return Command(request.captures[0], request); });
    server.Stream("/api/events", m_events,
                  [this](auto const &request) { return TopicsOf(request); });
}

bool CSimWebImpl::Start(CSimulation &simulation, std::string const &strPlace,
                        std::string *pstrError)
{
    WebConfig config;
    std::size_t const nColon = strPlace.rfind(':');
    std::string const strPort =
        nColon == std::string::npos ? strPlace : strPlace.substr(nColon + 1);
    auto const [p, error] =
        std::from_chars(strPort.data(), strPort.data() + strPort.size(), config.wPort);
    DWORD dwHost = 0;
    if (nColon != std::string::npos) {
        config.strAddress = strPlace.substr(0, nColon);
    }
    if (error != std::errc() || p != strPort.data() + strPort.size() ||
        !ParseDottedAddress(config.strAddress, &dwHost)) {
        *pstrError = "--web takes PORT or a.b.c.d:PORT, not " + strPlace;
        return false;
    }
    m_pSimulation = &simulation;
    m_pServer = std::make_unique<CWebServer>(config);
    AddRoutes(*m_pServer);
    return m_pServer->Start(pstrError);
}

// ---- The public face

CSimWeb::CSimWeb(std::size_t cDevices) : m_pImpl(std::make_unique<CSimWebImpl>(cDevices)) {}

CSimWeb::~CSimWeb() = default;

void CSimWeb::Event(std::size_t nDevice, DeviceEvent const &event)
{
    m_pImpl->Event(nDevice, event);
}

void CSimWeb::Frame(std::size_t nDevice, DeviceFrame const &frame)
{
    m_pImpl->Frame(nDevice, frame);
}

bool CSimWeb::Start(CSimulation &simulation, std::string const &strPlace, std::string *pstrError)
{
    return m_pImpl->Start(simulation, strPlace, pstrError);
}

void CSimWeb::Stop()
{
    m_pImpl->Stop();
}

std::string CSimWeb::Url() const
{
    return m_pImpl->Url();
}
