#!/usr/bin/env bash
# Checks the Debian packages that scripts/build-debs.sh built (in
# build-debs/<arch>/, or DEBS_DIR):
#
#   amd64: lintian reports no errors; the tools have a manual page each and no
#          run path, and depend on the library package; a program builds
#          against the development package (CMake package and pkg-config);
#          python3-wexbinlog holds the extension without a run path, the
#          modules, binlog-fleet and its manual page; installed into a fresh
#          minimal Debian root (debootstrap --variant=minbase, chroot,
#          dependencies from the Debian mirror) the tools print their version
#          and decode the bundled example from the installed files alone, and
#          the Python package reads the example capture into the same lines.
#   armhf: every package says Architecture: armhf; there is no Python package
#          (the cross build uses the nopython profile); the library is a
#          32-bit ARM ELF with the SONAME libWexOamBinLogXmlReader.so.2; the
#          tools, unpacked with the library, run under qemu-arm against that
#          library and decode the bundled example.
#
#   scripts/test-debs.sh [amd64|armhf|all]     (default: all)
#
# The minimal root is made once (its download kept in build-debs/cache/) and
# unpacked afresh for every run. Needs root (chroot) for amd64.
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

suite=bookworm
library_package=libwexoambinlogxmlreader2
tools_package=wexbinlog-tools
python_package=python3-wexbinlog
soname=libWexOamBinLogXmlReader.so.2
examples=usr/share/doc/$tools_package/examples
version=$(sed -nE 's/^project\([^ ]+ VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
# What the bundled example prints: the two captures' expected outputs in turn,
# and the note on the one datagram of the IPv4 capture that went to port 5001.
expected_out=$(mktemp)
expected_err=$(mktemp)
# What the Python package reads from the link-type-150 example capture: the
# "text" of its records, one a line, are binlog-decode's lines without the
# notes and statistics (the lines starting with ">>").
expected_python=$(mktemp)
work=$(mktemp -d)
chroot_dir=
cleanup() {
    if [ -n "$chroot_dir" ]; then
        mountpoint -q "$chroot_dir/proc" && umount "$chroot_dir/proc"
        rm -rf "$chroot_dir"
    fi
    rm -rf "$work" "$expected_out" "$expected_err" "$expected_python"
}
trap cleanup EXIT
cat tests/tools/expected/link150_stats.out tests/tools/expected/ipv4_port5000_stats.out >"$expected_out"
printf '%s\n' "binlog-decode: captures/ipv4_port5000.pcap.gz: 1 frame carried no log record (to other UDP ports: 1); UDP destination ports seen: 5000 (12 datagrams), 5001 (1 datagram)" >"$expected_err"
grep -v '^>>' tests/tools/expected/link150_stats.out >"$expected_python"
example_args=(--stats --udp-port 5000 -d dictionary captures/link150.pcap.gz captures/ipv4_port5000.pcap.gz)

passed=0
failed=0
pass() {
    echo "test-debs: ok: $*"
    passed=$((passed + 1))
}
fail() {
    echo "test-debs: FAILED: $*"
    failed=$((failed + 1))
}
# check DESCRIPTION COMMAND...: runs COMMAND, counts a pass or a failure.
check() {
    local what=$1
    shift
    if "$@"; then pass "$what"; else fail "$what"; fi
}

# deb ARCH PACKAGE: the path of a built package.
deb() {
    local f
    f=$(compgen -G "$debs_dir/$1/$2_*_$1.deb" | head -n1 || true)
    [ -n "$f" ] || { echo "no $2 package for $1 in $debs_dir/$1" >&2; return 1; }
    echo "$f"
}

# same_output WHAT EXPECTED GOT
same_output() {
    if cmp -s "$2" "$3"; then return 0; fi
    echo "$1 differs from what is expected:"
    diff -u "$2" "$3" | head -n 30
    return 1
}

# The tools of an unpacked package tree: one manual page each, no run path,
# linked with Debian's hardening flags.
check_tree() {
    local tree=$1 arch=$2 tool ok=0 count=0
    for tool in "$tree"/usr/bin/*; do
        count=$((count + 1))
        local name=${tool##*/}
        if [ ! -s "$tree/usr/share/man/man1/$name.1.gz" ]; then
            echo "$name has no manual page"
            ok=1
        elif ! grep -q "^\.SH EXAMPLES" <<<"$(zcat "$tree/usr/share/man/man1/$name.1.gz")"; then
            echo "the manual page of $name has no EXAMPLES section"
            ok=1
        fi
        if grep -qE '\((RPATH|RUNPATH)\)' <<<"$(readelf -d "$tool")"; then
            echo "$name has a run path: $(readelf -d "$tool" | grep -E 'RPATH|RUNPATH')"
            ok=1
        fi
        # Built with Debian's hardening flags (hardening=+all): bound at load time.
        if ! grep -qE '\(FLAGS_1\) +Flags: .*\bNOW\b' <<<"$(readelf -d "$tool")"; then
            echo "$name was not linked with -z now"
            ok=1
        fi
    done
    [ "$count" -ge 2 ] || { echo "$arch: only $count tools packaged"; ok=1; }
    return $ok
}

