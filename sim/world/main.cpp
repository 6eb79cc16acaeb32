// simulate: runs scenarios in the simulated world, a process for each run.
#include "sim/world/world.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <random>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

void WatchSignals();

namespace {

constexpr std::size_t kMostProcesses = 12;
constexpr std::uint64_t kMostShrinks = 200; // runs that are tried for a shorter one

char const kUsage[] =
    "usage: simulate [--seed N[-M]] [--scenario S] [--hours H] [--trace FILE] [--shrink]\n"
    "                [--seconds T] [--module FILE] [--NAME VALUE]...\n"
    "Runs scenario S (all of them without it) with seed N (one that is drawn without it) in a "
    "simulated\n"
    "world, for H simulated hours. The same seed gives the same run.\n"
    "  --seed N-M      each of these seeds\n"
    "  --seconds T     seeds from N on for T real seconds\n"
    "  --trace FILE    writes a line for each step\n"
    "  --shrink        looks for a shorter run that fails, too\n"
    "  --module FILE   the product, instead of the one beside this program\n"
    "  --NAME VALUE    a choice that the scenario would make by itself: agents, devices, kills; or "
    "0 for a\n"
    "                  trouble that is not to come: stall, spurious, refuse, short, drop, repeat, "
    "reorder, reset\n";

struct ScenarioType {
    char const *pszName;
    double dHours; // of a run, if the command line does not say
};

constexpr ScenarioType kScenarios[] = {
    {"queue", 0.002},
    {"agents", 0.1},
    {"named", 0.05},
    {"log", 0.02},
};

struct PlanType {
    SimOptions options;
    std::uint64_t qwLast = 0;
    double dSeconds = 0;
    bool fShrink = false;
};

[[noreturn]] void Misused(std::string const &strReason)
{
    std::fprintf(stderr, "simulate: %s\n%s", strReason.c_str(), kUsage);
    std::exit(2);
}

// Each simulated process is a module of its own to the system's loader, as nothing of it is shared then.
void *LoadCopy(std::string const &strModule)
{
    int const fdFrom = open(strModule.c_str(), O_RDONLY | O_CLOEXEC);
    int const fdTo = memfd_create("simulated", MFD_CLOEXEC);
    struct stat st {};
    if (fdFrom < 0 || fdTo < 0 || fstat(fdFrom, &st) != 0) {
        Misused("cannot read the module " + strModule);
    }
    off_t nPlace = 0;
    while (nPlace < st.st_size &&
           sendfile(fdTo, fdFrom, &nPlace, static_cast<std::size_t>(st.st_size - nPlace)) > 0) {
    }
    std::string const strName = "/proc/self/fd/" + std::to_string(fdTo);
    void *const pvModule = dlopen(strName.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (pvModule == nullptr) {
        Misused(dlerror());
    }
    close(fdFrom);
    return pvModule; // the descriptor stays, as its name is that of the module
}

RunResult *SharedResult()
{
    void *const pv =
        mmap(nullptr, sizeof(RunResult), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<RunResult *>(pv);
}

// One run in a process of its own. Whether it was good.
bool RunOnce(SimOptions const &options, std::vector<void *> const &modules, RunResult &result)
{
    bool const fQuiet = result.fQuiet;
    result = {};
    result.fQuiet = fQuiet;
    std::fflush(nullptr);
    pid_t const id = fork();
    if (id == 0) {
        if (fQuiet) {
            int const fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        WatchSignals();
        g_world.m_pResult = &result;
        g_world.Run(options, modules);
    }
    int nStatus = 0;
    while (id > 0 && waitpid(id, &nStatus, 0) < 0) {
    }
    bool const fGood = id > 0 && WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0 && result.fEnded;
    if (!fGood && !result.fEnded && !fQuiet) {
        std::printf("simulate: FAILED: seed %" PRIu64 ", scenario %s: the run broke off\n",
                    options.qwSeed, options.strScenario.c_str());
    }
    return fGood;
}

// Looks for a shorter run that fails: fewer of what there is, fewer troubles, less time, other seeds.
void Shrink(SimOptions options, std::vector<void *> const &modules, RunResult &result)
{
    result.fQuiet = true;
    RunOnce(options, modules, result);
    std::uint64_t cPoints = result.cPoints;
    std::uint64_t cTried = 0;
    auto const Try = [&](SimOptions const &other) {
        if (++cTried > kMostShrinks || RunOnce(other, modules, result) ||
            result.cPoints >= cPoints) {
            return;
        }
        cPoints = result.cPoints;
        options = other;
    };
    for (char const *const pszName :
         {"stall", "spurious", "refuse", "short", "drop", "repeat", "reorder", "reset", "kills"}) {
        SimOptions other = options;
        other.choices[pszName] = 0;
        Try(other);
    }
    for (char const *const pszName : {"devices", "agents"}) {
        for (int n = 1; n <= 2; ++n) {
            SimOptions other = options;
            other.choices[pszName] = n;
            Try(other);
        }
    }
    std::uint64_t const qwSeed = options.qwSeed;
    for (std::uint64_t n = 1; cTried < kMostShrinks; ++n) {
        SimOptions other = options;
        other.qwSeed = qwSeed + n;
        other.dHours = options.dHours * (n % 3 == 0 ? 0.5 : 1);
        Try(other);
    }
    result.fQuiet = false;
    std::printf("simulate: the shortest of %" PRIu64 " runs that were tried:\n", kMostShrinks);
    RunOnce(options, modules, result);
}

std::uint64_t NumberOf(char const *psz)
{
    char *pszEnd = nullptr;
    std::uint64_t const qw = std::strtoull(psz, &pszEnd, 10);
    if (pszEnd == psz || (*pszEnd != '\0' && *pszEnd != '-')) {
        Misused(std::string("not a number: ") + psz);
    }
    return qw;
}

PlanType ReadArguments(int argc, char **argv)
{
    PlanType plan;
    SimOptions &options = plan.options;
    std::string const strOwn = argv[0];
    options.strModule = strOwn.substr(0, strOwn.rfind('/') + 1) + "libsimulated.so";
    options.qwSeed = 0;
    for (int i = 1; i < argc; ++i) {
        std::string const strName = argv[i];
        if (strName == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        }
        if (strName == "--shrink") {
            plan.fShrink = true;
            continue;
        }
        if (!strName.starts_with("--") || i + 1 == argc) {
            Misused("what is " + strName + "?");
        }
        char const *const pszValue = argv[++i];
        if (strName == "--seed") {
            options.qwSeed = NumberOf(pszValue);
            char const *const pszDash = std::strchr(pszValue, '-');
            plan.qwLast = pszDash != nullptr ? NumberOf(pszDash + 1) : options.qwSeed;
        } else if (strName == "--scenario") {
            options.strScenario = pszValue;
        } else if (strName == "--hours") {
            options.dHours = std::atof(pszValue);
        } else if (strName == "--seconds") {
            plan.dSeconds = std::atof(pszValue);
        } else if (strName == "--trace") {
            options.strTrace = pszValue;
        } else if (strName == "--module") {
            options.strModule = pszValue;
        } else {
            options.choices[strName.substr(2)] = static_cast<int>(NumberOf(pszValue));
        }
    }
    if (options.qwSeed == 0) {
        options.qwSeed =
            std::chrono::system_clock::now().time_since_epoch().count() % 1'000'000'000;
        plan.qwLast = options.qwSeed;
    }
    bool const fKnown =
        options.strScenario.empty() || std::ranges::any_of(kScenarios, [&](auto const &scenario) {
            return scenario.pszName == options.strScenario;
        });
    if (!fKnown) {
        Misused("there is no scenario " + options.strScenario);
    }
    return plan;
}

// On one processor the baton passes from hand to hand without waking another one.
void StayOnOneProcessor()
{
    cpu_set_t all, one;
    if (sched_getaffinity(0, sizeof all, &all) != 0) {
        return;
    }
    int nProcessor = sched_getcpu();
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(nProcessor), &one);
    sched_setaffinity(0, sizeof one, &one);
}

} // namespace

int main(int argc, char **argv)
{
    PlanType const plan = ReadArguments(argc, argv);
    std::vector<void *> modules;
    for (std::size_t i = 0; i < kMostProcesses; ++i) {
        modules.push_back(LoadCopy(plan.options.strModule));
    }
    StayOnOneProcessor();
    RunResult &result = *SharedResult();
    auto const tpStart = std::chrono::steady_clock::now();
    auto const Seconds = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - tpStart).count();
    };
    SimTime time = 0;
    std::uint64_t cRuns = 0;
    bool fGood = true;
    std::uint64_t qwSeed = plan.options.qwSeed;
    for (; fGood && (plan.dSeconds > 0 ? Seconds() < plan.dSeconds : qwSeed <= plan.qwLast);
         ++qwSeed) {
        for (ScenarioType const &scenario : kScenarios) {
            SimOptions options = plan.options;
            if (!options.strScenario.empty() && options.strScenario != scenario.pszName) {
                continue;
            }
            options.qwSeed = qwSeed;
            options.strScenario = scenario.pszName;
            options.dHours = options.dHours > 0 ? options.dHours : scenario.dHours;
            ++cRuns;
            if (!RunOnce(options, modules, result)) {
                fGood = false;
                if (plan.fShrink) {
                    Shrink(options, modules, result);
                }
                break;
            }
            time += result.time;
        }
    }
    std::printf("simulate: %s, seeds %" PRIu64 " to %" PRIu64 ", %" PRIu64
                " runs, %.2f hours simulated in %.1f s, "
                "the last one %" PRIu64 " steps with the sum %016" PRIx64 "\n",
                fGood ? "clean" : "FAILED", plan.options.qwSeed, qwSeed - 1, cRuns,
                static_cast<double>(time) / 3.6e12, Seconds(), result.cPoints, result.qwHash);
    return fGood ? 0 : 1;
}
