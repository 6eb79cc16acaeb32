#include "device/print_path.h"

#include "platform/file.h"
#include "platform/sync.h"
#include "tests/support/guards.h"

#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>

namespace {

std::string Job(int n)
{
    return "\x1B%-12345X@PJL SELECT=\"\x01\x15TYPE=<ECHO>;NETADDR=10.1.2.3:1037;SRVQ=" +
           std::to_string(n) + ";\"\x1B%-12345X";
}

// A print path and what it found.
class PrintPath : public testing::Test {
protected:
    void Start()
    {
        std::string strError;
        path.emplace(
            strPath, [this](DiscoveryFind const &find) { Found(find); },
            [](std::string const &) {});
        ASSERT_TRUE(path->Start(&strError)) << strError;
    }

    void Found(DiscoveryFind const &find)
    {
        std::lock_guard lock(mx);
        ++found[find.strRefusal.empty() ? find.job.strNumber : find.strRefusal];
    }

    bool WaitForFind(std::string const &str)
    {
        return WaitFor([&] {
            std::lock_guard lock(mx);
            return found.count(str) > 0;
        });
    }

    bool WaitUntilEmpty()
    {
        return WaitFor([&] { return std::filesystem::file_size(strPath) == 0; });
    }

    // As a client of the device writes: to what exists, from its beginning, with nobody reading.
    bool Write(std::string const &str)
    {
        HANDLE const h = CreateFileA(strPath.c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (h == INVALID_HANDLE_VALUE)
            return false;
        DWORD cb = 0;
        BOOL const fWritten =
            WriteFile(h, str.data(), static_cast<DWORD>(str.size()), &cb, nullptr);
        CloseHandle(h);
        return fWritten && cb == str.size();
    }

    CTempDir dir;
    std::string const strPath = dir.File("path");
    std::mutex mx;
    std::map<std::string, int> found;
    std::optional<CPrintPath> path;
};

} // namespace

TEST_F(PrintPath, EveryJobWrittenToAFileIsFoundOnce)
{
    Start();
    constexpr int kJobs = 30;
    for (int n = 0; n < kJobs; ++n) {
        // While the device looks, the file is busy.
        ASSERT_TRUE(WaitFor([&] { return Write(Job(n)); }));
        ASSERT_TRUE(WaitForFind(std::to_string(n)));
        ASSERT_TRUE(WaitUntilEmpty());
    }
    path->Stop();
    EXPECT_EQ(found.size(), size_t{kJobs});
    for (auto const &[str, c] : found)
        EXPECT_EQ(c, 1) << str;
}

TEST_F(PrintPath, RefusesBadJobsInAFileAndGoesOn)
{
    Start();
    ASSERT_TRUE(WaitFor([&] { return Write(Job(1).substr(0, 30)); }));
    EXPECT_TRUE(WaitForFind("it was cut off"));
    ASSERT_TRUE(WaitUntilEmpty());
    ASSERT_TRUE(WaitFor([&] { return Write(std::string(1 << 20, 'x')); }));
    EXPECT_TRUE(WaitForFind("it does not begin with the exit sequence"));
    ASSERT_TRUE(WaitUntilEmpty());
    ASSERT_TRUE(WaitFor([&] { return Write(Job(1)); }));
    EXPECT_TRUE(WaitForFind("1"));
}

TEST_F(PrintPath, LeavesAForeignFileAlone)
{
    std::ofstream(strPath) << "somebody's letter";
    for (std::string const &str : {strPath, dir.File(".")}) {
        std::string strError;
        CPrintPath other(
            str, [](DiscoveryFind const &) {}, [](std::string const &) {});
        EXPECT_FALSE(other.Start(&strError)) << str;
        EXPECT_NE(strError, "");
    }
    EXPECT_EQ(std::filesystem::file_size(strPath), 17u);
}

TEST_F(PrintPath, ReadsAFifoFromWriterAfterWriter)
{
    if (!kIsPosix)
        GTEST_SKIP() << "no FIFOs here";
    ASSERT_EQ(std::system(("mkfifo '" + strPath + "'").c_str()), 0);
    Start();
    for (int n = 1; n < 4; ++n) {
        std::ofstream(strPath, std::ios::binary) << Job(n);
        EXPECT_TRUE(WaitForFind(std::to_string(n)));
    }
    std::ofstream(strPath, std::ios::binary) << Job(4).substr(0, 50);
    EXPECT_TRUE(WaitForFind("it was cut off"));
    std::ofstream(strPath, std::ios::binary) << Job(5);
    EXPECT_TRUE(WaitForFind("5"));
    path->Stop(); // with no writer
}
