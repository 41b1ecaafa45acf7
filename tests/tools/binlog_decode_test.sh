#!/usr/bin/env bash
# Command-line tests of binlog-decode: every option, the exit statuses, the
# exact messages, and the decoded output of the bundled example.
#
#   binlog_decode_test.sh CASE DECODE SYNTH EXAMPLES_DIR EXPECTED_DIR WORK_DIR VERSION [EMULATOR]
#
# DECODE and SYNTH are the two tools, EXAMPLES_DIR the bundled example
# (dictionary/ and captures/), EXPECTED_DIR the expected outputs of this
# directory, WORK_DIR a scratch directory of this case (emptied first),
# VERSION the project version and EMULATOR the command that runs target
# programs on a cross build ("|" between its words; empty on a native build).
#
# The expected outputs of the two sample captures are
# expected/link150_stats.out and expected/ipv4_port5000_stats.out (decoded
# with --stats --udp-port 5000); the other cases derive theirs from those two
# by the rule of the option under test, or spell them out here.
set -u

if [ $# -lt 7 ]; then
    echo "usage: $0 CASE DECODE SYNTH EXAMPLES_DIR EXPECTED_DIR WORK_DIR VERSION [EMULATOR]" >&2
    exit 2
fi
case_name=$1
DECODE=$2
SYNTH=$3
EXAMPLES=$4
EXPECTED=$5
W=$6
VERSION=$7
EMU=()
if [ -n "${8:-}" ]; then
    IFS='|' read -r -a EMU <<<"$8"
fi

DICT=$EXAMPLES/dictionary
CAPS=$EXAMPLES/captures
LINK150=$CAPS/link150.pcap.gz
IPV4=$CAPS/ipv4_port5000.pcap.gz
EXP_LINK150=$EXPECTED/link150_stats.out
EXP_IPV4=$EXPECTED/ipv4_port5000_stats.out
TRY=$'Try \'binlog-decode --help\' for more information.\n'

rm -rf "$W"
mkdir -p "$W" || exit 1
export TZ=UTC0

failures=0
last_cmd=""

fail() {
    printf 'FAIL [%s] %s\n      command: %s\n' "$case_name" "$*" "$last_cmd" >&2
    failures=$((failures + 1))
}

# Runs binlog-decode with the given arguments. Standard output goes to
# $OUT_TARGET (default $W/out), standard error to $W/err, the exit status to
# $rc.
run_decode() {
    last_cmd="binlog-decode $*"
    "${EMU[@]}" "$DECODE" "$@" >"${OUT_TARGET:-$W/out}" 2>"$W/err"
    rc=$?
}

# Writes a capture with binlog-synth from the script on standard input.
synth() {
    local out=$1
    shift
    if ! "${EMU[@]}" "$SYNTH" --dict "$DICT" --script - --output "$out" "$@" 2>"$W/synth.err"; then
        echo "binlog-synth failed for $out:" >&2
        cat "$W/synth.err" >&2
        exit 1
    fi
}

# same_file EXPECTED ACTUAL WHAT: byte-for-byte comparison.
same_file() {
    if ! cmp -s "$1" "$2"; then
        fail "$3 differs from what is expected:"
        diff -u "$1" "$2" | head -n 60 >&2
    fi
}
# same_text TEXT ACTUAL WHAT
same_text() {
    printf '%s' "$1" >"$W/expected.txt"
    same_file "$W/expected.txt" "$2" "$3"
}
expect_rc() {
    [ "$rc" = "$1" ] || fail "exit status $rc, expected $1"
}
expect_out_file() { same_file "$1" "$W/out" "standard output"; }
expect_out_text() { same_text "$1" "$W/out" "standard output"; }
expect_out_empty() { same_text "" "$W/out" "standard output"; }
expect_err_text() { same_text "$1" "$W/err" "standard error"; }
expect_err_empty() { same_text "" "$W/err" "standard error"; }

# The names in directory DIR that hold "pcap.gz", in the order readdir
# yields them (ls -f does not sort).
capture_entries() {
    # shellcheck disable=SC2010 # the unsorted order is the point here
    ls -f "$1" | grep -F 'pcap.gz'
}

# The two sample captures' outputs without statistics: the statistics are
# the only lines that start with ">>".
without_stats() { grep -v '^>>' "$1"; }

# A decoded line of a binary log record whose module has a header, as the
# library prints it.
binlog_line() {
    printf '[%s] [%10s] [%25s] [%8s] [%10s] [%u] [%s] [%s] \n' "$@"
}

# ---------------------------------------------------------------------------

case_example_files() {
    # The README's command, with the two captures named one by one.
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    run_decode --stats --udp-port 5000 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_empty
    # The other order gives the per-file outputs in the other order: the
    # statistics start again with each file.
    cat "$EXP_IPV4" "$EXP_LINK150" >"$W/reversed.out"
    run_decode --stats --udp-port 5000 "$DICT" "$IPV4" "$LINK150"
    expect_rc 0
    expect_out_file "$W/reversed.out"
    expect_err_empty
}

case_example_directory() {
    # The directory form takes the "pcap.gz" entries in the order the
    # directory yields them (not sorted).
    : >"$W/golden.out"
    local name
    while IFS= read -r name; do
        case $name in
            link150.pcap.gz) cat "$EXP_LINK150" >>"$W/golden.out" ;;
            ipv4_port5000.pcap.gz) cat "$EXP_IPV4" >>"$W/golden.out" ;;
            *) fail "unexpected capture $name in $CAPS" ;;
        esac
    done < <(capture_entries "$CAPS")
    [ "$(wc -l <"$W/golden.out")" -gt 40 ] || fail "the example directory lacks its captures"
    run_decode --stats --udp-port 5000 "$DICT" "$CAPS"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_empty
    run_decode --stats --udp-port 5000 "$DICT" "$CAPS/"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_empty
}

