#include "foundation/g_queue.h"

#include "platform/check.h"

#include <new>

namespace {

DWORD const c_dwDrainLook = 50;   // ms that WaitDrained holds the mutex for one look
DWORD const c_dwDrainPause = 200; // ms between two looks, in which a consumer can move the event

// "CNode[name]" for a report, built where the report's arguments are evaluated and not before.
class CNodeLabel {
public:
    explicit CNodeLabel(char const *pszName) { GStrComposite(&m_strLabel, "CNode", pszName); }
    char const *GetText() const { return m_strLabel.m_pszText; }

private:
    CGString m_strLabel;
};

} // namespace

CGBaseQueue::CGBaseQueue(char const *pszName) : CGReference(pszName)
{
    m_strQueueName.Set(pszName);
    m_pszQueueName = m_strQueueName.m_pszText;
}

DWORD CGBaseQueue::CreateNode(CNode **ppNode, char const *pszName)
{
    if (ppNode == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    *ppNode = new (std::nothrow) CNode;
    if (*ppNode == nullptr) {
        NEW_OPERATOR(MaskOf(eEC_CREATE), CNodeLabel(pszName).GetText());
        return eGE_OUT_OF_MEMORY;
    }
    INC_OBJECT_COUNTER(MaskOf(eEC_CREATE), CNodeLabel(pszName).GetText());
    ++m_cLive;
    return eGE_OK;
}

DWORD CGBaseQueue::DestroyNode(CNode **ppNode)
{
    if (ppNode == nullptr || *ppNode == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    CNode *pNode = *ppNode;
    if (pNode->m_cbData != 0) {
        GMemFree(&pNode->m_pData, pNode->m_cbData, __LINE__, __FILE__);
    }
    PLAT_CHECK(m_cLive > 0);
    DEC_OBJECT_COUNTER(MaskOf(eEC_DESTROY_NODE), CNodeLabel(pNode->m_strName.m_pszText).GetText());
    delete pNode;
    --m_cLive;
    return eGE_OK;
}

CGQueue::CGQueue(char const *pszName) : CGBaseQueue(pszName)
{
    GMutexCreate(&m_hMutex, nullptr, /*fInitialOwner=*/0, nullptr);
    GEventCreate(&m_hDrained, nullptr, /*fManualReset=*/1, /*fInitialState=*/1, nullptr);
    m_eState = eQS_OPEN;
}

CGQueue::~CGQueue()
{
    Close();
    GEventClose(&m_hDrained);
    GMutexClose(&m_hMutex);
}

void CGQueue::Lock()
{
    WaitForSingleObject(m_hMutex, INFINITE);
}

void CGQueue::Unlock()
{
    ReleaseMutex(m_hMutex);
}

DWORD CGQueue::AddNode(char const *pszName, void *pData, DWORD cbData, DWORD nPriority)
{
    enum { eAS_CHECK, eAS_CREATE, eAS_FILL, eAS_LINK, eAS_FINISH, eAS_END } eStep = eAS_CHECK;
    DWORD dwResult = eGE_OK;
    CNode *pNode = nullptr;

    Lock();
    while (eStep != eAS_END) {
        switch (eStep) {
        case eAS_CHECK:
            // Without the mutex nothing guards the list, so it stays empty.
            if (m_hMutex == nullptr || m_eState != eQS_OPEN) {
                dwResult = eGE_QUEUE_CLOSED;
            }
            eStep = dwResult == eGE_OK ? eAS_CREATE : eAS_FINISH;
            break;
        case eAS_CREATE:
            dwResult = CreateNode(&pNode, pszName);
            eStep = dwResult == eGE_OK ? eAS_FILL : eAS_FINISH;
            break;
        case eAS_FILL:
            pNode->m_strName.Set(pszName);
            pNode->m_pData = pData;
            pNode->m_cbData = cbData;
            pNode->m_nPriority = nPriority;
            pNode->m_pNext = nullptr;
            pNode->m_pPrev = nullptr;
            eStep = eAS_LINK;
            break;
        case eAS_LINK:
            LinkNode(pNode);
            ++m_cLinked;
            PLAT_CHECK(IsInOrder(pNode));
            m_cAdds = m_cAdds + 1;
            eStep = eAS_FINISH;
            break;
        case eAS_FINISH:
            if (dwResult == eGE_OK) {
                ResetEvent(m_hDrained);
            }
            eStep = eAS_END;
            break;
        default:
            dwResult = eGE_BAD_STATE;
            eStep = eAS_FINISH;
            break;
        }
    }
    Unlock();
    return dwResult;
}

// Whether the list is whole at this node: its neighbours know it, and priorities fall.
bool CGQueue::IsInOrder(CNode const *pNode) const
{
    CNode const *const pPrev = pNode->m_pPrev;
    CNode const *const pNext = pNode->m_pNext;
    return (pPrev != nullptr ? pPrev->m_pNext : m_pHead) == pNode &&
           (pNext == nullptr || pNext->m_pPrev == pNode) &&
           (pPrev == nullptr || pPrev->m_nPriority >= pNode->m_nPriority) &&
           (pNext == nullptr || pNode->m_nPriority >= pNext->m_nPriority);
}

// Links the node before the first one of lower priority, or behind the tail.
void CGQueue::LinkNode(CNode *pNode)
{
    if (m_pHead == nullptr) {
        m_pHead = pNode;
        return;
    }
    CNode *pCursor = m_pHead;
    while (pCursor->m_nPriority >= pNode->m_nPriority && pCursor->m_pNext != nullptr) {
        pCursor = pCursor->m_pNext;
    }
    if (pCursor->m_nPriority >= pNode->m_nPriority) {
        pCursor->m_pNext = pNode;
        pNode->m_pPrev = pCursor;
        return;
    }
    pNode->m_pNext = pCursor;
    pNode->m_pPrev = pCursor->m_pPrev;
    if (pCursor->m_pPrev != nullptr) {
        pCursor->m_pPrev->m_pNext = pNode;
    } else {
        m_pHead = pNode;
    }
    pCursor->m_pPrev = pNode;
}

DWORD CGQueue::GetFirstNode(CNode **ppNode)
{
    if (ppNode == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    Lock();
    *ppNode = m_pHead;
    PLAT_CHECK((m_pHead == nullptr) == (m_cLinked == 0));
    if (m_pHead == nullptr) {
        SetEvent(m_hDrained);
    } else {
        PLAT_CHECK(IsInOrder(m_pHead));
        m_pHead = m_pHead->m_pNext;
        if (m_pHead != nullptr) {
            m_pHead->m_pPrev = nullptr;
        }
        --m_cLinked;
    }
    Unlock();
    return eGE_OK;
}

DWORD CGQueue::RemoveNode(CNode *pNode)
{
    if (pNode == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    Lock();
    CNode *pFound = m_pHead;
    while (pFound != nullptr && pFound != pNode) {
        pFound = pFound->m_pNext;
    }
    if (pFound != nullptr) {
        PLAT_CHECK(IsInOrder(pFound));
        CNode *&pFromBefore = pFound->m_pPrev != nullptr ? pFound->m_pPrev->m_pNext : m_pHead;
        pFromBefore = pFound->m_pNext;
        if (pFound->m_pNext != nullptr) {
            pFound->m_pNext->m_pPrev = pFound->m_pPrev;
        }
        --m_cLinked;
    }
    Unlock();
    return pFound != nullptr ? eGE_OK : eGE_NOT_IN_QUEUE;
}

DWORD CGQueue::RemoveAndFreeNode(CNode *pNode)
{
    DWORD const dwResult = RemoveNode(pNode);
    return dwResult == eGE_OK ? FreeNode(&pNode) : dwResult;
}

DWORD CGQueue::Flush()
{
    Lock();
    for (CNode *pNode = m_pHead; pNode != nullptr;) {
        CNode *pNext = pNode->m_pNext;
        FreeNode(&pNode);
        --m_cLinked;
        pNode = pNext;
    }
    m_pHead = nullptr;
    PLAT_CHECK(m_cLinked == 0);
    Unlock();
    return eGE_OK;
}

int CGQueue::ForEachNode(DWORD dwArg, void *pArg)
{
    Lock();
    int fGoOn = 1;
    for (CNode *pNode = GetHead(); pNode != nullptr && fGoOn;) {
        CNode *pNext = GetNext(pNode); // the visitor may free pNode
        fGoOn = VisitNode(pNode, dwArg, pArg);
        pNode = pNext;
    }
    Unlock();
    return fGoOn ? 1 : 0;
}

int CGQueue::VisitNode(CNode * /*pNode*/, DWORD /*dwArg*/, void * /*pArg*/)
{
    return 0;
}

DWORD CGQueue::Close()
{
    Lock();
    m_eState = eQS_CLOSED;
    Unlock();
    return eGE_OK;
}

DWORD CGQueue::WaitDrained()
{
    for (;;) {
        Lock();
        DWORD const dwWait = WaitForSingleObject(m_hDrained, c_dwDrainLook);
        Unlock();
        if (dwWait != WAIT_TIMEOUT) {
            return eGE_OK;
        }
        GSleep(c_dwDrainPause);
    }
}