# python_tree TREE: the unpacked Python package holds the extension (no run
# path), the package's modules, binlog-fleet and its manual page with
# examples; nothing else in usr/bin.
python_tree() {
    local tree=$1 ok=0 package=$1/usr/lib/python3/dist-packages/wexbinlog ext f
    ext=$(compgen -G "$package/_wexbinlog.cpython-*-x86_64-linux-gnu.so" | head -n1 || true)
    if [ -z "$ext" ]; then
        echo "no extension module _wexbinlog in $package"
        ok=1
    elif grep -qE '\((RPATH|RUNPATH)\)' <<<"$(readelf -d "$ext")"; then
        echo "${ext##*/} has a run path: $(readelf -d "$ext" | grep -E 'RPATH|RUNPATH')"
        ok=1
    fi
    for f in __init__.py fleet.py; do
        [ -s "$package/$f" ] || { echo "no $f in $package"; ok=1; }
    done
    [ "$(ls "$tree/usr/bin")" = binlog-fleet ] || { echo "usr/bin holds: $(ls "$tree/usr/bin")"; ok=1; }
    head -n1 "$tree/usr/bin/binlog-fleet" | grep -qx '#! */usr/bin/python3' ||
        { echo "binlog-fleet starts with $(head -n1 "$tree/usr/bin/binlog-fleet")"; ok=1; }
    if [ ! -s "$tree/usr/share/man/man1/binlog-fleet.1.gz" ]; then
        echo "binlog-fleet has no manual page"
        ok=1
    elif ! zcat "$tree/usr/share/man/man1/binlog-fleet.1.gz" | grep -q "^\.SH EXAMPLES"; then
        echo "the manual page of binlog-fleet has no EXAMPLES section"
        ok=1
    fi
    return $ok
}

# library_elf TREE CLASS MACHINE: the packaged library's ELF class, machine
# and SONAME.
library_elf() {
    local lib header
    lib=$(find "$1/usr/lib" -name "$soname" | head -n1)
    [ -n "$lib" ] || { echo "no $soname in the library package"; return 1; }
    header=$(readelf -h "$lib")
    grep -qE "Class: +$2\$" <<<"$header" || { echo "$lib: not $2"; return 1; }
    grep -qE "Machine: +$3\$" <<<"$header" || { echo "$lib: machine not $3"; return 1; }
    grep -qF "Library soname: [$soname]" <<<"$(readelf -d "$lib")" ||
        { echo "$lib: SONAME is not $soname"; return 1; }
}

# depends_on DEB PATTERN: the package's Depends field matches the pattern.
depends_on() {
    local depends
    depends=$(dpkg-deb -f "$1" Depends)
    grep -qE "$2" <<<"$depends" || { echo "${1##*/}: Depends: $depends (wants $2)"; return 1; }
}

