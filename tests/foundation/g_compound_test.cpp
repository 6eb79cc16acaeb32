#include "foundation/g_compound.h"
#include "tests/evtmgr/evtmgr_fixture.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/guards.h"

namespace {

constexpr CLSID kClsid = {0x12345678, 1, 2, {1, 2, 3, 4, 5, 6, 7, 8}};

class CCompoundTest : public testing::Test {
protected:
    class CFile : public CGCompoundFile {
    public:
        using CGCompoundFile::m_cfFormat;
        using CGCompoundFile::m_pStorage;
        using CGCompoundFile::m_pStream;
    };

    void SetUp() override { EXPECT_EQ(m_file.CompoundInit(), eGE_OK); }
    void TearDown() override
    {
        m_file.CompoundClose();
        EXPECT_EQ(m_file.CompoundUninit(), eGE_OK);
    }

    DWORD Open() { return m_file.CompoundOpen(m_strName.c_str()); }
    DWORD OpenExisting() { return m_file.CompoundOpenExisting(m_strName.c_str()); }
    DWORD Write(std::string const &str)
    {
        DWORD cb = 99;
        DWORD const dwResult =
            m_file.CompoundWriteData(str.data(), static_cast<DWORD>(str.size()), &cb);
        EXPECT_EQ(cb, dwResult == eGE_OK ? str.size() : 0);
        return dwResult;
    }
    std::string Reopen() // and read all
    {
        EXPECT_EQ(m_file.CompoundClose(), eGE_OK);
        EXPECT_EQ(OpenExisting(), eGE_OK);
        std::string str(100'000, '?');
        ULONG cb = 0;
        EXPECT_EQ(m_file.m_pStream->Read(str.data(), static_cast<ULONG>(str.size()), &cb), S_OK);
        return str.substr(0, cb);
    }

    CTempDir m_dir;
    CCountersGuard m_counters;
    CFile m_file;
    std::string m_strName = m_dir.File("file.cfb");
};

} // namespace

TEST_F(CCompoundTest, WhatWasWrittenIsThereAgain)
{
    auto const folder = std::filesystem::current_path();
    if (kIsPosix) {
        std::filesystem::current_path(m_dir.File(""));
        m_strName = "\xC3\xBC\xFF.cfb"; // bytes that need not be text in the locale
    }
    std::string const strContents(5000, 'x');
    EXPECT_EQ(Open(), eGE_OK);
    EXPECT_EQ(Write(strContents), eGE_OK);
    EXPECT_EQ(Write(""), eGE_OK);
    EXPECT_EQ(m_file.CompoundWriteId(kClsid), eGE_OK);
    EXPECT_EQ(m_file.m_cfFormat, 0);
    EXPECT_EQ(m_file.CompoundWriteInfo(L"A type"), eGE_OK);
    m_file.SetFormat(1);
    EXPECT_EQ(m_file.CompoundWriteInfo(L"A type"), eGE_OK);
    EXPECT_EQ(Reopen(), strContents);
    EXPECT_TRUE(std::filesystem::exists(m_strName));
    CLSID clsid = {};
    EXPECT_EQ(ReadClassStg(m_file.m_pStorage, &clsid), S_OK);
    EXPECT_TRUE(clsid == kClsid);
    EXPECT_EQ(Write("more"), eGE_OK);
    EXPECT_EQ(Reopen(), strContents + "more");
    EXPECT_EQ(m_file.CompoundClose(), eGE_OK);
    EXPECT_EQ(Open(), eGE_OK); // in the place of the old one
    EXPECT_EQ(Reopen(), "");
    std::filesystem::current_path(folder);
}

TEST_F(CCompoundTest, RefusalsLeaveTheObjectClosedOrAsItWas)
{
    DWORD cb = 99;
    EXPECT_EQ(m_file.CompoundWriteData(nullptr, 1, &cb), eGE_NULL_ARGUMENT);
    EXPECT_EQ(m_file.CompoundWriteData("x", 1, nullptr), eGE_NULL_ARGUMENT);
    EXPECT_EQ(m_file.CompoundOpen(nullptr), eGE_FILE_OPEN);
    EXPECT_EQ(OpenExisting(), eGE_FILE_OPEN);
    EXPECT_EQ(m_file.CompoundOpen(m_dir.File("none/file").c_str()), eGE_FILE_OPEN);
    EXPECT_EQ(Write("x"), eGE_FILE_NOT_OPEN);
    EXPECT_EQ(m_file.CompoundWriteId(kClsid), eGE_FILE_WRITE);
    EXPECT_EQ(m_file.CompoundWriteInfo(L"A type"), eGE_FILE_WRITE);
    EXPECT_EQ(m_file.CompoundClose(), eGE_FILE_NOT_OPEN);
    ASSERT_EQ(Open(), eGE_OK);
    EXPECT_EQ(m_file.CompoundOpen(m_dir.File("other").c_str()), eGE_FILE_ALREADY_OPEN);
    EXPECT_EQ(OpenExisting(), eGE_FILE_ALREADY_OPEN);
    EXPECT_FALSE(std::filesystem::exists(m_dir.File("other")));
    EXPECT_EQ(Write("abc"), eGE_OK);
}

TEST_F(CEvtMgrTest, FailuresOfACompoundFileAreReported)
{
    Install(m_strOn);
    CGCompoundFile file;
    DWORD cb = 0;
    file.CompoundOpenExisting(m_dir.File("none").c_str());
    file.CompoundOpen(m_dir.File("none/file").c_str());
    file.CompoundWriteData("x", 1, &cb);
    file.CompoundWriteId(kClsid);
    file.CompoundWriteInfo(L"A type");
    file.CompoundClose();
    std::string const strLog = ReadLog();
    for (char const *psz : {"OpenExisting: StgOpenStorage hr = 0x8003",
                            "Open: StgCreateDocfile hr = 0x8", "WriteData: m_pStream is NULL",
                            "WriteId: m_pStorage is NULL", "WriteInfo: m_pStorage is NULL",
                            "Close: m_pStream is NOT open", "Close: m_pStorage is NOT open"}) {
        EXPECT_NE(strLog.find("CGCompoundFile::Compound" + std::string(psz)), strLog.npos) << psz;
    }
}

TEST_F(CCompoundTest, WhatCannotBeBroughtToTheDiskIsToldByTheClose)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "written at once, and no folder goes with an open file in it";
    }
    std::filesystem::create_directory(m_dir.File("folder"));
    ASSERT_EQ(m_file.CompoundOpen(m_dir.File("folder/file").c_str()), eGE_OK);
    EXPECT_EQ(Write("abc"), eGE_OK);
    std::filesystem::remove_all(m_dir.File("folder"));
    EXPECT_EQ(m_file.CompoundClose(), eGE_FILE_WRITE);
    EXPECT_EQ(m_file.CompoundClose(), eGE_FILE_NOT_OPEN);
}

