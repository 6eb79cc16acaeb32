#pragma once
/// @file
/// What a scenario can ask of the simulated world that it runs in.
///
/// A scenario is compiled into the module `simulated`, together with the product's own sources. The program
/// `simulate` loads a copy of that module for each simulated process, so that processes share nothing but what
/// the world shows them, and answers the calls by which the copies meet the system.
///
/// Every function may be called by any simulated thread, and by no other.

#include <cstdint>

#define SIM_API __attribute__((visibility("default")))

/// Virtual time, in nanoseconds since the world began.
using SimTime = std::int64_t;

constexpr SimTime kSimMillisecond = 1'000'000;
constexpr SimTime kSimSecond = 1'000 * kSimMillisecond;

/// How unkind the world is. Each number is "once in so many times", 0 for never.
struct SimTroubles {
    std::uint32_t nStall = 0; ///< calls, after which the thread stands still for up to dwStallMs
    std::uint32_t dwStallMs = 100; ///< milliseconds
    std::uint32_t nSpurious = 0;   ///< waits that end without a reason
    std::uint32_t nRefuse =
        0; ///< allocations, threads, sockets that cannot be had, see SimSetRefusals
    std::uint32_t nShort = 0;         ///< writes to files that take only a part
    std::uint32_t nDrop = 0;          ///< datagrams that are lost
    std::uint32_t nRepeat = 0;        ///< datagrams that come twice
    std::uint32_t nReorder = 0;       ///< datagrams that come much later than they might
    std::uint32_t nReset = 0;         ///< pieces of a stream that break it
    std::uint32_t dwDelayMs = 2;      ///< the longest way of what is sent, in milliseconds
    std::uint32_t cbBuffer = 1 << 16; ///< what a stream takes before its receiver reads
};

/// What a process holds of the system.
struct SimHoldings {
    int cThreads; ///< the caller included
    int cSockets;
    int cFiles;
};

/// @{
/// Random numbers of the workload: 0 to n - 1; true once in n times.
SIM_API std::uint32_t SimBelow(std::uint32_t n);
inline bool SimOneIn(std::uint32_t n)
{
    return SimBelow(n) == 0;
}
/// @}

SIM_API SimTime SimNow();
/// How long the workload is to go on, as the command line says.
SIM_API SimTime SimDuration();
/// A number from the command line, such as "agents", or the scenario's own choice if there is none.
SIM_API int SimChoice(char const *pszName, int nOwn);

/// Ends the run as failed, with one line of text and every thread's stack.
[[noreturn]] SIM_API void SimFail(char const *pszFormat, ...) __attribute__((format(printf, 1, 2)));
/// A line in the trace.
SIM_API void SimNote(char const *pszFormat, ...) __attribute__((format(printf, 1, 2)));

SIM_API void SimSetTroubles(SimTroubles const &troubles);
/// Whether the calling thread, and each that it begins from here on, can stand it that memory, threads and
/// sockets are refused. At first it cannot. What it was before.
SIM_API bool SimSetRefusals(bool fOn);
/// Until then nothing passes between these two hosts.
SIM_API void SimPartition(int nHostA, int nHostB, SimTime until);

/// Begins a process on a host, in which SimRole runs with these arguments. Its number, from 1 on; process 0 runs
/// the scenario.
SIM_API int SimSpawn(int nHost, char const *pszRole, int nArgument);
/// Whether it still runs.
SIM_API bool SimIsAlive(int nProcess);
/// Waits until it does not run any more.
SIM_API void SimAwaitEnd(int nProcess);
/// Ends it, wherever its threads are, once they have made so many more calls. Not the caller's own.
SIM_API void SimKill(int nProcess, std::uint32_t cCalls);
SIM_API SimHoldings SimHeld(int nProcess);
/// The calling process's number, and its host.
SIM_API int SimProcess();
SIM_API int SimHost();

/// Memory that all processes see, zeroed at the beginning; the same for every caller.
SIM_API void *SimBoard();
constexpr int kcbSimBoard = 1 << 20;

/// A folder of the run's own for files.
SIM_API char const *SimFolder();

/// For the time of a scope: the call that the thread makes has to come back within so many milliseconds of
/// virtual time, beside what the world has kept threads standing still.
class CSimLimit {
public:
    SIM_API CSimLimit(char const *pszCall, std::uint32_t dwMilliseconds);
    SIM_API ~CSimLimit();
    CSimLimit(CSimLimit const &) = delete;
    CSimLimit &operator=(CSimLimit const &) = delete;
};

/// What a process does; defined in the module. Returning from it ends the process.
extern "C" SIM_API void SimRole(char const *pszRole, int nArgument);
