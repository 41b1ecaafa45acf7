#!/usr/bin/env bash
# Runs every libFuzzer target for a bounded time, starting from the committed
# seed corpora. New inputs go to a scratch corpus under the build directory;
# a crash, leak or hang leaves its input there (crash-*, leak-*, timeout-*) and
# fails the run.
#
#   scripts/run-fuzz.sh BUILD_DIR [SECONDS_PER_TARGET] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=$(realpath "$1")
source_dir=$(pwd)
seconds=${2:-30}
shift $(($# >= 2 ? 2 : $#))
targets=("$@")
[ ${#targets[@]} -ne 0 ] || targets=(fuzz_capture fuzz_record fuzz_binlog_xml fuzz_display_xml)

status=0
for target in "${targets[@]}"; do
    scratch="$build_dir/fuzz-work/$target"
    mkdir -p "$scratch/corpus"
    echo "fuzzing $target for ${seconds}s"
    if ! (cd "$scratch" && "$build_dir/fuzz/$target" -max_total_time="$seconds" \
            -timeout=10 -rss_limit_mb=2048 -close_fd_mask=3 -print_final_stats=1 \
            corpus "$source_dir/fuzz/corpus/$target" 2>&1 | tail -n 12); then
        echo "run-fuzz: $target failed; its input is in $scratch" >&2
        status=1
    fi
done
exit $status