TEST_F(CCompoundTest, AFileWithoutTheStreamStaysOpenAsStorage)
{
    IStorage *pStorage = nullptr;
    ASSERT_EQ(StgCreateDocfile(std::filesystem::path(m_strName).wstring().c_str(),
                               STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_WRITE, 0, &pStorage),
              S_OK);
    pStorage->Release();
    EXPECT_EQ(OpenExisting(), eGE_FILE_OPEN);
    EXPECT_EQ(m_file.CompoundWriteId(kClsid), eGE_OK);
    EXPECT_EQ(Write("x"), eGE_FILE_NOT_OPEN);
    EXPECT_EQ(m_file.CompoundClose(), eGE_FILE_NOT_OPEN);
    EXPECT_EQ(m_file.m_pStorage, nullptr);
}

TEST_F(CCompoundTest, WithoutMemoryNothingIsLostAndNothingThrown)
{
    std::string const strContents(70'000, 'x');
    ASSERT_EQ(Open(), eGE_OK);
    ASSERT_EQ(Write(strContents), eGE_OK);
    ASSERT_EQ(m_file.CompoundClose(), eGE_OK);
    std::size_t const cFaults = FailEachAllocation([&] {
        DWORD cb = 0;
        if (OpenExisting() == eGE_OK) {
            m_file.CompoundWriteData(strContents.data(), 70'000, &cb);
        }
        m_file.CompoundClose();
    });
    EXPECT_GT(cFaults, kIsPosix ? 5u : 0u);
    EXPECT_EQ(OpenExisting(), eGE_OK);
    EXPECT_EQ(Reopen(), strContents);
}
