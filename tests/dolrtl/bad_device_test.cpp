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

// Says hello, then leaves the first request to the script.
CBadDevice::Script AfterHello(std::function<void(CLinkStream &, LinkFrame const &)> script)
{
    return [script](CLinkStream &stream) {
        LinkFrame frame;
        if (stream.Receive(&frame, Soon()) != eRX_FRAME)
            return;
        stream.Send(Answer(frame, HelloPayload(kLinkVersion)), Soon());
        if (stream.Receive(&frame, Soon()) == eRX_FRAME)
            script(stream, frame);
        SayNothing(stream);
    };
}

CBadDevice::Script HelloAnswer(LinkBytes payload)
{
    return [payload](CLinkStream &stream) {
        LinkFrame frame;
        if (stream.Receive(&frame, Soon()) == eRX_FRAME)
            stream.Send(Answer(frame, payload), Soon());
        SayNothing(stream);
    };
}

} // namespace

TEST(BadDevice, InitEndsInTimeWithACode)
{
    CLinkWriter refusal;
    LinkBytes longer = HelloPayload(kLinkVersion);
    longer.push_back(0);
    struct {
        char const *pszWhat;
        CBadDevice::Script script;
        DWORD dwExpected;
    } const cases[] = {
        {"says nothing", SayNothing, eDR_TIMEOUT},
        {"hangs up", [](CLinkStream &stream) { stream.Close(); }, eDR_LINK_LOST},
        {"another protocol",
         [](CLinkStream &stream) {
             std::string const str = "220 mail.example ESMTP ready\r\n";
             stream.Send(LinkBytes(str.begin(), str.end()), Soon());
             SayNothing(stream);
         },
         eDR_BAD_ANSWER},
        {"a frame without end",
         [](CLinkStream &stream) {
             stream.Send({100, 0, 0, 0, 1, 2, 3}, Soon());
             SayNothing(stream);
         },
         eDR_TIMEOUT},
        {"another version", HelloAnswer(HelloPayload(kLinkVersion + 1)), eDR_VERSION_MISMATCH},
        {"a refusal", HelloAnswer(refusal.Word32(eLR_REFUSED).Take()), eDR_REFUSED},
        {"an empty answer", HelloAnswer({}), eDR_BAD_ANSWER},
        {"too long an answer", HelloAnswer(longer), eDR_BAD_ANSWER},
        {"an answer to something else",
         [](CLinkStream &stream) {
             stream.Send(Answer({eLK_SET, 0, {}}, HelloPayload(kLinkVersion)), Soon());
             SayNothing(stream);
         },
         eDR_BAD_ANSWER},
    };
    std::list<std::thread> threads; // side by side, since some take their full time
    for (auto const &c : cases) {
        threads.emplace_back([&c] {
            CBadDevice device(c.script);
            CTestClient client;
            auto const start = steady_clock::now();
            EXPECT_EQ(client.InitLocal(device.dwPort), c.dwExpected) << c.pszWhat;
            EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5)) << c.pszWhat;
            EXPECT_EQ(client.SetWord(g_button, 1), eDR_LINK_LOST) << c.pszWhat;
            auto const end = steady_clock::now();
            client.dol.reset(); // in the middle of its search for the device
            EXPECT_LT(steady_clock::now() - end, std::chrono::seconds(2)) << c.pszWhat;
            EXPECT_EQ(client.Events(eDE_RESTART_LINK), 0) << c.pszWhat;
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

TEST(BadDevice, RequestsEndInTimeWithACode)
{
    auto const result = [](DWORD dwResult) {
        return AfterHello([dwResult](CLinkStream &stream, LinkFrame const &request) {
            CLinkWriter writer;
            stream.Send(Answer(request, writer.Word32(dwResult).Take()), Soon());
        });
    };
    struct {
        char const *pszWhat;
        CBadDevice::Script script;
        DWORD dwExpected;
    } const cases[] = {
        {"a good answer", result(0), eDR_OK},
        {"the code that ends a drain of traps", result(2), eDR_DEVICE_FAILED},
        {"a code of this library's own", result(eDR_LINK_LOST), eDR_DEVICE_FAILED},
        {"half a code", AfterHello([](CLinkStream &stream, LinkFrame const &request) {
             stream.Send(Answer(request, {0, 0}), Soon());
         }),
         eDR_BAD_ANSWER},
        {"an answer to another request",
         AfterHello([](CLinkStream &stream, LinkFrame const &request) {
             stream.Send(Answer({request.kind, request.dwNumber + 1, {}}, {0, 0, 0, 0}), Soon());
         }),
         eDR_TIMEOUT},
        {"bad traps, then a good answer",
         AfterHello([](CLinkStream &stream, LinkFrame const &request) {
             stream.Send(EncodeLinkFrame({eLK_TRAP_VALUE, 0, {1, 0, 4, 9, 0, 0, 0, 'x'}}), Soon());
             stream.Send(EncodeLinkFrame({eLK_TRAP_VALUE, 0, {}}), Soon());
             stream.Send(EncodeLinkFrame({99, 0, {1, 2, 3}}), Soon());
             stream.Send(Answer(request, {0, 0, 0, 0}), Soon());
         }),
         eDR_OK},
        {"garbage", AfterHello([](CLinkStream &stream, LinkFrame const &) {
             stream.Send(LinkBytes(20, 0xFF), Soon());
         }),
         eDR_BAD_ANSWER},
        {"the line goes dead",
         AfterHello([](CLinkStream &stream, LinkFrame const &) { stream.Close(); }), eDR_LINK_LOST},
    };
    std::list<std::thread> threads;
    for (auto const &c : cases) {
        threads.emplace_back([&c] {
            CBadDevice device(c.script);
            CTestClient client;
            ASSERT_EQ(client.InitLocal(device.dwPort), eDR_OK) << c.pszWhat;
            auto const start = steady_clock::now();
            EXPECT_EQ(client.SetWord(g_button, 1), c.dwExpected) << c.pszWhat;
            EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5)) << c.pszWhat;
            EXPECT_EQ(client.Read(), std::nullopt) << c.pszWhat;
        });
    }
    for (std::thread &thread : threads)
        thread.join();
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
