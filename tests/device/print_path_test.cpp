#include "device/print_path.h"

#include "platform/file.h"
#include "platform/sync.h"
#include "tests/support/guards.h"

#include <fstream>
#include <map>

namespace {

std::string Job(int n)
{
    return "\x1B%-12345X@PJL SELECT=\"\x01\x15TYPE=<ECHO>;NETADDR=10.1.2.3:1037;SRVQ=" +
           std::to_string(n) + ";\"\x1B%-12345X";
}

// A print path and what it found.
class PrintPath : public testing::Test {
protected:
    bool WaitForFind(std::string const &str)
    {
        return WaitFor([&] {
            std::lock_guard lock(mx);
            return found.count(str) > 0;
        });
    }

    // As a client of the device writes: to what exists, with nobody reading, and again while the
    // device looks, for then the file is busy. Then waits until the device has taken it.
    bool Write(std::string const &str)
    {
        HANDLE h = INVALID_HANDLE_VALUE;
        WaitFor([&] {
            h = CreateFileA(strPath.c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
            return h != INVALID_HANDLE_VALUE;
        });
        DWORD cb = 0;
        bool const fWritten =
            WriteFile(h, str.data(), static_cast<DWORD>(str.size()), &cb, nullptr) &&
            CloseHandle(h) && cb == str.size();
        return fWritten && WaitFor([&] { return std::filesystem::file_size(strPath) == 0; });
    }

    CTempDir dir;
    std::string const strPath = dir.File("path");
    std::mutex mx;
    std::map<std::string, int> found;
    std::string strError;
    CPrintPath path{strPath,
                    [this](DiscoveryFind const &find) {
                        std::lock_guard lock(mx);
                        ++found[find.strRefusal.empty() ? find.job.strNumber : find.strRefusal];
                    },
                    [](std::string const &) {}};
};

} // namespace

TEST_F(PrintPath, EveryJobWrittenToAFileIsFoundOnce)
{
    ASSERT_TRUE(path.Start(&strError)) << strError;
    constexpr int kJobs = 30;
    for (int n = 0; n < kJobs; ++n) {
        ASSERT_TRUE(Write(Job(n)));
        ASSERT_TRUE(WaitForFind(std::to_string(n)));
    }
    path.Stop();
    EXPECT_EQ(found.size(), std::size_t{kJobs});
    for (auto const &[str, c] : found) {
        EXPECT_EQ(c, 1) << str;
    }
}

TEST_F(PrintPath, LeavesAForeignFileAlone)
{
    std::ofstream(strPath) << "somebody's letter";
    EXPECT_FALSE(path.Start(&strError));
    EXPECT_NE(strError, "");
    EXPECT_EQ(std::filesystem::file_size(strPath), 17u);
}
