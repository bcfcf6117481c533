// SPDX-License-Identifier: Apache-2.0
#include "../Slot/PoolTestSupport.h"
#include "ChildProcess.h"
#include "Eventually.h"
#include "Files.h"
#include "HeaderHolder.h"
#include "ShmHygiene.h"
#include "ShmObject.h"
#include "SlotctlRunner.h"

#include <Slot/BoostInterprocess/BaseQueueSlot.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotNames.h>
#include <Slot/SlotSurvey.h>

#include <FileUtils/FSUtils.h>
#include <FileUtils/NamedPipeCreator.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/shared_memory_object.hpp>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

using slotctltest::Background;
using slotctltest::Exists;
using slotctltest::LineStartingWith;
using slotctltest::Options;
using slotctltest::Outcome;
using slotctltest::ShmExists;
using slotctltest::Slotctl;
using slotctltest::SlotctlEnding;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using testsupport::ChildProcess;
using testsupport::HeaderHolder;
using testsupport::PipeSignal;
using testsupport::ScopedSlotName;

// One line on stderr, "slotctl: ...", containing `part`; nothing on stdout.
void ExpectOneErrorLine(const Outcome& run, int status, const std::string& part) {
    EXPECT_TRUE(run.exited) << run.Describe();
    EXPECT_EQ(status, run.status) << run.Describe();
    ASSERT_EQ(1u, run.ErrLines().size()) << run.Describe();
    EXPECT_EQ(0u, run.err.find("slotctl: ")) << run.Describe();
    EXPECT_THAT(run.err, HasSubstr(part));
    EXPECT_EQ("", run.out) << run.Describe();
}

// ---- command-line errors ----

// Bad command lines (status 2) and names that are not slots (status 1).
TEST(SlotctlErrors, BadCommandLinesAndMissingSlotsGiveOneLine) {
    ScopedSlotName name("bad");
    const std::string notSlot = "'" + name.str() + "' is not a slot";
    // A FIFO nobody writes: log4cxx's own open of it would never return.
    const std::string logFifo = testsupport::TestRunDir() + "/" + name.str() + ".log";
    ASSERT_EQ(0, ::mkfifo(logFifo.c_str(), 0600));
    const struct {
        int status;
        std::vector<std::string> args;
        std::string message;
    } cases[] = {
        // Which names are refused is the name rule's own test: here each command's wiring.
        {2, {"info", "a/b"}, "invalid slot name 'a/b'"},
        {2, {"read", ".."}, "invalid slot name '..'"},
        {2, {"rm", name.str(), "x/y"}, "invalid slot name 'x/y'"},
        {2, {"write", "a/b", "data"}, "invalid slot name 'a/b'"},
        {2, {"ls", "--json", "--names"}, "ls: --json and --names exclude each other"},
        {2, {"write", name.str(), "--type", "win-pipe", "data"}, "invalid slot type 'win-pipe'"},
        {2, {"read", name.str(), "--type", "Reliable"}, "invalid slot type 'Reliable'"},
        {2, {"write", name.str(), "--count", "many", "data"}, "--count must be a whole number"},
        {2,
         {"read", name.str(), "--format", "pretty"},
         "--format must be text, hex, raw, frames or ndjson"},
        {2, {"read", name.str(), "--format", "json"}, "--format must be"},
        {2, {"write", name.str(), "--frames", "--lines"}, "--frames"},
        {2, {"ls", "--all"}, "unknown option '--all'"},
        {2, {"--log-config", name.str() + ".missing", "ls"}, "cannot read log configuration"},
        {2, {"--log-config", logFifo, "ls"}, "': not a regular file"},
        {2, {"frobnicate"}, "unknown command 'frobnicate'"},
        {2, {"demo", "--size", "8"}, "--size must be a whole number from 16"},
        {2, {"bw", name.str(), "--window", "0"}, "--window"},
        {2,
         {"top", "--interval", "0"},
         "slotctl: top: --interval must be a number of seconds from 0.1 to 3600, not '0'\n"},
        {2, {"top", "--interval=soon"}, "--interval"},
        {2, {"top", "--once", "extra"}, "top"},
        {2, {"top", "--sort"}, "--sort"},
        {1, {"info", name.str()}, notSlot},
        {1, {"info", "--json", name.str()}, notSlot},
        {1, {"rm", name.str()}, notSlot},
        {1, {"hz", name.str(), "--timeout", "100"}, "has no usable header"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + (c.args.size() > 1 ? c.args[1] : ""));
        ExpectOneErrorLine(Slotctl(c.args), c.status, c.message);
    }
    // Refused before anything was made.
    EXPECT_FALSE(ShmExists(name.str()));
    EXPECT_FALSE(ShmExists("queue_" + name.str()));
}

TEST(SlotctlErrors, ASlotOfAnotherUserGivesPermissionDenied) {
    ScopedSlotName name("perm");
    {
        SimpleSlotCfg cfg(name, "discarding", boost::posix_time::milliseconds(50), 1);
        SlotFactory::CreateSlot(&cfg);
    }
    Options options;
    if (::geteuid() == 0) {
        options.uid = 65534;  // nobody: the slot is root's, mode 0644
    } else {
        ASSERT_EQ(0, ::chmod(("/dev/shm/" + name.str()).c_str(), 0444));
    }
    ExpectOneErrorLine(Slotctl({"info", name.str()}, options), 1, "Permission denied");
    ExpectOneErrorLine(Slotctl({"write", name.str(), "x"}, options), 1, "Permission denied");
}

TEST(SlotctlLogging, VerbosityAndAConfigurationFileReachTheLibrary) {
    ScopedSlotName name("log");
    const Outcome verbose = SlotctlEnding(0, {"-v", "write", name.str(), "x"});
    EXPECT_THAT(verbose.err,
                HasSubstr("slotctl: DEBUG [Slot.Writer] write to '" + name.str() + "'"));

    const std::string config = testsupport::TestRunDir() + "/log.properties";
    const std::string logFile = testsupport::TestRunDir() + "/log.out";
    std::ofstream(config) << "log4j.rootLogger=INFO, file\n"
                             "log4j.appender.file=org.apache.log4j.FileAppender\n"
                             "log4j.appender.file.File="
                          << logFile
                          << "\n"
                             "log4j.appender.file.layout=org.apache.log4j.PatternLayout\n"
                             "log4j.appender.file.layout.ConversionPattern=%p %c %m%n\n";
    SlotctlEnding(0, {"write", name.str(), "--log-config", config, "y"});
    const std::string logged = testsupport::ReadFile(logFile);
    EXPECT_THAT(logged,
                HasSubstr("INFO Slot Creating SlotWriter and DiscardingSlot for " + name.str()));
}

// ---- ls and info: what another process wrote, read without disturbing it ----

