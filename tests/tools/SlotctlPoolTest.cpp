// SPDX-License-Identifier: Apache-2.0
// slotctl with zero-copy pools: ls/info of both kinds (a dead holder, a damaged file, names that
// need escaping), write/read through pools, a name that is both a slot and a pool, hz and rm;
// record, replay and top.
#include "../Slot/PoolTestSupport.h"
#include "ChildProcess.h"
#include "ChildRequire.h"
#include "Eventually.h"
#include "McapRecording.h"
#include "ShmHygiene.h"
#include "SlotctlRunner.h"

#include <Slot/PoolFactory.h>
#include <Slot/PoolSegment.h>
#include <Slot/PoolSurvey.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotNames.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

namespace {

using pooltest::ScopedPool;
using slotctltest::Background;
using slotctltest::Contains;
using slotctltest::Exists;
using slotctltest::LineStartingWith;
using slotctltest::Outcome;
using slotctltest::ReadRecording;
using slotctltest::Recording;
using slotctltest::RecordingPath;
using slotctltest::Slotctl;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::Pair;
using testsupport::ChildProcess;
using testsupport::Eventually;
using testsupport::PipeSignal;
using testsupport::ScopedSlotName;

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

// Removes the slot and the pool of a name, whichever exist, also when a test fails.
struct RemovesBoth {
    std::string name;
    ~RemovesBoth() {
        Slot::PoolFactory::RemovePool(name);
        testsupport::RemoveSlotObjects(name);
    }
};

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
        pooltest::SleepUntilKilled();
    });
    ASSERT_TRUE(ready.WaitFor()) << writer.Wait().Describe();
    writer.Kill(SIGKILL);
    writer.Wait();
    const pid_t dead = writer.Pid();
    Slot::PoolFactory::CreatePoolWriter(latest.Config("latest", 256, 2));
    { std::ofstream(Slot::PoolPath(damaged.str())) << "not a pool"; }

    const nlohmann::json q = Entry(queue.str());
    ASSERT_FALSE(q.is_null());
    const nlohmann::json expected = nlohmann::json::parse(
        R"({"pool": true, "state": "healthy", "kind": "queue", "block_size": 1024,
            "block_count": 4, "free": 2, "loaned": 1, "waiting": 1, "held": 0, "reader": null,
            "holders": [{"pid": )" +
        std::to_string(dead) + R"(, "alive": false}]})");
    for (const auto& field : expected.items()) {
        EXPECT_EQ(field.value(), q.at(field.key())) << field.key();
    }
    const nlohmann::json l = Entry(latest.str());
    EXPECT_EQ("latest", l["kind"]);
    EXPECT_EQ(2, l["free"]);
    const nlohmann::json d = Entry(damaged.str());
    EXPECT_EQ("damaged", d["state"]);
    EXPECT_TRUE(d["detail"].is_string());
    EXPECT_TRUE(d["kind"].is_null());

    const Outcome ls = Slotctl({"ls"});
    const std::string row = LineStartingWith(ls.out, queue.str() + " ");
    EXPECT_THAT(row, AllOf(HasSubstr(" queue "), HasSubstr("dead pid " + std::to_string(dead))));
    EXPECT_THAT(LineStartingWith(ls.out, damaged.str() + " "), HasSubstr(" damaged "));
    const std::string escaped = latest.str().substr(0, latest.str().size() - 7) + "esc\\x1b[1m";
    EXPECT_THAT(LineStartingWith(ls.out, escaped + " "), HasSubstr(" latest "));
    EXPECT_THAT(ls.out + Slotctl({"info", latest.str()}).out, Not(HasSubstr("\x1b")));

    const Outcome info = Slotctl({"info", "--json", queue.str()});
    ASSERT_EQ(0, info.status) << info.Describe();
    const nlohmann::json document = nlohmann::json::parse(info.out);
    EXPECT_EQ(Slot::PoolPath(queue.str()), document["file"]);
    EXPECT_EQ(q["holders"], document["holders"]);
    const Outcome text = Slotctl({"info", queue.str()});
    EXPECT_THAT(text.out, AllOf(HasSubstr("pool '" + queue.str() + "'"),
                                HasSubstr("dead pid " + std::to_string(dead))));
    EXPECT_EQ(1, Slotctl({"info", damaged.str() + "x"}).status);
}

