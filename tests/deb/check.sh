#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the Debian packages of this build, installs them on this machine with dpkg, builds and
# runs an outside project against them (find_package and pkg-config, from /usr), the installed
# slotctl and, when the gateway is built, slot-gateway; then removes the packages again
# (dpkg --purge), also when a step fails.
# Needs root and dpkg; otherwise it says so and reports the test as skipped (exit 77). It also
# skips when one of the packages is already installed, so that it never replaces or removes
# what it did not install.
#   check.sh BUILD_DIR CONSUMER_SOURCE_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
consumer=$2
packages=(slotctl libslot-dev libslot1)
# The gateway's package is made when the gateway is built (a component of the CPack config).
gateway=0
if grep -Eq '^set\(CPACK_COMPONENTS_ALL "([^"]*;)?gateway[;"]' "$build/CPackConfig.cmake"; then
    gateway=1
    packages=(slot-gateway "${packages[@]}")
fi
skip() { echo "!!! SKIPPED: $*"; exit 77; }

[[ $(id -u) -eq 0 ]] || skip "the Debian package test installs packages and needs root"
command -v dpkg > /dev/null || skip "dpkg is missing"
command -v dpkg-shlibdeps > /dev/null || skip "dpkg-shlibdeps (package dpkg-dev) is missing"
unset LD_LIBRARY_PATH

# One run at a time on this machine: the packages are machine-wide. The lock is taken on dpkg's
# root-owned database folder (dpkg itself locks files inside it with fcntl, not this flock), so
# nothing is created, followed or truncated in a folder that others can write to.
exec 9< /var/lib/dpkg
flock -w 600 9 || skip "another run of this test holds the flock of /var/lib/dpkg"
for p in "${packages[@]}"; do
    if dpkg-query -W -f='${Status}' "$p" 2> /dev/null | grep -q "ok installed"; then
        skip "package $p is already installed; not touching it"
    fi
done

work=$(mktemp -d /tmp/slot-deb-XXXXXX)
installed=0
cleanup() {
    local status=$?
    if [[ $installed -eq 1 ]]; then
        # --purge, not only -r: the library package's ldconfig scripts would keep its record.
        dpkg --purge "${packages[@]}" > "$work/remove.log" 2>&1 || cat "$work/remove.log"
        for p in "${packages[@]}"; do
            if dpkg-query -W "$p" > /dev/null 2>&1; then
                echo "FAIL: package $p is still known to dpkg"
                status=1
            fi
        done
    fi
    rm -rf "$work"
    exit $status
}
trap cleanup EXIT
step() { echo "--- $*"; }

step "cpack"
(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/packages") \
    > "$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; exit 1; }
debs=()
names=(libslot1 libslot-dev slotctl)
[[ $gateway -eq 0 ]] || names+=(slot-gateway)
for p in "${names[@]}"; do
    deb=$(ls "$work"/packages/"${p}"_*.deb)
    debs+=("$deb")
    dpkg-deb --info "$deb" | sed -n 's/^ \(Package\|Version\|Depends\):/  &/p'
done
# What goes where: the libraries, the development files, the tool and the gateway, under /usr.
contains() {  # contains DEB PATTERN
    dpkg-deb --contents "$1" > "$work/contents"
    grep -Eq "$2" "$work/contents" || { echo "$(basename "$1") lacks $2"; exit 1; }
}
contains "${debs[0]}" '\./usr/lib/libSlot\.so\.1( |$)'
# The library package holds the libraries only: no program, unit or data that would keep a
# later libslot2 from standing beside it or make it depend on what a program needs.
dpkg-deb --contents "${debs[0]}" | awk '$1 ~ /^l/ {print $(NF-2)} $1 ~ /^-/ {print $NF}' \
    > "$work/contents"
if grep -Ev '^\./usr/lib/lib[A-Za-z]+\.so\.[0-9.]+$|^\./usr/share/doc/' "$work/contents"; then
    echo "libslot1 carries more than the libraries (above)"
    exit 1
fi
contains "${debs[1]}" '\./usr/lib/pkgconfig/slot\.pc$'
contains "${debs[1]}" '\./usr/lib/cmake/Slot/SlotConfig\.cmake$'
# libslot-dev carries exactly the public headers.
headers="$build/public-headers.txt"
# shellcheck source=tests/install/checks.sh
source "$consumer/../checks.sh"
check_header_set "$headers" < <(dpkg-deb --contents "${debs[1]}" \
    | awk '$1 !~ /^d/ {print $NF}' | sed -n 's|^\./usr/include/||p')
contains "${debs[2]}" '\./usr/bin/slotctl$'
contains "${debs[2]}" '\./usr/share/man/man1/slotctl\.1\.gz$'
contains "${debs[2]}" '\./usr/share/bash-completion/completions/slotctl$'
if [[ $gateway -eq 1 ]]; then
    contains "${debs[3]}" '\./usr/bin/slot-gateway$'
    contains "${debs[3]}" '\./usr/lib/systemd/system/slot-gateway\.service$'
    contains "${debs[3]}" '\./usr/share/slot-gateway/example\.json$'
    dpkg-deb --field "${debs[3]}" Depends | grep -q 'libslot1 (= ' \
        || { echo "slot-gateway does not depend on its libslot1"; exit 1; }
fi

step "dpkg -i"
installed=1
dpkg -i "${debs[@]}" > "$work/install.log" 2>&1 || { cat "$work/install.log"; exit 1; }

step "find_package(Slot) from /usr, each public header alone"
run_consumer "$consumer" "$work/consumer" -DSLOT_PUBLIC_HEADER_LIST="$headers"
grep -q "Slot_DIR.*/usr/lib/cmake/Slot" "$work/consumer/CMakeCache.txt" \
    || { grep Slot_DIR "$work/consumer/CMakeCache.txt"; echo "Slot was not found in /usr"; exit 1; }

step "pkg-config from /usr"
flags=$(pkg-config --cflags --libs slot)
# shellcheck disable=SC2086  # the flags are words
g++ -std=c++17 "$consumer/main.cpp" $flags -o "$work/pc-consumer"
"$work/pc-consumer"

step "slotctl, its manual page and completion"
check_slotctl /usr
if [[ $gateway -eq 1 ]]; then
    step "slot-gateway, its unit starting the program where the package put it"
    check_gateway /usr
fi
echo "Debian packages ok"
