#include "foundation/g_compound.h"

#include "foundation/g_os.h"
#include "foundation/g_text.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr OLECHAR kszContents[] = L"CONTENTS";
constexpr DWORD kdwCreateMode = STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_WRITE;
constexpr DWORD kdwOpenMode = STGM_SHARE_EXCLUSIVE | STGM_READWRITE;

static_assert(kdwCreateMode == 0x1011 && kdwOpenMode == 0x12);

// The wide copy of a file name, for the length of one open. Without memory for it the name is the
// empty text, and the platform decides what becomes of the open.
class CWideName {
public:
    explicit CWideName(char const *pszName)
        : m_cch(static_cast<DWORD>(std::strlen(pszName) + 1)),
          m_pszName(static_cast<OLECHAR *>(GMemAlloc(Size(), __LINE__, __FILE__)))
    {
        if (m_pszName != nullptr && std::mbstowcs(m_pszName, pszName, m_cch) == kNoText) {
            Escape(pszName);
        }
    }
    ~CWideName() { GMemFree(&m_pszName, Size(), __LINE__, __FILE__); }
    CWideName(CWideName const &) = delete;
    CWideName &operator=(CWideName const &) = delete;

    OLECHAR const *Get() const
    {
        auto const *pszEmpty = reinterpret_cast<OLECHAR const *>(g_aszText[eGT_EMPTY_WIDE]);
        return m_pszName != nullptr ? m_pszName : pszEmpty;
    }

private:
    static constexpr std::size_t kNoText = static_cast<std::size_t>(-1);

    DWORD Size() const { return m_cch * static_cast<DWORD>(sizeof(OLECHAR)); }

    // Bytes that are no text in the program's locale (which knows ASCII only unless the host has set
    // it) become low surrogates, which no text holds alone; the platform turns them back.
    void Escape(char const *pszName)
    {
        for (DWORD i = 0; i < m_cch; ++i) {
            auto const b = static_cast<unsigned char>(pszName[i]);
            m_pszName[i] = static_cast<OLECHAR>(b < 0x80 ? b : 0xDC00 + b);
        }
    }

    DWORD m_cch; // with the terminator
    OLECHAR *m_pszName;
};

void ReportResult(char const *pszPlace, char const *pszCall, HRESULT hr)
{
    G_REPORT(eEB_ERROR, eEC_NONE, eEL_ERROR, "CGCompoundFile::%s: %s hr = 0x%x", pszPlace, pszCall,
             static_cast<unsigned int>(hr));
}

// What an object with nothing open has to say; pszState is "NOT open" or "NULL".
void ReportMissing(char const *pszPlace, char const *pszMember, char const *pszState)
{
    G_REPORT(eEB_ERROR, eEC_NONE, eEL_ERROR, "CGCompoundFile::%s: %s is %s", pszPlace, pszMember,
             pszState);
}

// Looks at the result of an open. A platform that fails may leave anything in the pointer.
template <class T>
DWORD OpenResult(char const *pszPlace, char const *pszCall, HRESULT hr, T *&pObject)
{
    if (SUCCEEDED(hr)) {
        return eGE_OK;
    }
    pObject = nullptr;
    ReportResult(pszPlace, pszCall, hr);
    return eGE_FILE_OPEN;
}

HRESULT LetGo(IStream *pStream)
{
    pStream->Release();
    return S_OK;
}

HRESULT LetGo(IStorage *pStorage)
{
    return PlatCloseStorage(pStorage);
}

template <class T>
DWORD ReleaseObject(char const *pszMember, T *&pObject)
{
    if (pObject == nullptr) {
        ReportMissing("CompoundClose", pszMember, "NOT open");
        return eGE_FILE_NOT_OPEN;
    }
    HRESULT const hr = LetGo(std::exchange(pObject, nullptr));
    if (FAILED(hr)) {
        ReportResult("CompoundClose", "Release", hr);
        return eGE_FILE_WRITE;
    }
    return eGE_OK;
}

} // namespace

CGCompoundFile::CGCompoundFile() : m_pStorage(nullptr), m_pStream(nullptr), m_cfFormat(0) {}

CGCompoundFile::~CGCompoundFile() = default;

DWORD CGCompoundFile::CompoundInit()
{
    HRESULT const hr = OleInitialize(nullptr);
    if (FAILED(hr)) {
        ReportResult("CompoundInit", "OleInitialize", hr);
    }
    return eGE_OK;
}

DWORD CGCompoundFile::CompoundUninit()
{
    OleUninitialize();
    return eGE_OK;
}

