#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Sets up, builds and runs every test.
#   scripts/test.sh           native build in build/
#   scripts/test.sh --i386    32-bit build in build-i386/
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ "${1:-}" == "--i386" ]]; then
    scripts/setup.sh --i386
    dir=build-i386
    extra=(-DCMAKE_TOOLCHAIN_FILE=cmake/i386.cmake)
else
    scripts/setup.sh
    dir=build
    extra=()
fi
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${extra[@]}"
cmake --build "$dir" -j"$(nproc)"
ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" --timeout 300
