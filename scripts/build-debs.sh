#!/usr/bin/env bash
# Builds the Debian packages (debian/) with dpkg-buildpackage:
#   amd64 natively, armhf with the cross compiler and the private armhf
#   sysroot of scripts/setup-arm.sh (the build machine's dpkg stays
#   single-architecture, as that script explains).
# The packages land in build-debs/<arch>/ (DEBS_DIR overrides build-debs).
#
#   scripts/build-debs.sh [amd64|armhf|all]     (default: all)
#
# The work tree (tracked files and untracked ones git does not ignore) is
# copied to build-debs/<arch>/src and built there, so that nothing is
# written into the work tree or beside it. The CMake build directory of the
# previous run is kept, so an unchanged file is not compiled again, and
# packages built from the very same files are not built again at all;
# DEBS_FRESH=1 starts from nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
debs_dir=$(realpath -m "${DEBS_DIR:-build-debs}")
what=${1:-all}
case $what in
amd64) arches=(amd64) ;;
armhf) arches=(armhf) ;;
all) arches=(amd64 armhf) ;;
*)
    echo "usage: $0 [amd64|armhf|all]" >&2
    exit 2
    ;;
esac
say() { echo "build-debs: $*" >&2; }

needed=(dpkg-dev debhelper cmake help2man pkgconf)
# The native build makes the Python package too.
[[ " ${arches[*]} " == *" $(dpkg --print-architecture) "* ]] &&
    needed+=(dh-python pybind11-dev python3-dev python3-pybind11)
missing=()
for pkg in "${needed[@]}"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$pkg")
done
if [ ${#missing[@]} -ne 0 ]; then
    say "missing packages (${missing[*]}); run: scripts/install-deps.sh --debs"
    exit 1
fi

# The files of the work tree that git knows of or would add, NUL-separated.
tree_files() {
    git -C "$root" ls-files -z --cached --others --exclude-standard |
        while IFS= read -r -d '' f; do
            [ -f "$f" ] || [ -L "$f" ] && printf '%s\0' "$f"
        done
}

# stage ARCH_DIR ARCH: copies the work tree to ARCH_DIR/src, keeping the CMake
# build directory (obj-*) of the previous run where it was configured alike. Prints nothing; returns 1
# when ARCH_DIR/src already holds these very files and packages were built
# from them.
stage() {
    local dir=$1 arch=$2 stamp key
    stamp=$(tree_files | tar -C "$root" --null -T - --sort=name --mtime=@0 --owner=0 \
        --group=0 --numeric-owner -cf - | sha256sum | cut -d' ' -f1)
    if [ "${DEBS_FRESH:-0}" != 1 ] && [ -f "$dir/stamp" ] &&
        [ "$(cat "$dir/stamp")" = "$stamp" ] && compgen -G "$dir/*.deb" >/dev/null; then
        return 1
    fi
    rm -f "$dir"/*.deb "$dir"/*.changes "$dir"/*.buildinfo "$dir/stamp"
    mkdir -p "$dir"
    # CMake takes the compiler flags (dpkg-buildflags) and the toolchain file
    # at the first configure only: a build directory made with other ones
    # is not kept.
    key=$(cat debian/rules "cmake/toolchain-$arch.cmake" 2>/dev/null |
        cat - <(DEB_BUILD_OPTIONS=${DEB_BUILD_OPTIONS:-} dpkg-architecture -a "$arch" -c dpkg-buildflags 2>/dev/null) |
        sha256sum | cut -d' ' -f1)
    local keep=()
    if [ "${DEBS_FRESH:-0}" != 1 ] && [ -d "$dir/src" ] && [ -f "$dir/configure-key" ] &&
        [ "$(cat "$dir/configure-key")" = "$key" ]; then
        for obj in "$dir"/src/obj-*; do
            [ -d "$obj" ] && mv "$obj" "$dir/" && keep+=("${obj##*/}")
        done
    fi
    rm -rf "$dir/src" "$dir"/obj-*.old
    mkdir "$dir/src"
    tree_files | tar -C "$root" --null -T - -cf - | tar -C "$dir/src" -xf -
    for obj in "${keep[@]}"; do
        mv "$dir/$obj" "$dir/src/$obj"
    done
    echo "$stamp" >"$dir/stamp.new"
    echo "$key" >"$dir/configure-key"
}

# The host-architecture packages a cross build links against, each unpacked
# with its control files into DIR/<package>, so that dpkg-shlibdeps takes
# their symbols files (-S) and the Depends name real armhf packages.
cross_link_packages() {
    local arch=$1 dir=$2
    [ -f "$dir/.complete" ] && return 0
    local packages=(libc6 libgcc-s1 libstdc++6 libxml2 zlib1g)
    local apt_dir="$dir.apt"
    rm -rf "$dir" "$apt_dir"
    mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/debs" "$dir"
    : >"$apt_dir/status"
    local apt_opts=(
        -o "APT::Architecture=$arch" -o "APT::Architectures=$arch"
        -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::State::status=$apt_dir/status"
        -o "Dir::Cache=$apt_dir/cache" -o "Debug::NoLocking=1"
    )
    apt-get "${apt_opts[@]}" update -q >&2 || say "package index update incomplete, going on"
    (cd "$apt_dir/debs" && apt-get "${apt_opts[@]}" download "${packages[@]}" >&2)
    for deb in "$apt_dir"/debs/*.deb; do
        local name
        name=$(dpkg-deb -f "$deb" Package)
        dpkg-deb -R "$deb" "$dir/$name"
    done
    rm -rf "$apt_dir"
    touch "$dir/.complete"
}

for arch in "${arches[@]}"; do
    dir=$debs_dir/$arch
    if ! stage "$dir" "$arch"; then
        say "$arch: packages in $dir are up to date"
        continue
    fi
    say "$arch: building in $dir/src"
    build_args=(-b -nc -us -uc)
    env_args=()
    cross_options=
    if [ "$arch" != "$(dpkg --print-architecture)" ]; then
        [ "$arch" = armhf ] || { say "no cross build set up for $arch"; exit 1; }
        scripts/setup-arm.sh "$root/build-arm-sysroot" >&2
        cross_link_packages "$arch" "$debs_dir/cache/$arch-link-packages"
        shlibdeps_flags=""
        for pkg_dir in "$debs_dir/cache/$arch-link-packages"/*/; do
            shlibdeps_flags+=" -S${pkg_dir%/}"
        done
        # -d: the build dependencies are in the sysroot, not installed for
        # armhf on this machine. The package build runs no tests (nocheck
        # says so to debhelper, which would warn about a cross build).
        # -Pnopython: no python3-wexbinlog (the sysroot has no Python, and
        # the project does not cross build the extension).
        build_args+=(-a "$arch" -d -Pnopython)
        cross_options=nocheck
        env_args=(WEXBL_ARM_SYSROOT="$root/build-arm-sysroot"
            WEXBL_SHLIBDEPS_FLAGS="${shlibdeps_flags# }")
    fi
    log=$dir/build.log
    if ! (cd "$dir/src" && env "${env_args[@]}" DEB_BUILD_OPTIONS="parallel=$(nproc) $cross_options ${DEB_BUILD_OPTIONS:-}" \
        dpkg-buildpackage "${build_args[@]}") >"$log" 2>&1; then
        tail -n 40 "$log" >&2
        say "$arch: dpkg-buildpackage failed; the whole log is $log"
        exit 1
    fi
    mv "$dir/stamp.new" "$dir/stamp"
    say "$arch: built $(cd "$dir" && echo ./*.deb)"
done
