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

// Plain slot record. Every slot it describes has a maximum size of 64 KiB: the largest block of
// a discarding or reliable slot, the reader's chunk size of a posix-pipe (a byte stream).
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

// A slot record with every field chosen by the caller, the maximum block size included. A plain
// value: tools and bindings that take the sizes from their users describe slots with it.
class SlotCfg : public ISlotConfiguration {
public:
    SlotCfg(const std::string& name, const std::string& slotType,
            const boost::posix_time::time_duration& updateTime, size_t maxBufferLength,
            size_t maxSize)
        : name_(name),
          slotType_(slotType),
          updateTime_(updateTime),
          maxBufferLength_(maxBufferLength),
          maxSize_(maxSize) {}
    // A copy of any description, as its getters answer now.
    explicit SlotCfg(const ISlotConfiguration& other)
        : SlotCfg(other.GetName(), other.GetSlotType(), other.GetUpdateTime(),
                  other.GetMaxBufferLength(), other.GetMaxSize()) {}

    std::string GetName() const override { return name_; }
    size_t GetMaxSize() const override { return maxSize_; }
    size_t GetMaxBufferLength() const override { return maxBufferLength_; }
    boost::posix_time::time_duration GetUpdateTime() const override { return updateTime_; }
    std::string GetSlotType() const override { return slotType_; }

private:
    std::string name_;
    std::string slotType_;
    boost::posix_time::time_duration updateTime_;
    size_t maxBufferLength_;
    size_t maxSize_;
};
