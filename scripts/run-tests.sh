#!/usr/bin/env bash
# Every test: installs what is missing, builds with warnings as errors, and
# runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh -DWEXBL_BUILD_TESTS=ON -DWEXBL_WERROR=ON
cd "${BUILD_DIR:-build}"
ctest --output-on-failure -j"$(nproc)"
