#include "platform/registry.h"

#include "platform/check.h"
#include "platform/common/regsource.h"
#include "platform/lock.h"
#include "platform/posix/error.h"
#include "platform/posix/registry/regtree.h"
#include "platform/posix/text/textcase.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned kMaxKeys = 1u << 14;        // open at a time
constexpr std::uint32_t kGenerations = 0x8000; // index, generation and two low bits stay below 2^31
constexpr REGSAM kReadRights = KEY_READ | SYNCHRONIZE | GENERIC_READ | MAXIMUM_ALLOWED;
constexpr REGSAM kQueryRights = KEY_QUERY_VALUE | GENERIC_READ | MAXIMUM_ALLOWED;
constexpr REGSAM kEnumerateRights = KEY_ENUMERATE_SUB_KEYS | GENERIC_READ | MAXIMUM_ALLOWED;

constexpr LONG kNoMemory = ERROR_NOT_ENOUGH_MEMORY;

struct COpenKey {
    std::shared_ptr<CRegKey const> pKey; // holds the whole contents that the key is part of
    REGSAM dwAccess = 0;
};

// The registry of the process: the contents of the file and the table of open keys.
class CRegistry : public CRegSource {
public:
    // Guards all of the object. Nothing is called under it that takes another lock of the system.
    CPlatMutex m_mutex;

    // The contents, after a look at the file.
    std::shared_ptr<CRegKey const> Contents()
    {
        if (!m_bPathChosen) {
            ChoosePath(nullptr);
        }
        (void)Refresh(); // what is refused leaves the last good contents
        return m_pRoot;
    }

    void ChoosePath(char const *pszPath)
    {
        SetPath(pszPath != nullptr ? pszPath : DefaultPath());
        m_bPathChosen = true;
    }

    // The key behind a handle; pKey is null when there is none.
    COpenKey KeyOf(HKEY hKey)
    {
        if (hKey == HKEY_LOCAL_MACHINE) {
            return {Contents(), KEY_ALL_ACCESS};
        }
        CSlot const *const pSlot = SlotOf(hKey);
        return pSlot != nullptr ? pSlot->key : COpenKey{};
    }

    LONG Add(COpenKey key, HKEY *phKey)
    {
        std::size_t const nIndex = m_cFree == 0 ? m_slots.size() : m_nFirstFree;
        if (nIndex == kMaxKeys) {
            return ERROR_NO_SYSTEM_RESOURCES;
        }
        if (m_cFree == 0) {
            m_slots.emplace_back();
        } else {
            m_nFirstFree = m_slots[nIndex].nNextFree;
            --m_cFree;
        }
        CSlot &slot = m_slots[nIndex];
        PLAT_CHECK(slot.key.pKey == nullptr);
        slot.dwGeneration = slot.dwGeneration % (kGenerations - 1) + 1;
        slot.key = std::move(key);
        *phKey = reinterpret_cast<HKEY>(static_cast<UINT_PTR>(
            (slot.dwGeneration * kMaxKeys + static_cast<std::uint32_t>(nIndex)) << 2));
        return ERROR_SUCCESS;
    }

    LONG Close(HKEY hKey)
    {
        CSlot *const pSlot = SlotOf(hKey);
        if (pSlot == nullptr) {
            return ERROR_INVALID_HANDLE;
        }
        auto const nIndex = static_cast<std::size_t>(pSlot - m_slots.data());
        (m_cFree == 0 ? m_nFirstFree : m_slots[m_nLastFree].nNextFree) = nIndex;
        m_nLastFree = nIndex;
        ++m_cFree;
        PLAT_CHECK(m_cFree <= m_slots.size());
        pSlot->key = {};
        return ERROR_SUCCESS;
    }

    DWORD LiveKeys() const { return static_cast<DWORD>(m_slots.size() - m_cFree); }

protected:
    std::optional<CRegProblem> Load(std::string_view bytes) override
    {
        auto const pRoot = std::make_shared<CRegKey>();
        CRegTreeBuilder builder(*pRoot);
        std::optional<CRegProblem> problem = ReadRegFile(bytes, builder);
        if (!problem) {
            m_pRoot = pRoot;
        }
        return problem;
    }

