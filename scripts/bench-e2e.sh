#!/usr/bin/env bash
# End-to-end benchmark: decoding a realistic capture against inflating it.
#
# Writes a dictionary of 50 logs (5 modules with module headers, every
# parameter kind, enumerations, most logs with placeholders), makes captures
# of RECORDS records with binlog-synth (gzip, plain, and Ethernet-framed gzip),
# then times, alternating in one run:
#   - the references: `gzip -dc FILE > /dev/null`, and the zlib floor
#     (bench/zlib_floor: gzread in 128 KiB pieces, bytes thrown away);
#   - readBinaryFiledata to /dev/null, statistics off and on
#     (bench/decode_capture reader);
#   - the pull API, records and events only, no text (decode_capture values),
#     and with every value of every record read (decode_capture params);
#   - igzip -dc (ISA-L's inflater alone), when installed;
#   - binlog-decode DICT FILE > /dev/null with 1 and 2 workers, with zlib and
#     with ISA-L (inflating in a thread of its own either way), statistics
#     off and on;
#   - binlog-decode on the uncompressed and on the Ethernet capture;
#   - binlog-decode --format json and --format csv;
#   - binlog-decode --summary and --report FILE (the summary table and the
#     HTML report on top of the text lines);
#   - binlog-decode with a filter that keeps about 1 % of the records, by
#     level (level == CRITICAL) and by module and log.
# Reports the median of RUNS runs as records per second, the ratio of each
# rate to the `gzip -dc` rate on the same file, and the peak RSS.
#
#   scripts/bench-e2e.sh [RECORDS (default 2000000)] [RUNS (default 5)]
set -euo pipefail
cd "$(dirname "$0")/.."
records=${1:-2000000}
runs=${2:-5}
root=$(pwd)

scripts/install-deps.sh --bench time gzip
BUILD_DIR=build-release BUILD_TYPE=Release scripts/build.sh -DWEXBL_BUILD_TESTS=OFF \
    -DWEXBL_BUILD_BENCH=ON >/dev/null
decode=$root/build-release/bin/binlog-decode
synth=$root/build-release/bin/binlog-synth
routes=$root/build-release/bench/decode_capture
floor=$root/build-release/bench/zlib_floor

work=${BENCH_WORK:-$(mktemp -d /tmp/wexbl-bench-XXXXXX)}
mkdir -p "$work/dict"
trap '[ -n "${BENCH_KEEP:-}" ] || rm -rf "$work"' EXIT

