// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/MutexOwner.h>
#include <shared/SharedMemory.h>

#include <log4cxx/logger.h>

#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace boost {
namespace interprocess {
namespace ipcdetail {
template <class VoidPointer>
class mq_hdr_t;
}  // namespace ipcdetail
}  // namespace interprocess
}  // namespace boost

// This process's second view of a slot's message queue "queue_<name>", through which the slot
// checks the queue's structure and recovers the queue's internal mutex from a dead holder.
// Boost's message_queue trusts every word of its header and takes its mutex with a blocking
// lock that no death releases; this view validates the words against the size of the real
// mapping and repairs what a process killed inside a queue call can leave behind.
//
// Queue layout (Boost 1.74, circular index), from the start of the object:
//   creation-state word, padded to 16 bytes (Boost's managed_open_or_create_impl)
//   mq_hdr_t: index pointer, max messages, max message size, current count, the mutex, two
//             condition variables (unused: the slot only calls try_send/try_receive), the first
//             index position, and blocked sender/receiver counts
//   index: max messages offset pointers to the message slots
//   messages: max messages slots of (length, priority, max message size bytes, rounded up)
// The current messages are the index entries first .. first + count - 1 (circular); the newest
// is at `first`, the oldest (received next) at the end. Free slots have length and priority 0.
//
// Not thread-safe by itself: Recover must run while the caller holds the slot's header lock.
#if !defined(__i386__) && !defined(__x86_64__)
#error "the send record's ordering (BeginSend, Count) relies on x86's ordering of stores and loads"
#endif

class QueueGuard {
public:
    // An offset pointer's stored offset: 64-bit on x86_64, 32-bit on the 32-bit target.
    using Offset = shared::SlotOffsetPtr::offset_type;

    // Maps "queue_<name>" and validates its structure. Throws
    // boost::interprocess::interprocess_exception ("queue '<name>' is damaged: ...") when the
    // words in it do not describe a queue of the mapped size.
    explicit QueueGuard(const std::string& queueName);

    // Whether the queue's name still names the object this view maps. Opened before Boost opens
    // the name and asked after, true shows that Boost opened this same object: a name comes to
    // name another object only once its object was removed, and this view's mapping keeps that
    // object, so its inode number is not given to another meanwhile.
    bool NameStillNamesIt() const;

    ~QueueGuard();
    QueueGuard(const QueueGuard&) = delete;
    QueueGuard& operator=(const QueueGuard&) = delete;

    // Blocks now in the queue, read without the queue's mutex (a snapshot, like any count),
    // clamped to the capacity. The block of a send that has not returned is not counted yet:
    // Boost counts it before it copies its bytes, and if its sender dies it is dropped, so a
    // reader that counts without the slot's lock never counts on it.
    std::size_t Count() const;

    // The sizes found and checked at the opening. Boost never changes them; the library sizes
    // every buffer and checks every block with these, never with the words in the queue, which
    // damage can change at any time.
    std::size_t MaxMessageSize() const { return maxMessageSize_; }
    std::size_t Capacity() const { return capacity_; }

    // Cheap test, every queue use: the mutex is free and the words the next queue call follows
    // are those found at the opening or within the queue.
    bool LooksHealthy() const {
        // The lock word, not the owner: glibc sets the owner just after taking the word and
        // clears it just before releasing it, and a death in between leaves no owner.
        return __atomic_load_n(&mutexOwner_->__data.__lock, __ATOMIC_RELAXED) == 0 &&
               StateInBounds();
    }

    // Called with the slot's header lock held when LooksHealthy() said no. Returns when the
    // queue can be used: its mutex was free, was released by a live holder within the creation
    // wait limit, or was held by a dead thread and has been repaired (logged at ERROR on
    // `logger`). Throws boost::interprocess::interprocess_exception when the queue is damaged or
    // a live thread keeps its mutex.
    void Recover(const log4cxx::LoggerPtr& logger, const std::string& slotName);

