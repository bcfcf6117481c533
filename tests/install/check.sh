#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build into a scratch prefix outside the loader's search path and checks that the
# installed headers are exactly the public ones (<build>/public-headers.txt) and that each
# compiles on its own. With LD_LIBRARY_PATH unset it builds and runs: an outside project through
# find_package(Slot), the same through the build tree (-DSlot_DIR=<build>), a program built with
# pkg-config's flags, the installed slotctl and slot-gateway (with its systemd unit); then
# moves the installed tree and runs the pkg-config program and slotctl again from the new place.
#   check.sh BUILD_DIR SOURCE_DIR [TOOLCHAIN_FILE]
set -euo pipefail
build=$(cd "$1" && pwd)
src=$2
toolchain=${3:-}
unset LD_LIBRARY_PATH
work=$(mktemp -d /tmp/slot-install-XXXXXX)
trap 'rm -rf "$work"' EXIT
step() { echo "--- $*"; }

pc_build=1
if [[ -n "$toolchain" ]]; then
    # 32-bit: Boost and log4cxx may come from a private tree that is not in the loader's path;
    # that tree (not ours) is given to the loader. pkg-config answers for the native log4cxx
    # here, so the pkg-config program is not built; its flags are still checked.
    pc_build=0
    sysroot=${SLOT_I386_SYSROOT:-/opt/slot-i386-sysroot}
    if [[ -e "$sysroot/.slot-i386-ready" ]]; then
        export LD_LIBRARY_PATH="$sysroot/usr/lib/i386-linux-gnu:$sysroot/lib/i386-linux-gnu"
    fi
fi

prefix="$work/some/prefix"
cmake --install "$build" --prefix "$prefix" > "$work/install.log"
libdir=$(dirname "$(ls "$prefix"/lib*/libSlot.so.1)")
for lib in libshared libFileUtils libIoUtils libSlot; do
    ls "$libdir/$lib.so.1" > /dev/null
done

step "public headers"
headers="$build/public-headers.txt"
# shellcheck source=tests/install/checks.sh
source "$src/checks.sh"
check_header_set "$headers" < <(cd "$prefix/include" && find . -type f -o -type l | sed 's|^\./||')
check_umbrellas "$headers" "$prefix/include"

consumer() {  # consumer LABEL BUILD_DIR CMAKE_ARGS...
    step "$1"
    run_consumer "$src/consumer" "${@:2}" ${toolchain:+"-DCMAKE_TOOLCHAIN_FILE=$toolchain"}
}
# The project asks for C++14: the exported targets carry cxx_std_17 and lift it to C++17, which
# the headers need.
for target in shared FileUtils IoUtils Slot; do
    grep -A8 "^set_target_properties(Slot::$target " "$libdir/cmake/Slot/SlotTargets.cmake" \
        | grep -q 'INTERFACE_COMPILE_FEATURES "cxx_std_17"' \
        || { echo "Slot::$target does not ask its users for C++17"; exit 1; }
done
consumer "find_package(Slot) from the installed prefix, C++14 asked for, each public header alone" \
    "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" -DSLOT_PUBLIC_HEADER_LIST="$headers" \
    -DCMAKE_CXX_STANDARD=14
consumer "find_package(Slot) from the build tree" "$work/consumer-build-tree" -DSlot_DIR="$build"

step "pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
flags=$(pkg-config --cflags --libs slot)
[[ "$flags" == *"-lSlot"* ]] || { echo "slot.pc lacks -lSlot: $flags"; exit 1; }
[[ "$flags" == *"-I$prefix/"* || "$flags" == *"-I$libdir/pkgconfig/"* ]] \
    || { echo "slot.pc does not point into the prefix: $flags"; exit 1; }
pc_consumer() {  # pc_consumer OUTPUT
    if [[ $pc_build -eq 1 ]]; then
        # shellcheck disable=SC2086  # the flags are words
        g++ -std=c++17 "$src/consumer/main.cpp" $flags -o "$1"
        "$1"
    fi
}
pc_consumer "$work/pc-consumer"
if [[ $pc_build -eq 1 ]]; then
    step "pkg-config, each public header alone"
    # shellcheck disable=SC2046  # the flags are words
    compile_each_header "$headers" "$work/pc-headers" g++ -std=c++17 $(pkg-config --cflags slot)
fi

tools=0
if [[ -x "$prefix/bin/slotctl" ]]; then  # built unless SLOT_BUILD_TOOLS is off
    tools=1
    step "installed slotctl, its manual page and completion"
    check_slotctl "$prefix"
fi

if [[ -x "$prefix/bin/slot-gateway" ]]; then  # built when Cyclone DDS is found
    step "installed slot-gateway, its unit written for this prefix"
    check_gateway "$prefix"
fi

step "moved installation"
mv "$prefix" "$work/moved"
libdir=${libdir/$prefix/$work/moved}
export PKG_CONFIG_PATH="$libdir/pkgconfig"
flags=$(pkg-config --cflags --libs slot)
[[ "$flags" == *"-I$work/moved/"* ]] || { echo "slot.pc did not move along: $flags"; exit 1; }
pc_consumer "$work/pc-consumer-moved"
[[ $tools -eq 0 ]] || "$work/moved/bin/slotctl" --version > /dev/null
echo "install check ok"