# ---- The dictionary: 5 modules x 10 logs --------------------------------
{
    echo '<?xml version="1.0"?>'
    echo '<displays>'
    for e in 0 1 2 3; do
        echo "  <enum name=\"Enum$e\">"
        for v in $(seq 0 15); do echo "    <entry value=\"$v\" text=\"E${e}_VALUE_$v\"/>"; done
        echo '  </enum>'
    done
    echo '</displays>'
} >"$work/dict/bench_bindisplay.xml"
for m in 1 2 3 4 5; do
    {
        echo '<?xml version="1.0"?>'
        echo "<LoggingSubSystem subsystem=\"SUB$m\" subsystemId=\"$m\" module=\"mod$m\" moduleid=\"$((m + 10))\" binlogversion=\"$m\">"
        echo '  <ModuleHeader>'
        echo '    <p type="TavUint16_t" nameList="cellId"/>'
        echo '    <p type="TavUint8_t" nameList="carrier"/>'
        if [ "$m" = 5 ]; then echo '    <p type="TavUint64_t" nameList="session" displayFormat="hex"/>'; fi
        echo '  </ModuleHeader>'
        for l in 0 1 2 3 4 5 6 7 8 9; do
            case $l in
            0) echo '  <LogId name="StateChange" category="DIAG,x" logString="Cell moved to {state} at {sfn}">'
               echo '    <p type="TavUint16_t" nameList="state" displayFormat="Enum0"/>'
               echo '    <p type="TavUint32_t" nameList="sfn" displayFormat="SF-SFN"/>' ;;
            1) echo '  <LogId name="Grant" category="SCHED" logString="Grant ue {ueId} tbs {tbs} mcs {mcs}">'
               echo '    <p type="TavUint32_t" nameList="ueId,tbs"/>'
               echo '    <p type="TavUint8_t" nameList="mcs"/>' ;;
            2) echo '  <LogId name="Rssi" category="MEAS" logString="RSSI per antenna">'
               echo '    <p type="TavInt16_t" nameList="rssi" count="4"/>'
               echo '    <p type="TavUint32_t" nameList="mask" displayFormat="hex"/>' ;;
            3) echo '  <LogId name="Harq" category="ERR" logString="HARQ failure {retx} offset {offsetNs} pdu {pdu}">'
               echo '    <p type="TavInt8_t" nameList="retx"/>'
               echo '    <p type="TavInt64_t" nameList="offsetNs"/>'
               echo '    <p type="binarystring" nameList="pdu" size="4"/>' ;;
            4) echo '  <LogId name="RrcPdu" category="ASN1" logString="{msg} on {channel}: {pdu}">'
               echo '    <p type="TavUint16_t" nameList="msg" displayFormat="Enum1"/>'
               echo '    <p type="TavUint8_t" nameList="channel" displayFormat="Enum2"/>'
               echo '    <p type="varbinarystring" nameList="pdu" size="32"/>' ;;
            5) echo '  <LogId name="Peer" category="CONN" logString="peer {peer} ue {ueId} up">'
               echo '    <p type="string" nameList="peer" size="12"/>'
               echo '    <p type="TavUint32_t" nameList="ueId"/>' ;;
            6) echo '  <LogId name="Imsi" category="ID" logString="imsi {imsi} cause {cause}">'
               echo '    <p type="TavUint64_t" nameList="imsi"/>'
               echo '    <p type="TavUint8_t" nameList="cause" displayFormat="Enum3"/>' ;;
            7) echo '  <LogId name="Counters" category="PM" logString="counters {tx} {rx} {drop}">'
               echo '    <p type="TavUint32_t" nameList="tx,rx,drop"/>' ;;
            8) echo '  <LogId name="Temp" category="ENV" logString="Board sensors">'
               echo '    <p type="TavInt8_t" nameList="celsius" count="3"/>'
               echo '    <p type="TavInt32_t" nameList="drift"/>' ;;
            9) echo '  <LogId name="Timer" category="TIMER" logString="timer {timer} expired after {ms} ms">'
               echo '    <p type="TavUint16_t" nameList="timer" displayFormat="Enum0"/>'
               echo '    <p type="TavUint32_t" nameList="ms"/>' ;;
            esac
            echo '  </LogId>'
        done
        echo '</LoggingSubSystem>'
    } >"$work/dict/mod${m}_binlog.xml"
done

# ---- The captures -------------------------------------------------------
echo "writing $records records ..."
"$synth" --dict "$work/dict" --output "$work/capture.pcap.gz" --records "$records" --seed 1 \
    --gzip-level 6 --gap-every 5000
"$synth" --dict "$work/dict" --output "$work/capture.pcap" --records "$records" --seed 1 \
    --plain --gap-every 5000
"$synth" --dict "$work/dict" --output "$work/ethernet.pcap.gz" --records "$records" --seed 1 \
    --gzip-level 6 --link ipv4 --udp-port 5000 --gap-every 5000
small=20000
"$synth" --dict "$work/dict" --output "$work/small.pcap.gz" --records "$small" --seed 1 \
    --gzip-level 6

