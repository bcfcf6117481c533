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

// A slot's configuration as the factory asks for it, with the update time in milliseconds.
inline SlotCfg BenchSlotConfig(const std::string& name, const std::string& type, size_t maxSize,
                               size_t bufferLength, double updateMs) {
    return SlotCfg(name, type,
                   boost::posix_time::microseconds(static_cast<long>(updateMs * 1000.0)),
                   bufferLength, maxSize);
}

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
