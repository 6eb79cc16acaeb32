// The three symbols of a diagnostic site (foundation/g_site.h).

#include "evtmgr/g_evtmgr.h"

#include <cstdarg>

constinit CGEvtMgrSlot g_pEvtMgr;

int GEvtMgrIsReady(CGEvtMgr const *pEvtMgr)
{
    return pEvtMgr->m_fReady.load(std::memory_order_acquire) != 0;
}

DWORD GEvtMgrReport(CGEvtMgr *pEvtMgr, std::uint64_t base, std::uint64_t custom, LONG nLevel,
                    char const *pszFmt, ...)
{
    if (!pEvtMgr->MayBeTaken(base, custom, nLevel)) {
        return 0;
    }
    va_list args;
    va_start(args, pszFmt);
    DWORD const dwResult = pEvtMgr->ReportV(base, custom, nLevel, pszFmt, args);
    va_end(args);
    return dwResult;
}
