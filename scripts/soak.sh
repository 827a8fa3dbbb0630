#!/usr/bin/env bash
# The long soak, with the weft tool as users run it: `weft serve`, a `weft
# relay` that drops, duplicates and reorders datagrams, and several `weft
# connect` clients through it. Each client calls a numbered function N times
# (client to server) while the server updates a numbered item N times (server
# to client), both ways reliable over EUDP and plain over TCP. Every update
# must reach every client once and in order, and every call the server.
#   scripts/soak.sh [configuration ...]     (default: normal asan tsan)
#   WEFT_SOAK_MESSAGES   messages per client and direction (default 5000)
#   WEFT_SOAK_CLIENTS    clients per transport (default 8)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
messages=${WEFT_SOAK_MESSAGES:-5000}
clients=${WEFT_SOAK_CLIENTS:-8}
source "$root/scripts/sanitizer-options.sh"

configs=("$@")
if [ ${#configs[@]} -eq 0 ]; then
    configs=(normal asan tsan)
fi

# The first line a program writes to `file` that matches `pattern`, within 30 s.
wait_line() {
    local file=$1 pattern=$2
    for _ in $(seq 300); do
        if grep -m1 -E "$pattern" "$file" 2>/dev/null; then
            return 0
        fi
        sleep 0.1
    done
    echo "no line matching '$pattern' in $file" >&2
    return 1
}

# One soak on one transport with the weft tool at `weft`; work files in `work`.
soak() {
    local weft=$1 transport=$2 work=$3
    rm -rf "$work" && mkdir -p "$work"
    local pids=()
    # The server reads its commands from a pipe held open until the end.
    mkfifo "$work/serve.in"
    "$weft" serve -t "$transport" --port 0 <"$work/serve.in" >"$work/serve.out" 2>&1 &
    pids+=($!)
    exec {serve_in}>"$work/serve.in"
    local port
    port=$(wait_line "$work/serve.out" '^listening on' | grep -oE '[0-9]+$')
    local target=127.0.0.1:$port modes=()
    if [ "$transport" = eudp ]; then
        "$weft" relay -t eudp --listen 127.0.0.1:0 --to "$target" --drop 5% --dup 2% \
            --reorder 2% --seed 1 >"$work/relay.out" 2>&1 &
        pids+=($!)
        target=$(wait_line "$work/relay.out" '^relaying' | grep -oE '127\.0\.0\.1:[0-9]+' | head -1)
        modes=(--send-mode reliable --receive-mode reliable --window 32)
    fi
    local client fds=() clientpids=()
    for client in $(seq "$clients"); do
        # The calls, then whatever comes down the client's pipe: the client
        # ends at the end of its input, once the script has seen everything
        # arrive (an ending client drops what is still unacknowledged).
        mkfifo "$work/client$client.in"
        { seq 0 $((messages - 1)) | sed "s/.*/call tick$client seq=&/"; cat "$work/client$client.in"; } |
            "$weft" connect "$target" -t "$transport" "${modes[@]}" -s n \
                >"$work/client$client.out" 2>"$work/client$client.err" &
        clientpids+=($!)
        exec {fd}>"$work/client$client.in"
        fds+=("$fd")
    done
    # Every client subscribed before the first update.
    for _ in $(seq 300); do
        [ "$(grep -cE '^client [0-9]+ subscribe "n"$' "$work/serve.out")" -ge "$clients" ] && break
        sleep 0.1
    done
    seq 0 $((messages - 1)) | sed 's/.*/update n &/' >&"$serve_in"
    # Until every message has arrived, or ten minutes.
    local deadline=$((SECONDS + 600))
    while [ $SECONDS -lt $deadline ]; do
        [ "$(grep -cE '^client [0-9]+ call "tick' "$work/serve.out")" -ge $((clients * messages)) ] &&
            [ "$(cat "$work/"client*.out | grep -cE '^update "n" ')" -ge $((clients * messages)) ] &&
            break
        sleep 0.5
    done
    local failed=0
    for client in $(seq "$clients"); do
        # Updates of n, numbered 0 to N-1, once each and in order.
        if ! diff -q <(grep -E '^update "n" [0-9]+$' "$work/client$client.out" |
            grep -oE '[0-9]+$') <(seq 0 $((messages - 1))) >/dev/null; then
            echo "client $client: updates lost, repeated or out of order" && failed=1
        fi
        # Its calls, in order, at the server.
        if ! diff -q <(grep -E "^client [0-9]+ call \"tick$client\" seq=" "$work/serve.out" |
            grep -oE '[0-9]+$') <(seq 0 $((messages - 1))) >/dev/null; then
            echo "client $client: calls lost, repeated or out of order" && failed=1
        fi
    done
    for fd in "${fds[@]}"; do
        exec {fd}>&-
    done
    for client in $(seq "$clients"); do
        if ! wait "${clientpids[$((client - 1))]}"; then
            echo "client $client failed:" && tail -5 "$work/client$client.err"
            failed=1
        fi
    done
    exec {serve_in}>&-
    kill "${pids[@]}" 2>/dev/null || true
    wait 2>/dev/null || true
    return $failed
}

failed=()
for config in "${configs[@]}"; do
    dir="$root/build/$config"
    echo "=== $config: build"
    bash "$root/scripts/build.sh" "$config" "$dir" weft
    for transport in tcp eudp; do
        echo "=== $config $transport: $clients clients, $messages messages each way on each"
        start=$SECONDS
        if ! soak "$dir/tools/weft" "$transport" "$dir/soak-$transport"; then
            failed+=("$config $transport")
        fi
        echo "=== $config $transport: done in $((SECONDS - start)) s"
    done
done

if [ ${#failed[@]} -gt 0 ]; then
    echo "SOAK FAILED in: ${failed[*]}"
    exit 1
fi
echo "soak passed: ${configs[*]}"
