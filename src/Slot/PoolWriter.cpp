// SPDX-License-Identifier: Apache-2.0
#include <Slot/PoolWriter.h>

#include <Slot/PoolSegment.h>

#include <shared/CrashPoint.h>
#include <shared/RobustMutex.h>

#include <time.h>
#include <chrono>
#include <cstring>

namespace Slot {

namespace {

// A child forked with a writer writes through one of its own: the inherited one's attachment
// (and the blocks it loans) belong to the parent. True, with an ERROR line, for such a writer.
bool InheritedWriter(PoolAttachment& attachment) {
    if (!attachment.Inherited()) {
        return false;
    }
    PoolSegment& segment = attachment.segment();
    LOG4CXX_ERROR(segment.logger(), "Pool '" << segment.name()
                                             << "': this writer was opened before a fork: a "
                                                "child opens its own");
    return true;
}

std::uint64_t NowNs() {
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000ull +
           static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace

PoolLoan::PoolLoan(PoolLoan&& other) noexcept
    : owner_(std::move(other.owner_)),
      data_(other.data_),
      capacity_(other.capacity_),
      index_(other.index_),
      sequence_(other.sequence_),
      outcome_(other.outcome_) {
    other.data_ = nullptr;
}

PoolLoan& PoolLoan::operator=(PoolLoan&& other) noexcept {
    if (this != &other) {
        Drop();
        owner_ = std::move(other.owner_);
        data_ = other.data_;
        capacity_ = other.capacity_;
        index_ = other.index_;
        sequence_ = other.sequence_;
        outcome_ = other.outcome_;
        other.data_ = nullptr;
    }
    return *this;
}

PoolLoan::~PoolLoan() {
    Drop();
}

void PoolLoan::Drop() {
    // A forked child's copy of its parent's loan: the block stays the parent's.
    if (data_ != nullptr && !owner_->Inherited()) {
        std::uint64_t loaned = StateLoaned | owner_->index();
        owner_->segment().block(index_).state.compare_exchange_strong(loaned, StateFree);
    }
    data_ = nullptr;
    owner_.reset();
}

WriteOutcome PoolLoan::publish(std::size_t size) {
    if (data_ == nullptr) {
        return outcome_ == WriteOutcome::None ? WriteOutcome::Failed : outcome_;
    }
    PoolSegment& segment = owner_->segment();
    shared::WriteCounters* counters = segment.counters();
    auto end = [&](WriteOutcome outcome) {
        Drop();
        outcome_ = outcome;
        shared::RecordWriteOutcome(counters, outcome);
        return outcome;
    };
    if (size > capacity_) {
        return end(WriteOutcome::Refused);
    }
    if (InheritedWriter(*owner_)) {
        return end(WriteOutcome::Failed);
    }
    if (segment.damaged()) {
        return end(WriteOutcome::Failed);
    }
    PoolHeader& header = segment.header();
    PoolBlockSlot& block = segment.block(index_);
    const std::uint64_t loaned = StateLoaned | owner_->index();
    // The block's line is this writer's since the loan; its fields need no order of their own:
    // the state exchange (latest kind) or the tail store (queue kind) below releases them.
    block.size.store(size, std::memory_order_relaxed);
    block.publishTimeNs.store(NowNs(), std::memory_order_relaxed);

    if (segment.kind() == LatestKind) {
        block.taken.store(0, std::memory_order_relaxed);
        const std::uint64_t sequence = header.nextSequence.fetch_add(1) + 1;
        block.sequence.store(sequence, std::memory_order_relaxed);
        shared::StopPoint("pool-latest-sequence-taken");
        // Named the latest while still loaned: nobody reclaims a loaned block, and a reaper
        // that finds it loaned by a dead writer marks it published.
        std::uint64_t old = 0;
        const bool named = segment.NameLatest(BlockRef(sequence, index_), old);
        std::uint64_t expected = loaned;
        const std::uint64_t published = StatePublished | sequence;
        // Failing, it finds the block published by a reaper (the same word) or a damaged state.
        const bool stateKept =
            block.state.compare_exchange_strong(expected, published) || expected == published;
        data_ = nullptr;  // published: no longer ours to drop
        sequence_ = sequence;
        if (named) {
            segment.Wake();
        }
        segment.TryReclaim(index_);  // superseded already by a faster writer
        // Not named: a later block is the latest already, this one was replaced unseen.
        WriteOutcome outcome = named ? WriteOutcome::Stored : WriteOutcome::Discarded;
        if (!stateKept) {
            segment.MarkDamaged("block " + std::to_string(index_) +
                                " was no longer loaned at its publish");
            return end(WriteOutcome::Failed);
        }
        if (old != 0) {
            const unsigned oldIndex = static_cast<unsigned>(old & 0xff);
            std::string problem;
            if (oldIndex >= segment.blockCount()) {
                problem = "the latest word named block " + std::to_string(oldIndex);
            } else if (!named) {
                problem = LatestWordProblem(old, header.nextSequence.load());
            }
            if (!problem.empty()) {
                segment.MarkDamaged(problem);
                if (!named) {
                    outcome = WriteOutcome::Failed;
                }
            } else if (named) {
                PoolBlockSlot& superseded = segment.block(oldIndex);
                if (superseded.taken.load() == 0 && superseded.sequence.load() == (old >> 8)) {
                    outcome = WriteOutcome::Discarded;
                }
                segment.TryReclaim(oldIndex);
            }
        }
        return end(outcome);
    }

    // Queue kind: pushes are serialised by the writers' robust mutex; the tail store commits.
    // The deadline is computed only when the lock is taken (no clock read on the usual path).
    // The lines the push writes are fetched together first: after a large fill they are no
    // longer in this core's caches, and fetched one after the other they would cost a miss
    // each. The ring's line is the one of the tail as it stands (a hint; read again below).
    __builtin_prefetch(segment.writerMutex(), 1);
    __builtin_prefetch(&segment.ring(header.tail.load(std::memory_order_relaxed)), 1);
    const shared::OwnerDeadRepair repair = [&segment](pid_t) { segment.SweepOrphans(); };
    try {
        if (!shared::TryLockRecovering(segment.writerMutex(), repair, segment.writerWatch()) &&
            !shared::TimedLockRecoveringFor(segment.writerMutex(), std::chrono::seconds(2), repair,
                                            segment.writerWatch())) {
            LOG4CXX_ERROR(segment.logger(),
                          "Pool '" << segment.name() << "': the writers' lock stayed taken");
            return end(WriteOutcome::Failed);
        }
    } catch (const std::exception& e) {
        segment.MarkDamaged(std::string("the writers' lock: ") + e.what());
        return end(WriteOutcome::Failed);
    }
    // Under the mutex only writers store the tail: relaxed. The head is the reader's, read from
    // the pool only when the one seen last leaves no room (HeadForRoom).
    const std::uint64_t tail = header.tail.load(std::memory_order_relaxed);
    const std::uint64_t head = segment.HeadForRoom(tail);
    WriteOutcome outcome = WriteOutcome::Stored;
    bool sleepers = false;
    if (tail - head > segment.blockCount()) {
        segment.MarkDamaged("the ring's counters are out of range");
        outcome = WriteOutcome::Failed;
    } else if (tail - head == segment.blockCount()) {
        outcome = WriteOutcome::Refused;
    } else {
        // One sequence per ring position: the reader knows it from the head alone.
        const std::uint64_t sequence = tail + 1;
        block.sequence.store(sequence, std::memory_order_relaxed);
        std::uint64_t expected = loaned;
        if (block.state.compare_exchange_strong(expected, StatePublished | sequence)) {
            // The entry and the pushed word (beside the tail, see the reader), then the tail
            // with release: a reader that loads the tail with acquire sees both and everything
            // written to the block and its line before.
            segment.ring(tail).store(BlockRef(sequence, index_), std::memory_order_relaxed);
            header.latest.store(PushedWord(tail, index_, size), std::memory_order_relaxed);
            header.tail.store(tail + 1, std::memory_order_release);
            // Counted in the wake word right after, on the same line, before the unlock.
            sleepers = segment.Announce();
            data_ = nullptr;
            sequence_ = sequence;
        } else {
            outcome = WriteOutcome::Failed;  // reaped as a dead writer's loan: not ours now
        }
    }
    shared::UnlockRobust(segment.writerMutex(), segment.writerWatch());
    if (sleepers) {
        segment.WakeSleepers();
    }
    return end(outcome);
}

PoolWriter::PoolWriter(std::shared_ptr<PoolAttachment> attachment)
    : attachment_(std::move(attachment)) {}

PoolWriter::~PoolWriter() = default;

const std::string& PoolWriter::name() const {
    return attachment_->segment().name();
}

std::size_t PoolWriter::maxBlockSize() const {
    return attachment_->segment().maxBlockSize();
}

PoolLoan PoolWriter::loan(std::size_t size) {
    PoolSegment& segment = attachment_->segment();
    PoolLoan loan;
    auto refuse = [&](WriteOutcome outcome) {
        shared::RecordWriteOutcome(segment.counters(), outcome);
        loan.outcome_ = outcome;
        return std::move(loan);
    };
    if (InheritedWriter(*attachment_)) {
        return refuse(WriteOutcome::Failed);
    }
    if (segment.damaged()) {
        return refuse(WriteOutcome::Failed);
    }
    if (size > segment.maxBlockSize()) {
        return refuse(WriteOutcome::Refused);
    }
    const std::uint64_t loaned = StateLoaned | attachment_->index();
    for (int pass = 0; pass < 2; ++pass) {
        // The lowest free block, so that a few blocks stay in use and in the caches. A block is
        // exchanged only when a plain load finds it free: a failed exchange would take the
        // block's line from the reader.
        for (unsigned i = 0; i < segment.blockCount(); ++i) {
            std::atomic<std::uint64_t>& state = segment.block(i).state;
            std::uint64_t expected = StateFree;
            if (state.load(std::memory_order_relaxed) == StateFree &&
                state.compare_exchange_strong(expected, loaned)) {
                loan.owner_ = attachment_;
                loan.data_ = segment.data(i);
                loan.capacity_ = segment.maxBlockSize();
                loan.index_ = i;
                return loan;
            }
        }
        if (pass == 0) {
            segment.TryReclaimAll();
            segment.ReapDead();
        }
    }
    return refuse(WriteOutcome::Refused);
}

void PoolWriter::onNotify(const std::string&, const void* data, size_t size) {
    PoolLoan block = loan(size);
    if (!block) {
        return;
    }
    if (size != 0) {
        std::memcpy(block.data(), data, size);
    }
    block.publish(size);
}

}  // namespace Slot