    void Clear() override { m_pRoot = std::make_shared<CRegKey>(); }

private:
    struct CSlot {
        std::uint32_t dwGeneration = 0;
        std::size_t nNextFree = 0; // in the list of free slots
        COpenKey key;              // without a pKey while the slot is free
    };

    CSlot *SlotOf(HKEY hKey)
    {
        auto const qw = std::uint64_t{reinterpret_cast<UINT_PTR>(hKey)};
        std::size_t const nIndex = (qw >> 2) % kMaxKeys;
        bool const bGood = (qw & 3) == 0 && nIndex < m_slots.size() &&
                           m_slots[nIndex].dwGeneration == (qw >> 2) / kMaxKeys &&
                           m_slots[nIndex].key.pKey != nullptr;
        return bGood ? &m_slots[nIndex] : nullptr;
    }

    static std::string HomeFolder()
    {
        char const *const pszHome = std::getenv("HOME");
        if (pszHome != nullptr && pszHome[0] == '/') {
            return pszHome;
        }
        char ab[4096];
        passwd entry{};
        passwd *pEntry = nullptr;
        bool const bFound =
            ::getpwuid_r(::getuid(), &entry, ab, sizeof(ab), &pEntry) == 0 && pEntry != nullptr;
        return bFound ? entry.pw_dir : "";
    }

    // Empty when there is no home folder.
    static std::string DefaultPath()
    {
        char const *const pszConfig = std::getenv("XDG_CONFIG_HOME");
        std::string strFolder = pszConfig != nullptr && pszConfig[0] == '/' ? pszConfig : "";
        if (strFolder.empty()) {
            strFolder = HomeFolder();
            strFolder += strFolder.empty() ? "" : "/.config";
        }
        return strFolder.empty() ? "" : strFolder + "/qoma/registry.reg";
    }

    bool m_bPathChosen = false;
    std::shared_ptr<CRegKey const> m_pRoot = std::make_shared<CRegKey>();
    std::vector<CSlot> m_slots;
    // The free slots in a chain, in the order of their closing, so that stale handles stay known.
    std::size_t m_cFree = 0;
    std::size_t m_nFirstFree = 0; // with the next, of no meaning while there are none
    std::size_t m_nLastFree = 0;
};

CRegistry &Registry()
{
    // Never destroyed: threads of the host may read while the process ends.
    static CRegistry *const s_pRegistry = new CRegistry;
    return *s_pRegistry;
}

// Runs body(registry) under the lock; `noMemory` is the result when there is no memory.
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

bool MayOpenWith(REGSAM dwAccess)
{
    return dwAccess == KEY_ALL_ACCESS || (dwAccess != 0 && (dwAccess & ~kReadRights) == 0);
}

LONG CopyValue(CRegValue const &value, DWORD *pdwType, BYTE *pData, DWORD *pcbData)
{
    auto const cb = static_cast<DWORD>(value.strData.size());
    if (pdwType != nullptr) {
        *pdwType = value.dwType;
    }
    if (pcbData == nullptr) {
        return ERROR_SUCCESS;
    }
    bool const bFits = pData == nullptr || *pcbData >= cb;
    *pcbData = cb;
    if (!bFits) {
        return ERROR_MORE_DATA;
    }
    if (pData != nullptr) {
        std::memcpy(pData, value.strData.data(), cb);
    }
    return ERROR_SUCCESS;
}

// ---- The file

constexpr std::int64_t kNanoseconds = 1'000'000'000; // in a second
// Some file systems count time in steps of two seconds.
constexpr std::int64_t kSettledAfter = 2 * kNanoseconds;

std::int64_t Nanoseconds(timespec const &time)
{
    return time.tv_sec * kNanoseconds + time.tv_nsec;
}

