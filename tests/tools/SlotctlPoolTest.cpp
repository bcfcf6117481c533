// SPDX-License-Identifier: Apache-2.0
// slotctl with zero-copy pools: ls/info of both kinds (a dead holder, a damaged file, names that
// need escaping), write/read through pools, a name that is both a slot and a pool, hz and rm.
#include "../Slot/PoolTestSupport.h"
#include "ChildProcess.h"
#include "ShmHygiene.h"
#include "SlotctlRunner.h"

#include <Slot/PoolFactory.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotNames.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>
#include <csignal>
#include <fstream>
#include <string>

namespace {

using pooltest::ScopedPool;
using slotctltest::Background;
using slotctltest::Contains;
using slotctltest::Exists;
using slotctltest::LineStartingWith;
using slotctltest::Outcome;
using slotctltest::Slotctl;
using testsupport::ChildProcess;
using testsupport::PipeSignal;

// The entry of `name` in `ls --json`'s array; null when it is not listed.
nlohmann::json Entry(const std::string& name) {
    const Outcome ls = Slotctl({"ls", "--json"});
    EXPECT_EQ(0, ls.status) << ls.Describe();
    for (const nlohmann::json& entry : nlohmann::json::parse(ls.out)) {
        if (entry["name"] == name) {
            return entry;
        }
    }
    return nullptr;
}

// A queue pool whose writer died with one block published and one loaned, a latest pool that
// nobody uses, and a file that is no pool: each in ls and info, text and JSON. Nothing that ls
// or info does reclaims the dead writer's block.
TEST(SlotctlPools, ListedAndInspectedWithDeadHoldersAndDamage) {
    ScopedPool queue("pq"), latest("esc\x1b[1m"), damaged("pd");
    PipeSignal ready;
    ChildProcess writer([&] {
        auto w = Slot::PoolFactory::CreatePoolWriter(queue.Config("queue", 1024, 4));
        Slot::PoolLoan published = w->loan(3);
        if (!published || published.publish(3) != Slot::WriteOutcome::Stored) {
            return 1;
        }
        Slot::PoolLoan kept = w->loan(10);
        ready.Post();
        for (;;) {
            ::pause();
        }
    });
    ASSERT_TRUE(ready.WaitFor()) << writer.Wait().Describe();
    writer.Kill(SIGKILL);
    writer.Wait();
    const pid_t dead = writer.Pid();
    Slot::PoolFactory::CreatePoolWriter(latest.Config("latest", 256, 2));
    { std::ofstream(Slot::PoolPath(damaged.str())) << "not a pool"; }

    const nlohmann::json q = Entry(queue.str());
    ASSERT_FALSE(q.is_null());
    EXPECT_EQ(true, q["pool"]);
    EXPECT_EQ("healthy", q["state"]);
    EXPECT_EQ("queue", q["kind"]);
    EXPECT_EQ(1024, q["block_size"]);
    EXPECT_EQ(4, q["block_count"]);
    EXPECT_EQ(2, q["free"]);
    EXPECT_EQ(1, q["loaned"]);
    EXPECT_EQ(1, q["waiting"]);
    EXPECT_EQ(0, q["held"]);
    EXPECT_EQ(
        nlohmann::json::parse(R"([{"pid": )" + std::to_string(dead) + R"(, "alive": false}])"),
        q["holders"]);
    EXPECT_TRUE(q["reader"].is_null());
    const nlohmann::json l = Entry(latest.str());
    EXPECT_EQ("latest", l["kind"]);
    EXPECT_EQ(2, l["free"]);
    const nlohmann::json d = Entry(damaged.str());
    EXPECT_EQ("damaged", d["state"]);
    EXPECT_TRUE(d["detail"].is_string());
    EXPECT_TRUE(d["kind"].is_null());

    const Outcome ls = Slotctl({"ls"});
    const std::string row = LineStartingWith(ls.out, queue.str() + " ");
    EXPECT_TRUE(Contains(row, " queue ") && Contains(row, "dead pid " + std::to_string(dead)))
        << ls.out;
    EXPECT_TRUE(Contains(LineStartingWith(ls.out, damaged.str() + " "), " damaged ")) << ls.out;
    const std::string escaped = latest.str().substr(0, latest.str().size() - 7) + "esc\\x1b[1m";
    EXPECT_TRUE(Contains(LineStartingWith(ls.out, escaped + " "), " latest ")) << ls.out;
    EXPECT_FALSE(Contains(ls.out + Slotctl({"info", latest.str()}).out, "\x1b")) << ls.out;

    const Outcome info = Slotctl({"info", "--json", queue.str()});
    ASSERT_EQ(0, info.status) << info.Describe();
    const nlohmann::json document = nlohmann::json::parse(info.out);
    EXPECT_EQ(Slot::PoolPath(queue.str()), document["file"]);
    EXPECT_EQ(q["holders"], document["holders"]);
    const Outcome text = Slotctl({"info", queue.str()});
    EXPECT_TRUE(Contains(text.out, "pool '" + queue.str() + "'")) << text.out;
    EXPECT_TRUE(Contains(text.out, "dead pid " + std::to_string(dead))) << text.out;
    EXPECT_EQ(1, Slotctl({"info", damaged.str() + "x"}).status);
}

// Both kinds carry blocks from write to read: a queue keeps what was written before its reader
// came, a latest pool delivers to a reader that waits; a queue's second reader is refused,
// naming the first.
TEST(SlotctlPools, WriteAndReadThroughBothKinds) {
    ScopedPool queue("rq"), latest("rl");
    const Outcome write = Slotctl({"write", queue.str(), "--type", "queue", "--max-size", "64",
                                   "--queue", "4", "--lines", "one\ntwo\n"});
    ASSERT_EQ(0, write.status) << write.Describe();
    EXPECT_TRUE(Contains(write.err, "2 blocks to '" + queue.str() + "' (queue pool): all stored"))
        << write.err;
    Background reader({"read", queue.str(), "--follow"});
    ASSERT_TRUE(reader.WaitForOut("3 bytes: one\n3 bytes: two\n"));
    const Outcome second = Slotctl({"read", queue.str(), "--timeout", "2000"});
    EXPECT_EQ(1, second.status) << second.Describe();
    EXPECT_TRUE(Contains(second.err, "(its reader is pid " + std::to_string(reader.Pid()) + ")"))
        << second.err;
    reader.Signal(SIGINT);
    EXPECT_EQ(130, reader.Finish().status);

    Background waiting({"read", latest.str(), "--type", "latest", "--timeout", "30000"});
    ASSERT_TRUE(waiting.WaitForErr("reading '" + latest.str() + "' (latest pool)"));
    EXPECT_EQ(0, Slotctl({"write", latest.str(), "fresh"}).status);
    const Outcome got = waiting.Finish();
    EXPECT_EQ(0, got.status) << got.Describe();
    EXPECT_EQ("5 bytes: fresh\n", got.out);
}

// A name that is a slot and a pool is refused until --slot or --pool chooses; rm removes only
// the chosen one, refuses a pool in use unless forced, and hz counts a pool's publishes.
TEST(SlotctlPools, AmbiguousNamesRemovalAndRate) {
    ScopedPool both("both"), pool("hz");
    struct SlotRemover {
        std::string name;
        ~SlotRemover() { testsupport::RemoveSlotObjects(name); }
    } slotRemover{both.str()};
    {
        SimpleSlotCfg cfg(both.str(), "discarding", boost::posix_time::milliseconds(50), 1);
        SlotFactory::CreateSlot(&cfg);
    }
    Slot::PoolFactory::CreatePoolWriter(Slot::PoolConfig{both.str(), "latest", 64, 2});
    const Outcome ambiguous = Slotctl({"read", both.str()});
    EXPECT_EQ(2, ambiguous.status) << ambiguous.Describe();
    EXPECT_TRUE(
        Contains(ambiguous.err, "is both a slot and a pool: say which with --slot or --pool"))
        << ambiguous.err;
    EXPECT_TRUE(Contains(Slotctl({"info", "--pool", both.str()}).out, "pool '"));
    const Outcome rmPool = Slotctl({"rm", "--pool", both.str()});
    EXPECT_EQ(0, rmPool.status) << rmPool.Describe();
    EXPECT_FALSE(Exists(Slot::PoolPath(both.str())));
    EXPECT_EQ(0, Slotctl({"info", both.str()}).status);  // the slot alone, unambiguous again

    // Four blocks: the reader holds at most one and the latest is one, so no publish is refused.
    Slot::PoolFactory::CreatePoolWriter(pool.Config("latest", 64, 4));
    Background counted({"hz", pool.str(), "--window", "0.2"});
    ASSERT_TRUE(counted.WaitForErr("counting writes"));
    Background user({"read", pool.str(), "--follow"});
    ASSERT_TRUE(user.WaitForErr("reading"));
    EXPECT_EQ(0, Slotctl({"write", pool.str(), "--count", "5", "x"}).status);
    const Outcome refused = Slotctl({"rm", pool.str()});
    EXPECT_EQ(1, refused.status);
    EXPECT_TRUE(Contains(refused.err, "in use by pid " + std::to_string(user.Pid())))
        << refused.err;
    counted.Signal(SIGINT);
    const Outcome rate = counted.Finish();
    EXPECT_EQ(130, rate.status) << rate.Describe();
    EXPECT_TRUE(Contains(rate.err, "5 writes to '" + pool.str() + "'")) << rate.err;
    EXPECT_EQ(0, Slotctl({"rm", "--force", pool.str()}).status);
    EXPECT_FALSE(Exists(Slot::PoolPath(pool.str())));
    EXPECT_TRUE(pooltest::LeftoverPools().empty());
}

}  // namespace
