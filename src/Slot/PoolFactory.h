// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/ISlot.h>
#include <Slot/PoolWriter.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <optional>
#include <string>

/// @file
/// Zero-copy pools: a fixed number of blocks of a fixed maximum size in one shared-memory file
/// (PoolPath(name)). A writer loans a free block, fills it in place and publishes it; readers'
/// subscribers get a pointer into the block itself. A block is handed out again only when no
/// reader can still read it: a writer that finds no free block is refused, it never overwrites.
/// docs/pools.md explains when to choose a pool over a slot.

namespace Slot {

/// How a pool is made. The first process to open a pool creates it with its configuration;
/// later openers get the creator's block size and count whatever they ask for (as slots give
/// later openers the creator's sizes), but must ask for the same kind.
struct PoolConfig {
    std::string name;              ///< a slot name (SlotNameProblem) not starting with
                                   ///< PoolTemporaryPrefix
    std::string kind;              ///< "latest" or "queue"
    std::size_t maxBlockSize = 0;  ///< bytes; 1 .. MaxPoolBlockSize
    std::size_t blockCount = 0;    ///< 1 .. MaxPoolBlocks; 2 at least for "latest", whose
                                   ///< latest block is kept for later readers
};

/// A pool has at most 64 blocks and 64 attached writers and readers (one bit each in a word).
constexpr std::size_t MaxPoolBlocks = 64;
constexpr std::size_t MaxPoolAttachments = 64;
/// A block is delivered with an unsigned int size.
constexpr std::size_t MaxPoolBlockSize = 0xffffffffu;

/// Why `config` cannot make a pool, or nothing when it can: the name's problem, an unknown
/// kind, a size or count out of range, or a pool too large to map in this process.
SLOT_EXPORT std::optional<std::string> PoolConfigProblem(const PoolConfig& config);

/// Builds pool writers and readers. Static operations only, reentrant. Never returns a null
/// pointer: a caller gets a working object or an AbortSlotCreationException (invalid
/// configuration, a pool of another kind under the name, a damaged pool file, no room in
/// /dev/shm, 64 attachments already, or a second reader of a queue pool).
class SLOT_EXPORT PoolFactory {
public:
    PoolFactory() = delete;

    /// "latest": the latest published block; each reader delivers every new block once while
    /// it is the latest (like a "discarding" slot). "queue": first in, first out, one reader per
    /// machine, a publish into a full pool refused, nothing stored lost (like a "reliable"
    /// slot).
    static bool PoolKindIsValid(const std::string& kind);

    /// Opens or creates the pool and attaches a writer to it.
    static boost::shared_ptr<PoolWriter> CreatePoolWriter(const PoolConfig& config);

    /// Opens or creates the pool and starts a reader: its thread runs when it is returned and
    /// delivers to its subscribers onNotify(name, pointer into the block, size), valid during
    /// the call (HoldCurrentBlock keeps it longer). `firstSubscriber` (may be null) is
    /// subscribed before the thread starts. The last reference may be dropped anywhere, also
    /// inside a subscriber's onNotify. A child forked without exec has a copy without the
    /// thread (shared::ReaderNotifier): its subscription calls return at once and dropping it
    /// leaves the parent's reader as it is.
    static INotifierPtr CreatePoolReader(const PoolConfig& config,
                                         const ISubscriberPtr& firstSubscriber = ISubscriberPtr());

    /// The same, but the reader's thread polls the pool for up to `spinBudget` (without a
    /// system call) before each sleep: lower latency for a busy core. A budget of 0 makes the
    /// ordinary reader; a negative or infinite one throws AbortSlotCreationException.
    static INotifierPtr CreateSpinningPoolReader(
        const PoolConfig& config, const boost::posix_time::time_duration& spinBudget,
        const ISubscriberPtr& firstSubscriber = ISubscriberPtr());

    /// Returns the blocks of dead processes to the pool `name` (as every attach does) and logs
    /// one ERROR line per dead process. The number of processes reaped; throws
    /// AbortSlotCreationException when the pool cannot be opened.
    static unsigned Recover(const std::string& name);

    /// Unlinks the pool's file. Processes that have it mapped keep working on their mapping.
    /// True when a file was removed.
    static bool RemovePool(const std::string& name);
};

}  // namespace Slot
