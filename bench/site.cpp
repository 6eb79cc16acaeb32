// Diagnostic sites whose events nobody takes, and what handlers cost that do.

#include "bench/bench.h"

#include "evtmgr/g_evthost.h"
#include "evtmgr/g_evtmgr.h"
#include "foundation/g_site.h"
#include "platform/registry.h"
#include "platform/window.h"
#include "trace/g_trace.h"

#include <thread>

CDiagnostics::CDiagnostics(char const *pszFileState, char const *pszTdState,
                           std::string const &strLog)
{
    std::string const strMasks =
        "\"Level\"=dword:1\n\"Base Category Mask\"=hex:ff,ff,ff,ff,ff,ff,ff,ff\n"
        "\"Custom Category Mask\"=hex:ff,ff,ff,ff,ff,ff,ff,ff\n";
    std::string const strKey = std::string("[HKEY_LOCAL_MACHINE\\") + kszModulesKey + "\\bench";
    std::string const strFile = strLog.empty() ? m_dir.File("bench.log") : strLog;
    std::ofstream(m_dir.File("bench.reg"))
        << "REGEDIT4\n"
        << strKey << "]\n\"Id String\"=\"[bench]: \"\n"
        << strKey << "\\File]\n\"File Name\"=\"" << strFile
        << "\"\n\"Append\"=dword:1\n\"State\"=dword:" << pszFileState << '\n'
        << strMasks << strKey << "\\TD]\n\"State\"=dword:" << pszTdState << '\n'
        << strMasks
        << "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvale\\TraceDeck]\n\"Title\"=\"qoma-bench\"\n";
    PlatSetRegistryFile(m_dir.File("bench.reg").c_str());
    if (GInstallEvtMgr("bench") != 0) {
        throw std::runtime_error("no event manager");
    }
}

CDiagnostics::~CDiagnostics()
{
    GRemoveEvtMgr("bench");
    PlatSetRegistryFile(nullptr);
}

namespace {

void Site(benchmark::State &state)
{
    int n = 0;
    for (auto _ : state) {
        G_REPORT(eEB_INFO, eEC_OBJECT, eEL_TRACE, "request %d taken", n);
        benchmark::DoNotOptimize(++n);
    }
}

void EmptyLoop(benchmark::State &state)
{
    int n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++n);
    }
}

// Both handlers are on; the level is above theirs.
void Refused(benchmark::State &state)
{
    CDiagnostics const diagnostics("1", "1");
    int n = 0;
    for (auto _ : state) {
        G_REPORT(eEB_INFO, eEC_OBJECT, eEL_COUNTER, "request %d taken", n);
        benchmark::DoNotOptimize(++n);
    }
}

// A viewer's window on a thread of its own, for the trace handler.
class CViewer {
public:
    CViewer()
    {
        std::atomic<HWND> hWnd{nullptr};
        m_thread = std::thread([&hWnd] {
            HWND const hMine = PlatCreateViewerWindow(
                kszTitle, [](void *, COPYDATASTRUCT const *) -> LRESULT { return TRUE; }, nullptr);
            hWnd = hMine;
            hWnd.notify_one();
            PlatRunViewerWindow(hMine);
            PlatDestroyViewerWindow(hMine);
        });
        hWnd.wait(nullptr);
        m_hWnd = hWnd;
        g_hTdWindow = FindWindowA(nullptr, kszTitle);
    }
    ~CViewer()
    {
        g_hTdWindow = nullptr;
        PlatCloseViewerWindow(m_hWnd);
        m_thread.join();
    }
    CViewer(CViewer const &) = delete;
    CViewer &operator=(CViewer const &) = delete;

private:
    static constexpr char kszTitle[] = "qoma-bench";
    std::thread m_thread;
    HWND m_hWnd;
};

// An event that is taken by none, the file, or the file and the viewer.
void Taken(benchmark::State &state)
{
    CViewer const viewer;
    CDiagnostics const diagnostics(state.range(0) > 0 ? "1" : "0", state.range(0) > 1 ? "1" : "0");
    int n = 0;
    for (auto _ : state) {
        G_REPORT(eEB_INFO, eEC_OBJECT, eEL_TRACE, "request %d taken", ++n);
    }
}

BENCHMARK(Site)->Name("site/ours");
BENCHMARK(EmptyLoop)->Name("site/empty");
BENCHMARK(Refused)->Name("refused/ours");
BENCHMARK(Taken)->Name("handlers-on")->DenseRange(0, 2)->MeasureProcessCPUTime();

} // namespace