case_without_stats() {
    { without_stats "$EXP_LINK150" && without_stats "$EXP_IPV4"; } >"$W/nostats.out"
    run_decode --udp-port 5000 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/nostats.out"
    expect_err_empty
    # A link type 150 capture needs no UDP port.
    without_stats "$EXP_LINK150" >"$W/link150.out"
    run_decode "$DICT" "$LINK150"
    expect_rc 0
    expect_out_file "$W/link150.out"
    expect_err_empty
}

case_short_options() {
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    run_decode -s -p 5000 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_empty
    # Every short option with its default value, and the "--opt=value" forms.
    run_decode -s -p 5000 -m 65535 -u 0 -o "$W/short.out" "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_empty
    expect_err_empty
    same_file "$W/golden.out" "$W/short.out" "the -o file"
    run_decode --stats --udp-port=5000 --max-var-bytes=65535 --utc-offset=0 \
        --output="$W/long.out" "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_empty
    expect_err_empty
    same_file "$W/golden.out" "$W/long.out" "the --output= file"
    # Options may follow the operands.
    run_decode "$DICT" "$LINK150" "$IPV4" --stats -p5000
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_empty
}

case_dictionary_trailing_slash() {
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    run_decode --stats --udp-port 5000 "$DICT/" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_empty
    cp "$W/out" "$W/with_slash.out"
    run_decode --stats --udp-port 5000 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    same_file "$W/with_slash.out" "$W/out" "output without the trailing slash"
    expect_err_empty
}

