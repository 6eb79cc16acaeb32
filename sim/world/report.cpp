// What a failed run tells: what was wrong, where every thread stands, and how to see it again.
#include "sim/world/world.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <execinfo.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int kMostFrames = 40;

struct StackType {
    CSimThread const *pThread;
    std::vector<void *> frames;
};

std::vector<StackType> g_stacks;
std::atomic<std::uint32_t> g_told{0}; // by the thread that was asked for its stack

char const *WaitName(EWait eKind)
{
    static char const *const kNames[] = {"nothing",  "a mutex",    "a condition",
                                         "a futex",  "a thread",   "time",
                                         "a socket", "any socket", "a process"};
    return kNames[eKind];
}

std::string StateOf(CSimThread const &thread)
{
    if (thread.eState == CSimThread::eRUNNABLE) {
        return std::string("runs, in ") + thread.pszCall;
    }
    std::string str =
        std::string("waits for ") + WaitName(thread.key.eKind) + ", in " + thread.pszCall;
    if (thread.due != kNever) {
        str += ", until " + std::to_string(static_cast<double>(thread.due) / 1e9) + " s";
    }
    return str;
}

// What addr2line says to the places in the module, which has its debug information in its file.
std::vector<std::string> Places(std::string const &strModule,
                                std::vector<std::uint64_t> const &offsets)
{
    std::string strCommand = "addr2line -pCfi -e '" + strModule + "'";
    char sz[32];
    for (std::uint64_t const qw : offsets) {
        std::snprintf(sz, sizeof sz, " 0x%llx", static_cast<unsigned long long>(qw));
        strCommand += sz;
    }
    std::vector<std::string> lines;
    std::FILE *const pPipe = popen((strCommand + " 2>/dev/null").c_str(), "r");
    char szLine[1000];
    while (pPipe != nullptr && std::fgets(szLine, sizeof szLine, pPipe) != nullptr) {
        std::string strLine(szLine, std::strcspn(szLine, "\n"));
        if (strLine.starts_with(" (inlined by)") && !lines.empty()) {
            lines.back() += "\n       " + strLine;
        } else {
            lines.push_back(std::move(strLine));
        }
    }
    if (pPipe != nullptr) {
        pclose(pPipe);
    }
    return lines;
}

void OnSignal(int nSignal)
{
    std::signal(nSignal, SIG_DFL);
    if (t_pSimThread == nullptr) {
        std::raise(nSignal);
        return;
    }
    ++t_cInWorld;
    g_world.Fail(std::string("the program is ended by signal ") + std::to_string(nSignal));
}

} // namespace

void WatchSignals()
{
    void *apv[1];
    backtrace(apv, 1); // loads what it needs now, and not where something is wrong
    for (int const nSignal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) {
        std::signal(nSignal, OnSignal);
    }
}

void CWorld::TellStack(CSimThread const &thread)
{
    void *apv[kMostFrames];
    int const c = backtrace(apv, kMostFrames);
    g_stacks.push_back({&thread, std::vector<void *>(apv, apv + c)});
    if (&thread != t_pSimThread || thread.fTellStack) {
        g_told.store(1, std::memory_order_release);
        REAL(syscall)(SYS_futex, &g_told, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
}

void CWorld::TellThreads()
{
    TellStack(*t_pSimThread);
    for (CSimThread *const pThread : m_live) {
        if (pThread == t_pSimThread) {
            continue;
        }
        g_told = 0;
        pThread->fTellStack = true;
        pThread->baton.store(1, std::memory_order_release);
        REAL(syscall)(SYS_futex, &pThread->baton, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
        while (g_told.load(std::memory_order_acquire) == 0) {
            REAL(syscall)(SYS_futex, &g_told, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
        }
    }
    std::vector<std::uint64_t> offsets;
    auto const OffsetOf = [&](void *pv, std::uint64_t &qw) {
        Dl_info info{};
        bool const fModule = dladdr(pv, &info) != 0 && info.dli_fname != nullptr &&
                             std::strstr(info.dli_fname, "/fd/") != nullptr;
        qw = static_cast<std::uint64_t>(static_cast<char *>(pv) -
                                        static_cast<char *>(info.dli_fbase)) -
             1;
        return fModule;
    };
    std::uint64_t qw = 0;
    for (StackType const &stack : g_stacks) {
        for (void *const pv : stack.frames) {
            if (OffsetOf(pv, qw)) {
                offsets.push_back(qw);
            }
        }
    }
    std::vector<std::string> const places = Places(m_options.strModule, offsets);
    std::size_t nPlace = 0;
    for (StackType const &stack : g_stacks) {
        Tell("thread " + std::to_string(stack.pThread->nNumber) + " of process " +
             std::to_string(stack.pThread->nProcess) + " (" +
             Process(stack.pThread->nProcess).strRole + ") " + StateOf(*stack.pThread));
        for (void *const pv : stack.frames) {
            if (OffsetOf(pv, qw)) {
                Tell("    " + (nPlace < places.size() ? places[nPlace] : std::to_string(qw)));
                ++nPlace;
            }
        }
    }
}

void CWorld::Tell(std::string const &strText)
{
    m_strReport += strText + "\n";
}

std::string CWorld::Command() const
{
    std::string str = "simulate --seed " + std::to_string(m_options.qwSeed) + " --scenario " +
                      m_options.strScenario;
    if (m_options.dHours > 0) {
        char sz[40];
        std::snprintf(sz, sizeof sz, " --hours %g", m_options.dHours);
        str += sz;
    }
    for (auto const &[strName, nValue] : m_options.choices) {
        str += " --" + strName + " " + std::to_string(nValue);
    }
    return str;
}

void CWorld::Fail(std::string const &strText)
{
    if (m_fFailing) {
        std::_Exit(1); // something is wrong with the telling
    }
    m_fFailing = true;
    if (m_pResult != nullptr && m_pResult->fQuiet) {
        EndRun(1);
    }
    Trace("failure", 0, strText.c_str());
    char szTime[40];
    std::snprintf(szTime, sizeof szTime, "%.6f s", static_cast<double>(m_now) / 1e9);
    Tell("simulate: FAILED after " + std::string(szTime) + ": " + strText);
    CSimThread *const pOwn = t_pSimThread;
    {
        TellThreads();
    }
    t_pSimThread = pOwn;
    Tell("simulate: again by: " + Command());
    std::fputs(m_strReport.c_str(), stdout);
    EndRun(1);
}
