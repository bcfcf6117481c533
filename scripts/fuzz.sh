#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer targets (clang-14, ASan+UBSan) in build-fuzz/ and runs each one for a
# while on its committed corpus. Fails when a target crashes, leaks, times out or breaks one of
# its properties; the input that did it is kept in build-fuzz/artifacts/.
#   scripts/fuzz.sh                 every target, FUZZ_SECONDS (default 45) seconds each
#   scripts/fuzz.sh -t 300 TARGET   one target, for 300 seconds
# New inputs found during the run go to build-fuzz/corpus/<target>/, not into fuzz/corpus/;
# copy the worthwhile ones there by hand (or minimise first: TARGET -merge=1 fuzz/corpus/T DIR).
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${FUZZ_SECONDS:-45}
targets=()
while [[ $# -gt 0 ]]; do
    case "$1" in
        -t) seconds=$2; shift 2 ;;
        -h|--help) sed -n '3,10p' "$0"; exit 0 ;;
        -*) echo "usage: $0 [-t SECONDS] [TARGET...]" >&2; exit 2 ;;
        *) targets+=("$1"); shift ;;
    esac
done

scripts/setup.sh --fuzz
launcher=()
if command -v ccache > /dev/null; then
    # Objects of this folder only (see scripts/test.sh).
    export CCACHE_BASEDIR="" CCACHE_HASHDIR=1
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
dir=build-fuzz
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++-14 \
    -DSLOT_BUILD_FUZZERS=ON -DSLOT_BUILD_TESTS=OFF -DSLOT_BUILD_TOOLS=OFF \
    -DSLOT_BUILD_EXAMPLES=OFF "${launcher[@]}" > /dev/null
if [[ ${#targets[@]} -eq 0 ]]; then
    mapfile -t targets < "$dir/fuzz/fuzz-targets.txt"
fi
cmake --build "$dir" -j"$(nproc)" --target "${targets[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:symbolize=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
mkdir -p "$dir/artifacts"
# The targets make their private folders under TMPDIR; one that crashes cannot remove its own.
export TMPDIR=$PWD/$dir/tmp
rm -rf "$TMPDIR"
mkdir -p "$TMPDIR"
failed=()
for target in "${targets[@]}"; do
    corpus=fuzz/corpus/$target
    work=$dir/corpus/$target
    mkdir -p "$work" "$corpus"
    echo "=== fuzz $target: ${seconds}s on $corpus ==="
    start=$SECONDS
    dict=()
    [[ -f fuzz/$target.dict ]] && dict=(-dict="fuzz/$target.dict")
    # One worker; -timeout catches an input that hangs, -rss_limit_mb one that eats memory.
    if "$dir/fuzz/$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$dir/artifacts/$target-" "${dict[@]}" \
        "$work" "$corpus" > "$dir/artifacts/$target.log" 2>&1; then
        echo "    ok after $((SECONDS - start))s: $(grep -E '^stat::number_of_executed_units' \
            "$dir/artifacts/$target.log" | awk '{print $2}') runs"
    else
        echo "!!! $target FAILED (log: $dir/artifacts/$target.log):"
        # The broken property or the sanitizer's report, and the input that did it.
        grep -E -A14 'PROPERTY BROKEN|ERROR: (AddressSanitizer|LeakSanitizer)|runtime error|ERROR: libFuzzer: (timeout|out-of-memory)' \
            "$dir/artifacts/$target.log" | grep -v -E '^    #[0-9]+ .* in (fuzzer::|__sanitizer|abort|raise|__pthread_kill|_start|__libc_start|main )' \
            | head -40 || true
        grep -E '^Base64:|Test unit written' "$dir/artifacts/$target.log" || tail -20 "$dir/artifacts/$target.log"
        failed+=("$target")
    fi
    # What a crashed run left: the shared memory of the slot it worked on (a name with '/' cannot
    # have made any), the objects carrying the targets' tag, its private folder.
    for note in "$TMPDIR"/slotfuzz.*/slot-in-use; do
        [[ -f $note ]] || continue
        name=$(head -z -n1 "$note" | tr -d '\0'; echo x)  # up to a NUL, as shm_open reads it
        name=${name%x}
        if [[ -n $name && $name != *"/"* && $name != "." && $name != ".." ]]; then
            rm -f "/dev/shm/$name" "/dev/shm/queue_$name"
        fi
    done
    rm -f /dev/shm/*slotfuzz_[0-9]*
    rm -rf "${TMPDIR:?}"/*
done
rmdir "$TMPDIR"
if [[ ${#failed[@]} -gt 0 ]]; then
    echo "fuzzing FAILED: ${failed[*]}"
    exit 1
fi
echo "fuzzing: every target ran ${seconds}s without a finding"
