#include "platform/storage.h"

#include "platform/file.h"
#include "platform/posix/error.h"
#include "platform/posix/files/fileobject.h"
#include "platform/posix/storage/storage_check.h"
#include "platform/posix/storage/storage_tree.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr DWORD kdwAccessMask = STGM_READ | STGM_WRITE | STGM_READWRITE;
constexpr std::size_t kcchMaxName = 31;                     // characters of a stream's name
constexpr std::uint64_t kcbReserveStep = 1024 * 1024;       // bytes
constexpr std::uint64_t kcbMaxContents = kcbMaxStorageFile; // with all that the file adds to them
constexpr OLECHAR kszTypeStream[] = L"\1CompObj";

// Structured storage has Win32's low error numbers under its own roof.
HRESULT StorageError(DWORD dwError)
{
    switch (dwError) {
    case ERROR_SUCCESS:
        return S_OK;
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_FILE_EXISTS:
    case ERROR_DISK_FULL:
        return static_cast<HRESULT>(0x80030000u | dwError);
    case ERROR_WRITE_PROTECT:
    case ERROR_CANT_RESOLVE_FILENAME:
        return STG_E_ACCESSDENIED;
    case ERROR_FILENAME_EXCED_RANGE:
        return STG_E_INVALIDNAME;
    default:
        return STG_E_WRITEFAULT;
    }
}

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

// The real place of a file that exists, so that a link keeps pointing to what we replace.
std::string ResolvedName(std::string const &strName)
{
    std::unique_ptr<char, decltype(&std::free)> const psz(::realpath(strName.c_str(), nullptr),
                                                          &std::free);
    return psz ? psz.get() : strName;
}

// The file under a storage, held open with nothing shared, and the one beside it that will take its
// place. Both are found by their folder's descriptor, wherever that folder is moved to. The name of the
// second follows from the first, and is a short one: whoever holds the first exclusively is the only one of
// this user's who uses it, and what a killed process left there is cleared away.
class CStorageFile {
public:
    CStorageFile() = default;
    ~CStorageFile() { Close(); }
    CStorageFile(CStorageFile const &) = delete;
    CStorageFile &operator=(CStorageFile const &) = delete;

    void Close()
    {
        DropAside();
        if (m_fPlaceholder && PlatIsSameFile(m_target.m_fd, m_strName.c_str(), m_fdFolder)) {
            ::unlinkat(m_fdFolder, m_strName.c_str(), 0);
        }
        m_fPlaceholder = false;
        CloseTarget();
    }

    int Get() const { return m_target.m_fd; }

    HRESULT Open(std::string const &strName, DWORD dwAccess, DWORD dwDisposition)
    {
        // Whoever had the file before us may have put another one in its place between our open and our
        // taking of the share mode; then that one is the file.
        constexpr int kcTries = 100;
        for (int i = 0; i < kcTries; ++i) {
            DWORD const dwError = PlatOpenFile(strName.c_str(), dwAccess, /*dwShare=*/0,
                                               dwDisposition, 0, 0666, &m_target);
            if (dwError != ERROR_SUCCESS) {
                return StorageError(dwError);
            }
            if (!m_target.m_fDisk) {
                return STG_E_ACCESSDENIED;
            }
            if (!OpenFolder(ResolvedName(strName))) {
                return STG_E_ACCESSDENIED;
            }
            if (PlatIsSameFile(m_target.m_fd, m_strName.c_str(), m_fdFolder)) {
                m_fPlaceholder = !m_target.m_fExisted;
                return S_OK;
            }
            CloseTarget();
        }
        return STG_E_SHAREVIOLATION;
    }

    // Makes the file beside, if it is not there yet, and room in it for cb bytes.
    HRESULT Reserve(std::uint64_t cb)
    {
        HRESULT const hr = OpenAside();
        if (FAILED(hr) || cb <= m_cbReserved) {
            return hr;
        }
        std::uint64_t const cbAhead = (cb / kcbReserveStep + 1) * kcbReserveStep;
        return Allocate(cbAhead) || Allocate(cb) ? S_OK : STG_E_MEDIUMFULL;
    }

