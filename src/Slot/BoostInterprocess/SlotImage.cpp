// SPDX-License-Identifier: Apache-2.0
#include <Slot/BoostInterprocess/SlotImage.h>

#include <shared/InterprocCondition.h>
#include <shared/MutexOwner.h>
#include <shared/SharedMemory.h>

#include <boost/interprocess/detail/managed_open_or_create_impl.hpp>
#include <boost/interprocess/detail/segment_manager_helper.hpp>
#include <boost/interprocess/indexes/iset_index.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <boost/interprocess/sync/interprocess_condition.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/interprocess_recursive_mutex.hpp>

#include <pthread.h>
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace SlotImage {

namespace {

namespace bi = boost::interprocess;

typedef shared::SlotOffsetPtr::offset_type OffsetType;
typedef shared::SlotSegment::size_type SizeType;

// ---- The queue: message_queue_t<shared::SlotOffsetPtr> -------------------------------------

typedef bi::message_queue_t<shared::SlotOffsetPtr> Queue;
typedef bi::ipcdetail::mq_hdr_t<shared::SlotOffsetPtr> QueueControl;
typedef bi::ipcdetail::msg_hdr_t<shared::SlotOffsetPtr> MessageHeader;
typedef Queue::size_type QueueSize;

// Where the creator puts the control block: after the creation word, rounded up.
const std::uint64_t QueueUserOffset =
    bi::ipcdetail::managed_open_or_create_impl<bi::shared_memory_object, 0, true,
                                               false>::ManagedOpenOrCreateUserOffset;

// The control block's members are public, so their places come from Boost's own type. offsetof
// on it is conditionally supported (the type is not standard-layout only because of an empty
// base); GCC and Clang compute it exactly.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
const std::size_t IndexPointerAt = offsetof(QueueControl, mp_index);
const std::size_t CapacityAt = offsetof(QueueControl, m_max_num_msg);
const std::size_t MaxMessageSizeAt = offsetof(QueueControl, m_max_msg_size);
const std::size_t WaitingAt = offsetof(QueueControl, m_cur_num_msg);
const std::size_t MutexAt = offsetof(QueueControl, m_mutex);
const std::size_t ReceiveConditionAt = offsetof(QueueControl, m_cond_recv);
const std::size_t SendConditionAt = offsetof(QueueControl, m_cond_send);
const std::size_t FirstIndexAt = offsetof(QueueControl, m_cur_first_msg);
const std::size_t BlockedSendersAt = offsetof(QueueControl, m_blocked_senders);
const std::size_t BlockedReceiversAt = offsetof(QueueControl, m_blocked_receivers);
const std::size_t MessageLengthAt = offsetof(MessageHeader, len);
#pragma GCC diagnostic pop

static_assert(sizeof(QueueSize) == 4, "queue counts are 32-bit");
static_assert(sizeof(decltype(std::declval<QueueControl&>().mp_index)) == sizeof(OffsetType) &&
                  sizeof(bi::offset_ptr<MessageHeader, int, OffsetType, 0>) == sizeof(OffsetType),
              "queue pointers are offset pointers");
static_assert(sizeof(bi::interprocess_mutex) == sizeof(pthread_mutex_t),
              "interprocess_mutex is a pthread mutex");
static_assert(sizeof(bi::interprocess_recursive_mutex) == sizeof(pthread_mutex_t),
              "interprocess_recursive_mutex is a pthread mutex");
static_assert(sizeof(bi::interprocess_condition) == sizeof(pthread_cond_t),
              "interprocess_condition is a pthread condition");

// ---- The header segment: shared::SlotSegment -----------------------------------------------
//
// The segment manager's members are private, so its layout is restated here and pinned to
// Boost's sizes. In address order, from the segment manager's start:
//   rbtree_best_fit:  its mutex, the tree of free blocks, extra header bytes, allocated bytes,
//                     size of the managed memory (mapping size minus the creation word's room)
//   segment_manager:  its recursive mutex, the name index, the unique index (iset_index: an
//                     intrusive red-black tree; each entry is an allocation that starts with the
//                     tree node, then a block_header, the value and the name)
// A tree is its entry count, then its header node. Every tree node is three offset pointers
// (parent, left, right); the parent's bit 1 holds the node's colour. A tree's header node keeps
// the root in its parent pointer.

typedef bi::rbtree_best_fit<bi::mutex_family, shared::SlotOffsetPtr, 0> Allocator;
typedef shared::SlotSegment::segment_manager Manager;
typedef bi::ipcdetail::block_header<SizeType> BlockHeaderType;

const std::uint64_t SegmentUserOffset =
    bi::ipcdetail::managed_open_or_create_impl<bi::shared_memory_object, Allocator::Alignment, true,
                                               false>::ManagedOpenOrCreateUserOffset;

struct TreeNode {
    OffsetType parent;
    OffsetType left;
    OffsetType right;
};
// The colour bit in a parent pointer (bit 0 of an offset pointer marks null).
const OffsetType ColourMask = 2;

struct Tree {
    std::size_t count;
    TreeNode header;
};

struct AllocatorHeader {
    pthread_mutex_t mutex;
    Tree freeBlocks;
    SizeType extraHeaderBytes;
    SizeType allocated;
    SizeType size;
};

struct IndexHeader {
    pthread_mutex_t mutex;  // recursive
    Tree named;
    Tree unique;
};

struct ManagerLayout {
    AllocatorHeader allocator;
    IndexHeader indexes;
};

static_assert(sizeof(AllocatorHeader) == sizeof(Allocator), "rbtree_best_fit layout");
static_assert(sizeof(ManagerLayout) == sizeof(Manager), "segment_manager layout");
static_assert(sizeof(bi::segment_manager_base<Allocator>) == sizeof(Allocator),
              "segment_manager_base adds no members");
static_assert(sizeof(Tree) == sizeof(bi::iset_index<bi::ipcdetail::index_config<char, Allocator>>),
              "an index is an entry count and a compact header node");

struct BlockHeader {
    SizeType valueBytes;
    unsigned short nameLength;
    unsigned char valueAlignment;
    unsigned char allocTypeAndCharSize;  // type in bits 5..7, character size in bits 0..4
};
static_assert(sizeof(BlockHeader) == sizeof(BlockHeaderType) &&
                  alignof(BlockHeader) == alignof(BlockHeaderType),
              "block_header layout");

// An index entry: the tree node, then (rounded up to the block header's alignment) the header.
const std::uint64_t EntryHeaderAt =
    (sizeof(TreeNode) + alignof(BlockHeader) - 1) / alignof(BlockHeader) * alignof(BlockHeader);

// An allocation is preceded by its block's size word pair: the previous block's size, then this
// block's size in Alignment units (bits 0..29), previous-allocated (bit 30), allocated (bit 31).
struct SizeHolder {
    SizeType previousSize;
    SizeType sizeAndFlags;
};
const std::uint64_t Alignment = Allocator::Alignment;
const std::uint64_t AllocatedCtrlBytes =
    (sizeof(SizeHolder) + Alignment - 1) / Alignment * Alignment;
const std::uint64_t AllocatedCtrlUnits = AllocatedCtrlBytes / Alignment;
const std::uint64_t UsableByPreviousChunk = sizeof(SizeType);
const SizeType BlockUnitsMask = (SizeType(1) << 30) - 1;
const SizeType PreviousAllocatedFlag = SizeType(1) << 30;
const SizeType AllocatedFlag = SizeType(1) << 31;
// A free block is its size word pair followed by its node in the tree of free blocks; no block is
// smaller than that. The end block is a bare size word pair.
const std::uint64_t FreeNodeAt =
    (sizeof(SizeHolder) + alignof(TreeNode) - 1) / alignof(TreeNode) * alignof(TreeNode);
const std::uint64_t BlockCtrlBytes =
    (FreeNodeAt + sizeof(TreeNode) + Alignment - 1) / Alignment * Alignment;
const std::uint64_t BlockCtrlUnits = BlockCtrlBytes / Alignment;
const std::uint64_t EndCtrlBytes = AllocatedCtrlBytes;
static_assert(Allocator::PayloadPerAllocation == AllocatedCtrlBytes - UsableByPreviousChunk,
              "rbtree_best_fit allocation overhead");

// Expected sizes and alignments of the named objects, in HeaderObject order.
const std::uint64_t ObjectSizes[HeaderObjectCount] = {sizeof(boost::posix_time::ptime),
                                                      sizeof(unsigned int), sizeof(int),
                                                      sizeof(shared::InterprocCondition)};
const std::uint64_t ObjectAlignments[HeaderObjectCount] = {alignof(boost::posix_time::ptime),
                                                           alignof(unsigned int), alignof(int),
                                                           alignof(shared::InterprocCondition)};

static_assert(std::is_trivially_copyable<boost::posix_time::ptime>::value,
              "a ptime is copied out of the segment bytewise");

// Bounded traversal: a slot header has four named entries and one unique one, and a handful of
// free blocks. A red-black tree of MaxTreeNodes nodes is at most 2 * 17 levels deep.
const std::size_t MaxTreeNodes = 65536;
const int MaxTreeDepth = 40;

// ---- Reading bytes --------------------------------------------------------------------------

// Every read goes through here: checked against the object's real size, then copied out.
class Bytes {
public:
    explicit Bytes(const ByteSource& source) : source_(source), size_(source.Size()) {}

    std::uint64_t Size() const { return size_; }

    // Whether [offset, offset + length) lies inside the object.
    bool Has(std::uint64_t offset, std::uint64_t length) const {
        return offset <= size_ && length <= size_ - offset;
    }

    // False, with `out` unchanged, when the bytes lie outside the object or cannot be read.
    template <class T>
    bool Read(std::uint64_t offset, T& out) const {
        static_assert(std::is_trivially_copyable<T>::value, "copied bytewise");
        T value{};
        if (!Copy(offset, &value, sizeof(T))) {
            return false;
        }
        out = value;
        return true;
    }

    // Whether the bytes at `offset` are `length` bytes equal to `text`.
    bool Equals(std::uint64_t offset, const char* text, std::uint64_t length) const {
        if (!Has(offset, length)) {
            return false;
        }
        char piece[64];
        for (std::uint64_t at = 0; at < length; at += sizeof(piece)) {
            const std::uint64_t n = std::min<std::uint64_t>(sizeof(piece), length - at);
            if (!Copy(offset + at, piece, n) || std::memcmp(piece, text + at, n) != 0) {
                return false;
            }
        }
        return true;
    }

    // Copies `length` bytes at `offset` to `out`; false outside the object.
    bool Copy(std::uint64_t offset, void* out, std::uint64_t length) const {
        return Has(offset, length) && (length == 0 || source_.ReadAt(offset, out, length));
    }

    // Read a piece at a time: the object may be large.
    bool AllZero() const {
        std::vector<unsigned char> piece(std::min<std::uint64_t>(size_, 64 * 1024));
        for (std::uint64_t at = 0; at < size_; at += piece.size()) {
            const std::uint64_t length = std::min<std::uint64_t>(piece.size(), size_ - at);
            if (!Copy(at, piece.data(), length) ||
                std::any_of(piece.begin(), piece.begin() + length,
                            [](unsigned char byte) { return byte != 0; })) {
                return false;
            }
        }
        return true;
    }

    // The target of the offset pointer stored at `at`, holding `raw`. False for null.
    static bool Follow(std::uint64_t at, OffsetType raw, std::uint64_t& target) {
        if (raw == 1) {
            return false;
        }
        // An offset pointer stores target minus its own address, modulo the offset type's
        // width; the object's address cancels out, so the same holds for offsets from its start.
        target = static_cast<OffsetType>(static_cast<OffsetType>(at) + raw);
        return true;
    }

    pid_t OwnerThread(const Region& mutex) const {
        pthread_mutex_t copy;
        if (!mutex.present || !Read(mutex.offset, copy)) {
            return 0;
        }
        return shared::MutexOwnerThread(&copy);
    }

private:
    const ByteSource& source_;
    std::uint64_t size_;
};

Region MakeRegion(const Bytes& bytes, std::uint64_t offset, std::uint64_t size) {
    Region region;
    if (bytes.Has(offset, size)) {
        region.offset = offset;
        region.size = size;
        region.present = true;
    }
    return region;
}

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t alignment) {
    return (value + alignment - 1) / alignment * alignment;
}

// Fills creation and, for anything but an initialised object, verdict and problem. Returns
// whether the object is initialised.
template <class Image>
bool CheckCreation(const Bytes& bytes, Image& image) {
    image.mappedSize = bytes.Size();
    if (bytes.Size() > Slot::MaxObjectBytes) {
        // Not read at all: an object of any size costs nothing to make on tmpfs (sparse).
        image.verdict = Verdict::Foreign;
        image.problem = "larger than any slot object";
        return false;
    }
    std::uint32_t word = 0;
    if (!bytes.Read(0, word)) {
        image.creation = CreationState::Missing;
        if (bytes.Size() == 0) {
            image.verdict = Verdict::Unfinished;
            image.problem = "not sized yet: being created, or its creator died";
        } else {
            image.verdict = Verdict::Damaged;
            image.problem = "only " + std::to_string(bytes.Size()) +
                            " bytes: its creator failed while building it";
        }
        return false;
    }
    switch (word) {
        case 0:
            image.creation = CreationState::Uninitialised;
            // A creator sizes the object and only then starts building it: until then every
            // byte is still zero. Anything else is some other program's data.
            if (!bytes.AllZero()) {
                image.verdict = Verdict::Foreign;
                image.problem = "not a Boost.Interprocess object";
                return false;
            }
            image.verdict = Verdict::Unfinished;
            image.problem = "not initialised: being created, or its creator died";
            return false;
        case 1:
            image.creation = CreationState::Initialising;
            image.verdict = Verdict::Unfinished;
            image.problem = "initialisation not finished: being created, or its creator died";
            return false;
        case 2:
            image.creation = CreationState::Initialised;
            return true;
        case 3:
            image.creation = CreationState::Corrupted;
            image.verdict = Verdict::Damaged;
            image.problem = "its creator failed while building it";
            return false;
        default:
            image.creation = CreationState::Invalid;
            image.verdict = Verdict::Foreign;
            image.problem = "not a Boost.Interprocess object";
            return false;
    }
}

// ---- Queue ----------------------------------------------------------------------------------

// Index and message checks of a queue whose counts are valid. Index entries are read in order
// and each waiting message's header as its entry comes by; a problem of the index goes before one
// of the messages, and of the messages the oldest-numbered one is told.
void CheckQueueIndex(const Bytes& bytes, QueueImage& q) {
    const std::uint64_t entrySize = sizeof(OffsetType);
    std::vector<bool> used(q.capacity, false);
    std::uint64_t firstTooLong = q.waiting;  // waiting messages are numbered from firstIndex
    for (std::uint64_t i = 0; i < q.capacity; ++i) {
        const std::uint64_t at = q.index.offset + i * entrySize;
        OffsetType raw = 0;
        std::uint64_t target = 0;
        if (!bytes.Read(at, raw) || !Bytes::Follow(at, raw, target) || target < q.messages.offset ||
            target - q.messages.offset >= q.messages.size ||
            (target - q.messages.offset) % q.messageStride != 0) {
            q.problem = "index entry " + std::to_string(i) + " does not point at a message";
            return;
        }
        const std::uint64_t slot = (target - q.messages.offset) / q.messageStride;
        if (used[slot]) {
            q.problem = "index entries share message " + std::to_string(slot);
            return;
        }
        used[slot] = true;
        const std::uint64_t k = (i + q.capacity - q.firstIndex) % q.capacity;
        QueueSize length = 0;
        if (k < firstTooLong &&
            (!bytes.Read(target + MessageLengthAt, length) || length > q.maxMessageSize)) {
            firstTooLong = k;
        }
    }
    q.indexValid = true;
    if (firstTooLong < q.waiting) {
        q.problem =
            "waiting message " + std::to_string(firstTooLong) + " is longer than the maximum";
        return;
    }
    q.messagesValid = true;
}

}  // namespace

