/// @file
/// CGQThread, a queue with one worker thread of its own.
///
/// Any thread posts a node; the worker takes the nodes in priority order, hands each to the virtual
/// ProcessEntry with no lock held, and frees it. The worker starts in the constructor and has ended when
/// the destructor returns. The agent's callback thread and datagram thread derive from it.
///
/// How it ends:
///   Stop while the worker is busy         it works off the list, then ends
///   Stop while the worker waits           it ends at once; a node posted in that moment is freed unworked
///   Abort                                 the node in work is finished, the others are freed unworked
///   destruction, by the last Release      the node in work is finished, the others are freed unworked
///
/// Destruction and derived classes. The last Release runs the derived destructor while the worker may
/// still be inside that class's ProcessEntry or about to call it. So the destructor of every class that
/// replaces ProcessEntry, and of every class derived from such a one, calls EndWorker before it does
/// anything to the object. When that returns there is no worker any more, and no thread reads the
/// operation table that destruction rewrites. A ProcessEntry that can run for long must be ended by its
/// owner before the last Release.
///
/// Forbidden thread: neither the destructor nor EndWorker may run on the worker, so a ProcessEntry must not
/// lead to its own object's last Release: it would wait for itself, for ever. Stop, Abort and Post may.
///
/// Forbidden place: not in DllMain or in the destructor of a module's static object. Under Windows' loader
/// lock a thread neither begins nor ends. The last Release of an object whose worker runs gets through there,
/// but only once it has given up waiting for the worker's last steps, so that the module must stay in memory;
/// that of an object that was made under the same lock waits for ever for a worker that cannot begin.
///
/// Lock order: the thread mutex, then the queue mutex.

#pragma once

#include "foundation/g_queue.h"

#include <atomic>

/// How the worker is made.
enum EGThreadKind : LONG { eTK_BEGINTHREADEX = 0, eTK_AFXTHREAD = 1 };
/// What the worker is to do when it has worked a node: see "How it ends".
enum EGRunState : LONG { eRS_RUNNING = 0, eRS_STOPPING = 1, eRS_ABORTING = 2 };

/// What the compiler knows a thread mutex by; it takes no room.
class PLAT_CAPABILITY("thread mutex") CGThreadMutexName {};

/// A queue with a worker thread.
class CGQThread : public CGQueue {
public:
    /// Starts the worker. eKind: how the thread is made; with any other kind none is. nPriority: for
    /// SetThreadPriority, -1 leaves the default. nPriorityClass is carried along and not acted on.
    /// dwParam goes unchanged to every ProcessEntry.
    ///
    /// If the worker cannot be started, MessageBeep is the only sign: Post still queues nodes, nobody
    /// works them, and the destructor frees them. The same holds when the locks and events that a
    /// worker needs cannot be had, since it could neither wait nor tell its end.
    CGQThread(char const *pszName, LONG eKind, LONG nPriorityClass, LONG nPriority, DWORD dwParam);

    /// Ends the worker, as EndWorker, and frees what is left. Not on the worker's own thread.
    ~CGQThread() override;

    /// Adds a node (as AddNode, with the same ownership) and wakes the worker. Any thread; does not wait
    /// for work in progress. The result of AddNode. When the thread is not running, nothing is added, the
    /// payload stays with the caller, and the result is eGE_OK: only *pfTaken, unless null, tells whether
    /// the payload is the queue's now.
    DWORD Post(char const *pszName, void *pData, DWORD cbData, DWORD nPriority,
               bool *pfTaken = nullptr);

    /// @{
    /// Closes the queue and asks the worker to end; does not wait. The last call of the two wins. Any
    /// thread. Always eGE_OK.
    DWORD Stop();
    DWORD Abort();
    /// @}

    /// Called on the worker for each node, with no lock held. Must not free the node or its payload, nor
    /// keep them, nor let an exception out. Returns a result code, which nobody looks at. This one does
    /// nothing and returns 0.
    virtual DWORD ProcessEntry(CNode *pNode, CGQThread *pSelf, DWORD dwParam);

    /// @{
    /// The thread mutex, recursive for its owner. Comes before the queue mutex.
    void LockThread() PLAT_ACQUIRE(m_threadMutex);
    void UnlockThread() PLAT_RELEASE(m_threadMutex);
    /// @}

    /// @{
    /// The worker's loop and the two thread functions. pParam is the CGQThread; null gives
    /// eGE_NULL_ARGUMENT. QThreadEntry touches nothing of the object once its end is signalled.
    DWORD RunLoop();
    static unsigned __stdcall QThreadEntry(void *pParam);
    static UINT QThreadEntryAfx(void *pParam);
    /// @}

protected:
    /// First statement of a derived destructor, see above: no node is handed to ProcessEntry from here
    /// on, the one in progress ends, and so does the worker. Waits for it without a limit, but for its last
    /// steps, when it has done with the object, a second at most; it may be gone without a word, too, when
    /// the process is ending. May be called again. Without a worker nothing is waited for. Not on the
    /// worker's own thread.
    void EndWorker();

    /// Constant once the worker runs.
    HANDLE m_hThread;               ///< all bits set: no thread
    DWORD m_idThread;               ///< -1 until it is known
    LONG m_nPriorityClass;          ///< carried along
    LONG m_nPriority;               ///< -1: the default
    LONG m_eKind;                   ///< an EGThreadKind, or none
    CGString m_strThreadName;       ///< for reports
    std::atomic<DWORD> m_fIdled{0}; ///< 1 once the worker has found nothing to do; never cleared
    std::atomic<LONG> m_eRun{eRS_STOPPING}; ///< written under m_hThreadMutex only
    DWORD m_dwParam;                        ///< for every ProcessEntry
    HANDLE m_hThreadMutex = nullptr;        ///< guards the run state and the moves of m_hWake
    HANDLE m_hDone = nullptr;               ///< manual reset: the worker touches the object no more
    HANDLE m_hWake = nullptr;               ///< manual reset, created signalled: look again
    HANDLE m_hStarted = nullptr; ///< manual reset, created signalled: the priority has been applied

private:
    enum EState : LONG { eWS_START, eWS_NEXT, eWS_WAIT, eWS_WORK, eWS_FLUSH, eWS_EXIT };
    struct CWorkerRun; // the loop's local state

    void CreateLocks();
    bool HasLocks() const;
    bool HasWorker() const;
    void StartThread();
    void StartAfxThread();
    void AwaitWorker() const;
    DWORD EndWith(LONG eRun);
    LONG DoStart(CWorkerRun &run);
    LONG DoNext(CWorkerRun &run);
    LONG DoWait();
    LONG DoWork(CWorkerRun &run);

    [[no_unique_address]] CGThreadMutexName m_threadMutex; // m_hThreadMutex
    bool m_fDeliver PLAT_GUARDED_BY(m_threadMutex) = true; // nodes are handed to ProcessEntry
    bool m_fEnded = false;                                 // the worker has been waited for
};
