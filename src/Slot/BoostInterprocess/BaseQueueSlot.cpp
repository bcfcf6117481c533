// SPDX-License-Identifier: Apache-2.0
#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/BaseQueueSlot.h>
#include <Slot/BoostInterprocess/QueueGuard.h>
#include <Slot/BoostInterprocess/SlotImage.h>
#include <Slot/SlotNames.h>

#include <shared/CrashPoint.h>
#include <shared/InterprocConditionPack.h>
#include <shared/ManagedObject.h>
#include <shared/MutexOwner.h>
#include <shared/RobustMutex.h>
#include <shared/SharedFolder.h>
#include <shared/UtcClock.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/detail/managed_open_or_create_impl.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/permissions.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <thread>

namespace {

const char* const CreationFailurePrefix = "Slot could not be created: ";

// What to do about a header segment whose manager locks a dead process left held.
std::string StaleRemedy(const std::string& name) {
    return "remove it (slotctl rm --stale " + name + ") and create the slot again";
}

// Runs `call`, one call of the segment manager that takes the segment's index lock (a find, a
// construction, a destruction). Boost waits for that lock without a bound, and other openers take
// it without the slot's lock (their find of the header mutex): one that died inside would keep a
// caller that holds the slot's lock, and so the slot, for ever. The lock is taken here first,
// bounded, and the call takes it again at once (it is recursive). Held for this call only, so a
// death between two calls leaves it free.
template <class Call>
auto WithIndexLock(shared::SlotSegment& segment, const std::string& name, const Call& call) {
    const shared::SegmentIndexLock index(segment, name, StaleRemedy(name));
    return call();
}

// Offsets inside the queue and the header segment are 32-bit signed (shared::SlotOffsetPtr), and
// Boost sizes the queue in 32-bit unsigned arithmetic that wraps silently. Refuse sizes whose
// objects could not be addressed, with a generous bound on the queue's per-message overhead.
bool SizesAreAddressable(std::uint64_t maxDataSize, std::uint64_t bufferLength) {
    const std::uint64_t limit = Slot::MaxObjectBytes;
    const std::uint64_t perMessage = maxDataSize + 64;
    return maxDataSize + BaseQueueSlot::HeaderHeadroom <= limit &&
           bufferLength <= limit / perMessage && bufferLength * perMessage + 4096 <= limit;
}

}  // namespace

std::optional<std::string> BaseQueueSlot::SizeProblem(std::uint64_t maxDataSize,
                                                      std::uint64_t bufferLength) {
    if (SizesAreAddressable(maxDataSize, bufferLength)) {
        return std::nullopt;
    }
    return "max data size " + std::to_string(maxDataSize) + " and buffer length " +
           std::to_string(bufferLength) + " exceed what a slot can address";
}

