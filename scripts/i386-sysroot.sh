#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the private tree of 32-bit x86 libraries that cmake/i386.cmake uses: Debian's i386
# builds of Boost (thread, date_time, system, chrono and headers), log4cxx and GoogleTest/GoogleMock,
# plus the i386 runtime libraries they load (apr, apr-util, expat, ...), unpacked from the .debs
# into $SLOT_I386_SYSROOT (default /opt/slot-i386-sysroot). The compiler and the 32-bit libc,
# libstdc++ and libgcc come from g++-multilib (amd64 packages), which scripts/setup.sh installs.
#
# Why a private tree and not `apt-get install liblog4cxx-dev:i386`:
#  * bookworm's libapr1-dev and libaprutil1-dev (required by liblog4cxx-dev) are not
#    Multi-Arch: same, so their :i386 builds replace the native ones: apt removes the native
#    liblog4cxx-dev (and libpq-dev, libssl-dev, ... on a loaded machine). The native build would
#    break, on any mirror.
#  * every :i386 Multi-Arch: same library must have exactly the version of its installed amd64
#    twin; when the mirror serves the i386 security index late or broken ("File has unexpected
#    size"), apt cannot find such versions (linux-libc-dev, libaprutil1, libssl3, ...) and
#    refuses, unless amd64 packages are downgraded.
# The tree is resolved with apt itself (a private state: i386 only, nothing installed), and every
# .deb is fetched with `apt-get download`, so versions and hashes come from the signed indexes.
# The system's dpkg database, its architectures and its apt lists are not touched.
#
# Idempotent: returns at once when the tree of the same recipe is there. Exit status 1 with one
# "i386 setup failed: ..." line on stderr when the tree cannot be made (details in the log).
set -euo pipefail

root=${SLOT_I386_SYSROOT:-/opt/slot-i386-sysroot}
cache=${SLOT_I386_CACHE:-/var/cache/slot-i386}
# What the build needs (same -dev packages as the native build).
targets=(libboost-dev libboost-thread-dev libboost-date-time-dev libboost-system-dev
         liblog4cxx-dev libgtest-dev libgmock-dev)
# Source packages whose -dev files (headers, .so links, CMake package files, static gtest) go in.
dev_sources=" boost1.74 boost-defaults log4cxx googletest "
# The C and C++ runtimes come from g++-multilib (libc6-i386, lib32stdc++6, lib32gcc-s1: /usr/lib32,
# ld-linux.so.2) and must match its loader and compiler exactly: never taken from i386 packages
# (source packages glibc and gcc-N).
recipe="slot-i386-sysroot 1: ${targets[*]}"
stamp=$root/.slot-i386-ready

ready() {  # the tree of this recipe is complete
    [[ -f $stamp && "$(head -n1 "$stamp")" == "$recipe" ]] &&
        compgen -G "$root/usr/lib/i386-linux-gnu/cmake/Boost-*/BoostConfig.cmake" > /dev/null &&
        [[ -f $root/usr/lib/i386-linux-gnu/cmake/log4cxx/log4cxxConfig.cmake &&
           -f $root/usr/lib/i386-linux-gnu/cmake/GTest/GTestConfig.cmake ]]
}
ready && exit 0

[[ $(id -u) -eq 0 ]] || exec sudo -E "$0" "$@"
mkdir -p "$cache"
log=$cache/setup.log
fail() {
    echo "i386 setup failed: $* (details: $log)" >&2
    exit 1
}
say() { echo "i386-sysroot: $*" >&2; }

# One builder at a time; whoever waited finds the tree ready.
exec 9> "$cache/lock"
flock -w 900 9 || fail "another setup is still building $root"
ready && exit 0

mkdir -p "$cache/lists/partial" "$cache/archives/partial" "$cache/debs"
touch "$cache/status"
# apt downloads as the unprivileged _apt user where it can.
if id _apt > /dev/null 2>&1; then
    chown _apt:root "$cache/lists/partial" "$cache/archives/partial" "$cache/debs"
fi
: > "$log"

apt_i386=(apt-get -q -o "Dir::State::Lists=$cache/lists" -o "Dir::State::status=$cache/status"
          -o "Dir::Cache=$cache" -o "Dir::Cache::archives=$cache/archives"
          -o "Dir::Cache::pkgcache=" -o "Dir::Cache::srcpkgcache="
          -o APT::Architecture=i386 -o APT::Architectures=i386
          -o APT::Install-Recommends=false -o APT::Get::Show-Versions=false)
cache_i386=(apt-cache "${apt_i386[@]:2}")
run() {  # run CMD... with its output in the log
    "$@" >> "$log" 2>&1 < /dev/null
}

# 1. The i386 indexes. A mirror in the middle of a sync can fail one of them; retry a few times,
#    then go on with what arrived (apt keeps the previous copy of a failed index, if any).
updated=0
for attempt in 1 2 3; do
    if run "${apt_i386[@]}" update --error-on=any; then updated=1; break; fi
    if [[ $attempt -lt 3 ]]; then sleep $((attempt * 5)); fi
done
failed=$(grep -oE '^[EW]: Failed to fetch [^ ]+' "$log" | sed 's/.*fetch //' | sort -u | paste -sd' ') || true
if ! compgen -G "$cache/lists/*_binary-i386_Packages*" > /dev/null; then
    fail "no i386 package index could be downloaded (${failed:-see log})"
fi
if [[ $updated -eq 0 ]]; then
    say "warning: some i386 indexes could not be downloaded (${failed:-see log}); using the others"
