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
# The cases of the output formats check JSON with jq and Python's json
# module and CSV with Python's csv module (python3 and jq are test
# dependencies).
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
# $rc, the arguments to the array last_args. A run that hangs is stopped
# after two minutes (exit status 124).
run_decode() {
    last_cmd="binlog-decode $*"
    last_args=("$@")
    timeout 120 "${EMU[@]}" "$DECODE" "$@" >"${OUT_TARGET:-$W/out}" 2>"$W/err"
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

# ipv4_note NAME PORT: the closing note of the IPv4 example, named NAME,
# decoded with --udp-port PORT. Of its 13 datagrams 12 go to port 5000 and
# one to port 5001 (ipv4_port5000.synth); those to other ports than PORT
# carried no log record. The ports are listed most datagrams first.
ipv4_note() {
    local other=13 frames
    case $2 in 5000) other=1 ;; 5001) other=12 ;; esac
    frames="$other frames"
    [ "$other" = 1 ] && frames="1 frame"
    printf 'binlog-decode: %s: %s carried no log record (to other UDP ports: %s); UDP destination ports seen: 5000 (12 datagrams), 5001 (1 datagram)\n' \
        "$1" "$frames" "$other"
}
expect_err_ipv4() { expect_err_text "$(ipv4_note "$1" "$2")"$'\n'; }

# The names of the entries of directory DIR that binlog-decode takes as
# captures (regular files whose names end in ".pcap" or contain "pcap.gz"), in
# byte order, one a line.
capture_entries() {
    local path
    for path in "$1"/* "$1"/.*; do
        [ -f "$path" ] || continue
        case ${path##*/} in
            *.pcap | *pcap.gz*) printf '%s\n' "${path##*/}" ;;
        esac
    done | LC_ALL=C sort
}

# The note binlog-decode gives for directory operand DIR (as written) whose
# entries other than the captures are NAME_COUNT entries without a capture
# name and SUBDIR_COUNT subdirectories (and nothing else), or nothing when
# both are 0.
skip_note() {
    local dir=$1 names=$2 subdirs=$3 total=$(($2 + $3)) what="" word=entries
    [ "$total" = 0 ] && return
    [ "$total" = 1 ] && word=entry
    [ "$names" != 0 ] && what="not .pcap or .pcap.gz: $names"
    [ "$subdirs" != 0 ] && what="${what:+$what, }subdirectory: $subdirs"
    printf 'binlog-decode: %s: skipped %s %s (%s)\n' "$dir" "$total" "$word" "$what"
}

# The note for the example captures directory, written as DIR: its entries
# that are not captures are counted by the rule.
example_dir_note() {
    local path name names=0 subdirs=0
    for path in "$CAPS"/* "$CAPS"/.*; do
        name=${path##*/}
        case $name in . | .. | '*' | '.*') continue ;; esac
        if [ -d "$path" ]; then
            subdirs=$((subdirs + 1))
        else
            case $name in
                *.pcap | *pcap.gz*) ;;
                *) names=$((names + 1)) ;;
            esac
        fi
    done
    skip_note "$1" "$names" "$subdirs"
}

# The two sample captures' outputs without statistics: the statistics are
# the only lines that start with ">>".
without_stats() { grep -v '^>>' "$1"; }

# A decoded line of a binary log record whose module has a header, as the
# library prints it.
binlog_line() {
    printf '[%s] [%10s] [%25s] [%8s] [%10s] [%u] [%s] [%s] \n' "$@"
}

# one_record FILE CELL [SYNTH OPTIONS]: a capture of one CellStateChange
# record of cell CELL; one_record_line CELL: its decoded line.
one_record() {
    local file=$1 cell=$2
    shift 2
    synth "$file" "$@" <<EOF
binlog L1:phy CellStateChange cellId=$cell carrier=1 state=ACTIVE sfn=0x2803
EOF
}
one_record_line() {
    binlog_line "2024-05-01T12:00:00.000Z" "L1:phy" "CellStateChange" "INFO" "DIAG" 1 \
        "cellId=$1 carrier=1 " "Cell moved to state=ACTIVE at sfn=0000-03"
}

# ---------------------------------------------------------------------------

case_example_files() {
    # The README's command, with the two captures named one by one.
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    run_decode --stats --udp-port 5000 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_ipv4 "$IPV4" 5000
    # The other order gives the per-file outputs in the other order: the
    # statistics start again with each file.
    cat "$EXP_IPV4" "$EXP_LINK150" >"$W/reversed.out"
    run_decode --stats --udp-port 5000 "$DICT" "$IPV4" "$LINK150"
    expect_rc 0
    expect_out_file "$W/reversed.out"
    expect_err_ipv4 "$IPV4" 5000
}

case_example_directory() {
    # The directory form takes the captures in byte order of their names:
    # ipv4_port5000.pcap.gz before link150.pcap.gz. The other entries (the
    # scripts that made the captures, a README) are counted on standard
    # error; they do not change the exit status.
    : >"$W/golden.out"
    local name
    while IFS= read -r name; do
        case $name in
            link150.pcap.gz) cat "$EXP_LINK150" >>"$W/golden.out" ;;
            ipv4_port5000.pcap.gz) cat "$EXP_IPV4" >>"$W/golden.out" ;;
            *) fail "unexpected capture $name in $CAPS" ;;
        esac
    done < <(capture_entries "$CAPS")
    cat "$EXP_IPV4" "$EXP_LINK150" >"$W/sorted.out"
    same_file "$W/sorted.out" "$W/golden.out" "the example directory's captures"
    run_decode --stats --udp-port 5000 "$DICT" "$CAPS"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_text "$(example_dir_note "$CAPS")"$'\n'"$(ipv4_note "$CAPS/ipv4_port5000.pcap.gz" 5000)"$'\n'
    grep -q '^binlog-decode: .*: skipped [1-9][0-9]* entr' "$W/err" ||
        fail "the example directory's other entries were not counted"
    # With a trailing slash the directory is named as written.
    run_decode --stats --udp-port 5000 "$DICT" "$CAPS/"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_text "$(example_dir_note "$CAPS/")"$'\n'"$(ipv4_note "$CAPS/ipv4_port5000.pcap.gz" 5000)"$'\n'
}

case_without_stats() {
    { without_stats "$EXP_LINK150" && without_stats "$EXP_IPV4"; } >"$W/nostats.out"
    run_decode --udp-port 5000 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/nostats.out"
    expect_err_ipv4 "$IPV4" 5000
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
    expect_err_ipv4 "$IPV4" 5000
    # Every short option with its default value, and the "--opt=value" forms.
    run_decode -s -p 5000 -m 65535 -u 0 -o "$W/short.out" "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_empty
    expect_err_ipv4 "$IPV4" 5000
    same_file "$W/golden.out" "$W/short.out" "the -o file"
    run_decode --stats --udp-port=5000 --max-var-bytes=65535 --utc-offset=0 \
        --output="$W/long.out" "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_empty
    expect_err_ipv4 "$IPV4" 5000
    same_file "$W/golden.out" "$W/long.out" "the --output= file"
    # Options may follow the operands.
    run_decode "$DICT" "$LINK150" "$IPV4" --stats -p5000
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_ipv4 "$IPV4" 5000
}

case_dictionary_trailing_slash() {
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    run_decode --stats --udp-port 5000 "$DICT/" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_ipv4 "$IPV4" 5000
    cp "$W/out" "$W/with_slash.out"
    run_decode --stats --udp-port 5000 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    same_file "$W/with_slash.out" "$W/out" "output without the trailing slash"
    expect_err_ipv4 "$IPV4" 5000
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
    expect_err_ipv4 "$IPV4" 5001
    run_decode -p 5001 "$DICT" "$IPV4"
    expect_rc 0
    head -n 1 "$W/port5001.out" >"$W/port5001_nostats.out"
    expect_out_file "$W/port5001_nostats.out"
    expect_err_ipv4 "$IPV4" 5001
    # No datagram goes to port 0 or 65535 (both valid ports).
    local port
    for port in 0 65535; do
        run_decode --stats --udp-port "$port" "$DICT" "$IPV4"
        expect_rc 0
        expect_out_text $'>>totalRecords =  0\n'
        expect_err_ipv4 "$IPV4" "$port"
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
    expect_err_ipv4 "$IPV4" 5000
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
    expect_err_ipv4 "$IPV4" 5000
    # 8 bytes: every string of the example is shown whole.
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    run_decode --stats --udp-port 5000 --max-var-bytes 8 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_ipv4 "$IPV4" 5000
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
        expect_err_ipv4 "$IPV4" 5000
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
    expect_err_ipv4 "$IPV4" 5000
    same_file "$W/stdout.out" "$W/decoded.txt" "the --output file"
    same_file "$W/golden.out" "$W/decoded.txt" "the --output file"
    # Messages still go to standard error, lines to the file.
    run_decode -o "$W/partial.txt" "$DICT" "$W/missing.pcap.gz" "$LINK150"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: cannot open '$W/missing.pcap.gz': No such file or directory"$'\n'
    without_stats "$EXP_LINK150" >"$W/link150.out"
    same_file "$W/link150.out" "$W/partial.txt" "the -o file"
    # "-o -" is standard output: no file named "-" is made.
    mkdir -p "$W/cwd"
    cd "$W/cwd" || exit 1
    run_decode --stats --udp-port 5000 -o - "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_ipv4 "$IPV4" 5000
    [ ! -e "$W/cwd/-" ] || fail "-o - made a file named -"
    run_decode --stats --udp-port 5000 --output=- "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_ipv4 "$IPV4" 5000
    # A later -o wins.
    run_decode --stats -o "$W/first.txt" -o - "$DICT" "$LINK150"
    expect_rc 0
    expect_out_file "$EXP_LINK150"
    if [ -e "$W/first.txt" ] || [ -e "$W/cwd/-" ]; then
        fail "an output file was made"
    fi
    # A file really named "-" is written as ./-
    run_decode --stats -o ./- "$DICT" "$LINK150"
    expect_rc 0
    expect_out_empty
    same_file "$EXP_LINK150" "$W/cwd/-" "the file ./-"
    cd "$W" || exit 1
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
    expect_err_ipv4 - 5000
    run_decode --stats --udp-port 5000 "$DICT" "$LINK150" - < <(cat "$IPV4")
    expect_rc 0
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    expect_out_file "$W/golden.out"
    expect_err_ipv4 - 5000
    # Empty standard input is no pcap file.
    run_decode "$DICT" - </dev/null
    expect_rc 1
    expect_out_empty
    expect_err_text $'binlog-decode: \'-\' is not a pcap file (it is empty)\n'
    # Standard input is decoded as it arrives, so it can be given only once.
    # shellcheck disable=SC2094 # the capture is only read
    run_decode --stats "$DICT" - "$LINK150" - <"$LINK150"
    expect_rc 2
    expect_out_empty
    expect_err_text $'binlog-decode: standard input (\'-\') can be given only once\nTry \'binlog-decode --help\' for more information.\n'
}

case_capture_directory() {
    # Of a directory, the regular files whose names end in ".pcap" or contain
    # "pcap.gz" are decoded, in byte order of their names; the other entries
    # are counted on standard error, by reason; the exit status stays 0.
    local d=$W/caps
    mkdir -p "$d/sub.d"
    cp "$LINK150" "$d/link150.pcap.gz"
    cp "$IPV4" "$d/ipv4_port5000.pcap.gz"
    cp "$LINK150" "$d/again.pcap.gz.old"
    gzip -dc "$LINK150" >"$d/plain.pcap"
    cp "$IPV4" "$d/other.gz"
    echo "not a capture" >"$d/readme.txt"
    cp "$LINK150" "$d/sub.d/nested.pcap.gz"
    # Byte order: again.pcap.gz.old, ipv4_port5000.pcap.gz, link150.pcap.gz,
    # plain.pcap; skipped: other.gz and readme.txt (names), sub.d.
    cat "$EXP_LINK150" "$EXP_IPV4" "$EXP_LINK150" "$EXP_LINK150" >"$W/expected.out"
    # The copy of the IPv4 example has its closing note about the datagram
    # to port 5001 (named as the directory operand was written, then "/").
    local note ports
    note=$'binlog-decode: DIR: skipped 3 entries (not .pcap or .pcap.gz: 2, subdirectory: 1)\n'
    ports=$(ipv4_note "$d/ipv4_port5000.pcap.gz" 5000)$'\n'
    run_decode --stats --udp-port 5000 "$DICT" "$d"
    expect_rc 0
    expect_out_file "$W/expected.out"
    expect_err_text "${note/DIR/$d}$ports"
    run_decode --stats --udp-port 5000 "$DICT" "$d/"
    expect_rc 0
    expect_out_file "$W/expected.out"
    expect_err_text "${note/DIR/$d/}$ports"
    # A directory and a file in one call: the directory's captures first.
    cat "$W/expected.out" "$EXP_IPV4" >"$W/both.out"
    run_decode --stats --udp-port 5000 "$DICT" "$d" "$IPV4"
    expect_rc 0
    expect_out_file "$W/both.out"
    expect_err_text "${note/DIR/$d}$ports$(ipv4_note "$IPV4" 5000)"$'\n'
    # The note comes at the directory's turn, after what the captures before
    # it reported.
    run_decode --stats --udp-port 5000 "$DICT" "$W/missing.pcap" "$d"
    expect_rc 1
    expect_out_file "$W/expected.out"
    expect_err_text "binlog-decode: cannot open '$W/missing.pcap': No such file or directory"$'\n'"${note/DIR/$d}$ports"
}

