#!/usr/bin/env bash
# Command-line tests of binlog-lint, and of the lint binlog-decode runs when
# it loads a dictionary. One case per run:
#
#   lint_cli_test.sh CASE LINT DECODE SYNTH SOURCE_DIR GOLDEN_CAPTURES WORK_DIR
#
# SOURCE_DIR is the project's source tree; GOLDEN_CAPTURES the directory the
# golden captures are written to; WORK_DIR is emptied first.
set -u

CASE=$1
LINT=$2
DECODE=$3
SYNTH=$4
SRC=$5
CAPTURES=$6
W=$7
T=$SRC/tests/lint

rm -rf "$W"
mkdir -p "$W"
failed=0

fail() {
    echo "FAIL ($CASE): $*" >&2
    failed=1
}

# run PROGRAM ARGS...: standard output in $W/out, standard error in $W/err,
# the exit status in $rc.
run() {
    "$@" >"$W/out" 2>"$W/err"
    rc=$?
    last_cmd="$*"
}

expect_rc() {
    [ "$rc" = "$1" ] || fail "'$last_cmd' exited with $rc, expected $1 (stderr: $(head -c 300 "$W/err"))"
}

# expect_file WHICH EXPECTED_FILE: $W/WHICH equals the file byte for byte.
expect_file() {
    cmp -s "$W/$1" "$2" || fail "'$last_cmd': $1 differs from $2:
$(diff "$2" "$W/$1" | head -20)"
}

expect_empty() {
    [ ! -s "$W/$1" ] || fail "'$last_cmd': $1 is not empty: $(head -c 300 "$W/$1")"
}

# prefixed DIR FILE: FILE's lines with "DIR/" before each file name ("." is
# the directory itself).
prefixed() {
    sed -e "s|^\./|$1/|" -e "s|^\.:|$1:|" -e "t" -e "s|^|$1/|" "$2"
}

case_exit_status() {
    # Errors: 1, with the findings on standard output and nothing on
    # standard error.
    run "$LINT" "$T/all-mistakes"
    expect_rc 1
    expect_empty err
    prefixed "$T/all-mistakes" "$T/all-mistakes/expected.txt" >"$W/expected"
    expect_file out "$W/expected"
    # Warnings only: 0.
    run "$LINT" --dict "$T/unshown-parameter/"
    expect_rc 0
    prefixed "$T/unshown-parameter" "$T/unshown-parameter/expected.txt" >"$W/expected"
    expect_file out "$W/expected"
    # The example dictionary lints clean: nothing printed, status 0.
    run "$LINT" "$SRC/examples/dictionary"
    expect_rc 0
    : >"$W/expected"
    expect_file out "$W/expected"
    # A missing directory: one error.
    run "$LINT" "$W/missing"
    expect_rc 1
    printf '%s\n' "$W/missing: error: cannot open the dictionary directory: No such file or directory [unreadable-file]" >"$W/expected"
    expect_file out "$W/expected"
}

case_usage() {
    local try="Try 'binlog-lint --help' for more information."
    run "$LINT"
    expect_rc 2
    expect_empty out
    printf 'binlog-lint: expected a dictionary directory\n%s\n' "$try" >"$W/expected"
    expect_file err "$W/expected"
    run "$LINT" --format xml "$T/all-mistakes"
    expect_rc 2
    printf "binlog-lint: invalid --format 'xml' (expected text or json)\n" >"$W/expected"
    expect_file err "$W/expected"
    run "$LINT" "$T/all-mistakes" extra
    expect_rc 2
    printf 'binlog-lint: too many operands (captures go with --coverage)\n%s\n' "$try" >"$W/expected"
    expect_file err "$W/expected"
    run "$LINT" --coverage "$SRC/examples/dictionary"
    expect_rc 2
    printf 'binlog-lint: --coverage needs at least one capture\n%s\n' "$try" >"$W/expected"
    expect_file err "$W/expected"
    run "$LINT" --summary --coverage "$SRC/examples/dictionary" x.pcap
    expect_rc 2
    printf 'binlog-lint: --summary and --coverage cannot be combined\n%s\n' "$try" >"$W/expected"
    expect_file err "$W/expected"
    run "$LINT" --no-such-option "$SRC/examples/dictionary"
    expect_rc 2
    expect_empty out
    grep -qxF "$try" "$W/err" || fail "no hint after an unknown option"
    run "$LINT" --help
    expect_rc 0
    expect_empty err
    grep -q '^Usage: binlog-lint' "$W/out" || fail "--help shows no usage"
}

