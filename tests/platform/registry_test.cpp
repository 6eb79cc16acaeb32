#include "platform/registry.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/guards.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace {

constexpr char kHeader[] = "Windows Registry Editor Version 5.00\n";

// A file with one key, HKEY_LOCAL_MACHINE\K, and what it holds.
std::string KeyFile(std::string const &strValues)
{
    return std::string(kHeader) + "[HKEY_LOCAL_MACHINE\\K]\n" + strValues;
}

std::string InUtf16(std::string const &str)
{
    std::string strWide = "\xFF\xFE";
    for (char const ch : str) {
        strWide += ch;
        strWide += '\0';
    }
    return strWide;
}

class Registry : public testing::Test {
protected:
    ~Registry() override
    {
        EXPECT_EQ(PlatLiveKeys(), 0u);
        PlatSetRegistryFile(nullptr);
    }

    // Puts bytes in the place of the file and makes it the registry; what PlatSetRegistryFile says.
    DWORD Use(std::string const &str)
    {
        Write(str);
        return PlatSetRegistryFile(m_strPath.c_str());
    }
    void Write(std::string const &str) const
    {
        std::ofstream(m_strPath, std::ios::binary | std::ios::trunc) << str;
    }

    CTempDir m_dir;
    std::string const m_strPath = m_dir.File("r.reg");
};

HKEY Open(char const *pszKey, REGSAM dwAccess = KEY_READ, HKEY hParent = HKEY_LOCAL_MACHINE)
{
    HKEY hKey = nullptr;
    return RegOpenKeyExA(hParent, pszKey, 0, dwAccess, &hKey) == 0 ? hKey : nullptr;
}

// A value as "type:bytes"; "error N" when there is none.
std::string Query(HKEY hKey, char const *pszValue)
{
    DWORD dwType = 4711;
    BYTE ab[1000];
    DWORD cb = sizeof(ab);
    LONG const nStatus = RegQueryValueExA(hKey, pszValue, nullptr, &dwType, ab, &cb);
    return nStatus != 0
               ? "error " + std::to_string(nStatus)
               : std::to_string(dwType) + ":" + std::string(reinterpret_cast<char *>(ab), cb);
}

std::string Query(char const *pszKey, char const *pszValue)
{
    HKEY const hKey = Open(pszKey);
    if (hKey == nullptr) {
        return "no key";
    }
    std::string const str = Query(hKey, pszValue);
    EXPECT_EQ(RegCloseKey(hKey), 0);
    return str;
}

std::string Problem()
{
    char sz[2000];
    DWORD const cch = PlatRegistryProblem(sz, sizeof(sz));
    EXPECT_EQ(cch, std::string(sz).size());
    return sz;
}

std::string Bytes(std::initializer_list<int> bytes)
{
    return {bytes.begin(), bytes.end()};
}

} // namespace

TEST_F(Registry, ReadsEveryKindOfValue)
{
    std::string const strBody = R"(; a comment
[HKEY_LOCAL_MACHINE\Software\Test] ; and [one] more
@="own"
"text"="C:\\dir \"x\" ; = ]" ; comment
"lines"="a\nb
c"
  "word" = dword:0000002A
"none"=hex(0):
"bin"=hex:de,ad,\
  be,ef , 1,\
	02
"mask"=hex(b):88,77,66,55,44,33,22,11
"odd"=hex(4711):01
"twice"=DWORD:1
"TWICE"=dword:2
"gone"="x"
"gone"=-
"never"=-
"a=\"b\\"=""
)";
    struct {
        char const *pszValue;
        std::string strExpected;
    } const table[] = {{nullptr, "1:own" + Bytes({0})},
                       {"TeXt", "1:C:\\dir \"x\" ; = ]" + Bytes({0})},
                       {"lines", "1:a\nb\r\nc" + Bytes({0})},
                       {"word", "4:" + Bytes({42, 0, 0, 0})},
                       {"none", "0:"},
                       {"bin", "3:" + Bytes({0xde, 0xad, 0xbe, 0xef, 1, 2})},
                       {"mask", "11:" + Bytes({0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11})},
                       {"odd", "18193:" + Bytes({1})},
                       {"twice", "4:" + Bytes({2, 0, 0, 0})},
                       {"gone", "error 2"},
                       {"a=\"b\\", "1:" + Bytes({0})}};
    std::string const strFile = kHeader + strBody;
    std::string strCrLf;
    for (char const ch : strFile) {
        strCrLf += ch == '\n' ? "\r\n" : std::string(1, ch);
    }
    for (std::string const &str : {strFile, strCrLf, "\xEF\xBB\xBF" + strFile, InUtf16(strFile),
                                   InUtf16(strCrLf), "REGEDIT4\n" + strBody}) {
        ASSERT_EQ(Use(str), 0u) << Problem();
        for (auto const &row : table) {
            EXPECT_EQ(Query("software\\TEST", row.pszValue), row.strExpected)
                << (row.pszValue != nullptr ? row.pszValue : "null");
        }
    }
}