    // Bracket every send of the library, under the slot's header lock: BeginSend records the
    // queue's count and first position as they are before the send, EndSend clears the record.
    // A recoverer that finds the queue's mutex held by a dead thread and this record set knows
    // that the thread died inside that send, and where the send had got to (see Recover). The
    // record lives in the queue's blocked-senders count: the library only makes try-calls, so
    // the count is 0 whenever no send runs, and Boost's non-blocking send does not read it (it
    // only counts itself in and out there when the queue is full).
    void BeginSend() {
        const std::uint32_t count = __atomic_load_n(&CountWord(), __ATOMIC_RELAXED);
        const std::uint32_t first = __atomic_load_n(&FirstWord(), __ATOMIC_RELAXED);
        __atomic_store_n(sendRecord_, SendRecord(count, first), __ATOMIC_RELAXED);
        // Orders the record before the send's change of the count (see Count). x86 keeps stores
        // in program order, so only the compiler must not move them: a signal fence says just
        // that (a release thread fence compiles to nothing more there, and ThreadSanitizer
        // refuses thread fences).
        __atomic_signal_fence(__ATOMIC_RELEASE);
    }
    void EndSend() { __atomic_store_n(sendRecord_, 0u, __ATOMIC_RELAXED); }

    // The queue's mutex (for tests and crash points).
    pthread_mutex_t* Mutex() const { return mutexOwner_; }
    // Test builds: dies inside a send as one killed by SIGKILL in Boost's do_send does, holding
    // the queue's mutex: `step` 0 after moving the window without counting the block, 1 after
    // counting it and copying half of `data`. Call after BeginSend.
    [[noreturn]] void DieInsideSend(int step, const void* data, std::size_t size);

private:
    typedef boost::interprocess::ipcdetail::mq_hdr_t<shared::SlotOffsetPtr> Header;

    // The layout words are those found at the opening, nobody is counted as blocked (the slot
    // only makes try-calls, so nobody ever waits in the queue; a blocked count would make Boost
    // signal a condition variable, which hangs on damaged bytes), the counters are in range, and
    // the index entries the next call follows point at message slots: the oldest block's (a
    // receive copies its length, which must fit the maximum), the newest block's (a send reads
    // its priority) and the one a send fills next. Each count and position is loaded once.
    bool StateInBounds() const {
        if (!LayoutIntact() || AnyBlocked()) {
            return false;
        }
        const std::uint64_t count = __atomic_load_n(&CountWord(), __ATOMIC_RELAXED);
        const std::uint64_t first = __atomic_load_n(&FirstWord(), __ATOMIC_RELAXED);
        if (capacity_ == 0) {
            return count == 0 && first == 0;
        }
        if (count > capacity_ || first >= capacity_) {
            return false;
        }
        if (MessageAt((first == 0 ? capacity_ : first) - 1) == nullptr) {
            return false;
        }
        if (count == 0) {
            return true;
        }
        std::uint64_t oldest = first + count - 1;
        oldest = oldest >= capacity_ ? oldest - capacity_ : oldest;
        const char* message = MessageAt(oldest);
        return message != nullptr && MessageAt(first) != nullptr &&
               LengthOf(message) <= maxMessageSize_;
    }
    bool LayoutIntact() const {
        return *maxNumWord_ == capacity_ && *maxSizeWord_ == maxMessageSize_ &&
               *indexWord_ == indexRaw_;
    }
    bool CountersInRange() const {
        const std::uint64_t count = __atomic_load_n(&CountWord(), __ATOMIC_RELAXED);
        const std::uint64_t first = __atomic_load_n(&FirstWord(), __ATOMIC_RELAXED);
        return count <= capacity_ && (first < capacity_ || (capacity_ == 0 && first == 0));
    }
    bool AnyBlocked() const {
        return (__atomic_load_n(blockedSenders_, __ATOMIC_RELAXED) |
                __atomic_load_n(blockedReceivers_, __ATOMIC_RELAXED)) != 0;
    }
    // The message slot that index position `position` (< capacity) points at, or null when it
    // points anywhere else. The layout Boost builds (position i at slot i, which FIFO use of one
    // priority keeps) costs a multiply and a compare.
    char* MessageAt(std::uint64_t position) const {
        const Offset raw = indexEntries_[position];
        if (raw == static_cast<Offset>(identityRaw_ + position * identityStep_)) {
            return messages_ + position * slotSize_;
        }
        const std::int64_t slot = SlotNumber(position, raw);
        return slot < 0 ? nullptr : messages_ + static_cast<std::uint64_t>(slot) * slotSize_;
    }
    // The message slot an index entry with offset `raw` at `position` points at, or -1.
    std::int64_t SlotNumber(std::uint64_t position, Offset raw) const;
    // A message's length word (Boost's msg_hdr_t::len, its first word).
    static std::uint32_t LengthOf(const char* message) {
        return *reinterpret_cast<const volatile std::uint32_t*>(message);
    }
    // The control block's current count and first index position (Boost's size_type).
    const std::uint32_t& CountWord() const { return *countWord_; }
    const std::uint32_t& FirstWord() const { return *firstWord_; }
    // Throws when the control block, the index (or, with messagesToo, a waiting message's
    // length) do not fit the mapping; sets the addresses this view uses.
    void Validate(bool messagesToo) const;
    // The send record of a send that starts with `count` blocks and first position `first`:
    // even and not 0 (Boost's full-queue path may add 1 while the send runs). The first position
    // is kept as a class that differs between any position and the one before it (a send moves
    // the window back by one), which is all the recoverer needs of it.
    static std::uint32_t PositionClass(std::uint64_t first) {
        return first == 0 ? 2u : static_cast<std::uint32_t>(first & 1u);
    }
    static std::uint32_t SendRecord(std::uint32_t count, std::uint32_t first) {
        return 2u * (3u * count + PositionClass(first) + 1u);
    }
    // Count before the send of a send record, or -1 when `record` cannot be one for this queue.
    std::int64_t RecordedCount(std::uint32_t record) const {
        const std::uint32_t even = record & ~1u;
        if (even == 0) {
            return -1;
        }
        const std::uint64_t count = (even / 2 - 1) / 3;
        return count <= capacity_ ? static_cast<std::int64_t>(count) : -1;
    }
    // Repairs the window after a death inside a queue call; returns what was done. `record` is
    // the send record found (0: none).
    std::string RepairWindow(std::uint32_t record);
    // Exact repair after a death inside a recorded send; false when the queue does not match the
    // record (then the general repair runs).
    bool RepairSend(std::uint32_t record, std::uint64_t& first, std::uint64_t& count,
                    std::string& done) const;
    [[noreturn]] void Damaged(const std::string& detail) const;
    [[noreturn]] void CountersDamaged(std::uint64_t count, std::uint64_t first) const;
    // Puts back the layout words found at the opening; returns what was changed ("" if none).
    std::string RestoreLayout();
    // Called with the queue's mutex held: drops the waiting blocks whose index entry points at no
    // message slot (or at one another entry points at too) or whose length exceeds the maximum,
    // points every damaged entry at a free slot again and cleans the free slots. Returns what was
    // found ("" if nothing).
    std::string RepairEntries();
    // Points index position `position` at message slot `slot`.
    void SetEntry(std::uint64_t position, std::uint64_t slot);
    // Whether the thread `owner`, which holds the queue's mutex, lives in a process that maps
    // the queue (unknown counts as yes).
    bool HolderMapsQueue(pid_t owner) const;

