// SPDX-License-Identifier: Apache-2.0
// A reader's life: its thread's start, errors and stop, also while other processes keep it busy
// or when its last reference goes inside one of its own notifications.
#include "ChildProcess.h"
#include "ChildRequire.h"
#include "Collector.h"
#include "Eventually.h"
#include "FakeSlot.h"
#include "HeaderHolder.h"
#include "LogCapture.h"
#include "PoolTestSupport.h"
#include "Readers.h"
#include "ShmHygiene.h"

#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/ReliableSlotReader.h>
#include <Slot/SlotWriter.h>

#include <gtest/gtest.h>

#include <unistd.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace pt = boost::posix_time;
using testsupport::Collector;
using testsupport::FakeSlot;
using testsupport::Flavour;
using testsupport::LogCapture;
using testsupport::ReaderCfg;
using testsupport::ScopedSlotName;

// The reliable slot `name`, opened directly as another process would.
boost::shared_ptr<ISlot> OpenReliable(const std::string& name, size_t maxSize = 64) {
    return boost::shared_ptr<ISlot>(
        new ReliableSlot(boost::interprocess::open_or_create, name.c_str(), maxSize, 4));
}

// ---- the thread ----

TEST(BaseSlotReader, InterprocessErrorEndsTheThreadForGood) {
    boost::shared_ptr<FakeSlot> slot(new FakeSlot);
    slot->readThrows = [] { throw boost::interprocess::interprocess_exception("queue gone"); };
    const auto write = [&slot] {
        SlotWriter(boost::shared_ptr<IBaseSlot>(slot)).onNotify("", "x", 1);
    };
    LogCapture log("Slot.Reader");
    Collector collector;
    {
        testsupport::EveryBlockReader reader(slot, pt::milliseconds(10));
        reader.subscribe(&collector);
        reader.Init();
        write();
        EXPECT_TRUE(testsupport::Eventually(
            [&] { return log.CountPrefix("ERROR", "Thread shutdown") > 0; }));
        EXPECT_EQ(1u, log.Count("ERROR",
                                "Thread shutdown after boost::interprocess_exception in fake : "
                                "queue gone"));
        const int readsAtShutdown = slot->reads;
        slot->readThrows = nullptr;
        write();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(readsAtShutdown, slot->reads) << "a stopped reader must not read again";
    }  // destroys cleanly: joining a thread that ended by itself returns at once
    EXPECT_EQ(0u, collector.Count());
    EXPECT_EQ(0u, log.Count("DEBUG", "Thread shutdown for fake"));
}

// Init returns after one update time, destruction within about one, each step logged.
TEST(ReliableSlotReader, InitWaitsOneUpdateTimeAndDestructionLogsItsSteps) {
    ScopedSlotName name("rdtor");
    LogCapture log("Slot.Reader", log4cxx::Level::getDebug());
    auto reader =
        std::make_unique<ReliableSlotReader>(OpenReliable(name, 256), pt::milliseconds(300));
    auto start = std::chrono::steady_clock::now();
    reader->Init();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    start = std::chrono::steady_clock::now();
    reader.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    const std::string quoted = "'" + name.str() + "'";
    EXPECT_EQ((std::vector<std::string>{
                  "Thread started", "Initialized", "~ReliableSlotReader(), " + quoted,
                  "Thread shutdown for " + name.str(), "~ReliableSlotReader() joined, " + quoted,
                  "~ReliableSlotReader() unlocked, " + quoted, "~BaseSlotReader(), " + quoted}),
              log.Messages());
}

// ---- stopping while other processes keep the reader busy ----

// Resets `reader` on another thread; true when that returned within a bound no loaded machine
// misses. Then runs `unblock`, which must let a destruction that is still waiting end, and
// waits for it.
template <class Pointer>
bool DestroyedInTime(Pointer& reader, const std::function<void()>& unblock) {
    std::future<void> destroyed = std::async(std::launch::async, [&reader] { reader.reset(); });
    const bool inTime = destroyed.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    unblock();
    destroyed.get();
    return inTime;
}

std::string Numbered(std::uint64_t number) {
    std::string block(16, '\0');
    std::memcpy(&block[0], &number, sizeof(number));
    return block;
}

