// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/SlotNames.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The two shared-memory objects of a slot read from their raw bytes, without letting
// Boost.Interprocess open them: Boost spins for ever on an unfinished object, follows every
// offset stored in the object, and locks mutexes that a dead process may hold.
//
// Every function here is a pure function of the object's bytes, which it reads through a
// ByteSource: bytes in memory (a mapping), or the object's file read on demand. It reads only the
// parts that hold the slot's structure, never the blocks' bytes, so that a look at a large slot
// stays cheap (only an object whose creation word is 0 is read whole, a piece at a time, to tell
// a sized but untouched object from another program's data). It never reads outside [0, Size())
// whatever the bytes contain, never writes, takes no lock and allocates only for its result's
// texts and lists (and a bit per queue message). The objects may change while they are read
// (other processes keep using them): the result is a snapshot that may mix two moments, but it
// is never out of bounds.
//
// Offsets in the results are byte offsets from the object's start.
namespace SlotImage {

// The bytes of one object. Size() must be the object's real size (fstat of the object, or the
// size of the mapping), never a size read from the object. ReadAt copies the `length` bytes at
// `offset`; false when they lie outside [0, Size()) or can no longer be read (the object shrank
// meanwhile), and `out` then holds nothing meaningful.
class SLOT_EXPORT ByteSource {
public:
    virtual ~ByteSource() = default;
    virtual std::uint64_t Size() const = 0;
    virtual bool ReadAt(std::uint64_t offset, void* out, std::size_t length) const = 0;
};

// Bytes in this process's memory: [base, base + size), e.g. a mapping of the object. `base`
// needs no alignment; values are copied out with memcpy.
class SLOT_EXPORT MemorySource : public ByteSource {
public:
    MemorySource(const void* base, std::size_t size)
        : base_(static_cast<const unsigned char*>(base)), size_(base == nullptr ? 0 : size) {}
    std::uint64_t Size() const override { return size_; }
    bool ReadAt(std::uint64_t offset, void* out, std::size_t length) const override;

private:
    const unsigned char* base_;
    std::uint64_t size_;
};

// Boost.Interprocess's creation-state word: the first 32 bits of a managed segment or queue,
// which the creator sets from 0 to 1 when it starts building and to 2 when it is done.
enum class CreationState {
    Missing,        // fewer than 4 bytes: not sized yet (size 0), or a failed creation (size 1)
    Uninitialised,  // 0: sized, not yet being built (the verdict is Foreign unless every
                    // byte is still zero, as a creator leaves it)
    Initialising,   // 1: being built, or its creator died while building it
    Initialised,    // 2
    Corrupted,      // 3: its creator failed while building it
    Invalid         // any other value: not a Boost.Interprocess object
};

SLOT_EXPORT const char* CreationStateText(CreationState state);
SLOT_EXPORT CreationState ReadCreationState(const ByteSource& bytes);
SLOT_EXPORT CreationState ReadCreationState(const void* base, std::size_t size);

// What the bytes are, as a whole.
enum class Verdict {
    Unfinished,  // not built yet, or its builder died: Missing (size 0), Uninitialised,
                 // Initialising, or (header segment) a consistent segment whose slot header is
                 // only partly built, in the order the library builds it
    Foreign,     // not this kind of object: an unknown creation word, or no recognisable layout
    Damaged,     // this kind of object, but an offset, size or count is wrong
    Valid        // every offset, size and count checked lies inside the mapping and agrees
};

SLOT_EXPORT const char* VerdictText(Verdict verdict);

// A part of the mapping. `present` says that it was found and lies wholly inside the mapping;
// offset and size are meaningful only then.
struct Region {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    bool present = false;
};

// The message queue "queue_<name>": a message_queue_t<shared::SlotOffsetPtr>. In address order:
// the creation word, then (at controlOffset) Boost's control block mq_hdr_t (sizes, counts, the
// queue's mutex and two conditions), the index (one offset pointer per message slot; the waiting
// messages are the `waiting` entries from `firstIndex` on, circularly, oldest last), then
// `capacity` message slots of `messageStride` bytes, each a {length, priority} header followed
// by up to `maxMessageSize` data bytes.
struct QueueImage {
    std::uint64_t mappedSize = 0;
    CreationState creation = CreationState::Missing;
    Verdict verdict = Verdict::Unfinished;
    std::string problem;  // the first thing found wrong or unfinished; empty when Valid

