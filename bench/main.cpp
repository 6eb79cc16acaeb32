#include "bench/log.h"

#include <cstring>

int main(int argc, char **argv)
{
    if (argc == 4 && std::strcmp(argv[1], "--log-writer") == 0) {
        return RunLogWriter(argv[2], argv[3]);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
}
