#!/usr/bin/env bash
# Builds the fuzz targets and runs each for a while, as many side by side as there are processors.
# usage: scripts/fuzz.sh SECONDS [NAME...]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

[[ ${1:-} =~ ^[1-9][0-9]*$ ]] || fail "the first argument is a number of seconds" 2
seconds=$1
shift
names=("$@")
if [[ ${#names[@]} -eq 0 ]]; then
    for source in fuzz/*_fuzz.cpp; do
        name=${source#fuzz/}
        names+=("${name%_fuzz.cpp}")
    done
fi
for name in "${names[@]}"; do
    [[ -f fuzz/${name}_fuzz.cpp ]] || fail "there is no target $name" 2
done

# Files that targets write for each input are better kept off the disk.
scratch=$(mktemp -d -p "$([[ -w /dev/shm ]] && echo /dev/shm || echo "${TMPDIR:-/tmp}")")
at_exit 'kill $(jobs -p) 2>/dev/null; rm -rf "$scratch"'

# What is found is kept, and so is the corpus, from which the next run goes on.
run() {
    local name=$1 log=build/fuzz/$1.log corpus=build/fuzz/corpus/$1
    mkdir -p "$corpus"
    if ! TMPDIR=$scratch "build/asan/bin/fuzz_$name" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="build/fuzz/found/$name-" "$corpus" "fuzz/seeds/$name" >"$log" 2>&1; then
        {
            tail -n 40 "$log"
            echo "fuzz: $name found something, see build/fuzz/found and $log"
        } >&2
        return 1
    fi
    echo "fuzz: $name ran $(grep -a number_of_executed_units "$log" | grep -Eo '[0-9]+$') inputs," \
        "$(grep -aEo 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -n 1)"
}

scripts/setup.sh asan
scripts/build.sh asan "${names[@]/#/fuzz_}"
mkdir -p build/fuzz/found
failed=0
running=0
for name in "${names[@]}"; do
    if [[ $running -eq $(nproc) ]]; then
        wait -n || failed=1
        running=$((running - 1))
    fi
    run "$name" &
    running=$((running + 1))
done
while [[ $running -gt 0 ]]; do
    wait -n || failed=1
    running=$((running - 1))
done
exit "$failed"