case_json() {
    run "$LINT" --format json "$T/all-mistakes"
    expect_rc 1
    [ "$(wc -l <"$W/out")" = 21 ] || fail "expected 21 JSON lines, got $(wc -l <"$W/out")"
    local d=$T/all-mistakes
    {
        printf '%s\n' "{\"file\":\"$d/.l2_all_binlog.xml.swp\",\"line\":0,\"severity\":\"warning\",\"check\":\"leftover-file\",\"message\":\"the name looks like a leftover copy, yet the loader reads it as a binlog file (it takes every name that holds \\\".xml\\\" and \\\"binlog\\\")\"}"
        printf '%s\n' "{\"file\":\"$d/.l2_all_binlog.xml.swp\",\"line\":1,\"severity\":\"error\",\"check\":\"xml-not-well-formed\",\"message\":\"not well-formed XML: Start tag expected, '<' not found; the dictionary does not load\"}"
    } >"$W/expected"
    head -n 2 "$W/out" >"$W/head"
    cmp -s "$W/head" "$W/expected" || fail "the first JSON lines differ:
$(diff "$W/expected" "$W/head")"
    # Every line is an object with the five members, in the text's order.
    run "$LINT" "$T/all-mistakes"
    cp "$W/out" "$W/text"
    run "$LINT" -T json "$T/all-mistakes"
    if command -v python3 >/dev/null; then
        python3 - "$W/out" "$W/text" <<'PY' || fail "the JSON lines do not match the text lines"
import json, sys
objects = [json.loads(line) for line in open(sys.argv[1], encoding="utf-8")]
texts = open(sys.argv[2], encoding="utf-8").read().splitlines()
assert len(objects) == len(texts) == 21
for o, t in zip(objects, texts):
    assert list(o) == ["file", "line", "severity", "check", "message"], o
    where = o["file"] + (":%d" % o["line"] if o["line"] else "")
    assert t == "%s: %s: %s [%s]" % (where, o["severity"], o["message"], o["check"]), (t, o)
PY
    fi
}

case_readme() {
    # The README's run, in a directory named as there.
    mkdir -p "$W/run/mydict"
    cp "$T/readme-example/l2_mac_binlog.xml" "$W/run/mydict/"
    (cd "$W/run" && "$LINT" mydict >"$W/out" 2>"$W/err"; echo $? >"$W/rc")
    rc=$(cat "$W/rc")
    last_cmd="binlog-lint mydict"
    expect_rc 1
    prefixed mydict "$T/readme-example/expected.txt" >"$W/expected"
    expect_file out "$W/expected"
    # The README shows the command, these lines and the exit status.
    grep -qxF '$ binlog-lint mydict' "$SRC/README.md" || fail "README lacks the command"
    while IFS= read -r line; do
        grep -qxF "$line" "$SRC/README.md" || fail "README lacks the line: $line"
    done <"$W/expected"
}

case_decode_warnings() {
    # A dictionary that loads, with errors: binlog-decode shows each error
    # once as a warning before decoding; the decoded output is unchanged;
    # --no-lint silences it.
    # The example dictionary with its L2:mac module replaced by the README's
    # dictionary with mistakes.
    mkdir -p "$W/mydict"
    cp "$SRC/examples/dictionary/"*.xml "$W/mydict/"
    cp "$T/readme-example/l2_mac_binlog.xml" "$W/mydict/l2_mac_binlog.xml"
    local capture=$SRC/examples/captures/link150.pcap.gz
    run "$DECODE" --no-progress --no-lint "$W/mydict" "$capture"
    local quiet_rc=$rc
    cp "$W/out" "$W/quiet.out"
    cp "$W/err" "$W/quiet.err"
    grep -q 'warning:' "$W/quiet.err" && fail "--no-lint still warns"
    run "$DECODE" --no-progress "$W/mydict" "$capture"
    [ "$rc" = "$quiet_rc" ] || fail "the lint changed the exit status ($rc, $quiet_rc)"
    expect_file out "$W/quiet.out"
    {
        grep ': error: ' "$T/readme-example/expected.txt" |
            sed -e "s|^|binlog-decode: warning: $W/mydict/|" -e 's|: error: |: |'
        cat "$W/quiet.err"
    } >"$W/expected"
    expect_file err "$W/expected"
    # The example dictionary has no error: nothing more on standard error.
    run "$DECODE" --no-progress "$SRC/examples/dictionary" "$capture"
    cp "$W/err" "$W/example.err"
    run "$DECODE" --no-progress --no-lint "$SRC/examples/dictionary" "$capture"
    expect_file err "$W/example.err"
}

