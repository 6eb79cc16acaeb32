// The support threads' start and end, and the way of a notification from its poster to the client.
#include <cstring>
#include <memory>
#include <new>

#include "agent/agent_lock.h"
#include "agent/callback_qthread.h"
#include "agent/datagram_qthread.h"
#include "agent/QOMANoAg.h"
#include "foundation/g_os.h"
#include "foundation/g_text.h"
#include "platform/check.h"
#include "platform/runtime.h"

namespace {

constexpr DWORD kMsgPriority = 5; // one for all, so that they are delivered in the order of posting
constexpr DWORD kcbRecord = 32;   // CallbackDataType::cbSize, whatever the width of a pointer

thread_local CNotifyAgent const *t_pCalling = nullptr;

// Says for a scope that this thread is inside a client's callback.
class CCallingScope {
public:
    explicit CCallingScope(CNotifyAgent const *pAgent) : m_pBefore(t_pCalling)
    {
        t_pCalling = pAgent;
    }
    ~CCallingScope() { t_pCalling = m_pBefore; }
    CCallingScope(CCallingScope const &) = delete;
    CCallingScope &operator=(CCallingScope const &) = delete;

private:
    CNotifyAgent const *const m_pBefore;
};

char const *NodeNameOf(DWORD dwKind)
{
    switch (dwKind) {
    case eCT_SELECT_NOTIFY:
        return "eCT_SELECT_NOTIFY";
    case eCT_ADF_NOTIFY:
        return "eCT_ADF_NOTIFY";
    case eCT_SCANNER_BUTTON_NOTIFY:
        return "eCT_SCANNER_BUTTON_NOTIFY";
    case eCT_LINK_RECOVERED:
        return "eCT_LINK_RECOVERED";
    default:
        return g_aszText[eGT_EMPTY_DEFAULT];
    }
}

DWORD NotifyCodeOf(CallbackType eType)
{
    switch (eType) {
    case eCT_SELECT_NOTIFY:
        return 7;
    case eCT_ADF_NOTIFY:
        return 8;
    case eCT_SCANNER_BUTTON_NOTIFY:
        return 16;
    default:
        return 0;
    }
}

template <std::size_t cb>
void CopyText(char (&szArea)[cb], char const *pszText)
{
    if (pszText != nullptr) {
        lstrcpynA(szArea, pszText, static_cast<int>(cb));
    }
}

// A counted, zeroed message with its pointers set, or null.
CallbackMsgType *NewMessage()
{
    void *const pBlock = ::operator new(sizeof(CallbackMsgType), std::nothrow);
    if (pBlock == nullptr) {
        return nullptr;
    }
    INC_MEMSUM_COUNTER(eEC_NONE, sizeof(CallbackMsgType), __LINE__, __FILE__);
    CallbackMsgType *const pMsg = new (pBlock) CallbackMsgType{};
    pMsg->pszOption = pMsg->szOption;
    pMsg->pszSenderAddress = pMsg->szSenderAddress;
    pMsg->pszSenderName = pMsg->szSenderName;
    return pMsg;
}

// Counts and stores a new queue thread; its memory may be missing, and then nobody uses it.
template <class Thread>
Thread *NewThread(CNotifyAgent *pAgent, char const *pszName)
{
    Thread *const pThread =
        new (std::nothrow) Thread(pAgent, pszName, eTK_BEGINTHREADEX, -1, -1, 0);
    if (pThread != nullptr) {
        INC_OBJECT_COUNTER(eEC_CREATE, pThread->m_strObjectName.m_pszText);
    } else {
        NEW_OPERATOR(eEC_CREATE, pszName);
    }
    return pThread;
}

} // namespace

CCallbackQThread::CCallbackQThread(CNotifyAgent *pAgent, char const *pszName, LONG eKind,
                                   LONG nPriorityClass, LONG nPriority, DWORD)
    : CGQThread(pszName, eKind, nPriorityClass, nPriority, 0), m_pAgent(pAgent)
{
    G_REPORT(eEB_ENTRY, eEC_NONE, eEL_TRACE, "CCallbackQThread: Entry");
    G_REPORT(eEB_EXIT, eEC_NONE, eEL_TRACE, "CCallbackQThread: Exit");
}

CCallbackQThread::~CCallbackQThread()
{
    G_REPORT(eEB_ENTRY, eEC_NONE, eEL_TRACE, "~CCallbackQThread: Entry");
    EndWorker();
    G_REPORT(eEB_EXIT, eEC_NONE, eEL_TRACE, "~CCallbackQThread: Exit");
}

