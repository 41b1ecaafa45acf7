#!/usr/bin/env bash
# Installs the built library into a temporary prefix and builds and runs a
# small program against it twice: through the CMake package and through
# pkg-config.
#
#   run.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(find "$work/prefix" -name 'libWexOamBinLogXmlReader.so.1' -printf '%h\n' | head -n1)

# Through the CMake package.
cmake -S "$source_dir/tests/consumer" -B "$work/cmake-build" \
    -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
got=$(LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer" "$source_dir/examples/dictionary/" 2>/dev/null)
[[ "$got" =~ ^modules=[1-9][0-9]*\ levels=9$ ]] || { echo "CMake package consumer printed '$got'"; exit 1; }

# Through pkg-config.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$source_dir/tests/consumer/consumer.cpp" -o "$work/pc-consumer" \
    $(pkg-config --cflags --libs WexOamBinLogXmlReader)
got=$(LD_LIBRARY_PATH="$libdir" "$work/pc-consumer" "$source_dir/examples/dictionary/" 2>/dev/null)
[[ "$got" =~ ^modules=[1-9][0-9]*\ levels=9$ ]] || { echo "pkg-config consumer printed '$got'"; exit 1; }
echo "consumer builds: CMake package and pkg-config both work"
