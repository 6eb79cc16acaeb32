// A registry file by the number of its values: the first read after a change, a value, and a whole reload
// of the event manager's settings.

#include "bench/bench.h"

#include "evtmgr/g_evtmgr.h"
#include "foundation/g_os.h"
#include "platform/registry.h"

#include <map>
#include <thread>

namespace {

class CRegistryOf {
public:
    explicit CRegistryOf(std::int64_t cValues)
    {
        std::ofstream file(m_strFile);
        file << "REGEDIT4\n[HKEY_LOCAL_MACHINE\\" << kszBaseCategoryKey
             << "\\4]\n\"Long Name\"=\"information\"\n";
        for (std::int64_t n = 0; n < cValues; ++n) {
            if (n % 10 == 0) {
                file << "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Bench\\" << n / 10 << "]\n";
            }
            file << "\"Value " << n % 10 << "\"=\"text number " << n << "\"\n";
        }
    }
    ~CRegistryOf() { PlatSetRegistryFile(nullptr); }
    void Use() const { PlatSetRegistryFile(m_strFile.c_str()); }

private:
    CTempDir m_dir;
    std::string const m_strFile = m_dir.File("bench.reg");
};

// One whose file is so old that its time of change can be relied on; waited for once.
CRegistryOf const &Settled(std::int64_t cValues)
{
    static std::map<std::int64_t, CRegistryOf> s_registries;
    auto const [where, fNew] = s_registries.try_emplace(cValues, cValues);
    if (fNew) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    }
    return where->second;
}

void Load(benchmark::State &state)
{
    CRegistryOf const registry(state.range(0));
    for (auto _ : state) {
        registry.Use();
    }
}

void Query(benchmark::State &state)
{
    Settled(state.range(0)).Use();
    std::string const strKey = "SOFTWARE\\Bench\\" + std::to_string(state.range(0) / 20);
    for (auto _ : state) {
        BYTE ab[100];
        DWORD cb = sizeof ab;
        if (GRegQueryValue(strKey.c_str(), "Value 5", ab, &cb) != 0) {
            state.SkipWithError("the value is missing");
        }
    }
}

// Of a manager that finds one name of a category: the cost is that of looking.
void Reload(benchmark::State &state, bool fSettled)
{
    CRegistryOf const fresh(state.range(0));
    (fSettled ? Settled(state.range(0)) : fresh).Use();
    CGEvtMgr *pMgr = nullptr;
    NewEvtMgr(&pMgr, "bench", eEM_NORMAL);
    for (auto _ : state) {
        pMgr->ReloadParameters();
    }
    pMgr->Release();
}

BENCHMARK(Load)->Name("registry-load")->RangeMultiplier(10)->Range(10, 10'000);
BENCHMARK(Query)->Name("registry-query")->RangeMultiplier(10)->Range(10, 10'000);
BENCHMARK_CAPTURE(Reload, , true)->Name("registry-reload")->RangeMultiplier(10)->Range(10, 10'000);
BENCHMARK_CAPTURE(Reload, , false)
    ->Name("registry-reload-fresh")
    ->RangeMultiplier(10)
    ->Range(10, 10'000)
    ->Iterations(20);

} // namespace