DWORD CCallbackQThread::PostCallback(DWORD dwKind, CNotifyAgent *pAgent, int nValue, DWORD dwValue,
                                     char const *pszOption, char const *pszSenderAddress,
                                     char const *pszSenderName)
{
    CallbackMsgType *pMsg = NewMessage();
    if (pMsg == nullptr) {
        return 0;
    }
    pMsg->eType = static_cast<CallbackType>(dwKind);
    pMsg->pAgent = pAgent;
    pMsg->nValue = nValue;
    pMsg->dwValue = dwValue;
    CopyText(pMsg->szOption, pszOption);
    CopyText(pMsg->szSenderAddress, pszSenderAddress);
    CopyText(pMsg->szSenderName, pszSenderName);
    bool bTaken = false;
    Post(NodeNameOf(dwKind), pMsg, sizeof *pMsg, kMsgPriority, &bTaken);
    if (!bTaken) {
        GMemFree(&pMsg, sizeof *pMsg, __LINE__, __FILE__);
    }
    return 0;
}

void CCallbackQThread::PostTo(CCallbackQThread *pThread, DWORD dwKind, int nValue, DWORD dwValue,
                              char const *pszOption, char const *pszSenderAddress,
                              char const *pszSenderName)
{
    if (pThread != nullptr) {
        pThread->PostCallback(dwKind, pThread->m_pAgent, nValue, dwValue, pszOption,
                              pszSenderAddress, pszSenderName);
    }
}

DWORD CCallbackQThread::ProcessEntry(CNode *pNode, CGQThread *, DWORD)
{
    auto const *const pMsg = static_cast<CallbackMsgType const *>(pNode->m_pData);
    if (pMsg == nullptr || pMsg->eType < eCT_SELECT_NOTIFY || pMsg->eType > eCT_FAX_UPLOAD_NOTIFY) {
        return 0;
    }
    pMsg->pAgent->PerformCallback(pMsg->eType, pMsg->nValue, pMsg->dwValue, pMsg->pszOption,
                                  pMsg->pszSenderAddress, pMsg->pszSenderName);
    return 0;
}

CNotifyAgent const *CCallbackQThread::Calling()
{
    return t_pCalling;
}

DWORD CNotifyAgent::PerformCallback(CallbackType eType, int nValue, DWORD dwValue, char *pszOption,
                                    char *pszSenderAddress, char *pszSenderName)
{
    NotifyCallbackFn const pfnCallback = m_pfnCallback;
    if (pfnCallback == nullptr) {
        return NO_ERROR;
    }
    return CatchNoMemory([&]() -> DWORD {
        std::unique_ptr<CallbackDataType> const pData(new (std::nothrow) CallbackDataType{});
        if (pData == nullptr) {
            return ERROR_NOT_ENOUGH_MEMORY;
        }
        pData->cbSize = kcbRecord;
        pData->dwClientData = m_dwClientData;
        pData->dwNotifyCode = NotifyCodeOf(eType);
        pData->nValue = nValue;
        pData->dwValue = dwValue;
        pData->strOption = pszOption;
        pData->strSenderAddress = pszSenderAddress;
        pData->strSenderName = pszSenderName;
        CCallingScope const calling(this);
        pfnCallback(eType, pData.get());
        return NO_ERROR;
    });
}

DWORD CNotifyAgent::StartupSupportThreads()
{
    PLAT_CHECK(m_pCallbackQThread == nullptr && m_pDatagramQThread == nullptr);
    m_pCallbackQThread = NewThread<CCallbackQThread>(this, "CCallbackQThread");
    if (!m_bNetwork) {
        return NO_ERROR;
    }
    CDatagramQThread *const pDatagramQThread =
        NewThread<CDatagramQThread>(this, "CDatagramQThread");
    m_pDatagramQThread = pDatagramQThread;
    if (pDatagramQThread != nullptr) {
        m_bStopDatagrams = 0;
        CreateSocket(); // a socket that failed ends the loop at its first receive
        pDatagramQThread->PostRequest(eDT_RECEIVE_DATAGRAMS, this);
    }
    return NO_ERROR;
}

DWORD CNotifyAgent::ShutdownSupportThreads()
{
    PLAT_CHECK(m_pDolRtl == nullptr); // its thread uses theirs
    // The datagram thread first: its loop posts to the callback thread, through a pointer that must not
    // dangle while the loop runs. So each pointer is cleared after its Release.
    if (CDatagramQThread *const pDatagramQThread = m_pDatagramQThread) {
        CloseSocket();
        pDatagramQThread->Release();
        m_pDatagramQThread = nullptr;
    }
    if (CCallbackQThread *const pCallbackQThread = m_pCallbackQThread) {
        pCallbackQThread->Release();
        m_pCallbackQThread = nullptr;
    }
    return NO_ERROR;
}
