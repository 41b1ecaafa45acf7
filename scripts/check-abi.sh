#!/usr/bin/env bash
# Compares the library built in BUILD_DIR with the ABI of the last release
# (abi/*.abi, see abi/README.md): fails on a change that breaks programs
# built against the release; added symbols are reported and accepted.
#
#   scripts/check-abi.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=$1
baseline=$(ls abi/libWexOamBinLogXmlReader.so.*.abi)
soname=$(basename "$baseline" .abi)
library=$(ls "$build_dir"/"$soname".*.* 2>/dev/null | head -n1 || true)
if [ -z "$library" ]; then
    echo "check-abi: no $soname.* in $build_dir: the SONAME changed; write a new baseline" >&2
    exit 1
fi
status=0
# The library's private types (abi/internal.abignore) are left out.
abidiff --suppressions abi/internal.abignore "$baseline" "$library" >"$build_dir/abidiff.txt" ||
    status=$?
# abidiff's status is a bit set: 1 error, 2 usage error, 4 ABI change, 8
# incompatible change. A change is accepted only when all it does is add.
if [ $((status & 3)) != 0 ]; then
    cat "$build_dir/abidiff.txt" >&2
    echo "check-abi: abidiff failed (status $status)" >&2
    exit 1
fi
changed=$({ grep -E '^(Functions|Variables) changes summary' "$build_dir/abidiff.txt" || true; } |
    sed -E 's/.*: ([0-9]+) Removed, ([0-9]+) Changed.*/\1 \2/' | awk '{ n += $1 + $2 } END { print n + 0 }')
if [ $((status & 8)) != 0 ] || [ "$changed" != 0 ]; then
    cat "$build_dir/abidiff.txt" >&2
    echo "check-abi: $library breaks the ABI of $baseline" >&2
    exit 1
fi
if [ $((status & 4)) != 0 ]; then
    cat "$build_dir/abidiff.txt"
    echo "check-abi: compatible changes only (added symbols)"
else
    echo "check-abi: $library has the ABI of $baseline"
fi
