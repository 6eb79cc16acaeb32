#pragma once
// A message of 700 bytes from one thread to the callback on another.
//
// A queue is a class whose Post(std::string const &text) has CArrivals::Arrived called on its worker.

#include "bench/bench.h"

#include <atomic>

// What the callbacks of all queues do.
class CArrivals {
public:
    static void Arrived()
    {
        s_nAt.store(NowNs(), std::memory_order_relaxed);
        s_cArrived.fetch_add(1);
        s_cArrived.notify_one();
    }
    static std::uint32_t Count() { return s_cArrived.load(); }
    // Waits for one more than cBefore, and tells when it arrived.
    static std::int64_t Wait(std::uint32_t cBefore)
    {
        s_cArrived.wait(cBefore);
        return s_nAt.load(std::memory_order_relaxed);
    }

private:
    static inline std::atomic<std::int64_t> s_nAt{0};
    static inline std::atomic<std::uint32_t> s_cArrived{0};
};

// A message as our peers make it: the text at its front, the rest zeros.
struct CMessage {
    explicit CMessage(std::string const &strText) { strText.copy(m_ab, sizeof m_ab - 1); }
    char m_ab[700] = {};
};

template <class Queue>
void PostLatency(benchmark::State &state)
{
    COneCore const core;
    Queue queue;
    std::string const strText(120, 't');
    CSamples samples(state);
    for (auto _ : state) {
        std::uint32_t const cBefore = CArrivals::Count();
        std::int64_t const nStart = NowNs();
        queue.Post(strText);
        samples.Add(CArrivals::Wait(cBefore) - nStart);
    }
}

// Never more than 8 wait.
template <class Queue>
void PostThroughput(benchmark::State &state)
{
    constexpr std::uint32_t kcWaiting = 8;
    COneCore const core;
    Queue queue;
    std::string const strText(120, 't');
    std::uint32_t const cBefore = CArrivals::Count();
    std::uint32_t cPosted = 0;
    auto wait = [&](std::uint32_t cMay) {
        while (cPosted - (CArrivals::Count() - cBefore) > cMay) {
            sched_yield();
        }
    };
    for (auto _ : state) {
        wait(kcWaiting - 1);
        queue.Post(strText);
        ++cPosted;
    }
    wait(0);
}

template <class Queue>
bool PostPeer(std::string const &strWho)
{
    benchmark::RegisterBenchmark(("post-latency/" + strWho).c_str(), PostLatency<Queue>)
        ->UseManualTime();
    benchmark::RegisterBenchmark(("post-throughput/" + strWho).c_str(), PostThroughput<Queue>)
        ->MeasureProcessCPUTime();
    return true;
}
