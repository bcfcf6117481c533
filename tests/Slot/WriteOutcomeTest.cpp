// SPDX-License-Identifier: Apache-2.0
// What a host learns about its writes without reading the log: the thread's last outcome and
// the per-slot counts, for each slot kind.
#include "ChildProcess.h"
#include "FakeSlot.h"
#include "LockedBlocks.h"
#include "LogCapture.h"
#include "Readers.h"
#include "ShmHygiene.h"

#include <Slot/SlotWriter.h>
#include <Slot/WriteOutcome.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Slot::WriteOutcome;
using testsupport::LogCapture;
using testsupport::ScopedSlotName;

// A slot of `length` blocks of at most `maxSize` bytes.
SlotCfg Cfg(const std::string& name, const std::string& type, unsigned int length = 2,
            size_t maxSize = 64) {
    return SlotCfg(name, type, boost::posix_time::milliseconds(10), length, maxSize);
}

// Writes `block` through `writer` and answers the outcome the calling thread sees.
WriteOutcome Write(const ISubscriberPtr& writer, const std::string& block) {
    writer->onNotify("any topic", block.data(), block.size());
    return Slot::LastWriteOutcome();
}

void ExpectCounts(const std::string& name, std::uint64_t stored, std::uint64_t discarded,
                  std::uint64_t refused, std::uint64_t failed) {
    const Slot::WriteCounts counts = Slot::GetWriteCounts(name);
    EXPECT_EQ(stored, counts.stored) << name;
    EXPECT_EQ(discarded, counts.discarded) << name;
    EXPECT_EQ(refused, counts.refused) << name;
    EXPECT_EQ(failed, counts.failed) << name;
}

// "one", "two", "three" and a block one byte too large into a 2-deep slot: a reliable slot
// refuses the third, a discarding one throws "one" and "two" away. Once a block is taken there
// is room again. Counts are kept per name. (The refusals' WARN and ERROR lines are the slot's own
// test, and slotctl's.)
TEST(WriteOutcome, EachKindTellsStoredDiscardedAndRefused) {
    const WriteOutcome S = WriteOutcome::Stored, D = WriteOutcome::Discarded,
                       R = WriteOutcome::Refused;
    struct Case {
        const char* type;
        std::vector<WriteOutcome> outcomes;
        std::uint64_t stored, discarded, refused;
        std::string taken;  // the block a read takes afterwards
    };
    for (const Case& c : {Case{"reliable", {S, S, R, R}, 2, 0, 2, "one"},
                          Case{"discarding", {S, D, D, R}, 1, 2, 1, "three"}}) {
        SCOPED_TRACE(c.type);
        ScopedSlotName name("outcome");
        const SlotCfg cfg = Cfg(name, c.type);
        ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
        const LogCapture quiet("Slot");
        const std::string blocks[] = {"one", "two", "three", std::string(65, 'x')};
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(c.outcomes[i], Write(writer, blocks[i])) << i;
        }
        ExpectCounts(name, c.stored, c.discarded, c.refused, 0);
        EXPECT_EQ(4u, Slot::GetWriteCounts(name).Total());
        EXPECT_EQ(c.refused, Slot::GetWriteCounts(name).NotStored());

        boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
        EXPECT_EQ(c.taken, testsupport::ReadDirect(*slot, 64));
        // Written directly through another slot object of the name: the same counts.
        slot->WriteData("four", 4);
        EXPECT_EQ(WriteOutcome::Stored, Slot::LastWriteOutcome());
        ExpectCounts(name, c.stored + 1, c.discarded, c.refused, 0);
        if (c.type == std::string("reliable")) {  // full again: a direct write is refused too
            slot->WriteData("five", 4);
            EXPECT_EQ(WriteOutcome::Refused, Slot::LastWriteOutcome());
            ExpectCounts(name, c.stored + 1, c.discarded, c.refused + 1, 0);
        }
    }
    ExpectCounts(testsupport::UniqueName("never_written"), 0, 0, 0, 0);
}

// A write that throws through SlotWriter is a failure, recorded after the lock is released:
// nothing but the write (and its TRACE line) asks the slot anything while the lock is held, and
// the exception still comes through with the lock released and no notification.
TEST(WriteOutcome, AThrowingWriteIsRecordedOutsideTheLock) {
    const std::string name = testsupport::UniqueName("outcome_unlocked");
    testsupport::FakeSlot slot(name);
    slot.writeThrows = [] { throw std::runtime_error("broken"); };
    SlotWriter writer{boost::shared_ptr<IBaseSlot>(&slot, [](IBaseSlot*) {})};
    EXPECT_THROW(writer.onNotify("", "x", 1), std::runtime_error);
    EXPECT_EQ(0, slot.namesWhileLocked.load());
    EXPECT_FALSE(slot.lock().held.load());
    EXPECT_TRUE(slot.lock().mutex.try_lock());
    slot.lock().mutex.unlock();
    EXPECT_EQ(0, slot.event().notifies.load());
    EXPECT_EQ(WriteOutcome::Failed, Slot::LastWriteOutcome());
    ExpectCounts(name, 0, 0, 0, 1);
}