case_udp_port() {
    # Port 5001 selects only the one datagram sent there: OAM:sys record
    # number 2 (number 1 went to port 5000), 60 ms after the first record.
    {
        binlog_line "2024-05-01T12:00:01.060Z" "OAM:sys" "AlarmRaised" "ERROR" "ALARM" 2 \
            "bootId=0x5eed0002 host=enb-02 slot=2 " \
            "Alarm alarmId=2002 severity=CRITICAL: text=not for this port"
        # One record: the first and last times are equal, so the span counts
        # as 1 ms. Its length as counted is the Ethernet frame's storage
        # length + 16 - 42: 14 + 20 + 8 + 16 + 77 bytes of log record, + 16 - 42.
        printf '%s\n' ">>totalRecords =  1" ">>missingRecords =  0 (0.000000%)" \
            ">>outOfOrderRecords =  0" ">>records received/msec = 1.00" \
            ">>records generated at source/msec = 1.00" ">>records received/sec = 1000.00" \
            ">>records generated at source/sec = 1000.00" ">>total log record size = 109" \
            ">>average log record size = 109"
    } >"$W/port5001.out"
    run_decode --stats --udp-port 5001 "$DICT" "$IPV4"
    expect_rc 0
    expect_out_file "$W/port5001.out"
    expect_err_empty
    run_decode -p 5001 "$DICT" "$IPV4"
    expect_rc 0
    head -n 1 "$W/port5001.out" >"$W/port5001_nostats.out"
    expect_out_file "$W/port5001_nostats.out"
    expect_err_empty
    # No datagram goes to port 0 or 65535 (both valid ports).
    local port
    for port in 0 65535; do
        run_decode --stats --udp-port "$port" "$DICT" "$IPV4"
        expect_rc 0
        expect_out_text $'>>totalRecords =  0\n'
        expect_err_empty
    done
}

case_max_var_bytes() {
    # A var binary string shows its count and then the first N of its bytes.
    sed -E 's/payload size:([0-9]+) ([0-9a-f]{2}:[0-9a-f]{2})[0-9a-f:]*/payload size:\1 \2/g' \
        "$EXP_LINK150" "$EXP_IPV4" >"$W/max2.out"
    if ! grep -qF 'delta=payload size:6 0a:0b]' "$W/max2.out" ||
        ! grep -qF 'raw=payload size:8 de:ad ]' "$W/max2.out" ||
        ! grep -qF 'pdu=payload size:7 28:a0]' "$W/max2.out"; then
        fail "the expected output for --max-var-bytes 2 was not derived"
    fi
    run_decode --stats --udp-port 5000 --max-var-bytes 2 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/max2.out"
    expect_err_empty
    run_decode -s -p 5000 -m 2 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/max2.out"
    # With 0 nothing follows the blank after the count.
    sed -E 's/payload size:([0-9]+) [0-9a-f:]*/payload size:\1 /g' \
        "$EXP_LINK150" "$EXP_IPV4" >"$W/max0.out"
    grep -qF 'delta=payload size:6 ]' "$W/max0.out" ||
        fail "the expected output for --max-var-bytes 0 was not derived"
    run_decode --stats --udp-port 5000 --max-var-bytes 0 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/max0.out"
    expect_err_empty
    # 8 bytes: every string of the example is shown whole.
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    run_decode --stats --udp-port 5000 --max-var-bytes 8 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_empty
}

case_utc_offset() {
    # The offset moves the shown clock of every record line (the "Z" stays);
    # the statistics use the records' own times and do not change.
    local offset shown
    for offset in 60 -300 1440; do
        shown=$(date -u -d "2024-05-01T12:00:00Z $offset minutes" +%Y-%m-%dT%H)
        sed "s/^\[2024-05-01T12/[$shown/" "$EXP_LINK150" "$EXP_IPV4" >"$W/offset.out"
        grep -q "^\[$shown:00:01.055Z\] \[wireshark\]" "$W/offset.out" ||
            fail "the expected output for --utc-offset $offset was not derived"
        run_decode --stats --udp-port 5000 --utc-offset "$offset" "$DICT" "$LINK150" "$IPV4"
        expect_rc 0
        expect_out_file "$W/offset.out"
        expect_err_empty
        run_decode -s -p 5000 -u "$offset" "$DICT" "$LINK150" "$IPV4"
        expect_rc 0
        expect_out_file "$W/offset.out"
    done
    # The extreme offsets: the shown seconds are the record's seconds plus
    # 60 * offset, modulo 2^32, read as seconds since 1970.
    local sec=1714564800
    for offset in 35791394 -35791394; do
        shown=$(date -u -d "@$(((sec + 60 * offset + 4294967296) % 4294967296))" +%Y-%m-%dT%H:%M:%S)
        sed "s/^\[2024-05-01T12:00:00\./[$shown./" "$EXP_LINK150" >"$W/offset.out"
        run_decode --stats --utc-offset "$offset" "$DICT" "$LINK150"
        expect_rc 0
        expect_out_file "$W/offset.out"
        expect_err_empty
    done
}

