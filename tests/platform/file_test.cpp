#include "platform/file.h"

#include "tests/platform/role.h"

#include <cerrno>

namespace {

constexpr DWORD kadwAccess[] = {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE};

HANDLE Open(std::string const &strName, DWORD dwAccess, DWORD dwShare, DWORD dwDisposition)
{
    SetLastError(0xDEADBEEF);
    return CreateFileA(strName.c_str(), dwAccess, dwShare, nullptr, dwDisposition,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

/// An open file, closed at the end of the block.
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

bool Write(HANDLE hFile, std::string const &str)
{
    DWORD cb = 99;
    return WriteFile(hFile, str.data(), static_cast<DWORD>(str.size()), &cb, nullptr) &&
           cb == str.size();
}

std::string Read(HANDLE hFile, DWORD cb)
{
    std::string str(cb, '?');
    DWORD cbRead = 99;
    EXPECT_TRUE(ReadFile(hFile, str.data(), cb, &cbRead, nullptr)) << GetLastError();
    return str.substr(0, cbRead);
}

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

} // namespace

TEST(FileTest, DispositionsOfMissingAndExistingFiles)
{
    struct {
        DWORD dwDisposition;
        DWORD adwError[2]; // for a file that is not there, and for one that is
        char const *pszExisting;
    } const aCases[] = {
        {CREATE_NEW, {NO_ERROR, ERROR_FILE_EXISTS}, "abc"},
        {CREATE_ALWAYS, {NO_ERROR, ERROR_ALREADY_EXISTS}, ""},
        {OPEN_EXISTING, {ERROR_FILE_NOT_FOUND, NO_ERROR}, "abc"},
        {OPEN_ALWAYS, {NO_ERROR, ERROR_ALREADY_EXISTS}, "abc"},
        {TRUNCATE_EXISTING, {ERROR_FILE_NOT_FOUND, NO_ERROR}, ""},
    };
    for (auto const &test : aCases) {
        CTempDir const dir;
        std::string const strName = dir.File("file");
        for (bool const fExisting : {false, true}) {
            HANDLE const hFile = Open(strName, GENERIC_WRITE, 0, test.dwDisposition);
            EXPECT_EQ(GetLastError(), test.adwError[fExisting]) << test.dwDisposition;
            EXPECT_TRUE(hFile == INVALID_HANDLE_VALUE || CloseHandle(hFile));
            EXPECT_EQ(Contents(strName), fExisting ? test.pszExisting : "");
            Fill(strName, "abc");
        }
    }
}

TEST(FileTest, RefusalsTellWhatIsWrong)
{
    CTempDir const dir;
    Fill(dir.File("file"), "abc");
    std::filesystem::create_directory(dir.File("folder"));
    struct {
        std::string strName;
        DWORD dwAccess, dwDisposition, dwError;
    } const aCases[] = {
        {"", GENERIC_READ, OPEN_EXISTING, ERROR_PATH_NOT_FOUND},
        {dir.File("none/file"), GENERIC_WRITE, CREATE_ALWAYS, ERROR_PATH_NOT_FOUND},
        {dir.File("file/file"), GENERIC_READ, OPEN_EXISTING, ERROR_PATH_NOT_FOUND},
        {dir.File("folder"), GENERIC_READ, OPEN_EXISTING, ERROR_ACCESS_DENIED},
    };
    for (auto const &test : aCases) {
        EXPECT_EQ(Open(test.strName, test.dwAccess, 3, test.dwDisposition), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), test.dwError) << test.strName << ' ' << test.dwDisposition;
    }
}

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
    EXPECT_EQ(Read(reader, 10), "abc");
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

TEST(FileTest, TransfersAreWholeAndNeedTheRight)
{
    CTempDir const dir;
    std::string const strName = dir.File("file");
    std::string const strLarge = std::string(3'000'000, 'x') + "y";
    COpened const writer(strName, GENERIC_WRITE, CREATE_NEW);
    COpened const reader(strName, GENERIC_READ, OPEN_EXISTING);
    EXPECT_TRUE(Write(writer, strLarge));
    EXPECT_EQ(Read(reader, 4'000'000), strLarge);
    EXPECT_EQ(Read(reader, 5), "") << "the end is no error";
    char ch = 0;
    DWORD cb = 99;
    EXPECT_FAILS(ReadFile(writer, &ch, 1, &cb, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_EQ(cb, 0u);
    EXPECT_FAILS(WriteFile(reader, &ch, 1, &cb, nullptr), ERROR_ACCESS_DENIED);
}

TEST(FileTest, SeeksAndAppendsFarAndRefusesTheImpossible)
{
    CTempDir const dir;
    COpened const file(dir.File("file"), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    EXPECT_EQ(SetFilePointer(file, 7, nullptr, FILE_CURRENT), 7u);
    EXPECT_EQ(SetFilePointer(file, -8, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NEGATIVE_SEEK});
    EXPECT_EQ(SetFilePointer(file, 0x7FFFFFFF, nullptr, FILE_CURRENT), 0x80000006u);
    LONG nHigh = 1;
    EXPECT_EQ(SetFilePointer(file, -1, &nHigh, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), DWORD{NO_ERROR}) << "a position that looks like a failure";
    EXPECT_EQ(nHigh, 1);
    DWORD cb = 0;
    EXPECT_TRUE(Write(file, "a"));
    EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_BEGIN), 0u);
    EXPECT_TRUE(PlatAppendFile(file, "b", 1, &cb)); // behind 8 GiB, most of them a hole
    nHigh = -1;
    EXPECT_EQ(SetFilePointer(file, -2, &nHigh, FILE_CURRENT), 0xFFFFFFFFu);
    EXPECT_EQ(Read(file, 5), "ab");
}

TEST(FileTest, AFullDiskAndABrokenPipeAreErrors)
{
    if (!kIsPosix)
        GTEST_SKIP() << "/dev is of POSIX alone";
    DWORD cb = 99;
    COpened const full("/dev/full", GENERIC_WRITE, OPEN_EXISTING);
    EXPECT_FAILS(WriteFile(full, "abc", 3, &cb, nullptr), ERROR_DISK_FULL);
    EXPECT_EQ(cb, 0u);
    HANDLE hRead = nullptr;
    HANDLE hWrite = nullptr;
    ASSERT_TRUE(CreatePipe(&hRead, &hWrite, nullptr, 0));
    EXPECT_TRUE(Write(hWrite, "abc"));
    EXPECT_EQ(Read(hRead, 10), "abc");
    EXPECT_TRUE(CloseHandle(hRead));
    EXPECT_FAILS(WriteFile(hWrite, "d", 1, &cb, nullptr), ERROR_NO_DATA); // and no signal ends us
    EXPECT_TRUE(CloseHandle(hWrite));
}

TEST(FileTest, DescriptorsOfTheRuntime)
{
    constexpr int kfwLog = _O_RDWR | _O_APPEND | _O_CREAT | _O_BINARY;
    CTempDir const dir;
    std::string const strName = dir.File("file");
    auto const error = [](int nResult) { return nResult == -1 ? errno : 0; };
    for (int i = 0; i < 2; ++i) {
        int const fd = _open(strName.c_str(), kfwLog, _S_IWRITE);
        EXPECT_EQ(_write(fd, "a\r\nb", 4), 4);
        EXPECT_EQ(_close(fd), 0);
    }
    EXPECT_EQ(Contents(strName), "a\r\nba\r\nb");
    {
        COpened const alone(strName, GENERIC_READ, OPEN_EXISTING, FILE_SHARE_READ);
        EXPECT_EQ(error(_open(strName.c_str(), kfwLog, _S_IWRITE)), EACCES);
    }
    if (kIsPosix) {
        int const fd = _open("/dev/full", _O_WRONLY | _O_BINARY);
        EXPECT_EQ(error(_write(fd, "a", 1)), ENOSPC);
        EXPECT_EQ(_close(fd), 0);
    }
}
