// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"
#include "Collector.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/DiscardingSlot.h>
#include <Slot/BoostInterprocess/DiscardingSlotReader.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/ReliableSlotReader.h>
#include <Slot/SlotWriter.h>

#include <gtest/gtest.h>
#include <boost/interprocess/sync/scoped_lock.hpp>

#include <chrono>
#include <thread>

namespace {

using testsupport::ChildProcess;
using testsupport::Collector;
using testsupport::LogCapture;
using testsupport::PipeSignal;
using testsupport::ScopedSlotName;

const boost::posix_time::milliseconds Update(50);

boost::shared_ptr<ISlot> Discarding(const std::string& name) {
    return boost::shared_ptr<ISlot>(
        new DiscardingSlot(boost::interprocess::open_or_create, name.c_str(), 256));
}

boost::shared_ptr<ISlot> Reliable(const std::string& name, unsigned int length = 64) {
    return boost::shared_ptr<ISlot>(
        new ReliableSlot(boost::interprocess::open_or_create, name.c_str(), 256, length));
}

void Write(const boost::shared_ptr<ISlot>& slot, const std::string& bytes) {
    SlotWriter(slot).onNotify("", bytes.data(), bytes.size());
}

// Quiet time long enough for several reader cycles; only used to show that nothing MORE arrives.
void SeveralCycles() {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

TEST(DiscardingSlotReader, DeliversEachFreshWriteOnce) {
    ScopedSlotName name("dread");
    boost::shared_ptr<ISlot> slot = Discarding(name);
    LogCapture log("Slot.Reader");
    Collector collector;
    DiscardingSlotReader reader(slot, Update);
    reader.subscribe(&collector);
    reader.Init();
    Write(slot, "first");
    ASSERT_TRUE(collector.WaitFor(1));
    SeveralCycles();
    Write(slot, "second");
    ASSERT_TRUE(collector.WaitFor(2));
    SeveralCycles();
    ASSERT_EQ(2u, collector.Count()) << "unchanged data must not be delivered again";
    EXPECT_EQ("first", collector.Blocks()[0].bytes);
    EXPECT_EQ("second", collector.Blocks()[1].bytes);
    EXPECT_LE(1u, log.CountPrefix("TRACE", "Data has not changed, write timestamp "));
}

TEST(DiscardingSlotReader, DropsDataOlderThanTheUpdateTime) {
    ScopedSlotName name("stale");
    boost::shared_ptr<ISlot> slot = Discarding(name);
    Write(slot, "old");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // four update times old
    LogCapture log("Slot.Reader");
    Collector collector;
    DiscardingSlotReader reader(slot, Update);
    reader.subscribe(&collector);
    reader.Init();
    SeveralCycles();
    EXPECT_EQ(0u, collector.Count());
    EXPECT_EQ(1u, log.CountPrefix("TRACE", "Data expired, write timestamp "));
    Write(slot, "new");
    ASSERT_TRUE(collector.WaitFor(1));
    EXPECT_EQ("new", collector.Blocks()[0].bytes);
}

TEST(DiscardingSlotReader, WritesWithinOneCycleMergeIntoTheLatest) {
    ScopedSlotName name("merge");
    boost::shared_ptr<ISlot> slot = Discarding(name);
    Collector collector;
    DiscardingSlotReader reader(slot, Update);
    reader.subscribe(&collector);
    reader.Init();
    {
        // Holding the slot's lock keeps the reader out while three writes land.
        boost::interprocess::scoped_lock<shared::ILockable> lock(*slot->GetLockable());
        slot->WriteData("1", 1);
        slot->WriteData("2", 1);
        slot->WriteData("3", 1);
    }
    slot->GetOnWriteCondition()->Notify();
    ASSERT_TRUE(collector.WaitFor(1));
    SeveralCycles();
    ASSERT_EQ(1u, collector.Count());
    EXPECT_EQ("3", collector.Blocks()[0].bytes);
}

// A write that lands while the reader thread is busy in a subscriber is not slept through: the
// next wait returns at once and the block is still fresh. Slept through, it would be read one
// update time late and then dropped as expired.
TEST(DiscardingSlotReader, AWriteDuringTheNotificationIsDeliveredNext) {
    ScopedSlotName name("busy");
    boost::shared_ptr<ISlot> slot = Discarding(name);
    Collector collector;
    PipeSignal inSubscriber, release;
    // Blocks the reader thread inside its notification of each "busy" block.
    collector.action = [&] {
        if (collector.Blocks().back().bytes.rfind("busy", 0) == 0) {
            inSubscriber.Post();
            release.WaitFor();
        }
    };
    const boost::posix_time::seconds update(2);
    DiscardingSlotReader reader(slot, update);
    reader.subscribe(&collector);
    reader.Init();
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        const size_t before = collector.Count();
        Write(slot, "busy " + std::to_string(round));
        ASSERT_TRUE(inSubscriber.WaitFor());
        Write(slot, "next " + std::to_string(round));
        release.Post();
        ASSERT_TRUE(collector.WaitFor(before + 2))
            << "the write made during the notification was lost";
        EXPECT_EQ("next " + std::to_string(round), collector.Blocks()[before + 1].bytes);
    }
}

TEST(ReliableSlotReader, OneWakeUpDrainsTheQueueOldestFirst) {
    ScopedSlotName name("drain");
    boost::shared_ptr<ISlot> slot = Reliable(name);
    for (int i = 0; i < 20; ++i) {
        const std::string block = "block" + std::to_string(i);
        slot->WriteData(block.data(), block.size());
    }
    Collector collector;
    ReliableSlotReader reader(slot, Update);  // no thread: drive one step by hand
    reader.subscribe(&collector);
    shared::SizedArray last = reader.ReadAndNotify();
    ASSERT_EQ(20u, collector.Count());
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ("block" + std::to_string(i), collector.Blocks()[i].bytes);
        EXPECT_EQ(name.str(), collector.Blocks()[i].name);
    }
    EXPECT_EQ("block19", std::string(last.data(), last.size()));
    EXPECT_EQ(0u, slot->GetBufferLength());
    EXPECT_TRUE(reader.ReadAndNotify().empty()) << "empty queue: nothing read, nothing notified";
    EXPECT_EQ(20u, collector.Count());
}