// A live holder whose entry names another pid namespace (its pid means nothing here) is counted
// as such, alive by its lock, and never printed as a pid.
TEST(SlotctlPools, HoldersOfOtherPidNamespacesAreCountedNotListed) {
    ScopedPool pool;
    auto writer = Slot::PoolFactory::CreatePoolWriter(pool.Config("queue", 64, 2));  // entry 0
    Slot::PoolLoan loan = writer->loan(8);
    ASSERT_TRUE(loan);
    pooltest::MoveToOtherPidNamespace(pool.str(), 0);

    const std::string pid = "pid " + std::to_string(::getpid());
    const Outcome info = Slotctl({"info", pool.str()});
    ASSERT_EQ(0, info.status) << info.Describe();
    EXPECT_THAT(LineStartingWith(info.out, "  holders"), HasSubstr("1 in another pid namespace"));
    EXPECT_THAT(LineStartingWith(info.out, "  attached"), HasSubstr("1 in another pid namespace"));
    EXPECT_THAT(info.out, Not(HasSubstr(pid)));
    EXPECT_THAT(LineStartingWith(Slotctl({"ls"}).out, pool.str() + " "),
                AllOf(HasSubstr("1 in another pid namespace"), Not(HasSubstr(pid))));
    const nlohmann::json others = Entry(pool.str())["other_pid_namespaces"];
    EXPECT_EQ(nlohmann::json::parse(R"({"attached": 1, "dead": 0, "holders": 1, "reader": false})"),
              others);

    writer.reset();  // the loan keeps the entry, and its lock, until it ends
    loan = Slot::PoolLoan();
    EXPECT_EQ(0, Entry(pool.str())["other_pid_namespaces"]["attached"]);
}

// Both kinds carry blocks from write to read: a queue keeps what was written before its reader
// came, a latest pool delivers to a reader that waits; a queue's second reader is refused,
// naming the first.
// rm --stale leaves the pools of a pools' folder another user made: they are reported damaged
// (nobody here can use them) but are not this user's to remove; rm and write of one say why,
// and whose the removal is. On a /dev/shm of its own.
TEST(SlotctlPools, RmStaleLeavesPoolsOfARefusedFolder) {
    ScopedPool pool("refused");
    auto setupError = testsupport::SharedWithChildren<std::atomic<int>>();
    const testsupport::ChildResult result = testsupport::RunInChild([&] {
        *setupError = pooltest::PrivateShm();
        if (*setupError == 0) {
            Slot::PoolFactory::CreatePoolWriter(pool.Config("latest", 64, 2));
            *setupError = pooltest::GivePoolFolderAway();
        }
        if (*setupError != 0) {
            return 0;
        }
        const Outcome rm = Slotctl({"rm", "--stale"});
        testsupport::Require(rm.status == 0 && Exists(Slot::PoolPath(pool.str())), 2,
                             rm.Describe());
        const std::string refusal = "Unsafe folder '" + Slot::PoolDirectory() + "': ";
        const Outcome named = Slotctl({"rm", "--pool", pool.str()});
        testsupport::Require(
            named.status == 1 && named.err.rfind("slotctl: could not remove " +
                                                     Slot::PoolPath(pool.str()) + ": " + refusal,
                                                 0) == 0,
            3, named.Describe());
        const Outcome write = Slotctl({"write", "--pool", pool.str(), "x"});
        testsupport::Require(
            write.status == 1 && Contains(write.err,
                                          "; the folder's owner or root must remove "
                                          "the folder\n"),
            4, write.Describe());
        return 0;
    });
    ASSERT_TRUE(result.Ok()) << result.Describe();
    if (*setupError != 0) {
        GTEST_SKIP() << "a /dev/shm of its own cannot be made here: " << std::strerror(*setupError);
    }
}

