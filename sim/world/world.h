#pragma once
/// @file
/// The inside of the simulated world: its threads, of which one runs at a time, and its clock.
///
/// A simulated thread is a real one that runs only while it has the baton. It passes the baton on inside the calls
/// that the world answers, and nowhere else, so whatever stands in here is touched by one thread at a time and
/// needs no lock. Nothing in here may depend on an address, on real time or on a real number of the system's:
/// a seed has to give the same run everywhere.

#include "sim/sim.h"

#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <pthread.h>
#include <string>
#include <vector>

constexpr SimTime kNever = INT64_MAX;

/// What a thread waits for.
enum EWait : std::uint32_t {
    eWT_NOTHING,
    eWT_MUTEX,
    eWT_CONDITION,
    eWT_FUTEX,
    eWT_JOIN,
    eWT_TIME,
    eWT_SOCKET,
    eWT_ANY_SOCKET,
    eWT_PROCESS,
};

/// The thing itself: a kind, and a place or a number. Only ever compared for equality.
struct WaitKey {
    EWait eKind = eWT_NOTHING;
    std::uint64_t qwWhere = 0;
    std::uint64_t qwFile = 0; ///< of memory that is shared between processes

    bool operator==(WaitKey const &) const = default; ///< the same thing
};

/// A generator of our own, as those of the library need not be the same everywhere.
class CRandom {
public:
    explicit CRandom(std::uint64_t qwSeed) : m_qw(qwSeed) {}
    std::uint64_t Next(); ///< 64 bits
    /// 0 to n - 1, 0 for none.
    std::uint64_t Below(std::uint64_t n) { return n == 0 ? 0 : Next() % n; }
    /// True once in n times, never for 0.
    bool OneIn(std::uint32_t n) { return n != 0 && Below(n) == 0; }

private:
    std::uint64_t m_qw;
};

struct CSimThread;
/// The simulated thread that this one is; null outside, and inside what must not be answered by the world.
extern thread_local CSimThread *t_pSimThread __attribute__((tls_model("initial-exec")));

/// A thread of the world.
struct CSimThread {
    enum EState { eRUNNABLE, eBLOCKED, eENDED, eKILLED };

    int nNumber = 0;
    int nProcess = 0;
    EState eState = eRUNNABLE;
    WaitKey key;
    SimTime due = kNever; ///< when a wait ends by itself
    bool fTimedOut = false;
    std::uint64_t qwPriority = 0;
    char const *pszCall = "start"; ///< the last one that it made
    char const *pszWatched = nullptr;
    SimTime watchEnds = kNever;
    SimTime stalledBefore = 0; ///< the world's stalls when the watch began

    pthread_t handle{};
    void *(*pfnStart)(void *) = nullptr;
    void *pvArgument = nullptr;
    bool fDetached = false;
    bool fReaped = false;
    std::vector<pthread_mutex_t *> robust; ///< held, and to be passed on when it dies

    std::atomic<std::uint32_t> baton{0};
    bool fTellStack = false; ///< the baton comes only for that
    bool fRefusable = false; ///< see SimSetRefusals
};

/// A process of the world.
struct CSimProcess {
    int nHost = 0;
    bool fAlive = true;
    std::uint32_t cCallsLeft = 0; ///< that its threads make before it is killed; 0: it is not
    std::string strRole;
    int nArgument = 0;
    void (*pfnRole)(char const *, int) = nullptr;
    std::vector<int> files; ///< real descriptors
};

/// How a run went, for the process that started it.
struct RunResult {
    SimTime time = 0;
    std::uint64_t cPoints = 0;
    std::uint64_t qwHash = 0;
    bool fEnded = false;
    bool fQuiet = false; ///< a failure is not told, but only counts
};

/// What the command line says.
struct SimOptions {
    std::uint64_t qwSeed = 1;
    std::string strScenario;
    double dHours = 0;
    std::string strTrace;
    std::string strModule;
    std::map<std::string, int> choices;
};

/// The run.
class CWorld {
public:
    /// Runs the scenario to its end. Does not return: the process ends with 0, or 1 for a failure.
    [[noreturn]] void Run(SimOptions const &options, std::vector<void *> const &modules);

    // ---- For the calls that the world answers, on the thread that has the baton.

    /// A point at which another thread may go on. pszCall is a text of the program.
    void Point(char const *pszCall, void *pCaller = nullptr);
    /// As Point, but another one goes on if there is one.
    void Yield(char const *pszCall);
    /// Waits until Wake, or until `due`. False when it was the time.
    bool Block(WaitKey key, SimTime due = kNever);
    /// Lets so many of those who wait go on, in an order of the generator's. How many there were.
    int Wake(WaitKey key, int cMost = INT_MAX);
    /// Runs fn at that time, on whatever thread.
    void At(SimTime when, std::function<void()> fn);
    /// Once in n times, never for 0.
    bool Trouble(std::uint32_t n) { return m_troubles.OneIn(n); }
    /// Whether what the calling thread asks for is not to be had.
    bool Refuses() { return t_pSimThread->fRefusable && Trouble(m_rates.nRefuse); }

