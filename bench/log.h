#pragma once
// Lines in a log on the disk, each there before the next is begun.

#include "bench/bench.h"

#include <functional>
#include <memory>

class CLogWriter {
public:
    virtual ~CLogWriter() = default;
    virtual void Write(int n) = 0; // "request N taken by worker 7 in 12 ms"
};

using LogFactory = std::function<std::unique_ptr<CLogWriter>(std::string const &strFile)>;

// Makes a kind of log known, and registers its benchmarks: log/WHO, and log-processes/WHO for as many processes.
bool LogPeer(std::string const &strWho, std::vector<int> const &processes, LogFactory fnMake);

// What a process does that the benchmark of several processes has started: writes the number of lines that
// each line of its standard input says, and answers each with a byte.
int RunLogWriter(std::string const &strWho, std::string const &strFile);