// A writer process keeps a slow reader's queue full: the destructor still returns, the block in
// hand delivered and the rest left queued; the next reader gets every remaining block, in order,
// none twice.
TEST(ReliableSlotReader, StopsDrainingAQueueThatWritersKeepFull) {
    ScopedSlotName name("drainstop");
    const SimpleSlotCfg cfg(name, "reliable", pt::milliseconds(50), 20);
    struct Ledger {
        std::atomic<bool> stop;
        std::atomic<std::uint64_t> written;  // blocks 0 .. written-1 are in the slot or read
    };
    const auto ledger = testsupport::SharedWithChildren<Ledger>();
    testsupport::ChildProcess writer([&] {
        testsupport::DieWithParent();
        boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
        while (!ledger->stop) {
            {
                boost::interprocess::scoped_lock<shared::ILockable> lock(*slot->GetLockable());
                if (slot->GetBufferLength() < cfg.GetMaxBufferLength()) {
                    const std::string block = Numbered(ledger->written);
                    slot->WriteData(block.data(), block.size());
                    ++ledger->written;
                }
            }
            slot->GetOnWriteCondition()->Notify();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return 0;
    });
    ASSERT_TRUE(testsupport::Eventually([&] { return ledger->written >= 20; }));
    boost::shared_ptr<Collector> first(new Collector);
    first->action = [] { std::this_thread::sleep_for(std::chrono::milliseconds(5)); };
    INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg, first);
    ASSERT_TRUE(first->WaitFor(5));
    EXPECT_TRUE(DestroyedInTime(reader, [&] { ledger->stop = true; }))
        << "the destructor waited for the writer to stop";
    EXPECT_TRUE(writer.Wait().Ok());
    const std::uint64_t written = ledger->written;
    ASSERT_LE(first->Count(), written);
    boost::shared_ptr<Collector> next(new Collector);
    INotifierPtr again = SlotFactory::CreateSlotReader(&cfg, next);
    EXPECT_TRUE(next->WaitFor(written - first->Count()));
    again.reset();
    std::string expected;
    for (std::uint64_t number = 0; number < written; ++number) {
        expected += Numbered(number);
    }
    EXPECT_EQ(expected, first->Stream() + next->Stream());
}

// A live process that keeps the slot's lock and is stopped (SIGSTOP) holds up neither the
// reader's thread nor its destructor, whether the thread waits for the lock before its sleep on
// the slot or after it; the interruption ends the thread as a stop does, and the lock is free
// once the holder lets go. A subscriber's own wait for a lock is not cut.
TEST(ReliableSlotReader, StopsWhileAStoppedProcessKeepsTheSlotsLock) {
    for (const bool heldFirst : {true, false}) {
        SCOPED_TRACE(heldFirst ? "held before the thread starts" : "held while it sleeps");
        ScopedSlotName name("lockstop");
        LogCapture log("Slot.Reader", log4cxx::Level::getDebug());
        boost::shared_ptr<ISlot> slot = OpenReliable(name);
        auto reader = std::make_unique<ReliableSlotReader>(slot, pt::milliseconds(50));
        std::unique_ptr<testsupport::HeaderHolder> holder;
        const auto hold = [&] {
            holder.reset(new testsupport::HeaderHolder(name));
            ASSERT_TRUE(holder->WaitLocked());
            ::kill(holder->Child().Pid(), SIGSTOP);
        };
        if (heldFirst) {
            hold();
        }
        reader->Init();
        if (!heldFirst) {
            hold();
        }
        // Several update times: the thread is waiting for the lock now.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_TRUE(DestroyedInTime(reader, [&] {
            ::kill(holder->Child().Pid(), SIGCONT);
            holder->Release();
        })) << "the destructor waited for the stopped holder";
        EXPECT_TRUE(holder->Child().Wait().Ok());
        EXPECT_EQ(1u, log.Count("DEBUG", "Thread shutdown for " + name.str()));
        ASSERT_TRUE(slot->GetLockable()->try_lock()) << "the lock was left held";
        slot->GetLockable()->unlock();
    }

    // A subscriber passing the block on waits for the other slot's lock through the stop: the
    // block has left the source and must arrive.
    ScopedSlotName source("lockfrom"), target("lockto");
    boost::shared_ptr<ISlot> from = OpenReliable(source), to = OpenReliable(target);
    testsupport::HeaderHolder holder(target);
    ASSERT_TRUE(holder.WaitLocked());
    auto reader = std::make_unique<ReliableSlotReader>(from, pt::milliseconds(50));
    const ISubscriberPtr forward(new SlotWriter(to));
    reader->subscribe(forward.get());
    reader->Init();
    SlotWriter(boost::shared_ptr<IBaseSlot>(from)).onNotify("", "block", 5);
    ASSERT_TRUE(testsupport::Eventually([&] { return from->GetBufferLength() == 0; }));
    std::future<void> destroyed = std::async(std::launch::async, [&reader] { reader.reset(); });
    EXPECT_EQ(std::future_status::timeout, destroyed.wait_for(std::chrono::milliseconds(300)))
        << "the forward was cut";
    holder.Release();
    destroyed.get();
    EXPECT_TRUE(holder.Child().Wait().Ok());
    EXPECT_EQ(1u, to->GetBufferLength()) << "the block taken was lost";
}

