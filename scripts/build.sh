#!/usr/bin/env bash
# Configures and builds a preset. usage: scripts/build.sh PRESET [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."

preset=$1
shift
targets=()
[[ $# -gt 0 ]] && targets=(--target "$@")
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! cmake --preset "$preset" >"$log" 2>&1; then
    cat "$log" >&2
    echo "build: configuring the preset $preset failed" >&2
    exit 1
fi
if ! cmake --build --preset "$preset" "${targets[@]}" -- --quiet >"$log" 2>&1; then
    cat "$log" >&2
    echo "build: building the preset $preset failed" >&2
    exit 1
fi
echo "build: $preset is up to date"
