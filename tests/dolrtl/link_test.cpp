// The access library against a well-behaved device, and against one that is told to misbehave.

#include "device/soft_device.h"
#include "devlink/link_protocol.h"
#include "devlink/link_stream.h"
#include "platform/probe.h"
#include "tests/dolrtl/dolrtl_fixture.h"

#include <atomic>
#include <chrono>
#include <list>
#include <thread>

using std::chrono::steady_clock;

namespace {

constexpr auto kPromise = std::chrono::seconds(5);

class Link : public testing::Test {
protected:
    void SetUp() override
    {
        std::string strError;
        device.emplace(SoftDeviceConfig());
        ASSERT_TRUE(device->Start(&strError)) << strError;
        dwPort = device->Port();
    }

    std::optional<CSoftDevice> device;
    DWORD dwPort = 0;
};

} // namespace

TEST_F(Link, ObjectsAreChecked)
{
    CTestClient client(dwPort);
    CDolRtl &dol = *client.dol;
    TestObject unknown{{1, 2, 2, 1}, 4};
    EXPECT_EQ(dol.Get(g_selectOption.Oid(), 5, 1), eDR_WRONG_TYPE);
    EXPECT_EQ(client.SetText(unknown, "x"), eDR_NO_SUCH_OBJECT);
    EXPECT_EQ(client.SetText(g_addOption, std::string(350, 'x')), eDR_WRONG_LENGTH);
    EXPECT_EQ(client.SetText(g_token, "too short"), eDR_WRONG_LENGTH);
    EXPECT_EQ(client.SetWord(g_feeder, 1), eDR_REFUSED);
    EXPECT_EQ(dol.UnTrap(g_feeder.Oid(), 5), eDR_NO_SUCH_OBJECT);
    EXPECT_EQ(client.Trap(g_feeder, 3), eDR_OK);
    EXPECT_EQ(dol.UnTrap(g_feeder.Oid(), 5), eDR_OK);
    device->SetFeeder(true);
    EXPECT_EQ(client.SetWord(g_button, 1), eDR_OK); // its answer would come behind the trap
    EXPECT_EQ(client.Read(), std::nullopt);
}

TEST_F(Link, BadArgumentsAreRefused)
{
    CTestClient client(dwPort);
    CDolRtl &dol = *client.dol;
    unsigned char ab[8] = "???????";
    DWORD cb = 99;
    unsigned short wId = 0;
    std::vector<DWORD> results;
    for (auto const &[pOid, cbOid] :
         {std::pair<unsigned char *, DWORD>{nullptr, 5}, {ab, 0}, {ab, 15}}) {
        results.insert(results.end(), {dol.Get(pOid, cbOid, 4), dol.Set(pOid, cbOid, 4, ab, 1),
                                       dol.Trap(pOid, cbOid, 4, 1), dol.UnTrap(pOid, cbOid)});
    }
    auto const Set = [&](void *pValue, DWORD cbValue) {
        return dol.Set(g_addOption.Oid(), 5, 4, pValue, cbValue);
    };
    results.insert(results.end(),
                   {Set(nullptr, 1), Set(ab, 0), Set(ab, kLinkMaxValue + 1),
                    dol.GetDeviceId(nullptr, 8, &cb), dol.GetDeviceId(ab, 0, &cb),
                    dol.GetDeviceId(ab, 8, nullptr), dol.ReadTrap(nullptr, 8, &cb, ab, &wId),
                    dol.ReadTrap(ab, 8, nullptr, ab, &wId), dol.ReadTrap(ab, 8, &cb, nullptr, &wId),
                    dol.ReadTrap(ab, 8, &cb, ab, nullptr)});
    EXPECT_EQ(results, std::vector<DWORD>(22, eDR_INVALID_ARGUMENT));
    EXPECT_EQ(cb, 0u);
    EXPECT_EQ(dol.GetDeviceId(ab, 7, &cb), eDR_OK); // cut, with its end
    EXPECT_EQ(cb, 6u);
    EXPECT_TRUE(ab[5] != '?' && ab[6] == '\0' && ab[7] == '\0');
}

