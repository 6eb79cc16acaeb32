#include "evtmgr/g_evthost.h"

#include "evtmgr/g_evtmgr.h"
#include "foundation/g_result.h"

#include <atomic>

DWORD GInstallEvtMgr(char const *pszName)
{
    if (pszName == nullptr || *pszName == '\0')
        return eGE_NULL_ARGUMENT;
    if (g_pEvtMgr.load() != nullptr)
        return eGE_BAD_STATE;
    // Not into g_pEvtMgr at once: no site sees a manager that is not ready.
    std::atomic<CGEvtMgr *> pEvtMgr{nullptr};
    CreateEvtMgr(&pEvtMgr, pszName);
    CGEvtMgr *const pMade = pEvtMgr.load();
    if (pMade == nullptr ||
        pMade->GetHead() == nullptr) { // without a handler nobody would hear anything
        if (pMade != nullptr)
            pMade->Release();
        --g_cEvtMgrs;
        return eGE_OUT_OF_MEMORY;
    }
    g_pEvtMgr.store(pEvtMgr.load());
    return eGE_OK;
}

DWORD GRemoveEvtMgr(char const *pszName)
{
    if (pszName == nullptr)
        return eGE_NULL_ARGUMENT;
    return g_pEvtMgr.load() != nullptr ? RemoveEvtMgr(&g_pEvtMgr, pszName) : eGE_OK;
}
