# Sourced by the other scripts: what they say while they work, how they end, and whose the results are.
# shellcheck shell=bash
script=$(basename "$0" .sh)

say() { echo "$script: $1"; }

# fail TEXT [EXIT-CODE]
fail() {
    echo "$script: $1" >&2
    exit "${2:-1}"
}

# at_exit COMMAND: runs it when the script ends, however it does; the last one that was given comes first.
endings=()
at_exit() { endings=("$1" "${endings[@]}"); }
end() {
    local ending
    for ending in "${endings[@]}"; do eval "$ending" || true; done
    # Whoever has to use sudo wants to go on without.
    if [[ $(id -u) -eq 0 && ${SUDO_UID:-0} -ne 0 && -d build ]]; then chown -Rh "$SUDO_UID:${SUDO_GID:-0}" build || true; fi
}
trap end EXIT

# The newest line of what comes in: at a terminal it takes the place of the one before, in a log there is one in
# 15 seconds. All of it goes to the file.
follow() {
    local line columns said=$SECONDS
    if [[ -t 2 ]]; then columns=$(tput cols 2>/dev/null || echo 80); fi
    while IFS= read -r line; do
        printf '%s\n' "$line"
        if [[ -t 2 ]]; then
            printf '\r\033[K%.*s' "$((columns - 1))" "$line" >&2
        elif ((SECONDS - said >= 15)); then
            said=$SECONDS
            echo "$script: ... $line" >&2
        fi
    done >"$1"
    if [[ -t 2 ]]; then printf '\r\033[K' >&2; fi
}

# quietly WHAT COMMAND...: says what is done. What the command prints is shown as far as it tells how far it is,
# and whole if it fails, which ends the script.
quietly() {
    local what=$1 log code
    shift
    say "$what"
    log=$(mktemp)
    "$@" </dev/null 2>&1 | follow "$log" || {
        code=${PIPESTATUS[0]}
        cat "$log" >&2
        rm -f "$log"
        fail "failed: $what" "$code"
    }
    rm -f "$log"
}
