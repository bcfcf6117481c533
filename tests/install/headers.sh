# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Checks of an installed set of headers against the list of public headers (one path below the
# include folder a line), sourced by the install and Debian package tests.

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
