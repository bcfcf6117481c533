// SPDX-License-Identifier: Apache-2.0
#include <Slot/PoolWriter.h>

#include <Slot/PoolSegment.h>

#include <shared/RobustMutex.h>
#include <shared/UtcClock.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <time.h>
#include <cstring>

namespace Slot {

namespace {

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
    if (data_ != nullptr) {
        std::uint64_t loaned = StateLoaned | owner_->index();
        owner_->segment().block(index_).state.compare_exchange_strong(loaned, StateFree);
        data_ = nullptr;
    }
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
    if (segment.damaged()) {
        return end(WriteOutcome::Failed);
    }
    PoolHeader& header = segment.header();
    PoolBlockSlot& block = segment.block(index_);
    const std::uint64_t loaned = StateLoaned | owner_->index();
    block.size.store(size);
    block.publishTimeNs.store(NowNs());
    block.taken.store(0);

    if (segment.kind() == LatestKind) {
        const std::uint64_t sequence = header.nextSequence.fetch_add(1) + 1;
        block.sequence.store(sequence);
        // Named the latest while still loaned: nobody reclaims a loaned block, and a reaper
        // that finds it loaned by a dead writer and named the latest marks it published.
        const std::uint64_t old = header.latest.exchange(BlockRef(sequence, index_));
        std::uint64_t expected = loaned;
        block.state.compare_exchange_strong(expected, StatePublished | sequence);
        data_ = nullptr;  // published: no longer ours to drop
        sequence_ = sequence;
        segment.Wake();
        segment.TryReclaim(index_);  // superseded already by a faster writer
        WriteOutcome outcome = WriteOutcome::Stored;
        if (old != 0) {
            const unsigned oldIndex = static_cast<unsigned>(old & 0xff);
            if (oldIndex >= segment.blockCount()) {
                segment.MarkDamaged("the latest word named block " + std::to_string(oldIndex));
            } else {
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
    const shared::OwnerDeadRepair repair = [&segment](pid_t) { segment.SweepOrphans(); };
    try {
        if (!shared::TryLockRecovering(segment.writerMutex(), repair) &&
            !shared::TimedLockRecovering(
                segment.writerMutex(), shared::UtcNow() + boost::posix_time::seconds(2), repair)) {
            LOG4CXX_ERROR(segment.logger(),
                          "Pool '" << segment.name() << "': the writers' lock stayed taken");
            return end(WriteOutcome::Failed);
        }
    } catch (const std::exception& e) {
        segment.MarkDamaged(std::string("the writers' lock: ") + e.what());
        return end(WriteOutcome::Failed);
    }
    const std::uint64_t head = header.head.load();
    const std::uint64_t tail = header.tail.load();
    WriteOutcome outcome = WriteOutcome::Stored;
    if (tail - head > segment.blockCount()) {
        segment.MarkDamaged("the ring's counters are out of range");
        outcome = WriteOutcome::Failed;
    } else if (tail - head == segment.blockCount()) {
        outcome = WriteOutcome::Refused;
    } else {
        const std::uint64_t sequence = header.nextSequence.fetch_add(1) + 1;
        block.sequence.store(sequence);
        std::uint64_t expected = loaned;
        if (block.state.compare_exchange_strong(expected, StatePublished | sequence)) {
            segment.ring(tail).store(BlockRef(sequence, index_));
            header.tail.store(tail + 1);
            data_ = nullptr;
            sequence_ = sequence;
        } else {
            outcome = WriteOutcome::Failed;  // reaped as a dead writer's loan: not ours now
        }
    }
    shared::UnlockRobust(segment.writerMutex());
    if (outcome == WriteOutcome::Stored) {
        segment.Wake();
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
    if (segment.damaged()) {
        return refuse(WriteOutcome::Failed);
    }
    if (size > segment.maxBlockSize()) {
        return refuse(WriteOutcome::Refused);
    }
    const std::uint64_t loaned = StateLoaned | attachment_->index();
    for (int pass = 0; pass < 2; ++pass) {
        for (unsigned i = 0; i < segment.blockCount(); ++i) {
            std::uint64_t expected = StateFree;
            if (segment.block(i).state.compare_exchange_strong(expected, loaned)) {
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
