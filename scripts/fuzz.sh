#!/usr/bin/env bash
# Builds the fuzz targets and runs each for a while. usage: scripts/fuzz.sh SECONDS [NAME...]
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ ! ${1:-} =~ ^[1-9][0-9]*$ ]]; then
    echo "fuzz: the first argument is a number of seconds" >&2
    exit 2
fi
seconds=$1
shift
names=("$@")
if [[ ${#names[@]} -eq 0 ]]; then
    for source in fuzz/*_fuzz.cpp; do
        name=${source#fuzz/}
        names+=("${name%_fuzz.cpp}")
    done
fi

scripts/setup.sh clang libclang-rt-dev
scripts/build.sh fuzz "${names[@]/#/fuzz_}"
mkdir -p build/fuzz/found
for name in "${names[@]}"; do
    corpus=build/fuzz/corpus/$name
    mkdir -p "$corpus"
    echo "fuzz: $name for $seconds s"
    "build/fuzz/bin/fuzz_$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="build/fuzz/found/$name-" "$corpus" "fuzz/seeds/$name" >"build/fuzz/$name.log" 2>&1 || {
        tail -n 40 "build/fuzz/$name.log" >&2
        echo "fuzz: $name found something, see build/fuzz/found" >&2
        exit 1
    }
    grep -E 'number_of_executed_units' "build/fuzz/$name.log" | sed "s/^/fuzz: $name /"
done
