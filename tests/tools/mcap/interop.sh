#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# slotctl's recordings read by the published TypeScript MCAP library (@mcap/core, check.mjs):
# plain, zstd-chunked, split, of a pool and cut short by SIGKILL; and a file written by that library
# replayed by slotctl into a slot and read back. Exit 77 (skipped) without node or without the
# packages that scripts/setup.sh installs with npm ci.
# usage: interop.sh SLOTCTL
set -euo pipefail
slotctl=$1
here=$(cd "$(dirname "$0")" && pwd)
if ! command -v node > /dev/null || [[ ! -d $here/node_modules/@mcap/core ]]; then
    echo "SKIPPED: node or the npm packages of $here are missing (scripts/setup.sh runs npm ci)" >&2
    exit 77
fi
check() { node "$here/check.mjs" "$@"; }
prefix=slottest_mcapjs_$$_
work=$(mktemp -d)
slots=()
cleanup() {
    [[ -n ${recorder:-} ]] && kill -9 "$recorder" 2> /dev/null || true
    for slot in "${slots[@]}"; do "$slotctl" rm "$slot" > /dev/null 2>&1 || true; done
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM
cd "$work"

# A reliable slot with the blocks of file $2 waiting in it.
fill() {
    slots+=("$1")
    "$slotctl" write "$1" --type reliable --queue 64 --max-size 1024 --lines < "$2" 2> /dev/null
}
for i in $(seq 1 30); do printf 'block %02d %s\n' "$i" "$(head -c $((i * 3)) /dev/zero | tr '\0' x)"; done > blocks
n=$(wc -l < blocks)

# A slotctl built without libzstd (the i386 build) records plain files only: say so, check those.
# (The name with "/" is refused after the compression is checked: nothing is recorded.)
compressions=(none zstd)
probe=$("$slotctl" record -o probe.mcap --compression zstd "no/slot" 2>&1 || true)
if [[ $probe == *"zstd is not built in"* ]]; then
    echo "interop.sh: this slotctl has no zstd: zstd-chunked files are NOT checked" >&2
    compressions=(none)
fi

for compression in "${compressions[@]}"; do
    fill "${prefix}$compression" blocks
    "$slotctl" record -o "$compression.mcap" --compression $compression --count "$n" \
        "${prefix}$compression" 2> /dev/null
    check verify reliable blocks "$compression.mcap"
done

fill "${prefix}split" blocks
"$slotctl" record -o split.mcap --split-size 600 --count "$n" "${prefix}split" 2> /dev/null
files=(split-*.mcap)
[[ ${#files[@]} -ge 3 ]] || { echo "split into ${#files[@]} files only" >&2; exit 1; }
check verify reliable blocks "${files[@]}"

# A queue pool's channel: its blocks recorded from shared memory, its own metadata.
slots+=("${prefix}pool")
"$slotctl" write "${prefix}pool" --type queue --queue 64 --max-size 1024 --lines < blocks 2> /dev/null
"$slotctl" record -o pool.mcap --count "$n" "${prefix}pool" 2> /dev/null
check verify queue blocks pool.mcap

# Killed once every block is in the file (a zstd chunk closes within a second).
for compression in "${compressions[@]}"; do
    fill "${prefix}kill$compression" blocks
    "$slotctl" record -o "kill$compression.mcap" --compression $compression \
        "${prefix}kill$compression" 2> /dev/null &
    recorder=$!
    for _ in $(seq 1 300); do
        got=0
        [[ -f kill$compression.mcap ]] &&
            got=$("$slotctl" read "kill$compression.mcap" 2> /dev/null | wc -l || true)
        [[ $got -ge $n ]] && break
        sleep 0.1
    done
    kill -9 "$recorder"
    wait "$recorder" 2> /dev/null || true
    recorder=
    check verify reliable blocks --cut "kill$compression.mcap"
done

# The other way: written by @mcap/core, replayed into a new slot (kind and sizes as recorded).
slots+=("${prefix}replayed")
check write theirs.mcap topic one two "three 3"
"$slotctl" replay --max --map "topic=${prefix}replayed" theirs.mcap 2> /dev/null
got=$("$slotctl" read "${prefix}replayed" --count 3 --timeout 10000 2> /dev/null)
expected=$'3 bytes: one\n3 bytes: two\n7 bytes: three 3'
[[ $got == "$expected" ]] || { echo "read back: $got" >&2; exit 1; }
"$slotctl" info "${prefix}replayed" | grep -q "kind  *reliable (queue capacity 64)"
echo "interop.sh: @mcap/core reads slotctl's files and slotctl replays @mcap/core's"
