#!/usr/bin/env bash
# Installs what is missing, builds, and runs all tests. usage: scripts/test.sh [PRESET] [CTEST-ARGUMENT...]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

preset=default
if [[ $# -gt 0 && $1 != -* ]]; then
    preset=$1
    shift
fi
groups=(tests hub office)
[[ $preset == @(clang|asan) ]] && groups+=("$preset")
scripts/setup.sh "${groups[@]}"
scripts/build.sh "$preset"
# Many cases wait more than they compute; under ThreadSanitizer they compute.
jobs=$(($(nproc) * 2))
[[ $preset == tsan ]] && jobs=$(nproc)
# At a terminal a line that counts, and whole what failed.
progress=()
[[ -t 1 ]] && progress=(--progress)
say "running the tests of $preset"
ctest --preset "$preset" -j "$jobs" "${progress[@]}" "$@"
