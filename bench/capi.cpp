// What the C interface adds to the class: a subscription made and taken back, two requests to a device at this
// machine.

#include "agent/QOMANoAg.h"
#include "bench/bench.h"
#include "capi/qoma_notify.h"
#include "device/soft_device.h"

namespace {

// One for all rounds.
WORD DevicePort()
{
    static CSoftDevice *const s_pDevice = [] {
        auto *const pDevice = new CSoftDevice;
        std::string strError;
        if (!pDevice->Start(&strError)) {
            throw std::runtime_error(strError);
        }
        return pDevice;
    }();
    return s_pDevice->Port();
}

template <class Order>
void Measure(benchmark::State &state, Order fnOrder)
{
    CSamples samples(state);
    for (auto _ : state) {
        std::int64_t const nStart = NowNs();
        if (fnOrder() != 0) {
            state.SkipWithError("the device did not take it");
            return;
        }
        samples.Add(NowNs() - nStart);
    }
}

void ByClass(benchmark::State &state)
{
    CNotifyAgent agent(nullptr, 0);
    agent.Init(nullptr, DevicePort(), /*bNetwork=*/0);
    Measure(state, [&] {
        DWORD const dwResult = agent.Add(nullptr, eNF_ADF, nullptr);
        return dwResult != 0 ? dwResult : agent.Delete(0, eNF_ADF, nullptr);
    });
    agent.Shutdown();
}

void ByFunctions(benchmark::State &state)
{
    qoma_agent agent = nullptr;
    qoma_create(nullptr, nullptr, &agent);
    qoma_connect(agent, nullptr, DevicePort(), QOMA_LOCAL);
    Measure(state, [&] {
        qoma_result const result = qoma_add(agent, QOMA_FLAG_FEEDER, nullptr, nullptr);
        return result != QOMA_OK ? result : qoma_delete(agent, QOMA_FLAG_FEEDER, nullptr, 0);
    });
    qoma_destroy(agent);
}

BENCHMARK(ByClass)->Name("capi/class")->UseManualTime();
BENCHMARK(ByFunctions)->Name("capi/ours")->UseManualTime();

} // namespace
