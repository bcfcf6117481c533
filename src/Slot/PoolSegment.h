// SPDX-License-Identifier: Apache-2.0
#pragma once

// Internals of the zero-copy pools: the layout of a pool's file, its mapping and the lock-free
// protocol on it. Not installed.

#include <Slot/AbortSlotCreationException.h>
#include <Slot/Export.h>
#include <Slot/PoolFactory.h>

#include <shared/RobustMutex.h>

#include <log4cxx/logger.h>

#include <pthread.h>
#include <sys/types.h>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace shared {
class WriteCounters;
}

namespace Slot {

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "shared words are lock-free");
static_assert(std::atomic<std::uint32_t>::is_always_lock_free, "shared words are lock-free");
static_assert(sizeof(std::atomic<std::uint32_t>) == 4, "the futex word is a plain u32");

// A pool's file, in address order (all fields fixed-width and 8-byte aligned, identical on
// i386 and x86_64; every word is written with atomic operations by any attached process):
//
//   PoolHeader         the geometry (written once by the creator before the file is renamed
//                      into place), then one cache line each for: what publishing writes and
//                      readers poll (wake word, tail, latest word, sleepers); the head,
//                      written by the queue's reader only; what only writers write (sequence
//                      counter) and the queue's reader claim; the writers' robust mutex (queue
//                      kind)
//   PoolAttachmentSlot[64]   one per attached writer or reader object: pid, start time and
//                      pid namespace
//   PoolBlockSlot[blockCount]  one cache line per block
//   u64 ring[blockCount]       queue kind: (sequence << 8 | block index), FIFO
//   data                       block i at dataOffset + i * stride, stride = maxBlockSize
//                              rounded up to 64 bytes
//
// The lines are split by who writes them, so that one hand-over moves as few cache lines
// between the writer's and the reader's cores as it can: the writer's publish writes the block's
// line (already its own since the loan), one ring entry and the publish line; the reader reads
// those three and writes the head's line and the block's line only after the delivery.
//
// No offset is followed from the file: every offset is computed from maxBlockSize and
// blockCount, which are checked against the file's real size when it is opened, and every
// block index read from a shared word is checked against blockCount before use.
constexpr std::uint64_t PoolMagic = 0x4c4f4f50544f4c53ull;  // "SLOTPOOL"
constexpr std::uint32_t PoolLayoutVersion = 4;
constexpr std::size_t PoolCacheLine = 64;
enum PoolKind : std::uint32_t { LatestKind = 1, QueueKind = 2 };

// Block states (PoolBlockSlot::state): the top two bits, the rest an attachment index or a
// sequence number.
constexpr std::uint64_t StateMask = 3ull << 62;
constexpr std::uint64_t StateFree = 0;
constexpr std::uint64_t StateLoaned = 1ull << 62;     // | attachment index
constexpr std::uint64_t StatePublished = 2ull << 62;  // | sequence: latest or in the ring
constexpr std::uint64_t StateConsumed = 3ull << 62;   // | sequence: popped from the ring

// Attachment words (PoolAttachmentSlot::word): 0 when the entry is free.
constexpr std::uint64_t AttachInUse = 1ull << 63;
constexpr std::uint64_t AttachReaping = 1ull << 62;     // | reaper pid << 32: being reaped
constexpr std::uint64_t AttachPidMask = 0xffffffffull;  // the owner's pid

// The latest word and ring entries: (sequence << 8) | index; 0 = none (sequences start at 1).
inline std::uint64_t BlockRef(std::uint64_t sequence, unsigned index) {
    return (sequence << 8) | index;
}

