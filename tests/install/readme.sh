#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the README's section "A writer and a reader" as a new user would: every code
# block marked <!-- readme-test: FILE --> is written to FILE, every block marked
# <!-- readme-test: run --> is run, in order, in a scratch directory whose "build" is this build
# tree, with a scratch $HOME and LD_LIBRARY_PATH unset. The one change: the slot name "orders"
# becomes a name unique to this run.
#   readme.sh BUILD_DIR README
set -euo pipefail
build=$(cd "$1" && pwd)
readme=$2
unset LD_LIBRARY_PATH
work=$(mktemp -d /tmp/slot-readme-XXXXXX)
name="slottest_readme_$$"
cleanup() {
    rm -f "/dev/shm/$name" "/dev/shm/queue_$name"
    rm -rf "$work"
}
trap cleanup EXIT
export HOME="$work/home" SLOT_LOCK_DIR="$work/lock" SLOT_PIPE_DIR="$work/pipes"
mkdir -p "$HOME" "$work/user"
ln -s "$build" "$work/user/build"

# Extract the section's marked blocks: files as they stand, commands into one script.
section=$(awk '/^## A writer and a reader/ {on = 1; next} on && /^## / {exit} on' "$readme")
[[ -n "$section" ]] || { echo "README has no section 'A writer and a reader'"; exit 1; }
script="$work/commands.sh"
echo "set -euo pipefail" > "$script"
files=0
target=""
inblock=0
while IFS= read -r line; do
    if [[ $inblock -eq 0 && "$line" =~ ^\<\!--\ readme-test:\ (.+)\ --\>$ ]]; then
        target=${BASH_REMATCH[1]}
    elif [[ $inblock -eq 0 && -n "$target" && "$line" == '```'* ]]; then
        inblock=1
        if [[ "$target" != run ]]; then
            mkdir -p "$work/user/$(dirname "$target")"
            : > "$work/user/$target"
            files=$((files + 1))
        fi
    elif [[ $inblock -eq 1 && "$line" == '```' ]]; then
        inblock=0
        target=""
    elif [[ $inblock -eq 1 && "$target" == run ]]; then
        printf '%s\n' "${line//orders/$name}" >> "$script"
    elif [[ $inblock -eq 1 ]]; then
        printf '%s\n' "$line" >> "$work/user/$target"
    fi
done <<< "$section"
[[ $files -ge 3 ]] || { echo "README section lost its files ($files found)"; exit 1; }

cd "$work/user"
echo "--- running:"; cat "$script"; echo "---"
timeout 280 bash "$script" > "$work/out" 2>&1 || { cat "$work/out"; echo "README commands failed"; exit 1; }
cat "$work/out"
# What the reader printed, and that nothing of the slot is left.
for i in 1 2 3; do
    grep -qx "$name: block $i" "$work/out" || { echo "reader did not print block $i"; exit 1; }
done
if grep -q "No appender" "$work/out"; then echo "log4cxx not configured"; exit 1; fi
[[ ! -e "/dev/shm/$name" && ! -e "/dev/shm/queue_$name" ]] \
    || { echo "the slot was not removed"; exit 1; }
echo "README walkthrough ok"
