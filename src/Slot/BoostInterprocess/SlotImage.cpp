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
const SizeType AllocatedFlag = SizeType(1) << 31;

// Expected sizes and alignments of the named objects, in HeaderObject order.
const std::uint64_t ObjectSizes[HeaderObjectCount] = {sizeof(boost::posix_time::ptime),
                                                      sizeof(unsigned int), sizeof(int),
                                                      sizeof(shared::InterprocCondition)};
const std::uint64_t ObjectAlignments[HeaderObjectCount] = {alignof(boost::posix_time::ptime),
                                                           alignof(unsigned int), alignof(int),
                                                           alignof(shared::InterprocCondition)};

static_assert(std::is_trivially_copyable<boost::posix_time::ptime>::value,
              "a ptime is copied out of the segment bytewise");

// Bounded traversal: a slot header has four named entries and one unique one.
const std::size_t MaxIndexEntries = 1024;

// ---- Reading bytes --------------------------------------------------------------------------

class Bytes {
public:
    Bytes(const void* base, std::size_t size)
        : base_(static_cast<const unsigned char*>(base)), size_(base == nullptr ? 0 : size) {}

    std::uint64_t Size() const { return size_; }

    // Whether [offset, offset + length) lies inside the mapping.
    bool Has(std::uint64_t offset, std::uint64_t length) const {
        return offset <= size_ && length <= size_ - offset;
    }

    template <class T>
    bool Read(std::uint64_t offset, T& out) const {
        static_assert(std::is_trivially_copyable<T>::value, "copied bytewise");
        if (!Has(offset, sizeof(T))) {
            return false;
        }
        std::memcpy(&out, base_ + offset, sizeof(T));
        return true;
    }

    // Whether the bytes at `offset` are `length` bytes equal to `text`.
    bool Equals(std::uint64_t offset, const char* text, std::uint64_t length) const {
        return Has(offset, length) && std::memcmp(base_ + offset, text, length) == 0;
    }

    bool AllZero() const {
        for (std::uint64_t i = 0; i < size_; ++i) {
            if (base_[i] != 0) {
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
        // width; base cancels out, so the same holds for offsets from base.
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
    const unsigned char* base_;
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

// Index and message checks of a queue whose counts are valid.
void CheckQueueIndex(const Bytes& bytes, QueueImage& q) {
    const std::uint64_t entrySize = sizeof(OffsetType);
    std::vector<bool> used(q.capacity, false);
    std::vector<std::uint64_t> slotOf(q.capacity, 0);
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
        slotOf[i] = slot;
    }
    q.indexValid = true;
    for (std::uint64_t k = 0; k < q.waiting; ++k) {
        const std::uint64_t position = (q.firstIndex + k) % q.capacity;
        const std::uint64_t message = q.messages.offset + slotOf[position] * q.messageStride;
        QueueSize length = 0;
        if (!bytes.Read(message + MessageLengthAt, length) || length > q.maxMessageSize) {
            q.problem = "waiting message " + std::to_string(k) + " is longer than the maximum";
            return;
        }
    }
    q.messagesValid = true;
}

}  // namespace

const char* const HeaderObjectNames[HeaderObjectCount] = {
    "last_write_tstamp", "output_buffer_data_size", "output_buffer_handle", "cond_on_write"};

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

CreationState ReadCreationState(const void* base, std::size_t size) {
    std::uint32_t word = 0;
    if (!Bytes(base, size).Read(0, word)) {
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
    const Bytes bytes(base, size);
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

// Walks the tree whose header node is at `treeAt`, collecting at most MaxIndexEntries entries
// that lie inside the mapping past the segment manager. False, with `problem` set, when a link
// leaves the mapping, loops, or the walk exceeds the limit.
bool WalkIndex(const Bytes& bytes, std::uint64_t treeAt, std::uint64_t entriesFrom,
               std::vector<IndexEntry>& entries, std::string& problem) {
    OffsetType rootRaw = 0;
    if (!bytes.Read(treeAt + offsetof(TreeNode, parent), rootRaw)) {
        problem = "index outside the mapping";
        return false;
    }
    std::vector<std::uint64_t> pending;
    std::vector<std::uint64_t> seen;
    std::uint64_t root = 0;
    if (Bytes::Follow(treeAt + offsetof(TreeNode, parent), rootRaw & ~ColourMask, root)) {
        pending.push_back(root);
    }
    while (!pending.empty()) {
        const std::uint64_t node = pending.back();
        pending.pop_back();
        if (node < entriesFrom || node % alignof(TreeNode) != 0 ||
            !bytes.Has(node, EntryHeaderAt + sizeof(BlockHeader))) {
            problem = "an index entry lies outside the segment's allocations";
            return false;
        }
        for (std::uint64_t s : seen) {
            if (s == node) {
                problem = "the index loops";
                return false;
            }
        }
        if (seen.size() >= MaxIndexEntries) {
            problem = "the index has more than " + std::to_string(MaxIndexEntries) + " entries";
            return false;
        }
        seen.push_back(node);
        IndexEntry entry;
        entry.node = node;
        bytes.Read(node + EntryHeaderAt, entry.header);
        entry.valueOffset =
            node + EntryHeaderAt +
            RoundUp(sizeof(BlockHeader),
                    entry.header.valueAlignment == 0 ? 1 : entry.header.valueAlignment);
        entry.nameOffset = entry.valueOffset + entry.header.valueBytes;  // 1-byte characters
        // Boost's own lookups compare the key with every entry's name on their path, rounding
        // with a power-of-two mask: an entry whose name lies outside the mapping is damage.
        const unsigned alignment = entry.header.valueAlignment;
        if (alignment == 0 || (alignment & (alignment - 1)) != 0 ||
            !bytes.Has(entry.nameOffset, std::uint64_t(entry.header.nameLength) + 1)) {
            problem = "an index entry's name lies outside the mapping";
            return false;
        }
        entries.push_back(entry);
        TreeNode links{};
        bytes.Read(node, links);
        std::uint64_t child = 0;
        if (Bytes::Follow(node + offsetof(TreeNode, left), links.left, child)) {
            pending.push_back(child);
        }
        if (Bytes::Follow(node + offsetof(TreeNode, right), links.right, child)) {
            pending.push_back(child);
        }
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

void FindOutputBuffer(const Bytes& bytes, HeaderImage& h, std::uint64_t firstBlock) {
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
    const Bytes bytes(base, size);
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
    const std::uint64_t entriesFrom = m + sizeof(Manager);
    std::vector<IndexEntry> unique;
    std::vector<IndexEntry> named;
    std::string walkProblem;
    const bool uniqueOk = WalkIndex(bytes, m + offsetof(ManagerLayout, indexes.unique.header),
                                    entriesFrom, unique, walkProblem);
    const bool namedOk =
        uniqueOk && WalkIndex(bytes, m + offsetof(ManagerLayout, indexes.named.header), entriesFrom,
                              named, walkProblem);

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
    } else if (unique.size() != h.uniqueCount || named.size() != h.namedCount) {
        SetProblem(h, Verdict::Damaged, "its indexes record other counts than they hold");
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
        FindOutputBuffer(bytes, h, firstBlock);
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
