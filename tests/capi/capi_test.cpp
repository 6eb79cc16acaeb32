// The module as other languages have it, against a device in this process.

#include "capi/qoma_notify.h"
#include "device/soft_device.h"
#include "platform/sync.h"
#include "tests/support/guards.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

extern "C" char const *first_client(uint32_t port, void (*pick)());

namespace {

CSoftDevice *g_pDevice;

// Every function with a handle, and what it says of it.
std::vector<qoma_result> AskAll(qoma_agent agent)
{
    qoma_notification heard{};
    heard.size = sizeof heard;
    uint32_t dw = 0;
    intptr_t n = 0;
    return {qoma_disconnect(agent),
            qoma_connect(agent, "x", 1, QOMA_LOCAL),
            qoma_restart(agent),
            qoma_add(agent, QOMA_FLAG_SELECT, "x", &dw),
            qoma_delete(agent, QOMA_FLAG_FAX, nullptr, 0),
            qoma_modify(agent, "x", "y", &dw),
            qoma_discover(agent, "x", &dw),
            qoma_poll(agent, QOMA_FOREVER, &heard),
            qoma_descriptor(agent, &n),
            qoma_destroy(agent)};
}

std::vector<qoma_result> const kNobody(10, QOMA_E_INVALID_HANDLE);

// What a callback is to do, and what it has heard.
struct Called {
    std::function<void()> fnInside = [] {};
    std::atomic<int> cCalls{0};
    static void QOMA_CALL On(void *pvUser, qoma_notification const *)
    {
        Called &called = *static_cast<Called *>(pvUser);
        called.fnInside();
        ++called.cCalls;
    }
};

class CapiTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string strError;
        ASSERT_TRUE(m_device.Start(&strError)) << strError;
        g_pDevice = &m_device;
    }
    void TearDown() override
    {
        qoma_destroy(m_agent);
        qoma_destroy(m_other);
    }
    // Two roads: over the local one all kinds come.
    qoma_agent Connected(qoma_callback pfn, void *pvUser, uint32_t way = QOMA_LOCAL)
    {
        qoma_agent agent = nullptr;
        EXPECT_EQ(qoma_create(pfn, pvUser, &agent), QOMA_OK);
        char const *const pszAddress = way == QOMA_LOCAL ? nullptr : "127.0.0.1";
        EXPECT_EQ(qoma_connect(agent, pszAddress, m_device.Port(), way), QOMA_OK);
        return agent;
    }
    qoma_result Poll(uint32_t dwTimeoutMs)
    {
        m_heard.size = sizeof m_heard;
        return qoma_poll(m_agent, dwTimeoutMs, &m_heard);
    }

    CSoftDevice m_device;
    Called m_called; // for longer than the agents, which a test may leave to the end
    qoma_agent m_agent = nullptr;
    qoma_agent m_other = nullptr;
    qoma_notification m_heard{};
};

} // namespace

TEST_F(CapiTest, AClientOfTheFirstVersionRuns)
{
    EXPECT_STREQ(first_client(m_device.Port(), [] { EXPECT_TRUE(g_pDevice->Pick(1)); }), nullptr);
}

TEST_F(CapiTest, WhatIsNoHandleIsAnsweredAndNotFollowed)
{
    for (std::uintptr_t const n : {std::uintptr_t{0}, std::uintptr_t{1}, ~std::uintptr_t{0},
                                   reinterpret_cast<std::uintptr_t>(&m_device)}) {
        EXPECT_EQ(AskAll(reinterpret_cast<qoma_agent>(n)), kNobody) << n;
    }
    EXPECT_EQ(qoma_create(nullptr, nullptr, nullptr), QOMA_E_INVALID_PARAMETER);
    // More lives than there are slots, so that the first one's slot has another by then.
    ASSERT_EQ(qoma_create(nullptr, nullptr, &m_agent), QOMA_OK);
    qoma_agent const first = m_agent;
    for (int n = 0; n < 5000; ++n) {
        ASSERT_EQ(qoma_destroy(m_agent), QOMA_OK);
        ASSERT_EQ(qoma_create(nullptr, nullptr, &m_agent), QOMA_OK);
        ASSERT_NE(m_agent, first);
    }
    EXPECT_EQ(AskAll(first), kNobody);
    EXPECT_EQ(Poll(0), QOMA_E_NOT_CONNECTED); // and that was none of its business
}

TEST_F(CapiTest, AgentsHaveAnEndAndTheirSlotsComeBack)
{
    std::vector<qoma_agent> agents(4096);
    for (qoma_agent &agent : agents) {
        ASSERT_EQ(qoma_create(nullptr, nullptr, &agent), QOMA_OK);
    }
    EXPECT_EQ(qoma_create(nullptr, nullptr, &m_agent), QOMA_E_NO_RESOURCES);
    EXPECT_EQ(m_agent, nullptr);
    for (qoma_agent const agent : agents) {
        EXPECT_EQ(qoma_destroy(agent), QOMA_OK);
    }
    EXPECT_EQ(qoma_create(nullptr, nullptr, &m_agent), QOMA_OK);
}