TEST_F(Registry, TextsInBytesAreUtf16OrNotAsTheHeaderSays)
{
    std::string const strWide = "[HKEY_LOCAL_MACHINE\\K]\n"
                                "\"path\"=hex(2):25,00,41,00,25,00,00,00\n"
                                "\"list\"=hex(7):61,00,00,00,62,00,00,00,00,00\n";
    ASSERT_EQ(Use(kHeader + strWide), 0u);
    EXPECT_EQ(Query("K", "path"), "2:%A%" + Bytes({0}));
    EXPECT_EQ(Query("K", "list"), "7:a" + Bytes({0}) + "b" + Bytes({0, 0}));
    ASSERT_EQ(Use("REGEDIT4\n[HKEY_LOCAL_MACHINE\\K]\n\"path\"=hex(2):25,41,25,00\n"), 0u);
    EXPECT_EQ(Query("K", "path"), "2:%A%" + Bytes({0}));
}

TEST_F(Registry, NamesBeyondAsciiHaveCaseToo)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "the encoding is the code page there";
    }
    ASSERT_EQ(Use(std::string(kHeader) +
                  "[HKEY_LOCAL_MACHINE\\Gr\xC3\xBC\xC3\x9F]\n\"\xC3\x84\"=\"\xE2\x82\xAC\"\n"),
              0u);
    EXPECT_EQ(Query("GR\xC3\x9C\xC3\x9F", "\xC3\xA4"), "1:\xE2\x82\xAC" + Bytes({0}));
    ASSERT_EQ(Use("\xFF\xFE" + InUtf16(KeyFile("\"v\"=\"")).substr(2) +
                  Bytes({0x3d, 0xd8, 0x00, 0xde}) + InUtf16("\"").substr(2)),
              0u);
    EXPECT_EQ(Query("K", "v"), "1:\xF0\x9F\x98\x80" + Bytes({0}));
}