std::string Block(int i) {
    return "block-" + std::to_string(i) + std::string(static_cast<size_t>(i), '*');
}

TEST(SlotctlSurvey, LsAndInfoShowAWrittenSlotWithoutResettingIt) {
    ScopedSlotName name("shown");
    const auto stamp = testsupport::SharedWithChildren<std::array<char, 64>>();
    PipeSignal stamped, checked;
    // The writer keeps the slot open, tells its last write time, and after slotctl has looked
    // checks that its header still holds that time.
    ChildProcess writer([&] {
        SimpleSlotCfg cfg(name, "reliable", boost::posix_time::milliseconds(50), 8);
        boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
        ISubscriberPtr sink = SlotFactory::CreateSlotWriter(&cfg);
        for (int i = 0; i < 4; ++i) {
            const std::string block = Block(i);
            sink->onNotify(name, block.data(), block.size());
        }
        char first[64];
        if (slot->ReadData(first, sizeof(first)) != Block(0).size()) {
            return 10;  // the output buffer now holds block 0
        }
        const boost::posix_time::ptime written = slot->GetLastWriteTime();
        std::snprintf(stamp->data(), stamp->size(), "%s",
                      boost::posix_time::to_iso_extended_string(written).c_str());
        stamped.Post();
        if (!checked.WaitFor()) {
            return 12;
        }
        return slot->GetLastWriteTime() == written && slot->GetBufferLength() == 3 ? 0 : 13;
    });
    ASSERT_TRUE(stamped.WaitFor()) << writer.Wait().Describe();
    const std::string shownStamp = std::string(stamp->data()) + "Z";

    const Outcome ls = SlotctlEnding(0, {"ls"});
    const std::string line = LineStartingWith(ls.out, name.str() + " ");
    EXPECT_THAT(line, AllOf(HasSubstr(" reliable "), HasSubstr(" slot "), HasSubstr(" 3/8 "),
                            HasSubstr(shownStamp), HasSubstr(" none")));

    const Outcome info = SlotctlEnding(0, {"info", name.str()});
    EXPECT_THAT(info.out, AllOf(HasSubstr("blocks waiting  3 of 8"),
                                HasSubstr("last write      " + shownStamp)));
    const Outcome infoJson = SlotctlEnding(0, {"info", "--json", name.str()});
    // A reset by any of the looks before would have zeroed the data size and the time.
    EXPECT_THAT(infoJson.out,
                AllOf(HasSubstr("\"output_buffer_data_size\": " + std::to_string(Block(0).size())),
                      HasSubstr("\"last_write\": \"" + shownStamp + "\"")));

    checked.Post();
    EXPECT_TRUE(writer.Wait().Ok()) << "the writer's header changed";
}

// A look with slotctl makes neither the pipe folder nor the lock folder, which would then belong
// to this user and be refused to every other user's pipes and readers.
TEST(SlotctlSurvey, LsAndInfoCreateNoSharedFolder) {
    ScopedSlotName name("nofolder");
    SlotctlEnding(0, {"write", name.str(), "--type", "reliable"}, Options{"x"});
    testsupport::ScopedMissingSharedFolders folders;
    EXPECT_THAT(SlotctlEnding(0, {"ls"}).out, HasSubstr(name.str() + " "));
    SlotctlEnding(0, {"info", name.str()});
    SlotctlEnding(0, {"info", "--json", name.str()});
    EXPECT_EQ(std::vector<std::string>(), folders.Made());
}

// Objects of other programs, or broken ones: an empty object and one whose Boost state word
// says "being created" (opening either through Boost would spin for ever), and garbage that
// claims to be initialised.
TEST(SlotctlSurvey, ForeignAndBrokenObjectsNeitherHangNorCrashNorGetRemoved) {
    ScopedSlotName empty("empty"), creating("creating"), garbage("garbage");
    testsupport::Bytes noise(8192);
    for (size_t i = 0; i < noise.size(); ++i) {
        noise[i] = static_cast<unsigned char>((i * 2654435761u) >> 13);
    }
    const std::uint32_t initialised = 2;
    std::memcpy(noise.data(), &initialised, sizeof(initialised));
    ASSERT_TRUE(testsupport::WriteObject(empty.str(), {}));
    ASSERT_TRUE(testsupport::WriteObject(creating.str(), testsupport::Bytes(4096)));
    ASSERT_TRUE(testsupport::WriteObject(garbage.str(), noise));
    ASSERT_TRUE(testsupport::WriteObject("queue_" + garbage.str(), noise));

    for (const std::string& name : {empty.str(), creating.str()}) {
        SCOPED_TRACE(name);
        const Outcome info = Slotctl({"info", name}, Options{"", std::chrono::seconds(30)});
        EXPECT_TRUE(info.exited) << info.Describe();
        EXPECT_LE(info.status, 1) << info.Describe();
        EXPECT_LE(info.ErrLines().size(), 1u) << info.Describe();
    }
    ExpectOneErrorLine(Slotctl({"info", garbage.str()}, Options{"", std::chrono::seconds(30)}), 1,
                       "is not a slot");
    EXPECT_THAT(SlotctlEnding(0, {"ls", "--json"}).out, Not(HasSubstr(garbage.str())));

    SlotctlEnding(1, {"rm", garbage.str()});
    EXPECT_TRUE(ShmExists(garbage.str()));
    EXPECT_TRUE(ShmExists("queue_" + garbage.str()));
}

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
    const Outcome ls = SlotctlEnding(0, {"ls"});
    const std::string deadRow = LineStartingWith(ls.out, dead.str() + " ");
    EXPECT_THAT(deadRow, AllOf(HasSubstr(" dead-holder "),
                               HasSubstr("header mutex held by dead pid " + deadPid)));
    const Outcome lsJson = Slotctl({"ls", "--json"});
    EXPECT_THAT(lsJson.out, HasSubstr("\"holder\": {\"lock\": \"header mutex\", \"pid\": " +
                                      deadPid + ", \"alive\": false}"));
    const Outcome header = SlotctlEnding(0, {"info", headerOnly.str()});
    EXPECT_THAT(header.out, HasSubstr("header-only (half slot: the queue 'queue_" +
                                      headerOnly.str() + "' is missing)"));

    // Young broken slots may be slots being created: left alone by default.
    const std::vector<std::string> broken = {dead, unfinished, headerOnly, queueOnly};
    std::vector<std::string> args = {"rm", "--stale"};
    args.insert(args.end(), broken.begin(), broken.end());
    EXPECT_EQ(1, Slotctl(args).status);
    EXPECT_TRUE(ShmExists(dead.str()) && ShmExists(unfinishedQueue) &&
                ShmExists(headerOnly.str()) && ShmExists(BaseQueueSlot::GetQueueName(queueOnly)));
    SlotctlEnding(1, {"rm", "--stale", "--min-age", "0", live.str()});
    EXPECT_TRUE(ShmExists(live.str()));
    args.insert(args.begin() + 2, {"--min-age", "0"});
    const Outcome rm = SlotctlEnding(0, args);
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