// The request is done once.
TEST_F(Link, GarbageBehindARequestEndsTheLink)
{
    std::atomic<int> cDone{0};
    SoftDeviceConfig config;
    config.onFrame = [&](DeviceFrame const &frame) {
        cDone += frame.fFromClient && frame.frame.dwNumber == 1 ? 1 : 0;
    };
    std::string strError;
    CSoftDevice own(config);
    ASSERT_TRUE(own.Start(&strError)) << strError;
    LinkTime const deadline = LinkClock::now() + std::chrono::seconds(30);
    CSocketLibrary library;
    ASSERT_TRUE(library.Start());
    CLinkStream stream;
    ASSERT_EQ(stream.Connect({0x7F000001, own.Port()}, deadline), 0);
    CLinkWriter hello;
    hello.Word32(kLinkMagic).Word16(kLinkVersion).Byte(eLU_LOCAL).Byte(0);
    ASSERT_TRUE(stream.Send(EncodeLinkFrame({eLK_HELLO, 0, hello.Take()}), deadline));
    LinkFrame frame;
    ASSERT_EQ(stream.Receive(&frame, deadline), eRX_FRAME);
    LinkBytes request = EncodeLinkFrame({eLK_GET_DEVICE_ID, 1, {}});
    request.insert(request.end(), {1, 0, 0, 0}); // a length that no frame has
    ASSERT_TRUE(stream.Send(request, deadline));
    EXPECT_EQ(stream.Receive(&frame, deadline), eRX_CLOSED);
    EXPECT_EQ(cDone, 1);
}

// Bursts that come while the callback runs must lead to another call of it, whatever other threads do.
TEST_F(Link, NoTrapIsLostWhileTheCallbackRuns)
{
    constexpr int kTraps = 900;
    CTestClient client;
    std::vector<DWORD> words; // the callback's until c has come to its end
    std::atomic<int> c{0};
    client.onEvent = [&](DWORD) {
        while (auto const value = client.Read()) {
            words.push_back(value->dw);
            if (words.size() % 10 == 0) { // from inside the callback
                EXPECT_EQ(client.SetWord(g_button, 1), eDR_OK);
            }
            ++c;
        }
    };
    ASSERT_EQ(client.InitLocal(dwPort), eDR_OK);
    ASSERT_EQ(client.Trap(g_feeder, 3), eDR_OK);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < 100; ++n) {
                EXPECT_EQ(client.SetText(g_addOption, std::to_string(i)), eDR_OK);
            }
        });
    }
    for (int i = 0; i < kTraps; ++i) {
        device->SetFeeder(i % 3 == 0);
        if (i % 100 == 0) { // so that the callback is entered and left many times
            EXPECT_TRUE(WaitFor([&] { return c > i; }));
        }
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(device->Panel().size(), 4u);
    ASSERT_TRUE(WaitFor([&] { return c == kTraps; }));
    for (std::size_t i = 0; i < kTraps; ++i) {
        ASSERT_EQ(words[i], i % 3 == 0 ? 0x10u : 0u) << i;
    }
}

TEST_F(Link, TheOldestOfTooManyTrapsGivesWay)
{
    CTestClient client;
    client.dol.reset();
    client.dol.emplace(nullptr, 0);
    ASSERT_EQ(client.InitLocal(dwPort), eDR_OK);
    ASSERT_EQ(client.Trap(g_feeder, 3), eDR_OK);
    ASSERT_EQ(client.Trap(g_button, 4), eDR_OK);
    for (int i = 0; i < 10; ++i) {
        device->PressButton();
    }
    for (int i = 0; i < 1023; ++i) {
        device->SetFeeder(true);
    }
    device->PressButton();
    // Its answer comes behind the traps, on a slow machine after the time that a request has.
    ASSERT_TRUE(
        WaitFor([&] { return client.SetWord(g_button, 2) == eDR_OK; }, std::chrono::seconds(120)));
    int cFeeder = 0;
    int cButton = 0;
    while (auto const value = client.Read()) {
        ++(value->wTrapId == 3 ? cFeeder : cButton);
    }
    EXPECT_EQ(cFeeder, 1023);
    EXPECT_EQ(cButton, 1);
}

