#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The examples as a user runs them: example_writer into a reliable slot that nobody reads
# reports the blocks the full queue refused and fails; example_reader then gets the blocks that
# were kept, in order. No program prints log4cxx's "No appender could be found".
#   check.sh EXAMPLES_DIR
set -euo pipefail
bin=$1
name="slottest_examples_$$"
work=$(mktemp -d /tmp/slot-examples-XXXXXX)
export SLOT_LOCK_DIR="$work/lock" SLOT_PIPE_DIR="$work/pipes"
cleanup() {
    rm -f "/dev/shm/$name" "/dev/shm/queue_$name"
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; exit 1; }

# The examples' queue holds 16 blocks: 4 of 20 are refused.
status=0
timeout 60 "$bin/example_writer" "$name" 20 > "$work/writer.out" 2> "$work/writer.err" || status=$?
cat "$work/writer.out" "$work/writer.err"
[[ $status -eq 1 ]] || fail "example_writer exited with $status, expected 1"
grep -qx "example_writer: 4 of 20 blocks refused" "$work/writer.err" \
    || fail "example_writer did not report the refused blocks"
[[ $(grep -c "Queue in '$name' is full, the data was not written" "$work/writer.out") -eq 4 ]] \
    || fail "example_writer did not log each refusal"

timeout 60 "$bin/example_reader" "$name" 16 > "$work/reader.out" 2> "$work/reader.err" \
    || fail "example_reader failed: $(cat "$work/reader.err")"
expected=$(for i in $(seq 0 15); do echo "$name: block $i"; done)
[[ "$(cat "$work/reader.out")" == "$expected" ]] \
    || fail "example_reader printed: $(cat "$work/reader.out")"

# Room again: all blocks stored, exit 0.
timeout 60 "$bin/example_writer" "$name" 2 > "$work/writer2.out" 2>&1 \
    || fail "example_writer into an empty queue failed: $(cat "$work/writer2.out")"

if grep -h "No appender" "$work"/*.out "$work"/*.err; then
    fail "log4cxx is not configured"
fi
echo "examples ok"
