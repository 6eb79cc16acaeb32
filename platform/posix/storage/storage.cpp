#include "platform/storage.h"

#include "platform/file.h"
#include "platform/posix/storage/storage_check.h"
#include "platform/posix/storage/storage_file.h"
#include "platform/posix/storage/storage_record.h"
#include "platform/posix/storage/storage_tree.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <new>
#include <string>

namespace {

constexpr DWORD kdwAccessMask = STGM_READ | STGM_WRITE | STGM_READWRITE;
constexpr std::size_t kcchMaxName = 31;                     // characters of a stream's name
constexpr std::uint64_t kcbMaxContents = kcbMaxStorageFile; // with all that the file adds to them
constexpr OLECHAR kszTypeStream[] = L"\1CompObj";

bool CanRead(DWORD dwMode)
{
    return (dwMode & kdwAccessMask) != STGM_WRITE;
}

bool CanWrite(DWORD dwMode)
{
    return (dwMode & kdwAccessMask) != STGM_READ;
}

// The modes that we know: one of the three kinds of access, for nobody else at the same time.
bool IsModeKnown(DWORD dwMode, DWORD dwOptional)
{
    return (dwMode & kdwAccessMask) != kdwAccessMask &&
           (dwMode & ~(kdwAccessMask | dwOptional)) == STGM_SHARE_EXCLUSIVE;
}

// A file's name as bytes. What the locale does not know: low surrogates 0xDC80 to 0xDCFF stand for the
// bytes of a name that was no text when it was widened; everything else is UTF-8. Empty for a bad name.
std::string FileNameFromWide(OLECHAR const *pszName)
{
    std::size_t const cb = std::wcstombs(nullptr, pszName, 0);
    if (cb != static_cast<std::size_t>(-1)) {
        std::string strName(cb, '\0');
        std::wcstombs(strName.data(), pszName, cb);
        return strName;
    }
    std::string strName;
    for (; *pszName != L'\0'; ++pszName) {
        if (*pszName >= 0xDC80 && *pszName <= 0xDCFF) {
            strName += static_cast<char>(*pszName - 0xDC00);
            continue;
        }
        OLECHAR const szOne[] = {*pszName, L'\0'};
        std::string const strOne = StorageNameFromWide(szOne);
        if (strOne.empty()) {
            return {};
        }
        strName += strOne;
    }
    return strName;
}

// What a storage and its streams have in common; lives as long as any of them.
struct StorageState {
    CStorageFile file;
    CStorageNode root;
    DWORD dwMode = 0;
    bool fChanged = false;
    bool fReverted = false; // the storage has gone

    // Room for the contents as they would be with cbMore bytes more.
    HRESULT Change(std::uint64_t cbMore)
    {
        std::uint64_t const cb = StorageFileSize(root) + cbMore + cbMore / 64;
        if (cb > kcbMaxContents) {
            return STG_E_MEDIUMFULL;
        }
        HRESULT const hr = file.Reserve(cb);
        fChanged = fChanged || SUCCEEDED(hr);
        return hr;
    }
};

// No exception leaves the layer.
template <class F>
HRESULT WithMemory(F fn)
{
    try {
        return fn();
    } catch (std::bad_alloc const &) {
        return STG_E_INSUFFICIENTMEMORY;
    }
}

class CStream final : public IStream {
public:
    CStream(std::shared_ptr<StorageState> pState, CStorageNode &node, DWORD dwMode)
        : m_pState(std::move(pState)), m_node(node), m_dwMode(dwMode)
    {
        m_node.m_fOpen = true;
    }
    ~CStream() { m_node.m_fOpen = false; }
    CStream(CStream const &) = delete;
    CStream &operator=(CStream const &) = delete;

    ULONG AddRef() override { return ++m_cRef; }
    ULONG Release() override
    {
        ULONG const cRef = --m_cRef;
        if (cRef == 0) {
            delete this;
        }
        return cRef;
    }

    HRESULT Read(void *pBuffer, ULONG cb, ULONG *pcbRead) override
    {
        ULONG cbRead = 0;
        HRESULT const hr = Check(pBuffer, CanRead(m_dwMode));
        if (SUCCEEDED(hr)) {
            cbRead = static_cast<ULONG>(m_node.m_bytes.Read(m_nPosition, pBuffer, cb));
            m_nPosition += cbRead;
        }
        if (pcbRead != nullptr) {
            *pcbRead = cbRead;
        }
        return hr;
    }