// An ordinary user's rm --stale leaves other users' stale slots (theirs or root's to remove),
// says so, and does not fail for them.
TEST(SlotctlStates, RmStaleOfAnOrdinaryUserLeavesOtherUsersSlots) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root runs a process as another user";
    }
    ScopedSlotName name("othersstale");
    HeaderHolder holder(name);
    ASSERT_TRUE(holder.WaitLocked()) << holder.Child().Wait().Describe();
    holder.Child().Kill(SIGKILL);
    holder.Child().Wait();
    Options nobody;
    nobody.uid = 65534;
    const Outcome rm = SlotctlEnding(0, {"rm", "--stale", "--min-age", "0"}, nobody);
    EXPECT_THAT(rm.out, HasSubstr("left '" + name.str() + "' (held by dead pid "));
    EXPECT_THAT(rm.out, HasSubstr(", uid 0's)\n"));
    EXPECT_TRUE(ShmExists(name.str()));
}

// rm --stale waits for a slot's users to leave; a slot repaired meanwhile (a writer took over the
// dead holder's lock and stored a block) is no longer stale and is left with its block. (When
// the machine is too slow for the user to leave in time, rm gives up on it: also left.)
TEST(SlotctlStates, ASlotRepairedWhileRmWaitsForItsUsersIsLeft) {
    ScopedSlotName name("repaired");
    HeaderHolder holder(name);
    ASSERT_TRUE(holder.WaitLocked()) << holder.Child().Wait().Describe();
    holder.Child().Kill(SIGKILL);
    holder.Child().Wait();
    testsupport::PipeSignal opened, leave;
    ChildProcess user([&] {
        const int fd = ::open(Slot::ShmPath(name).c_str(), O_RDWR | O_CLOEXEC);
        opened.Post();
        leave.WaitFor(std::chrono::seconds(60));
        return fd >= 0 ? 0 : 1;
    });
    ASSERT_TRUE(opened.WaitFor());
    Background rm({"rm", "--stale", "--min-age", "0", name.str()});
    // Once it sleeps between its looks for users (missed on a slow machine: it then gives up on
    // the user, which leaves the slot too).
    std::vector<long> sleeps = {SYS_clock_nanosleep, SYS_nanosleep};
#ifdef SYS_clock_nanosleep_time64
    sleeps.push_back(SYS_clock_nanosleep_time64);  // 32-bit x86
#endif
    testsupport::Eventually([&] { return rm.BlockedIn(sleeps); }, std::chrono::seconds(5));
    SlotctlEnding(0, {"write", name.str(), "kept"});
    leave.Post();
    EXPECT_TRUE(user.Wait().Ok());
    const Outcome removal = rm.Finish();
    EXPECT_THAT(removal.out, Not(HasSubstr("removed"))) << removal.Describe();
    const Outcome read = SlotctlEnding(0, {"read", name.str(), "--timeout", "10000"});
    EXPECT_THAT(read.out, HasSubstr("kept"));
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
        // Only this test's own entry is looked at: tests running meanwhile list names of
        // their own (valid UTF-8 among them).
        const Outcome ls = SlotctlEnding(0, {"ls"});
        const std::string row = LineStartingWith(ls.out, prefix + c.shown + " ");
        EXPECT_TRUE(TerminalSafe(row)) << ls.out;
        EXPECT_THAT(row, HasSubstr(" slot "));

        const Outcome json = Slotctl({"ls", "--json"});
        const std::string::size_type entry = json.out.find("{\"name\": \"" + prefix);
        ASSERT_NE(std::string::npos, entry) << json.out;
        EXPECT_TRUE(TerminalSafe(json.out.substr(entry, json.out.find('}', entry) - entry)))
            << json.out;
        EXPECT_THAT(json.out, HasSubstr("\"name\": \"" + prefix + c.shownJson + "\""));
        const nlohmann::json slots = nlohmann::json::parse(json.out);
        const nlohmann::json back = nlohmann::json::parse("\"" + prefix + c.shownJson + "\"");
        EXPECT_TRUE(std::any_of(slots.begin(), slots.end(), [&](const nlohmann::json& slot) {
            return slot["name"] == back;
        })) << json.out;

        for (const auto& args : {std::vector<std::string>{"info", name.str()},
                                 std::vector<std::string>{"info", "--json", name.str()}}) {
            const Outcome info = SlotctlEnding(0, args);
            EXPECT_TRUE(TerminalSafe(info.out)) << info.out;
        }
        const Outcome rm = SlotctlEnding(0, {"rm", name.str()});
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

// read and write on a slot whose header mutex a killed process held: the library repairs the lock
// (its own test), so each of them works, the slot is healthy again, and the blocks accepted
// before the death are read back.
TEST(SlotctlHeal, ReadAndWriteUseASlotWhoseHolderWasKilled) {
    for (const bool writeFirst : {false, true}) {
        ScopedSlotName name("heal");
        ASSERT_EQ(0, Slotctl({"write", name.str(), "--type", "reliable", "--queue", "4",
                              "--max-size", "64", "--lines"},
                             Options{"first\nsecond\n"})
                         .status);
        HeaderHolder holder(name);
        ASSERT_TRUE(holder.WaitLocked()) << holder.Child().Wait().Describe();
        holder.Child().Kill(SIGKILL);
        holder.Child().Wait();
        ASSERT_EQ(SlotState::DeadHolder, SlotSurvey::InspectSlot(name).state);
        std::string expected = "5 bytes: first\n6 bytes: second\n";
        if (writeFirst) {
            SlotctlEnding(0, {"write", name.str(), "third"});
            expected += "5 bytes: third\n";
        }
        const Outcome read = SlotctlEnding(
            0, {"read", name.str(), "--count", writeFirst ? "3" : "2", "--timeout", "20000"},
            Options{"", std::chrono::seconds(30)});
        EXPECT_EQ(expected, read.out);
        EXPECT_EQ(SlotState::Healthy, SlotSurvey::InspectSlot(name).state);
    }
}

// ---- write and read across processes ----

class SlotctlRoundTrip : public ::testing::TestWithParam<std::string> {};

TEST_P(SlotctlRoundTrip, ABlockWrittenByOneProcessIsPrintedByAnother) {
    ScopedSlotName name("rt");
    const std::string type = GetParam();
    Background reader({"read", name.str(), "--type", type, "--timeout", "20000"});
    ASSERT_TRUE(reader.WaitForErr("slotctl: reading '" + name.str() + "' (" + type + ")"))
        << reader.Finish().Describe();
    const Outcome write = SlotctlEnding(0, {"write", name.str(), "--type", type, "hello\tworld"});
    EXPECT_THAT(write.err, HasSubstr("1 block to '" + name.str() + "' (" + type + "): all stored"));
    const Outcome read = reader.FinishEnding(0);
    EXPECT_EQ("11 bytes: hello\\tworld\n", read.out);

    SlotctlEnding(0, {"rm", name.str()});
    EXPECT_FALSE(ShmExists(name.str()));
    EXPECT_FALSE(ShmExists("queue_" + name.str()));
    EXPECT_FALSE(Exists(FileUtils::NamedPipeCreator::ConstructPipeFilename(name)));
}

INSTANTIATE_TEST_SUITE_P(EachType, SlotctlRoundTrip,
                         ::testing::Values("discarding", "reliable", "posix-pipe"));

// Blocks wait in a reliable slot for a later reader, in order, shown as text or hex.
TEST(SlotctlReadWrite, AReliableSlotKeepsBlocksForALaterReaderInOrder) {
    ScopedSlotName name("later");
    // The environment cannot arm the library's test-only crash points in a program.
    ASSERT_EQ(0, ::setenv("SLOT_CRASH_POINT", "write-sent", 1));
    const Outcome write = Slotctl({"write", name.str(), "--type", "reliable", "--lines"},
                                  Options{"one\ntwo\n\x01three\n"});
    ::unsetenv("SLOT_CRASH_POINT");
    EXPECT_EQ(0, write.status) << write.Describe();
    // The kind is taken from the existing slot; hex shows the bytes.
    const Outcome read =
        SlotctlEnding(0, {"read", name.str(), "--count", "3", "--timeout", "20000"});
    EXPECT_EQ("3 bytes: one\n3 bytes: two\n6 bytes: \\x01three\n", read.out);
    EXPECT_THAT(read.err, HasSubstr("(reliable)"));

    Slotctl({"write", name.str(), "--length", "4", "ab"});
    const Outcome hex = Slotctl({"read", name.str(), "--format", "hex", "--timeout", "20000"});
    EXPECT_EQ("4 bytes:\n  000000  61 62 00 00" + std::string(12 * 3, ' ') + "  |ab..|\n", hex.out);

    // The text format shows what names show escaped (C0, DEL and C1 controls, bytes that are not
    // UTF-8, as \xNN), a backslash doubled and \n, \t, \r short; other UTF-8 as it is.
    const std::string block =
        "a\xc2\x9b"
        "31mRED\x9b\xff\x1b\x7f\\\n\t\r\xc3\xa9\xe2\x82";
    ASSERT_EQ(0, Slotctl({"write", name.str(), "-"}, Options{block}).status);
    const Outcome text = Slotctl({"read", name.str(), "--timeout", "20000"});
    EXPECT_EQ(std::to_string(block.size()) +
                  " bytes: a\\xc2\\x9b31mRED\\x9b\\xff\\x1b\\x7f\\\\\\n\\t\\r\xc3\xa9\\xe2\\x82\n",
              text.out);
}

// A queue object larger than 256 MiB (260 blocks of 1 MiB; the library makes objects up to
// INT_MAX) is surveyed healthy and used by every later command. One such object: its pages are
// reserved in /dev/shm.
TEST(SlotctlReadWrite, ASlotWhoseQueueIsLargerThan256MiBIsHealthyAndUsable) {
    struct statvfs shm;
    if (::statvfs(Slot::ShmDirectory().c_str(), &shm) != 0 ||
        std::uint64_t(shm.f_bavail) * shm.f_frsize < (std::uint64_t(1) << 30)) {
        GTEST_SKIP() << "less than 1 GiB free in " << Slot::ShmDirectory();
    }
    ScopedSlotName name("huge");
    SlotctlEnding(0, {"write", "--type", "reliable", "--max-size", "1048576", "--queue", "260",
                      name.str(), "hello"});
    const SlotReport report = SlotSurvey::InspectSlot(name);
    EXPECT_EQ(SlotState::Healthy, report.state) << report.detail;
    EXPECT_GT(report.queue.size, std::uint64_t(256) << 20);
    EXPECT_EQ(260u, report.queue.capacity);
    EXPECT_EQ(1048576u, report.queue.maxBlockSize);
    EXPECT_EQ(1u, report.queue.waiting);
    SlotctlEnding(0, {"write", name.str(), "hello2"});
    const Outcome read =
        SlotctlEnding(0, {"read", name.str(), "--count", "2", "--timeout", "20000"});
    EXPECT_EQ("5 bytes: hello\n6 bytes: hello2\n", read.out);
}

TEST(SlotctlReadWrite, RefusedAndDiscardedBlocksAreReportedAsTheLibraryLogsThem) {
    ScopedSlotName reliable("full");
    const Outcome refused = SlotctlEnding(
        1, {"write", reliable.str(), "--type", "reliable", "--queue", "2", "--lines", "a\nb\nc"});
    const std::vector<std::string> lines = refused.ErrLines();
    ASSERT_EQ(2u, lines.size()) << refused.Describe();
    EXPECT_EQ(
        "slotctl: WARN [Slot] Queue in '" + reliable.str() + "' is full, the data was not written",
        lines[0]);
    EXPECT_THAT(lines[1], HasSubstr("3 blocks to '" + reliable.str() + "' (reliable): 1 refused"));

    ScopedSlotName discarding("disc");
    const Outcome discarded = SlotctlEnding(0, {"write", discarding.str(), "--count", "3", "x"});
    const std::string warning =
        "slotctl: WARN [Slot] One data block discarded from " + discarding.str() + "\n";
    EXPECT_EQ(warning + warning + "slotctl: 3 blocks to '" + discarding.str() +
                  "' (discarding): all stored; 2 waiting blocks discarded\n",
              discarded.err);

    // The summary and the exit status come from the write outcomes, not from the log: a
    // configuration that silences the library hides the WARN line but not the refusal.
    const std::string config = testsupport::TestRunDir() + "/silent.properties";
    std::ofstream(config) << "log4j.rootLogger=OFF\n";
    ScopedSlotName silenced("silenced");
    const Outcome quiet =
        SlotctlEnding(1, {"--log-config", config, "write", silenced.str(), "--type", "reliable",
                          "--queue", "1", "--count", "3", "x"});
    EXPECT_THAT(quiet.err,
                AllOf(Not(HasSubstr("is full")),
                      HasSubstr("3 blocks to '" + silenced.str() + "' (reliable): 2 refused")));

    // A posix-pipe that nobody reads takes the block, but closing it loses the block: not "all
    // stored", status 1; with the log silenced as well.
    ScopedSlotName unread("unread");
    const std::string pipe = FileUtils::NamedPipeCreator::ConstructPipeFilename(unread);
    const std::string lost = "slotctl: 1 block to '" + unread.str() +
                             "' (posix-pipe): 5 unread bytes lost: no reader had the pipe open "
                             "when it was closed\n";
    const Outcome closed =
        SlotctlEnding(1, {"write", unread.str(), "--type", "posix-pipe", "hello"});
    EXPECT_EQ("slotctl: WARN [Slot.Writer] Closing named pipe '" + pipe +
                  "' that no reader has open: 5 unread bytes are lost\n" + lost,
              closed.err);
    const Outcome closedQuietly = SlotctlEnding(
        1, {"--log-config", config, "write", unread.str(), "--type", "posix-pipe", "hello"});
    EXPECT_EQ(lost, closedQuietly.err);
    ::unlink(pipe.c_str());
}

// A reliable slot holding the blocks "0", "1", ... "<count - 1>"; the lines read prints for them.
std::vector<std::string> FillNumbered(const std::string& name, int count) {
    std::string input;
    std::vector<std::string> printed;
    for (int i = 0; i < count; ++i) {
        input += std::to_string(i) + "\n";
        printed.push_back(std::to_string(std::to_string(i).size()) +
                          " bytes: " + std::to_string(i));
    }
    SlotctlEnding(
        0, {"write", name, "--type", "reliable", "--queue", std::to_string(count), "--lines"},
        Options{input});
    return printed;
}

// What a reader prints next of `printed`, from `next` on, is `lines`: no block was lost.
void ExpectNext(const std::vector<std::string>& printed, size_t& next,
                const std::vector<std::string>& lines) {
    ASSERT_LE(next + lines.size(), printed.size());
    EXPECT_EQ(std::vector<std::string>(printed.begin() + static_cast<long>(next),
                                       printed.begin() + static_cast<long>(next + lines.size())),
              lines);
    next += lines.size();
}

// That read's stderr is its start line, `failure` and the count of blocks it took and did not
// write; that count.
size_t ExpectTakenNotWritten(const Outcome& run, const std::string& name,
                             const std::string& failure) {
    const std::vector<std::string> lines = run.ErrLines();
    const std::vector<std::string> words = slotctltest::Words(lines.empty() ? "" : lines.back());
    EXPECT_EQ(9u, words.size()) << run.Describe();
    const size_t taken = words.size() == 9 ? std::stoul(words[1]) : 0;
    EXPECT_EQ("slotctl: reading '" + name + "' (reliable)\n" + failure +
                  "slotctl: " + std::to_string(taken) + (taken == 1 ? " block" : " blocks") +
                  " taken from '" + name + "' and not written\n",
              run.err);
    return taken;
}

// read --count N takes N blocks and leaves the rest in the slot, however many wait: the
// reader stops itself at its last block. Repeated, since a reader stopped later drains the
// slot in the meantime.
TEST(SlotctlReadWrite, ReadCountTakesItsBlocksAndLeavesTheRestInTheSlot) {
    ScopedSlotName name("count");
    const std::vector<std::string> printed = FillNumbered(name, 1000);
    size_t next = 0;
    for (int run = 0; run < 15; ++run) {
        const int count = 1 + run % 3;
        const Outcome read =
            Slotctl({"read", name.str(), "--count", std::to_string(count), "--timeout", "20000"});
        ASSERT_EQ(0, read.status) << read.Describe();
        ASSERT_EQ(1u, read.ErrLines().size()) << read.Describe();
        ExpectNext(printed, next, slotctltest::Lines(read.out));
    }
    const Outcome rest = SlotctlEnding(
        0, {"read", name.str(), "--count", std::to_string(1000 - next), "--timeout", "20000"});
    ExpectNext(printed, next, slotctltest::Lines(rest.out));
}

// A standard output that fails is an error, status 1; read then stops its reader at once and
// counts the blocks it took and could not write, and the rest stays in the slot.
TEST(SlotctlReadWrite, AFailingStandardOutputIsAnErrorAndLosesNoBlockUnsaid) {
    ScopedSlotName name("full");
    const std::vector<std::string> printed = FillNumbered(name, 300);
    Options full;
    full.stdoutPath = "/dev/full";
    const std::string failure = "slotctl: cannot write standard output: No space left on device\n";
    const Outcome read =
        SlotctlEnding(1, {"read", name.str(), "--follow", "--timeout", "20000"}, full);
    const size_t taken = ExpectTakenNotWritten(read, name, failure);
    EXPECT_GE(taken, 1u);
    EXPECT_LT(taken, 100u) << "the reader went on taking blocks";
    size_t next = taken;
    const Outcome rest = SlotctlEnding(
        0, {"read", name.str(), "--count", std::to_string(300 - taken), "--timeout", "20000"});
    ExpectNext(printed, next, slotctltest::Lines(rest.out));

    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"ls"}, {"ls", "--json"}, {"info", name.str()}, {"info", name.str(), "--json"}}) {
        const Outcome run = Slotctl(args, full);
        EXPECT_EQ(1, run.status) << args[0] << "\n" << run.Describe();
        EXPECT_EQ(failure, run.err) << args[0];
    }
}

