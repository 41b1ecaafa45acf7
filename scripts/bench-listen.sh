#!/usr/bin/env bash
# Live decoding benchmark: the highest rate at which
# `binlog-decode --listen 127.0.0.1:PORT > /dev/null` loses no datagram.
#
#   scripts/bench-listen.sh [RATE...]
#
# For each rate (default 100000 200000 300000 400000 500000 600000),
# `binlog-synth --send` sends RECORDS random records (default 500000) paced at
# that rate, RUNS times (default 3); the listener is stopped with SIGINT
# once the sender is done and its summary tells what arrived. A table of
# rate, run, the sender's achieved rate, datagrams received, dropped by the
# kernel and lost, and the highest rate at which every run lost nothing.
#
# The sender needs a core of its own for the high rates; on a busy machine
# it may not reach them (the sent/s column tells). The listener's own
# capacity is therefore also measured apart: it is stopped (SIGSTOP) while
# RECORDS datagrams fill a large receive buffer (--buffer-size 1000000000;
# SO_RCVBUFFORCE needs CAP_NET_ADMIN, else the system's limit applies), then
# let go, and its CPU time to decode them all is reported as datagrams per
# CPU second.
#
# BUILD_DIR (default build) holds the tools, DICT the dictionary (default
# examples/dictionary), BUFFER the listener's --buffer-size (default: the
# system's default receive buffer).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build}
decode=$build/bin/binlog-decode
synth=$build/bin/binlog-synth
dict=${DICT:-examples/dictionary}
records=${RECORDS:-500000}
runs=${RUNS:-3}
rates=("$@")
if [ ${#rates[@]} -eq 0 ]; then
    rates=(100000 200000 300000 400000 500000 600000)
fi
for tool in "$decode" "$synth"; do
    if [ ! -x "$tool" ]; then
        echo "bench-listen: $tool not built (BUILD_DIR=$build)" >&2
        exit 1
    fi
done

work=$(mktemp -d)
listener=""
cleanup() {
    if [ -n "$listener" ]; then
        kill "$listener" 2>/dev/null || true
        wait "$listener" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# A UDP port that nobody is bound to on 127.0.0.1.
free_port() {
    python3 -c 'import socket
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])'
}

# Whether a UDP socket is bound to port $1.
bound() {
    local hex
    hex=$(printf ':%04X ' "$1")
    grep -q "$hex" /proc/net/udp /proc/net/udp6 2>/dev/null
}

buffer_args=()
if [ -n "${BUFFER:-}" ]; then
    buffer_args=(--buffer-size "$BUFFER")
fi

printf '%-8s %-4s %-10s %-10s %-8s %-8s\n' rate run sent/s received dropped lost
best=0
fastest=0
for rate in "${rates[@]}"; do
    clean=1
    for run in $(seq 1 "$runs"); do
        port=$(free_port)
        "$decode" --dict "$dict" --listen "127.0.0.1:$port" "${buffer_args[@]}" \
            >/dev/null 2>"$work/err" &
        listener=$!
        for _ in $(seq 1 250); do
            bound "$port" && break
            sleep 0.02
        done
        "$synth" --send "127.0.0.1:$port" --dict "$dict" --records "$records" --rate "$rate" \
            -v 2>"$work/send" || true
        # What is still in the socket's buffer is decoded before the end.
        sleep 0.5
        kill -INT "$listener"
        wait "$listener" || true
        listener=""
        summary=$(grep -E 'datagrams received' "$work/err" | tail -1)
        received=$(sed -E 's/.*: ([0-9]+) datagrams received.*/\1/' <<<"$summary")
        dropped=$(sed -E 's/.* ([0-9]+) dropped by the kernel.*/\1/' <<<"$summary")
        achieved=$(sed -nE 's/.*\(([0-9]+) per second\).*/\1/p' "$work/send")
        lost=$((records - received))
        [ "$lost" -eq 0 ] || clean=0
        if [ "$lost" -eq 0 ] && [ "${achieved:-0}" -gt "$fastest" ]; then
            fastest=$achieved
        fi
        printf '%-8s %-4s %-10s %-10s %-8s %-8s\n' "$rate" "$run" "${achieved:-?}" "$received" \
            "$dropped" "$lost"
    done
    if [ "$clean" -eq 1 ] && [ "$rate" -gt "$best" ]; then
        best=$rate
    fi
done
echo "highest rate asked without loss in all $runs runs: $best datagrams/s ($records records each)"
echo "fastest run without loss: $fastest datagrams/s as sent (the sender may not reach the rate asked)"

# The listener alone: decoding a full receive buffer.
port=$(free_port)
"$decode" --dict "$dict" --listen "127.0.0.1:$port" --buffer-size 1000000000 \
    --count "$records" >/dev/null 2>"$work/err" &
listener=$!
for _ in $(seq 1 250); do
    bound "$port" && break
    sleep 0.02
done
kill -STOP "$listener"
"$synth" --send "127.0.0.1:$port" --dict "$dict" --records "$records" --rate 0 2>/dev/null || true
ticks() { awk '{print $14 + $15}' "/proc/$listener/stat" 2>/dev/null; }
before=$(ticks)
last=$before
kill -CONT "$listener"
# Until it ends (--count) or nothing more can come (datagrams dropped).
for _ in $(seq 1 3000); do
    state=$(awk '{print $3}' "/proc/$listener/stat" 2>/dev/null || echo Z)
    [ "$state" != Z ] || break
    now=$(ticks) && last=${now:-$last}
    sleep 0.01
done
kill -INT "$listener" 2>/dev/null || true
wait "$listener" || true
listener=""
received=$(sed -nE 's/.*: ([0-9]+) datagrams received.*/\1/p' "$work/err" | tail -1)
hz=$(getconf CLK_TCK)
awk -v n="$received" -v t=$((last - before)) -v hz="$hz" 'BEGIN {
    s = t / hz
    printf "listener alone: %d datagrams from a full receive buffer in %.2f CPU seconds", n, s
    if (s > 0) printf " (%.0f datagrams per CPU second)", n / s
    printf "\n"
}'
