// SPDX-License-Identifier: Apache-2.0
#include <Slot/BoostInterprocess/QueueGuard.h>
#include <Slot/BoostInterprocess/SlotImage.h>
#include <Slot/SlotNames.h>

#include <shared/CrashPoint.h>
#include <shared/ManagedObject.h>
#include <shared/MutexOwner.h>
#include <shared/RobustMutex.h>
#include <shared/SharedFolder.h>

#include <boost/interprocess/detail/managed_open_or_create_impl.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/shared_memory_object.hpp>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

namespace {

namespace bi = boost::interprocess;

typedef bi::ipcdetail::msg_hdr_t<shared::SlotOffsetPtr> MessageHeader;
typedef boost::intrusive::pointer_traits<shared::SlotOffsetPtr>::rebind_pointer<MessageHeader>::type
    MessagePtr;
typedef bi::ipcdetail::mq_hdr_t<shared::SlotOffsetPtr> Header;
typedef bi::message_queue_t<shared::SlotOffsetPtr>::size_type QueueSize;

}  // namespace

bool QueueGuard::HolderMapsQueue(pid_t owner) const {
    // A holder lives in a process that maps the queue: a thread id that names a live thread of a
    // process without the mapping was reused after the holder died.
    // Compared by device and inode: a path in a memory map is escaped (a name may hold a
    // newline).
    const pid_t process = shared::ProcessOfThread(owner);
    return process != 0 && shared::ProcessMapsFile(process, file_) != 0;
}

bool QueueGuard::NameStillNamesIt() const {
    const int fd = ::shm_open(name_.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    struct stat st;
    const bool same =
        ::fstat(fd, &st) == 0 && st.st_dev == file_.device && st.st_ino == file_.inode;
    ::close(fd);
    return same;
}

QueueGuard::QueueGuard(const std::string& queueName)
    : name_(queueName),
      base_(nullptr),
      size_(0),
      header_(nullptr),
      mutexOwner_(nullptr),
      countWord_(nullptr),
      firstWord_(nullptr),
      blockedSenders_(nullptr),
      blockedReceivers_(nullptr),
      sendRecord_(nullptr),
      capacity_(0),
      maxMessageSize_(0),
      indexRaw_(0),
      slotSize_(0),
      indexOffset_(0),
      messagesOffset_(0),
      messages_(nullptr),
      identityRaw_(0),
      identityStep_(0),
      maxNumWord_(nullptr),
      maxSizeWord_(nullptr),
      indexWord_(nullptr),
      indexEntries_(nullptr) {
    const int fd = ::shm_open(name_.c_str(), O_RDWR | O_CLOEXEC, 0);
    if (fd < 0) {
        throw bi::interprocess_exception(bi::error_info(errno));
    }
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        const int error = errno;
        ::close(fd);
        throw bi::interprocess_exception(bi::error_info(error));
    }
    // The object named may have been replaced since its preparation checked it.
    if (std::optional<std::string> problem =
            shared::SharedWriteProblem(fd, st, "'" + shared::ShmPath(name_) + "'")) {
        ::close(fd);
        throw bi::interprocess_exception(problem->c_str());
    }
    size_ = static_cast<std::size_t>(st.st_size);
    file_.device = st.st_dev;
    file_.inode = st.st_ino;
    file_.known = true;
    void* address =
        size_ == 0 ? MAP_FAILED : ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (address == MAP_FAILED) {
        Damaged("cannot map its " + std::to_string(size_) + " bytes");
    }
    base_ = static_cast<char*>(address);
    try {
        Validate(true);
    } catch (...) {
        ::munmap(base_, size_);
        throw;
    }
}

QueueGuard::~QueueGuard() {
    ::munmap(base_, size_);
}

void QueueGuard::CountersDamaged(std::uint64_t count, std::uint64_t first) const {
    Damaged("its count " + std::to_string(count) + " or first position " + std::to_string(first) +
            " exceeds its " + std::to_string(capacity_) + " messages");
}

void QueueGuard::Damaged(const std::string& detail) const {
    throw bi::interprocess_exception(("queue '" + name_ + "' is damaged: " + detail).c_str());
}