case_output_file() {
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    run_decode --stats --udp-port 5000 "$DICT" "$LINK150" "$IPV4"
    cp "$W/out" "$W/stdout.out"
    # --output writes the same bytes, replacing what the file held.
    printf 'old content that is longer than nothing\n%.0s' {1..500} >"$W/decoded.txt"
    run_decode --stats --udp-port 5000 --output "$W/decoded.txt" "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_empty
    expect_err_empty
    same_file "$W/stdout.out" "$W/decoded.txt" "the --output file"
    same_file "$W/golden.out" "$W/decoded.txt" "the --output file"
    # Messages still go to standard error, lines to the file.
    run_decode -o "$W/partial.txt" "$DICT" "$W/missing.pcap.gz" "$LINK150"
    expect_rc 1
    expect_out_empty
    expect_err_text "File open failed [$W/missing.pcap.gz]"$'\n'
    without_stats "$EXP_LINK150" >"$W/link150.out"
    same_file "$W/link150.out" "$W/partial.txt" "the -o file"
}

case_output_not_writable() {
    run_decode --output "$W/no/such/dir/out.txt" "$DICT" "$LINK150"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: cannot write '$W/no/such/dir/out.txt': No such file or directory"$'\n'
    mkdir -p "$W/adir"
    run_decode -o "$W/adir" "$DICT" "$LINK150"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: cannot write '$W/adir': Is a directory"$'\n'
    if [ -w /dev/full ]; then
        OUT_TARGET=/dev/full run_decode "$DICT" "$LINK150"
        expect_rc 1
        expect_err_text $'binlog-decode: error writing the output: No space left on device\n'
        run_decode --output /dev/full "$DICT" "$LINK150"
        expect_rc 1
        expect_out_empty
        expect_err_text $'binlog-decode: error writing the output: No space left on device\n'
    else
        echo "note: /dev/full is missing; the write-error checks were not run" >&2
    fi
}

case_stdin() {
    # "-" reads the capture from standard input, compressed or not, from a
    # file or a pipe.
    run_decode --stats "$DICT" - <"$LINK150"
    expect_rc 0
    expect_out_file "$EXP_LINK150"
    expect_err_empty
    gzip -dc "$LINK150" >"$W/link150.pcap"
    run_decode --stats "$DICT" - <"$W/link150.pcap"
    expect_rc 0
    expect_out_file "$EXP_LINK150"
    expect_err_empty
    run_decode --stats --udp-port 5000 "$DICT" - < <(gzip -dc "$IPV4")
    expect_rc 0
    expect_out_file "$EXP_IPV4"
    expect_err_empty
    run_decode --stats --udp-port 5000 "$DICT" "$LINK150" - < <(cat "$IPV4")
    expect_rc 0
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    expect_out_file "$W/golden.out"
    expect_err_empty
    # Empty standard input is a capture without a global header.
    run_decode "$DICT" - </dev/null
    expect_rc 1
    expect_out_empty
    expect_err_text $'No global header found\n'
}

