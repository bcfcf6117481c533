// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/ISlotConfiguration.h>
#include <Slot/PoolFactory.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace SlotGateway {

// A configuration that cannot be used; what() names the file, the entry and the field.
class ConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class Direction { ToNetwork, FromNetwork, Both };

const char* ToString(Direction direction);

// One slot or pool mirrored to or from one DDS topic.
struct Route {
    std::string name;              // the slot's or pool's name
    std::string type;              // a slot's: "reliable" or "discarding"; "" for a pool
    std::string pool;              // a pool's kind: "queue" or "latest"; "" for a slot
    std::size_t maxSize = 65536;   // largest block, bytes (a pool's block size)
    std::size_t queueLength = 16;  // blocks a reliable slot or a pool holds (and DDS buffers per
                                   // side)
    unsigned updateTimeMs = 100;   // the slot reader's update time
    Direction direction = Direction::ToNetwork;
    std::uint32_t domain = 0;
    std::string partition;  // "" is DDS's default partition
    std::string topic;

    bool isPool() const { return !pool.empty(); }
    // A queue pool is carried as a reliable slot is: acknowledged, nothing stored lost.
    bool reliable() const { return type == "reliable" || pool == "queue"; }
    // As the status shows it: the slot type, or "queue pool" / "latest pool".
    std::string TypeText() const { return isPool() ? pool + " pool" : type; }
    bool sends() const { return direction != Direction::FromNetwork; }
    bool receives() const { return direction != Direction::ToNetwork; }
};

struct Config {
    std::string source;       // file name (or label) the configuration came from
    std::string gatewayName;  // shown in the status; defaults to the host name
    std::string statusFile;   // "" writes none
    unsigned statusIntervalMs = 1000;
    unsigned stopGraceMs = 5000;  // how long a stopping gateway tries to deliver a block in hand
    // The lease of this gateway's DDS participants: peers take a gateway that fell silent (a
    // crash) for gone after this long, and a sender then gives its block in flight to the next
    // receiving gateway.
    unsigned leaseMs = 500;
    std::vector<Route> routes;
};

// Limits the validation applies.
constexpr std::size_t kMaxBlockSize = 16u * 1024u * 1024u;
constexpr std::size_t kMaxQueueLength = 65536;
constexpr std::size_t kDefaultPoolBlocks = 8;
constexpr std::uint32_t kMaxDomain = 232;
constexpr unsigned kMinLeaseMs = 100;
constexpr unsigned kMaxLeaseMs = 3600000;

// Parses and validates; throws ConfigError.
Config ParseConfig(const std::string& text, const std::string& source);
Config LoadConfig(const std::string& path);

// The slot configuration a route gives the slot factory.
class RouteSlotCfg : public SlotCfg {
public:
    explicit RouteSlotCfg(const Route& route)
        : SlotCfg(route.name, route.type, boost::posix_time::milliseconds(route.updateTimeMs),
                  route.reliable() ? route.queueLength : 1, route.maxSize) {}
};

// The pool configuration a pool route gives the pool factory.
inline Slot::PoolConfig RoutePoolCfg(const Route& route) {
    return Slot::PoolConfig{route.name, route.pool, route.maxSize, route.queueLength};
}

}  // namespace SlotGateway
