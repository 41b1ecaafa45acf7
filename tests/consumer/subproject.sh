#!/usr/bin/env bash
# Builds the library inside a parent project (tests/consumer/subproject, which
# pulls it in with add_subdirectory) and runs a program linked against it.
# GoogleTest and Google Benchmark are made unfindable: a parent that does not
# ask for the tests or benchmarks must not need them.
#
#   subproject.sh SOURCE_DIR CMAKE CXX_COMPILER
set -euo pipefail
source_dir=$1
cmake=$2
cxx=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

common=(-DWEXBL_SOURCE_DIR="$source_dir" -DCMAKE_CXX_COMPILER="$cxx"
    -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON)

# configure NAME ARGS...: configures the parent project into $work/NAME.
configure() {
    local name=$1
    shift
    if ! "$cmake" -S "$source_dir/tests/consumer/subproject" -B "$work/$name" "${common[@]}" "$@" \
        >"$work/$name.log" 2>&1; then
        echo "the parent project ($name) did not configure:"
        cat "$work/$name.log"
        exit 1
    fi
}

# The parent sets nothing: no build type is forced on it, the library is
# static (CMake's default), no tests or examples. The tools are turned off by
# the parent here, which also leaves out the capture writer.
configure plain -DWEXBL_BUILD_TOOLS=OFF -DEXPECT_BUILD_TYPE= \
    -DEXPECT_LIBRARY_TYPE=STATIC_LIBRARY -DEXPECT_TOOLS=OFF
"$cmake" --build "$work/plain" --target consumer -j2 >"$work/plain-build.log" 2>&1 ||
    { echo "the parent project did not build:"; tail -n 40 "$work/plain-build.log"; exit 1; }
got=$("$work/plain/consumer" "$source_dir/examples/dictionary/" 2>/dev/null)
[[ "$got" =~ ^modules=[1-9][0-9]*\ levels=9$ ]] || { echo "the parent's program printed '$got'"; exit 1; }

# The parent's choices are kept: its build type, a shared library; the tools
# are on by default.
configure chosen -DCMAKE_BUILD_TYPE=Debug -DBUILD_SHARED_LIBS=ON -DEXPECT_BUILD_TYPE=Debug \
    -DEXPECT_LIBRARY_TYPE=SHARED_LIBRARY -DEXPECT_TOOLS=ON

echo "subproject: builds inside a parent project without tests, keeps the parent's choices"
