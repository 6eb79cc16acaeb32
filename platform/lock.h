#pragma once

/// @file
/// Locks that the compiler keeps an eye on. What a lock guards says so in its declaration, what has to be
/// called under one says so too, and Clang refuses a build in which either is not kept (the preset `clang`);
/// other compilers see plain declarations. Locks of Win32 handles have guards of their own beside them, with
/// the same marks.

#include <mutex>

#ifdef __clang__
#define PLAT_THREAD_MARK(x) __attribute__((x))
#else
#define PLAT_THREAD_MARK(x)
#endif

/// @{
/// On a class: it is a lock; it is a guard that holds one for as long as it lives.
#define PLAT_CAPABILITY(name) PLAT_THREAD_MARK(capability(name))
#define PLAT_SCOPED_CAPABILITY PLAT_THREAD_MARK(scoped_lockable)
/// @}

/// @{
/// On a field: read and written under that lock; what the pointer points to is.
#define PLAT_GUARDED_BY(lock) PLAT_THREAD_MARK(guarded_by(lock))
#define PLAT_PT_GUARDED_BY(lock) PLAT_THREAD_MARK(pt_guarded_by(lock))
/// @}

/// @{
/// On a function: the caller holds the lock; does not hold it; gets it; gives it back; gets it if the
/// result is the first argument.
#define PLAT_REQUIRES(...) PLAT_THREAD_MARK(requires_capability(__VA_ARGS__))
#define PLAT_EXCLUDES(...) PLAT_THREAD_MARK(locks_excluded(__VA_ARGS__))
#define PLAT_ACQUIRE(...) PLAT_THREAD_MARK(acquire_capability(__VA_ARGS__))
#define PLAT_RELEASE(...) PLAT_THREAD_MARK(release_capability(__VA_ARGS__))
#define PLAT_TRY_ACQUIRE(...) PLAT_THREAD_MARK(try_acquire_capability(__VA_ARGS__))
/// @}

/// On a lock: it is taken before those.
#define PLAT_ACQUIRED_BEFORE(...) PLAT_THREAD_MARK(acquired_before(__VA_ARGS__))

/// On a function whose locking no mark can tell; the reason stands beside it.
#define PLAT_NO_THREAD_SAFETY PLAT_THREAD_MARK(no_thread_safety_analysis)

/// std::mutex with marks.
class PLAT_CAPABILITY("mutex") CPlatMutex {
public:
    CPlatMutex() noexcept = default; // constexpr where that of std::mutex is
    CPlatMutex(CPlatMutex const &) = delete;
    CPlatMutex &operator=(CPlatMutex const &) = delete;

    void lock() PLAT_ACQUIRE() { m_mutex.lock(); }
    bool try_lock() PLAT_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }
    void unlock() PLAT_RELEASE() { m_mutex.unlock(); }

private:
    friend class CPlatWaitGuard;
    std::mutex m_mutex;
};

/// Holds a mutex until the end of its block.
class PLAT_SCOPED_CAPABILITY CPlatGuard {
public:
    /// Waits for mutex, which must outlive the guard.
    explicit CPlatGuard(CPlatMutex &mutex) PLAT_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    /// Takes over a mutex that the caller has just locked.
    CPlatGuard(CPlatMutex &mutex, std::adopt_lock_t) PLAT_REQUIRES(mutex) : m_mutex(mutex) {}
    ~CPlatGuard() PLAT_RELEASE() { m_mutex.unlock(); }
    CPlatGuard(CPlatGuard const &) = delete;
    CPlatGuard &operator=(CPlatGuard const &) = delete;

private:
    CPlatMutex &m_mutex;
};

/// The same for one who waits on a std::condition_variable under it, or lets go of it for a while.
class PLAT_SCOPED_CAPABILITY CPlatWaitGuard {
public:
    /// Waits for mutex, which must outlive the guard.
    explicit CPlatWaitGuard(CPlatMutex &mutex) PLAT_ACQUIRE(mutex) : m_lock(mutex.m_mutex) {}
    ~CPlatWaitGuard() PLAT_RELEASE() {}
    CPlatWaitGuard(CPlatWaitGuard const &) = delete;
    CPlatWaitGuard &operator=(CPlatWaitGuard const &) = delete;

    void lock() PLAT_ACQUIRE() { m_lock.lock(); }
    void unlock() PLAT_RELEASE() { m_lock.unlock(); }

    /// What a std::condition_variable waits with. The predicate of such a wait is a function of its own to the
    /// compiler: it is marked PLAT_REQUIRES, or the wait stands in a loop.
    std::unique_lock<std::mutex> &Native() { return m_lock; }

private:
    std::unique_lock<std::mutex> m_lock;
};
