#include "sim/world/world.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

CWorld g_world;
thread_local CSimThread *t_pSimThread = nullptr;
thread_local int t_cInWorld = 0;

namespace {

constexpr SimTime kPointTime = 500; // what a call takes
constexpr SimTime kGrace =
    3600 * kSimSecond; // behind the workload, for a scenario to come to its end
constexpr std::uint64_t kMostChange = 3000; // points between two changes of priorities
constexpr std::uint64_t kHashPrime = 0x100000001B3u;

pthread_key_t g_keyEnd; // its destructor is a thread's last step

void BatonWait(std::atomic<std::uint32_t> &word)
{
    while (word.load(std::memory_order_acquire) == 0) {
        REAL(syscall)(SYS_futex, &word, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    }
    word.store(0, std::memory_order_relaxed);
}

void BatonGive(std::atomic<std::uint32_t> &word)
{
    word.store(1, std::memory_order_release);
    REAL(syscall)(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void *RunThread(void *pv)
{
    auto &thread = *static_cast<CSimThread *>(pv);
    REAL(pthread_setspecific)(g_keyEnd, &thread);
    g_world.Park(thread);
    t_pSimThread = &thread;
    return thread.pfnStart(thread.pvArgument);
}

void *RunProcess(void *)
{
    CSimThread &own = *t_pSimThread;
    CSimProcess &process = g_world.Process(own.nProcess);
    process.pfnRole(process.strRole.c_str(), process.nArgument);
    g_world.EndProcess(own.nProcess);
    return nullptr;
}

std::string Format(char const *pszFormat, va_list args)
{
    char sz[2000];
    std::vsnprintf(sz, sizeof sz, pszFormat, args);
    return sz;
}

} // namespace

void *RealFunction(char const *pszName)
{
    void *const pv = dlsym(RTLD_NEXT, pszName);
    if (pv == nullptr) {
        std::fprintf(stderr, "simulate: the C library has no %s\n", pszName);
        std::abort();
    }
    return pv;
}

std::uint64_t CRandom::Next()
{
    std::uint64_t qw = m_qw += 0x9E3779B97F4A7C15u;
    qw = (qw ^ qw >> 30) * 0xBF58476D1CE4E5B9u;
    qw = (qw ^ qw >> 27) * 0x94D049BB133111EBu;
    return qw ^ qw >> 31;
}

// ---- A run

void CWorld::Run(SimOptions const &options, std::vector<void *> const &modules)
{
    m_options = options;
    m_modules = modules;
    std::uint64_t const qw = options.qwSeed * 8;
    m_schedule = CRandom(qw);
    m_work = CRandom(qw + 1);
    m_network = CRandom(qw + 2);
    m_troubles = CRandom(qw + 3);
    m_fPriorities = m_schedule.OneIn(2);
    m_nSwitch = 1u << m_schedule.Below(6);
    m_qwChange = 1 + m_schedule.Below(kMostChange);
    m_pBoard = std::make_unique<unsigned char[]>(kcbSimBoard);
    m_strFolder = "/dev/shm/simulate-" + std::to_string(REAL(getpid)());
    std::filesystem::create_directory(m_strFolder);
    MakeFileFolders(m_strFolder);
    if (!options.strTrace.empty()) {
        m_pTrace = std::fopen(options.strTrace.c_str(), "w");
        if (m_pTrace != nullptr) {
            std::setvbuf(m_pTrace, nullptr, _IOLBF, 0); // whole, also when the run breaks off
        }
        if (m_pTrace == nullptr) {
            std::fprintf(stderr, "simulate: cannot write %s\n", options.strTrace.c_str());
            std::_Exit(2);
        }
    }
    pthread_key_create(&g_keyEnd, [](void *) { g_world.PassOnAndEnd(); });
    Spawn(/*nHost=*/1, options.strScenario.c_str(), 0);
    BatonGive(m_threads.front()->baton);
    for (;;) {
        REAL(pause)();
    }
}

int CWorld::Spawn(int nHost, char const *pszRole, int nArgument)
{
    int const nProcess = static_cast<int>(m_processes.size());
    if (m_processes.size() == m_modules.size()) {
        Fail("the scenario has more processes than there are copies of the module");
    }
    CSimProcess &process = m_processes.emplace_back();
    process.nHost = nHost;
    process.strRole = pszRole;
    process.nArgument = nArgument;
    process.pfnRole = reinterpret_cast<decltype(&SimRole)>(
        dlsym(m_modules[static_cast<std::size_t>(nProcess)], "SimRole"));
    CSimThread *const pThread = NewThread(nProcess);
    pThread->pfnStart = RunProcess;
    if (REAL(pthread_create)(&pThread->handle, nullptr, RunThread, pThread) != 0) {
        Fail("no thread to be had of the system");
    }
    return nProcess;
}

CSimThread *CWorld::NewThread(int nProcess)
{
    auto &pThread = m_threads.emplace_back(std::make_unique<CSimThread>());
    pThread->nNumber = static_cast<int>(m_threads.size()) - 1;
    pThread->nProcess = nProcess;
    pThread->qwPriority = UINT64_MAX / 2 + m_schedule.Below(UINT64_MAX / 4);
    m_live.push_back(pThread.get());
    return pThread.get();
}

void *SimThreadEntry(void *pv)
{
    return RunThread(pv);
}

void CWorld::EndRun(int nCode)
{
    COutside const outside;
    if (m_pTrace != nullptr) {
        std::fclose(m_pTrace);
    }
    if (m_pResult != nullptr) {
        *m_pResult = {m_now, m_cPoints, m_qwHash, true, m_pResult->fQuiet};
    }
    std::error_code error;
    std::filesystem::remove_all(m_strFolder, error);
    std::fflush(nullptr);
    std::_Exit(nCode);
}

// ---- Who goes on

void CWorld::Park(CSimThread &own)
{
    for (;;) {
        BatonWait(own.baton);
        if (!own.fTellStack) {
            return;
        }
        TellStack(own);
    }
}

void CWorld::Point(char const *pszCall, void *pCaller)
{
    CSimThread &own = *t_pSimThread;
    ++m_cPoints;
    m_now += kPointTime;
    own.pszCall = pszCall;
    if (m_pTrace != nullptr) {
        Dl_info info{};
        if (pCaller != nullptr) {
            dladdr(pCaller, &info);
        }
        Trace(pszCall, static_cast<std::uint64_t>(static_cast<char *>(pCaller) -
                                                  static_cast<char *>(info.dli_fbase)));
    } else {
        m_qwHash = (m_qwHash ^ static_cast<std::uint64_t>(own.nNumber)) * kHashPrime;
    }
    CSimProcess &process = Process(own.nProcess);
    if (process.cCallsLeft > 0 && --process.cCallsLeft == 0) {
        DieHere(own);
    }
    if (Trouble(m_rates.nStall)) {
        SimTime const time =
            1 +
            static_cast<SimTime>(m_troubles.Below(m_rates.dwStallMs * std::uint64_t{1'000'000}));
        m_stalled += time;
        Block({eWT_TIME}, m_now + time);
        return;
    }
    Dispatch(own, /*fOther=*/false);
}

void CWorld::Yield(char const *pszCall)
{
    CSimThread &own = *t_pSimThread;
    ++m_cPoints;
    m_now += kPointTime;
    own.pszCall = pszCall;
    Trace(pszCall);
    own.qwPriority = --m_qwLowest;
    Dispatch(own, /*fOther=*/true);
}

bool CWorld::Block(WaitKey key, SimTime due)
{
    CSimThread &own = *t_pSimThread;
    own.eState = CSimThread::eBLOCKED;
    own.key = key;
    own.due = due;
    own.fTimedOut = false;
    bool const fOnlyTime = key.eKind == eWT_TIME;
    if (!fOnlyTime && (key.eKind == eWT_CONDITION || key.eKind == eWT_FUTEX) &&
        Trouble(m_rates.nSpurious)) {
        own.eState = CSimThread::eRUNNABLE;
    }
    Dispatch(own, /*fOther=*/true);
    own.key = {};
    own.due = kNever;
    return !own.fTimedOut;
}

int CWorld::Wake(WaitKey key, int cMost)
{
    int cWoken = 0;
    while (cWoken < cMost) {
        m_candidates.clear();
        for (CSimThread *const pThread : m_live) {
            if (pThread->eState == CSimThread::eBLOCKED && pThread->key == key) {
                m_candidates.push_back(pThread);
            }
        }
        if (m_candidates.empty()) {
            break;
        }
        if (cMost >= static_cast<int>(m_candidates.size()) + cWoken) {
            for (CSimThread *const pThread : m_candidates) {
                pThread->eState = CSimThread::eRUNNABLE;
            }
            return cWoken + static_cast<int>(m_candidates.size());
        }
        m_candidates[m_schedule.Below(m_candidates.size())]->eState = CSimThread::eRUNNABLE;
        ++cWoken;
    }
    return cWoken;
}

void CWorld::At(SimTime when, std::function<void()> fn)
{
    auto const Later = [](Event const &a, Event const &b) {
        return a.when != b.when ? a.when > b.when : a.qwOrder > b.qwOrder;
    };
    m_events.push_back({when, ++m_qwEvents, std::move(fn)});
    std::push_heap(m_events.begin(), m_events.end(), Later);
}

void CWorld::RunDue()
{
    auto const Later = [](Event const &a, Event const &b) {
        return a.when != b.when ? a.when > b.when : a.qwOrder > b.qwOrder;
    };
    while (!m_events.empty() && m_events.front().when <= m_now) {
        CInWorld const inWorld;
        std::pop_heap(m_events.begin(), m_events.end(), Later);
        std::function<void()> const fn = std::move(m_events.back().fn);
        m_events.pop_back();
        fn();
    }
    for (CSimThread *const pThread : m_live) {
        if (pThread->eState == CSimThread::eBLOCKED && pThread->due <= m_now) {
            pThread->eState = CSimThread::eRUNNABLE;
            pThread->fTimedOut = true;
        }
    }
}

SimTime CWorld::NextDue() const
{
    SimTime next = m_events.empty() ? kNever : m_events.front().when;
    for (CSimThread const *const pThread : m_live) {
        next = std::min(next, pThread->due);
    }
    return next;
}

void CWorld::ChangePriorities(CSimThread &own)
{
    if (--m_qwChange == 0) {
        own.qwPriority = --m_qwLowest;
        m_qwChange = 1 + m_schedule.Below(kMostChange);
    }
}

CSimThread *CWorld::Choose(CSimThread const *pOwn, bool fOther)
{
    bool const fOwn = pOwn->eState == CSimThread::eRUNNABLE;
    if (fOwn && !fOther && !m_fPriorities && m_schedule.Below(m_nSwitch) != 0) {
        return const_cast<CSimThread *>(pOwn);
    }
    m_candidates.clear();
    for (CSimThread *const pThread : m_live) {
        if (pThread->eState == CSimThread::eRUNNABLE && (pThread != pOwn || !fOther)) {
            m_candidates.push_back(pThread);
        }
    }
    if (m_candidates.empty()) {
        return fOwn ? const_cast<CSimThread *>(pOwn) : nullptr;
    }
    if (!m_fPriorities) {
        return m_candidates[m_schedule.Below(m_candidates.size())];
    }
    return *std::ranges::max_element(m_candidates, {}, &CSimThread::qwPriority);
}

void CWorld::Dispatch(CSimThread &own, bool fOther)
{
    if (m_fPriorities) {
        ChangePriorities(own);
    }
    for (;;) {
        RunDue();
        CSimThread *const pNext = Choose(&own, fOther);
        if (pNext != nullptr) {
            HandTo(own, *pNext);
            return;
        }
        SimTime const next = NextDue();
        if (next == kNever) {
            Fail("nobody can go on, and no time will change that");
        }
        m_now = std::max(m_now, next);
        CheckWatches();
    }
}

void CWorld::HandTo(CSimThread &own, CSimThread &next)
{
    if (&own == &next) {
        return;
    }
    BatonGive(next.baton);
    if (own.eState != CSimThread::eENDED) {
        Park(own);
    }
}

void CWorld::CheckWatches()
{
    SimTime const longest = static_cast<SimTime>(m_options.dHours * 3600) * kSimSecond + kGrace;
    if (m_now > longest) {
        Fail("the scenario does not come to its end");
    }
    for (CSimThread const *const pThread : m_live) {
        if (pThread->pszWatched != nullptr &&
            m_now > pThread->watchEnds + m_stalled - pThread->stalledBefore) {
            std::string const strCall = pThread->pszWatched;
            Fail(strCall + " of thread " + std::to_string(pThread->nNumber) +
                 " does not come back in its time");
        }
    }
}

void CWorld::Watch(CSimThread &thread, char const *pszCall, SimTime limit)
{
    thread.pszWatched = pszCall;
    thread.watchEnds = limit == kNever ? kNever : m_now + limit;
    thread.stalledBefore = m_stalled;
}

void CWorld::PassOnAndEnd()
{
    CSimThread &own = *t_pSimThread;
    CInWorld const inWorld;
    own.pszCall = "end";
    Trace("end");
    own.eState = CSimThread::eENDED;
    std::erase(m_live, &own);
    Wake({eWT_JOIN, static_cast<std::uint64_t>(own.nNumber)});
    Dispatch(own, /*fOther=*/true);
    t_pSimThread = nullptr; // what the system still does with this thread is nobody's affair
}

CSimThread *CWorld::FindThread(pthread_t handle)
{
    for (auto it = m_threads.rbegin(); it != m_threads.rend(); ++it) {
        if (!(*it)->fReaped && pthread_equal((*it)->handle, handle)) {
            return it->get();
        }
    }
    Fail("a thread is meant that is none");
}

// ---- Processes

void CWorld::DieHere(CSimThread &own)
{
    Trace("killed");
    Kill(own.nProcess);
    Dispatch(own, /*fOther=*/true); // for good
}

void CWorld::EndProcess(int nProcess)
{
    CSimThread &own = *t_pSimThread;
    if (nProcess == 0) {
        EndRun(0);
    }
    Trace("process ends", static_cast<std::uint64_t>(nProcess));
    Kill(nProcess);
    Dispatch(own, /*fOther=*/true);
}

void CWorld::Kill(int nProcess)
{
    CSimProcess &process = Process(nProcess);
    if (!process.fAlive) {
        return;
    }
    process.fAlive = false;
    for (CSimThread *const pThread : m_live) {
        if (pThread->nProcess == nProcess) {
            pThread->eState = CSimThread::eKILLED;
            PassOnMutexes(*pThread);
        }
    }
    std::erase_if(m_live, [&](CSimThread const *p) { return p->nProcess == nProcess; });
    CloseSocketsOf(nProcess);
    for (int const fd : process.files) {
        REAL(close)(fd);
    }
    process.files.clear();
    Wake({eWT_PROCESS, static_cast<std::uint64_t>(nProcess)});
}

// ---- What is told

void CWorld::Trace(char const *pszWhat, std::uint64_t qw, char const *pszText)
{
    CSimThread const &own = *t_pSimThread;
    m_qwHash = (m_qwHash ^ static_cast<std::uint64_t>(own.nNumber)) * kHashPrime;
    if (m_pTrace == nullptr) {
        return;
    }
    COutside const outside;
    std::fprintf(m_pTrace, "%" PRIu64 " %.6f p%d t%d %s %" PRIx64 "%s%s\n", m_cPoints,
                 static_cast<double>(m_now) / 1e9, own.nProcess, own.nNumber, pszWhat, qw,
                 pszText != nullptr ? " " : "", pszText != nullptr ? pszText : "");
}

void SimFail(char const *pszFormat, ...)
{
    CInWorld const inWorld;
    va_list args;
    va_start(args, pszFormat);
    std::string const strText = Format(pszFormat, args);
    va_end(args);
    g_world.Fail(strText);
}

void SimNote(char const *pszFormat, ...)
{
    CInWorld const inWorld;
    va_list args;
    va_start(args, pszFormat);
    std::string const strText = Format(pszFormat, args);
    va_end(args);
    g_world.Trace("note", 0, strText.c_str());
}