# dev_consumers TREE: the small consumer program of the tests, built against
# the library and development packages unpacked into TREE through the CMake
# package and through pkg-config, loads the example dictionary.
dev_consumers() {
    local tree=$1 libdir got
    libdir=$tree/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
    if ! { cmake -S tests/consumer -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$tree/usr" &&
        cmake --build "$work/cmake-consumer"; } >"$work/consumer.log" 2>&1; then
        tail -n 20 "$work/consumer.log"
        return 1
    fi
    got=$(LD_LIBRARY_PATH=$libdir "$work/cmake-consumer/consumer" examples/dictionary/ 2>&1)
    [[ "$got" =~ ^modules=[1-9][0-9]*\ levels=9$ ]] || { echo "CMake package consumer printed '$got'"; return 1; }
    local flags
    flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs WexOamBinLogXmlReader) || return 1
    local include
    include=$(grep -oE -- '-I[^ ]*/include/WexOamBinLogXmlReader( |$)' <<<"$flags" | head -n1 || true)
    include=${include#-I}
    if [ -z "$include" ] || [ "$(realpath -m "${include% }")" != "$tree/usr/include/WexOamBinLogXmlReader" ]; then
        echo "pkg-config flags do not name the unpacked headers: $flags"
        return 1
    fi
    # shellcheck disable=SC2086 # the flags are words
    c++ -std=c++17 tests/consumer/consumer.cpp -o "$work/pc-consumer" $flags || return 1
    got=$(LD_LIBRARY_PATH=$libdir "$work/pc-consumer" examples/dictionary/ 2>&1)
    [[ "$got" =~ ^modules=[1-9][0-9]*\ levels=9$ ]] || { echo "pkg-config consumer printed '$got'"; return 1; }
}

# A pristine minimal root, unpacked for this run from the cached one.
fresh_root() {
    local dir=$1 cache=$debs_dir/cache
    mkdir -p "$cache"
    if [ ! -f "$cache/$suite-minbase-root.tar" ]; then
        local build=$cache/$suite-minbase-root.tmp
        rm -rf "$build"
        [ -f "$cache/$suite-minbase.tgz" ] ||
            debootstrap --variant=minbase --make-tarball="$cache/$suite-minbase.tgz" \
                "$suite" "$build" >&2
        rm -rf "$build"
        debootstrap --variant=minbase --unpack-tarball="$cache/$suite-minbase.tgz" \
            "$suite" "$build" >&2
        tar -C "$build" -cf "$cache/$suite-minbase-root.tar.tmp" .
        mv "$cache/$suite-minbase-root.tar.tmp" "$cache/$suite-minbase-root.tar"
        rm -rf "$build"
    fi
    rm -rf "$dir"
    mkdir -p "$dir"
    tar -C "$dir" -xf "$cache/$suite-minbase-root.tar"
}