BaseQueueSlot::BaseQueueSlot(boost::interprocess::open_or_create_t, const char* name,
                             size_t maxDataSize, size_t bufferLength)
    : logger_(log4cxx::Logger::getLogger("Slot")),
      writeTime_(nullptr),
      name_(name),
      bufferHandle_(nullptr),
      bufferDataSize_(nullptr) {
    // Checked before anything is created: the queue is made first, and names such as "", "."
    // and ".." are valid for it but not for the header segment, which would leave it alone.
    if (const std::optional<std::string> problem = Slot::SlotNameProblem(name_)) {
        throw AbortSlotCreationException(std::string(CreationFailurePrefix) + "slot name '" +
                                         name_ + "' " + *problem);
    }
    if (const std::optional<std::string> problem = SizeProblem(maxDataSize, bufferLength)) {
        throw AbortSlotCreationException(std::string(CreationFailurePrefix) + *problem);
    }
    bool createdQueue = false;
    try {
        createdQueue = OpenQueue(maxDataSize, bufferLength);
        const size_t realMaxDataSize = GetMaxDataSize();
        const size_t realBufferLength = queueGuard_->Capacity();
        // Reopening with other sizes is normal (a host made the slot, SimpleSlotRW opens it
        // with its own sizes): worth a trace, not a warning.
        if ((realMaxDataSize != maxDataSize || realBufferLength != bufferLength) &&
            logger_->isTraceEnabled()) {
            LOG4CXX_TRACE(logger_, "Slot '" << name_ << "' exists with max data size "
                                            << realMaxDataSize << " and buffer length "
                                            << realBufferLength << "; asked for " << maxDataSize
                                            << " and " << bufferLength);
        }
        // Allowed (an opener's length does not matter), but a queue made so stays useless.
        if (createdQueue && realBufferLength == 0 && logger_->isWarnEnabled()) {
            LOG4CXX_WARN(logger_, "Slot '" << name_
                                           << "' was created with a buffer length of 0: its "
                                              "queue can hold no block");
        }
        if (!SizesAreAddressable(realMaxDataSize, 0)) {
            throw AbortSlotCreationException(std::string(CreationFailurePrefix) +
                                             "the queue's max data size " +
                                             std::to_string(realMaxDataSize) + " is too large");
        }
        // The segment is sized for the queue's real message size, so that the output buffer fits
        // also when the queue outlived an earlier segment of the same name. The shared_ptr calls
        // the deleter itself if it cannot be built.
        PrecheckHeaderSegment();
        segment_.reset(
            shared::CreateSharedMemory(boost::interprocess::open_or_create, name_.c_str(),
                                       static_cast<unsigned int>(realMaxDataSize + HeaderHeadroom)),
            shared::DestroySharedMemory);
        // Checked against the real size of the object by CreateSharedMemory; the segment's own
        // record of it may change later, this does not.
        segmentSize_ = segment_->GetSegment().get_size();
        const shared::FileIdentity header =
            shared::FileMappedAt(segment_->GetSegment().get_address());
        headerDevice_ = header.device;
        headerInode_ = header.known ? header.inode : 0;
        lockable_.Bind(segment_->GetMutex());
        headerKind_ = HeaderMutexKind(segment_->GetMutex());
        lockable_.SetOwnerDeadRepair([this](pid_t dead) { RepairAfterDeadHolder(dead); });
        lockable_.SetLockWatch(HeaderLockWatch());
        if (logger_->isTraceEnabled()) {
            LOG4CXX_TRACE(logger_, "Created shared memory and queue for '" << name_ << "'");
        }
        ConstructHeader();
        if (logger_->isTraceEnabled()) {
            LOG4CXX_TRACE(logger_, "BaseQueueSlot() : unlocked '" << name_ << "'");
        }
    } catch (const boost::interprocess::interprocess_exception& e) {
        // No room for the header segment: take back the queue this call made, so that no half
        // slot is left behind (whoever opened it meanwhile fails for the same reason).
        if (createdQueue && e.get_native_error() == ENOSPC) {
            queueGuard_.reset();
            queue_.reset();
            boost::interprocess::shared_memory_object::remove(GetQueueName(name_).c_str());
        }
        throw AbortSlotCreationException(std::string(CreationFailurePrefix) + e.what());
    }
}

BaseQueueSlot::~BaseQueueSlot() {
    if (logger_->isTraceEnabled()) {
        LOG4CXX_TRACE(logger_, "~BaseQueueSlot()");
    }
}

