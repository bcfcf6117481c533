// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <cstdint>
#include <string>

/// @file
/// What became of writes into slots: the outcome of this thread's last write and, per slot
/// name, how many writes of this process ended each way. The slot kinds and the named-pipe
/// writer record every write; programs read the results through <Slot/WriteOutcome.h>.

namespace shared {

/// What became of one write.
enum class WriteOutcome : unsigned char {
    None,       ///< no write recorded in this thread yet
    Stored,     ///< the block is in the slot
    Discarded,  ///< the block is in the slot; an unread block waiting there was thrown away
    Refused,    ///< the block was not stored: the slot was full, or the block larger than the
                ///< slot's maximum size
    Failed,     ///< the block was not stored because of an error, or because the transport can
                ///< never carry it (see the log): retrying the same block does not help
};

/// Counts of the outcomes of writes made by this process into one slot, since the process
/// started (a forked child starts from zero). The counts are read one after the other, not as
/// one snapshot.
struct WriteCounts {
    std::uint64_t stored = 0;     ///< WriteOutcome::Stored
    std::uint64_t discarded = 0;  ///< WriteOutcome::Discarded
    std::uint64_t refused = 0;    ///< WriteOutcome::Refused
    std::uint64_t failed = 0;     ///< WriteOutcome::Failed
    /// Bytes of stored writes that were lost afterwards: a named-pipe writer closed its pipe, or
    /// left it for a pipe made again at its name, while no reader had it open, so the kernel
    /// freed what nobody had read. Those writes still count as stored.
    std::uint64_t bytesLostAtClose = 0;

    /// Every write counted.
    std::uint64_t Total() const { return stored + discarded + refused + failed; }
    /// Writes whose block did not reach the slot (refused or failed).
    std::uint64_t NotStored() const { return refused + failed; }
};

/// The counters of one slot name, owned by the process-wide registry and never freed.
class WriteCounters;

/// The counters of `slotName`, made on first use. The pointer stays valid for the life of the
/// process; writers look it up once and keep it.
SHARED_EXPORT WriteCounters* WriteCountersFor(const std::string& slotName);

/// Records one write: sets this thread's last outcome and counts it for the slot (relaxed
/// atomic increments; safe from any thread). `outcome` None is ignored.
SHARED_EXPORT void RecordWriteOutcome(WriteCounters* counters, WriteOutcome outcome);

/// Adds `bytes` to the slot's WriteCounts::bytesLostAtClose (a relaxed atomic increment; safe
/// from any thread). The thread's last outcome does not change: no write was made.
SHARED_EXPORT void RecordBytesLostAtClose(WriteCounters* counters, std::uint64_t bytes);

/// The outcome of the last write this thread made into any slot; None before the first.
SHARED_EXPORT WriteOutcome LastWriteOutcome();

/// The counts of the writes this process made into the slot `slotName` (all zero for a name
/// never written to).
SHARED_EXPORT WriteCounts GetWriteCounts(const std::string& slotName);

/// "none", "stored", "discarded", "refused" or "failed".
SHARED_EXPORT const char* ToString(WriteOutcome outcome);

}  // namespace shared