void QueueGuard::Validate(bool messagesToo) const {
    // The structure is checked by the one parser of slot objects; this view then addresses the
    // parts it found, as Boost's own types.
    const SlotImage::QueueImage image = SlotImage::ParseQueue(base_, size_);
    if (!image.countsValid || !image.indexValid ||
        (messagesToo && image.verdict != SlotImage::Verdict::Valid)) {
        Damaged(image.problem.empty() ? SlotImage::VerdictText(image.verdict) : image.problem);
    }
    Header* header = reinterpret_cast<Header*>(base_ + image.controlOffset);
    if (!image.mutex.present ||
        reinterpret_cast<char*>(&header->m_mutex) != base_ + image.mutex.offset ||
        image.capacity > 0xffffffffu || image.maxMessageSize > 0xffffffffu) {
        Damaged("its control block is not where Boost puts it");
    }
    // Damaged bytes in the mutex would make glibc abort or wait for ever inside Boost.
    if (!shared::MutexLooksSane(shared::NativeMutex(&header->m_mutex), shared::SharedMutexKind())) {
        Damaged("its lock is not a lock");
    }
    if (header_ != nullptr) {
        // Checked again by a repair: the layout stays what this view found at the opening (the
        // repair put its words back first), so do the addresses and sizes kept below.
        if (header != header_ || image.capacity != capacity_ ||
            image.maxMessageSize != maxMessageSize_ || image.messageStride != slotSize_ ||
            image.index.offset != indexOffset_ || image.messages.offset != messagesOffset_) {
            Damaged("its layout changed while it was open");
        }
        return;
    }
    QueueGuard& self = const_cast<QueueGuard&>(*this);
    self.header_ = header;
    self.mutexOwner_ = shared::NativeMutex(&header->m_mutex);
    static_assert(sizeof(header->m_cur_num_msg) == sizeof(std::uint32_t) &&
                      sizeof(header->m_cur_first_msg) == sizeof(std::uint32_t) &&
                      sizeof(header->m_max_num_msg) == sizeof(std::uint32_t) &&
                      sizeof(header->m_max_msg_size) == sizeof(std::uint32_t),
                  "the queue's counters and sizes are 32-bit");
    self.countWord_ = reinterpret_cast<const std::uint32_t*>(&header->m_cur_num_msg);
    self.firstWord_ = reinterpret_cast<const std::uint32_t*>(&header->m_cur_first_msg);
    static_assert(sizeof(header->m_blocked_senders) == sizeof(std::uint32_t) &&
                      sizeof(header->m_blocked_receivers) == sizeof(std::uint32_t),
                  "the queue's blocked counts are 32-bit");
    self.blockedSenders_ = reinterpret_cast<const std::uint32_t*>(&header->m_blocked_senders);
    self.blockedReceivers_ = reinterpret_cast<const std::uint32_t*>(&header->m_blocked_receivers);
    self.sendRecord_ = reinterpret_cast<std::uint32_t*>(&header->m_blocked_senders);
    static_assert(
        sizeof(header->mp_index) == sizeof(Offset) && sizeof(MessagePtr) == sizeof(Offset),
        "the queue's offset pointers are one offset");
    static_assert(offsetof(MessageHeader, len) == 0 && sizeof(QueueSize) == sizeof(std::uint32_t),
                  "a message starts with its 32-bit length");
    self.maxNumWord_ =
        reinterpret_cast<volatile std::uint32_t*>(const_cast<QueueSize*>(&header->m_max_num_msg));
    self.maxSizeWord_ =
        reinterpret_cast<volatile std::uint32_t*>(const_cast<QueueSize*>(&header->m_max_msg_size));
    self.indexWord_ = reinterpret_cast<volatile Offset*>(&header->mp_index);
    self.indexEntries_ = reinterpret_cast<volatile Offset*>(base_ + image.index.offset);
    self.capacity_ = static_cast<std::uint32_t>(image.capacity);
    self.maxMessageSize_ = static_cast<std::uint32_t>(image.maxMessageSize);
    self.indexRaw_ = *indexWord_;
    self.slotSize_ = static_cast<std::size_t>(image.messageStride);
    self.indexOffset_ = image.index.offset;
    self.messagesOffset_ = image.messages.offset;
    self.messages_ = base_ + image.messages.offset;
    self.identityRaw_ = static_cast<Offset>(image.messages.offset - image.index.offset);
    self.identityStep_ = static_cast<Offset>(image.messageStride - sizeof(Offset));
}