const char* CreationStateText(CreationState state) {
    switch (state) {
        case CreationState::Missing:
            return "missing";
        case CreationState::Uninitialised:
            return "uninitialised";
        case CreationState::Initialising:
            return "initialising";
        case CreationState::Initialised:
            return "initialised";
        case CreationState::Corrupted:
            return "corrupted";
        case CreationState::Invalid:
            return "invalid";
    }
    return "?";
}

const char* VerdictText(Verdict verdict) {
    switch (verdict) {
        case Verdict::Unfinished:
            return "unfinished";
        case Verdict::Foreign:
            return "foreign";
        case Verdict::Damaged:
            return "damaged";
        case Verdict::Valid:
            return "valid";
    }
    return "?";
}

bool MemorySource::ReadAt(std::uint64_t offset, void* out, std::size_t length) const {
    if (offset > size_ || length > size_ - offset) {
        return false;
    }
    if (length != 0) {
        std::memcpy(out, base_ + offset, length);
    }
    return true;
}

CreationState ReadCreationState(const void* base, std::size_t size) {
    return ReadCreationState(MemorySource(base, size));
}

CreationState ReadCreationState(const ByteSource& source) {
    std::uint32_t word = 0;
    if (!Bytes(source).Read(0, word)) {
        return CreationState::Missing;
    }
    switch (word) {
        case 0:
            return CreationState::Uninitialised;
        case 1:
            return CreationState::Initialising;
        case 2:
            return CreationState::Initialised;
        case 3:
            return CreationState::Corrupted;
        default:
            return CreationState::Invalid;
    }
}

