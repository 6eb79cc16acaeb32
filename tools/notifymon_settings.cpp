#include "tools/notifymon_settings.h"

#include "evtmgr/g_category.h"
#include "evtmgr/g_evtmgr.h"
#include "evtmgr/g_evttext.h"
#include "platform/registry.h"
#include "tools/notifymon_output.h"
#include "tools/showable.h"
#include "trace/g_trace.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr char kRootKey[] = "SOFTWARE\\Norvale\\";
constexpr char kTraceKey[] = "TraceDeck";

// A value that some reader looks for.
struct ValueType {
    char const *pszName;
    DWORD cb;               // room of the reader's place in bytes
    char const *pszDefault; // null: a number
    std::uint64_t qwDefault;
};

constexpr ValueType kSwitches[] = {{"Display Long Name", 4, nullptr, 1},
                                   {"Display Short Name", 4, nullptr, 1},
                                   {"Display Level", 4, nullptr, 0}};
constexpr ValueType kRow[] = {{"Long Name", kcbRegText, "", 0},
                              {"Short Name", kcbRegText, "", 0},
                              {"Display Long Name", 4, nullptr, 1},
                              {"Display Short Name", 4, nullptr, 1}};
constexpr ValueType kModule[] = {{"Id String", kcbRegText, "[UNKWN]: ", 0}};
constexpr ValueType kHandler[] = {{"State", 4, nullptr, 0},
                                  {"Level", 4, nullptr, 0},
                                  {"Base Category Mask", 8, nullptr, 0},
                                  {"Custom Category Mask", 8, nullptr, 0}};
constexpr ValueType kFile[] = {{"File Name", kcbRegText, "", 0}, {"Append", 4, nullptr, 0}};
constexpr ValueType kTrace[] = {{"Title", sizeof g_szTdTitle, "", 0},
                                {"Path", sizeof g_szTdPath, "", 0},
                                {"Auto Start", 4, nullptr, 0},
                                {"Module Mask", 8, nullptr, 0},
                                {"Level Mask", 4, nullptr, 0},
                                {"Time Stamp", 4, nullptr, 0},
                                {"Exe Name", 4, nullptr, 0},
                                {"DebugFile", 4, nullptr, 0},
                                {"DebugFilePath", sizeof g_szTdDebugFile, "c:\\debug.log", 0}};
constexpr ValueType kTraceRow[] = {{"Short Name", kcbRegText, "", 0}};

// The whole of a text that a platform call hands out piece by piece.
template <typename Call>
std::string TextOf(Call call)
{
    std::vector<char> text(call(nullptr, 0) + 1);
    call(text.data(), static_cast<DWORD>(text.size()));
    return text.data();
}

// An open key below HKEY_LOCAL_MACHINE, for a scope.
class CKey {
public:
    explicit CKey(std::string const &strKey)
    {
        std::string const strPath = kRootKey + strKey;
        if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, strPath.c_str(), 0, KEY_READ, &m_hKey) != 0) {
            m_hKey = nullptr;
        }
    }
    ~CKey()
    {
        if (m_hKey != nullptr) {
            RegCloseKey(m_hKey);
        }
    }
    CKey(CKey const &) = delete;
    CKey &operator=(CKey const &) = delete;

    bool IsOpen() const { return m_hKey != nullptr; }

    // As the readers do it: the type does not matter, a narrow number fills the low bytes.
    SettingSource Read(ValueType const &value, Setting *pSetting) const
    {
        BYTE ab[kcbRegText] = {};
        DWORD cb = value.cb;
        LONG const nResult =
            m_hKey != nullptr ? RegQueryValueExA(m_hKey, value.pszName, nullptr, nullptr, ab, &cb)
                              : LONG{ERROR_FILE_NOT_FOUND};
        if (nResult != 0) {
            return nResult == LONG{ERROR_MORE_DATA} ? eSS_TOO_LONG : eSS_DEFAULT;
        }
        if (pSetting->bText) {
            auto const *const psz = reinterpret_cast<char const *>(ab);
            pSetting->strText.assign(psz, std::find(psz, psz + cb, '\0'));
        } else {
            std::memcpy(&pSetting->qwNumber, ab, cb); // little-endian, as all targets are
        }
        return eSS_REGISTRY;
    }

    std::vector<std::string> SubKeys() const
    {
        std::vector<std::string> names;
        for (DWORD i = 0; m_hKey != nullptr; ++i) {
            char sz[1024];
            DWORD cch = sizeof sz;
            if (RegEnumKeyExA(m_hKey, i, sz, &cch, nullptr, nullptr, nullptr, nullptr) != 0) {
                break;
            }
            names.emplace_back(sz, cch);
        }
        return names;
    }

