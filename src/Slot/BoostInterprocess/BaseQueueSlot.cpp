// SPDX-License-Identifier: Apache-2.0
#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/BaseQueueSlot.h>

#include <shared/InterprocConditionPack.h>
#include <shared/UtcClock.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/permissions.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>

#include <algorithm>
#include <cstring>

namespace {

const char* const CreationFailurePrefix = "Slot could not be created: ";

// Offsets inside the queue and the header segment are 32-bit signed (shared::SlotOffsetPtr), and
// Boost sizes the queue in 32-bit unsigned arithmetic that wraps silently. Refuse sizes whose
// objects could not be addressed, with a generous bound on the queue's per-message overhead.
bool SizesAreAddressable(std::uint64_t maxDataSize, std::uint64_t bufferLength) {
    const std::uint64_t limit = INT_MAX;
    const std::uint64_t perMessage = maxDataSize + 64;
    return maxDataSize + BaseQueueSlot::HeaderHeadroom <= limit &&
           bufferLength <= limit / perMessage && bufferLength * perMessage + 4096 <= limit;
}

// Why `name` cannot name a slot, or empty when it can. Checked before anything is created: the
// queue "queue_<name>" is made first, and names such as "", "." and ".." are valid for it but not
// for the header segment, so the queue would be left behind alone.
std::string NameProblem(const std::string& name) {
    // POSIX shared-memory names are single file names of at most NAME_MAX (255) bytes; the
    // queue's name adds the prefix "queue_".
    const size_t longest = 255 - BaseQueueSlot::GetQueueName("").size();
    if (name.empty()) {
        return "is empty";
    }
    if (name == "." || name == "..") {
        return "is not a file name";
    }
    if (name.find('/') != std::string::npos) {
        return "contains '/'";
    }
    if (name.size() > longest) {
        return "is longer than " + std::to_string(longest) + " characters";
    }
    return std::string();
}

}  // namespace

BaseQueueSlot::BaseQueueSlot(boost::interprocess::open_or_create_t, const char* name,
                             size_t maxDataSize, size_t bufferLength)
    : logger_(log4cxx::Logger::getLogger("Slot")),
      writeTime_(nullptr),
      name_(name),
      bufferHandle_(nullptr),
      bufferDataSize_(nullptr) {
    const std::string nameProblem = NameProblem(name_);
    if (!nameProblem.empty()) {
        throw AbortSlotCreationException(std::string(CreationFailurePrefix) + "slot name '" +
                                         name_ + "' " + nameProblem);
    }
    if (!SizesAreAddressable(maxDataSize, bufferLength)) {
        throw AbortSlotCreationException(std::string(CreationFailurePrefix) + "max data size " +
                                         std::to_string(maxDataSize) + " and buffer length " +
                                         std::to_string(bufferLength) +
                                         " exceed what a slot can address");
    }
    try {
        queue_.reset(new MessageQueue(boost::interprocess::open_or_create,
                                      GetQueueName(name_).c_str(),
                                      static_cast<MessageQueue::size_type>(bufferLength),
                                      static_cast<MessageQueue::size_type>(maxDataSize),
                                      boost::interprocess::permissions(0644)));
        const size_t realMaxDataSize = queue_->get_max_msg_size();
        const size_t realBufferLength = queue_->get_max_msg();
        // Reopening with other sizes is normal (a host made the slot, SimpleSlotRW opens it
        // with its own sizes): worth a trace, not a warning.
        if ((realMaxDataSize != maxDataSize || realBufferLength != bufferLength) &&
            logger_->isTraceEnabled()) {
            LOG4CXX_TRACE(logger_, "Slot '" << name_ << "' exists with max data size "
                                            << realMaxDataSize << " and buffer length "
                                            << realBufferLength << "; asked for " << maxDataSize
                                            << " and " << bufferLength);
        }
        if (!SizesAreAddressable(realMaxDataSize, 0)) {
            throw AbortSlotCreationException(std::string(CreationFailurePrefix) +
                                             "the queue's max data size " +
                                             std::to_string(realMaxDataSize) + " is too large");
        }
        // The segment is sized for the queue's real message size, so that the output buffer fits
        // also when the queue outlived an earlier segment of the same name. The shared_ptr calls
        // the deleter itself if it cannot be built.
        segment_.reset(
            shared::CreateSharedMemory(boost::interprocess::open_or_create, name_.c_str(),
                                       static_cast<unsigned int>(realMaxDataSize + HeaderHeadroom)),
            shared::DestroySharedMemory);
        lockable_.Bind(segment_->GetMutex());
        if (logger_->isTraceEnabled()) {
            LOG4CXX_TRACE(logger_, "Created shared memory and queue for '" << name_ << "'");
        }
        ConstructHeader();
        if (logger_->isTraceEnabled()) {
            LOG4CXX_TRACE(logger_, "BaseQueueSlot() : unlocked '" << name_ << "'");
        }
    } catch (const boost::interprocess::interprocess_exception& e) {
        throw AbortSlotCreationException(std::string(CreationFailurePrefix) + e.what());
    }
}

BaseQueueSlot::~BaseQueueSlot() {
    if (logger_->isTraceEnabled()) {
        LOG4CXX_TRACE(logger_, "~BaseQueueSlot()");
    }
}

