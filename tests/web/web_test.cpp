#include "web/web_server.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr auto kLimit = 20s;

class WebServer : public testing::Test {
protected:
    WebServer() : server(Config())
    {
        server.Get("/api/value", [this](WebRequest const &request) {
            auto const dw = request.Number("add", 0, 100);
            return dw ? WebReply{200, std::to_string(nValue + *dw)}
                      : WebReply::Error(400, "add takes a number \"up to\" 100");
        });
        server.Post("/api/value/(\\d+)", [this](WebRequest const &request) {
            nValue = static_cast<unsigned>(std::stoi(request.captures[0]));
            return WebReply{200, request.strBody};
        });
        server.Get("/api/breaks",
                   [](WebRequest const &) -> WebReply { throw std::runtime_error("no luck"); });
        server.Stream("/api/events", events, [](WebRequest const &request) {
            auto const dw = request.Number("topic", 0, 9);
            return dw ? std::optional(*dw ? WebTopics{*dw} : WebTopics{}) : std::nullopt;
        });
        server.Page("/", "panel.html");
        std::string strError;
        EXPECT_TRUE(server.Start(&strError)) << strError;
        strHost = "127.0.0.1:" + std::to_string(server.Port());
    }

    static WebConfig Config()
    {
        WebConfig config;
        config.cStreams = 20;
        return config;
    }

    // The status of a request with these headers.
    int Status(char const *pszMethod, std::string const &strPath, httplib::Headers headers,
               std::string const &strBody = "")
    {
        httplib::Client client("127.0.0.1", server.Port());
        httplib::Request request;
        request.method = pszMethod;
        request.path = strPath;
        request.headers = std::move(headers);
        request.body = strBody;
        auto const result = client.send(request);
        return result ? result->status : -1;
    }

    CWebEvents events{4};
    std::atomic<unsigned> nValue{7};
    CWebServer server;
    std::string strHost;
};

// A client that watches until it is destroyed.
class CWatcher {
public:
    CWatcher(WORD wPort, std::string const &strPath, httplib::Headers const &headers = {})
        : m_client("127.0.0.1", wPort)
    {
        m_client.set_read_timeout(kLimit);
        m_thread = std::thread([this, strPath, headers] {
            auto const result = m_client.Get(
                strPath, headers,
                [this](httplib::Response const &response) {
                    Tell([&] { m_nStatus = response.status; });
                    return true;
                },
                [this](char const *p, std::size_t cb) {
                    Tell([&] { m_strText.append(p, cb); });
                    return true;
                });
            Tell([&] { m_fEnded = true; });
        });
    }
    ~CWatcher()
    {
        m_client.stop();
        m_thread.join();
    }

    // Waits for text, which is taken with all before it; what was before it.
    std::string Until(std::string const &strPart)
    {
        std::unique_lock lock(m_mx);
        std::size_t n = 0;
        bool const fCame = m_cv.wait_for(lock, kLimit, [&] {
            n = m_strText.find(strPart);
            return n != std::string::npos || m_fEnded;
        });
        EXPECT_TRUE(fCame && n != std::string::npos) << strPart << " is not in " << m_strText;
        std::string const strBefore = m_strText.substr(0, n);
        m_strText.erase(0, n == std::string::npos ? n : n + strPart.size());
        return strBefore;
    }
    int Status()
    {
        std::unique_lock lock(m_mx);
        m_cv.wait_for(lock, kLimit, [&] { return m_nStatus != 0; });
        return m_nStatus;
    }
    bool WaitForEnd()
    {
        std::unique_lock lock(m_mx);
        return m_cv.wait_for(lock, kLimit, [&] { return m_fEnded; });
    }

private:
    template <class Fn>
    void Tell(Fn fn)
    {
        std::lock_guard const lock(m_mx);
        fn();
        m_cv.notify_all();
    }

    httplib::Client m_client;
    std::mutex m_mx;
    std::condition_variable m_cv;
    std::string m_strText;
    int m_nStatus = 0;
    bool m_fEnded = false;
    std::thread m_thread;
};

} // namespace

