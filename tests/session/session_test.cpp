// Sessions with a software device in this process.

#include "session/session.h"

#include "device/soft_device.h"
#include "devlink/link_stream.h"
#include "session/option_text.h"
#include "session/supervisor.h"
#include "tests/support/guards.h"

#include <deque>

namespace {

using std::chrono::seconds;

class SessionTest : public ::testing::Test {
protected:
    void StartDevice(char const *pszModel = "VELLUMAX 4000")
    {
        SoftDeviceConfig config;
        config.strModel = pszModel;
        config.wPort = m_wPort;
        m_device.emplace(config);
        std::string strError;
        ASSERT_TRUE(m_device->Start(&strError)) << strError;
        m_wPort = m_device->Port();
    }

    CSession &StartSession(std::vector<std::string> options = {"Paper"}, bool bLocal = false)
    {
        SessionOptions session;
        session.strDevice = "device";
        session.strAddress = bLocal ? "" : "127.0.0.1";
        session.dwPort = m_wPort;
        session.bLocal = bLocal;
        session.dwFlags = eNF_SELECT | eNF_FAX_UPLOAD;
        session.rgstrOption = std::move(options);
        return m_sessions.emplace_back(m_supervisor, session, m_pEvents);
    }

    // The next event that is a T.
    template <class T>
    T Next(seconds limit = seconds(40))
    {
        auto const tpEnd = SessionClock::now() + limit;
        while (auto event = m_pEvents->Take(tpEnd)) {
            if (auto const *const pWhat = std::get_if<T>(&event->what)) {
                return *pWhat;
            }
        }
        ADD_FAILURE() << "nothing came";
        return {};
    }
    void Expect(LinkStateType eState, DWORD dwResult = 0)
    {
        LinkChange const change = Next<LinkChange>();
        EXPECT_EQ(change.eState, eState) << change.dwResult << " " << change.strWhat;
        EXPECT_EQ(change.dwResult, dwResult) << change.strWhat;
    }
    // The panel's entry is picked, and heard of.
    void ExpectPick()
    {
        ASSERT_TRUE(m_device->WaitForEntry("", 30000));
        ASSERT_TRUE(m_device->Pick(1));
        Notification pick = Next<Notification>();
        while (pick.eType == eCT_LINK_RECOVERED) { // of a link that came back by itself
            pick = Next<Notification>();
        }
        EXPECT_EQ(pick.eType, eCT_SELECT_NOTIFY);
        EXPECT_EQ(pick.strText, "Paper");
    }
    // To the port that the entry on the panel names.
    void SendToListener(std::string const &strText)
    {
        LinkAddress address;
        auto const told = ClauseOf(m_device->Panel().at(0).strText, "NETADDR=");
        ASSERT_TRUE(told && ParseHostAndPort(*told, &address)) << told.value_or("");
        address.dwHost = 0x7F000001;
        sockaddr_in const to = ToSockAddr(address);
        CLinkSocket const socket(ws::socket(AF_INET, SOCK_DGRAM, 0));
        ws::sendto(socket.Get(), strText.data(), static_cast<int>(strText.size()), 0,
                   reinterpret_cast<sockaddr const *>(&to), sizeof to);
    }

    CSocketLibrary m_library;
    WORD m_wPort = 0;
    std::optional<CSoftDevice> m_device;
    std::shared_ptr<CEventQueue> m_pEvents = std::make_shared<CEventQueue>(1000);
    CSupervisor m_supervisor;
    std::deque<CSession> m_sessions;
};

} // namespace

