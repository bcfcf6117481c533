// SPDX-License-Identifier: Apache-2.0
// slotctl ls / info / rm --stale over locks held by live and dead processes, unfinished
// objects, and names that would garble a terminal or a JSON reader.
#include "ChildProcess.h"
#include "ShmHygiene.h"
#include "SlotctlRunner.h"

#include <Slot/BoostInterprocess/BaseQueueSlot.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/SlotFactory.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <csignal>
#include <sstream>
#include <string>

namespace {

using slotctltest::Contains;
using slotctltest::Outcome;
using slotctltest::ShmExists;
using slotctltest::Slotctl;
using testsupport::ChildProcess;
using testsupport::PipeSignal;
using testsupport::ScopedSlotName;

std::string LineStartingWith(const std::string& text, const std::string& start) {
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, start.size(), start) == 0) {
            return line;
        }
    }
    return "";
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

// Every JSON string in `text` holds only printable characters and valid escapes.
bool JsonStringsValid(const std::string& text) {
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (!inString) {
            inString = c == '"';
            continue;
        }
        if (c == '"') {
            inString = false;
        } else if (c < 0x20) {
            return false;
        } else if (c == '\\') {
            const char next = i + 1 < text.size() ? text[i + 1] : '\0';
            if (next == 'u') {
                if (i + 5 >= text.size()) {
                    return false;
                }
                i += 5;
            } else if (std::string("\"\\/bfnrt").find(next) != std::string::npos && next != 0) {
                ++i;
            } else {
                return false;
            }
        }
    }
    return !inString;
}

// A child that opens the slot, locks its header mutex and waits, so that it can be killed
// while holding it.
class HeaderHolder {
public:
    explicit HeaderHolder(const std::string& name)
        : child_([this, name] {
              ReliableSlot slot(boost::interprocess::open_or_create, name.c_str(), 64, 4);
              slot.GetLockable()->lock();
              locked_.Post();
              release_.WaitFor(std::chrono::seconds(60));
              slot.GetLockable()->unlock();
              return 0;
          }) {}

    bool WaitLocked() { return locked_.WaitFor(); }
    void Release() { release_.Post(); }
    ChildProcess& Child() { return child_; }

private:
    PipeSignal locked_;
    PipeSignal release_;
    ChildProcess child_;
};

TEST(SlotctlLocks, AHolderThatDiedIsNamedAndTheSlotRemovedAsStale) {
    ScopedSlotName name("deadheld");
    HeaderHolder holder(name);
    ASSERT_TRUE(holder.WaitLocked()) << holder.Child().Wait().Describe();
    const std::string pid = std::to_string(holder.Child().Pid());
    holder.Child().Kill(SIGKILL);
    holder.Child().Wait();

    const Outcome ls = Slotctl({"ls"});
    EXPECT_EQ(0, ls.status) << ls.Describe();
    const std::string line = LineStartingWith(ls.out, name.str() + " ");
    EXPECT_TRUE(Contains(line, " dead-holder ")) << ls.out;
    EXPECT_TRUE(Contains(line, "header mutex held by dead pid " + pid)) << ls.out;
    const Outcome json = Slotctl({"ls", "--json"});
    EXPECT_TRUE(Contains(json.out, "\"holder\": {\"lock\": \"header mutex\", \"pid\": " + pid +
                                       ", \"alive\": false}"))
        << json.out;
    const Outcome info = Slotctl({"info", name.str()});
    EXPECT_EQ(0, info.status) << info.Describe();
    EXPECT_TRUE(Contains(info.out, "state           dead-holder")) << info.out;
    EXPECT_TRUE(Contains(info.out, "header mutex held by dead pid " + pid)) << info.out;

    const Outcome young = Slotctl({"rm", "--stale", name.str()});
    EXPECT_EQ(1, young.status) << young.Describe();
    EXPECT_TRUE(ShmExists(name.str()));
    const Outcome rm = Slotctl({"rm", "--stale", "--min-age", "0", name.str()});
    EXPECT_EQ(0, rm.status) << rm.Describe();
    EXPECT_TRUE(Contains(rm.out, "removed '" + name.str() + "': header segment")) << rm.out;
    EXPECT_FALSE(ShmExists(name.str()));
    EXPECT_FALSE(ShmExists(BaseQueueSlot::GetQueueName(name)));
}

