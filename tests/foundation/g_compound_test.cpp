#include "foundation/g_compound.h"

#include "tests/support/alloc_fault.h"
#include "tests/support/guards.h"
#include "tests/support/site_recorder.h"

#include <fstream>
#include <iterator>

namespace {

constexpr CLSID kClsid = {0x12345678, 1, 2, {1, 2, 3, 4, 5, 6, 7, 8}};

/// A report of the class: always a failure, at the level of failures.
CSiteReport Report(std::string const &strText)
{
    return {32, 0, -1, "CGCompoundFile::" + strText};
}

class CCompoundTest : public testing::Test {
protected:
    class CFile : public CGCompoundFile {
    public:
        bool HasStorage() const { return m_pStorage != nullptr; }
        bool HasStream() const { return m_pStream != nullptr; }
        CLIPFORMAT Format() const { return m_cfFormat; }
        IStream *Stream() const { return m_pStream; }
        IStorage *Storage() const { return m_pStorage; }
    };

    void SetUp() override { EXPECT_EQ(m_file.CompoundInit(), eGE_OK); }
    void TearDown() override
    {
        m_file.CompoundClose();
        EXPECT_EQ(m_file.CompoundUninit(), eGE_OK);
    }

    DWORD Write(std::string const &str)
    {
        DWORD cb = 99;
        DWORD const eResult =
            m_file.CompoundWriteData(str.data(), static_cast<DWORD>(str.size()), &cb);
        EXPECT_EQ(cb, eResult == eGE_OK ? str.size() : 0);
        return eResult;
    }