TEST_F(SessionTest, WaitsForItsDeviceAndOutlivesABreakAndAForeignOne)
{
    StartDevice("SOMETHING ELSE");
    StartSession();
    Expect(eSL_WAITING, ERROR_INVALID_OWNER);
    m_device.reset();
    StartDevice();
    LinkChange const first = Next<LinkChange>();
    EXPECT_EQ(first.eState, eSL_CONNECTED);
    EXPECT_EQ(first.dwFlags, DWORD{eNF_SELECT | eNF_FAX_UPLOAD});
    EXPECT_EQ(first.rgstrOption, std::vector<std::string>{"Paper"});
    EXPECT_EQ(first.strAddress, "127.0.0.1:" + std::to_string(m_wPort));
    ExpectPick();

    m_device->CutLinks(200);
    Expect(eSL_LOST, 1236);
    Expect(eSL_BACK);
    ExpectPick();

    m_device.reset();
    StartDevice("SOMETHING ELSE");
    while (Next<LinkChange>().dwResult != ERROR_INVALID_OWNER) {
        ASSERT_FALSE(HasFailure()); // that it was lost may come first
    }
    m_device.reset();
    StartDevice();
    Expect(eSL_BACK);
    EXPECT_EQ(m_device->Panel().size(), 1u);
    ExpectPick();
}

TEST_F(SessionTest, ADeviceThatFallsSilentIsLostInTimeAndNothingIsSubscribedTwice)
{
    StartDevice();
    StartSession({"Paper", "Two"}, /*bLocal=*/true);
    Expect(eSL_CONNECTED);
    auto const tpSilent = SessionClock::now();
    m_device->SetMute(true);
    Expect(eSL_LOST, 121);
    EXPECT_LT(SessionClock::now() - tpSilent, seconds(15));
    m_device->SetMute(false);
    Expect(eSL_BACK);
    EXPECT_EQ(m_device->Panel().size(), 2u);
    ExpectPick();
}

TEST_F(SessionTest, ASilencedListenerIsNoticedAndReplaced)
{
    StartDevice();
    StartSession();
    Expect(eSL_CONNECTED);
    ExpectPick();
    for (char const *pszStranger : {"KICKSEQ=-1;", "Paper;NETADDR=x;KICKSEQ=5000000;", ""}) {
        SendToListener(pszStranger);
        if (*pszStranger != '\0') {
            EXPECT_EQ(Next<Notification>().strOption, pszStranger);
        }
        Expect(eSL_RESTARTING);
        Expect(eSL_BACK);
        EXPECT_EQ(m_device->Panel().size(), 1u);
        ExpectPick(); // and nothing came of what the session sends to itself
    }
}

TEST_F(SessionTest, ASubscriptionThatFailsIsTriedAgainAndToldOnce)
{
    StartDevice();
    std::vector<std::string> entries;
    while (entries.size() < 256) {
        entries.push_back("entry " + std::to_string(entries.size()));
    }
    CSession &crowd = StartSession(std::move(entries));
    Expect(eSL_CONNECTED);
    StartSession();
    LinkChange const full = Next<LinkChange>();
    EXPECT_EQ(full.eState, eSL_INCOMPLETE);
    EXPECT_EQ(full.dwResult, 1816u);
    EXPECT_EQ(full.strWhat, "the panel entry \"Paper\"");
    m_device->AnnounceFax(); // what could be subscribed is
    EXPECT_EQ(Next<Notification>().eType, eCT_FAX_UPLOAD_NOTIFY);
    std::this_thread::sleep_for(seconds(2)); // several tries, of which nothing is told
    crowd.End(SessionClock::now() + seconds(10));
    Expect(eSL_CONNECTED);
    EXPECT_TRUE(
        WaitFor([&] { return m_device->Panel().size() == 1; })); // the crowd is on its way out
}

TEST_F(SessionTest, EndsWithinTheBoundAndTakesItsEntriesBack)
{
    StartDevice();
    CSession &session = StartSession();
    Expect(eSL_CONNECTED);
    session.End(SessionClock::now() + seconds(10));
    EXPECT_TRUE(session.WaitForEnd(SessionClock::now() + seconds(10)));
    EXPECT_TRUE(m_device->Panel().empty());

    CSession &mute = StartSession(std::vector<std::string>(8, "x"));
    Expect(eSL_CONNECTED);
    m_device->SetMute(true);
    auto const tpAsked = SessionClock::now();
    mute.End(tpAsked + seconds(1));
    EXPECT_FALSE(mute.WaitForEnd(tpAsked + seconds(1)));
    EXPECT_TRUE(mute.WaitForEnd(tpAsked + seconds(30)));
    EXPECT_LT(SessionClock::now() - tpAsked, seconds(6)) << "one call was waited for, and no other";
}
