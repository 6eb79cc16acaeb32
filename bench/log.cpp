#include "bench/log.h"

#include "foundation/g_site.h"

#include <cstdio>
#include <fcntl.h>
#include <map>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

constexpr int kcLines = 500; // of each process in one iteration

std::map<std::string, LogFactory> &Kinds()
{
    static std::map<std::string, LogFactory> s_kinds;
    return s_kinds;
}

void WriteLines(benchmark::State &state, LogFactory const &fnMake)
{
    CTempDir const dir;
    std::unique_ptr<CLogWriter> const pWriter = fnMake(dir.File("bench.log"));
    int n = 0;
    for (auto _ : state) {
        pWriter->Write(++n);
    }
}

// This program once more, as a writer.
class CWriterProcess {
public:
    CWriterProcess(std::string strWho, std::string strFile)
    {
        int anIn[2], anOut[2];
        if (pipe2(anIn, O_CLOEXEC) != 0 || pipe2(anOut, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipes");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, anIn[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, anOut[1], STDOUT_FILENO);
        char szSelf[] = "/proc/self/exe", szRole[] = "--log-writer";
        char *apszArgs[] = {szSelf, szRole, strWho.data(), strFile.data(), nullptr};
        if (posix_spawn(&m_pid, szSelf, &actions, nullptr, apszArgs, environ) != 0) {
            throw std::runtime_error("cannot start a writer");
        }
        posix_spawn_file_actions_destroy(&actions);
        close(anIn[0]);
        close(anOut[1]);
        m_fdIn = anIn[1];
        m_fdOut = anOut[0];
    }
    ~CWriterProcess()
    {
        close(m_fdIn); // ends it
        close(m_fdOut);
        waitpid(m_pid, nullptr, 0);
    }
    CWriterProcess(CWriterProcess const &) = delete;
    CWriterProcess &operator=(CWriterProcess const &) = delete;
    void Begin(int cLines) const { dprintf(m_fdIn, "%d\n", cLines); }
    bool Wait() const
    {
        char ch;
        return read(m_fdOut, &ch, 1) == 1;
    }

private:
    pid_t m_pid = 0;
    int m_fdIn, m_fdOut;
};

// Time per line, of all processes together.
void WriteByProcesses(benchmark::State &state, std::string const &strWho)
{
    CTempDir const dir;
    std::vector<std::unique_ptr<CWriterProcess>> writers;
    for (std::int64_t n = 0; n < state.range(0); ++n) {
        writers.push_back(std::make_unique<CWriterProcess>(strWho, dir.File("bench.log")));
    }
    auto round = [&](int cLines) {
        for (auto const &pWriter : writers) {
            pWriter->Begin(cLines);
        }
        for (auto const &pWriter : writers) {
            if (!pWriter->Wait()) {
                state.SkipWithError("a writer has ended");
            }
        }
    };
    round(1); // all have begun
    CSamples samples(state);
    for (auto _ : state) {
        std::int64_t const nStart = NowNs();
        round(kcLines);
        samples.Add(NowNs() - nStart, kcLines * state.range(0));
    }
}

class COurLog : public CLogWriter {
public:
    explicit COurLog(std::string const &strFile) : m_diagnostics("1", "0", strFile) {}
    void Write(int n) override
    {
        G_REPORT(eEB_INFO, eEC_NONE, eEL_TRACE, "request %d taken by worker %d in %d ms", n, 7, 12);
    }

private:
    CDiagnostics m_diagnostics;
};

[[maybe_unused]] bool const g_fRegistered = LogPeer(
    "ours", {1, 2, 4, 8}, [](auto const &strFile) { return std::make_unique<COurLog>(strFile); });

} // namespace

bool LogPeer(std::string const &strWho, std::vector<int> const &processes, LogFactory fnMake)
{
    Kinds()[strWho] = fnMake;
    benchmark::RegisterBenchmark(("log/" + strWho).c_str(), WriteLines, fnMake)->UseRealTime();
    for (int const cProcesses : processes) {
        benchmark::RegisterBenchmark(("log-processes/" + strWho).c_str(), WriteByProcesses, strWho)
            ->Arg(cProcesses)
            ->UseManualTime();
    }
    return true;
}

int RunLogWriter(std::string const &strWho, std::string const &strFile)
{
    std::unique_ptr<CLogWriter> const pWriter = Kinds().at(strWho)(strFile);
    int cLines = 0;
    while (std::scanf("%d", &cLines) == 1) {
        for (int n = 0; n < cLines; ++n) {
            pWriter->Write(n);
        }
        if (write(STDOUT_FILENO, "", 1) != 1) {
            return 1;
        }
    }
    return 0;
}
