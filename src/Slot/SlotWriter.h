// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/ISlot.h>

#include <shared/ISubscriber.h>

#include <log4cxx/logger.h>
#include <boost/shared_ptr.hpp>

// Sink side of a slot: stores every notification it receives as one block, under the slot's
// interprocess lock, then wakes the slot's readers (outside the lock). Runs on the notifying
// thread; several writers, in any threads and processes, may share one slot.
class SLOT_EXPORT SlotWriter : public shared::ISubscriber {
public:
    explicit SlotWriter(const boost::shared_ptr<IBaseSlot>& slot);
    // The topic is ignored: a slot carries bytes only.
    void onNotify(const std::string& topic, const void* data, size_t size) override;
    ~SlotWriter() override;

private:
    boost::shared_ptr<IBaseSlot> slot_;
    log4cxx::LoggerPtr logger_;
};
