/// @file
/// The foundation's one container: a list of named, prioritised nodes, each carrying an opaque payload.
/// CGBaseQueue holds the list and makes nodes, without a lock; CGQueue adds a recursive mutex, an open or
/// closed state and a drained event. CGQThread (g_qthread.h) is a work queue with one consumer on top of
/// it, the event manager an ordered list of handlers that is walked with ForEachNode.
///
/// Payloads. When AddNode succeeds with a size that is not 0, the payload belongs to the queue: it must
/// come from GMemAlloc, or from operator new with INC_MEMSUM_COUNTER, with exactly that size, and goes
/// through GMemFree with its node. When AddNode fails it stays with the caller. With size 0 the queue
/// never touches it, and it may be any word.
///
/// Blocking:
///   AddNode, GetFirstNode, RemoveNode, RemoveAndFreeNode, Flush, ForEachNode, Close
///                 wait for the queue mutex and hold it for their whole run
///   FreeNode      takes no lock: the node is detached and its holder's own
///   WaitDrained   until the drained event is signalled, without a limit
///   GetHead, GetNext, GetPrev, GetCount    take no lock; for use under the mutex

#pragma once

#include "foundation/g_os.h"
#include "foundation/g_ref.h"
#include "foundation/g_string.h"
#include "platform/lock.h"

#include <atomic>

/// A plain record, made by CreateNode and unmade by DestroyNode alone.
struct CNode {
    CGString m_strName; ///< serves the counter reports; nothing looks a node up by name
    void *m_pData;      ///< the payload
    DWORD m_cbData;     ///< bytes; 0: the queue does not own the payload
    DWORD m_nPriority;  ///< larger numbers stand nearer the head, compared unsigned
    CNode *m_pNext;     ///< towards the tail
    CNode *m_pPrev;     ///< towards the head

    CNode() {} ///< the rest is filled when the node is added
};

/// The list itself, without a lock.
class PLAT_CAPABILITY("queue") CGBaseQueue : public CGReference {
public:
    /// The object and the queue take pszName; null gives an empty queue name.
    explicit CGBaseQueue(char const *pszName);
    ~CGBaseQueue() override = default; ///< does not touch the nodes

    /// Makes an unlinked node and stores it, or null, in *ppNode. pszName serves the report alone.
    /// eGE_OK, eGE_NULL_ARGUMENT, eGE_OUT_OF_MEMORY.
    DWORD CreateNode(CNode **ppNode, char const *pszName);

    /// Frees an unlinked node and the payload that the queue owns. *ppNode is left as it was.
    /// eGE_OK, eGE_NULL_ARGUMENT.
    DWORD DestroyNode(CNode **ppNode);

    /// @{
    /// Walking the list under the mutex: first, towards the tail, towards the head (null at the ends and
    /// for null), and how many there are.
    CNode *GetHead() const PLAT_REQUIRES(this) { return m_pHead; }
    static CNode *GetNext(CNode const *pNode)
    {
        return pNode != nullptr ? pNode->m_pNext : nullptr;
    }
    static CNode *GetPrev(CNode const *pNode)
    {
        return pNode != nullptr ? pNode->m_pPrev : nullptr;
    }
    DWORD GetCount() const PLAT_REQUIRES(this) { return m_cLinked; }
    /// @}

protected:
    DWORD m_cLinked PLAT_GUARDED_BY(this) = 0; ///< nodes in the list
    /// Nodes made and not yet freed; atomic, since FreeNode has no lock.
    std::atomic<DWORD> m_cLive{0};
    CNode *m_pHead PLAT_GUARDED_BY(this) = nullptr; ///< null: the list is empty
    CGString m_strQueueName;                        ///< for reports
    char const *m_pszQueueName = nullptr; ///< text of m_strQueueName when the constructor ended

private:
    std::uint64_t MaskOf(std::uint64_t fMask) const { return HasReportFlag(0) ? eEC_NONE : fMask; }
};

/// State of a CGQueue.
enum EGQueueState : LONG { eQS_OPEN = 0, eQS_CLOSED = 1 };

