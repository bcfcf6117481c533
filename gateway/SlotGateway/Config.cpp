// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/Config.h>

#include <Slot/BoostInterprocess/BaseQueueSlot.h>
#include <Slot/SlotNames.h>

#include <nlohmann/json.hpp>

#include <unistd.h>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>

namespace SlotGateway {

namespace {

using nlohmann::json;

// `text` in double quotes with JSON's escapes, so that control bytes in a name print safely.
std::string Quoted(const std::string& text) {
    return json(text).dump(-1, ' ', false, json::error_handler_t::replace);
}

// Where an error sits: "<file>: slots[1] (\"frames\"): field \"max_size\": ".
class Place {
public:
    Place(std::string source, std::string entry)
        : source_(std::move(source)), entry_(std::move(entry)) {}
    [[noreturn]] void Fail(const std::string& field, const std::string& what) const {
        std::string message = source_ + ": " + entry_;
        if (!field.empty()) {
            message += ": field \"" + field + "\"";
        }
        throw ConfigError(message + ": " + what);
    }
    void Rename(std::string entry) { entry_ = std::move(entry); }

private:
    std::string source_;
    std::string entry_;
};

void OnlyKnownKeys(const json& object, const std::set<std::string>& known, const Place& place) {
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (known.count(it.key()) == 0) {
            std::string list;
            for (const std::string& key : known) {
                list += (list.empty() ? "" : ", ") + key;
            }
            place.Fail(it.key(), "unknown key (known: " + list + ")");
        }
    }
}

std::string GetString(const json& object, const char* key, const Place& place, bool required,
                      const std::string& fallback = "") {
    auto it = object.find(key);
    if (it == object.end()) {
        if (required) {
            place.Fail(key, "missing");
        }
        return fallback;
    }
    if (!it->is_string()) {
        place.Fail(key, std::string("must be a string, not ") + it->type_name());
    }
    return it->get<std::string>();
}

std::uint64_t GetUnsigned(const json& object, const char* key, const Place& place,
                          std::uint64_t fallback, std::uint64_t low, std::uint64_t high) {
    auto it = object.find(key);
    if (it == object.end()) {
        return fallback;
    }
    if (!it->is_number_integer()) {
        place.Fail(key, std::string("must be an integer, not ") + it->type_name());
    }
    const bool negative =
        it->is_number_integer() && !it->is_number_unsigned() && it->get<std::int64_t>() < 0;
    const std::uint64_t value = negative ? 0 : it->get<std::uint64_t>();
    if (negative || value < low || value > high) {
        std::ostringstream what;
        what << "must be between " << low << " and " << high << ", not " << it->dump();
        place.Fail(key, what.str());
    }
    return value;
}

void CheckSlotName(const std::string& name, const Place& place) {
    if (const std::optional<std::string> problem = Slot::SlotNameProblem(name)) {
        place.Fail("name", "the slot name " + *problem);
    }
}

// DDS topic names: letters, digits, '_' and '/' (not first), at most 200 characters here.
void CheckTopic(const std::string& topic, const Place& place) {
    if (topic.empty() || topic.size() > 200) {
        place.Fail("topic", "a topic name has 1 to 200 characters");
    }
    for (std::size_t i = 0; i < topic.size(); ++i) {
        const char c = topic[i];
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
                        (i > 0 && ((c >= '0' && c <= '9') || c == '/'));
        if (!ok) {
            place.Fail("topic",
                       "a topic name starts with a letter or '_' and has only letters, "
                       "digits, '_' and '/'");
        }
    }
    const std::string reserved = "/ack";  // a reliable route's acknowledgements
    if (topic.size() > reserved.size() &&
        topic.compare(topic.size() - reserved.size(), reserved.size(), reserved) == 0) {
        place.Fail("topic", "topic names ending in \"/ack\" are the gateway's own");
    }
}

void CheckPartition(const std::string& partition, const Place& place) {
    if (partition.size() > 200) {
        place.Fail("partition", "a partition name has at most 200 characters");
    }
    for (char c : partition) {
        if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\' ||
            static_cast<unsigned char>(c) < 0x20) {
            place.Fail("partition",
                       "a partition name has no wildcard ('*', '?', '[', ']', '\\') "
                       "or control character");
        }
    }
}

