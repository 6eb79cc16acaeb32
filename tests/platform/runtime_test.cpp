#include "platform/runtime.h"

#include <gtest/gtest.h>

#include <string>

namespace {

unsigned char const *Bytes(char const *psz)
{
    return reinterpret_cast<unsigned char const *>(psz);
}

// Offset of the match, -1 for none.
long Find(char const *pszText, char const *pszSought)
{
    unsigned char const *const p = _mbsstr(Bytes(pszText), Bytes(pszSought));
    return p != nullptr ? static_cast<long>(p - Bytes(pszText)) : -1;
}

std::string Lower(std::string str)
{
    return reinterpret_cast<char *>(_mbslwr(reinterpret_cast<unsigned char *>(str.data())));
}

} // namespace

TEST(Runtime, MbsstrMatchesAtCharacterBoundariesOnly)
{
    EXPECT_EQ(Find("NETADDR=1;NETADDR=2;", "NETADDR=2"), 10);
    EXPECT_EQ(Find("aaab", "ab"), 2);
    EXPECT_EQ(Find("", ""), 0);
    EXPECT_EQ(Find("abc", "abcd"), -1);
    if (!kIsPosix) {
        GTEST_SKIP() << "the encoding is the code page there";
    }
    EXPECT_EQ(Find("\xC3\xA4;", ";"), 2);
    EXPECT_EQ(Find("\xC3\xA4", "\xA4"), -1);        // the second byte of a character
    EXPECT_EQ(Find("\xE2\x82\xAC\xA4", "\xA4"), 3); // a byte of its own
    EXPECT_EQ(Find("\xC3", "\xC3"), 0);             // a character that is cut off
    EXPECT_EQ(Find("\xE2\x82", "\x82"), 1);         // likewise: two single bytes
}

TEST(Runtime, CaseOfCharacters)
{
    EXPECT_EQ(Lower("C:\\Temp/LOG-1.TXT@[`{"), "c:\\temp/log-1.txt@[`{");
    EXPECT_EQ(_mbctoupper('z'), unsigned{'Z'});
    if (!kIsPosix) {
        GTEST_SKIP() << "the encoding is the code page there";
    }
    EXPECT_EQ(Lower("\xC3\x84\xD0\x96\xEF\xBC\xA1"), "\xC3\xA4\xD0\xB6\xEF\xBD\x81");
    EXPECT_EQ(Lower("\xC3\x84\xC3"), "\xC3\xA4\xC3"); // the cut-off character keeps its byte
    EXPECT_EQ(Lower("\xC8\xBA"), "\xC8\xBA");         // its lower case takes three bytes
    for (unsigned ch = 0x80; ch < 0x100; ++ch) {
        EXPECT_EQ(_mbctoupper(ch), ch) << ch; // byte by byte a text in UTF-8 stays whole
    }
}

TEST(Runtime, SplitpathTakesAPathApart)
{
    struct {
        char const *pszPath, *pszParts;
    } const table[] = {
        {"C:\\dir\\sub\\tool.exe", "C:|\\dir\\sub\\|tool|.exe"},
        {"/usr/bin/tool", "|/usr/bin/|tool|"},
        {"tool.tar.gz", "||tool.tar|.gz"},
        {"/a.b/c", "|/a.b/|c|"},
        {"", "|||"},
    };
    for (auto const &row : table) {
        char szDrive[_MAX_DRIVE], szDir[_MAX_DIR], szName[_MAX_FNAME], szExt[_MAX_EXT];
        _splitpath(row.pszPath, szDrive, szDir, szName, szExt);
        EXPECT_EQ(std::string(szDrive) + "|" + szDir + "|" + szName + "|" + szExt, row.pszParts);
    }
}
