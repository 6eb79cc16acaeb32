// Bytes along a print path: what is found does not depend on the pieces that they come in, a job that was
// taken can be written down again and is taken then, and an address in it reads as it is printed.
// Input: the size of the pieces (1 byte, less 1), then the bytes.

#include "device/discovery_job.h"
#include "devlink/link_stream.h"
#include "fuzz/fuzz_input.h"

#include <tuple>

namespace {

using Finds = std::vector<std::tuple<std::string, std::string, std::string>>;

Finds Scan(std::string const &strBytes, std::size_t cbPiece)
{
    CDiscoveryScanner scanner;
    Finds all;
    auto const Keep = [&](std::vector<DiscoveryFind> const &finds) {
        for (DiscoveryFind const &find : finds) {
            bool const bJob = find.strRefusal.empty(); // a refused one may be filled in half
            all.emplace_back(find.strRefusal, bJob ? find.job.strAddress : "",
                             bJob ? find.job.strNumber : "");
        }
    };
    for (std::size_t nPos = 0; nPos < strBytes.size(); nPos += cbPiece) {
        Keep(scanner.Feed(strBytes.data() + nPos, std::min(cbPiece, strBytes.size() - nPos)));
    }
    Keep(scanner.Flush());
    Must(!scanner.HasRest(), "nothing is left after Flush");
    return all;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *pData, std::size_t cbData)
{
    CFuzzInput input(pData, cbData);
    std::size_t const cbPiece = input.Byte() + 1;
    std::string const strBytes = input.Take(cbData);
    Finds const finds = Scan(strBytes, cbPiece);
    Must(finds == Scan(strBytes, cbData + 1), "pieces of any size give the same");
    for (auto const &[strRefusal, strAddress, strNumber] : finds) {
        if (!strRefusal.empty()) {
            continue;
        }
        std::string const strJob =
            "\x1B%-12345X@PJL SELECT=\"\x01\x15TYPE=<ECHO>;NETADDR=" + strAddress +
            ";SRVQ=" + strNumber + ";\"\x1B%-12345X";
        Must(Scan(strJob, cbPiece) == Finds{{"", strAddress, strNumber}}, "a job stays that job");
        LinkAddress address;
        if (ParseHostAndPort(strAddress, &address)) {
            Must(FormatAddress(address) == strAddress, "an address is printed as it was read");
        }
    }
    return 0;
}
