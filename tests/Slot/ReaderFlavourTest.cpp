// SPDX-License-Identifier: Apache-2.0
// The factory's readers with and without a spin budget deliver the same: each case runs with
// the ordinary reader, a spinning reader of budget 0 and a spinning reader that spins longer
// than any hand-over takes (a block then arrives while it spins).
#include "ChildProcess.h"
#include "Collector.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/SlotFactory.h>
#include <Slot/WriteOutcome.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <gtest/gtest.h>

#include <sched.h>
#include <chrono>
#include <cstring>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace pt = boost::posix_time;
using testsupport::ChildProcess;
using testsupport::ChildResult;
using testsupport::Collector;
using testsupport::PipeSignal;
using testsupport::ScopedSlotName;

enum class Flavour { Ordinary, BudgetZero, Spinning };

std::string FlavourName(const testing::TestParamInfo<Flavour>& info) {
    switch (info.param) {
        case Flavour::Ordinary:
            return "Ordinary";
        case Flavour::BudgetZero:
            return "BudgetZero";
        default:
            return "Spinning";
    }
}

SimpleSlotCfg Cfg(const std::string& name, const std::string& type,
                  const pt::time_duration& update = pt::milliseconds(500)) {
    return SimpleSlotCfg(name, type, update, 4);
}

class ReaderFlavour : public testing::TestWithParam<Flavour> {
protected:
    INotifierPtr MakeReader(const SimpleSlotCfg& cfg,
                            const ISubscriberPtr& first = ISubscriberPtr()) {
        switch (GetParam()) {
            case Flavour::Ordinary:
                return SlotFactory::CreateSlotReader(&cfg, first);
            case Flavour::BudgetZero:
                return SlotFactory::CreateSpinningSlotReader(&cfg, pt::time_duration(0, 0, 0),
                                                             first);
            default:
                // Longer than a hand-over under a sanitizer; short enough that the spinning
                // threads of a test do not starve a loaded machine for long.
                return SlotFactory::CreateSpinningSlotReader(&cfg, pt::milliseconds(20), first);
        }
    }
};

void Write(const SimpleSlotCfg& cfg, const std::string& bytes) {
    SlotFactory::CreateSlotWriter(&cfg)->onNotify("", bytes.data(), bytes.size());
}

// Writes `count` numbered blocks into a reliable slot as fast as it takes them (a refused write
// is retried), from a process of its own, once `go` is posted.
int WriteNumbered(const SimpleSlotCfg& cfg, PipeSignal& go, int count) {
    ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
    if (!go.WaitFor()) {
        return 2;
    }
    for (int i = 0; i < count; ++i) {
        const std::string block = "block " + std::to_string(i);
        for (;;) {
            writer->onNotify("", block.data(), block.size());
            if (Slot::LastWriteOutcome() != Slot::WriteOutcome::Refused) {
                break;
            }
            sched_yield();
        }
    }
    return 0;
}

// Many blocks through a 4-deep queue from another process: all arrive, once, in order. The
// spinning reader meets most of them while spinning, the others after a sleep.
TEST_P(ReaderFlavour, ReliableDeliversEveryBlockInOrder) {
    ScopedSlotName name("flavourfifo");
    const SimpleSlotCfg cfg = Cfg(name, "reliable");
    const int count = 3000;
    PipeSignal go;
    ChildProcess writer([&] { return WriteNumbered(cfg, go, count); });
    boost::shared_ptr<Collector> collector(new Collector);
    INotifierPtr reader = MakeReader(cfg, collector);
    go.Post();
    const ChildResult result = writer.Wait(std::chrono::seconds(120));
    EXPECT_TRUE(result.Ok()) << result.Describe();
    ASSERT_TRUE(collector->WaitFor(count, std::chrono::seconds(60))) << collector->Count();
    reader.reset();
    const std::vector<Collector::Block> blocks = collector->Blocks();
    ASSERT_EQ(static_cast<size_t>(count), blocks.size());
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ("block " + std::to_string(i), blocks[i].bytes) << "at " << i;
        ASSERT_EQ(std::string(name), blocks[i].name);
    }
}

