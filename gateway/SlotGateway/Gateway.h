// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <SlotGateway/Config.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace SlotGateway {

// What one route has done since the gateway started.
struct RouteCounters {
    std::uint64_t forwarded = 0;   // slot -> network: blocks published (reliable: acknowledged)
    std::uint64_t received = 0;    // network -> slot: blocks stored in the slot
    std::uint64_t retried = 0;     // attempts repeated: a refused slot write, a blocked or
                                   // unacknowledged publication
    std::uint64_t refused = 0;     // blocks the destination slot refused at least once
    std::uint64_t dropped = 0;     // blocks given up, each logged at ERROR
    std::uint64_t echoes = 0;      // blocks this gateway wrote itself, not sent back ("both")
    std::uint64_t duplicates = 0;  // blocks received a second time, not stored again
};

struct RouteStatus {
    Route route;
    RouteCounters counters;
    std::uint32_t matchedReaders = 0;  // remote gateways that take what this route publishes
    std::uint32_t matchedWriters = 0;  // remote gateways that publish to this route
    bool sending = false;              // the slot is being read (a reliable one: once a reader
                                       // is matched)
};

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
    // status. Returns within about the grace time per route.
    void Stop();

    std::vector<RouteStatus> Status() const;
    // The status as a JSON document (the status file's content).
    std::string StatusJson() const;
    // Random per start; carried in every sample so that a gateway knows its own blocks.
    std::uint64_t Id() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Writes `text` to `path` atomically (a temporary file beside it, then rename); never follows a
// symlink at the temporary name. Returns "" or the error.
std::string WriteFileAtomically(const std::string& path, const std::string& text);

// A status document (StatusJson) as a table, for `slot-gateway --status`.
std::string FormatStatus(const std::string& json);

}  // namespace SlotGateway