void BaseQueueSlot::ConstructHeader() {
    // Bounded like the rest of creation: a dead holder is recovered at once, so a lock that stays
    // held is kept by a live process that does not let go, or its bytes are damaged.
    shared::ILockable& lockable = *GetLockable();
    const std::chrono::milliseconds limit = shared::CreationWaitLimit();
    if (&lockable != &lockable_ || lockable_.Get() == nullptr) {
        lockable.lock();
    } else if (!lockable_.lock_for(limit)) {
        throw boost::interprocess::interprocess_exception(
            ("the header lock of '" + name_ + "' has been held by thread " +
             std::to_string(shared::MutexOwnerThread(shared::NativeMutex(lockable_.Get()))) +
             " for more than " + std::to_string(limit.count()) + " ms")
                .c_str());
    }
    boost::interprocess::scoped_lock<shared::ILockable> lock(lockable,
                                                             boost::interprocess::accept_ownership);
    shared::SlotSegment& segment = segment_->GetSegment();
    CheckHeaderSegment();
    shared::StopPoint("header-checked");

    writeTime_ = WithIndexLock(segment, name_, [&] {
        return segment.find_or_construct<boost::posix_time::ptime>(
            Slot::HeaderObjectNames[Slot::LastWriteTime])();
    });
    bufferDataSize_ = WithIndexLock(segment, name_, [&] {
        return segment.find_or_construct<unsigned int>(
            Slot::HeaderObjectNames[Slot::OutputDataSize])();
    });

    bufferHandle_ = WithIndexLock(segment, name_, [&] {
        return segment.find<int>(Slot::HeaderObjectNames[Slot::OutputHandle]).first;
    });
    if (bufferHandle_ == nullptr) {
        // First opener: allocate the output buffer. If that fails, take the handle object back
        // so that no later opener finds a handle without a buffer.
        bufferHandle_ = WithIndexLock(segment, name_, [&] {
            return segment.construct<int>(Slot::HeaderObjectNames[Slot::OutputHandle])(0);
        });
        if (bufferHandle_ == nullptr) {
            throw AbortSlotCreationException(InvalidHeaderMsg());
        }
        shared::CrashPoint("handle-constructed");
        try {
            void* buffer = segment.allocate(GetMaxDataSize());
            shared::CrashPoint("buffer-allocated");
            *bufferHandle_ = segment.get_handle_from_address(buffer);
        } catch (...) {
            WithIndexLock(segment, name_, [&] { segment.destroy_ptr(bufferHandle_); });
            bufferHandle_ = nullptr;
            throw;
        }
    } else {
        FinishOutputBuffer();
        const OutputBuffer out = LocateOutputBuffer(*bufferHandle_);
        if (out.capacity < GetMaxDataSize() && logger_->isWarnEnabled()) {
            LOG4CXX_WARN(logger_, "Output buffer of '" << name_ << "' has " << out.capacity
                                                       << " bytes, less than its max data size "
                                                       << GetMaxDataSize());
        }
    }

    if (bufferDataSize_ == nullptr || writeTime_ == nullptr ||
        !InsideSegment(bufferDataSize_, sizeof(*bufferDataSize_)) ||
        !InsideSegment(writeTime_, sizeof(*writeTime_)) ||
        !InsideSegment(bufferHandle_, sizeof(*bufferHandle_))) {
        throw AbortSlotCreationException(InvalidHeaderMsg());
    }
    outHandle_ = *bufferHandle_;
    out_ = LocateOutputBuffer(outHandle_);
    shared::CrashPoint("header-locked");
    // Every opening forgets the last block and the last write time; queued blocks stay.
    *bufferDataSize_ = 0;
    *writeTime_ = boost::posix_time::ptime(boost::posix_time::not_a_date_time);

    ConstructRwSync();
}

void BaseQueueSlot::FinishOutputBuffer() {
    // The handle is built before the buffer is allocated and its handle stored, and
    // "cond_on_write" after both. A builder killed in between holds the header lock, which we
    // hold now: it is dead, and its header ends with a handle that names no allocation. Its step
    // is finished here, with the buffer it allocated when it got that far (an allocation nothing
    // else accounts for), else with a new one.
    shared::SlotSegment& segment = segment_->GetSegment();
    const SlotImage::HeaderImage image =
        SlotImage::ParseHeader(segment.get_address(), segmentSize_);
    if (image.objects[Slot::WriteCondition].found || !image.objects[Slot::OutputHandle].found ||
        image.outputBuffer.present) {
        return;
    }
    const size_t size = GetMaxDataSize();
    void* buffer = nullptr;
    if (image.strayAllocations.size() == 1 && image.strayAllocations.front().size >= size) {
        buffer = static_cast<char*>(segment.get_address()) + image.strayAllocations.front().offset;
    } else {
        buffer = segment.allocate(size);
    }
    *bufferHandle_ = static_cast<int>(segment.get_handle_from_address(buffer));
    if (logger_->isWarnEnabled()) {
        LOG4CXX_WARN(logger_, "Slot '" << name_
                                       << "' : the process that built its header died before "
                                          "it stored the output buffer's handle; stored now");
    }
}

void BaseQueueSlot::ConstructRwSync() {
    // Not an interprocess_condition: see shared/InterprocCondition.h (a waiter killed mid-wait
    // must not hang the slot's other processes). Same size, same place in the layout.
    shared::SlotSegment& segment = segment_->GetSegment();
    shared::InterprocCondition* condition = WithIndexLock(segment, name_, [&] {
        return segment.find_or_construct<shared::InterprocCondition>(
            Slot::HeaderObjectNames[Slot::WriteCondition])();
    });
    boost::interprocess::interprocess_mutex* mutex = segment_->GetMutex();
    if (condition == nullptr || mutex == nullptr) {
        throw AbortSlotCreationException(InvalidHeaderMsg());
    }
    if (!InsideSegment(condition, sizeof(*condition))) {
        throw AbortSlotCreationException(InvalidHeaderMsg());
    }
    auto* pack = new shared::InterprocConditionPack<boost::interprocess::interprocess_mutex>(
        mutex, condition);
    onWrite_.reset(pack);
    pack->SetOwnerDeadRepair([this](pid_t dead) { RepairAfterDeadHolder(dead); });
    pack->SetLockWatch(HeaderLockWatch());
}

