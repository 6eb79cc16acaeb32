#include "hub/webhook_sink.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

using namespace std::chrono_literals;

namespace {

// A server whose answer's status is the path, with what it got last.
class WebhookSink : public testing::Test {
protected:
    WebhookSink()
    {
        server.Post("/(\\d+)",
                    [this](httplib::Request const &request, httplib::Response &response) {
                        std::lock_guard const lock(mx);
                        ++cRequests;
                        last = request;
                        response.status = std::stoi(request.matches[1]);
                        response.set_header("Retry-After", "1");
                        response.set_content("no\r\nluck", "text/plain");
                    });
        server.Post("/never", [this](auto const &, auto &) {
            asked.set_value();
            ended.get_future().wait_for(30s);
        });
        nPort = server.bind_to_any_port("127.0.0.1");
        thread = std::thread([this] { server.listen_after_bind(); });
    }
    ~WebhookSink() override
    {
        ended.set_value();
        server.stop();
        thread.join();
    }

    HubWebhookSettings Settings(std::string const &strPath) const
    {
        HubWebhookSettings settings;
        settings.strUrl = "http://127.0.0.1:" + std::to_string(nPort) + strPath;
        settings.rgstrHeader = {"Authorization: Bearer secret"};
        return settings;
    }

    httplib::Server server;
    int nPort = 0;
    std::thread thread;
    std::promise<void> asked, ended;
    std::mutex mx; // guards what follows
    int cRequests = 0;
    httplib::Request last;
};

HubEvent Event()
{
    HubEvent event;
    event.strId = "1";
    event.strJson = R"({"id":"1","data":{"text":"Käse"}})";
    return event;
}

} // namespace

TEST_F(WebhookSink, WhatTheAnswerMeans)
{
    constexpr std::pair<int, HubOutcomeType> kCases[] = {
        {200, eHO_TAKEN},   {204, eHO_TAKEN}, {307, eHO_LATER}, {400, eHO_REFUSED},
        {404, eHO_REFUSED}, {408, eHO_LATER}, {425, eHO_LATER}, {429, eHO_LATER},
        {500, eHO_LATER},   {503, eHO_LATER},
    };
    for (auto const &[nStatus, eExpected] : kCases) {
        CWebhookSink sink(Settings("/" + std::to_string(nStatus)));
        std::string strWhy;
        EXPECT_EQ(sink.Deliver(Event(), &strWhy), eExpected) << nStatus;
        EXPECT_EQ(strWhy.empty(), eExpected == eHO_TAKEN) << strWhy;
        EXPECT_EQ(strWhy.find_first_of("\r\n"), std::string::npos) << strWhy;
    }
    std::lock_guard const lock(mx);
    EXPECT_EQ(last.body, Event().strJson);
    EXPECT_TRUE(last.get_header_value("Content-Type").starts_with("application/cloudevents+json"));
    EXPECT_EQ(last.get_header_value("Authorization"), "Bearer secret");
}

TEST_F(WebhookSink, LeavesAServerAloneThatAsksForIt)
{
    CWebhookSink sink(Settings("/503"));
    std::string strWhy;
    auto const tpAsked = std::chrono::steady_clock::now();
    EXPECT_EQ(sink.Deliver(Event(), &strWhy), eHO_LATER);
    int cAnswers = 1;
    while (cAnswers == 1) {
        EXPECT_EQ(sink.Deliver(Event(), &strWhy), eHO_LATER);
        std::lock_guard const lock(mx);
        cAnswers = cRequests;
    }
    EXPECT_GE(std::chrono::steady_clock::now() - tpAsked, 1s);
}

TEST_F(WebhookSink, StopEndsARequest)
{
    CWebhookSink sink(Settings("/never"));
    auto result = std::async(std::launch::async, [&] {
        std::string strWhy;
        return sink.Deliver(Event(), &strWhy);
    });
    asked.get_future().wait();
    sink.Stop();
    ASSERT_EQ(result.wait_for(5s), std::future_status::ready); // the limit is 10 s
    EXPECT_EQ(result.get(), eHO_LATER);
    std::string strWhy;
    EXPECT_EQ(sink.Deliver(Event(), &strWhy), eHO_LATER);
}
