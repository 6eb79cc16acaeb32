#pragma once
/// @file
/// CHubWaiter: waiting for a library's descriptor in a way that another thread can end.
#include "platform/base.h"
#include "platform/lock.h"

#include <chrono>

/// One thread waits, any thread wakes it.
class CHubWaiter {
public:
    CHubWaiter(); ///< throws std::bad_alloc when there is no descriptor to be had
    ~CHubWaiter();
    CHubWaiter(CHubWaiter const &) = delete;
    CHubWaiter &operator=(CHubWaiter const &) = delete;

    /// Ends the Wait in progress, or the next one. Any thread.
    void Wake();

    /// Waits for nDescriptor (-1 for none) to be what nWanted says (platform/descriptor.h), for the time to be up,
    /// or for Wake. What it is ready for. Any number of descriptors may be open: the wait has no limit of theirs.
    int Wait(int nDescriptor, int nWanted, std::chrono::milliseconds limit);

private:
    LONG_PTR const m_nReadiness;
    CPlatMutex m_mx; // a leaf; of whether m_nReadiness is set, too
    bool m_bWoken PLAT_GUARDED_BY(m_mx) = false;
};