    // The new contents take the place of the old ones.
    HRESULT Replace(CStorageNode const &root)
    {
        HRESULT hr = OpenAside();
        if (SUCCEEDED(hr)) {
            hr = StorageSave(m_fdAside, root);
        }
        if (FAILED(hr)) {
            return hr;
        }
        // Not what another user, whom no share mode keeps out, may have put there.
        if (!PlatIsSameFile(m_fdAside, m_strAside.c_str(), m_fdFolder) ||
            ::renameat(m_fdFolder, m_strAside.c_str(), m_fdFolder, m_strName.c_str()) != 0) {
            return STG_E_ACCESSDENIED;
        }
        ::close(m_fdAside);
        m_fdAside = -1;
        m_fPlaceholder = false;
        return S_OK;
    }

private:
    // strName is that of the open target.
    bool OpenFolder(std::string const &strName)
    {
        std::size_t const nSlash = strName.find_last_of('/');
        std::size_t const nBase = nSlash == std::string::npos ? 0 : nSlash + 1;
        m_strName = strName.substr(nBase);
        std::string const strFolder = nBase == 0 ? "." : strName.substr(0, nBase);
        m_fdFolder = ::open(strFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        return m_fdFolder >= 0;
    }

    void CloseTarget()
    {
        if (m_fdFolder >= 0) {
            ::close(m_fdFolder);
            m_fdFolder = -1;
        }
        if (m_target.m_fd >= 0) {
            PlatCloseFile(m_target.m_fd);
            m_target = {};
        }
    }

    HRESULT OpenAside()
    {
        if (m_fdAside >= 0) {
            return S_OK;
        }
        struct stat st;
        if (::fstat(m_target.m_fd, &st) != 0) {
            return STG_E_ACCESSDENIED;
        }
        char szAside[40];
        std::snprintf(szAside, sizeof szAside, ".%llx.aside",
                      static_cast<unsigned long long>(st.st_ino));
        m_strAside = szAside;
        ::unlinkat(m_fdFolder, szAside, 0);
        m_fdAside = ::openat(m_fdFolder, szAside, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (m_fdAside < 0) {
            return StorageError(PlatErrorFromErrno(errno));
        }
        if (::fchmod(m_fdAside, st.st_mode & 07777) != 0) {
            DropAside();
            return STG_E_ACCESSDENIED;
        }
        return S_OK;
    }

    void DropAside()
    {
        if (m_fdAside < 0) {
            return;
        }
        if (PlatIsSameFile(m_fdAside, m_strAside.c_str(), m_fdFolder)) {
            ::unlinkat(m_fdFolder, m_strAside.c_str(), 0);
        }
        ::close(m_fdAside);
        m_fdAside = -1;
    }

    // Reserves behind the end, for the library counts from where the file ends. A file system that can't
    // do that is asked how much room it has; what it does not tell (a quota) is found out at the end.
    bool Allocate(std::uint64_t cb)
    {
        if (cb > PlatFileSizeLimit()) {
            return false;
        }
        int nResult;
        do {
            nResult = ::fallocate(m_fdAside, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(cb));
        } while (nResult != 0 && errno == EINTR);
        struct statvfs st;
        bool const fRoom =
            nResult == 0 || (errno == EOPNOTSUPP && ::fstatvfs(m_fdAside, &st) == 0 &&
                             cb <= std::uint64_t{st.f_bavail} * st.f_frsize);
        if (fRoom) {
            m_cbReserved = cb;
        }
        return fRoom;
    }

    std::string m_strName;  // in the folder
    std::string m_strAside; // likewise
    COpenedFile m_target;
    int m_fdFolder = -1;
    int m_fdAside = -1;
    bool m_fPlaceholder = false; // the target was made by us and nothing is in it yet
    std::uint64_t m_cbReserved = 0;
};

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

// The record that names a file's kind: header with the class, then the user type, the clipboard format
// and the program, first in the old character set and, behind a mark, once more in UTF-16. Texts have
// their length in front, in characters with the terminator; 0 for none.
class CTypeRecord {
public:
    CTypeRecord(CLSID const &clsid, CLIPFORMAT cf, OLECHAR const *pszUserType)
    {
        Dword(0xFFFE0001u);
        Dword(0x00000A03u);
        Dword(0xFFFFFFFFu);
        m_str.append(reinterpret_cast<char const *>(&clsid), sizeof clsid);
        AsciiText(pszUserType);
        Format(cf);
        Dword(0);
        Dword(0x71B239F4u);
        WideText(pszUserType);
        Format(cf);
        Dword(0);
    }

    std::string m_str;

private:
    void Word(std::uint32_t w)
    {
        m_str += static_cast<char>(w & 0xFF);
        m_str += static_cast<char>(w >> 8 & 0xFF);
    }
    void Dword(std::uint32_t dw)
    {
        Word(dw & 0xFFFF);
        Word(dw >> 16);
    }
    void Format(CLIPFORMAT cf)
    {
        if (cf == 0) {
            Dword(0);
            return;
        }
        Dword(0xFFFFFFFFu); // a number follows, one of the system's own formats
        Dword(cf);
    }
    void AsciiText(OLECHAR const *psz)
    {
        Dword(static_cast<std::uint32_t>(std::wcslen(psz) + 1));
        for (; *psz != L'\0'; ++psz) {
            m_str += *psz < 0x80 ? static_cast<char>(*psz) : '?';
        }
        m_str += '\0';
    }
    void WideText(OLECHAR const *psz)
    {
        std::string strUnits;
        std::swap(strUnits, m_str);
        for (; *psz != L'\0'; ++psz) {
            auto const nChar = static_cast<std::uint32_t>(*psz);
            if (nChar > 0xFFFF) {
                Word(0xD7C0 + (nChar >> 10));
                Word(0xDC00 + (nChar & 0x3FF));
            } else {
                Word(nChar);
            }
        }
        Word(0);
        std::swap(strUnits, m_str);
        Dword(static_cast<std::uint32_t>(strUnits.size() / 2));
        m_str += strUnits;
    }
};

HRESULT WriteRecord(CStorage &storage, CLIPFORMAT cf, OLECHAR const *pszUserType)
{
    CTypeRecord const record(storage.GetClass(), cf, pszUserType);
    IStream *pStream = nullptr;
    HRESULT hr = storage.CreateStream(
        kszTypeStream, STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_WRITE, 0, 0, &pStream);
    if (SUCCEEDED(hr)) {
        hr = pStream->Write(record.m_str.data(), static_cast<ULONG>(record.m_str.size()), nullptr);
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
