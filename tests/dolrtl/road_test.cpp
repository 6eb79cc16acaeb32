// From the device's panel and print path to a client, over real datagrams and traps.

#include "device/soft_device.h"
#include "devlink/link_stream.h"
#include "tests/dolrtl/dolrtl_fixture.h"

#include <fstream>
#include <thread>

namespace {

// A listener as an agent has one: echoes what comes at once, and keeps it. It can be told to be deaf.
class CListener {
public:
    CListener()
    {
        sockaddr_in sa = ToSockAddr({0, 0});
        int cb = sizeof sa;
        auto *const p = reinterpret_cast<sockaddr *>(&sa);
        m_socket.Set(ws::socket(AF_INET, SOCK_DGRAM, 0));
        EXPECT_EQ(ws::bind(m_socket.Get(), p, cb), 0);
        EXPECT_EQ(ws::getsockname(m_socket.Get(), p, &cb), 0);
        strAddress = FormatAddress({0x7F000001, FromSockAddr(sa).wPort});
        m_thread = std::thread([this] { Listen(); });
    }
    ~CListener()
    {
        m_fEnding = true;
        m_socket.Close();
        m_thread.join();
    }

    std::vector<std::string> Texts()
    {
        std::lock_guard lock(m_mx);
        return m_texts;
    }
    bool WaitForTexts(size_t c)
    {
        return WaitFor([&] { return Texts().size() >= c; });
    }

    std::string strAddress;
    std::atomic<bool> fEcho{true};

private:
    void Listen()
    {
        char buffer[350];
        while (!m_fEnding) {
            sockaddr_in sa{};
            int cb = sizeof sa;
            auto *const p = reinterpret_cast<sockaddr *>(&sa);
            int const n = ws::recvfrom(m_socket.Get(), buffer, sizeof buffer, 0, p, &cb);
            if (n < 0)
                continue;
            if (fEcho)
                ws::sendto(m_socket.Get(), buffer, n, 0, p, cb);
            std::lock_guard lock(m_mx);
            m_texts.emplace_back(buffer, static_cast<size_t>(n));
        }
    }

    CSocketLibrary m_library;
    CLinkSocket m_socket;
    std::atomic<bool> m_fEnding{false};
    std::mutex m_mx;
    std::vector<std::string> m_texts;
    std::thread m_thread;
};

class Road : public testing::Test {
protected:
    void StartDevice()
    {
        std::string strError;
        config.dwKickIntervalMs = 50;
        config.log = [this](std::string const &str) {
            std::lock_guard lock(mx);
            log.push_back(str);
        };
        device.emplace(config);
        ASSERT_TRUE(device->Start(&strError)) << strError;
    }
    bool Logged(std::string const &strPart)
    {
        return WaitFor([&] {
            std::lock_guard lock(mx);
            return std::any_of(log.begin(), log.end(), [&](std::string const &str) {
                return str.find(strPart) != std::string::npos;
            });
        });
    }
    void Print(std::string const &strClauses)
    {
        ASSERT_TRUE(WaitFor([&] { return std::filesystem::file_size(config.strPrintPath) == 0; }));
        std::ofstream(config.strPrintPath, std::ios::binary)
            << "\x1B%-12345X@PJL SELECT=\"\x01\x15TYPE=<ECHO>;" << strClauses << "\"\x1B%-12345X";
    }

    SoftDeviceConfig config;
    std::mutex mx;
    std::vector<std::string> log;
    std::optional<CSoftDevice> device;
};

} // namespace

TEST_F(Road, APickOverANetworkIsADatagramUntilItsEcho)
{
    StartDevice();
    CListener listener;
    CTestClient client;
    ASSERT_EQ(client.Init("127.0.0.1", device->Port(), eLT_NETWORK), eDR_OK);
    std::string const strEntry = "Copy;NETADDR=" + listener.strAddress + ";SWINST=5;";
    ASSERT_EQ(client.SetText(g_addOption, strEntry), eDR_OK);

    listener.fEcho = false;
    device->DropDatagrams(1);
    ASSERT_TRUE(device->Pick(1));
    ASSERT_TRUE(device->Pick(1));
    ASSERT_TRUE(Logged("kick 1 dropped"));
    ASSERT_TRUE(listener.WaitForTexts(2));
    for (std::string const &str : listener.Texts())
        EXPECT_EQ(str, strEntry + "KICKSEQ=1;") << "the second waits for the first one's echo";
    listener.fEcho = true;
    ASSERT_TRUE(Logged("kick 2 echoed"));
    EXPECT_EQ(listener.Texts().back(), strEntry + "KICKSEQ=2;");
}

TEST_F(Road, NothingIsSentToWhatIsNoAddress)
{
    StartDevice();
    CTestClient client;
    ASSERT_EQ(client.Init("127.0.0.1", device->Port(), eLT_NETWORK), eDR_OK);
    size_t n = 0;
    for (char const *psz : {"a", "b;NETADDR=;", "c;NETADDR=:1037;", "d;NETADDR=10.0.0.1:0;",
                            "e;NETADDR=host:1;", "f;NETADDR=LINK1;"}) {
        ASSERT_EQ(client.SetText(g_addOption, psz), eDR_OK);
        ASSERT_TRUE(device->Pick(++n));
        EXPECT_TRUE(Logged("not sent, the entry has no address a.b.c.d:port: " + std::string(psz)));
    }
    device->Stop();
    EXPECT_TRUE(std::none_of(log.begin(), log.end(), [](std::string const &str) {
        return str.find("kick") != std::string::npos;
    }));
}

TEST_F(Road, AJobIsAnsweredWhereItSays)
{
    CTempDir dir;
    config.strPrintPath = dir.File("path");
    StartDevice();
    CListener listener;
    CTestClient local;
    ASSERT_EQ(local.InitLocal(device->Port()), eDR_OK);
    std::string const strLocal = local.dol->GetAddress();

    Print("NETADDR=" + listener.strAddress + ";SRVQ=4711;");
    ASSERT_TRUE(listener.WaitForTexts(1));
    EXPECT_EQ(listener.Texts()[0], "TYPE=<ECHO>;SRVQ=4711;MODEL=VELLUMAX 4000;NETADDR=" +
                                       listener.strAddress + ";KICKSEQ=1;");

    Print("NETADDR=" + strLocal + ";SRVQ=1;");
    EXPECT_TRUE(Logged("job not answered: " + strLocal + " has not registered"));
    ASSERT_EQ(local.Trap(g_selectOption, 1), eDR_OK);
    Print("NETADDR=" + strLocal + ";SRVQ=2;");
    std::optional<ReadValue> value;
    ASSERT_TRUE(WaitFor([&] { return (value = local.Read()).has_value(); }));
    EXPECT_EQ(value->strValue, "TYPE=<ECHO>;SRVQ=2;MODEL=VELLUMAX 4000;NETADDR=" + strLocal + ";");

    Print("NETADDR=10.0.0.1:port;SRVQ=3;");
    EXPECT_TRUE(Logged("job refused: its address is neither"));
    Print("SRVQ=3;");
    EXPECT_TRUE(Logged("job refused: it has no address"));
}
