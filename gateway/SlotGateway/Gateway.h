// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <SlotGateway/Config.h>
#include <SlotGateway/Status.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace SlotGateway {

// Mirrors slots to DDS topics and topics to slots, as a configuration says.
//
// Threads: the constructor starts one receiving thread per route that takes from the network
// (it waits on a DDS waitset and writes into the slot), one sending thread per reliable route
// that sends (it takes a block from the slot only while a remote reader is matched, so that no
// block is taken while nobody could receive it; see ReliableSender), and one control thread that
// starts the slot readers of the discarding sending routes (they run the sending side on their
// own threads) and refreshes the status file. Status() and Stop() may be called from any thread.
class Gateway {
public:
    // Creates every DDS entity, opens or creates the slots and starts; throws std::runtime_error
    // when DDS or a slot cannot be set up.
    explicit Gateway(const Config& config);
    // Stop(), then releases DDS.
    ~Gateway();
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    // Graceful and idempotent: stops taking from slots, delivers the blocks in hand (each within
    // the configured grace), drains what DDS already received into the slots, writes the final
    // status. Returns within about the grace time: the routes' graces run together from the
    // stop, and each route then gives DDS at most 0.2 s more (kLastWords) for the
    // acknowledgements of what it published when peers no longer answer.
    void Stop();
    // Ends the grace now, from any thread, also while Stop() runs (a second stop signal): the
    // blocks in hand are given up at once, a slot's put back at the head of its slot, and Stop()
    // returns within about 0.2 s per route and direction.
    void EndGrace();

    std::vector<RouteStatus> Status() const;
    // The status as a JSON document (the status file's content).
    std::string StatusJson() const;
    // Random per start; carried in every sample so that a gateway knows its own blocks.
    std::uint64_t Id() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace SlotGateway