case_capture_directory() {
    # Only the entries whose names contain "pcap.gz" are decoded, in the
    # order the directory yields them; other files and subdirectories are
    # left alone.
    local d=$W/caps
    mkdir -p "$d/sub.d"
    cp "$LINK150" "$d/link150.pcap.gz"
    cp "$IPV4" "$d/ipv4_port5000.pcap.gz"
    cp "$LINK150" "$d/again.pcap.gz.old"
    gzip -dc "$LINK150" >"$d/plain.pcap"
    cp "$IPV4" "$d/other.gz"
    echo "not a capture" >"$d/readme.txt"
    cp "$LINK150" "$d/sub.d/nested.pcap.gz"
    : >"$W/expected.out"
    local name count=0
    while IFS= read -r name; do
        case $name in
            link150.pcap.gz | again.pcap.gz.old) cat "$EXP_LINK150" >>"$W/expected.out" ;;
            ipv4_port5000.pcap.gz) cat "$EXP_IPV4" >>"$W/expected.out" ;;
            *) fail "unexpected entry $name" ;;
        esac
        count=$((count + 1))
    done < <(capture_entries "$d")
    [ "$count" = 3 ] || fail "expected 3 capture entries, found $count"
    run_decode --stats --udp-port 5000 "$DICT" "$d"
    expect_rc 0
    expect_out_file "$W/expected.out"
    expect_err_empty
    run_decode --stats --udp-port 5000 "$DICT" "$d/"
    expect_rc 0
    expect_out_file "$W/expected.out"
    expect_err_empty
    # A directory and a file in one call: the directory's captures first.
    cat "$W/expected.out" "$EXP_IPV4" >"$W/both.out"
    run_decode --stats --udp-port 5000 "$DICT" "$d" "$IPV4"
    expect_rc 0
    expect_out_file "$W/both.out"
    expect_err_empty
}

case_help() {
    run_decode --help
    expect_rc 0
    expect_err_empty
    cp "$W/out" "$W/help.out"
    [ "$(head -n 1 "$W/help.out")" = "Usage: binlog-decode [options] DICTIONARY_DIR CAPTURE..." ] ||
        fail "the help does not start with the usage line"
    local option
    for option in "-s, --stats" "-p, --udp-port PORT" "-m, --max-var-bytes N" \
        "-u, --utc-offset MINUTES" "-o, --output FILE" "-h, --help" "-V, --version"; do
        grep -qF -- "  $option " "$W/help.out" || fail "the help does not list $option"
    done
    # The defaults and the exit statuses are documented.
    grep -qF "default 65535" "$W/help.out" || fail "the help lacks the --max-var-bytes default"
    grep -qF "(default 0)" "$W/help.out" || fail "the help lacks the --utc-offset default"
    tr -s '\n ' '  ' <"$W/help.out" >"$W/help.flat"
    grep -qF "Exit status: 0 when every capture was read" "$W/help.flat" ||
        fail "the help lacks the exit statuses"
    grep -qF "1 when the dictionaries did not load" "$W/help.flat" ||
        fail "the help lacks exit status 1"
    grep -qF "2 on a usage error" "$W/help.flat" || fail "the help lacks exit status 2"
    run_decode -h
    expect_rc 0
    expect_out_file "$W/help.out"
    expect_err_empty
    # --help wins over everything after it, operands included.
    run_decode --help --udp-port 70000 /nonexistent
    expect_rc 0
    expect_out_file "$W/help.out"
    expect_err_empty
}

case_version() {
    run_decode --version
    expect_rc 0
    expect_out_text "binlog-decode $VERSION"$'\n'
    expect_err_empty
    run_decode -V "$DICT" "$W/missing.pcap.gz"
    expect_rc 0
    expect_out_text "binlog-decode $VERSION"$'\n'
    expect_err_empty
}