Direction ParseDirection(const std::string& text, const Place& place) {
    if (text == "to-network")
        return Direction::ToNetwork;
    if (text == "from-network")
        return Direction::FromNetwork;
    if (text == "both")
        return Direction::Both;
    place.Fail("direction", "\"" + text + "\" is none of to-network, from-network, both");
}

// A slot entry's "type", "max_size" and "queue_length".
void ParseSlot(const json& entry, Route& route, const Place& place) {
    if (entry.contains("blocks")) {
        place.Fail("blocks", "a slot has queue_length; give blocks only for a pool");
    }
    route.type = GetString(entry, "type", place, true);
    if (route.type == "posix-pipe") {
        place.Fail("type",
                   "\"posix-pipe\" is a byte stream without block boundaries; a gateway "
                   "carries \"reliable\" or \"discarding\" slots");
    }
    if (route.type != "reliable" && route.type != "discarding") {
        place.Fail("type", "\"" + route.type + "\" is neither \"reliable\" nor \"discarding\"");
    }
    route.maxSize = GetUnsigned(entry, "max_size", place, 65536, 1, kMaxBlockSize);
    route.queueLength = GetUnsigned(entry, "queue_length", place, 16, 1, kMaxQueueLength);
    if (!route.reliable() && entry.contains("queue_length")) {
        place.Fail("queue_length",
                   "a discarding slot holds one block; give queue_length only for "
                   "a reliable slot");
    }
    // A discarding slot's queue holds one block.
    if (const std::optional<std::string> problem =
            BaseQueueSlot::SizeProblem(route.maxSize, route.reliable() ? route.queueLength : 1)) {
        place.Fail(route.reliable() ? "queue_length" : "max_size", *problem);
    }
}

// A pool entry: "pool" (its kind) instead of "type", "max_size" its block size, "blocks".
void ParsePool(const json& entry, Route& route, const Place& place) {
    for (const char* slotOnly : {"type", "queue_length", "update_time_ms"}) {
        if (entry.contains(slotOnly)) {
            place.Fail(slotOnly,
                       std::string("a pool entry (\"pool\") has no ") + slotOnly +
                           (std::string(slotOnly) == "queue_length" ? "; use blocks" : ""));
        }
    }
    route.pool = GetString(entry, "pool", place, true);
    if (!Slot::PoolFactory::PoolKindIsValid(route.pool)) {
        place.Fail("pool", "\"" + route.pool + "\" is neither \"queue\" nor \"latest\"");
    }
    route.maxSize = GetUnsigned(entry, "max_size", place, 65536, 1, kMaxBlockSize);
    route.queueLength =
        GetUnsigned(entry, "blocks", place, kDefaultPoolBlocks, 1, Slot::MaxPoolBlocks);
    if (const std::optional<std::string> problem = Slot::PoolConfigProblem(RoutePoolCfg(route))) {
        place.Fail("", "the pool cannot be made: " + *problem);
    }
}

Route ParseRoute(const json& entry, const Place& place) {
    if (!entry.is_object()) {
        place.Fail("", std::string("must be an object, not ") + entry.type_name());
    }
    OnlyKnownKeys(entry,
                  {"name", "type", "pool", "max_size", "queue_length", "blocks", "update_time_ms",
                   "direction", "domain", "partition", "topic"},
                  place);
    Route route;
    route.name = GetString(entry, "name", place, true);
    CheckSlotName(route.name, place);
    if (entry.contains("pool")) {
        ParsePool(entry, route, place);
    } else {
        ParseSlot(entry, route, place);
    }
    if (!route.isPool()) {
        route.updateTimeMs = GetUnsigned(entry, "update_time_ms", place, 100, 1, 60000);
    }
    route.direction = ParseDirection(GetString(entry, "direction", place, true), place);
    if (route.reliable() && route.direction == Direction::Both) {
        place.Fail("direction", std::string("a ") +
                                    (route.isPool() ? "queue pool" : "reliable slot") +
                                    " has one reader per machine: a gateway sending it "
                                    "would be that reader and take every block, also those it "
                                    "received; use two " +
                                    (route.isPool() ? "pools" : "slots") +
                                    ", one to-network and one from-network");
    }
    route.domain = GetUnsigned(entry, "domain", place, 0, 0, kMaxDomain);
    route.partition = GetString(entry, "partition", place, false);
    CheckPartition(route.partition, place);
    route.topic = GetString(entry, "topic", place, true);
    CheckTopic(route.topic, place);
    return route;
}

}  // namespace

