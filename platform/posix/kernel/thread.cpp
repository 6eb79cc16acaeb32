#include "platform/thread.h"

#include "platform/posix/error.h"
#include "platform/posix/kernel/futex.h"
#include "platform/posix/kernel/slot.h"
#include <algorithm>
#include <csetjmp>
#include <cstdlib>
#include <memory>
#include <new>
#include <pthread.h>
#include <sys/resource.h>
#include <system_error>
#include <thread>

namespace {

using StartFn = unsigned(__stdcall *)(void *);

// A thread, shared by its handle and by itself; each holds the slot. The thread is created at once,
// also when it is to begin suspended (it has a number then), and waits for its start.
class CThreadObject : public CHandleObject {
public:
    static constexpr EHandleKind kKind = eHK_THREAD;

    CThreadObject(StartFn pfnStart, void *pvArgument, bool fSuspended)
        : m_pfnStart(pfnStart), m_pvArgument(pvArgument), m_fSuspended(fSuspended)
    {
    }
    ~CThreadObject() override;

    DWORD Wait(DWORD dwMilliseconds) override;
    void OnClose() override;

    bool Start(CHandleSlot &slot, unsigned cbStack, unsigned fwFlags);
    DWORD Resume();
    BOOL SetPriority(int nPriority);
    int Priority();
    DWORD Id() const;
    bool ExitCode(DWORD &dwCode) const;

    [[noreturn]] static void EndCurrent(unsigned nExitCode);

private:
    enum : std::uint32_t { eTS_SUSPENDED, eTS_STARTED, eTS_CANCELLED };

    static void *Main(void *pvThread) noexcept;
    bool AwaitStart();
    void RunBody();
    void End();
    bool TryJoin();
    void LetGo(std::uint32_t eStart);

    StartFn const m_pfnStart;
    void *const m_pvArgument;
    CHandleSlot *m_pSlot = nullptr;
    pthread_t m_thread{};
    std::jmp_buf m_exit;
    std::atomic<std::uint32_t> m_idThread{0};
    std::atomic<std::uint32_t> m_start{eTS_SUSPENDED};
    std::atomic<DWORD> m_dwExitCode{0};

    CPlatMutex m_joining; // held by the one who joins, and so for as long as the thread runs
    bool m_fJoined PLAT_GUARDED_BY(m_joining) = false;