// Queue kind: the pushed word, the entry pushed last with its size and the low bits of its ring
// position (in PoolHeader::latest, beside the tail): size << 24 | position << 8 | index. While
// the tail is one past the head, the word of a later push differs from the head in those bits
// (the ring holds fewer than 2^16 entries).
constexpr std::uint64_t PushedPositionMask = 0xffff;
inline std::uint64_t PushedWord(std::uint64_t position, unsigned index, std::uint64_t size) {
    return (size << 24) | ((position & PushedPositionMask) << 8) | index;
}
inline unsigned PushedIndex(std::uint64_t word) {
    return static_cast<unsigned>(word & 0xff);
}
inline std::uint64_t PushedPosition(std::uint64_t word) {
    return (word >> 8) & PushedPositionMask;
}
inline std::uint64_t PushedSize(std::uint64_t word) {
    return word >> 24;
}
static_assert(MaxPoolBlockSize <= 0xffffffffu, "a size fits the pushed word");
static_assert(MaxPoolBlocks <= 256, "a block index fits 8 bits");

struct PoolHeader {
    // Geometry: written once by the creator.
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t kind;
    std::uint64_t maxBlockSize;
    std::uint64_t blockCount;
    std::uint64_t stride;
    std::uint64_t attachmentOffset;
    std::uint64_t blockTableOffset;
    std::uint64_t ringOffset;
    std::uint64_t dataOffset;
    std::uint64_t totalSize;
    std::uint32_t writerMutexBits;  // queue kind: the creator's pointer width (32 or 64), the
                                    // writers' mutex is laid out for it
    unsigned char geometryEnd[44];
    // Written by every publish, polled by readers.
    std::atomic<std::uint32_t> publishCount;  // futex word: incremented by every publish
    std::uint32_t publishReserved;
    std::atomic<std::uint64_t> tail;      // queue kind: entries pushed (the commit point)
    std::atomic<std::uint64_t> latest;    // latest kind: BlockRef of the latest block;
                                          // queue kind: the pushed word (PushedWord)
    std::atomic<std::uint64_t> sleepers;  // one bit per attachment whose reader sleeps on
                                          // publishCount (a dead one's is reaped)
    unsigned char publishLineEnd[32];
    // Written by the queue's reader only.
    std::atomic<std::uint64_t> head;  // queue kind: entries popped
    unsigned char headLineEnd[56];
    // Written by writers only (and the reader claim, once per reader).
    std::atomic<std::uint64_t> nextSequence;  // latest kind: last sequence handed out (the
                                              // queue kind's is its tail)
    std::atomic<std::uint64_t> readerClaim;   // queue kind: ClaimedEntry, generation
    unsigned char writerLineEnd[48];
    unsigned char writerMutex[64];  // queue kind: robust mutex around pushes
};
// The queue reader's claim word: the claiming attachment's index + 1 in the low byte (0: no
// reader), a generation above it. Every claim takes the next generation, so a word read before
// a claim was given up never matches a later claim, even one of the same entry: whoever
// exchanges a claim it judged left over cannot remove a newer one.
inline unsigned ClaimedEntry(std::uint64_t word) {
    return static_cast<unsigned>(word & 0xff);
}
inline std::uint64_t NewClaim(std::uint64_t word, unsigned index) {
    return (((word >> 8) + 1) << 8) | (index + 1);
}
inline std::uint64_t ClaimGivenUp(std::uint64_t word) {
    return word & ~std::uint64_t{0xff};
}

static_assert(sizeof(pthread_mutex_t) <= 64, "the writers' mutex fits its area");
// glibc lays its mutex out differently for 32- and 64-bit processes: a queue pool is shared
// by processes of its creator's width only.
constexpr std::uint32_t PoolPointerBits = sizeof(void*) * 8;
static_assert(offsetof(PoolHeader, publishCount) == 2 * PoolCacheLine, "publish line");
static_assert(offsetof(PoolHeader, head) == 3 * PoolCacheLine, "head line");
static_assert(offsetof(PoolHeader, nextSequence) == 4 * PoolCacheLine, "writers' line");
static_assert(offsetof(PoolHeader, writerMutex) == 5 * PoolCacheLine, "mutex line");
static_assert(sizeof(PoolHeader) == 6 * PoolCacheLine, "the header is the same on every target");

