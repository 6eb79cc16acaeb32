#!/usr/bin/env bash
# Installs what is missing, builds, and makes the packages in build/packages: a .deb and a .tar.gz of this
# system, and a .zip for 32-bit and 64-bit Windows. usage: scripts/package.sh [native|windows]
set -euo pipefail
cd "$(dirname "$0")/.."

kinds=(native windows)
if [[ $# -gt 0 ]]; then
    case $1 in
    native | windows) kinds=("$1") ;;
    *)
        echo "package: no such kind: $1 (native or windows)" >&2
        exit 2
        ;;
    esac
fi
out=$PWD/build/packages
log=$(mktemp)
scratch=$(mktemp -d)
trap 'rm -rf "$log" "$scratch"' EXIT

pack() {
    scripts/build.sh "$1" QOMANoAg QOMADolC notifymon mfpsim tracedeck "${@:2}"
    if ! (cd "build/$1" && cpack -B "$scratch" >"$log" 2>&1); then
        cat "$log" >&2
        echo "package: cpack failed for the preset $1" >&2
        exit 1
    fi
}

for kind in "${kinds[@]}"; do
    if [[ $kind == native ]]; then
        scripts/setup.sh dpkg-dev lintian
        pack default packed_files
        # The project has no mail address to give to Debian.
        lintian --allow-root --fail-on error,warning --suppress-tags \
            bogus-mail-host,bogus-mail-host-in-debian-changelog "$scratch"/*.deb
    else
        scripts/setup.sh g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-posix
        pack windows-i686
        pack windows-x64
    fi
done

mkdir -p "$out"
for package in "$scratch"/*.{deb,tar.gz,zip}; do
    [[ -f $package ]] || continue
    mv "$package" "$out/"
    echo "package: $(du -h "$out/$(basename "$package")" | sed 's/\s\+/ /')"
done
