#include "foundation/g_string.h"

#include "foundation/g_os.h"
#include "foundation/g_text.h"
#include "platform/runtime.h"

#include <algorithm>
#include <cstring>
#include <limits>

// Whether a text of cchText characters behind cbBefore bytes still has a size that m_cbSize can hold.
static bool Fits(DWORD cbBefore, std::size_t cchText)
{
    return cchText < std::numeric_limits<DWORD>::max() - cbBefore;
}

void CGString::Alloc(DWORD cbSize)
{
    Clear();
    if (cbSize == 0) {
        return;
    }
    m_pszText = static_cast<char *>(GMemAlloc(cbSize, __LINE__, __FILE__));
    if (m_pszText != nullptr) {
        m_cbSize = cbSize;
    }
}

DWORD CGString::Set(char const *pszText)
{
    char const *pszSource = pszText != nullptr ? pszText : g_aszText[eGT_EMPTY_DEFAULT];
    std::size_t const cchSource = std::strlen(pszSource);

    // The old buffer stays until the copy is made, for the source may lie in it.
    char *pszOld = m_pszText;
    DWORD const cbOld = m_cbSize;
    m_pszText = nullptr;
    if (Fits(0, cchSource)) {
        Alloc(static_cast<DWORD>(cchSource + 1));
    }
    bool const fCopied = m_pszText != nullptr;
    if (fCopied) {
        std::memcpy(m_pszText, pszSource, cchSource + 1);
    }
    GMemFree(&pszOld, cbOld, __LINE__, __FILE__);
    if (!fCopied) {
        return eGE_OUT_OF_MEMORY;
    }
    return pszText != nullptr ? eGE_OK : eGE_NULL_ARGUMENT;
}

DWORD CGString::Append(char const *pszText)
{
    if (m_pszText == nullptr) {
        return Set(pszText);
    }
    char const *pszSource = pszText != nullptr ? pszText : g_aszText[eGT_EMPTY_DEFAULT];
    std::size_t const cchSource = std::strlen(pszSource);
    if (!Fits(m_cbSize, cchSource)) {
        return eGE_OUT_OF_MEMORY;
    }
    DWORD const cbNew = m_cbSize + static_cast<DWORD>(cchSource);
    char *pszNew = static_cast<char *>(GMemAlloc(cbNew, __LINE__, __FILE__));
    if (pszNew == nullptr) {
        return eGE_OUT_OF_MEMORY;
    }
    // A text that was written in place may end before its buffer does.
    char *const pszEnd =
        std::copy(m_pszText, std::find(m_pszText, m_pszText + m_cbSize - 1, '\0'), pszNew);
    std::memcpy(pszEnd, pszSource, cchSource + 1);
    Clear();
    m_cbSize = cbNew;
    m_pszText = pszNew;
    return pszText != nullptr ? eGE_OK : eGE_NULL_ARGUMENT;
}

void CGString::Clear()
{
    GMemFree(&m_pszText, m_cbSize, __LINE__, __FILE__);
}

void GStrComposite(CGString *pstr, char const *pszClass, char const *pszName)
{
    pstr->Set(pszClass);
    pstr->Append(g_aszText[eGT_BRACKET_OPEN]);
    pstr->Append(pszName);
    pstr->Append(g_aszText[eGT_BRACKET_CLOSE]);
}

char const *GStrFindNoCase(char const *pszText, char const *pszPattern)
{
    CGString strText;
    CGString strPattern;
    strText.Set(pszText);
    strPattern.Set(pszPattern);
    // Without the caller's text there is nothing that a result could point into.
    if (pszText == nullptr || strText.m_pszText == nullptr || strPattern.m_pszText == nullptr) {
        return nullptr;
    }
    auto const *pbText = reinterpret_cast<unsigned char const *>(GStrLower(strText.m_pszText));
    auto const *pbPattern =
        reinterpret_cast<unsigned char const *>(GStrLower(strPattern.m_pszText));
    unsigned char const *pbFound = _mbsstr(pbText, pbPattern);
    return pbFound != nullptr ? pszText + (pbFound - pbText) : nullptr;
}