// A reliable slot has one reader on the machine, whatever its flavour: both factory operations
// are refused with the same text while it lives, in this process and in another one, and the
// reader is announced with the same line.
TEST_P(ReaderFlavour, ReliableClaimIsOnePerMachine) {
    ScopedSlotName name("flavourclaim");
    const SimpleSlotCfg cfg = Cfg(name, "reliable");
    const std::string refusal =
        "Cannot create non-unique reader for reliable slot '" + name.str() + "'";
    testsupport::LogCapture log("Slot", log4cxx::Level::getInfo());
    INotifierPtr reader = MakeReader(cfg);
    EXPECT_EQ(1u, log.Count("INFO", "Creating ReliableSlotReader for " + name.str()));
    for (int spinning = 0; spinning < 2; ++spinning) {
        try {
            if (spinning) {
                SlotFactory::CreateSpinningSlotReader(&cfg, pt::milliseconds(1));
            } else {
                SlotFactory::CreateSlotReader(&cfg);
            }
            ADD_FAILURE() << "a second reader was made";
        } catch (const AbortSlotCreationException& e) {
            EXPECT_EQ(refusal, e.what());
        }
    }
    const ChildResult other = testsupport::RunInChild([&] {
        try {
            SlotFactory::CreateSpinningSlotReader(&cfg, pt::milliseconds(1));
            return 1;
        } catch (const AbortSlotCreationException& e) {
            return refusal == e.what() ? 0 : 3;
        }
    });
    EXPECT_TRUE(other.Ok()) << other.Describe();
    reader.reset();
    EXPECT_NO_THROW(SlotFactory::CreateSpinningSlotReader(&cfg, pt::milliseconds(1)));
}

// A discarding slot hands out its latest state once: writes made while the reader cannot read
// merge into the last of them, and a state older than the update time is never delivered.
TEST_P(ReaderFlavour, DiscardingDeliversTheLatestFreshStateOnce) {
    ScopedSlotName name("flavourlatest");
    const SimpleSlotCfg cfg = Cfg(name, "discarding", pt::milliseconds(300));
    boost::shared_ptr<Collector> collector(new Collector);
    INotifierPtr reader = MakeReader(cfg, collector);
    boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
    ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
    {
        // The writes queue up behind the lock held here and then race the reader.
        slot->GetLockable()->lock();
        std::thread writes([&] {
            for (const char* s : {"one", "two", "three"}) {
                writer->onNotify("", s, std::strlen(s));
            }
        });
        // Nothing to synchronise on: the writes wait for the lock held here.
        slot->GetLockable()->unlock();
        writes.join();
    }
    // The reader may take the piled-up writes one by one or merged; it settles on "three".
    for (;;) {
        const std::vector<Collector::Block> seen = collector->Blocks();
        if (!seen.empty() && seen.back().bytes == "three") {
            break;
        }
        ASSERT_TRUE(collector->WaitFor(seen.size() + 1)) << "stuck after " << seen.size();
    }
    const size_t settled = collector->Count();
    // Written, then kept from the reader for longer than its update time: whenever the reader
    // gets the lock, the block is old, so it expires unseen.
    slot->GetLockable()->lock();
    slot->WriteData("stale", 5);
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    slot->GetLockable()->unlock();
    Write(cfg, "fresh");
    ASSERT_TRUE(collector->WaitFor(settled + 1));
    reader.reset();
    const std::vector<Collector::Block> blocks = collector->Blocks();
    ASSERT_EQ(settled + 1, blocks.size());
    EXPECT_EQ("fresh", blocks.back().bytes);
    for (const Collector::Block& b : blocks) {
        EXPECT_NE("stale", b.bytes);
    }
    EXPECT_EQ("three", blocks[blocks.size() - 2].bytes);
}

