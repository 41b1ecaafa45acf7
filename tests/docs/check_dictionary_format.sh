#!/usr/bin/env bash
# Runs the worked example of docs/dictionary-format.md for real, so that the
# page cannot drift from what the tools do:
#   1. extracts the page's fenced blocks marked "file=NAME" (the dictionary
#      files and the binlog-synth script) and "expected-output";
#   2. writes the capture with binlog-synth from the extracted dictionary and
#      script;
#   3. decodes it with binlog-decode and compares standard output byte for
#      byte with the expected-output block; standard error must stay empty.
#
#   check_dictionary_format.sh PAGE BINLOG_SYNTH BINLOG_DECODE WORK_DIR
#
# Blocks are recognised by their opening fence: "```LANG file=NAME" (NAME made
# of letters, digits, ".", "_" and "-") or "```LANG expected-output"; a block
# ends at the next line that is exactly "```". Files named *.xml go into the
# dictionary directory; exactly one *.synth file is the capture script.
set -euo pipefail

prog=check_dictionary_format
fail() {
    echo "$prog: $*" >&2
    exit 1
}

if [ $# -ne 4 ]; then
    echo "usage: $prog PAGE BINLOG_SYNTH BINLOG_DECODE WORK_DIR" >&2
    exit 2
fi
page=$1
synth=$2
decode=$3
work=$4

[ -r "$page" ] || fail "cannot read '$page'"
rm -rf "$work"
mkdir -p "$work/blocks" "$work/dict"

# Writes every marked block into blocks/ (the expected output as
# expected.out) and fails on an unterminated block or a name used twice.
awk -v blocks="$work/blocks" -v expected="$work/expected.out" '
function begin(path) {
    if (path in seen) {
        printf "line %d: block %s given twice\n", NR, path > "/dev/stderr"
        bad = 1
        exit 1
    }
    seen[path] = 1
    out = path
    opened = NR
    printf "" > out
}
{
    if (out == "") {
        if ($0 ~ /^```[A-Za-z0-9_+-]* +file=[A-Za-z0-9._-]+ *$/) {
            name = $0
            sub(/^.*file=/, "", name)
            sub(/ *$/, "", name)
            if (name == "." || name == "..") {
                printf "line %d: bad file name\n", NR > "/dev/stderr"
                bad = 1
                exit 1
            }
            begin(blocks "/" name)
        } else if ($0 ~ /^```[A-Za-z0-9_+-]* +expected-output *$/) {
            begin(expected)
        } else if ($0 ~ /^```/ && ($0 ~ /file=/ || $0 ~ /expected-output/)) {
            printf "line %d: unreadable block marker: %s\n", NR, $0 > "/dev/stderr"
            bad = 1
            exit 1
        }
    } else if ($0 == "```") {
        close(out)
        out = ""
    } else {
        print $0 > out
    }
}
END {
    if (bad) {
        exit 1
    }
    if (out != "") {
        printf "block opened on line %d is not closed\n", opened > "/dev/stderr"
        exit 1
    }
}
' "$page" || fail "cannot extract the worked example from '$page'"

# What the page must provide.
shopt -s nullglob
xml_files=("$work"/blocks/*.xml)
scripts=("$work"/blocks/*.synth)
shopt -u nullglob
[ ${#xml_files[@]} -gt 0 ] || fail "no dictionary block (\`\`\`xml file=NAME.xml) in '$page'"
binlog_found=0
for f in "${xml_files[@]}"; do
    case "$(basename "$f" | tr '[:upper:]' '[:lower:]')" in
        *binlog*) binlog_found=1 ;;
    esac
    cp "$f" "$work/dict/"
done
[ "$binlog_found" = 1 ] || fail "no binlog dictionary block in '$page'"
[ ${#scripts[@]} -eq 1 ] || fail "expected exactly one *.synth block in '$page', found ${#scripts[@]}"
[ -s "$work/expected.out" ] || fail "no expected-output block (or an empty one) in '$page'"

capture="$work/example.pcap"
if ! "$synth" --dict "$work/dict/" --script "${scripts[0]}" --out "$capture" \
    2>"$work/synth.err"; then
    cat "$work/synth.err" >&2
    fail "binlog-synth could not write the example capture"
fi
[ -s "$capture" ] || fail "binlog-synth wrote no capture"

status=0
"$decode" "$work/dict/" "$capture" >"$work/actual.out" 2>"$work/actual.err" || status=$?
ok=1
if [ "$status" != 0 ]; then
    echo "$prog: binlog-decode exited with status $status" >&2
    ok=0
fi
if [ -s "$work/actual.err" ]; then
    echo "$prog: binlog-decode wrote to standard error:" >&2
    cat "$work/actual.err" >&2
    ok=0
fi
if ! cmp -s "$work/expected.out" "$work/actual.out"; then
    echo "$prog: the decoded lines differ from the page's expected-output block" \
        "(- page, + binlog-decode; compare trailing blanks too):" >&2
    diff -u "$work/expected.out" "$work/actual.out" >&2 || true
    ok=0
fi
[ "$ok" = 1 ] || exit 1
echo "$prog: $(wc -l <"$work/expected.out") lines decoded exactly as the page shows"
