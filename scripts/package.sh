#!/usr/bin/env bash
# Installs what is missing, builds, and makes the packages in build/packages: three .deb and a .tar.gz of this system, a
# .zip and an .msi for 32-bit and for 64-bit Windows, a wheel for each, and lists of what went into them. Two builds
# of the same sources are equal bit by bit (scripts/reproduce.sh).
# usage: scripts/package.sh [native|windows|windows-i686|windows-x64]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

case ${1:-all} in
all) presets=(default windows-i686 windows-x64) ;;
native) presets=(default) ;;
windows) presets=(windows-i686 windows-x64) ;;
windows-i686 | windows-x64) presets=("$1") ;;
*) fail "no such kind: $1 (native, windows, windows-i686 or windows-x64)" 2 ;;
esac
scripts/setup.sh packages
[[ ${presets[*]} == windows* ]] || scripts/setup.sh hub
[[ ${presets[*]} == default ]] || scripts/setup.sh mingw

scratch=$(mktemp -d)
shopt -s nullglob
at_exit 'rm -rf "$scratch"'
# What a package says of times and rights does not depend on who makes it, when and where.
umask 022
export TZ=UTC LC_ALL=C.UTF-8
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(dpkg-parsechangelog -l docs/debian/changelog -S Timestamp)}
export SOURCE_DATE_EPOCH

for preset in "${presets[@]}"; do
    scripts/build.sh "$preset" handed_out
    mkdir "$scratch/$preset"
    quietly "packing $preset" cpack --config "build/$preset/CPackConfig.cmake" -B "$scratch/$preset"
    if [[ $preset == default ]]; then
        # Not one hint, whatever its weight. Compilers cut words in two, which are misspelled then.
        quietly "reading the package as Debian would" lintian --allow-root --display-info --pedantic \
            --suppress-tags spelling-error-in-binary \
            --fail-on pedantic,info,warning,error "$scratch/$preset"/*.deb
    else
        archive=("$scratch/$preset"/*.zip)
        quietly "packing $preset for the system's installer" scripts/msi.sh "${archive[0]}" "${archive[0]%.zip}.msi"
    fi
    scripts/wheel.sh "$preset" "$scratch/$preset"
    archive=("$scratch/$preset"/*.{tar.gz,zip})
    others=("$scratch/$preset"/*.{deb,msi,whl})
    python3 scripts/spdx.py "build/$preset" "${archive[@]}" "${others[@]}"
    mkdir -p build/packages
    for package in "$scratch/$preset"/{,python3-}qoma[-_]*.*; do
        mv "$package" build/packages/
        say "$(du -h "build/packages/$(basename "$package")" | sed 's/\s\+/ /')"
    done
done
