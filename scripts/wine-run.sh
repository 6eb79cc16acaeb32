#!/usr/bin/env bash
# Runs a program of a Windows build under Wine, in a prefix of that build's own. The build folder holds a
# ready-made call of this script, "wine-run", that knows the first two arguments:
#   wine-run PROGRAM [ARGUMENT...]   runs bin/PROGRAM of the build folder, or PROGRAM if that has a folder in front.
#                                    The Windows process takes this script's place: its streams and its exit code
#                                    (low 8 bits) are the caller's, SIGKILL and SIGTERM end it at once, SIGINT
#                                    arrives as Ctrl-C.
#   wine-run --system PROGRAM [ARGUMENT...]  the same with a program that Wine finds itself, by PATH or in its own folders
#   wine-run --folder                prints the program's current folder, which the caller can reach too: files
#                                    exchanged with a Windows program go there, under relative names
#   wine-run --fresh                 makes a fresh prefix, tests it, and keeps Wine's server up until --stop
#   wine-run --stop                  ends all Windows processes of the prefix and the server
#   wine-run --remove                as --stop, and removes the prefix
# usage: scripts/wine-run.sh BUILD-FOLDER 32|64 (as above)
set -euo pipefail

fail() {
    echo "wine-run: $1" >&2
    exit 125
}
[[ $# -ge 3 ]] || fail "usage: wine-run.sh BUILD-FOLDER 32|64 PROGRAM [ARGUMENT...]"
build=$1
bits=$2
shift 2

# 64-bit Wine runs in this system. 32-bit Wine runs in its i386 root, which holds a folder for each build.
if [[ $bits == 64 ]]; then
    home=$build/wine
    inside=$home
    enter=(env -C)
    loader=/usr/lib/wine/wine64
    server=/usr/lib/wine/wineserver64
    [[ -x $loader ]] || fail "64-bit Wine is missing (package wine64)"
else
    [[ $(id -u) -eq 0 ]] || fail "needs root rights: 32-bit Wine runs in a chroot"
    root=$("$(dirname "$0")/windows-root.sh" --path)
    inside=/srv/$(cksum <<<"$build" | cut -d' ' -f1)
    home=$root$inside
    enter=(chroot "$root" env -C)
    loader=/usr/lib/wine/wine
    server=/usr/lib/wine/wineserver32
    [[ -x $root$loader ]] || fail "32-bit Wine is missing (scripts/windows-root.sh makes its root)"
    # Without /proc Wine cannot find its own libraries and loader.
    export WINEDLLPATH=/usr/lib/i386-linux-gnu/wine
    export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root
    unset TMPDIR
fi
folder=$home/folder
prefix=$home/prefix
ready=$prefix/.ready
export WINEPREFIX=$inside/prefix WINELOADER=$loader WINESERVER=$server
export WINEDEBUG=${WINEDEBUG:--all}
# No installers of optional parts, no menu entries on the desktop of whoever runs this, no display.
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
unset DISPLAY WAYLAND_DISPLAY

mkdir -p "$folder" || fail "cannot create $folder"
# What belongs to a build is found in its folder, wherever it has to lie.
if [[ $bits == 32 ]]; then ln -sfn "$home" "$build/wine"; fi

stop() {
    if [[ -d $prefix ]]; then timeout 60 "${enter[@]}" "$inside" "$server" -k || true; fi
}

remove() {
    stop
    rm -rf "$prefix"
}

# A prefix counts as made when Wine has carried an exit code through.
make_prefix() {
    local code=0
    timeout 300 "${enter[@]}" "$inside" "$loader" wineboot --init </dev/null >"$home/log" 2>&1 || code=$?
    if [[ $code -eq 0 ]]; then
        # Windows without a display: they are made, found and get their messages, and are never drawn.
        timeout 60 "${enter[@]}" "$inside" "$loader" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f \
            </dev/null >>"$home/log" 2>&1 || code=$?
    fi
    # The desktop of this server came up without.
    stop
    if [[ $code -eq 0 ]]; then
        timeout 60 "${enter[@]}" "$inside" "$loader" cmd /c exit 42 </dev/null >>"$home/log" 2>&1 || code=$?
    fi
    if [[ $code -ne 42 ]]; then
        tail -n 5 "$home/log" >&2
        fail "Wine does not work: no prefix could be made in $prefix"
    fi
    touch "$ready"
}

# The server, its services and the desktop come up with the first program that needs them, keep its error stream
# open, and go when nobody needs them any more. Whoever reads that stream to its end would wait for them. So
# they are brought up here, with a window that stays; rundll32 returns when there is a desktop.
stay_up() {
    stop
    {
        "${enter[@]}" "$inside" "$server" -p
        timeout 60 "${enter[@]}" "$inside" "$loader" cmd /c exit
        "${enter[@]}" "$inside" "$loader" notepad &
        timeout 60 "${enter[@]}" "$inside" "$loader" rundll32 user32.dll,GetDesktopWindow
    } </dev/null >/dev/null 2>&1 || true
}

# Copies a file of this system's into the root, at one blow: others may be reading it there.
take_over() {
    [[ -r $1 ]] && ! cmp -s "$1" "$root$1" || return 0
    cp "$1" "$root$1.$$" && mv "$root$1.$$" "$root$1"
}

# Test programs start side by side; one of them makes what is missing, the others wait.
exec {lock}>"$home/lock"
flock -w 400 "$lock" || fail "another process has been holding $home for too long"

case $1 in
--folder) echo "$folder" && exit 0 ;;
--stop) stop && exit 0 ;;
--remove) remove && exit 0 ;;
--fresh)
    remove
    make_prefix {lock}>&-
    stay_up {lock}>&-
    exit 0
    ;;
--system) ;;
-*) fail "no such option: $1" ;;
esac

if [[ $1 == --system ]]; then
    shift
    exec {lock}>&-
    exec "${enter[@]}" "$inside/folder" "$loader" "$@"
fi
program=$(basename "$1")
from=$build/bin
[[ $1 == */* ]] && from=$(realpath "$(dirname "$1")")
shift
[[ -f $from/$program ]] || fail "$from/$program is missing"
[[ -f $ready ]] || make_prefix {lock}>&-
bin=$from
if [[ $bits == 32 ]]; then
    # The root has a copy of the folder.
    bin=$inside/bin
    [[ $from == "$(realpath "$build/bin")" ]] || bin=$inside/bin-$(cksum <<<"$from" | cut -d' ' -f1)
    mkdir -p "$root$bin"
    # In place of the old file, not into it: that one may be running.
    shopt -s nullglob
    cp --update --preserve=timestamps --remove-destination "$from"/*.{exe,dll} "$root$bin/"
    take_over /etc/hosts
    take_over /etc/resolv.conf
fi
exec {lock}>&-

# Names of test cases reach ctest without the carriage returns of Windows' text streams. A program that did not
# start, which happens soon after Wine itself has, is started again: it has only been asked for names.
if [[ " $* " == *" --gtest_list_tests "* ]]; then
    code=0
    for try in 1 2 3; do
        names=$("${enter[@]}" "$inside/folder" "$loader" "$bin/$program" "$@") && code=0 || code=$?
        [[ $code -ne 0 ]] || break
        echo "wine-run: try $try of $program ended with $code" >&2
        sleep "$try"
    done
    tr -d '\r' <<<"$names"
    exit "$code"
fi
exec "${enter[@]}" "$inside/folder" "$loader" "$bin/$program" "$@"
