// SPDX-License-Identifier: Apache-2.0
// How slotctl ls / info / rm --stale show and treat each state the survey reports (the states
// themselves are the library's, tested there), and names that would garble a terminal or a
// JSON reader.
#include "HeaderHolder.h"
#include "ShmHygiene.h"
#include "ShmObject.h"
#include "SlotctlRunner.h"

#include <Slot/BoostInterprocess/BaseQueueSlot.h>
#include <Slot/SlotFactory.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <boost/interprocess/shared_memory_object.hpp>

#include <algorithm>
#include <csignal>
#include <string>

namespace {

using slotctltest::LineStartingWith;
using slotctltest::Outcome;
using slotctltest::ShmExists;
using slotctltest::Slotctl;
using ::testing::AllOf;
using ::testing::HasSubstr;
using testsupport::HeaderHolder;
using testsupport::ScopedSlotName;

// A dead and a live holder, a queue left at size 0 by a creator killed right after making it,
// and both halves of a slot: rm --stale leaves what is young or busy and removes the rest,
// naming the part it removed.
TEST(SlotctlStates, ShownAndRemovedAsStaleOnlyWhenBroken) {
    ScopedSlotName dead("deadheld"), live("liveheld"), unfinished("unfq");
    ScopedSlotName headerOnly("halfh"), queueOnly("halfq");
    HeaderHolder deadHolder(dead), liveHolder(live);
    ASSERT_TRUE(deadHolder.WaitLocked()) << deadHolder.Child().Wait().Describe();
    ASSERT_TRUE(liveHolder.WaitLocked()) << liveHolder.Child().Wait().Describe();
    const std::string deadPid = std::to_string(deadHolder.Child().Pid());
    deadHolder.Child().Kill(SIGKILL);
    deadHolder.Child().Wait();
    const std::string unfinishedQueue = BaseQueueSlot::GetQueueName(unfinished);
    ASSERT_TRUE(testsupport::WriteObject(unfinishedQueue, testsupport::Bytes()));
    for (const std::string& name : {headerOnly.str(), queueOnly.str()}) {
        SimpleSlotCfg cfg(name, "discarding", boost::posix_time::milliseconds(50), 1);
        SlotFactory::CreateSlot(&cfg);
    }
    boost::interprocess::shared_memory_object::remove(
        BaseQueueSlot::GetQueueName(headerOnly).c_str());
    boost::interprocess::shared_memory_object::remove(queueOnly.c_str());

    // Which state each of them is in is the survey's test; here how ls and info show it.
    const Outcome ls = Slotctl({"ls"});
    EXPECT_EQ(0, ls.status) << ls.Describe();
    const std::string deadRow = LineStartingWith(ls.out, dead.str() + " ");
    EXPECT_THAT(deadRow, AllOf(HasSubstr(" dead-holder "),
                               HasSubstr("header mutex held by dead pid " + deadPid)));
    const Outcome lsJson = Slotctl({"ls", "--json"});
    EXPECT_THAT(lsJson.out, HasSubstr("\"holder\": {\"lock\": \"header mutex\", \"pid\": " +
                                      deadPid + ", \"alive\": false}"));
    const Outcome header = Slotctl({"info", headerOnly.str()});
    EXPECT_EQ(0, header.status) << header.Describe();
    EXPECT_THAT(header.out, HasSubstr("header-only (half slot: the queue 'queue_" +
                                      headerOnly.str() + "' is missing)"));

    // Young broken slots may be slots being created: left alone by default.
    const std::vector<std::string> broken = {dead, unfinished, headerOnly, queueOnly};
    std::vector<std::string> args = {"rm", "--stale"};
    args.insert(args.end(), broken.begin(), broken.end());
    EXPECT_EQ(1, Slotctl(args).status);
    EXPECT_TRUE(ShmExists(dead.str()) && ShmExists(unfinishedQueue) &&
                ShmExists(headerOnly.str()) && ShmExists(BaseQueueSlot::GetQueueName(queueOnly)));
    const Outcome busy = Slotctl({"rm", "--stale", "--min-age", "0", live.str()});
    EXPECT_EQ(1, busy.status) << busy.Describe();
    EXPECT_TRUE(ShmExists(live.str()));
    args.insert(args.begin() + 2, {"--min-age", "0"});
    const Outcome rm = Slotctl(args);
    EXPECT_EQ(0, rm.status) << rm.Describe();
    for (const auto& removed :
         {std::make_pair(dead.str(), "header segment"), std::make_pair(unfinished.str(), "queue"),
          std::make_pair(headerOnly.str(), "header segment"),
          std::make_pair(queueOnly.str(), "queue")}) {
        EXPECT_THAT(rm.out, HasSubstr("removed '" + removed.first + "': " + removed.second));
        EXPECT_FALSE(ShmExists(removed.first));
        EXPECT_FALSE(ShmExists(BaseQueueSlot::GetQueueName(removed.first)));
    }

    liveHolder.Release();
    EXPECT_TRUE(liveHolder.Child().Wait().Ok());
}

// No byte that a terminal acts on: C0 controls other than the line ends, DEL, and the bytes
// of C1 controls or of invalid UTF-8 (any byte >= 0x80 here, since the test names use none
// that is valid).
bool TerminalSafe(const std::string& text) {
    for (unsigned char c : text) {
        if ((c < 0x20 && c != '\n') || c >= 0x7f) {
            return false;
        }
    }
    return true;
}

// Names are escaped in tables, messages and JSON, which parses and gives the name back as shown.
TEST(SlotctlNames, ControlBidiAndInvalidUtf8AreEscapedEverywhere) {
    const struct {
        std::string stem;
        std::string shown;      // in tables and messages
        std::string shownJson;  // inside a JSON string
    } cases[] = {
        {"nl\nx", "nl\\x0ax", "nl\\nx"},
        {"esc\x1b[31mred\x1b[0m", "esc\\x1b[31mred\\x1b[0m", "esc\\u001b[31mred\\u001b[0m"},
        {"c1\xc2\x9b"
         "2J",
         "c1\\xc2\\x9b2J", "c1\\u009b2J"},
        {"bad\xff\xfe\x7f\xc2\x85", "bad\\xff\\xfe\\x7f\\xc2\\x85",
         "bad\\\\xff\\\\xfe\\u007f\\u0085"},  // A right-to-left override would show the rest of the
                                              // line reversed.
        {"rtl\xe2\x80\xae"
         "cba",
         "rtl\\xe2\\x80\\xaecba", "rtl\\u202ecba"},
    };
    for (const auto& c : cases) {
        ScopedSlotName name(c.stem);
        SCOPED_TRACE(c.shown);
        const std::string prefix = name.str().substr(0, name.str().size() - c.stem.size());
        {
            SimpleSlotCfg cfg(name, "discarding", boost::posix_time::milliseconds(50), 1);
            SlotFactory::CreateSlot(&cfg);
        }
        const Outcome ls = Slotctl({"ls"});
        EXPECT_EQ(0, ls.status) << ls.Describe();
        EXPECT_TRUE(TerminalSafe(ls.out)) << ls.out;
        EXPECT_THAT(LineStartingWith(ls.out, prefix + c.shown + " "), HasSubstr(" slot "));

        const Outcome json = Slotctl({"ls", "--json"});
        EXPECT_TRUE(TerminalSafe(json.out)) << json.out;
        EXPECT_THAT(json.out, HasSubstr("\"name\": \"" + prefix + c.shownJson + "\""));
        const nlohmann::json slots = nlohmann::json::parse(json.out);
        const nlohmann::json back = nlohmann::json::parse("\"" + prefix + c.shownJson + "\"");
        EXPECT_TRUE(std::any_of(slots.begin(), slots.end(), [&](const nlohmann::json& slot) {
            return slot["name"] == back;
        })) << json.out;

        for (const auto& args : {std::vector<std::string>{"info", name.str()},
                                 std::vector<std::string>{"info", "--json", name.str()}}) {
            const Outcome info = Slotctl(args);
            EXPECT_EQ(0, info.status) << info.Describe();
            EXPECT_TRUE(TerminalSafe(info.out)) << info.out;
        }
        const Outcome rm = Slotctl({"rm", name.str()});
        EXPECT_EQ(0, rm.status) << rm.Describe();
        EXPECT_TRUE(TerminalSafe(rm.out)) << rm.out;
        EXPECT_THAT(rm.out, HasSubstr("removed '" + prefix + c.shown + "'"));
        const Outcome missing = Slotctl({"info", name.str()});
        EXPECT_EQ(1, missing.status);
        EXPECT_TRUE(TerminalSafe(missing.err)) << missing.err;
        EXPECT_THAT(missing.err, HasSubstr("'" + prefix + c.shown + "' is not a slot"));
    }
}

// The table's columns line up on a terminal: a name of two-byte characters is padded by
// characters, not bytes.
TEST(SlotctlNames, TableColumnsCountCharacters) {
    ScopedSlotName wide("caf\xc3\xa9\xc3\xa9"), plain("cafeee");
    for (const std::string& name : {wide.str(), plain.str()}) {
        SimpleSlotCfg cfg(name, "discarding", boost::posix_time::milliseconds(50), 1);
        SlotFactory::CreateSlot(&cfg);
    }
    const Outcome ls = Slotctl({"ls"});
    ASSERT_EQ(0, ls.status) << ls.Describe();
    const auto kindColumn = [&](const std::string& name) {
        const std::string row = LineStartingWith(ls.out, name + " ");
        const std::string before = row.substr(0, row.find(" discarding "));
        return std::count_if(before.begin(), before.end(),
                             [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; });
    };
    EXPECT_EQ(kindColumn(plain.str()), kindColumn(wide.str())) << ls.out;
}

}  // namespace
