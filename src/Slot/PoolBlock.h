// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Slot {

class PoolHold;

/// A counted hold on a block a pool reader delivered: while any copy lives, the block is not
/// handed out again and its bytes stay as published. Copyable; copies may be used and dropped on
/// any thread. The block returns to the pool when the last copy goes (and it is no longer the
/// latest block, or was popped from the queue). An empty PoolBlock holds nothing.
class SLOT_EXPORT PoolBlock {
public:
    PoolBlock() = default;
    explicit PoolBlock(std::shared_ptr<const PoolHold> hold);

    explicit operator bool() const { return hold_ != nullptr; }
    const void* data() const;
    std::size_t size() const;
    /// The sequence number the writer's publish gave the block: unique in the pool, growing.
    std::uint64_t sequence() const;

private:
    std::shared_ptr<const PoolHold> hold_;
};

/// Inside a pool reader's onNotify: a hold on the block being delivered (whose bytes are the
/// `data` of the call). Elsewhere: an empty PoolBlock.
SLOT_EXPORT PoolBlock HoldCurrentBlock();

/// Inside a pool reader's onNotify: the sequence number of the block being delivered, without
/// holding it. Elsewhere: 0.
SLOT_EXPORT std::uint64_t CurrentBlockSequence();

}  // namespace Slot
