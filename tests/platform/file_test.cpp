#include "platform/file.h"

#include "tests/platform/role.h"

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
    EXPECT_EQ(SetFilePointer(file, -1, &nHigh, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), DWORD{NO_ERROR}) << "a position that looks like a failure";
    EXPECT_TRUE(WriteFile(file, "a", 1, &cb, nullptr));
    EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_BEGIN), 0u);
    EXPECT_TRUE(PlatAppendFile(file, "b", 1, &cb)); // behind 8 GiB, most of them a hole
    nHigh = -1;
    EXPECT_EQ(SetFilePointer(file, -2, &nHigh, FILE_CURRENT), 0xFFFFFFFFu);
    EXPECT_TRUE(ReadFile(file, sz, sizeof sz, &cb, nullptr));
    EXPECT_STREQ(sz, "ab");
}

TEST(FileTest, ABrokenPipeIsAnErrorAndNoSignal)
{
    HANDLE hRead = nullptr;
    HANDLE hWrite = nullptr;
    DWORD cb = 0;
    ASSERT_TRUE(CreatePipe(&hRead, &hWrite, nullptr, 0));
    EXPECT_TRUE(CloseHandle(hRead));
    EXPECT_FAILS(WriteFile(hWrite, "d", 1, &cb, nullptr), ERROR_NO_DATA);
    EXPECT_TRUE(CloseHandle(hWrite));
}
