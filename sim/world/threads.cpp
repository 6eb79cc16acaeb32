// Threads, mutexes, condition variables, futexes, sleeps and clocks, as the C library names them.
#include "sim/world/world.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <linux/futex.h>
#include <random>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

void *SimThreadEntry(void *pv);

namespace {

constexpr std::int64_t kEpoch = 1'790'000'000; // seconds: when the world began, on the calendar
constexpr int kFirstThreadId = 1000;
constexpr int kFirstProcessId = 100;
constexpr SimTime kLookAtClock = 100;
constexpr int kDied = 0x40000000; // in m.__data.__lock: its owner was killed

// Memory of a file that is mapped, which several processes may share at different addresses.
struct MappingType {
    char const *p;
    std::size_t cb;
    std::uint64_t qwFile;
};

std::vector<MappingType> g_mappings;
std::vector<std::pair<dev_t, ino_t>> g_files; // their place is the file's number, less 1

SimTime Duration(timespec const &ts)
{
    return ts.tv_sec * kSimSecond + ts.tv_nsec;
}

// On the world's own clock.
SimTime DueOn(clockid_t clock, timespec const &ts)
{
    return Duration(ts) - (clock == CLOCK_REALTIME ? kEpoch * kSimSecond : 0);
}

timespec TimeOn(clockid_t clock)
{
    SimTime const now = g_world.Now();
    return {now / kSimSecond + (clock == CLOCK_REALTIME ? kEpoch : 0), now % kSimSecond};
}

int Number()
{
    return t_pSimThread->nNumber + 1;
}

bool IsKind(pthread_mutex_t const &mutex, int nKind)
{
    return (mutex.__data.__kind & 3) == nKind;
}

bool IsRobust(pthread_mutex_t const &mutex)
{
    return (mutex.__data.__kind & 16) != 0;
}

// Takes it if it is free, or the caller's own and of the kind that allows it. EBUSY, or the result of a lock.
int TryTake(pthread_mutex_t &mutex)
{
    auto &data = mutex.__data;
    if (data.__owner == Number()) {
        if (IsKind(mutex, PTHREAD_MUTEX_RECURSIVE)) {
            ++data.__count;
            return 0;
        }
        return IsKind(mutex, PTHREAD_MUTEX_ERRORCHECK) ? EDEADLK : EBUSY;
    }
    if (data.__owner != 0) {
        return EBUSY;
    }
    data.__owner = Number();
    data.__count = 1;
    if (!IsRobust(mutex)) {
        return 0;
    }
    t_pSimThread->robust.push_back(&mutex);
    int const nResult = (data.__lock & kDied) != 0 ? EOWNERDEAD : 0;
    data.__lock = 1;
    return nResult;
}

int TakeUntil(pthread_mutex_t &mutex, SimTime due)
{
    WaitKey const key = KeyOf(eWT_MUTEX, &mutex);
    for (;;) {
        int const nResult = TryTake(mutex);
        if (nResult != EBUSY) {
            return nResult;
        }
        if (!g_world.Block(key, due)) {
            return ETIMEDOUT;
        }
    }
}

int GiveBack(pthread_mutex_t &mutex)
{
    auto &data = mutex.__data;
    if (data.__owner != Number()) {
        if (IsKind(mutex, PTHREAD_MUTEX_TIMED_NP) && !IsRobust(mutex)) {
            g_world.Fail("a mutex is released by a thread that does not have it");
        }
        return EPERM;
    }
    if (--data.__count > 0) {
        return 0;
    }
    data.__owner = 0;
    data.__lock = 0;
    std::erase(t_pSimThread->robust, &mutex);
    g_world.Wake(KeyOf(eWT_MUTEX, &mutex));
    return 0;
}

int WaitOnCondition(pthread_cond_t *pCondition, pthread_mutex_t *pMutex, SimTime due)
{
    if (pMutex->__data.__owner != Number()) {
        g_world.Fail("a condition is waited for without its mutex");
    }
    GiveBack(*pMutex);
    bool const fWoken =
        g_world.Block({eWT_CONDITION, reinterpret_cast<std::uint64_t>(pCondition)}, due);
    TakeUntil(*pMutex, kNever);
    return fWoken ? 0 : ETIMEDOUT;
}

long WaitOnFutex(std::uint32_t const *pWord, int nOperation, std::uint32_t nWhile,
                 timespec const *pTime)
{
    SimTime due = kNever;
    if (pTime != nullptr) {
        clockid_t const clock =
            (nOperation & FUTEX_CLOCK_REALTIME) != 0 ? CLOCK_REALTIME : CLOCK_MONOTONIC;
        bool const fPoint = (nOperation & FUTEX_CMD_MASK) == FUTEX_WAIT_BITSET;
        due = fPoint ? DueOn(clock, *pTime) : g_world.Now() + Duration(*pTime);
    }
    if (__atomic_load_n(pWord, __ATOMIC_ACQUIRE) != nWhile) {
        errno = EAGAIN;
        return -1;
    }
    if (due <= g_world.Now() || !g_world.Block(KeyOf(eWT_FUTEX, pWord), due)) {
        errno = ETIMEDOUT;
        return -1;
    }
    return 0;
}

long Futex(std::uint32_t *pWord, int nOperation, std::uint32_t nValue, timespec const *pTime)
{
    switch (nOperation & FUTEX_CMD_MASK) {
    case FUTEX_WAIT:
    case FUTEX_WAIT_BITSET:
        return WaitOnFutex(pWord, nOperation, nValue, pTime);
    case FUTEX_WAKE:
    case FUTEX_WAKE_BITSET:
        return g_world.Wake(KeyOf(eWT_FUTEX, pWord),
                            nValue > INT_MAX ? INT_MAX : static_cast<int>(nValue));
    default:
        g_world.Fail("a futex operation that the world does not know");
    }
}

int SleepUntil(SimTime due)
{
    if (due > g_world.Now()) {
        g_world.Block({eWT_TIME}, due);
    }
    return 0;
}

} // namespace