// An attachment's owner is judged by a lock: it holds an open-file-description lock on byte
// <index> of the pool file (PoolOwnerLockByte) from before it takes the entry until after it
// frees it, on a close-on-exec descriptor of its own that it keeps open for the attachment's
// life. The kernel drops the lock when the owner dies or execs; any process can test it. An
// owner in the judge's pid namespace whose pid is gone or names a later process (another start
// time) is dead too, lock or not. A reaper holds the lock on byte PoolReaperLockByte(index)
// while it reaps the entry.
struct PoolAttachmentSlot {
    std::atomic<std::uint64_t> word;                // AttachInUse | pid, see above
    std::atomic<std::uint64_t> startTime;           // the process's start time (0: not written yet)
    std::atomic<std::uint64_t> pidNamespace;        // inode of its /proc/self/ns/pid (0: not
                                                    // written yet, or unknown)
    std::atomic<std::uint64_t> pidNamespaceDevice;  // and its device
};
static_assert(sizeof(PoolAttachmentSlot) == 32, "fixed layout");
inline std::uint64_t PoolOwnerLockByte(unsigned index) {
    return index;
}
inline std::uint64_t PoolReaperLockByte(unsigned index) {
    return MaxPoolAttachments + index;
}
// A creator holds the lock on this byte of its temporary file until it is renamed into place.
constexpr std::uint64_t PoolCreatorLockByte = 2 * MaxPoolAttachments;

// A pid namespace: the device and inode of /proc/<pid>/ns/pid. Unknown (never equal to any)
// when the inode is 0.
struct PidNamespace {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    bool SameAs(const PidNamespace& other) const {
        return inode != 0 && inode == other.inode && device == other.device;
    }
};
// This process's pid namespace (unknown when /proc/self/ns/pid cannot be read).
PidNamespace OwnPidNamespace();
// The namespace written in an attachment entry.
inline PidNamespace EntryPidNamespace(const PoolAttachmentSlot& entry) {
    PidNamespace ns;
    ns.inode = entry.pidNamespace.load();
    ns.device = entry.pidNamespaceDevice.load();
    return ns;
}
// Whether a process other than the caller's open file description `fd` holds a lock on `byte`
// of its file. True when it cannot be told (a live process is never taken for dead).
bool PoolByteLocked(int fd, std::uint64_t byte);

// One cache line per block (the table starts on a line): neighbouring blocks never share one.
struct PoolBlockSlot {
    std::atomic<std::uint64_t> state;     // Free / Loaned / Published / Consumed
    std::atomic<std::uint64_t> sequence;  // written by the loaner before publishing
    std::atomic<std::uint64_t> size;
    std::atomic<std::uint64_t> publishTimeNs;  // CLOCK_REALTIME
    std::atomic<std::uint64_t> holders;        // one bit per attachment holding the block
    std::atomic<std::uint32_t> taken;          // latest kind: set by the first reader to hold it
    std::uint32_t reserved;
    unsigned char lineEnd[16];
};
static_assert(sizeof(PoolBlockSlot) == PoolCacheLine, "fixed layout");

// Offsets and sizes that follow from a block size and count; false when they overflow 64 bits.
struct PoolGeometry {
    std::uint64_t stride = 0;
    std::uint64_t attachmentOffset = 0;
    std::uint64_t blockTableOffset = 0;
    std::uint64_t ringOffset = 0;
    std::uint64_t dataOffset = 0;
    std::uint64_t totalSize = 0;
};
bool ComputePoolGeometry(std::uint64_t maxBlockSize, std::uint64_t blockCount, PoolGeometry& out);

// Why the header (already checked to be at least sizeof(PoolHeader) bytes) does not describe
// a pool that fits `fileSize` bytes, or empty.
std::string PoolHeaderProblem(const PoolHeader& header, std::uint64_t fileSize);

// Latest kind: why the latest word `latest` cannot be one a writer named, or empty. Its sequence
// was handed out before the word was written, so it is at most `nextSequence` read after it;
// a larger one would hold back every later state.
std::string LatestWordProblem(std::uint64_t latest, std::uint64_t nextSequence);

