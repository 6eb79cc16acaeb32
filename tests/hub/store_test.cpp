// The journal and what runs a sink on it.
#include "hub/envelope.h"
#include "hub/sink_runner.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

using namespace std::chrono_literals;
using std::chrono::system_clock;

namespace {

namespace fs = std::filesystem;

// Waits for what another thread does.
bool WaitFor(std::function<bool()> const &fn)
{
    auto const tpEnd = std::chrono::steady_clock::now() + 30s;
    while (!fn() && std::chrono::steady_clock::now() < tpEnd) {
        std::this_thread::sleep_for(5ms);
    }
    return fn();
}

// What a scripted sink did, and what it is to do.
struct Script {
    std::mutex mx;
    std::vector<std::string> got; // texts of events, in the order of the tries
    std::function<HubOutcomeType(HubEvent const &)> answer; // taken, unless something else is said
    std::size_t Count()
    {
        std::lock_guard const lock(mx);
        return got.size();
    }
};

class CScriptedSink : public CHubSink {
public:
    explicit CScriptedSink(Script &script) : m_script(script) {}
    HubOutcomeType Deliver(HubEvent const &event, std::string *pstrWhy) override
    {
        *pstrWhy = "so it is written";
        std::lock_guard const lock(m_script.mx);
        m_script.got.push_back(event.strText);
        return m_script.answer ? m_script.answer(event) : eHO_TAKEN;
    }
    void Stop() override {}

private:
    Script &m_script;
};

class HubStoreTest : public testing::Test {
protected:
    HubStoreTest() { Open(); }
    ~HubStoreTest() override
    {
        pStore.reset();
        pJournal.reset();
        fs::remove_all(folder);
    }

    void Open()
    {
        pStore.reset();
        pJournal.reset();
        std::string strError;
        pJournal = CJournal::Open(strFile, &strError);
        ASSERT_NE(pJournal, nullptr) << strError;
        pStore = std::make_unique<CEventStore>(*pJournal);
    }
    void Write(std::vector<std::string> const &texts,
               system_clock::time_point tp = system_clock::now())
    {
        std::vector<HubEvent> events;
        for (std::string const &strText : texts) {
            Notification notification;
            notification.strText = strText;
            events.push_back(*envelopes.Make({"d", tp, notification}));
        }
        std::string strError;
        EXPECT_TRUE(pStore->Write(events, &strError)) << strError;
    }
    std::unique_ptr<CSinkRunner> Run(Script &script, HubSinkSettings settings = {})
    {
        settings.strName = "sink";
        settings.firstPause = 5ms;
        settings.longestPause = 20ms;
        SinkPlace place;
        std::string strError;
        EXPECT_TRUE(pStore->Begin("sink", &place, &strError)) << strError;
        return std::make_unique<CSinkRunner>(settings, std::make_unique<CScriptedSink>(script),
                                             *pStore, place,
                                             std::make_shared<std::vector<HubRule> const>(),
                                             [](HubLogLevel, std::string const &) {});
    }
    static void End(std::unique_ptr<CSinkRunner> pRunner)
    {
        pRunner->Stop();
        EXPECT_TRUE(pRunner->Ended(std::chrono::steady_clock::now() + 30s));
    }

    fs::path const folder =
        fs::temp_directory_path() / ("hub-store-" + std::to_string(std::random_device{}()));
    std::string const strFile = (folder / "state" / "journal.db").string();
    CEnvelopes envelopes{"site"};
    std::unique_ptr<CJournal> pJournal;
    std::unique_ptr<CEventStore> pStore;
};

} // namespace

TEST_F(HubStoreTest, ASinkGoesOnWhereItWasAndBeginsAtTheEnd)
{
    Script script;
    Write({"before it came"});
    auto pRunner = Run(script);
    Write({"1", "2"});
    pRunner->Wake();
    ASSERT_TRUE(WaitFor([&] { return script.Count() == 2; }));
    End(std::move(pRunner));
    Write({"3"}); // and what it has told
    Open();
    std::string strSecond;
    EXPECT_EQ(CJournal::Open(strFile, &strSecond), nullptr) << "one hub at a time";
    EXPECT_NE(strSecond.find("another hub"), std::string::npos) << strSecond;
    pRunner = Run(script);
    ASSERT_TRUE(WaitFor([&] { return script.Count() == 3; }));

    std::uint64_t cEvents = 0;
    std::string strError;
    SinkPlace place;
    auto const pOther = CJournal::Look(strFile, &strError);
    ASSERT_NE(pOther, nullptr) << strError;
    Write({}); // its place, so that all three are behind it
    EXPECT_TRUE(pOther->SetBack("sink", system_clock::now() - 1h, &cEvents, &strError)) << strError;
    EXPECT_EQ(cEvents, 4u);
    EXPECT_FALSE(pOther->SetBack("nobody", system_clock::now(), &cEvents, &strError));
    EXPECT_TRUE(pJournal->HasChanged());
    ASSERT_TRUE(pJournal->PlaceOf("sink", &place, &strError));
    pRunner->SetBack(place);
    ASSERT_TRUE(WaitFor([&] { return script.Count() == 7; }));
    End(std::move(pRunner));
    EXPECT_EQ(script.got,
              (std::vector<std::string>{"1", "2", "3", "before it came", "1", "2", "3"}));
}

