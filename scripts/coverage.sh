#!/usr/bin/env bash
# Which lines and branches of each folder the tests take: builds with the compiler's counters, runs all tests, or the
# programs test_ROOM alone, and prints a table. build/coverage/report/index.html shows each line.
# usage: scripts/coverage.sh [ROOM...]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

scripts/setup.sh tests coverage
scripts/build.sh coverage "${@/#/test_}"
find build/coverage -name '*.gcda' -delete
say "running the tests"
which=()
[[ $# -eq 0 ]] || which=(-R "^($(IFS='|' && echo "$*"))\.")
ctest --preset coverage -j "$(nproc)" "${which[@]}" >build/coverage/tests.log || say "some failed, see build/coverage/tests.log"
mkdir -p build/coverage/report
# A branch that only an exception takes is no decision of ours.
quietly "gathering what was counted" gcovr --root . --object-directory build/coverage --exclude-throw-branches \
    --gcov-ignore-parse-errors --exclude 'build/|tests/|fuzz/|bench/|examples/' --json-summary build/coverage/report/summary.json \
    --html-details build/coverage/report/index.html
python3 - "$@" <<'TABLE'
import json
import sys
rooms = {}
for file in json.load(open("build/coverage/report/summary.json"))["files"]:
    parts = file["filename"].split("/")
    if sys.argv[1:] and parts[0] not in sys.argv[1:]:
        continue  # seen by the way
    room = rooms.setdefault("/".join(parts[:-1] if parts[0] == "platform" else parts[:1]), [0, 0, 0, 0])
    for index, what in enumerate(("line_covered", "line_total", "branch_covered", "branch_total")):
        room[index] += file[what]
print(f"{'room':28} {'lines':>7} {'taken':>7} {'branches':>9} {'taken':>7}")
for name, (lines, all_lines, branches, all_branches) in sorted(rooms.items()):
    print(f"{name:28} {all_lines:7} {100 * lines / max(all_lines, 1):5.1f} % {all_branches:9} {100 * branches / max(all_branches, 1):5.1f} %")
TABLE
