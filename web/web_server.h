#pragma once

// CWebServer: pages, JSON and event streams over HTTP, for people at this machine unless told otherwise.

#include "platform/base.h"
#include "web/web_events.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// Where it listens, and how much it takes.
struct WebConfig {
    std::string strAddress = "127.0.0.1"; ///< dotted address to listen at
    WORD wPort = 0;                       ///< TCP, 0 for any that is free
    std::string strHost;       ///< a name of this host that requests may use, too; empty for none
    std::size_t cStreams = 64; ///< event streams at once; what comes above them gets 503
};

/// A request, as far as it concerns who answers it.
struct WebRequest {
    std::vector<std::string> captures; ///< of the route's pattern, the first group first
    std::string strBody;               ///< of a POST
    /// A value of the query, decoded; nothing if it is not there.
    std::function<std::optional<std::string>(std::string const &)> query;

    /// A number of the query, from 0 to dwMost; dwElse if it is missing. Nothing if it is no such number.
    std::optional<DWORD> Number(std::string const &strName, DWORD dwElse, DWORD dwMost) const;
};

/// What is answered: JSON, or a text of another kind.
struct WebReply {
    int nStatus = 200;
    std::string strJson;                      ///< the whole body
    std::string strType = "application/json"; ///< what it is

    /// A failure in words, as {"error": "..."}.
    static WebReply Error(int nStatus, std::string const &strWhat);
};

class CWebServerImpl;

/// The server. Routes and pages are told before Start; every handler may be called by several threads at once,
/// and an exception in it is answered by 500.
class CWebServer {
public:
    using Handler = std::function<WebReply(WebRequest const &)>;
    /// Which topics a stream carries. Nothing when there are none such, which is answered by 404.
    using TopicsFn = std::function<std::optional<WebTopics>(WebRequest const &)>;

    explicit CWebServer(WebConfig config);
    ~CWebServer(); ///< stops it
    CWebServer(CWebServer const &) = delete;
    CWebServer &operator=(CWebServer const &) = delete;

    /// The file of web/pages that is found at strPath.
    void Page(std::string const &strPath, std::string const &strFile);
    /// The JSON, or other text, at paths that match the whole of the regular expression. A GET must change nothing.
    void Get(std::string const &strPattern, Handler fn);
    /// The same for POST, whose body has to be announced as application/json.
    void Post(std::string const &strPattern, Handler fn);
    /// Event streams (text/event-stream) of these events, which must outlive the server. Each event has the
    /// number RUN-NUMBER. A client that names its last one, in the header Last-Event-ID or as ?after=, gets
    /// what came behind it; one without gets the last ?backlog= events (0) first. What is not kept any more is
    /// announced by an event "gap", another run of the program by "reset"; both carry {}.
    void Stream(std::string const &strPattern, CWebEvents &events, TopicsFn topics);

    /// Begins to listen; once. False with the reason in one line.
    bool Start(std::string *pstrError);
    /// Ends all streams and requests, in about a second. Not from a handler.
    void Stop();
    /// TCP, after Start.
    WORD Port() const;
    /// Where the first page is, for people to read: http://ADDRESS:PORT/
    std::string Url() const;

private:
    std::unique_ptr<CWebServerImpl> m_pImpl;
};
