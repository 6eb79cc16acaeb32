#!/usr/bin/env bash
# Builds once more what build/packages holds, in another place, at another time and under other settings, without a
# compiler's cache, and compares bit by bit. usage: scripts/reproduce.sh [native|windows|windows-i686|windows-x64]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

scratch=$(mktemp -d)
at_exit 'rm -rf "$scratch"'
again=$scratch/somewhere/else
mkdir -p "$again"
git ls-files -z | xargs -0 cp --parents -t "$again"
umask 077
say "building once more in $again"
(cd "$again" && CCACHE_DISABLE=1 TZ=Asia/Kolkata LC_ALL=C HOME=$scratch scripts/package.sh "$@")

shopt -s nullglob
same=0
for package in "$again"/build/packages/*; do
    if ! cmp -s "$package" "build/packages/$(basename "$package")"; then
        timeout 300 diffoscope "build/packages/$(basename "$package")" "$package" >&2 || true
        fail "two builds of $(basename "$package") differ, see above"
    fi
    same=$((same + 1))
done
[[ $same -gt 0 ]] || fail "nothing was built"
say "$same packages are equal bit by bit"
