// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/Config.h>

#include <gtest/gtest.h>

#include <string>

using SlotGateway::ConfigError;
using SlotGateway::Direction;
using SlotGateway::ParseConfig;

namespace {

// The error text of a configuration that must be refused.
std::string Refusal(const std::string& text) {
    try {
        ParseConfig(text, "gw.json");
    } catch (const ConfigError& e) {
        return e.what();
    }
    ADD_FAILURE() << "accepted: " << text;
    return "";
}

std::string OneSlot(const std::string& fields) {
    return R"({"slots": [{"name": "s", "type": "reliable", "direction": "to-network", "topic": "t")" +
           (fields.empty() ? "" : ", " + fields) + "}]}";
}

}  // namespace

// A pool entry names its kind with "pool" and its block count with "blocks"; a queue pool is
// carried as a reliable slot is.
TEST(GatewayConfig, FullEntriesAndDefaults) {
    const auto config = ParseConfig(R"({
      "gateway": {"name": "det", "status_file": "/run/x.json", "status_interval_ms": 250,
                  "stop_grace_ms": 0, "lease_ms": 2500},
      "slots": [
        {"name": "frames", "type": "reliable", "max_size": 1048576, "queue_length": 64,
         "update_time_ms": 5, "direction": "from-network", "domain": 7, "partition": "lab",
         "topic": "det/frames"},
        {"name": "state", "type": "discarding", "direction": "both", "topic": "det/frames"},
        {"name": "pframes", "pool": "queue", "max_size": 4194304, "blocks": 64,
         "direction": "to-network", "topic": "frames"},
        {"name": "image", "pool": "latest", "direction": "both", "topic": "image"}]})",
                                    "gw.json");
    EXPECT_EQ(config.gatewayName, "det");
    EXPECT_EQ(config.statusFile, "/run/x.json");
    EXPECT_EQ(config.statusIntervalMs, 250u);
    EXPECT_EQ(config.stopGraceMs, 0u);
    EXPECT_EQ(config.leaseMs, 2500u);
    EXPECT_EQ(ParseConfig(OneSlot(""), "gw.json").leaseMs, 500u);
    ASSERT_EQ(config.routes.size(), 4u);
    const auto& frames = config.routes[0];
    EXPECT_EQ(frames.maxSize, 1048576u);
    EXPECT_EQ(frames.queueLength, 64u);
    EXPECT_EQ(frames.updateTimeMs, 5u);
    EXPECT_EQ(frames.direction, Direction::FromNetwork);
    EXPECT_EQ(frames.domain, 7u);
    EXPECT_EQ(frames.partition, "lab");
    EXPECT_EQ(frames.topic, "det/frames");
    const auto& state = config.routes[1];
    EXPECT_EQ(state.maxSize, 65536u);
    EXPECT_EQ(state.domain, 0u);
    EXPECT_EQ(state.partition, "");  // and the same topic in two domains is two topics
    EXPECT_TRUE(state.sends() && state.receives());
    // The slot factory sees the sizes of the file; a discarding slot holds one block.
    SlotGateway::RouteSlotCfg frameCfg(frames), stateCfg(state);
    EXPECT_EQ(frameCfg.GetMaxSize(), 1048576u);
    EXPECT_EQ(frameCfg.GetMaxBufferLength(), 64u);
    EXPECT_EQ(frameCfg.GetUpdateTime(), boost::posix_time::milliseconds(5));
    EXPECT_EQ(stateCfg.GetMaxBufferLength(), 1u);

    const auto& pframes = config.routes[2];
    EXPECT_TRUE(pframes.isPool() && pframes.reliable());
    EXPECT_EQ(pframes.TypeText(), "queue pool");
    const Slot::PoolConfig pframesCfg = SlotGateway::RoutePoolCfg(pframes);
    EXPECT_EQ(pframesCfg.kind, "queue");
    EXPECT_EQ(pframesCfg.maxBlockSize, 4194304u);
    EXPECT_EQ(pframesCfg.blockCount, 64u);
    const auto& image = config.routes[3];
    EXPECT_TRUE(image.isPool() && !image.reliable());
    EXPECT_EQ(SlotGateway::RoutePoolCfg(image).blockCount, SlotGateway::kDefaultPoolBlocks);
    EXPECT_EQ(SlotGateway::RoutePoolCfg(image).maxBlockSize, 65536u);
}