case_dictionary_errors() {
    # A dictionary that does not load: the library's message (which has no
    # line feed), then ours; exit status 1, nothing decoded.
    run_decode "$W/nodict" "$LINK150"
    expect_rc 1
    expect_out_empty
    expect_err_text "Error in opening directory $W/nodict/ "$'\n'"binlog-decode: cannot load the dictionaries in '$W/nodict'"$'\n'
    run_decode --stats "$W/nodict/" "$LINK150"
    expect_rc 1
    expect_out_empty
    expect_err_text "Error in opening directory $W/nodict/ "$'\n'"binlog-decode: cannot load the dictionaries in '$W/nodict/'"$'\n'
    # Only bindisplay files: no binlog dictionary (twenty blanks are part of
    # the library's message).
    mkdir -p "$W/displayonly"
    cp "$DICT/common_bindisplay.xml" "$W/displayonly/"
    run_decode "$W/displayonly" "$LINK150"
    expect_rc 1
    expect_out_empty
    expect_err_text "Error no xml files found for binary logging in                    $W/displayonly/"$'\n'"binlog-decode: cannot load the dictionaries in '$W/displayonly'"$'\n'
    # A binlog file whose LogId lacks its category.
    mkdir -p "$W/baddict"
    cat >"$W/baddict/bad_binlog.xml" <<'EOF'
<LoggingSubSystem subsystem="X" subsystemId="1" module="m" moduleid="1" binlogversion="1">
  <LogId name="a" logString="b"/>
</LoggingSubSystem>
EOF
    run_decode "$W/baddict" "$LINK150"
    expect_rc 1
    expect_out_empty
    expect_err_text "Mandatory params in the LogId node missing"$'\n'"Error in parseLogIdError in parseBinLogXmlError parseBinLogXml failed for :$W/baddict/bad_binlog.xml"$'\n'"binlog-decode: cannot load the dictionaries in '$W/baddict'"$'\n'
    # A regular file where the directory should be.
    run_decode "$LINK150" "$LINK150"
    expect_rc 1
    expect_out_empty
    expect_err_text "Error in opening directory $LINK150/ "$'\n'"binlog-decode: cannot load the dictionaries in '$LINK150'"$'\n'
    # An empty name is not turned into the root directory.
    run_decode "" "$LINK150"
    expect_rc 1
    expect_out_empty
    grep -qxF "Invalid xmlPath provided as input" "$W/err" ||
        fail "the library's message about the empty path is missing"
    [ "$(tail -n 1 "$W/err")" = "binlog-decode: cannot load the dictionaries in ''" ] ||
        fail "the last message is not about the empty dictionary name"
}

case_capture_errors() {
    # A missing capture, and one below a regular file: the library's
    # message, the other captures still decoded, exit status 1.
    run_decode --stats "$DICT" "$W/missing.pcap.gz"
    expect_rc 1
    expect_out_empty
    expect_err_text "File open failed [$W/missing.pcap.gz]"$'\n'
    run_decode "$DICT" "$LINK150/x.pcap.gz"
    expect_rc 1
    expect_out_empty
    expect_err_text "File open failed [$LINK150/x.pcap.gz]"$'\n'
    run_decode --stats "$DICT" "$W/missing.pcap.gz" "$LINK150"
    expect_rc 1
    expect_out_file "$EXP_LINK150"
    expect_err_text "File open failed [$W/missing.pcap.gz]"$'\n'
    run_decode --stats "$DICT" "$LINK150" "$W/missing.pcap.gz"
    expect_rc 1
    expect_out_file "$EXP_LINK150"
    expect_err_text "File open failed [$W/missing.pcap.gz]"$'\n'

    # Not a log capture: a link type other than 1 and 150.
    synth "$W/linktype147.pcap" --plain <<'EOF'
linktype 147
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
EOF
    run_decode --stats "$DICT" "$W/linktype147.pcap"
    expect_rc 1
    expect_out_empty
    expect_err_text $'Invalid link type 147 found. Not a valid log pcap file\n'
    synth "$W/linktype0.pcap.gz" --gzip <<'EOF'
linktype 0
EOF
    run_decode --stats -p 5000 "$DICT" "$W/linktype0.pcap.gz" "$LINK150"
    expect_rc 1
    expect_out_file "$EXP_LINK150"
    expect_err_text $'Invalid link type 0 found. Not a valid log pcap file\n'

    # No global header: an empty file, a header cut short, plain and gzip.
    : >"$W/empty.pcap"
    synth "$W/short.pcap" --plain <<'EOF'
globalheader short=20
EOF
    synth "$W/short.pcap.gz" --gzip <<'EOF'
globalheader short=23
EOF
    local f
    for f in empty.pcap short.pcap short.pcap.gz; do
        run_decode --stats "$DICT" "$W/$f"
        expect_rc 1
        expect_out_empty
        expect_err_text $'No global header found\n'
    done
    [ "$(stat -c %s "$W/short.pcap")" = 20 ] || fail "short.pcap is not 20 bytes long"

    # A capture that holds only a global header is read without error.
    synth "$W/header_only.pcap" --plain </dev/null
    run_decode --stats "$DICT" "$W/header_only.pcap"
    expect_rc 0
    expect_out_text $'>>totalRecords =  0\n'
    expect_err_empty
}