void BaseQueueSlot::ConstructHeader() {
    boost::interprocess::scoped_lock<shared::ILockable> lock(*GetLockable());
    shared::SlotSegment& segment = segment_->GetSegment();

    writeTime_ = segment.find_or_construct<boost::posix_time::ptime>("last_write_tstamp")();
    bufferDataSize_ = segment.find_or_construct<unsigned int>("output_buffer_data_size")();

    bufferHandle_ = segment.find<int>("output_buffer_handle").first;
    if (bufferHandle_ == nullptr) {
        // First opener: allocate the output buffer. If that fails, take the handle object back
        // so that no later opener finds a handle without a buffer.
        bufferHandle_ = segment.construct<int>("output_buffer_handle")(0);
        if (bufferHandle_ == nullptr) {
            throw AbortSlotCreationException(InvalidHeaderMsg());
        }
        try {
            void* buffer = segment.allocate(GetMaxDataSize());
            *bufferHandle_ = segment.get_handle_from_address(buffer);
        } catch (...) {
            segment.destroy_ptr(bufferHandle_);
            bufferHandle_ = nullptr;
            throw;
        }
    } else {
        const OutputBuffer out = GetOutputBuffer();
        if (out.capacity < GetMaxDataSize() && logger_->isWarnEnabled()) {
            LOG4CXX_WARN(logger_, "Output buffer of '" << name_ << "' has " << out.capacity
                                                       << " bytes, less than its max data size "
                                                       << GetMaxDataSize());
        }
    }

    if (bufferDataSize_ == nullptr || writeTime_ == nullptr) {
        throw AbortSlotCreationException(InvalidHeaderMsg());
    }
    // Every opening forgets the last block and the last write time; queued blocks stay.
    *bufferDataSize_ = 0;
    *writeTime_ = boost::posix_time::ptime(boost::posix_time::not_a_date_time);

    ConstructRwSync();
}

void BaseQueueSlot::ConstructRwSync() {
    // Not an interprocess_condition: see shared/InterprocCondition.h (a waiter killed mid-wait
    // must not hang the slot's other processes). Same size, same place in the layout.
    shared::InterprocCondition* condition =
        segment_->GetSegment().find_or_construct<shared::InterprocCondition>("cond_on_write")();
    boost::interprocess::interprocess_mutex* mutex = segment_->GetMutex();
    if (condition == nullptr || mutex == nullptr) {
        throw AbortSlotCreationException(InvalidHeaderMsg());
    }
    onWrite_.reset(new shared::InterprocConditionPack<boost::interprocess::interprocess_mutex>(
        mutex, condition));
}

std::string BaseQueueSlot::InvalidHeaderMsg() const {
    return "Slot '" + name_ + "'could not be created: invalid header";
}

std::string BaseQueueSlot::GetName() const {
    return name_;
}

size_t BaseQueueSlot::GetMaxDataSize() const {
    return queue_ ? queue_->get_max_msg_size() : 0;
}

shared::ILockable* BaseQueueSlot::GetLockable() {
    return &lockable_;
}

shared::ISyncEvent* BaseQueueSlot::GetOnWriteCondition() {
    return onWrite_.get();
}

boost::posix_time::ptime BaseQueueSlot::GetLastWriteTime() const {
    return *writeTime_;
}

size_t BaseQueueSlot::GetBufferLength() const {
    return queue_ ? queue_->get_num_msg() : 0;
}

std::string BaseQueueSlot::GetQueueName(const std::string& name) {
    return "queue_" + name;
}

std::string BaseQueueSlot::GetConditionName(const std::string& name) {
    return "condition_" + name;
}

std::string BaseQueueSlot::GetRwSyncFileLockName(const std::string& name) {
    return "rwSync_" + name + ".flk";
}

boost::posix_time::ptime BaseQueueSlot::StampLastWriteTime() {
    const boost::posix_time::ptime now = shared::UtcNow();
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
    shared::SlotSegment& segment = segment_->GetSegment();
    const std::uint64_t segmentSize = segment.get_size();
    const int handle = *bufferHandle_;
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
    const MessageQueue::size_type max = queue_->get_max_msg_size();
    shared::SizedArray received(max);
    char none;  // a zero-size slot still needs a valid address to receive into
    MessageQueue::size_type count = 0;
    unsigned int priority = 0;
    if (!queue_->try_receive(max != 0 ? received.data() : &none, max, count, priority)) {
        return shared::SizedArray();
    }
    if (count > max) {
        count = max;
    }
    received.setSize(static_cast<unsigned int>(count));
    KeepInOutBuf(received.data(), count);
    return received;
}

size_t BaseQueueSlot::ReceiveInto(void* buffer, size_t size) {
    const MessageQueue::size_type max = queue_->get_max_msg_size();
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
    if (!queue_->try_receive(buffer, max, count, priority)) {
        return 0;
    }
    if (count > max) {
        count = max;
    }
    KeepInOutBuf(static_cast<const char*>(buffer), count);
    return count;
}

void BaseQueueSlot::KeepInOutBuf(const char* block, size_t count) {
    const OutputBuffer out = GetOutputBuffer();
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
    const MessageQueue::size_type max = queue_->get_max_msg_size();
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