std::string BaseQueueSlot::InvalidHeaderMsg() const {
    return "Slot '" + name_ + "'could not be created: invalid header";
}

std::string BaseQueueSlot::GetName() const {
    return name_;
}

size_t BaseQueueSlot::GetMaxDataSize() const {
    // As checked when the queue was opened: the word in the queue can be changed by damage at
    // any time (CheckQueue puts it back), and every buffer and size check is made with this.
    if (queueGuard_) {
        return queueGuard_->MaxMessageSize();
    }
    return queue_ ? queue_->get_max_msg_size() : 0;
}

shared::ILockable* BaseQueueSlot::GetLockable() {
    return &lockable_;
}

shared::ISyncEvent* BaseQueueSlot::GetOnWriteCondition() {
    return onWrite_.get();
}

boost::posix_time::ptime BaseQueueSlot::GetLastWriteTime() const {
    // Any 64-bit value can stand there; one that is no time of this era (damage) reads as "not
    // written", so that no caller computes with it.
    static const boost::posix_time::ptime earliest(boost::gregorian::date(1970, 1, 1));
    static const boost::posix_time::ptime latest(boost::gregorian::date(9999, 1, 1));
    const boost::posix_time::ptime stamp = *writeTime_;
    if (stamp.is_special() ? stamp.is_not_a_date_time() : (stamp >= earliest && stamp < latest)) {
        return stamp;
    }
    return boost::posix_time::ptime(boost::posix_time::not_a_date_time);
}

size_t BaseQueueSlot::GetBufferLength() const {
    // Read from the queue's header without its mutex: a count is a snapshot either way, and so
    // no process takes the queue's mutex without holding the slot's lock (see CheckQueue).
    if (queueGuard_) {
        return queueGuard_->Count();
    }
    return queue_ ? queue_->get_num_msg() : 0;
}

std::string BaseQueueSlot::GetQueueName(const std::string& name) {
    return Slot::QueueObjectName(name);
}

std::string BaseQueueSlot::GetConditionName(const std::string& name) {
    return "condition_" + name;
}

std::string BaseQueueSlot::GetRwSyncFileLockName(const std::string& name) {
    return "rwSync_" + name + ".flk";
}

boost::posix_time::ptime BaseQueueSlot::StampLastWriteTime() {
    // A discarding reader tells a new write by a write time other than the one it saw last.
    // Writes can follow each other within one microsecond of the clock; one that would carry
    // the time before it (or, the clock stepped back a little, an earlier one) gets one
    // microsecond more, or a reader that took the first write would never take the second.
    boost::posix_time::ptime now = shared::UtcNow();
    const boost::posix_time::ptime last = *writeTime_;
    if (!last.is_special() && now <= last && last - now < boost::posix_time::seconds(1)) {
        now = last + boost::posix_time::microseconds(1);
    }
    *writeTime_ = now;
    return now;
}

bool BaseQueueSlot::CheckDataBeforeWriting(const void*, size_t size) {
    const size_t max = GetMaxDataSize();
    if (size > max && logger_->isErrorEnabled()) {
        LOG4CXX_ERROR(logger_, "Unable to write to '" << name_ << "': data size " << size
                                                      << " > max data size " << max);
    }
    return size <= max;
}

BaseQueueSlot::OutputBuffer BaseQueueSlot::GetOutputBuffer() const {
    const int handle = __atomic_load_n(bufferHandle_, __ATOMIC_RELAXED);
    if (handle == outHandle_ && out_.data != nullptr) {
        return out_;
    }
    if (handle != outHandle_) {
        throw boost::interprocess::interprocess_exception(
            ("segment '" + name_ + "' is damaged: its output buffer handle is " +
             std::to_string(handle) + ", not " + std::to_string(outHandle_) +
             "; remove the slot (slotctl rm " + name_ + ") and create it again")
                .c_str());
    }
    return LocateOutputBuffer(handle);
}

