// What processes share: a named mutex, and a log that all of them write, while they are killed at any moment.
#include "sim/scenarios/scenario.h"

#include "evtmgr/g_evthost.h"
#include "foundation/g_site.h"
#include "platform/registry.h"
#include "platform/sync.h"

#include <atomic>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kcAtOnce = 4; // processes
constexpr int kcMost = 11;  // in a run
constexpr std::uint32_t kWaitMs = 60'000;

struct BoardType {
    std::atomic<bool> fEnd;
    std::atomic<int> nInside;               // the process that has the mutex, and 1 more
    std::atomic<int> acWritten[kcMost + 1]; // lines of a process that are in the log for sure
    std::atomic<int> acBegun[kcMost + 1];   // and those that may be there
};

BoardType &Board()
{
    return *static_cast<BoardType *>(SimBoard());
}

void Enter(HANDLE hMutex)
{
    CSimLimit const limit("the wait for a named mutex", kWaitMs);
    DWORD const dwResult = WaitForSingleObject(hMutex, INFINITE);
    if (dwResult != WAIT_OBJECT_0 && dwResult != WAIT_ABANDONED) {
        SimFail("the wait for a named mutex gives %u", static_cast<unsigned>(dwResult));
    }
    int const nBefore = Board().nInside.exchange(SimProcess() + 1);
    if (nBefore != 0 && SimIsAlive(nBefore - 1)) {
        SimFail("processes %d and %d have a mutex at the same time", nBefore - 1, SimProcess());
    }
}

void Leave(HANDLE hMutex)
{
    Board().nInside = 0;
    if (!ReleaseMutex(hMutex)) {
        SimFail("a named mutex is not to be released");
    }
}

// The log's settings, in the text that the registry is.
std::string WriteSettings(std::string const &strLog)
{
    std::string const strFile = std::string(SimFolder()) + "/settings.reg";
    std::string const strKey =
        "\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvale\\Skiffmail\\EvtMgr\\Modules\\sim";
    std::ofstream(strFile) << "Windows Registry Editor Version 5.00\n"
                           << strKey << "]\n\"Id String\"=\"[S]:\"\n"
                           << strKey << "\\File]\n\"File Name\"=\"" << strLog
                           << "\"\n\"State\"=dword:1\n\"Level\"=dword:1\n\"Append\"=dword:1\n"
                           << "\"Base Category Mask\"=hex:ff,ff,ff,ff,ff,ff,ff,ff\n"
                           << "\"Custom Category Mask\"=hex:ff,ff,ff,ff,ff,ff,ff,ff\n";
    return strFile;
}

std::string LogFile()
{
    return std::string(SimFolder()) + "/sim.log";
}