TEST_F(HubStoreTest, AnEventIsTriedUntilItIsTakenRefusedOrTooOld)
{
    Script script;
    unsigned cLater = 0;
    script.answer = [&](HubEvent const &event) {
        if (event.strText == "refused") {
            return eHO_REFUSED;
        }
        return event.strText == "old" || (event.strText == "later" && ++cLater < 4) ? eHO_LATER
                                                                                    : eHO_TAKEN;
    };
    HubSinkSettings settings;
    settings.giveUp = 3600s;
    auto pRunner = Run(script, settings);
    Write({"old"}, system_clock::now() - 2h);
    Write({"later", "refused", "last"});
    pRunner->Wake();
    ASSERT_TRUE(WaitFor([&] { return pRunner->Status().cWaiting == 0; }));
    HubSinkStatus const status = pRunner->Status();
    EXPECT_EQ(status.cDelivered, 2u);
    EXPECT_EQ(status.cRetries, 4u);
    EXPECT_EQ(status.cGivenUp, 2u);
    End(std::move(pRunner));
    EXPECT_EQ(script.got, (std::vector<std::string>{"old", "later", "later", "later", "later",
                                                    "refused", "last"}));
}

TEST_F(HubStoreTest, WhatIsTooOldOrTooMuchGoesAndAWaitingSinkIsTold)
{
    Script script;
    End(Run(script)); // it has a place, and is away
    Write(std::vector<std::string>(10, "old"), system_clock::now() - 48h);
    Write(std::vector<std::string>(5000, std::string(1000, 'x')));
    bool bMore = false;
    std::string strError;
    ASSERT_TRUE(pJournal->Prune(system_clock::now() - 24h, ~0ull >> 1, &bMore, &strError))
        << strError;
    std::uint64_t dwFirst = 0;
    std::uint64_t dwLast = 0;
    ASSERT_TRUE(pJournal->Bounds(&dwFirst, &dwLast, &strError));
    EXPECT_EQ(dwFirst, 11u);
    for (bMore = true; bMore;) {
        ASSERT_TRUE(pJournal->Prune(system_clock::now() - 24h, 4 << 20, &bMore, &strError));
    }
    ASSERT_TRUE(pJournal->Bounds(&dwFirst, &dwLast, &strError));
    EXPECT_GT(dwFirst, 2000u);
    EXPECT_EQ(dwLast, 5010u);
    Open(); // nothing in memory
    auto pRunner = Run(script);
    ASSERT_TRUE(WaitFor([&] { return pRunner->Status().cWaiting == 0; }));
    EXPECT_EQ(pRunner->Status().cGivenUp, dwFirst - 1);
    EXPECT_EQ(pRunner->Status().cDelivered, dwLast - dwFirst + 1);
    End(std::move(pRunner));
}

TEST_F(HubStoreTest, AFileThatIsNoJournalOfOursIsRefusedInOneLine)
{
    fs::create_directories(folder / "folder");
    std::ofstream(folder / "text") << std::string(5000, 'x');
    std::ofstream(folder / "plain") << "in the way of a folder";
    for (std::string const strName : {"folder", "text", "plain/journal.db"}) {
        std::string strError;
        EXPECT_EQ(CJournal::Open((folder / strName).string(), &strError), nullptr) << strName;
        EXPECT_NE(strError.find(strName), std::string::npos) << strError;
        EXPECT_EQ(strError.find('\n'), std::string::npos) << strError;
    }
}

TEST(EventIdsTest, AreUniqueAndSortedByTime)
{
    CEventIds ids;
    std::string strBefore;
    auto const tp = system_clock::time_point(1000000000000ms);
    for (int i = 0; i < 20000; ++i) {
        std::string const strId = ids.Next(tp + i / 100 * 1ms);
        ASSERT_EQ(strId.size(), 26u);
        ASSERT_LT(strBefore, strId);
        strBefore = strId;
    }
}