/// The list with its lock, see above.
class CGQueue : public CGBaseQueue {
public:
    /// A constructor cannot report: if the drained event cannot be had, WaitDrained does not wait; if
    /// the mutex cannot be had, nothing could guard the list, so the queue takes no nodes and AddNode
    /// gives eGE_QUEUE_CLOSED. Everything else works on an empty list.
    explicit CGQueue(char const *pszName);

    /// Nodes still linked are not released: whoever owns the queue empties it first.
    ~CGQueue() override;

    /// Inserts a node by falling priority, behind those of equal priority. The name is copied; null
    /// gives an empty one. eGE_OK, eGE_QUEUE_CLOSED, eGE_OUT_OF_MEMORY. Resets the drained event.
    DWORD AddNode(char const *pszName, void *pData, DWORD cbData, DWORD nPriority);

    /// Detaches the head into *ppNode, for the caller to hand to FreeNode. An empty list gives null
    /// and eGE_OK, and signals the drained event. eGE_NULL_ARGUMENT.
    DWORD GetFirstNode(CNode **ppNode);

    /// Unlinks this very node, without freeing it. eGE_OK, eGE_NOT_IN_QUEUE, eGE_NULL_ARGUMENT.
    DWORD RemoveNode(CNode *pNode);

    /// DestroyNode, for a detached node.
    DWORD FreeNode(CNode **ppNode) { return DestroyNode(ppNode); }

    /// RemoveNode, and FreeNode if that gave eGE_OK. The result is that of the last of them.
    DWORD RemoveAndFreeNode(CNode *pNode);

    /// Destroys every node in the list. Always eGE_OK. The drained event is not touched.
    DWORD Flush();

    /// Calls VisitNode with each node from the head on, until one visit gives 0. Returns 0 then, else 1.
    int ForEachNode(DWORD dwArg, void *pArg);

    /// Called under the mutex. Non-zero to go on, 0 to stop; this one stops. A visitor may unlink and
    /// free the node that it got, and no other.
    virtual int VisitNode(CNode *pNode, DWORD dwArg, void *pArg) PLAT_REQUIRES(this);

    /// No more nodes are taken, for good; those that are there can still be had. Always eGE_OK.
    DWORD Close();

    /// Waits until a consumer has come back for more and found the list empty, which with one consumer
    /// tells that the last node has been dealt with. A list emptied by Flush or RemoveNode does not
    /// count until the next GetFirstNode. Always eGE_OK. Looks every 250 ms; never from the consumer.
    DWORD WaitDrained();

    /// @{
    /// The queue mutex, recursive for its owner. Comes after the thread mutex of a CGQThread and before
    /// the mutex of a log file.
    void Lock() PLAT_ACQUIRE();
    void Unlock() PLAT_RELEASE();
    /// @}

protected:
    LONG m_eState PLAT_GUARDED_BY(this) = eQS_CLOSED; ///< an EGQueueState
    HANDLE m_hMutex = nullptr;                        ///< recursive; null: the queue takes no nodes
    HANDLE m_hDrained = nullptr; ///< manual reset, created signalled; moves under m_hMutex
    /// Nodes ever added; moves under m_hMutex. Who has summed up the list tells by it whether that still
    /// covers every node.
    std::atomic<DWORD> m_cAdds{0};

private:
    bool IsInOrder(CNode const *pNode) const PLAT_REQUIRES(this);
    void LinkNode(CNode *pNode) PLAT_REQUIRES(this);
};

/// The queue mutex for the length of a block.
class PLAT_SCOPED_CAPABILITY CGQueueGuard {
public:
    /// Waits for the mutex of queue, which must outlive the guard.
    explicit CGQueueGuard(CGQueue &queue) PLAT_ACQUIRE(queue) : m_queue(queue) { m_queue.Lock(); }
    ~CGQueueGuard() PLAT_RELEASE() { m_queue.Unlock(); }
    CGQueueGuard(CGQueueGuard const &) = delete;
    CGQueueGuard &operator=(CGQueueGuard const &) = delete;

private:
    CGQueue &m_queue;
};
