#!/usr/bin/env bash
# Installs what is missing, builds, and runs all tests. usage: scripts/test.sh [PRESET] [CTEST-ARGUMENT...]
set -euo pipefail
cd "$(dirname "$0")/.."

preset=default
if [[ $# -gt 0 && $1 != -* ]]; then
    preset=$1
    shift
fi
packages=(iproute2) # two hosts on one machine
[[ $preset == clang ]] && packages+=(clang)
scripts/setup.sh "${packages[@]}"
scripts/build.sh "$preset"
# Many cases wait more than they compute; under ThreadSanitizer they compute.
jobs=$(($(nproc) * 2))
[[ $preset == tsan ]] && jobs=$(nproc)
exec ctest --preset "$preset" -j "$jobs" "$@"