TEST(SlotctlPools, WriteAndReadThroughBothKinds) {
    ScopedPool queue("rq"), latest("rl");
    const Outcome write = Slotctl({"write", queue.str(), "--type", "queue", "--max-size", "64",
                                   "--queue", "4", "--lines", "one\ntwo\n"});
    ASSERT_EQ(0, write.status) << write.Describe();
    EXPECT_THAT(write.err, HasSubstr("2 blocks to '" + queue.str() + "' (queue pool): all stored"));
    Background reader({"read", queue.str(), "--follow"});
    ASSERT_TRUE(reader.WaitForOut("3 bytes: one\n3 bytes: two\n"));
    const Outcome second = Slotctl({"read", queue.str(), "--timeout", "2000"});
    EXPECT_EQ(1, second.status) << second.Describe();
    EXPECT_THAT(second.err, HasSubstr("(its reader is pid " + std::to_string(reader.Pid()) + ")"));
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
    const RemovesBoth slotRemover{both.str()};
    {
        SimpleSlotCfg cfg(both.str(), "discarding", boost::posix_time::milliseconds(50), 1);
        SlotFactory::CreateSlot(&cfg);
    }
    Slot::PoolFactory::CreatePoolWriter(Slot::PoolConfig{both.str(), "latest", 64, 2});
    const Outcome ambiguous = Slotctl({"read", both.str()});
    EXPECT_EQ(2, ambiguous.status) << ambiguous.Describe();
    EXPECT_THAT(ambiguous.err,
                HasSubstr("is both a slot and a pool: say which with --slot or --pool"));
    EXPECT_THAT(Slotctl({"info", "--pool", both.str()}).out, HasSubstr("pool '"));
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
    EXPECT_THAT(refused.err, HasSubstr("in use by pid " + std::to_string(user.Pid())));
    counted.Signal(SIGINT);
    const Outcome rate = counted.Finish();
    EXPECT_EQ(130, rate.status) << rate.Describe();
    EXPECT_THAT(rate.err, HasSubstr("5 writes to '" + pool.str() + "'"));
    EXPECT_EQ(0, Slotctl({"rm", "--force", pool.str()}).status);
    EXPECT_FALSE(Exists(Slot::PoolPath(pool.str())));
    EXPECT_TRUE(pooltest::LeftoverPools().empty());
}

// write never makes a pool under a slot's name nor a slot under a pool's (the name would be
// both), and says why a pool refused a block, as the library says it for a slot; peek, for
// slots only, names a pool as one.
TEST(SlotctlPools, WriteAndPeekKeepSlotAndPoolNamesApartAndWriteSaysWhyAPoolRefused) {
    ScopedSlotName slot("onlyslot");
    ScopedPool pool("onlypool"), small("small");
    const RemovesBoth poolOfSlot{slot.str()}, slotOfPool{pool.str()};
    ASSERT_EQ(0, Slotctl({"write", slot.str(), "x"}).status);
    const Outcome asPool = Slotctl({"write", "--type", "latest", slot.str(), "y"});
    EXPECT_EQ(1, asPool.status) << asPool.Describe();
    EXPECT_EQ("slotctl: write: '" + slot.str() +
                  "' is a slot, not a pool (a pool of that name would make it both)\n",
              asPool.err);
    EXPECT_FALSE(Exists(Slot::PoolPath(slot.str())));
    Slot::PoolFactory::CreatePoolWriter(pool.Config("latest", 64, 2));
    const Outcome asSlot = Slotctl({"write", "--slot", pool.str(), "y"});
    EXPECT_EQ(1, asSlot.status) << asSlot.Describe();
    EXPECT_EQ("slotctl: write: '" + pool.str() +
                  "' is a pool, not a slot (a slot of that name would make it both)\n",
              asSlot.err);
    EXPECT_FALSE(slotctltest::ShmExists(pool.str()));
    const Outcome peek = Slotctl({"peek", pool.str()});
    EXPECT_EQ(1, peek.status) << peek.Describe();
    EXPECT_EQ("slotctl: peek: '" + pool.str() +
                  "' is a pool: it has no output buffer to show (read takes its blocks)\n",
              peek.err);

    const Outcome refused = Slotctl({"write", small.str(), "--type", "queue", "--max-size", "4",
                                     "--queue", "1", "--lines", "abc\nd\n0123456789"});
    EXPECT_EQ(1, refused.status) << refused.Describe();
    const std::string quoted = "'" + small.str() + "'";
    EXPECT_EQ("slotctl: the pool " + quoted +
                  " refused a block of 1 byte: no block is free, or its queue is full\n"
                  "slotctl: the pool " +
                  quoted +
                  " refused a block of 10 bytes: larger than its blocks (4 bytes)\n"
                  "slotctl: 3 blocks to " +
                  quoted + " (queue pool): 2 refused, dropped or failed (see above)\n",
              refused.err);
}

