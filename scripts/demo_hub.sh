# Sourced by demo.sh: an office with a hub. What its parts print stands behind their names.
# shellcheck shell=bash disable=SC2154  # bin, work and some more are of demo.sh
[[ -x $bin/notifyhub ]] || fail "this build has no notifyhub"
PATH=$PATH:/usr/sbin # where the broker lives

# begin NAME COMMAND...: a part of the office. Its number is in $begun.
begin() {
    local name=$1
    shift
    "$@" > >(show "$name") 2>&1 &
    begun=$!
    others+=("$begun")
}

start_broker() {
    begin broker mosquitto -c "$work/broker.conf"
    broker_pid=$begun
    await broker 'mosquitto version .* running'
}

stop() {
    kill "$@"
    wait "${@: -1}" || true
}

scene "Two devices: one in the hall, one in the store"
for name in hall store; do
    mkfifo "$work/$name.panel"
    exec {panel}<>"$work/$name.panel"
    declare "${name}_panel=$panel"
    "$bin/mfpsim" --port 0 <"$work/$name.panel" > >(show $name) 2>&1 &
    others+=($!)
    await $name 'listening on '
    declare "${name}_port=$(grep -om1 'listening on [^ ]*' "$work/$name.log" | sed 's/.*://')"
done
tell() {
    printf '%-6s | %s\n' "$1" "$2"
    local panel=${1}_panel
    echo "$2" >&"${!panel}"
}

scene "A broker, and somebody who subscribes to all of the office"
broker_port=$((20000 + RANDOM % 10000))
# It keeps its subscribers' sessions while it is away.
printf '%s\n' "listener $broker_port 127.0.0.1" "allow_anonymous true" "persistence true" \
    "persistence_location $work/" "user $(id -un)" >"$work/broker.conf"
start_broker
begin reader mosquitto_sub -p "$broker_port" -q 1 -i reader -c -t 'qoma/#' -F '%t'

scene "A hub: everything goes to the broker, picks go to a program, too"
printf '%s\n' '#!/bin/sh' \
    "exec sed -E 's/.*\"subject\":\"([^\"]*)\".*\"text\":\"([^\"]*)\".*/a program hears of \"\\2\" at \\1/'" >"$work/program"
chmod +x "$work/program"
cat >"$work/hub.toml" <<END
[journal]
file = "journal.db"
[[device]]
name = "hall"
address = "127.0.0.1"
port = $hall_port
entries = ["Paper Archive"]
[[device]]
name = "store"
address = "127.0.0.1"
port = $store_port
entries = ["Delivery Notes"]
[[sink]]
name = "broker"
type = "mqtt"
host = "127.0.0.1"
port = $broker_port
first_pause = "200ms"
longest_pause = "1s"
[[sink]]
name = "program"
type = "exec"
command = ["$work/program"]
[[rule]]
sink = "broker"
[[rule]]
type = "panel.picked"
sink = "program"
END
hub() { begin hub "$bin/notifyhub" --settings "$work/hub.toml" && hub_pid=$begun; }
hub
for _ in hall store; do await hub 'link connected'; done # in whichever order
for _ in hall store; do await reader '/link.connected$'; done

scene "Somebody picks"
tell hall "pick archive"
await hub 'a program hears of "Paper Archive" at hall'
await reader '^qoma/office/hall/panel.picked$'
tell store "pick delivery"
await hub 'a program hears of "Delivery Notes" at store'
await reader '^qoma/office/store/panel.picked$'

scene "The broker is gone; picks go on, and the program hears them"
stop "$broker_pid"
tell hall "pick archive"
await hub 'a program hears of "Paper Archive" at hall'

scene "The hub is killed, and begins again"
stop -9 "$hub_pid"
hub
await hub 'hall: link connected'

scene "The broker is back, and gets what it has missed"
start_broker
await reader '^qoma/office/hall/panel.picked$'

scene "The journal has all of it"
"$bin/notifyhub" --settings "$work/hub.toml" events --type 'panel.*' | show journal
scene "And whoever wants it once more gets it once more"
"$bin/notifyhub" --settings "$work/hub.toml" replay program --since 1h | show replay
for _ in 1 2 3; do await hub 'a program hears of'; done

stop "$hub_pid"
await hub 'ended'
scene "Everything arrived"