std::int64_t QueueGuard::SlotNumber(std::uint64_t position, Offset raw) const {
    // An offset pointer holds its target minus its own address, modulo the width of its offset
    // (1: null). The target, an offset from the start of the mapping, is taken in that width;
    // the checks below are in 64-bit arithmetic, so no damaged value overflows.
    if (raw == 1) {
        return -1;
    }
    const std::uint64_t target =
        static_cast<Offset>(indexOffset_ + position * sizeof(Offset) + raw);
    const std::uint64_t into = target - messagesOffset_;
    if (into >= static_cast<std::uint64_t>(capacity_) * slotSize_ || into % slotSize_ != 0) {
        return -1;
    }
    return static_cast<std::int64_t>(into / slotSize_);
}

void QueueGuard::SetEntry(std::uint64_t position, std::uint64_t slot) {
    indexEntries_[position] = static_cast<Offset>((messagesOffset_ + slot * slotSize_) -
                                                  (indexOffset_ + position * sizeof(Offset)));
}

std::string QueueGuard::RestoreLayout() {
    std::string changed;
    auto note = [&changed](const std::string& what, std::uint64_t now, std::uint64_t then) {
        changed += (changed.empty() ? "" : ", ") + what + " " + std::to_string(now) +
                   " instead of " + std::to_string(then);
    };
    const std::uint32_t maxNum = *maxNumWord_;
    const std::uint32_t maxSize = *maxSizeWord_;
    const Offset index = *indexWord_;
    if (maxNum != capacity_) {
        note("capacity", maxNum, capacity_);
        *maxNumWord_ = capacity_;
    }
    if (maxSize != maxMessageSize_) {
        note("max message size", maxSize, maxMessageSize_);
        *maxSizeWord_ = maxMessageSize_;
    }
    if (index != indexRaw_) {
        note("index pointer offset", index, indexRaw_);
        *indexWord_ = indexRaw_;
    }
    return changed;
}

