#include "web/web_server.h"

#include "web/web_pages.h"
#include "web/web_tasks.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstring>

using std::chrono::milliseconds;

namespace {

constexpr std::size_t kMaxBody = 64 * 1024;
constexpr std::size_t kStreamPiece = 200; // events
constexpr milliseconds kHeartbeat{
    10'000};                            // of a silent stream: what lies between must not forget it
constexpr time_t kKeepAliveSeconds = 1; // a connection without a request holds a thread for so long
constexpr time_t kTransferSeconds = 5;  // for the rest of a request, or a client that does not read
constexpr DWORD kMaxBacklog = 5000;

// Nothing but what this server has sent may run or be loaded, and nobody else's page may frame ours.
constexpr char kPolicy[] =
    "default-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

constexpr struct {
    char const *pszEnd;
    char const *pszType;
} kTypes[] = {
    {".html", "text/html; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".svg", "image/svg+xml"},
};

template <class N>
bool ParseNumber(std::string const &str, N *pn)
{
    char const *const pEnd = str.data() + str.size();
    auto const [p, error] = std::from_chars(str.data(), pEnd, *pn);
    return error == std::errc() && p == pEnd;
}

// An address in numbers is safe: a foreign page can point a name of its own at us, but not a number.
bool IsNumericHost(std::string const &str)
{
    return !str.empty() && std::all_of(str.begin(), str.end(), [](char ch) {
        return (ch >= '0' && ch <= '9') || ch == '.';
    });
}

WebPage const *FindPage(std::string const &strFile)
{
    auto const *const pEnd = g_webPages + g_cWebPages;
    auto const *const p = std::find_if(
        g_webPages, pEnd, [&](WebPage const &page) { return strFile == page.pszName; });
    return p == pEnd ? nullptr : p;
}

std::string TypeOf(std::string const &strFile)
{
    for (auto const &row : kTypes) {
        if (strFile.ends_with(row.pszEnd)) {
            return row.pszType;
        }
    }
    return "application/octet-stream";
}

// Two sockets at one port would share the requests between two devices.
void PrepareListener(socket_t s)
{
    int const fOn = 1;
    ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &fOn, sizeof fOn);
}

void Send(httplib::Response &response, WebReply const &reply)
{
    response.status = reply.nStatus;
    response.set_header("Cache-Control", "no-store");
    response.set_content(reply.strJson, reply.strType);
}

WebRequest RequestOf(httplib::Request const &request)
{
    WebRequest result;
    for (std::size_t i = 1; i < request.matches.size(); ++i) {
        result.captures.push_back(request.matches[i].str());
    }
    result.strBody = request.body;
    result.query = [&request](std::string const &strName) -> std::optional<std::string> {
        if (!request.has_param(strName)) {
            return std::nullopt;
        }
        return request.get_param_value(strName);
    };
    return result;
}

} // namespace

std::optional<DWORD> WebRequest::Number(std::string const &strName, DWORD dwElse,
                                        DWORD dwMost) const
{
    std::optional<std::string> const str = query(strName);
    DWORD dw = dwElse;
    if (str && (!ParseNumber(*str, &dw) || dw > dwMost)) {
        return std::nullopt;
    }
    return dw;
}

WebReply WebReply::Error(int nStatus, std::string const &strWhat)
{
    nlohmann::json const json{{"error", strWhat}};
    WebReply reply;
    reply.nStatus = nStatus;
    reply.strJson = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return reply;
}

class CWebServerImpl {
public:
    explicit CWebServerImpl(WebConfig config) : m_config(std::move(config)) { Prepare(); }
    ~CWebServerImpl() { Stop(); }

    void Page(std::string const &strPath, std::string const &strFile);
    void Stream(std::string const &strPattern, CWebEvents &events, CWebServer::TopicsFn topics);
    bool Start(std::string *pstrError);
    void Stop();

    WebConfig const m_config;
    httplib::Server m_server;
    WORD m_wPort = 0;

private:
    // What a stream has sent.
    struct Position {
        std::uint64_t qwAfter = 0;
        bool fReset = false; // to be told that the client's numbers are another run's
    };

    void Prepare();
    bool MayAsk(httplib::Request const &request, httplib::Response &response) const;
    bool IsOurHost(std::string const &strHost) const;
    std::optional<Position> PositionOf(httplib::Request const &request, CWebEvents const &events,
                                       WebTopics const &topics) const;
    void OpenStream(httplib::Request const &request, httplib::Response &response,
                    CWebEvents &events, CWebServer::TopicsFn const &topics);
    static bool Feed(httplib::DataSink &sink, CWebEvents const &events, WebTopics const &topics,
                     Position *pPosition);