// A standard output that takes nothing (a FIFO nobody drains) still ends read at a stop signal
// (130) and at --timeout (124), with the blocks taken and not written counted; the reader's
// claim goes with the process, and the blocks it did not take wait for the next reader.
TEST(SlotctlReadWrite, AStalledStandardOutputEndsAtAStopSignalAndAtTheTimeOut) {
    for (const bool timeOut : {false, true}) {
        ScopedSlotName name("stalled");
        const size_t blocks = 20, size = 10000;
        std::string input;
        for (size_t i = 0; i < blocks; ++i) {
            input += std::string(size, static_cast<char>('a' + i)) + "\n";
        }
        const Outcome write = Slotctl({"write", name.str(), "--type", "reliable", "--queue", "20",
                                       "--max-size", "10240", "--lines"},
                                      Options{input});
        ASSERT_EQ(0, write.status) << write.Describe();
        const std::string fifo = testsupport::TestRunDir() + "/" + testsupport::UniqueName("out");
        ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
        const int undrained = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        std::vector<std::string> args = {"read", name.str(), "--follow", "--format", "raw"};
        if (timeOut) {
            args.insert(args.end(), {"--timeout", "1000"});
        }
        Background reader(args, 0, fifo);
        EXPECT_TRUE(reader.WaitForErr("slotctl: reading"));
        ::unlink(fifo.c_str());  // opened by then
        int held = 0;
        EXPECT_TRUE(testsupport::Eventually(
            [&] { return ::ioctl(undrained, FIONREAD, &held) == 0 && held >= 60000; },
            std::chrono::seconds(30)));
        if (!timeOut) {
            reader.Signal(SIGINT);
        }
        const Outcome run = reader.Finish(std::chrono::seconds(30));
        ::ioctl(undrained, FIONREAD, &held);
        ::close(undrained);
        EXPECT_EQ(timeOut ? 124 : 130, run.status) << run.Describe();
        const size_t unwritten = ExpectTakenNotWritten(
            run, name,
            timeOut ? "slotctl: cannot write standard output: it took nothing within the time-out\n"
                    : "");
        const size_t written = static_cast<size_t>(held) / size;
        ASSERT_LE(written + unwritten, blocks) << run.Describe();
        if (written + unwritten == blocks) {
            continue;
        }
        // The next reader gets the next block: the claim went, and (after a time-out, when the
        // reader was stopped in order) none was taken unsaid.
        const Outcome next = SlotctlEnding(
            0, {"read", name.str(), "--count", "1", "--format", "raw", "--timeout", "20000"});
        if (timeOut) {
            EXPECT_EQ(std::string(size, static_cast<char>('a' + written + unwritten)), next.out);
        }
    }
}