// Dropping the last reference inside its own notification stops the reader before anything
// else is delivered, also while it would otherwise go back to spinning.
TEST_P(ReaderFlavour, ReleasedInsideItsOwnNotification) {
    ScopedSlotName name("flavourrelease");
    const SimpleSlotCfg cfg = Cfg(name, "reliable");
    const Flavour flavour = GetParam();
    // In a child: a reader that joined itself would abort the process.
    const ChildResult child = testsupport::RunInChild(
        [&] {
            struct Outcome {
                std::mutex mutex;
                std::vector<std::string> seen;  // guarded by mutex
                std::promise<void> gone;        // the subscriber went, after its reader
            } outcome;
            // Holds the only reference to its reader and drops it in its first notification.
            struct Releasing : shared::ISubscriber {
                explicit Releasing(Outcome& o) : outcome(o) {}
                ~Releasing() override { outcome.gone.set_value(); }
                Outcome& outcome;
                INotifierPtr reader;  // guarded by outcome.mutex
                void onNotify(const std::string&, const void* data, size_t size) override {
                    INotifierPtr last;
                    {
                        std::lock_guard<std::mutex> lock(outcome.mutex);
                        outcome.seen.emplace_back(static_cast<const char*>(data), size);
                        last.swap(reader);
                    }
                    last.reset();
                }
            };
            Collector other;
            {
                boost::shared_ptr<Releasing> releasing(new Releasing(outcome));
                INotifierPtr reader;
                if (flavour == Flavour::Ordinary) {
                    reader = SlotFactory::CreateSlotReader(&cfg, releasing);
                } else {
                    reader = SlotFactory::CreateSpinningSlotReader(
                        &cfg,
                        flavour == Flavour::Spinning ? pt::hours(1) : pt::time_duration(0, 0, 0),
                        releasing);
                }
                reader->subscribe(&other);
                std::lock_guard<std::mutex> lock(outcome.mutex);
                releasing->reader = reader;
            }  // from here on the subscriber and the reader live only through each other
            boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
            slot->GetLockable()->lock();
            slot->WriteData("one", 3);
            slot->WriteData("two", 3);
            slot->GetLockable()->unlock();
            slot->GetOnWriteCondition()->Notify();
            if (outcome.gone.get_future().wait_for(std::chrono::seconds(20)) !=
                std::future_status::ready) {
                return 10;
            }
            // The claim is free again and the second block is still there for the next reader.
            boost::shared_ptr<Collector> next(new Collector);
            INotifierPtr again = SlotFactory::CreateSpinningSlotReader(&cfg, pt::hours(1), next);
            if (!next->WaitFor(1)) {
                return 11;
            }
            std::lock_guard<std::mutex> lock(outcome.mutex);
            if (outcome.seen != std::vector<std::string>{"one"}) {
                return 12;
            }
            if (other.Count() != 0 || next->Blocks()[0].bytes != "two") {
                return 13;
            }
            return 0;  // `again`, spinning for an hour, must stop when it goes
        },
        std::chrono::seconds(90));
    EXPECT_TRUE(child.Ok()) << child.Describe();
}

INSTANTIATE_TEST_SUITE_P(Readers, ReaderFlavour,
                         testing::Values(Flavour::Ordinary, Flavour::BudgetZero, Flavour::Spinning),
                         FlavourName);

// Destroying a reader that spins with a budget far beyond the test's time-out returns: the
// spin ends on the stop request instead of running out. Also right after a delivery, when the
// reader has just gone back to spinning. (A hang shows as the child's watchdog.)
TEST(SpinningReader, StopsWhileSpinning) {
    for (const std::string type : {"reliable", "discarding"}) {
        SCOPED_TRACE(type);
        ScopedSlotName name("spinstop");
        const SimpleSlotCfg cfg = Cfg(name, type, pt::milliseconds(200));
        const ChildResult child = testsupport::RunInChild(
            [&] {
                { INotifierPtr idle = SlotFactory::CreateSpinningSlotReader(&cfg, pt::hours(1)); }
                boost::shared_ptr<Collector> collector(new Collector);
                INotifierPtr reader =
                    SlotFactory::CreateSpinningSlotReader(&cfg, pt::hours(1), collector);
                Write(cfg, "block");
                if (!collector->WaitFor(1)) {
                    return 10;
                }
                reader.reset();
                return 0;
            },
            std::chrono::seconds(60));
        EXPECT_TRUE(child.Ok()) << child.Describe();
    }
}

// A budget that is negative or infinite is refused with its own text before anything is made;
// a posix-pipe slot, which has no write signal, gets its ordinary reader.
TEST(SpinningReader, RefusesBadBudgetsAndIgnoresThemForPipes) {
    ScopedSlotName name("spinbad");
    const SimpleSlotCfg cfg = Cfg(name, "reliable");
    const std::string tail =
        " of '" + name.str() + "': a spinning reader needs a finite budget of 0 or more";
    try {
        SlotFactory::CreateSpinningSlotReader(&cfg, pt::microseconds(-1));
        ADD_FAILURE() << "negative budget accepted";
    } catch (const AbortSlotCreationException& e) {
        EXPECT_EQ("Invalid spin budget -00:00:00.000001" + tail, e.what());
    }
    try {
        SlotFactory::CreateSpinningSlotReader(&cfg, pt::time_duration(pt::pos_infin));
        ADD_FAILURE() << "infinite budget accepted";
    } catch (const AbortSlotCreationException& e) {
        EXPECT_EQ("Invalid spin budget +infinity" + tail, e.what());
    }
    EXPECT_TRUE(testsupport::LeftoverShmObjects().empty());
}

}  // namespace
