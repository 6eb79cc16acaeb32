#!/usr/bin/env bash
# What a machine can see of the rules for our sources. Prints each finding, exits 1 if there is one.
set -euo pipefail
cd "$(dirname "$0")/.."

found=0
fail() {
    echo "check: $1" >&2
    found=1
}

mapfile -t sources < <(git ls-files '*.cpp' '*.h')
clang-format --dry-run --Werror "${sources[@]}" || fail "run clang-format -i on the files above"

if git grep -nI ' $' -- ':!*.reg' ':!fuzz/seeds'; then fail "blanks at the end of a line"; fi

# The platform layer is the one place where the systems differ.
folders=(agent foundation evtmgr trace dolrtl device devlink tools tests)
if git grep -nE '^[[:space:]]*#[[:space:]]*(el)?if.*(_WIN32|_WIN64|__linux__|__unix__|__MINGW)' -- "${folders[@]}"; then
    fail "a conditional for an operating system outside platform/"
fi
if git grep -nE '#[[:space:]]*include[[:space:]]*<((sys|arpa|netinet|linux)/|windows|winsock|unistd|pthread|fcntl|signal\.h|dlfcn|poll|netdb)' \
    -- "${folders[@]}"; then
    fail "a system header outside platform/"
fi
exit $found
