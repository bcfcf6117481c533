// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/ISlot.h>
#include <Slot/SlotNames.h>

#include <shared/InterprocCondition.h>
#include <shared/LockablePtr.h>
#include <shared/SharedMemory.h>
#include <shared/SizedArray.h>
#include <shared/WriteOutcome.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/interprocess/creation_tags.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/sync/interprocess_condition.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/shared_ptr.hpp>

#include <log4cxx/logger.h>

#include <sys/types.h>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class QueueGuard;

// The slot's interprocess objects, their names and the header segment's layout in address order
// are described in <Slot/SlotNames.h>. The sizes this class relies on are pinned here.
static_assert(sizeof(boost::posix_time::ptime) == 8, "last_write_tstamp is a 64-bit tick count");
static_assert(sizeof(unsigned int) == 4 && sizeof(int) == 4,
              "output_buffer_data_size and output_buffer_handle are 32-bit");
static_assert(sizeof(shared::SlotSegment::handle_t) <= sizeof(int) &&
                  static_cast<shared::SlotSegment::handle_t>(-1) < 0,
              "a segment handle fits the int output_buffer_handle");
static_assert(sizeof(shared::InterprocCondition) ==
                  sizeof(boost::interprocess::interprocess_condition),
              "cond_on_write keeps the size of an interprocess_condition");
#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(boost::interprocess::interprocess_condition) == 48,
              "cond_on_write is 48 bytes on the 32-bit target");
#endif

// Common base of the shared-memory slot kinds: creates or opens the slot's interprocess objects,
// resets its header, and offers the queue and output-buffer operations the kinds are built on.
//
// Concurrency: any number of threads and processes may use one slot. Each queue call is atomic
// under the queue's mutex; the header (write time, data size, output buffer) is guarded by the
// header mutex, which callers take through GetLockable(). A thread holding GetLockable() must
// not Wait() on GetOnWriteCondition() (same non-recursive mutex).
//
// Lock order while the header is built or opened: the header mutex, then the header segment's
// index lock (around each segment-manager call only), then its allocator lock (Boost's, inside
// such a call or an allocation). Openers without the header mutex take the index lock alone.
class SLOT_EXPORT BaseQueueSlot : public ISlot {
public:
    typedef boost::interprocess::message_queue_t<shared::SlotOffsetPtr> MessageQueue;

    // Priority of every block sent; all blocks share it, so the queue is FIFO.
    static constexpr unsigned int DefaultDataPriority = 0;

    // Bytes added to the maximum data size for the header segment: room for the segment manager,
    // the name index, the header mutex and the four named objects, so that an output buffer of
    // the maximum data size always fits.
#if UINTPTR_MAX == 0xffffffffu
    // Measured as below: at most 476 bytes are needed (at size 0).
    static constexpr unsigned int HeaderHeadroom = 512;
#else
    // On x86_64 the bookkeeping is larger (64-bit offset pointers, 16-byte allocation alignment,
    // a 40-byte pthread mutex). Measured with the construction sequence of ConstructHeader for
    // every max data size from 0 to 3000, for 1, 7, 8, 15..17, 31..33, 255, 256, 4095..4097,
    // 65535..65537, 1 MiB, 16 MiB, 64 MiB + 3 and 3000 random sizes up to 32 MiB: the smallest
    // headroom that fits is 736 at size 0 (a zero-byte allocation still takes a minimum block)
    // and at most 721 for every other size; every headroom from 736 up fits every size.
    static constexpr unsigned int HeaderHeadroom = 736;
#endif

    // Creates or opens the slot `name`. Every Boost.Interprocess failure is raised as
    // AbortSlotCreationException("Slot could not be created: <what>"); an invalid header as
    // AbortSlotCreationException(InvalidHeaderMsg()).
    BaseQueueSlot(boost::interprocess::open_or_create_t, const char* name, size_t maxDataSize,
                  size_t bufferLength);
    // Closes this process's view; the slot's objects stay in the system.
    ~BaseQueueSlot() override;

    BaseQueueSlot(const BaseQueueSlot&) = delete;
    BaseQueueSlot& operator=(const BaseQueueSlot&) = delete;

