// SPDX-License-Identifier: Apache-2.0
// What readers deliver: every kind of slot with both reader flavours across processes, what
// each kind promises (every block in order, the latest fresh state once, the bytes of a stream),
// and the reader thread's hand-over on a fake slot.
#include "ChildProcess.h"
#include "Collector.h"
#include "Eventually.h"
#include "FakeSlot.h"
#include "LogCapture.h"
#include "Readers.h"
#include "ShmHygiene.h"

#include <Slot/BoostInterprocess/DiscardingSlot.h>
#include <Slot/BoostInterprocess/DiscardingSlotReader.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/ReliableSlotReader.h>
#include <Slot/SlotWriter.h>
#include <Slot/WriteOutcome.h>

#include <gtest/gtest.h>
#include <boost/interprocess/sync/scoped_lock.hpp>

#include <sched.h>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

namespace pt = boost::posix_time;
using testsupport::ChildProcess;
using testsupport::Collector;
using testsupport::FakeSlot;
using testsupport::Flavour;
using testsupport::LogCapture;
using testsupport::PipeSignal;
using testsupport::ReaderCfg;
using testsupport::ScopedSlotName;

// Block `seq` of writer `id`: both numbers, then 1 to 300 bytes that depend on them.
std::string Block(std::uint32_t id, std::uint32_t seq) {
    std::string block(8 + 1 + (seq * 37 + id * 11) % 300, '\0');
    std::memcpy(&block[0], &id, 4);
    std::memcpy(&block[4], &seq, 4);
    for (size_t k = 8; k < block.size(); ++k) {
        block[k] = static_cast<char>(seq * 31 + id * 7 + k);
    }
    return block;
}

// The writer and sequence numbers of a block; false when it is too short to hold them.
bool Numbers(const std::string& block, std::uint32_t& id, std::uint32_t& seq) {
    if (block.size() < 8) {
        return false;
    }
    std::memcpy(&id, &block[0], 4);
    std::memcpy(&seq, &block[4], 4);
    return true;
}

using KindAndFlavour = std::tuple<std::string, Flavour>;

class ReaderDelivery : public testing::TestWithParam<KindAndFlavour> {};

