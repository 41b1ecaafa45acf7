#!/usr/bin/env bash
# Installs the built project into a temporary prefix, then:
#  - runs the installed tools from that prefix, and again after moving the
#    prefix elsewhere, with no LD_LIBRARY_PATH: they find the library through
#    their relative run path;
#  - builds and runs a small program against the installed library through
#    the CMake package and through pkg-config;
#  - checks that find_package reports the package as not found (instead of
#    stopping the configure step) when libxml2 cannot be found.
#
#   run.sh BUILD_DIR SOURCE_DIR CMAKE VERSION TOOLS(1|0) STATIC(1|0)
#
# TOOLS says whether the tools were built, STATIC whether the library is a
# static one.
set -euo pipefail
build_dir=$1
source_dir=$2
cmake=$3
version=$4
tools=$5
static=$6
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH

"$cmake" --install "$build_dir" --prefix "$work/prefix" >/dev/null
if [ "$static" = 1 ]; then
    library=libWexOamBinLogXmlReader.a
else
    library=libWexOamBinLogXmlReader.so.${version%%.*}
fi
libdir=$(find "$work/prefix" -name "$library" -printf '%h\n' | head -n1)
[ -n "$libdir" ] || { echo "no $library under the install prefix"; exit 1; }
libdir_rel=${libdir#"$work/prefix/"}
examples=$source_dir/examples
expected=$source_dir/tests/tools/expected/link150_stats.out

# Runs the installed tools of PREFIX and checks their output.
check_tools() {
    local prefix=$1 got
    got=$("$prefix/bin/binlog-decode" --version | head -n 1)
    [ "$got" = "binlog-decode $version" ] || { echo "$prefix/bin/binlog-decode --version printed '$got'"; exit 1; }
    got=$("$prefix/bin/binlog-synth" --version)
    [ "$got" = "binlog-synth $version" ] || { echo "$prefix/bin/binlog-synth --version printed '$got'"; exit 1; }
    "$prefix/bin/binlog-decode" --stats --udp-port 5000 "$examples/dictionary" \
        "$examples/captures/link150.pcap.gz" >"$work/decoded.out" 2>"$work/decoded.err"
    cmp -s "$expected" "$work/decoded.out" ||
        { echo "installed binlog-decode decoded the example differently:"; diff -u "$expected" "$work/decoded.out" | head -n 40; exit 1; }
    [ ! -s "$work/decoded.err" ] || { echo "installed binlog-decode wrote to stderr:"; cat "$work/decoded.err"; exit 1; }
    # The library they load is the one beside them, not another copy.
    [ "$static" = 0 ] || return 0
    got=$(ldd "$prefix/bin/binlog-decode" | awk -v soname="$library" '$1 == soname { print $3 }')
    if [ -z "$got" ] || [ "$(realpath "$got")" != "$(realpath "$prefix/$libdir_rel/$library")" ]; then
        echo "installed binlog-decode loads the library from '$got'"
        exit 1
    fi
    # binlog-synth writes captures with its own reading of the formats and
    # does not load the decoding library at all.
    if ldd "$prefix/bin/binlog-synth" | grep -q libWexOamBinLogXmlReader; then
        echo "installed binlog-synth loads the decoding library"
        exit 1
    fi
}

if [ "$tools" = 1 ]; then
    check_tools "$work/prefix"
    mv "$work/prefix" "$work/moved"
    check_tools "$work/moved"
    mv "$work/moved" "$work/prefix"
fi

# Through the CMake package.
"$cmake" -S "$source_dir/tests/consumer" -B "$work/cmake-build" \
    -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
"$cmake" --build "$work/cmake-build" >/dev/null
got=$(LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer" "$examples/dictionary/" 2>/dev/null)
[[ "$got" =~ ^modules=[1-9][0-9]*\ levels=9$ ]] || { echo "CMake package consumer printed '$got'"; exit 1; }

# Through pkg-config.
pc_flags=(--cflags --libs)
[ "$static" = 0 ] || pc_flags+=(--static)
# shellcheck disable=SC2046
c++ -std=c++17 "$source_dir/tests/consumer/consumer.cpp" -o "$work/pc-consumer" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config "${pc_flags[@]}" WexOamBinLogXmlReader)
got=$(LD_LIBRARY_PATH="$libdir" "$work/pc-consumer" "$examples/dictionary/" 2>/dev/null)
[[ "$got" =~ ^modules=[1-9][0-9]*\ levels=9$ ]] || { echo "pkg-config consumer printed '$got'"; exit 1; }

# libxml2 missing (pkg-config searches an empty directory): a QUIET
# find_package configures and reports not found with the reason; a REQUIRED
# one fails with that reason.
mkdir "$work/no-pc"
reason="dependency libxml-2.0 (pkg-config) was not found"
if ! PKG_CONFIG_LIBDIR="$work/no-pc" PKG_CONFIG_PATH="" "$cmake" -S "$source_dir/tests/consumer/missing-dep" \
    -B "$work/quiet" -DCMAKE_PREFIX_PATH="$work/prefix" -DFIND_MODE=QUIET >"$work/quiet.log" 2>&1; then
    echo "a QUIET find_package with libxml2 missing stopped the configure step:"
    cat "$work/quiet.log"
    exit 1
fi
grep -qF "WexOamBinLogXmlReader_FOUND=0 reason: WexOamBinLogXmlReader could not be found because its $reason." \
    "$work/quiet.log" || { echo "a QUIET find_package with libxml2 missing did not report not-found:"; cat "$work/quiet.log"; exit 1; }
if PKG_CONFIG_LIBDIR="$work/no-pc" PKG_CONFIG_PATH="" "$cmake" -S "$source_dir/tests/consumer/missing-dep" \
    -B "$work/required" -DCMAKE_PREFIX_PATH="$work/prefix" -DFIND_MODE=REQUIRED >"$work/required.log" 2>&1; then
    echo "a REQUIRED find_package with libxml2 missing configured:"
    cat "$work/required.log"
    exit 1
fi
# (CMake wraps the reason over lines.)
tr -s ' \n' '  ' <"$work/required.log" | grep -qF "NOT FOUND. Reason given by package: WexOamBinLogXmlReader could not be found because its $reason." ||
    { echo "a REQUIRED find_package with libxml2 missing failed without the reason:"; cat "$work/required.log"; exit 1; }

what="the CMake package, pkg-config and the missing-dependency report work"
[ "$tools" = 0 ] || what="the tools run from any prefix; $what"
echo "install: $what"
