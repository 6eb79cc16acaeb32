#include "platform/storage.h"

#include "tests/platform/role.h"
#include "tests/support/guards.h"

#include <fstream>
#include <iterator>

namespace {

constexpr DWORD kdwCreate = STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_WRITE;
constexpr DWORD kdwOpen = STGM_SHARE_EXCLUSIVE | STGM_READWRITE;
constexpr CLSID kClsid = {0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};

/// The code is ole32's own; who stands in for it may fail in words of its own.
#define EXPECT_REFUSED(call, hrExpected)                                                           \
    do {                                                                                           \
        HRESULT const hrGot = (call);                                                              \
        EXPECT_TRUE(kIsPosix ? hrGot == (hrExpected) : FAILED(hrGot)) << std::hex << hrGot;        \
    } while (false)

struct ComRelease {
    template <class T>
    void operator()(T *pObject) const
    {
        pObject->Release();
    }
};
using StoragePtr = std::unique_ptr<IStorage, ComRelease>;
using StreamPtr = std::unique_ptr<IStream, ComRelease>;

// Test paths are ASCII.
std::basic_string<OLECHAR> Wide(std::string const &str)
{
    return {str.begin(), str.end()};
}

std::string Contents(std::string const &strName)
{
    std::ifstream file(strName, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void Fill(std::string const &strName, std::string const &strContents)
{
    std::ofstream(strName, std::ios::binary) << strContents;
}

std::uint32_t Dword(std::string const &str, std::size_t n)
{
    std::uint32_t dw = 0;
    for (std::size_t i = 4; i-- != 0;) {
        dw = dw << 8 | static_cast<unsigned char>(str.at(n + i));
    }
    return dw;
}

void Patch(std::string const &strName, std::size_t n, std::uint32_t dw)
{
    std::fstream file(strName, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(n));
    for (int i = 0; i < 4; ++i) {
        file.put(static_cast<char>(dw >> 8 * i));
    }
}

HRESULT Create(std::string const &strName, StoragePtr &pStorage, DWORD dwMode = kdwCreate)
{
    IStorage *p = nullptr;
    HRESULT const hr = StgCreateDocfile(Wide(strName).c_str(), dwMode, 0, &p);
    pStorage.reset(p);
    return hr;
}

HRESULT Open(std::string const &strName, StoragePtr &pStorage, DWORD dwMode = kdwOpen)
{
    IStorage *p = nullptr;
    HRESULT const hr = StgOpenStorage(Wide(strName).c_str(), nullptr, dwMode, nullptr, 0, &p);
    pStorage.reset(p);
    return hr;
}

HRESULT CreateStream(StoragePtr const &pStorage, OLECHAR const *pszName, StreamPtr &pStream,
                     DWORD dwMode = kdwCreate)
{
    IStream *p = nullptr;
    HRESULT const hr = pStorage->CreateStream(pszName, dwMode, 0, 0, &p);
    pStream.reset(p);
    return hr;
}

HRESULT OpenStream(StoragePtr const &pStorage, OLECHAR const *pszName, StreamPtr &pStream,
                   DWORD dwMode = kdwOpen)
{
    IStream *p = nullptr;
    HRESULT const hr = pStorage->OpenStream(pszName, nullptr, dwMode, 0, &p);
    pStream.reset(p);
    return hr;
}

bool Write(StreamPtr const &pStream, std::string const &str)
{
    ULONG cb = 99;
    return pStream->Write(str.data(), static_cast<ULONG>(str.size()), &cb) == S_OK &&
           cb == str.size();
}

std::string Read(StreamPtr const &pStream, std::size_t cb = std::size_t{1} << 27)
{
    std::string str;
    std::string strPart(std::min<std::size_t>(cb, 1 << 20), '?');
    ULONG cbRead = 1;
    while (str.size() < cb && cbRead != 0 &&
           SUCCEEDED(pStream->Read(strPart.data(), static_cast<ULONG>(strPart.size()), &cbRead))) {
        str.append(strPart, 0, cbRead);
    }
    return str;
}

std::string StreamOf(StoragePtr const &pStorage, OLECHAR const *pszName)
{
    StreamPtr pStream;
    EXPECT_EQ(OpenStream(pStorage, pszName, pStream), S_OK);
    return pStream ? Read(pStream) : "(none)";
}

HRESULT Seek(StreamPtr const &pStream, std::int64_t nMove, DWORD dwOrigin,
             std::uint64_t *pnPosition)
{
    LARGE_INTEGER move;
    move.QuadPart = nMove;
    ULARGE_INTEGER position;
    position.QuadPart = *pnPosition;
    HRESULT const hr = pStream->Seek(move, dwOrigin, &position);
    *pnPosition = position.QuadPart;
    return hr;
}

std::string Pattern(std::size_t cb)
{
    std::string strUnit; // its length has nothing in common with that of a sector
    for (int i = 0; i < 1009; ++i) {
        strUnit += static_cast<char>(i * 7 + i / 251);
    }
    std::string str;
    while (str.size() < cb) {
        str += strUnit;
    }
    str.resize(cb);
    return str;
}

void WriteFile(std::string const &strName, std::string const &strContents)
{
    StoragePtr pStorage;
    StreamPtr pStream;
    ASSERT_EQ(Create(strName, pStorage), S_OK);
    ASSERT_EQ(CreateStream(pStorage, L"CONTENTS", pStream), S_OK);
    EXPECT_TRUE(Write(pStream, strContents));
    EXPECT_EQ(WriteClassStg(pStorage.get(), kClsid), S_OK);
    OLECHAR szType[] = L"A type \x20AC";
    EXPECT_EQ(WriteFmtUserTypeStg(pStorage.get(), 1, szType), S_OK);
    pStream.reset();
}

void CheckFile(std::string const &strName, std::string const &strContents)
{
    StoragePtr pStorage;
    ASSERT_EQ(Open(strName, pStorage), S_OK);
    EXPECT_TRUE(StreamOf(pStorage, L"CONTENTS") == strContents) << strContents.size();
    CLSID clsid = {};
    EXPECT_EQ(ReadClassStg(pStorage.get(), &clsid), S_OK);
    EXPECT_TRUE(clsid == kClsid);
}

/// Opens what may be damaged and reads what it says it holds. Whether it opened.
bool Survives(std::string const &strName)
{
    StoragePtr pStorage;
    if (FAILED(Open(strName, pStorage))) {
        return false;
    }
    for (OLECHAR const *pszName : {L"CONTENTS", L"\1CompObj", L"small"}) {
        StreamPtr pStream;
        if (SUCCEEDED(OpenStream(pStorage, pszName, pStream))) {
            Read(pStream);
        }
    }
    return true;
}

CTestRole const g_try("try-storage", [](std::string const &strName) {
    StoragePtr pStorage;
    EXPECT_REFUSED(Open(strName, pStorage), STG_E_SHAREVIOLATION);
    EXPECT_REFUSED(Create(strName, pStorage), STG_E_SHAREVIOLATION);
    return testing::Test::HasFailure() ? 1 : 0;
});

CTestRole const g_writer("write-storage", [](std::string const &strName) {
    StoragePtr pStorage;
    StreamPtr pStream;
    bool const fNew = Open(strName, pStorage) != S_OK;
    if (fNew) {
        Create(strName, pStorage);
        CreateStream(pStorage, L"CONTENTS", pStream);
    } else {
        OpenStream(pStorage, L"CONTENTS", pStream);
    }
    bool const fWritten = Write(pStream, Pattern(500'000));
    Fill(strName + ".written", fWritten ? "yes" : "no");
    Sleep(INFINITE);
    return 0;
});

} // namespace

TEST(StorageTest, ContentsOfEverySizeComeBack)
{
    CTempDir const dir;
    for (std::size_t const cb : {0u, 1u, 63u, 64u, 4095u, 4096u, 1u << 20, 64u << 20}) {
        std::string const strContents = Pattern(cb);
        std::string const strName = dir.File("file.cfb");
        WriteFile(strName, strContents);
        CheckFile(strName, strContents);
    }
}

TEST(StorageTest, OtherReadersListTheStreams)
{
    CTempDir const dir;
    std::string const strName = dir.File("file.cfb");
    std::string const strOut = dir.File("out");
    WriteFile(strName, Pattern(5000));
    PlatEnvType const aVariables[] = {{"FILE", strName.c_str()}, {"OUT", strOut.c_str()}};
    DWORD dwExit = 99;
    ASSERT_TRUE(
        PlatRunCommand("(gsf cat \"$FILE\" CONTENTS || 7z e -so \"$FILE\" CONTENTS) > \"$OUT\"",
                       aVariables, 2, kdwLimit, &dwExit));
    if (!kIsPosix || dwExit == 127) {
        GTEST_SKIP() << "neither gsf nor 7z is installed";
    }
    EXPECT_EQ(dwExit, 0u);
    EXPECT_TRUE(Contents(strOut) == Pattern(5000));
}

TEST(StorageTest, TheTypeRecordIsTheOneThatOthersRead)
{
    CTempDir const dir;
    WriteFile(dir.File("file.cfb"), "");
    StoragePtr pStorage;
    ASSERT_EQ(Open(dir.File("file.cfb"), pStorage), S_OK);
    std::string const str = StreamOf(pStorage, L"\1CompObj");
    // Header and class, then the text in the old character set (whose euro sign depends on the system).
    std::string const strClass("\x78\x56\x34\x12\xBC\x9A\xF0\xDE\1\2\3\4\5\6\7\x08", 16);
    ASSERT_GE(str.size(), 28u + 13);
    EXPECT_EQ(str.substr(8, 4), "\xFF\xFF\xFF\xFF");
    EXPECT_EQ(str.substr(12, 16), strClass);
    EXPECT_EQ(str.substr(28, 11), std::string("\x09\0\0\0A type ", 11));
    EXPECT_EQ(str[40], '\0');
    if (kIsPosix) {
        EXPECT_EQ(str.substr(41, 8), std::string("\xFF\xFF\xFF\xFF\1\0\0\0", 8));
        EXPECT_EQ(str.substr(49),
                  std::string("\0\0\0\0\xF4\x39\xB2\x71\x09\0\0\0A\0 \0t\0y\0p\0e\0 \0\xAC\x20\0\0"
                              "\xFF\xFF\xFF\xFF\1\0\0\0\0\0\0\0",
                              42));
    }
}

TEST(StorageTest, WritingToAFileKeepsTheRestOfIt)
{
    CTempDir const dir;
    std::string const strName = dir.File("file.cfb");
    WriteFile(strName, Pattern(10'000));
    StoragePtr pStorage;
    StreamPtr pStream;
    ASSERT_EQ(Open(strName, pStorage), S_OK);
    std::string const strType = StreamOf(pStorage, L"\1CompObj");
    ASSERT_EQ(CreateStream(pStorage, L"small", pStream, STGM_SHARE_EXCLUSIVE | STGM_READWRITE),
              S_OK);
    EXPECT_TRUE(Write(pStream, "one two"));
    ASSERT_EQ(OpenStream(pStorage, L"contents", pStream), S_OK); // names have no case
    EXPECT_TRUE(Write(pStream, "start"));
    std::uint64_t nPosition = 0;
    EXPECT_EQ(Seek(pStream, 200'000, STREAM_SEEK_SET, &nPosition), S_OK);
    EXPECT_EQ(nPosition, 200'000u);
    EXPECT_TRUE(Write(pStream, "end"));
    EXPECT_EQ(Seek(pStream, -5, STREAM_SEEK_END, &nPosition), S_OK);
    EXPECT_EQ(Read(pStream, 10), std::string("\0\0end", 5));
    if (kIsPosix) { // not every ole32 minds
        EXPECT_EQ(Seek(pStream, -1, STREAM_SEEK_SET, &nPosition), STG_E_INVALIDFUNCTION);
    }
    EXPECT_EQ(Seek(pStream, -1, STREAM_SEEK_CUR, &nPosition), S_OK);
    EXPECT_EQ(nPosition, 200'002u);
    pStream.reset();
    pStorage.reset();

    ASSERT_EQ(Open(strName, pStorage), S_OK);
    std::string strExpected = "start" + Pattern(10'000).substr(5);
    strExpected.resize(200'000);
    EXPECT_TRUE(StreamOf(pStorage, L"CONTENTS") == strExpected + "end");
    EXPECT_EQ(StreamOf(pStorage, L"small"), "one two");
    EXPECT_EQ(StreamOf(pStorage, L"\1CompObj"), strType);
}

TEST(StorageTest, RefusalsTellWhatIsWrong)
{
    CTempDir const dir;
    std::string const strName = dir.File("file.cfb");
    StoragePtr pStorage;
    std::filesystem::create_directory(dir.File("folder"));
    Fill(dir.File("text"), "This is no compound file, however long one looks at it.");
    Fill(dir.File("empty"), "");
    EXPECT_REFUSED(Open(dir.File("none"), pStorage), STG_E_FILENOTFOUND);
    EXPECT_REFUSED(Open(dir.File("none/none"), pStorage), STG_E_PATHNOTFOUND);
    EXPECT_REFUSED(Create(dir.File("folder"), pStorage), STG_E_ACCESSDENIED);
    EXPECT_REFUSED(Open(dir.File("text"), pStorage), STG_E_FILEALREADYEXISTS);
    EXPECT_REFUSED(Open(dir.File("empty"), pStorage), STG_E_FILEALREADYEXISTS);
    EXPECT_REFUSED(Create(dir.File("text"), pStorage, STGM_SHARE_EXCLUSIVE | STGM_WRITE),
                   STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(Contents(dir.File("text")).substr(0, 7), "This is");

    WriteFile(strName, "abc");
    StreamPtr pStream;
    StreamPtr pOther;
    ASSERT_EQ(Open(strName, pStorage), S_OK);
    EXPECT_REFUSED(OpenStream(pStorage, L"none", pStream), STG_E_FILENOTFOUND);
    EXPECT_REFUSED(CreateStream(pStorage, L"CONTENTS", pStream, kdwOpen), STG_E_FILEALREADYEXISTS);
    EXPECT_REFUSED(CreateStream(pStorage, L"12345678901234567890123456789012", pStream),
                   STG_E_INVALIDNAME);
    EXPECT_REFUSED(OpenStream(pStorage, L"CONTENTS", pStream, STGM_READWRITE), STG_E_INVALIDFLAG);
    ASSERT_EQ(OpenStream(pStorage, L"CONTENTS", pStream), S_OK);
    EXPECT_REFUSED(OpenStream(pStorage, L"CONTENTS", pOther), STG_E_ACCESSDENIED);
    if (kIsPosix) {
        EXPECT_REFUSED(CreateStream(pStorage, L"a/b", pOther), STG_E_INVALIDNAME);
        std::uint64_t nPosition = 0;
        EXPECT_EQ(Seek(pStream, std::int64_t{1} << 40, STREAM_SEEK_SET, &nPosition), S_OK);
        EXPECT_FALSE(Write(pStream, "x")); // of a file this long we could not read again
        OLECHAR szType[] = L"type";
        EXPECT_EQ(WriteFmtUserTypeStg(pStorage.get(), 0xC123, szType), DV_E_CLIPFORMAT);
    }
    pStorage.reset();
    char ch;
    EXPECT_REFUSED(pStream->Read(&ch, 1, nullptr), STG_E_REVERTED);
    EXPECT_REFUSED(pStream->Write("x", 1, nullptr), STG_E_REVERTED);

    ASSERT_EQ(Open(strName, pStorage, STGM_SHARE_EXCLUSIVE | STGM_READ), S_OK);
    EXPECT_REFUSED(CreateStream(pStorage, L"new", pStream), STG_E_ACCESSDENIED);
    EXPECT_REFUSED(WriteClassStg(pStorage.get(), kClsid), STG_E_ACCESSDENIED);
}

TEST(StorageTest, AnOpenFileIsNobodyElses)
{
    CTempDir const dir;
    std::string const strName = dir.File("file.cfb");
    StoragePtr pOther;
    for (bool const fNew : {true, false}) {
        StoragePtr pStorage;
        ASSERT_EQ(fNew ? Create(strName, pStorage) : Open(strName, pStorage), S_OK);
        EXPECT_REFUSED(Open(strName, pOther), STG_E_SHAREVIOLATION);
        EXPECT_REFUSED(Create(strName, pOther), STG_E_SHAREVIOLATION);
        EXPECT_EQ(CRoleProcess("try-storage", strName).ExitCode(), 0u);
    }
    EXPECT_EQ(Open(strName, pOther), S_OK);
}

TEST(StorageTest, AKilledWriterLeavesTheOldFileOrARefusedOne)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "Windows writes in place";
    }
    CTempDir const dir;
    std::string const strOld = dir.File("old.cfb");
    WriteFile(strOld, "old contents");
    for (std::string const &strName : {strOld, dir.File("new.cfb")}) {
        CRoleProcess writer("write-storage", strName);
        ASSERT_TRUE(WaitFor([&] { return Contents(strName + ".written") == "yes"; }));
        writer.Kill();
    }
    CheckFile(strOld, "old contents");
    StoragePtr pStorage;
    EXPECT_EQ(Open(dir.File("new.cfb"), pStorage), STG_E_FILEALREADYEXISTS);
    // What the killed ones left beside is taken up and gone after the next writer.
    WriteFile(strOld, "newer");
    WriteFile(dir.File("new.cfb"), "newer");
    CheckFile(strOld, "newer");
    std::size_t cFiles = 0;
    for (auto const &entry : std::filesystem::directory_iterator(dir.File(""))) {
        cFiles += entry.path().extension() == ".written" ? 0 : 1;
    }
    EXPECT_EQ(cFiles, 2u);
}

TEST(StorageTest, DamagedFilesAreRefusedOrHarmless)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "the system's own reader is not ours to test";
    }
    CTempDir const dir;
    std::string const strName = dir.File("file.cfb");
    WriteFile(strName, Pattern(100'000));
    std::string const strWhole = Contents(strName);
    for (std::size_t cb = 0; cb < strWhole.size(); cb += 1021) {
        Fill(strName, strWhole.substr(0, cb));
        EXPECT_FALSE(Survives(strName)) << "cut at " << cb;
    }
    // Every word of the header and of the tables, replaced by numbers that mean something. The contents
    // themselves may be anything, so many of these open.
    Fill(strName, strWhole);
    std::size_t cRefused = 0;
    for (std::size_t n = 24; n + 4 <= strWhole.size(); n = n == 508 ? 100'864 : n + 4) {
        for (std::uint32_t const dw : {0u, 2u, 200u, 0x7FFFFFFFu, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
            Patch(strName, n, dw);
            cRefused += Survives(strName) ? 0 : 1;
        }
        Patch(strName, n, Dword(strWhole, n));
    }
    EXPECT_TRUE(Contents(strName) == strWhole);
    EXPECT_GT(cRefused, 500u);
}

TEST(StorageTest, LoopsAndSharedSectorsAreRefused)
{
    if (!kIsPosix) {
        GTEST_SKIP() << "the system's own reader is not ours to test";
    }
    CTempDir const dir;
    std::string const strName = dir.File("file.cfb");
    WriteFile(strName, Pattern(100'000));
    std::string const strWhole = Contents(strName);
    auto const dword = [&](std::size_t n) { return Dword(strWhole, n); };
    auto const refusal = [&](std::size_t n, std::uint32_t dw) {
        Patch(strName, n, dw);
        StoragePtr pStorage;
        HRESULT const hr = Open(strName, pStorage);
        Patch(strName, n, dword(n));
        return hr;
    };
    std::size_t const nTable = (dword(76) + 1) * 512; // sector 0 and following: the large stream
    std::size_t const nDirectory =
        (dword(48) + 1) * 512; // of 128 bytes: the root, then its streams
    EXPECT_EQ(refusal(nTable + 4 * 10, dword(nTable + 4 * 10)), S_OK); // nothing changed
    EXPECT_EQ(refusal(nTable + 4 * 10, 10), STG_E_DOCFILECORRUPT); // a sector that follows itself
    EXPECT_EQ(refusal(nTable + 4 * 10, 3), STG_E_DOCFILECORRUPT);  // a way back
    EXPECT_EQ(refusal(nTable + 4 * 10, dword(48)), STG_E_DOCFILECORRUPT); // into the directory
    EXPECT_EQ(refusal(nTable + 4 * dword(48), dword(48)), STG_E_DOCFILECORRUPT);
    EXPECT_EQ(refusal(nDirectory + 128 + 68, 1), STG_E_DOCFILECORRUPT); // an entry beside itself
    EXPECT_EQ(refusal(nDirectory + 76, 0), STG_E_DOCFILECORRUPT);       // the root within itself
    EXPECT_EQ(refusal(nDirectory + 128 + 120, 0x7FFFFFFF), STG_E_DOCFILECORRUPT);
}
