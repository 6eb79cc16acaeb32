// Registry texts of any bytes: what is accepted can be written down and reads the same again; what is
// refused is refused with a line, and leaves what was read before, through the calls that the agent uses.

#include "fuzz/fuzz_input.h"
#include "platform/posix/registry/regtree.h"
#include "platform/registry.h"

#include <fstream>

namespace {

std::string Quoted(std::string const &str)
{
    std::string strOut = "\"";
    for (char const ch : str) {
        std::size_t const n = std::string("\\\"\n\r").find(ch);
        strOut += n == std::string::npos ? std::string(1, ch) : std::string("\\") + "\\\"nr"[n];
    }
    return strOut + "\"";
}

// As a text of the older format, in which data in bytes stands as it is.
std::string Print(CRegKey const &key, std::string const &strPath)
{
    char szNumber[16];
    std::string strText = "[" + strPath + "]\n";
    for (auto const &[strName, value] : key.values) {
        std::snprintf(szNumber, sizeof szNumber, "=hex(%x):", static_cast<unsigned>(value.dwType));
        strText += (strName.empty() ? "@" : Quoted(strName)) + szNumber;
        for (char const ch : value.strData) {
            std::snprintf(szNumber, sizeof szNumber, "%02x,", static_cast<unsigned char>(ch));
            strText += szNumber;
        }
        if (strText.back() == ',') {
            strText.pop_back();
        }
        strText += "\n";
    }
    for (auto const &[strUpper, pKey] : key.keys) {
        strText += Print(*pKey, strPath + "\\" + pKey->strName);
    }
    return strText;
}

// The text printed anew, or none when it is refused.
std::optional<std::string> Read(std::string const &strText, CRegKey &root)
{
    CRegTreeBuilder builder(root);
    std::optional<CRegProblem> const problem = ReadRegFile(strText, builder);
    if (problem) {
        Must(problem->nLine > 0 && !problem->strReason.empty(),
             "a refusal has a line and a reason");
        return std::nullopt;
    }
    return "REGEDIT4\n" + Print(root, "HKEY_LOCAL_MACHINE");
}

// What the calls give out below hKey is what `key` holds.
void CompareOpen(HKEY hKey, CRegKey const &key)
{
    static char s_szName[4 * kcchMaxRegKeyName + 1];
    static BYTE s_abData[1 << 16];
    DWORD nIndex = 0;
    for (auto const &[strUpper, pKey] : key.keys) {
        DWORD cch = sizeof s_szName;
        Must(RegEnumKeyExA(hKey, nIndex++, s_szName, &cch, nullptr, nullptr, nullptr, nullptr) ==
                     0 &&
                 pKey->strName == s_szName,
             "keys come in their order");
        HKEY hChild = nullptr;
        Must(RegOpenKeyExA(hKey, s_szName, 0, KEY_READ, &hChild) == 0,
             "a listed key can be opened");
        CompareOpen(hChild, *pKey);
        RegCloseKey(hChild);
    }
    DWORD cch = sizeof s_szName;
    Must(RegEnumKeyExA(hKey, nIndex, s_szName, &cch, nullptr, nullptr, nullptr, nullptr) ==
             ERROR_NO_MORE_ITEMS,
         "there are no further keys");
    for (auto const &[strName, value] : key.values) {
        DWORD cb = sizeof s_abData;
        DWORD dwType = 0;
        Must(RegQueryValueExA(hKey, strName.c_str(), nullptr, &dwType, s_abData, &cb) == 0 &&
                 dwType == value.dwType && value.strData == std::string(s_abData, s_abData + cb),
             "a value is given out as it was read");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *pData, std::size_t cbData)
{
    static std::string const s_strPath = ScratchFile();
    static auto s_pGood = std::make_unique<CRegKey>(); // what the file held when it was last good
    std::string const strText(pData, pData + cbData);
    auto pRoot = std::make_unique<CRegKey>();
    std::optional<std::string> const strPrinted = Read(strText, *pRoot);
    if (strPrinted) {
        CRegKey again;
        Must(Read(*strPrinted, again) == strPrinted, "what is printed reads the same again");
        s_pGood = std::move(pRoot);
    }
    std::ofstream(s_strPath, std::ios::binary) << strText;
    static DWORD const s_dwChosen = PlatSetRegistryFile(s_strPath.c_str());
    (void)s_dwChosen; // the first file may be a refused one
    HKEY hRoot = nullptr;
    Must(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "", 0, KEY_READ, &hRoot) == 0, "the root can be opened");
    Must((PlatRegistryProblem(nullptr, 0) == 0) == strPrinted.has_value(), "a refusal is told");
    CompareOpen(hRoot, *s_pGood);
    RegCloseKey(hRoot);
    Must(PlatLiveKeys() == 0, "every key is closed");
    return 0;
}