    SimTime Now() const { return m_now; }
    void Spend(SimTime time) { m_now += time; }
    /// A line of the trace, and a part of what must be the same for a seed.
    void Trace(char const *pszWhat, std::uint64_t qw = 0, char const *pszText = nullptr);

    CSimThread *NewThread(int nProcess);
    void PassOnAndEnd();        ///< the calling thread's last step
    void Park(CSimThread &own); ///< waits for the baton
    CSimThread *FindThread(pthread_t handle);
    int Spawn(int nHost, char const *pszRole, int nArgument);
    void Kill(int nProcess);
    void EndProcess(int nProcess);
    [[noreturn]] void Fail(std::string const &strText);

    CSimProcess &Process(int n) { return m_processes[static_cast<std::size_t>(n)]; }
    int ProcessCount() const { return static_cast<int>(m_processes.size()); }
    std::vector<std::unique_ptr<CSimThread>> const &Threads() const { return m_threads; }
    SimTime Stalled() const { return m_stalled; }
    SimOptions const &Options() const { return m_options; }
    std::string const &Folder() const { return m_strFolder; }
    void Watch(CSimThread &thread, char const *pszCall, SimTime limit);
    void Tell(std::string const &strText); ///< into the report of a failure

    CRandom m_work{0};     ///< the workload's
    CRandom m_network{0};  ///< delays and losses
    CRandom m_troubles{0}; ///< refusals and stalls
    SimTroubles m_rates;
    std::unique_ptr<unsigned char[]> m_pBoard;
    RunResult *m_pResult = nullptr; ///< where it is to be told

private:
    CSimThread *Choose(CSimThread const *pOwn, bool fOther);
    void Dispatch(CSimThread &own, bool fOther);
    void HandTo(CSimThread &own, CSimThread &next);
    void RunDue();
    SimTime NextDue() const;
    void DieHere(CSimThread &own);
    void ChangePriorities(CSimThread &own);
    void CheckWatches();
    [[noreturn]] void EndRun(int nCode);
    void TellThreads();
    void TellStack(CSimThread const &thread);
    std::string Command() const;

    struct Event {
        SimTime when;
        std::uint64_t qwOrder;
        std::function<void()> fn;
    };

    SimOptions m_options;
    std::vector<void *> m_modules;
    std::string m_strFolder;
    CRandom m_schedule{0};
    bool m_fPriorities = false;
    std::uint32_t m_nSwitch = 2;  // a thread goes on but once in so many points
    std::uint64_t m_qwChange = 0; // points until priorities change
    std::uint64_t m_qwLowest = UINT64_MAX / 2;
    SimTime m_now = 0;
    SimTime m_stalled = 0;
    std::uint64_t m_cPoints = 0;
    std::uint64_t m_qwHash = 0xCBF29CE484222325u;
    std::uint64_t m_qwEvents = 0;
    std::vector<Event> m_events; // a heap
    std::deque<CSimProcess> m_processes;
    std::vector<std::unique_ptr<CSimThread>> m_threads;
    std::vector<CSimThread *> m_live; // neither ended nor killed
    std::vector<CSimThread *> m_candidates;
    std::FILE *m_pTrace = nullptr;
    bool m_fFailing = false;
    std::string m_strReport;
};

extern CWorld g_world;

/// How deep the calling thread is in the world's own code.
extern thread_local int t_cInWorld __attribute__((tls_model("initial-exec")));

/// For a scope: the world's own code, whose allocations do not fail.
class CInWorld {
public:
    CInWorld() { ++t_cInWorld; }
    ~CInWorld() { --t_cInWorld; }
    CInWorld(CInWorld const &) = delete;
    CInWorld &operator=(CInWorld const &) = delete;
};

/// For a scope: the calls that are made go to the system itself.
class COutside {
public:
    COutside() : m_pOwn(t_pSimThread) { t_pSimThread = nullptr; }
    ~COutside() { t_pSimThread = m_pOwn; }
    COutside(COutside const &) = delete;
    COutside &operator=(COutside const &) = delete;

private:
    CSimThread *const m_pOwn;
};

/// The C library's own function behind one that the world defines.
void *RealFunction(char const *pszName);
#define REAL(name)                                                                                 \
    ([]() {                                                                                        \
        static auto const pfn = reinterpret_cast<decltype(&::name)>(RealFunction(#name));          \
        return pfn;                                                                                \
    }())

/// The beginning of a call that the world answers: outside of it the system does.
#define WORLD_CALL(name, ...)                                                                      \
    if (t_pSimThread == nullptr) {                                                                 \
        return REAL(name)(__VA_ARGS__);                                                            \
    }                                                                                              \
    CInWorld const inWorld;                                                                        \
    g_world.Point(#name, __builtin_return_address(0))

/// @{
/// Of the other files: the end of what belongs to a process; what stands at the address, for memory that several
/// processes map.
void MakeFileFolders(std::string const &strFolder);
void CloseSocketsOf(int nProcess);
int CountSocketsOf(int nProcess);
void PassOnMutexes(CSimThread &thread);
WaitKey KeyOf(EWait eKind, void const *pv);
/// @}
