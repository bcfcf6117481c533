// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/BoostInterprocess/BaseSlotReader.h>

// Reader of a "discarding" slot: delivers each new state once, and only while it is fresh (not
// older than the update time). Writes within one cycle merge into the state current at the read.
class SLOT_EXPORT DiscardingSlotReader : public BaseSlotReader {
public:
    DiscardingSlotReader(boost::shared_ptr<ISlot> slot,
                         const boost::posix_time::time_duration& updateTime);
    ~DiscardingSlotReader() override;

    bool DataInSlotIsActual() override;

private:
    // The slot's write time seen at the previous decision; reader thread only, under the lock.
    boost::posix_time::ptime lastWriteTime_;
};
