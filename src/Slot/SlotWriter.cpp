// SPDX-License-Identifier: Apache-2.0
#include <Slot/SlotWriter.h>

#include <shared/ILockable.h>
#include <shared/WriteOutcome.h>

#include <boost/interprocess/sync/scoped_lock.hpp>

SlotWriter::SlotWriter(const boost::shared_ptr<IBaseSlot>& slot)
    : slot_(slot), logger_(log4cxx::Logger::getLogger("Slot.Writer")) {}

void SlotWriter::onNotify(const std::string&, const void* data, size_t size) {
    // TRACE lies below DEBUG: with DEBUG off (the usual case) one level test serves all three
    // lines of a write, and none is made while the lock is held.
    const bool debug = logger_->isDebugEnabled();
    const bool trace = debug && logger_->isTraceEnabled();
    if (debug) {
        LOG4CXX_DEBUG(logger_, "write to '" << slot_->GetName() << "'");
    }
    bool writing = false;
    try {
        // Only the write itself (and its TRACE line) stands inside the slot's lock.
        boost::interprocess::scoped_lock<shared::ILockable> lock(*slot_->GetLockable());
        if (trace) {
            LOG4CXX_TRACE(logger_, "locked '" << slot_->GetName() << "'");
        }
        writing = true;
        slot_->WriteData(data, size);
    } catch (...) {
        // The slot kinds record their own outcomes; a write that throws is a failed one,
        // recorded once the lock is released (the lock's own failure is no write).
        if (writing) {
            shared::RecordWriteOutcome(shared::WriteCountersFor(slot_->GetName()),
                                       shared::WriteOutcome::Failed);
        }
        throw;
    }
    if (trace) {
        LOG4CXX_TRACE(logger_, "unlocked '" << slot_->GetName() << "'");
    }
    slot_->GetOnWriteCondition()->Notify();
}

SlotWriter::~SlotWriter() {
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "~SlotWriter(), slot '" << slot_->GetName() << "'");
    }
}