TEST(WriteOutcome, LastOutcomeBelongsToTheWritingThreadAndCountsAddUpAcrossThreads) {
    ScopedSlotName name("outcome_threads");
    const unsigned int capacity = 8;
    const SlotCfg cfg = Cfg(name, "reliable", capacity);
    ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
    ASSERT_EQ(WriteOutcome::Stored, Write(writer, "main"));

    // Four threads write 10 blocks each into the 7 places left: every write is counted once,
    // exactly 7 are stored, and each thread's last outcome is its own.
    const int threads = 4;
    const int perThread = 10;
    std::vector<WriteOutcome> firstSeen(threads, WriteOutcome::None);
    std::vector<WriteOutcome> lastSeen(threads, WriteOutcome::None);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            firstSeen[t] = Slot::LastWriteOutcome();
            for (int i = 0; i < perThread; ++i) {
                Write(writer, "block");
            }
            lastSeen[t] = Slot::LastWriteOutcome();
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(WriteOutcome::None, firstSeen[t]) << "thread " << t;
        EXPECT_EQ(WriteOutcome::Refused, lastSeen[t]) << "thread " << t;  // the queue is full
    }
    // The main thread's own last write was stored, whatever the others met since.
    EXPECT_EQ(WriteOutcome::Stored, Slot::LastWriteOutcome());
    ExpectCounts(name, capacity, 0, threads * perThread - (capacity - 1), 0);
}

// Children forked while another thread reads the counts find the registry usable (not locked
// for good by that thread) and count only their own writes, from zero.
TEST(WriteOutcome, AForkedChildNeverWaitsForTheRegistryAndCountsOnlyItsOwnWrites) {
    SKIP_FORK_AMID_THREADS_UNDER_ASAN();
    ScopedSlotName name("outcome_fork");
    shared::WriteCounters* counters = shared::WriteCountersFor(name);
    shared::RecordWriteOutcome(counters, shared::WriteOutcome::Stored);
    const testsupport::ForkRounds rounds = testsupport::ForkWhileAnotherThreadRuns(
        [&] { Slot::GetWriteCounts(name); },
        [&] {
            const std::uint64_t inherited = Slot::GetWriteCounts(name).Total();
            // The pointer looked up before the fork still counts, now for the child.
            shared::RecordWriteOutcome(counters, shared::WriteOutcome::Refused);
            const Slot::WriteCounts counts = Slot::GetWriteCounts(name);
            return inherited == 0 && counts.refused == 1 && counts.Total() == 1 ? 0 : 2;
        });
    EXPECT_EQ(0, rounds.hung) << "a child found the registry locked for good";
    EXPECT_EQ(0, rounds.wrong) << "children counted other writes than their own";
    ExpectCounts(name, 1, 0, 0, 0);
}

TEST(WriteOutcome, PosixPipeWriterReportsBlocksDroppedOnAFullPipe) {
    ScopedSlotName name("outcome_pipe");
    const SlotCfg cfg = Cfg(name, "posix-pipe", 1, 4096);
    const testsupport::ScopedPipe fifo(name);
    ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
    LogCapture quiet("Slot.Writer", log4cxx::Level::getOff());
    // Nobody reads: the pipe takes blocks until it is full (64 KiB on Linux, at most 1 MiB when
    // raised); the first block that does not fit is dropped after the writer's wait.
    const std::string block(4096, 'p');
    int stored = 0;
    WriteOutcome outcome = WriteOutcome::None;
    while ((outcome = Write(writer, block)) == WriteOutcome::Stored && stored < 1024) {
        ++stored;
    }
    EXPECT_EQ(WriteOutcome::Refused, outcome);
    EXPECT_GT(stored, 0);
    // A block of 0 bytes has nothing to carry: stored, also into a full pipe.
    EXPECT_EQ(WriteOutcome::Stored, Write(writer, ""));
    ExpectCounts(name, static_cast<std::uint64_t>(stored) + 1, 0, 1, 0);
    EXPECT_EQ("refused", std::string(Slot::ToString(outcome)));
}

}  // namespace
