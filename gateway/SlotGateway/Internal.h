// SPDX-License-Identifier: Apache-2.0
// Parts the gateway's units share; not part of the library's interface.
#pragma once

#include <SlotGateway/Gateway.h>

#include <log4cxx/logger.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace SlotGateway {

using Clock = std::chrono::steady_clock;

// The logger "SlotGateway".
log4cxx::LoggerPtr Logger();

// Stop signal shared by every route: set once, waited on with bounded waits.
struct StopFlag {
    std::atomic<bool> set{false};
    std::mutex mutex;
    std::condition_variable changed;

    // Sleeps up to `duration`; true when stopping.
    bool WaitFor(std::chrono::milliseconds duration) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, duration, [this] { return set.load(); });
    }
    void Raise() {
        {
            std::lock_guard<std::mutex> guard(mutex);
            set = true;
        }
        changed.notify_all();
    }
};

// A route's counters, updated by its threads and read by Status().
struct AtomicCounters {
    std::atomic<std::uint64_t> forwarded{0}, received{0}, retried{0}, refused{0}, dropped{0},
        echoes{0}, duplicates{0};

    RouteCounters Snapshot() const {
        RouteCounters counters;
        counters.forwarded = forwarded;
        counters.received = received;
        counters.retried = retried;
        counters.refused = refused;
        counters.dropped = dropped;
        counters.echoes = echoes;
        counters.duplicates = duplicates;
        return counters;
    }
};

}  // namespace SlotGateway