test_amd64() {
    local lib tools dev python
    if ! { lib=$(deb amd64 $library_package) && tools=$(deb amd64 $tools_package) &&
        dev=$(deb amd64 libwexoambinlogxmlreader-dev) && python=$(deb amd64 $python_package); }; then
        fail "amd64 packages built"
        return
    fi

    local changes
    changes=$(compgen -G "$debs_dir/amd64/*_amd64.changes" | head -n1 || true)
    if lintian --allow-root --fail-on error --display-level '>=warning' "$changes" >"$work/lintian" 2>&1; then
        pass "amd64: lintian reports no errors ($(grep -c '^W: ' "$work/lintian" || true) warnings)"
    else
        fail "amd64: lintian"
    fi
    cat "$work/lintian"

    local tree=$work/amd64
    mkdir -p "$tree"
    for f in "$lib" "$tools" "$dev"; do dpkg-deb -x "$f" "$tree"; done
    check "amd64: a manual page with examples for every tool, no run path, -z now" check_tree "$tree" amd64
    check "amd64: the library is a 64-bit x86-64 ELF with SONAME $soname" \
        library_elf "$tree" ELF64 "Advanced Micro Devices X86-64"
    check "amd64: the tools depend on the library package and libxml2" \
        depends_on "$tools" "$library_package \(>= $version\).*libxml2 \(|libxml2 \(.*$library_package \(>= $version\)"
    check "amd64: the library has a shlibs file" \
        sh -c "dpkg-deb --ctrl-tarfile '$lib' | tar -xOf - ./shlibs | grep -qx 'libWexOamBinLogXmlReader 2 $library_package (>= $version)'"

    check "amd64: a program builds against the unpacked -dev package (CMake package, pkg-config)" \
        dev_consumers "$tree"
    check "amd64: binlog-fleet and its manual page are not in $tools_package" \
        test ! -e "$tree/usr/bin/binlog-fleet" -a ! -e "$tree/usr/share/man/man1/binlog-fleet.1.gz"

    mkdir -p "$work/amd64-python"
    dpkg-deb -x "$python" "$work/amd64-python"
    check "amd64: $python_package holds the extension (no run path), the modules, binlog-fleet and its manual page" \
        python_tree "$work/amd64-python"
    # The interpreter bounds come from dh_python3: the extension is built
    # for one python3 minor version.
    check "amd64: $python_package depends on the library package, python3 within bounds and pandas" \
        sh -c "depends=\$(dpkg-deb -f '$python' Depends); echo \"\$depends\" | grep -q '$library_package (>= $version)' &&
            echo \"\$depends\" | grep -q 'python3 (>= 3\.[0-9]*~)' && echo \"\$depends\" | grep -q 'python3 (<< 3\.[0-9]*)' &&
            echo \"\$depends\" | grep -q 'python3-pandas' || { echo \"Depends: \$depends\"; false; }"
    check "amd64: $python_package recommends python3-distributed" \
        test "$(dpkg-deb -f "$python" Recommends)" = python3-distributed

    # The fresh minimal root.
    if [ "$(id -u)" -ne 0 ]; then
        fail "amd64: installing into a minimal root needs root (chroot)"
        return
    fi
    chroot_dir=$debs_dir/chroot-amd64
    if ! fresh_root "$chroot_dir" >"$work/root.log" 2>&1; then
        tail -n 20 "$work/root.log"
        fail "amd64: a minimal $suite root"
        return
    fi
    cp /etc/resolv.conf "$chroot_dir/etc/resolv.conf"
    mkdir -p "$chroot_dir/tmp/debs"
    cp "$lib" "$tools" "$python" "$chroot_dir/tmp/debs/"
    mount -t proc proc "$chroot_dir/proc"
    local in_root=(chroot "$chroot_dir" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8
        DEBIAN_FRONTEND=noninteractive)
    if "${in_root[@]}" sh -c 'apt-get update -q && apt-get install -y -q --no-install-recommends /tmp/debs/*.deb' \
        >"$work/install.log" 2>&1; then
        # What the packages' dependencies add to the download (apt says it).
        pass "amd64: $library_package, $tools_package and $python_package installed into a minimal $suite root with their dependencies ($(grep -o 'Need to get [^ ]* [kMG]*B' "$work/install.log" | head -n1 || echo 'download size not shown'))"
    else
        tail -n 30 "$work/install.log"
        fail "amd64: installing into a minimal $suite root"
        return
    fi
    rm -rf "$chroot_dir/tmp/debs"
    local got
    got=$("${in_root[@]}" binlog-decode --version 2>&1 | head -n1 || true)
    check "amd64 (minimal root): binlog-decode --version prints 'binlog-decode $version'" \
        test "$got" = "binlog-decode $version"
    got=$("${in_root[@]}" binlog-synth --version 2>&1 || true)
    check "amd64 (minimal root): binlog-synth --version prints 'binlog-synth $version'" \
        test "$got" = "binlog-synth $version"
    # The bundled example dictionary lints clean: no finding, status 0.
    got=$("${in_root[@]}" binlog-lint "/$examples/dictionary" 2>&1; echo "status $?")
    check "amd64 (minimal root): binlog-lint finds nothing in the bundled example dictionary" \
        test "$got" = "status 0"
    got=$("${in_root[@]}" ldd /usr/bin/binlog-decode | awk -v s="$soname" '$1 == s { print $3 }')
    check "amd64 (minimal root): binlog-decode loads the packaged library ($got)" \
        test "$got" = "/lib/x86_64-linux-gnu/$soname" -o "$got" = "/usr/lib/x86_64-linux-gnu/$soname"
    local status=0
    # shellcheck disable=SC2016 # expanded by the shell in the root
    "${in_root[@]}" sh -c 'cd "$1" && shift && exec binlog-decode "$@"' sh "/$examples" "${example_args[@]}" \
        >"$work/example.out" 2>"$work/example.err" || status=$?
    check "amd64 (minimal root): the bundled example exits 0" test "$status" = 0
    check "amd64 (minimal root): the bundled example decodes as expected" \
        same_output "standard output" "$expected_out" "$work/example.out"
    check "amd64 (minimal root): the bundled example's note on standard error" \
        same_output "standard error" "$expected_err" "$work/example.err"
    # The manual pages are where man looks for them.
    check "amd64 (minimal root): the manual pages are installed" \
        test -s "$chroot_dir/usr/share/man/man1/binlog-decode.1.gz" -a \
        -s "$chroot_dir/usr/share/man/man1/binlog-synth.1.gz" -a \
        -s "$chroot_dir/usr/share/man/man1/binlog-lint.1.gz" -a \
        -s "$chroot_dir/usr/share/man/man1/binlog-fleet.1.gz"

    # The Python package: the records of the bundled link-type-150 capture,
    # read() and to_pandas(), give the lines binlog-decode prints for it.
    got=$("${in_root[@]}" python3 -c 'import wexbinlog; print(wexbinlog.__version__)' 2>&1 || true)
    check "amd64 (minimal root): python3 imports wexbinlog $version" test "$got" = "$version"
    status=0
    "${in_root[@]}" python3 -c '
import sys
import wexbinlog
examples = sys.argv[1]
capture = examples + "/captures/link150.pcap.gz"
d = wexbinlog.Dictionary(examples + "/dictionary")
texts = [item["text"] for item in d.read(capture) if "event" not in item]
sys.stdout.write("".join(text + "\n" for text in texts))
frame = d.to_pandas(capture)
if list(frame["text"]) != texts:
    sys.exit("to_pandas() gives other texts than read()")
' "/$examples" >"$work/python.out" 2>"$work/python.err" || status=$?
    check "amd64 (minimal root): python3 reads the bundled example capture (status $status)" \
        test "$status" = 0 -a ! -s "$work/python.err"
    if [ -s "$work/python.err" ]; then head -n 20 "$work/python.err"; fi
    check "amd64 (minimal root): the records' texts from python3 are the example's lines" \
        same_output "the records' text" "$expected_python" "$work/python.out"
    # Without python3-distributed (a recommendation, not installed here):
    # --help and --version need no Dask.
    status=0
    "${in_root[@]}" binlog-fleet --help >"$work/fleet-help" 2>&1 || status=$?
    check "amd64 (minimal root): binlog-fleet --help exits 0 and shows the usage" \
        sh -c "test $status = 0 && grep -q '^Usage: binlog-fleet' '$work/fleet-help' || { cat '$work/fleet-help'; false; }"
    got=$("${in_root[@]}" binlog-fleet --version 2>&1 || true)
    check "amd64 (minimal root): binlog-fleet --version prints 'binlog-fleet $version'" \
        test "$got" = "binlog-fleet $version"
    # Decoding on a cluster without Dask: a message and status 1.
    got=$("${in_root[@]}" binlog-fleet --local 1 "/$examples/dictionary" \
        "/$examples/captures/link150.pcap.gz" 2>&1; echo "status $?")
    local fleet_ok=1
    case $got in
    "binlog-fleet: Dask distributed is not installed: "*$'\n'"status 1") fleet_ok=0 ;;
    *) echo "$got" ;;
    esac
    check "amd64 (minimal root): binlog-fleet without python3-distributed says so and exits 1" \
        test "$fleet_ok" = 0
    umount "$chroot_dir/proc"
    rm -rf "$chroot_dir"
    chroot_dir=
}