// A follower whose standard output closes (`read --follow | head -1`) ends at once with the status
// of a closed output, without waiting for the next block: a reliable slot's or queue pool's
// reader claim goes with it, and a block written afterwards waits for the next reader (it once
// kept the claim until a block came, then took that block and lost it).
TEST(SlotctlReadWrite, AFollowerWhoseOutputClosesEndsAtOnceAndTakesNoMoreBlocks) {
    ScopedSlotName slot("follow");
    pooltest::ScopedPool pool("followq");
    for (const auto& [name, type, kind] : std::vector<std::array<std::string, 3>>{
             {slot.str(), "reliable", "reliable"}, {pool.str(), "queue", "queue pool"}}) {
        SlotctlEnding(
            0, {"write", name, "--type", type, "--queue", "8", "--max-size", "16", "--lines"},
            Options{"0\n1\n2\n3\n4\n"});
        const std::string fifo = testsupport::TestRunDir() + "/" + testsupport::UniqueName("out");
        ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
        const int head = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        Background reader({"read", name, "--follow"}, 0, fifo);
        EXPECT_TRUE(reader.WaitForErr("slotctl: reading"));
        ::unlink(fifo.c_str());  // opened by then
        // Every waiting block printed before the pipe closes: none is taken and not written.
        std::string printed;
        EXPECT_TRUE(testsupport::Eventually(
            [&] {
                char buffer[256];
                const ssize_t n = ::read(head, buffer, sizeof(buffer));
                printed.append(buffer, static_cast<size_t>(std::max<ssize_t>(n, 0)));
                return printed.size() >= 55;
            },
            std::chrono::seconds(30)));
        EXPECT_EQ("1 bytes: 0\n1 bytes: 1\n1 bytes: 2\n1 bytes: 3\n1 bytes: 4\n", printed);
        ::close(head);
        const Outcome run = reader.FinishEnding(1, std::chrono::seconds(20));
        EXPECT_EQ("slotctl: reading '" + name + "' (" + kind + ")\n", run.err);
        SlotctlEnding(0, {"write", name, "after"});
        EXPECT_EQ("5 bytes: after\n", SlotctlEnding(0, {"read", name, "--timeout", "20000"}).out);
    }
}