    HRESULT Write(void const *pBuffer, ULONG cb, ULONG *pcbWritten) override
    {
        if (pcbWritten != nullptr) {
            *pcbWritten = 0;
        }
        HRESULT hr = Check(pBuffer, CanWrite(m_dwMode));
        if (FAILED(hr) || cb == 0) {
            return hr;
        }
        hr = WithMemory([&] { return Put(pBuffer, cb); });
        if (SUCCEEDED(hr) && pcbWritten != nullptr) {
            *pcbWritten = cb;
        }
        return hr;
    }

    HRESULT Seek(LARGE_INTEGER nMove, DWORD dwOrigin, ULARGE_INTEGER *pnPosition) override
    {
        if (m_pState->fReverted) {
            return STG_E_REVERTED;
        }
        std::uint64_t const anBase[] = {0, m_nPosition, m_node.m_bytes.Size()};
        std::int64_t nTarget;
        if (dwOrigin > STREAM_SEEK_END ||
            __builtin_add_overflow(static_cast<std::int64_t>(anBase[dwOrigin]), nMove.QuadPart,
                                   &nTarget) ||
            nTarget < 0) {
            return STG_E_INVALIDFUNCTION;
        }
        m_nPosition = static_cast<std::uint64_t>(nTarget);
        if (pnPosition != nullptr) {
            pnPosition->QuadPart = m_nPosition;
        }
        return S_OK;
    }

private:
    HRESULT Check(void const *pBuffer, bool fAllowed) const
    {
        if (m_pState->fReverted) {
            return STG_E_REVERTED;
        }
        if (pBuffer == nullptr) {
            return STG_E_INVALIDPOINTER;
        }
        return fAllowed ? S_OK : STG_E_ACCESSDENIED;
    }

    HRESULT Put(void const *pBuffer, ULONG cb)
    {
        if (m_nPosition > kcbMaxContents) {
            return STG_E_MEDIUMFULL;
        }
        std::uint64_t const cbNow = m_node.m_bytes.Size();
        std::uint64_t const nEnd = m_nPosition + cb;
        HRESULT const hr = m_pState->Change(nEnd > cbNow ? nEnd - cbNow : 0);
        if (SUCCEEDED(hr)) {
            m_node.m_bytes.Write(m_nPosition, pBuffer, cb);
            m_nPosition = nEnd;
        }
        return hr;
    }

    std::shared_ptr<StorageState> const m_pState;
    CStorageNode &m_node;
    DWORD const m_dwMode;
    std::uint64_t m_nPosition = 0;
    ULONG m_cRef = 1;
};

class CStorage final : public IStorage {
public:
    explicit CStorage(std::shared_ptr<StorageState> pState) : m_pState(std::move(pState)) {}
    ~CStorage() { m_pState->fReverted = true; }
    CStorage(CStorage const &) = delete;
    CStorage &operator=(CStorage const &) = delete;

    ULONG AddRef() override { return ++m_cRef; }
    ULONG Release() override
    {
        ULONG const cRef = m_cRef - 1;
        (void)Close(); // the old file is still there, whole, when that fails
        return cRef;
    }

    // Release, with what became of the file if that was the last.
    HRESULT Close()
    {
        if (--m_cRef != 0) {
            return S_OK;
        }
        HRESULT hr = S_OK;
        if (m_pState->fChanged) {
            hr = WithMemory([&] { return m_pState->file.Replace(m_pState->root); });
        }
        // The files go with the storage, not with a stream that someone forgot.
        std::shared_ptr<StorageState> const pState = m_pState;
        delete this;
        pState->file.Close();
        return hr;
    }

    HRESULT CreateStream(OLECHAR const *pszName, DWORD dwMode, DWORD dwReserved1, DWORD dwReserved2,
                         IStream **ppStream) override
    {
        HRESULT const hr = CheckArguments(pszName, dwMode, STGM_CREATE, ppStream);
        if (FAILED(hr)) {
            return hr;
        }
        if (dwReserved1 != 0 || dwReserved2 != 0) {
            return STG_E_INVALIDPARAMETER;
        }
        return WithMemory([&] { return Create(pszName, dwMode, ppStream); });
    }

