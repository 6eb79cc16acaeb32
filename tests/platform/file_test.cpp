#include "platform/file.h"

#include "platform/fifo.h"

#include "tests/platform/role.h"

#include <csignal>

namespace {

constexpr DWORD kadwAccess[] = {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE};

HANDLE Open(std::string const &strName, DWORD dwAccess, DWORD dwShare, DWORD dwDisposition)
{
    SetLastError(0xDEADBEEF);
    return CreateFileA(strName.c_str(), dwAccess, dwShare, nullptr, dwDisposition,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

// An open file, closed at the end of the block.
struct COpened {
    COpened(std::string const &strName, DWORD dwAccess, DWORD dwDisposition, DWORD dwShare = 3)
        : m_hFile(Open(strName, dwAccess, dwShare, dwDisposition))
    {
        EXPECT_NE(m_hFile, INVALID_HANDLE_VALUE) << strName << ": " << GetLastError();
    }
    ~COpened() { CloseHandle(m_hFile); }
    operator HANDLE() const { return m_hFile; }
    HANDLE m_hFile;
};

// All ways to open one file, 12 of them, and what of them agrees with one that is open.
constexpr int kcWays = 12;

HANDLE OpenWay(std::string const &strName, int nWay)
{
    return Open(strName, kadwAccess[nWay % 3], static_cast<DWORD>(nWay / 3), OPEN_EXISTING);
}

bool DoAgree(int nOne, int nOther)
{
    // GENERIC_READ is the higher of its two bits, FILE_SHARE_READ the lower.
    auto const needs = [](int nWay) { return nWay % 3 == 0 ? 1 : nWay % 3 == 1 ? 2 : 3; };
    return (needs(nOne) & ~(nOther / 3)) == 0 && (needs(nOther) & ~(nOne / 3)) == 0;
}

void CheckAgainst(std::string const &strName, int nHeld)
{
    for (int nWay = 0; nWay < kcWays; ++nWay) {
        HANDLE const hFile = OpenWay(strName, nWay);
        DWORD const dwError = GetLastError();
        EXPECT_EQ(hFile != INVALID_HANDLE_VALUE, DoAgree(nHeld, nWay)) << nHeld << " and " << nWay;
        EXPECT_EQ(dwError, DoAgree(nHeld, nWay) ? NO_ERROR : DWORD{ERROR_SHARING_VIOLATION});
        EXPECT_TRUE(hFile == INVALID_HANDLE_VALUE || CloseHandle(hFile));
    }
}

CTestRole const g_against("check-shares", [](std::string const &strArgument) {
    std::size_t const nBlank = strArgument.find(' ');
    CheckAgainst(strArgument.substr(nBlank + 1), std::stoi(strArgument));
    return testing::Test::HasFailure() ? 1 : 0;
});

CTestRole const g_holder("hold-file", [](std::string const &strName) {
    COpened const file(strName, GENERIC_READ, OPEN_EXISTING, /*dwShare=*/0);
    Fill(strName + ".held", "");
    Sleep(INFINITE);
    return 0;
});

// Files may have so many bytes. Limited once it runs: a sanitizer writes files of its own before.
CTestRole const g_limited("at-size-limit", [](std::string const &strArgument) {
    std::size_t const nBlank = strArgument.find(' ');
    DWORD const cbLimit = static_cast<DWORD>(std::stoi(strArgument));
    std::string const strName = strArgument.substr(nBlank + 1);
    EXPECT_EQ(RunCommand("prlimit --pid $PPID --fsize=" + std::to_string(cbLimit)), 0u);
    std::string const strBytes(4096, 'x');
    DWORD cb = 0;
    COpened const file(strName, GENERIC_WRITE, CREATE_ALWAYS);
    EXPECT_FAILS(WriteFile(file, strBytes.data(), 4096, &cb, nullptr), ERROR_DISK_FULL);
    EXPECT_EQ(cb, cbLimit);
    EXPECT_FAILS(PlatAppendFile(file, strBytes.data(), 1, &cb), ERROR_DISK_FULL);
    int const fd = _open(strName.c_str(), _O_WRONLY | _O_BINARY);
    EXPECT_EQ(_write(fd, strBytes.data(), 4096), -1);
    EXPECT_EQ(_close(fd), 0);
    std::string const strMutex = UniqueName("limit");
    HANDLE const hMutex = CreateMutexA(nullptr, FALSE, strMutex.c_str());
    EXPECT_EQ(hMutex != nullptr, cbLimit != 0);
    EXPECT_EQ(GetLastError(), cbLimit != 0 ? NO_ERROR : DWORD{ERROR_DISK_FULL});
    return testing::Test::HasFailure() ? 1 : 0;
});

} // namespace

TEST(FileTest, SharesHoldWithinAProcessAndBetweenProcesses)
{
    CTempDir const dir;
    std::string const strName = dir.File("file");
    Fill(strName, "abc");
    for (int nHeld = 0; nHeld < kcWays; ++nHeld) {
        HANDLE const hHeld = OpenWay(strName, nHeld);
        ASSERT_NE(hHeld, INVALID_HANDLE_VALUE);
        CheckAgainst(strName, nHeld);
        EXPECT_EQ(CRoleProcess("check-shares", std::to_string(nHeld) + " " + strName).ExitCode(),
                  0u);
        EXPECT_TRUE(CloseHandle(hHeld));
    }
    // A failed open leaves nothing behind, neither a statement nor an emptied file.
    COpened const reader(strName, GENERIC_READ, OPEN_EXISTING, FILE_SHARE_READ);
    EXPECT_EQ(Open(strName, GENERIC_WRITE, 3, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_EQ(Contents(strName), "abc");
    COpened const other(strName, GENERIC_READ, OPEN_EXISTING, FILE_SHARE_READ);
}

TEST(FileTest, AKilledProcessHoldsNothing)
{
    CTempDir const dir;
    std::string const strName = dir.File("file");
    Fill(strName, "abc");
    CRoleProcess holder("hold-file", strName);
    ASSERT_TRUE(WaitForFile(strName + ".held"));
    EXPECT_EQ(Open(strName, GENERIC_READ, 3, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    holder.Kill();
    COpened const file(strName, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING, /*dwShare=*/0);
}

TEST(FileTest, AppendsBehindAnyPlace)
{
    CTempDir const dir;
    COpened const file(dir.File("file"), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    LONG nHigh = 1;
    DWORD cb = 0;
    char sz[3] = "";
    SetLastError(0xDEADBEEF);
    EXPECT_EQ(SetFilePointer(file, -1, &nHigh, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), DWORD{NO_ERROR}) << "a position that looks like a failure";
    EXPECT_TRUE(WriteFile(file, "a", 1, &cb, nullptr));
    EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_BEGIN), 0u);
    EXPECT_TRUE(PlatAppendFile(file, "b", 1, &cb)); // behind 8 GiB, most of them a hole
    nHigh = -1;
    EXPECT_EQ(SetFilePointer(file, -2, &nHigh, FILE_CURRENT), 0xFFFFFFFFu);
    EXPECT_EQ(nHigh, 1);
    EXPECT_TRUE(ReadFile(file, sz, sizeof sz, &cb, nullptr));
    EXPECT_STREQ(sz, "ab");
}

TEST(FileTest, ALimitOfTheSizeIsAnErrorAndNoSignal)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "no such limit";
    }
    CTempDir const dir;
    for (std::string const strLimit : {"0 ", "1500 "}) {
        EXPECT_EQ(CRoleProcess("at-size-limit", strLimit + dir.File("file")).ExitCode(), 0u);
    }
}

TEST(FileTest, AFifoThatNobodyReadsHoldsUpNobodyForLong)
{
    CTempDir const dir;
    std::string const strName = dir.File("fifo");
    if (!kIsPosix || RunCommand("mkfifo '" + strName + "'") != 0) {
        GTEST_SKIP() << "no pipes among this system's files";
    }
    EXPECT_EQ(Open(strName, GENERIC_WRITE, 2, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_PIPE_BUSY});
    CPlatFifo reader;
    ASSERT_TRUE(reader.Open(strName.c_str()));
    COpened const writer(strName, GENERIC_WRITE, OPEN_ALWAYS);
    std::string strBytes(65536 + 1, 'x'); // one more than it holds
    DWORD cb = 0;
    EXPECT_FAILS(WriteFile(writer, strBytes.data(), 65536 + 1, &cb, nullptr), ERROR_TIMEOUT);
    EXPECT_EQ(cb, 65536u);
    // A reader that is only slow gets all of it.
    std::thread slow([&] {
        for (DWORD cbLeft = 2 * 65536; cbLeft != 0;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            cbLeft -= static_cast<DWORD>(reader.Read(strBytes.data(), 8192, kdwLimit));
        }
    });
    std::string const strMore(65536, 'y');
    EXPECT_TRUE(WriteFile(writer, strMore.data(), 65536, &cb, nullptr));
    slow.join();
    reader.Close();
    std::signal(/*SIGPIPE=*/13, SIG_DFL); // whoever ran before may have it ignored
    EXPECT_FAILS(WriteFile(writer, "d", 1, &cb, nullptr), ERROR_NO_DATA); // and no signal
}

TEST(FileTest, ManyMayOpenItAtOnce)
{
    CTempDir const dir;
    std::string const strName = dir.File("file");
    std::atomic<int> cRefused{0};
    std::vector<std::thread> threads;
    for (int nThread = 0; nThread < 6; ++nThread) {
        threads.emplace_back([&] {
            for (int n = 0; n < 300; ++n) {
                HANDLE const hFile = Open(strName, GENERIC_WRITE, 3, OPEN_ALWAYS);
                cRefused += hFile == INVALID_HANDLE_VALUE || !CloseHandle(hFile) ? 1 : 0;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(cRefused, 0);
}

TEST(FileTest, WhatIsNotSupportedIsRefused)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "there it is";
    }
    CTempDir const dir;
    std::string const strName = dir.File("file");
    struct {
        DWORD dwAccess, dwShare, dwDisposition, dwFlags;
    } const aOpens[] = {{0, 3, OPEN_ALWAYS, 0},
                        {GENERIC_READ | 1, 3, OPEN_ALWAYS, 0},
                        {GENERIC_READ, 8, OPEN_ALWAYS, 0},
                        {GENERIC_READ, 3, 0, 0},
                        {GENERIC_READ, 3, TRUNCATE_EXISTING + 1, 0},
                        {GENERIC_READ, 3, TRUNCATE_EXISTING, 0},
                        {GENERIC_READ, 3, OPEN_ALWAYS, 0x40000000}};
    for (auto const &c : aOpens) {
        SetLastError(0xDEADBEEF);
        EXPECT_EQ(CreateFileA(strName.c_str(), c.dwAccess, c.dwShare, nullptr, c.dwDisposition,
                              c.dwFlags, nullptr),
                  INVALID_HANDLE_VALUE)
            << &c - aOpens;
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER}) << &c - aOpens;
    }
    EXPECT_FALSE(std::filesystem::exists(strName));
    COpened const writer(strName, GENERIC_WRITE, CREATE_NEW);
    COpened const reader(strName, GENERIC_READ, OPEN_EXISTING);
    char ch = 'x';
    auto *const pOverlapped = reinterpret_cast<OVERLAPPED *>(&ch);
    DWORD cb = 99;
    EXPECT_FAILS(ReadFile(writer, &ch, 1, &cb, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(WriteFile(reader, &ch, 1, &cb, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_EQ(cb, 0u);
    EXPECT_FAILS(ReadFile(reader, &ch, 1, nullptr, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(ReadFile(reader, &ch, 1, &cb, pOverlapped), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(WriteFile(writer, &ch, 1, nullptr, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(WriteFile(writer, &ch, 1, &cb, pOverlapped), ERROR_INVALID_PARAMETER);
    for (int const nFlags : {_O_RDWR, _O_BINARY | 3, _O_BINARY | _O_TRUNC, _O_BINARY | 0x10}) {
        EXPECT_EQ(_open(strName.c_str(), nFlags), -1) << nFlags;
        EXPECT_EQ(errno, EINVAL) << nFlags;
    }

    struct {
        LONG nDistance, nHigh; // 99: a null pointer
        DWORD dwMethod, dwError;
    } const aMoves[] = {{0, 99, 3, ERROR_INVALID_PARAMETER},
                        {-1, 99, FILE_BEGIN, ERROR_NEGATIVE_SEEK},
                        {-6, 99, FILE_END, ERROR_NEGATIVE_SEEK},
                        {-6, -1, FILE_CURRENT, ERROR_NEGATIVE_SEEK},
                        {-1, 0x7FFFFFFF, FILE_CURRENT, ERROR_INVALID_PARAMETER}};
    EXPECT_TRUE(WriteFile(writer, "abcde", 5, &cb, nullptr));
    EXPECT_EQ(SetFilePointer(writer, -3, nullptr, FILE_END), 2u);
    for (auto const &c : aMoves) {
        LONG nHigh = c.nHigh;
        SetLastError(0xDEADBEEF);
        EXPECT_EQ(SetFilePointer(writer, c.nDistance, c.nHigh == 99 ? nullptr : &nHigh, c.dwMethod),
                  INVALID_SET_FILE_POINTER);
        EXPECT_EQ(GetLastError(), c.dwError) << &c - aMoves;
        EXPECT_EQ(SetFilePointer(writer, 0, nullptr, FILE_CURRENT), 2u)
            << "a failure moves nothing";
    }
}
