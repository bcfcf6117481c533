// SPDX-License-Identifier: Apache-2.0
// What every fuzz target of this folder shares: quiet logging, a private folder for pipes and
// lock files, and the way a broken property is reported.
#pragma once

#include <string>

namespace fuzzsupport {

// Turns log4cxx off: a fuzzer runs the same error paths millions of times.
void QuietLogging();

// A folder of this process, "$TMPDIR/slotfuzz.XXXXXX" (TMPDIR defaults to /tmp), removed with
// everything in it when the process ends normally. Made on first use. scripts/fuzz.sh points
// TMPDIR at a folder of its own, so that the folders of crashed runs go with it.
const std::string& PrivateRoot();

// Points SLOT_PIPE_DIR and SLOT_LOCK_DIR at "<PrivateRoot>/a/b/pipes" and ".../locks" (made
// here) and returns them as {pipes, locks}. The two levels between root and folders let a name
// that climbs out of a folder land inside the private root, where it can be seen.
struct SharedFolders {
    std::string pipes;
    std::string locks;
};
const SharedFolders& UsePrivateFolders();

// A tag unique to this process, for the interprocess objects a target makes: "slotfuzz_<pid>_".
const std::string& ProcessTag();

// Records `name` as the slot this process works on now, in "<PrivateRoot>/slot-in-use", so that
// scripts/fuzz.sh can remove its shared memory when the process dies before it could.
void NoteSlotInUse(const std::string& name);

// Reports a broken property on stderr and aborts, which libFuzzer records as a crash together
// with the input.
[[noreturn]] void Fail(const std::string& what);

// The bytes as a C++ string literal body, for messages.
std::string Escaped(const std::string& bytes);

}  // namespace fuzzsupport