    std::string name_;
    shared::FileIdentity file_;  // the object mapped, by device and inode (fstat)
    char* base_;                 // start of our mapping of the object
    std::size_t size_;           // real size of the mapping (fstat), the bound of every check
    Header* header_;
    pthread_mutex_t* mutexOwner_;            // the queue's internal mutex, inside the mapping
    const std::uint32_t* countWord_;         // mq_hdr_t::m_cur_num_msg, inside the mapping
    const std::uint32_t* firstWord_;         // mq_hdr_t::m_cur_first_msg, inside the mapping
    const std::uint32_t* blockedSenders_;    // mq_hdr_t::m_blocked_senders, inside the mapping
    const std::uint32_t* blockedReceivers_;  // mq_hdr_t::m_blocked_receivers, inside the mapping
    std::uint32_t* sendRecord_;              // mq_hdr_t::m_blocked_senders, written by BeginSend
    // Found and checked at construction; a later change of the words in the queue is damage.
    std::uint32_t capacity_;        // max messages
    std::uint32_t maxMessageSize_;  // max message bytes
    Offset indexRaw_;               // mq_hdr_t::mp_index, as an offset from itself
    std::size_t slotSize_;          // bytes per message slot, header included
    std::uint64_t indexOffset_;     // of the index, from the start of the mapping
    std::uint64_t messagesOffset_;  // of the first message slot, from the start of the mapping
    char* messages_;                // first message slot
    // The raw index entry of position i in Boost's layout: identityRaw_ + i * identityStep_.
    Offset identityRaw_;
    Offset identityStep_;
    // The words of the control block and the index as this view reads and repairs them.
    volatile std::uint32_t* maxNumWord_;   // mq_hdr_t::m_max_num_msg
    volatile std::uint32_t* maxSizeWord_;  // mq_hdr_t::m_max_msg_size
    volatile Offset* indexWord_;           // mq_hdr_t::mp_index
    volatile Offset* indexEntries_;        // the index, capacity_ offset pointers
};
