#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the pytest suite of the Python module.
#   run.sh MODE PYTHON PACKAGE_DIR SLOTCTL PYTHON_GUIDE CXX
# MODE plain, asan or tsan: an instrumented extension in the uninstrumented interpreter needs
# the sanitizer's runtime loaded first.
set -euo pipefail
mode=$1 python=$2 package_dir=$3 slotctl=$4 readme=$5 cxx=$6
here=$(cd "$(dirname "$0")" && pwd)

if ! "$python" -c 'import pytest' 2> /dev/null; then
    echo "SKIPPED: pytest is missing for $python (Debian package python3-pytest)"
    exit 77
fi
case "$mode" in
    asan)
        # libstdc++ too: ASan hooks C++ throws only in a C++ runtime present at start, and the
        # interpreter is a C program that would load it later with the module.
        export LD_PRELOAD="$("$cxx" -print-file-name=libasan.so) $("$cxx" -print-file-name=libstdc++.so)"
        # The interpreter itself is not instrumented: its own allocations at exit are not ours.
        export ASAN_OPTIONS="detect_leaks=0:halt_on_error=1:abort_on_error=1"
        export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
        ;;
    tsan)
        # ThreadSanitizer cannot see the GIL of an uninstrumented CPython: every hand-over of a
        # Python object between a reader thread and the interpreter would be reported as a race.
        echo "SKIPPED: the Python module is not tested under ThreadSanitizer (CPython is not instrumented, so the GIL's ordering is invisible to it)"
        exit 77
        ;;
esac
export PYTHONPATH="$package_dir${PYTHONPATH:+:$PYTHONPATH}"
export SLOTCTL="$slotctl" SLOT_README="$readme" SLOT_BUILD_DIR="$(dirname "$package_dir")"
export PYTHONDONTWRITEBYTECODE=1
cd "$here"
exec "$python" -m pytest -q -p no:cacheprovider "$here"
