// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <sys/types.h>
#include <cstdint>
#include <string>
#include <vector>

namespace slotctl {

// What was found under one shared-memory name.
enum class PartState {
    Absent,      // no such object
    Ok,          // opened and validated
    NoAccess,    // exists, but this user cannot open it read-write
    Busy,        // a lock inside it stayed held (a process may have died holding it)
    Unfinished,  // its creator has not finished it (or died while creating it)
    Foreign      // exists but is not this part of a slot
};

const char* PartStateText(PartState state);

// The named objects of a header segment, and their names in it.
enum HeaderObject {
    LastWriteTime,
    OutputDataSize,
    OutputHandle,
    WriteCondition,
    HeaderObjectCount
};
extern const char* const HeaderObjectNames[HeaderObjectCount];

// What a look inside a header segment finds. Plain bytes, like QueueContents: a helper process
// sends them through a pipe.
struct HeaderContents {
    std::uint64_t freeMemory = 0;
    std::uint64_t namedObjects = 0;
    std::uint64_t uniqueObjects = 0;                    // the header mutex is one
    std::uint64_t objectBytes[HeaderObjectCount] = {};  // size of each named object, 0: missing
    boost::posix_time::ptime lastWrite;  // not_a_date_time: not written since last opened
    std::uint64_t outputDataSize = 0;
    std::int64_t outputHandle = 0;

    bool Has(HeaderObject object) const { return objectBytes[object] != 0; }
};

// What a look inside a message queue finds.
struct QueueContents {
    std::uint64_t capacity = 0;      // blocks
    std::uint64_t maxBlockSize = 0;  // bytes
    std::uint64_t waiting = 0;       // blocks now in the queue
};

// One shared-memory object of a slot. The contents are valid when the state is Ok.
template <class Contents>
struct PartInfo : Contents {
    PartState state = PartState::Absent;
    std::string detail;  // why it is not Ok
    std::uint64_t fileSize = 0;
};

// The header segment "<name>", read without the library (which would reset it).
using HeaderInfo = PartInfo<HeaderContents>;
// The message queue "queue_<name>".
using QueueInfo = PartInfo<QueueContents>;

// Everything known about one slot name.
struct SlotReport {
    std::string name;
    HeaderInfo header;
    QueueInfo queue;
    std::string pipePath;  // the posix-pipe FIFO of this name, when one exists
    std::string lockPath;  // lock file of a reliable slot's reader
    pid_t readerPid = 0;   // holder of the reader lock: 0 none, -1 held by an unknown process

    bool HasSharedMemory() const;
    bool IsHalf() const;  // a header without its queue, or a queue without its header
    // "discarding" (queue capacity 1), "reliable", "posix-pipe" (FIFO only) or "" (unknown).
    std::string Kind() const;
    // One word for listings: "slot", "pipe", "header-only", "queue-only", "no-access", "busy",
    // "unfinished", "damaged".
    std::string State() const;
    // Why a name without a named pipe is not a slot, to follow "'<name>' is not a slot: ": there
    // is no object of the name, or the first part (header, then queue) that is not a slot part.
    std::string NotASlotReason() const;
};

// Reads the header "<name>", the queue "queue_<name>", the FIFO and, for a reliable slot, the
// reader lock. Never opens the slot through the library, never changes anything, never hangs:
// every look inside a segment runs in a forked helper process with a time limit, so a foreign
// object, a damaged one or one whose lock a dead process holds cannot hurt this process.
SlotReport InspectSlot(const std::string& name);

// Every slot, half slot and posix-pipe FIFO on this machine, sorted by name.
std::vector<SlotReport> ScanSlots();

// Name of the queue object of slot `name` ("queue_<name>").
std::string QueueObject(const std::string& name);

// Path of the POSIX shared-memory object `name`.
std::string ShmPath(const std::string& name);

// Whether the shared-memory object exists (any kind of file).
bool ShmExists(const std::string& name);

// Seconds since the object's status last changed (creation, for slot parts); -1 when unknown.
double ShmAgeSeconds(const std::string& name);

// "2026-11-22T10:00:01.123456Z", or "never" for not_a_date_time.
std::string FormatTime(const boost::posix_time::ptime& time);

}  // namespace slotctl