BaseQueueSlot::OutputBuffer BaseQueueSlot::LocateOutputBuffer(int handle) const {
    shared::SlotSegment& segment = segment_->GetSegment();
    const std::uint64_t segmentSize = segmentSize_;
    // A valid handle lies past the segment manager, so the block header that size() reads in
    // front of it is inside the segment too.
    if (handle >= static_cast<int>(sizeof(shared::SlotSegment::segment_manager)) &&
        static_cast<std::uint64_t>(handle) < segmentSize) {
        char* data = static_cast<char*>(segment.get_address_from_handle(handle));
        const std::uint64_t capacity = segment.get_segment_manager()->size(data);
        if (capacity <= segmentSize - static_cast<std::uint64_t>(handle)) {
            return OutputBuffer{data, static_cast<size_t>(capacity)};
        }
    }
    if (logger_->isErrorEnabled()) {
        LOG4CXX_ERROR(logger_, "Output buffer handle " << handle << " of '" << name_
                                                       << "' does not lie inside its "
                                                       << segmentSize << "-byte segment");
    }
    return OutputBuffer{nullptr, 0};
}

shared::SizedArray BaseQueueSlot::ReceiveAndCopyToOutBuf() {
    // The block is received into a buffer of its own, which the array returned owns: it never
    // changes afterwards and outlives the slot object, whatever other receives happen.
    const MessageQueue::size_type max = static_cast<MessageQueue::size_type>(GetMaxDataSize());
    shared::SizedArray received(max);
    char none;  // a zero-size slot still needs a valid address to receive into
    MessageQueue::size_type count = 0;
    unsigned int priority = 0;
    // Checked before the block is taken: a damaged header costs no block.
    const OutputBuffer out = GetOutputBuffer();
    if (!queue_->try_receive(max != 0 ? received.data() : &none, max, count, priority)) {
        return shared::SizedArray();
    }
    if (count > max) {
        count = max;
    }
    received.setSize(static_cast<unsigned int>(count));
    KeepInOutBuf(out, received.data(), count);
    return received;
}

size_t BaseQueueSlot::ReceiveInto(void* buffer, size_t size) {
    const MessageQueue::size_type max = static_cast<MessageQueue::size_type>(GetMaxDataSize());
    if (buffer == nullptr || size < max) {
        const shared::SizedArray block = ReceiveAndCopyToOutBuf();
        const size_t copied = std::min<size_t>(size, block.size());
        if (copied != 0) {
            std::memcpy(buffer, block.data(), copied);
        }
        return copied;
    }
    // The caller's buffer holds any block: receive straight into it, then keep a copy in the
    // output buffer. Same result as above without the allocation and one copy per block, and
    // the block is private to the caller from the start, so concurrent readers of the slot
    // never see each other's blocks.
    MessageQueue::size_type count = 0;
    unsigned int priority = 0;
    const OutputBuffer out = GetOutputBuffer();
    if (!queue_->try_receive(buffer, max, count, priority)) {
        return 0;
    }
    if (count > max) {
        count = max;
    }
    KeepInOutBuf(out, static_cast<const char*>(buffer), count);
    return count;
}

void BaseQueueSlot::KeepInOutBuf(const OutputBuffer& out, const char* block, size_t count) {
    size_t kept = count;
    if (kept > out.capacity) {
        // The queue was re-created with larger blocks than the buffer was allocated for.
        if (logger_->isErrorEnabled()) {
            LOG4CXX_ERROR(logger_, "Block of " << count << " bytes from '" << name_
                                               << "' is longer than its " << out.capacity
                                               << "-byte output buffer; only " << out.capacity
                                               << " bytes kept");
        }
        kept = out.capacity;
    }
    if (kept != 0) {
        std::memcpy(out.data, block, kept);
    }
    *bufferDataSize_ = static_cast<unsigned int>(kept);
}

void BaseQueueSlot::DiscardOneDataBlock() {
    const MessageQueue::size_type max = static_cast<MessageQueue::size_type>(GetMaxDataSize());
    shared::SizedArray scratch(max);
    char none;
    MessageQueue::size_type count = 0;
    unsigned int priority = 0;
    queue_->try_receive(max != 0 ? scratch.data() : &none, max, count, priority);
    queue_->get_num_msg();
}

shared::SizedArray BaseQueueSlot::GetDataFromOutBuf() {
    const OutputBuffer out = GetOutputBuffer();
    size_t size = *bufferDataSize_;
    if (size > out.capacity) {
        if (logger_->isErrorEnabled()) {
            LOG4CXX_ERROR(logger_, "Output buffer of '" << name_ << "' holds " << size
                                                        << " bytes, more than its " << out.capacity
                                                        << "-byte allocation; clamped");
        }
        size = out.capacity;
    }
    shared::SizedArray copy(static_cast<unsigned int>(size));
    if (size != 0) {
        std::memcpy(copy.data(), out.data, size);
    }
    return copy;
}