CRegFileLook LookOf(struct stat const &file)
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    std::int64_t const nChanged = Nanoseconds(file.st_ctim);
    CRegFileLook look;
    look.stamp = {true, static_cast<std::uint64_t>(file.st_size), file.st_ino,
                  static_cast<std::uint64_t>(Nanoseconds(file.st_mtim)),
                  static_cast<std::uint64_t>(nChanged)};
    // A change time in the future comes from a clock that was set back; it says nothing, and the file is read each time.
    look.bSettled = nChanged + kSettledAfter < Nanoseconds(now);
    return look;
}

CRegFileLook Refuse(CRegFileLook look, std::string strReason, DWORD dwError)
{
    look.bSettled = false; // what cannot be had is tried again each time
    look.strReason = std::move(strReason);
    look.dwError = dwError;
    return look;
}

CRegFileLook Unreadable(CRegFileLook const &look, int nErrno)
{
    return Refuse(look, std::string("cannot be read: ") + std::strerror(nErrno),
                  PlatErrorFromErrno(nErrno));
}

// Reads to the end, one byte beyond the limit at most, which tells that there is too much.
bool ReadAll(int fd, std::string &strBytes)
{
    constexpr std::size_t kcbChunk = 64 * 1024;
    for (;;) {
        std::size_t const cbOld = strBytes.size();
        strBytes.resize(cbOld + std::min(kcbChunk, kcbMaxRegFile + 1 - cbOld));
        ssize_t n;
        do {
            n = ::read(fd, strBytes.data() + cbOld, strBytes.size() - cbOld);
        } while (n < 0 && errno == EINTR);
        strBytes.resize(cbOld + static_cast<std::size_t>(n > 0 ? n : 0));
        if (n <= 0 || strBytes.size() > kcbMaxRegFile) {
            return n >= 0;
        }
    }
}

// Closes a descriptor at the end of its block, also when there is no memory.
struct CFileCloser {
    int const fd;
    ~CFileCloser() { ::close(fd); }
};

CRegFileLook ReadOpenFile(int fd, std::string &strBytes)
{
    struct stat file {};
    if (::fstat(fd, &file) != 0) {
        return Unreadable({}, errno);
    }
    CRegFileLook look = LookOf(file);
    if (!S_ISREG(file.st_mode)) {
        return Refuse(look, "is not a regular file", ERROR_INVALID_DATA);
    }
    // The settings name files to write and a program to start, so they are their user's own or root's.
    if (file.st_uid != ::geteuid() && file.st_uid != 0) {
        return Refuse(look, "belongs to another user", ERROR_ACCESS_DENIED);
    }
    if ((file.st_mode & S_IWOTH) != 0) {
        return Refuse(look, "can be written by every user", ERROR_ACCESS_DENIED);
    }
    return ReadAll(fd, strBytes) ? look : Unreadable(look, errno);
}

} // namespace

CRegFileLook LookAtRegFile(std::string const &strPath, std::string *pstrBytes)
{
    struct stat file {};
    if (pstrBytes == nullptr) {
        return ::stat(strPath.c_str(), &file) == 0 ? LookOf(file) : CRegFileLook{};
    }
    // Not to hang on a pipe that somebody has put there.
    int const fd = ::open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0 && (errno == ENOENT || errno == ENOTDIR)) {
        CRegFileLook look;
        look.bSettled = true;
        return look;
    }
    if (fd < 0) {
        return Unreadable({}, errno);
    }
    CFileCloser const closer{fd};
    return ReadOpenFile(fd, *pstrBytes);
}

