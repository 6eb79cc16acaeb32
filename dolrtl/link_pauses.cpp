#include "dolrtl/link_pauses.h"

#include "platform/lock.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <new>

namespace {

using Clock = std::chrono::steady_clock;

constexpr DWORD kShortestMs = 100;
constexpr DWORD kLongestMs = 2000;
constexpr std::chrono::minutes kMemory{
    1}; // a search or link that has begun longer ago is another story

struct LastPause {
    DWORD dwMilliseconds;
    Clock::time_point at;
};

CPlatMutex g_mx; // a leaf
std::map<LinkPauseKey, LastPause> g_pauses PLAT_GUARDED_BY(g_mx);
Clock::time_point g_swept PLAT_GUARDED_BY(g_mx); // when the old ones were thrown away

// The pause is the client's last one.
DWORD Keep(LinkPauseKey const &key, DWORD dwMilliseconds) PLAT_REQUIRES(g_mx)
{
    auto const now = Clock::now();
    if (now - g_swept > kMemory) { // not each time: thousands of links may break at once
        g_swept = now;
        std::erase_if(g_pauses, [&](auto const &pause) { return now - pause.second.at > kMemory; });
    }
    try {
        g_pauses.insert_or_assign(key, LastPause{dwMilliseconds, now});
    } catch (std::bad_alloc const &) {
        // the next search begins as if it were the first
    }
    return dwMilliseconds;
}

DWORD Longer(DWORD dwMilliseconds)
{
    return std::min(dwMilliseconds * 2, kLongestMs);
}

} // namespace

DWORD FirstLinkPause(LinkPauseKey const &key, bool fGood) noexcept
{
    CPlatGuard const lock(g_mx);
    auto const it = g_pauses.find(key);
    bool const fGrow = !fGood && it != g_pauses.end() && Clock::now() - it->second.at <= kMemory;
    return Keep(key, fGrow ? Longer(it->second.dwMilliseconds) : kShortestMs);
}

DWORD NextLinkPause(LinkPauseKey const &key, DWORD dwMilliseconds) noexcept
{
    CPlatGuard const lock(g_mx);
    return Keep(key, Longer(dwMilliseconds));
}