// A reliable reader takes blocks while it starts (for one update time, before the factory hands
// it over): a stop signal or --timeout in that time ends read only once the start is over, and
// every block the reader took is printed. What each read printed, and what a last read takes,
// is every block written, once and in order, while a writer keeps writing.
TEST(SlotctlReadWrite, AReadStoppedWhileItsReaderStartsPrintsEveryBlockItTook) {
    ScopedSlotName name("startstop");
    const std::string stopFile = testsupport::TestRunDir() + "/" + testsupport::UniqueName("stop");
    const std::string countFile = stopFile + ".count";
    std::string first;
    for (int i = 0; i < 40; ++i) {
        first += std::to_string(i) + "\n";
    }
    const std::string write =
        " write " + name.str() + " --type reliable --queue 1000 --max-size 16 --lines";
    ASSERT_EQ(0, Slotctl(slotctltest::Words(write), Options{first}).status);
    // Writes 40, 41, ... every 20 ms until the stop file exists (also when the test fails), then
    // leaves the count.
    struct StopAtEnd {
        const std::string& file;
        ~StopAtEnd() { testsupport::WriteFile(file, ""); }
    } stopAtEnd{stopFile};
    // (The count comes from the subshell of the pipeline, where the loop counts.)
    const std::string script =
        "(i=40; while [ $i -lt 900 ] && [ ! -e \"$1\" ]; do echo $i; i=$((i+1)); sleep 0.02; "
        "done; echo $i > \"$2.n\") | \"$0\"" +
        write + " 2>/dev/null && mv \"$2.n\" \"$2\"";
    ChildProcess writer([&] {
        ::execl("/bin/bash", "bash", "-c", script.c_str(), SLOTCTL_PATH, stopFile.c_str(),
                countFile.c_str(), static_cast<char*>(nullptr));
        return 98;
    });
    std::vector<std::string> out;
    auto keep = [&](const Outcome& run) {
        for (const std::string& line : slotctltest::Lines(run.out)) {
            out.push_back(line);
        }
    };
    {
        // Stopped while its reader starts: the reader holds the slot's claim for its update time
        // of 3 s before the factory returns it.
        Background read({"read", name.str(), "--count", "500", "--update-time", "3000"});
        EXPECT_TRUE(testsupport::Eventually(
            [&] { return SlotSurvey::InspectSlot(name.str()).readerPid == read.Pid(); },
            std::chrono::seconds(30)));
        ::usleep(500000);
        read.Signal(SIGINT);
        const Outcome run = read.FinishEnding(130, std::chrono::seconds(60));
        keep(run);
    }
    // A time-out shorter than the reader's start: given up with 124, the blocks taken printed.
    const Outcome timedOut =
        SlotctlEnding(124, {"read", name.str(), "--count", "500", "--timeout", "50"});
    EXPECT_THAT(timedOut.err, HasSubstr(" within 50 ms")) << timedOut.Describe();
    keep(timedOut);
    // The one block asked for came during the start: a success (unless even the slot's opening
    // outlasted the time-out on a loaded machine).
    const Outcome one = Slotctl({"read", name.str(), "--timeout", "50"});
    if (one.status != 0) {
        EXPECT_THAT(one.err, HasSubstr("not opened within 50 ms")) << one.Describe();
    }
    keep(one);

    testsupport::WriteFile(stopFile, "");
    const testsupport::ChildResult wrote = writer.Wait(std::chrono::seconds(60));
    ASSERT_TRUE(wrote.Ok()) << wrote.Describe();
    const int written = std::stoi(testsupport::ReadFile(countFile));
    ::unlink(countFile.c_str());
    ASSERT_LE(out.size(), static_cast<size_t>(written));
    const Outcome rest = SlotctlEnding(
        0, {"read", name.str(), "--count", std::to_string(written - static_cast<int>(out.size())),
            "--timeout", "20000"});
    keep(rest);
    std::vector<std::string> expected;
    for (int i = 0; i < written; ++i) {
        expected.push_back(std::to_string(std::to_string(i).size()) +
                           " bytes: " + std::to_string(i));
    }
    EXPECT_EQ(expected, out);
}