TEST_F(WebServer, OnlyItsOwnPagesMayAskAndNothingChangesByLooking)
{
    httplib::Headers const json{{"Content-Type", "application/json"}};
    auto const with = [&](char const *pszName, std::string const &strValue, bool fJson = true) {
        httplib::Headers headers = fJson ? json : httplib::Headers{};
        headers.emplace(pszName, strValue);
        return headers;
    };
    std::string const strPort = strHost.substr(strHost.find(':'));
    struct {
        char const *pszMethod;
        httplib::Headers headers;
        int nStatus;
    } const cases[] = {
        {"POST", with("Host", strHost), 200},
        {"POST", with("Host", "localhost" + strPort), 200},
        {"POST", with("Origin", "http://" + strHost), 200},
        {"POST", with("Host", "foreign.example" + strPort), 421}, // a name that was pointed here
        {"POST", with("Host", "127.0.0.1:1"), 421},
        {"POST", with("Origin", "http://foreign.example"), 403},
        {"POST", with("Origin", "null"), 403},
        {"POST", with("Content-Type", "text/plain", false), 415}, // what a form can send
        {"GET", with("Host", strHost), 404},
        {"PUT", with("Host", strHost), 405},
        {"DELETE", with("Host", strHost), 405},
    };
    unsigned nExpected = 100;
    for (auto const &row : cases) {
        nValue = nExpected;
        EXPECT_EQ(Status(row.pszMethod, "/api/value/5", row.headers, "{}"), row.nStatus)
            << row.pszMethod << " " << &row - cases;
        EXPECT_EQ(nValue, row.nStatus == 200 ? 5u : nExpected);
    }
    EXPECT_EQ(Status("POST", "/api/value/5", json, std::string(70'000, ' ')), 413);
}

TEST_F(WebServer, AnswersInJsonWhateverHappens)
{
    httplib::Client client("127.0.0.1", server.Port());
    struct {
        char const *pszPath;
        int nStatus;
        char const *pszBody;
    } const cases[] = {
        {"/api/value?add=3", 200, "10"},
        {"/api/value?add=101", 400, R"({"error":"add takes a number \"up to\" 100"})"},
        {"/api/value?add=-1", 400, R"({"error":"add takes a number \"up to\" 100"})"},
        {"/api/breaks", 500, R"({"error":"no luck"})"},
        {"/api/none", 404, R"({"error":"no such thing here"})"},
    };
    for (auto const &row : cases) {
        auto const result = client.Get(row.pszPath);
        ASSERT_TRUE(result) << row.pszPath;
        EXPECT_EQ(result->status, row.nStatus);
        EXPECT_EQ(result->body, row.pszBody);
    }
    auto const page = client.Get("/");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->get_header_value("Content-Type"), "text/html; charset=utf-8");
    EXPECT_NE(page->get_header_value("Content-Security-Policy").find("default-src 'self'"),
              std::string::npos);
    EXPECT_TRUE(page->body.starts_with("<!doctype html>"));
}

TEST_F(WebServer, WhoComesBackMissesNothingThatIsKept)
{
    for (char const *psz : {"1", "2", "3"}) {
        events.Add(1, psz);
    }
    events.Add(2, "of another topic");
    std::string const strId = "id: " + events.Run() + "-";
    {
        CWatcher fresh(server.Port(), "/api/events?topic=1&backlog=2");
        EXPECT_EQ(fresh.Until(strId + "2\ndata: 2\n\n").find("data"), std::string::npos);
        fresh.Until(strId + "3\ndata: 3\n\n");
        events.Add(1, "4");
        EXPECT_EQ(fresh.Until(strId + "5\ndata: 4\n\n"), "") << "only its topic";
    }
    CWatcher back(server.Port(), "/api/events?topic=1", {{"Last-Event-ID", events.Run() + "-3"}});
    EXPECT_EQ(back.Until("data: 4\n\n").find("data"), std::string::npos);
    for (char const *psz : {"5", "6", "7", "8"}) {
        events.Add(1, psz); // four are kept
    }
    CWatcher late(server.Port(), "/api/events?topic=1&after=" + events.Run() + "-3");
    EXPECT_NE(late.Until("data: 5").find("event: gap"), std::string::npos);
    CWatcher stranger(server.Port(), "/api/events?after=before-3");
    EXPECT_NE(stranger.Until("data: of another topic").find("event: reset"), std::string::npos);
    EXPECT_EQ(Status("GET", "/api/events?after=x", {}), 400);
    EXPECT_EQ(Status("GET", "/api/events?topic=10", {}), 404);
}

TEST_F(WebServer, StreamsLeaveThreadsForRequestsAndHaveALimit)
{
    std::vector<std::unique_ptr<CWatcher>> watchers;
    for (int i = 0; i < 20; ++i) {
        watchers.push_back(std::make_unique<CWatcher>(server.Port(), "/api/events"));
        ASSERT_EQ(watchers.back()->Status(), 200) << i;
    }
    EXPECT_EQ(Status("GET", "/api/value", {}), 200) << "more streams than threads for requests";
    EXPECT_EQ(Status("GET", "/api/events", {}), 503);
    watchers.pop_back();
    auto const deadline = std::chrono::steady_clock::now() + kLimit;
    std::unique_ptr<CWatcher> pNext;
    do { // that one is gone is noticed when something is sent
        events.Add(1, "tick");
        pNext = std::make_unique<CWatcher>(server.Port(), "/api/events");
    } while (pNext->Status() == 503 && std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(pNext->Status(), 200);
    server.Stop();
    for (auto const &pWatcher : watchers) {
        EXPECT_TRUE(pWatcher->WaitForEnd());
    }
}

TEST_F(WebServer, TwoDoNotShareAPort)
{
    WebConfig config;
    config.wPort = server.Port();
    CWebServer other(config);
    std::string strError;
    EXPECT_FALSE(other.Start(&strError));
    EXPECT_NE(strError.find("cannot listen for pages at " + strHost), std::string::npos)
        << strError;
}
