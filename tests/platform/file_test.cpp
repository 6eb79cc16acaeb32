#include "platform/file.h"

#include "tests/platform/role.h"
#include "tests/support/guards.h"

#include <atomic>
#include <cerrno>
#include <fstream>
#include <iterator>

namespace {

constexpr DWORD kdwPoison = 0xDEADBEEF;
constexpr DWORD kadwAccess[] = {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE};

HANDLE Open(std::string const &strName, DWORD dwAccess, DWORD dwShare, DWORD dwDisposition)
{
    SetLastError(kdwPoison);
    return CreateFileA(strName.c_str(), dwAccess, dwShare, nullptr, dwDisposition,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

void Fill(std::string const &strName, std::string const &strContents)
{
    std::ofstream(strName, std::ios::binary) << strContents;
}

std::string Contents(std::string const &strName)
{
    std::ifstream file(strName, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
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
        if (hFile != INVALID_HANDLE_VALUE) {
            EXPECT_TRUE(CloseHandle(hFile));
        }
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
        DWORD dwMissing;  // the last error for a file that is not there,
        DWORD dwExisting; // and for one that is
        char const *pszExisting;
    } const aCases[] = {
        {CREATE_NEW, NO_ERROR, ERROR_FILE_EXISTS, "abc"},
        {CREATE_ALWAYS, NO_ERROR, ERROR_ALREADY_EXISTS, ""},
        {OPEN_EXISTING, ERROR_FILE_NOT_FOUND, NO_ERROR, "abc"},
        {OPEN_ALWAYS, NO_ERROR, ERROR_ALREADY_EXISTS, "abc"},
        {TRUNCATE_EXISTING, ERROR_FILE_NOT_FOUND, NO_ERROR, ""},
    };
    CTempDir const dir;
    for (auto const &test : aCases) {
        for (DWORD const dwAccess : kadwAccess) {
            if (dwAccess == GENERIC_READ && test.dwDisposition == TRUNCATE_EXISTING) {
                continue; // refused for the arguments alone
            }
            std::string const strName = dir.File("file");
            std::filesystem::remove(strName);
            for (DWORD const dwExpected : {test.dwMissing, test.dwExisting}) {
                bool const fExisting = std::filesystem::exists(strName);
                if (fExisting) {
                    Fill(strName, "abc");
                }
                HANDLE const hFile = Open(strName, dwAccess, 0, test.dwDisposition);
                EXPECT_EQ(GetLastError(), dwExpected) << test.dwDisposition;
                bool const fOpens = dwExpected == NO_ERROR || dwExpected == ERROR_ALREADY_EXISTS;
                EXPECT_EQ(hFile != INVALID_HANDLE_VALUE, fOpens) << test.dwDisposition;
                if (fOpens) {
                    EXPECT_TRUE(CloseHandle(hFile));
                    EXPECT_EQ(Contents(strName), fExisting ? test.pszExisting : "");
                }
                Fill(strName, "abc");
            }
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
        DWORD dwAccess, dwShare, dwDisposition, dwFlags, dwError;
        bool fPosixOnly; // Windows agrees or knows more, Wine is easier to please
    } const aCases[] = {
        {"", GENERIC_READ, 3, OPEN_EXISTING, 0, ERROR_PATH_NOT_FOUND, false},
        {dir.File("none"), GENERIC_READ, 3, OPEN_EXISTING, 0, ERROR_FILE_NOT_FOUND, false},
        {dir.File("none/file"), GENERIC_READ, 3, OPEN_EXISTING, 0, ERROR_PATH_NOT_FOUND, false},
        {dir.File("none/file"), GENERIC_WRITE, 3, CREATE_ALWAYS, 0, ERROR_PATH_NOT_FOUND, false},
        {dir.File("file/file"), GENERIC_READ, 3, OPEN_EXISTING, 0, ERROR_PATH_NOT_FOUND, false},
        {dir.File("folder"), GENERIC_READ, 3, OPEN_EXISTING, 0, ERROR_ACCESS_DENIED, false},
        {dir.File("folder"), GENERIC_WRITE, 3, OPEN_EXISTING, 0, ERROR_ACCESS_DENIED, false},
        {dir.File("folder"), GENERIC_WRITE, 3, CREATE_ALWAYS, 0, ERROR_ACCESS_DENIED, false},
        {dir.File("file"), GENERIC_READ, 3, 0, 0, ERROR_INVALID_PARAMETER, false},
        {dir.File("file"), GENERIC_READ, 3, 6, 0, ERROR_INVALID_PARAMETER, false},
        {dir.File("file"), GENERIC_READ, 8, OPEN_EXISTING, 0, ERROR_INVALID_PARAMETER, true},
        {dir.File("file"), GENERIC_READ, 3, TRUNCATE_EXISTING, 0, ERROR_INVALID_PARAMETER, true},
        {dir.File("file"), 0, 3, OPEN_EXISTING, 0, ERROR_INVALID_PARAMETER, true},
        {dir.File("file"), GENERIC_ALL, 3, OPEN_EXISTING, 0, ERROR_INVALID_PARAMETER, true},
        {dir.File("file"), GENERIC_READ, 3, OPEN_EXISTING, 0x40000000, ERROR_INVALID_PARAMETER,
         true},
    };
    for (auto const &test : aCases) {
        if (test.fPosixOnly && !kIsPosix) {
            continue;
        }
        SetLastError(kdwPoison);
        EXPECT_EQ(CreateFileA(test.strName.c_str(), test.dwAccess, test.dwShare, nullptr,
                              test.dwDisposition, test.dwFlags, nullptr),
                  INVALID_HANDLE_VALUE)
            << test.strName;
        EXPECT_EQ(GetLastError(), test.dwError) << test.strName << ' ' << test.dwDisposition;
    }
    EXPECT_EQ(Contents(dir.File("file")), "abc");
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
    ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(strName + ".held"); }));
    EXPECT_EQ(Open(strName, GENERIC_READ, 3, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    holder.Kill();
    COpened const file(strName, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING, /*dwShare=*/0);
}

TEST(FileTest, TransfersAreWholeAndTheEndIsNoError)
{
    CTempDir const dir;
    COpened const file(dir.File("file"), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    std::string strLarge(3'000'001, 'x');
    strLarge.back() = 'y';
    SetLastError(kdwPoison);
    EXPECT_TRUE(Write(file, strLarge));
    EXPECT_TRUE(Write(file, ""));
    EXPECT_EQ(Read(file, 5), "");
    EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_BEGIN), 0u);
    EXPECT_EQ(Read(file, 4'000'000), strLarge);
    EXPECT_EQ(Read(file, 0), "");
    EXPECT_EQ(GetLastError(), kdwPoison);
}

TEST(FileTest, HandlesWithoutTheRightOrWithoutAFileFail)
{
    CTempDir const dir;
    std::string const strName = dir.File("file");
    char ch = 0;
    DWORD cb = 99;
    COpened const writer(strName, GENERIC_WRITE, CREATE_NEW);
    COpened const reader(strName, GENERIC_READ, OPEN_EXISTING);
    EXPECT_FAILS(ReadFile(writer, &ch, 1, &cb, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_EQ(cb, 0u);
    EXPECT_FAILS(WriteFile(reader, &ch, 1, &cb, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(ReadFile(nullptr, &ch, 1, &cb, nullptr), ERROR_INVALID_HANDLE);
    EXPECT_FAILS(WriteFile(INVALID_HANDLE_VALUE, &ch, 1, &cb, nullptr), ERROR_INVALID_HANDLE);
}

TEST(FileTest, SeeksByAllMethodsAndRefusesTheImpossible)
{
    struct {
        LONG nDistance;
        DWORD dwMethod;
        DWORD dwExpected;
        DWORD dwError;
    } const aCases[] = {
        {4, FILE_BEGIN, 4, kdwPoison},
        {3, FILE_CURRENT, 7, kdwPoison},
        {-2, FILE_CURRENT, 5, kdwPoison},
        {-6, FILE_CURRENT, INVALID_SET_FILE_POINTER, ERROR_NEGATIVE_SEEK},
        {-1, FILE_BEGIN, INVALID_SET_FILE_POINTER, ERROR_NEGATIVE_SEEK},
        {0, 3, INVALID_SET_FILE_POINTER, ERROR_INVALID_PARAMETER},
        {0, FILE_CURRENT, 5, kdwPoison}, // the failures have moved nothing
        {-10, FILE_END, 0, kdwPoison},
        {20, FILE_END, 30, kdwPoison},
        {0x7FFFFFFF, FILE_CURRENT, 0x8000001D, kdwPoison},
    };
    CTempDir const dir;
    COpened const file(dir.File("file"), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    ASSERT_TRUE(Write(file, "0123456789"));
    for (auto const &test : aCases) {
        SetLastError(kdwPoison);
        EXPECT_EQ(SetFilePointer(file, test.nDistance, nullptr, test.dwMethod), test.dwExpected)
            << test.nDistance << ' ' << test.dwMethod;
        EXPECT_EQ(GetLastError(), test.dwError) << test.nDistance << ' ' << test.dwMethod;
    }
    LONG nHigh = 1;
    SetLastError(kdwPoison);
    EXPECT_EQ(SetFilePointer(file, -1, &nHigh, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), DWORD{NO_ERROR}); // a position that looks like a failure
    EXPECT_EQ(nHigh, 1);
}

TEST(FileTest, DevicesAndPipesOfTheFileSystem)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "FIFOs and /dev are of POSIX alone";
    }
    DWORD cb = 99;
    COpened const full("/dev/full", GENERIC_WRITE, OPEN_EXISTING, FILE_SHARE_WRITE);
    EXPECT_FAILS(WriteFile(full, "abc", 3, &cb, nullptr), ERROR_DISK_FULL);
    EXPECT_EQ(cb, 0u);
    COpened const null("/dev/null", GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS, 0);
    EXPECT_TRUE(Write(null, "abc"));
    EXPECT_EQ(Read(null, 3), "");

    CTempDir const dir;
    std::string const strName = dir.File("fifo");
    PlatEnvType const variable = {"FIFO", strName.c_str()};
    DWORD dwExit = 99;
    ASSERT_TRUE(PlatRunCommand("mkfifo \"$FIFO\"", &variable, 1, kdwLimit, &dwExit));
    ASSERT_EQ(dwExit, 0u);
    std::atomic<bool> fOpened{false};
    HANDLE hWriter = nullptr;
    std::thread writer([&] {
        hWriter = Open(strName, GENERIC_WRITE, FILE_SHARE_WRITE, OPEN_EXISTING);
        fOpened = true;
    });
    EXPECT_FALSE(
        WaitFor([&] { return fOpened.load(); }, std::chrono::seconds(1))); // nobody reads yet
    {
        COpened const reader(strName, GENERIC_READ, OPEN_EXISTING);
        writer.join();
        EXPECT_TRUE(Write(hWriter, "abc"));
        EXPECT_EQ(Read(reader, 10), "abc");
    }
    EXPECT_FAILS(WriteFile(hWriter, "d", 1, &cb, nullptr), ERROR_NO_DATA); // and no signal ends us
    EXPECT_TRUE(CloseHandle(hWriter));
}

TEST(FileTest, DescriptorsOfTheRuntime)
{
    constexpr int kfwLog = _O_RDWR | _O_APPEND | _O_CREAT | _O_BINARY;
    static_assert(kfwLog == 0x810A && _S_IWRITE == 128);
    CTempDir const dir;
    std::string const strName = dir.File("file");
    for (int i = 0; i < 2; ++i) {
        int const fd = _open(strName.c_str(), kfwLog, _S_IWRITE);
        ASSERT_NE(fd, -1);
        EXPECT_EQ(_write(fd, "a\r\nb", 4), 4);
        EXPECT_EQ(_close(fd), 0);
    }
    EXPECT_EQ(Contents(strName), "a\r\nba\r\nb");
    {
        COpened const alone(strName, GENERIC_READ, OPEN_EXISTING, FILE_SHARE_READ);
        EXPECT_EQ(_open(strName.c_str(), kfwLog, _S_IWRITE), -1);
        EXPECT_EQ(errno, EACCES);
    }
    EXPECT_EQ(_open(dir.File("none/file").c_str(), kfwLog, _S_IWRITE), -1);
    EXPECT_EQ(errno, ENOENT);
    if (kIsPosix) {
        EXPECT_EQ(_open(strName.c_str(), _O_RDONLY), -1); // there is no text mode
        EXPECT_EQ(errno, EINVAL);
        int const fd = _open("/dev/full", _O_WRONLY | _O_BINARY);
        EXPECT_EQ(_write(fd, "a", 1), -1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(_close(fd), 0);
        EXPECT_EQ(_close(fd), -1);
        EXPECT_EQ(errno, EBADF);
    }
}
