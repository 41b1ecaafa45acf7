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

status=0
for stats in "" --stats; do
    for port in 5000 0; do
        if ! valgrind --quiet --error-exitcode=99 --leak-check=full --show-leak-kinds=all \
                --errors-for-leak-kinds=definite,indirect,possible \
                "$build_dir/binlog-decode" $stats --udp-port "$port" --max-var-bytes 4 \
                tests/golden/dict/main "${captures[@]}" >/dev/null 2>"$build_dir/valgrind.log"; then
            rc=$?
            if [ "$rc" = 99 ] || grep -q '^==[0-9]*==' "$build_dir/valgrind.log"; then
                grep '^==[0-9]*==' "$build_dir/valgrind.log" >&2 || true
                status=1
            fi
        fi
    done
done
# The dictionary-loading failure paths release everything too.
for dict in tests/golden/dict/missing examples; do
    valgrind --quiet --error-exitcode=99 --leak-check=full \
        --errors-for-leak-kinds=definite,indirect,possible \
        "$build_dir/binlog-decode" "$dict" "${captures[0]}" >/dev/null 2>"$build_dir/valgrind.log" ||
        { [ $? = 99 ] && { cat "$build_dir/valgrind.log" >&2; status=1; }; }
done
[ "$status" = 0 ] && echo "valgrind: golden corpus decoded with no error and no leak (${#captures[@]} captures)"
exit $status
