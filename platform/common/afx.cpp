#include "platform/afx.h"

#include "platform/sync.h"
#include "platform/thread.h"

namespace {

// The object of a thread that AfxBeginThread started, null on all others.
thread_local CWinThread *t_pWinThread = nullptr;

} // namespace

CWinThread::CWinThread(AFX_THREADPROC pfnThread, LPVOID pvParam)
    : m_pfnThread(pfnThread), m_pvParam(pvParam)
{
}

CWinThread::~CWinThread()
{
    if (m_hThread) {
        CloseHandle(m_hThread);
    }
}

DWORD CWinThread::ResumeThread()
{
    return ::ResumeThread(m_hThread);
}

BOOL CWinThread::Create(int nPriority, UINT cbStack, DWORD dwCreateFlags,
                        LPSECURITY_ATTRIBUTES pSecurity)
{
    unsigned idThread = 0;
    // Always suspended at first: the fields are complete before the thread, which may delete them, runs.
    m_hThread = reinterpret_cast<HANDLE>(_beginthreadex(
        pSecurity, cbStack, &CWinThread::Entry, this, dwCreateFlags | CREATE_SUSPENDED, &idThread));
    m_nThreadID = idThread;
    if (!m_hThread) {
        return FALSE;
    }
    if (nPriority != THREAD_PRIORITY_NORMAL) {
        SetThreadPriority(m_hThread, nPriority); // a thread of another priority is better than none
    }
    if ((dwCreateFlags & CREATE_SUSPENDED) == 0) {
        ResumeThread();
    }
    return TRUE;
}

unsigned __stdcall CWinThread::Entry(void *pvThread)
{
    auto *pThread = static_cast<CWinThread *>(pvThread);
    t_pWinThread = pThread;
    AfxEndThread(pThread->m_pfnThread(pThread->m_pvParam));
}

void CWinThread::Delete()
{
    if (m_bAutoDelete) {
        delete this;
    }
}

CWinThread *AfxBeginThread(AFX_THREADPROC pfnThread, LPVOID pvParam, int nPriority, UINT cbStack,
                           DWORD dwCreateFlags, LPSECURITY_ATTRIBUTES pSecurity)
{
    auto *pThread = new (std::nothrow) CWinThread(pfnThread, pvParam);
    if (pThread && !pThread->Create(nPriority, cbStack, dwCreateFlags, pSecurity)) {
        DWORD const dwError = GetLastError();
        delete pThread;
        SetLastError(dwError);
        return nullptr;
    }
    return pThread;
}

void AfxEndThread(UINT nExitCode, BOOL bDelete)
{
    CWinThread *pThread = t_pWinThread;
    t_pWinThread = nullptr;
    if (pThread && bDelete) {
        pThread->Delete();
    }
    _endthreadex(nExitCode);
}