void BaseQueueSlot::RecordWriteOutcome(shared::WriteOutcome outcome) {
    shared::WriteCounters* counters = writeCounters_.load(std::memory_order_acquire);
    if (counters == nullptr) {
        counters = shared::WriteCountersFor(name_);
        writeCounters_.store(counters, std::memory_order_release);
    }
    shared::RecordWriteOutcome(counters, outcome);
}

bool BaseQueueSlot::OpenQueue(size_t maxDataSize, size_t bufferLength) {
    namespace bi = boost::interprocess;
    const std::string queueName = GetQueueName(name_);
    const MessageQueue::size_type count = static_cast<MessageQueue::size_type>(bufferLength);
    const MessageQueue::size_type size = static_cast<MessageQueue::size_type>(maxDataSize);
    const std::size_t userOffset =
        bi::ipcdetail::managed_open_or_create_impl<bi::shared_memory_object, 0, true,
                                                   false>::ManagedOpenOrCreateUserOffset;
    const std::string remedy =
        "remove the slot (slotctl rm --stale " + name_ + ") and create it again";
    // Boost's own constructor of the queue's header, run on an object whose pages are reserved.
    auto initialise = [count, size](void* user, std::size_t userSize) {
        bi::ipcdetail::msg_queue_initialization_func_t<shared::SlotOffsetPtr> build(count, size);
        if (!build(user, userSize, true)) {
            throw bi::interprocess_exception("the queue's header could not be built");
        }
    };
    // Open-or-create, without Boost's unbounded wait for an unfinished object: the object is
    // prepared (created here, or finished by its creator) first, then opened. Boost and the
    // checking view each open the name: the view first, and the name still naming its object
    // after Boost's opening shows that both use the same object. A queue removed in between (and
    // maybe created again) is prepared and opened again.
    bool created = false;
    for (int round = 0;; ++round) {
        created = shared::PrepareManagedObject(
            queueName, bi::ipcdetail::mq_hdr_t<shared::SlotOffsetPtr>::get_mem_size(size, count),
            userOffset, initialise, remedy);
        try {
            std::unique_ptr<QueueGuard> guard(new QueueGuard(queueName));
            shared::StopPoint("queue-checker-opened");
            queue_.reset(new MessageQueue(bi::open_only, queueName.c_str()));
            if (guard->NameStillNamesIt()) {
                queueGuard_ = std::move(guard);
                break;
            }
            queue_.reset();
            if (round == 3) {
                throw bi::interprocess_exception(
                    ("queue '" + queueName + "' was removed each time it was opened").c_str());
            }
        } catch (const bi::interprocess_exception& e) {
            if (e.get_error_code() != bi::not_found_error || round == 3) {
                throw;
            }
        }
    }
    shared::CrashPoint("queue-opened");
    return created;
}

bool BaseQueueSlot::HeaderHeldHere() const {
    pthread_mutex_t* header = shared::NativeMutex(lockable_.Get());
    return header == nullptr || shared::MutexOwnerThread(header) == shared::ThisThreadId();
}

void BaseQueueSlot::LockHeaderBounded() {
    if (!lockable_.lock_for(shared::CreationWaitLimit() * 2)) {
        throw boost::interprocess::interprocess_exception(
            ("slot '" + name_ + "' stays locked by thread " +
             std::to_string(shared::MutexOwnerThread(shared::NativeMutex(lockable_.Get()))))
                .c_str());
    }
}

BaseQueueSlot::HeaderHold::HeaderHold(BaseQueueSlot& slot) {
    if (!slot.HeaderHeldHere()) {
        slot.LockHeaderBounded();
        taken_ = &slot;
    }
}

BaseQueueSlot::HeaderHold::~HeaderHold() {
    if (taken_ != nullptr) {
        taken_->lockable_.unlock();
    }
}

void BaseQueueSlot::CheckQueue() {
    if (!queueGuard_ || queueGuard_->LooksHealthy()) {
        return;
    }
    // Repairs need the header lock: every caller holds it (HeaderHold).
    queueGuard_->Recover(logger_, name_);
}