// A child forked (without exec) while a reader's thread is inside a subscriber's onNotify, and so
// holds the reader's delivery locks, leaves its copy at once: unsubscribe, subscribe,
// unsubscribeAll and the drop return, for every kind of reader. The parent's reader reads on (that
// a claim stays the parent's is ReaderClaim's). A hang shows as the child's watchdog.
class ForkedReader : public testing::TestWithParam<std::string> {};

TEST_P(ForkedReader, AChildForkedDuringADeliveryLeavesItsCopyAtOnceAndTheParentReadsOn) {
    const std::string kind = GetParam();
    const bool pool = kind == "queue" || kind == "latest";
    ScopedSlotName name("forkleave");
    const testsupport::ScopedPipe pipe(name);
    const SimpleSlotCfg cfg = ReaderCfg(name, kind);
    const pooltest::ScopedPool poolName("forkleave");
    const Slot::PoolConfig poolCfg = poolName.Config(kind, 64, 4);
    ISubscriberPtr poolWriter;
    if (pool) {
        poolWriter = Slot::PoolFactory::CreatePoolWriter(poolCfg);
    }
    const auto write = [&](const std::string& bytes) {
        if (pool) {
            poolWriter->onNotify("", bytes.data(), bytes.size());
        } else {
            testsupport::WriteThroughWriter(cfg, bytes);
        }
    };

    // The first delivery waits until the child is done.
    std::promise<void> leave;
    std::shared_future<void> left = leave.get_future().share();
    boost::shared_ptr<Collector> held(new Collector);
    held->action = [left, first = std::make_shared<std::atomic<bool>>(true)] {
        if (first->exchange(false)) {
            left.wait_for(std::chrono::seconds(30));
        }
    };
    INotifierPtr reader = pool ? Slot::PoolFactory::CreatePoolReader(poolCfg, held)
                               : SlotFactory::CreateSlotReader(&cfg, held);
    write("one");
    ASSERT_TRUE(held->WaitFor(1));
    EXPECT_TRUE(testsupport::RunsInChild(
        [&] {
            Collector other;
            reader->unsubscribe(held.get());
            reader->subscribe(&other);
            reader->unsubscribeAll();
            reader.reset();
            held.reset();
        },
        std::chrono::seconds(10)));
    leave.set_value();
    write("two");
    EXPECT_TRUE(held->WaitForBytes(6));
    EXPECT_EQ("onetwo", held->Stream());
}

INSTANTIATE_TEST_SUITE_P(Kinds, ForkedReader,
                         testing::Values("reliable", "discarding", "posix-pipe", "queue", "latest"),
                         [](const testing::TestParamInfo<std::string>& info) {
                             return info.param == "posix-pipe" ? std::string("posixpipe")
                                                               : info.param;
                         });

// Destroying a reader that spins with a budget far beyond the test's time-out returns: the
// spin ends on the stop request instead of running out. Also right after a delivery, when the
// reader has just gone back to spinning. (A hang shows as the child's watchdog.)
TEST(SpinningReader, StopsWhileSpinning) {
    for (const std::string type : {"reliable", "discarding"}) {
        SCOPED_TRACE(type);
        ScopedSlotName name("spinstop");
        const SimpleSlotCfg cfg = ReaderCfg(name, type, pt::milliseconds(200));
        EXPECT_TRUE(testsupport::RunsInChild(
            [&] {
                { INotifierPtr idle = SlotFactory::CreateSpinningSlotReader(&cfg, pt::hours(1)); }
                boost::shared_ptr<Collector> collector(new Collector);
                INotifierPtr reader =
                    SlotFactory::CreateSpinningSlotReader(&cfg, pt::hours(1), collector);
                testsupport::WriteThroughWriter(cfg, "block");
                testsupport::Require(collector->WaitFor(1), 10, "the block never came");
            },
            std::chrono::seconds(60)));
    }
}