// Each wake-up drains the queue, subscribed or not: writers never find it full because the
// reader has nobody to deliver to.
TEST(ReliableSlotReader, DrainsTheQueueAlsoWithoutSubscribers) {
    ScopedSlotName name("nobody");
    boost::shared_ptr<ISlot> slot = Reliable(name, 4);
    for (int i = 0; i < 4; ++i) {
        Write(slot, "waiting" + std::to_string(i));
    }
    ReliableSlotReader reader(slot, Update);
    reader.Init();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (slot->GetBufferLength() != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(0u, slot->GetBufferLength());
    // A subscriber that comes later gets what is written from then on.
    Collector collector;
    reader.subscribe(&collector);
    Write(slot, "later");
    ASSERT_TRUE(collector.WaitFor(1));
    EXPECT_EQ("later", collector.Blocks()[0].bytes);
}

TEST(ReliableSlotReader, BurstSignalledOnceArrivesInOneWakeUp) {
    ScopedSlotName name("burst");
    boost::shared_ptr<ISlot> slot = Reliable(name);
    Collector collector;
    ReliableSlotReader reader(slot, boost::posix_time::seconds(2));
    reader.subscribe(&collector);
    reader.Init();
    Write(slot, "warm-up");
    ASSERT_TRUE(collector.WaitFor(1));
    LogCapture waits("InterprocCondition");
    {
        boost::interprocess::scoped_lock<shared::ILockable> lock(*slot->GetLockable());
        for (int i = 0; i < 10; ++i) {
            slot->WriteData(&i, sizeof(i));
        }
    }
    slot->GetOnWriteCondition()->Notify();
    ASSERT_TRUE(collector.WaitFor(11));
    // Delivered by the wake-up of that one Notify, not by later time-outs.
    EXPECT_EQ(0u, waits.Count("TRACE", "Wait() : cv.timed_wait(...) returned 0"));
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(&i), sizeof(i)),
                  collector.Blocks()[i + 1].bytes);
    }
}

