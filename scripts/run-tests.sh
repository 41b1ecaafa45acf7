#!/usr/bin/env bash
# Every test: installs what is missing, then
#   1. builds with warnings as errors and runs the whole suite (unit, golden,
#      tool, install and fuzz-corpus tests);
#   2. checks the formatting of the sources;
#   3. runs the suite again built with AddressSanitizer and
#      UndefinedBehaviorSanitizer;
#   4. runs the decoder over the golden corpus under valgrind memcheck;
#   5. builds the libFuzzer targets and runs each for FUZZ_SECONDS (default 30);
#   6. cross-builds for 32-bit ARM and runs the suite under qemu-arm;
#   7. builds the Debian packages for amd64 and armhf and checks them
#      (lintian, an install into a minimal Debian root, the armhf tools under
#      qemu-arm).
# Set WEXBL_QUICK=1 to run step 1 only.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

quick=${WEXBL_QUICK:-0}
if [ "$quick" = 1 ]; then
    scripts/install-deps.sh --tests --bench
else
    scripts/install-deps.sh --tests --bench --debs clang libclang-rt-dev valgrind clang-format \
        abigail-tools
fi

passed=0
failed=0
# Runs ctest in a build directory and adds its counts to the totals.
run_ctest() {
    local dir=$1
    shift
    local log
    log=$(mktemp)
    local status=0
    (cd "$dir" && ctest --output-on-failure -j"$(nproc)" "$@") 2>&1 | tee "$log" || status=1
    local line
    line=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -n1 || true)
    rm -f "$log"
    if [ -z "$line" ]; then
        echo "run-tests: no test summary from $dir" >&2
        failed=$((failed + 1))
        return
    fi
    local total fails
    total=$(sed -E 's/.*out of ([0-9]+).*/\1/' <<<"$line")
    fails=$(sed -E 's/.* ([0-9]+) tests failed.*/\1/' <<<"$line")
    passed=$((passed + total - fails))
    failed=$((failed + fails))
    [ "$status" = 0 ] || [ "$fails" != 0 ] || failed=$((failed + 1))
}
step() { printf '\n==== %s\n' "$*"; }

step "build and test (host)"
BUILD_DIR=build scripts/build.sh -DWEXBL_BUILD_TESTS=ON -DWEXBL_WERROR=ON -DWEXBL_BUILD_BENCH=ON
run_ctest build

if [ "$quick" != 1 ]; then
    step "ABI against the last release"
    if scripts/check-abi.sh build; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
    fi

    step "formatting"
    if scripts/check-format.sh; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
    fi

    step "build and test with AddressSanitizer and UndefinedBehaviorSanitizer"
    BUILD_DIR=build-asan BUILD_TYPE=Debug scripts/build.sh -DWEXBL_BUILD_TESTS=ON \
        -DWEXBL_WERROR=ON -DWEXBL_SANITIZE=ON
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
        run_ctest build-asan

    step "ThreadSanitizer: streams decoding at the same time, inflating in a thread"
    BUILD_DIR=build-tsan BUILD_TYPE=Debug BUILD_TARGET="test_capture_stream test_capture_source" \
        scripts/build.sh -DWEXBL_BUILD_TESTS=ON -DWEXBL_WERROR=ON -DWEXBL_SANITIZE_THREAD=ON
    if TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
        build-tsan/tests/test_capture_stream --gtest_filter='*Threads*:*Differential*' &&
        TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
            build-tsan/tests/test_capture_source --gtest_filter='*Pipeline*'; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
    fi

    step "valgrind memcheck over the golden corpus"
    if scripts/valgrind-golden.sh build; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
    fi

    step "fuzz targets, ${FUZZ_SECONDS:-30} s each"
    BUILD_DIR=build-fuzz CC=clang CXX=clang++ scripts/build.sh -DWEXBL_BUILD_TESTS=OFF \
        -DWEXBL_BUILD_TOOLS=OFF -DWEXBL_BUILD_FUZZ=ON -DWEXBL_SANITIZE=ON
    if scripts/run-fuzz.sh build-fuzz "${FUZZ_SECONDS:-30}"; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
    fi

    step "32-bit ARM cross build, tests under qemu-arm"
    scripts/setup-arm.sh "$root/build-arm-sysroot"
    BUILD_DIR=build-arm scripts/build.sh -DWEXBL_BUILD_TESTS=ON -DWEXBL_WERROR=ON \
        -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" \
        -DWEXBL_ARM_SYSROOT="$root/build-arm-sysroot"
    run_ctest build-arm

    step "Debian packages: build, lintian, install into a minimal root, armhf inspection"
    if scripts/build-debs.sh all && scripts/test-debs.sh all; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
    fi
fi

echo
echo "all: $passed passed, $failed failed"
[ "$failed" = 0 ]
