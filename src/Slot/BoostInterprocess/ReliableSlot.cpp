// SPDX-License-Identifier: Apache-2.0
#include <Slot/BoostInterprocess/ReliableSlot.h>

#include <shared/CrashPoint.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/exceptions.hpp>

#include <algorithm>
#include <cstring>

ReliableSlot::ReliableSlot(boost::interprocess::open_or_create_t, const char* name,
                           unsigned int maxDataSize, unsigned int bufferLength)
    : BaseQueueSlot(boost::interprocess::open_or_create, name, maxDataSize, bufferLength) {}

ReliableSlot::~ReliableSlot() {}

size_t ReliableSlot::ReadData(void* buffer, size_t size) {
    const log4cxx::LoggerPtr& logger = GetLogger();
    HeaderHold hold(*this);
    CheckQueue();
    if (GetBufferLength() == 0) {
        if (logger->isErrorEnabled()) {
            LOG4CXX_ERROR(logger, "Unable to read from an empty queue of '" << GetName() << "'");
        }
        return 0;
    }
    const size_t copied = ReceiveInto(buffer, size);
    shared::CrashPoint("read-received");
    if (logger->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger, "Received a data block from '"
                                  << GetName() << "', queue size==" << GetBufferLength());
    }
    return copied;
}

void ReliableSlot::WriteData(const void* data, size_t size) {
    if (!CheckDataBeforeWriting(data, size)) {
        RecordWriteOutcome(shared::WriteOutcome::Refused);
        return;
    }
    const log4cxx::LoggerPtr& logger = GetLogger();
    try {
        HeaderHold hold(*this);
        CheckQueue();
        MessageQueue& queue = GetQueue();
        if (SendBlock(data, size)) {
            shared::CrashPoint("write-sent");
            const boost::posix_time::ptime stamp = StampLastWriteTime();
            RecordWriteOutcome(shared::WriteOutcome::Stored);
            if (logger->isTraceEnabled()) {
                LOG4CXX_TRACE(
                    logger, "Write timestamp "
                                << boost::posix_time::to_simple_string(stamp.time_of_day()) << " '"
                                << GetName() << "' queue size==" << queue.get_num_msg());
            }
        } else {
            RecordWriteOutcome(shared::WriteOutcome::Refused);
            if (logger->isWarnEnabled()) {
                LOG4CXX_WARN(logger,
                             "Queue in '" << GetName() << "' is full, the data was not written");
            }
        }
    } catch (const boost::interprocess::interprocess_exception& e) {
        if (logger->isErrorEnabled()) {
            LOG4CXX_ERROR(logger, "Error writing to '" << GetName() << "' : " << e.what());
        }
        RecordWriteOutcome(shared::WriteOutcome::Failed);
    }
}
