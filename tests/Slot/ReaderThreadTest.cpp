// SPDX-License-Identifier: Apache-2.0
#include "Collector.h"
#include "FakeSlot.h"
#include "LogCapture.h"

#include <Slot/BoostInterprocess/BaseSlotReader.h>
#include <Slot/SlotWriter.h>

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <thread>

namespace {

using testsupport::Collector;
using testsupport::FakeSlot;
using testsupport::LogCapture;

// Delivers every block; stops its thread like the concrete readers do.
class EveryBlockReader : public BaseSlotReader {
public:
    using BaseSlotReader::BaseSlotReader;
    ~EveryBlockReader() override { StopThread(); }
    bool DataInSlotIsActual() override { return slot_->GetBufferLength() != 0; }
};

void Write(FakeSlot& slot, const std::string& bytes) {
    SlotWriter writer{boost::shared_ptr<IBaseSlot>(&slot, [](IBaseSlot*) {})};
    writer.onNotify("topic", bytes.data(), bytes.size());
}

TEST(SlotWriter, WritesUnderTheLockAndWakesReadersAfterwards) {
    FakeSlot slot;
    LogCapture log("Slot.Writer");
    {
        SlotWriter writer{boost::shared_ptr<IBaseSlot>(&slot, [](IBaseSlot*) {})};
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

TEST(SlotWriter, FailedWriteUnlocksAndDoesNotWakeReaders) {
    FakeSlot slot;
    slot.writeThrows = [] { throw std::runtime_error("refused"); };
    SlotWriter writer{boost::shared_ptr<IBaseSlot>(&slot, [](IBaseSlot*) {})};
    EXPECT_THROW(writer.onNotify("", "x", 1), std::runtime_error);
    EXPECT_TRUE(slot.lock().try_lock()) << "the slot must be unlocked after a failed write";
    slot.lock().unlock();
    EXPECT_EQ(0, slot.event().notifies);
}

TEST(BaseSlotReader, DeliversTheSlotNameAndExactBytesOutsideTheLock) {
    boost::shared_ptr<FakeSlot> slot(new FakeSlot("position"));
    LogCapture log("Slot.Reader");
    Collector collector;
    bool lockHeldInSubscriber = true;
    collector.action = [&] { lockHeldInSubscriber = slot->lock().held; };
    {
        EveryBlockReader reader(slot, boost::posix_time::milliseconds(20));
        reader.subscribe(&collector);
        reader.Init();
        Write(*slot, std::string("a\0b", 3));
        ASSERT_TRUE(collector.WaitFor(1));
    }
    ASSERT_EQ(1u, collector.Count());
    EXPECT_EQ("position", collector.Blocks()[0].name);
    EXPECT_EQ(std::string("a\0b", 3), collector.Blocks()[0].bytes);
    EXPECT_FALSE(lockHeldInSubscriber);
    EXPECT_EQ(1u, log.Count("DEBUG", "Thread started"));
    EXPECT_EQ(1u, log.Count("INFO", "Initialized"));
    EXPECT_EQ(1u, log.Count("DEBUG", "Notified 3 bytes from 'position'"));
    EXPECT_EQ(1u, log.Count("TRACE", "Unlocked position"));
    EXPECT_LE(1u, log.Count("TRACE", "ReadAndNotify() : 'position'"));
    EXPECT_LE(1u, log.Count("TRACE", "ReadAndNotify() : locked 'position'"));
    EXPECT_EQ(1u, log.Count("DEBUG", "Thread shutdown for position"));
    EXPECT_EQ(1u, log.Count("DEBUG", "~BaseSlotReader(), 'position'"));
}

TEST(BaseSlotReader, InitReturnsOnlyAfterOneUpdateTime) {
    boost::shared_ptr<FakeSlot> slot(new FakeSlot);
    EveryBlockReader reader(slot, boost::posix_time::milliseconds(300));
    const auto start = std::chrono::steady_clock::now();
    reader.Init();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST(BaseSlotReader, SurvivesThrowingSubscribers) {
    boost::shared_ptr<FakeSlot> slot(new FakeSlot);
    LogCapture log("Slot.Reader");
    Collector collector;
    int calls = 0;
    collector.action = [&] {
        ++calls;
        if (calls == 1) {
            throw std::runtime_error("boom");
        }
        if (calls == 2) {
            throw 42;
        }
    };
    EveryBlockReader reader(slot, boost::posix_time::milliseconds(10));
    reader.subscribe(&collector);
    reader.Init();
    Write(*slot, "1");
    ASSERT_TRUE(collector.WaitFor(1));
    Write(*slot, "2");
    ASSERT_TRUE(collector.WaitFor(2));
    Write(*slot, "3");
    ASSERT_TRUE(collector.WaitFor(3)) << "the reader must keep running after subscriber errors";
    EXPECT_EQ(1u, log.Count("ERROR", "Exception in fake : boom"));
    EXPECT_EQ(1u, log.Count("ERROR", "Unknown exception in fake"));
}

TEST(BaseSlotReader, InterprocessErrorEndsTheThreadForGood) {
    boost::shared_ptr<FakeSlot> slot(new FakeSlot);
    slot->readThrows = [] { throw boost::interprocess::interprocess_exception("queue gone"); };
    LogCapture log("Slot.Reader");
    Collector collector;
    {
        EveryBlockReader reader(slot, boost::posix_time::milliseconds(10));
        reader.subscribe(&collector);
        reader.Init();
        Write(*slot, "lost");
        for (int i = 0; i < 2000 && log.CountPrefix("ERROR", "Thread shutdown") == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        EXPECT_EQ(1u, log.Count("ERROR",
                                "Thread shutdown after boost::interprocess_exception in fake : "
                                "queue gone"));
        const int readsAtShutdown = slot->reads;
        slot->readThrows = nullptr;
        Write(*slot, "after");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(readsAtShutdown, slot->reads) << "a stopped reader must not read again";
    }  // destroys cleanly: joining a thread that ended by itself returns at once
    EXPECT_EQ(0u, collector.Count());
    EXPECT_EQ(0u, log.Count("DEBUG", "Thread shutdown for fake"));
}

TEST(BaseSlotReader, DestructionWhileWaitingReturnsWithinAboutOneUpdateTime) {
    boost::shared_ptr<FakeSlot> slot(new FakeSlot);
    auto reader = std::make_unique<EveryBlockReader>(slot, boost::posix_time::milliseconds(200));
    reader->Init();
    const auto start = std::chrono::steady_clock::now();
    reader.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

}  // namespace
