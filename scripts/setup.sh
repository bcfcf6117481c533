#!/usr/bin/env bash
# Installs the Debian packages the build needs, when they are missing.
#   scripts/setup.sh          native (x86_64) build dependencies
#   scripts/setup.sh --i386   also the 32-bit (-m32) toolchain and :i386 libraries
set -euo pipefail

native=(cmake g++ make pkg-config libboost-dev libboost-thread-dev libboost-date-time-dev
        libboost-system-dev liblog4cxx-dev libgtest-dev libgmock-dev googletest)
i386=(g++-multilib libboost-thread-dev:i386 libboost-date-time-dev:i386 libboost-system-dev:i386
      liblog4cxx-dev:i386 libgtest-dev:i386 libgmock-dev:i386)

want=("${native[@]}")
if [[ "${1:-}" == "--i386" ]]; then
    want+=("${i386[@]}")
fi

missing=()
for pkg in "${want[@]}"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=""
[[ $(id -u) -ne 0 ]] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
if [[ "${1:-}" == "--i386" ]] && ! dpkg --print-foreign-architectures | grep -qx i386; then
    $sudo dpkg --add-architecture i386
fi
# A mirror in the middle of a sync can fail one index; retry, then install from what we have.
for attempt in 1 2 3 4 5; do
    if $sudo apt-get update -q; then break; fi
    echo "apt-get update failed (attempt $attempt), retrying" >&2
    sleep $((attempt * 10))
done
for attempt in 1 2 3; do
    if $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"; then exit 0; fi
    echo "apt-get install failed (attempt $attempt), retrying" >&2
    sleep $((attempt * 20))
    $sudo apt-get update -q || true
done
exit 1