case_directory_order() {
    # Byte order, not the locale's: "B" (42) < "_" (5f) < "a" (61) < "l" (6c)
    # < the UTF-8 e-acute (c3 a9). A link to a capture is taken as the file it
    # names; a pipe is skipped even with a capture name, and a subdirectory
    # even with one.
    local d=$W/order cell
    mkdir -p "$d/sub.pcap.gz"
    one_record "$d/a.pcap" 1 --plain
    one_record "$d/B.pcap" 2 --plain
    one_record "$d/_c.pcap.gz" 3 --gzip
    one_record "$d/"$'\xc3\xa9'".pcap" 4 --plain
    one_record "$W/target.pcap.gz" 5 --gzip
    ln -s "$W/target.pcap.gz" "$d/link.pcap"
    mkfifo "$d/fifo.pcap"
    echo "notes" >"$d/notes.txt"
    for cell in 2 3 1 5 4; do
        one_record_line "$cell"
    done >"$W/expected.out"
    run_decode "$DICT" "$d"
    expect_rc 0
    expect_out_file "$W/expected.out"
    expect_err_text "binlog-decode: $d: skipped 3 entries (not .pcap or .pcap.gz: 1, subdirectory: 1, not a regular file: 1)"$'\n'
    # The same order whatever the locale.
    LC_ALL=C.UTF-8 run_decode "$DICT" "$d"
    expect_rc 0
    expect_out_file "$W/expected.out"
    # One skipped entry is an "entry".
    rm -r "$d/sub.pcap.gz" "$d/fifo.pcap"
    run_decode "$DICT" "$d"
    expect_rc 0
    expect_out_file "$W/expected.out"
    expect_err_text "binlog-decode: $d: skipped 1 entry (not .pcap or .pcap.gz: 1)"$'\n'
}

case_empty_directory() {
    # A directory without captures is a warning; the exit status stays what
    # the other captures make it.
    mkdir -p "$W/empty" "$W/nocaps/sub"
    echo "notes" >"$W/nocaps/notes.txt"
    run_decode "$DICT" "$W/empty"
    expect_rc 0
    expect_out_empty
    expect_err_text "binlog-decode: $W/empty: no captures found"$'\n'
    run_decode --stats "$DICT" "$W/empty/" "$LINK150"
    expect_rc 0
    expect_out_file "$EXP_LINK150"
    expect_err_text "binlog-decode: $W/empty/: no captures found"$'\n'
    run_decode --stats "$DICT" "$LINK150" "$W/nocaps"
    expect_rc 0
    expect_out_file "$EXP_LINK150"
    expect_err_text "binlog-decode: $W/nocaps: skipped 2 entries (not .pcap or .pcap.gz: 1, subdirectory: 1)"$'\n'"binlog-decode: $W/nocaps: no captures found"$'\n'
    # With a failing capture besides, the status is that capture's.
    run_decode "$DICT" "$W/empty" "$W/missing.pcap"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: $W/empty: no captures found"$'\n'"binlog-decode: cannot open '$W/missing.pcap': No such file or directory"$'\n'
}

