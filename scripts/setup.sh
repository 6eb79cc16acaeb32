#!/usr/bin/env bash
# Installs the Debian packages that the project needs and that are missing; asks nothing.
# usage: scripts/setup.sh [--all] [PACKAGE...]    --all adds what .ci/run needs besides
set -euo pipefail

packages=(g++ cmake make ninja-build pkg-config libgtest-dev libcli11-dev nlohmann-json3-dev libgsf-1-dev python3)
if [[ ${1:-} == --all ]]; then
    shift
    # What the other scripts would ask for one after another: one call of apt-get is sooner done than six.
    packages+=(clang libclang-rt-dev clang-format clang-tidy doxygen libgsf-bin p7zip-full iproute2)
    packages+=(libbenchmark-dev libuv1-dev libasio-dev libspdlog-dev liblog4cplus-dev dpkg-dev lintian)
    packages+=(googletest g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-posix wine wine64 debootstrap)
fi
packages+=("$@")

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' ||
        missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

command -v apt-get >/dev/null || {
    echo "setup: needs apt-get to install: ${missing[*]}" >&2
    exit 1
}
root=()
if [[ $(id -u) -ne 0 ]]; then
    command -v sudo >/dev/null || {
        echo "setup: needs root rights (or sudo) to install: ${missing[*]}" >&2
        exit 1
    }
    root=(sudo -n)
fi

log=$(mktemp)
trap 'rm -f "$log"' EXIT
echo "setup: installing ${missing[*]}"
# Mirrors and locks fail for a moment now and then; a third failure is real.
for try in 1 2 3; do
    if "${root[@]}" apt-get -o DPkg::Lock::Timeout=120 update >"$log" 2>&1 &&
        "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=120 \
            install -y --no-install-recommends "${missing[@]}" >>"$log" 2>&1; then
        exit 0
    fi
    echo "setup: try $try failed" >&2
    sleep $((try * 5))
done
tail -n 20 "$log" >&2
echo "setup: could not install ${missing[*]}" >&2
exit 1
