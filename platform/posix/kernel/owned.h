#pragma once

/// @file
/// Who owns which mutex. A thread keeps a list of the mutexes that it owns, so that those it still owns
/// when it ends go to the next owner as abandoned.

#include "platform/base.h"
#include "platform/check.h"
#include <atomic>

class COwnedLock;

/// What the layer knows of a thread. Its address stands for the thread as an owner; it is plain data
/// with no constructor, so that a fast path reads it with no guard.
struct CThreadState {
    COwnedLock *m_pFirstOwned;
    COwnedLock *m_pWakeBehind;           ///< the mutex whose release wakes m_pWake, or null
    std::atomic<std::uint32_t> *m_pWake; ///< a sleeper that was released already
    bool m_fExitHooked;
    bool m_fBrisk; ///< its last sleep in a wait was a short one
};

extern constinit thread_local CThreadState t_plThread;

/// Sees to it that the calling thread lets go of its mutexes as it ends. It also keeps the module of
/// this copy of the layer from being unloaded while the thread runs, which a thread of ours needs for
/// the last steps that it makes after its owner has heard of its end.
void PlatHookThreadExit();

/// The owner's half of a mutex. m_cRecursion and the links are touched by the owning thread alone, and
/// pass from owner to owner with the mutex itself.
class COwnedLock {
public:
    bool IsMine() const
    {
        // Relaxed: only this thread ever stores its own address here.
        return m_pOwner.load(std::memory_order_relaxed) == &t_plThread;
    }

    bool IsOwned() const { return m_pOwner.load(std::memory_order_relaxed) != nullptr; }

    bool IsMineOnce() const { return IsMine() && m_cRecursion == 1; }

    /// Another hold by the thread that has it already.
    bool Reenter()
    {
        if (!IsMine()) {
            return false;
        }
        ++m_cRecursion;
        return true;
    }

    /// The first hold, by the thread that has just acquired the mutex. pfnAbandon gives it up, marked as
    /// abandoned; it is called if the thread ends as the owner.
    void Own(void (*pfnAbandon)(COwnedLock &))
    {
        if (!t_plThread.m_fExitHooked) {
            PlatHookThreadExit();
        }
        PLAT_CHECK(!IsOwned());
        m_pOwner.store(&t_plThread, std::memory_order_relaxed);
        m_cRecursion = 1;
        m_pfnAbandon = pfnAbandon;
        m_pPrevOwned = nullptr;
        m_pNextOwned = t_plThread.m_pFirstOwned;
        if (m_pNextOwned) {
            m_pNextOwned->m_pPrevOwned = this;
        }
        t_plThread.m_pFirstOwned = this;
    }

    /// One hold less; the caller owns it. True when that was the last, and the mutex is to be let go.
    bool Leave()
    {
        PLAT_CHECK(IsMine() && m_cRecursion > 0);
        if (--m_cRecursion > 0) {
            return false;
        }
        (m_pPrevOwned ? m_pPrevOwned->m_pNextOwned : t_plThread.m_pFirstOwned) = m_pNextOwned;
        if (m_pNextOwned) {
            m_pNextOwned->m_pPrevOwned = m_pPrevOwned;
        }
        m_pOwner.store(nullptr, std::memory_order_relaxed);
        return true;
    }

    /// Gives it up with all holds, marked as abandoned; the caller owns it. Through pfnAbandon.
    void Abandon()
    {
        m_cRecursion = 1;
        Leave();
        m_pfnAbandon(*this);
    }

protected:
    constexpr COwnedLock() = default;
    ~COwnedLock() = default;

private:
    std::atomic<CThreadState *> m_pOwner{nullptr};
    std::uint32_t m_cRecursion = 0;
    COwnedLock *m_pPrevOwned = nullptr;
    COwnedLock *m_pNextOwned = nullptr;
    // A pointer and no virtual function: the first slots are all zeros, and so cost no file or memory.
    void (*m_pfnAbandon)(COwnedLock &) = nullptr;
};
