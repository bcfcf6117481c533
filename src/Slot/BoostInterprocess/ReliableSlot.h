// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/BoostInterprocess/BaseQueueSlot.h>
#include <Slot/Export.h>

// Slot kind "reliable": a FIFO queue of bufferLength blocks. Nothing accepted is thrown away; a
// write into a full queue is refused with a WARN line and never waits.
//
// Neither operation takes the slot's lockable nor signals its condition. Readers that share a
// slot without the lockable each get whole blocks of their own, every block exactly once; but
// between the count and the receive of ReadData another reader may take the block, and the read
// then returns 0 with the empty-queue ERROR. Readers that must not see that hold GetLockable()
// around ReadData (the reliable reader is the only one on the machine).
class SLOT_EXPORT ReliableSlot : public BaseQueueSlot {
public:
    ReliableSlot(boost::interprocess::open_or_create_t, const char* name, unsigned int maxDataSize,
                 unsigned int bufferLength);
    ~ReliableSlot() override;

    // Takes the oldest block and copies at most `size` bytes of it; the rest of a longer block is
    // lost. Returns 0, with an ERROR line, when the queue is empty.
    size_t ReadData(void* buffer, size_t size) override;
    // Appends one block if there is room. Refusals and failures are logged, not thrown.
    void WriteData(const void* data, size_t size) override;
};