// Whether no process has the pid `pid` any more or, when `startTime` is not 0, the one that has
// it is a later one. A zombie is not gone: a process whose main thread ended shows as one while
// its other threads run on.
bool PoolProcessGone(pid_t pid, std::uint64_t startTime);
// The start time of `pid` from /proc/<pid>/stat (0 when unknown).
std::uint64_t PoolProcessStartTime(pid_t pid);
// Whether the owner of attachment entry number `index`, whose word is `word`, lives: judged
// as PoolAttachmentSlot says by a process of pid namespace `judge`, through its descriptor `fd`
// of the pool file. Reapers and surveys judge alike.
bool PoolOwnerAlive(int fd, unsigned index, const PoolAttachmentSlot& entry, std::uint64_t word,
                    const PidNamespace& judge);

// Thrown (with the text of the refusal it stands for) when the pool's file was removed, or
// removed and made again, while it was being opened or attached: Open and AttachToPool try again.
class PoolGoneException : public AbortSlotCreationException {
public:
    using AbortSlotCreationException::AbortSlotCreationException;
};

// One process's mapping of a pool file. Created or opened by Open; unmapped by the destructor
// (nothing in shared memory is destroyed). Thread-safe: all shared state is atomic.
class PoolSegment {
public:
    // Opens the pool, creating it from `config` when it does not exist. Throws
    // AbortSlotCreationException.
    static std::shared_ptr<PoolSegment> Open(const PoolConfig& config);
    // Opens an existing pool (any kind). Throws AbortSlotCreationException (PoolGoneException
    // when the file went or was replaced meanwhile).
    static std::shared_ptr<PoolSegment> OpenExisting(const std::string& name);
    ~PoolSegment();
    PoolSegment(const PoolSegment&) = delete;
    PoolSegment& operator=(const PoolSegment&) = delete;

    const std::string& name() const { return name_; }
    // The geometry as checked at open: the file's copy is never read again (a stray write there
    // must not move a bound).
    PoolKind kind() const { return kind_; }
    std::size_t maxBlockSize() const { return maxBlockSize_; }
    unsigned blockCount() const { return blockCount_; }
    PoolHeader& header() { return *header_; }
    PoolAttachmentSlot& attachment(unsigned i) { return attachments_[i]; }
    PoolBlockSlot& block(unsigned i) { return blocks_[i]; }
    std::atomic<std::uint64_t>& ring(std::uint64_t n) { return ring_[n % blockCount_]; }
    unsigned char* data(unsigned i) { return data_ + static_cast<std::size_t>(i) * stride_; }
    pthread_mutex_t* writerMutex() {
        return reinterpret_cast<pthread_mutex_t*>(header_->writerMutex);
    }
    // Every lock and unlock of the writers' mutex passes this: a mutex whose kind word is not
    // the robust kind it was made with (overwritten bytes) is refused before glibc sees it.
    const shared::LockWatch* writerWatch() const { return &writerWatch_; }

    // Claims a free attachment entry for this process: reaps dead entries first. `lockFd` is
    // the entry's own descriptor of the file, holding its lock; the caller keeps the variable
    // (registered by its address: a forked child closes its copy and sets it to -1) until
    // Detach. Throws AbortSlotCreationException when all are in use, PoolGoneException when
    // the file was removed or replaced since the segment was opened.
    unsigned Attach(int& lockFd);
    // Frees the entry (the caller released every block it held or loaned) and closes `lockFd`;
    // leaves the entry alone when `lockFd` was closed at a fork (the parent's entry).
    void Detach(unsigned index, int& lockFd);

    // Frees block `index` when nobody can read it any more: Published(s) and no longer the
    // latest block (latest kind) or Consumed (queue kind), with no holders.
    void TryReclaim(unsigned index);
    void TryReclaimAll();
    // Reaps every attachment whose process died: returns its loans and holds, releases its
    // queue claim, logs one ERROR line per process. The number of processes reaped.
    unsigned ReapDead();

