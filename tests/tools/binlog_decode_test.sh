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
    # status 1, no abort, the temporary copy removed.
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
        TMPDIR=$W/tmp run_decode "$W/hugedict" - "$LINK150" <"$W/huge.pcap"
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
        run_decode --dict "$W/hugedict" "$W/huge.pcap"
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
