#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Optional parts are detected again at every configure: a part whose package was missing at
# the first configure is built after the package is there and cmake runs again; OFF keeps it
# out, ON fails when it is missing; a BOOL cached by an older configure becomes AUTO. A missing
# package is simulated with CMAKE_DISABLE_FIND_PACKAGE_<Pkg>. Configure only, nothing is built.
#   optional_parts.sh SOURCE_DIR
set -euo pipefail
src=$1
work=$(mktemp -d /tmp/slot-optional-parts.XXXXXX)
trap 'rm -rf "$work"' EXIT
build=$work/build
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

configure() {  # configure ARGS... > summary lines in $work/out; returns cmake's status
    cmake -S "$src" -B "$build" -DSLOT_BUILD_TESTS=OFF -DSLOT_BUILD_TOOLS=OFF \
        -DSLOT_BUILD_EXAMPLES=OFF "$@" > "$work/out" 2>&1
}
summary() {  # summary PART: the summary line of a part
    grep -E "^--   $1 \[" "$work/out" || true
}
cached() {  # cached VAR: its line in the cache
    grep -E "^$1:" "$build/CMakeCache.txt" || true
}
expect_line() {  # expect_line PART TEXT
    local line
    line=$(summary "$1")
    [[ "$line" == *"$2"* ]] || fail "$1: expected '$2' in the summary, got '$line'"
}

missing=(-DCMAKE_DISABLE_FIND_PACKAGE_CycloneDDS=ON -DCMAKE_DISABLE_FIND_PACKAGE_pybind11=ON
         -DCMAKE_DISABLE_FIND_PACKAGE_Doxygen=ON)
present=(-DCMAKE_DISABLE_FIND_PACKAGE_CycloneDDS=OFF -DCMAKE_DISABLE_FIND_PACKAGE_pybind11=OFF
         -DCMAKE_DISABLE_FIND_PACKAGE_Doxygen=OFF)

# 1. Packages "missing": left out, said so with the Debian package, the choice stays AUTO.
configure "${missing[@]}" || { cat "$work/out"; fail "configure with missing packages"; }
expect_line gateway "missing: Cyclone DDS not found (apt-get install cyclonedds-dev cyclonedds-tools)"
expect_line python "missing: pybind11 not found (apt-get install pybind11-dev)"
expect_line docs "missing: doxygen not found (apt-get install doxygen)"
expect_line fuzzers "left out (SLOT_BUILD_FUZZERS=OFF)"
for var in SLOT_BUILD_GATEWAY SLOT_BUILD_PYTHON SLOT_BUILD_DOCS; do
    [[ "$(cached $var)" == "$var:STRING=AUTO" ]] || fail "cache: $(cached $var)"
done

# 2. The packages "installed" (those that really are on this machine): the same build tree
#    builds them now.
configure "${present[@]}" || { cat "$work/out"; fail "configure with packages back"; }
installed() { dpkg-query -W -f '${Status}' "$1" 2> /dev/null | grep -q "ok installed"; }
if installed cyclonedds-dev && installed nlohmann-json3-dev; then
    expect_line gateway ": built"
fi
if installed pybind11-dev && installed python3-dev; then
    expect_line python ": built"
fi
if command -v doxygen > /dev/null; then
    expect_line docs ": built"
fi

# 3. OFF is the user's choice and looks for nothing; ON fails when the part cannot be built.
configure -DSLOT_BUILD_GATEWAY=OFF || fail "configure with the gateway OFF"
expect_line gateway "left out (SLOT_BUILD_GATEWAY=OFF)"
if configure -DSLOT_BUILD_GATEWAY=ON -DCMAKE_DISABLE_FIND_PACKAGE_CycloneDDS=ON; then
    fail "SLOT_BUILD_GATEWAY=ON configured without Cyclone DDS"
fi
grep -q "SLOT_BUILD_GATEWAY=ON, but Cyclone DDS not found" "$work/out" ||
    fail "no reason given for the failed ON: $(cat "$work/out")"
configure -DSLOT_BUILD_GATEWAY=maybe && fail "SLOT_BUILD_GATEWAY=maybe accepted"
grep -q "SLOT_BUILD_GATEWAY must be AUTO, ON or OFF" "$work/out" || fail "bad value not named"

# 4. A build tree from before: the option cached as BOOL OFF (the package was missing then).
rm -rf "$build"
configure -DSLOT_BUILD_GATEWAY=AUTO "${present[@]}" || fail "configure"
# The entry and its help lines go; the entry an older configure wrote takes their place.
awk '/^\/\// { help = help $0 "\n"; next }
     /^SLOT_BUILD_GATEWAY:/ { help = ""; next }
     { printf "%s", help; help = ""; print }' "$build/CMakeCache.txt" > "$work/cache"
printf '%s\n' "//Build slot-gateway (needs cyclonedds-dev, cyclonedds-tools, nlohmann-json3-dev)" \
    "SLOT_BUILD_GATEWAY:BOOL=OFF" >> "$work/cache"
mv "$work/cache" "$build/CMakeCache.txt"
configure "${present[@]}" || fail "configure an older cache"
[[ "$(cached SLOT_BUILD_GATEWAY)" == "SLOT_BUILD_GATEWAY:STRING=AUTO" ]] ||
    fail "older cache: $(cached SLOT_BUILD_GATEWAY)"
grep -q "SLOT_BUILD_GATEWAY: the OFF cached by an older configure is now AUTO" "$work/out" ||
    fail "the change of an older cache is not reported"

if ((failures != 0)); then
    echo "--- last configure output:"; cat "$work/out"
    exit 1
fi
echo "optional parts: detected at every configure, OFF and ON respected"