    // After a publish: counts it in the wake word and says whether a reader sleeps on it (then
    // WakeSleepers must follow). Both are sequentially consistent, as the sleeper's bit and
    // look in Sleep: either the sleeper sees the new count and does not sleep, or the
    // publisher sees the sleeper and wakes it.
    bool Announce() {
        header_->publishCount.fetch_add(1, std::memory_order_seq_cst);
        return header_->sleepers.load(std::memory_order_seq_cst) != 0;
    }
    void WakeSleepers();
    // Announce and, when needed, WakeSleepers.
    void Wake() {
        if (Announce()) {
            WakeSleepers();
        }
    }
    // Sleeps until publishCount differs from `seen` or `timeoutNs` passed, with the attachment's
    // `bit` set in the sleepers word meanwhile.
    void Sleep(std::uint32_t seen, long timeoutNs, std::uint64_t bit);

    // Queue kind, under the writers' mutex: a head that the reader has reached at least,
    // re-read from the pool only when the one this process saw last leaves no room before
    // `tail` (the head only grows, so an older value errs on the side of a full ring). Keeps
    // the reader's head line out of most publishes.
    std::uint64_t HeadForRoom(std::uint64_t tail) {
        std::uint64_t head = headSeen_.load(std::memory_order_relaxed);
        if (tail - head >= blockCount_) {
            head = header_->head.load(std::memory_order_acquire);
            headSeen_.store(head, std::memory_order_relaxed);
        }
        return head;
    }

    // Latest kind: makes `ref` (BlockRef of a block being published) the latest unless a later
    // sequence is the latest already (its writer took its sequence after this one's and named
    // its block first). The latest word's sequence only grows: a writer delayed between taking
    // its sequence and naming its block never puts back an older state, nor frees the newer
    // block. True when named, with the word it replaced in `other`; false with the later word
    // in `other`. The first exchange is tried with the word this process saw or wrote last (a
    // writer that publishes alone finds it unchanged), so that the latest word's line is not
    // read before it is written.
    bool NameLatest(std::uint64_t ref, std::uint64_t& other) {
        std::uint64_t seen = latestSeen_.load(std::memory_order_relaxed);
        for (;;) {
            if ((seen >> 8) > (ref >> 8)) {
                latestSeen_.store(seen, std::memory_order_relaxed);
                other = seen;
                return false;
            }
            if (header_->latest.compare_exchange_weak(seen, ref)) {
                latestSeen_.store(ref, std::memory_order_relaxed);
                other = seen;
                return true;
            }
        }
    }

    // The reason the pool is damaged, set by whoever found a word out of range ("" = healthy in
    // this process). Logged once.
    void MarkDamaged(const std::string& why);
    bool damaged() const { return damaged_.load(); }

    // Under the writers' mutex (queue kind): frees Published blocks that are in no ring entry
    // (their writer died between publishing the block and committing the ring).
    void SweepOrphans();
    // Wakes sleeping readers of this process and others without a publish (to stop them).
    void Nudge();

    shared::WriteCounters* counters() const { return counters_; }
    log4cxx::LoggerPtr logger() const { return logger_; }

private:
    // `counters`: the name's write counters, looked up before the attachments' registry is
    // locked (two at-fork registries are never held at once: fork takes them in its own order).
    PoolSegment(const std::string& name, int fd, void* base, std::size_t size,
                const PoolHeader& checked, shared::WriteCounters* counters);
    // Returns the loans and holds of the dead entry `index`, marked with this reaper's `myWord`,
    // and frees it: the number of blocks returned.
    unsigned ReapEntry(unsigned index, std::uint64_t myWord);
    // Whether the owner of entry `index` (word `word`, not being reaped) is still attached: its
    // lock is held and, in the pid namespace `mine`, its process is not gone.
    bool OwnerAlive(unsigned index, std::uint64_t word, const PidNamespace& mine);
    // A new open file description of this pool's file (for an attachment's lock). Throws
    // PoolGoneException when the name no longer names this mapping's file.
    int Reopen();