test_armhf() {
    local lib tools dev f
    if ! { lib=$(deb armhf $library_package) && tools=$(deb armhf $tools_package) &&
        dev=$(deb armhf libwexoambinlogxmlreader-dev); }; then
        fail "armhf packages built"
        return
    fi
    local ok=0
    for f in "$debs_dir"/armhf/*.deb; do
        [ "$(dpkg-deb -f "$f" Architecture)" = armhf ] || { echo "${f##*/}: not armhf"; ok=1; }
        grep -qx ' Architecture: armhf' <<<"$(dpkg-deb -I "$f")" || { echo "${f##*/}: dpkg-deb -I"; ok=1; }
    done
    check "armhf: dpkg-deb -I shows Architecture: armhf for every package" test $ok = 0
    # The cross build uses the nopython profile: no Python package, and the
    # .changes names none.
    check "armhf: no $python_package package (nopython profile)" \
        bash -c "! compgen -G '$debs_dir/armhf/${python_package}_*' >/dev/null &&
            ! grep -q '$python_package' '$debs_dir'/armhf/*_armhf.changes"

    local tree=$work/armhf
    mkdir -p "$tree"
    for f in "$lib" "$tools" "$dev"; do dpkg-deb -x "$f" "$tree"; done
    check "armhf: the library is a 32-bit ARM ELF with SONAME $soname" library_elf "$tree" ELF32 ARM
    check "armhf: a manual page with examples for every tool, no run path, -z now" check_tree "$tree" armhf
    # The Depends name armhf packages of the Debian archive, not the cross
    # toolchain's.
    check "armhf: the tools depend on the library package, libxml2 and libc6" \
        sh -c "depends=\$(dpkg-deb -f '$tools' Depends); echo \"\$depends\" | grep -q 'libc6 (>=' &&
            echo \"\$depends\" | grep -q 'libxml2 (>=' && echo \"\$depends\" | grep -q '$library_package (>= $version)' &&
            ! echo \"\$depends\" | grep -q cross || { echo \"Depends: \$depends\"; false; }"

    # The tools under qemu-arm: the C library of the cross toolchain, libxml2
    # and zlib of the armhf sysroot, and the library from the package.
    local sysroot=$root/build-arm-sysroot
    [ -d "$sysroot/usr/lib/arm-linux-gnueabihf" ] || scripts/setup-arm.sh "$sysroot" >&2
    local libdir=$tree/usr/lib/arm-linux-gnueabihf
    local qemu=(qemu-arm -L /usr/arm-linux-gnueabihf
        -E "LD_LIBRARY_PATH=$libdir:$sysroot/usr/lib/arm-linux-gnueabihf:$sysroot/lib/arm-linux-gnueabihf")
    local got
    got=$("${qemu[@]}" "$tree/usr/bin/binlog-decode" --version 2>&1 | head -n1 || true)
    check "armhf (qemu-arm): binlog-decode --version prints 'binlog-decode $version'" \
        test "$got" = "binlog-decode $version"
    got=$("${qemu[@]}" "$tree/usr/bin/binlog-synth" --version 2>&1 || true)
    check "armhf (qemu-arm): binlog-synth --version prints 'binlog-synth $version'" \
        test "$got" = "binlog-synth $version"
    got=$("${qemu[@]}" "$tree/usr/bin/binlog-lint" "$tree/$examples/dictionary" 2>&1
        echo "status $?")
    check "armhf (qemu-arm): binlog-lint finds nothing in the bundled example dictionary" \
        test "$got" = "status 0"
    got=$("${qemu[@]}" -E LD_TRACE_LOADED_OBJECTS=1 "$tree/usr/bin/binlog-decode" 2>&1 |
        awk -v s="$soname" '$1 == s { print $3 }')
    check "armhf (qemu-arm): binlog-decode loads the packaged library ($got)" \
        test "$got" = "$libdir/$soname"
    local status=0
    (cd "$tree/$examples" && "${qemu[@]}" "$tree/usr/bin/binlog-decode" "${example_args[@]}") \
        >"$work/example.out" 2>"$work/example.err" || status=$?
    check "armhf (qemu-arm): the bundled example exits 0" test "$status" = 0
    check "armhf (qemu-arm): the bundled example decodes as expected" \
        same_output "standard output" "$expected_out" "$work/example.out"
    check "armhf (qemu-arm): the bundled example's note on standard error" \
        same_output "standard error" "$expected_err" "$work/example.err"
}

for arch in "${arches[@]}"; do
    "test_$arch"
done
echo "test-debs: $passed passed, $failed failed"
[ "$failed" = 0 ]
