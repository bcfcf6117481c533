// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/SlotNames.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <sys/types.h>
#include <cstdint>
#include <string>
#include <vector>

// What the machine holds under a slot's name, seen without disturbing it.
//
// Opening a slot through the library resets its header and waits for its locks. An inspection
// does neither: it reads the header segment "<name>" and the queue "queue_<name>" with plain
// reads (never a mapping, so an object truncated meanwhile cannot raise SIGBUS) of only the parts
// that SlotImage parses, the slot's structure (not its blocks, so a look at a large slot stays
// cheap), reads who holds each lock inside them without taking it, and asks the reliable
// reader's lock file who holds it (fcntl F_OFD_GETLK; the file is opened read-only and never
// created). It writes nothing, takes no lock, never waits for another process, and copes
// with any content: foreign, damaged or half-created objects are reported, not trusted.
//
// The answer is a snapshot: other processes go on using the slot while it is read.

// One shared-memory object of a slot.
enum class SlotPartState {
    Absent,      // no such object
    Ok,          // read and valid
    NoAccess,    // exists, but could not be opened for reading (permissions)
    Unfinished,  // being created, or its creator died while creating it
    Damaged,     // a slot part whose contents are inconsistent
    Foreign      // exists, but is not this part of a slot (another program's object)
};

// A slot as a whole, from its parts and its locks, in the order they are decided.
enum class SlotState {
    Absent,      // nothing of that name
    Pipe,        // only a posix-pipe FIFO of that name
    DeadHolder,  // a lock inside it is held by a thread that no longer exists: it stays held
    NoAccess,    // a part exists but could not be read
    Damaged,     // a part is damaged, or not a slot part although the other one is
    Unfinished,  // a part is being created, or its creator died while creating it
    Half,        // one part is there and valid, the other is missing
    Busy,        // a live process held a lock inside it at every look
    Healthy      // both parts valid, no lock held
};

enum class SlotKind { Unknown, Discarding, Reliable, PosixPipe };

SLOT_EXPORT const char* SlotPartStateText(SlotPartState state);
// "absent", "pipe", "dead-holder", "no-access", "damaged", "unfinished", "half", "busy",
// "healthy".
SLOT_EXPORT const char* SlotStateText(SlotState state);
// "unknown", "discarding", "reliable", "posix-pipe".
SLOT_EXPORT const char* SlotKindText(SlotKind kind);

struct SlotPartReport {
    SlotPartState state = SlotPartState::Absent;
    std::string object;  // the POSIX shared-memory name
    std::string path;    // where the system shows it ("/dev/shm/<object>")
    std::string detail;  // why it is not Ok
    std::uint64_t size = 0;
    double ageSeconds = -1;  // since its status last changed (its creation, for slot parts)
    uid_t owner = 0;
    mode_t mode = 0;        // permission bits
    bool writable = false;  // this process could open it read-write (needed to use the slot)
};

struct SlotHeaderReport : SlotPartReport {
    // Read when the segment is built far enough for its named objects to be found.
    std::uint64_t freeBytes = 0;
    std::uint64_t namedObjects = 0;
    std::uint64_t uniqueObjects = 0;  // the header mutex is one
    // Bytes of each named object, in Slot::HeaderObject order; 0 when missing.
    std::uint64_t objectBytes[Slot::HeaderObjectCount] = {};
    boost::posix_time::ptime lastWrite;  // not_a_date_time: not written since last opened
    std::uint32_t outputDataSize = 0;
    std::int32_t outputHandle = 0;
    std::uint64_t outputBufferSize = 0;  // 0 when the handle names no allocation

    bool Has(Slot::HeaderObject object) const { return objectBytes[object] != 0; }
};

struct SlotQueueReport : SlotPartReport {
    // Read when the queue's control block is there and its counts are consistent.
    std::uint64_t capacity = 0;      // blocks
    std::uint64_t maxBlockSize = 0;  // bytes
    std::uint64_t waiting = 0;       // blocks now in the queue
};

// A lock inside a slot that was found held.
struct SlotLockReport {
    std::string lock;   // "header mutex", "queue mutex", "segment allocator mutex",
                        // "segment index mutex"
    pid_t thread = 0;   // the holder's thread id as the lock records it (the process id of a
                        // single-threaded holder)
    pid_t process = 0;  // the live process of that thread; 0: the thread no longer exists

    bool HolderDead() const { return process == 0; }
};

struct SLOT_EXPORT SlotReport {
    std::string name;
    SlotState state = SlotState::Absent;
    std::string detail;  // why the state is not Healthy, in words
    SlotKind kind = SlotKind::Unknown;
    SlotHeaderReport header;
    SlotQueueReport queue;
    // Locks found held in parts that are valid or unfinished (a damaged part's recorded owners
    // are not trusted).
    std::vector<SlotLockReport> heldLocks;
    // Thread id recorded by the first lock whose holder is dead (see SlotLockReport), 0 if none.
    pid_t deadHolder = 0;
    // The reliable reader's lock file (reliable slots only) and the pid that holds it: 0 when
    // free, -1 when held by a process that did not say who it is.
    std::string readerLockFile;
    pid_t readerPid = 0;
    std::string pipePath;  // the posix-pipe FIFO of this name, when one exists

    bool HasSharedMemory() const;
    bool IsHalf() const { return state == SlotState::Half; }
    // Age of the youngest part in seconds, -1 when unknown.
    double AgeSeconds() const;
};

// Any thread may call these at any time; they share no state.
class SLOT_EXPORT SlotSurvey {
public:
    // Everything about the slot `name`. Never throws for what it finds; a name that the system
    // cannot hold just reports Absent parts.
    static SlotReport InspectSlot(const std::string& name);

    // As InspectSlot, but with a single look at the slot, for a caller that must not wait: a lock
    // that a live process holds just then is reported held (InspectSlot looks again for about
    // 100 ms before it calls a slot busy), and a part read while its holder changes it may be
    // reported damaged.
    static SlotReport InspectSlotAtOnce(const std::string& name);

    // Every slot, half slot, unfinished slot object and posix-pipe FIFO on this machine, sorted
    // by name. An object of another program is left out; a size-0 or uninitialised object
    // counts as a slot part only with the permissions the library creates them with (0644).
    static std::vector<SlotReport> ListSlots();
};
