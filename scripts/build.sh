#!/usr/bin/env bash
# Configures and builds the project into build/ (or $BUILD_DIR); the tools
# land in build/bin/.
#
#   scripts/build.sh [extra cmake arguments ...]
#
# BUILD_TYPE sets the build type (RelWithDebInfo); BUILD_TARGET builds one
# target only.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
# BUILD_TARGET may name several targets, separated by blanks.
# shellcheck disable=SC2086
cmake --build "$build_dir" -j"$(nproc)" ${BUILD_TARGET:+--target $BUILD_TARGET}
