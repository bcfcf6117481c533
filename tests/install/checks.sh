# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Checks of an installation, sourced by the install and Debian package tests: its headers against
# the list of public headers (one path below the include folder a line), its outside project,
# slotctl and slot-gateway.

# check_header_set LIST < INSTALLED: the installed paths (one a line, below the include folder)
# are exactly those of LIST.
check_header_set() {
    local difference
    difference=$(diff <(sort "$1") <(sort)) && return 0
    echo "installed headers differ from the public list ('<' missing, '>' not public):"
    echo "$difference"
    return 1
}

# check_umbrellas LIST INCLUDE_DIR: <Slot/Slot.h> and <shared/shared.h> include every other
# public header of their library.
check_umbrellas() {
    local list=$1 include=$2 lib header missing=0
    for lib in Slot shared; do
        while read -r header; do
            [[ $header == "$lib/"* && $header != "$lib/$lib.h" ]] || continue
            grep -qxF "#include <$header>" "$include/$lib/$lib.h" \
                || { echo "<$lib/$lib.h> does not include <$header>"; missing=1; }
        done < "$list"
    done
    return $missing
}

# compile_each_header LIST WORK_DIR COMPILER ARGS...: each header of LIST, alone in a translation
# unit, compiles (syntax only) with the given compiler and flags; two at a time.
compile_each_header() {
    local list=$1 dir=$2
    shift 2
    mkdir -p "$dir"
    local header unit
    while read -r header; do
        unit="$dir/$(echo "$header" | tr '/.' '__').cpp"
        echo "#include <$header>" > "$unit"
        echo "$unit"
    done < "$list" > "$dir/units"
    # Prints the failing unit's header and the compiler's complaint; any failure fails the step.
    xargs -P 2 -I{} sh -c '"$@" -fsyntax-only {} 2> {}.log || { head -1 {}; cat {}.log; exit 1; }' \
        _ "$@" < "$dir/units"
}

# run_consumer SOURCE BUILD_DIR CMAKE_ARGS...: configures and builds the outside project, runs it.
run_consumer() {
    local src=$1 dir=$2
    shift 2
    cmake -S "$src" -B "$dir" "$@" > "$dir.configure.log" 2>&1 \
        || { cat "$dir.configure.log"; return 1; }
    cmake --build "$dir" -j2 > "$dir.build.log" 2>&1 || { cat "$dir.build.log"; return 1; }
    "$dir/consumer"
}

# slotctl_completes PREFIX EXPECTED WORD...: the bash completion installed under PREFIX offers
# exactly EXPECTED for the last word of `slotctl WORD...`.
slotctl_completes() {
    local script="$1/share/bash-completion/completions/slotctl" expected=$2 offered
    shift 2
    offered=$(bash -c 'source "$1"; shift; COMP_WORDS=(slotctl "$@"); COMP_CWORD=$#; _slotctl
        echo "${COMPREPLY[*]}"' _ "$script" "$@")
    [[ "$offered" == "$expected" ]] \
        || { echo "completion of 'slotctl $*' gave '$offered'"; return 1; }
}

# check_slotctl PREFIX: the slotctl of PREFIX tells its version and lists the slots; its manual
# page reads, and its completion completes an option and a command.
check_slotctl() {
    local version
    version=$("$1/bin/slotctl" --version)
    [[ "$version" =~ ^slotctl\ [0-9]+\.[0-9]+\.[0-9]+$ ]] \
        || { echo "slotctl --version: $version"; return 1; }
    "$1/bin/slotctl" ls > /dev/null
    gzip -dc "$1/share/man/man1/slotctl.1.gz" | grep -q '^\.TH SLOTCTL 1' \
        || { echo "no slotctl manual page in $1/share/man/man1"; return 1; }
    slotctl_completes "$1" --force rm --f
    slotctl_completes "$1" peek pe
}

# check_gateway PREFIX: the slot-gateway of PREFIX accepts its example configuration, and its
# systemd unit runs that executable.
check_gateway() {
    "$1/bin/slot-gateway" --check "$1/share/slot-gateway/example.json"
    local unit="$1/lib/systemd/system/slot-gateway.service" key
    for key in ExecStartPre ExecStart; do
        grep -q "^$key=$1/bin/slot-gateway " "$unit" \
            || { echo "$unit: $key does not run $1/bin/slot-gateway"; cat "$unit"; return 1; }
    done
}