// Two writer processes (one for a pipe, where their bytes would mix) write numbered blocks
// through a 4-deep slot as fast as it takes them. A reliable slot's writers first fill it while
// nobody reads, so each is refused at least once; a refused block is written again. A reliable
// slot delivers every block once, whole, in each writer's order (a refused block that was stored
// would come twice, a stored one reported refused never); a discarding one a subset of whole
// blocks, none older than one before it; a pipe the bytes in order.
TEST_P(ReaderDelivery, BlocksFromOtherProcesses) {
    const std::string type = std::get<0>(GetParam());
    const bool reliable = type == "reliable";
    ScopedSlotName name("deliver");
    const SimpleSlotCfg cfg = ReaderCfg(name, type);
    const testsupport::ScopedPipe pipe(name);
    const std::uint32_t writers = type == "posix-pipe" ? 1 : 2;
    const std::uint32_t count = reliable ? 1500 : 200;
    PipeSignal full, go;
    // Forked before the reader starts its threads.
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (std::uint32_t id = 0; id < writers; ++id) {
        children.emplace_back(new ChildProcess([&, id] {
            ISubscriberPtr sink = SlotFactory::CreateSlotWriter(&cfg);
            bool waited = !reliable && go.WaitFor();
            bool refused = false;
            for (std::uint32_t seq = 0; seq < count; ++seq) {
                const std::string block = Block(id, seq);
                sink->onNotify("ignored", block.data(), block.size());
                while (Slot::LastWriteOutcome() == Slot::WriteOutcome::Refused) {
                    refused = true;
                    if (!waited) {
                        full.Post();
                        waited = go.WaitFor();
                    }
                    sched_yield();
                    sink->onNotify("ignored", block.data(), block.size());
                }
            }
            return waited && refused == reliable ? 0 : 3;
        }));
    }
    for (std::uint32_t id = 0; reliable && id < writers; ++id) {
        ASSERT_TRUE(full.WaitFor());
    }
    boost::shared_ptr<Collector> collector(new Collector);
    INotifierPtr reader = testsupport::MakeReader(std::get<1>(GetParam()), cfg, collector);
    for (std::uint32_t id = 0; id < writers; ++id) {
        go.Post();
    }
    for (const std::unique_ptr<ChildProcess>& child : children) {
        const testsupport::ChildResult written = child->Wait(std::chrono::seconds(120));
        EXPECT_TRUE(written.Ok()) << written.Describe();
    }

    std::string stream;
    for (std::uint32_t seq = 0; seq < count; ++seq) {
        stream += Block(0, seq);
    }
    if (type == "posix-pipe") {
        ASSERT_TRUE(collector->WaitForBytes(stream.size(), std::chrono::seconds(60)));
    } else {
        // Until every block came, or (discarding) the last state: some writer's last block.
        ASSERT_TRUE(testsupport::Eventually(
            [&] {
                const std::vector<Collector::Block> seen = collector->Blocks();
                if (reliable) {
                    return seen.size() >= writers * count;
                }
                std::uint32_t id = 0, seq = 0;
                return !seen.empty() && Numbers(seen.back().bytes, id, seq) && seq + 1 == count;
            },
            std::chrono::seconds(60)))
            << collector->Count() << " blocks came";
    }
    EXPECT_EQ(2, collector.use_count()) << "the reader keeps a share of its first subscriber";
    reader.reset();
    EXPECT_EQ(1, collector.use_count()) << "and lets it go with the reader";
    EXPECT_EQ(std::set<std::string>{name.str()}, collector->Names());
    if (type == "posix-pipe") {
        EXPECT_EQ(stream, collector->Stream());
        return;
    }
    std::vector<std::int64_t> last(writers, -1);
    for (const Collector::Block& b : collector->Blocks()) {
        std::uint32_t id = 0, seq = 0;
        ASSERT_TRUE(Numbers(b.bytes, id, seq) && id < writers && seq < count &&
                    b.bytes == Block(id, seq))
            << "torn or foreign";
        ASSERT_LT(last[id], seq) << "writer " << id << ": repeated or older block";
        if (reliable) {
            ASSERT_EQ(last[id] + 1, seq) << "writer " << id << ": lost block";
        }
        last[id] = seq;
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, ReaderDelivery,
                         testing::Combine(testing::Values("reliable", "discarding", "posix-pipe"),
                                          testsupport::Flavours()),
                         [](const testing::TestParamInfo<KindAndFlavour>& info) {
                             std::string kind = std::get<0>(info.param);
                             kind.erase(std::remove(kind.begin(), kind.end(), '-'), kind.end());
                             return kind + testsupport::FlavourName(std::get<1>(info.param));
                         });

class DiscardingFlavour : public testing::TestWithParam<Flavour> {};

// A discarding slot hands out a state once, and never one older than the update time. (That
// racing writes merge into the latest state is ReaderDelivery's.)
TEST_P(DiscardingFlavour, DeliversAFreshStateOnceAndAStaleOneNever) {
    ScopedSlotName name("latest");
    const SimpleSlotCfg cfg = ReaderCfg(name, "discarding", pt::milliseconds(300));
    boost::shared_ptr<Collector> collector(new Collector);
    INotifierPtr reader = testsupport::MakeReader(GetParam(), cfg, collector);
    boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
    // Kept from the reader for longer than its update time, the block expires unseen.
    LogCapture log("Slot.Reader");
    slot->GetLockable()->lock();
    slot->WriteData("stale", 5);
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    slot->GetLockable()->unlock();
    EXPECT_TRUE(testsupport::Eventually(
        [&] { return log.CountPrefix("TRACE", "Data expired, write timestamp ") > 0; }));
    testsupport::WriteThroughWriter(cfg, "fresh");
    ASSERT_TRUE(collector->WaitFor(1));
    // The next cycles find the same block and leave it.
    EXPECT_TRUE(testsupport::Eventually(
        [&] { return log.CountPrefix("TRACE", "Data has not changed, write timestamp ") > 0; }));
    reader.reset();
    EXPECT_EQ(1u, collector->Count()) << "a block was delivered twice";
    EXPECT_EQ("fresh", collector->Stream());
}

INSTANTIATE_TEST_SUITE_P(Readers, DiscardingFlavour, testsupport::Flavours(),
                         testsupport::FlavourParamName);

// A write that lands while the reader thread is busy in a subscriber is not slept through: the
// next wait returns at once and the block is still fresh. Slept through, it would be read one
// update time late and then dropped as expired.
TEST(DiscardingSlotReader, AWriteDuringTheNotificationIsDeliveredNext) {
    ScopedSlotName name("busy");
    boost::shared_ptr<ISlot> slot(
        new DiscardingSlot(boost::interprocess::open_or_create, name.c_str(), 256));
    Collector collector;
    PipeSignal inSubscriber, release;
    // Blocks the reader thread inside its notification of each "busy" block.
    collector.action = [&] {
        if (collector.Blocks().back().bytes.rfind("busy", 0) == 0) {
            inSubscriber.Post();
            release.WaitFor();
        }
    };
    DiscardingSlotReader reader(slot, pt::seconds(2));
    reader.subscribe(&collector);
    reader.Init();
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        const size_t before = collector.Count();
        SlotWriter(slot).onNotify("", "busy", 4);
        ASSERT_TRUE(inSubscriber.WaitFor());
        const std::string next = "next " + std::to_string(round);
        SlotWriter(slot).onNotify("", next.data(), next.size());
        release.Post();
        ASSERT_TRUE(collector.WaitFor(before + 2))
            << "the write made during the notification was lost";
        EXPECT_EQ(next, collector.Blocks()[before + 1].bytes);
    }
}

