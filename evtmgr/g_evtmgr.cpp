#include "evtmgr/g_evtmgr.h"

#include "evtmgr/g_evttext.h"
#include "evtmgr/g_filehandler.h"
#include "evtmgr/g_tdhandler.h"
#include "foundation/g_os.h"
#include "foundation/g_text.h"
#include "platform/check.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>

std::atomic<LONG> g_cEvtMgrs{0};

namespace {

// Bytes for the text of an event, its terminator included.
constexpr DWORD kcbEventText = 1024;

// Bytes of a memory block that go on one line.
constexpr DWORD kcbDumpLine = 16;

// No event's level is below it.
constexpr LONG kNoLevel = std::numeric_limits<LONG>::min();

// Keeps the last error of the thread across a report: a site may stand between a system call and the
// question for its error.
class CLastErrorKeeper {
public:
    CLastErrorKeeper() : m_dwError(GetLastError()) {}
    ~CLastErrorKeeper()
    {
        if (GetLastError() != m_dwError) {
            SetLastError(m_dwError);
        }
    }
    CLastErrorKeeper(CLastErrorKeeper const &) = delete;
    CLastErrorKeeper &operator=(CLastErrorKeeper const &) = delete;

private:
    DWORD m_dwError;
};

// The text of one event, formatted into tracked memory; null when there is none.
class CEventText {
public:
    __attribute__((format(printf, 2, 0))) CEventText(char const *pszFmt, va_list args)
        : m_pszText(static_cast<char *>(GMemAlloc(kcbEventText, __LINE__, __FILE__)))
    {
        if (m_pszText == nullptr) {
            return;
        }
        std::strcpy(m_pszText, g_aszText[eGT_EMPTY_DEFAULT]);
        // What cannot be converted gives no text; what is too long is cut.
        if (std::vsnprintf(m_pszText, kcbEventText, pszFmt, args) < 0) {
            *m_pszText = '\0';
        }
    }
    ~CEventText() { GMemFree(&m_pszText, kcbEventText, __LINE__, __FILE__); }
    CEventText(CEventText const &) = delete;
    CEventText &operator=(CEventText const &) = delete;
    char const *Get() const { return m_pszText; }

private:
    char *m_pszText;
};

// Counts a heap object of this folder that was just made, or says that it could not be had. Neither is
// ever reported: the event manager does not speak of itself.
template <class T>
T *Counted(T *pObject, char const *pszWhat)
{
    if (pObject != nullptr) {
        INC_OBJECT_COUNTER(eEC_NONE, pszWhat);
    } else {
        NEW_OPERATOR(eEC_NONE, pszWhat);
    }
    return pObject;
}

CGBaseEvtHandler *NewHandler(CGEvtMgr *pEvtMgr, DWORD kind)
{
    switch (kind) {
    case eHK_TRACE_VIEWER:
        return Counted<CGBaseEvtHandler>(new (std::nothrow) CGTdEvtHandler(pEvtMgr),
                                         "CGTdEvtHandler");
    case eHK_FILE:
        return Counted<CGBaseEvtHandler>(new (std::nothrow) CGFileEvtHandler(pEvtMgr),
                                         "CGFileEvtHandler");
    default:
        return nullptr;
    }
}

// The visits of a query: 0 ends it at the first handler that takes the event.
int Query(CGBaseEvtHandler *pHandler, EvtQueryBaseType const &query)
{
    *query.m_pfOn = pHandler->IsEventOn(query.m_BaseMask);
    return *query.m_pfOn == 0;
}

int Query(CGBaseEvtHandler *pHandler, EvtQueryFullType const &query)
{
    *query.m_pfOn = pHandler->IsEventOn(query.m_BaseMask, query.m_CustomMask, query.m_nLevel);
    return *query.m_pfOn == 0;
}

// A handler is visited by its own manager, so that this manager's mutex is the one that guards what it uses.
void CheckOwner(CGBaseEvtHandler const &handler, CGEvtMgr const &mgr)
    PLAT_THREAD_MARK(assert_capability(handler.m_pEvtMgr))
{
    PLAT_CHECK(handler.m_pEvtMgr == &mgr);
}

// The visits of a write: each handler tests the event again, for a reload may have come in between.
void Write(CGBaseEvtHandler *pHandler, EvtWriteBaseType const &write)
    PLAT_REQUIRES(pHandler->m_pEvtMgr)
{
    if (pHandler->IsEventOn(write.m_BaseMask)) {
        pHandler->WriteEvent(write.m_pszText, write.m_BaseMask);
    }
}

void Write(CGBaseEvtHandler *pHandler, EvtWriteFullType const &write)
    PLAT_REQUIRES(pHandler->m_pEvtMgr)
{
    if (pHandler->IsEventOn(write.m_BaseMask, write.m_CustomMask, write.m_nLevel)) {
        pHandler->WriteEvent(write.m_pszText, write.m_BaseMask, write.m_CustomMask, write.m_nLevel);
    }
}

bool IsReady(CGEvtMgr const *pEvtMgr)
{
    return pEvtMgr != nullptr && GEvtMgrIsReady(pEvtMgr) != 0;
}

// What the process holds, at one moment.
struct Totals {
    int m_cMemory = static_cast<int>(g_cMemory.load());
    int m_cbMemory = static_cast<int>(g_cbMemory.load());
    int m_cObjects = static_cast<int>(g_cObjects.load());

