#include "evtmgr/g_evthandler.h"

#include "evtmgr/g_category.h"
#include "evtmgr/g_evtmgr.h"
#include "evtmgr/g_evttext.h"
#include "foundation/g_os.h"
#include "foundation/g_text.h"
#include "platform/runtime.h"

#include <cstdio>
#include <cstring>
#include <new>

std::atomic<DWORD> g_cFilterChanges{0};

namespace {

char const *const kszSep = g_aszText[eGT_BACKSLASH];

// Scratch space for the level field, "[-2147483648]" at the longest. What it leaves is the room behind
// a line that WriteText may use.
constexpr std::size_t kcbLevelField = 40;

// CR and LF.
constexpr DWORD kcbLineEnd = 2;

// What one table adds to a line. Without a table all is empty and hidden.
struct LinePart {
    char const *m_pszShort = "";
    char const *m_pszLong = "";
    bool m_fShort = false;
    bool m_fLong = false;
    bool m_fLevel = false;
};

LinePart PartOf(CCategory const *pTable, std::uint64_t mask)
{
    LinePart part;
    if (pTable == nullptr) {
        return part;
    }
    CategoryRowType const &row = pTable->m_Rows[CategoryIndex(mask)];
    part.m_pszShort = GTextOf(row.m_strShortName.m_pszText);
    part.m_pszLong = GTextOf(row.m_strLongName.m_pszText);
    part.m_fShort = pTable->m_fDisplayShortName != 0 && row.m_fDisplayShortName != 0;
    part.m_fLong = pTable->m_fDisplayLongName != 0 && row.m_fDisplayLongName != 0;
    part.m_fLevel = pTable->m_fDisplayLevel != 0;
    return part;
}

void FormatLevel(char (&szLevel)[kcbLevelField], LONG nLevel)
{
    if (nLevel == eEL_ERROR || nLevel == eEL_SUMMARY) {
        std::strcpy(szLevel, "    ");
    } else {
        std::snprintf(szLevel, sizeof(szLevel), "[%2d]", static_cast<int>(nLevel));
    }
}

// Concatenation into a buffer that the caller has made large enough.
class CLineWriter {
public:
    explicit CLineWriter(char *pszLine) : m_pszEnd(pszLine) { *m_pszEnd = '\0'; }
    void Add(bool fShow, char const *psz)
    {
        if (!fShow) {
            return;
        }
        std::size_t const cch = std::strlen(psz);
        std::memcpy(m_pszEnd, psz, cch + 1);
        m_pszEnd += cch;
    }

private:
    char *m_pszEnd;
};

// A value that is not there, or too wide, leaves the word as it was; a narrower one fills its low bytes.
template <class T>
void LoadWord(CGString const &strKey, char const *pszName, CFilterWord<T> &word)
{
    T value = word;
    if (GRegQueryNumber(strKey.m_pszText, pszName, value)) {
        word = value;
    }
}

} // namespace

CGBaseEvtHandler::CGBaseEvtHandler(CGEvtMgr *pEvtMgr, char const *pszName)
    : CGReference(0, pszName), m_BaseCategoryMask(0), m_CustomCategoryMask(0), m_Level(0),
      m_State(0), m_pEvtMgr(nullptr), m_pCustomCategory(nullptr)
{
    m_pCustomCategory = GNewCategory(pszName);
    m_pEvtMgr = pEvtMgr;
}

CGBaseEvtHandler::~CGBaseEvtHandler()
{
    if (m_pCustomCategory != nullptr) {
        m_pCustomCategory->Release();
    }
    m_pCustomCategory = nullptr;
}

DWORD CGBaseEvtHandler::LoadParams()
{
    DWORD dwResult = 0;
    char const *pszModule = GTextOf(m_pEvtMgr->m_strModuleName.m_pszText);
    CGString strKey;
    if (m_pCustomCategory != nullptr &&
        GTextJoin(strKey, {kszModulesKey, kszSep, pszModule, kszSep, "Custom Category"})) {
        dwResult = m_pCustomCategory->Load(strKey.m_pszText);
    }
    if (GTextJoin(strKey, {kszModulesKey, kszSep, pszModule, kszSep, GetModuleName()})) {
        LoadWord(strKey, "Base Category Mask", m_BaseCategoryMask);
        LoadWord(strKey, "Custom Category Mask", m_CustomCategoryMask);
        LoadWord(strKey, "Level", m_Level);
        LoadWord(strKey, "State", m_State);
    }
    LoadModuleParams();
    return dwResult;
}