// ---- record, replay and top ----

// Publishes `block` through a loan, retrying (bounded) while the pool refuses it.
void Publish(Slot::PoolWriter& writer, const std::string& block) {
    Slot::WriteOutcome outcome = Slot::WriteOutcome::Refused;
    const auto published = [&] {
        Slot::PoolLoan loan = writer.loan(block.size());
        if (loan) {
            std::memcpy(loan.data(), block.data(), block.size());
            outcome = loan.publish(block.size());
        }
        return outcome != Slot::WriteOutcome::Refused;
    };
    ASSERT_TRUE(Eventually(published, std::chrono::seconds(30), std::chrono::milliseconds(1)))
        << "the pool stayed full";
    ASSERT_TRUE(outcome == Slot::WriteOutcome::Stored || outcome == Slot::WriteOutcome::Discarded);
}

// A queue pool filled by a writer that it refuses while full, recorded; the recording replayed
// into a new pool, which replay makes with the recorded geometry, and recorded again: every block
// in order with its bytes and its sequence, both times, and the refusals counted. While a
// recorder reads, it is the pool's one reader: a second one is refused, and top names it.
TEST(SlotctlPoolRecord, AQueuePoolRoundTripsThroughARecording) {
    ScopedPool source("recq"), fresh("recf");
    const std::string first = RecordingPath("q"), second = RecordingPath("f");
    const auto writer = Slot::PoolFactory::CreatePoolWriter(source.Config("queue", 256, 8));
    std::vector<std::string> blocks;
    std::vector<std::uint32_t> sequences(20);
    std::iota(sequences.begin(), sequences.end(), 1);
    for (std::uint32_t i = 0; i < 20; ++i) {
        blocks.emplace_back(i * 13 % 257, '\0');
        std::iota(blocks.back().begin(), blocks.back().end(), static_cast<char>(i));
    }
    Background recorder({"record", "-o", first, "--count", "20", source.str()});
    ASSERT_TRUE(recorder.WaitForErr("recording '" + source.str() + "' (queue pool)"));
    const Outcome refused = Slotctl({"record", "-o", RecordingPath("no"), source.str()});
    EXPECT_EQ(1, refused.status);
    EXPECT_EQ("slotctl: cannot record '" + source.str() +
                  "': the queue pool already has a reader (pid " + std::to_string(recorder.Pid()) +
                  "); a queue pool has one reader, so stop it and let the recorder pass the "
                  "blocks on with --tee OTHER\n",
              refused.err);
    const std::string row =
        LineStartingWith(Slotctl({"top", "--once", "--interval", "0.1"}).out, source.str() + " ");
    EXPECT_THAT(row, AllOf(HasSubstr(" queue "), HasSubstr(" healthy "),
                           HasSubstr(" " + std::to_string(recorder.Pid()) + " ")))
        << row;
    for (const std::string& block : blocks) {
        Publish(*writer, block);
    }
    const Outcome recorded = recorder.Finish();
    ASSERT_EQ(0, recorded.status) << recorded.Describe();
    EXPECT_THAT(recorded.err, HasSubstr("recorded '" + source.str() + "' (queue pool): 20 blocks"));
    const Recording one = ReadRecording(first);
    ASSERT_TRUE(one.result.complete) << one.result.problem;
    EXPECT_EQ(blocks, one.blocks);
    EXPECT_EQ(sequences, one.sequences);
    ASSERT_EQ(1u, one.result.channels.size());
    EXPECT_THAT(one.result.channels[0].metadata,
                IsSupersetOf({Pair("object", "pool"), Pair("kind", "queue"),
                              Pair("max_block_size", "256"), Pair("block_count", "8")}));

    Background replay({"replay", "--max", "--map", source.str() + "=" + fresh.str(), first});
    // Full before anyone reads it: the replay's next publishes are refused and retried.
    ASSERT_TRUE(Eventually([&] { return Slot::SurveyPool(fresh.str()).waitingBlocks == 8; },
                           std::chrono::seconds(30)));
    const Slot::PoolReport made = Slot::SurveyPool(fresh.str());
    EXPECT_EQ("queue", made.kind);
    EXPECT_EQ(256u, made.maxBlockSize);
    EXPECT_EQ(8u, made.blockCount);
    Background again({"record", "-o", second, "--count", "20", fresh.str()});
    const Outcome replayed = replay.Finish();
    EXPECT_EQ(0, replayed.status) << replayed.Describe();
    EXPECT_THAT(replayed.err,
                AllOf(HasSubstr("replayed 20 blocks into '" + fresh.str() + "' (queue pool), "),
                      HasSubstr(" refused writes retried\n")));
    ASSERT_EQ(0, again.Finish().status);
    const Recording two = ReadRecording(second);
    EXPECT_EQ(blocks, two.blocks);
    EXPECT_EQ(sequences, two.sequences);
}