case_help() {
    run_decode --help
    expect_rc 0
    expect_err_empty
    cp "$W/out" "$W/help.out"
    [ "$(head -n 2 "$W/help.out")" = "Usage: binlog-decode [options] -d DICTIONARY_DIR CAPTURE..."$'\n'"   or: binlog-decode [options] DICTIONARY_DIR CAPTURE..." ] ||
        fail "the help does not start with the two usage lines"
    local option
    for option in "-d, --dict DIR" "-s, --stats" "-p, --udp-port PORT" "-m, --max-var-bytes N" \
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
    # What a directory gives, where standard input is copied, what "-o -" is.
    grep -qF 'names end in ".pcap" or contain "pcap.gz" are decoded, in byte order' \
        "$W/help.flat" || fail "the help does not say which directory entries are decoded"
    grep -qF 'are decoded as their bytes arrive' "$W/help.flat" ||
        fail "the help does not say how standard input is read"
    grep -qF 'FILE (- for standard output)' "$W/help.flat" || fail "the help lacks -o -"
    grep -qF 'pcap (microsecond or nanosecond, either byte order) and pcapng are read' \
        "$W/help.flat" || fail "the help does not say which capture formats are read"
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

# The version, then the gzip inflater built in: ISA-L with zlib as the
# fallback, or zlib alone (with zlib's version either way).
expect_version() {
    local zlib
    zlib=$(sed -n 2p "$W/out" | grep -o 'zlib [0-9][0-9.]*' | head -n 1)
    [ -n "$zlib" ] || fail "no zlib version in: $(cat "$W/out")"
    if [ "$(sed -n 2p "$W/out")" = "gzip inflater: $zlib" ]; then
        expect_out_text "binlog-decode $VERSION"$'\n'"gzip inflater: $zlib"$'\n'
    else
        expect_out_text "binlog-decode $VERSION"$'\n'"gzip inflater: ISA-L ($zlib as the fallback)"$'\n'
    fi
}

case_version() {
    run_decode --version
    expect_rc 0
    expect_version
    expect_err_empty
    run_decode -V "$DICT" "$W/missing.pcap.gz"
    expect_rc 0
    expect_version
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
    # A missing capture, and one below a regular file: the reason, the other
    # captures still decoded, exit status 1.
    local missing="binlog-decode: cannot open '$W/missing.pcap.gz': No such file or directory"$'\n'
    run_decode --stats "$DICT" "$W/missing.pcap.gz"
    expect_rc 1
    expect_out_empty
    expect_err_text "$missing"
    run_decode "$DICT" "$LINK150/x.pcap.gz"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: cannot open '$LINK150/x.pcap.gz': Not a directory"$'\n'
    run_decode --stats "$DICT" "$W/missing.pcap.gz" "$LINK150"
    expect_rc 1
    expect_out_file "$EXP_LINK150"
    expect_err_text "$missing"
    run_decode --stats "$DICT" "$LINK150" "$W/missing.pcap.gz"
    expect_rc 1
    expect_out_file "$EXP_LINK150"
    expect_err_text "$missing"

    # Not a log capture: a link type other than 1 and 150.
    synth "$W/linktype147.pcap" --plain <<'EOF'
linktype 147
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
EOF
    run_decode --stats "$DICT" "$W/linktype147.pcap"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: '$W/linktype147.pcap' has link type 147, which carries no log records"$'\n'
    synth "$W/linktype2.pcap.gz" --gzip <<'EOF'
linktype 2
EOF
    run_decode --stats -p 5000 "$DICT" "$W/linktype2.pcap.gz" "$LINK150"
    expect_rc 1
    expect_out_file "$EXP_LINK150"
    expect_err_text "binlog-decode: '$W/linktype2.pcap.gz' has link type 2, which carries no log records"$'\n'

    # A pcap global header cut short (the magic is there), plain and gzip.
    synth "$W/short.pcap" --plain <<'EOF'
globalheader short=20
EOF
    synth "$W/short.pcap.gz" --gzip <<'EOF'
globalheader short=23
EOF
    local f
    for f in short.pcap short.pcap.gz; do
        run_decode --stats "$DICT" "$W/$f"
        expect_rc 1
        expect_out_empty
        expect_err_text "binlog-decode: '$W/$f' is cut short inside its file header"$'\n'
    done
    [ "$(stat -c %s "$W/short.pcap")" = 20 ] || fail "short.pcap is not 20 bytes long"
    # Shorter than the magic, or empty: no pcap file at all.
    synth "$W/short3.pcap" --plain <<'EOF'
globalheader short=3
EOF
    run_decode --stats "$DICT" "$W/short3.pcap"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: '$W/short3.pcap' is not a pcap file (it holds only 3 bytes: d4 c3 b2)"$'\n'
    printf '\x0a' >"$W/short1.pcap"
    run_decode --stats "$DICT" "$W/short1.pcap"
    expect_rc 1
    expect_err_text "binlog-decode: '$W/short1.pcap' is not a pcap file (it holds only 1 byte: 0a)"$'\n'
    : >"$W/empty.pcap"
    run_decode --stats "$DICT" "$W/empty.pcap"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: '$W/empty.pcap' is not a pcap file (it is empty)"$'\n'

    # A capture that cannot be read says why (root reads it all the same).
    if [ "$(id -u)" != 0 ]; then
        cp "$LINK150" "$W/locked.pcap.gz"
        chmod 000 "$W/locked.pcap.gz"
        run_decode "$DICT" "$W/locked.pcap.gz"
        expect_rc 1
        expect_out_empty
        expect_err_text "binlog-decode: cannot open '$W/locked.pcap.gz': Permission denied"$'\n'
        chmod 600 "$W/locked.pcap.gz"
    else
        echo "note: running as root; the Permission denied check was not run" >&2
    fi

    # A capture that holds only a global header is read without error.
    synth "$W/header_only.pcap" --plain </dev/null
    run_decode --stats "$DICT" "$W/header_only.pcap"
    expect_rc 0
    expect_out_text $'>>totalRecords =  0\n'
    expect_err_empty
}

case_not_pcap() {
    # The first bytes tell what a capture is; for no capture at all the
    # first four bytes are shown in hex (after decompression for gzip). The
    # other captures are still decoded; exit status 1.
    printf 'data,1,2\n' >"$W/notes.pcap"
    run_decode --stats "$DICT" "$W/notes.pcap" "$LINK150"
    expect_rc 1
    expect_out_file "$EXP_LINK150"
    expect_err_text "binlog-decode: '$W/notes.pcap' is not a pcap file (it starts with 64 61 74 61)"$'\n'
    gzip -c "$W/notes.pcap" >"$W/notes.pcap.gz"
    run_decode --stats "$DICT" "$LINK150" "$W/notes.pcap.gz"
    expect_rc 1
    expect_out_file "$EXP_LINK150"
    expect_err_text "binlog-decode: '$W/notes.pcap.gz' is not a pcap file (its decompressed content starts with 64 61 74 61)"$'\n'
    # A gzip stream with nothing in it, and one whose data is damaged (a
    # deflate block of the reserved type 3).
    printf '\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03' >"$W/hollow.pcap.gz"
    run_decode "$DICT" "$W/hollow.pcap.gz"
    expect_rc 1
    expect_err_text "binlog-decode: '$W/hollow.pcap.gz' is not a pcap file (its decompressed content is empty)"$'\n'
    printf '\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03\x07\x00\x00\x00' >"$W/damaged.pcap.gz"
    run_decode "$DICT" "$W/damaged.pcap.gz" "$LINK150"
    expect_rc 1
    without_stats "$EXP_LINK150" >"$W/link150.out"
    expect_out_file "$W/link150.out"
    expect_err_text "binlog-decode: cannot read '$W/damaged.pcap.gz': invalid block type"$'\n'

    # Captures of the other formats are read too, with a note (naming the
    # capture as every diagnostic does) that the library's own capture loop
    # does not read them. The bytes are a whole
    # global header of each kind, with link type 150, and no record.
    local rest='\x02\x00\x04\x00\x00\x00\x00\x00\x00\x00\x00\x00\xff\xff\x00\x00\x96\x00\x00\x00'
    local rest_be='\x00\x02\x00\x04\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\xff\xff\x00\x00\x00\x96'
    printf '\x4d\x3c\xb2\xa1%b' "$rest" >"$W/nano.pcap"
    printf '\xa1\xb2\xc3\xd4%b' "$rest_be" >"$W/big.pcap"
    printf '\xa1\xb2\x3c\x4d%b' "$rest_be" >"$W/bignano.pcap"
    printf '\x0a\x0d\x0d\x0a\x1c\x00\x00\x00\x4d\x3c\x2b\x1a\x01\x00\x00\x00\xff\xff\xff\xff\xff\xff\xff\xff\x1c\x00\x00\x00' >"$W/next.pcapng"
    gzip -c "$W/next.pcapng" >"$W/next.pcapng.gz"
    [ "$(od -An -tx1 -N4 "$W/nano.pcap" | tr -d ' ')" = 4d3cb2a1 ] ||
        fail "nano.pcap was not written as intended"
    local tail=' capture, which readBinaryFiledata does not read'
    local f kind
    { printf '>>totalRecords =  0\n'; cat "$EXP_LINK150"; } >"$W/after_empty.out"
    for f in nano.pcap:nanosecond big.pcap:big-endian bignano.pcap:big-endian\ nanosecond; do
        kind=${f#*:}
        f=${f%%:*}
        run_decode --stats "$DICT" "$W/$f" "$LINK150"
        expect_rc 0
        expect_out_file "$W/after_empty.out"
        expect_err_text "binlog-decode: $W/$f: a $kind pcap$tail"$'\n'
    done
    for f in next.pcapng next.pcapng.gz; do
        run_decode "$DICT" "$W/$f"
        expect_rc 0
        expect_out_empty
        expect_err_text "binlog-decode: $W/$f: a pcapng$tail"$'\n'
    done
    # From standard input the capture is named "-".
    run_decode "$DICT" - <"$W/notes.pcap.gz"
    expect_rc 1
    expect_out_empty
    expect_err_text $'binlog-decode: \'-\' is not a pcap file (its decompressed content starts with 64 61 74 61)\n'
}

case_problems_inside_capture() {
    # Problems inside a capture are reported on standard error, naming the
    # capture and the record: an unknown log id leaves the exit status as it
    # is; damage (a truncated or oversized record) makes it 1, after the
    # records before it and the other captures were decoded.
    synth "$W/unknown.pcap" --plain <<'EOF'
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
record logid=0x09090001 payload=00
EOF
    binlog_line "2024-05-01T12:00:00.000Z" "L1:phy" "CellStateChange" "INFO" "DIAG" 1 \
        "cellId=7 carrier=1 " "Cell moved to state=ACTIVE at sfn=0000-03" >"$W/first.out"
    # Record 2 of the file is the one of log id 0x09090001.
    local unknown_err="binlog-decode: $W/unknown.pcap: record 2: log id 0x9090001 not valid"$'\n'
    run_decode "$DICT" "$W/unknown.pcap"
    expect_rc 0
    expect_out_file "$W/first.out"
    expect_err_text "$unknown_err"

    synth "$W/inside.pcap" --plain <<'EOF'
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
record logid=0x09090001 payload=00
binlog L1:phy CellStateChange cellId=7 carrier=1 state=IDLE sfn=0x2803 cut=20
EOF
    # The cut record is 16 + 4 + 6 bytes long (binary log header, module
    # header cellId and carrier padded to 4, state and sfn) and 20 of them
    # are in the file, which is abandoned there: no statistics.
    local inside_err="binlog-decode: $W/inside.pcap: record 2: log id 0x9090001 not valid"$'\n'"binlog-decode: $W/inside.pcap: truncated: the last record has 20 of its 26 bytes"$'\n'
    run_decode --stats "$DICT" "$W/inside.pcap"
    expect_rc 1
    expect_out_file "$W/first.out"
    expect_err_text "$inside_err"
    {
        cat "$W/first.out"
        without_stats "$EXP_LINK150"
    } >"$W/both.out"
    run_decode "$DICT" "$W/inside.pcap" "$LINK150"
    expect_rc 1
    expect_out_file "$W/both.out"
    expect_err_text "$inside_err"
    # An oversized record stops the file too: its pcap record header starts
    # at byte 24 + 16 + 26 = 66 (file header, then the first record).
    synth "$W/oversized.pcap.gz" --gzip <<'EOF'
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
binlog L1:phy CellStateChange cellId=7 carrier=1 state=IDLE sfn=0x2803 storagelen=25001
EOF
    run_decode --stats "$DICT" "$W/oversized.pcap.gz"
    expect_rc 1
    expect_out_file "$W/first.out"
    expect_err_text "binlog-decode: $W/oversized.pcap.gz: a record of 25001 bytes at byte 66, above the limit of 25000: the rest of the capture is skipped"$'\n'
}

case_ethernet_without_port() {
    # Without --udp-port an Ethernet capture is reported with the UDP
    # destination ports of its datagrams, most datagrams first (12 to 5000,
    # 1 to 5001), and skipped (no statistics either); the others are
    # decoded; exit status 1.
    local msg="is Ethernet-framed: choose the UDP port of its log datagrams with --udp-port"
    local ipv6_msg="$msg (UDP destination ports seen: 5000 (1 datagram))"
    msg="$msg (UDP destination ports seen: 5000 (12 datagrams), 5001 (1 datagram))"
    run_decode --stats "$DICT" "$IPV4"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: '$IPV4' $msg"$'\n'
    run_decode --stats "$DICT" "$IPV4" "$LINK150"
    expect_rc 1
    expect_out_file "$EXP_LINK150"
    expect_err_text "binlog-decode: '$IPV4' $msg"$'\n'
    # In a directory: its note, then the Ethernet capture (first in name
    # order) is reported and the link type 150 one decoded.
    run_decode "$DICT" "$CAPS"
    expect_rc 1
    without_stats "$EXP_LINK150" >"$W/dir.out"
    expect_out_file "$W/dir.out"
    expect_err_text "$(example_dir_note "$CAPS")"$'\n'"binlog-decode: '$CAPS/ipv4_port5000.pcap.gz' $msg"$'\n'
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
    expect_err_text "binlog-decode: '$W/ipv6.pcap' $ipv6_msg"$'\n'
    run_decode -p 5000 "$DICT" "$W/ipv6.pcap"
    expect_rc 0
    binlog_line "2024-05-01T12:00:00.000Z" "L1:phy" "CellStateChange" "INFO" "DIAG" 1 \
        "cellId=7 carrier=1 " "Cell moved to state=ACTIVE at sfn=0000-03" >"$W/ipv6.out"
    expect_out_file "$W/ipv6.out"
    expect_err_empty
}

case_dict_option() {
    # -d/--dict names the dictionary; every operand is then a capture, so the
    # first capture is not taken for the dictionary.
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    run_decode --stats --udp-port 5000 --dict "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_ipv4 "$IPV4" 5000
    run_decode -s -p 5000 -d "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_ipv4 "$IPV4" 5000
    run_decode --stats "$LINK150" --dict="$DICT/"
    expect_rc 0
    expect_out_file "$EXP_LINK150"
    expect_err_empty
    run_decode -s -d"$DICT" "$LINK150"
    expect_rc 0
    expect_out_file "$EXP_LINK150"
    expect_err_empty
    # The last --dict wins.
    run_decode -s -d "$W/nodict" -d "$DICT" "$LINK150"
    expect_rc 0
    expect_out_file "$EXP_LINK150"
    expect_err_empty
    # A dictionary that does not load is named as given.
    run_decode --dict "$W/nodict" "$LINK150"
    expect_rc 1
    expect_out_empty
    expect_err_text "Error in opening directory $W/nodict/ "$'\n'"binlog-decode: cannot load the dictionaries in '$W/nodict'"$'\n'
    # With --dict, a directory operand is a capture directory, not the
    # dictionary: the example dictionary holds no capture.
    run_decode --dict "$DICT" "$DICT"
    expect_rc 0
    expect_out_empty
    grep -qxF "binlog-decode: $DICT: no captures found" "$W/err" ||
        fail "the dictionary directory was not taken as a capture directory"
}

case_output_is_input() {
    # The output may not be one of the captures: exit status 2 before the
    # dictionaries load or anything is written, the capture untouched.
    mkdir -p "$W/caps"
    cp "$LINK150" "$W/caps/victim.pcap.gz"
    cp "$LINK150" "$W/original.pcap.gz"
    local victim=$W/caps/victim.pcap.gz
    refused() {
        local shown=$1
        shift
        run_decode "$@"
        expect_rc 2
        expect_out_empty
        expect_err_text "binlog-decode: the output '$shown' is the capture '$victim': refusing to overwrite it"$'\n'
        cmp -s "$W/original.pcap.gz" "$victim" || fail "the capture was changed"
    }
    refused "$victim" -o "$victim" "$DICT" "$victim"
    refused "$victim" --output "$victim" "$DICT" "$LINK150" "$victim"
    # Named otherwise: through "..", a link, another hard link; the capture
    # found inside a directory operand; a missing dictionary does not matter.
    refused "$W/caps/../caps/victim.pcap.gz" -o "$W/caps/../caps/victim.pcap.gz" "$DICT" "$victim"
    ln -s "$victim" "$W/link.pcap.gz"
    refused "$W/link.pcap.gz" -o "$W/link.pcap.gz" "$DICT" "$victim"
    ln "$victim" "$W/hard.pcap.gz"
    refused "$W/hard.pcap.gz" -o "$W/hard.pcap.gz" "$W/nodict" "$victim"
    local note="binlog-decode: the output '$victim' is the capture '$W/caps/victim.pcap.gz': refusing to overwrite it"
    run_decode -o "$victim" --dict "$DICT" "$W/caps"
    expect_rc 2
    expect_out_empty
    expect_err_text "$note"$'\n'
    cmp -s "$W/original.pcap.gz" "$victim" || fail "the capture was changed"
    # Standard input redirected from the capture.
    # shellcheck disable=SC2094 # refused before anything is written
    run_decode -o "$victim" "$DICT" - <"$victim"
    expect_rc 2
    expect_out_empty
    expect_err_text "binlog-decode: the output '$victim' is the capture '-': refusing to overwrite it"$'\n'
    cmp -s "$W/original.pcap.gz" "$victim" || fail "the capture was changed"
    # Standard output appending to a capture (with or without "-o -").
    local opt
    for opt in "" "-o-"; do
        last_cmd="binlog-decode $opt DICT victim >>victim"
        # shellcheck disable=SC2094 # refused before anything is written
        timeout 120 "${EMU[@]}" "$DECODE" $opt "$DICT" "$victim" >>"$victim" 2>"$W/err"
        rc=$?
        expect_rc 2
        expect_err_text "binlog-decode: standard output is the capture '$victim': refusing to write into it"$'\n'
        cmp -s "$W/original.pcap.gz" "$victim" || fail "the capture was changed"
    done
    # Any other file is written, also one beside the captures in the
    # directory (it does not exist yet, so it is not among them).
    run_decode --stats -o "$W/caps/decoded.pcap" "$DICT" "$W/caps"
    expect_rc 0
    expect_out_empty
    expect_err_empty
    same_file "$EXP_LINK150" "$W/caps/decoded.pcap" "the output file"
}

# feed FIFO COMMAND...: writes the output of COMMAND into the named pipe FIFO
# in the background; it gives up after a minute if no one reads.
feed() {
    local fifo=$1
    shift
    # shellcheck disable=SC2016 # expanded by the inner shell
    timeout 60 bash -c 'fifo=$1; shift; "$@" >"$fifo"' feed "$fifo" "$@" &
}

case_capture_once() {
    # Each capture is opened once: a named pipe, /dev/stdin and a process
    # substitution are decoded like the file they carry.
    mkfifo "$W/fifo.pcap.gz"
    feed "$W/fifo.pcap.gz" cat "$LINK150"
    run_decode --stats "$DICT" "$W/fifo.pcap.gz"
    wait
    expect_rc 0
    expect_out_file "$EXP_LINK150"
    expect_err_empty
    feed "$W/fifo.pcap.gz" gzip -dc "$LINK150"
    run_decode --stats "$DICT" "$LINK150" "$W/fifo.pcap.gz" "$LINK150"
    wait
    expect_rc 0
    cat "$EXP_LINK150" "$EXP_LINK150" "$EXP_LINK150" >"$W/three.out"
    expect_out_file "$W/three.out"
    expect_err_empty
    run_decode --stats "$DICT" /dev/stdin < <(cat "$LINK150")
    expect_rc 0
    expect_out_file "$EXP_LINK150"
    expect_err_empty
    run_decode --stats "$DICT" <(cat "$LINK150")
    expect_rc 0
    expect_out_file "$EXP_LINK150"
    expect_err_empty
    run_decode --stats --udp-port 5000 "$DICT" <(cat "$LINK150") <(gzip -dc "$IPV4")
    expect_rc 0
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    expect_out_file "$W/golden.out"
    expect_err_ipv4 "${last_args[-1]}" 5000
    # Messages name the capture as the user did.
    run_decode "$DICT" /dev/stdin < <(cat "$IPV4")
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: '/dev/stdin' is Ethernet-framed: choose the UDP port of its log datagrams with --udp-port (UDP destination ports seen: 5000 (12 datagrams), 5001 (1 datagram))"$'\n'
    feed "$W/fifo.pcap.gz" printf 'text\n'
    run_decode "$DICT" "$W/fifo.pcap.gz"
    wait
    expect_rc 1
    expect_err_text "binlog-decode: '$W/fifo.pcap.gz' is not a pcap file (it starts with 74 65 78 74)"$'\n'
    run_decode "$DICT" /dev/stdin </dev/null
    expect_rc 1
    expect_err_text $'binlog-decode: \'/dev/stdin\' is not a pcap file (it is empty)\n'
}

# Waits at most 20 s for background process $1 to end and sets $rc to its
# exit status; a process still running then is killed (status 137).
wait_bounded() {
    local tries=0
    while kill -0 "$1" 2>/dev/null && [ "$tries" -lt 200 ]; do
        sleep 0.1
        tries=$((tries + 1))
    done
    kill -0 "$1" 2>/dev/null && kill -s KILL "$1"
    wait "$1"
    rc=$?
}

case_temp_files() {
    # Standard input and pipes are decoded as their bytes arrive: nothing is
    # written to $TMPDIR, whatever happens.
    local tmp=$W/tmp
    mkdir -p "$tmp"
    cat "$EXP_LINK150" "$EXP_IPV4" >"$W/golden.out"
    TMPDIR=$tmp run_decode --stats --udp-port 5000 "$DICT" - <(cat "$IPV4") <"$LINK150"
    expect_rc 0
    expect_out_file "$W/golden.out"
    expect_err_ipv4 "${last_args[-1]}" 5000
    # A $TMPDIR that does not exist changes nothing.
    # shellcheck disable=SC2094 # the capture is only read
    TMPDIR=$W/none run_decode --stats "$DICT" - "$LINK150" <"$LINK150"
    expect_rc 0
    cat "$EXP_LINK150" "$EXP_LINK150" >"$W/twice.out"
    expect_out_file "$W/twice.out"
    expect_err_empty
    if [ -w /dev/full ]; then
        # shellcheck disable=SC2094 # the capture is only read
        TMPDIR=$tmp OUT_TARGET=/dev/full run_decode "$DICT" - <(cat "$LINK150") <"$LINK150"
        expect_rc 1
        expect_err_text $'binlog-decode: error writing the output: No space left on device\n'
    fi
    # A reader that goes away: SIGPIPE ends the program.
    synth "$W/many.pcap" --plain <<'EOF'
repeat 5000 binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
EOF
    # (env --default-signal: the program gets the signals with their default
    # action even where this shell was started with them ignored.)
    last_cmd="binlog-decode DICT - <many.pcap | head -c 10"
    TMPDIR=$tmp timeout 120 env --default-signal=PIPE "${EMU[@]}" "$DECODE" "$DICT" - \
        <"$W/many.pcap" 2>"$W/err" | head -c 10 >/dev/null
    rc=${PIPESTATUS[0]}
    expect_rc 141
    expect_err_empty
    # SIGINT and SIGTERM while the program waits for more input end it with
    # status 130 (what was decoded is kept, with the statistics so far:
    # none here); SIGHUP ends it by that signal.
    mkfifo "$W/feed"
    local signal status pid
    for signal in TERM INT HUP; do
        case $signal in TERM | INT) status=130 ;; HUP) status=129 ;; esac
        TMPDIR=$tmp env --default-signal=INT,TERM,HUP "${EMU[@]}" "$DECODE" "$DICT" - \
            <"$W/feed" >"$W/out" 2>"$W/err" &
        pid=$!
        exec 3>"$W/feed"
        cat "$LINK150" >&3
        last_cmd="binlog-decode DICT - <feed, then SIG$signal"
        sleep 0.2
        kill -s "$signal" "$pid"
        exec 3>&-
        wait_bounded "$pid"
        expect_rc "$status"
        expect_err_empty
    done
    [ -z "$(ls -A "$tmp")" ] || fail "files were written to \$TMPDIR: $(ls -A "$tmp")"
}

