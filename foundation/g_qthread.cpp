#include "foundation/g_qthread.h"

#include "foundation/g_text.h"
#include "platform/afx.h"
#include "platform/check.h"
#include "platform/thread.h"
#include "platform/window.h"

#include <new>

static UINT const c_nWarningBeep = 48;  // MB_ICONEXCLAMATION
static DWORD const c_dwLastSteps = 500; // ms between the done event and the thread's end

static thread_local CGQThread const *t_pWorksFor = nullptr; // whose worker this thread is

struct CGQThread::CWorkerRun {
    CNode *pNode = nullptr;
    bool fDeliver = true; // pNode is for ProcessEntry
    DWORD dwResult = eGE_OK;
};

CGQThread::CGQThread(char const *pszName, LONG eKind, LONG nPriorityClass, LONG nPriority,
                     DWORD dwParam)
    : CGQueue(pszName), m_hThread(INVALID_HANDLE_VALUE), m_idThread(static_cast<DWORD>(-1)),
      m_nPriorityClass(nPriorityClass), m_nPriority(nPriority), m_eKind(eKind), m_dwParam(dwParam)
{
    m_strThreadName.Set(pszName != nullptr ? pszName : g_aszText[eGT_EMPTY_DEFAULT]);
    CreateLocks();
    m_eRun = eRS_RUNNING;
    if (HasLocks()) {
        StartThread();
    }
    if (!HasWorker()) {
        MessageBeep(c_nWarningBeep);
    }
}

CGQThread::~CGQThread()
{
    EndWorker();
    if (!HasWorker()) {
        Flush();
    } else if (m_eKind == eTK_BEGINTHREADEX) {
        CloseHandle(m_hThread); // the other kind's handle belongs to its thread object
    }
    m_hThread = INVALID_HANDLE_VALUE;
    GEventClose(&m_hDone);
    GEventClose(&m_hWake);
    GEventClose(&m_hStarted);
    GMutexClose(&m_hThreadMutex);
}

void CGQThread::CreateLocks()
{
    GMutexCreate(&m_hThreadMutex, nullptr, /*fInitialOwner=*/0, nullptr);
    GEventCreate(&m_hDone, nullptr, /*fManualReset=*/1, /*fInitialState=*/0, nullptr);
    GEventCreate(&m_hWake, nullptr, /*fManualReset=*/1, /*fInitialState=*/1, nullptr);
    GEventCreate(&m_hStarted, nullptr, /*fManualReset=*/1, /*fInitialState=*/1, nullptr);
}

// m_hStarted is not among them: nobody waits for it.
bool CGQThread::HasLocks() const
{
    return m_hMutex != nullptr && m_hThreadMutex != nullptr && m_hDone != nullptr &&
           m_hWake != nullptr;
}

bool CGQThread::HasWorker() const
{
    return m_hThread != INVALID_HANDLE_VALUE;
}

// Both kinds are created suspended: the worker reads m_hThread, which is stored only afterwards.
void CGQThread::StartThread()
{
    if (m_eKind == eTK_AFXTHREAD) {
        StartAfxThread();
        return;
    }
    if (m_eKind != eTK_BEGINTHREADEX) {
        return;
    }
    unsigned idThread = 0;
    auto const hThread = _beginthreadex(/*security=*/nullptr, /*stackSize=*/0, QThreadEntry, this,
                                        CREATE_SUSPENDED, &idThread);
    if (hThread == 0) {
        return;
    }
    m_hThread = reinterpret_cast<HANDLE>(hThread);
    m_idThread = idThread;
    if (ResumeThread(m_hThread) == static_cast<DWORD>(-1)) {
        CloseHandle(m_hThread);
        m_hThread = INVALID_HANDLE_VALUE; // it will never run, so nobody may wait for its end
    }
}

void CGQThread::StartAfxThread()
{
    CWinThread *pThread = nullptr;
    try {
        pThread = AfxBeginThread(QThreadEntryAfx, this, /*nPriority=*/0, /*nStackSize=*/0,
                                 CREATE_SUSPENDED, /*lpSecurityAttrs=*/nullptr);
    } catch (std::bad_alloc const &) {
        return; // no thread object is no thread
    }
    if (pThread == nullptr) {
        return;
    }
    m_hThread = pThread->m_hThread;
    m_idThread = pThread->m_nThreadID;
    if (pThread->ResumeThread() == static_cast<DWORD>(-1)) {
        delete pThread;
        m_hThread = INVALID_HANDLE_VALUE;
    }
}

// What they lock has a handle, not a class that the compiler could know.
void CGQThread::LockThread() PLAT_NO_THREAD_SAFETY
{
    WaitForSingleObject(m_hThreadMutex, INFINITE);
}

void CGQThread::UnlockThread() PLAT_NO_THREAD_SAFETY
{
    ReleaseMutex(m_hThreadMutex);
}

DWORD CGQThread::Post(char const *pszName, void *pData, DWORD cbData, DWORD nPriority,
                      bool *pfTaken)
{
    DWORD dwResult = eGE_OK;
    LockThread();
    bool const fRunning = m_eRun == eRS_RUNNING;
    if (fRunning) {
        dwResult = AddNode(pszName, pData, cbData, nPriority);
        if (dwResult == eGE_OK) {
            PlatSetEventBehind(m_hWake, m_hThreadMutex);
        }
    }
    bool const fTaken = fRunning && dwResult == eGE_OK;
    UnlockThread();
    if (pfTaken != nullptr) {
        *pfTaken = fTaken;
    }
    return dwResult;
}