    std::string ReadAll()
    {
        std::string str(100'000, '?');
        ULONG cb = 0;
        EXPECT_EQ(m_file.Stream()->Read(str.data(), static_cast<ULONG>(str.size()), &cb), S_OK);
        return str.substr(0, cb);
    }

    CTempDir m_dir;
    CCountersGuard m_counters;
    CSiteRecorder m_recorder;
    CFile m_file;
};

} // namespace

TEST_F(CCompoundTest, WhatWasWrittenIsThereAgain)
{
    std::string const strName = m_dir.File("file.cfb");
    std::string const strContents(5000, 'x');
    EXPECT_EQ(m_file.CompoundOpen(strName.c_str()), eGE_OK);
    EXPECT_EQ(Write(strContents), eGE_OK);
    EXPECT_EQ(Write(""), eGE_OK);
    EXPECT_EQ(m_file.CompoundWriteId(kClsid), eGE_OK);
    EXPECT_EQ(m_file.Format(), 0);
    EXPECT_EQ(m_file.CompoundWriteInfo(L"A type"), eGE_OK);
    m_file.SetFormat(1);
    EXPECT_EQ(m_file.CompoundWriteInfo(L"A type"), eGE_OK);
    EXPECT_EQ(m_file.CompoundClose(), eGE_OK);

    EXPECT_EQ(m_file.CompoundOpenExisting(strName.c_str()), eGE_OK);
    EXPECT_EQ(ReadAll(), strContents);
    CLSID clsid = {};
    EXPECT_EQ(ReadClassStg(m_file.Storage(), &clsid), S_OK);
    EXPECT_TRUE(clsid == kClsid);
    EXPECT_EQ(Write("more"), eGE_OK);
    EXPECT_EQ(m_file.CompoundClose(), eGE_OK);
    EXPECT_EQ(m_file.CompoundOpenExisting(strName.c_str()), eGE_OK);
    EXPECT_EQ(ReadAll(), strContents + "more");
    EXPECT_EQ(m_file.CompoundClose(), eGE_OK);
    EXPECT_EQ(m_file.CompoundOpen(strName.c_str()), eGE_OK); // in the place of the old one
    EXPECT_EQ(m_file.CompoundClose(), eGE_OK);
    EXPECT_EQ(m_file.CompoundOpenExisting(strName.c_str()), eGE_OK);
    EXPECT_EQ(ReadAll(), "");
    m_recorder.ExpectOnly({});
}

TEST_F(CCompoundTest, WithNothingOpenEachOperationSaysSo)
{
    DWORD cb = 99;
    EXPECT_EQ(m_file.CompoundWriteData(nullptr, 1, &cb), eGE_NULL_ARGUMENT);
    EXPECT_EQ(m_file.CompoundWriteData("x", 1, nullptr), eGE_NULL_ARGUMENT);
    m_recorder.ExpectOnly({});
    EXPECT_EQ(Write("x"), eGE_FILE_NOT_OPEN);
    EXPECT_EQ(m_file.CompoundWriteId(kClsid), eGE_FILE_WRITE);
    EXPECT_EQ(m_file.CompoundWriteInfo(L"A type"), eGE_FILE_WRITE);
    EXPECT_EQ(m_file.CompoundClose(), eGE_FILE_NOT_OPEN);
    m_recorder.ExpectOnly({Report("CompoundWriteData: m_pStream is NULL"),
                           Report("CompoundWriteId: m_pStorage is NULL"),
                           Report("CompoundWriteInfo: m_pStorage is NULL"),
                           Report("CompoundClose: m_pStream is NOT open"),
                           Report("CompoundClose: m_pStorage is NOT open")});
}

TEST_F(CCompoundTest, RefusedOpensLeaveTheObjectClosedOrAsItWas)
{
    EXPECT_EQ(m_file.CompoundOpen(nullptr), eGE_FILE_OPEN);
    EXPECT_EQ(m_file.CompoundOpenExisting(nullptr), eGE_FILE_OPEN);
    m_recorder.ExpectOnly({});
    EXPECT_EQ(m_file.CompoundOpen(m_dir.File("none/file").c_str()), eGE_FILE_OPEN);
    EXPECT_EQ(m_file.CompoundOpenExisting(m_dir.File("none").c_str()), eGE_FILE_OPEN);
    EXPECT_FALSE(m_file.HasStorage() || m_file.HasStream());
    m_recorder.ExpectOnly({Report("CompoundOpen: StgCreateDocfile hr = 0x80030003"),
                           Report("CompoundOpenExisting: StgOpenStorage hr = 0x80030002")});

    std::string const strName = m_dir.File("file.cfb");
    ASSERT_EQ(m_file.CompoundOpen(strName.c_str()), eGE_OK);
    EXPECT_EQ(m_file.CompoundOpen(m_dir.File("other").c_str()), eGE_FILE_ALREADY_OPEN);
    EXPECT_EQ(m_file.CompoundOpenExisting(strName.c_str()), eGE_FILE_ALREADY_OPEN);
    EXPECT_EQ(m_file.CompoundOpen(nullptr), eGE_FILE_OPEN); // the name first
    EXPECT_FALSE(std::filesystem::exists(m_dir.File("other")));
    EXPECT_EQ(Write("abc"), eGE_OK);
    EXPECT_EQ(m_file.CompoundClose(), eGE_OK);
    EXPECT_EQ(m_file.CompoundClose(), eGE_FILE_NOT_OPEN);
}

TEST_F(CCompoundTest, AFileWithoutTheStreamStaysOpenAsStorage)
{
    std::string const strName = m_dir.File("file.cfb");
    IStorage *pStorage = nullptr;
    ASSERT_EQ(StgCreateDocfile(std::filesystem::path(strName).wstring().c_str(),
                               STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_WRITE, 0, &pStorage),
              S_OK);
    pStorage->Release();
    EXPECT_EQ(m_file.CompoundOpenExisting(strName.c_str()), eGE_FILE_OPEN);
    EXPECT_TRUE(m_file.HasStorage() && !m_file.HasStream());
    EXPECT_EQ(m_file.CompoundWriteId(kClsid), eGE_OK);
    EXPECT_EQ(m_file.CompoundWriteInfo(L"A type"), eGE_OK);
    EXPECT_EQ(Write("x"), eGE_FILE_NOT_OPEN);
    EXPECT_EQ(m_file.CompoundOpen(strName.c_str()), eGE_FILE_ALREADY_OPEN);
    EXPECT_EQ(m_file.CompoundClose(), eGE_FILE_NOT_OPEN);
    EXPECT_FALSE(m_file.HasStorage());
    m_recorder.ExpectOnly({Report("CompoundOpenExisting: OpenStream hr = 0x80030002"),
                           Report("CompoundWriteData: m_pStream is NULL"),
                           Report("CompoundClose: m_pStream is NOT open")});
}

TEST_F(CCompoundTest, RefusedWritesAreReportedWithTheirNumbers)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "the system's own storage takes these";
    }
    ASSERT_EQ(m_file.CompoundOpen(m_dir.File("file.cfb").c_str()), eGE_OK);
    LARGE_INTEGER move;
    move.QuadPart = std::int64_t{1} << 40;
    EXPECT_EQ(m_file.Stream()->Seek(move, STREAM_SEEK_SET, nullptr), S_OK);
    EXPECT_EQ(Write("abc"), eGE_FILE_WRITE);
    m_file.SetFormat(0xC001); // registered by nobody
    EXPECT_EQ(m_file.CompoundWriteInfo(L"A type"), eGE_FILE_WRITE);
    m_recorder.ExpectOnly({Report("CompoundWriteData: cbDataIn bytesWritten hr = 3 0 0x80030070"),
                           Report("CompoundWriteInfo: WriteFmtUserTypeStg hr = 0x8004006a")});
}

TEST_F(CCompoundTest, NamesThatAreNoTextInTheLocaleOpenAllTheSame)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "names are text on Windows";
    }
    std::string const strName = m_dir.File("gr\xC3\xBC\xC3\x9F"
                                           "e \xFF.cfb");
    EXPECT_EQ(m_file.CompoundOpen(strName.c_str()), eGE_OK);
    EXPECT_EQ(m_file.CompoundClose(), eGE_OK);
    EXPECT_TRUE(std::filesystem::exists(strName));
}

TEST_F(CCompoundTest, WithoutMemoryNothingIsLostAndNothingThrown)
{
    std::string const strName = m_dir.File("file.cfb");
    std::string const strContents(70'000, 'x');
    ASSERT_EQ(m_file.CompoundOpen(strName.c_str()), eGE_OK);
    ASSERT_EQ(Write(strContents), eGE_OK);
    ASSERT_EQ(m_file.CompoundClose(), eGE_OK);
    std::size_t const cFaults = FailEachAllocation([&] {
        DWORD cb = 0;
        if (m_file.CompoundOpenExisting(strName.c_str()) == eGE_OK) {
            m_file.CompoundWriteData(strContents.data(), 70'000, &cb);
        }
        m_file.CompoundClose();
    });
    EXPECT_GT(cFaults, kIsPosix ? 5u : 0u);
    EXPECT_EQ(m_file.CompoundOpenExisting(strName.c_str()), eGE_OK);
    EXPECT_EQ(ReadAll(), strContents);
}