    HRESULT OpenStream(OLECHAR const *pszName, void *pReserved, DWORD dwMode, DWORD dwReserved,
                       IStream **ppStream) override
    {
        HRESULT const hr = CheckArguments(pszName, dwMode, 0, ppStream);
        if (FAILED(hr)) {
            return hr;
        }
        if (pReserved != nullptr || dwReserved != 0) {
            return STG_E_INVALIDPARAMETER;
        }
        return WithMemory([&] {
            CStorageNode *pNode = m_pState->root.Find(StorageNameFromWide(pszName));
            if (pNode == nullptr || pNode->m_fStorage) {
                return STG_E_FILENOTFOUND;
            }
            return Hand(*pNode, dwMode, ppStream);
        });
    }

    HRESULT SetClass(REFCLSID clsid)
    {
        if (!CanWrite(m_pState->dwMode)) {
            return STG_E_ACCESSDENIED;
        }
        HRESULT const hr = WithMemory([&] { return m_pState->Change(0); });
        if (SUCCEEDED(hr)) {
            m_pState->root.m_clsid = clsid;
        }
        return hr;
    }

    CLSID const &GetClass() const { return m_pState->root.m_clsid; }

private:
    HRESULT CheckArguments(OLECHAR const *pszName, DWORD dwMode, DWORD dwOptional,
                           IStream **ppStream) const
    {
        if (ppStream == nullptr) {
            return STG_E_INVALIDPOINTER;
        }
        *ppStream = nullptr;
        if (pszName == nullptr || *pszName == L'\0' || std::wcslen(pszName) > kcchMaxName ||
            std::wcspbrk(pszName, L"/\\:!") != nullptr) {
            return STG_E_INVALIDNAME;
        }
        if (!IsModeKnown(dwMode, dwOptional)) {
            return STG_E_INVALIDFLAG;
        }
        DWORD const dwOwn = m_pState->dwMode;
        bool const fAllowed =
            (!CanWrite(dwMode) || CanWrite(dwOwn)) && (!CanRead(dwMode) || CanRead(dwOwn));
        return fAllowed ? S_OK : STG_E_ACCESSDENIED;
    }

    HRESULT Create(OLECHAR const *pszName, DWORD dwMode, IStream **ppStream)
    {
        if (!CanWrite(m_pState->dwMode)) {
            return STG_E_ACCESSDENIED;
        }
        std::string const strName = StorageNameFromWide(pszName);
        if (strName.empty()) {
            return STG_E_INVALIDNAME;
        }
        CStorageNode &root = m_pState->root;
        CStorageNode *pNode = root.Find(strName);
        if (pNode != nullptr && (dwMode & STGM_CREATE) == 0) {
            return STG_E_FILEALREADYEXISTS;
        }
        if (pNode != nullptr && pNode->m_fOpen) {
            return STG_E_ACCESSDENIED;
        }
        HRESULT const hr = m_pState->Change(0);
        if (FAILED(hr)) {
            return hr;
        }
        if (pNode == nullptr) {
            root.m_apNodes.push_back(std::make_unique<CStorageNode>());
            pNode = root.m_apNodes.back().get();
        }
        *pNode = CStorageNode{};
        pNode->m_strName = strName;
        return Hand(*pNode, dwMode, ppStream);
    }

    HRESULT Hand(CStorageNode &node, DWORD dwMode, IStream **ppStream)
    {
        if (node.m_fOpen) {
            return STG_E_ACCESSDENIED;
        }
        *ppStream = new CStream(m_pState, node, dwMode);
        return S_OK;
    }

