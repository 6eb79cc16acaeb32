#include "evtmgr/g_evttext.h"

#include "platform/registry.h"

#include <cstring>
#include <utility>

bool GTextJoin(CGString &str, std::initializer_list<char const *> pieces)
{
    std::size_t cch = 0;
    for (char const *psz : pieces) {
        cch += std::strlen(psz);
    }
    CGString strNew;
    strNew.Alloc(static_cast<DWORD>(cch + 1));
    if (strNew.m_pszText == nullptr) {
        return false;
    }
    char *pszEnd = strNew.m_pszText;
    for (char const *psz : pieces) {
        std::size_t const cchPart = std::strlen(psz);
        std::memcpy(pszEnd, psz, cchPart);
        pszEnd += cchPart;
    }
    *pszEnd = '\0';
    std::swap(str.m_pszText, strNew.m_pszText);
    std::swap(str.m_cbSize, strNew.m_cbSize);
    return true;
}

bool GRegHasKey(char const *pszKey)
{
    HKEY hKey = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, pszKey, /*dwOptions=*/0, KEY_READ, &hKey) != 0) {
        return false;
    }
    RegCloseKey(hKey);
    return true;
}

bool GRegQueryText(char const *pszKey, char const *pszName, char *pszValue)
{
    DWORD cb = kcbRegText;
    if (GRegQueryValue(pszKey, pszName, reinterpret_cast<BYTE *>(pszValue), &cb) != 0) {
        return false;
    }
    // The registry keeps what was put there, a terminator or none.
    pszValue[cb < kcbRegText ? cb : kcbRegText - 1] = '\0';
    return true;
}