std::string QueueGuard::RepairEntries() {
    std::string found;
    auto note = [&found](const std::string& what) { found += (found.empty() ? "" : "; ") + what; };
    const std::uint64_t capacity = capacity_;
    if (capacity == 0) {
        return found;
    }
    // Which slot each position points at (-1: none, or one an earlier position has).
    std::vector<std::int64_t> slotOf(capacity, -1);
    std::vector<std::int64_t> positionOf(capacity, -1);
    bool reindex = false;
    for (std::uint64_t position = 0; position < capacity; ++position) {
        const Offset raw = indexEntries_[position];
        const std::int64_t slot = SlotNumber(position, raw);
        if (slot < 0) {
            const std::int64_t at = static_cast<std::int64_t>(
                static_cast<Offset>(indexOffset_ + position * sizeof(Offset) + raw));
            note("index position " + std::to_string(position) + " points at offset " +
                 std::to_string(at) + " of its " + std::to_string(size_) +
                 " bytes, not at a message slot");
            reindex = true;
        } else if (positionOf[slot] >= 0) {
            note("index positions " + std::to_string(positionOf[slot]) + " and " +
                 std::to_string(position) + " point at the same message slot");
            reindex = true;
        } else {
            positionOf[slot] = static_cast<std::int64_t>(position);
            slotOf[position] = slot;
        }
    }
    // The waiting blocks, newest first, that can still be delivered.
    // Read once and checked again: they were checked before the wait for the queue's mutex,
    // and another process may have written them since.
    const std::uint64_t first = __atomic_load_n(firstWord_, __ATOMIC_RELAXED);
    const std::uint64_t count = __atomic_load_n(countWord_, __ATOMIC_RELAXED);
    if (count > capacity || first >= capacity) {
        CountersDamaged(count, first);
    }
    std::vector<std::uint64_t> kept;
    for (std::uint64_t k = 0; k < count; ++k) {
        const std::uint64_t position = (first + k) % capacity;
        if (slotOf[position] < 0) {
            continue;
        }
        const std::uint64_t slot = static_cast<std::uint64_t>(slotOf[position]);
        const std::uint32_t length = LengthOf(messages_ + slot * slotSize_);
        if (length > maxMessageSize_) {
            note("the block at index position " + std::to_string(position) + " claims " +
                 std::to_string(length) + " bytes, more than the " +
                 std::to_string(maxMessageSize_) + "-byte maximum");
            continue;
        }
        kept.push_back(slot);
    }
    if (found.empty()) {
        return found;
    }
    // The kept blocks keep their order from `first` on; every other slot becomes a clean free
    // slot behind them, so that the index is a permutation of the slots again.
    std::vector<bool> waiting(capacity, false);
    std::uint64_t position = first;
    for (std::uint64_t slot : kept) {
        waiting[slot] = true;
        SetEntry(position, slot);
        position = (position + 1) % capacity;
    }
    for (std::uint64_t slot = 0; slot < capacity; ++slot) {
        if (!waiting[slot]) {
            MessageHeader& free = *reinterpret_cast<MessageHeader*>(messages_ + slot * slotSize_);
            free.len = 0;
            free.priority = 0;
            SetEntry(position, slot);
            position = (position + 1) % capacity;
        }
    }
    header_->m_cur_num_msg = static_cast<QueueSize>(kept.size());
    const std::uint64_t dropped = count - kept.size();
    found += std::string(reindex ? "; its index was rebuilt, " : "; ") +
             (dropped == 0   ? std::string("no waiting block was dropped")
              : dropped == 1 ? std::string("1 waiting block was dropped")
                             : std::to_string(dropped) + " waiting blocks were dropped");
    return found;
}

std::size_t QueueGuard::Count() const {
    std::size_t count = __atomic_load_n(&CountWord(), __ATOMIC_RELAXED);
    // Pairs with the fence in BeginSend: a count that includes a send's block comes with that
    // send's record, until the send has returned. x86 keeps loads in program order: only the
    // compiler must not move them.
    __atomic_signal_fence(__ATOMIC_ACQUIRE);
    const std::uint32_t record = __atomic_load_n(sendRecord_, __ATOMIC_RELAXED);
    if (record != 0) {
        const std::int64_t before = RecordedCount(record);
        if (before >= 0 && static_cast<std::size_t>(before) < count) {
            count = static_cast<std::size_t>(before);
        }
    }
    return count <= capacity_ ? count : capacity_;
}

bool QueueGuard::RepairSend(std::uint32_t record, std::uint64_t& first, std::uint64_t& count,
                            std::string& done) const {
    // Boost's full-queue path counts the sender in (+1) and out again: the low bit.
    const std::int64_t recorded = RecordedCount(record);
    if (recorded < 0) {
        return false;
    }
    const std::uint64_t countBefore = static_cast<std::uint64_t>(recorded);
    const std::uint32_t classBefore = ((record & ~1u) / 2 - 1) % 3;
    // A send moves `first` back by one, then counts its block, then sets the block's length and
    // copies its bytes. With a single slot `first` never moves.
    const bool moved = capacity_ > 1 && PositionClass(first) != classBefore;
    if (count == countBefore + 1 && (moved || capacity_ == 1)) {
        // Counted: its bytes may be partly copied, and its sender never heard it was stored.
        // Taken out, so that no reader is handed a block that was never written whole.
        first = (first + 1) % capacity_;
        count = countBefore;
        done += " the block its unfinished send had counted was dropped;";
        return true;
    }
    if (count == countBefore && moved) {
        first = (first + 1) % capacity_;
        done += " the window of a half-made send was restored;";
        return true;
    }
    if (count == countBefore && !moved) {
        done += " its send had not yet taken a block;";
        return true;
    }
    return false;
}