TEST_F(CapiTest, InsideACallbackWhatWouldHangGivesACode)
{
    std::vector<qoma_result> results;
    m_called.fnInside = [&] {
        uint32_t dwInstance = 0;
        qoma_notification heard{};
        heard.size = sizeof heard;
        results = {qoma_destroy(m_agent),
                   qoma_disconnect(m_agent),
                   qoma_restart(m_agent),
                   qoma_connect(m_agent, nullptr, 1, QOMA_LOCAL),
                   qoma_destroy(m_other),
                   qoma_poll(m_other, QOMA_FOREVER, &heard),
                   qoma_poll(m_agent, 0, &heard),
                   qoma_poll(m_other, 0, &heard),
                   qoma_add(m_agent, QOMA_FLAG_SELECT, "From Inside", &dwInstance),
                   qoma_add(m_other, QOMA_FLAG_FAX, nullptr, nullptr)};
    };
    m_other = Connected(nullptr, nullptr, QOMA_NETWORK);
    m_agent = Connected(Called::On, &m_called);
    ASSERT_EQ(qoma_add(m_agent, QOMA_FLAG_FEEDER, nullptr, nullptr), QOMA_OK);
    m_device.SetFeeder(true);
    ASSERT_TRUE(WaitFor([&] { return m_called.cCalls == 1; }));
    std::vector<qoma_result> expected(7, QOMA_E_NOT_SUPPORTED);
    expected.insert(expected.end(), {QOMA_E_NOTHING, QOMA_OK, QOMA_OK});
    EXPECT_EQ(results, expected);
    EXPECT_TRUE(m_device.WaitForEntry("From Inside", 30000));
    m_device.AnnounceFax();
    EXPECT_EQ(qoma_poll(m_other, 30000, (m_heard.size = sizeof m_heard, &m_heard)), QOMA_OK);
}

TEST_F(CapiTest, DestroyWaitsForACallbackThatCallsTheAgent)
{
    std::atomic<qoma_result> resultInside{QOMA_OK};
    std::atomic<bool> fInside{false};
    Called called;
    called.fnInside = [&] {
        fInside = true;
        do { // until the agent is being ended by the other thread
            resultInside = qoma_add(m_agent, QOMA_FLAG_FAX, nullptr, nullptr);
        } while (resultInside == QOMA_OK);
    };
    m_agent = Connected(Called::On, &called);
    ASSERT_EQ(qoma_add(m_agent, QOMA_FLAG_FEEDER, nullptr, nullptr), QOMA_OK);
    m_device.SetFeeder(true);
    ASSERT_TRUE(WaitFor([&] { return fInside.load(); }));
    EXPECT_EQ(qoma_destroy(m_agent), QOMA_OK);
    EXPECT_EQ(called.cCalls, 1);
    EXPECT_TRUE(resultInside == QOMA_E_NOT_CONNECTED || resultInside == QOMA_E_INVALID_HANDLE)
        << resultInside;
}

TEST_F(CapiTest, RecordsAreFilledAsFarAsBothSidesKnowThem)
{
    struct {
        qoma_notification record;
        std::array<char, 64> later; // of a version to come
    } heard;
    std::memset(static_cast<void *>(&heard), 0xA5, sizeof heard);
    m_agent = Connected(nullptr, nullptr);
    ASSERT_EQ(qoma_add(m_agent, QOMA_FLAG_FEEDER, nullptr, nullptr), QOMA_OK);
    m_device.SetFeeder(true);
    EXPECT_EQ(qoma_poll(m_agent, 0, nullptr), QOMA_E_INVALID_PARAMETER);
    heard.record.size = 655;
    EXPECT_EQ(qoma_poll(m_agent, 0, &heard.record), QOMA_E_INVALID_PARAMETER);
    heard.record.size = sizeof heard;
    ASSERT_EQ(qoma_poll(m_agent, 30000, &heard.record), QOMA_OK);
    EXPECT_EQ(heard.record.size, sizeof heard.record);
    EXPECT_EQ(heard.record.kind, QOMA_KIND_FEEDER);
    EXPECT_EQ(heard.record.notify_code, 8u);
    EXPECT_EQ(heard.record.value, 1);
    EXPECT_EQ(heard.later, decltype(heard.later){});
}

TEST_F(CapiTest, WhoeverWaitsIsLetGo)
{
    struct {
        qoma_result (*pfnEnd)(qoma_agent);
        qoma_result expected;
    } const ends[] = {{qoma_disconnect, QOMA_E_NOT_CONNECTED},
                      {qoma_destroy, QOMA_E_INVALID_HANDLE}};
    for (auto const &end : ends) {
        m_agent = Connected(nullptr, nullptr);
        EXPECT_EQ(Poll(1), QOMA_E_NOTHING);
        std::atomic<int> cEnded{0};
        std::vector<std::thread> waiting;
        for (int n = 0; n < 2; ++n) {
            waiting.emplace_back([&] {
                qoma_notification heard{};
                heard.size = sizeof heard;
                EXPECT_EQ(qoma_poll(m_agent, QOMA_FOREVER, &heard), end.expected);
                ++cEnded;
            });
        }
        Sleep(20); // most of the time they sleep by now
        EXPECT_EQ(cEnded, 0);
        EXPECT_EQ(end.pfnEnd(m_agent), QOMA_OK);
        for (std::thread &thread : waiting) {
            thread.join();
        }
        qoma_destroy(m_agent);
    }
}

