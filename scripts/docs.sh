#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs Doxygen when missing and builds the API documentation into build/docs/html (fails on
# any Doxygen warning).
set -euo pipefail
cd "$(dirname "$0")/.."
SLOT_SETUP_DOCS=1 scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build --target docs
echo "API documentation: build/docs/html/index.html"