bool BaseQueueSlot::SendBlock(const void* data, size_t size) {
    const char none = 0;
    const void* bytes = size != 0 ? data : &none;
    if (!queueGuard_) {
        return queue_->try_send(bytes, static_cast<MessageQueue::size_type>(size),
                                DefaultDataPriority);
    }
    struct Record {
        QueueGuard& guard;
        explicit Record(QueueGuard& g) : guard(g) { guard.BeginSend(); }
        ~Record() { guard.EndSend(); }
    } record(*queueGuard_);
#ifdef SLOT_CRASH_POINTS
    if (shared::CrashPointsArmed()) {
        if (shared::CrashPointReached("send-queue-locked")) {
            pthread_mutex_lock(queueGuard_->Mutex());
            shared::KillThisProcess();
        }
        if (shared::CrashPointReached("send-window-moved")) {
            queueGuard_->DieInsideSend(0, bytes, size);
        }
        if (shared::CrashPointReached("send-half-copied")) {
            queueGuard_->DieInsideSend(1, bytes, size);
        }
    }
#endif
    return queue_->try_send(bytes, static_cast<MessageQueue::size_type>(size), DefaultDataPriority);
}

int BaseQueueSlot::HeaderMutexKind(boost::interprocess::interprocess_mutex* mutex) {
    // CreateSharedMemory makes the header mutex robust before the segment is marked initialised.
    // A segment made by a process that gave it a plain process-shared mutex (as Boost's
    // interprocess_mutex is) works alike, except that a holder that dies leaves it locked, which
    // a blocked lock gives up on after the bound. Any other kind is damage: its lock refuses it.
    const int kind = mutex == nullptr ? shared::RobustMutexKind()
                                      : __atomic_load_n(&shared::NativeMutex(mutex)->__data.__kind,
                                                        __ATOMIC_RELAXED);
    return kind == shared::SharedMutexKind() ? kind : shared::RobustMutexKind();
}

shared::LockWatch BaseQueueSlot::HeaderLockWatch() const {
    shared::LockWatch watch;
    watch.kind = headerKind_;
    // Whoever holds the header mutex has the segment mapped: a live owner whose process does not
    // is a word that damage wrote. The segment is recognised by device and inode, as a path in
    // a memory map is escaped (a name may hold a newline); by its path only when this process's
    // own map could not tell them.
    const std::string path = Slot::ShmPath(Slot::HeaderObjectName(name_));
    shared::FileIdentity file;
    file.device = headerDevice_;
    file.inode = headerInode_;
    file.known = headerInode_ != 0;
    watch.holderCheck = [path, file](pid_t owner) {
        const pid_t process = shared::ProcessOfThread(owner);
        const int maps = file.known ? shared::ProcessMapsFile(process, file)
                                    : shared::ProcessMapsFile(process, path);
        if (process != 0 && maps == 0) {
            return "is held by thread " + std::to_string(owner) + " of process " +
                   std::to_string(process) + ", which does not map " + path;
        }
        return std::string();
    };
    const log4cxx::LoggerPtr logger = logger_;
    const std::string name = name_;
    watch.giveUp = [logger, name](const std::string& why) {
        if (logger->isErrorEnabled()) {
            LOG4CXX_ERROR(logger, "Slot '" << name << "' : its header lock " << why
                                           << "; the lock is damaged, giving up");
        }
    };
    return watch;
}

void BaseQueueSlot::RepairAfterDeadHolder(pid_t deadThread) {
    if (logger_->isErrorEnabled()) {
        LOG4CXX_ERROR(logger_, "Slot '" << name_ << "' was locked by thread "
                                        << (deadThread > 0 ? std::to_string(deadThread)
                                                           : std::string("(unknown)"))
                                        << ", which died holding the lock; repairing its header");
    }
    // A reader killed while it copied a block into the output buffer leaves the buffer torn:
    // forget it, as a fresh opening does. Keep the last write time unless it is not a time.
    if (bufferDataSize_ != nullptr) {
        *bufferDataSize_ = 0;
    }
    if (writeTime_ != nullptr) {
        const boost::posix_time::ptime stamp = *writeTime_;
        const bool valid = stamp.is_not_a_date_time() ||
                           (!stamp.is_special() && stamp.date().year() >= 1970 &&
                            stamp <= shared::UtcNow() + boost::posix_time::hours(24));
        if (!valid) {
            *writeTime_ = boost::posix_time::ptime(boost::posix_time::not_a_date_time);
        }
    }
    // The dead holder may have died inside a queue call: we hold the header lock now.
    // A damaged queue is reported here and again by the next queue use, which refuses it.
    if (queueGuard_ && !queueGuard_->LooksHealthy()) {
        try {
            queueGuard_->Recover(logger_, name_);
        } catch (const boost::interprocess::interprocess_exception& e) {
            if (logger_->isErrorEnabled()) {
                LOG4CXX_ERROR(logger_, "Slot '" << name_ << "' : " << e.what());
            }
        }
    }
}

