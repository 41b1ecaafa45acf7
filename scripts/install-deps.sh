#!/usr/bin/env bash
# Installs the Debian packages that building (and, when asked, testing and
# benchmarking) needs, and only those that are missing. As root it runs
# apt-get; otherwise it prints the command. Everything it prints goes to
# standard error.
#
#   scripts/install-deps.sh [--tests] [--bench] [--debs] [extra-package ...]
#
#   --tests   also GoogleTest (WEXBL_BUILD_TESTS), Python 3 and jq, which
#             check the JSON and CSV output, chromium, which renders the
#             HTML report in the browser tests, and what the wexbinlog
#             Python package is built and tested with (pybind11, pandas,
#             Dask distributed, pytest)
#   --bench   also Google Benchmark (WEXBL_BUILD_BENCH)
#   --debs    also what building and checking the Debian packages needs
#             (scripts/build-debs.sh, scripts/test-debs.sh; the armhf cross
#             toolchain comes from scripts/setup-arm.sh)
set -euo pipefail
exec >&2

packages=(g++ make cmake pkg-config libxml2-dev zlib1g-dev libisal-dev)
while [ $# -gt 0 ]; do
    case $1 in
    --tests) packages+=(libgtest-dev python3 jq chromium pybind11-dev python3-pybind11
        python3-dev python3-pandas python3-distributed python3-pytest) ;;
    --bench) packages+=(libbenchmark-dev isal) ;;
    --debs) packages+=(dpkg-dev debhelper help2man lintian debootstrap dh-python pybind11-dev
        python3-dev python3-pybind11) ;;
    *) packages+=("$1") ;;
    esac
    shift
done

missing=()
for pkg in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$pkg")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    apt-get install -y -q --no-install-recommends "${missing[@]}"
else
    echo "Missing packages. Install them with:"
    echo "  sudo apt-get install -y ${missing[*]}"
    exit 1
fi
