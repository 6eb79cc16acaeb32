#!/usr/bin/env bash
# Configures and builds a preset. usage: scripts/build.sh PRESET [-DNAME=VALUE...] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

[[ $# -gt 0 ]] || fail "usage: scripts/build.sh PRESET [-DNAME=VALUE...] [TARGET...]" 2
preset=$1
shift
settings=()
while [[ ${1:-} == -D* ]]; do
    settings+=("$1")
    shift
done
targets=()
[[ $# -gt 0 ]] && targets=(--target "$@")
folder=build/$preset

# Scripts that run side by side want the same preset.
mkdir -p "$folder"
exec {lock}>"$folder/.lock"
flock "$lock"
if [[ ${#settings[@]} -gt 0 || CMakePresets.json -nt $folder/build.ninja ]]; then
    quietly "configuring $preset" cmake --preset "$preset" "${settings[@]}"
fi
NINJA_STATUS='[%f of %t] ' quietly "compiling $preset" cmake --build --preset "$preset" "${targets[@]}"
say "$preset is up to date"