QueueImage ParseQueue(const void* base, std::size_t size) {
    return ParseQueue(MemorySource(base, size));
}

QueueImage ParseQueue(const ByteSource& source) {
    const Bytes bytes(source);
    QueueImage q;
    if (!CheckCreation(bytes, q)) {
        return q;
    }
    q.controlOffset = QueueUserOffset;
    const std::uint64_t c = q.controlOffset;
    if (!bytes.Has(c, sizeof(QueueControl))) {
        q.verdict = Verdict::Foreign;
        q.problem = "too small for a message queue";
        return q;
    }
    q.hasControlBlock = true;
    QueueSize capacity = 0, maxSize = 0, waiting = 0, first = 0, senders = 0, receivers = 0;
    OffsetType indexRaw = 0;
    bytes.Read(c + IndexPointerAt, indexRaw);
    bytes.Read(c + CapacityAt, capacity);
    bytes.Read(c + MaxMessageSizeAt, maxSize);
    bytes.Read(c + WaitingAt, waiting);
    bytes.Read(c + FirstIndexAt, first);
    bytes.Read(c + BlockedSendersAt, senders);
    bytes.Read(c + BlockedReceiversAt, receivers);
    q.capacity = capacity;
    q.maxMessageSize = maxSize;
    q.waiting = waiting;
    q.firstIndex = first;
    q.blockedSenders = senders;
    q.blockedReceivers = receivers;
    q.mutex = MakeRegion(bytes, c + MutexAt, sizeof(bi::interprocess_mutex));
    q.receiveCondition =
        MakeRegion(bytes, c + ReceiveConditionAt, sizeof(bi::interprocess_condition));
    q.sendCondition = MakeRegion(bytes, c + SendConditionAt, sizeof(bi::interprocess_condition));
    q.mutexOwnerThread = bytes.OwnerThread(q.mutex);

    // The sizes as message_queue_t lays the object out (its get_mem_size, in 64 bits).
    const std::uint64_t headerAlign = alignof(MessageHeader);
    const std::uint64_t indexAt = c + RoundUp(sizeof(QueueControl), alignof(OffsetType));
    const std::uint64_t indexBytes = RoundUp(q.capacity * sizeof(OffsetType), headerAlign);
    q.messageStride = RoundUp(q.maxMessageSize, headerAlign) + sizeof(MessageHeader);
    std::uint64_t messageBytes = 0;
    const bool overflow =
        __builtin_mul_overflow(q.capacity, q.messageStride, &messageBytes) ||
        __builtin_add_overflow(indexAt + indexBytes, messageBytes, &q.requiredSize);
    if (overflow) {
        q.requiredSize = 0;
    }
    std::uint64_t indexTarget = 0;
    const bool indexPointerOk =
        Bytes::Follow(c + IndexPointerAt, indexRaw, indexTarget) && indexTarget == indexAt;
    const bool sizesOk = !overflow && q.requiredSize == q.mappedSize;
    if (!indexPointerOk && !sizesOk) {
        // Neither the index pointer nor the sizes agree with the object: some other kind of
        // Boost object (slot "queue_x"'s header segment has the name of slot "x"'s queue).
        q.verdict = Verdict::Foreign;
        q.problem = "not a message queue";
        return q;
    }
    q.verdict = Verdict::Damaged;
    if (!sizesOk) {
        q.problem = "its sizes (" + std::to_string(q.capacity) + " messages of " +
                    std::to_string(q.maxMessageSize) + " bytes) do not fit its " +
                    std::to_string(q.mappedSize) + " bytes";
        return q;
    }
    if (!indexPointerOk) {
        q.problem = "its index pointer is wrong";
        return q;
    }
    if (q.waiting > q.capacity || (q.capacity != 0 && q.firstIndex >= q.capacity) ||
        (q.capacity == 0 && q.firstIndex != 0)) {
        q.problem = "its counts are wrong (" + std::to_string(q.waiting) + " waiting of " +
                    std::to_string(q.capacity) + ", first at " + std::to_string(q.firstIndex) + ")";
        return q;
    }
    q.index = MakeRegion(bytes, indexAt, q.capacity * sizeof(OffsetType));
    q.messages = MakeRegion(bytes, indexAt + indexBytes, messageBytes);
    q.countsValid = true;
    CheckQueueIndex(bytes, q);
    if (q.indexValid && q.messagesValid) {
        q.verdict = Verdict::Valid;
        q.problem.clear();
    }
    return q;
}

