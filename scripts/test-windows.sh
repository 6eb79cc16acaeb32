#!/usr/bin/env bash
# Installs what is missing, builds for 32-bit and 64-bit Windows, and runs all tests of both under Wine, each in a
# fresh prefix of its own; then makes the packages, and has the .msi installed, used and removed.
# usage: scripts/test-windows.sh [windows-i686|windows-x64] [CTEST-ARGUMENT...]    with arguments, these tests alone
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

presets=(windows-i686 windows-x64)
if [[ $# -gt 0 && $1 != -* ]]; then
    case $1 in
    windows-i686 | windows-x64) presets=("$1") ;;
    *) fail "no such preset: $1 (windows-i686 or windows-x64)" 2 ;;
    esac
    shift
fi
[[ $(id -u) -eq 0 || " ${presets[*]} " != *" windows-i686 "* ]] ||
    fail "needs root rights: 32-bit Wine runs in a chroot"

scripts/setup.sh mingw wine

stop_wine() {
    local preset
    for preset in "${presets[@]}"; do
        if [[ -x build/$preset/wine-run ]]; then "build/$preset/wine-run" --remove 2>/dev/null || true; fi
    done
}
at_exit stop_wine

# A root in which Wine has stopped working is made anew, once.
start_wine() {
    local run=build/$1/wine-run
    say "making a fresh Wine for $1"
    if [[ $1 == windows-i686 ]]; then
        scripts/windows-root.sh >/dev/null || return 1
        "$run" --fresh && return 0
        scripts/windows-root.sh --remake >/dev/null || return 1
    fi
    "$run" --fresh
}

# The native programs, which the Windows ones are run against.
scripts/build.sh default mfpsim notifymon

summary=()
failed=0
test_preset() {
    local preset=$1 began=$SECONDS log=build/$1/tests.log
    shift
    scripts/build.sh "$preset" || return 1
    start_wine "$preset" || return 1
    local code=0
    say "running the tests of $preset"
    ctest --preset "$preset" -j "$(nproc)" "$@" 2>&1 | tee "$log" || code=$?
    summary+=("$preset: $(grep -E '^[0-9]+% tests passed' "$log" || echo "no tests ran"), $(grep -c '(Skipped)$' "$log" || true) skipped, $((SECONDS - began)) s")
    if [[ $code -ne 0 || ($# -gt 0 && $1 != --rerun-failed) ]]; then return "$code"; fi
    scripts/package.sh "$preset" && python3 tests/package/msi_test.py "build/$preset/wine-run" build/packages/*"${preset#windows}".msi
}

for preset in "${presets[@]}"; do
    if ! test_preset "$preset" "$@"; then
        summary+=("$preset: FAILED")
        failed=1
    fi
done
for line in "${summary[@]}"; do say "$line"; done
exit $failed
