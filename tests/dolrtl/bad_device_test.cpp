// The access library against peers that are no device at all, or a broken one.

#include "devlink/link_protocol.h"
#include "devlink/link_stream.h"
#include "tests/dolrtl/dolrtl_fixture.h"

#include <atomic>
#include <chrono>
#include <list>
#include <thread>

using std::chrono::steady_clock;

namespace {

LinkTime Soon()
{
    return LinkClock::now() + std::chrono::seconds(10);
}

LinkBytes Answer(LinkFrame const &request, LinkBytes payload)
{
    return EncodeLinkFrame(
        {static_cast<BYTE>(request.kind | kLinkAnswerBit), request.dwNumber, std::move(payload)});
}

LinkBytes HelloPayload(WORD wVersion)
{
    CLinkWriter writer;
    return writer.Word32(0).Word16(wVersion).Bytes8("LINK1", 5).Take();
}

// Accepts connections and lets a script talk on each, on a thread of its own.
class CBadDevice {
public:
    using Script = std::function<void(CLinkStream &)>;

    explicit CBadDevice(Script script) : m_script(std::move(script))
    {
        sockaddr_in sa = ToSockAddr({0x7F000001, 0});
        int cb = sizeof sa;
        auto *const p = reinterpret_cast<sockaddr *>(&sa);
        m_listener.Set(ws::socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(ws::bind(m_listener.Get(), p, cb), 0);
        EXPECT_EQ(ws::listen(m_listener.Get(), 16), 0);
        EXPECT_EQ(ws::getsockname(m_listener.Get(), p, &cb), 0);
        dwPort = FromSockAddr(sa).wPort;
        m_thAccept = std::thread([this] { Accept(); });
    }

    ~CBadDevice()
    {
        m_fEnding = true;
        m_listener.Close();
        m_thAccept.join();
        for (CLinkStream &stream : m_streams)
            stream.Close();
        for (std::thread &thread : m_threads)
            thread.join();
    }

    DWORD dwPort = 0;

private:
    void Accept()
    {
        while (!m_fEnding) {
            SOCKET const s = ws::accept(m_listener.Get(), nullptr, nullptr);
            if (s == INVALID_SOCKET)
                continue;
            CLinkStream &stream = m_streams.emplace_back(s);
            m_threads.emplace_back([this, &stream] { m_script(stream); });
        }
    }

    Script const m_script;
    CSocketLibrary m_library;
    CLinkSocket m_listener;
    std::atomic<bool> m_fEnding{false};
    std::thread m_thAccept;
    std::list<CLinkStream> m_streams;
    std::list<std::thread> m_threads;
};

void SayNothing(CLinkStream &stream)
{
    for (LinkFrame frame; stream.Receive(&frame, Soon()) == eRX_FRAME;) {
    }
}

CBadDevice::Script Says(LinkBytes bytes)
{
    return [bytes](CLinkStream &stream) {
        stream.Send(bytes, Soon());
        SayNothing(stream);
    };
}

CBadDevice::Script AnswersHello(LinkBytes payload)
{
    return [payload](CLinkStream &stream) {
        LinkFrame frame;
        if (stream.Receive(&frame, Soon()) == eRX_FRAME)
            stream.Send(Answer(frame, payload), Soon());
        SayNothing(stream);
    };
}

// Says hello, and to the first request what is given for it; nothing given, it hangs up.
CBadDevice::Script Answers(std::function<LinkBytes(LinkFrame const &)> answer)
{
    return [answer](CLinkStream &stream) {
        LinkFrame frame;
        if (stream.Receive(&frame, Soon()) != eRX_FRAME)
            return;
        stream.Send(Answer(frame, HelloPayload(kLinkVersion)), Soon());
        if (stream.Receive(&frame, Soon()) != eRX_FRAME)
            return;
        LinkBytes const bytes = answer(frame);
        if (bytes.empty())
            stream.Close();
        stream.Send(bytes, Soon());
        SayNothing(stream);
    };
}

CBadDevice::Script AnswersCode(DWORD dwResult)
{
    return Answers([dwResult](LinkFrame const &request) {
        return Answer(request, CLinkWriter().Word32(dwResult).Take());
    });
}

struct BadCase {
    char const *pszWhat;
    CBadDevice::Script script;
    DWORD dwExpected;
};

// Side by side, since some take their full time.
void ForAll(std::vector<BadCase> const &cases, std::function<DWORD(CTestClient &, DWORD)> call,
            std::function<void(CTestClient &)> then)
{
    std::list<std::thread> threads;
    for (BadCase const &c : cases) {
        threads.emplace_back([&] {
            SCOPED_TRACE(c.pszWhat);
            CBadDevice device(c.script);
            CTestClient client;
            auto const start = steady_clock::now();
            EXPECT_EQ(call(client, device.dwPort), c.dwExpected);
            EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
            then(client);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace

TEST(BadDevice, InitEndsInTimeWithACode)
{
    std::string const strMail = "220 mail.example ESMTP ready\r\n";
    LinkBytes longer = HelloPayload(kLinkVersion);
    longer.push_back(0);
    ForAll(
        {
            {"says nothing", SayNothing, eDR_TIMEOUT},
            {"hangs up", [](CLinkStream &stream) { stream.Close(); }, eDR_LINK_LOST},
            {"another protocol", Says({strMail.begin(), strMail.end()}), eDR_BAD_ANSWER},
            {"a frame without end", Says({100, 0, 0, 0, 1, 2, 3}), eDR_TIMEOUT},
            {"another version", AnswersHello(HelloPayload(kLinkVersion + 1)), eDR_VERSION_MISMATCH},
            {"a refusal", AnswersHello(CLinkWriter().Word32(eLR_REFUSED).Take()), eDR_REFUSED},
            {"an empty answer", AnswersHello({}), eDR_BAD_ANSWER},
            {"too long an answer", AnswersHello(longer), eDR_BAD_ANSWER},
            {"an answer to something else",
             Says(Answer({eLK_SET, 0, {}}, HelloPayload(kLinkVersion))), eDR_BAD_ANSWER},
        },
        [](CTestClient &client, DWORD dwPort) { return client.InitLocal(dwPort); },
        [](CTestClient &client) {
            EXPECT_EQ(client.SetWord(g_button, 1), eDR_LINK_LOST);
            auto const end = steady_clock::now();
            client.dol.reset(); // in the middle of its search for the device
            EXPECT_LT(steady_clock::now() - end, std::chrono::seconds(2));
            EXPECT_EQ(client.Events(eDE_RESTART_LINK), 0);
        });
}

TEST(BadDevice, RequestsEndInTimeWithACode)
{
    auto const trapsFirst = [](LinkFrame const &request) {
        LinkBytes result;
        for (LinkBytes const &bytes :
             {EncodeLinkFrame({eLK_TRAP_VALUE, 0, {1, 0, 4, 9, 0, 0, 0, 'x'}}),
              EncodeLinkFrame({eLK_TRAP_VALUE, 0, {}}), EncodeLinkFrame({99, 0, {1, 2, 3}}),
              Answer(request, {0, 0, 0, 0})})
            result.insert(result.end(), bytes.begin(), bytes.end());
        return result;
    };
    auto const other = [](LinkFrame const &request) {
        return Answer({request.kind, request.dwNumber + 1, {}}, {0, 0, 0, 0});
    };
    ForAll(
        {
            {"a good answer", AnswersCode(0), eDR_OK},
            {"the code that ends a drain of traps", AnswersCode(2), eDR_DEVICE_FAILED},
            {"a code of this library's own", AnswersCode(eDR_LINK_LOST), eDR_DEVICE_FAILED},
            {"half a code", Answers([](auto &request) {
                 return Answer(request, {0, 0});
             }),
             eDR_BAD_ANSWER},
            {"an answer to another request", Answers(other), eDR_TIMEOUT},
            {"bad traps, then a good answer", Answers(trapsFirst), eDR_OK},
            {"garbage", Answers([](auto &) { return LinkBytes(20, 0xFF); }), eDR_BAD_ANSWER},
            {"the line goes dead", Answers([](auto &) { return LinkBytes(); }), eDR_LINK_LOST},
        },
        [](CTestClient &client, DWORD dwPort) {
            EXPECT_EQ(client.InitLocal(dwPort), eDR_OK);
            return client.SetWord(g_button, 1);
        },
        [](CTestClient &client) { EXPECT_EQ(client.Read(), std::nullopt); });
}

// A device that stops reading: what is sent piles up until nothing goes out any more.
TEST(BadDevice, SendingIntoAFullLineEndsInTime)
{
    std::atomic<bool> fEnd{false};
    CBadDevice device([&](CLinkStream &) { WaitFor([&] { return fEnd.load(); }); });
    CSocketLibrary library;
    CLinkStream stream;
    ASSERT_EQ(stream.Connect({0x7F000001, static_cast<WORD>(device.dwPort)}, Soon()), 0);
    LinkBytes const frame = EncodeLinkFrame({eLK_SET, 1, LinkBytes(32 * 1024)});
    auto start = steady_clock::now();
    int c = 0;
    while (stream.Send(frame, start + std::chrono::milliseconds(300)) && ++c < 10000)
        start = steady_clock::now();
    EXPECT_LT(c, 10000);
    EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_FALSE(stream.Send(frame, Soon())) << "closed, for part of a frame is under way";
    fEnd = true;
}
