#!/usr/bin/env bash
# Regenerates docs/report.png, the screenshot of the HTML report that the
# README shows: binlog-decode --report on the example captures (examples/),
# rendered by headless Chromium.
#
#   scripts/report-screenshot.sh
#
# Builds binlog-decode into build/ (or $BUILD_DIR) when it is not there.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}
if [ ! -x "$build_dir/bin/binlog-decode" ]; then
    BUILD_TARGET=binlog-decode scripts/build.sh >/dev/null
fi
chromium=$(command -v chromium || true)
if [ -z "$chromium" ]; then
    echo "report-screenshot.sh: chromium is not installed (scripts/install-deps.sh --tests)" >&2
    exit 1
fi
work=$(mktemp -d /tmp/wexbl-report-XXXXXX)
trap 'rm -rf "$work"' EXIT
# The examples' names, not absolute paths, in the page.
(cd examples && TZ=UTC0 "../$build_dir/bin/binlog-decode" --no-progress --udp-port 5000 \
    --report "$work/report.html" -o /dev/null dictionary captures/link150.pcap.gz \
    captures/ipv4_port5000.pcap.gz)
"$chromium" --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --no-first-run \
    --hide-scrollbars --user-data-dir="$work/profile" --window-size=1100,1500 \
    --screenshot="$work/report.png" "file://$work/report.html" 2>/dev/null
mkdir -p docs
cp "$work/report.png" docs/report.png
echo "report-screenshot.sh: wrote docs/report.png" >&2