// What a subscriber that drops the last reference to its reader sees, and what is left.
struct Outcome {
    std::mutex mutex;
    std::vector<std::string> blocks;  // guarded by mutex while the reader lives
    std::promise<void> gone;          // set when the subscriber is destroyed
};

// Holds the only reference to its reader and drops it in its first notification.
class ReleasingSubscriber : public shared::ISubscriber {
public:
    explicit ReleasingSubscriber(Outcome& outcome) : outcome_(outcome) {}
    ~ReleasingSubscriber() override { outcome_.gone.set_value(); }

    void Hold(const INotifierPtr& reader) {
        std::lock_guard<std::mutex> lock(outcome_.mutex);
        reader_ = reader;
    }
    void onNotify(const std::string&, const void* data, size_t size) override {
        INotifierPtr last;
        {
            std::lock_guard<std::mutex> lock(outcome_.mutex);
            outcome_.blocks.emplace_back(static_cast<const char*>(data), size);
            last.swap(reader_);
        }
        last.reset();  // the reader's last reference, on the reader's own thread
    }

private:
    Outcome& outcome_;
    INotifierPtr reader_;  // guarded by outcome_.mutex
};

class ReaderRelease : public testing::TestWithParam<Flavour> {};

// Dropping the last reference inside its own notification stops the reader before anything
// else is delivered, also while it would otherwise go back to spinning. Run under ASan and
// TSan too: after the release the reader thread must touch nothing freed.
TEST_P(ReaderRelease, InsideItsOwnNotificationStopsTheReader) {
    const Flavour flavour = GetParam();
    for (const std::string type : {"reliable", "discarding", "posix-pipe"}) {
        SCOPED_TRACE(type);
        ScopedSlotName name("release");
        // In a child: joining itself would abort the process.
        EXPECT_TRUE(testsupport::RunsInChild(
            [&] {
                const SimpleSlotCfg cfg = ReaderCfg(name, type);
                Outcome outcome;
                Collector other;  // a second subscriber, after the releasing one
                {
                    boost::shared_ptr<ReleasingSubscriber> releasing(
                        new ReleasingSubscriber(outcome));
                    INotifierPtr reader = testsupport::MakeReader(flavour, cfg, releasing);
                    reader->subscribe(&other);
                    releasing->Hold(reader);
                }  // from here on the subscriber and the reader live only through each other
                if (type == "reliable") {
                    // Three blocks in one wake-up: the reader stops after the first.
                    boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
                    slot->GetLockable()->lock();
                    slot->WriteData("one", 3);
                    slot->WriteData("two", 3);
                    slot->WriteData("three", 5);
                    slot->GetLockable()->unlock();
                    slot->GetOnWriteCondition()->Notify();
                } else {
                    testsupport::WriteThroughWriter(cfg, "one");
                }
                testsupport::Require(outcome.gone.get_future().wait_for(std::chrono::seconds(20)) ==
                                         std::future_status::ready,
                                     10, "the subscriber outlived the reader that held it");
                testsupport::Require(
                    outcome.blocks == std::vector<std::string>{"one"} && other.Count() == 0, 11,
                    "a subscriber was called after the release");
                if (type == "reliable") {
                    // The rest stayed in the queue, and the claim is free for the next reader.
                    boost::shared_ptr<Collector> next(new Collector);
                    INotifierPtr again = testsupport::MakeReader(flavour, cfg, next);
                    testsupport::Require(next->WaitFor(2) && next->Stream() == "twothree", 13,
                                         "the next reader did not get the rest");
                }
            },
            std::chrono::seconds(60)));
    }
}

INSTANTIATE_TEST_SUITE_P(Readers, ReaderRelease, testsupport::Flavours(),
                         testsupport::FlavourParamName);

}  // namespace
