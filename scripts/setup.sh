#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages the build needs, when they are missing. No prompts; a second run
# with everything in place returns at once.
#   scripts/setup.sh          native (x86_64) build dependencies
#   scripts/setup.sh --i386   also the 32-bit (-m32) build: g++-multilib, and the :i386 Boost,
#                             log4cxx and GoogleTest libraries unpacked into a private tree that
#                             cmake/i386.cmake uses (scripts/i386-sysroot.sh says why they are not
#                             installed as :i386 packages)
#   scripts/setup.sh --fuzz   also clang-14 with its sanitizer and libFuzzer runtimes, and
#                             llvm-symbolizer for readable sanitizer stacks (scripts/fuzz.sh)
# Exits non-zero with one "... setup failed: ..." line when the environment cannot be made.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)

i386=0
fuzz=0
case "${1:-}" in
    "") ;;
    --i386) i386=1 ;;
    --fuzz) fuzz=1 ;;
    *) echo "usage: $0 [--i386|--fuzz]" >&2; exit 2 ;;
esac

native=(cmake g++ make pkg-config libboost-dev libboost-thread-dev libboost-date-time-dev
        libboost-system-dev liblog4cxx-dev libgtest-dev libgmock-dev googletest
        nlohmann-json3-dev                                   # JSON of slot reports
        libzstd-dev                                          # slotctl record --compression zstd
        libncurses-dev tmux)                                 # slotctl top, and its test
want=("${native[@]}")
# The DDS gateway (Eclipse Cyclone DDS), the Python binding (pybind11, Debian's Python 3, pytest)
# and the gateway's two-host test (iproute2 for network namespaces, ZeroMQ for its comparison).
want+=(cyclonedds-dev cyclonedds-tools pybind11-dev python3-dev python3-pytest iproute2
       libzmq3-dev)
want+=(dpkg-dev file)                                       # Debian packages (CPack, tests/deb)
# The independent MCAP reader of the recording test (tests/tools/mcap): Node.js and npm, from
# Debian unless some node is already installed.
command -v npm > /dev/null || want+=(nodejs npm)
[[ "${SLOT_SETUP_DOCS:-0}" == 1 ]] && want+=(doxygen)       # API documentation (scripts/docs.sh)
[[ $i386 -eq 1 ]] && want+=(g++-multilib)
[[ $fuzz -eq 1 ]] && want+=(clang-14 libclang-rt-14-dev llvm-14)

sudo=""
[[ $(id -u) -ne 0 ]] && sudo="sudo"

installed() {
    dpkg-query -W -f='${Status}' "$1" 2> /dev/null | grep -q "install ok installed"
}
missing=()
for pkg in "${want[@]}"; do
    installed "$pkg" || missing+=("$pkg")
done

if [[ ${#missing[@]} -gt 0 ]]; then
    export DEBIAN_FRONTEND=noninteractive
    apt_opts=(-q -o DPkg::Lock::Timeout=600 -o Dpkg::Options::=--force-confdef
              -o Dpkg::Options::=--force-confold)
    # A mirror in the middle of a sync can fail one index: retry a little, then install from
    # what we have (the install failing is what counts).
    for attempt in 1 2 3; do
        if $sudo apt-get "${apt_opts[@]}" update --error-on=any < /dev/null; then break; fi
        echo "apt-get update failed (attempt $attempt of 3)" >&2
        if [[ $attempt -lt 3 ]]; then sleep $((attempt * 10)); fi
    done
    ok=0
    for attempt in 1 2 3; do
        if $sudo apt-get "${apt_opts[@]}" install -y --no-install-recommends "${missing[@]}" \
                < /dev/null; then
            ok=1
            break
        fi
        echo "apt-get install failed (attempt $attempt of 3)" >&2
        [[ $attempt -lt 3 ]] || break
        sleep $((attempt * 20))
        $sudo apt-get "${apt_opts[@]}" update < /dev/null || true
    done
    if [[ $ok -eq 0 ]]; then
        native_ok=1
        for pkg in "${native[@]}"; do installed "$pkg" || native_ok=0; done
        if [[ $i386 -eq 1 && $native_ok -eq 1 ]]; then
            echo "i386 setup failed: cannot install g++-multilib" >&2
        elif [[ $fuzz -eq 1 && $native_ok -eq 1 ]]; then
            echo "fuzz setup failed: cannot install ${missing[*]}" >&2
        else
            echo "setup failed: cannot install ${missing[*]}" >&2
        fi
        exit 1
    fi
fi

# The pinned npm packages of the recording test (a failure only skips that test).
mcap_check=$here/../tests/tools/mcap
# Installed again when the lockfile is newer than what npm installed from it (a package added).
if command -v npm > /dev/null && [[ ! -f $mcap_check/node_modules/.package-lock.json ||
    $mcap_check/package-lock.json -nt $mcap_check/node_modules/.package-lock.json ]]; then
    (cd "$mcap_check" && npm ci --ignore-scripts --no-audit --no-fund) ||
        echo "setup: npm ci failed in tests/tools/mcap; the MCAP interoperation test is skipped" >&2
fi

[[ $i386 -eq 1 ]] || exit 0
# It raises itself with sudo -E when it needs to, which keeps SLOT_I386_SYSROOT and
# SLOT_I386_CACHE; a plain sudo here would drop them.
exec "$here/i386-sysroot.sh"
