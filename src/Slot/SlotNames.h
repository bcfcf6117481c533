// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

// What a slot is on the machine: the names of its interprocess objects, the rule for a slot's
// name and where the system shows the objects. The slot's constructor builds from these, the
// raw-byte parser (SlotImage) reads against them, and the survey, the tools and the bindings take
// them from here.
//
// Interprocess objects of the slot <name>. Every process that opens the slot builds the same
// objects by name; they belong to no process and outlive every slot object (only slot removal
// unlinks them). Nothing here is ever destroyed by a destructor.
//
//   "queue_<name>"  message_queue_t<shared::SlotOffsetPtr>, permissions 0644: up to bufferLength
//                   blocks of up to maxDataSize bytes. Its sizes are fixed by whoever creates it;
//                   later openers get those sizes whatever they ask for. Guarded by its own
//                   internal mutex, taken inside each queue call.
//
//   "<name>"        managed header segment (shared::SlotSegment), created with
//                   max data size + BaseQueueSlot::HeaderHeadroom bytes. In address order:
//     the creation word, the segment manager (the allocator's header with its mutex, then the
//       name index and unique index with their recursive mutex), the header mutex (a unique
//       instance, not a named object; supplied by shared::CreateSharedMemory), then, as the
//       first opener allocates them:
//     "last_write_tstamp"        ptime, 8 bytes      written by the slot kinds on every accepted
//                                                    write, reset to not_a_date_time by every open
//     "output_buffer_data_size"  unsigned int, 4     written by ReceiveAndCopyToOutBuf, reset to 0
//                                                    by every open
//     "output_buffer_handle"     int, 4              written once, by the first opener: the byte
//                                                    offset of the output buffer in the segment
//     output buffer (anonymous)  max message size    a copy of the last block taken from the
//                                of the queue        queue; written by ReceiveAndCopyToOutBuf
//     "cond_on_write"            shared::InterprocCondition, sizeof(interprocess_condition):
//                                the slot's "written" signal; broadcast by writers, waited on by
//                                readers together with the header mutex. It replaces
//                                interprocess_condition, whose glibc implementation can hang
//                                every process after a waiter was killed mid-wait.
//
// The header mutex guards the header and the output buffer for all processes, by convention:
// writers hold it around WriteData, readers around ReadData. The header mutex and the queue's
// mutex are never nested.
namespace Slot {

// The named objects of a slot's header segment, in the order the library constructs them.
enum HeaderObject {
    LastWriteTime,
    OutputDataSize,
    OutputHandle,
    WriteCondition,
    HeaderObjectCount
};

// "last_write_tstamp", "output_buffer_data_size", "output_buffer_handle", "cond_on_write".
SLOT_EXPORT extern const char* const HeaderObjectNames[HeaderObjectCount];

// The header segment's object name: the slot name itself.
SLOT_EXPORT std::string HeaderObjectName(const std::string& slot);

// The queue's object name: "queue_<name>".
SLOT_EXPORT std::string QueueObjectName(const std::string& slot);

// The largest object a slot is made of: the objects' offsets and sizes are ints. A larger
// object under a slot's name is some other program's.
constexpr std::uint64_t MaxObjectBytes = 2147483647;  // INT_MAX

// The longest slot name: a POSIX shared-memory name is one file name of at most NAME_MAX (255)
// bytes, and the queue's name adds "queue_".
constexpr std::size_t MaxSlotNameLength = 249;

// Why `name` cannot name a slot ("is empty", "is not a file name", "contains '/'", "contains a
// NUL byte", "is longer than 249 characters"), or nothing when it can. Any other bytes are allowed:
// spaces, control bytes and bytes that are not UTF-8 (tools escape names when they print them).
SLOT_EXPORT std::optional<std::string> SlotNameProblem(const std::string& name);

// The folder where the system shows POSIX shared-memory objects: "/dev/shm".
SLOT_EXPORT std::string ShmDirectory();

// Where the system shows the POSIX shared-memory object `object`: "/dev/shm/<object>".
SLOT_EXPORT std::string ShmPath(const std::string& object);

// Zero-copy pools (<Slot/PoolFactory.h>) keep one file each in the folder "libslot-pools" of
// ShmDirectory(), created with mode 01777. A slot's objects are plain files of ShmDirectory(), so
// a pool never collides with a slot's "<name>" or "queue_<name>"; the one slot name that a pool
// reserves is the folder's, "libslot-pools". A pool's name follows the slot name rule, and names
// that start with PoolTemporaryPrefix are refused: a pool is made under such a name and renamed
// into place when complete.
SLOT_EXPORT extern const char* const PoolFolderName;
SLOT_EXPORT extern const char* const PoolTemporaryPrefix;

// "/dev/shm/libslot-pools".
SLOT_EXPORT std::string PoolDirectory();

// "/dev/shm/libslot-pools/<name>".
SLOT_EXPORT std::string PoolPath(const std::string& name);

}  // namespace Slot
