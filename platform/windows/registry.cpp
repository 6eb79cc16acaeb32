#include "platform/registry.h"

#include "platform/common/regsource.h"
#include "platform/lock.h"

#include <string>

// A registry file on Windows: its contents are put into a private key that only lasts for the session, and
// our own reads begin there (PlatLocalMachine).

namespace {

HKEY const kSystemLocalMachine = reinterpret_cast<HKEY>(static_cast<LONG_PTR>(LONG(0x80000002)));
constexpr char kPrivateKey[] = "Software\\QOMA Registry Files";

std::wstring Widen(std::string_view text)
{
    int const cb = static_cast<int>(text.size());
    int const cch = MultiByteToWideChar(CP_UTF8, 0, text.data(), cb, nullptr, 0);
    std::wstring strWide(static_cast<std::size_t>(cch), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), cb, strWide.data(), cch);
    return strWide;
}

bool IsText(DWORD dwType)
{
    return dwType == REG_SZ || dwType == REG_EXPAND_SZ || dwType == REG_MULTI_SZ;
}

// Puts what a file says under a key.
class CRegWriter : public CRegVisitor {
public:
    explicit CRegWriter(HKEY hRoot) : m_hRoot(hRoot) {}
    ~CRegWriter() override { CloseKey(); }
    CRegWriter(CRegWriter const &) = delete;
    CRegWriter &operator=(CRegWriter const &) = delete;

    // What the system said to the first call that failed, or 0.
    LONG Status() const { return m_nStatus; }

    void OnKey(CRegPath const &path) override
    {
        CloseKey();
        for (std::string_view const name : path) { // one call makes 32 levels at most
            HKEY hChild = nullptr;
            Note(RegCreateKeyExW(Key(), Widen(name).c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                                 KEY_ALL_ACCESS, nullptr, &hChild, nullptr));
            if (hChild == nullptr) {
                return;
            }
            CloseKey();
            m_hKey = hChild;
        }
    }

    void OnDeleteKey(CRegPath const &path) override
    {
        std::wstring strPath;
        for (std::string_view const name : path) {
            strPath += (strPath.empty() ? L"" : L"\\") + Widen(name);
        }
        NoteUnlessMissing(RegDeleteTreeW(m_hRoot, strPath.c_str()));
    }

    void OnValue(std::string_view name, DWORD dwType, std::string_view data) override
    {
        std::wstring const strText = IsText(dwType) ? Widen(data) : std::wstring();
        void const *const pData =
            IsText(dwType) ? static_cast<void const *>(strText.c_str()) : data.data();
        std::size_t const cb = IsText(dwType) ? strText.size() * sizeof(wchar_t) : data.size();
        Note(RegSetValueExW(Key(), Widen(name).c_str(), 0, dwType, static_cast<BYTE const *>(pData),
                            static_cast<DWORD>(cb)));
    }

    void OnDeleteValue(std::string_view name) override
    {
        NoteUnlessMissing(RegDeleteValueW(Key(), Widen(name).c_str()));
    }

private:
    HKEY Key() const { return m_hKey != nullptr ? m_hKey : m_hRoot; }

    void CloseKey()
    {
        if (m_hKey != nullptr) {
            RegCloseKey(m_hKey);
            m_hKey = nullptr;
        }
    }

    void Note(LONG nStatus) { m_nStatus = m_nStatus == ERROR_SUCCESS ? nStatus : m_nStatus; }
    void NoteUnlessMissing(LONG nStatus)
    {
        Note(nStatus == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : nStatus);
    }

    HKEY m_hRoot;
    HKEY m_hKey = nullptr; // the present one below the root
    LONG m_nStatus = ERROR_SUCCESS;
};

// A private key that goes with this object. Its handle stays: another thread may be about to use it, and
// then gets ERROR_KEY_DELETED, not somebody else's key. That is one handle for each change of the file.
class CPrivateKey {
public:
    CPrivateKey() = default;
    ~CPrivateKey() { Remove(); }
    CPrivateKey(CPrivateKey const &) = delete;
    CPrivateKey &operator=(CPrivateKey const &) = delete;

    LONG Create()
    {
        static unsigned s_nCount = 0; // under the registry's lock
        std::string strName = std::string(kPrivateKey) + "\\" +
                              std::to_string(GetCurrentProcessId()) + "." +
                              std::to_string(++s_nCount);
        RegDeleteTreeA(HKEY_CURRENT_USER, strName.c_str()); // of a process that had our number once
        LONG const nStatus =
            RegCreateKeyExA(HKEY_CURRENT_USER, strName.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                            KEY_ALL_ACCESS, nullptr, &m_hKey, nullptr);
        m_strName = nStatus == ERROR_SUCCESS ? std::move(strName) : std::string();
        return nStatus;
    }

    void Remove()
    {
        if (!m_strName.empty()) {
            RegDeleteTreeA(HKEY_CURRENT_USER, m_strName.c_str());
        }
        m_strName.clear();
        m_hKey = nullptr;
    }

    void Swap(CPrivateKey &other)
    {
        std::swap(m_hKey, other.m_hKey);
        m_strName.swap(other.m_strName);
    }

    HKEY Handle() const { return m_hKey; }

private:
    HKEY m_hKey = nullptr;
    std::string m_strName;
};

class CRegistry : public CRegSource {
public:
    ~CRegistry() override = default;

    CPlatMutex m_mutex; // guards all of the object