// ---- Header segment ---------------------------------------------------------------------------

namespace {

// One entry of a name or unique index.
struct IndexEntry {
    std::uint64_t node = 0;
    BlockHeader header{};
    std::uint64_t valueOffset = 0;
    std::uint64_t nameOffset = 0;
};

// A header segment holds a handful of allocations (the index nodes, the named objects, the
// output buffer): a chain of more blocks is damage, and is not walked to its end.
constexpr std::size_t MaxBlocks = 1024;

// One block of the allocator's chain.
struct Block {
    std::uint64_t offset = 0;
    std::uint64_t units = 0;
    bool allocated = false;
};

// The allocator's blocks in address order, from the first block up to (not including) the end
// block, each checked against its neighbours as rbtree_best_fit keeps them: sizes of at least a
// block's control bytes that tile the managed memory exactly, previous-allocated bits that agree
// with the previous block, a free block's size repeated in its successor, no two free blocks
// side by side, and the end block (allocated, sized back to the first block) at its place.
bool WalkBlocks(const Bytes& bytes, std::uint64_t firstBlock, std::uint64_t endBlock,
                std::vector<Block>& blocks, std::string& problem) {
    if (firstBlock % Alignment != 0 || endBlock % Alignment != 0 ||
        endBlock < firstBlock + BlockCtrlBytes || !bytes.Has(endBlock, sizeof(SizeHolder))) {
        problem = "its allocator's bounds are wrong";
        return false;
    }
    bool previousAllocated = true;  // the end block precedes the first one
    std::uint64_t previousUnits = 0;
    std::uint64_t at = firstBlock;
    while (at < endBlock) {
        if (blocks.size() == MaxBlocks) {
            problem = "its allocator has more than " + std::to_string(MaxBlocks) + " blocks";
            return false;
        }
        SizeHolder holder{};
        bytes.Read(at, holder);
        const std::uint64_t units = holder.sizeAndFlags & BlockUnitsMask;
        const bool allocated = (holder.sizeAndFlags & AllocatedFlag) != 0;
        const bool markedPrevious = (holder.sizeAndFlags & PreviousAllocatedFlag) != 0;
        if (units < BlockCtrlUnits || units > (endBlock - at) / Alignment) {
            problem = "an allocator block at " + std::to_string(at) + " has a wrong size";
            return false;
        }
        if (markedPrevious != previousAllocated ||
            (!previousAllocated && holder.previousSize != previousUnits)) {
            problem = "an allocator block at " + std::to_string(at) +
                      " disagrees with the block before it";
            return false;
        }
        if (!allocated && !previousAllocated) {
            problem = "two free allocator blocks lie side by side at " + std::to_string(at);
            return false;
        }
        blocks.push_back(Block{at, units, allocated});
        previousAllocated = allocated;
        previousUnits = units;
        at += units * Alignment;
    }
    SizeHolder end{};
    bytes.Read(endBlock, end);
    const bool endPrevious = (end.sizeAndFlags & PreviousAllocatedFlag) != 0;
    if (at != endBlock || (end.sizeAndFlags & AllocatedFlag) == 0 ||
        (end.sizeAndFlags & BlockUnitsMask) != (endBlock - firstBlock) / Alignment ||
        endPrevious != previousAllocated ||
        (!previousAllocated && end.previousSize != previousUnits)) {
        problem = "the allocator's end block is wrong";
        return false;
    }
    return true;
}

// The block of `blocks` that starts at `offset`, or null.
const Block* BlockAt(const std::vector<Block>& blocks, std::uint64_t offset) {
    auto it = std::lower_bound(blocks.begin(), blocks.end(), offset,
                               [](const Block& b, std::uint64_t o) { return b.offset < o; });
    return it != blocks.end() && it->offset == offset ? &*it : nullptr;
}

// A compact red-black tree of Boost.Intrusive, checked as a whole before anyone follows its
// links: `count` nodes, each accepted by `nodeOk`, reached once from the root, every child
// pointing back to its parent, red-black colours consistent, the header's left and right the
// smallest and largest node, in-order keys ascending (`less`; equal keys allowed when
// `!strict`). The nodes are returned in order.
template <class NodeOk, class Less>
class TreeCheck {
public:
    TreeCheck(const Bytes& bytes, NodeOk nodeOk, Less less, bool strict)
        : bytes_(bytes), nodeOk_(nodeOk), less_(less), strict_(strict) {}

