#!/usr/bin/env bash
# Configures and builds the project into build/ (or $BUILD_DIR); the tools
# land in build/bin/.
#
#   scripts/build.sh [extra cmake arguments ...]
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