TEST(SlotctlLocks, ALiveHolderIsBusyAndNotStale) {
    ScopedSlotName name("liveheld");
    HeaderHolder holder(name);
    ASSERT_TRUE(holder.WaitLocked()) << holder.Child().Wait().Describe();
    const std::string pid = std::to_string(holder.Child().Pid());

    const Outcome ls = Slotctl({"ls"});
    const std::string line = LineStartingWith(ls.out, name.str() + " ");
    EXPECT_TRUE(Contains(line, " busy ")) << ls.out;
    EXPECT_TRUE(Contains(line, "header mutex held by pid " + pid)) << ls.out;
    const Outcome rm = Slotctl({"rm", "--stale", "--min-age", "0", name.str()});
    EXPECT_EQ(1, rm.status) << rm.Describe();
    EXPECT_TRUE(ShmExists(name.str()));

    holder.Release();
    EXPECT_TRUE(holder.Child().Wait().Ok());
    EXPECT_TRUE(Contains(LineStartingWith(Slotctl({"ls"}).out, name.str() + " "), " slot "));
}

// A creator killed right after creating the queue object leaves it at size 0.
TEST(SlotctlLocks, AnUnfinishedQueueAloneIsListedAndRemovedAsStale) {
    ScopedSlotName name("unfq");
    const std::string queue = BaseQueueSlot::GetQueueName(name);
    const int fd = ::shm_open(queue.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
    ASSERT_GE(fd, 0);
    ::fchmod(fd, 0644);
    ::close(fd);

    const Outcome ls = Slotctl({"ls"});
    EXPECT_TRUE(Contains(LineStartingWith(ls.out, name.str() + " "), " unfinished ")) << ls.out;
    EXPECT_EQ("", LineStartingWith(ls.out, queue + " ")) << "listed twice:\n" << ls.out;
    const Outcome info = Slotctl({"info", "--json", name.str()});
    EXPECT_EQ(0, info.status) << info.Describe();
    EXPECT_TRUE(Contains(info.out, "\"state\": \"unfinished\"")) << info.out;

    const Outcome rm = Slotctl({"rm", "--stale", "--min-age", "0", name.str()});
    EXPECT_EQ(0, rm.status) << rm.Describe();
    EXPECT_TRUE(Contains(rm.out, "removed '" + name.str() + "': queue")) << rm.out;
    EXPECT_FALSE(ShmExists(queue));
}

TEST(SlotctlNames, ControlCharactersAndInvalidUtf8AreEscapedEverywhere) {
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
        {"bad\xff\xfe", "bad\\xff\\xfe", "bad\\\\xff\\\\xfe"},
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
        EXPECT_TRUE(Contains(LineStartingWith(ls.out, prefix + c.shown + " "), " slot ")) << ls.out;

        const Outcome json = Slotctl({"ls", "--json"});
        EXPECT_TRUE(TerminalSafe(json.out)) << json.out;
        EXPECT_TRUE(JsonStringsValid(json.out)) << json.out;
        EXPECT_TRUE(Contains(json.out, "\"name\": \"" + prefix + c.shownJson + "\"")) << json.out;

        for (const auto& args : {std::vector<std::string>{"info", name.str()},
                                 std::vector<std::string>{"info", "--json", name.str()}}) {
            const Outcome info = Slotctl(args);
            EXPECT_EQ(0, info.status) << info.Describe();
            EXPECT_TRUE(TerminalSafe(info.out)) << info.out;
        }
        const Outcome rm = Slotctl({"rm", name.str()});
        EXPECT_EQ(0, rm.status) << rm.Describe();
        EXPECT_TRUE(TerminalSafe(rm.out)) << rm.out;
        EXPECT_TRUE(Contains(rm.out, "removed '" + prefix + c.shown + "'")) << rm.out;
        const Outcome missing = Slotctl({"info", name.str()});
        EXPECT_EQ(1, missing.status);
        EXPECT_TRUE(TerminalSafe(missing.err)) << missing.err;
        EXPECT_TRUE(Contains(missing.err, "'" + prefix + c.shown + "' is not a slot"))
            << missing.err;
    }
}

}  // namespace