    bool IsLeak() const { return m_cMemory != 0 || m_cbMemory != 0 || m_cObjects != 0; }
};

void ReportLeak(CGEvtMgr *pEvtMgr, Totals const &totals)
{
    if (totals.m_cMemory != 0 || totals.m_cbMemory != 0) {
        pEvtMgr->Report(eEB_ERROR, eEC_NONE, eEL_ERROR,
                        "RemoveEvtMgr: MEMORY LEAK, g_cMemory g_cbMemory = %d %d", totals.m_cMemory,
                        totals.m_cbMemory);
    }
    if (totals.m_cObjects != 0) {
        pEvtMgr->Report(eEB_ERROR, eEC_NONE, eEL_ERROR,
                        "RemoveEvtMgr: OBJECT LEAK, g_cObjects = %d", totals.m_cObjects);
    }
}

void ReportTotals(CGEvtMgr *pEvtMgr, Totals const &totals)
{
    pEvtMgr->Report(eEB_INFO, eEC_NONE, eEL_SUMMARY,
                    "RemoveEvtMgr: g_cMemory g_cbMemory g_cObjects = %d %d %d", totals.m_cMemory,
                    totals.m_cbMemory, totals.m_cObjects);
}

// A byte in the text column. Only what would end the text or break the line is replaced.
char DumpChar(unsigned char b)
{
    return b == 0 || (b >= 7 && b <= 13) ? ' ' : static_cast<char>(b);
}

// One line of a memory block, up to kcbDumpLine bytes; a shorter one is padded to the same columns.
void DumpLine(std::uint64_t base, std::uint64_t custom, LONG nLevel, unsigned char const *pData,
              DWORD cbData)
{
    char szHex[3 * kcbDumpLine + 2] = "";
    char szText[kcbDumpLine + 1] = "";
    char *pszEnd = szHex;
    for (DWORD n = 0; n < cbData; ++n) {
        if (n == kcbDumpLine / 2) {
            *pszEnd++ = ' ';
        }
        pszEnd += std::snprintf(pszEnd, 4, "%2.2x ", static_cast<unsigned>(pData[n]));
        szText[n] = DumpChar(pData[n]);
    }
    G_REPORT(base, custom, nLevel, ": DumpRawData: %-49.49s| %s", szHex, szText);
}

} // namespace

CGEvtMgr::CGEvtMgr(char const *pszName, DWORD nMode)
    : CGQueue("CGEvtMgr"), m_fReady(0), m_pBaseCategory(GNewCategory("CGEvtMgr")), m_nMode(nMode),
      m_nLevelTaken(kNoLevel)
{
    m_fReport = 0;
    m_strModuleName.Set(pszName);
    m_strIdString.Set("[UNKWN]: ");
    AddEvtHandler(eHK_TRACE_VIEWER);
    AddEvtHandler(eHK_FILE);
    ReloadParameters();
    m_fReady.store(1, std::memory_order_release);
}

CGEvtMgr::~CGEvtMgr()
{
    ForEachNode(eEO_REMOVE, nullptr);
    if (m_pBaseCategory != nullptr) {
        m_pBaseCategory->Release();
    }
    m_pBaseCategory = nullptr;
}

DWORD CGEvtMgr::AddEvtHandler(DWORD kind)
{
    CGBaseEvtHandler *pHandler = NewHandler(this, kind);
    if (pHandler == nullptr) {
        return 0;
    }
    char const *pszNode = kind == eHK_FILE ? "CGFileEvtHandler" : "CGTdEvtHandler";
    DWORD const dwResult = AddNode(pszNode, pHandler, /*cbData=*/0, /*nPriority=*/1);
    if (dwResult == eGE_OK) {
        pHandler->AddRef();
    } else {
        pHandler->Release();
    }
    return dwResult;
}

