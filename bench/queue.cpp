// A queue by its depth: one node more behind all others, and the first one taken.

#include "bench/bench.h"

#include "foundation/g_queue.h"

namespace {

void AddAndTake(benchmark::State &state)
{
    CGQueue queue("bench");
    for (std::int64_t n = 0; n < state.range(0);
         ++n) { // each before all others: that takes no walk
        queue.AddNode("node", nullptr, 0, /*nPriority=*/static_cast<DWORD>(n + 1));
    }
    CSamples samples(state);
    for (auto _ : state) {
        std::int64_t const nStart = NowNs();
        queue.AddNode("node", nullptr, 0, /*nPriority=*/0);
        samples.Add(NowNs() - nStart);
        CNode *pNode = nullptr;
        queue.GetFirstNode(&pNode);
        queue.FreeNode(&pNode);
    }
    queue.Flush();
}

BENCHMARK(AddAndTake)->Name("queue-add")->RangeMultiplier(10)->Range(1, 100'000)->UseManualTime();

} // namespace
