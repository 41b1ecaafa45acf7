#!/usr/bin/env bash
# How binlog-decode's rate and memory grow with the capture and the workers.
#
# Makes captures of 200,000, 2,000,000 and 20,000,000 records (or the sizes
# given) with binlog-synth for the dictionary of scripts/bench-e2e.sh, then
# times, alternating in one run, `gzip -dc FILE > /dev/null` and
# `binlog-decode -j 1` and `-j 2` on each, and prints the median rate, its
# ratio to gzip -dc's and the peak RSS: the time should grow linearly with
# the records, the RSS not at all.
#
#   scripts/bench-scale.sh [RUNS (default 3)] [SIZES (default "200000 2000000 20000000")]
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-3}
sizes=${2:-200000 2000000 20000000}
root=$(pwd)

scripts/install-deps.sh --bench time gzip
BUILD_DIR=build-release BUILD_TYPE=Release scripts/build.sh -DWEXBL_BUILD_TESTS=OFF \
    -DWEXBL_BUILD_BENCH=ON >/dev/null
decode=$root/build-release/bin/binlog-decode
synth=$root/build-release/bin/binlog-synth

work=${BENCH_WORK:-$(mktemp -d /tmp/wexbl-scale-XXXXXX)}
trap '[ -n "${BENCH_KEEP:-}" ] || rm -rf "$work"' EXIT
# The dictionary of the end-to-end benchmark: written by it, kept here.
if [ ! -d "$work/dict" ]; then
    BENCH_WORK=$work/e2e BENCH_KEEP=1 scripts/bench-e2e.sh 20000 1 >/dev/null
    cp -r "$work/e2e/dict" "$work/dict"
    rm -rf "$work/e2e"
fi
for n in $sizes; do
    [ -f "$work/c$n.pcap.gz" ] || "$synth" --dict "$work/dict" --output "$work/c$n.pcap.gz" \
        --records "$n" --seed 1 --gzip-level 6 --gap-every 5000
done

median() { sort -n | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'; }
declare -A times rss
measure() { # name command...
    local name=$1
    shift
    /usr/bin/time -f "%e %M" -o "$work/time.txt" "$@" >/dev/null 2>/dev/null
    read -r seconds kib <"$work/time.txt"
    times[$name]+="$seconds "
    if [ -z "${rss[$name]:-}" ] || [ "$kib" -gt "${rss[$name]}" ]; then rss[$name]=$kib; fi
}
for run in $(seq "$runs"); do
    for n in $sizes; do
        measure "gzip$n" gzip -dc "$work/c$n.pcap.gz"
        measure "j1_$n" "$decode" -j 1 "$work/dict" "$work/c$n.pcap.gz"
        measure "j2_$n" "$decode" -j 2 "$work/dict" "$work/c$n.pcap.gz"
    done
done
echo "median of $runs runs ($(nproc) cores, $(uname -m))"
printf '%-12s %-14s %10s %14s %8s %10s\n' records run seconds "records/s" ratio "peak RSS"
for n in $sizes; do
    ref=$(tr ' ' '\n' <<<"${times[gzip$n]}" | grep . | median)
    for name in "gzip$n" "j1_$n" "j2_$n"; do
        t=$(tr ' ' '\n' <<<"${times[$name]}" | grep . | median)
        case $name in gzip*) label="gzip -dc" ;; j1*) label="-j 1" ;; *) label="-j 2" ;; esac
        printf '%-12s %-14s %10.2f %14.0f %8.2f %7.1f MiB\n' "$n" "$label" "$t" \
            "$(awk -v n="$n" -v s="$t" 'BEGIN { print n / s }')" \
            "$(awk -v a="$ref" -v b="$t" 'BEGIN { print a / b }')" \
            "$(awk -v k="${rss[$name]}" 'BEGIN { print k / 1024 }')"
    done
done
