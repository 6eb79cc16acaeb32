#!/usr/bin/env bash
# The simulated world: the seeds that are known to be clean, new ones for so many seconds, and each planted fault.
# usage: scripts/simulate.sh SECONDS
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

[[ $# -eq 1 && $1 =~ ^[0-9]+$ ]] || fail "usage: scripts/simulate.sh SECONDS" 2
scripts/setup.sh
scripts/build.sh default simulate
simulate=build/default/bin/simulate
for run in first second; do
    "$simulate" --seed 7 --scenario agents --trace "build/simulate.$run" >/dev/null
done
cmp build/simulate.first build/simulate.second || fail "the same seed does not give the same run"
rm -f build/simulate.first build/simulate.second
say "the same seed gives the same run"
"$simulate" --seed 1-10 --hours 0.02
"$simulate" --seconds "$1"
scripts/sim-faults.sh
