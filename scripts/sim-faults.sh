#!/usr/bin/env bash
# Faults that were planted: each patch of sim/faults is compiled into a copy of the simulated product, and has to be
# found with its seed. usage: scripts/sim-faults.sh [--find SECONDS] [NAME...]
#   --find SECONDS   looks for each with seeds from 1 on, and writes the seed into the patch
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

seconds=
if [[ ${1:-} == --find ]]; then
    [[ ${2:-} =~ ^[0-9]+$ ]] || fail "usage: scripts/sim-faults.sh [--find SECONDS] [NAME...]" 2
    seconds=$2
    shift 2
fi
scripts/build.sh default simulate
build=build/default
scratch=$(mktemp -d)
at_exit 'rm -rf "$scratch"'
link=$(ninja -C "$build" -t commands bin/libsimulated.so | tail -n 1)

# plant NAME: the module with that fault, as $scratch/NAME.so. One source is compiled, in place of its own object.
plant() {
    local source object command
    source=$(sed -n 's|^+++ b/||p' "sim/faults/$1.patch")
    mkdir -p "$scratch/$1/$(dirname "$source")"
    cp "$source" "$scratch/$1/$source"
    patch -s -p1 -d "$scratch/$1" <"sim/faults/$1.patch"
    # The last of them that is not a test's: the library's own.
    command=$(ninja -C "$build" -t commands bin/libsimulated.so | grep -F -- " -c $PWD/$source" | tail -n 1)
    [[ -n $command ]] || fail "$1: nothing compiles $source"
    object=$scratch/$1/fault.o
    command=$(sed -E "s| -c [^ ]+| -c $scratch/$1/$source|; s| -o [^ ]+| -o $object|; s| -MF [^ ]+| -MF $object.d|" <<<"$command")
    (cd "$build" && eval "$command")
    # In front of the libraries, which then are not asked for theirs any more; a plain object is left out.
    command=$(sed -E "s| [^ ]*/$source\.o( )|\1|; s| -o bin/libsimulated.so| -o $scratch/$1.so $object|" <<<"$link")
    (cd "$build" && eval "$command")
}

# finds NAME ARGUMENT...: whether the simulation fails with that fault; what it prints goes to $log.
finds() {
    local code=0
    "$build/bin/simulate" --module "$scratch/$1.so" --scenario "$scenario" "${@:2}" >"$log" || code=$?
    [[ $code -eq 1 ]]
}

names=("$@")
if [[ ${#names[@]} -eq 0 ]]; then mapfile -t names < <(basename -s .patch sim/faults/*.patch); fi
found=0
for name in "${names[@]}"; do
    plant "$name"
    scenario=$(sed -n 's/^scenario: //p' "sim/faults/$name.patch")
    seed=$(sed -n 's/^seed: //p' "sim/faults/$name.patch")
    log=$scratch/$name.log
    # A seed means another run as soon as the product makes other calls. Then those from 1 on are tried.
    if ! { [[ -z $seconds ]] && finds "$name" --seed "$seed"; } && ! finds "$name" --seed 1 --seconds "${seconds:-60}"; then
        say "$name: NOT FOUND with scenario $scenario"
        continue
    fi
    found=$((found + 1))
    seed=$(sed -n 's/^simulate: again by: .*--seed \([0-9]*\).*/\1/p' "$log" | head -n 1)
    if [[ -n $seconds ]]; then sed -i "s/^seed: .*/seed: $seed/" "sim/faults/$name.patch"; fi
    say "$name: found with seed $seed: $(sed -n 's/^simulate: FAILED after //p' "$log" | head -n 1), $(tail -n 1 "$log" | sed 's/.* in \([0-9.]* s\).*/\1/')"
done
say "$found of ${#names[@]} planted faults were found"
[[ $found -eq ${#names[@]} ]]
