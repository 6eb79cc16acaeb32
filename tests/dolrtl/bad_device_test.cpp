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
    // What it sends when a request has come: on the hello, then on each that follows. It hangs up for
    // nothing at all.
    using Says = std::function<LinkBytes(LinkFrame const &)>;

    explicit CBadDevice(std::vector<Says> script) : m_script(std::move(script))
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
        for (CLinkStream &stream : m_streams) {
            stream.Close();
        }
        for (std::thread &thread : m_threads) {
            thread.join();
        }
    }

    DWORD dwPort = 0;

private:
    void Accept()
    {
        while (!m_fEnding) {
            SOCKET const s = ws::accept(m_listener.Get(), nullptr, nullptr);
            if (s == INVALID_SOCKET) {
                continue;
            }
            CLinkStream &stream = m_streams.emplace_back(s);
            m_threads.emplace_back([this, &stream] {
                LinkFrame frame;
                for (std::size_t n = 0; stream.Receive(&frame, Soon()) == eRX_FRAME; ++n) {
                    if (n < m_script.size()) {
                        LinkBytes const bytes = m_script[n](frame);
                        bytes.empty() ? stream.Close() : void(stream.Send(bytes, Soon()));
                    }
                }
            });
        }
    }

    std::vector<Says> const m_script;
    CSocketLibrary m_library;
    CLinkSocket m_listener;
    std::atomic<bool> m_fEnding{false};
    std::thread m_thAccept;
    std::list<CLinkStream> m_streams;
    std::list<std::thread> m_threads;
};

CBadDevice::Says Bytes(LinkBytes bytes)
{
    return [bytes](LinkFrame const &) { return bytes; };
}

CBadDevice::Says Answers(LinkBytes payload)
{
    return [payload](LinkFrame const &request) { return Answer(request, payload); };
}

LinkBytes TrapsFirst(LinkFrame const &request)
{
    LinkBytes result;
    for (LinkBytes const &bytes :
         {EncodeLinkFrame({eLK_TRAP_VALUE, 0, {1, 0, 4, 9, 0, 0, 0, 'x'}}),
          EncodeLinkFrame({99, 0, {1, 2, 3}}), Answer(request, {0, 0, 0, 0})}) {
        result.insert(result.end(), bytes.begin(), bytes.end());
    }
    return result;
}

} // namespace

