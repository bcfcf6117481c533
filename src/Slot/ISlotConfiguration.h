// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstddef>
#include <string>

// Description of a slot, filled in by the host application and handed to SlotFactory.
// Sizes are size_t: 32 bits on the 32-bit target; on x86_64 the factory refuses values above
// 32 bits (AbortSlotCreationException) rather than cutting them.
class ISlotConfiguration {
public:
    virtual std::string GetName() const = 0;
    virtual size_t GetMaxSize() const = 0;
    virtual size_t GetMaxBufferLength() const = 0;
    virtual boost::posix_time::time_duration GetUpdateTime() const = 0;
    virtual std::string GetSlotType() const = 0;
    virtual ~ISlotConfiguration() {}
};

// Plain slot record. Every slot it describes carries blocks of at most 64 KiB.
class SimpleSlotCfg : public ISlotConfiguration {
public:
    SimpleSlotCfg(const std::string& name, const std::string& slotType,
                  const boost::posix_time::time_duration& updateTime, unsigned int maxBufferLength)
        : name_(name),
          slotType_(slotType),
          updateTime_(updateTime),
          maxBufferLength_(maxBufferLength) {}

    std::string GetName() const override { return name_; }
    size_t GetMaxSize() const override { return 65536; }
    size_t GetMaxBufferLength() const override { return maxBufferLength_; }
    boost::posix_time::time_duration GetUpdateTime() const override { return updateTime_; }
    std::string GetSlotType() const override { return slotType_; }

private:
    std::string name_;
    std::string slotType_;
    boost::posix_time::time_duration updateTime_;
    unsigned int maxBufferLength_;
};
