#include "agent/agent_copies.h"

#include <algorithm>
#include <vector>

#include "agent/agent_lock.h"
#include "agent/callback_qthread.h"
#include "platform/lock.h"

namespace {

CPlatMutex g_mtxRelated;
std::vector<CNotifyAgent *>
    g_related PLAT_GUARDED_BY(g_mtxRelated); // copies, and what they were made of

// All or nothing; throws when there is no memory.
void Relate(CNotifyAgent &target, CNotifyAgent const &source)
{
    CPlatGuard const lock(g_mtxRelated);
    g_related.reserve(g_related.size() + 2);
    g_related.push_back(&target);
    if (std::ranges::find(g_related, &source) == g_related.end()) {
        g_related.push_back(const_cast<CNotifyAgent *>(&source));
    }
}

} // namespace

void CAgentCopies::Copy(CNotifyAgent &target, CNotifyAgent const &source)
{
    target.m_bWinSockStarted = source.m_bWinSockStarted;
    target.m_pfnCallback = source.m_pfnCallback.load();
    target.m_pDatagramQThread = source.m_pDatagramQThread.load();
    target.m_pCallbackQThread = source.m_pCallbackQThread.load();
    target.m_socket = source.m_socket.load();
    target.m_wPort = source.m_wPort.load();
    target.m_bStopDatagrams = source.m_bStopDatagrams.load();
    target.m_bDeviceLineOk = source.m_bDeviceLineOk.load();
    target.m_dwLastKickSeq = source.m_dwLastKickSeq.load();
    target.m_pDolRtl = source.m_pDolRtl.load();
    target.m_dwClientData = source.m_dwClientData.load();
    target.m_bNetwork = source.m_bNetwork.load();
    target.m_cSelectTraps = source.m_cSelectTraps;
    target.m_cAdfTraps = source.m_cAdfTraps;
    target.m_cScannerButtonTraps = source.m_cScannerButtonTraps;
    target.m_cFaxUploadTraps = source.m_cFaxUploadTraps;
    target.m_hMutex = source.m_hMutex;
    target.m_strHostName.Empty();
    target.m_strHostAddress.Empty();
    target.m_strNetAddr.Empty();
    DWORD const dwResult = CatchNoMemory([&]() -> DWORD {
        target.m_strHostName = source.m_strHostName;
        target.m_strHostAddress = source.m_strHostAddress;
        target.m_strNetAddr = source.m_strNetAddr;
        Relate(target, source);
        return NO_ERROR;
    });
    if (dwResult != NO_ERROR) {
        ForgetLink(target);
        target.m_hMutex =
            CreateMutexA(/*pSecurity=*/nullptr, /*bInitialOwner=*/0, /*pszName=*/nullptr);
    } else if (target.m_pCallbackQThread == nullptr) {
        ForgetLink(target); // nothing would tell whose the link is
    }
}

void CAgentCopies::ForgetLink(CNotifyAgent &agent)
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

bool CAgentCopies::LetGo(CNotifyAgent &agent)
{
    CCallbackQThread const *const pThread = agent.m_pCallbackQThread;
    bool const bBorrows = pThread != nullptr && pThread->Agent() != &agent;
    if (bBorrows) {
        ForgetLink(agent);
    }
    return bBorrows;
}

void CAgentCopies::Disconnect(CDolRtl const *pLink)
{
    CPlatGuard const lock(g_mtxRelated);
    for (CNotifyAgent *const pAgent : g_related) {
        if (pAgent->m_pDolRtl == pLink) {
            ForgetLink(*pAgent);
        }
    }
}

void CAgentCopies::CloseMutex(CNotifyAgent const &agent)
{
    CPlatGuard const lock(g_mtxRelated);
    std::erase(g_related, &agent);
    auto const HasIt = [&](CNotifyAgent const *pAgent) {
        return pAgent->m_hMutex == agent.m_hMutex;
    };
    if (std::ranges::none_of(g_related, HasIt)) {
        CloseHandle(agent.m_hMutex);
    }
}