WaitKey KeyOf(EWait eKind, void const *pv)
{
    auto const *const p = static_cast<char const *>(pv);
    for (MappingType const &mapping : g_mappings) {
        if (p >= mapping.p && p < mapping.p + mapping.cb) {
            return {eKind, static_cast<std::uint64_t>(p - mapping.p), mapping.qwFile};
        }
    }
    return {eKind, reinterpret_cast<std::uint64_t>(pv)};
}

void PassOnMutexes(CSimThread &thread)
{
    for (pthread_mutex_t *const pMutex : thread.robust) {
        pMutex->__data.__owner = 0;
        pMutex->__data.__lock = kDied;
        // As the kernel does: one of those who sleep in the lock itself hears of it.
        g_world.Wake(KeyOf(eWT_MUTEX, pMutex), 1);
    }
    thread.robust.clear();
}

extern "C" {

// ---- Threads

int pthread_create(pthread_t *pHandle, pthread_attr_t const *pAttributes, void *(*pfnStart)(void *),
                   void *pvArgument) noexcept
{
    WORLD_CALL(pthread_create, pHandle, pAttributes, pfnStart, pvArgument);
    if (g_world.Refuses()) {
        return EAGAIN;
    }
    CSimThread *const pThread = g_world.NewThread(t_pSimThread->nProcess);
    pThread->pfnStart = pfnStart;
    pThread->pvArgument = pvArgument;
    pThread->fRefusable = t_pSimThread->fRefusable;
    if (REAL(pthread_create)(&pThread->handle, pAttributes, SimThreadEntry, pThread) != 0) {
        g_world.Fail("no thread to be had of the system");
    }
    *pHandle = pThread->handle;
    return 0;
}

int pthread_join(pthread_t handle, void **ppvResult)
{
    WORLD_CALL(pthread_join, handle, ppvResult);
    CSimThread *const pThread = g_world.FindThread(handle);
    while (pThread->eState != CSimThread::eENDED) {
        g_world.Block({eWT_JOIN, static_cast<std::uint64_t>(pThread->nNumber)});
    }
    pThread->fReaped = true;
    return REAL(pthread_join)(handle, ppvResult);
}

int pthread_tryjoin_np(pthread_t handle, void **ppvResult) noexcept
{
    WORLD_CALL(pthread_tryjoin_np, handle, ppvResult);
    CSimThread *const pThread = g_world.FindThread(handle);
    if (pThread->eState != CSimThread::eENDED) {
        return EBUSY;
    }
    pThread->fReaped = true;
    return REAL(pthread_join)(handle, ppvResult);
}

int pthread_detach(pthread_t handle) noexcept
{
    WORLD_CALL(pthread_detach, handle);
    CSimThread *const pThread = g_world.FindThread(handle);
    pThread->fReaped = true; // nobody may name it any more
    return REAL(pthread_detach)(handle);
}

int pthread_getcpuclockid(pthread_t handle, clockid_t *pClock) noexcept
{
    WORLD_CALL(pthread_getcpuclockid, handle, pClock);
    CSimThread const *const pThread = g_world.FindThread(handle);
    if (pThread->eState == CSimThread::eENDED) {
        return ESRCH;
    }
    *pClock =
        static_cast<clockid_t>(~static_cast<unsigned>(pThread->nNumber + kFirstThreadId) << 3);
    return 0;
}

pid_t gettid() noexcept
{
    return t_pSimThread == nullptr ? REAL(gettid)() : t_pSimThread->nNumber + kFirstThreadId;
}

pid_t getpid() noexcept
{
    return t_pSimThread == nullptr ? REAL(getpid)() : t_pSimThread->nProcess + kFirstProcessId;
}

int setpriority(__priority_which_t eWhich, id_t id, int nPriority) noexcept
{
    return t_pSimThread == nullptr ? REAL(setpriority)(eWhich, id, nPriority) : 0;
}

int sched_yield() noexcept
{
    if (t_pSimThread == nullptr) {
        return REAL(sched_yield)();
    }
    CInWorld const inWorld;
    g_world.Yield("sched_yield");
    return 0;
}

// ---- Mutexes and condition variables

int pthread_mutex_lock(pthread_mutex_t *pMutex) noexcept
{
    WORLD_CALL(pthread_mutex_lock, pMutex);
    return TakeUntil(*pMutex, kNever);
}

int pthread_mutex_trylock(pthread_mutex_t *pMutex) noexcept
{
    WORLD_CALL(pthread_mutex_trylock, pMutex);
    return TryTake(*pMutex);
}

int pthread_mutex_timedlock(pthread_mutex_t *pMutex, timespec const *pTime) noexcept
{
    WORLD_CALL(pthread_mutex_timedlock, pMutex, pTime);
    return TakeUntil(*pMutex, DueOn(CLOCK_REALTIME, *pTime));
}

int pthread_mutex_clocklock(pthread_mutex_t *pMutex, clockid_t clock,
                            timespec const *pTime) noexcept
{
    WORLD_CALL(pthread_mutex_clocklock, pMutex, clock, pTime);
    return TakeUntil(*pMutex, DueOn(clock, *pTime));
}

int pthread_mutex_unlock(pthread_mutex_t *pMutex) noexcept
{
    if (t_pSimThread == nullptr) {
        return REAL(pthread_mutex_unlock)(pMutex);
    }
    CInWorld const inWorld;
    int const nResult = GiveBack(*pMutex);
    g_world.Point("pthread_mutex_unlock", __builtin_return_address(0));
    return nResult;
}

int pthread_mutex_consistent(pthread_mutex_t *pMutex) noexcept
{
    WORLD_CALL(pthread_mutex_consistent, pMutex);
    pMutex->__data.__lock = 1;
    return 0;
}

int pthread_cond_wait(pthread_cond_t *pCondition, pthread_mutex_t *pMutex)
{
    WORLD_CALL(pthread_cond_wait, pCondition, pMutex);
    return WaitOnCondition(pCondition, pMutex, kNever);
}

int pthread_cond_timedwait(pthread_cond_t *pCondition, pthread_mutex_t *pMutex,
                           timespec const *pTime)
{
    WORLD_CALL(pthread_cond_timedwait, pCondition, pMutex, pTime);
    return WaitOnCondition(pCondition, pMutex, DueOn(CLOCK_REALTIME, *pTime));
}

int pthread_cond_clockwait(pthread_cond_t *pCondition, pthread_mutex_t *pMutex, clockid_t clock,
                           timespec const *pTime)
{
    WORLD_CALL(pthread_cond_clockwait, pCondition, pMutex, clock, pTime);
    return WaitOnCondition(pCondition, pMutex, DueOn(clock, *pTime));
}

int pthread_cond_signal(pthread_cond_t *pCondition) noexcept
{
    WORLD_CALL(pthread_cond_signal, pCondition);
    g_world.Wake({eWT_CONDITION, reinterpret_cast<std::uint64_t>(pCondition)}, 1);
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t *pCondition) noexcept
{
    WORLD_CALL(pthread_cond_broadcast, pCondition);
    g_world.Wake({eWT_CONDITION, reinterpret_cast<std::uint64_t>(pCondition)});
    return 0;
}

int pthread_cond_destroy(pthread_cond_t *pCondition) noexcept
{
    return t_pSimThread == nullptr ? REAL(pthread_cond_destroy)(pCondition) : 0;
}

// ---- Words to sleep on

long syscall(long nNumber, ...) noexcept
{
    va_list args;
    va_start(args, nNumber);
    long an[6];
    for (long &n : an) {
        n = va_arg(args, long);
    }
    va_end(args);
    if (t_pSimThread == nullptr || nNumber != SYS_futex) {
        return REAL(syscall)(nNumber, an[0], an[1], an[2], an[3], an[4], an[5]);
    }
    CInWorld const inWorld;
    g_world.Point("futex", __builtin_return_address(0));
    long const nResult =
        Futex(reinterpret_cast<std::uint32_t *>(an[0]), static_cast<int>(an[1]),
              static_cast<std::uint32_t>(an[2]), reinterpret_cast<timespec const *>(an[3]));
    int const nErrno = errno;
    g_world.Point("futex done"); // whoever was woken may run before the caller goes on
    errno = nErrno;
    return nResult;
}

void *mmap(void *pv, std::size_t cb, int fProtection, int fFlags, int fd, off_t nPlace) noexcept
{
    void *const pvResult = REAL(mmap)(pv, cb, fProtection, fFlags, fd, nPlace);
    struct stat st;
    if (t_pSimThread == nullptr || pvResult == MAP_FAILED || (fFlags & MAP_SHARED) == 0 || fd < 0 ||
        REAL(fstat)(fd, &st) != 0) {
        return pvResult;
    }
    CInWorld const inWorld;
    std::pair<dev_t, ino_t> const file{st.st_dev, st.st_ino};
    auto it = std::ranges::find(g_files, file);
    if (it == g_files.end()) {
        it = g_files.insert(it, file);
    }
    g_mappings.push_back(
        {static_cast<char *>(pvResult), cb, 1 + static_cast<std::uint64_t>(it - g_files.begin())});
    return pvResult;
}

int munmap(void *pv, std::size_t cb) noexcept
{
    if (t_pSimThread != nullptr) {
        CInWorld const inWorld;
        std::erase_if(g_mappings, [&](MappingType const &mapping) { return mapping.p == pv; });
    }
    return REAL(munmap)(pv, cb);
}

// ---- Time

int clock_gettime(clockid_t clock, timespec *pTime) noexcept
{
    if (t_pSimThread == nullptr) {
        return REAL(clock_gettime)(clock, pTime);
    }
    g_world.Spend(kLookAtClock);
    *pTime = TimeOn(clock);
    return 0;
}

int gettimeofday(timeval *pTime, void *pvZone) noexcept
{
    if (t_pSimThread == nullptr) {
        return REAL(gettimeofday)(pTime, pvZone);
    }
    timespec const ts = TimeOn(CLOCK_REALTIME);
    *pTime = {ts.tv_sec, ts.tv_nsec / 1000};
    return 0;
}

time_t time(time_t *pTime) noexcept
{
    if (t_pSimThread == nullptr) {
        return REAL(time)(pTime);
    }
    time_t const now = TimeOn(CLOCK_REALTIME).tv_sec;
    if (pTime != nullptr) {
        *pTime = now;
    }
    return now;
}

int nanosleep(timespec const *pTime, timespec *pLeft)
{
    WORLD_CALL(nanosleep, pTime, pLeft);
    return SleepUntil(g_world.Now() + Duration(*pTime));
}

int clock_nanosleep(clockid_t clock, int fFlags, timespec const *pTime, timespec *pLeft)
{
    WORLD_CALL(clock_nanosleep, clock, fFlags, pTime, pLeft);
    bool const fPoint = (fFlags & TIMER_ABSTIME) != 0;
    return SleepUntil(fPoint ? DueOn(clock, *pTime) : g_world.Now() + Duration(*pTime));
}

int pause()
{
    WORLD_CALL(pause);
    g_world.Block({eWT_TIME});
    return -1;
}

} // extern "C"

// What the library asks of the processor directly.
std::random_device::result_type std::random_device::_M_getval()
{
    return t_pSimThread == nullptr ? 1u : static_cast<unsigned>(g_world.m_work.Next());
}