TEST_F(CapiTest, WhatNobodyAsksForGivesWayAndIsTold)
{
    constexpr int kcSent = 2000;
    // An observer on the same device: what has come here has come there, or nearly so.
    m_other = Connected(Called::On, &m_called);
    m_agent = Connected(nullptr, nullptr);
    for (qoma_agent const agent : {m_agent, m_other}) {
        ASSERT_EQ(qoma_add(agent, QOMA_FLAG_FEEDER | QOMA_FLAG_FAX, nullptr, nullptr), QOMA_OK);
    }
    for (int n = 0; n < kcSent; ++n) {
        m_device.SetFeeder(n % 2 == 0);
        if (n % 100 == 99) {
            ASSERT_TRUE(WaitFor([&] { return m_called.cCalls == n + 1; }));
        }
    }
    m_device.AnnounceFax();
    uint32_t cLost = 0, fwKinds = 0;
    int cHeard = 0;
    do {
        ASSERT_EQ(Poll(30000), QOMA_OK);
        ++cHeard;
        cLost += m_heard.lost;
        fwKinds |= m_heard.lost_kinds;
    } while (m_heard.kind != QOMA_KIND_FAX);
    EXPECT_EQ(cHeard + static_cast<int>(cLost), kcSent + 1);
    EXPECT_GE(cHeard, 1024);
    EXPECT_GT(cLost, 0u);
    EXPECT_EQ(fwKinds, 1u << QOMA_KIND_FEEDER);
}

TEST_F(CapiTest, ADescriptorIsReadyWhenAPollWouldNotWait)
{
    if (kIsPosix) {
        GTEST_SKIP() << "there it is a descriptor, which the Python tests wait on";
    }
    auto const fnIsReady = [&](DWORD dwMs) {
        intptr_t nDescriptor = -1;
        EXPECT_EQ(qoma_descriptor(m_agent, &nDescriptor), QOMA_OK);
        return WaitForSingleObject(reinterpret_cast<HANDLE>(nDescriptor), dwMs) == WAIT_OBJECT_0;
    };
    m_agent = Connected(nullptr, nullptr);
    ASSERT_EQ(qoma_add(m_agent, QOMA_FLAG_FEEDER, nullptr, nullptr), QOMA_OK);
    EXPECT_FALSE(fnIsReady(0));
    m_device.SetFeeder(true);
    EXPECT_TRUE(fnIsReady(30000));
    EXPECT_EQ(Poll(0), QOMA_OK);
    EXPECT_FALSE(fnIsReady(0));
    EXPECT_EQ(qoma_disconnect(m_agent), QOMA_OK);
    EXPECT_TRUE(fnIsReady(0));
}

TEST_F(CapiTest, LivesUnderEventsAndOtherThreadsLeaveNothing)
{
    std::atomic<qoma_agent> shared{nullptr};
    std::atomic<bool> fStop{false};
    Called called;
    std::vector<std::thread> threads;
    for (int n = 0; n < 2; ++n) {
        threads.emplace_back([&, n] {
            while (!fStop) { // whatever comes of it: a code
                qoma_agent const agent = shared;
                qoma_notification heard{};
                heard.size = sizeof heard;
                uint32_t dwInstance = 0;
                qoma_poll(agent, 1, &heard);
                if (qoma_add(agent, QOMA_FLAG_SELECT, "Shared", &dwInstance) == QOMA_OK) {
                    qoma_delete(agent, QOMA_FLAG_SELECT, "Shared", dwInstance);
                }
                n == 0 ? qoma_connect(agent, nullptr, m_device.Port(), QOMA_LOCAL)
                       : qoma_disconnect(agent);
                m_device.AnnounceFax();
            }
        });
    }
    std::size_t cHandles = 0;
    DWORD cThreads = 0;
    for (int n = 0; n < 24; ++n) {
        shared = Connected(n % 2 == 0 ? Called::On : nullptr, &called,
                           n % 4 < 2 ? QOMA_LOCAL : QOMA_NETWORK);
        qoma_add(shared, QOMA_FLAG_FAX, nullptr, nullptr);
        m_device.AnnounceFax();
        EXPECT_EQ(qoma_destroy(shared), QOMA_OK);
        int const cCalls = called.cCalls;
        m_device.AnnounceFax();
        EXPECT_EQ(called.cCalls, cCalls) << "a callback after its agent's end";
        if (n == 8) { // the system makes some once, for the first who asks
            cHandles = HeldHandles();
            cThreads = PlatThreadCount();
        }
    }
    fStop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(WaitFor([&] { return PlatThreadCount() <= cThreads; }));
    EXPECT_TRUE(WaitFor([&] { return HeldHandles() <= cHandles; }));
}
