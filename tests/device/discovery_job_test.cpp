#include "device/discovery_job.h"

#include <gtest/gtest.h>

namespace {

std::string const kUel = "\x1B%-12345X";
std::string const kHead = "@PJL SELECT=\"\x01\x15";

std::string Job(std::string const &strClauses)
{
    return kUel + kHead + strClauses + "\"" + kUel;
}

std::string GoodJob(int n)
{
    return Job("TYPE=<ECHO>;NETADDR=10.1.2.3:1037;SRVQ=" + std::to_string(n) + ";");
}

using Strings = std::vector<std::string>;

// Of a good job its address and number, of a bad one the reason.
Strings Scan(std::string const &str, std::size_t cbPiece)
{
    CDiscoveryScanner scanner;
    Strings result;
    auto const add = [&](std::vector<DiscoveryFind> const &finds) {
        for (auto const &[job, strRefusal] : finds) {
            result.push_back(strRefusal.empty() ? job.strAddress + " " + job.strNumber
                                                : strRefusal);
        }
    };
    for (std::size_t n = 0; n < str.size(); n += cbPiece) {
        add(scanner.Feed(str.data() + n, std::min(cbPiece, str.size() - n)));
    }
    add(scanner.Flush());
    EXPECT_FALSE(scanner.HasRest());
    return result;
}

} // namespace

TEST(DiscoveryScanner, JobsAndRefusals)
{
    std::string const strGood = "10.1.2.3:1037 4711";
    std::string const strStart = "it does not begin with the exit sequence";
    struct {
        char const *pszWhat;
        std::string strInput;
        Strings expected;
    } const cases[] = {
        {"one job", GoodJob(4711), {strGood}},
        {"two jobs, a line end between",
         GoodJob(4711) + "\r\n" + GoodJob(-1),
         {strGood, "10.1.2.3:1037 -1"}},
        {"a local address", Job("TYPE=<ECHO>;NETADDR=LINK0;SRVQ=0;"), {"LINK0 0"}},
        {"cut off at the end", GoodJob(1).substr(0, 40), {"it was cut off"}},
        {"without its end, then a good one",
         GoodJob(1).substr(0, GoodJob(1).size() - 9) + GoodJob(2),
         {"10.1.2.3:1037 1", "10.1.2.3:1037 2"}},
        {"cut off, then a good one",
         GoodJob(1).substr(0, 40) + GoodJob(4711),
         {"its quote is not closed", strGood}},
        {"other data, then a good one", "plain \x1B text" + GoodJob(4711), {strStart, strGood}},
        {"another command",
         kUel + "@PJL INFO ID\r\n" + kUel,
         {"it does not begin with the select command"}},
        {"another type", Job("TYPE=<SCAN>;NETADDR=a;SRVQ=1;"), {"its type is not <ECHO>"}},
        {"no address", Job("TYPE=<ECHO>;SRVQ=1;"), {"it has no address"}},
        {"no number", Job("TYPE=<ECHO>;NETADDR=a;"), {"it has no number"}},
        {"number without its end", Job("TYPE=<ECHO>;NETADDR=a;SRVQ=1"), {"it has no number"}},
        {"1 MiB, then a good one",
         Job(std::string(1 << 20, 'x')) + GoodJob(4711),
         {"it is too long", strGood}},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(c.pszWhat);
        EXPECT_EQ(Scan(c.strInput, c.strInput.size()), c.expected);
        EXPECT_EQ(Scan(c.strInput, 1), c.expected) << "byte by byte";
    }
}
