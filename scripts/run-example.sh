#!/usr/bin/env bash
# The main job: installs what is missing, builds, and decodes the bundled
# example captures against the example dictionary, with statistics.
# Standard output holds only the decoded lines; the installation and build
# progress goes to standard error.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh -DWEXBL_BUILD_TESTS=OFF >&2
"${BUILD_DIR:-build}"/bin/binlog-decode --stats --udp-port 5000 examples/dictionary \
    examples/captures/link150.pcap.gz examples/captures/ipv4_port5000.pcap.gz
