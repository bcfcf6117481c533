// SPDX-License-Identifier: Apache-2.0
#pragma once

// The benchmark's side of two slot library interfaces, shared by the slot transports and by the
// scale and creation scenarios, which open their slots themselves.

#include "Transport.h"

#include <Slot/ISlotConfiguration.h>
#include <shared/ISubscriber.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstddef>
#include <string>

namespace bench {

// A slot's configuration as the factory asks for it.
class BenchSlotConfig : public ISlotConfiguration {
public:
    BenchSlotConfig(const std::string& name, const std::string& type, size_t maxSize,
                    size_t bufferLength, double updateMs)
        : name_(name),
          type_(type),
          maxSize_(maxSize),
          bufferLength_(bufferLength),
          update_(boost::posix_time::microseconds(static_cast<long>(updateMs * 1000.0))) {}
    std::string GetName() const override { return name_; }
    size_t GetMaxSize() const override { return maxSize_; }
    size_t GetMaxBufferLength() const override { return bufferLength_; }
    boost::posix_time::time_duration GetUpdateTime() const override { return update_; }
    std::string GetSlotType() const override { return type_; }

private:
    std::string name_;
    std::string type_;
    size_t maxSize_;
    size_t bufferLength_;
    boost::posix_time::time_duration update_;
};

// Hands every block a slot reader delivers on to a sink.
class SinkSubscriber : public shared::ISubscriber {
public:
    explicit SinkSubscriber(BlockSink& sink) : sink_(sink) {}
    void onNotify(const std::string&, const void* data, size_t size) override {
        sink_.OnBlock(static_cast<const char*>(data), size);
    }

private:
    BlockSink& sink_;
};

}  // namespace bench
