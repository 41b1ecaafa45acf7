#!/usr/bin/env bash
# Runs every libFuzzer target for a bounded time, starting from the committed
# seed corpora. New inputs go to a scratch corpus under the build directory;
# a crash, leak or hang leaves its input there (crash-*, leak-*, timeout-*) and
# fails the run.
#
# With --merge, a target whose run found nothing then has its committed corpus
# rebuilt: the hand-written seeds (the files not named by a SHA-1) are kept as
# they are, and a small set of the other committed inputs and the new ones,
# covering every feature they add beyond the seeds, replaces the other
# committed inputs. SECONDS_PER_TARGET 0 skips fuzzing (merge only).
#
#   scripts/run-fuzz.sh [--merge] BUILD_DIR [SECONDS_PER_TARGET] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
merge=0
if [ "${1:-}" = --merge ]; then
    merge=1
    shift
fi
build_dir=$(realpath "$1")
source_dir=$(pwd)
seconds=${2:-30}
shift $(($# >= 2 ? 2 : $#))
targets=("$@")
[ ${#targets[@]} -ne 0 ] || targets=(fuzz_capture fuzz_record fuzz_binlog_xml fuzz_display_xml)

common=(-timeout=10 -rss_limit_mb=2048 -close_fd_mask=3)

# Rebuilds fuzz/corpus/TARGET from itself and the scratch corpus.
merge_corpus() {
    local target=$1 scratch=$2
    local committed="$source_dir/fuzz/corpus/$target"
    local kept="$scratch/merged" others="$scratch/committed"
    rm -rf "$kept" "$others"
    mkdir -p "$kept" "$others"
    local file name
    for file in "$committed"/*; do
        name=$(basename "$file")
        if [[ $name =~ ^[0-9a-f]{40}$ ]]; then
            cp "$file" "$others/"
        else
            cp "$file" "$kept/"
        fi
    done
    "$build_dir/fuzz/$target" -set_cover_merge=1 "${common[@]}" "${dict[@]}" \
        "$kept" "$others" "$scratch/corpus" >"$scratch/merge.log" 2>&1 || {
        echo "run-fuzz: merging $target failed; see $scratch/merge.log" >&2
        return 1
    }
    find "$committed" -maxdepth 1 -type f -regextype posix-extended \
        -regex '.*/[0-9a-f]{40}' -delete
    for file in "$kept"/*; do
        name=$(basename "$file")
        if [[ $name =~ ^[0-9a-f]{40}$ ]]; then
            cp "$file" "$committed/"
        fi
    done
    echo "$target: $(find "$committed" -maxdepth 1 -type f | wc -l) committed inputs after merging"
}

status=0
for target in "${targets[@]}"; do
    scratch="$build_dir/fuzz-work/$target"
    mkdir -p "$scratch/corpus"
    dict=()
    case $target in
        *_xml) dict=(-dict="$source_dir/fuzz/xml.dict") ;;
    esac
    if [ "$seconds" -gt 0 ]; then
        echo "fuzzing $target for ${seconds}s"
        if ! (cd "$scratch" && "$build_dir/fuzz/$target" -max_total_time="$seconds" \
                "${common[@]}" "${dict[@]}" -print_final_stats=1 \
                corpus "$source_dir/fuzz/corpus/$target" >"$scratch/fuzz.log" 2>&1); then
            tail -n 40 "$scratch/fuzz.log"
            echo "run-fuzz: $target failed; its input is in $scratch" >&2
            status=1
            continue
        fi
        grep -E '^#[0-9]+.*(INITED|DONE)|^stat::' "$scratch/fuzz.log" || true
    fi
    if [ $merge -eq 1 ]; then
        merge_corpus "$target" "$scratch" || status=1
    fi
done
exit $status
