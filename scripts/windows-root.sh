#!/usr/bin/env bash
# The i386 Debian root in which 32-bit Wine runs: made when it is missing, old or broken, otherwise reused.
# It lies outside the source tree and needs no mounts: programs and prefixes are copied into it (wine-run.sh).
# usage: scripts/windows-root.sh           sees to it that the root is there and prints its folder
#        scripts/windows-root.sh --path    prints the folder only
#        scripts/windows-root.sh --remake  makes it anew
set -euo pipefail

cache=${XDG_CACHE_HOME:-/var/cache}/qoma
fail() {
    echo "windows-root: $1" >&2
    exit 1
}

[[ -r /etc/os-release ]] || fail "needs Debian: /etc/os-release is missing"
# shellcheck source=/dev/null
codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
[[ -n $codename ]] || fail "needs a release of Debian: /etc/os-release names none"
root=$cache/wine-i386-$codename
if [[ ${1:-} == --path ]]; then
    echo "$root"
    exit 0
fi

# Raised when the contents change, so that roots made before are made again.
wanted="1 wine wine32"
stamp=$root/.qoma-root

is_usable() {
    [[ -f $stamp && $(<"$stamp") == "$wanted" ]] || return 1
    [[ $(WINEDLLPATH=/usr/lib/i386-linux-gnu/wine chroot "$root" /usr/lib/wine/wine --version 2>/dev/null) == wine-* ]]
}

# debootstrap mounts /proc inside while it works; one that was killed leaves the mount.
discard() {
    local folder=$1 mounted
    while read -r _ mounted _; do
        if [[ $mounted == "$folder"/* ]]; then umount "$mounted" || fail "cannot unmount $mounted"; fi
    done < <(tac /proc/self/mounts)
    rm -rf --one-file-system "$folder"
}

# The mirror that this machine's own packages come from.
mirror_of_machine() {
    apt-get indextargets --format '$(RELEASE) $(REPO_URI)' \
        'Created-By: Packages' 'Origin: Debian' 'Label: Debian' 'Component: main' 2>/dev/null |
        awk -v release="$codename" '$1 == release { print $2; exit }'
}

# debootstrap fetches with wget, which does not read the settings of apt.
take_over_apt_settings() {
    local http="" https="" authorities=""
    eval "$(apt-config shell http Acquire::http::Proxy https Acquire::https::Proxy authorities Acquire::https::CAInfo)"
    if [[ -n $http && $http != DIRECT ]]; then export http_proxy=$http; fi
    if [[ -n $https && $https != DIRECT ]]; then export https_proxy=$https; fi
    if [[ -n $authorities ]]; then
        echo "ca_certificate = $authorities" >"$scratch/wgetrc"
        export WGETRC=$scratch/wgetrc
    fi
}

make_root() {
    local mirror try
    mirror=$(mirror_of_machine)
    [[ -n $mirror ]] || fail "apt knows no Debian mirror for $codename (sources missing, or never updated)"
    take_over_apt_settings
    discard "$root"
    for try in 1 2 3; do
        discard "$root.new"
        if debootstrap --arch=i386 --variant=minbase --include=wine,wine32 \
            "$codename" "$root.new" "$mirror" >"$scratch/log" 2>&1; then
            rm -rf "$root.new"/var/cache/apt/archives/*.deb "$root.new"/var/lib/apt/lists/*
            mv "$root.new" "$root"
            echo "$wanted" >"$stamp"
            return 0
        fi
        echo "windows-root: try $try failed" >&2
        sleep $((try * 5))
    done
    tail -n 10 "$scratch/log" >&2
    discard "$root.new"
    return 1
}

[[ $(id -u) -eq 0 ]] || fail "needs root rights: 32-bit Wine runs in a chroot"
for tool in chroot flock; do
    command -v "$tool" >/dev/null || fail "needs the program $tool"
done
mkdir -p "$cache" || fail "cannot create $cache"
exec {lock}>"$cache/wine-i386.lock"
flock -w 900 "$lock" || fail "another run has been making $root for 15 minutes"

if [[ ${1:-} == --remake ]] || ! is_usable; then
    for tool in debootstrap apt-get apt-config; do
        command -v "$tool" >/dev/null || fail "needs the program $tool"
    done
    scratch=$(mktemp -d)
    trap 'rm -rf "$scratch"' EXIT
    echo "windows-root: making the i386 root $root" >&2
    make_root || fail "debootstrap could not make the i386 root"
    is_usable || fail "Wine does not run in the fresh i386 root $root"
fi
echo "$root"
