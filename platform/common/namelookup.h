#pragma once
/// @file
/// Reverse name lookups that hold up nobody for long. The system's own takes as long as it likes, many seconds
/// when a name server is silent, and nothing can interrupt it; so it runs on a thread of its own, and who asks
/// waits for a short while only. What comes later is kept for who asks then.

#include "platform/common/namecache.h"
#include "platform/lock.h"

#include <condition_variable>
#include <map>
#include <memory>

/// Any thread may call it.
class CNameLookup {
public:
    /// The system's lookup of an address (network order). Throws nothing but std::bad_alloc.
    using ResolveFn = CNameCache::CAnswer (*)(std::uint32_t dwAddress);

    static constexpr std::chrono::milliseconds kPatience{500}; ///< for a lookup, from its start
    /// For one that begins while others are at it: strangers whose names are hard to find, one after the other,
    /// must not add up to what a device takes for a client that is gone.
    static constexpr std::chrono::milliseconds kLittlePatience{50};
    static constexpr std::size_t kMostAtOnce = 8; ///< lookups; further ones are refused

    /// fnResolve: see above. nLate: the error of an answer that has not come in time, or was refused.
    CNameLookup(ResolveFn fnResolve, int nLate);

    /// The answer, from memory if it is young enough. Throws std::bad_alloc.
    CNameCache::CAnswer Find(std::uint32_t dwAddress);

private:
    // Shared with the threads, which nobody waits for.
    struct CState {
        CPlatMutex mutex; // no lookup is made under it
        std::condition_variable cvEnded;
        CNameCache cache PLAT_GUARDED_BY(mutex);
        // Addresses, and how long they are waited for.
        std::map<std::uint32_t, CNameCache::Time> running PLAT_GUARDED_BY(mutex);
    };

    bool Start(std::uint32_t dwAddress);
    static void Run(CState &state, ResolveFn fnResolve, std::uint32_t dwAddress);

    ResolveFn const m_fnResolve;
    int const m_nLate;
    std::shared_ptr<CState> const m_pState = std::make_shared<CState>();
};
