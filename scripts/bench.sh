#!/usr/bin/env bash
# Installs what is missing, builds, and measures: one table of ratios with goals. Rows against Wine need what
# scripts/test-windows.sh installs. usage: scripts/bench.sh [--growth] [--smoke]
#   --growth   also what grows with agents, depth, handlers, processes, values
#   --smoke    everything for a moment only, to see that it works; without Wine
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

smoke=0
hub=()
for argument in "$@"; do
    case $argument in
    --smoke) smoke=1 hub=(--smoke) ;;
    --growth) ;;
    *) fail "no such option: $argument (--growth or --smoke)" 2 ;;
    esac
done

scripts/setup.sh bench hub mosquitto mosquitto-clients
scripts/build.sh default -DQOMA_BUILD_BENCH=ON bench_qoma bench_win32 bench_agents notifyhub notifymon mfpsim

windows=()
if [[ $smoke -eq 0 && -x /usr/lib/wine/wine64 ]] && command -v x86_64-w64-mingw32-g++-posix >/dev/null; then
    scripts/build.sh bench-windows bench_win32
    wine_run=$PWD/build/bench-windows/wine-run
    at_exit '"$wine_run" --remove 2>/dev/null'
    if "$wine_run" --fresh; then
        windows=(--windows "$wine_run")
    fi
fi
say "measuring"
python3 bench/report.py build/default/bin "${windows[@]}" "$@"
python3 bench/hub.py build/default/bin "${hub[@]}"
