#include "evtmgr/g_category.h"

#include "evtmgr/g_evttext.h"
#include "foundation/g_os.h"
#include "foundation/g_text.h"

#include <bit>
#include <cstdio>
#include <new>

CCategory::CCategory(char const *pszName)
    : CGReference(pszName), m_fDisplayShortName(1), m_fDisplayLongName(1), m_fDisplayLevel(0)
{
    for (CategoryRowType &row : m_Rows) {
        row.m_strLongName.Set(g_aszText[eGT_EMPTY_DEFAULT]);
        row.m_strShortName.Set(g_aszText[eGT_EMPTY_DEFAULT]);
    }
}

CCategory::~CCategory() = default;

DWORD CCategory::Load(char const *pszKey)
{
    GRegQueryNumber(pszKey, "Display Long Name", m_fDisplayLongName);
    GRegQueryNumber(pszKey, "Display Short Name", m_fDisplayShortName);
    GRegQueryNumber(pszKey, "Display Level", m_fDisplayLevel);

    if (!GRegHasKey(pszKey)) {
        return 0; // nor is there a row below it
    }

    auto *pszRowKey = static_cast<char *>(GMemAlloc(kcbRegText, __LINE__, __FILE__));
    auto *pszValue = static_cast<char *>(GMemAlloc(kcbRegText, __LINE__, __FILE__));
    if (pszRowKey != nullptr && pszValue != nullptr) {
        for (LONG nRow = 0; nRow < kcCategoryRows; ++nRow) {
            int const cch =
                std::snprintf(pszRowKey, kcbRegText, "%s\\%d", pszKey, static_cast<int>(nRow));
            if (cch > 0 && static_cast<DWORD>(cch) < kcbRegText) {
                LoadRow(nRow, pszRowKey, pszValue);
            }
        }
    }
    GMemFree(&pszValue, kcbRegText, __LINE__, __FILE__);
    GMemFree(&pszRowKey, kcbRegText, __LINE__, __FILE__);
    return 0;
}

void CCategory::LoadRow(LONG nRow, char const *pszRowKey, char *pszValue)
{
    // Most rows are not there, and each value is a look at the registry of its own.
    if (!GRegHasKey(pszRowKey)) {
        return;
    }
    CategoryRowType &row = m_Rows[nRow];
    if (GRegQueryText(pszRowKey, "Long Name", pszValue)) {
        GTextJoin(row.m_strLongName, {pszValue});
    }
    if (GRegQueryText(pszRowKey, "Short Name", pszValue)) {
        GTextJoin(row.m_strShortName, {pszValue});
    }
    GRegQueryNumber(pszRowKey, "Display Long Name", row.m_fDisplayLongName);
    GRegQueryNumber(pszRowKey, "Display Short Name", row.m_fDisplayShortName);
}

LONG CategoryIndex(std::uint64_t mask)
{
    return static_cast<LONG>(std::bit_width(mask));
}

CCategory *GNewCategory(char const *pszOwner)
{
    CGString strName;
    GStrComposite(&strName, "CCategory", pszOwner);
    auto *pCategory = new (std::nothrow) CCategory(strName.m_pszText);
    if (pCategory != nullptr) {
        INC_OBJECT_COUNTER(eEC_NONE, pCategory->m_strObjectName.m_pszText);
    } else {
        NEW_OPERATOR(eEC_NONE, strName.m_pszText);
    }
    return pCategory;
}
