#pragma once

// The page of a named object, which all processes see.

#include "platform/posix/kernel/handle.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>

/// @{
/// m_state of an event: bit 0 is "set", the bits above count the calls of SetEvent, so that a waiter of a
/// manual-reset event that was set and reset at once does not miss it.
inline constexpr std::uint32_t knEventSet = 1;
inline constexpr std::uint32_t knEventCall = 2;
/// @}

struct CNamedPage {
    char m_szMagic[8];
    std::uint32_t m_cbPage; // with the magic: made by a layer of this shape and word size
    EHandleKind m_eKind;
    bool m_fManual;
    std::atomic<std::uint32_t> m_state;
    std::atomic<std::uint32_t> m_cWaiters; // of a mutex: those asleep on m_cReleases
    std::atomic<std::uint32_t> m_cReleases;
    std::atomic<bool> m_fAbandoned; // its owner's thread ended, and the process lives on
    char m_szName[MAX_PATH];        // for a person who looks at the file
    pthread_mutex_t m_mutex;
};