    bool Run(std::uint64_t headerAt, std::uint64_t count, std::vector<std::uint64_t>& nodes,
             std::string& problem) {
        TreeNode header{};
        if (!bytes_.Read(headerAt, header)) {
            problem = "a tree lies outside the mapping";
            return false;
        }
        std::uint64_t left = 0, right = 0, root = 0;
        const bool hasLeft = Bytes::Follow(headerAt + offsetof(TreeNode, left), header.left, left);
        const bool hasRight =
            Bytes::Follow(headerAt + offsetof(TreeNode, right), header.right, right);
        const bool hasRoot =
            Bytes::Follow(headerAt + offsetof(TreeNode, parent), header.parent & ~ColourMask, root);
        if ((header.parent & ColourMask) != 0 || !hasLeft || !hasRight) {
            problem = "a tree's header is wrong";
            return false;
        }
        if (!hasRoot) {
            if (count != 0 || left != headerAt || right != headerAt) {
                problem = "an empty tree's header is wrong";
                return false;
            }
            return true;
        }
        if (count > MaxTreeNodes) {
            problem = "a tree records " + std::to_string(count) + " nodes";
            return false;
        }
        headerAt_ = headerAt;
        std::uint64_t blackHeight = 0;
        if (!Visit(root, headerAt, 0, blackHeight, nodes, problem)) {
            return false;
        }
        if (IsRed(root)) {
            problem = "a tree's root is red";
            return false;
        }
        if (nodes.size() != count || left != nodes.front() || right != nodes.back()) {
            problem = "a tree's header disagrees with its nodes";
            return false;
        }
        return true;
    }

private:
    bool IsRed(std::uint64_t node) const {
        TreeNode links{};
        bytes_.Read(node, links);
        return (links.parent & ColourMask) == 0;
    }

