#!/usr/bin/env bash
# Installs the Debian packages that are missing, those for building and trying first; asks nothing but what sudo asks.
# usage: scripts/setup.sh [--all] [GROUP|PACKAGE...]    --all is every group, which is what .ci/run needs
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

# What each thing that one can do here needs.
declare -A groups=(
    [base]="g++ cmake make ninja-build pkg-config python3 libgtest-dev libcli11-dev nlohmann-json3-dev libgsf-1-dev
        libcpp-httplib-dev libedit-dev"
    # Two hosts on one machine; others' readers of our compound files; clients in Python and C#.
    [tests]="iproute2 libgsf-bin p7zip-full python3-pytest python3-pip mypy mono-mcs mono-runtime"
    # The hub and what its tests hand events to.
    [hub]="libtomlplusplus-dev libsqlite3-dev libmosquitto-dev libcurl4-openssl-dev libsystemd-dev prometheus-cpp-dev"
    [office]="mosquitto mosquitto-clients openssl prometheus python3-jsonschema dbus python3-dbus python3-gi systemd"
    [pages]="chromium chromium-driver python3-selenium" # a browser, and who drives it
    [capture]="tshark"
    [clang]="clang"
    [asan]="clang libclang-rt-dev llvm" # llvm names the places in reports
    [mutants]="lld"
    [coverage]="gcovr"
    [rules]="clang-format-16 clang-tidy shellcheck"
    [docs]="doxygen"
    [bench]="libbenchmark-dev libuv1-dev libasio-dev libspdlog-dev liblog4cplus-dev"
    [packages]="python3-setuptools python3-wheel dpkg-dev lintian wixl msitools faketime diffoscope-minimal"
    # Only the compilers with threads, not the whole of mingw-w64; llvm makes import libraries for others.
    [mingw]="llvm googletest g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-posix"
    [wine]="wine wine64 debootstrap"
)

wanted=(base)
for name in "$@"; do
    if [[ $name == --all ]]; then wanted+=("${!groups[@]}"); else wanted+=("$name"); fi
done
missing=()
for name in "${wanted[@]}"; do
    for package in ${groups[$name]:-$name}; do
        [[ " ${missing[*]} " == *" $package "* ]] ||
            dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' ||
            missing+=("$package")
    done
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

command -v apt-get >/dev/null || fail "needs apt-get to install: ${missing[*]}"
if [[ $(id -u) -ne 0 ]]; then
    command -v sudo >/dev/null || fail "needs root rights (or sudo) to install: ${missing[*]}"
    say "needs root rights to install packages; sudo may ask for your password"
    # All of it in one call: where sudo remembers nothing, it asks once all the same.
    trap - EXIT
    exec sudo -- scripts/setup.sh "$@"
fi

install() {
    local try
    # Mirrors and locks fail for a moment now and then; a third failure is real.
    for try in 1 2 3; do
        if apt-get -o DPkg::Lock::Timeout=120 update &&
            DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=120 \
                install -y --no-install-recommends "${missing[@]}"; then
            return 0
        fi
        echo "try $try failed"
        sleep $((try * 5))
    done
    return 1
}
quietly "installing ${missing[*]}" install
