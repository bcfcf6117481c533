// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/BoostInterprocess/BaseQueueSlot.h>
#include <Slot/Export.h>

// Slot kind "discarding": a queue of one block. A write never waits and never fails for lack of
// room: the waiting block is dropped and replaced. A read takes the waiting block or, when none
// waits, hands out again a copy of the last block taken (the output buffer).
//
// Neither operation takes the slot's lockable nor signals its condition: callers that need the
// discard-then-send of WriteData, or the take-and-copy of ReadData, to be exclusive hold
// GetLockable() around the call (the slot writer and reader do).
class SLOT_EXPORT DiscardingSlot : public BaseQueueSlot {
public:
    DiscardingSlot(boost::interprocess::open_or_create_t, const char* name,
                   unsigned int maxDataSize);
    ~DiscardingSlot() override;

    // Copies at most `size` bytes of the newest block, or of the last block taken, into buffer.
    // Returns 0 when nothing was taken since the slot was opened.
    size_t ReadData(void* buffer, size_t size) override;
    // Stores one block, dropping the one that waits. Failures are logged, not thrown.
    void WriteData(const void* data, size_t size) override;
};