DWORD CGQThread::Stop()
{
    return EndWith(eRS_STOPPING);
}

DWORD CGQThread::Abort()
{
    return EndWith(eRS_ABORTING);
}

DWORD CGQThread::EndWith(LONG eRun)
{
    LockThread();
    Close();
    m_eRun = eRun;
    SetEvent(m_hWake);
    UnlockThread();
    return eGE_OK;
}

void CGQThread::EndWorker()
{
    LockThread();
    m_fDeliver = false;
    UnlockThread();
    Stop();
    if (HasWorker() && !m_fEnded) {
        AwaitWorker();
    }
    m_fEnded = true;
}

// The thread's own end, where there is a handle for it, comes soon after the done event, behind last steps
// in code that a host may unload next. So it is what is waited for; to wait for the event too would be to be
// woken twice. The event ends the wait where the thread can't end for as long as we wait (under Windows'
// loader lock), once its last steps have had their time. Where the system ends the threads before us, there
// is no event.
void CGQThread::AwaitWorker() const
{
    PLAT_CHECK(t_pWorksFor != this); // it would wait for itself
    if (m_eKind != eTK_BEGINTHREADEX) {
        WaitForSingleObject(m_hDone, INFINITE);
        return;
    }
    bool fDone = false;
    while (WaitForSingleObject(m_hThread, c_dwLastSteps) == WAIT_TIMEOUT && !fDone) {
        fDone = WaitForSingleObject(m_hDone, 0) == WAIT_OBJECT_0;
    }
}

DWORD CGQThread::ProcessEntry(CNode * /*pNode*/, CGQThread * /*pSelf*/, DWORD /*dwParam*/)
{
    return eGE_OK;
}

DWORD CGQThread::RunLoop()
{
    CWorkerRun run;
    LONG eState = eWS_START;
    while (eState != eWS_EXIT) {
        switch (eState) {
        case eWS_START:
            eState = DoStart(run);
            break;
        case eWS_NEXT:
            eState = DoNext(run);
            break;
        case eWS_WAIT:
            eState = DoWait();
            break;
        case eWS_WORK:
            eState = DoWork(run);
            break;
        case eWS_FLUSH:
            Flush();
            eState = eWS_EXIT;
            break;
        default:
            run.dwResult = eGE_BAD_STATE;
            eState = eWS_FLUSH;
            break;
        }
    }
    return run.dwResult;
}

LONG CGQThread::DoStart(CWorkerRun &run)
{
    run.dwResult = GThreadSetPriority(m_hThread, m_nPriorityClass, m_nPriority);
    SetEvent(m_hStarted);
    return eWS_NEXT;
}

// Between the look at the empty list and the reset of the wake event nobody may post, or the wake-up would be
// lost.
LONG CGQThread::DoNext(CWorkerRun &run)
{
    LockThread();
    if (m_eRun == eRS_ABORTING) {
        UnlockThread();
        return eWS_FLUSH;
    }
    run.dwResult = GetFirstNode(&run.pNode);
    if (run.pNode == nullptr) {
        ResetEvent(m_hWake);
        m_fIdled = 1;
        UnlockThread();
        return eWS_WAIT;
    }
    run.fDeliver = m_fDeliver;
    UnlockThread();
    return eWS_WORK;
}

LONG CGQThread::DoWait()
{
    if (m_eRun != eRS_RUNNING) {
        return eWS_FLUSH;
    }
    WaitForSingleObject(m_hWake, INFINITE);
    // A stale value here is harmless: its writer sets the wake event afterwards.
    return m_eRun == eRS_RUNNING ? eWS_NEXT : eWS_FLUSH;
}

// Without fDeliver the object is being destroyed and no derived ProcessEntry may be reached any more.
LONG CGQThread::DoWork(CWorkerRun &run)
{
    PLAT_CHECK(run.pNode != nullptr);
    run.dwResult = run.fDeliver ? ProcessEntry(run.pNode, this, m_dwParam)
                                : CGQThread::ProcessEntry(run.pNode, this, m_dwParam);
    FreeNode(&run.pNode);
    return eWS_NEXT;
}

unsigned __stdcall CGQThread::QThreadEntry(void *pParam)
{
    if (pParam == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    auto *pThread = static_cast<CGQThread *>(pParam);
    LONG const eKind = pThread->m_eKind;
    t_pWorksFor = pThread;
    unsigned const nResult = pThread->RunLoop();
    t_pWorksFor = nullptr;
    SetEvent(pThread->m_hDone);
    // The destructor waits for exactly this event: from here on the object may be gone.
    if (eKind == eTK_BEGINTHREADEX) {
        _endthreadex(nResult);
    } else if (eKind == eTK_AFXTHREAD) {
        AfxEndThread(nResult, /*bDelete=*/1);
    }
    return nResult;
}

UINT CGQThread::QThreadEntryAfx(void *pParam)
{
    return QThreadEntry(pParam);
}
