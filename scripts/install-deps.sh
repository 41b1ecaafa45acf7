#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, and only those
# that are missing. As root it runs apt-get; otherwise it prints the command.
#
#   scripts/install-deps.sh [extra-package ...]
set -euo pipefail

packages=(g++ make cmake pkg-config libxml2-dev zlib1g-dev libgtest-dev libbenchmark-dev "$@")

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
    echo "Missing packages. Install them with:" >&2
    echo "  sudo apt-get install -y ${missing[*]}" >&2
    exit 1
fi