// A latest pool's recorder that cannot look (stopped) while three states pass records only the
// last of them: the two it missed are gaps, in the file, the summary and info.
TEST(SlotctlPoolRecord, ALatestPoolsMissedStatesAreGaps) {
    ScopedPool latest("recl");
    const std::string path = RecordingPath("l");
    const auto writer = Slot::PoolFactory::CreatePoolWriter(latest.Config("latest", 64, 4));
    Background recorder({"record", "-o", path, "--count", "2", latest.str()});
    ASSERT_TRUE(recorder.WaitForErr("recording '" + latest.str() + "' (latest pool)"));
    Publish(*writer, "first");
    ASSERT_TRUE(Eventually([&] { return ReadRecording(path).blocks.size() == 1; },
                           std::chrono::seconds(30)));
    recorder.Signal(SIGSTOP);
    // The stop reaches every thread a little after kill() returns: wait until it has.
    int status = 0;
    ASSERT_EQ(recorder.Pid(), ::waitpid(recorder.Pid(), &status, WUNTRACED));
    ASSERT_TRUE(WIFSTOPPED(status));
    for (const char* state : {"second", "third", "fourth"}) {
        Publish(*writer, state);
    }
    recorder.Signal(SIGCONT);
    const Outcome recorded = recorder.Finish();
    ASSERT_EQ(0, recorded.status) << recorded.Describe();
    EXPECT_THAT(recorded.err, AllOf(HasSubstr("recorded '" + latest.str() +
                                              "' (latest pool): 2 blocks, 11 B, 2 gaps\n"),
                                    HasSubstr("; did not keep up")));
    const Recording file = ReadRecording(path);
    EXPECT_EQ((std::vector<std::string>{"first", "fourth"}), file.blocks);
    EXPECT_EQ((std::vector<std::uint32_t>{1, 4}), file.sequences);
    const Outcome info = Slotctl({"info", path});
    EXPECT_THAT(info.out, AllOf(HasSubstr("(latest pool, max block 64, blocks 4, host "),
                                HasSubstr("2 blocks, 11 B, 2 gaps")));
}

}  // namespace
