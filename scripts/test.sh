#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Sets up, builds and runs every test.
#   scripts/test.sh           native build in build/
#   scripts/test.sh --i386    32-bit build in build-i386/
#   scripts/test.sh --asan    AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
#   scripts/test.sh --tsan    ThreadSanitizer build in build-tsan/
# Extra arguments go to ctest (e.g. -R Reliable). ccache is used when it is installed.
set -euo pipefail
cd "$(dirname "$0")/.."

# Only the three modes are taken here; every other argument (--repeat ... too) goes to ctest.
mode=""
case "${1:-}" in
    --i386 | --asan | --tsan)
        mode=$1
        shift
        ;;
esac
here=$PWD
case "$mode" in
    --i386)
        scripts/setup.sh --i386
        dir=build-i386
        extra=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/i386.cmake")
        ;;
    --asan)
        scripts/setup.sh
        dir=build-asan
        # The examples are built by the plain run; the sanitizer runs need what the tests run.
        # -O1: with UBSan, -O2 makes this build compile 1.7 times as long for little more
        # checking (the plain run tests the -O2 code); ASan's own advice is -O1.
        extra=(-DSLOT_SANITIZE_ADDRESS=ON -DSLOT_BUILD_EXAMPLES=OFF
            -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g -DNDEBUG")
        # Leak checking works with the fork tests: children end with _exit or by a signal and
        # are not checked; test processes are.
        export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:halt_on_error=1:abort_on_error=1:check_initialization_order=1:strict_init_order=1:detect_stack_use_after_return=1}
        export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
        ;;
    --tsan)
        scripts/setup.sh
        dir=build-tsan
        extra=(-DSLOT_SANITIZE_THREAD=ON -DSLOT_BUILD_EXAMPLES=OFF)
        # Every report fails the test (exit code 66) after the test has run to its end, so one
        # run shows every race of a test.
        export TSAN_OPTIONS=${TSAN_OPTIONS:-second_deadlock_stack=1:history_size=4:suppressions=$here/tests/tsan.supp:print_suppressions=0}
        ;;
    "")
        scripts/setup.sh
        dir=build
        extra=()
        ;;
esac
if command -v ccache > /dev/null; then
    # A build reuses only objects of builds in the same folder: with path rewriting (a base_dir
    # in the user's ccache.conf) builds of different checkouts have been seen to share objects
    # made from different headers.
    export CCACHE_BASEDIR="" CCACHE_HASHDIR=1
    extra+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${extra[@]}"
cmake --build "$dir" -j"$(nproc)"
ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" --timeout 300 "$@"