DWORD CGEvtMgr::LoadBaseCategory()
{
    CGQueueGuard const guard(*this);
    return m_pBaseCategory != nullptr ? m_pBaseCategory->Load(kszBaseCategoryKey) : 0;
}

DWORD CGEvtMgr::LoadIdString()
{
    CGQueueGuard const guard(*this);
    CGString strKey;
    CGString strValue;
    strValue.Alloc(kcbRegText);
    if (strValue.m_pszText == nullptr ||
        !GTextJoin(strKey,
                   {kszModulesKey, g_aszText[eGT_BACKSLASH], GTextOf(m_strModuleName.m_pszText)})) {
        return 0;
    }
    if (!GRegQueryText(strKey.m_pszText, "Id String", strValue.m_pszText)) {
        return 1;
    }
    GTextJoin(m_strIdString, {strValue.m_pszText});
    return 0;
}

DWORD CGEvtMgr::ReloadParameters()
{
    // One step for whoever reports meanwhile: no line mixes the parameters of two loads.
    CGQueueGuard const guard(*this);
    LoadBaseCategory();
    DWORD const dwResult = LoadIdString();
    ForEachNode(eEO_RELOAD, nullptr);
    return dwResult;
}

void CGEvtMgr::SumUpHandlers()
{
    CGQueueGuard const guard(*this);
    // First: a change from here on is seen below, or makes the sum stale, or both.
    DWORD const cChanges = g_cFilterChanges;
    std::uint64_t base = 0;
    std::uint64_t custom = 0;
    LONG nLevel = kNoLevel;
    for (CNode const *pNode = GetHead(); pNode != nullptr; pNode = GetNext(pNode)) {
        auto const *pHandler = static_cast<CGBaseEvtHandler const *>(pNode->m_pData);
        if (pHandler == nullptr || pHandler->m_State != 1) {
            continue;
        }
        base |= pHandler->m_BaseCategoryMask;
        custom |= pHandler->m_CustomCategoryMask;
        nLevel = std::max<LONG>(nLevel, pHandler->m_Level);
    }
    m_BaseTaken = base;
    m_CustomTaken = custom;
    m_nLevelTaken = nLevel;
    m_cAddsSummedUp = m_cAdds.load();
    m_cChangesSummedUp = cChanges;
}

bool CGEvtMgr::MayBeTaken(std::uint64_t base, std::uint64_t custom, LONG nLevel)
{
    if (nLevel == eEL_ERROR || nLevel == eEL_SUMMARY || (base & eEB_ERROR) != 0) {
        return true; // masks and levels do not matter
    }
    if (m_cChangesSummedUp != g_cFilterChanges || m_cAddsSummedUp != m_cAdds) {
        SumUpHandlers();
    }
    return nLevel <= m_nLevelTaken && (base == 0 || (base & m_BaseTaken) != 0) &&
           (custom == 0 || (custom & m_CustomTaken) != 0);
}

int CGEvtMgr::VisitNode(CNode *pNode, DWORD op, void *pRec)
{
    if (op <= eEO_WRITE_FULL && pRec == nullptr) {
        return 0;
    }
    auto *pHandler = static_cast<CGBaseEvtHandler *>(pNode->m_pData);
    if (pHandler == nullptr) {
        return 1;
    }

    CheckOwner(*pHandler, *this);
    int nResult = 1;
    pHandler->AddRef();
    switch (op) {
    case eEO_QUERY_BASE:
        nResult = Query(pHandler, *static_cast<EvtQueryBaseType const *>(pRec));
        break;
    case eEO_QUERY_FULL:
        nResult = Query(pHandler, *static_cast<EvtQueryFullType const *>(pRec));
        break;
    case eEO_WRITE_BASE:
        Write(pHandler, *static_cast<EvtWriteBaseType const *>(pRec));
        break;
    case eEO_WRITE_FULL:
        Write(pHandler, *static_cast<EvtWriteFullType const *>(pRec));
        break;
    case eEO_RELOAD:
        pHandler->LoadParams();
        break;
    case eEO_REMOVE:
        // Two references to give up, the list's and that of the creation; the visit's own is the last.
        if (RemoveAndFreeNode(pNode) == eGE_OK) {
            pHandler->Release();
        }
        pHandler->Release();
        break;
    default:
        break;
    }
    pHandler->Release();
    return nResult;
}