case_out_of_memory() {
    # A dictionary whose array of 25000 elements shows each element as a
    # 100000-character enumeration name makes a record text of 2.5 GB. Under
    # a 256 MiB address-space limit its allocation fails: a message, exit
    # status 1, no abort, the temporary copy removed. (The array is beyond
    # what a record holds, an error the lint on load would show: --no-lint.)
    mkdir -p "$W/hugedict" "$W/tmp"
    cat >"$W/hugedict/huge_binlog.xml" <<'EOF'
<LoggingSubSystem subsystem="X" subsystemId="9" module="big" moduleid="9" binlogversion="1">
  <LogId name="Huge" category="DIAG" logString="huge">
    <param type="TavUint8_t" nameList="v" count="25000" displayFormat="Long"/>
  </LogId>
</LoggingSubSystem>
EOF
    {
        printf '<displays><enum name="Long"><entry value="0" text="'
        head -c 100000 /dev/zero | tr '\0' 'x'
        printf '"/></enum></displays>\n'
    } >"$W/hugedict/huge_bindisplay.xml"
    synth "$W/huge.pcap" --plain <<'EOF'
record logid=0x09090001 version=1 payload=00
EOF
    # From standard input.
    (
        ulimit -v 262144 || exit 99
        TMPDIR=$W/tmp run_decode --no-lint "$W/hugedict" - "$LINK150" <"$W/huge.pcap"
        echo "$rc" >"$W/rc"
    )
    [ $? = 99 ] && fail "the address-space limit could not be set"
    rc=$(cat "$W/rc")
    last_cmd="(ulimit -v 262144; binlog-decode HUGEDICT - LINK150 <huge.pcap)"
    expect_rc 1
    expect_out_empty
    expect_err_text $'binlog-decode: out of memory while decoding standard input; stopping\n'
    (
        ulimit -v 262144 || exit 99
        run_decode --no-lint --dict "$W/hugedict" "$W/huge.pcap"
        echo "$rc" >"$W/rc"
    )
    rc=$(cat "$W/rc")
    last_cmd="(ulimit -v 262144; binlog-decode --dict HUGEDICT huge.pcap)"
    expect_rc 1
    expect_out_empty
    expect_err_text "binlog-decode: out of memory while decoding '$W/huge.pcap'; stopping"$'\n'
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
    # With --dict every operand is a capture, and one is needed.
    local no_capture=$'binlog-decode: expected at least one capture\n'"$TRY"
    usage_error "$no_capture" --dict "$DICT"
    usage_error "$no_capture" -s -d "$DICT"
    getopt_error "--dict" "$LINK150" --dict
    getopt_error "'d'" "$LINK150" -d
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
# Output formats, selection and the messages about captures.

# The 17 record lines of link150.pcap.gz (decoded without --stats), in
# $W/l150.txt: record N of the capture is line N, in the order
# link150.synth lists the records, 20 ms apart from 12:00:00.000.
link150_records() { without_stats "$EXP_LINK150" >"$W/l150.txt"; }
# rec N...: the lines of those records, in the order given.
rec() {
    local n
    for n in "$@"; do
        sed -n "${n}p" "$W/l150.txt"
    done
}

# The checks of a JSON Lines output, in Python: check_json FILE TEXTFILE
# [KIND=...]. Every line of FILE must parse on its own as one JSON object;
# the objects with a "kind" are records whose keys come in the documented
# order for that kind, and whose "text" fields, one after the other, are
# the lines of TEXTFILE (bytes that are no UTF-8 appear in JSON as the
# characters of the same value, \u0080 .. \u00ff).
check_json() {
    cat >"$W/check_json.py" <<'EOF'
import json, sys

KEYS = {
    "binlog": ["capture", "record", "kind", "time", "epoch_us", "subsystem", "module", "log",
               "level", "level_no", "category", "seq", "header", "params", "text"],
    "legacy": ["capture", "record", "kind", "time", "epoch_us", "subsystem", "module", "log",
               "level", "level_no", "category", "seq", "frame", "params", "text"],
    "syslog": ["capture", "record", "kind", "time", "epoch_us", "level", "level_no", "tag",
               "message", "seq", "text"],
    "capture": ["capture", "record", "kind", "time", "epoch_us", "seq", "length", "text"],
}

def as_json_text(raw):
    text = raw.decode("utf-8", "surrogateescape")
    return "".join(chr(ord(c) - 0xDC00) if 0xDC80 <= ord(c) <= 0xDCFF else c for c in text)

errors = []
objects = []
with open(sys.argv[1], "rb") as f:
    raw_lines = f.read().split(b"\n")
if raw_lines[-1] != b"":
    errors.append("the output does not end with a line feed")
for number, raw in enumerate(raw_lines[:-1], 1):
    try:
        value = json.loads(raw.decode("utf-8"))
    except Exception as error:
        errors.append("line %d is not JSON: %s" % (number, error))
        continue
    if not isinstance(value, dict):
        errors.append("line %d is no object" % number)
        continue
    objects.append(value)
records = [o for o in objects if "kind" in o]
for o in records:
    if list(o.keys()) != KEYS.get(o["kind"]):
        errors.append("record %s: keys %s" % (o.get("record"), list(o.keys())))
with open(sys.argv[2], "rb") as f:
    lines = [as_json_text(l) for l in f.read().split(b"\n")[:-1]]
texts = [o.get("text") for o in records]
if texts != lines:
    errors.append("the text fields are not the text lines:\n%s\n%s" % (texts, lines))
with open(sys.argv[1] + ".objects", "w") as f:
    json.dump(objects, f)
for e in errors:
    print(e)
sys.exit(1 if errors else 0)
EOF
    python3 "$W/check_json.py" "$1" "$2" >"$W/check.out" 2>&1 ||
        fail "$(cat "$W/check.out")"
    # jq reads the same lines, one value each.
    if ! jq -c . "$1" >"$W/jq.out" 2>"$W/jq.err"; then
        fail "jq rejects $1: $(cat "$W/jq.err")"
    elif [ "$(wc -l <"$W/jq.out")" != "$(wc -l <"$1")" ]; then
        fail "jq reads $(wc -l <"$W/jq.out") values in $(wc -l <"$1") lines"
    fi
}

# py_assert FILE.objects EXPRESSION...: each Python expression, over the
# list `o` of the JSON objects that check_json read, must be true.
py_assert() {
    local file=$1
    shift
    python3 -c '
import json, sys
o = json.load(open(sys.argv[1]))
failed = [e for e in sys.argv[2:] if not eval(e)]
for e in failed:
    print("not true of the JSON objects: " + e)
sys.exit(1 if failed else 0)' "$file" "$@" >"$W/assert.out" 2>&1 || fail "$(cat "$W/assert.out")"
}

case_json_output() {
    link150_records
    run_decode -T json "$DICT" "$LINK150"
    expect_rc 0
    expect_err_empty
    cp "$W/out" "$W/l150.json"
    check_json "$W/l150.json" "$W/l150.txt"
    local J=$W/l150.json.objects
    [ "$(jq -s length "$W/l150.json")" = 17 ] || fail "not 17 JSON lines"
    # Values as link150.synth wrote them and the dictionary types them.
    py_assert "$J" \
        'len(o) == 17 and [x["record"] for x in o] == list(range(1, 18))' \
        'all(x["capture"] == "'"$LINK150"'" for x in o)' \
        '[x["kind"] for x in o].count("binlog") == 13' \
        'o[0]["time"] == "2024-05-01T12:00:00.000Z" and o[0]["epoch_us"] == 1714564800000000' \
        'o[16]["time"] == "2024-05-01T12:00:00.320Z" and o[16]["epoch_us"] == 1714564800320000' \
        '(o[0]["subsystem"], o[0]["module"], o[0]["log"], o[0]["level"], o[0]["level_no"], o[0]["category"], o[0]["seq"]) == ("OAM", "sys", "ConfigApplied", "NOTICE", 4, "CFG", 1)' \
        'o[0]["header"] == [{"name": "bootId", "type": "TavUint64_t", "value": 0x5eed0001, "text": "0x5eed0001"}, {"name": "host", "type": "string", "value": "enb-01", "text": "enb-01"}, {"name": "slot", "type": "TavUint8_t", "value": 1, "text": "1"}]' \
        'o[0]["params"] == [{"name": "revision", "type": "TavUint16_t", "value": 42, "text": "42"}, {"name": "digest", "type": "binarystring", "value": "8f3a11c0d2e47b96", "text": "8f:3a:11:c0:d2:e4:7b:96"}, {"name": "delta", "type": "varbinarystring", "value": "0a0b0c0d0e0f", "text": "payload size:6 0a:0b:0c:0d:0e:0f"}]' \
        'o[1]["params"] == [{"name": "state", "type": "TavUint16_t", "value": 1, "text": "CONFIGURED", "enum": "CellState"}, {"name": "sfn", "type": "TavUint32_t", "value": 5123, "text": "0512-03"}]' \
        'o[4]["params"] == [{"name": "rssi", "index": i, "type": "TavInt16_t", "value": v, "text": str(v)} for i, v in enumerate([-71, -69, -80, -75])] + [{"name": "mask", "type": "TavUint32_t", "value": 15, "text": "0xf"}]' \
        'o[6]["level"] == "WARN" and o[6]["level_no"] == 3 and [p["value"] for p in o[6]["params"]] == [3, -1250, "0a1b2cff", "deadbeef01020304"]' \
        'o[7]["kind"] == "syslog" and (o[7]["tag"], o[7]["message"], o[7]["level"], o[7]["seq"]) == ("oamd", "config revision 42 active", "NOTICE", 1)' \
        'o[14]["message"] == "eth1: link down\neth1: link up"' \
        'o[8]["kind"] == "legacy" and o[8]["frame"] == "0512-03" and [p["name"] for p in o[8]["params"]] == ["ueId", "rnti", "cid", "tag", "detail"]' \
        'o[11]["kind"] == "capture" and o[11]["length"] == 76 and o[11]["seq"] == 1' \
        'o[12]["params"][1] == {"name": "severity", "type": "TavUint8_t", "value": 2, "text": "MAJOR", "enum": "AlarmSeverity"}'

    # With --stats the events come as objects in capture order: the gap
    # before record 11 (L2:mac 3 -> 7) and the summary at the end, whose
    # message is the statistics text.
    run_decode -s -T json "$DICT" "$LINK150"
    expect_rc 0
    expect_err_empty
    cp "$W/out" "$W/stats.json"
    check_json "$W/stats.json" "$W/l150.txt"
    tail -n 9 "$EXP_LINK150" >"$W/summary.txt"
    py_assert "$W/stats.json.objects" \
        'len(o) == 19 and [x.get("event") for x in o].index("gap") == 10 and o[18]["event"] == "summary"' \
        '(o[10]["module"], o[10]["last_seq"], o[10]["seq"], o[10]["missing"], o[10]["record"]) == ("0x201", 3, 7, 3, 11)' \
        '(o[18]["total"], o[18]["missing"], o[18]["out_of_order"], o[18]["bytes"]) == (17, 3, 0, 821)' \
        'o[18]["message"] + "\n" == open("'"$W/summary.txt"'").read()'

    # The time carries the offset of --utc-offset, Z only for 0; epoch_us
    # stays the sender's time; text is the line as the text format shows it.
    local offset hhmm suffix
    while read -r offset hhmm suffix; do
        run_decode -T json -u "$offset" "$DICT" "$LINK150"
        expect_rc 0
        expect_err_empty
        sed "s/^\[2024-05-01T12:00:/[2024-05-01T$hhmm:/" "$W/l150.txt" >"$W/shifted.txt"
        cp "$W/out" "$W/offset.json"
        check_json "$W/offset.json" "$W/shifted.txt"
        py_assert "$W/offset.json.objects" \
            'o[0]["time"] == "2024-05-01T'"$hhmm"':00.000'"$suffix"'"' \
            'o[16]["time"] == "2024-05-01T'"$hhmm"':00.320'"$suffix"'"' \
            'o[16]["epoch_us"] == 1714564800320000'
    done <<'EOF'
120 14:00 +02:00
-330 06:30 -05:30
0 12:00 Z
EOF

    # Any bytes give valid JSON: bytes that are no UTF-8, control
    # characters, quotes and backslashes; integers of 2^53 and more as strings.
    synth "$W/odd.pcap" --plain <<'EOF'
syslog tag=t\x01g text="bad \xff\xfe byte\x01 \"q\" \\ end, \xc3\xa9"
binlog L2:mac SchedGrant imsi=0xffffffffffffffff ueId=1 tbs=2 mcs=3
binlog L2:mac SchedGrant imsi=9007199254740991 ueId=1 tbs=2 mcs=3
binlog L2:mac HarqFailure retx=-2 offsetNs=-9007199254740993 pdu=00 raw=
EOF
    run_decode "$DICT" "$W/odd.pcap"
    expect_rc 0
    cp "$W/out" "$W/odd.txt"
    run_decode -T json "$DICT" "$W/odd.pcap"
    expect_rc 0
    expect_err_empty
    cp "$W/out" "$W/odd.json"
    check_json "$W/odd.json" "$W/odd.txt"
    py_assert "$W/odd.json.objects" \
        'o[0]["tag"] == "t\\x01g" and o[0]["message"] == "bad \u00ff\u00fe byte\x01 \"q\" \\ end, \u00e9"' \
        'o[1]["params"][0]["value"] == "18446744073709551615"' \
        'o[2]["params"][0]["value"] == 9007199254740991' \
        'o[3]["params"][1]["value"] == "-9007199254740993" and o[3]["params"][0]["value"] == -2'
    grep -qF '"message":"bad \u00ff\u00fe byte\u0001 \"q\" \\ end, '$'\xc3\xa9''"' "$W/odd.json" ||
        fail "the syslog message is not escaped as documented"
    # Events too, and a capture name with a quote, a comma, a line feed and
    # a byte that is no UTF-8: with --stats, a gap, an unknown log id and
    # the summary.
    local odd=$W/$'we"ird,\n\xff.pcap'
    synth "$odd" --plain <<'EOF'
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
record logid=0x09090001 payload=00
binlog L1:phy CellStateChange cellId=7 carrier=1 state=IDLE sfn=0x2803 seq=5
EOF
    run_decode "$DICT" "$odd"
    grep -v '^>>' "$W/out" >"$W/odd.txt"
    run_decode -s -T json "$DICT" "$odd"
    expect_rc 0
    cp "$W/out" "$W/oddname.json"
    check_json "$W/oddname.json" "$W/odd.txt"
    py_assert "$W/oddname.json.objects" \
        '[x.get("event", x.get("kind")) for x in o] == ["binlog", "unknown-log-id", "gap", "binlog", "summary"]' \
        'all(x["capture"] == "'"${W//\\/\\\\}"'/we\"ird,\n\u00ff.pcap" for x in o)'
}

case_csv_output() {
    link150_records
    run_decode -T csv "$DICT" "$LINK150"
    expect_rc 0
    expect_err_empty
    cp "$W/out" "$W/l150.csv"
    [ "$(head -n 1 "$W/l150.csv")" = $'capture,record,kind,time,subsystem,module,log,level,category,seq,message,params\r' ] ||
        fail "the CSV header row is not the documented one"
    # RFC 4180 through Python's csv module: 1 + 17 rows of 12 fields, each
    # row ending in CR LF; the message column is the message part of the
    # text line; fields with commas are quoted.
    cat >"$W/check_csv.py" <<'EOF'
import csv, sys
raw = open(sys.argv[1], "rb").read()
lines = open(sys.argv[2], encoding="utf-8").read().split("\n")[:-1]
capture = sys.argv[3]
errors = []
if raw.count(b"\r\n") != 18 or raw.count(b"\n") != 18 or not raw.endswith(b"\r\n"):
    errors.append("rows do not all end in CR LF")
rows = list(csv.reader(open(sys.argv[1], newline="", encoding="utf-8")))
if len(rows) != 18 or any(len(r) != 12 for r in rows):
    errors.append("not 18 rows of 12 fields: %r" % rows)
rows = rows[1:]
def expect(a, b):
    if a != b:
        errors.append("%r != %r" % (a, b))
expect(rows[0], [capture, "1", "binlog", "2024-05-01T12:00:00.000Z", "OAM", "sys", "ConfigApplied",
                 "NOTICE", "CFG", "1",
                 "Configuration revision=42 applied: digest=8f:3a:11:c0:d2:e4:7b:96 delta=payload size:6 0a:0b:0c:0d:0e:0f",
                 "bootId=0x5eed0001 host=enb-01 slot=1 revision=42 digest=8f:3a:11:c0:d2:e4:7b:96 delta=payload size:6 0a:0b:0c:0d:0e:0f"])
expect(rows[4][10:], ["RSSI per antenna rssi=[rssi[0]=-71,rssi[1]=-69,rssi[2]=-80,rssi[3]=-75] mask=0xf ",
                      "cellId=7 carrier=1 rssi[0]=-71 rssi[1]=-69 rssi[2]=-80 rssi[3]=-75 mask=0xf"])
expect(rows[7], [capture, "8", "syslog", "2024-05-01T12:00:00.140Z", "", "", "oamd", "NOTICE", "", "1",
                 "config revision 42 active", ""])
expect(rows[11], [capture, "12", "capture", "2024-05-01T12:00:00.220Z", "", "", "", "", "", "1", "", ""])
expect(rows[14][10], "eth1: link down\\neth1: link up")
for row, line in zip(rows, lines):
    if row[2] == "binlog" and not line.endswith("[" + row[10] + "] "):
        errors.append("message %r is not the end of %r" % (row[10], line))
    if row[3][:23] != line[1:24] or row[1] == "":
        errors.append("time %r is not the one of %r" % (row[3], line))
for e in errors:
    print(e)
sys.exit(1 if errors else 0)
EOF
    python3 "$W/check_csv.py" "$W/l150.csv" "$W/l150.txt" "$LINK150" >"$W/check.out" 2>&1 ||
        fail "$(cat "$W/check.out")"
    grep -qF ',"RSSI per antenna rssi=[rssi[0]=-71,rssi[1]=-69,rssi[2]=-80,rssi[3]=-75] mask=0xf ",' \
        "$W/l150.csv" || fail "the RssiReport message is not quoted"

    # Quotes are doubled inside quoted fields; the time carries the offset.
    synth "$W/quotes.pcap" --plain <<'EOF'
binlog OAM:sys AlarmRaised bootId=1 host=h slot=1 alarmId=7 severity=MINOR text="a, \"b\""
syslog tag=t text="say \"hi\""
EOF
    {
        printf 'capture,record,kind,time,subsystem,module,log,level,category,seq,message,params\r\n'
        printf '%s,1,binlog,2024-05-01T14:00:00.000+02:00,OAM,sys,AlarmRaised,INFO,ALARM,1,"Alarm alarmId=7 severity=MINOR: text=a, ""b""","bootId=0x1 host=h slot=1 alarmId=7 severity=MINOR text=a, ""b"""\r\n' "$W/quotes.pcap"
        printf '%s,2,syslog,2024-05-01T14:00:00.001+02:00,,,t,INFO,,1,"say ""hi""",\r\n' "$W/quotes.pcap"
    } >"$W/quotes.csv"
    run_decode -T csv -u 120 "$DICT" "$W/quotes.pcap"
    expect_rc 0
    expect_out_file "$W/quotes.csv"
    expect_err_empty
    python3 -c '
import csv, sys
rows = list(csv.reader(open(sys.argv[1], newline="")))
sys.exit(0 if rows[1][10] == "Alarm alarmId=7 severity=MINOR: text=a, \"b\"" and rows[2][10] == "say \"hi\"" else 1)' \
        "$W/out" || fail "Python's csv module does not read the quoted fields back"

    # A CSV file holds records only: with --stats the statistics go to
    # standard error.
    run_decode -s -T csv "$DICT" "$LINK150"
    expect_rc 0
    expect_out_file "$W/l150.csv"
    grep '^>>' "$EXP_LINK150" >"$W/stats.txt"
    same_file "$W/stats.txt" "$W/err" "standard error"
}

# The record lines of the IPv4 example (decoded with --udp-port 5000, no
# statistics) in $W/ipv4.txt: its 12 datagrams to port 5000 in order.
ipv4_records() { without_stats "$EXP_IPV4" >"$W/ipv4.txt"; }
irec() {
    local n
    for n in "$@"; do
        sed -n "${n}p" "$W/ipv4.txt"
    done
}

case_filter() {
    # Each expression with the records of link150.pcap.gz it keeps (see
    # link150.synth): enumeration names and numbers, arrays, levels by name
    # and number, texts and globs, times with offsets, and records that lack
    # the field (they match no comparison on it).
    link150_records
    local expression records
    while IFS='#' read -r expression records; do
        run_decode -Y "$expression" "$DICT" "$LINK150"
        last_cmd="binlog-decode -Y '$expression' DICT LINK150"
        expect_rc 0
        expect_err_empty
        # shellcheck disable=SC2086 # a list of record numbers
        rec $records >"$W/kept.txt"
        expect_out_file "$W/kept.txt"
    done <<'EOF'
state == ACTIVE#3
state == "ACTIVE"#3
state == 2#3
state != ACTIVE#2 14
state ~ *ED#2 14
severity == MAJOR#13
severity == 2#13
rssi[2] == -80#5
rssi[1] == -80#
rssi == -69#5
rssi < -100#
celsius[2] < 0#10
level <= WARN#7 13 15
level <= 3#7 13 15
WARN >= level#7 13 15
level == notice#1 8 17
level > INFO#5
level < INFO#1 7 8 13 15 17
kind == syslog#8 15
kind == legacy#9
kind == capture#12
kind != binlog#8 9 12 15
module == L2:mac#4 6 7 11 16
module == mac#4 6 7 11 16
module ~ L1:*#2 3 5 9 14
module ~ L*#
subsystem == OAM#1 10 13 17
log ~ Sched*#4 6 11 16
log ~ ?arq*#7
category == DIAG#2 3 14
seq >= 7#11 16
5 < seq#11 16
seq == 1#1 2 4 8 12
ueId == 17#4 6 9 11
ueId != 17#16
!(ueId == 17)#1 2 3 5 7 8 10 12 13 14 15 16 17
module == L2:mac && ueId == 17#4 6 11
level <= WARN || kind == legacy#7 9 13 15
(kind == syslog || kind == capture) && seq == 2#15
host == enb-01 && level < INFO#1 13 17
mask == 0xf#5
mask == "0xf"#5
text ~ "*fan*"#13 17
nosuch == 1#
nosuch != 1#
capture ~ *link150.pcap.gz#1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17
time >= 2024-05-01T12:00:00.100Z && time < 2024-05-01T12:00:00.160Z#6 7 8
time >= 2024-05-01T14:00:00.100+02:00 && time < 2024-05-01T07:00:00.160-05:00#6 7 8
time > 2024-05-01T12:00:00.3Z#17
EOF

    # Several -Y: every one must hold. JSON gets the same records.
    run_decode -Y 'module == L2:mac' -Y 'ueId == 17' "$DICT" "$LINK150"
    expect_rc 0
    rec 4 6 11 >"$W/kept.txt"
    expect_out_file "$W/kept.txt"
    run_decode -T json -Y 'level <= WARN' "$DICT" "$LINK150"
    expect_rc 0
    [ "$(jq -c '[.record, .level]' "$W/out" | tr -d '\n')" = '[7,"WARN"][13,"ERROR"][15,"WARN"]' ] ||
        fail "the JSON records kept by the filter: $(cat "$W/out")"
    # The statistics still see every record: the gap and the summary are
    # those of the whole capture.
    run_decode -s -Y 'kind == syslog' "$DICT" "$LINK150"
    expect_rc 0
    {
        rec 8
        grep '^>>possibly' "$EXP_LINK150"
        rec 15
        tail -n 9 "$EXP_LINK150"
    } >"$W/kept.txt"
    expect_out_file "$W/kept.txt"
    # Header values, enumerations and arrays of the IPv4 example.
    ipv4_records
    while IFS='#' read -r expression records; do
        run_decode -p 5000 -Y "$expression" "$DICT" "$IPV4"
        last_cmd="binlog-decode -p 5000 -Y '$expression' DICT IPV4"
        expect_rc 0
        expect_err_ipv4 "$IPV4" 5000
        # shellcheck disable=SC2086 # a list of record numbers
        irec $records >"$W/kept.txt"
        expect_out_file "$W/kept.txt"
    done <<'EOF'
msgType == RRCSetup#3
msgType ~ RRCSetup*#1 3 4
cause == mo-Signalling#2
cause == 4#9
channel == DCCH && sfn > 5180#10
rsrp[3] == -140 && rsrq[0] > -10#8
servCell == 7 && ueId == 1001 && kind == binlog#1 2 3 4 5 6 8 10
EOF
}

case_filter_errors() {
    # A bad expression: exit status 2 before any capture is read (the
    # capture does not exist and is not reported), the message, the
    # expression, and a caret under the offending token.
    local expression text caret
    while IFS='#' read -r expression caret text; do
        run_decode -o "$W/never.txt" -Y "$expression" "$DICT" "$W/missing.pcap"
        last_cmd="binlog-decode -Y '$expression' ..."
        expect_rc 2
        expect_out_empty
        expect_err_text "binlog-decode: invalid filter expression: $text"$'\n'"  $expression"$'\n'"  $(printf "%${caret}s" "")^"$'\n'
    done <<'EOF'
level <= WARNING#9#unknown level name 'WARNING'
level#5#expected an operator after 'level'
(seq == 1#9#expected ')'
seq == 1)#8#unmatched ')'
seq == abc#7#seq needs a number, found 'abc'
kind < binlog#5#kind compares with == or != only
kind == foo#8#unknown kind 'foo'
seq ~ 1*#4#'~' does not apply to seq
time > 5#7#time needs a time literal like 2024-05-01T12:00:00Z
x == "abc#5#unterminated string
rssi[x] == 1#0#bad array index in 'rssi[x]'
seq == 99999999999999999999#7#number out of range '99999999999999999999'
seq == 1 &&#11#expected a field name, found the end
level <= WARN ||| seq == 1#16#expected '||', found '|'
EOF
    [ ! -e "$W/never.txt" ] || fail "the output was written despite the bad expression"
    # Of several -Y, the bad one is shown.
    run_decode -Y 'seq > 1' -Y 'level <' "$DICT" "$W/missing.pcap"
    expect_rc 2
    expect_err_text "binlog-decode: invalid filter expression: expected a value after '<'"$'\n'"  level <"$'\n'"         ^"$'\n'
    # --since and --until show the time as given.
    run_decode --since yesterday "$DICT" "$W/missing.pcap"
    expect_rc 2
    expect_out_empty
    expect_err_text $'binlog-decode: invalid --since time: time needs a time literal like 2024-05-01T12:00:00Z\n  yesterday\n  ^\n'
    run_decode --until 2024-05-01T12:00:00 "$DICT" "$W/missing.pcap"
    expect_rc 2
    expect_err_text $'binlog-decode: invalid --until time: time needs a time literal like 2024-05-01T12:00:00Z\n  2024-05-01T12:00:00\n  ^\n'
    # A time is one literal, not more of an expression.
    run_decode --since '2024-05-01T12:00:00Z || seq > 0' "$DICT" "$W/missing.pcap"
    expect_rc 2
    expect_err_text $'binlog-decode: invalid --since time \'2024-05-01T12:00:00Z || seq > 0\' (expected a time such as 2024-05-01T12:00:00Z or 2024-05-01T14:00:00.250+02:00)\n'
}

case_since_until() {
    # --since is time >= TIME, --until time < TIME, on the sender's time
    # whatever --utc-offset shows; offsets and fractions to the nanosecond.
    link150_records
    local options records
    while IFS='#' read -r options records; do
        # shellcheck disable=SC2086 # the options of the line
        run_decode $options "$DICT" "$LINK150"
        expect_rc 0
        expect_err_empty
        # shellcheck disable=SC2086 # a list of record numbers
        rec $records >"$W/kept.txt"
        expect_out_file "$W/kept.txt"
    done <<'EOF'
--since 2024-05-01T12:00:00.100Z --until 2024-05-01T12:00:00.160Z#6 7 8
--since 2024-05-01T14:00:00.100+02:00 --until 2024-05-01T07:00:00.160-05:00#6 7 8
--since 2024-05-01T12:00:00.3Z#16 17
--until 2024-05-01T12:00:00.020Z#1
--since 2024-05-01T12:00:00.02Z --until 2024-05-01T12:00:00.020000001Z#2
--since 2024-05-01T12:00:00.020000001Z --until 2024-05-01T12:00:00.040Z#
--since 2024-05-01T12:00:00.100Z -Y level<=WARN#7 13 15
--since 2024-05-02T00:00:00Z#
EOF
    run_decode -u 120 --since 2024-05-01T14:00:00.100+02:00 --until 2024-05-01T12:00:00.160Z \
        "$DICT" "$LINK150"
    expect_rc 0
    rec 6 7 8 | sed 's/^\[2024-05-01T12:/[2024-05-01T14:/' >"$W/kept.txt"
    expect_out_file "$W/kept.txt"
}

case_tally() {
    # One table at the end instead of the lines: records per module, log and
    # level, most first, then in byte order of the names. link150.synth has
    # 4 SchedGrant and 3 CellStateChange INFO records, one of each other
    # kind; the plain capture record has no log and no level.
    {
        printf '%12s  %-7s  %-17s  %s\n' records module log level
        printf '%12s  %-7s  %-17s  %s\n' 4 L2:mac SchedGrant INFO 3 L1:phy CellStateChange INFO \
            1 L1:phy LegacyTrace INFO 1 L1:phy RssiReport DEBUG 1 L2:mac HarqFailure WARN \
            1 OAM:sys AlarmRaised ERROR 1 OAM:sys AlarmRaised NOTICE \
            1 OAM:sys ConfigApplied NOTICE 1 OAM:sys TemperatureSample INFO 1 capture "" "" \
            1 syslog kernel WARN 1 syslog oamd NOTICE
    } | sed 's/ *$//' >"$W/tally.txt"
    run_decode --tally "$DICT" "$LINK150"
    expect_rc 0
    expect_out_file "$W/tally.txt"
    expect_err_empty
    # --stats changes nothing in the table.
    run_decode --tally -s "$DICT" "$LINK150"
    expect_rc 0
    expect_out_file "$W/tally.txt"
    {
        printf 'module,log,level,records\r\n'
        printf '%s\r\n' L2:mac,SchedGrant,INFO,4 L1:phy,CellStateChange,INFO,3 \
            L1:phy,LegacyTrace,INFO,1 L1:phy,RssiReport,DEBUG,1 L2:mac,HarqFailure,WARN,1 \
            OAM:sys,AlarmRaised,ERROR,1 OAM:sys,AlarmRaised,NOTICE,1 \
            OAM:sys,ConfigApplied,NOTICE,1 OAM:sys,TemperatureSample,INFO,1 capture,,,1 \
            syslog,kernel,WARN,1 syslog,oamd,NOTICE,1
    } >"$W/tally.csv"
    run_decode --tally -T csv "$DICT" "$LINK150"
    expect_rc 0
    expect_out_file "$W/tally.csv"
    expect_err_empty
    # JSON: one object per row, in the same order; the CSV rows made into
    # objects are the same.
    run_decode --tally -T json "$DICT" "$LINK150"
    expect_rc 0
    expect_err_empty
    python3 -c '
import csv, json, sys
objects = [json.loads(line) for line in open(sys.argv[1])]
rows = list(csv.DictReader(open(sys.argv[2], newline="")))
expected = [{"module": r["module"], "log": r["log"], "level": r["level"], "records": int(r["records"])} for r in rows]
sys.exit(0 if objects == expected and all(list(o) == ["module", "log", "level", "records"] for o in objects) else 1)' \
        "$W/out" "$W/tally.csv" || fail "the JSON tally is not the table: $(cat "$W/out")"
    # Of the records the filter keeps (an enumeration name needs the
    # values' texts even in a text tally), and of the first N.
    {
        printf '%12s  %-7s  %-15s  %s\n' records module log level 1 L1:phy CellStateChange INFO \
            1 OAM:sys AlarmRaised ERROR
    } >"$W/tally.txt"
    run_decode --tally -Y 'state == ACTIVE || severity == MAJOR' "$DICT" "$LINK150"
    expect_rc 0
    expect_out_file "$W/tally.txt"
    printf '%12s  %-7s  %-15s  %s\n' records module log level 1 L1:phy CellStateChange INFO \
        1 OAM:sys ConfigApplied NOTICE >"$W/tally.txt"
    run_decode --tally -c 2 "$DICT" "$LINK150"
    expect_rc 0
    expect_out_file "$W/tally.txt"
    # Over two captures the counts add up.
    run_decode --tally -T csv "$DICT" "$LINK150" "$LINK150"
    expect_rc 0
    python3 -c '
import sys
out = []
for i, line in enumerate(sys.stdin.buffer.read().split(b"\r\n")[:-1]):
    if i:
        head, count = line.rsplit(b",", 1)
        line = head + b"," + str(2 * int(count)).encode()
    out.append(line + b"\r\n")
sys.stdout.buffer.write(b"".join(out))' <"$W/tally.csv" >"$W/tally2.csv"
    expect_out_file "$W/tally2.csv"
}

case_count() {
    # -c N: the first N records (of those the filter keeps), then stop,
    # also across captures; with --stats, the statistics of what was read.
    link150_records
    run_decode -c 3 "$DICT" "$LINK150"
    expect_rc 0
    expect_err_empty
    rec 1 2 3 >"$W/first.txt"
    expect_out_file "$W/first.txt"
    run_decode -c 3 "$DICT" "$LINK150" "$LINK150"
    expect_rc 0
    expect_out_file "$W/first.txt"
    run_decode --count=20 "$DICT" "$LINK150" "$LINK150"
    expect_rc 0
    { cat "$W/l150.txt"; rec 1 2 3; } >"$W/twenty.txt"
    expect_out_file "$W/twenty.txt"
    run_decode -c 2 -Y 'kind == syslog' "$DICT" "$LINK150" "$LINK150"
    expect_rc 0
    rec 8 15 >"$W/syslog.txt"
    expect_out_file "$W/syslog.txt"
    run_decode -c 1 -T csv "$DICT" "$LINK150"
    expect_rc 0
    [ "$(wc -l <"$W/out")" = 2 ] || fail "-c 1 -T csv is not the header and one row"
    # Two records read: ConfigApplied (16 + 24 header + 18 bytes) and
    # CellStateChange (16 + 4 + 6). The statistics' time span starts at the
    # first record whose microseconds are not 0 (as readBinaryFiledata's
    # do): record 2 at .020, which is also the last, so the span is 0 and
    # the rates are the counts themselves.
    run_decode -s -c 2 "$DICT" "$LINK150"
    expect_rc 0
    {
        rec 1 2
        printf '%s\n' ">>totalRecords =  2" ">>missingRecords =  0 (0.000000%)" \
            ">>outOfOrderRecords =  0" ">>records received/msec = 2.00" \
            ">>records generated at source/msec = 2.00" ">>records received/sec = 2000.00" \
            ">>records generated at source/sec = 2000.00" ">>total log record size = 84" \
            ">>average log record size = 42"
    } >"$W/stats.txt"
    expect_out_file "$W/stats.txt"
    expect_err_empty
    local value
    for value in 0 -1 x ""; do
        usage_error "binlog-decode: invalid count '$value' (expected a positive number)"$'\n' \
            -c "$value" "$DICT" "$LINK150"
    done
}

# cell_line TIME SEQ CELL: the line of a CellStateChange record of cell CELL
# (state ACTIVE, sfn 0x2803) at TIME.
cell_line() {
    binlog_line "2024-05-01T12:00:00.$1Z" "L1:phy" "CellStateChange" "INFO" "DIAG" "$2" \
        "cellId=$3 carrier=1 " "Cell moved to state=ACTIVE at sfn=0000-03"
}

case_merge() {
    # Two captures as one stream in time order; equal times go to the
    # capture given first, then to the record read first.
    local t=2024-05-01T12:00:00
    synth "$W/a.pcap" --plain <<EOF
binlog L1:phy CellStateChange cellId=1 carrier=1 state=ACTIVE sfn=0x2803 time=$t.000Z
binlog L1:phy CellStateChange cellId=1 carrier=1 state=ACTIVE sfn=0x2803 time=$t.010Z
binlog L1:phy CellStateChange cellId=1 carrier=1 state=ACTIVE sfn=0x2803 time=$t.010Z
EOF
    synth "$W/b.pcap" --plain <<EOF
binlog L1:phy CellStateChange cellId=2 carrier=1 state=ACTIVE sfn=0x2803 time=$t.005Z
binlog L1:phy CellStateChange cellId=2 carrier=1 state=ACTIVE sfn=0x2803 time=$t.010Z
binlog L1:phy CellStateChange cellId=2 carrier=1 state=ACTIVE sfn=0x2803 time=$t.010Z
EOF
    # a: .000 .010 .010; b: .005 .010 .010.
    { cell_line 000 1 1; cell_line 005 1 2; cell_line 010 2 1; cell_line 010 3 1
      cell_line 010 2 2; cell_line 010 3 2; } >"$W/ab.txt"
    run_decode --merge "$DICT" "$W/a.pcap" "$W/b.pcap"
    expect_rc 0
    expect_out_file "$W/ab.txt"
    expect_err_empty
    { cell_line 000 1 1; cell_line 005 1 2; cell_line 010 2 2; cell_line 010 3 2
      cell_line 010 2 1; cell_line 010 3 1; } >"$W/ba.txt"
    run_decode --merge "$DICT" "$W/b.pcap" "$W/a.pcap"
    expect_rc 0
    expect_out_file "$W/ba.txt"
    # Without --merge, one capture after the other.
    run_decode "$DICT" "$W/a.pcap" "$W/b.pcap"
    { cell_line 000 1 1; cell_line 010 2 1; cell_line 010 3 1; cell_line 005 1 2
      cell_line 010 2 2; cell_line 010 3 2; } >"$W/seq.txt"
    expect_out_file "$W/seq.txt"
    # Statistics per capture, each when its capture ends: a's after its last
    # record, b's at the end; each record is 16 + 4 + 6 bytes. The time span
    # starts at the first record whose microseconds are not 0: a's from .010
    # to .010, so its rates are the count (3); b's from .005 to .010 (3
    # records over 5 ms).
    stats3() {
        printf '%s\n' ">>totalRecords =  3" ">>missingRecords =  0 (0.000000%)" \
            ">>outOfOrderRecords =  0" ">>records received/msec = $1" \
            ">>records generated at source/msec = $1" ">>records received/sec = $2" \
            ">>records generated at source/sec = $2" ">>total log record size = 78" \
            ">>average log record size = 26"
    }
    { cell_line 000 1 1; cell_line 005 1 2; cell_line 010 2 1; cell_line 010 3 1
      stats3 3.00 3000.00; cell_line 010 2 2; cell_line 010 3 2; stats3 0.60 600.00; } >"$W/abs.txt"
    run_decode --merge -s "$DICT" "$W/a.pcap" "$W/b.pcap"
    expect_rc 0
    expect_out_file "$W/abs.txt"
    # -c counts the merged stream; JSON and -H follow the merged order.
    run_decode --merge -c 3 "$DICT" "$W/b.pcap" "$W/a.pcap"
    head -n 3 "$W/ba.txt" >"$W/three.txt"
    expect_out_file "$W/three.txt"
    run_decode --merge -T json "$DICT" "$W/a.pcap" "$W/b.pcap"
    [ "$(jq -r '"\(.capture | sub(".*/"; "")):\(.record)"' "$W/out" | tr '\n' ' ')" = "a.pcap:1 b.pcap:1 a.pcap:2 a.pcap:3 b.pcap:2 b.pcap:3 " ] ||
        fail "the merged JSON records are not in time order"
    run_decode --merge -H "$DICT" "$W/a.pcap" "$W/b.pcap"
    paste -d '' <(printf '%s:\n' "$W/a.pcap" "$W/b.pcap" "$W/a.pcap" "$W/a.pcap" "$W/b.pcap" "$W/b.pcap") \
        "$W/ab.txt" >"$W/abh.txt"
    expect_out_file "$W/abh.txt"
    # Standard input cannot be merged.
    usage_error $'binlog-decode: --merge reads its captures side by side: standard input cannot be one\n'"$TRY" \
        --merge "$DICT" "$W/a.pcap" -
}

case_with_filename() {
    # -H: every text line starts with its capture's name and a colon, the
    # statistics lines too; JSON and CSV already name the capture.
    sed "s|^|$LINK150:|" "$EXP_LINK150" >"$W/h.txt"
    sed "s|^|$IPV4:|" "$EXP_IPV4" >>"$W/h.txt"
    run_decode -H -s -p 5000 "$DICT" "$LINK150" "$IPV4"
    expect_rc 0
    expect_out_file "$W/h.txt"
    expect_err_ipv4 "$IPV4" 5000
    run_decode --with-filename "$DICT" - <"$LINK150"
    expect_rc 0
    without_stats "$EXP_LINK150" | sed 's/^/-:/' >"$W/h.txt"
    expect_out_file "$W/h.txt"
    run_decode -T csv "$DICT" "$LINK150"
    cp "$W/out" "$W/plain.csv"
    run_decode -H -T csv "$DICT" "$LINK150"
    expect_rc 0
    expect_out_file "$W/plain.csv"
}

case_unknown_hex() {
    # --unknown=hex: a record of a log id the dictionary lacks is a line of
    # its own: time, "unknown", the log id, the level, an empty category,
    # the sequence number and the payload bytes in hex; no message then.
    synth "$W/unknown.pcap" --plain <<'EOF'
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
record logid=0x09090001 level=WARN seq=42 payload=00ff10
record logid=0x01020009 seq=7
EOF
    unknown_line() {
        printf '[%s] [%10s] [%25s] [%8s] [%10s] [%u] [%s]\n' "$1" unknown "log id $2" "$3" "" "$4" "$5"
    }
    {
        one_record_line 7
        unknown_line 2024-05-01T12:00:00.001Z 0x9090001 WARN 42 00:ff:10
        unknown_line 2024-05-01T12:00:00.002Z 0x1020009 "" 7 ""
    } >"$W/hex.txt"
    grep -qxF '[2024-05-01T12:00:00.001Z] [   unknown] [         log id 0x9090001] [    WARN] [          ] [42] [00:ff:10]' \
        "$W/hex.txt" || fail "the expected --unknown=hex line was not made"
    run_decode --unknown=hex "$DICT" "$W/unknown.pcap"
    expect_rc 0
    expect_out_file "$W/hex.txt"
    expect_err_empty
    # The offset moves the time; -H names the capture.
    run_decode --unknown=hex -u 60 -H "$DICT" "$W/unknown.pcap"
    expect_rc 0
    sed -e 's/^\[2024-05-01T12:/[2024-05-01T13:/' -e "s|^|$W/unknown.pcap:|" "$W/hex.txt" >"$W/hex60.txt"
    expect_out_file "$W/hex60.txt"
    # Without it (or with --unknown=skip) such records are reported.
    local skipped="binlog-decode: $W/unknown.pcap: record 2: log id 0x9090001 not valid"$'\n'"binlog-decode: $W/unknown.pcap: record 3: log id 0x1020009 not valid"$'\n'
    one_record_line 7 >"$W/first.txt"
    run_decode "$DICT" "$W/unknown.pcap"
    expect_rc 0
    expect_out_file "$W/first.txt"
    expect_err_text "$skipped"
    run_decode --unknown=skip "$DICT" "$W/unknown.pcap"
    expect_rc 0
    expect_out_file "$W/first.txt"
    expect_err_text "$skipped"
    usage_error $'binlog-decode: invalid --unknown \'bogus\' (expected hex or skip)\n' \
        --unknown=bogus "$DICT" "$W/unknown.pcap"
}

case_color() {
    # --color=always colours the level field: CRITICAL and ERROR red, WARN
    # yellow, NOTICE bold, the others not; statistics lines are dimmed, each
    # on its own.
    local e=$'\033' level n=0
    : >"$W/levels.synth"
    : >"$W/plain.txt"
    for level in CRITICAL ERROR WARN NOTICE INFO DEBUG; do
        echo "binlog L1:phy CellStateChange cellId=1 carrier=1 state=ACTIVE sfn=0x2803 level=$level" >>"$W/levels.synth"
        binlog_line "2024-05-01T12:00:00.00${n}Z" "L1:phy" "CellStateChange" "$level" "DIAG" $((n + 1)) \
            "cellId=1 carrier=1 " "Cell moved to state=ACTIVE at sfn=0000-03" >>"$W/plain.txt"
        n=$((n + 1))
    done
    synth "$W/levels.pcap" --plain <"$W/levels.synth"
    colour_levels() {
        sed -e "s/\[CRITICAL\]/[${e}[31mCRITICAL${e}[0m]/" -e "s/\[   ERROR\]/[${e}[31m   ERROR${e}[0m]/" \
            -e "s/\[    WARN\]/[${e}[33m    WARN${e}[0m]/" -e "s/\[  NOTICE\]/[${e}[1m  NOTICE${e}[0m]/" \
            -e "s/^>>.*/${e}[2m&${e}[0m/" "$@"
    }
    colour_levels "$W/plain.txt" >"$W/colour.txt"
    [ "$(grep -c "$e" "$W/colour.txt")" = 4 ] || fail "the coloured lines were not made"
    run_decode --color=always "$DICT" "$W/levels.pcap"
    expect_rc 0
    expect_out_file "$W/colour.txt"
    expect_err_empty
    run_decode --colour=always -s "$DICT" "$LINK150"
    expect_rc 0
    colour_levels "$EXP_LINK150" >"$W/colour150.txt"
    expect_out_file "$W/colour150.txt"
    # No colour to a file or a pipe unless always, nor with NO_COLOR, nor in
    # JSON and CSV.
    run_decode "$DICT" "$W/levels.pcap"
    expect_out_file "$W/plain.txt"
    run_decode --color "$DICT" "$W/levels.pcap"
    expect_out_file "$W/plain.txt"
    last_cmd="binlog-decode --color=auto DICT levels.pcap | cat"
    timeout 120 "${EMU[@]}" "$DECODE" --color=auto "$DICT" "$W/levels.pcap" 2>"$W/err" | cat >"$W/out"
    expect_out_file "$W/plain.txt"
    NO_COLOR=1 run_decode --color=auto "$DICT" "$W/levels.pcap"
    expect_out_file "$W/plain.txt"
    run_decode --color=never "$DICT" "$W/levels.pcap"
    expect_out_file "$W/plain.txt"
    local format
    for format in json csv; do
        run_decode --color=always -T "$format" "$DICT" "$W/levels.pcap"
        expect_rc 0
        ! grep -q "$e" "$W/out" || fail "escape sequences in the $format output"
    done
    # On a terminal (when script(1) can give one) auto colours, unless
    # NO_COLOR is set.
    if command -v script >/dev/null && [ "${#EMU[@]}" = 0 ]; then
        last_cmd="script: binlog-decode DICT levels.pcap"
        script -qec "$(printf '%q ' "$DECODE" "$DICT" "$W/levels.pcap")" /dev/null </dev/null >"$W/tty.out" 2>&1
        grep -qF "[${e}[33m    WARN${e}[0m]" "$W/tty.out" || fail "no colour on a terminal: $(cat -v "$W/tty.out")"
        NO_COLOR=1 script -qec "$(printf '%q ' "$DECODE" "$DICT" "$W/levels.pcap")" /dev/null </dev/null >"$W/tty.out" 2>&1
        ! grep -q "$e" "$W/tty.out" || fail "colour on a terminal despite NO_COLOR"
    fi
    usage_error $'binlog-decode: invalid --color \'sometimes\' (expected auto, always or never)\n' \
        --color=sometimes "$DICT" "$W/levels.pcap"
}

case_progress() {
    # --progress draws a line on standard error even when it is a file: the
    # capture, the MiB read, the records and the rate, redrawn in place (CR
    # ... erase to the end of the line) at most 4 times a second every 4096
    # records, and erased at the end. The capture comes through a pipe in
    # two parts 1.5 s apart, so that record 8192 comes well after the start.
    synth "$W/many.pcap" --plain <<'EOF'
repeat 9000 binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
EOF
    # 24 bytes of file header, then 16 + 26 bytes a record.
    local split=$((24 + 5000 * 42)) pid
    [ "$(stat -c %s "$W/many.pcap")" = $((24 + 9000 * 42)) ] || fail "many.pcap is not 9000 records"
    head -c "$split" "$W/many.pcap" >"$W/part1"
    tail -c +$((split + 1)) "$W/many.pcap" >"$W/part2"
    run_decode "$DICT" "$W/many.pcap"
    expect_rc 0
    expect_err_empty
    cp "$W/out" "$W/many.txt"
    [ "$(wc -l <"$W/many.txt")" = 9000 ] || fail "many.pcap does not decode to 9000 lines"
    mkfifo "$W/feed"
    local option
    for option in --progress --no-progress ""; do
        last_cmd="binlog-decode $option DICT - <feed, fed in two parts"
        "${EMU[@]}" "$DECODE" $option "$DICT" - <"$W/feed" >"$W/out" 2>"$W/err" &
        pid=$!
        exec 3>"$W/feed"
        cat "$W/part1" >&3
        sleep 1.5
        cat "$W/part2" >&3
        exec 3>&-
        wait_bounded "$pid"
        expect_rc 0
        expect_out_file "$W/many.txt"
        if [ "$option" = --progress ]; then
            python3 -c '
import re, sys
err = open(sys.argv[1], "rb").read()
draw = rb"\r-: \d+\.\d MiB, (4096|8192) records, \d+ records/s\x1b\[K"
sys.exit(0 if re.fullmatch(rb"(" + draw + rb")+\r\x1b\[K", err) else 1)' "$W/err" ||
                fail "the progress line is not drawn and erased: $(cat -v "$W/err")"
        else
            expect_err_empty
        fi
    done
}

case_diagnostics_dedup() {
    # A message repeated in one capture is shown 10 times, then counted at
    # the end of that capture; --verbose shows every one. Each capture
    # counts anew.
    synth "$W/dedup.pcap" --plain <<'EOF'
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
repeat 12 record logid=0x01020009 payload=abcd
record logid=0x09090001
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803 seq=2
EOF
    local f=$W/dedup.pcap n
    # Records 2 to 13 have log id 0x1020009, record 14 0x9090001.
    shown() {
        for n in $(seq 2 "$1"); do
            echo "binlog-decode: $f: record $n: log id 0x1020009 not valid"
        done
        echo "binlog-decode: $f: record 14: log id 0x9090001 not valid"
    }
    { shown 11; echo "binlog-decode: $f: log id 0x1020009 not valid: 12 times in all, 2 more not shown"; } >"$W/dedup.err"
    {
        one_record_line 7
        binlog_line "2024-05-01T12:00:00.014Z" "L1:phy" "CellStateChange" "INFO" "DIAG" 2 \
            "cellId=7 carrier=1 " "Cell moved to state=ACTIVE at sfn=0000-03"
    } >"$W/dedup.txt"
    run_decode "$DICT" "$f"
    expect_rc 0
    expect_out_file "$W/dedup.txt"
    same_file "$W/dedup.err" "$W/err" "standard error"
    run_decode -v "$DICT" "$f"
    expect_rc 0
    shown 13 >"$W/verbose.err"
    same_file "$W/verbose.err" "$W/err" "standard error"
    run_decode --verbose "$DICT" "$f" "$f"
    cat "$W/verbose.err" "$W/verbose.err" >"$W/verbose2.err"
    same_file "$W/verbose2.err" "$W/err" "standard error"
    run_decode "$DICT" "$f" "$f"
    cat "$W/dedup.err" "$W/dedup.err" >"$W/dedup2.err"
    same_file "$W/dedup2.err" "$W/err" "standard error"
    # A bindisplay file that does not parse: the library's messages (their
    # last line ended), the dictionary check's error as a warning (libxml2
    # reports the end of the data, line 2, inside the enum opened on line 1),
    # and one note for the whole run, at the first record that shows an
    # enumeration value as a number.
    mkdir -p "$W/brokendict"
    cp "$DICT"/*.xml "$W/brokendict/"
    printf '<displays><enum name="x">\n' >"$W/brokendict/ran_bindisplay.xml"
    run_decode "$W/brokendict" "$LINK150" "$LINK150"
    expect_rc 0
    tail -n 3 "$W/err" >"$W/tail.err"
    printf '%s\n' "Error parsing file :$W/brokendict/ran_bindisplay.xml" \
        "binlog-decode: warning: $W/brokendict/ran_bindisplay.xml:2: not well-formed XML: Premature end of data in tag enum line 1; no enumeration is applied [xml-not-well-formed]" \
        "binlog-decode: $LINK150: record 2: the enumerations did not load: from here on, values with an enumeration format are shown as numbers" >"$W/tail.expected"
    same_file "$W/tail.expected" "$W/tail.err" "the end of standard error"
    [ "$(grep -c 'enumerations did not load' "$W/err")" = 1 ] || fail "the note is not said once"
    link150_records
    sed -e 's/state=CONFIGURED/state=1/' -e 's/state=ACTIVE/state=2/' -e 's/state=BLOCKED/state=3/' \
        -e 's/severity=MAJOR/severity=2/' -e 's/severity=WARNING/severity=4/' "$W/l150.txt" "$W/l150.txt" >"$W/numbers.txt"
    expect_out_file "$W/numbers.txt"
}

case_diagnostics_many_texts() {
    # Past 10,000 different messages in one capture (a capture of garbage,
    # another log id in every record), the others are shown as they come and
    # not kept: a repeat of one of them is shown again, and the end of the
    # capture says how many were shown so.
    local i ids=10003
    {
        for i in $(seq 1 $ids); do
            printf 'record logid=0x%x\n' $((0x7f000000 + i))
        done
        echo "repeat 12 record logid=0x7f002713"
        echo "repeat 12 record logid=0x7f000001"
    } >"$W/many.script"
    synth "$W/many.pcap" --plain <"$W/many.script"
    local f=$W/many.pcap
    {
        for i in $(seq 1 $ids); do
            printf 'binlog-decode: %s: record %d: log id 0x%x not valid\n' "$f" "$i" \
                $((0x7f000000 + i))
        done
        for i in $(seq $((ids + 1)) $((ids + 12))); do
            echo "binlog-decode: $f: record $i: log id 0x7f002713 not valid"
        done
        # The first id: shown 10 times in all, then counted.
        for i in $(seq $((ids + 13)) $((ids + 21))); do
            echo "binlog-decode: $f: record $i: log id 0x7f000001 not valid"
        done
        echo "binlog-decode: $f: log id 0x7f000001 not valid: 13 times in all, 3 more not shown"
        echo "binlog-decode: $f: 15 more messages, past 10000 different ones, were each shown, their repeats not counted"
    } >"$W/many.err"
    run_decode "$DICT" "$f"
    expect_rc 0
    expect_out_empty
    same_file "$W/many.err" "$W/err" "standard error"
    # --verbose shows every message and counts none.
    run_decode --verbose "$DICT" "$f"
    expect_rc 0
    [ "$(wc -l <"$W/err")" = $((ids + 24)) ] || fail "--verbose: not one line a record"
    grep -q "more messages\|times in all" "$W/err" && fail "--verbose: a count"
    true
}

# run_decode_merged ARGS...: binlog-decode with standard output and standard
# error into one file, $W/all (as "> all 2>&1").
run_decode_merged() {
    last_cmd="binlog-decode $* >all 2>&1"
    timeout 120 "${EMU[@]}" "$DECODE" "$@" >"$W/all" 2>&1
    rc=$?
}

case_stderr_order() {
    # With standard output and standard error in one file, a message comes
    # after the lines of the records before it, never inside a line.
    synth "$W/dedup.pcap" --plain <<'EOF'
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
repeat 12 record logid=0x01020009 payload=abcd
record logid=0x09090001
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803 seq=2
EOF
    local f=$W/dedup.pcap n
    {
        one_record_line 7
        for n in $(seq 2 11); do
            echo "binlog-decode: $f: record $n: log id 0x1020009 not valid"
        done
        echo "binlog-decode: $f: record 14: log id 0x9090001 not valid"
        binlog_line "2024-05-01T12:00:00.014Z" "L1:phy" "CellStateChange" "INFO" "DIAG" 2 \
            "cellId=7 carrier=1 " "Cell moved to state=ACTIVE at sfn=0000-03"
        echo "binlog-decode: $f: log id 0x1020009 not valid: 12 times in all, 2 more not shown"
    } >"$W/all.expected"
    run_decode_merged "$DICT" "$f"
    expect_rc 0
    same_file "$W/all.expected" "$W/all" "the merged output"
    # Between captures: the lines of the first, the message about the
    # missing one, the lines of the third; the closing note of the IPv4
    # example after its statistics.
    run_decode_merged -s -p 5000 "$DICT" "$LINK150" "$W/missing.pcap" "$IPV4"
    expect_rc 1
    {
        cat "$EXP_LINK150"
        echo "binlog-decode: cannot open '$W/missing.pcap': No such file or directory"
        cat "$EXP_IPV4"
        ipv4_note "$IPV4" 5000
    } >"$W/all.expected"
    same_file "$W/all.expected" "$W/all" "the merged output"
    # A damaged capture: its lines, then the message, then the next capture.
    synth "$W/cut.pcap" --plain <<'EOF'
binlog L1:phy CellStateChange cellId=7 carrier=1 state=ACTIVE sfn=0x2803
binlog L1:phy CellStateChange cellId=7 carrier=1 state=IDLE sfn=0x2803 cut=20
EOF
    run_decode_merged "$DICT" "$W/cut.pcap" "$LINK150"
    expect_rc 1
    {
        one_record_line 7
        echo "binlog-decode: $W/cut.pcap: truncated: the last record has 20 of its 26 bytes"
        without_stats "$EXP_LINK150"
    } >"$W/all.expected"
    same_file "$W/all.expected" "$W/all" "the merged output"
}

case_damaged() {
    # A damaged capture: the records before the damage, a message, the other
    # captures decoded, exit status 1.
    link150_records
    # gzip whose deflate data is stored blocks, one per write: the file
    # header (1 + 4 + 24 bytes), then 1 + 4 + 42 bytes a record; offset 123
    # of the deflate data is the header byte of the third record's block,
    # made block type 3. 24 + 2 * 42 = 108 bytes come out before it.
    synth "$W/gz.pcap.gz" <<'EOF'
gzip stored corrupt-at=123
binlog L1:phy CellStateChange cellId=1 carrier=1 state=ACTIVE sfn=0x2803
binlog L1:phy CellStateChange cellId=2 carrier=1 state=ACTIVE sfn=0x2803
binlog L1:phy CellStateChange cellId=3 carrier=1 state=ACTIVE sfn=0x2803
binlog L1:phy CellStateChange cellId=4 carrier=1 state=ACTIVE sfn=0x2803
EOF
    run_decode "$DICT" "$W/gz.pcap.gz" "$LINK150"
    expect_rc 1
    { cell_line 000 1 1; cell_line 001 2 2; cat "$W/l150.txt"; } >"$W/gz.txt"
    expect_out_file "$W/gz.txt"
    expect_err_text "binlog-decode: $W/gz.pcap.gz: damaged compressed data after 108 uncompressed bytes (invalid block type): the rest of the capture is lost"$'\n'
    # pcapng: a section header block (28 bytes), an interface block (20) and
    # the first record's packet block (28 + 26 padded to 28 + 4 = 60): the
    # cut block starts at byte 108.
    synth "$W/ng.pcap" --plain <<'EOF'
format pcapng
binlog L1:phy CellStateChange cellId=1 carrier=1 state=ACTIVE sfn=0x2803
binlog L1:phy CellStateChange cellId=2 carrier=1 state=ACTIVE sfn=0x2803 cut=10
binlog L1:phy CellStateChange cellId=3 carrier=1 state=ACTIVE sfn=0x2803
EOF
    run_decode "$DICT" "$W/ng.pcap"
    expect_rc 1
    cell_line 000 1 1 >"$W/ng.txt"
    expect_out_file "$W/ng.txt"
    expect_err_text "binlog-decode: $W/ng.pcap: a pcapng capture, which readBinaryFiledata does not read"$'\n'"binlog-decode: $W/ng.pcap: a damaged pcapng block at byte 108: the rest of the capture is skipped"$'\n'
}

case_resync() {
    # Ten junk bytes after the first record: the record header read there
    # holds ff ff ff ff ff ff ff ff, ff ff and the first two bytes of the
    # next record's seconds (0x6632 2ec0 little-endian: c0 2e), then as its
    # length the upper half of those seconds (32 66) and the lower half of
    # its microseconds (1000: e8 03): 0x03e86632, far above the limit.
    synth "$W/junk.pcap" --plain <<'EOF'
binlog L1:phy CellStateChange cellId=1 carrier=1 state=ACTIVE sfn=0x2803
rawfile ffffffffffffffffffff
binlog L1:phy CellStateChange cellId=2 carrier=1 state=ACTIVE sfn=0x2803
binlog L1:phy CellStateChange cellId=3 carrier=1 state=ACTIVE sfn=0x2803
EOF
    local length=$(((1714564800 >> 16) | (1000 << 16)))
    [ "$length" = 65562162 ] || fail "the junk length was not worked out"
    run_decode "$DICT" "$W/junk.pcap"
    expect_rc 1
    cell_line 000 1 1 >"$W/first.txt"
    expect_out_file "$W/first.txt"
    expect_err_text "binlog-decode: $W/junk.pcap: a record of $length bytes at byte 66, above the limit of 25000: the rest of the capture is skipped"$'\n'
    # --resync: the scan finds the next record right after the junk, at
    # byte 66 + 10; the records after it are decoded; still exit status 1.
    run_decode --resync "$DICT" "$W/junk.pcap"
    expect_rc 1
    { cell_line 000 1 1; cell_line 001 2 2; cell_line 002 3 3; } >"$W/all.txt"
    expect_out_file "$W/all.txt"
    expect_err_text "binlog-decode: $W/junk.pcap: a record of $length bytes at byte 66, above the limit of 25000: looking for the next record"$'\n'"binlog-decode: $W/junk.pcap: resynchronised: skipped bytes 66 to 76 (10 bytes)"$'\n'
    run_decode --resync -T json "$DICT" "$W/junk.pcap"
    expect_rc 1
    [ "$(jq -c 'select(.event == "resync") | [.offset, .skipped, .found]' "$W/out")" = '[66,10,true]' ] ||
        fail "no resync event in JSON: $(cat "$W/out")"
    [ "$(jq -c 'select(.kind) | .record' "$W/out" | tr '\n' ' ')" = "1 2 3 " ] ||
        fail "the JSON records after the resync: $(cat "$W/out")"
    # A record whose length is wrong: the scan skips it whole (42 bytes).
    synth "$W/long.pcap" --plain <<'EOF'
binlog L1:phy CellStateChange cellId=1 carrier=1 state=ACTIVE sfn=0x2803
binlog L1:phy CellStateChange cellId=2 carrier=1 state=ACTIVE sfn=0x2803 storagelen=30000
binlog L1:phy CellStateChange cellId=3 carrier=1 state=ACTIVE sfn=0x2803
EOF
    run_decode --resync "$DICT" "$W/long.pcap"
    expect_rc 1
    { cell_line 000 1 1; cell_line 002 3 3; } >"$W/long.txt"
    expect_out_file "$W/long.txt"
    expect_err_text "binlog-decode: $W/long.pcap: a record of 30000 bytes at byte 66, above the limit of 25000: looking for the next record"$'\n'"binlog-decode: $W/long.pcap: resynchronised: skipped bytes 66 to 108 (42 bytes)"$'\n'
}

case_interrupt() {
    # SIGINT or SIGTERM while a large capture is decoded: the lines so far
    # are complete, the statistics so far follow, exit status 130. The
    # capture comes through a pipe kept open, so the decoder waits for more
    # when the signal comes; a last record of an unknown log id tells, by
    # its message, that everything before it was decoded.
    if ! "${EMU[@]}" "$SYNTH" --dict "$DICT" --records 20000 --plain --output "$W/big.pcap" \
        2>"$W/synth.err"; then
        fail "binlog-synth --records failed: $(cat "$W/synth.err")"
        return
    fi
    synth "$W/last.pcap" --plain <<'EOF'
record logid=0x09090001 seq=1
EOF
    { cat "$W/big.pcap"; tail -c +25 "$W/last.pcap"; } >"$W/feed.pcap"
    # What a whole run prints: 20000 records (the random mix has no gap),
    # the statistics, and the message about record 20001.
    run_decode -s "$DICT" "$W/feed.pcap"
    expect_rc 0
    cp "$W/out" "$W/whole.txt"
    local message="binlog-decode: -: record 20001: log id 0x9090001 not valid"
    [ "$(grep -c '^>>' "$W/whole.txt")" = 9 ] || fail "the whole run has more than the summary"
    grep -qx '>>totalRecords =  20001' "$W/whole.txt" || fail "the whole run does not count 20001 records"
    mkfifo "$W/feed"
    local signal pid tries
    for signal in INT TERM; do
        env --default-signal=INT,TERM "${EMU[@]}" "$DECODE" -s "$DICT" - <"$W/feed" >"$W/out" 2>"$W/err" &
        pid=$!
        exec 3>"$W/feed"
        cat "$W/feed.pcap" >&3
        tries=0
        while ! grep -qxF "$message" "$W/err" && [ "$tries" -lt 200 ]; do
            sleep 0.1
            tries=$((tries + 1))
        done
        last_cmd="binlog-decode -s DICT - <feed (kept open), then SIG$signal"
        kill -s "$signal" "$pid"
        wait_bounded "$pid"
        exec 3>&-
        expect_rc 130
        expect_out_file "$W/whole.txt"
        expect_err_text "$message"$'\n'
    done
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
