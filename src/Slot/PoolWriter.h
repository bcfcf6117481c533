// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/WriteOutcome.h>

#include <shared/ISubscriber.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Slot {

class PoolAttachment;
class PoolWriter;

/// A block loaned to a writer: writable bytes in the pool's shared memory, seen by nobody until
/// publish. Movable, not copyable. Dropping a loan that was not published returns the block to
/// the pool. A failed loan (no free block, too large, damaged pool) is empty: its outcome()
/// says why and was already recorded as the write's outcome.
class SLOT_EXPORT PoolLoan {
public:
    PoolLoan() = default;
    PoolLoan(PoolLoan&& other) noexcept;
    PoolLoan& operator=(PoolLoan&& other) noexcept;
    PoolLoan(const PoolLoan&) = delete;
    PoolLoan& operator=(const PoolLoan&) = delete;
    ~PoolLoan();

    explicit operator bool() const { return data_ != nullptr; }
    void* data() const { return data_; }
    /// The pool's block size: at least what was asked.
    std::size_t capacity() const { return capacity_; }
    /// The sequence number the block will carry when published.
    std::uint64_t sequence() const { return sequence_; }
    /// Why an empty loan is empty (Refused or Failed); None for a valid one.
    WriteOutcome outcome() const { return outcome_; }

    /// Publishes the first `size` bytes and ends the loan. Stored; Discarded when the block it
    /// replaced (latest kind) had not been taken by any reader, or when a concurrent publish of
    /// a later sequence is the latest already (this block is then never delivered); Refused when
    /// `size` exceeds the capacity or the queue is full (the block returns to the pool); Failed for
    /// a damaged pool or an empty loan. The outcome is recorded as LastWriteOutcome and in the
    /// counts of the pool's name. An empty loan returns its outcome() without recording it again.
    WriteOutcome publish(std::size_t size);

private:
    friend class PoolWriter;
    void Drop();

    std::shared_ptr<PoolAttachment> owner_;
    void* data_ = nullptr;
    std::size_t capacity_ = 0;
    unsigned index_ = 0;
    std::uint64_t sequence_ = 0;
    WriteOutcome outcome_ = WriteOutcome::None;
};

/// The writer side of a pool (PoolFactory::CreatePoolWriter). Attached to the pool as one
/// process role from construction to destruction (and while one of its loans lives). Any
/// thread may call loan and onNotify; each loan is used by one thread at a time.
class SLOT_EXPORT PoolWriter : public shared::ISubscriber {
public:
    explicit PoolWriter(std::shared_ptr<PoolAttachment> attachment);
    ~PoolWriter() override;
    PoolWriter(const PoolWriter&) = delete;
    PoolWriter& operator=(const PoolWriter&) = delete;

    /// A free block for up to `size` bytes. When none is free, the blocks of dead processes are
    /// reclaimed once; still none: an empty loan, Refused. `size` above the block size: Refused.
    PoolLoan loan(std::size_t size);

    /// For hosts that do not loan: one copy of the bytes into a loaned block, then publish.
    /// `name` is ignored (the pool's name counts the outcome).
    void onNotify(const std::string& name, const void* data, size_t size) override;

    const std::string& name() const;
    std::size_t maxBlockSize() const;

private:
    std::shared_ptr<PoolAttachment> attachment_;
};

}  // namespace Slot