DWORD CGCompoundFile::CheckOpen(char const *pszFileName) const
{
    if (pszFileName == nullptr) {
        return eGE_FILE_OPEN;
    }
    return m_pStorage != nullptr || m_pStream != nullptr ? eGE_FILE_ALREADY_OPEN : eGE_OK;
}

DWORD CGCompoundFile::CompoundOpen(char const *pszFileName)
{
    DWORD eResult = CheckOpen(pszFileName);
    if (eResult != eGE_OK) {
        return eResult;
    }
    CWideName const name(pszFileName);
    eResult = OpenResult("CompoundOpen", "StgCreateDocfile",
                         StgCreateDocfile(name.Get(), kdwCreateMode, /*dwReserved=*/0, &m_pStorage),
                         m_pStorage);
    if (eResult != eGE_OK) {
        return eResult;
    }
    return OpenResult("CompoundOpen", "CreateStream",
                      m_pStorage->CreateStream(kszContents, kdwCreateMode, /*dwReserved1=*/0,
                                               /*dwReserved2=*/0, &m_pStream),
                      m_pStream);
}

DWORD CGCompoundFile::CompoundOpenExisting(char const *pszFileName)
{
    DWORD eResult = CheckOpen(pszFileName);
    if (eResult != eGE_OK) {
        return eResult;
    }
    CWideName const name(pszFileName);
    eResult = OpenResult("CompoundOpenExisting", "StgOpenStorage",
                         StgOpenStorage(name.Get(), /*pPriority=*/nullptr, kdwOpenMode,
                                        /*ppExclude=*/nullptr, /*dwReserved=*/0, &m_pStorage),
                         m_pStorage);
    if (eResult != eGE_OK) {
        return eResult;
    }
    return OpenResult("CompoundOpenExisting", "OpenStream",
                      m_pStorage->OpenStream(kszContents, /*pReserved=*/nullptr, kdwOpenMode,
                                             /*dwReserved=*/0, &m_pStream),
                      m_pStream);
}

DWORD CGCompoundFile::CompoundClose()
{
    DWORD const eStream = ReleaseObject("m_pStream", m_pStream);
    DWORD const eStorage = ReleaseObject("m_pStorage", m_pStorage);
    return eStream != eGE_OK ? eStream : eStorage;
}

DWORD CGCompoundFile::CompoundWriteData(void const *pData, DWORD cbDataIn, DWORD *pcbWritten)
{
    if (pData == nullptr || pcbWritten == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    *pcbWritten = 0;
    if (m_pStream == nullptr) {
        ReportMissing("CompoundWriteData", "m_pStream", "NULL");
        return eGE_FILE_NOT_OPEN;
    }
    ULONG cbMoved = 0;
    HRESULT const hr = m_pStream->Write(pData, cbDataIn, &cbMoved);
    if (SUCCEEDED(hr) && cbMoved == cbDataIn) {
        *pcbWritten = cbMoved;
        return eGE_OK;
    }
    G_REPORT(eEB_ERROR, eEC_NONE, eEL_ERROR,
             "CGCompoundFile::CompoundWriteData: cbDataIn bytesWritten hr = %d %d 0x%x",
             static_cast<int>(cbDataIn), static_cast<int>(cbMoved), static_cast<unsigned int>(hr));
    return eGE_FILE_WRITE;
}

DWORD CGCompoundFile::CompoundWriteId(CLSID const &clsid)
{
    if (m_pStorage == nullptr) {
        ReportMissing("CompoundWriteId", "m_pStorage", "NULL");
        return eGE_FILE_WRITE;
    }
    HRESULT const hr = WriteClassStg(m_pStorage, clsid);
    if (FAILED(hr)) {
        ReportResult("CompoundWriteId", "WriteClassStg", hr);
        return eGE_FILE_WRITE;
    }
    return eGE_OK;
}

DWORD CGCompoundFile::CompoundWriteInfo(OLECHAR const *pszUserType)
{
    if (m_pStorage == nullptr) {
        ReportMissing("CompoundWriteInfo", "m_pStorage", "NULL");
        return eGE_FILE_WRITE;
    }
    // The platform's argument is not const, though it only reads.
    HRESULT const hr =
        WriteFmtUserTypeStg(m_pStorage, m_cfFormat, const_cast<OLECHAR *>(pszUserType));
    if (FAILED(hr)) {
        ReportResult("CompoundWriteInfo", "WriteFmtUserTypeStg", hr);
        return eGE_FILE_WRITE;
    }
    return eGE_OK;
}
