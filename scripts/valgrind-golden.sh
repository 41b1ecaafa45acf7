#!/usr/bin/env bash
# Runs binlog-decode over every capture of the golden corpus under valgrind
# memcheck: no memory error and no leak may be reported.
#
#   scripts/valgrind-golden.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=$1
captures=("$build_dir"/tests/golden/captures/*pcap*)
[ -e "${captures[0]}" ] || { echo "valgrind-golden: no captures in $build_dir" >&2; exit 1; }

decode=$build_dir/bin/binlog-decode
log=$build_dir/valgrind.log

# Runs binlog-decode under memcheck with the given arguments. Memcheck exits
# with 99 when it found an error or a leak; binlog-decode itself exits with 0
# or 1 (some golden captures are broken on purpose). Anything else (a usage
# error, a crash) is a failure too.
status=0
memcheck() {
    local rc=0
    valgrind --quiet --error-exitcode=99 --leak-check=full --show-leak-kinds=all \
        --errors-for-leak-kinds=definite,indirect,possible \
        "$decode" "$@" >/dev/null 2>"$log" || rc=$?
    if [ "$rc" = 99 ] || grep -q '^==[0-9]*==' "$log"; then
        echo "valgrind-golden: memcheck reported errors for: binlog-decode $*" >&2
        grep '^==[0-9]*==' "$log" >&2 || true
        status=1
    elif [ "$rc" != 0 ] && [ "$rc" != 1 ]; then
        echo "valgrind-golden: binlog-decode $* exited with $rc:" >&2
        cat "$log" >&2
        status=1
    fi
}

for stats in "" --stats; do
    for port in 5000 0; do
        memcheck $stats --udp-port "$port" --max-var-bytes 4 tests/golden/dict/main "${captures[@]}"
    done
done
# The dictionary-loading failure paths release everything too.
for dict in tests/golden/dict/missing examples; do
    memcheck "$dict" "${captures[0]}"
done
[ "$status" = 0 ] && echo "valgrind: golden corpus decoded with no error and no leak (${#captures[@]} captures)"
exit $status
