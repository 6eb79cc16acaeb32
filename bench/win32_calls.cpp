// The same calls on our platform layer and under Wine: a free mutex, and an event to another thread and back.
// Prints the median of 11 rounds of each in nanoseconds, as JSON.

#include "platform/sync.h"
#include "platform/thread.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <vector>

namespace {

HANDLE g_hThere, g_hBack;
std::atomic<bool> g_fEnd{false};

template <class Work>
double MedianNs(int cTimes, Work fnWork)
{
    std::vector<double> rounds;
    for (int nRound = 0; nRound < 11; ++nRound) {
        auto const start = std::chrono::steady_clock::now();
        for (int n = 0; n < cTimes; ++n) {
            fnWork();
        }
        std::chrono::duration<double, std::nano> const took =
            std::chrono::steady_clock::now() - start;
        rounds.push_back(took.count() / cTimes);
    }
    std::sort(rounds.begin(), rounds.end());
    return rounds[rounds.size() / 2];
}

unsigned __stdcall Answer(void *)
{
    for (;;) {
        WaitForSingleObject(g_hThere, INFINITE);
        if (g_fEnd) {
            return 0;
        }
        SetEvent(g_hBack);
    }
}

} // namespace

int main()
{
    HANDLE const hMutex = CreateMutexA(nullptr, FALSE, nullptr);
    double const nMutex = MedianNs(2000, [&] {
        WaitForSingleObject(hMutex, INFINITE);
        ReleaseMutex(hMutex);
    });
    g_hThere = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    g_hBack = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    auto const hThread =
        reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, Answer, nullptr, 0, nullptr));
    double const nPingPong = MedianNs(1000, [] {
        SetEvent(g_hThere);
        WaitForSingleObject(g_hBack, INFINITE);
    });
    g_fEnd = true;
    SetEvent(g_hThere);
    WaitForSingleObject(hThread, INFINITE);
    std::printf("{\"mutex\": %.1f, \"ping-pong\": %.1f}\n", nMutex, nPingPong);
}
