#!/usr/bin/env bash
# The main job: installs what is missing, builds, and summarises the bundled
# example dictionary.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh -DWEXBL_BUILD_TESTS=OFF
"${BUILD_DIR:-build}"/dictionary-summary examples/dictionary/