    // The control block, read when the object is initialised and large enough to hold it.
    bool hasControlBlock = false;
    std::uint64_t controlOffset = 0;
    std::uint64_t capacity = 0;        // maximum number of messages
    std::uint64_t maxMessageSize = 0;  // bytes
    std::uint64_t waiting = 0;         // messages now in the queue
    std::uint64_t firstIndex = 0;      // index position of the newest waiting message
    std::uint64_t blockedSenders = 0;
    std::uint64_t blockedReceivers = 0;
    std::uint64_t requiredSize = 0;  // bytes a queue of these sizes occupies; 0 on overflow
    std::uint64_t messageStride = 0;
    Region mutex;  // the queue's internal interprocess_mutex
    Region receiveCondition;
    Region sendCondition;
    Region index;
    Region messages;
    // Kernel thread id that the queue's mutex records as its owner (0: unlocked). See
    // shared::ProcessOfThread to tell a live holder from a dead one.
    pid_t mutexOwnerThread = 0;

    // Checks, each true only when everything before it held as well.
    bool countsValid = false;    // sizes match the mapping, waiting <= capacity, firstIndex fits
    bool indexValid = false;     // each index entry points at a distinct message slot
    bool messagesValid = false;  // each waiting message's length <= maxMessageSize
};

// Reads the control block, the index and each waiting message's length; never a message's data.
SLOT_EXPORT QueueImage ParseQueue(const ByteSource& bytes);
SLOT_EXPORT QueueImage ParseQueue(const void* base, std::size_t size);

// The named objects of a slot's header segment, in the order the library constructs them.
using Slot::HeaderObject;
using Slot::HeaderObjectCount;
using Slot::HeaderObjectNames;
using Slot::LastWriteTime;
using Slot::OutputDataSize;
using Slot::OutputHandle;
using Slot::WriteCondition;

struct NamedObject {
    Region value;                    // present: found, of the expected size and alignment
    std::uint64_t recordedSize = 0;  // value bytes its index entry records, when found
    bool found = false;              // its name is in the index (value may still be bad)
};

// The header segment "<name>", laid out as <Slot/SlotNames.h> describes.
struct SLOT_EXPORT HeaderImage {
    std::uint64_t mappedSize = 0;
    CreationState creation = CreationState::Missing;
    Verdict verdict = Verdict::Unfinished;
    std::string problem;  // the first thing found wrong or unfinished; empty when Valid

    // The segment manager, read when the object is initialised and large enough to hold it.
    bool hasManager = false;
    std::uint64_t managerOffset = 0;
    std::uint64_t recordedSize = 0;  // mapping size as the segment manager records it
    std::uint64_t freeBytes = 0;     // as the allocator counts them (0 when inconsistent)
    std::uint64_t namedCount = 0;    // entries the name index records
    std::uint64_t uniqueCount = 0;   // entries the unique index records
    Region allocatorMutex;           // taken by every allocation
    Region indexMutex;               // taken by every named find or construction
    Region headerMutex;              // the slot's header mutex (unique interprocess_mutex)
    pid_t allocatorMutexOwnerThread = 0;
    pid_t indexMutexOwnerThread = 0;
    pid_t headerMutexOwnerThread = 0;

    NamedObject objects[HeaderObjectCount];
    // Values of the named objects, copied when their regions are present.
    boost::posix_time::ptime lastWrite;  // not_a_date_time: not written since last opened
    std::uint32_t outputDataSize = 0;
    std::int32_t outputHandle = 0;
    // The allocation that "output_buffer_handle" names; size is its usable capacity.
    Region outputBuffer;
    // Allocations that no index entry starts and no handle names, each as its usable bytes: the
    // output buffer of a builder that died before it stored the buffer's handle. Listed only when
    // the allocator's blocks and both indexes are consistent.
    std::vector<Region> strayAllocations;

    // True when the header mutex and all four named objects were found where they belong.
    bool Complete() const;
};

// Reads the segment manager, the allocator's block words and free-block tree, both indexes with
// their entries and names, and the named objects' values; never the output buffer's bytes.
SLOT_EXPORT HeaderImage ParseHeader(const ByteSource& bytes);
SLOT_EXPORT HeaderImage ParseHeader(const void* base, std::size_t size);

}  // namespace SlotImage
