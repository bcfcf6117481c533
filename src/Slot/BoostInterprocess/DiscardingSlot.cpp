// SPDX-License-Identifier: Apache-2.0
#include <Slot/BoostInterprocess/DiscardingSlot.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/exceptions.hpp>

#include <algorithm>
#include <cstring>

DiscardingSlot::DiscardingSlot(boost::interprocess::open_or_create_t, const char* name,
                               unsigned int maxDataSize)
    : BaseQueueSlot(boost::interprocess::open_or_create, name, maxDataSize, 1) {}

DiscardingSlot::~DiscardingSlot() {}

size_t DiscardingSlot::ReadData(void* buffer, size_t size) {
    const log4cxx::LoggerPtr& logger = GetLogger();
    shared::SizedArray block;
    HeaderHold hold(*this);
    CheckQueue();
    if (GetBufferLength() != 0) {
        // Received straight into `buffer` when it holds any block (see ReceiveInto).
        const size_t received = ReceiveInto(buffer, size);
        if (logger->isDebugEnabled()) {
            LOG4CXX_DEBUG(logger, "Received a data block from queue of  '"
                                      << GetName() << "', size==" << GetBufferLength());
        }
        return received;
    } else {
        block = GetDataFromOutBuf();
        if (logger->isDebugEnabled()) {
            LOG4CXX_DEBUG(logger, "Returned a copy of last data block, queue of '" << GetName()
                                                                                   << "'is empty");
        }
    }
    const size_t copied = std::min<size_t>(size, block.size());
    if (copied != 0) {
        std::memcpy(buffer, block.data(), copied);
    }
    return copied;
}

void DiscardingSlot::WriteData(const void* data, size_t size) {
    if (!CheckDataBeforeWriting(data, size)) {
        RecordWriteOutcome(shared::WriteOutcome::Refused);
        return;
    }
    const log4cxx::LoggerPtr& logger = GetLogger();
    try {
        HeaderHold hold(*this);
        CheckQueue();
        MessageQueue& queue = GetQueue();
        shared::WriteOutcome outcome = shared::WriteOutcome::Stored;
        if (queue.get_num_msg() == queue.get_max_msg()) {
            DiscardOneDataBlock();
            outcome = shared::WriteOutcome::Discarded;
            if (logger->isWarnEnabled()) {
                LOG4CXX_WARN(logger, "One data block discarded from " << GetName());
            }
        }
        // A writer that filled the queue since the count above makes this send fail; the block
        // is then lost, as in any race between two writers that do not hold the lockable.
        if (!SendBlock(data, size)) {
            outcome = shared::WriteOutcome::Refused;
        }
        const boost::posix_time::ptime stamp = StampLastWriteTime();
        RecordWriteOutcome(outcome);
        if (logger->isTraceEnabled()) {
            LOG4CXX_TRACE(logger, "write timestamp "
                                      << boost::posix_time::to_simple_string(stamp.time_of_day())
                                      << " queue size==" << queue.get_num_msg());
        }
    } catch (const boost::interprocess::interprocess_exception& e) {
        if (logger->isErrorEnabled()) {
            LOG4CXX_ERROR(logger, "Error writing to '" << GetName() << "' : " << e.what());
        }
        RecordWriteOutcome(shared::WriteOutcome::Failed);
    }
}