DWORD CGEvtMgr::Report(std::uint64_t base, std::uint64_t custom, LONG nLevel, char const *pszFmt,
                       ...)
{
    va_list args;
    va_start(args, pszFmt);
    ReportV(base, custom, nLevel, pszFmt, args);
    va_end(args);
    return 0;
}

DWORD CGEvtMgr::ReportV(std::uint64_t base, std::uint64_t custom, LONG nLevel, char const *pszFmt,
                        va_list args)
{
    if (!MayBeTaken(base, custom, nLevel)) {
        return 0;
    }
    CLastErrorKeeper keeper;
    LONG fOn = 0;
    EvtQueryFullType query = {base, custom, nLevel, &fOn};
    ForEachNode(eEO_QUERY_FULL, &query);
    if (fOn == 0) {
        return 0;
    }
    CEventText const text(pszFmt, args);
    if (text.Get() == nullptr) {
        return 0;
    }
    EvtWriteFullType write = {text.Get(), base, custom, nLevel};
    ForEachNode(eEO_WRITE_FULL, &write);
    return 0;
}

DWORD CGEvtMgr::ReportBase(std::uint64_t base, char const *pszFmt, ...)
{
    if (!MayBeTaken(base, /*custom=*/0, /*nLevel=*/0)) {
        return 0;
    }
    CLastErrorKeeper keeper;
    LONG fOn = 0;
    EvtQueryBaseType query = {base, &fOn};
    ForEachNode(eEO_QUERY_BASE, &query);
    if (fOn == 0) {
        return 0;
    }
    va_list args;
    va_start(args, pszFmt);
    CEventText const text(pszFmt, args);
    va_end(args);
    if (text.Get() == nullptr) {
        return 0;
    }
    EvtWriteBaseType write = {text.Get(), base};
    ForEachNode(eEO_WRITE_BASE, &write);
    return 0;
}

void CGEvtMgr::DumpRawData(std::uint64_t base, std::uint64_t custom, LONG nLevel, void const *pData,
                           DWORD cbData)
{
    auto const *pBytes = static_cast<unsigned char const *>(pData);
    DWORD cbLeft = pBytes != nullptr ? cbData : 0;
    for (; cbLeft >= kcbDumpLine; cbLeft -= kcbDumpLine, pBytes += kcbDumpLine) {
        DumpLine(base, custom, nLevel, pBytes, kcbDumpLine);
    }
    DumpLine(base, custom, nLevel, pBytes, cbLeft);
}

DWORD CreateEvtMgr(CGEvtMgr **ppMgr, char const *pszName)
{
    NewEvtMgr(ppMgr, pszName, eEM_NORMAL);
    ++g_cEvtMgrs;
    return 0;
}

DWORD NewEvtMgr(CGEvtMgr **ppMgr, char const *pszName, DWORD nMode)
{
    CGEvtMgr *const pEvtMgr = Counted(new (std::nothrow) CGEvtMgr(pszName, nMode), "CGEvtMgr");
    std::atomic_ref(*ppMgr).store(pEvtMgr, std::memory_order_release); // it may be g_pEvtMgr
    return 0;
}

DWORD LoadParameters()
{
    CLastErrorKeeper keeper;
    G_REPORT(eEB_INFO, eEC_NONE, eEL_SUMMARY, "LoadParameters: BEGIN Loading new parameters");
    if (CGEvtMgr *pEvtMgr = g_pEvtMgr) {
        pEvtMgr->ReloadParameters();
    }
    G_REPORT(eEB_INFO, eEC_NONE, eEL_SUMMARY, "LoadParameters: END   Loading new parameters");
    return 0;
}

DWORD RemoveEvtMgr(CGEvtMgr **ppMgr, char const *pszName)
{
    if (ppMgr == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    bool const fLast = --g_cEvtMgrs == 0;
    if (*ppMgr != nullptr) {
        (*ppMgr)->Release();
        std::atomic_ref(*ppMgr).store(nullptr, std::memory_order_release);
    }

    Totals const totals; // taken before the temporary manager, which is not a leak
    CGEvtMgr *pFinal = nullptr;
    NewEvtMgr(&pFinal, pszName, eEM_FINAL_REPORT);
    if (IsReady(pFinal)) {
        if (fLast && totals.IsLeak()) {
            ReportLeak(pFinal, totals);
        } else {
            ReportTotals(pFinal, totals);
        }
    }
    if (pFinal != nullptr) {
        pFinal->Release();
    }
    return 0;
}
