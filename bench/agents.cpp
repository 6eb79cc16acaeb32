// What agents cost by their number, each number in a process of its own, against software devices in another.
// usage: bench_agents [NUMBER...]
//
// Prints one JSON object per number: what the agents added to the process, and how long all of them took.

#include "agent/QOMANoAg.h"
#include "device/soft_device.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kcDevices = 24; // one takes 512 links

struct Usage {
    long nMemoryKb = 0, cThreads = 0, cDescriptors = 0;
};

Usage Now()
{
    Usage usage;
    std::ifstream status("/proc/self/status");
    for (std::string strWord; status >> strWord;) {
        if (strWord == "VmRSS:") {
            status >> usage.nMemoryKb;
        } else if (strWord == "Threads:") {
            status >> usage.cThreads;
        }
    }
    std::error_code none; // left when the agents have used all
    for ([[maybe_unused]] auto const &entry :
         std::filesystem::directory_iterator("/proc/self/fd", none)) {
        ++usage.cDescriptors;
    }
    return usage;
}

template <class Work>
double Milliseconds(Work fnWork)
{
    auto const start = std::chrono::steady_clock::now();
    fnWork();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

// Runs in a child: the devices, for as long as the parent holds the pipe's other end.
[[noreturn]] void RunDevices(int fdPorts, int fdEnd)
{
    PlatRaiseSocketLimit();
    auto const pLoop = std::make_shared<CDeviceLoop>();
    std::vector<std::unique_ptr<CSoftDevice>> devices;
    std::string strLoopError;
    if (!pLoop->Start(&strLoopError)) {
        std::fprintf(stderr, "bench_agents: %s\n", strLoopError.c_str());
        std::_Exit(1);
    }
    for (int n = 0; n < kcDevices; ++n) {
        SoftDeviceConfig config;
        config.pLoop = pLoop;
        devices.push_back(std::make_unique<CSoftDevice>(config));
        std::string strError;
        if (!devices.back()->Start(&strError)) {
            std::fprintf(stderr, "bench_agents: %s\n", strError.c_str());
        }
        WORD const wPort = devices.back()->Port();
        if (write(fdPorts, &wPort, sizeof wPort) < 0) {
            std::_Exit(1);
        }
    }
    char ch;
    while (read(fdEnd, &ch, 1) > 0) {
    }
    std::_Exit(0);
}

// Runs in a child of its own.
int Measure(int cAgents, std::vector<WORD> const &ports)
{
    std::vector<std::unique_ptr<CNotifyAgent>> agents;
    agents.reserve(static_cast<std::size_t>(cAgents));
    Usage const before = Now();
    DWORD dwFirstFailure = 0;
    double const nStart = Milliseconds([&] {
        for (int n = 0; n < cAgents; ++n) {
            agents.push_back(std::make_unique<CNotifyAgent>(nullptr, 0));
            DWORD const dwResult = agents.back()->Init(
                "127.0.0.1", ports[static_cast<std::size_t>(n % kcDevices)], /*bNetwork=*/1);
            dwFirstFailure = dwFirstFailure != 0 ? dwFirstFailure : dwResult;
        }
    });
    Usage const with = Now();
    double const nEnd = Milliseconds([&] {
        for (auto const &pAgent : agents) {
            pAgent->Shutdown();
        }
    });
    agents.clear();
    Usage const after = Now();
    std::printf(
        "{\"agents\": %d, \"failure\": %u, \"memory_kb\": %ld, \"threads\": %ld, \"descriptors\": "
        "%ld, "
        "\"start_ms\": %.1f, \"end_ms\": %.1f, \"threads_left\": %ld, \"descriptors_left\": %ld}\n",
        cAgents, static_cast<unsigned>(dwFirstFailure), with.nMemoryKb - before.nMemoryKb,
        with.cThreads - before.cThreads, with.cDescriptors - before.cDescriptors, nStart, nEnd,
        after.cThreads - before.cThreads, after.cDescriptors - before.cDescriptors);
    return dwFirstFailure != 0;
}

} // namespace

int main(int argc, char **argv)
{
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max; // the usual 1024 are enough for some 500 agents
    setrlimit(RLIMIT_NOFILE, &files);
    int anPorts[2], anEnd[2];
    if (pipe(anPorts) != 0 || pipe(anEnd) != 0) {
        return 1;
    }
    if (fork() == 0) {
        close(anEnd[1]);
        RunDevices(anPorts[1], anEnd[0]);
    }
    std::vector<WORD> ports(kcDevices);
    for (WORD &wPort : ports) {
        if (read(anPorts[0], &wPort, sizeof wPort) != sizeof wPort) {
            return 1;
        }
    }
    int nResult = 0;
    for (int n = 1; n < argc; ++n) {
        std::fflush(stdout);
        if (fork() == 0) {
            close(anEnd[1]);
            int const nExit = Measure(std::atoi(argv[n]), ports);
            std::fflush(stdout);
            std::_Exit(nExit);
        }
        int nStatus = 0;
        wait(&nStatus);
        nResult |= nStatus != 0;
    }
    close(anEnd[1]);
    wait(nullptr);
    return nResult;
}