case_problems_inside_capture() {
    # Problems inside a capture are the library's to report, on standard
    # error; they do not change the exit status.
    synth "$W/inside.pcap" --plain <<'EOF'
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
record logid=0x09090001 payload=00
binlog L1:phy CellStateChange cellId=7 carrier=1 state=IDLE sfn=0x2803 cut=20
EOF
    binlog_line "2024-05-01T12:00:00.000Z" "L1:phy" "CellStateChange" "INFO" "DIAG" 1 \
        "cellId=7 carrier=1 " "Cell moved to state=ACTIVE at sfn=0000-03" >"$W/first.out"
    # The cut record is 16 + 4 + 6 bytes long and 20 of them are in the file,
    # which is abandoned there: no statistics.
    local inside_err=$'Log id :9090001 not valid\nWarning: Possibly truncated file. Actual payloadBytes :20 Expected payloadBytes :26\n'
    run_decode --stats "$DICT" "$W/inside.pcap"
    expect_rc 0
    expect_out_file "$W/first.out"
    expect_err_text "$inside_err"
    {
        cat "$W/first.out"
        without_stats "$EXP_LINK150"
    } >"$W/both.out"
    run_decode "$DICT" "$W/inside.pcap" "$LINK150"
    expect_rc 0
    expect_out_file "$W/both.out"
    expect_err_text "$inside_err"
    # An oversized record stops the file too.
    synth "$W/oversized.pcap.gz" --gzip <<'EOF'
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
binlog L1:phy CellStateChange cellId=7 carrier=1 state=IDLE sfn=0x2803 storagelen=25001
EOF
    run_decode --stats "$DICT" "$W/oversized.pcap.gz"
    expect_rc 0
    expect_out_file "$W/first.out"
    expect_err_text $'pHdr storageLength 25001 is more thanMAX_BINLOG_LENGTH\n'
}

case_ethernet_without_port() {
    # Without --udp-port an Ethernet capture is reported and skipped (no
    # statistics either); the others are decoded; exit status 1.
    local msg="is Ethernet-framed: choose the UDP port of its log datagrams with --udp-port"
    run_decode --stats "$DICT" "$IPV4"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: '$IPV4' $msg"$'\n'
    run_decode --stats "$DICT" "$IPV4" "$LINK150"
    expect_rc 1
    expect_out_file "$EXP_LINK150"
    expect_err_text "binlog-decode: '$IPV4' $msg"$'\n'
    run_decode "$DICT" "$CAPS"
    expect_rc 1
    : >"$W/dir.out"
    local name
    while IFS= read -r name; do
        [ "$name" = link150.pcap.gz ] && without_stats "$EXP_LINK150" >>"$W/dir.out"
    done < <(capture_entries "$CAPS")
    expect_out_file "$W/dir.out"
    expect_err_text "binlog-decode: '$CAPS/ipv4_port5000.pcap.gz' $msg"$'\n'
    # From standard input the capture is named as the user named it.
    run_decode "$DICT" - <"$IPV4"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: '-' $msg"$'\n'
    # Over IPv6 too.
    synth "$W/ipv6.pcap" --plain <<'EOF'
link ipv6 port=5000
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
EOF
    run_decode "$DICT" "$W/ipv6.pcap"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: '$W/ipv6.pcap' $msg"$'\n'
    run_decode -p 5000 "$DICT" "$W/ipv6.pcap"
    expect_rc 0
    binlog_line "2024-05-01T12:00:00.000Z" "L1:phy" "CellStateChange" "INFO" "DIAG" 1 \
        "cellId=7 carrier=1 " "Cell moved to state=ACTIVE at sfn=0000-03" >"$W/ipv6.out"
    expect_out_file "$W/ipv6.out"
    expect_err_empty
}

