// SPDX-License-Identifier: Apache-2.0
// The JSON of slot reports: the exact keys slotctl and the Python survey share, and the writer's
// escaping and separators.
#include "ShmHygiene.h"

#include <Slot/SlotFactory.h>
#include <Slot/SlotReportJson.h>
#include <Slot/SlotText.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using testsupport::ScopedSlotName;
typedef std::vector<std::string> Keys;

Keys KeysOf(const nlohmann::ordered_json& object) {
    Keys keys;
    for (auto it = object.begin(); it != object.end(); ++it) {
        keys.push_back(it.key());
    }
    return keys;
}

const Keys kSummary = {"name",     "state",      "kind",        "max_block_size", "waiting",
                       "capacity", "last_write", "reader",      "pipe",           "holder",
                       "owner",    "uid",        "age_seconds", "detail"};
const Keys kPart = {"object", "state", "detail", "size"};

// The key set is the contract: a renamed, dropped or reordered key breaks every consumer.
TEST(SlotReportJson, KeysOfTheListingAndTheInfoDocument) {
    ScopedSlotName name("json");
    SimpleSlotCfg cfg(name, "reliable", boost::posix_time::milliseconds(50), 4);
    SlotFactory::CreateSlot(&cfg);
    const SlotReport report = SlotSurvey::InspectSlot(name);

    const auto list = nlohmann::ordered_json::parse(Slot::ListJson({report}));
    ASSERT_TRUE(list.is_array() && list.size() == 1) << list.dump();
    EXPECT_EQ(kSummary, KeysOf(list[0]));
    EXPECT_EQ("slot", list[0]["state"]);
    EXPECT_EQ("reliable", list[0]["kind"]);
    EXPECT_EQ((Keys{"lock_file", "held", "pid"}), KeysOf(list[0]["reader"]));

    const auto info = nlohmann::ordered_json::parse(Slot::InfoJson(report));
    Keys infoKeys = kSummary;
    infoKeys.insert(infoKeys.end(),
                    {"header", "queue", "locks", "attached", "unreadable_processes"});
    EXPECT_EQ(infoKeys, KeysOf(info));
    Keys headerKeys = kPart;
    headerKeys.insert(headerKeys.end(),
                      {"free", "named_objects", "unique_objects", "objects",
                       "output_buffer_data_size", "output_buffer_handle", "output_buffer_size"});
    EXPECT_EQ(headerKeys, KeysOf(info["header"]));
    EXPECT_EQ((Keys{"last_write_tstamp", "output_buffer_data_size", "output_buffer_handle",
                    "cond_on_write"}),
              KeysOf(info["header"]["objects"]));
    EXPECT_EQ(kPart, KeysOf(info["queue"]));

    // Nothing there: the summary's unknowns are null, the parts have no contents.
    SlotFactory::RemoveSlot(name);
    const auto absent =
        nlohmann::ordered_json::parse(Slot::InfoJson(SlotSurvey::InspectSlot(name)));
    EXPECT_EQ("absent", absent["state"]);
    for (const char* key : {"kind", "capacity", "last_write", "reader", "owner", "holder"}) {
        EXPECT_TRUE(absent[key].is_null()) << key << ": " << absent.dump();
    }
    EXPECT_EQ(kPart, KeysOf(absent["header"]));
}

// Every string comes out as valid UTF-8 with control characters escaped; ", " and ": " go
// between items only, never into strings.
TEST(SlotReportJson, WriterEscapesAndSeparates) {
    Slot::JsonWriter json;
    json.BeginObject();
    json.Key("a\xff").String("x\n\x7f\xc2\x85\xc3\xa9 \xe2\x82");
    json.Key("bidi").String("\xe2\x81\xa6x\xd8\x9c");
    json.Key("punct").String("a,b:\"c\\");
    json.Key("list").BeginArray().Number(1).SignedNumber(-2).Bool(true).Null().EndArray();
    json.EndObject();
    EXPECT_EQ(
        "{\"a\\\\xff\": \"x\\n\\u007f\\u0085\xc3\xa9 \\\\xe2\\\\x82\", "
        "\"bidi\": \"\\u2066x\\u061c\", "
        "\"punct\": \"a,b:\\\"c\\\\\", \"list\": [1, -2, true, null]}",
        json.Text());
}

}  // namespace