    bool Visit(std::uint64_t node, std::uint64_t parent, int depth, std::uint64_t& blackHeight,
               std::vector<std::uint64_t>& nodes, std::string& problem) {
        TreeNode links{};
        if (depth > MaxTreeDepth || node % alignof(TreeNode) != 0 || node == headerAt_ ||
            !bytes_.Read(node, links) || !nodeOk_(node)) {
            problem = "a tree node lies outside its place";
            return false;
        }
        std::uint64_t up = 0;
        if (!Bytes::Follow(node + offsetof(TreeNode, parent), links.parent & ~ColourMask, up) ||
            up != parent) {
            problem = "a tree node does not point back to its parent";
            return false;
        }
        const bool red = (links.parent & ColourMask) == 0;
        std::uint64_t heights[2] = {0, 0};
        for (int side = 0; side < 2; ++side) {
            const OffsetType raw = side == 0 ? links.left : links.right;
            const std::uint64_t at =
                node + (side == 0 ? offsetof(TreeNode, left) : offsetof(TreeNode, right));
            std::uint64_t child = 0;
            if (side == 1 && !Append(node, nodes, problem)) {
                return false;
            }
            if (!Bytes::Follow(at, raw, child)) {
                continue;
            }
            if (red && bytes_.Has(child, sizeof(TreeNode)) && IsRed(child)) {
                problem = "a red tree node has a red child";
                return false;
            }
            if (!Visit(child, node, depth + 1, heights[side], nodes, problem)) {
                return false;
            }
        }
        if (heights[0] != heights[1]) {
            problem = "a tree's black heights differ";
            return false;
        }
        blackHeight = heights[0] + (red ? 0 : 1);
        return true;
    }

    // In-order append with the order and uniqueness checks.
    bool Append(std::uint64_t node, std::vector<std::uint64_t>& nodes, std::string& problem) {
        if (nodes.size() >= MaxTreeNodes) {
            problem = "a tree has more than " + std::to_string(MaxTreeNodes) + " nodes";
            return false;
        }
        if (!nodes.empty()) {
            const std::uint64_t last = nodes.back();
            if (less_(node, last) || (strict_ && !less_(last, node))) {
                problem = "a tree is out of order";
                return false;
            }
        }
        nodes.push_back(node);
        return true;
    }

    const Bytes& bytes_;
    NodeOk nodeOk_;
    Less less_;
    bool strict_;
    std::uint64_t headerAt_ = 0;
};

template <class NodeOk, class Less>
bool CheckTree(const Bytes& bytes, std::uint64_t headerAt, std::uint64_t count, NodeOk nodeOk,
               Less less, bool strict, std::vector<std::uint64_t>& nodes, std::string& problem) {
    return TreeCheck<NodeOk, Less>(bytes, nodeOk, less, strict)
        .Run(headerAt, count, nodes, problem);
}

// The entries of the index tree whose header node is at `treeAt`, checked as a tree before any
// entry is read further. Each entry must lie past the segment manager, its name inside the
// mapping, and (when the allocator's blocks are known) inside one allocated block of which it is
// the start. False, with `problem` set, otherwise.
bool WalkIndex(const Bytes& bytes, std::uint64_t treeAt, std::uint64_t count,
               std::uint64_t entriesFrom, const std::vector<Block>* blocks,
               std::vector<IndexEntry>& entries, std::string& problem) {
    auto entryAt = [&bytes](std::uint64_t node) {
        IndexEntry entry;
        entry.node = node;
        bytes.Read(node + EntryHeaderAt, entry.header);
        const unsigned alignment = entry.header.valueAlignment;
        entry.valueOffset =
            node + EntryHeaderAt + RoundUp(sizeof(BlockHeader), alignment == 0 ? 1 : alignment);
        entry.nameOffset = entry.valueOffset + entry.header.valueBytes;  // 1-byte characters
        return entry;
    };
    auto nodeOk = [&](std::uint64_t node) {
        if (node < entriesFrom || !bytes.Has(node, EntryHeaderAt + sizeof(BlockHeader))) {
            return false;
        }
        const IndexEntry entry = entryAt(node);
        // Boost's own lookups compare the key with every entry's name on their path, rounding
        // with a power-of-two mask: an entry whose name lies outside the mapping is damage.
        const unsigned alignment = entry.header.valueAlignment;
        const std::uint64_t nameEnd = entry.nameOffset + entry.header.nameLength + 1;
        if (alignment == 0 || (alignment & (alignment - 1)) != 0 ||
            (entry.header.allocTypeAndCharSize & 0x1f) != 1 ||
            !bytes.Has(entry.nameOffset, nameEnd - entry.nameOffset)) {
            return false;
        }
        if (blocks == nullptr) {
            return true;
        }
        const Block* block =
            node >= AllocatedCtrlBytes ? BlockAt(*blocks, node - AllocatedCtrlBytes) : nullptr;
        return block != nullptr && block->allocated &&
               nameEnd <= block->offset + block->units * Alignment + UsableByPreviousChunk;
    };
    // Boost orders entries by name length, then by the names' bytes.
    auto less = [&](std::uint64_t a, std::uint64_t b) {
        const IndexEntry x = entryAt(a);
        const IndexEntry y = entryAt(b);
        if (x.header.nameLength != y.header.nameLength) {
            return x.header.nameLength < y.header.nameLength;
        }
        std::string nx(x.header.nameLength, '\0'), ny(y.header.nameLength, '\0');
        bytes.Copy(x.nameOffset, &nx[0], nx.size());
        bytes.Copy(y.nameOffset, &ny[0], ny.size());
        return nx < ny;
    };
    std::vector<std::uint64_t> nodes;
    std::string treeProblem;
    if (!CheckTree(bytes, treeAt, count, nodeOk, less, true, nodes, treeProblem)) {
        problem = "its name index is damaged: " + treeProblem;
        return false;
    }
    for (std::uint64_t node : nodes) {
        entries.push_back(entryAt(node));
    }
    return true;
}

// The allocator's tree of free blocks: exactly the free blocks of the chain, ordered by size.
bool CheckFreeTree(const Bytes& bytes, std::uint64_t treeAt, std::uint64_t count,
                   const std::vector<Block>& blocks, std::string& problem) {
    auto nodeOk = [&blocks](std::uint64_t node) {
        const Block* block = node >= FreeNodeAt ? BlockAt(blocks, node - FreeNodeAt) : nullptr;
        return block != nullptr && !block->allocated;
    };
    auto less = [&blocks](std::uint64_t a, std::uint64_t b) {
        return BlockAt(blocks, a - FreeNodeAt)->units < BlockAt(blocks, b - FreeNodeAt)->units;
    };
    std::vector<std::uint64_t> nodes;
    std::string treeProblem;
    if (!CheckTree(bytes, treeAt, count, nodeOk, less, false, nodes, treeProblem)) {
        problem = "its free-block tree is damaged: " + treeProblem;
        return false;
    }
    const std::size_t free =
        std::count_if(blocks.begin(), blocks.end(), [](const Block& b) { return !b.allocated; });
    if (free != nodes.size()) {
        problem = "its free-block tree misses free blocks";
        return false;
    }
    return true;
}

bool NameIs(const Bytes& bytes, const IndexEntry& entry, const char* name) {
    const std::uint64_t length = std::strlen(name);
    return (entry.header.allocTypeAndCharSize & 0x1f) == 1 && entry.header.nameLength == length &&
           bytes.Equals(entry.nameOffset, name, length);
}

// The value region of `entry` when it has the expected size and alignment and lies inside the
// mapping.
Region ValueRegion(const Bytes& bytes, const IndexEntry& entry, std::uint64_t expectedSize,
                   std::uint64_t alignment) {
    if (entry.header.valueBytes != expectedSize || entry.valueOffset % alignment != 0) {
        return Region();
    }
    return MakeRegion(bytes, entry.valueOffset, expectedSize);
}

void SetProblem(HeaderImage& h, Verdict verdict, const std::string& problem) {
    if (h.problem.empty()) {
        h.verdict = verdict;
        h.problem = problem;
    }
}

void FindOutputBuffer(const Bytes& bytes, HeaderImage& h, std::uint64_t firstBlock,
                      const std::vector<Block>* blocks) {
    if (h.outputHandle < 0) {
        return;
    }
    // A handle is the allocation's offset from the start of the mapping.
    const std::uint64_t data = static_cast<std::uint64_t>(h.outputHandle);
    SizeHolder holder{};
    if (data < firstBlock + AllocatedCtrlBytes || data % Alignment != 0 ||
        !bytes.Read(data - AllocatedCtrlBytes, holder) ||
        (holder.sizeAndFlags & AllocatedFlag) == 0) {
        return;
    }
    if (blocks != nullptr) {
        const Block* block = BlockAt(*blocks, data - AllocatedCtrlBytes);
        if (block == nullptr || !block->allocated) {
            return;
        }
    }
    const std::uint64_t units = holder.sizeAndFlags & BlockUnitsMask;
    if (units < AllocatedCtrlUnits) {
        return;
    }
    h.outputBuffer =
        MakeRegion(bytes, data, (units - AllocatedCtrlUnits) * Alignment + UsableByPreviousChunk);
}

}  // namespace

