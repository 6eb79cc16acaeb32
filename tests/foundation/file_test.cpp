#include "foundation/g_file.h"
#include "tests/support/guards.h"

namespace {

class CFileTest : public testing::Test {
protected:
    ~CFileTest() override { m_file.Close(); }

    DWORD Open(char const *pszName, DWORD dwAccess = 0xC0000000)
    {
        return m_file.Open(m_dir.File(pszName).c_str(), dwAccess, 3, nullptr, 4, 0x80, nullptr);
    }

    void OpenWith(std::string const &strBytes)
    {
        DWORD cbDone = 0;
        ASSERT_EQ(Open("f"), eGE_OK);
        EXPECT_EQ(m_file.Write(strBytes.data(), static_cast<DWORD>(strBytes.size()), &cbDone), 0u);
        EXPECT_EQ(m_file.Seek(0, 0), eGE_OK);
    }

    CTempDir m_dir;
    CGFile m_file{"file"};
};

} // namespace

TEST_F(CFileTest, TheOneHandleIsGuardedAndNullsAreRefused)
{
    DWORD dw = 9;
    EXPECT_EQ(Open("no/such/folder"), eGE_FILE_OPEN);
    EXPECT_EQ(m_file.Close(), eGE_FILE_NOT_OPEN);
    EXPECT_EQ(m_file.Read(&dw, 1, &dw), eGE_FILE_NOT_OPEN);
    EXPECT_EQ(dw, 0u);
    EXPECT_EQ(m_file.Read(nullptr, 1, &dw), eGE_NULL_ARGUMENT);
    EXPECT_EQ(Open("f"), eGE_OK);
    EXPECT_EQ(Open("other"), eGE_FILE_ALREADY_OPEN);
    EXPECT_FALSE(std::filesystem::exists(m_dir.File("other")));
    EXPECT_EQ(m_file.Open(nullptr, 0, 0, nullptr, 0, 0, nullptr), eGE_FILE_OPEN); // the name first
    EXPECT_EQ(m_file.Close(), eGE_OK);
}

TEST_F(CFileTest, WordsAndTexts_ArePlainBytesAndShortTransfersFailWhole)
{
    OpenWith("");
    EXPECT_EQ(m_file.WriteDword(0x44434241), eGE_OK);
    EXPECT_EQ(m_file.WriteString("t"), eGE_OK);
    EXPECT_EQ(m_file.WriteString(nullptr), eGE_OK);
    m_file.Close();
    ASSERT_EQ(Open("f", 0x80000000), eGE_OK);
    char abAll[8];
    DWORD cbDone = 9;
    EXPECT_EQ(m_file.Read(abAll, 8, &cbDone), eGE_FILE_READ); // one byte too many
    EXPECT_EQ(cbDone, 0u);
    EXPECT_EQ(m_file.Seek(0, 0), eGE_OK);
    EXPECT_EQ(m_file.Read(abAll, 7, &cbDone), eGE_OK);
    EXPECT_EQ(std::string(abAll, cbDone), std::string("ABCDt\0\0", 7));
    EXPECT_EQ(m_file.Read(abAll, 0, &cbDone), eGE_OK);
    EXPECT_EQ(m_file.Seek(2, -2), eGE_OK);
    DWORD dwValue = 0x11111111;
    EXPECT_EQ(m_file.ReadDword(&dwValue), eGE_FILE_READ);
    EXPECT_EQ(dwValue, 0u);                          // the two bytes that arrived
    EXPECT_EQ(m_file.WriteDword(1), eGE_FILE_WRITE); // opened for reading only
    EXPECT_EQ(m_file.Seek(1, -5), eGE_OK);           // from the end, where it is
    EXPECT_EQ(m_file.Seek(0, -1), eGE_FILE_SEEK);
    EXPECT_EQ(m_file.ReadDword(&dwValue), eGE_OK);
    EXPECT_EQ(dwValue, 0x00744443u);
}

TEST_F(CFileTest, ReadString_StopsAtTheZeroOrAtTheLimit)
{
    OpenWith(std::string("abcdeab\0xy", 10));
    char abBuffer[5] = {'#', '#', '#', '#', '#'};
    EXPECT_EQ(m_file.ReadString(abBuffer, 0), eGE_NULL_ARGUMENT); // takes no byte
    EXPECT_EQ(m_file.ReadString(abBuffer, 4), eGE_OK);
    EXPECT_EQ(std::string(abBuffer, 5), "abcd#");
    EXPECT_EQ(m_file.ReadString(abBuffer, 5), eGE_OK); // goes on in the middle of the text
    EXPECT_EQ(std::string(abBuffer, 5), std::string("eab\0\0", 5));
    EXPECT_EQ(m_file.ReadString(abBuffer, 5), eGE_FILE_READ); // ends before a zero
    EXPECT_STREQ(abBuffer, "xy");
}
