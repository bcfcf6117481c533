#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Sets up, builds and runs the demo: blocks flowing through a discarding, a reliable and a
# posix-pipe slot between two processes. Options are passed on to `slotctl demo`
# (e.g. scripts/demo.sh --duration 5; see build/tools/slotctl/slotctl demo --help).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)" --target slotctl
exec build/tools/slotctl/slotctl demo "$@"