# usage_error MESSAGE ARGS...: exit status 2, nothing on standard output, and
# exactly MESSAGE on standard error.
usage_error() {
    local message=$1
    shift
    run_decode "$@"
    expect_rc 2
    expect_out_empty
    expect_err_text "$message"
}

# getopt_error OPTION_TEXT ARGS...: exit status 2, and standard error holds
# two lines: our program name and the option in question, then the hint.
getopt_error() {
    local option=$1
    shift
    run_decode "$@"
    expect_rc 2
    expect_out_empty
    [ "$(wc -l <"$W/err")" = 2 ] || fail "standard error is not two lines: $(cat "$W/err")"
    local first
    first=$(head -n 1 "$W/err")
    case $first in
        "binlog-decode: "*"$option"*) ;;
        *) fail "unexpected first line: $first" ;;
    esac
    [ "$(tail -n 1 "$W/err")" = "${TRY%$'\n'}" ] || fail "the second line is not the --help hint"
}

case_usage_errors() {
    local missing=$'binlog-decode: expected a dictionary directory and at least one capture\n'"$TRY"
    usage_error "$missing"
    usage_error "$missing" "$DICT"
    usage_error "$missing" --stats -p 5000 "$DICT"
    # Unknown options and options without their argument.
    getopt_error "--bogus" --bogus "$DICT" "$LINK150"
    getopt_error "'x'" -x "$DICT" "$LINK150"
    getopt_error "--udp-port" "$DICT" "$LINK150" --udp-port
    getopt_error "'p'" "$DICT" "$LINK150" -p
    getopt_error "--output" "$DICT" "$LINK150" --output
    getopt_error "'m'" "$DICT" "$LINK150" -m
    getopt_error "--utc-offset" "$DICT" "$LINK150" --utc-offset
    getopt_error "--stats" --stats=1 "$DICT" "$LINK150"
    # Bad numbers.
    local value
    for value in 70000 65536 -1 abc "" 5000x 0x10 99999999999999999999; do
        usage_error "binlog-decode: invalid UDP port '$value' (expected 0-65535)"$'\n' \
            --udp-port "$value" "$DICT" "$LINK150"
    done
    usage_error $'binlog-decode: invalid UDP port \'70000\' (expected 0-65535)\n' \
        -p 70000 "$DICT" "$LINK150"
    for value in -1 65536 many 1.5 ""; do
        usage_error "binlog-decode: invalid byte count '$value' (expected 0-65535)"$'\n' \
            --max-var-bytes "$value" "$DICT" "$LINK150"
    done
    usage_error $'binlog-decode: invalid byte count \'-1\' (expected 0-65535)\n' \
        -m -1 "$DICT" "$LINK150"
    for value in abc 1.5 60m "" 35791395 -35791395 +; do
        usage_error "binlog-decode: invalid UTC offset '$value' (expected minutes, e.g. 60 or -300)"$'\n' \
            --utc-offset "$value" "$DICT" "$LINK150"
    done
    usage_error $'binlog-decode: invalid UTC offset \'abc\' (expected minutes, e.g. 60 or -300)\n' \
        -u abc "$DICT" "$LINK150"
    # A usage error is reported before anything is loaded or written.
    usage_error $'binlog-decode: invalid UDP port \'70000\' (expected 0-65535)\n' \
        -o "$W/never.txt" --udp-port 70000 "$W/nodict" "$W/missing.pcap.gz"
    [ ! -e "$W/never.txt" ] || fail "the output file was created despite the usage error"
}

# ---------------------------------------------------------------------------

if ! declare -F "case_$case_name" >/dev/null; then
    echo "unknown case: $case_name" >&2
    exit 2
fi
for file in "$DECODE" "$SYNTH" "$LINK150" "$IPV4" "$EXP_LINK150" "$EXP_IPV4"; do
    if [ ! -e "$file" ]; then
        echo "missing: $file" >&2
        exit 1
    fi
done
"case_$case_name"
if [ "$failures" != 0 ]; then
    echo "$case_name: $failures check(s) failed" >&2
    exit 1
fi
echo "$case_name: passed"
