#!/usr/bin/env bash
# Installs what is missing, builds, and shows a notification's whole road: a software device and a
# client as two processes, first over the network, then over a local link. With "hub": two devices, a
# broker, a hub and a subscriber, and what arrives where. Ends with 0 only if everything that it announces
# has happened. usage: scripts/demo.sh [hub]
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/common.sh

case ${1:-} in
"") scripts/setup.sh ;;
hub) scripts/setup.sh hub office ;;
*) fail "usage: scripts/demo.sh [hub]" 2 ;;
esac
scripts/build.sh default handed_out
bin=build/default/bin

work=$(mktemp -d)
device_pid="" client_pid="" others=()
clean_up() {
    local pid
    for pid in $client_pid $device_pid "${others[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
at_exit clean_up

scene() { printf '\n--- %s\n' "$1"; }

# Shows what a program prints under its name, and keeps it in a file for await.
show() { tee -a "$work/$1.log" | sed -u "s/^/$1 | /"; }

panel() {
    printf 'panel  | %s\n' "$*"
    echo "$*" >&3
}

# await PROGRAM PATTERN: the program prints a line with the pattern that no earlier await took.
await() {
    local log=$work/$1.log seen=$work/$1.seen from line
    [[ -f $seen ]] || echo 0 >"$seen"
    from=$(<"$seen")
    for _ in {1..300}; do
        line=$(tail -n +$((from + 1)) "$log" 2>/dev/null | grep -nm1 -E "$2" | cut -d: -f1) || true
        if [[ -n $line ]]; then
            echo $((from + line)) >"$seen"
            return 0
        fi
        sleep 0.05
    done
    fail "the $1 did not print \"$2\" within 15 seconds"
}

start_device() {
    mkfifo "$work/panel"
    exec 3<>"$work/panel"
    "$bin/mfpsim" --port 0 "$@" <"$work/panel" > >(show device) 2>&1 &
    device_pid=$!
    await device 'listening on '
    port=$(grep -om1 'listening on [^ ]*' "$work/device.log" | sed 's/.*://')
}

start_client() {
    "$bin/notifymon" --port "$port" "$@" > >(show client) 2>&1 &
    client_pid=$!
    await client 'ready$'
}

stop_client() {
    kill -INT "$client_pid"
    wait "$client_pid" || fail "the client ended with exit code $?"
    client_pid=
}

if [[ ${1:-} == hub ]]; then
    # shellcheck source=scripts/demo_hub.sh
    source scripts/demo_hub.sh
    exit 0
fi

recover_link() {
    scene "The link is cut for a second and comes back; the client subscribes again by itself"
    panel cut 1000
    await client '^eCT_LINK_RECOVERED '
    await client 'subscribed again'
}

scene "The software device"
mkfifo "$work/print-path"
start_device --print-path "$work/print-path"

scene "A client over the network places an entry on the panel"
start_client --address 127.0.0.1 --on select,fax --option "Paper Archive"
scene "Somebody picks it"
panel pick 1
await client '^eCT_SELECT_NOTIFY .*option="Paper Archive;NETADDR=.*;SWINST=[0-9]+;.*KICKSEQ=1;.*" from [0-9.]+'
scene "A fax waits"
panel fax
await client '^eCT_FAX_UPLOAD_NOTIFY '
recover_link
panel pick 1
await client '^eCT_SELECT_NOTIFY .*option="Paper Archive;NETADDR=.*KICKSEQ=2;'
stop_client

scene "A client over a local link, with two entries"
start_client --local --option "Scan to Mail" --option "Scan to Folder"
scene "Somebody picks the second one"
panel pick 2
await client '^eCT_SELECT_NOTIFY .*option="Scan to Folder;NETADDR=[^;:]+;SWINST=[0-9]+;"$'
scene "Paper is laid into the feeder and taken out again"
panel adf on
await client '^eCT_ADF_NOTIFY .*nValue=1 '
panel adf off
await client '^eCT_ADF_NOTIFY .*nValue=0 '
scene "The scan button is pressed, and this client claims the press"
panel button
await client '^eCT_SCANNER_BUTTON_NOTIFY .*dwValue=2'
scene "A fax waits"
panel fax
await client '^eCT_FAX_UPLOAD_NOTIFY '
recover_link
panel pick 1
await client '^eCT_SELECT_NOTIFY .*option="Scan to Mail;'
stop_client

scene "A client writes a discovery job to the print path, and the device answers it"
start_client --address 127.0.0.1 --discover "$work/print-path"
await device 'job taken: SRVQ='
number=$(grep -om1 'SRVQ=[0-9]*' "$work/device.log")
await client "^eCT_SELECT_NOTIFY .*option=\"TYPE=<ECHO>;$number;"
stop_client

panel quit
wait "$device_pid" || fail "the device ended with exit code $?"
device_pid=
scene "Everything arrived"
