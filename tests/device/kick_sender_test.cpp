#include "device/kick_sender.h"

#include <gtest/gtest.h>

using std::chrono::milliseconds;

namespace {

constexpr LinkAddress kA{0x0A010203, 1037};
constexpr LinkAddress kB{0x0A010204, 1037};

// Time that passes only when a test says so, and a wire that keeps what was sent.
class KickSender : public testing::Test {
protected:
    void Pass(milliseconds time)
    {
        now += time;
        sender.Run(now);
    }

    // Echoes everything that was sent, as a listener does, and gives it.
    std::vector<std::string> EchoAll()
    {
        std::vector<std::string> const result = std::move(sent);
        sent.clear();
        for (std::string const &str : result) {
            sender.Echo(kA.wPort, str);
        }
        sender.Run(now);
        return result;
    }

    using Sent = std::vector<std::string>;

    LinkTime now = LinkClock::now();
    Sent sent;
    Sent log;
    CKickSender sender{[this](LinkAddress const &, std::string const &str) { sent.push_back(str); },
                       [this](DeviceEvent const &event) { log.push_back(DeviceEventLine(event)); }};
};

} // namespace

TEST_F(KickSender, SendsAgainUntilItsEchoComes)
{
    EXPECT_EQ(sender.Add(kA, "Copy"), 1u);
    Pass(milliseconds(0));
    Pass(milliseconds(499));
    EXPECT_EQ(sent.size(), 1u);
    Pass(milliseconds(1));
    EXPECT_EQ(sent, Sent(2, "Copy;KICKSEQ=1;"));

    EXPECT_FALSE(sender.Echo(kA.wPort + 1, "Copy;KICKSEQ=1;")) << "another port";
    EXPECT_FALSE(sender.Echo(kA.wPort, "Copy;KICKSEQ=2;")) << "other bytes";
    EXPECT_TRUE(sender.Echo(kA.wPort, "Copy;KICKSEQ=1;"));
    EXPECT_FALSE(sender.Echo(kA.wPort, "Copy;KICKSEQ=1;")) << "a second time";
    EXPECT_EQ(sender.Run(now + milliseconds(60000)), LinkTime::max());
    EXPECT_EQ(sent.size(), 2u);
}

TEST_F(KickSender, GivesUpAndGoesOnWithTheNext)
{
    sender.SetPace(milliseconds(100), 3);
    sender.Add(kA, "x;");
    sender.Add(kA, "y;");
    sender.Add(kB, "z;");
    Pass(milliseconds(0));
    EXPECT_EQ(sent, (Sent{"x;KICKSEQ=1;", "z;KICKSEQ=3;"})) << "y waits for x, z does not";
    sent.clear();
    sender.Echo(kB.wPort, "z;KICKSEQ=3;");
    for (int i = 0; i < 3; ++i) {
        Pass(milliseconds(100));
    }
    EXPECT_EQ(sent, (Sent{"x;KICKSEQ=1;", "x;KICKSEQ=1;", "y;KICKSEQ=2;"}));
}

TEST_F(KickSender, AllArriveWhateverTheOdds)
{
    sender.SetOdds({0.4, 0.4, 0.4, 0.4, 7});
    std::map<std::string, int> counts;
    for (int i = 1; i <= 200; ++i) {
        sender.Add(kA, "x;");
    }
    for (int i = 0; i < 4000 && counts.size() < 200; ++i) {
        for (std::string const &str : EchoAll()) {
            ++counts[str];
        }
        Pass(milliseconds(100));
    }
    EXPECT_EQ(counts.size(), 200u);
    for (char const *pszWhat : {"dropped", "repeated", "held back", "echo lost"}) {
        EXPECT_GT(std::count_if(log.begin(), log.end(),
                                [&](std::string const &str) {
                                    return str.find(pszWhat) != std::string::npos;
                                }),
                  20)
            << pszWhat;
    }
}