TEST_F(Link, LocalClientsHaveAddressesOfTheirOwn)
{
    CTestClient first(dwPort);
    CTestClient second;
    std::string const strFirst = first.dol->GetAddress();
    EXPECT_NE(strFirst, "");
    ASSERT_EQ(second.Init(strFirst.c_str(), dwPort, eLT_LOCAL), eDR_OK);
    EXPECT_NE(second.dol->GetAddress(), strFirst) << "held by another";
    CTestClient bad;
    ASSERT_EQ(bad.Init("a;NETADDR=", dwPort, eLT_LOCAL), eDR_OK);
    EXPECT_EQ(std::string(bad.dol->GetAddress()).find(';'), std::string::npos);
    CTestClient longest;
    EXPECT_EQ(longest.Init(std::string(256, 'x').c_str(), dwPort, eLT_LOCAL), eDR_BAD_ADDRESS);
    ASSERT_EQ(longest.Init(std::string(255, 'x').c_str(), dwPort, eLT_LOCAL), eDR_OK);
    EXPECT_EQ(std::string(longest.dol->GetAddress()).find('x'), std::string::npos) << "too long";
}

TEST_F(Link, InitSaysWhatIsWrong)
{
    CTestClient client;
    EXPECT_EQ(client.SetWord(g_button, 1), eDR_NOT_STARTED);
    EXPECT_EQ(client.Init("127.0.0.1", 65536, eLT_NETWORK), eDR_BAD_ADDRESS);
    EXPECT_EQ(client.Init("", dwPort, eLT_NETWORK), eDR_BAD_ADDRESS);
    EXPECT_EQ(client.Init("127.0.0.1", dwPort, 5), eDR_INVALID_ARGUMENT);
    EXPECT_EQ(client.Init("localhost", dwPort, eLT_NETWORK), eDR_OK) << "none of these counted";
    EXPECT_STREQ(client.dol->GetAddress(), "localhost");
    EXPECT_EQ(client.Init("127.0.0.1", dwPort, eLT_NETWORK), eDR_ALREADY_STARTED);

    CTestClient lost;
    auto const start = steady_clock::now();
    EXPECT_NE(lost.Init("no-such-host.invalid", dwPort, eLT_NETWORK), eDR_OK);
    EXPECT_LT(steady_clock::now() - start, kPromise);
    EXPECT_EQ(lost.SetWord(g_button, 1), eDR_LINK_LOST);
}

TEST_F(Link, ABreakIsToldOnceWhenTheDeviceIsBack)
{
    CTestClient client(dwPort);
    ASSERT_EQ(client.SetText(g_addOption, "Copy"), eDR_OK);
    ASSERT_EQ(client.Trap(g_button, 4), eDR_OK);
    device->PressButton();
    ASSERT_TRUE(client.WaitForEvent(eDE_TRAP_PENDING));
    auto const start = steady_clock::now();
    device->CutLinks(400);
    EXPECT_TRUE(device->Panel().empty()) << "its entries went with the link";
    ASSERT_TRUE(WaitFor([&] { return client.SetWord(g_button, 1) == eDR_LINK_LOST; }));
    ASSERT_TRUE(client.WaitForEvent(eDE_RESTART_LINK));
    EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(400));
    EXPECT_EQ(client.SetWord(g_button, 1), eDR_LINK_LOST) << "until it is made anew";
    EXPECT_TRUE(client.Read()) << "what came before can be read";
    EXPECT_EQ(client.Read(), std::nullopt);
    EXPECT_EQ(client.Events(eDE_RESTART_LINK), 1);
}

