#include "platform/registry.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/guards.h"
#include "tests/support/reg_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
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

HKEY Open(char const *pszKey)
{
    HKEY hKey = nullptr;
    return RegOpenKeyExA(HKEY_LOCAL_MACHINE, pszKey, 0, KEY_READ, &hKey) == 0 ? hKey : nullptr;
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

std::string Sz(std::string const &str)
{
    return "1:" + str + '\0';
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
    } const table[] = {{nullptr, Sz("own")},
                       {"TeXt", Sz("C:\\dir \"x\" ; = ]")},
                       {"lines", Sz("a\nb\r\nc")},
                       {"word", "4:" + Bytes({42, 0, 0, 0})},
                       {"none", "0:"},
                       {"bin", "3:" + Bytes({0xde, 0xad, 0xbe, 0xef, 1, 2})},
                       {"mask", "11:" + Bytes({0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11})},
                       {"odd", "18193:" + Bytes({1})},
                       {"twice", "4:" + Bytes({2, 0, 0, 0})},
                       {"gone", "error 2"},
                       {"a=\"b\\", Sz("")}};
    std::string const strFile = kHeader + strBody;
    std::string const strCrLf = ReplaceAll(strFile, "\n", "\r\n");
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
    ASSERT_EQ(Use(KeyFile("\"path\"=hex(2):25,00,41,00,25,00,00,00\n"
                          "\"list\"=hex(7):61,00,00,00,62,00,00,00,00,00\n")),
              0u);
    EXPECT_EQ(Query("K", "path"), "2:%A%" + Bytes({0}));
    EXPECT_EQ(Query("K", "list"), "7:a" + Bytes({0}) + "b" + Bytes({0, 0}));
    ASSERT_EQ(Use("REGEDIT4\n[HKEY_LOCAL_MACHINE\\K]\n\"path\"=hex(2):25,41,25,00\n"), 0u);
    EXPECT_EQ(Query("K", "path"), "2:%A%" + Bytes({0}));
}

TEST_F(Registry, KeysAreMergedAndDeleted)
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
    EXPECT_EQ(Query("A\\e[x]y", ""), "error 2");
}

TEST_F(Registry, AMalformedFileIsRefusedWholeWithLineAndReason)
{
    std::string const strKey = "REGEDIT4\n[HKEY_LOCAL_MACHINE";
    std::string const strHalf = InUtf16(KeyFile(""));
    // Behind the line of a key, with a good value before and after.
    auto const value = [](std::string const &str) {
        return KeyFile("\"before\"=\"x\"\n" + str + "\n\"after\"=\"x\"\n");
    };
    struct {
        std::string strText;
        int nLine;
        char const *pszReason; // a part of it
    } const table[] = {{"Windows Registry Editor Version 6.00\n", 1, "first line"},
                       {"REGEDIT4\n\"v\"=dword:1\n", 2, "no key"},
                       {"REGEDIT4\n[K]\n", 2, "root"},
                       {strKey + "\\\\K]\n", 2, "without a name"},
                       {strKey + "\\" + std::string(256, 'k') + "]\n", 2, "255"},
                       {strKey + ReplaceAll(std::string(600, 'k'), "k", "\\k") + "]\n", 2, "512"},
                       {strKey + std::string(1100, '\\'), 2, "closing \"]\""},
                       {strKey + "\\K]\n\"v\"=\"never closed\n\n\n", 3, "closing quote"},
                       {"REGEDIT4\n[-HKEY_LOCAL_MACHINE\\K]\n\n@=\"x\"\n", 4, "no key"},
                       {strHalf.substr(0, strHalf.size() - 1), 1, "middle"},
                       {strHalf + Bytes({0x00, 0xd8}), 3, "character"},
                       {"REGEDIT4\n;" + std::string(17u << 20, 'x'), 1, "16 MiB"},
                       {value("nonsense"), 4, "neither"},
                       {value("\"v\" dword:1"), 4, "\"=\""},
                       {value("\"v\"=dword:12x"), 4, "unexpected"},
                       {value("\"v\"=hex:01,\\"), 4, "bytes"}, // the next line is no bytes
                       {value("\"v\"=hex(123456789):01"), 4, "type"},
                       {value("\"v\"=\"C:\\Temp\""), 4, "written twice"},
                       {value("\"v\"=qword:1"), 4, "quotes"}};
    ASSERT_EQ(Use(std::string(kHeader) + "[HKEY_LOCAL_MACHINE\\Good]\n@=\"kept\"\n"), 0u);
    for (auto const &row : table) {
        Write(row.strText);
        std::string const strProblem = Problem();
        EXPECT_EQ(strProblem.rfind(m_strPath + ":" + std::to_string(row.nLine) + ": ", 0), 0u)
            << strProblem;
        EXPECT_NE(strProblem.find(row.pszReason), std::string::npos) << strProblem;
        EXPECT_EQ(Query("Good", ""), Sz("kept")); // the last good contents
        EXPECT_EQ(Query("K", "before"), "no key");
    }
    Write(std::string(kHeader) + "[HKEY_LOCAL_MACHINE\\Good]\n@=\"new\"\n");
    EXPECT_EQ(Problem(), "");
    EXPECT_EQ(Query("Good", ""), Sz("new"));
    EXPECT_EQ(Use("junk"), DWORD{ERROR_INVALID_DATA}); // chosen anew, so nothing good is left of it
    EXPECT_EQ(Query("Good", ""), "no key");
    EXPECT_NE(PlatSetRegistryFile(m_dir.File("").c_str()), 0u); // a folder
    EXPECT_NE(Problem(), "");
}

