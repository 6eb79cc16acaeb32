// What a session yields, before any device is there: texts taken apart, and the queue.

#include "session/option_text.h"
#include "session/session_event.h"
#include "session/supervisor.h"
#include "tests/support/guards.h"

#include <atomic>
#include <functional>
#include <future>

namespace {

SessionTime Soon()
{
    return SessionClock::now() + std::chrono::seconds(30);
}

SessionEvent Numbered(DWORD dwNumber)
{
    Notification notification;
    notification.dwValue = dwNumber;
    return {"a device", {}, notification};
}

} // namespace

TEST(ReadOption, TellsTheUsersTextFromTheClausesAround)
{
    struct Case {
        char const *pszOption;
        char const *pszText;
        std::optional<DWORD> sequence, srvq;
        char const *pszModel;
    };
    for (Case const &c : std::initializer_list<Case>{
             {"Paper;NETADDR=10.1.2.3:1037;SWINST=4711;KICKSEQ=5;", "Paper", 5, {}, ""},
             {"Paper;;NETADDR=LINK0;SWINST=1;", "Paper;;", {}, {}, ""},
             {"a;NETADDR=x;b;NETADDR=LINK0;SWINST=1;", "a;NETADDR=x;b", {}, {}, ""},
             {"other;;NETADDR=LINK0;", "other;", {}, {}, ""},
             {"hello", "hello", {}, {}, ""},
             {"", "", {}, {}, ""},
             {"KICKSEQ=-1;", "KICKSEQ=-1", 0xFFFFFFFF, {}, ""},
             {"x;KICKSEQ= +12abc;KICKSEQ=9;", "x;KICKSEQ= +12abc;KICKSEQ=9", 12, {}, ""},
             {"x;KICKSEQ=99999999999;", "x;KICKSEQ=99999999999", 0x7FFFFFFF, {}, ""},
             {"x;KICKSEQ=;", "x;KICKSEQ=", 0, {}, ""},
             {"x;KICKSEQ=7", "x;KICKSEQ=7", {}, {}, ""},
             {"TYPE=<ECHO>;SRVQ=77;MODEL=VELLUMAX 4000;NETADDR=LINK0;KICKSEQ=3;", "", 3, 77,
              "VELLUMAX 4000"}}) {
        Notification notification;
        notification.strOption = c.pszOption;
        ReadOption(notification, {"Paper", "Paper;;", "a;NETADDR=x;b"});
        EXPECT_EQ(notification.strText, c.pszText) << c.pszOption;
        EXPECT_EQ(notification.sequence, c.sequence) << c.pszOption;
        EXPECT_EQ(notification.srvq, c.srvq) << c.pszOption;
        EXPECT_EQ(notification.strModel, c.pszModel) << c.pszOption;
    }
}

TEST(EventQueue, KeepsTheNewestAndTellsWhatItDropped)
{
    CEventQueue queue(3);
    for (DWORD dw = 1; dw <= 5; ++dw) {
        queue.Put(Numbered(dw));
    }
    EXPECT_EQ(queue.NotificationsLeft(), 5u);
    EXPECT_EQ(std::get<DroppedEvents>(queue.Take(Soon())->what).cEvents, 2u);
    EXPECT_EQ(std::get<Notification>(queue.Take(Soon())->what).dwValue, 3u);
    queue.Put(Numbered(6));
    for (DWORD dw = 4; dw <= 6; ++dw) {
        EXPECT_EQ(std::get<Notification>(queue.Take(Soon())->what).dwValue, dw);
    }
    EXPECT_FALSE(queue.Take(SessionClock::now()));
    queue.Put(Numbered(7));
    queue.Stop();
    EXPECT_FALSE(queue.Take(Soon())) << "nothing is handed out any more";
    EXPECT_EQ(queue.NotificationsLeft(), 1u);

    CEventQueue waiting(1);
    auto taker = std::async(std::launch::async, [&] { return waiting.Take(Soon()).has_value(); });
    waiting.Stop();
    EXPECT_FALSE(taker.get()) << "and nobody is left waiting";
}

namespace {

class CWork : public CSupervised {
public:
    explicit CWork(std::function<std::optional<SessionTime>()> fnStep) : m_fnStep(std::move(fnStep))
    {
    }
    std::optional<SessionTime> Step() override
    {
        EXPECT_FALSE(m_bInside.exchange(true)) << "two steps of one object at a time";
        auto const next = m_fnStep();
        m_bInside = false;
        return next;
    }

private:
    std::function<std::optional<SessionTime>()> const m_fnStep;
    std::atomic<bool> m_bInside{false};
};

} // namespace

TEST(Supervisor, AStepThatWaitsHoldsUpNobodyElse)
{
    std::promise<void> answer;
    auto const answered = answer.get_future().share();
    std::atomic<int> cStuck{0};
    std::atomic<int> cSteps{0};
    std::atomic<bool> bEnd{false};
    CSupervisor supervisor(4);
    for (int i = 0; i < 3; ++i) {
        supervisor.Add(std::make_shared<CWork>([&]() -> std::optional<SessionTime> {
            ++cStuck;
            answered.wait();
            return std::nullopt;
        }));
    }
    std::vector<std::shared_ptr<CWork>> works;
    for (int i = 0; i < 100; ++i) {
        works.push_back(std::make_shared<CWork>([&]() -> std::optional<SessionTime> {
            ++cSteps;
            return bEnd ? std::nullopt : std::optional(SessionTime::max());
        }));
        supervisor.Add(works.back());
    }
    EXPECT_TRUE(WaitFor([&] { return cStuck == 3 && cSteps == 100; }));
    bEnd = true;
    for (auto const &pWork : works) {
        supervisor.Wake(pWork.get());
    }
    EXPECT_TRUE(WaitFor([&] { return cSteps == 200; }));
    answer.set_value();
}

TEST(Supervisor, WakesInTimeAndDuringAStep)
{
    std::atomic<int> cSteps{0};
    std::shared_ptr<CWork> pWork;
    CSupervisor supervisor;
    pWork = std::make_shared<CWork>([&]() -> std::optional<SessionTime> {
        if (++cSteps == 1) {
            supervisor.Wake(pWork.get()); // no sleep until the end of time
        }
        return cSteps < 3 ? SessionTime::max() : std::optional<SessionTime>();
    });
    supervisor.Add(pWork);
    EXPECT_TRUE(WaitFor([&] { return cSteps == 2; }));
    supervisor.Wake(pWork.get());
    EXPECT_TRUE(WaitFor([&] { return cSteps == 3; }));
    supervisor.Wake(pWork.get()); // it is over
}