// ---- output that stops taking bytes ----

// Where slotctl waits for an output: a write it cannot cut short, or a poll for room.
const std::vector<long> OutputWaits = {SYS_write, SYS_poll, SYS_ppoll};

// A terminal that stops reading (a stalled ssh, a pty nobody drains) holds read's output; a stop
// signal still ends read with 130 (once it sat in one blocking write, deaf to SIGTERM). So it
// does on a terminal that slotctl cannot open again for a descriptor of its own, another user's
// after su, whose writes only block (run as nobody, on a terminal stopped as by Ctrl-S).
TEST(SlotctlOutput, ATerminalThatStopsReadingStillEndsAtAStopSignal) {
    ScopedSlotName name("ttyfull");
    const Outcome write = Slotctl(
        {"write", name.str(), "--type", "reliable", "--max-size", "70000", "--count", "2", "-"},
        Options{std::string(60000, 'y')});
    ASSERT_EQ(0, write.status) << write.Describe();
    slotctltest::Pty undrained;
    // Far more hex than the terminal holds: once it printed, it waits for the terminal.
    Background reader({"read", name.str(), "--follow", "--format", "hex"}, 0,
                      undrained.SlavePath());
    EXPECT_TRUE(testsupport::Eventually(
        [&] { return undrained.Waiting() > 0 && reader.BlockedIn(OutputWaits); },
        std::chrono::seconds(30)));
    reader.Signal(SIGTERM);
    reader.FinishEnding(130, std::chrono::seconds(30));

    if (::geteuid() != 0) {
        return;  // only root runs a process as another user
    }
    slotctltest::Pty stopped;
    stopped.StopOutput();
    Background top({"top", "--json", "--interval", "0.1"}, 65534, stopped.SlavePath());
    bool blocked = false;
    const Outcome run = top.StopOnceBlockedIn({SYS_write}, blocked);
    EXPECT_TRUE(blocked);
    EXPECT_EQ(130, run.status) << run.Describe();
}

// A standard error that takes nothing holds neither slotctl's own messages nor the library's
// log lines past a stop signal: a usage error ends with its status, and rm, which goes on after
// a stop, removes the slot (the lines it could not print are dropped) and ends with 130.
TEST(SlotctlOutput, AStandardErrorThatTakesNothingHoldsNoMessagePastAStopSignal) {
    ScopedSlotName name("errstall");
    ASSERT_EQ(0, Slotctl({"write", name.str(), "x"}).status);
    slotctltest::Pty stopped;
    stopped.StopOutput();
    Background usage({"read", name.str(), "--no-such-option"}, 0, "", stopped.SlavePath());
    Background remove({"-v", "rm", name.str()}, 0, "", stopped.SlavePath());
    for (Background* run : {&usage, &remove}) {
        EXPECT_TRUE(testsupport::Eventually([&] { return run->BlockedIn(OutputWaits); },
                                            std::chrono::seconds(30)));
        run->Signal(SIGTERM);
    }
    usage.FinishEnding(2, std::chrono::seconds(30));
    const Outcome removed = remove.FinishEnding(130, std::chrono::seconds(30));
    EXPECT_THAT(removed.out, HasSubstr("removed '" + name.str() + "'"));
    EXPECT_FALSE(ShmExists(name.str()));
}

// Input that a block cannot hold is refused without being held: a --length beyond the slot's
// maximum before anything is made (it once allocated that length), standard input and a line of
// it once they pass the maximum (they were once read whole, without end here).
TEST(SlotctlReadWrite, InputLargerThanABlockIsRefusedWithoutBeingHeld) {
    ScopedSlotName name("toolarge");
    ExpectOneErrorLine(Slotctl({"write", name.str(), "--length", "2147483647", "x"}), 1,
                       "slotctl: write: --length 2147483647 is larger than the slot's maximum "
                       "block size 65536\n");
    EXPECT_FALSE(ShmExists(name.str()));
    const std::string write = " | \"$0\" write " + name.str();
    const std::string status = " 2>&1; echo \"status ${PIPESTATUS[2]}\"";
    const slotctltest::ShellRun whole =
        slotctltest::InShell("yes 2>/dev/null | cat 2>/dev/null" + write + status);
    EXPECT_THAT(whole.out, HasSubstr("slotctl: standard input is larger than the slot's maximum "
                                     "block size 65536\nstatus 1\n"));
    EXPECT_THAT(whole.out, Not(HasSubstr("all stored")));
    const slotctltest::ShellRun line = slotctltest::InShell(
        "yes 2>/dev/null | tr -d \"\\n\" 2>/dev/null" + write + " --lines" + status);
    EXPECT_THAT(line.out, HasSubstr("slotctl: a line of standard input is larger than the slot's "
                                    "maximum block size 65536\nstatus 1\n"));
    // With --length a long line is cut, as before.
    SlotctlEnding(0, {"write", name.str(), "--lines", "--length", "3"},
                  Options{std::string(200000, 'z') + "\nab\n"});
    // A posix-pipe's writer grows its pipe for a block beyond --max-size: it is written (and,
    // with no reader, lost at the close).
    ScopedSlotName pipe("bigpipe");
    const Outcome piped = Slotctl({"write", pipe.str(), "--type", "posix-pipe", "-"},
                                  Options{std::string(70000, 'p')});
    ::unlink(FileUtils::NamedPipeCreator::ConstructPipeFilename(pipe).c_str());
    EXPECT_THAT(piped.err,
                HasSubstr("1 block to '" + pipe.str() + "' (posix-pipe): 70000 unread bytes lost"))
        << piped.Describe();
}