// Each configuration is refused with a message that names the file, the entry and the field (a
// message given with "..." at its end is checked up to there).
TEST(GatewayConfig, ErrorsNameFileEntryAndField) {
    const std::string field = "gw.json: slots[0] (\"s\"): field ";
    const auto entry = [](const std::string& fields) {
        return R"({"slots": [{"name": "s", )" + fields + R"(, "topic": "t"}]})";
    };
    const auto topic = [](const std::string& name) {
        return R"({"slots": [{"name": "s", "type": "reliable", "direction": "to-network", "topic": ")" +
               name + R"("}]})";
    };
    const struct {
        std::string text, message;
    } cases[] = {
        {OneSlot(R"("max_size": 0)"),
         field + "\"max_size\": must be between 1 and 16777216, not 0"},
        {OneSlot(R"("max_size": 16777217)"),
         field + "\"max_size\": must be between 1 and 16777216, not 16777217"},
        {OneSlot(R"("queue_length": -3)"),
         field + "\"queue_length\": must be between 1 and 65536, not -3"},
        // Each within its bounds, but the queue cannot be made.
        {OneSlot(R"("max_size": 16777216, "queue_length": 65536)"),
         field + "\"queue_length\": max data size 16777216 and buffer length 65536 exceed what a "
                 "slot can address"},
        {OneSlot(R"("domain": "0")"), field + "\"domain\": must be an integer, not string"},
        {OneSlot(R"("max_size": 1.5)"), field + "\"max_size\": must be an integer, not number"},
        {OneSlot(R"("domain": 233)"), field + "\"domain\": must be between 0 and 232, not 233"},
        {OneSlot(R"("update_time_ms": 0)"),
         field + "\"update_time_ms\": must be between 1 and 60000, not 0"},
        {OneSlot(R"("colour": 1)"),
         field + "\"colour\": unknown key (known: blocks, direction, domain,..."},
        {R"({"slots": [{"type": "reliable", "direction": "both", "topic": "t"}]})",
         "gw.json: slots[0]: field \"name\": missing"},
        {R"({"slots": [], "gateway": {}})",
         "gw.json: top level: field \"slots\": must be a non-empty array of slot entries"},
        {R"({"gateway": {"stop_grace": 1}, "slots": []})",
         "gw.json: gateway: field \"stop_grace\": unknown key ..."},
        {R"({"gateway": {"lease_ms": 99}, "slots": []})",
         "gw.json: gateway: field \"lease_ms\": must be between 100 and 3600000, not 99"},
        {"[1]", "gw.json: top level: must be an object, not array"},
        {topic("x/ack"), field + "\"topic\": topic names ending in \"/ack\" are the gateway's own"},
        {R"({"slots": [7]})", "gw.json: slots[0]: must be an object, not number"},
        {R"({"slots": )", "gw.json: not valid JSON: ..."},
        {OneSlot(R"("max_size": 1e400)"), "gw.json: not valid JSON: ..."},
        // Names, types and directions.
        {R"({"slots": [{"name": "a/b", "type": "reliable", "direction": "both", "topic": "t"}]})",
         "gw.json: slots[0] (\"a/b\"): field \"name\": the slot name contains '/'"},
        {entry(R"("type": "posix-pipe", "direction": "to-network")"),
         field + "\"type\": \"posix-pipe\" is a byte stream..."},
        {entry(R"("type": "fifo", "direction": "to-network")"),
         field + "\"type\": \"fifo\" is neither \"reliable\" nor \"discarding\""},
        {entry(R"("type": "reliable", "direction": "up")"),
         field + "\"direction\": \"up\" is none of to-network, from-network, both"},
        // A reliable slot has one reader per machine, so "both" is refused with the reason.
        {entry(R"("type": "reliable", "direction": "both")"),
         field + "\"direction\": a reliable slot has one reader per machine..."},
        {entry(R"("type": "discarding", "queue_length": 4, "direction": "both")"),
         field + "\"queue_length\": a discarding slot holds one block..."},
        {OneSlot(R"("partition": "la*")"),
         field + "\"partition\": a partition name has no wildcard..."},
        {topic(""), field + "\"topic\": a topic name ..."},
        {topic("9lives"), field + "\"topic\": a topic name ..."},
        {topic("a b"), field + "\"topic\": a topic name ..."},
        {topic("a-b"), field + "\"topic\": a topic name ..."},
        // Two entries of one slot, or of one topic in one domain.
        {R"({"slots": [{"name": "s", "type": "reliable", "direction": "to-network", "topic": "t1"},
                       {"name": "s", "type": "reliable", "direction": "from-network", "topic": "t2"}]})",
         "gw.json: slots[1] (\"s\"): field \"name\": slot \"s\" is already mirrored by an earlier "
         "entry"},
        {R"({"slots": [{"name": "a", "type": "reliable", "direction": "to-network", "topic": "t", "domain": 3},
                       {"name": "b", "type": "discarding", "direction": "from-network", "topic": "t", "domain": 3}]})",
         "gw.json: slots[1] (\"b\"): field \"topic\": topic \"t\" in domain 3 is already "
         "used by an earlier entry"},
        // Pool entries: "pool" names the kind, "blocks" the block count.
        {entry(R"("pool": "reliable", "direction": "to-network")"),
         field + "\"pool\": \"reliable\" is neither \"queue\" nor \"latest\""},
        {entry(R"("pool": "queue", "blocks": 65, "direction": "to-network")"),
         field + "\"blocks\": must be between 1 and 64, not 65"},
        {entry(R"("pool": "queue", "type": "reliable", "direction": "to-network")"),
         field + "\"type\": a pool entry (\"pool\") has no type"},
        {entry(R"("pool": "queue", "queue_length": 4, "direction": "to-network")"),
         field + "\"queue_length\": a pool entry (\"pool\") has no queue_length; use blocks"},
        {entry(R"("pool": "latest", "update_time_ms": 4, "direction": "to-network")"),
         field + "\"update_time_ms\": a pool entry (\"pool\") has no update_time_ms"},
        {OneSlot(R"("blocks": 4)"),
         field + "\"blocks\": a slot has queue_length; give blocks only for a pool"},
        {entry(R"("pool": "queue", "direction": "both")"),
         field + "\"direction\": a queue pool has one reader per machine: ..."},
        {R"({"slots": [{"name": ".libslot-new-1", "pool": "queue", "direction": "to-network", "topic": "t"}]})",
         "gw.json: slots[0] (\".libslot-new-1\"): the pool cannot be made: the name starts with "
         "\".libslot-new-\", which is reserved"},
    };
    for (const auto& c : cases) {
        const std::string refusal = Refusal(c.text);
        const size_t dots = c.message.rfind("...");
        if (dots != std::string::npos && dots + 3 == c.message.size()) {
            EXPECT_EQ(c.message.substr(0, dots), refusal.substr(0, dots)) << c.text;
        } else {
            EXPECT_EQ(c.message, refusal) << c.text;
        }
    }
}

TEST(GatewayConfig, UnreadableFileNamed) {
    try {
        SlotGateway::LoadConfig("/nonexistent/gw.json");
        FAIL();
    } catch (const ConfigError& e) {
        EXPECT_STREQ(e.what(), "/nonexistent/gw.json: cannot be read");
    }
}
