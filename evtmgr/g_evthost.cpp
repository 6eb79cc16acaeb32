#include "evtmgr/g_evthost.h"

#include "evtmgr/g_evtmgr.h"
#include "foundation/g_result.h"

namespace {

// Without one nobody would hear anything.
bool HasHandler(CGEvtMgr *pEvtMgr)
{
    CGQueueGuard const guard(*pEvtMgr);
    return pEvtMgr->GetHead() != nullptr;
}

} // namespace

DWORD GInstallEvtMgr(char const *pszName)
{
    if (pszName == nullptr || *pszName == '\0') {
        return eGE_NULL_ARGUMENT;
    }
    if (g_pEvtMgr != nullptr) {
        return eGE_BAD_STATE;
    }
    // Not into g_pEvtMgr at once: no site sees a manager that is not ready.
    CGEvtMgr *pEvtMgr = nullptr;
    CreateEvtMgr(&pEvtMgr, pszName);
    if (pEvtMgr == nullptr || !HasHandler(pEvtMgr)) {
        if (pEvtMgr != nullptr) {
            pEvtMgr->Release();
        }
        --g_cEvtMgrs;
        return eGE_OUT_OF_MEMORY;
    }
    g_pEvtMgr = pEvtMgr;
    return eGE_OK;
}

DWORD GRemoveEvtMgr(char const *pszName)
{
    if (pszName == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    return g_pEvtMgr != nullptr ? RemoveEvtMgr(&g_pEvtMgr, pszName) : eGE_OK;
}
