// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Cli.h"

#include <Slot/ISlotConfiguration.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstddef>
#include <initializer_list>
#include <set>
#include <string>

namespace slotctl {

// A slot configuration with every field chosen by the tool (SimpleSlotCfg fixes the maximum
// block size at 64 KiB).
class ToolSlotConfig : public ISlotConfiguration {
public:
    ToolSlotConfig(const std::string& name, const std::string& type, size_t maxSize,
                   size_t bufferLength, const boost::posix_time::time_duration& updateTime)
        : name_(name),
          type_(type),
          maxSize_(maxSize),
          bufferLength_(bufferLength),
          updateTime_(updateTime) {}

    std::string GetName() const override { return name_; }
    size_t GetMaxSize() const override { return maxSize_; }
    size_t GetMaxBufferLength() const override { return bufferLength_; }
    boost::posix_time::time_duration GetUpdateTime() const override { return updateTime_; }
    std::string GetSlotType() const override { return type_; }
    // The type for messages: the empty type is discarding.
    std::string TypeName() const { return type_.empty() ? "discarding" : type_; }

private:
    std::string name_;
    std::string type_;
    size_t maxSize_;
    size_t bufferLength_;
    boost::posix_time::time_duration updateTime_;
};

// The valued options that describe a slot (shared by read and write), and `more`.
std::set<std::string> SlotValuedOptions(std::initializer_list<std::string> more);

// Builds the configuration for `name` from --type, --max-size, --queue and --update-time. What
// is not given is taken from the slot when it exists (its kind, block size and capacity: an
// existing queue keeps its sizes anyway), else the defaults: discarding, 65536 bytes, 16
// blocks, 100 ms. Refuses, with one line, a slot that cannot be used safely: one whose parts
// cannot be opened, are not slot parts, are unfinished, or are locked by a dead process.
ToolSlotConfig ResolveSlot(const Arguments& arguments, const std::string& name);

}  // namespace slotctl
