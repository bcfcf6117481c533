// SPDX-License-Identifier: Apache-2.0
// Parts the gateway's units share; not part of the library's interface.
#pragma once

#include <SlotGateway/Gateway.h>

#include <log4cxx/logger.h>

#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

namespace SlotGateway {

using Clock = std::chrono::steady_clock;

// The logger "SlotGateway".
log4cxx::LoggerPtr Logger();

// Which object a slot's or pool's name names (device and inode of its header object or pool
// file; {0, 0} while there is none). A name removed and made again names another object, which
// an opened slot, pool writer or reader claim no longer shows: whoever keeps one compares this
// before use. One fstatat, not following a symlink.
using ObjectId = std::pair<dev_t, ino_t>;
ObjectId ObjectOf(const Route& route);

// At a stop, the least time a route's DDS writer is given for the acknowledgements of what it
// published, also once the grace is spent.
constexpr std::chrono::milliseconds kLastWords(200);

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
    // Sleeps up to `duration`, also while stopping: woken when the stop is raised (if it was
    // not yet) or its grace cut; true when stopping. For waits that go on during the grace,
    // which WaitFor would turn into a busy loop.
    bool SleepInGrace(std::chrono::milliseconds duration) {
        std::unique_lock<std::mutex> lock(mutex);
        const bool wasSet = set;
        changed.wait_for(lock, duration, [&] { return graceCut || set != wasSet; });
        return set;
    }
    void Raise() {
        {
            std::lock_guard<std::mutex> guard(mutex);
            if (!set) {
                raisedAt = Clock::now();
            }
            set = true;
        }
        changed.notify_all();
    }
    // Ends the grace now (a second stop signal): every block still in hand is given up at once,
    // a slot's given back. Raises the stop if not raised yet.
    void CutGrace() {
        Raise();
        {
            std::lock_guard<std::mutex> guard(mutex);
            graceCut = true;
        }
        changed.notify_all();
    }
    // Every route's grace runs from the one moment the stop was raised, so a gateway stops
    // within about `grace` however many routes it has. The end of the grace (`grace` from now
    // while not stopping; the stop's moment once the grace was cut).
    Clock::time_point GraceEnd(std::chrono::milliseconds grace) {
        std::lock_guard<std::mutex> guard(mutex);
        return (set ? raisedAt : Clock::now()) + (graceCut ? std::chrono::milliseconds(0) : grace);
    }
    // What is left of the grace, but at least `least`: the last words of a route (DDS's
    // acknowledgements of what it published) need a moment even when the grace is spent.
    std::chrono::milliseconds GraceLeft(std::chrono::milliseconds grace,
                                        std::chrono::milliseconds least) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(GraceEnd(grace) - Clock::now());
        return std::max(std::min(left, grace), std::min(least, grace));
    }

private:
    Clock::time_point raisedAt;  // guarded by mutex
    bool graceCut = false;       // guarded by mutex
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
