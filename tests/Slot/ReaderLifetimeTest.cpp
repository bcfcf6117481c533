// SPDX-License-Identifier: Apache-2.0
// Readers from the factory: the first subscriber given at creation, and readers whose last
// reference goes inside one of their own notifications.
#include "ChildProcess.h"
#include "Collector.h"
#include "ShmHygiene.h"

#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/SlotFactory.h>

#include <FileUtils/NamedPipeCreator.h>

#include <gtest/gtest.h>

#include <unistd.h>
#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <vector>

namespace {

using testsupport::Collector;
using testsupport::ScopedSlotName;

// A discarding reader drops data older than its update time: generous for slow (sanitized) runs.
SimpleSlotCfg Cfg(const std::string& name, const std::string& type) {
    return SimpleSlotCfg(name, type, boost::posix_time::milliseconds(500), 4);
}

void Write(const SimpleSlotCfg& cfg, const std::string& bytes) {
    SlotFactory::CreateSlotWriter(&cfg)->onNotify("", bytes.data(), bytes.size());
}

// Blocks waiting in a full reliable slot before its reader exists reach the subscriber given at
// creation, oldest first, and the queue has room again for the writers.
TEST(FactoryReader, FirstSubscriberGetsTheBlocksThatWereWaiting) {
    ScopedSlotName name("first");
    const SimpleSlotCfg cfg = Cfg(name, "reliable");
    for (int i = 0; i < 4; ++i) {
        Write(cfg, "waiting" + std::to_string(i));
    }
    boost::shared_ptr<Collector> collector(new Collector);
    {
        INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg, collector);
        for (int i = 4; i < 8; ++i) {
            ASSERT_TRUE(collector->WaitFor(static_cast<size_t>(i)));
            Write(cfg, "later" + std::to_string(i));
        }
        ASSERT_TRUE(collector->WaitFor(8));
        EXPECT_EQ(2, collector.use_count()) << "the reader keeps a share of its first subscriber";
    }
    EXPECT_EQ(1, collector.use_count()) << "and lets it go with the reader";
    const std::vector<Collector::Block> blocks = collector->Blocks();
    ASSERT_EQ(8u, blocks.size());
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ((i < 4 ? "waiting" : "later") + std::to_string(i), blocks[i].bytes);
    }
}

// The same for a named pipe: bytes written before the reader existed reach its first
// subscriber.
TEST(FactoryReader, FirstSubscriberOfAPipeGetsWhatWasWrittenBefore) {
    ScopedSlotName name("firstpipe");
    const SimpleSlotCfg cfg = Cfg(name, "posix-pipe");
    struct Unlinker {
        std::string path;
        ~Unlinker() { ::unlink(path.c_str()); }
    } unlinker{FileUtils::NamedPipeCreator::ConstructPipeFilename(name)};
    ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
    writer->onNotify("", "early bytes", 11);
    boost::shared_ptr<Collector> collector(new Collector);
    // A pipe is a byte stream: the bytes may come in more than one notification.
    const auto received = [&collector] {
        std::string bytes;
        for (const Collector::Block& b : collector->Blocks()) {
            bytes += b.bytes;
        }
        return bytes;
    };
    {
        INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg, collector);
        for (int i = 0; i < 200 && received().size() < 11; ++i) {
            collector->WaitFor(collector->Count() + 1, std::chrono::milliseconds(100));
        }
    }
    EXPECT_EQ(1, collector.use_count());
    const std::string bytes = received();
    EXPECT_EQ("early bytes", bytes);
}

// What a subscriber that drops the last reference to its reader sees, and what is left.
struct Outcome {
    std::mutex mutex;
    std::vector<std::string> blocks;  // guarded by mutex
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

// Run under ASan and TSan too: after the release the reader thread must touch nothing freed.
TEST(FactoryReader, ReleasingTheLastReferenceInsideOnNotifyStopsTheReader) {
    for (const std::string type : {"reliable", "discarding"}) {
        SCOPED_TRACE(type);
        ScopedSlotName name("release");
        // In a child: joining itself would abort the process.
        const testsupport::ChildResult child = testsupport::RunInChild(
            [&] {
                const SimpleSlotCfg cfg = Cfg(name, type);
                Outcome outcome;
                Collector other;  // a second subscriber, after the releasing one
                {
                    boost::shared_ptr<ReleasingSubscriber> releasing(
                        new ReleasingSubscriber(outcome));
                    INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg, releasing);
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
                    Write(cfg, "one");
                }
                // The subscriber goes after the reader that held it.
                if (outcome.gone.get_future().wait_for(std::chrono::seconds(20)) !=
                    std::future_status::ready) {
                    return 10;
                }
                if (outcome.blocks != std::vector<std::string>{"one"}) {
                    return 11;
                }
                if (other.Count() != 0) {
                    return 12;  // nobody is called after the release
                }
                if (type == "reliable") {
                    // The rest stayed in the queue, and the claim is free for the next reader.
                    boost::shared_ptr<Collector> next(new Collector);
                    INotifierPtr again = SlotFactory::CreateSlotReader(&cfg, next);
                    if (!next->WaitFor(2)) {
                        return 13;
                    }
                    const std::vector<Collector::Block> rest = next->Blocks();
                    if (rest.size() != 2 || rest[0].bytes != "two" || rest[1].bytes != "three") {
                        return 14;
                    }
                }
                return 0;
            },
            std::chrono::seconds(60));
        EXPECT_TRUE(child.Ok()) << child.Describe();
    }
}

}  // namespace