    std::atomic<CWebTasks *> m_pTasks{nullptr};
    std::atomic<bool> m_fEnding{false};
    std::atomic<bool> m_fListened{false};
    std::vector<CWebEvents *> m_events;
    std::thread m_thread;
};

void CWebServerImpl::Prepare()
{
    m_server.new_task_queue = [this] {
        CWebTasks::Limits limits;
        limits.cStreams = m_config.cStreams;
        m_pTasks = new CWebTasks(limits);
        return m_pTasks.load();
    };
    m_server.set_socket_options(PrepareListener);
    m_server.set_tcp_nodelay(true);
    m_server.set_keep_alive_timeout(kKeepAliveSeconds);
    m_server.set_read_timeout(kTransferSeconds);
    m_server.set_write_timeout(kTransferSeconds);
    m_server.set_payload_max_length(kMaxBody);
    m_server.set_default_headers({{"Content-Security-Policy", kPolicy},
                                  {"X-Content-Type-Options", "nosniff"},
                                  {"Referrer-Policy", "no-referrer"}});
    m_server.set_pre_routing_handler([this](auto const &request, auto &response) {
        return MayAsk(request, response) ? httplib::Server::HandlerResponse::Unhandled
                                         : httplib::Server::HandlerResponse::Handled;
    });
    m_server.set_exception_handler([](auto const &, auto &response, std::exception_ptr pException) {
        try {
            std::rethrow_exception(pException);
        } catch (std::exception const &error) {
            Send(response, WebReply::Error(500, error.what()));
        } catch (...) {
            Send(response, WebReply::Error(500, "failed"));
        }
    });
    m_server.set_error_handler([](auto const &, auto &response) {
        if (response.body.empty()) {
            Send(response, WebReply::Error(response.status, "no such thing here"));
        }
    });
}

bool CWebServerImpl::IsOurHost(std::string const &strHost) const
{
    std::size_t const nColon = strHost.rfind(':');
    std::string const strName = strHost.substr(0, nColon);
    WORD wPort = 80;
    if (nColon != std::string::npos && !ParseNumber(strHost.substr(nColon + 1), &wPort)) {
        return false;
    }
    bool const fName = strName == "localhost" || IsNumericHost(strName) ||
                       (!m_config.strHost.empty() && strName == m_config.strHost);
    return fName && wPort == m_wPort;
}

bool CWebServerImpl::MayAsk(httplib::Request const &request, httplib::Response &response) const
{
    std::string const strHost = request.get_header_value("Host");
    if (!IsOurHost(strHost)) {
        Send(response, WebReply::Error(421, "this is not the host that the request names"));
        return false;
    }
    std::string const strOrigin = request.get_header_value("Origin");
    if (!strOrigin.empty() && strOrigin != "http://" + strHost) {
        Send(response, WebReply::Error(403, "another site's pages may not ask"));
        return false;
    }
    bool const fReads = request.method == "GET" || request.method == "HEAD";
    if (!fReads && request.method != "POST") {
        Send(response, WebReply::Error(405, "GET and POST are understood"));
        return false;
    }
    if (!fReads && !request.get_header_value("Content-Type").starts_with("application/json")) {
        Send(response, WebReply::Error(415, "the body has to be application/json"));
        return false;
    }
    return true;
}

void CWebServerImpl::Page(std::string const &strPath, std::string const &strFile)
{
    WebPage const *const pPage = FindPage(strFile);
    if (!pPage) {
        throw std::logic_error("no page " + strFile);
    }
    m_server.Get(strPath, [pPage, strType = TypeOf(strFile)](auto const &, auto &response) {
        response.set_header("Cache-Control", "no-cache");
        response.set_content(reinterpret_cast<char const *>(pPage->pData), pPage->cb, strType);
    });
}

// Where the client left off. Nothing if what it says makes no sense.
std::optional<CWebServerImpl::Position> CWebServerImpl::PositionOf(httplib::Request const &request,
                                                                   CWebEvents const &events,
                                                                   WebTopics const &topics) const
{
    std::string strLast = request.get_header_value("Last-Event-ID");
    if (strLast.empty() && request.has_param("after")) {
        strLast = request.get_param_value("after");
    }
    if (strLast.empty()) {
        auto const dwBacklog = RequestOf(request).Number("backlog", 0, kMaxBacklog);
        if (!dwBacklog) {
            return std::nullopt;
        }
        return Position{*dwBacklog ? events.Before(topics, *dwBacklog) : events.Last(), false};
    }
    std::size_t const nDash = strLast.find('-');
    Position position;
    if (nDash == std::string::npos || !ParseNumber(strLast.substr(nDash + 1), &position.qwAfter)) {
        return std::nullopt;
    }
    if (strLast.substr(0, nDash) != events.Run()) {
        return Position{0, true};
    }
    return position;
}

// Sends what is there, or a sign of life. False when the stream is at its end.
bool CWebServerImpl::Feed(httplib::DataSink &sink, CWebEvents const &events,
                          WebTopics const &topics, Position *pPosition)
{
    std::string strOut;
    if (pPosition->fReset) {
        strOut = "event: reset\ndata: {}\n\n";
        pPosition->fReset = false;
    }
    WebEventBatch const batch = events.Read(topics, pPosition->qwAfter, kStreamPiece,
                                            strOut.empty() ? kHeartbeat : milliseconds(0));
    if (batch.fClosed && batch.events.empty()) {
        return false;
    }
    if (batch.fGap) {
        strOut += "event: gap\ndata: {}\n\n";
    }
    for (WebEvent const &event : batch.events) {
        strOut += "id: " + events.Run() + "-" + std::to_string(event.qwId) +
                  "\ndata: " + event.strJson + "\n\n";
        pPosition->qwAfter = event.qwId;
    }
    if (strOut.empty()) {
        strOut = ": still here\n\n";
    }
    return sink.write(strOut.data(), strOut.size());
}

void CWebServerImpl::OpenStream(httplib::Request const &request, httplib::Response &response,
                                CWebEvents &events, CWebServer::TopicsFn const &topicsOf)
{
    std::optional<WebTopics> const topics = topicsOf(RequestOf(request));
    if (!topics) {
        return Send(response, WebReply::Error(404, "no such thing to watch"));
    }
    std::optional<Position> const position = PositionOf(request, events, *topics);
    if (!position) {
        return Send(response, WebReply::Error(400, "after is no event's number"));
    }
    std::shared_ptr<void> const pTicket = m_pTasks.load()->BeginStream();
    if (!pTicket) {
        response.set_header("Retry-After", "5");
        return Send(response, WebReply::Error(503, "too many pages watch already"));
    }
    response.set_header("Cache-Control", "no-store");
    response.set_chunked_content_provider(
        "text/event-stream", [this, &events, pTicket, topics = *topics, fBegun = false,
                              place = *position](std::size_t, httplib::DataSink &sink) mutable {
            // At once, so that the client knows the stream is open, however quiet the device.
            if (!fBegun) {
                fBegun = true;
                constexpr char kHello[] = "retry: 1000\n\n";
                return sink.write(kHello, sizeof kHello - 1);
            }
            if (m_fEnding || !Feed(sink, events, topics, &place)) {
                sink.done();
                return !m_fEnding.load();
            }
            return true;
        });
}

void CWebServerImpl::Stream(std::string const &strPattern, CWebEvents &events,
                            CWebServer::TopicsFn topics)
{
    m_events.push_back(&events);
    m_server.Get(strPattern,
                 [this, &events, topics = std::move(topics)](auto const &request, auto &response) {
                     OpenStream(request, response, events, topics);
                 });
}

bool CWebServerImpl::Start(std::string *pstrError)
{
    std::string const strPlace = m_config.strAddress + ":" + std::to_string(m_config.wPort);
    int nPort = m_config.wPort;
    bool const fBound = nPort ? m_server.bind_to_port(m_config.strAddress, nPort)
                              : (nPort = m_server.bind_to_any_port(m_config.strAddress)) > 0;
    if (!fBound) {
        *pstrError = "cannot listen for pages at " + strPlace + ": " + std::strerror(errno);
        return false;
    }
    m_wPort = static_cast<WORD>(nPort);
    m_thread = std::thread([this] {
        m_server.listen_after_bind();
        m_fListened = true;
    });
    // Before that, a Stop would be forgotten.
    while (!m_server.is_running() && !m_fListened) {
        std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
}

void CWebServerImpl::Stop()
{
    m_fEnding = true;
    for (CWebEvents *const pEvents : m_events) {
        pEvents->Close();
    }
    if (m_thread.joinable()) {
        m_server.stop();
        m_thread.join();
    }
}

// ---- The public face

CWebServer::CWebServer(WebConfig config)
    : m_pImpl(std::make_unique<CWebServerImpl>(std::move(config)))
{
}

CWebServer::~CWebServer() = default;

void CWebServer::Page(std::string const &strPath, std::string const &strFile)
{
    m_pImpl->Page(strPath, strFile);
}

void CWebServer::Get(std::string const &strPattern, Handler fn)
{
    m_pImpl->m_server.Get(strPattern, [fn = std::move(fn)](auto const &request, auto &response) {
        Send(response, fn(RequestOf(request)));
    });
}

void CWebServer::Post(std::string const &strPattern, Handler fn)
{
    m_pImpl->m_server.Post(strPattern, [fn = std::move(fn)](auto const &request, auto &response) {
        Send(response, fn(RequestOf(request)));
    });
}

void CWebServer::Stream(std::string const &strPattern, CWebEvents &events, TopicsFn topics)
{
    m_pImpl->Stream(strPattern, events, std::move(topics));
}

bool CWebServer::Start(std::string *pstrError)
{
    return m_pImpl->Start(pstrError);
}

void CWebServer::Stop()
{
    m_pImpl->Stop();
}

WORD CWebServer::Port() const
{
    return m_pImpl->m_wPort;
}

std::string CWebServer::Url() const
{
    std::string const &strAddress = m_pImpl->m_config.strAddress;
    return "http://" + (strAddress == "0.0.0.0" ? std::string("127.0.0.1") : strAddress) + ":" +
           std::to_string(Port()) + "/";
}
