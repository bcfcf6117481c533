// SPDX-License-Identifier: Apache-2.0
// One rule for slot names: the library, slotctl and the gateway's configuration accept and refuse
// the same names.
#include "../support/ShmHygiene.h"
#include "../tools/SlotctlRunner.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotNames.h>
#include <SlotGateway/Config.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/mman.h>
#include <optional>
#include <string>
#include <vector>

namespace {

struct NameCase {
    std::string what;
    std::string name;
    bool valid;
    bool jsonCanCarry = true;  // JSON text carries only UTF-8
    bool argvCanCarry = true;  // a command line carries no NUL byte
};

std::vector<NameCase> Names() {
    const std::string prefix = testsupport::UniqueName("rule");
    const auto padded = [&](size_t length) {
        return prefix + std::string(length - prefix.size(), 'n');
    };
    return {
        {"empty", "", false},
        {"dot", ".", false},
        {"dot dot", "..", false},
        {"slash", prefix + "/x", false},
        {"leading slash", "/" + prefix, false},
        {"space", prefix + " with space", true},
        {"control bytes", prefix + "\x01\x1b[31m\t", true},
        {"249 bytes", padded(Slot::MaxSlotNameLength), true},
        {"250 bytes", padded(Slot::MaxSlotNameLength + 1), false},
        {"255 bytes", padded(255), false},
        {"300 bytes", padded(300), false},
        {"not UTF-8", prefix + "\xff\xfe\xc3", true, false},
        {"NUL byte", prefix + std::string(1, '\0') + "x", false, true, false},
    };
}

// The library: the rule itself, and the slot constructor that applies it before creating
// anything.
bool LibraryAccepts(const std::string& name) {
    const std::optional<std::string> problem = Slot::SlotNameProblem(name);
    bool created = false;
    try {
        const SimpleSlotCfg cfg(name, "reliable", boost::posix_time::milliseconds(10), 2);
        SlotFactory::CreateSlot(&cfg);
        created = true;
        SlotFactory::RemoveSlot(name);
    } catch (const AbortSlotCreationException& e) {
        EXPECT_TRUE(problem.has_value()) << e.what();
        // The factory names a NUL byte in its own words, before the slot applies the rule.
        const std::string expected =
            name.find('\0') != std::string::npos
                ? "Slot could not be created: the name '" + name.substr(0, name.find('\0')) +
                      "...' contains a NUL byte"
                : "Slot could not be created: slot name '" + name + "' " + problem.value_or("");
        EXPECT_EQ(expected, e.what());
    }
    EXPECT_EQ(!problem.has_value(), created);
    // Nothing half made: "." and ".." would be valid queue names ("queue_.").
    const bool objectName = name != "" && name != "." && name != "..";
    EXPECT_FALSE(objectName && slotctltest::ShmExists(name));
    const std::string queue = "queue_" + name;
    if (!created && slotctltest::ShmExists(queue)) {
        ADD_FAILURE() << "'" << queue << "' was left behind";
        ::shm_unlink(queue.c_str());
    }
    return created;
}

bool SlotctlAccepts(const std::string& name) {
    const slotctltest::Outcome run = slotctltest::Slotctl({"info", name});
    EXPECT_TRUE(run.exited) << run.Describe();
    const bool refused = slotctltest::Contains(run.err, "invalid slot name");
    // A valid name of no slot is reported as such, with another status than a usage error.
    EXPECT_EQ(refused ? 2 : 1, run.status) << run.Describe();
    return !refused;
}

bool GatewayAccepts(const std::string& name) {
    const nlohmann::json config = {
        {"slots",
         {{{"name", name}, {"type", "reliable"}, {"direction", "to-network"}, {"topic", "t"}}}}};
    try {
        SlotGateway::ParseConfig(config.dump(), "gw.json");
        return true;
    } catch (const SlotGateway::ConfigError& e) {
        EXPECT_NE(std::string::npos, std::string(e.what()).find("field \"name\": the slot name "))
            << e.what();
        return false;
    }
}

TEST(SlotNameRule, LibrarySlotctlAndGatewayAgree) {
    for (const NameCase& c : Names()) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.valid, LibraryAccepts(c.name));
        if (c.argvCanCarry) {
            EXPECT_EQ(c.valid, SlotctlAccepts(c.name));
        }
        if (c.jsonCanCarry) {
            EXPECT_EQ(c.valid, GatewayAccepts(c.name));
        }
    }
}

}  // namespace
