#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build into a scratch prefix, then builds and runs an outside project against it,
# once through find_package(Slot) and once through pkg-config.
#   check.sh BUILD_DIR SOURCE_DIR [TOOLCHAIN_FILE]
set -euo pipefail
build=$1
src=$2
toolchain=${3:-}
work=$(mktemp -d /tmp/slot-install-XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" > "$work/install.log"
for lib in libshared libFileUtils libIoUtils libSlot; do
    ls "$work"/prefix/lib*/"$lib".so.1 > /dev/null
done

args=(-S "$src/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix")
[[ -n "$toolchain" ]] && args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain")
cmake "${args[@]}" > "$work/configure.log"
cmake --build "$work/consumer" > "$work/build.log"
LD_LIBRARY_PATH="$(dirname "$(ls "$work"/prefix/lib*/libSlot.so.1)")" "$work/consumer/consumer"

pcdir=$(dirname "$(ls "$work"/prefix/lib*/pkgconfig/slot.pc)")
flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs slot)
[[ "$flags" == *"-lSlot"* ]] || { echo "slot.pc lacks -lSlot: $flags"; exit 1; }
echo "install check ok"
