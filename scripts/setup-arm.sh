#!/usr/bin/env bash
# Prepares the 32-bit ARM (armhf) cross build and its emulated test run:
#  - installs the cross compiler and qemu-user (host packages) when missing;
#  - fills a private sysroot with the armhf libxml2, zlib and GoogleTest,
#    downloaded with an apt configuration of its own and unpacked there.
# The system's dpkg is never switched to multiarch: armhf package indexes
# whose mirror state differs from the host's (a security index mid-sync, say)
# can then neither block the host's apt nor force matching host versions.
# Idempotent: a complete sysroot is left as it is.
#
#   scripts/setup-arm.sh [SYSROOT_DIR]     (default: build-arm-sysroot)
set -euo pipefail
cd "$(dirname "$0")/.."
sysroot=$(realpath -m "${1:-build-arm-sysroot}")

host_packages=(g++-arm-linux-gnueabihf qemu-user)
missing=()
for pkg in "${host_packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$pkg")
    fi
done
if [ ${#missing[@]} -ne 0 ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "Missing packages. Install them with:" >&2
        echo "  sudo apt-get install -y ${missing[*]}" >&2
        exit 1
    fi
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q || true
    apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

[ -f "$sysroot/.complete" ] && exit 0

arm_packages=(libxml2 libxml2-dev zlib1g zlib1g-dev liblzma5 libgtest-dev)
apt_dir="$sysroot.apt"
rm -rf "$sysroot" "$apt_dir"
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/debs" "$sysroot"
: > "$apt_dir/status"
apt_opts=(
    -o "APT::Architecture=armhf" -o "APT::Architectures=armhf"
    -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::State::status=$apt_dir/status"
    -o "Dir::Cache=$apt_dir/cache" -o "Debug::NoLocking=1"
)
# A partly failing update (one index mid-sync) still leaves the others usable.
for attempt in 1 2 3; do
    if apt-get "${apt_opts[@]}" update -q; then
        break
    fi
    echo "setup-arm: package index update incomplete (attempt $attempt), going on" >&2
    sleep 5
done
# libxml2 links against ICU, whose runtime package carries its version in its
# name (libicu72 in Debian 12): take the one the armhf libxml2 depends on.
icu=$(apt-cache "${apt_opts[@]}" depends libxml2 | sed -nE 's/^ *Depends: (libicu[0-9]+)$/\1/p' | head -n1)
[ -z "$icu" ] || arm_packages+=("$icu")
(cd "$apt_dir/debs" && apt-get "${apt_opts[@]}" download "${arm_packages[@]}")
for deb in "$apt_dir"/debs/*.deb; do
    dpkg-deb -x "$deb" "$sysroot"
done
# Absolute symlinks (libz.so -> /lib/...) must point into the sysroot.
find "$sysroot" -type l -lname '/*' | while read -r link; do
    ln -sfn "$sysroot$(readlink "$link")" "$link"
done
rm -rf "$apt_dir"
touch "$sysroot/.complete"
echo "setup-arm: sysroot ready in $sysroot"
