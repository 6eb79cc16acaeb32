#pragma once

#include "platform/base.h"
#include <new>

// The few MFC names that the system uses, the same on every target. The threads are those of
// _beginthreadex (platform/thread.h).

/// The memory exception. Thrown by value, and a std::bad_alloc, so that one handler catches both it and
/// a failed operator new.
class CMemoryException : public std::bad_alloc {
public:
    /// For those who print exceptions.
    char const *what() const noexcept override { return "out of memory"; }
};

[[noreturn]] inline void AfxThrowMemoryException()
{
    throw CMemoryException();
}

using AFX_THREADPROC = UINT(__cdecl *)(LPVOID);

/// Ends the calling thread with nExitCode, as _endthreadex does. With bDelete its CWinThread, if it has
/// one and m_bAutoDelete is set, is deleted first.
[[noreturn]] void AfxEndThread(UINT nExitCode, BOOL bDelete = TRUE);

/// A thread made by AfxBeginThread. The object owns m_hThread and closes it when it is deleted: by the
/// thread itself as it ends, if m_bAutoDelete is set (as it is at first), otherwise by whoever cleared
/// it. With m_bAutoDelete set the object may be gone as soon as the thread runs, so what is wanted of
/// it is taken while the thread is still suspended.
class CWinThread {
public:
    /// @{
    /// AfxBeginThread makes these; by itself one runs nothing.
    CWinThread(AFX_THREADPROC pfnThread, LPVOID pvParam);
    virtual ~CWinThread();
    CWinThread(CWinThread const &) = delete;
    CWinThread &operator=(CWinThread const &) = delete;
    /// @}

    /// The suspend count before the call; (DWORD)-1 on failure. 1 starts a thread created suspended.
    DWORD ResumeThread();

    BOOL m_bAutoDelete = TRUE;  ///< the thread deletes the object as it ends
    HANDLE m_hThread = nullptr; ///< the object's own
    DWORD m_nThreadID = 0;      ///< 0 before the thread is made

private:
    friend CWinThread *AfxBeginThread(AFX_THREADPROC, LPVOID, int, UINT, DWORD,
                                      LPSECURITY_ATTRIBUTES);
    friend void AfxEndThread(UINT, BOOL);

    BOOL Create(int nPriority, UINT cbStack, DWORD dwCreateFlags, LPSECURITY_ATTRIBUTES pSecurity);
    static unsigned __stdcall Entry(void *pvThread);
    void Delete();

    AFX_THREADPROC m_pfnThread;
    LPVOID m_pvParam;
};

/// Starts pfnThread(pvParam) on a thread of its own. nPriority is one of SetThreadPriority's, cbStack in
/// bytes with 0 for the default, dwCreateFlags 0 or CREATE_SUSPENDED. Null on failure, nothing started.
CWinThread *AfxBeginThread(AFX_THREADPROC pfnThread, LPVOID pvParam, int nPriority = 0,
                           UINT cbStack = 0, DWORD dwCreateFlags = 0,
                           LPSECURITY_ATTRIBUTES pSecurity = nullptr);