private:
    HKEY m_hKey = nullptr;
};

class CLister {
public:
    template <std::size_t c>
    void Add(std::string const &strKey, ValueType const (&values)[c], bool bOnlySet = false)
    {
        CKey const key(strKey);
        for (ValueType const &value : values) {
            Setting setting{strKey, value.pszName, "", value.qwDefault, false, eSS_DEFAULT};
            if (value.pszDefault != nullptr) {
                setting.bText = true;
                setting.strText = value.pszDefault;
            }
            setting.eSource = key.Read(value, &setting);
            if (!bOnlySet || setting.eSource != eSS_DEFAULT) {
                settings.push_back(std::move(setting));
            }
        }
    }

    template <std::size_t c>
    void AddRows(std::string const &strTable, LONG cRows, ValueType const (&values)[c])
    {
        for (LONG nRow = 0; nRow < cRows && CKey(strTable).IsOpen(); ++nRow) {
            Add(strTable + "\\" + std::to_string(nRow), values, /*bOnlySet=*/true);
        }
    }

    void AddCategories(std::string const &strKey)
    {
        Add(strKey, kSwitches);
        AddRows(strKey, kcCategoryRows, kRow);
    }

    std::vector<Setting> settings;
};

std::string BelowRoot(char const *pszKey)
{
    return pszKey + sizeof kRootKey - 1;
}

} // namespace

std::string SettingsFile()
{
    return TextOf(PlatRegistryFile);
}

std::string SettingsProblem()
{
    return TextOf(PlatRegistryProblem);
}

std::string SettingLine(Setting const &setting)
{
    char szNumber[24];
    char const *const pszFormat = setting.qwNumber > 0xFFFF ? "0x%llx" : "%llu";
    std::snprintf(szNumber, sizeof szNumber, pszFormat,
                  static_cast<unsigned long long>(setting.qwNumber));
    std::string const strValue = setting.bText ? Quoted(setting.strText) : std::string(szNumber);
    char const *const apszSource[] = {"default", "set", "default, what is set is too long"};
    return Showable(setting.strKey) + ": " + setting.strName + " = " + strValue + " (" +
           apszSource[setting.eSource] + ")";
}

std::string ModuleKey(std::string const &strModule)
{
    return BelowRoot(kszModulesKey) + "\\" + strModule;
}

std::vector<std::string> ConfiguredModules()
{
    return CKey(BelowRoot(kszModulesKey)).SubKeys();
}

std::vector<Setting> SettingsOf(std::string const &strModule)
{
    CLister lister;
    lister.AddCategories(BelowRoot(kszBaseCategoryKey));
    std::string const strKey = ModuleKey(strModule);
    lister.Add(strKey, kModule);
    lister.AddCategories(strKey + "\\Custom Category");
    lister.Add(strKey + "\\TD", kHandler);
    lister.Add(strKey + "\\File", kHandler);
    lister.Add(strKey + "\\File", kFile);
    lister.Add(kTraceKey, kTrace);
    lister.AddRows(std::string(kTraceKey) + "\\Modules", kcTdModules, kTraceRow);
    lister.AddRows(std::string(kTraceKey) + "\\Levels", kcTdLevels, kTraceRow);
    return std::move(lister.settings);
}

Setting const &FindSetting(std::vector<Setting> const &settings, std::string const &strKey,
                           std::string const &strName)
{
    return *std::find_if(settings.begin(), settings.end(), [&](Setting const &setting) {
        return setting.strKey == strKey && setting.strName == strName;
    });
}