fi

# 2. Resolve: which i386 packages, at which versions, go into the tree.
inst_of() {  # simulated installation on an empty i386 system -> "name=version" lines
    local out
    out=$("${apt_i386[@]}" -s install "$@" 2>&1) || { echo "$out" >> "$log"; return 1; }
    awk '$1 == "Inst" { v = $3; sub(/^\(/, "", v); print $2 "=" v }' <<< "$out"
}
fields_of() {  # name=version... -> "name version arch source" lines
    "${cache_i386[@]}" show "$@" 2>> "$log" | awk '
        /^Package:/ { p = $2 } /^Version:/ { v = $2 } /^Architecture:/ { a = $2 }
        /^Source:/ { s = $2 }
        /^$/ { if (p != "") print p, v, a, (s == "" ? p : s); p = v = a = s = "" }
        END { if (p != "") print p, v, a, (s == "" ? p : s) }'
}
mapfile -t all < <(inst_of "${targets[@]}") || true
[[ ${#all[@]} -gt 0 ]] || fail "apt cannot resolve the i386 packages ${targets[*]}"
dev=() runtime_roots=()
while read -r p v a s; do
    [[ $a == i386 && $dev_sources == *" $s "* ]] || continue
    dev+=("$p=$v")
    [[ $p == *-dev ]] || runtime_roots+=("$p=$v")
done < <(fields_of "${all[@]}")
[[ ${#runtime_roots[@]} -gt 0 ]] || fail "the i386 indexes lack the Boost/log4cxx libraries"
mapfile -t runtime < <(inst_of "${runtime_roots[@]}") || true
[[ ${#runtime[@]} -gt 0 ]] || fail "apt cannot resolve the runtime of ${runtime_roots[*]}"
take=()
while read -r p v a s; do
    if [[ $a == i386 && $s != glibc && ! $s =~ ^gcc-[0-9]+$ ]]; then take+=("$p=$v"); fi
done < <(fields_of "${runtime[@]}")
mapfile -t take < <(printf '%s\n' "${dev[@]}" "${take[@]}" | sort -u)
say "${#take[@]} i386 packages: ${take[*]}" 2>> "$log"

# 3. Fetch (hash-checked against the signed indexes); files already there are kept.
cd "$cache/debs"
fetched=0
for attempt in 1 2 3; do
    if run "${apt_i386[@]}" download "${take[@]}"; then fetched=1; break; fi
    if [[ $attempt -lt 3 ]]; then sleep $((attempt * 10)); fi
done
[[ $fetched -eq 1 ]] || fail "could not download the i386 packages"
wanted=" $(for pv in "${take[@]}"; do p=${pv%%=*} v=${pv#*=}; printf '%s ' "${p}_${v//:/%3a}_i386.deb"; done)"
for deb in *.deb; do  # drop what an earlier recipe or index fetched
    if [[ -e $deb && $wanted != *" $deb "* ]]; then rm -f "$deb"; fi
done

# 4. Unpack into a fresh tree, then swap it in.
new=$root.new.$$
trap 'rm -rf "$new"' EXIT
rm -rf "$new"
mkdir -p "$new"
for pv in "${take[@]}"; do
    p=${pv%%=*} v=${pv#*=}
    deb=$cache/debs/${p}_${v//:/%3a}_i386.deb
    [[ -f $deb ]] || fail "missing download for $pv"
    run dpkg-deb -x "$deb" "$new" || fail "cannot unpack $deb"
done
# Absolute symlinks (e.g. /usr/lib/i386-linux-gnu/libfoo.so -> /lib/...) point into the tree.
while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    ln -sfnr "$new$target" "$link"
done < <(find "$new" -type l -lname '/*' -print0)
rm -rf "$new/usr/share/doc" "$new/usr/share/man" "$new/usr/share/lintian"
rm -rf "$root"
mv "$new" "$root"
trap - EXIT

# 5. Prove it: a 32-bit program using all of them links and runs.
libdirs="$root/usr/lib/i386-linux-gnu:$root/lib/i386-linux-gnu"
smoke=$(mktemp -d /tmp/slot-i386-smoke-XXXXXX)
trap 'rm -rf "$smoke"' EXIT
cat > "$smoke/smoke.cpp" << 'EOF'
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cxx/logger.h>
int main(int argc, char** argv) {
    ::testing::InitGoogleMock(&argc, argv);
    auto logger = log4cxx::Logger::getLogger("smoke");
    boost::thread worker([] { boost::this_thread::sleep(boost::posix_time::milliseconds(1)); });
    worker.join();
    return (sizeof(void*) == 4 && logger) ? 0 : 1;
}
EOF
if ! g++ -m32 -std=c++17 -o "$smoke/smoke" "$smoke/smoke.cpp" -I"$root/usr/include" \
        -L"$root/usr/lib/i386-linux-gnu" -Wl,--disable-new-dtags -Wl,-rpath,"$libdirs" \
        -Wl,-rpath-link,"$libdirs" -lgmock -lgtest -lboost_thread -lboost_date_time -llog4cxx \
        -pthread >> "$log" 2>&1; then
    fail "a 32-bit test program does not build against $root (g++-multilib missing?)"
fi
"$smoke/smoke" >> "$log" 2>&1 || fail "a 32-bit test program built against $root does not run"

printf "%s\n" "$recipe" "${take[@]}" > "$stamp"
say "ready: $root (${#take[@]} packages)"