    std::string GetName() const override;
    // The queue's own maximum message size, whatever this process asked for.
    size_t GetMaxDataSize() const override;
    shared::ILockable* GetLockable() override;
    shared::ISyncEvent* GetOnWriteCondition() override;
    // Read without a lock.
    boost::posix_time::ptime GetLastWriteTime() const override;
    // Blocks now in the queue.
    size_t GetBufferLength() const override;

    static std::string GetQueueName(const std::string& name);

    // Why a slot of `maxDataSize`-byte blocks and a queue of `bufferLength` cannot be made
    // ("max data size M and buffer length N exceed what a slot can address": the header and the
    // queue must each stay within 2 GiB), or nothing when it can. Checked by the constructor;
    // for tools that check a configuration before they make a slot.
    static std::optional<std::string> SizeProblem(std::uint64_t maxDataSize,
                                                  std::uint64_t bufferLength);
    static std::string GetConditionName(const std::string& name);
    static std::string GetRwSyncFileLockName(const std::string& name);

protected:
    // False, with an ERROR line, when the block is longer than the maximum data size.
    bool CheckDataBeforeWriting(const void* data, size_t size);
    // Takes one block from the queue without waiting and leaves a copy of it in the output buffer.
    // On an empty queue returns an empty array and leaves the output buffer as it was. The array
    // owns its bytes: they never change, also after later receives or the slot's destruction.
    shared::SizedArray ReceiveAndCopyToOutBuf();
    // ReceiveAndCopyToOutBuf, then copies at most `size` bytes of the block into `buffer`;
    // returns the number copied (0 on an empty queue). A buffer that holds the queue's largest
    // message receives the block directly, without the intermediate array.
    size_t ReceiveInto(void* buffer, size_t size);
    // Takes one block from the queue without waiting and drops it. The output buffer is untouched.
    void DiscardOneDataBlock();
    // A copy of the output buffer's valid bytes (empty right after the slot was opened).
    shared::SizedArray GetDataFromOutBuf();

    // Sets "last_write_tstamp" to the current UTC time (one microsecond past the time already
    // there when that is not earlier) and returns the value stored. Called with the slot locked.
    boost::posix_time::ptime StampLastWriteTime();
    MessageQueue& GetQueue() {
        return *queue_;
    }
    const log4cxx::LoggerPtr& GetLogger() const {
        return logger_;
    }
    // Tells Slot::LastWriteOutcome / Slot::GetWriteCounts what became of one WriteData.
    void RecordWriteOutcome(shared::WriteOutcome outcome);

    // Holds the slot's lock for the queue calls of a slot kind's ReadData or WriteData when the
    // calling thread does not hold it (a caller that bypasses it: SimpleSlotRW::Read, a direct
    // call). Every queue call is then made under the slot's lock: a process killed inside one
    // leaves the queue's mutex to the next holder of the lock to recover instead of blocking it
    // for ever, and the output buffer is never written by two at once. Taking the lock waits at
    // most twice the creation bound (LockHeaderBounded).
    class HeaderHold {
    public:
        explicit HeaderHold(BaseQueueSlot& slot);
        ~HeaderHold();
        HeaderHold(const HeaderHold&) = delete;
        HeaderHold& operator=(const HeaderHold&) = delete;

    private:
        BaseQueueSlot* taken_ = nullptr;
    };

    // Makes sure the queue can be used without blocking for ever: called by the slot kinds under
    // the slot's lock before their queue calls. A queue mutex left held by a dead process is
    // repaired (ERROR line); a damaged queue, or one whose mutex a live thread keeps, raises
    // boost::interprocess::interprocess_exception. A few loads and compares when all is well.
    void CheckQueue();
    // try_send of one block (priority DefaultDataPriority; a 0-byte block is sent from a valid
    // address), recorded in the queue while it runs, so that a recoverer that finds the sender
    // dead inside it drops the block it may have half copied (QueueGuard::BeginSend). Callers
    // hold the slot's lock and have called CheckQueue. Test builds: the crash points
    // "send-queue-locked", "send-window-moved" and "send-half-copied" die inside the send.
    bool SendBlock(const void* data, size_t size);

