// spdlog: a line in the same form, flushed each time; and a call below its level.

#include "bench/log.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

namespace {

class CSpdlog : public CLogWriter {
public:
    explicit CSpdlog(std::string const &strFile)
        : m_logger("bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(strFile))
    {
        m_logger.set_pattern("[%n]: %v");
        m_logger.flush_on(spdlog::level::trace);
    }
    void Write(int n) override
    {
        m_logger.info("request {} taken by worker {} in {} ms", n, 7, 12);
    }

private:
    spdlog::logger m_logger;
};

void BelowLevel(benchmark::State &state)
{
    CTempDir const dir;
    spdlog::logger logger(
        "bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(dir.File("bench.log")));
    int n = 0;
    for (auto _ : state) {
        logger.debug("request {} taken", n);
        benchmark::DoNotOptimize(++n);
    }
}

BENCHMARK(BelowLevel)->Name("refused/spdlog");

[[maybe_unused]] bool const g_fRegistered =
    LogPeer("spdlog", {}, [](auto const &strFile) { return std::make_unique<CSpdlog>(strFile); });

} // namespace