TEST(ReliableSlotReader, OnlyOneReaderPerMachine) {
    ScopedSlotName name("single");
    const std::string refusal =
        "Cannot create non-unique reader for reliable slot '" + name.str() + "'";
    PipeSignal tryNow, tried, firstGone, triedAgain;
    // The child tries twice: while the first reader lives, and after it is destroyed.
    ChildProcess child([&] {
        boost::shared_ptr<ISlot> slot = Reliable(name);
        if (!tryNow.WaitFor()) {
            return 10;
        }
        int failures = 0;
        try {
            ReliableSlotReader second(slot, Update);
            ++failures;  // must have been refused
        } catch (const AbortSlotCreationException& e) {
            failures += std::string(e.what()) == refusal ? 0 : 1;
        }
        tried.Post();
        if (!firstGone.WaitFor()) {
            return 11;
        }
        try {
            ReliableSlotReader third(slot, Update);
        } catch (const std::exception&) {
            ++failures;
        }
        triedAgain.Post();
        return failures;
    });

    boost::shared_ptr<ISlot> slot = Reliable(name);
    {
        ReliableSlotReader first(slot, Update);
        try {
            ReliableSlotReader again(slot, Update);
            ADD_FAILURE() << "a second reader in the same process was accepted";
        } catch (const AbortSlotCreationException& e) {
            EXPECT_EQ(refusal, e.what());
        }
        // The refused reader closed its own lock-file descriptor: the first one's lock must hold.
        tryNow.Post();
        ASSERT_TRUE(tried.WaitFor());
    }
    firstGone.Post();
    ASSERT_TRUE(triedAgain.WaitFor());
    EXPECT_TRUE(child.Wait().Ok()) << child.Wait().Describe();
    // And again in this process: the name's mutex was unlocked by the destructor.
    EXPECT_NO_THROW(ReliableSlotReader(slot, Update));
}

TEST(BaseSlotReader, RefusesUpdateTimesThatWouldHangOrSpin) {
    ScopedSlotName name("badtime"), reliableName("badtime");
    boost::shared_ptr<ISlot> slot = Discarding(name);
    for (const boost::posix_time::time_duration& t :
         {boost::posix_time::time_duration(boost::posix_time::pos_infin),
          boost::posix_time::time_duration(boost::posix_time::not_a_date_time),
          boost::posix_time::time_duration(boost::posix_time::milliseconds(-5))}) {
        EXPECT_THROW(DiscardingSlotReader(slot, t), AbortSlotCreationException);
        EXPECT_THROW(ReliableSlotReader(Reliable(reliableName), t), AbortSlotCreationException);
    }
    EXPECT_NO_THROW(DiscardingSlotReader(slot, boost::posix_time::time_duration()));
}

TEST(ReliableSlotReader, DestructorLogsItsSteps) {
    ScopedSlotName name("rdtor");
    LogCapture log("Slot.Reader", log4cxx::Level::getDebug());
    {
        ReliableSlotReader reader(Reliable(name), Update);
        reader.Init();
    }
    const std::string quoted = "'" + name.str() + "'";
    EXPECT_EQ((std::vector<std::string>{
                  "Thread started", "Initialized", "~ReliableSlotReader(), " + quoted,
                  "Thread shutdown for " + name.str(), "~ReliableSlotReader() joined, " + quoted,
                  "~ReliableSlotReader() unlocked, " + quoted, "~BaseSlotReader(), " + quoted}),
              log.Messages());
}

}  // namespace