    // Construction steps; ConstructHeader holds GetLockable() throughout and calls ConstructRwSync.
    void ConstructHeader();
    void ConstructRwSync();
    std::string InvalidHeaderMsg() const;

private:
    struct OutputBuffer {
        char* data;
        size_t capacity;  // usable bytes of the allocation
    };
    // The output buffer, as "output_buffer_handle" located it when the slot was opened. The
    // handle is written once, by the slot's first opener: one that differs now is damage, and
    // throws boost::interprocess::interprocess_exception ("segment '<name>' is damaged: ...").
    // A handle that located nothing at the opening is logged and yields an empty buffer.
    OutputBuffer GetOutputBuffer() const;
    // The block "output_buffer_handle" names now, checked against the mapping (see above).
    OutputBuffer LocateOutputBuffer(int handle) const;
    // Copies a block just received into `out` and sets the data size.
    void KeepInOutBuf(const OutputBuffer& out, const char* block, size_t count);

    // Creates the queue object (space reserved) or waits, bounded, for its creator; then opens it.
    // True when this call created it.
    bool OpenQueue(size_t maxDataSize, size_t bufferLength);
    // Run by whoever locks the header mutex after its holder died, before the mutex is marked
    // consistent: makes the header consistent again and checks the queue.
    void RepairAfterDeadHolder(pid_t deadThread);
    // Called under the header lock by an opener that found "output_buffer_handle": when the
    // header's builder died before storing the buffer's handle there, stores it (the buffer the
    // builder allocated, or a new one) and logs a WARN.
    void FinishOutputBuffer();
    // What a blocked lock() checks about the header mutex's holder, and its ERROR line when it
    // gives up on a damaged lock word.
    shared::LockWatch HeaderLockWatch() const;
    // The kind a lock of the header mutex expects (LockWatch::kind): the robust kind, or the
    // plain process-shared kind when `mutex` was made so.
    static int HeaderMutexKind(boost::interprocess::interprocess_mutex* mutex);
    // Throws boost::interprocess::interprocess_exception when the header segment's bytes are
    // damaged or foreign (called under the header lock, before Boost walks its index).
    void CheckHeaderSegment() const;
    // The same for an existing header segment, from its raw bytes, before it is opened.
    void PrecheckHeaderSegment() const;
    // True when the calling thread holds the header lock (always true for a slot without one).
    bool HeaderHeldHere() const;
    // Takes the header lock, waiting at most twice the creation bound for a live holder;
    // boost::interprocess::interprocess_exception after that.
    void LockHeaderBounded();
    // True when [p, p + size) lies inside this process's mapping of the header segment.
    bool InsideSegment(const void* p, size_t size) const;

    log4cxx::LoggerPtr logger_;
    boost::shared_ptr<MessageQueue> queue_;
    boost::posix_time::ptime* writeTime_;  // "last_write_tstamp", in the segment
    std::string name_;
    boost::shared_ptr<shared::ISharedMemory> segment_;  // deleter: shared::DestroySharedMemory
    int* bufferHandle_;                                 // "output_buffer_handle", in the segment
    unsigned int* bufferDataSize_;                      // "output_buffer_data_size", in the segment
    std::unique_ptr<shared::ISyncEvent> onWrite_;  // pack over the header mutex and cond_on_write
    shared::LockablePtr<boost::interprocess::interprocess_mutex> lockable_;  // the header mutex
    // This name's write counters, looked up at the first write (any thread may make it; every
    // lookup yields the same pointer).
    std::atomic<shared::WriteCounters*> writeCounters_{nullptr};
    std::unique_ptr<QueueGuard> queueGuard_;  // our checking view of the queue
    // What this process found at the opening, checked then; every later use compares the
    // segment's words with these instead of following them again.
    size_t segmentSize_ = 0;        // bytes mapped (the segment records its own size too)
    int outHandle_ = 0;             // "output_buffer_handle"
    OutputBuffer out_{nullptr, 0};  // the block it located (data null: none)
    // The header segment this process maps, as the kernel names it (inode 0: not known).
    dev_t headerDevice_ = 0;
    ino_t headerInode_ = 0;
    int headerKind_ = -1;  // HeaderMutexKind of the header mutex, found at the opening
};