bool HeaderImage::Complete() const {
    if (!headerMutex.present) {
        return false;
    }
    for (const NamedObject& object : objects) {
        if (!object.value.present) {
            return false;
        }
    }
    return true;
}

HeaderImage ParseHeader(const void* base, std::size_t size) {
    return ParseHeader(MemorySource(base, size));
}

HeaderImage ParseHeader(const ByteSource& source) {
    const Bytes bytes(source);
    HeaderImage h;
    if (!CheckCreation(bytes, h)) {
        return h;
    }
    h.managerOffset = SegmentUserOffset;
    const std::uint64_t m = h.managerOffset;
    ManagerLayout manager;
    if (!bytes.Read(m, manager)) {
        h.verdict = Verdict::Foreign;
        h.problem = "too small for a managed segment";
        return h;
    }
    h.hasManager = true;
    h.recordedSize = m + manager.allocator.size;
    h.namedCount = manager.indexes.named.count;
    h.uniqueCount = manager.indexes.unique.count;
    h.allocatorMutex =
        MakeRegion(bytes, m + offsetof(ManagerLayout, allocator.mutex), sizeof(pthread_mutex_t));
    h.indexMutex =
        MakeRegion(bytes, m + offsetof(ManagerLayout, indexes.mutex), sizeof(pthread_mutex_t));
    h.allocatorMutexOwnerThread = bytes.OwnerThread(h.allocatorMutex);
    h.indexMutexOwnerThread = bytes.OwnerThread(h.indexMutex);

    // Boost's get_free_memory: managed size minus allocated bytes minus the first block offset.
    const std::uint64_t firstBlock =
        m +
        RoundUp(sizeof(Allocator) + std::uint64_t(manager.allocator.extraHeaderBytes), Alignment);
    const std::uint64_t used = std::uint64_t(manager.allocator.allocated) + (firstBlock - m);
    h.freeBytes = manager.allocator.size >= used ? manager.allocator.size - used : 0;

    h.verdict = Verdict::Valid;
    const bool sizeOk = h.recordedSize == h.mappedSize;
    if (!sizeOk) {
        SetProblem(h, Verdict::Damaged,
                   "the segment records " + std::to_string(h.recordedSize) +
                       " bytes, the object has " + std::to_string(h.mappedSize));
    }
    // The allocator: its header, then every block and the tree of free blocks. Boost allocates
    // by walking that tree and splitting and merging neighbouring blocks, so all of it is checked
    // before the library lets Boost find or construct anything.
    std::vector<Block> blocks;
    bool blocksOk = false;
    if (sizeOk) {
        std::string allocatorProblem;
        const std::uint64_t endBlock =
            m + manager.allocator.size / Alignment * Alignment - EndCtrlBytes;
        if (manager.allocator.extraHeaderBytes != sizeof(Manager) - sizeof(Allocator)) {
            allocatorProblem = "its allocator's header is wrong";
        } else if (WalkBlocks(bytes, firstBlock, endBlock, blocks, allocatorProblem) &&
                   CheckFreeTree(bytes, m + offsetof(ManagerLayout, allocator.freeBlocks.header),
                                 manager.allocator.freeBlocks.count, blocks, allocatorProblem)) {
            blocksOk = true;
        }
        if (!blocksOk) {
            SetProblem(h, Verdict::Damaged, allocatorProblem);
        }
    }

    const std::uint64_t entriesFrom = m + sizeof(Manager);
    std::vector<IndexEntry> unique;
    std::vector<IndexEntry> named;
    std::string walkProblem;
    const std::vector<Block>* knownBlocks = blocksOk ? &blocks : nullptr;
    const bool uniqueOk = WalkIndex(bytes, m + offsetof(ManagerLayout, indexes.unique.header),
                                    h.uniqueCount, entriesFrom, knownBlocks, unique, walkProblem);
    const bool namedOk =
        uniqueOk && WalkIndex(bytes, m + offsetof(ManagerLayout, indexes.named.header),
                              h.namedCount, entriesFrom, knownBlocks, named, walkProblem);

    const char* mutexName = typeid(bi::interprocess_mutex).name();
    bool anyFound = false;
    for (const IndexEntry& entry : unique) {
        if (NameIs(bytes, entry, mutexName)) {
            anyFound = true;
            h.headerMutex =
                ValueRegion(bytes, entry, sizeof(bi::interprocess_mutex), alignof(pthread_mutex_t));
        }
    }
    h.headerMutexOwnerThread = bytes.OwnerThread(h.headerMutex);
    for (const IndexEntry& entry : named) {
        for (int i = 0; i < HeaderObjectCount; ++i) {
            if (NameIs(bytes, entry, HeaderObjectNames[i])) {
                anyFound = true;
                NamedObject& object = h.objects[i];
                object.found = true;
                object.recordedSize = entry.header.valueBytes;
                object.value = ValueRegion(bytes, entry, ObjectSizes[i], ObjectAlignments[i]);
            }
        }
    }
    if (!anyFound && (!sizeOk || !uniqueOk || !namedOk)) {
        h.verdict = Verdict::Foreign;
        h.problem = "not a slot header segment";
        return h;
    }
    if (!uniqueOk || !namedOk) {
        SetProblem(h, Verdict::Damaged, walkProblem);
    }

    // Values, copied where present.
    if (h.objects[LastWriteTime].value.present) {
        bytes.Read(h.objects[LastWriteTime].value.offset, h.lastWrite);
    }
    if (h.objects[OutputDataSize].value.present) {
        bytes.Read(h.objects[OutputDataSize].value.offset, h.outputDataSize);
    }
    if (h.objects[OutputHandle].value.present) {
        bytes.Read(h.objects[OutputHandle].value.offset, h.outputHandle);
        FindOutputBuffer(bytes, h, firstBlock, knownBlocks);
    }

    if (blocksOk && uniqueOk && namedOk) {
        for (const Block& block : blocks) {
            const std::uint64_t data = block.offset + AllocatedCtrlBytes;
            auto starts = [data](const IndexEntry& entry) { return entry.node == data; };
            if (!block.allocated || block.units < AllocatedCtrlUnits ||
                std::any_of(unique.begin(), unique.end(), starts) ||
                std::any_of(named.begin(), named.end(), starts) ||
                (h.outputBuffer.present && h.outputBuffer.offset == data)) {
                continue;
            }
            const Region stray =
                MakeRegion(bytes, data,
                           (block.units - AllocatedCtrlUnits) * Alignment + UsableByPreviousChunk);
            if (stray.present) {
                h.strayAllocations.push_back(stray);
            }
        }
    }

    // Which of the header's parts exist, in the order they are built: the header mutex, the
    // named objects, the output buffer with its handle. A prefix is a header still being built
    // (or whose builder died); anything else, or a part in the wrong shape, is damage.
    bool prefixEnded = !h.headerMutex.present;
    bool gap = false;
    for (const NamedObject& object : h.objects) {
        if (object.found && !object.value.present) {
            SetProblem(h, Verdict::Damaged, "a named object has the wrong size or place");
        }
        if (object.found && prefixEnded) {
            gap = true;
        }
        if (!object.found) {
            prefixEnded = true;
        }
    }
    if (gap) {
        SetProblem(h, Verdict::Damaged, "the slot header lacks some of its parts");
    }
    // The handle is constructed before the buffer is allocated and stored in it, so a bad
    // handle is damage only once the header was built past it.
    if (h.objects[OutputHandle].value.present && !h.outputBuffer.present &&
        h.objects[WriteCondition].found) {
        SetProblem(h, Verdict::Damaged, "the output buffer handle does not name an allocation");
    }
    if (h.outputBuffer.present && h.outputDataSize > h.outputBuffer.size) {
        SetProblem(h, Verdict::Damaged, "the output buffer's data size exceeds the buffer");
    }
    if (!h.Complete()) {
        SetProblem(h, Verdict::Unfinished,
                   h.headerMutex.present ? "the slot header is not fully built"
                                         : "the header mutex is not built");
    }
    return h;
}

}  // namespace SlotImage
