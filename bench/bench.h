#pragma once
// What the benchmarks share. Names are "row/who": report.py compares those of one row. All of one row
// run in one process, in turns, with --benchmark_enable_random_interleaving.
//
// Where the threads of a row take turns on one core, what they all use of it (MeasureProcessCPUTime) is what
// one waits on an idle machine, and others on the machine disturb it less.

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <time.h>
#include <vector>

inline std::int64_t NowNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1'000'000'000LL + ts.tv_nsec;
}

// Keeps the calling thread, and those that it starts, on the first core for as long as it lives.
class COneCore {
public:
    COneCore()
    {
        sched_getaffinity(0, sizeof m_before, &m_before);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(0, &one);
        sched_setaffinity(0, sizeof one, &one);
    }
    ~COneCore() { sched_setaffinity(0, sizeof m_before, &m_before); }
    COneCore(COneCore const &) = delete;
    COneCore &operator=(COneCore const &) = delete;

private:
    cpu_set_t m_before;
};

// The median of what each iteration took, as the counter "p50" in ns. On a shared machine the mean of
// waits tells more about the others than about the code.
class CSamples {
public:
    explicit CSamples(benchmark::State &state) : m_state(state) {}
    ~CSamples()
    {
        if (m_samples.empty()) {
            return;
        }
        auto const middle = m_samples.begin() + static_cast<std::ptrdiff_t>(m_samples.size() / 2);
        std::nth_element(m_samples.begin(), middle, m_samples.end());
        m_state.counters["p50"] = static_cast<double>(*middle);
    }
    CSamples(CSamples const &) = delete;
    CSamples &operator=(CSamples const &) = delete;
    // For a benchmark with UseManualTime, once for each iteration: ns for c of what is measured.
    void Add(std::int64_t ns, std::int64_t c = 1)
    {
        m_samples.push_back(ns / c);
        m_state.SetIterationTime(static_cast<double>(ns) * 1e-9);
    }

private:
    benchmark::State &m_state;
    std::vector<std::int64_t> m_samples;
};

class CTempDir {
public:
    CTempDir()
    {
        std::string strPath =
            (std::filesystem::temp_directory_path() / "qoma-bench-XXXXXX").string();
        if (!mkdtemp(strPath.data())) {
            throw std::runtime_error("cannot make a folder for temporary files");
        }
        m_path = strPath;
    }
    ~CTempDir() { std::filesystem::remove_all(m_path); }
    CTempDir(CTempDir const &) = delete;
    CTempDir &operator=(CTempDir const &) = delete;
    std::string File(char const *pszName) const { return (m_path / pszName).string(); }

private:
    std::filesystem::path m_path;
};

// The settings of a manager "bench" in a registry file, and the manager installed with them.
class CDiagnostics {
public:
    // pszFileState, pszTdState: "1" for on. Events up to level 1 with any mask are taken. strLog is appended to.
    CDiagnostics(char const *pszFileState, char const *pszTdState, std::string const &strLog = "");
    ~CDiagnostics();
    CDiagnostics(CDiagnostics const &) = delete;
    CDiagnostics &operator=(CDiagnostics const &) = delete;

private:
    CTempDir m_dir;
};