LONG RegOpenKeyExA(HKEY hKey, char const *pszSubKey, DWORD dwOptions, REGSAM dwAccess, HKEY *phKey)
{
    if (phKey == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    *phKey = nullptr;
    std::string_view const path = pszSubKey != nullptr ? pszSubKey : "";
    return WithRegistry(kNoMemory, [&](CRegistry &registry) -> LONG {
        COpenKey const parent = registry.KeyOf(hKey);
        if (parent.pKey == nullptr) {
            return ERROR_INVALID_HANDLE;
        }
        if (dwOptions != 0) {
            return ERROR_INVALID_PARAMETER;
        }
        if (path.starts_with('\\')) {
            return ERROR_BAD_PATHNAME;
        }
        CRegKey const *const pKey = parent.pKey->Find(path);
        if (pKey == nullptr) {
            return ERROR_FILE_NOT_FOUND;
        }
        if (!MayOpenWith(dwAccess)) {
            return ERROR_ACCESS_DENIED;
        }
        return registry.Add({{parent.pKey, pKey}, dwAccess}, phKey);
    });
}

LONG RegQueryValueExA(HKEY hKey, char const *pszValue, DWORD *pdwReserved, DWORD *pdwType,
                      BYTE *pData, DWORD *pcbData)
{
    if (pdwReserved != nullptr || (pData != nullptr && pcbData == nullptr)) {
        return ERROR_INVALID_PARAMETER;
    }
    return WithRegistry(kNoMemory, [&](CRegistry &registry) -> LONG {
        COpenKey const key = registry.KeyOf(hKey);
        if (key.pKey == nullptr) {
            return ERROR_INVALID_HANDLE;
        }
        if ((key.dwAccess & kQueryRights) == 0) {
            return ERROR_ACCESS_DENIED;
        }
        auto const i = key.pKey->values.find(Utf8Fold(pszValue != nullptr ? pszValue : ""));
        return i != key.pKey->values.end() ? CopyValue(i->second, pdwType, pData, pcbData)
                                           : LONG{ERROR_FILE_NOT_FOUND};
    });
}

LONG RegEnumKeyExA(HKEY hKey, DWORD dwIndex, char *pszName, DWORD *pcchName, DWORD *pdwReserved,
                   char *pszClass, DWORD *pcchClass, void *pLastWrite)
{
    if (pszName == nullptr || pcchName == nullptr || pdwReserved != nullptr ||
        pszClass != nullptr || pcchClass != nullptr || pLastWrite != nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    return WithRegistry(kNoMemory, [&](CRegistry &registry) -> LONG {
        COpenKey const key = registry.KeyOf(hKey);
        if (key.pKey == nullptr) {
            return ERROR_INVALID_HANDLE;
        }
        if ((key.dwAccess & kEnumerateRights) == 0) {
            return ERROR_ACCESS_DENIED;
        }
        if (dwIndex >= key.pKey->keys.size()) {
            return ERROR_NO_MORE_ITEMS;
        }
        std::string const &strName =
            std::next(key.pKey->keys.begin(), static_cast<std::ptrdiff_t>(dwIndex))
                ->second->strName;
        if (strName.size() >= *pcchName) {
            return ERROR_MORE_DATA;
        }
        std::memcpy(pszName, strName.c_str(), strName.size() + 1);
        *pcchName = static_cast<DWORD>(strName.size());
        return ERROR_SUCCESS;
    });
}

LONG RegCloseKey(HKEY hKey)
{
    if (hKey == HKEY_LOCAL_MACHINE) {
        return ERROR_SUCCESS;
    }
    return WithRegistry(kNoMemory,
                        [&](CRegistry &registry) -> LONG { return registry.Close(hKey); });
}

DWORD PlatSetRegistryFile(char const *pszPath)
{
    if (pszPath != nullptr && *pszPath == '\0') {
        return ERROR_INVALID_PARAMETER;
    }
    return WithRegistry(DWORD{ERROR_NOT_ENOUGH_MEMORY}, [&](CRegistry &registry) -> DWORD {
        registry.ChoosePath(pszPath);
        return registry.Refresh();
    });
}

DWORD PlatRegistryFile(char *pszPath, DWORD cbPath)
{
    return WithRegistry(DWORD{0}, [&](CRegistry &registry) -> DWORD {
        (void)registry.Contents();
        return CopyRegText(registry.Path(), pszPath, cbPath);
    });
}

DWORD PlatRegistryProblem(char *pszText, DWORD cbText)
{
    return WithRegistry(DWORD{0}, [&](CRegistry &registry) -> DWORD {
        (void)registry.Contents();
        return CopyRegText(registry.Problem(), pszText, cbText);
    });
}

DWORD PlatLiveKeys()
{
    return WithRegistry(DWORD{0}, [](CRegistry &registry) -> DWORD { return registry.LiveKeys(); });
}
