#!/usr/bin/env bash
# The main job: installs what is missing, builds, and decodes the bundled
# example captures against the example dictionary, with statistics.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh -DWEXBL_BUILD_TESTS=OFF
"${BUILD_DIR:-build}"/binlog-decode --stats --udp-port 5000 examples/dictionary \
    examples/captures/link150.pcap.gz examples/captures/ipv4_port5000.pcap.gz