TEST_F(Registry, KeysAreMergedDeletedAndListed)
{
    ASSERT_EQ(Use(kHeader + std::string(R"([HKEY_LOCAL_MACHINE\A\b]
"x"=dword:1
[HKEY_LOCAL_MACHINE\a\C]
[hkey_local_machine\A\d\deep]
[HKEY_CURRENT_USER\A]
"x"=dword:7
[HKEY_LOCAL_MACHINE\A\B]
"y"=dword:2
[-HKEY_LOCAL_MACHINE\A\D]
[-HKEY_LOCAL_MACHINE\nowhere\x]
[HKEY_LOCAL_MACHINE\A\e[x]y]
)")),
              0u)
        << Problem();
    EXPECT_EQ(Query("A\\B", "x"), "4:" + Bytes({1, 0, 0, 0}));
    EXPECT_EQ(Query("A\\B\\", "y"), "4:" + Bytes({2, 0, 0, 0}));
    EXPECT_EQ(Query("A", "x"), "error 2");
    EXPECT_EQ(Query("A\\D\\deep", ""), "no key");

    HKEY const hKey = Open("A", KEY_ENUMERATE_SUB_KEYS);
    ASSERT_NE(hKey, nullptr);
    char const *const names[] = {"b", "C", "e[x]y"};
    char sz[20];
    DWORD cch;
    for (DWORD i = 0; i < 3; ++i) {
        cch = sizeof(sz);
        ASSERT_EQ(RegEnumKeyExA(hKey, i, sz, &cch, nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_STREQ(sz, names[i]);
        EXPECT_EQ(cch, std::string(sz).size());
    }
    cch = sizeof(sz);
    EXPECT_EQ(RegEnumKeyExA(hKey, 3, sz, &cch, nullptr, nullptr, nullptr, nullptr),
              LONG(ERROR_NO_MORE_ITEMS));
    cch = 5;
    EXPECT_EQ(RegEnumKeyExA(hKey, 2, sz, &cch, nullptr, nullptr, nullptr, nullptr),
              LONG(ERROR_MORE_DATA));
    EXPECT_EQ(Query(hKey, ""), "error 5");                   // opened without the right to query
    EXPECT_TRUE(!kIsPosix || Open("A", 0x20006) == nullptr); // nobody gets the right to write
    EXPECT_EQ(RegCloseKey(hKey), 0);
}

TEST_F(Registry, BuffersAndSizes)
{
    ASSERT_EQ(Use(KeyFile("\"v\"=\"abc\"\n")), 0u);
    HKEY const hKey = Open("K", KEY_QUERY_VALUE);
    struct {
        char const *pszValue;
        bool bBuffer;
        DWORD cbBefore, cbAfter, dwStatus;
        char const *pszAfter; // a value that is not there or does not fit changes nothing
    } const table[] = {{"v", false, 0, 4, ERROR_SUCCESS, "#######"},
                       {"v", true, 0, 4, ERROR_MORE_DATA, "#######"},
                       {"v", true, 3, 4, ERROR_MORE_DATA, "#######"},
                       {"v", true, 4, 4, ERROR_SUCCESS, "abc\0###"},
                       {"w", true, 8, 8, ERROR_FILE_NOT_FOUND, "#######"}};
    for (auto const &row : table) {
        BYTE ab[8] = "#######";
        DWORD cb = row.cbBefore;
        EXPECT_EQ(
            RegQueryValueExA(hKey, row.pszValue, nullptr, nullptr, row.bBuffer ? ab : nullptr, &cb),
            LONG(row.dwStatus));
        EXPECT_EQ(cb, row.cbAfter);
        EXPECT_EQ(std::memcmp(ab, row.pszAfter, sizeof(ab)), 0);
    }
    BYTE b;
    EXPECT_EQ(RegQueryValueExA(hKey, "v", nullptr, nullptr, &b, nullptr),
              LONG(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegCloseKey(hKey), 0);
}

TEST_F(Registry, HandlesAndAccess)
{
    ASSERT_EQ(Use(std::string(kHeader) + "[HKEY_LOCAL_MACHINE\\K\\sub]\n@=\"x\"\n"), 0u);
    HKEY const hKey = Open("K", KEY_ALL_ACCESS);
    HKEY const hSub = Open("sub", KEY_READ, hKey);
    HKEY const hSame = Open(nullptr, KEY_READ, hSub);
    EXPECT_EQ(Query(hSame, ""), "1:x" + Bytes({0}));
    HKEY hOut = hKey;
    EXPECT_EQ(RegOpenKeyExA(hKey, "none", 0, KEY_READ, &hOut), LONG(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(hOut, nullptr);
    EXPECT_EQ(RegOpenKeyExA(hKey, "\\sub", 0, KEY_READ, &hOut), LONG(ERROR_BAD_PATHNAME));
    EXPECT_EQ(RegOpenKeyExA(nullptr, "K", 0, KEY_READ, &hOut), LONG(ERROR_INVALID_HANDLE));
    for (HKEY const h : {hSame, hSub, hKey}) {
        EXPECT_EQ(RegCloseKey(h), 0);
        EXPECT_EQ(RegCloseKey(h), LONG(ERROR_INVALID_HANDLE));
        EXPECT_EQ(Query(h, ""), "error 6");
    }
    EXPECT_EQ(RegCloseKey(nullptr), LONG(ERROR_INVALID_HANDLE));
    for (int i = 0; i < 1000 && kIsPosix; ++i) { // a number that was given again is another one
        HKEY const hNew = Open("K");
        EXPECT_EQ(Query(hKey, ""), "error 6");
        EXPECT_EQ(RegCloseKey(hNew), 0);
    }
}

TEST_F(Registry, AMalformedFileIsRefusedWholeWithLineAndReason)
{
    struct {
        std::string strText;
        int nLine;
        char const *pszReason; // a part of it
    } const table[] = {
        {"", 1, "first line"},
        {"Windows Registry Editor Version 6.00\n", 1, "first line"},
        {std::string(9, 0), 1, "character"},
        {"REGEDIT4\n\"v\"=dword:1\n", 2, "no key"},
        {"REGEDIT4\n[HKEY_LOCAL_MACHINE\\K\n", 2, "closing \"]\""},
        {"REGEDIT4\n[K]\n", 2, "root"},
        {"REGEDIT4\n[HKEY_LOCAL_MACHINE\\\\K]\n", 2, "without a name"},
        {"REGEDIT4\n[-HKEY_LOCAL_MACHINE]\n", 2, "root"},
        {"REGEDIT4\n[HKEY_LOCAL_MACHINE\\" + std::string(256, 'k') + "]\n", 2, "255"},
        {"REGEDIT4\n[HKEY_LOCAL_MACHINE" + std::string(1100, '\\'), 2, "closing"},
        {"REGEDIT4\n[-HKEY_LOCAL_MACHINE\\K]\n\n@=\"x\"\n", 4, "no key"},
        {"REGEDIT4\nnonsense\n", 2, "neither"}};
    // Each of these after the line of a key, with a good value before and behind.
    struct {
        char const *pszLines, *pszReason;
    } const values[] = {{"\"v\" dword:1", "\"=\""},
                        {"\"v\"=dword:", "8 hexadecimal"},
                        {"\"v\"=dword:123456789", "8 hexadecimal"},
                        {"\"v\"=dword:12x", "unexpected"},
                        {"\"v\"=hex:1g", "unexpected"},
                        {"\"v\"=hex:01,,02", "bytes"},
                        {"\"v\"=hex:01,", "bytes"},
                        {"\"v\"=hex:01,\\", "bytes"}, // the next line is no bytes
                        {"\"v\"=hex(:01", "type"},
                        {"\"v\"=hex(123456789):01", "type"},
                        {"\"v\"=hex(2):41", ""},
                        {"\"v\"=\"C:\\Temp\"", "written twice"},
                        {"\"v\"=\"a\"b", "unexpected"},
                        {"\"v\"=qword:1", "quotes"},
                        {"\"\"=\"a\"", "without a name"},
                        {"\"v\"=\xFF", "character"},
                        {"\"v\"=\"\xC3\"", "character"}};
    ASSERT_EQ(Use(std::string(kHeader) + "[HKEY_LOCAL_MACHINE\\Good]\n@=\"kept\"\n"), 0u);
    auto const refused = [&](std::string const &strText, int nLine, char const *pszReason) {
        Write(strText);
        std::string const strProblem = Problem();
        EXPECT_EQ(strProblem.rfind(m_strPath + ":" + std::to_string(nLine) + ": ", 0), 0u)
            << strProblem;
        EXPECT_NE(strProblem.find(pszReason), std::string::npos) << strProblem << "\n" << pszReason;
        EXPECT_EQ(Query("Good", ""), "1:kept" + Bytes({0})); // the last good contents
        EXPECT_EQ(Query("K", "before"), "no key");
    };
    for (auto const &row : table) {
        refused(row.strText, row.nLine, row.pszReason);
    }
    for (auto const &row : values) {
        refused(KeyFile("\"before\"=\"x\"\n") + row.pszLines + "\n\"behind\"=\"x\"\n", 4,
                row.pszReason);
    }
    std::string const strHalf = InUtf16(KeyFile(""));
    refused(strHalf.substr(0, strHalf.size() - 1), 1, "middle");
    refused(strHalf + Bytes({0x00, 0xd8}), 3, "character");
    refused("REGEDIT4\n[HKEY_LOCAL_MACHINE\\K]\n\"v\"=\"never closed\n\n\n", 3, "closing quote");
    std::string strDeep = "REGEDIT4\n[HKEY_LOCAL_MACHINE";
    for (int i = 0; i < 600; ++i) {
        strDeep += "\\k";
    }
    refused(strDeep + "]\n", 2, "512");
    refused("REGEDIT4\n;" + std::string(17u << 20, 'x'), 1, "16 MiB");

    Write(std::string(kHeader) + "[HKEY_LOCAL_MACHINE\\Good]\n@=\"new\"\n");
    EXPECT_EQ(Problem(), "");
    EXPECT_EQ(Query("Good", ""), "1:new" + Bytes({0}));
    EXPECT_EQ(Use("junk"), DWORD{ERROR_INVALID_DATA}); // chosen anew, so nothing good is left of it
    EXPECT_EQ(Query("Good", ""), "no key");
    EXPECT_EQ(PlatSetRegistryFile(""), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_NE(PlatSetRegistryFile(m_dir.File("").c_str()), 0u); // a folder
    EXPECT_NE(Problem(), "");
    char sz[8] = "#######";
    EXPECT_EQ(Use(kHeader), 0u);
    EXPECT_EQ(PlatRegistryFile(sz, 4), m_strPath.size());
    EXPECT_EQ(sz, m_strPath.substr(0, 3));
}

TEST_F(Registry, OneLongLineTakesNoLongTime)
{
    std::string const strKey = "REGEDIT4\n[HKEY_LOCAL_MACHINE\\K]\n";
    std::size_t const cb = 10u << 20;
    std::string strHex = "\"v\"=hex:";
    while (strHex.size() < cb / 2) {
        strHex += "00,";
    }
    for (std::string const &str :
         {strKey + ";" + std::string(cb, 'x'), strKey + "\"v\"=\"" + std::string(cb, 'x') + "\"",
          strKey + strHex + "00" + std::string(cb / 2, ' '), strKey + "[" + std::string(cb, ']'),
          strKey + std::string(cb, '\n')}) {
        auto const start = std::chrono::steady_clock::now();
        Use(str);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    }
}

TEST_F(Registry, AChangedFileIsSeenAtTheNextOpen)
{
    auto const text = [](char ch) { return KeyFile("@=\"") + ch + "\"\n"; };
    EXPECT_EQ(PlatSetRegistryFile(m_strPath.c_str()), 0u); // not there: an empty registry
    EXPECT_EQ(Query("K", ""), "no key");
    for (char ch = 'a'; ch <= 'z';
         ++ch) { // the same size, and quicker than many file systems' clocks
        Write(text(ch));
        EXPECT_EQ(Query("K", ""), std::string("1:") + ch + Bytes({0}));
    }
    HKEY const hOld = Open("K");
    Write(text('0'));
    EXPECT_EQ(Query("K", ""), "1:0" + Bytes({0}));
    EXPECT_EQ(Query(hOld, ""),
              "1:z" + Bytes({0})); // a key keeps the contents that it was opened from
    EXPECT_EQ(RegCloseKey(hOld), 0);

    // An older file in its place, of the same size: only the file itself is another.
    std::ofstream(m_strPath + ".new", std::ios::binary) << text('1');
    std::filesystem::last_write_time(
        m_strPath + ".new", std::filesystem::last_write_time(m_strPath) - std::chrono::hours(1));
    std::filesystem::rename(m_strPath + ".new", m_strPath);
    EXPECT_EQ(Query("K", ""), "1:1" + Bytes({0}));
    std::filesystem::remove(m_strPath);
    EXPECT_EQ(Query("K", ""), "no key");
    EXPECT_EQ(Problem(), "");
}

TEST_F(Registry, NoMemoryIsAnErrorAndNothingIsLost)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "the calls are the system's";
    }
    std::string const strKey =
        std::string(kHeader) + "[HKEY_LOCAL_MACHINE\\A rather long name of a key]\n@=";
    ASSERT_EQ(Use(strKey + "\"old\"\n"), 0u);
    Write(strKey + "\"new\"\n");
    HKEY hKey = nullptr;
    LONG nStatus = 0;
    std::size_t const cRuns = FailEachAllocation([&] {
        nStatus =
            RegOpenKeyExA(HKEY_LOCAL_MACHINE, "A rather long name of a key", 0, KEY_READ, &hKey);
        if (nStatus != 0 && (nStatus != LONG(ERROR_NOT_ENOUGH_MEMORY) || hKey != nullptr)) {
            std::abort();
        }
        if (nStatus == 0) {
            RegCloseKey(hKey);
        }
    });
    EXPECT_GT(cRuns, 5u);
    EXPECT_EQ(Query("A rather long name of a key", ""), "1:new" + Bytes({0}));
}

TEST_F(Registry, ManyThreadsReadWhileTheFileChanges)
{
    auto const text = [](int n) {
        return KeyFile("\"a\"=dword:") + std::to_string(n) + "\n\"b\"=dword:" + std::to_string(n) +
               "\n";
    };
    ASSERT_EQ(Use(text(0)), 0u);
    std::atomic<bool> bStop = false;
    std::atomic<int> cTorn = 0;
    std::vector<std::thread> readers(3);
    for (std::thread &reader : readers) {
        reader = std::thread([&] {
            while (!bStop) {
                HKEY const hKey = Open("K");
                cTorn += hKey == nullptr || Query(hKey, "a") != Query(hKey, "b");
                RegCloseKey(hKey);
            }
        });
    }
    for (int n = 1; n < 50; ++n) {
        std::ofstream(m_strPath + ".new", std::ios::binary) << text(n % 10);
        std::error_code
            inUse; // Windows may refuse to replace a file that is being read; the next round does it
        std::filesystem::rename(m_strPath + ".new", m_strPath, inUse);
        std::this_thread::yield();
    }
    bStop = true;
    std::ranges::for_each(readers, &std::thread::join);
    EXPECT_EQ(cTorn, 0);
}