    std::string name_;
    // Tests the owners' locks and holds this process's reaper locks: a description of its own,
    // not the mapping's (-1: closed at a fork, in the child).
    int fd_;
    void* base_;
    std::size_t size_;
    PoolHeader* header_;
    PoolAttachmentSlot* attachments_;
    PoolBlockSlot* blocks_;
    std::atomic<std::uint64_t>* ring_;
    unsigned char* data_;
    std::size_t stride_;
    PoolKind kind_;
    std::size_t maxBlockSize_;
    unsigned blockCount_;
    std::atomic<bool> damaged_{false};
    std::atomic<std::uint64_t> headSeen_{0};
    std::atomic<std::uint64_t> latestSeen_{0};
    std::atomic<std::uint64_t> reapingHere_{0};  // entries a thread of this process reaps
    shared::LockWatch writerWatch_;
    shared::WriteCounters* counters_;
    log4cxx::LoggerPtr logger_;
};

// One attached writer or reader object: its attachment entry, and the in-process counts of its
// holds per block (the holder bit is set while the count is not 0). Detaches when the last
// reference goes (loans and holds keep it).
//
// The counts are atomic, with no lock: a count goes from 0 to 1 only on the reader's thread,
// for a block it is about to deliver, and such a block cannot be one whose holder bit a
// Release on another thread is still about to clear (while that bit is set the block is not
// reclaimed, so it is not delivered again).
class PoolAttachment {
public:
    explicit PoolAttachment(std::shared_ptr<PoolSegment> segment);
    ~PoolAttachment();
    PoolAttachment(const PoolAttachment&) = delete;
    PoolAttachment& operator=(const PoolAttachment&) = delete;

    PoolSegment& segment() { return *segment_; }
    unsigned index() const { return index_; }
    std::uint64_t bit() const { return 1ull << index_; }
    // True in a child forked while the attachment existed: its lock descriptor was closed at
    // the fork. The entry, its holds, loans and claim are the parent's: the child's copies of
    // them go without touching the pool.
    bool Inherited() const { return lockFd_ < 0; }

    // Holder bit counting: the first Hold sets the bit, the last Release clears it and tries
    // to reclaim the block.
    void Hold(unsigned block) {
        if (holds_[block].fetch_add(1) == 0) {
            segment_->block(block).holders.fetch_or(bit());
        }
    }
    void Release(unsigned block) {
        if (holds_[block].fetch_sub(1) == 1 && !Inherited()) {
            segment_->block(block).holders.fetch_and(~bit());
            segment_->TryReclaim(block);
        }
    }

private:
    std::shared_ptr<PoolSegment> segment_;
    int lockFd_ = -1;
    unsigned index_;
    std::atomic<unsigned> holds_[MaxPoolBlocks] = {};
};

// An attachment to the pool `config` names, opened (or created) with PoolSegment::Open. A pool
// removed between its open and the attachment's lock is opened again, once; a second loss gives
// the refusal of a pool that keeps disappearing.
std::shared_ptr<PoolAttachment> AttachToPool(const PoolConfig& config);

// What a PoolBlock holds: one count on a block of a reader's attachment.
class PoolHold {
public:
    PoolHold(std::shared_ptr<PoolAttachment> owner, unsigned block, std::uint64_t sequence,
             const void* data, std::size_t size)
        : owner_(std::move(owner)), block_(block), sequence_(sequence), data_(data), size_(size) {
        owner_->Hold(block_);
    }
    ~PoolHold() { owner_->Release(block_); }
    PoolHold(const PoolHold&) = delete;
    PoolHold& operator=(const PoolHold&) = delete;

    const void* data() const { return data_; }
    std::size_t size() const { return size_; }
    std::uint64_t sequence() const { return sequence_; }

private:
    std::shared_ptr<PoolAttachment> owner_;
    unsigned block_;
    std::uint64_t sequence_;
    const void* data_;
    std::size_t size_;
};

// The block being delivered on this thread (set by the reader around each onNotify). Nothing
// is allocated for it: HoldCurrentBlock makes the PoolHold on its first call in the delivery,
// and later calls share it.
struct PoolDelivery {
    const std::shared_ptr<PoolAttachment>* owner;
    unsigned block;
    std::uint64_t sequence;
    const void* data;
    std::size_t size;
    std::shared_ptr<const PoolHold> hold;
};

}  // namespace Slot
