#!/usr/bin/env bash
# Installs what is missing, builds, and measures: one table of ratios with goals. Rows against Wine need what
# scripts/test-windows.sh installs. usage: scripts/bench.sh [--growth] [--smoke]
#   --growth   also what grows with agents, depth, handlers, processes, values
#   --smoke    everything for a moment only, to see that it works; without Wine
set -euo pipefail
cd "$(dirname "$0")/.."

smoke=0
for argument in "$@"; do
    case $argument in
    --smoke) smoke=1 ;;
    --growth) ;;
    *)
        echo "bench: no such option: $argument (--growth or --smoke)" >&2
        exit 2
        ;;
    esac
done

scripts/setup.sh libbenchmark-dev libuv1-dev libasio-dev libspdlog-dev liblog4cplus-dev
scripts/build.sh bench bench_qoma bench_win32 bench_agents

windows=()
if [[ $smoke -eq 0 && -x /usr/lib/wine/wine64 ]] && command -v x86_64-w64-mingw32-g++-posix >/dev/null; then
    scripts/build.sh bench-windows bench_win32
    wine_run=$PWD/build/bench-windows/wine-run
    trap '"$wine_run" --remove 2>/dev/null || true' EXIT
    if "$wine_run" --fresh; then
        windows=(--windows "$wine_run")
    fi
fi
python3 bench/report.py build/bench/bin "${windows[@]}" "$@"
