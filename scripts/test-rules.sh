#!/usr/bin/env bash
# Plants a breach of each rule for our sources, one at a time, into a scratch tree, and sees that it is refused: by
# scripts/check-format.sh, by the reference, or by the compiler with the flags of our builds.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

tree=$(mktemp -d)
at_exit "rm -rf '$tree'"
mkdir -p "$tree"/{agent,platform,scripts,docs,cmake,.ci}
cp .clang-format "$tree"
cp scripts/check-format.sh "$tree/scripts"
cp platform/lock.h "$tree/platform"
cp docs/Doxyfile "$tree/docs"
cp cmake/QomaDefaults.cmake "$tree/cmake"
echo /out >"$tree/.gitignore"
printf '#!/bin/sh\nexec true\n' | tee "$tree/.ci/run" >"$tree/scripts/other.sh"
cat >"$tree/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(rules LANGUAGES CXX)
set(QOMA_WARNINGS_AS_ERRORS ON)
include(cmake/QomaDefaults.cmake)
add_library(rules OBJECT agent/count.cpp)
target_link_libraries(rules qoma_options)
END
cat >"$tree/agent/count.h" <<'END'
#pragma once

#include "platform/lock.h"

#include <cstddef>

/// A count that several threads move.
class CCount {
public:
    /// Moves it by so many; 0 is for nobody.
    void Add(std::size_t c, bool fLoud);

private:
    void Move(std::size_t c) PLAT_REQUIRES(m_mx);

    CPlatMutex m_mx; // a leaf
    std::size_t m_c PLAT_GUARDED_BY(m_mx) = 0;
};
END
cat >"$tree/agent/count.cpp" <<'END'
#include "agent/count.h"

#include <cstdio>

static void Say(char const *pszText)
{
    std::puts(pszText);
}

void CCount::Add(std::size_t c, bool fLoud)
{
    CPlatGuard const lock(m_mx);
    if (c > 0) {
        Move(c);
    }
    if (fLoud) {
        Say("moved");
    }
}

// With the lock held.
void CCount::Move(std::size_t c)
{
    m_c += c;
}
END
cd "$tree"
git init -q
git add -A

format() { git add -A && scripts/check-format.sh; }
reference() {
    doxygen - <<'END'
@INCLUDE = docs/Doxyfile
INPUT = agent
USE_MDFILE_AS_MAINPAGE =
OUTPUT_DIRECTORY = out
END
}
compiler() { cmake --build out/build; }
mkdir out
cmake -S . -B out/build -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug >out/log || fail "cannot configure"
for check in format reference compiler; do
    "$check" >out/log 2>&1 || { cat out/log >&2; fail "$check refuses what is right"; }
done
git -c user.name=rules -c user.email=rules commit -qm clean

planted=0
# refused CHECK WHAT-IT-SAYS FILE SED-SCRIPT: a breach that the script makes of the file.
refused() {
    sed -i -E "$4" "$3"
    ! git diff --quiet || fail "nothing planted: $4"
    ! "$1" >out/log 2>&1 || fail "$1 lets pass: $4"
    grep -qF -- "$2" out/log || { cat out/log >&2; fail "$1 refuses for another reason: $4"; }
    git reset -q --hard
    planted=$((planted + 1))
}

refused format "clang-format" agent/count.cpp 's/^    if \(c > 0\) \{/    if (c > 0)/; /^        Move/{n;d}'
refused format "clang-format" agent/count.cpp 's/char const \*pszText/char const* pszText/'
refused format "blanks at the end" agent/count.h 's/^public:/&  /'
refused format "in /* */" agent/count.cpp 's:// With the lock held\.:/* With the lock held. */:'
refused format "/// outside a header" agent/count.cpp 's:// With:/// With:'
refused format "size_t without std::" agent/count.h 's/std::size_t m_c/size_t m_c/'
refused format "does not begin with C" agent/count.h 's/class CCount/class Counter/'
refused format "begin with a capital" agent/count.cpp 's/\bSay\b/say/'
refused format "the compiler does not see" agent/count.h 's/CPlatMutex m_mx/std::mutex m_mx/'
refused format "conditional for an operating system" agent/count.cpp '1i #ifdef _WIN32\n#endif'
refused format "system header" agent/count.cpp 's/<cstdio>/<unistd.h>/'
refused format "see the scripts" scripts/other.sh 's/exec true/cd $1/'
refused reference "is not documented" agent/count.h '/Moves it by/d'
refused compiler "requires holding mutex 'm_mx'" agent/count.cpp '/CPlatGuard/d'
refused compiler "requires holding mutex 'm_mx'" agent/count.h 's/ PLAT_REQUIRES\(m_mx\)//'
refused compiler "unused parameter" agent/count.cpp 's/if \(fLoud\)/if (c > 1)/'
refused compiler "shadows a field" agent/count.cpp 's/^    m_c \+= c;/    std::size_t m_c = c;\n    static_cast<void>(m_c);/'
say "$planted breaches, each refused"