namespace {

// Boost's allocator and name index are guarded by mutexes of their own, which are not robust, and
// stay inconsistent while a process is inside them. Returns once neither is held; a holder that
// died there (a creator killed in the middle of an allocation) is reported as such, a live one is
// waited for up to the creation bound (shared::AwaitUnheldMutex throws).
void AwaitManagerLocks(const void* base, const SlotImage::HeaderImage& image,
                       const std::string& name) {
    const std::string remedy = StaleRemedy(name);
    const char* bytes = static_cast<const char*>(base);
    if (image.allocatorMutex.present) {
        shared::AwaitUnheldMutex(bytes + image.allocatorMutex.offset,
                                 "The allocator lock of segment '" + name + "'", remedy);
    }
    if (image.indexMutex.present) {
        shared::AwaitUnheldMutex(bytes + image.indexMutex.offset,
                                 "The index lock of segment '" + name + "'", remedy);
    }
}

bool OnlyDataSizeIsWrong(const SlotImage::HeaderImage& image) {
    return image.problem == "the output buffer's data size exceeds the buffer";
}

}  // namespace

void BaseQueueSlot::PrecheckHeaderSegment() const {
    // Opening the segment makes Boost walk its index (to find the header mutex): an existing
    // segment is checked from its raw bytes first. Absent or unfinished ones are left to the
    // creation. Another opener may be adding to the index right now, so damage must persist
    // while nobody holds the allocator's or the index's lock.
    const int fd = ::shm_open(name_.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    struct stat st;
    const bool stated = ::fstat(fd, &st) == 0;
    // Even a read-only mapping of an object another user may truncate risks SIGBUS.
    std::optional<std::string> refused;
    if (stated) {
        refused = shared::SharedWriteProblem(fd, st, "'" + shared::ShmPath(name_) + "'");
    }
    if (refused) {
        ::close(fd);
        throw boost::interprocess::interprocess_exception(refused->c_str());
    }
    const bool sized = stated && st.st_size > 0;
    void* address =
        sized ? ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_SHARED, fd, 0)
              : MAP_FAILED;
    ::close(fd);
    if (address == MAP_FAILED) {
        return;
    }
    const size_t size = static_cast<size_t>(st.st_size);
    struct Unmap {
        void* address;
        size_t size;
        ~Unmap() { ::munmap(address, size); }
    } unmap{address, size};
    std::string problem;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const SlotImage::HeaderImage image = SlotImage::ParseHeader(address, size);
        if (image.creation != SlotImage::CreationState::Initialised ||
            image.verdict == SlotImage::Verdict::Valid ||
            image.verdict == SlotImage::Verdict::Unfinished || OnlyDataSizeIsWrong(image)) {
            problem.clear();
            break;
        }
        problem = image.problem;
        AwaitManagerLocks(address, image, name_);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (!problem.empty()) {
        throw boost::interprocess::interprocess_exception(
            ("segment '" + name_ + "' is damaged: " + problem + "; remove the slot (slotctl rm " +
             name_ + ") and create it again")
                .c_str());
    }
}

void BaseQueueSlot::CheckHeaderSegment() const {
    // Boost's find and construct follow every offset of the name index; a damaged segment is
    // refused before they run. Under the header lock the index changes only through a process
    // that opens the segment (its find of the header mutex): that one is waited for, and one
    // that died inside the allocator or the index is reported instead of blocking
    // find_or_construct for ever. A data size beyond the buffer is repaired by the reset below.
    shared::SlotSegment& segment = segment_->GetSegment();
    SlotImage::HeaderImage image = SlotImage::ParseHeader(segment.get_address(), segmentSize_);
    AwaitManagerLocks(segment.get_address(), image, name_);
    if (image.verdict != SlotImage::Verdict::Valid) {
        image = SlotImage::ParseHeader(segment.get_address(), segmentSize_);
    }
    if (image.verdict == SlotImage::Verdict::Foreign ||
        (image.verdict == SlotImage::Verdict::Damaged && !OnlyDataSizeIsWrong(image))) {
        throw boost::interprocess::interprocess_exception(
            ("segment '" + name_ + "' is damaged: " + image.problem +
             "; remove the slot (slotctl rm " + name_ + ") and create it again")
                .c_str());
    }
}

bool BaseQueueSlot::InsideSegment(const void* p, size_t size) const {
    const char* base = static_cast<const char*>(segment_->GetSegment().get_address());
    const char* at = static_cast<const char*>(p);
    return p != nullptr && at >= base && size <= segmentSize_ &&
           static_cast<size_t>(at - base) <= segmentSize_ - size;
}
