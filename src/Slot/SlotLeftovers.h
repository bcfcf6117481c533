// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>

#include <sys/types.h>
#include <string>
#include <vector>

// Files that a slot leaves in the shared folders, and their removal.
//
// A reliable slot's reader claims the lock file "<lock folder>/<name>.lock" (folder:
// $SLOT_LOCK_DIR, default /run/lock/libslot) and leaves it behind when it ends, since another
// reader may be opening it at that moment. A gateway that writes a slot claims "<lock
// folder>/<name>.gw" (FSUtils::GetGatewayClaimFileName) and leaves it behind when it is killed.
// SlotFactory::RemoveSlot removes only the shared memory; slotctl rm and the Python binding's
// remove_slot call RemoveReaderLockFile and RemoveGatewayClaimFile as well.

enum class LeftoverOutcome {
    Absent,   // no such file (or the name is no slot name and cannot have one)
    Removed,  // unlinked
    Held,     // a live reader (or gateway) holds it: kept
    Failed    // not a plain file of one link, unsafe folder, or unlink refused: kept
};

struct SLOT_EXPORT LeftoverRemoval {
    LeftoverOutcome outcome = LeftoverOutcome::Absent;
    std::string path;    // the lock file's path ("" when the name cannot have one)
    pid_t holder = 0;    // Held: the holder's pid, -1 when unknown
    std::string detail;  // Failed: why, in words
};

// Any thread may call these; they share no state with each other.
class SLOT_EXPORT SlotLeftovers {
public:
    // Removes the reliable reader's lock file of slot `name` unless a process holds it. The file
    // is claimed with a non-blocking remover's lock attempt (shared::FileLock::TryLockForRemoval,
    // which also sees a reader of this process), then unlinked through the checked lock folder
    // while claimed, never through a link. A reader that opened the file just before never holds
    // a file nobody else can see: its claim (FileLock::Claim) waits for the unlink and takes the
    // file made after it, so the removal never refuses a reader. A missing lock folder holds no
    // file and is not made. Never throws for what it finds.
    static LeftoverRemoval RemoveReaderLockFile(const std::string& name);
    // The same for the claim file of a gateway that writes slot `name`: removed unless a gateway
    // holds it, the same way.
    static LeftoverRemoval RemoveGatewayClaimFile(const std::string& name);

    // Slot names whose reader lock file lies in the lock folder, unheld, while neither the
    // slot's header segment nor its queue exists, sorted. An unreadable or unsafe folder gives
    // none.
    static std::vector<std::string> OrphanedReaderLockFiles();
    // The same for gateway claim files.
    static std::vector<std::string> OrphanedGatewayClaimFiles();
};