    CPlatMutex m_lock; // a leaf
    bool m_fSuspended PLAT_GUARDED_BY(m_lock);
    int m_nPriority PLAT_GUARDED_BY(m_lock) = THREAD_PRIORITY_NORMAL;
    bool m_fEnded PLAT_GUARDED_BY(m_lock) = false;
    bool m_fCreated = false;
};

// The thread object of a thread that _beginthreadex started, null on all others.
constinit thread_local CThreadObject *t_pThread = nullptr;
constinit thread_local DWORD t_idThread = 0;

bool IsPriority(int nPriority)
{
    return (nPriority >= THREAD_PRIORITY_LOWEST && nPriority <= THREAD_PRIORITY_HIGHEST) ||
           nPriority == THREAD_PRIORITY_IDLE || nPriority == THREAD_PRIORITY_TIME_CRITICAL;
}

// The system's "nice" for a priority: 5 for each step, the ends for the two far ones.
int NiceOf(int nPriority)
{
    if (nPriority == THREAD_PRIORITY_IDLE) {
        return 19;
    }
    return nPriority == THREAD_PRIORITY_TIME_CRITICAL ? -20 : -5 * nPriority;
}

// The attribute for a stack. As in the Windows runtime a plain size is only what is made ready at
// once, so one below the default changes nothing.
bool SetStack(pthread_attr_t &attr, unsigned cbStack, unsigned fwFlags)
{
    std::size_t cb = cbStack, cbDefault = 0;
    if (cb == 0) {
        return true;
    }
    pthread_attr_getstacksize(&attr, &cbDefault);
    if ((fwFlags & STACK_SIZE_PARAM_IS_A_RESERVATION) == 0 && cb <= cbDefault) {
        return true;
    }
    auto const cbMin = static_cast<std::size_t>(sysconf(_SC_THREAD_STACK_MIN));
    std::size_t const cbPage = 4096;
    cb = (std::max(cb, cbMin + 4 * cbPage) + cbPage - 1) / cbPage * cbPage;
    return pthread_attr_setstacksize(&attr, cb) == 0;
}

std::uintptr_t FailStart(int nErrno)
{
    SetLastError(PlatErrorFromErrno(nErrno));
    errno = nErrno;
    return 0;
}

CThreadObject::~CThreadObject()
{
    if (m_fCreated && !m_fJoined) {
        pthread_detach(m_thread);
    }
}

bool CThreadObject::Start(CHandleSlot &slot, unsigned cbStack, unsigned fwFlags)
{
    m_pSlot = &slot;
    {
        CPlatGuard guard(m_lock);
        if (!m_fSuspended) {
            m_start.store(eTS_STARTED, std::memory_order_relaxed);
        }
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    // No lock: until the caller has its handle the thread itself is the only other to be here, and it
    // does not look at these two.
    m_fCreated = SetStack(attr, cbStack, fwFlags) &&
                 pthread_create(&m_thread, &attr, &CThreadObject::Main, this) == 0;
    pthread_attr_destroy(&attr);
    return m_fCreated;
}

void *CThreadObject::Main(void *pvThread) noexcept
{
    auto &thread = *static_cast<CThreadObject *>(pvThread);
    PlatHookThreadExit();
    thread.m_idThread.store(GetCurrentThreadId(), std::memory_order_relaxed);
    if (thread.AwaitStart()) {
        thread.RunBody();
    }
    thread.End();
    return nullptr;
}

bool CThreadObject::AwaitStart()
{
    PlatFutexWait(m_start, eTS_SUSPENDED, CPlatDeadline(INFINITE));
    return m_start.load(std::memory_order_acquire) == eTS_STARTED;
}

void CThreadObject::RunBody()
{
    // _endthreadex jumps back here: as on Windows nothing on the stack is unwound, so that it works
    // below a function that lets no exception through, too.
    t_pThread = this;
    if (setjmp(m_exit) == 0) {
        m_dwExitCode.store(m_pfnStart(m_pvArgument), std::memory_order_relaxed);
    }
    t_pThread = nullptr;
}

void CThreadObject::EndCurrent(unsigned nExitCode)
{
    if (!t_pThread) {
        pthread_exit(nullptr);
    }
    t_pThread->m_dwExitCode.store(nExitCode, std::memory_order_relaxed);
    std::longjmp(t_pThread->m_exit, 1);
}

void CThreadObject::End()
{
    {
        CPlatGuard guard(m_lock);
        m_fEnded = true; // from here the system may give the number to another thread
    }
    CHandleSlot *pSlot = m_pSlot;
    SlotSignal(*pSlot);
    PlatHandleRelease(pSlot); // may delete this
}

DWORD CThreadObject::Wait(DWORD dwMilliseconds)
{
    // The first who waits for as long as it takes sleeps in the join itself, which saves waking it at
    // the thread's last steps only to have it wait for those too.
    bool const fSelf = pthread_equal(m_thread, pthread_self());
    if (dwMilliseconds == INFINITE && !fSelf && m_joining.try_lock()) {
        CPlatGuard const guard(m_joining, std::adopt_lock);
        m_fJoined = m_fJoined || pthread_join(m_thread, nullptr) == 0;
        return WAIT_OBJECT_0;
    }
    CPlatDeadline const deadline(dwMilliseconds);
    DWORD const dwResult = SlotWait(*m_pSlot, dwMilliseconds);
    if (dwResult != WAIT_OBJECT_0 || fSelf) {
        return dwResult;
    }
    // By trying, with growing pauses: the join with a time-out counts on a clock that can be set back. A
    // thread that has told its end has few steps left, unless an object of its own waits in its destructor.
    constexpr long knsFirstPause = 20'000;
    constexpr long knsLastPause = 5'000'000;
    for (timespec ts = {0, knsFirstPause}; !TryJoin();
         ts.tv_nsec = std::min(2 * ts.tv_nsec, knsLastPause)) {
        if (deadline.HasPassed()) {
            return WAIT_TIMEOUT;
        }
        nanosleep(&ts, nullptr);
    }
    return WAIT_OBJECT_0;
}

bool CThreadObject::TryJoin()
{
    if (!m_joining.try_lock()) {
        return false;
    }
    CPlatGuard const guard(m_joining, std::adopt_lock);
    m_fJoined = m_fJoined || pthread_tryjoin_np(m_thread, nullptr) == 0;
    return m_fJoined;
}

void CThreadObject::LetGo(std::uint32_t eStart)
{
    m_start.store(eStart, std::memory_order_release);
    PlatFutexWake(&m_start, 1);
}

void CThreadObject::OnClose()
{
    CPlatGuard guard(m_lock);
    if (m_fSuspended) {
        LetGo(eTS_CANCELLED);
    }
    m_fSuspended = false;
}

DWORD CThreadObject::Resume()
{
    CPlatGuard guard(m_lock);
    bool const fSuspended = m_fSuspended;
    if (fSuspended) {
        LetGo(eTS_STARTED);
    }
    m_fSuspended = false;
    return fSuspended;
}

BOOL CThreadObject::SetPriority(int nPriority)
{
    if (!IsPriority(nPriority)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    CPlatGuard guard(m_lock);
    m_nPriority = nPriority;
    if (!m_fEnded) { // the number is still its own
        static_cast<void>(setpriority(PRIO_PROCESS, Id(), NiceOf(nPriority)));
    }
    return TRUE;
}

int CThreadObject::Priority()
{
    CPlatGuard guard(m_lock);
    return m_nPriority;
}

DWORD CThreadObject::Id() const
{
    if (DWORD const idThread = m_idThread.load(std::memory_order_relaxed)) {
        return idThread;
    }
    // The thread has not run yet. Its clock's number holds its own, by the kernel's interface, which
    // saves waiting for it. There is none if the thread has meanwhile run to its end.
    clockid_t clock;
    if (pthread_getcpuclockid(m_thread, &clock) != 0) {
        return m_idThread.load(std::memory_order_relaxed);
    }
    return ~static_cast<DWORD>(clock >> 3);
}

bool CThreadObject::ExitCode(DWORD &dwCode) const
{
    bool const fEnded = (m_pSlot->m_word.load(std::memory_order_acquire) & kswSignalled) != 0;
    dwCode = fEnded ? m_dwExitCode.load(std::memory_order_relaxed) : STILL_ACTIVE;
    return true;
}

} // namespace

std::uintptr_t __cdecl _beginthreadex(void * /*pSecurity*/, unsigned cbStack, StartFn pfnStart,
                                      void *pvArgument, unsigned fwFlags, unsigned *pidThread)
{
    if (!pfnStart || (fwFlags & ~(CREATE_SUSPENDED | STACK_SIZE_PARAM_IS_A_RESERVATION)) != 0) {
        return FailStart(EINVAL);
    }
    bool const fSuspended = (fwFlags & CREATE_SUSPENDED) != 0;
    auto *pThread = new (std::nothrow) CThreadObject(pfnStart, pvArgument, fSuspended);
    if (!pThread) {
        return FailStart(ENOMEM);
    }
    HANDLE hThread = nullptr;
    // Two references: the handle's and the thread's own.
    CHandleSlot *pSlot = SlotOpen(eHK_THREAD, /*swState=*/0, /*cRefs=*/2, pThread, &hThread);
    if (!pSlot) {
        delete pThread;
        return FailStart(EAGAIN);
    }
    if (!pThread->Start(*pSlot, cbStack, fwFlags)) {
        CloseHandle(hThread);
        PlatHandleRelease(pSlot);
        return FailStart(EAGAIN);
    }
    if (pidThread) {
        *pidThread = pThread->Id();
    }
    return reinterpret_cast<std::uintptr_t>(hThread);
}

void __cdecl _endthreadex(unsigned nExitCode)
{
    CThreadObject::EndCurrent(nExitCode);
}

DWORD WINAPI ResumeThread(HANDLE hThread)
{
    CHandleRef<CThreadObject> thread(hThread);
    return thread ? thread->Resume() : static_cast<DWORD>(-1);
}

BOOL WINAPI SetThreadPriority(HANDLE hThread, int nPriority)
{
    CHandleRef<CThreadObject> thread(hThread);
    return thread && thread->SetPriority(nPriority);
}

int WINAPI GetThreadPriority(HANDLE hThread)
{
    CHandleRef<CThreadObject> thread(hThread);
    return thread ? thread->Priority() : THREAD_PRIORITY_ERROR_RETURN;
}

DWORD WINAPI GetCurrentThreadId()
{
    if (t_idThread == 0) {
        t_idThread = static_cast<DWORD>(gettid());
    }
    return t_idThread;
}

BOOL WINAPI GetExitCodeThread(HANDLE hThread, LPDWORD pdwExitCode)
{
    CHandleRef<CThreadObject> thread(hThread);
    if (!thread) {
        return FALSE;
    }
    if (!pdwExitCode) {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    return thread->ExitCode(*pdwExitCode);
}

bool PlatRunDetached(std::function<void()> fnWork)
{
    auto const pPinned = std::make_shared<std::atomic<bool>>(false);
    try {
        std::thread([pPinned, fnWork = std::move(fnWork)] {
            PlatHookThreadExit();
            *pPinned = true;
            pPinned->notify_one();
            fnWork();
        }).detach();
    } catch (std::system_error const &) {
        return false;
    }
    pPinned->wait(false); // from here on the caller may go, and its module be let go of
    return true;
}
