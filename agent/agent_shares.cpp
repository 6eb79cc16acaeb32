#include "agent/agent_shares.h"

#include <mutex>
#include <new>

#include "agent/agent_lock.h"

/* An agent that was copied, or that is a copy. */
struct CAgentShares::ShareType {
    CNotifyAgent *pAgent;
    CNotifyAgent const *pOwner; /* whose link it borrows; null: it borrows none */
    HANDLE hMutex;
    ShareType *pNext;
};

CAgentShares::ShareType *CAgentShares::s_pFirst = nullptr;

namespace {

std::mutex g_mtxShares;

} // namespace

/* Under g_mtxShares. */
CAgentShares::ShareType *CAgentShares::Find(CNotifyAgent const &agent)
{
    ShareType *pShare = s_pFirst;
    while (pShare != nullptr && pShare->pAgent != &agent) {
        pShare = pShare->pNext;
    }
    return pShare;
}

/* False when there was no memory to make note. */
bool CAgentShares::Note(CNotifyAgent &target, CNotifyAgent const &source)
{
    std::lock_guard<std::mutex> const lock(g_mtxShares);
    ShareType *pSource = Find(source);
    if (pSource == nullptr) {
        pSource = new (std::nothrow)
            ShareType{const_cast<CNotifyAgent *>(&source), nullptr, source.m_hMutex, s_pFirst};
        if (pSource == nullptr) {
            return false;
        }
        s_pFirst = pSource;
    }
    CNotifyAgent const *pOwner = pSource->pOwner;
    if (pOwner == nullptr && source.m_pDolRtl != nullptr) {
        pOwner = &source;
    }
    auto *const pTarget = new (std::nothrow) ShareType{&target, pOwner, source.m_hMutex, s_pFirst};
    if (pTarget != nullptr) {
        s_pFirst = pTarget;
    }
    return pTarget != nullptr;
}

void CAgentShares::CopyTexts(CNotifyAgent &target, CNotifyAgent const &source)
{
    (void)CatchNoMemory([&]() -> DWORD {
        target.m_strHostName.Empty();
        target.m_strHostAddress.Empty();
        target.m_strNetAddr.Empty();
        target.m_strHostName = source.m_strHostName;
        target.m_strHostAddress = source.m_strHostAddress;
        target.m_strNetAddr = source.m_strNetAddr;
        return NO_ERROR;
    });
}

void CAgentShares::Copy(CNotifyAgent &target, CNotifyAgent const &source)
{
    target.m_pfnCallback = source.m_pfnCallback.load();
    target.m_dwClientData = source.m_dwClientData.load();
    target.m_bDeviceLineOk = source.m_bDeviceLineOk.load();
    CopyTexts(target, source);
    if (!Note(target, source)) {
        ForgetLink(target);
        target.m_hMutex = CreateMutexA(nullptr, /*bInitialOwner=*/0, nullptr);
        return;
    }
    target.m_hMutex = source.m_hMutex;
    target.m_bWinSockStarted = source.m_bWinSockStarted;
    target.m_pDatagramQThread = source.m_pDatagramQThread.load();
    target.m_pCallbackQThread = source.m_pCallbackQThread.load();
    target.m_socket = source.m_socket.load();
    target.m_wPort = source.m_wPort.load();
    target.m_bStopDatagrams = source.m_bStopDatagrams.load();
    target.m_dwLastKickSeq = source.m_dwLastKickSeq.load();
    target.m_pDolRtl = source.m_pDolRtl.load();
    target.m_bNetwork = source.m_bNetwork.load();
    target.m_cSelectTraps = source.m_cSelectTraps;
    target.m_cAdfTraps = source.m_cAdfTraps;
    target.m_cScannerButtonTraps = source.m_cScannerButtonTraps;
    target.m_cFaxUploadTraps = source.m_cFaxUploadTraps;
}

/* What an agent looks like after Shutdown, without ending anything. */
void CAgentShares::ForgetLink(CNotifyAgent &agent)
{
    agent.m_pDolRtl = nullptr;
    agent.m_pDatagramQThread = nullptr;
    agent.m_pCallbackQThread = nullptr;
    agent.m_socket = INVALID_SOCKET;
    agent.m_wPort = 0;
    agent.m_bWinSockStarted = 0;
    agent.m_dwLastKickSeq = 0;
    agent.m_bNetwork = 0;
    agent.m_cSelectTraps = 0;
    agent.m_cAdfTraps = 0;
    agent.m_cScannerButtonTraps = 0;
    agent.m_cFaxUploadTraps = 0;
}

bool CAgentShares::LetGo(CNotifyAgent &agent)
{
    std::lock_guard<std::mutex> const lock(g_mtxShares);
    ShareType *const pShare = Find(agent);
    if (pShare == nullptr || pShare->pOwner == nullptr) {
        return false;
    }
    pShare->pOwner = nullptr;
    ForgetLink(agent);
    return true;
}

void CAgentShares::DetachBorrowers(CNotifyAgent &owner)
{
    std::lock_guard<std::mutex> const lock(g_mtxShares);
    for (ShareType *pShare = s_pFirst; pShare != nullptr; pShare = pShare->pNext) {
        if (pShare->pOwner == &owner) {
            pShare->pOwner = nullptr;
            ForgetLink(*pShare->pAgent);
        }
    }
}

bool CAgentShares::IsLastOf(CNotifyAgent const &agent)
{
    std::lock_guard<std::mutex> const lock(g_mtxShares);
    ShareType *const pOwn = Find(agent);
    if (pOwn == nullptr) {
        return true;
    }
    bool bLast = true;
    ShareType **ppOwn = &s_pFirst;
    for (ShareType **ppShare = &s_pFirst; *ppShare != nullptr; ppShare = &(*ppShare)->pNext) {
        if (*ppShare == pOwn) {
            ppOwn = ppShare;
        } else if ((*ppShare)->hMutex == agent.m_hMutex) {
            bLast = false;
        }
    }
    *ppOwn = pOwn->pNext;
    delete pOwn;
    return bLast;
}
