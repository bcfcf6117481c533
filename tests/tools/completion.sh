#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# slotctl's bash completion offers slot names, quoted for the command line, and never runs what
# a name holds: any local user chooses names, an administrator presses TAB.
#   completion.sh SLOTCTL COMPLETION-SCRIPT
set -euo pipefail
slotctl=$1
script=$2
slotctl=$(realpath "$slotctl")
script=$(realpath "$script")
prefix="slotcomp_$$_"
# The completion runs in a folder of its own, where the planted command would leave its mark.
work=$(mktemp -d)
cd "$work"
names=("${prefix}a b" "${prefix}x\$(>ran)y" "${prefix}q'uote" "${prefix}tab$(printf '\t')b"
    "${prefix}$(printf 'long%.0s' {1..20})" "${prefix}NAME  KIND")
cleanup() {
    local name
    for name in "${names[@]}"; do
        "$slotctl" rm "$name" > /dev/null 2>&1 || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
# complete WORD: what TAB offers for `slotctl rm WORD`, one per line, sorted.
complete() {
    bash -c 'source "$1"; COMP_WORDS=("$2" rm "$3"); COMP_CWORD=2; _slotctl
        printf "%s\n" "${COMPREPLY[@]}"' _ "$script" "$slotctl" "$1" | sort
}
status=0
# expect WORD NAME...: TAB offers exactly NAME..., quoted for the command line.
expect() {
    local offered expected
    offered=$(complete "$1")
    shift
    expected=$(printf '%q\n' "$@" | sort)
    if [[ "$offered" != "$expected" ]]; then
        printf 'offered:\n%s\nexpected:\n%s\n' "$offered" "$expected"
        status=1
    fi
}
write() { echo block | "$slotctl" write "$1" --type discarding > /dev/null 2>&1; }

write "${names[1]}"
expect "$prefix" "${names[1]}"
if [[ -e ran ]]; then
    echo "completion ran a command held in a slot name"
    status=1
fi
for name in "${names[@]:0:1}" "${names[@]:2}"; do
    write "$name"
done
# The name with a tab is shown escaped by ls, so it is not offered; a name longer than the
# table's column and one that looks like its heading are offered whole.
expect "$prefix" "${names[@]:0:3}" "${names[@]:4}"
offered=$(complete "$prefix")
# Each offered word, read back by the shell, is the name itself.
while IFS= read -r word; do
    eval "set -- $word" 2> /dev/null || set -- ""
    [[ " ${names[*]} " == *" $1 "* ]] || { echo "offered '$word' is no name"; status=1; }
done <<< "$offered"
exit $status
