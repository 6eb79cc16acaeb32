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
clang-format-16 --dry-run --Werror "${sources[@]}" || fail "run clang-format-16 -i on the files above"

if git grep -nI ' $' -- ':!*.reg' ':!fuzz/seeds'; then fail "blanks at the end of a line"; fi

shellcheck --external-sources --severity=warning .ci/run scripts/*.sh || fail "see the scripts above"

# One way for each: `///` on what a header offers, `//` for the rest, and a block only for an argument's name.
if git grep -nE '/\*' -- '*.cpp' '*.h' | grep -vE '/\*[A-Za-z_][A-Za-z0-9_]*=?\*/'; then fail "a comment in /* */"; fi
if git grep -nE '(^|[^:])///' -- '*.cpp' ':!tests' ':!bench' ':!fuzz'; then fail "/// outside a header"; fi
if git grep -nE '(^|[^:"[:alnum:]_])size_t' -- '*.cpp' '*.h' | grep -vE ':[0-9]+:[[:space:]]*//'; then fail "size_t without std::"; fi

# Names as far as they can be told by a line: a class, a function that is none of a class's. What a library calls
# by its name is a member.
own=(agent foundation evtmgr trace dolrtl device devlink session web hub tools)
if git grep -nE '^ *class ' -- "${own[@]/%//*.h}" "${own[@]/%//*.cpp}" platform |
    grep -vE ':[0-9]+: *class ((PLAT_[A-Z_]+|[A-Z]+_API|alignas)(\([^)]*\))? )*C[A-Z]'; then
    fail "a class whose name does not begin with C"
fi
if git grep -nE '^[A-Za-z_][A-Za-z0-9_:<>,*& ]* [*&]*[a-z][A-Za-z0-9]*\(' -- "${own[@]/%//*.h}" "${own[@]/%//*.cpp}" |
    grep -vE ':[0-9]+:(.* )?(main|return|else|using|template)\b'; then
    fail "a function whose name does not begin with a capital"
fi

# What a std::mutex guards no compiler knows.
if git grep -nE 'std::(recursive_|shared_|timed_)?(mutex\b|lock_guard|unique_lock|scoped_lock|shared_lock)' -- \
    "${own[@]}" platform capi ':!platform/lock.h'; then
    fail "a lock that the compiler does not see: platform/lock.h has those that it does"
fi

# The platform layer is the one place where the systems differ.
# The C interface's header is handed out alone, and says itself how it is called.
folders=("${own[@]}" tests capi ':!*/qoma_notify.h')
if git grep -nE '^[[:space:]]*#[[:space:]]*(el)?if.*(_WIN32|_WIN64|__linux__|__unix__|__MINGW)' -- "${folders[@]}"; then
    fail "a conditional for an operating system outside platform/"
fi
if git grep -nE '#[[:space:]]*include[[:space:]]*<((sys|arpa|netinet|linux)/|windows|winsock|unistd|pthread|fcntl|signal\.h|dlfcn|poll|netdb)' \
    -- "${folders[@]}" ':!hub'; then # which is for Linux alone
    fail "a system header outside platform/"
fi
exit $found