case_coverage() {
    local records=$CAPTURES/records_link150.pcap.gz
    local dispatch=$CAPTURES/dispatch_checks.pcap
    run "$LINT" --coverage "$SRC/tests/golden/dict/main" "$records"
    expect_rc 0
    sed "s|@CAPTURE@|$records|" "$T/expected-coverage-records.txt" >"$W/expected"
    expect_file out "$W/expected"
    run "$LINT" --coverage "$SRC/tests/golden/dict/main" "$dispatch"
    expect_rc 0
    sed "s|@CAPTURE@|$dispatch|" "$T/expected-coverage-dispatch.txt" >"$W/expected"
    expect_file out "$W/expected"
    # Both at once: the counts add up, first records name the first capture.
    run "$LINT" --coverage --format json "$SRC/tests/golden/dict/main" "$records" "$dispatch"
    expect_rc 0
    {
        printf '%s\n' '{"type":"log","module":"CORE:SCHED","key":"0x0102","logId":"0x01020001","log":"UeAttach","records":1}'
        printf '%s\n' '{"type":"log","module":"CORE:SCHED","key":"0x0102","logId":"0x01020002","log":"AllKinds","records":1}'
        printf '%s\n' '{"type":"log","module":"CORE:SCHED","key":"0x0102","logId":"0x01020003","log":"States","records":1}'
        printf '%s\n' '{"type":"log","module":"RADIO:PHY","key":"0x0201","logId":"0x02010001","log":"LegacyTrace","records":2}'
        printf '%s\n' '{"type":"log","module":"RADIO:PHY","key":"0x0201","logId":"0x02010002","log":"RxPower","records":3}'
        printf '%s\n' '{"type":"log","module":"RADIO:PHY","key":"0x0201","logId":"0x02010003","log":"Braces","records":1}'
        printf '%s\n' '{"type":"log","module":"RADIO:PHY","key":"0x0201","logId":"0x02010004","log":"BraceFirst","records":1}'
        printf '%s\n' '{"type":"log","module":"RADIO:PHY","key":"0x0201","logId":"0x02010005","log":"Unmatched","records":1}'
        printf '%s\n' '{"type":"log","module":"RADIO:PHY","key":"0x0201","logId":"0x02010006","log":"TextBraces","records":1}'
        printf '%s\n' "{\"type\":\"unknown-log-id\",\"logId\":\"0x01020009\",\"records\":2,\"firstCapture\":\"$dispatch\",\"firstRecord\":1}"
        printf '%s\n' "{\"type\":\"unknown-log-id\",\"logId\":\"0x07070001\",\"records\":1,\"firstCapture\":\"$dispatch\",\"firstRecord\":2}"
        printf '%s\n' "{\"type\":\"version-mismatch\",\"logId\":\"0x01020001\",\"log\":\"UeAttach\",\"version\":2,\"records\":1,\"firstCapture\":\"$dispatch\",\"firstRecord\":3}"
        printf '%s\n' "{\"type\":\"level-out-of-range\",\"logId\":\"0x02010002\",\"log\":\"RxPower\",\"level\":10,\"records\":1,\"firstCapture\":\"$dispatch\",\"firstRecord\":4}"
        printf '%s\n' "{\"type\":\"missing-enum-value\",\"logId\":\"0x01020003\",\"log\":\"States\",\"parameter\":\"current\",\"enum\":\"CellState\",\"value\":\"9\",\"count\":1,\"firstCapture\":\"$records\",\"firstRecord\":3}"
        printf '%s\n' "{\"type\":\"missing-enum-value\",\"logId\":\"0x01020003\",\"log\":\"States\",\"parameter\":\"states\",\"enum\":\"CellState\",\"value\":\"7\",\"count\":1,\"firstCapture\":\"$records\",\"firstRecord\":3}"
        printf '%s\n' '{"type":"total","records":12,"logs":9,"logsSeen":9}'
    } >"$W/expected"
    expect_file out "$W/expected"
    # A capture that cannot be opened: reported, exit status 1.
    run "$LINT" --coverage "$SRC/tests/golden/dict/main" "$W/missing.pcap"
    expect_rc 1
    grep -q "^problem: $W/missing.pcap: " "$W/out" || fail "no problem line for a missing capture"
    grep -qx 'total: 0 records, 0 of 9 logs seen' "$W/out" || fail "no total line for a missing capture"
}

case_summary() {
    run "$LINT" --summary "$SRC/tests/golden/dict/main"
    expect_rc 0
    expect_file out "$T/expected-summary-golden.txt"
    run "$LINT" --summary "$T/missing-attribute"
    expect_rc 1
    grep -qxF "binlog-lint: cannot load the dictionaries in '$T/missing-attribute'" "$W/err" ||
        fail "no message about a dictionary that does not load"
}

case_all_dictionaries() {
    # Every dictionary directory of tests/ and examples/ (a directory with a
    # file the loader reads) lints without errors, except those listed as
    # broken on purpose, which must have errors.
    local list=$T/broken-dictionaries.txt
    local dir name relative
    while IFS= read -r relative; do
        [ -d "$SRC/$relative" ] || fail "listed as broken but missing: $relative"
    done < <(grep -v '^#' "$list" | grep -v '^$')
    local count=0
    while IFS= read -r dir; do
        relative=${dir#"$SRC"/}
        count=$((count + 1))
        run "$LINT" "$dir"
        if grep -qxF "$relative" "$list"; then
            [ "$rc" = 1 ] || fail "$relative is listed as broken, but binlog-lint exited with $rc"
        else
            [ "$rc" = 0 ] || fail "$relative: binlog-lint exited with $rc:
$(cat "$W/out")"
        fi
    done < <(find "$SRC/tests" "$SRC/examples" -type f -name '*.xml*' |
        grep -i -e 'binlog[^/]*$' -e 'bindisplay[^/]*$' | sed 's|/[^/]*$||' | sort -u)
    [ "$count" -ge 20 ] || fail "only $count dictionaries found"
}

"case_$CASE"
exit $failed