// One step drains the whole queue, oldest first, and returns the last block; an empty queue
// gives nothing and notifies nobody. Then, with the thread running, a burst signalled once
// arrives in the wake-up of that signal, not by later time-outs.
TEST(ReliableSlotReader, OneStepDrainsTheQueueAndABurstArrivesInOneWakeUp) {
    ScopedSlotName name("drain");
    boost::shared_ptr<ISlot> slot(
        new ReliableSlot(boost::interprocess::open_or_create, name.c_str(), 256, 64));
    for (int i = 0; i < 20; ++i) {
        const std::string block = "block" + std::to_string(i);
        slot->WriteData(block.data(), block.size());
    }
    Collector collector;
    ReliableSlotReader reader(slot, pt::seconds(2));
    reader.subscribe(&collector);
    shared::SizedArray last = reader.ReadAndNotify();  // by hand, before the thread starts
    ASSERT_EQ(20u, collector.Count());
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ("block" + std::to_string(i), collector.Blocks()[i].bytes);
    }
    EXPECT_EQ("block19", std::string(last.data(), last.size()));
    EXPECT_EQ(0u, slot->GetBufferLength());
    EXPECT_TRUE(reader.ReadAndNotify().empty());
    EXPECT_EQ(20u, collector.Count());

    reader.Init();
    SlotWriter(slot).onNotify("", "warm-up", 7);
    ASSERT_TRUE(collector.WaitFor(21));
    LogCapture waits("InterprocCondition");
    {
        boost::interprocess::scoped_lock<shared::ILockable> lock(*slot->GetLockable());
        for (int i = 0; i < 10; ++i) {
            slot->WriteData(&i, sizeof(i));
        }
    }
    slot->GetOnWriteCondition()->Notify();
    ASSERT_TRUE(collector.WaitFor(31));
    EXPECT_EQ(0u, waits.Count("TRACE", "Wait() : cv.timed_wait(...) returned 0"));
}

// ---- the writer and the reader thread on a fake slot ----

boost::shared_ptr<IBaseSlot> Unowned(FakeSlot& slot) {
    return boost::shared_ptr<IBaseSlot>(&slot, [](IBaseSlot*) {});
}

TEST(SlotWriter, WritesUnderTheLockAndWakesReadersAfterwards) {
    FakeSlot slot;
    LogCapture log("Slot.Writer");
    {
        SlotWriter writer{Unowned(slot)};
        writer.onNotify("a", "xyz", 3);
        writer.onNotify("b", "xyz", 3);  // the topic is ignored: two identical blocks
        writer.onNotify("c", "", 0);     // an empty block is still a write
    }
    EXPECT_TRUE(slot.lockHeldAtWrite);
    EXPECT_EQ(3, slot.lock().locks);
    EXPECT_EQ(3, slot.event().notifies);
    EXPECT_EQ((std::deque<std::string>{"xyz", "xyz", ""}), slot.Blocks());
    EXPECT_EQ((std::vector<std::string>{"write to 'fake'", "locked 'fake'", "unlocked 'fake'",
                                        "write to 'fake'", "locked 'fake'", "unlocked 'fake'",
                                        "write to 'fake'", "locked 'fake'", "unlocked 'fake'",
                                        "~SlotWriter(), slot 'fake'"}),
              log.Messages());
}

// The first block is delivered whole with the slot's name, outside the lock; subscribers that
// throw are logged and the reader reads on.
TEST(BaseSlotReader, DeliversTheNameAndExactBytesOutsideTheLockAndSurvivesThrowingSubscribers) {
    boost::shared_ptr<FakeSlot> slot(new FakeSlot("position"));
    LogCapture log("Slot.Reader");
    Collector collector;
    bool lockHeldInSubscriber = false;
    collector.action = [&] {
        const size_t calls = collector.Count();
        if (calls == 4) {  // the last block: no write of the test's can hold the lock now
            lockHeldInSubscriber = slot->lock().held;
        }
        if (calls == 2) {
            throw std::runtime_error("boom");
        }
        if (calls == 3) {
            throw 42;
        }
    };
    {
        testsupport::EveryBlockReader reader(slot, pt::milliseconds(20));
        reader.subscribe(&collector);
        reader.Init();
        SlotWriter(Unowned(*slot)).onNotify("topic", "a\0b", 3);
        for (size_t i = 1; i <= 4; ++i) {
            ASSERT_TRUE(collector.WaitFor(i))
                << "the reader must keep running after subscriber errors";
            if (i < 4) {
                SlotWriter(Unowned(*slot)).onNotify("", "x", 1);
            }
        }
    }
    ASSERT_EQ(4u, collector.Count());
    EXPECT_EQ("position", collector.Blocks()[0].name);
    EXPECT_EQ(std::string("a\0b", 3), collector.Blocks()[0].bytes);
    EXPECT_FALSE(lockHeldInSubscriber);
    EXPECT_EQ(1u, log.Count("ERROR", "Exception in position : boom"));
    EXPECT_EQ(1u, log.Count("ERROR", "Unknown exception in position"));
    // (The thread's start and stop lines are checked in ReaderLifetimeTest.)
    EXPECT_EQ(1u, log.Count("DEBUG", "Notified 3 bytes from 'position'"));
    EXPECT_EQ(4u, log.Count("TRACE", "Unlocked position"));
    EXPECT_LE(1u, log.Count("TRACE", "ReadAndNotify() : 'position'"));
    EXPECT_LE(1u, log.Count("TRACE", "ReadAndNotify() : locked 'position'"));
}

}  // namespace