// Processes come, and some of them are killed, until the time is up.
void Crowd(char const *pszRole)
{
    SimTroubles troubles;
    troubles.nStall = SimOneIn(2) ? 0 : 200;
    troubles.nSpurious = 10;
    troubles.nShort = 3;
    SimSetTroubles(troubles);
    std::vector<int> processes;
    int const cMost = SimChoice("kills", 1) == 0 ? kcAtOnce : kcMost;
    SimTime const end = SimNow() + SimDuration();
    while (SimNow() < end) {
        int cAlive = 0;
        for (int const nProcess : processes) {
            cAlive += SimIsAlive(nProcess);
        }
        if (cAlive < kcAtOnce && static_cast<int>(processes.size()) < cMost) {
            processes.push_back(SimSpawn(1, pszRole, 0));
            continue;
        }
        // At moments that are near to each other and to what the processes do, or far away.
        Rest(SimOneIn(2) ? 3 : 3000);
        int nProcess = processes[SimBelow(static_cast<std::uint32_t>(processes.size()))];
        if (int const nInside = Board().nInside; nInside != 0 && SimOneIn(2)) {
            nProcess = nInside - 1; // who has the mutex
        }
        if (cMost == kcMost && SimIsAlive(nProcess) && static_cast<int>(processes.size()) < cMost) {
            SimKill(nProcess, SimBelow(SimOneIn(2) ? 3 : SimOneIn(2) ? 300 : 10'000));
            SimAwaitEnd(nProcess);
            Rest(SimOneIn(3) ? 2 * kWaitMs : 20); // nobody else comes for a while
        }
    }
    Board().fEnd = true;
    for (int const nProcess : processes) {
        CSimLimit const limit("the end of a process", 4 * kWaitMs);
        SimAwaitEnd(nProcess);
    }
}

// Every line is whole and in its place, but for the last one of a process that was killed.
void CheckLog()
{
    std::ifstream file(LogFile(), std::ios::binary);
    std::string const strLog{std::istreambuf_iterator<char>(file), {}};
    std::map<int, int> seen;
    for (std::size_t nStart = 0; nStart < strLog.size();) {
        std::size_t const nEnd = strLog.find("\r\n", nStart);
        std::string const strLine = strLog.substr(nStart, nEnd - nStart);
        nStart = nEnd == std::string::npos ? strLog.size() : nEnd + 2;
        int nProcess = 0, nLine = 0, cch = 0;
        bool const fLine =
            std::sscanf(strLine.c_str(), "[S]: p%d line %d.%n", &nProcess, &nLine, &cch) == 2 &&
            cch > 0;
        // Killed between the two bytes of its line's end, a writer leaves the first; the next one adds both.
        std::size_t const cchLine = strLine.size() - (strLine.ends_with('\r') ? 1 : 0);
        if (fLine && cchLine == static_cast<std::size_t>(cch)) {
            if (nLine != ++seen[nProcess]) {
                SimFail("the log has line %d of process %d where %d should be", nLine, nProcess,
                        seen[nProcess]);
            }
            continue;
        }
        // A torn one is the beginning of a line; what else the manager reports is its own affair.
        if (fLine || strLine.find("[S]", 3) != std::string::npos) {
            SimFail("the log has a line that is two: %s", strLine.c_str());
        }
    }
    for (int n = 1; n <= kcMost; ++n) {
        if (seen[n] < Board().acWritten[n] || seen[n] > Board().acBegun[n]) {
            SimFail("the log has %d lines of process %d, which has written %d", seen[n], n,
                    Board().acWritten[n].load());
        }
    }
}

} // namespace

void NamedScenario(int)
{
    Crowd("namer");
}

void NamerRole(int)
{
    CNothingLeft const nothingLeft;
    while (!Board().fEnd) {
        HANDLE const hMutex = CreateMutexA(nullptr, FALSE, "simulated");
        if (hMutex == nullptr) {
            SimFail("no named mutex, error %u", static_cast<unsigned>(GetLastError()));
        }
        auto const Work = [&] {
            for (std::uint32_t c = 1 + SimBelow(6); c > 0; --c) {
                Enter(hMutex);
                Rest(SimOneIn(2) ? 0 : 20);
                Leave(hMutex);
                Rest(SimOneIn(2) ? 0 : 20);
            }
        };
        std::thread other(Work);
        Work();
        other.join();
        CloseHandle(hMutex);
        Rest(SimOneIn(20) ? 2000 : 20);
    }
}

void LogScenario(int)
{
    WriteSettings(LogFile());
    Crowd("logger");
    CheckLog();
}

void LoggerRole(int)
{
    std::string const strSettings = std::string(SimFolder()) + "/settings.reg";
    PlatSetRegistryFile(strSettings.c_str());
    if (GInstallEvtMgr("sim") != 0) {
        SimFail("no event manager");
    }
    int const nOwn = SimProcess();
    for (int nLine = 1; !Board().fEnd; ++nLine) {
        Board().acBegun[nOwn] = nLine;
        {
            CSimLimit const limit("a line of a log", kWaitMs);
            G_REPORT(eEB_ERROR, eEC_NONE, eEL_ERROR, "p%d line %d.", nOwn, nLine);
        }
        Board().acWritten[nOwn] = nLine;
        Rest(SimOneIn(2) ? 1 : SimOneIn(20) ? 3000 : 50);
    }
    GRemoveEvtMgr("sim");
}