const char* ToString(Direction direction) {
    switch (direction) {
        case Direction::ToNetwork:
            return "to-network";
        case Direction::FromNetwork:
            return "from-network";
        case Direction::Both:
            return "both";
    }
    return "?";
}

Config ParseConfig(const std::string& text, const std::string& source) {
    json document;
    try {
        document = json::parse(text);
    } catch (const json::exception& e) {
        // A syntax error, or a number beyond what a double holds (1e400).
        throw ConfigError(source + ": not valid JSON: " + e.what());
    }
    Place top(source, "top level");
    if (!document.is_object()) {
        top.Fail("", std::string("must be an object, not ") + document.type_name());
    }
    OnlyKnownKeys(document, {"gateway", "slots"}, top);

    Config config;
    config.source = source;
    auto gateway = document.find("gateway");
    if (gateway != document.end()) {
        Place place(source, "gateway");
        if (!gateway->is_object()) {
            place.Fail("", std::string("must be an object, not ") + gateway->type_name());
        }
        OnlyKnownKeys(*gateway,
                      {"name", "status_file", "status_interval_ms", "stop_grace_ms", "lease_ms"},
                      place);
        config.gatewayName = GetString(*gateway, "name", place, false);
        config.statusFile = GetString(*gateway, "status_file", place, false);
        config.statusIntervalMs =
            GetUnsigned(*gateway, "status_interval_ms", place, 1000, 10, 3600000);
        config.stopGraceMs = GetUnsigned(*gateway, "stop_grace_ms", place, 5000, 0, 600000);
        config.leaseMs =
            GetUnsigned(*gateway, "lease_ms", place, config.leaseMs, kMinLeaseMs, kMaxLeaseMs);
    }
    if (config.gatewayName.empty()) {
        char host[256] = {};
        gethostname(host, sizeof host - 1);
        config.gatewayName = host;
    }

    auto slots = document.find("slots");
    if (slots == document.end()) {
        top.Fail("slots", "missing");
    }
    if (!slots->is_array() || slots->empty()) {
        top.Fail("slots", "must be a non-empty array of slot entries");
    }
    std::set<std::string> names;
    std::set<std::pair<std::uint32_t, std::string>> topics;
    for (std::size_t i = 0; i < slots->size(); ++i) {
        const json& entry = (*slots)[i];
        std::string label = "slots[" + std::to_string(i) + "]";
        if (entry.is_object() && entry.contains("name") && entry["name"].is_string()) {
            label += " (" + Quoted(entry["name"].get<std::string>()) + ")";
        }
        Place place(source, label);
        Route route = ParseRoute(entry, place);
        if (!names.insert(route.name).second) {
            place.Fail("name",
                       "slot " + Quoted(route.name) + " is already mirrored by an earlier entry");
        }
        // One topic per domain carries one slot: two slots on one topic would mix their blocks.
        if (!topics.insert({route.domain, route.topic}).second) {
            place.Fail("topic", "topic \"" + route.topic + "\" in domain " +
                                    std::to_string(route.domain) +
                                    " is already used by an earlier entry");
        }
        config.routes.push_back(route);
    }
    return config;
}

Config LoadConfig(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        throw ConfigError(path + ": cannot be read");
    }
    std::ostringstream text;
    text << in.rdbuf();
    return ParseConfig(text.str(), path);
}

}  // namespace SlotGateway