std::string QueueGuard::RepairWindow(std::uint32_t record) {
    std::string done;
    if (capacity_ == 0) {
        header_->m_cur_num_msg = 0;
        header_->m_cur_first_msg = 0;
        return done;
    }
    MessagePtr* index = bi::ipcdetail::to_raw_pointer(header_->mp_index);
    auto message = [&](std::uint64_t position) -> MessageHeader& {
        return *index[position % capacity_];
    };
    std::uint64_t first = header_->m_cur_first_msg;
    std::uint64_t count = header_->m_cur_num_msg;
    if (record != 0 && RepairSend(record, first, count, done)) {
        // The dead holder was inside a recorded send: repaired exactly above.
    } else {
        if (record != 0) {
            done += " its send record did not match the queue;";
        }
        // Without a record (a death inside a receive, or inside a send by a caller without the
        // header lock) the state of the blocks tells what the call had done.
        // A send moves `first` back one slot, then counts the new block. Killed in between, the
        // window has slid: the oldest block lies just past its end. Slide it back.
        if (count < capacity_ && message(first + count).len != 0) {
            first = (first + 1) % capacity_;
            done += " the window of a half-made send was restored;";
        }
        // The oldest block with length 0: a receive cleared it and was killed before it counted
        // it out (the receiver's block in flight), or a send counted a slot it never filled.
        if (count != 0 && message(first + count - 1).len == 0 &&
            message(first + count - 1).priority == 0) {
            --count;
            done += " an emptied oldest block was taken out;";
        }
        // The newest block with length 0: a send counted it and was killed before it filled it.
        if (count != 0 && message(first).len == 0) {
            first = (first + 1) % capacity_;
            --count;
            done += " an unfilled newest block was taken out;";
        }
    }
    // Every other block must fit the queue's message size.
    for (std::uint64_t i = 0; i < count; ++i) {
        if (message(first + i).len > maxMessageSize_) {
            Damaged("block " + std::to_string(i) + " claims " +
                    std::to_string(message(first + i).len) + " bytes");
        }
    }
    // Free slots are clean, as Boost expects of them.
    for (std::uint64_t i = count; i < capacity_; ++i) {
        MessageHeader& free = message(first + i);
        free.len = 0;
        free.priority = 0;
    }
    header_->m_cur_first_msg = static_cast<QueueSize>(first);
    header_->m_cur_num_msg = static_cast<QueueSize>(count);
    // Nobody ever blocks in this queue; a count left by a killed try-call (or the send record)
    // would make every later call signal a condition variable for nothing.
    header_->m_blocked_senders = 0;
    header_->m_blocked_receivers = 0;
    return done;
}