TEST_F(Registry, AChangedFileIsSeenAtTheNextOpen)
{
    auto const text = [](char ch) { return KeyFile("@=\"") + ch + "\"\n"; };
    EXPECT_EQ(PlatSetRegistryFile(m_strPath.c_str()), 0u); // not there: an empty registry
    EXPECT_EQ(Query("K", ""), "no key");
    // The same size, and quicker than many file systems' clocks.
    for (char ch = 'a'; ch <= 'z'; ++ch) {
        Write(text(ch));
        EXPECT_EQ(Query("K", ""), Sz({ch}));
    }
    HKEY const hOld = Open("K");
    Write(text('0'));
    EXPECT_EQ(Query("K", ""), Sz("0"));
    EXPECT_EQ(Query(hOld, ""), Sz("z")); // a key keeps the contents that it was opened from
    EXPECT_EQ(RegCloseKey(hOld), 0);

    // An older file in its place, of the same size: only the file itself is another.
    std::ofstream(m_strPath + ".new", std::ios::binary) << text('1');
    std::filesystem::last_write_time(
        m_strPath + ".new", std::filesystem::last_write_time(m_strPath) - std::chrono::hours(1));
    std::filesystem::rename(m_strPath + ".new", m_strPath);
    EXPECT_EQ(Query("K", ""), Sz("1"));
    std::filesystem::remove(m_strPath);
    EXPECT_EQ(Query("K", ""), "no key");
    EXPECT_EQ(Problem(), "");
}

TEST_F(Registry, NoMemoryIsAnErrorAndNothingIsLost)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "the calls are the system's";
    }
    ASSERT_EQ(Use(KeyFile("@=\"old\"\n")), 0u);
    Write(KeyFile("@=\"new\"\n"));
    std::size_t const cRuns = FailEachAllocation([] {
        HKEY hKey = nullptr;
        LONG const nStatus = RegOpenKeyExA(HKEY_LOCAL_MACHINE, "K", 0, KEY_READ, &hKey);
        if (nStatus != 0 ? nStatus != LONG(ERROR_NOT_ENOUGH_MEMORY) || hKey != nullptr
                         : RegCloseKey(hKey) != 0) {
            std::abort();
        }
    });
    EXPECT_GT(cRuns, 5u);
    EXPECT_EQ(Query("K", ""), Sz("new"));
}

TEST_F(Registry, ManyThreadsReadWhileTheFileChanges)
{
    auto const text = [](int n) {
        return ReplaceAll(KeyFile("\"a\"=dword:#\n\"b\"=dword:#\n"), "#", std::to_string(n));
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
        // Windows may refuse to replace a file that is being read; the next round does it.
        std::error_code inUse;
        std::filesystem::rename(m_strPath + ".new", m_strPath, inUse);
        std::this_thread::yield();
    }
    bStop = true;
    std::ranges::for_each(readers, &std::thread::join);
    EXPECT_EQ(cTorn, 0);
}