TEST(BadDevice, EachCallEndsInTimeWithACode)
{
    std::string const strMail = "220 mail.example ESMTP ready\r\n";
    LinkBytes const hello = HelloPayload(kLinkVersion);
    auto const code = [](DWORD dw) { return Answers(CLinkWriter().Word32(dw).Take()); };
    auto const other = [](LinkFrame const &request) {
        return Answer({request.kind, request.dwNumber + 1, {}}, {0, 0, 0, 0});
    };
    struct {
        char const *pszWhat;
        std::vector<CBadDevice::Says> script;
        DWORD dwInit, dwSet;
    } const aCases[] = {
        {"says nothing", {}, eDR_TIMEOUT, eDR_LINK_LOST},
        {"another protocol",
         {Bytes({strMail.begin(), strMail.end()})},
         eDR_BAD_ANSWER,
         eDR_LINK_LOST},
        {"a frame without end", {Bytes({100, 0, 0, 0, 1, 2, 3})}, eDR_TIMEOUT, eDR_LINK_LOST},
        {"another version",
         {Answers(HelloPayload(kLinkVersion + 1))},
         eDR_VERSION_MISMATCH,
         eDR_LINK_LOST},
        {"a refusal", {code(eLR_REFUSED)}, eDR_REFUSED, eDR_LINK_LOST},
        {"the code that ends a drain", {Answers(hello), code(2)}, eDR_OK, eDR_DEVICE_FAILED},
        {"the library's own", {Answers(hello), code(eDR_LINK_LOST)}, eDR_OK, eDR_DEVICE_FAILED},
        {"half a code", {Answers(hello), Answers({0, 0})}, eDR_OK, eDR_BAD_ANSWER},
        {"to another request", {Answers(hello), other}, eDR_OK, eDR_TIMEOUT},
        {"bad traps, then a good answer", {Answers(hello), TrapsFirst}, eDR_OK, eDR_OK},
    };
    std::list<std::thread> threads; // side by side, since some take their full time
    for (auto const &c : aCases) {
        threads.emplace_back([&] {
            SCOPED_TRACE(c.pszWhat);
            CBadDevice device(c.script);
            CTestClient client;
            auto start = steady_clock::now();
            EXPECT_EQ(client.InitLocal(device.dwPort), c.dwInit);
            EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
            start = steady_clock::now();
            EXPECT_EQ(client.SetWord(g_button, 1), c.dwSet);
            EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
            EXPECT_EQ(client.Read(), std::nullopt);
            start = steady_clock::now();
            client.dol.reset(); // perhaps in the middle of its search for the device
            EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(2));
            EXPECT_EQ(client.Events(eDE_RESTART_LINK), 0);
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// A device that stops reading: what is sent piles up until nothing goes out any more.
TEST(BadDevice, SendingIntoAFullLineEndsInTime)
{
    std::atomic<bool> fEnd{false};
    CBadDevice device({[&](LinkFrame const &) {
        WaitFor([&] { return fEnd.load(); });
        return LinkBytes();
    }});
    CSocketLibrary library;
    CLinkStream stream;
    ASSERT_EQ(stream.Connect({0x7F000001, static_cast<WORD>(device.dwPort)}, Soon()), 0);
    LinkBytes const frame = EncodeLinkFrame({eLK_SET, 1, LinkBytes(32 * 1024)});
    auto start = steady_clock::now();
    int c = 0;
    while (stream.Send(frame, start + std::chrono::milliseconds(300)) && ++c < 10000) {
        start = steady_clock::now();
    }
    EXPECT_LT(c, 10000);
    EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_FALSE(stream.Send(frame, Soon())) << "closed, for part of a frame is under way";
    fEnd = true;
}

// It answers whoever looks for it, and hangs up on whoever wants something.
TEST(BadDevice, OneThatIsOnlyALureIsLookedForLessAndLessOften)
{
    CBadDevice device({Answers(HelloPayload(kLinkVersion)), Bytes({})});
    std::atomic<int> cRestarts{0};
    CTestClient client;
    client.onEvent = [&](DWORD event) {
        if (event == eDE_RESTART_LINK) {
            client.dol.emplace(client.Callback(), reinterpret_cast<DWORD_PTR>(&client));
            EXPECT_EQ(client.InitLocal(device.dwPort), eDR_OK);
            EXPECT_EQ(client.SetWord(g_button, 1), eDR_LINK_LOST);
            ++cRestarts;
        }
    };
    auto const start = steady_clock::now();
    ASSERT_EQ(client.InitLocal(device.dwPort), eDR_OK);
    EXPECT_EQ(client.SetWord(g_button, 1), eDR_LINK_LOST);
    ASSERT_TRUE(WaitFor([&] { return cRestarts == 4; }));
    EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(100 + 200 + 400 + 800));
}

// It hangs up on whoever looks for it.
TEST(BadDevice, OneThatDoesNotAnswerIsLookedForLessAndLessOften)
{
    std::atomic<int> cLooks{0};
    CBadDevice device({[&](LinkFrame const &) {
        ++cLooks;
        return LinkBytes();
    }});
    CTestClient client;
    auto const start = steady_clock::now();
    EXPECT_EQ(client.InitLocal(device.dwPort), eDR_LINK_LOST);
    ASSERT_TRUE(WaitFor([&] { return cLooks == 5; }));
    EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(100 + 200 + 400 + 800));
}

// What a device sends is not held at its full length for as long as nobody reads it.
TEST(BadDevice, TrapsThatWaitTakeNoMoreThanValuesCanHave)
{
    auto const traps = [](LinkFrame const &request) {
        CLinkWriter writer;
        writer.Word16(1).Byte(eLD_TEXT).Bytes32(LinkBytes(60000, 'x').data(), 60000);
        LinkBytes const trap = EncodeLinkFrame({eLK_TRAP_VALUE, 0, writer.Take()});
        LinkBytes bytes;
        for (LinkBytes const &frame : {trap, Answer(request, {0, 0, 0, 0})}) {
            bytes.insert(bytes.end(), frame.begin(), frame.end());
        }
        return bytes;
    };
    CBadDevice device({Answers(HelloPayload(kLinkVersion)), traps});
    CTestClient client;
    client.dol.emplace(nullptr, 0);
    ASSERT_EQ(client.InitLocal(device.dwPort), eDR_OK);
    ASSERT_TRUE(WaitFor([&] { return client.SetWord(g_button, 1) == eDR_OK; }));
    std::vector<unsigned char> value(65536);
    unsigned char dataType = 0;
    unsigned short wId = 0;
    DWORD cb = 0;
    ASSERT_EQ(client.dol->ReadTrap(value.data(), 65536, &cb, &dataType, &wId), eDR_OK);
    EXPECT_EQ(cb, 349u);
}