// An existing slot keeps its kind: an explicit --type of another kind is refused, in one line,
// by each command that takes one (record --tee takes the recorded slot's), and nothing is
// written to or taken from the slot.
TEST(SlotctlReadWrite, ATypeOtherThanAnExistingSlotsKindIsRefused) {
    ScopedSlotName reliable("kindrel"), discarding("kinddisc");
    ASSERT_EQ(0, Slotctl({"write", reliable.str(), "--type", "reliable", "--queue", "2", "--count",
                          "2", "a"})
                     .status);
    ASSERT_EQ(0, Slotctl({"write", discarding.str(), "x"}).status);
    const std::string path = testsupport::TestRunDir() + "/" + reliable.str() + ".mcap";
    struct Refusal {
        std::vector<std::string> args;
        std::string line;
    };
    const Refusal refusals[] = {
        {{"write", reliable.str(), "--type", "discarding", "new"},
         "write: the slot '" + reliable.str() + "' is a reliable slot, not 'discarding'"},
        {{"write", reliable.str(), "--type", "posix-pipe", "new"},
         "write: the slot '" + reliable.str() + "' is a reliable slot, not 'posix-pipe'"},
        {{"read", reliable.str(), "--type", "discarding", "--timeout", "2000"},
         "read: the slot '" + reliable.str() + "' is a reliable slot, not 'discarding'"},
        {{"write", discarding.str(), "--type", "posix-pipe", "new"},
         "write: the slot '" + discarding.str() + "' is a discarding slot, not 'posix-pipe'"},
        {{"record", "-o", path, "--tee", reliable.str(), "--count", "1", discarding.str()},
         "record: the slot '" + reliable.str() + "' is a reliable slot, not 'discarding'"},
    };
    for (const Refusal& refusal : refusals) {
        ExpectOneErrorLine(Slotctl(refusal.args), 1, "slotctl: " + refusal.line + "\n");
    }
    EXPECT_EQ(2u, SlotSurvey::InspectSlot(reliable.str()).queue.waiting);
    EXPECT_FALSE(Exists(path));

    // The same kind is used; so is "reliable" on a one-block queue, which a reliable slot made
    // with --queue 1 has too.
    ScopedSlotName one("kindone");
    EXPECT_EQ(0, Slotctl({"write", one.str(), "--type", "reliable", "--queue", "1", "a"}).status);
    const Outcome again = Slotctl({"read", one.str(), "--type", "reliable", "--timeout", "20000"});
    EXPECT_EQ("1 bytes: a\n", again.out) << again.Describe();
}

// ---- demo ----

// Fields of the summary row of `type`: TYPE SENT RECEIVED NOT-STORED word OTHER ...
std::vector<std::string> SummaryRow(const std::string& out, const std::string& type) {
    return slotctltest::Words(LineStartingWith(out, type + " "));
}

// A demo's slots: removed at the end of a test that failed before the demo could (their pipe
// and lock files go with the run's folder).
struct DemoObjects {
    const std::string prefix = testsupport::UniqueName("demo");
    ~DemoObjects() {
        for (const char* type : {"discarding", "reliable", "posix-pipe"}) {
            testsupport::RemoveSlotObjects(prefix + "-" + type);
        }
    }
    void ExpectNothingLeft() const {
        for (const char* type : {"discarding", "reliable", "posix-pipe"}) {
            const std::string name = prefix + "-" + type;
            EXPECT_FALSE(ShmExists(name)) << name;
            EXPECT_FALSE(ShmExists("queue_" + name)) << name;
            EXPECT_FALSE(Exists(FileUtils::NamedPipeCreator::ConstructPipeFilename(name))) << name;
            EXPECT_FALSE(Exists(FileUtils::FSUtils::GetSingletonFileLockName(name))) << name;
        }
    }
};

TEST(SlotctlDemo, AShortRunAccountsForEveryBlockAndLeavesNothing) {
    const DemoObjects objects;
    const std::string& prefix = objects.prefix;
    const Outcome demo = SlotctlEnding(0, {"demo", "--duration", "1.5", "--rate", "400", "--burst",
                                           "20", "--queue", "8", "--prefix", prefix});
    EXPECT_THAT(demo.out, Not(HasSubstr("\r"))) << "progress lines are plain when piped";
    for (const char* type : {"discarding", "reliable", "posix-pipe"}) {
        const std::vector<std::string> row = SummaryRow(demo.out, type);
        ASSERT_GE(row.size(), 6u) << type << "\n" << demo.out;
        const long sent = std::stol(row[1]);
        const long received = std::stol(row[2]);
        const long notStored = std::stol(row[3]);
        EXPECT_EQ(600, sent) << type;
        EXPECT_GT(received, 0) << type;
        if (std::string(type) != "discarding") {
            // Every block that was stored arrived.
            EXPECT_EQ(sent, received + notStored) << type << "\n" << demo.out;
        }
    }
    EXPECT_THAT(demo.out, AllOf(HasSubstr("every block that was stored arrived once, in order"),
                                HasSubstr("removed slot '" + prefix + "-discarding'")));
    objects.ExpectNothingLeft();
}

// Another writer's block of the demo's size, whatever its bytes, is counted apart and ignored:
// a sequence number of 2^64 - 1 once made the subscriber write outside its memory.
TEST(SlotctlDemo, AForeignBlockIsCountedApartNotTrusted) {
    const DemoObjects objects;
    const std::string& prefix = objects.prefix;
    Background demo(
        {"demo", "--duration", "4", "--rate", "100", "--burst", "1", "--prefix", prefix});
    ASSERT_TRUE(demo.WaitForOut(" received,")) << demo.Finish().Describe();

    SlotctlEnding(0, {"write", prefix + "-reliable", "-"}, Options{std::string(64, '\xff')});
    const Outcome run = demo.FinishEnding(0, std::chrono::seconds(60));
    EXPECT_THAT(run.out, HasSubstr("\nreliable: 1 block of another writer (not the demo's) "
                                   "ignored.\n"))
        << run.Describe();
    const std::vector<std::string> row = SummaryRow(run.out, "reliable");
    ASSERT_GE(row.size(), 6u) << run.out;
    EXPECT_EQ(std::stol(row[1]), std::stol(row[2]) + std::stol(row[3])) << run.out;
    objects.ExpectNothingLeft();
}

// Standard output closing (`| head`) stops it as Ctrl-C does, with the status of a closed output,
// and what it made is removed (it once ran its whole time).
TEST(SlotctlDemo, AClosedOutputStopsItAndCleansUp) {
    const DemoObjects objects;
    const slotctltest::ShellRun run =
        slotctltest::InShell("\"$0\" demo --duration 100 --prefix " + objects.prefix +
                                 " | head -2; echo \"status ${PIPESTATUS[0]}\"",
                             60);
    EXPECT_THAT(run.out, HasSubstr("slotctl demo: a publisher process writes")) << run.out;
    EXPECT_THAT(run.out, HasSubstr("\nstatus 1\n")) << run.out;
    objects.ExpectNothingLeft();
}

TEST(SlotctlDemo, AnInterruptStopsItInOrderAndCleansUp) {
    const DemoObjects objects;
    const std::string& prefix = objects.prefix;
    Background demo({"demo", "--duration", "120", "--prefix", prefix});
    // The first progress line comes once blocks flow.
    ASSERT_TRUE(demo.WaitForOut(" received,")) << demo.Finish().Describe();
    demo.Signal(SIGINT);
    const Outcome run = demo.FinishEnding(130, std::chrono::seconds(60));
    EXPECT_THAT(run.out, HasSubstr("interrupted"));
    EXPECT_FALSE(SummaryRow(run.out, "reliable").empty()) << run.out;
    objects.ExpectNothingLeft();
}

}  // namespace