void QueueGuard::Recover(const log4cxx::LoggerPtr& logger, const std::string& slotName) {
    // The sizes and the index pointer never change: Boost sizes every copy by them and follows
    // the pointer in every call. Changed ones are put back before anything else is looked at.
    const std::string changed = RestoreLayout();
    if (!changed.empty() && logger->isErrorEnabled()) {
        LOG4CXX_ERROR(logger, "Queue of '" << slotName << "' : " << changed
                                           << "; the values found at its opening were restored");
    }
    if (!CountersInRange()) {
        CountersDamaged(header_->m_cur_num_msg, header_->m_cur_first_msg);
    }
    // A send record: the sender died inside its send (the queue's mutex is still held, repaired
    // below) or after it (its block is whole and stays).
    std::uint32_t record = __atomic_load_n(sendRecord_, __ATOMIC_RELAXED);
    if (record != 0 && (header_->m_blocked_receivers != 0 || RecordedCount(record) < 0)) {
        record = 0;
    }
    if (AnyBlocked() && record == 0) {
        // Nobody waits in a slot's queue: the counts are damage, and a wrong count only makes
        // senders and receivers signal for nothing. Callers hold the header lock, so no queue
        // call of the library runs meanwhile.
        if (logger->isErrorEnabled()) {
            LOG4CXX_ERROR(logger, "Queue of '"
                                      << slotName << "' counted " << header_->m_blocked_senders
                                      << " blocked senders and " << header_->m_blocked_receivers
                                      << " blocked receivers, but nobody waits in it; "
                                         "counts reset");
        }
        header_->m_blocked_senders = 0;
        header_->m_blocked_receivers = 0;
    }
    const auto limit = shared::CreationWaitLimit();
    const auto deadline = std::chrono::steady_clock::now() + limit;
    // A lock word without an owner is a thread between taking the word and recording itself
    // (or between clearing itself and releasing the word): a live one gets past that within
    // nanoseconds, so one that stays there this long has died there.
    const auto ownerless = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
    for (;;) {
        const int word = __atomic_load_n(&mutexOwner_->__data.__lock, __ATOMIC_RELAXED);
        const pid_t owner = shared::MutexOwnerThread(mutexOwner_);
        if (word == 0) {
            if (record != 0) {
                EndSend();
                record = 0;
            }
            if (StateInBounds()) {
                return;
            }
            // An index entry or a waiting block's length that the next call would follow out of
            // bounds. Repaired under the queue's mutex, so that a caller without the header lock
            // cannot be inside the queue meanwhile; one that took it just now is waited for.
            if (pthread_mutex_trylock(mutexOwner_) == 0) {
                std::string found;
                try {
                    found = RepairEntries();
                } catch (...) {
                    pthread_mutex_unlock(mutexOwner_);
                    throw;
                }
                pthread_mutex_unlock(mutexOwner_);
                if (!found.empty() && logger->isErrorEnabled()) {
                    LOG4CXX_ERROR(logger, "Queue of '" << slotName << "' : " << found);
                }
                return;
            }
        }
        const bool dead = word == 0 ? false
                          : owner == 0
                              ? std::chrono::steady_clock::now() >= ownerless
                              : owner != shared::CurrentThreadId() && !HolderMapsQueue(owner);
        // A holder that let go and ended while it was looked at is gone from the process list
        // too, but it changed the word and the owner first: only a word and owner left as they
        // were belong to a dead holder.
        if (dead && (__atomic_load_n(&mutexOwner_->__data.__lock, __ATOMIC_RELAXED) != word ||
                     shared::MutexOwnerThread(mutexOwner_) != owner)) {
            continue;
        }
        if (dead) {
            // Everyone who takes this mutex in the library holds the header lock, which we hold:
            // nobody else can be inside the queue, so it can be repaired and its mutex made anew.
            Validate(false);
            const std::string done = RepairWindow(record);
            shared::InitSharedMutex(mutexOwner_);
            if (logger->isErrorEnabled()) {
                LOG4CXX_ERROR(logger, "Queue of '"
                                          << slotName << "' was locked by thread "
                                          << (owner != 0 ? std::to_string(owner) : "(unknown)")
                                          << ", which died holding it;"
                                          << (done.empty() ? " its blocks are intact;" : done)
                                          << " lock released");
            }
            return;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            throw bi::interprocess_exception(("queue '" + name_ + "' has been locked by thread " +
                                              std::to_string(owner) + " for more than " +
                                              std::to_string(limit.count()) + " ms")
                                                 .c_str());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void QueueGuard::DieInsideSend(int step, const void* data, std::size_t size) {
    // What Boost's do_send does under the queue's mutex, stopped part-way. A full queue takes
    // no block.
    pthread_mutex_lock(mutexOwner_);
    if (header_->m_cur_num_msg >= capacity_) {
        shared::KillThisProcess();
    }
    if (capacity_ > 1) {
        header_->m_cur_first_msg =
            header_->m_cur_first_msg == 0 ? capacity_ - 1 : header_->m_cur_first_msg - 1;
    }
    if (step >= 1) {
        ++header_->m_cur_num_msg;
        MessageHeader& block = *bi::ipcdetail::to_raw_pointer(
            bi::ipcdetail::to_raw_pointer(header_->mp_index)[header_->m_cur_first_msg]);
        block.priority = 0;
        block.len = static_cast<QueueSize>(size);
        std::memcpy(block.data(), data, size / 2);
    }
    shared::KillThisProcess();
}