    HKEY Root()
    {
        if (Path().empty()) {
            return kSystemLocalMachine;
        }
        (void)Refresh(); // what is refused leaves the last good contents
        return m_key.Handle() != nullptr ? m_key.Handle() : kSystemLocalMachine;
    }

protected:
    std::optional<CRegProblem> Load(std::string_view bytes) override
    {
        CPrivateKey key;
        LONG nStatus = key.Create();
        if (nStatus == ERROR_SUCCESS) {
            CRegWriter writer(key.Handle());
            if (std::optional<CRegProblem> problem = ReadRegFile(bytes, writer)) {
                return problem;
            }
            nStatus = writer.Status();
        }
        if (nStatus != ERROR_SUCCESS) {
            return CRegProblem{1,
                               "cannot be put into the registry: error " + std::to_string(nStatus)};
        }
        Put(key);
        return std::nullopt;
    }

    void Clear() override
    {
        CPrivateKey key;
        (void)key.Create();
        Put(key);
    }

private:
    // The contents before stay for the keys that are open in them; those before these go.
    void Put(CPrivateKey &key)
    {
        m_old.Swap(m_key);
        m_key.Swap(key);
    }

    CPrivateKey m_key;
    CPrivateKey m_old;
};

CRegistry &Registry()
{
    static CRegistry s_registry; // its end removes the private keys
    return s_registry;
}

template <typename Result, typename Body>
Result WithRegistry(Result noMemory, Body body)
{
    try {
        CRegistry &registry = Registry();
        CPlatGuard const lock(registry.m_mutex);
        return body(registry);
    } catch (std::bad_alloc const &) {
        return noMemory;
    }
}

std::uint64_t Join(DWORD dwHigh, DWORD dwLow)
{
    return std::uint64_t{dwHigh} << 32 | dwLow;
}

constexpr std::uint64_t kSettledAfter = 2 * 10'000'000; // 2 seconds in steps of 100 ns

bool IsSettled(std::uint64_t qwWritten)
{
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return qwWritten + kSettledAfter < Join(now.dwHighDateTime, now.dwLowDateTime);
}

CRegFileLook Unreadable(DWORD dwError)
{
    CRegFileLook look;
    look.strReason = "cannot be read: error " + std::to_string(dwError);
    look.dwError = dwError;
    return look;
}

bool ReadAll(HANDLE hFile, std::string &strBytes)
{
    constexpr std::size_t kcbChunk = 64 * 1024;
    for (;;) {
        std::size_t const cbOld = strBytes.size();
        strBytes.resize(cbOld + kcbChunk);
        DWORD cbRead = 0;
        BOOL const bRead = ReadFile(hFile, strBytes.data() + cbOld, kcbChunk, &cbRead, nullptr);
        strBytes.resize(cbOld + cbRead);
        if (!bRead || cbRead == 0 || strBytes.size() > kcbMaxRegFile) {
            return bRead != FALSE;
        }
    }
}

// Closes a handle at the end of its block, also when there is no memory.
struct CFileCloser {
    HANDLE const hFile;
    ~CFileCloser() { CloseHandle(hFile); }
};

CRegFileLook LookAtOpenFile(HANDLE hFile, std::string *pstrBytes)
{
    BY_HANDLE_FILE_INFORMATION info;
    if (!GetFileInformationByHandle(hFile, &info)) {
        return Unreadable(GetLastError());
    }
    CRegFileLook look;
    look.stamp.bExists = true;
    look.stamp.qwSize = Join(info.nFileSizeHigh, info.nFileSizeLow);
    look.stamp.qwId = Join(info.nFileIndexHigh, info.nFileIndexLow);
    look.stamp.qwWritten =
        Join(info.ftLastWriteTime.dwHighDateTime, info.ftLastWriteTime.dwLowDateTime);
    look.bSettled = IsSettled(look.stamp.qwWritten);
    bool const bRead = pstrBytes == nullptr || ReadAll(hFile, *pstrBytes);
    return bRead ? look : Unreadable(GetLastError());
}

} // namespace

CRegFileLook LookAtRegFile(std::string const &strPath, std::string *pstrBytes)
{
    HANDLE const hFile = CreateFileA(strPath.c_str(), GENERIC_READ,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile != INVALID_HANDLE_VALUE) {
        CFileCloser const closer{hFile};
        return LookAtOpenFile(hFile, pstrBytes);
    }
    DWORD const dwError = GetLastError();
    if (dwError != ERROR_FILE_NOT_FOUND && dwError != ERROR_PATH_NOT_FOUND) {
        return Unreadable(dwError);
    }
    CRegFileLook look;
    look.bSettled = true;
    return look;
}

HKEY PlatLocalMachine()
{
    return WithRegistry(kSystemLocalMachine, [](CRegistry &registry) { return registry.Root(); });
}

DWORD PlatSetRegistryFile(char const *pszPath)
{
    if (pszPath != nullptr && *pszPath == '\0') {
        return ERROR_INVALID_PARAMETER;
    }
    return WithRegistry(DWORD{ERROR_NOT_ENOUGH_MEMORY}, [&](CRegistry &registry) {
        registry.SetPath(pszPath != nullptr ? pszPath : "");
        return pszPath != nullptr ? registry.Refresh() : DWORD{0};
    });
}

DWORD PlatRegistryFile(char *pszPath, DWORD cbPath)
{
    return WithRegistry(DWORD{0}, [&](CRegistry &registry) {
        return CopyRegText(registry.Path(), pszPath, cbPath);
    });
}

DWORD PlatRegistryProblem(char *pszText, DWORD cbText)
{
    return WithRegistry(DWORD{0}, [&](CRegistry &registry) {
        (void)registry.Root();
        return CopyRegText(registry.Problem(), pszText, cbText);
    });
}

DWORD PlatLiveKeys()
{
    return 0;
}