# ---- Timing ---------------------------------------------------------------
# Runs a command RUNS times, alternating with the others of its group, and
# prints "median_seconds max_rss_kib".
median() { sort -n | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'; }
declare -A times rss
measure() { # name command...
    local name=$1
    shift
    /usr/bin/time -f "%e %M" -o "$work/time.txt" "$@" >/dev/null 2>"$work/stderr.txt"
    read -r seconds kib <"$work/time.txt"
    times[$name]+="$seconds "
    if [ -z "${rss[$name]:-}" ] || [ "$kib" -gt "${rss[$name]}" ]; then rss[$name]=$kib; fi
}
igzip=$(command -v igzip || true)
for run in $(seq "$runs"); do
    measure gzip gzip -dc "$work/capture.pcap.gz"
    measure floor "$floor" "$work/capture.pcap.gz"
    if [ -n "$igzip" ]; then measure igzip "$igzip" -dc "$work/capture.pcap.gz"; fi
    measure reader "$routes" reader "$work/dict" "$work/capture.pcap.gz"
    measure reader_stats "$routes" reader-stats "$work/dict" "$work/capture.pcap.gz"
    measure values "$routes" values "$work/dict" "$work/capture.pcap.gz"
    measure params "$routes" params "$work/dict" "$work/capture.pcap.gz"
    measure decode_zlib "$decode" -j 1 --inflater zlib "$work/dict" "$work/capture.pcap.gz"
    measure decode_zlib2 "$decode" -j 2 --inflater zlib "$work/dict" "$work/capture.pcap.gz"
    measure decode "$decode" -j 1 "$work/dict" "$work/capture.pcap.gz"
    measure decode2 "$decode" -j 2 "$work/dict" "$work/capture.pcap.gz"
    measure decode_stats "$decode" -j 1 --stats "$work/dict" "$work/capture.pcap.gz"
    measure decode_stats2 "$decode" -j 2 --stats "$work/dict" "$work/capture.pcap.gz"
    measure decode_plain "$decode" -j 2 "$work/dict" "$work/capture.pcap"
    measure gzip_eth gzip -dc "$work/ethernet.pcap.gz"
    measure decode_eth "$decode" -j 2 --udp-port 5000 "$work/dict" "$work/ethernet.pcap.gz"
    measure decode_json "$decode" -j 1 --format json "$work/dict" "$work/capture.pcap.gz"
    measure decode_json2 "$decode" -j 2 --format json "$work/dict" "$work/capture.pcap.gz"
    measure decode_csv2 "$decode" -j 2 --format csv "$work/dict" "$work/capture.pcap.gz"
    measure summary2 "$decode" -j 2 --summary "$work/dict" "$work/capture.pcap.gz"
    measure report2 "$decode" -j 2 --report "$work/report.html" "$work/dict" \
        "$work/capture.pcap.gz"
    measure filter_level "$decode" -j 2 --filter 'level == CRITICAL' "$work/dict" \
        "$work/capture.pcap.gz"
    measure filter_log "$decode" -j 2 --filter 'module == SUB3:mod3 && log == Timer' \
        "$work/dict" "$work/capture.pcap.gz"
done
measure decode_small "$decode" -j 2 "$work/dict" "$work/small.pcap.gz"

rate() { awk -v n="$records" -v s="$1" 'BEGIN { printf "%.0f", n / s }'; }
report() { # label name reference
    local t ref
    t=$(tr ' ' '\n' <<<"${times[$2]}" | grep . | median)
    ref=$(tr ' ' '\n' <<<"${times[$3]}" | grep . | median)
    printf '%-40s %8.2f s %12s rec/s   ratio %.2f   peak RSS %6.1f MiB\n' "$1" "$t" \
        "$(rate "$t")" "$(awk -v a="$ref" -v b="$t" 'BEGIN { print a / b }')" \
        "$(awk -v k="${rss[$2]}" 'BEGIN { print k / 1024 }')"
}
echo
echo "$records records, median of $runs runs ($(nproc) cores, $(uname -m))"
report "gzip -dc (compressed, link 150)" gzip gzip
report "zlib floor (inflate only)" floor gzip
if [ -n "$igzip" ]; then report "igzip -dc (ISA-L, inflate only)" igzip gzip; fi
report "readBinaryFiledata, statistics off" reader gzip
report "readBinaryFiledata, statistics on" reader_stats gzip
report "pull API, records and events (no text)" values gzip
report "pull API, every value of every record read" params gzip
report "binlog-decode -j 1, zlib, pipelined" decode_zlib gzip
report "binlog-decode -j 2, zlib" decode_zlib2 gzip
report "binlog-decode -j 1, ISA-L, pipelined" decode gzip
report "binlog-decode -j 2, ISA-L" decode2 gzip
report "binlog-decode -j 1 --stats, ISA-L" decode_stats gzip
report "binlog-decode -j 2 --stats, ISA-L" decode_stats2 gzip
report "binlog-decode -j 2, uncompressed file" decode_plain gzip
report "gzip -dc (Ethernet capture)" gzip_eth gzip_eth
report "binlog-decode -j 2, Ethernet capture" decode_eth gzip_eth
report "binlog-decode -j 1 --format json" decode_json gzip
report "binlog-decode -j 2 --format json" decode_json2 gzip
report "binlog-decode -j 2 --format csv" decode_csv2 gzip
report "binlog-decode -j 2 --summary" summary2 gzip
report "binlog-decode -j 2 --report FILE" report2 gzip
report "binlog-decode -j 2 -Y 'level == CRITICAL'" filter_level gzip
report "binlog-decode -j 2 -Y module and log" filter_log gzip
printf '%-40s peak RSS %.1f MiB (20000 records) vs %.1f MiB (%s records)\n' "memory" \
    "$(awk -v k="${rss[decode_small]}" 'BEGIN { print k / 1024 }')" \
    "$(awk -v k="${rss[decode2]}" 'BEGIN { print k / 1024 }')" "$records"