LONG CGBaseEvtHandler::IsEventOn(std::uint64_t base, std::uint64_t custom, LONG nLevel)
{
    if (IsOn() == 0) {
        return 0;
    }
    if (nLevel == eEL_ERROR || (base & eEB_ERROR) != 0) {
        return 1;
    }
    if (m_State != 1) {
        return 0;
    }
    if (nLevel == eEL_SUMMARY) {
        return 1;
    }
    bool const fBaseFits = base == 0 || (base & m_BaseCategoryMask) != 0;
    bool const fCustomFits = custom == 0 || (custom & m_CustomCategoryMask) != 0;
    return nLevel <= m_Level && fBaseFits && fCustomFits ? 1 : 0;
}

DWORD CGBaseEvtHandler::WriteEvent(char const *pszText, std::uint64_t base, std::uint64_t custom,
                                   LONG nLevel)
{
    LinePart const basePart = PartOf(m_pEvtMgr->m_pBaseCategory, base);
    LinePart const customPart = PartOf(m_pCustomCategory, custom);
    char const *pszId = GTextOf(m_pEvtMgr->m_strIdString.m_pszText);
    // The names count whether they are shown or not.
    DWORD const cb = static_cast<DWORD>(
        std::strlen(pszId) + std::strlen(basePart.m_pszShort) + std::strlen(basePart.m_pszLong) +
        std::strlen(customPart.m_pszShort) + std::strlen(customPart.m_pszLong) + kcbLevelField +
        std::strlen(g_aszText[eGT_BLANK]) + std::strlen(pszText) + 1);
    auto *pszLine = static_cast<char *>(GMemAlloc(cb, __LINE__, __FILE__));
    if (pszLine == nullptr) {
        return 0;
    }

    bool const fLevel = basePart.m_fLevel || customPart.m_fLevel;
    char szLevel[kcbLevelField];
    if (fLevel) {
        FormatLevel(szLevel, nLevel);
    }
    CLineWriter line(pszLine);
    line.Add(true, pszId);
    line.Add(fLevel, szLevel);
    line.Add(basePart.m_fShort, basePart.m_pszShort);
    line.Add(customPart.m_fShort, customPart.m_pszShort);
    line.Add(true, g_aszText[eGT_BLANK]);
    line.Add(basePart.m_fLong || (base & (kBaseAlwaysNamed | eEB_ERROR)) != 0, basePart.m_pszLong);
    line.Add(customPart.m_fLong, customPart.m_pszLong);
    line.Add(true, pszText);

    DWORD const dwResult = WriteLine(static_cast<LONG>(cb), pszLine);
    GMemFree(&pszLine, cb, __LINE__, __FILE__);
    return dwResult;
}

DWORD CGBaseEvtHandler::WriteLine(LONG cb, char const *pszText)
{
    if (cb < 1) {
        return eGE_OUT_OF_MEMORY;
    }
    // A text that fills cb leaves no room for the line end that WriteText may append.
    DWORD const cbCopy = static_cast<DWORD>(cb) + kcbLineEnd;
    auto *pszCopy = static_cast<char *>(GMemAlloc(cbCopy, __LINE__, __FILE__));
    if (pszCopy == nullptr) {
        return eGE_OUT_OF_MEMORY;
    }
    *pszCopy = '\0';
    if (std::strlen(pszText) < static_cast<std::size_t>(cb)) {
        lstrcpyA(pszCopy, pszText);
    } else {
        lstrcpynA(pszCopy, pszText, static_cast<int>(cb) - 1);
    }
    DWORD const dwResult = WriteText(pszCopy);
    GMemFree(&pszCopy, cbCopy, __LINE__, __FILE__);
    return dwResult;
}
