#include "platform/storage.h"

#include "platform/process.h"

#include "tests/platform/role.h"

namespace {

constexpr DWORD kdwCreate = STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_WRITE;
constexpr DWORD kdwOpen = STGM_SHARE_EXCLUSIVE | STGM_READWRITE;
constexpr CLSID kClsid = {0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};

// The code is ole32's own; who stands in for it may fail in words of its own.
#define EXPECT_REFUSED(call, hrExpected)                                                           \
    do {                                                                                           \
        HRESULT const hrGot = (call);                                                              \
        EXPECT_TRUE(kIsPosix ? hrGot == (hrExpected) : FAILED(hrGot)) << std::hex << hrGot;        \
    } while (false)

template <class T>
class CComPtr {
public:
    ~CComPtr() { Reset(); }
    void Reset()
    {
        if (T *p = std::exchange(m_p, nullptr)) {
            p->Release();
        }
    }
    T **Out()
    {
        Reset();
        return &m_p;
    }
    T *operator->() const { return m_p; }
    T *m_p = nullptr;
};
using Storage = CComPtr<IStorage>;
using Stream = CComPtr<IStream>;

// Test paths are ASCII.
std::basic_string<OLECHAR> Wide(std::string const &str)
{
    return {str.begin(), str.end()};
}

HRESULT Create(std::string const &strName, Storage &storage)
{
    return StgCreateDocfile(Wide(strName).c_str(), kdwCreate, 0, storage.Out());
}

HRESULT Open(std::string const &strName, Storage &storage)
{
    return StgOpenStorage(Wide(strName).c_str(), nullptr, kdwOpen, nullptr, 0, storage.Out());
}

HRESULT CreateStream(Storage const &storage, OLECHAR const *pszName, Stream &stream)
{
    return storage->CreateStream(pszName, kdwCreate, 0, 0, stream.Out());
}

HRESULT OpenStream(Storage const &storage, OLECHAR const *pszName, Stream &stream)
{
    return storage->OpenStream(pszName, nullptr, kdwOpen, 0, stream.Out());
}

bool Write(Stream const &stream, std::string const &str)
{
    ULONG cb = 99;
    return stream->Write(str.data(), static_cast<ULONG>(str.size()), &cb) == S_OK &&
           cb == str.size();
}

std::string Read(Stream const &stream)
{
    std::string str;
    std::string strPart(1 << 20, '?');
    ULONG cb = 1;
    while (cb != 0 && SUCCEEDED(stream->Read(strPart.data(), 1 << 20, &cb))) {
        str.append(strPart, 0, cb);
    }
    return str;
}

std::string StreamOf(Storage const &storage, OLECHAR const *pszName)
{
    Stream stream;
    return OpenStream(storage, pszName, stream) == S_OK ? Read(stream) : "(none)";
}

std::string Pattern(std::size_t cb)
{
    std::string str(cb, '?');
    for (std::size_t i = 0; i < cb; ++i) {
        str[i] = static_cast<char>(i % 1009 * 7 + i % 1009 / 251); // no multiple of a sector
    }
    return str;
}

void MakeFile(std::string const &strName, std::string const &strContents)
{
    Storage storage;
    Stream stream;
    ASSERT_EQ(Create(strName, storage), S_OK);
    ASSERT_EQ(CreateStream(storage, L"CONTENTS", stream), S_OK);
    EXPECT_TRUE(Write(stream, strContents));
    EXPECT_EQ(WriteClassStg(storage.m_p, kClsid), S_OK);
    OLECHAR szType[] = L"A type \x20AC";
    EXPECT_EQ(WriteFmtUserTypeStg(storage.m_p, 1, szType), S_OK);
    stream.Reset();
}

void CheckFile(std::string const &strName, std::string const &strContents)
{
    Storage storage;
    ASSERT_EQ(Open(strName, storage), S_OK);
    EXPECT_TRUE(StreamOf(storage, L"CONTENTS") == strContents) << strContents.size();
    CLSID clsid = {};
    EXPECT_EQ(ReadClassStg(storage.m_p, &clsid), S_OK);
    EXPECT_TRUE(clsid == kClsid);
}

void CheckTaken(std::string const &strName)
{
    Storage storage;
    EXPECT_REFUSED(Open(strName, storage), STG_E_SHAREVIOLATION);
    EXPECT_REFUSED(Create(strName, storage), STG_E_SHAREVIOLATION);
}

CTestRole const g_try("try-storage", [](std::string const &strName) {
    CheckTaken(strName);
    return testing::Test::HasFailure() ? 1 : 0;
});

CTestRole const g_writer("write-storage", [](std::string const &strName) {
    Storage storage;
    Stream stream;
    if (Open(strName, storage) != S_OK) {
        Create(strName, storage);
    }
    if (OpenStream(storage, L"CONTENTS", stream) != S_OK) {
        CreateStream(storage, L"CONTENTS", stream);
    }
    if (Write(stream, Pattern(500'000))) {
        Fill(strName + ".written", "");
    }
    Sleep(INFINITE);
    return 0;
});

CTestRole const g_limited("store-at-limit", [](std::string const &strName) {
    Storage storage;
    Stream stream;
    EXPECT_TRUE(Create(strName, storage) == S_OK &&
                CreateStream(storage, L"CONTENTS", stream) == S_OK);
    EXPECT_TRUE(Write(stream, "abc"));
    EXPECT_FALSE(Write(stream, Pattern(65'000)));
    stream.Reset();
    EXPECT_EQ(PlatCloseStorage(std::exchange(storage.m_p, nullptr)), S_OK);
    return testing::Test::HasFailure() ? 1 : 0;
});

class StorageTest : public testing::Test {
protected:
    CTempDir dir;
    std::string const strName = dir.File("file.cfb");
};

} // namespace

// The sizes are those on both sides of the small-stream limit, and one past a sector of the table.
TEST_F(StorageTest, WeAndOtherReadersFindTheContents)
{
    std::string const strOut = dir.File("out");
    for (std::size_t const cb : {64 << 20, 1 << 20, 4096, 4095, 64, 63, 1, 0}) {
        MakeFile(strName, Pattern(cb));
        CheckFile(strName, Pattern(cb));
    }
    for (std::size_t const cb : {1 << 20, 4096, 4095, 64, 63, 1, 0}) {
        MakeFile(strName, Pattern(cb));
        for (std::string const strReader : {"gsf cat", "7z e -so"}) {
            std::string const strCommand = strReader + " \"$FILE\" CONTENTS > \"$OUT\" 2>/dev/null";
            DWORD dwExit = 127;
            if (kIsPosix) {
                dwExit =
                    RunCommand(strCommand, {{"FILE", strName.c_str()}, {"OUT", strOut.c_str()}});
            }
            if (dwExit == 127) {
                GTEST_SKIP() << "not installed: " << strReader;
            }
            EXPECT_EQ(dwExit, 0u) << strReader;
            EXPECT_TRUE(Contents(strOut) == Pattern(cb)) << strReader << " of " << cb;
        }
    }
}

TEST_F(StorageTest, TheTypeRecordIsTheOneThatOthersRead)
{
    MakeFile(strName, "");
    Storage storage;
    ASSERT_EQ(Open(strName, storage), S_OK);
    std::string const str = StreamOf(storage, L"\1CompObj");
    // Header and class, then the text in the old character set (whose euro sign depends on the system).
    std::string const strHead("\xFF\xFF\xFF\xFF\x78\x56\x34\x12\xBC\x9A\xF0\xDE\1\2\3\4\5\6\7\x08"
                              "\x09\0\0\0A type ",
                              31);
    ASSERT_GE(str.size(), 41u);
    EXPECT_EQ(str.substr(8, 31), strHead);
    if (kIsPosix) {
        EXPECT_EQ(str.substr(40), std::string("\0\xFF\xFF\xFF\xFF\1\0\0\0\0\0\0\0\xF4\x39\xB2\x71"
                                              "\x09\0\0\0A\0 \0t\0y\0p\0e\0 \0\xAC\x20\0\0"
                                              "\xFF\xFF\xFF\xFF\1\0\0\0\0\0\0\0",
                                              51));
    }
}

TEST_F(StorageTest, WritingToAFileKeepsTheRestOfIt)
{
    MakeFile(strName, Pattern(10'000));
    Storage storage;
    Stream stream;
    ASSERT_EQ(Open(strName, storage), S_OK);
    std::string const strType = StreamOf(storage, L"\1CompObj");
    ASSERT_EQ(CreateStream(storage, L"small", stream), S_OK);
    EXPECT_TRUE(Write(stream, "one two"));
    ASSERT_EQ(OpenStream(storage, L"contents", stream), S_OK) << "names have no case";
    EXPECT_TRUE(Write(stream, "start"));
    stream.Reset();

    ASSERT_EQ(Open(strName, storage), S_OK);
    EXPECT_TRUE(StreamOf(storage, L"CONTENTS") == "start" + Pattern(10'000).substr(5));
    EXPECT_EQ(StreamOf(storage, L"small"), "one two");
    EXPECT_EQ(StreamOf(storage, L"\1CompObj"), strType);
}

TEST_F(StorageTest, ForeignFilesStayAndStreamsEndWithTheirStorage)
{
    Storage storage;
    Stream stream;
    Stream other;
    Fill(strName, "This is no compound file, however long one looks at it.");
    EXPECT_REFUSED(Open(strName, storage), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(Contents(strName).substr(0, 7), "This is");
    MakeFile(strName, "abc");
    ASSERT_EQ(Open(strName, storage), S_OK);
    EXPECT_REFUSED(CreateStream(storage, L"12345678901234567890123456789012", stream),
                   STG_E_INVALIDNAME);
    ASSERT_EQ(OpenStream(storage, L"CONTENTS", stream), S_OK);
    EXPECT_REFUSED(OpenStream(storage, L"CONTENTS", other), STG_E_ACCESSDENIED);
    storage.Reset();
    char ch;
    EXPECT_REFUSED(stream->Read(&ch, 1, nullptr), STG_E_REVERTED);
    EXPECT_REFUSED(stream->Write("x", 1, nullptr), STG_E_REVERTED);
}

TEST_F(StorageTest, AnOpenFileIsNobodyElses)
{
    for (bool const fNew : {true, false}) {
        Storage storage;
        ASSERT_EQ(fNew ? Create(strName, storage) : Open(strName, storage), S_OK);
        CheckTaken(strName);
        EXPECT_EQ(CRoleProcess("try-storage", strName).ExitCode(), 0u);
    }
    Storage last;
    EXPECT_EQ(Open(strName, last), S_OK);
}

TEST_F(StorageTest, AKilledWriterLeavesTheOldFileOrARefusedOne)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "Windows writes in place";
    }
    MakeFile(strName, "old contents");
    for (std::string const &str : {strName, dir.File("new.cfb")}) {
        CRoleProcess writer("write-storage", str);
        ASSERT_TRUE(WaitForFile(str + ".written"));
        writer.Kill();
    }
    CheckFile(strName, "old contents");
    Storage storage;
    EXPECT_EQ(Open(dir.File("new.cfb"), storage), STG_E_FILEALREADYEXISTS);
    // What the killed ones left beside is taken up and gone after the next writer.
    MakeFile(strName, "newer");
    MakeFile(dir.File("new.cfb"), "newer");
    CheckFile(strName, "newer");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.File("")), {}),
              4); // the two, and what they told
}

TEST_F(StorageTest, ALimitOfTheSizeIsToldByTheWriteThatWouldPassIt)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "no such limit";
    }
    EXPECT_EQ(RunCommand("ulimit -f 128 && exec \"" + OwnProgram() + "\" --role store-at-limit '" +
                         strName + "'"),
              0u);
    Storage storage;
    ASSERT_EQ(Open(strName, storage), S_OK);
    EXPECT_EQ(StreamOf(storage, L"CONTENTS"), "abc");
}

TEST_F(StorageTest, TheFileGoesWhereItsFolderGoesWhateverItsName)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "Windows moves no folder with an open file, and has shorter names";
    }
    std::string const strLong(255, 'n');
    std::filesystem::create_directory(dir.File("folder"));
    Storage storage;
    Stream stream;
    ASSERT_EQ(Create(dir.File("folder/") + strLong, storage), S_OK);
    ASSERT_EQ(CreateStream(storage, L"CONTENTS", stream), S_OK);
    EXPECT_TRUE(Write(stream, "abc"));
    stream.Reset();
    std::filesystem::rename(dir.File("folder"), dir.File("moved"));
    EXPECT_EQ(PlatCloseStorage(std::exchange(storage.m_p, nullptr)), S_OK);
    ASSERT_EQ(Open(dir.File("moved/") + strLong, storage), S_OK);
    EXPECT_EQ(StreamOf(storage, L"CONTENTS"), "abc");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.File("moved")), {}), 1);
}

// The fuzz target's files of this kind. Opened for writing, so they are copied first.
TEST_F(StorageTest, LoopsAndSectorsOfMoreThanOneOwnerAreRefused)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "the system's own reader is not ours to test";
    }
    for (std::string const strFault : {"self", "shared", "beside", "within", "long"}) {
        std::string const strSeed = Contents(QOMA_SEEDS "/compound/bad-" + strFault + ".cfb");
        ASSERT_GT(strSeed.size(), 20'000u);
        Fill(strName, strSeed);
        Storage storage;
        EXPECT_EQ(Open(strName, storage), STG_E_DOCFILECORRUPT) << strFault;
    }
}
