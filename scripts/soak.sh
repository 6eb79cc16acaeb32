#!/usr/bin/env bash
# Agents that live at random, for so many minutes; fails if they leave or gather anything.
# usage: scripts/soak.sh MINUTES [SEED] [PRESET]    an empty SEED is drawn; PRESET is default, asan, tsan...
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

preset=${3:-default}
[[ $# -ge 1 && $# -le 3 && $1 =~ ^[0-9]+(\.[0-9]+)?$ && ${2:-0} =~ ^[0-9]+$ ]] ||
    fail "usage: scripts/soak.sh MINUTES [SEED] [PRESET]" 2
scripts/setup.sh
scripts/build.sh "$preset" soak
# A thread's own store of freed blocks would count as in use.
export GLIBC_TUNABLES=glibc.malloc.tcache_count=0
# A sanitizer's runtime keeps what was freed: its memory says nothing.
[[ $preset == asan || $preset == tsan ]] && export QOMA_SOAK_MEMORY=0
say "living for $1 minutes"
"build/$preset/bin/soak" "$1" ${2:+"$2"}
