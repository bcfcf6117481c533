// SPDX-License-Identifier: Apache-2.0
#include <Slot/BoostInterprocess/DiscardingSlotReader.h>

#include <shared/UtcClock.h>

#include <boost/date_time/posix_time/posix_time.hpp>

DiscardingSlotReader::DiscardingSlotReader(boost::shared_ptr<ISlot> slot,
                                           const boost::posix_time::time_duration& updateTime)
    : BaseSlotReader(slot, updateTime), lastWriteTime_(boost::posix_time::not_a_date_time) {}

DiscardingSlotReader::~DiscardingSlotReader() {
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "~DiscardingSlotReader(), '" << slot_->GetName() << "'");
    }
    if (StopThread()) {
        if (logger_->isDebugEnabled()) {
            LOG4CXX_DEBUG(logger_, "~DiscardingSlotReader() joined, '" << slot_->GetName() << "'");
        }
    }
}

bool DiscardingSlotReader::DataInSlotIsActual() {
    const boost::posix_time::ptime written = slot_->GetLastWriteTime();
    // ptime equality compares the raw tick counts: not_a_date_time equals itself.
    if (written == lastWriteTime_) {
        if (logger_->isTraceEnabled()) {
            LOG4CXX_TRACE(logger_, "Data has not changed, write timestamp "
                                       << boost::posix_time::to_simple_string(written.time_of_day())
                                       << ", unlocking '" << slot_->GetName() << "'");
        }
        return false;
    }
    // Remember the write before judging its age: an expired block is never delivered later.
    lastWriteTime_ = written;
    const boost::posix_time::time_duration age = shared::UtcNow() - written;
    if (updateTime_ < age) {
        if (logger_->isTraceEnabled()) {
            LOG4CXX_TRACE(logger_, "Data expired, write timestamp "
                                       << boost::posix_time::to_simple_string(written.time_of_day())
                                       << ", unlocking '" << slot_->GetName() << "'");
        }
        return false;
    }
    return true;
}