// The agent's restart: the object is deleted and made anew on the thread that it calls back on.
TEST_F(Link, MayBeReplacedInsideItsCallback)
{
    std::atomic<int> cRestarts{0};
    CTestClient client;
    client.onEvent = [&](DWORD event) {
        if (event != eDE_RESTART_LINK) {
            return;
        }
        std::string const strAddress = client.dol->GetAddress();
        DWORD const dwSamePort = client.dol->GetBridgePort();
        client.dol.emplace(client.Callback(), reinterpret_cast<DWORD_PTR>(&client));
        if (client.Init(strAddress.c_str(), dwSamePort, eLT_LOCAL) == eDR_OK &&
            client.dol->GetAddress() == strAddress) {
            ++cRestarts;
        }
    };
    ASSERT_EQ(client.InitLocal(dwPort), eDR_OK);
    for (int i = 1; i <= 3; ++i) {
        device->CutLinks(0);
        ASSERT_TRUE(WaitFor([&] { return cRestarts == i; }));
    }
    ASSERT_TRUE(client.WaitForEvent(eDE_RESTART_LINK, 3));
    EXPECT_EQ(client.SetWord(g_button, 1), eDR_OK);
}

TEST_F(Link, TheDestructorWaitsForACallback)
{
    std::atomic<bool> fInside{false}, fLeft{false}, fGo{false};
    CTestClient client;
    client.onEvent = [&](DWORD) {
        fInside = true;
        WaitFor([&] { return fGo.load(); });
        fLeft = true;
    };
    ASSERT_EQ(client.InitLocal(dwPort), eDR_OK);
    ASSERT_EQ(client.Trap(g_feeder, 3), eDR_OK);
    device->SetFeeder(true);
    ASSERT_TRUE(WaitFor([&] { return fInside.load(); }));
    std::thread thread([&] { fGo = true; });
    client.dol.reset();
    EXPECT_TRUE(fLeft);
    thread.join();
}

// However many wait inside their callbacks, as a restart does for its device.
TEST_F(Link, CallbacksThatBlockHoldUpNobodyElse)
{
    constexpr int kcBlocked = 40;
    std::atomic<int> cInside{0};
    std::atomic<bool> fGo{false};
    CTestClient(dwPort).dol.reset(); // the system makes some threads once, for the first who asks
    DWORD const cThreads = PlatThreadCount();
    std::list<CTestClient> clients;
    for (int i = 0; i <= kcBlocked; ++i) {
        CTestClient &client = clients.emplace_back();
        if (i < kcBlocked) {
            client.onEvent = [&](DWORD) {
                ++cInside;
                WaitFor([&] { return fGo.load(); });
            };
        }
        ASSERT_EQ(client.InitLocal(dwPort), eDR_OK);
        ASSERT_EQ(client.Trap(g_feeder, 3), eDR_OK);
    }
    EXPECT_LE(PlatThreadCount(), cThreads + 2) << "they share theirs";
    device->SetFeeder(true);
    EXPECT_TRUE(WaitFor([&] { return cInside == kcBlocked; }));
    EXPECT_TRUE(clients.back().WaitForEvent(eDE_TRAP_PENDING));
    EXPECT_EQ(clients.front().SetWord(g_button, 1), eDR_OK);
    fGo = true;
    EXPECT_TRUE(WaitFor([&] { return PlatThreadCount() <= cThreads + 2; }))
        << PlatThreadCount() << " threads, more are not kept, before " << cThreads;
    clients.clear();
    EXPECT_TRUE(WaitFor([&] { return PlatThreadCount() <= cThreads; }))
        << PlatThreadCount() << ", before " << cThreads;
}

TEST_F(Link, TheLastObjectMayBeDeletedInItsCallback)
{
    CTestClient(dwPort).dol.reset(); // as above
    DWORD const cThreads = PlatThreadCount();
    for (int i = 0; i < 20; ++i) {
        CTestClient client;
        std::atomic<bool> fGone{false};
        client.onEvent = [&](DWORD) {
            client.dol.reset();
            fGone = true;
        };
        ASSERT_EQ(client.InitLocal(dwPort), eDR_OK);
        ASSERT_EQ(client.Trap(g_feeder, 3), eDR_OK);
        device->SetFeeder(i % 2 == 0);
        ASSERT_TRUE(WaitFor([&] { return fGone.load(); }));
        ASSERT_TRUE(client.WaitForEvent(eDE_TRAP_PENDING)) << "its last word here";
    }
    EXPECT_TRUE(WaitFor([&] { return PlatThreadCount() <= cThreads; }))
        << PlatThreadCount() << ", before " << cThreads;
}
