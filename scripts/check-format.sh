#!/usr/bin/env bash
# Fails when a C++ source of the project is not formatted as .clang-format says.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h' 2>/dev/null || find include src tools tests fuzz bench examples -name '*.cpp' -o -name '*.h')
clang-format --dry-run --Werror "${files[@]}"
echo "formatting: ${#files[@]} files clean"