    std::shared_ptr<StorageState> const m_pState;
    ULONG m_cRef = 1;
};

HRESULT CheckOpenArguments(OLECHAR const *pszName, DWORD dwReserved, IStorage **ppStorage)
{
    if (ppStorage == nullptr) {
        return STG_E_INVALIDPOINTER;
    }
    *ppStorage = nullptr;
    if (pszName == nullptr) {
        return STG_E_INVALIDNAME;
    }
    return dwReserved == 0 ? S_OK : STG_E_INVALIDPARAMETER;
}

HRESULT CreateDocfile(OLECHAR const *pszName, DWORD dwMode, IStorage **ppStorage)
{
    auto pState = std::make_shared<StorageState>();
    pState->dwMode = dwMode;
    pState->root.m_fStorage = true;
    DWORD const dwDisposition = (dwMode & STGM_CREATE) != 0 ? OPEN_ALWAYS : CREATE_NEW;
    HRESULT hr =
        pState->file.Open(FileNameFromWide(pszName), GENERIC_READ | GENERIC_WRITE, dwDisposition);
    if (SUCCEEDED(hr)) {
        hr = pState->Change(0);
    }
    if (SUCCEEDED(hr)) {
        *ppStorage = new CStorage(std::move(pState));
    }
    return hr;
}

HRESULT OpenDocfile(OLECHAR const *pszName, DWORD dwMode, IStorage **ppStorage)
{
    auto pState = std::make_shared<StorageState>();
    pState->dwMode = dwMode;
    DWORD const dwAccess = CanWrite(dwMode) ? GENERIC_READ | GENERIC_WRITE : GENERIC_READ;
    HRESULT hr = pState->file.Open(FileNameFromWide(pszName), dwAccess, OPEN_EXISTING);
    if (SUCCEEDED(hr)) {
        hr = StorageLoad(pState->file.Get(), pState->root);
    }
    if (SUCCEEDED(hr)) {
        *ppStorage = new CStorage(std::move(pState));
    }
    return hr;
}

thread_local ULONG t_cOleInitialized = 0;

HRESULT WriteRecord(CStorage &storage, CLIPFORMAT cf, OLECHAR const *pszUserType)
{
    std::string const strRecord = StorageTypeRecord(storage.GetClass(), cf, pszUserType);
    IStream *pStream = nullptr;
    HRESULT hr = storage.CreateStream(
        kszTypeStream, STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_WRITE, 0, 0, &pStream);
    if (SUCCEEDED(hr)) {
        hr = pStream->Write(strRecord.data(), static_cast<ULONG>(strRecord.size()), nullptr);
        pStream->Release();
    }
    return hr;
}

} // namespace

HRESULT OleInitialize(void *pReserved)
{
    if (pReserved != nullptr) {
        return E_INVALIDARG;
    }
    return t_cOleInitialized++ == 0 ? S_OK : S_FALSE;
}

void OleUninitialize()
{
    if (t_cOleInitialized != 0) {
        --t_cOleInitialized;
    }
}

HRESULT StgCreateDocfile(OLECHAR const *pszName, DWORD dwMode, DWORD dwReserved,
                         IStorage **ppStorage)
{
    HRESULT const hr = CheckOpenArguments(pszName, dwReserved, ppStorage);
    if (FAILED(hr)) {
        return hr;
    }
    if (!IsModeKnown(dwMode, STGM_CREATE) || !CanWrite(dwMode)) {
        return STG_E_INVALIDFLAG;
    }
    return WithMemory([&] { return CreateDocfile(pszName, dwMode, ppStorage); });
}

HRESULT StgOpenStorage(OLECHAR const *pszName, IStorage *pPriority, DWORD dwMode, SNB ppExclude,
                       DWORD dwReserved, IStorage **ppStorage)
{
    HRESULT const hr = CheckOpenArguments(pszName, dwReserved, ppStorage);
    if (FAILED(hr)) {
        return hr;
    }
    if (pPriority != nullptr || ppExclude != nullptr) {
        return STG_E_INVALIDPARAMETER;
    }
    if (!IsModeKnown(dwMode, 0) || !CanRead(dwMode)) {
        return STG_E_INVALIDFLAG;
    }
    return WithMemory([&] { return OpenDocfile(pszName, dwMode, ppStorage); });
}

HRESULT PlatCloseStorage(IStorage *pStorage)
{
    return pStorage != nullptr ? static_cast<CStorage *>(pStorage)->Close() : E_INVALIDARG;
}

HRESULT WriteClassStg(IStorage *pStorage, REFCLSID clsid)
{
    return pStorage != nullptr ? static_cast<CStorage *>(pStorage)->SetClass(clsid) : E_INVALIDARG;
}

HRESULT ReadClassStg(IStorage *pStorage, CLSID *pClsid)
{
    if (pStorage == nullptr || pClsid == nullptr) {
        return E_INVALIDARG;
    }
    *pClsid = static_cast<CStorage *>(pStorage)->GetClass();
    return S_OK;
}

HRESULT WriteFmtUserTypeStg(IStorage *pStorage, CLIPFORMAT cf, OLECHAR *pszUserType)
{
    if (pStorage == nullptr || pszUserType == nullptr) {
        return E_INVALIDARG;
    }
    if (cf >= 0xC000) {
        return DV_E_CLIPFORMAT;
    }
    return WithMemory(
        [&] { return WriteRecord(*static_cast<CStorage *>(pStorage), cf, pszUserType); });
}
