#pragma once

/// @file
/// Deadlines, and sleeping on a word until it changes.

#include "platform/sync.h"
#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

/// A number of milliseconds from now, or INFINITE, turned once into a point of the monotonic clock.
class CPlatDeadline {
public:
    explicit CPlatDeadline(DWORD dwMilliseconds) : m_fInfinite(dwMilliseconds == INFINITE)
    {
        if (m_fInfinite) {
            return;
        }
        clock_gettime(CLOCK_MONOTONIC, &m_ts);
        m_ts.tv_sec += dwMilliseconds / 1000;
        m_ts.tv_nsec += static_cast<long>(dwMilliseconds % 1000) * 1000000;
        if (m_ts.tv_nsec >= 1000000000) {
            m_ts.tv_nsec -= 1000000000;
            ++m_ts.tv_sec;
        }
    }

    /// The point on CLOCK_MONOTONIC; null for a deadline that never comes.
    timespec const *Time() const { return m_fInfinite ? nullptr : &m_ts; }

    bool HasPassed() const
    {
        timespec now;
        if (m_fInfinite) {
            return false;
        }
        clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec > m_ts.tv_sec ||
               (now.tv_sec == m_ts.tv_sec && now.tv_nsec >= m_ts.tv_nsec);
    }

    CPlatDeadline const &Earlier(CPlatDeadline const &other) const
    {
        if (m_fInfinite || other.m_fInfinite) {
            return m_fInfinite ? other : *this;
        }
        bool const fThis = m_ts.tv_sec != other.m_ts.tv_sec ? m_ts.tv_sec < other.m_ts.tv_sec
                                                            : m_ts.tv_nsec < other.m_ts.tv_nsec;
        return fThis ? *this : other;
    }

private:
    bool m_fInfinite;
    timespec m_ts{};
};

enum EFutexScope { eFS_PROCESS = FUTEX_PRIVATE_FLAG, eFS_SHARED = 0 };

/// Sleeps while `word` is `nWhile`. True once it is not, false when the deadline came first.
inline bool PlatFutexWait(std::atomic<std::uint32_t> &word, std::uint32_t nWhile,
                          CPlatDeadline const &deadline, EFutexScope eScope = eFS_PROCESS)
{
    while (word.load(std::memory_order_acquire) == nWhile) {
        long const rc = syscall(SYS_futex, &word, FUTEX_WAIT_BITSET | eScope, nWhile,
                                deadline.Time(), nullptr, FUTEX_BITSET_MATCH_ANY);
        if (rc != 0 && errno == ETIMEDOUT) {
            return word.load(std::memory_order_acquire) != nWhile;
        }
    }
    return true;
}

/// Wakes up to `cWaiters` sleepers. The word may be gone by now (a waiter's stack): the kernel only
/// compares addresses, and every sleeper looks at its own word again.
inline void PlatFutexWake(std::atomic<std::uint32_t> *pWord, int cWaiters,
                          EFutexScope eScope = eFS_PROCESS)
{
    syscall(SYS_futex, pWord, FUTEX_WAKE | eScope, cWaiters, nullptr, nullptr, 0);
}
