#pragma once
/// @file
/// CHubWaiter: waiting for a library's descriptor in a way that another thread can end.
#include "platform/base.h"
#include "platform/lock.h"

#include <chrono>

/// One thread waits, any thread wakes it.
class CHubWaiter {
public:
    /// What the descriptor is ready for; an error or its end counts as both.
    struct Ready {
        bool bRead = false;
        bool bWrite = false;
    };

    CHubWaiter(); ///< throws std::bad_alloc when there is no descriptor to be had
    ~CHubWaiter();
    CHubWaiter(CHubWaiter const &) = delete;
    CHubWaiter &operator=(CHubWaiter const &) = delete;

    /// Ends the Wait in progress, or the next one. Any thread.
    void Wake();

    /// Waits for nDescriptor (-1 for none) to be readable or writable, as far as that is wanted, for the time
    /// to be up, or for Wake. Any number of descriptors may be open: the wait has no limit of theirs.
    Ready Wait(int nDescriptor, bool bRead, bool bWrite, std::chrono::milliseconds limit);

private:
    LONG_PTR const m_nReadiness;
    CPlatMutex m_mx; // a leaf; of whether m_nReadiness is set, too
    bool m_bWoken PLAT_GUARDED_BY(m_mx) = false;
};
