// SPDX-License-Identifier: Apache-2.0
// Zero-copy pools: loans and their outcomes, holds, both kinds across processes, damaged files,
// creation, and the return of a dead process's blocks.
#include "ChildProcess.h"
#include "Collector.h"
#include "Eventually.h"
#include "LogCapture.h"
#include "PoolTestSupport.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/PoolBlock.h>
#include <Slot/PoolFactory.h>
#include <Slot/PoolSegment.h>
#include <Slot/PoolSurvey.h>
#include <Slot/WriteOutcome.h>
#include <shared/CrashPoint.h>

#include <boost/make_shared.hpp>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace {

using pooltest::Check;
using pooltest::Fill;
using pooltest::MoveToOtherPidNamespace;
using pooltest::Poke;
using pooltest::PoolTest;
using pooltest::ScopedPool;
using pooltest::SleepUntilKilled;
using Slot::PoolFactory;
using Slot::WriteOutcome;
using testsupport::Eventually;

std::string Thrown(const std::function<void()>& action) {
    try {
        action();
    } catch (const AbortSlotCreationException& e) {
        return e.what();
    }
    return "(nothing thrown)";
}

std::string WriterError(const Slot::PoolConfig& config) {
    return Thrown([&] { PoolFactory::CreatePoolWriter(config); });
}

std::string ReaderError(const Slot::PoolConfig& config,
                        const ISubscriberPtr& subscriber = ISubscriberPtr()) {
    return Thrown([&] { PoolFactory::CreatePoolReader(config, subscriber); });
}

// What an open of the pool `name` that is refused throws.
std::string CannotOpen(const std::string& name, const std::string& why) {
    return "Cannot open pool '" + name + "': " + why;
}

// The ERROR line of a pool found damaged.
std::string DamagedLine(const std::string& name, const std::string& what) {
    return "Pool '" + name + "' is damaged: " + what;
}

WriteOutcome Publish(Slot::PoolWriter& writer, std::size_t size, std::uint64_t tag) {
    Slot::PoolLoan loan = writer.loan(size);
    if (!loan) {
        return loan.outcome();
    }
    Fill(loan.data(), size, tag);
    return loan.publish(size);
}

// A u64 field of the pool's header.
std::uint64_t HeaderField(const std::string& name, std::size_t offset) {
    std::uint64_t value = 0;
    const int fd = ::open(Slot::PoolPath(name).c_str(), O_RDONLY);
    EXPECT_EQ(static_cast<ssize_t>(sizeof(value)),
              ::pread(fd, &value, sizeof(value), static_cast<off_t>(offset)));
    ::close(fd);
    return value;
}

// Where the pool's table of blocks starts in its file.
std::uint64_t BlockTable(const std::string& name) {
    return HeaderField(name, offsetof(Slot::PoolHeader, blockTableOffset));
}

// The ERROR line that the reaping of a dead process's entry logs.
std::string DiedLine(const std::string& pool, pid_t pid, int blocks) {
    return "Pool '" + pool + "': process " + std::to_string(pid) + " died; " +
           std::to_string(blocks) + " block(s) it held or had loaned returned to the pool";
}

// True when a second reader of the queue pool is refused because it has one.
bool HasReader(const Slot::PoolConfig& config) {
    return ReaderError(config).find("it has one") != std::string::npos;
}

// The tags of the blocks a collector received, in order.
std::vector<std::uint64_t> Tags(const testsupport::Collector& collector) {
    std::vector<std::uint64_t> tags;
    for (const auto& block : collector.Blocks()) {
        tags.push_back(Check(block.bytes.data(), block.bytes.size()));
    }
    return tags;
}

// Waits until `child` stops (at an armed crash point) or ends; its wait status.
int StoppedOrEnded(const testsupport::ChildProcess& child) {
    int status = 0;
    EXPECT_TRUE(Eventually(
        [&] { return ::waitpid(child.Pid(), &status, WNOHANG | WUNTRACED) == child.Pid(); }));
    return status;
}

// Keeps a hold on every block it is given (unless `hold` is false: then an empty one), then
// runs `after`.
class Holder : public shared::ISubscriber {
public:
    void onNotify(const std::string&, const void*, size_t) override {
        {
            std::lock_guard<std::mutex> lock(mutex);
            held.push_back(hold ? Slot::HoldCurrentBlock() : Slot::PoolBlock());
            sequences.push_back(Slot::CurrentBlockSequence());
        }
        if (after) {
            after();
        }
    }
    std::size_t Count() {
        std::lock_guard<std::mutex> lock(mutex);
        return held.size();
    }
    // The tag of the `i`th block held (~0 when torn).
    std::uint64_t Tag(std::size_t i) {
        std::lock_guard<std::mutex> lock(mutex);
        return Check(held.at(i).data(), held.at(i).size());
    }
    void Release() {
        std::lock_guard<std::mutex> lock(mutex);
        held.clear();
    }
    bool hold = true;
    std::function<void()> after;
    std::mutex mutex;
    std::vector<Slot::PoolBlock> held;
    std::vector<std::uint64_t> sequences;
};

TEST_F(PoolTest, ConfigurationIsCheckedAndLaterOpenersGetTheCreatorsGeometry) {
    const std::pair<Slot::PoolConfig, const char*> problems[] = {
        {{"", "latest", 8, 1}, "the name is empty"},
        {{".libslot-new-1-2", "latest", 8, 1},
         "the name starts with \".libslot-new-\", which is reserved"},
        {{"p", "reliable", 8, 1}, "the kind 'reliable' is not \"latest\" or \"queue\""},
        {{"p", "queue", 0, 1}, "the block size 0 is not in 1..4294967295"},
        {{"p", "queue", 8, 65}, "the block count 65 is not in 1..64"},
        // The latest block is kept for later readers: one block would take one publish only.
        {{"p", "latest", 8, 1},
         "the block count 1 is not in 2..64: a \"latest\" pool keeps its latest block"},
        {{"p", "queue", 8, 1}, "(none)"},
    };
    for (const auto& [config, problem] : problems) {
        EXPECT_EQ(problem, Slot::PoolConfigProblem(config).value_or("(none)"));
    }
    // 64 blocks of 4 GiB fit a 64-bit process only.
    EXPECT_EQ(sizeof(std::size_t) == 4,
              Slot::PoolConfigProblem({"p", "queue", Slot::MaxPoolBlockSize, 64}).has_value());
    EXPECT_EQ("Cannot open pool '': the name is empty", WriterError({"", "latest", 8, 1}));

    ScopedPool pool;
    auto writer = PoolFactory::CreatePoolWriter(pool.Config("latest", 100, 4));
    auto later = PoolFactory::CreatePoolWriter(pool.Config("latest", 1000, 9));
    EXPECT_EQ(100u, later->maxBlockSize());
    EXPECT_EQ(4u, Slot::SurveyPool(pool.str()).blockCount);
    EXPECT_EQ(CannotOpen(pool.str(), "it is a \"latest\" pool, not \"queue\""),
              ReaderError(pool.Config("queue", 100, 4)));
}

// A pool belongs to its creator, as a slot does: another user may survey it but not attach, so
// nobody else can truncate it under its users or rewrite its blocks. Nobody attaches to a pool
// file of another user (one planted under the name) or one others may write; a pool of one's
// own made writable for all by an earlier build is made 0644.
TEST_F(PoolTest, OnlyThePoolsOwnerAttaches) {
    ScopedPool pool;
    const std::string path = Slot::PoolPath(pool.str());
    auto writer = PoolFactory::CreatePoolWriter(pool.Config("queue", 64, 2));
    auto mode = [&] {
        struct stat st;
        return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
    };
    EXPECT_EQ(0644u, mode());
    ASSERT_EQ(0, ::chmod(path.c_str(), 0666));
    PoolFactory::CreatePoolReader(pool.Config("queue", 64, 2));
    EXPECT_EQ(0644u, mode());
    if (::geteuid() != 0) {
        GTEST_SKIP() << "another user's attempts need root to become that user";
    }
    auto asNobody = [](const std::function<int()>& action) {
        const testsupport::ChildResult result = testsupport::RunInChild([&] {
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
                return testsupport::Failed(2, "cannot become nobody");
            }
            return action();
        });
        EXPECT_TRUE(result.Ok()) << result.Describe();
    };
    auto attaching = [&](const std::string& why) {
        const auto config = pool.Config("queue", 64, 2);
        const std::string refused = CannotOpen(pool.str(), why);
        if (WriterError(config) != refused) {
            return testsupport::Failed(4, "writer attached");
        }
        if (ReaderError(config, boost::make_shared<testsupport::Collector>()) != refused) {
            return testsupport::Failed(5, "reader attached");
        }
        return 0;
    };
    asNobody([&] {
        if (Slot::SurveyPool(pool.str()).blockCount != 2) {
            return testsupport::Failed(3, "no survey");
        }
        return attaching("Permission denied");
    });
    // Root's file that others may write: another user refuses it and leaves it as it is.
    ASSERT_EQ(0, ::chmod(path.c_str(), 0666));
    asNobody([&] { return attaching("others may write the file (mode 0666)"); });
    EXPECT_EQ(0666u, mode());
    // A file planted by another user: root refuses it.
    ASSERT_EQ(0, ::chown(path.c_str(), 65534, 65534));
    ASSERT_EQ(0, ::chmod(path.c_str(), 0644));
    EXPECT_EQ(0, attaching("the file belongs to uid 65534, not to root or this user"));
}

TEST_F(PoolTest, LoansRecordTheirOutcomesAndDroppedLoansReturn) {
    ScopedPool pool;
    auto writer = PoolFactory::CreatePoolWriter(pool.Config("latest", 64, 2));
    Slot::PoolLoan tooLarge = writer->loan(65);
    EXPECT_FALSE(tooLarge);
    EXPECT_EQ(WriteOutcome::Refused, Slot::LastWriteOutcome());

    Slot::PoolLoan first = writer->loan(10);
    ASSERT_TRUE(first);
    EXPECT_EQ(64u, first.capacity());
    Fill(first.data(), 10, 1);
    EXPECT_EQ(WriteOutcome::Stored, first.publish(10));
    EXPECT_EQ(WriteOutcome::Stored, Slot::LastWriteOutcome());
    EXPECT_EQ(1u, first.sequence());
    // Nobody took the first block: the second publish discards it.
    EXPECT_EQ(WriteOutcome::Discarded, Publish(*writer, 10, 2));
    // Too long for the block: refused, and the block goes back.
    Slot::PoolLoan overlong = writer->loan(8);
    EXPECT_EQ(WriteOutcome::Refused, overlong.publish(65));
    EXPECT_EQ(WriteOutcome::Refused, Slot::LastWriteOutcome());

    // One block is the latest, one is free: a second loan is refused until the first drops.
    Slot::PoolLoan taken = writer->loan(1);
    ASSERT_TRUE(taken);
    Slot::PoolLoan none = writer->loan(1);
    EXPECT_FALSE(none);
    EXPECT_EQ(1u, Slot::SurveyPool(pool.str()).loanedBlocks);
    taken = Slot::PoolLoan();
    EXPECT_EQ(1u, Slot::SurveyPool(pool.str()).freeBlocks);
    EXPECT_TRUE(writer->loan(1));

    // An empty loan's publish repeats its outcome without counting it again.
    EXPECT_EQ(WriteOutcome::Refused, none.publish(1));
    const Slot::WriteCounts counts = Slot::GetWriteCounts(pool.str());
    EXPECT_EQ(1u, counts.stored);
    EXPECT_EQ(1u, counts.discarded);
    EXPECT_EQ(3u, counts.refused);
    EXPECT_EQ(0u, counts.failed);
}

// Both kinds: a reader's hold is made only when its subscriber asks, and then keeps the block
// out of every loan until its last copy goes; a queue block nobody holds is free again as soon
// as its delivery returns.
TEST_F(PoolTest, HeldBlocksAreNeverLoanedAgainAndKeepTheirBytes) {
    for (const char* kind : {"latest", "queue"}) {
        SCOPED_TRACE(kind);
        ScopedPool pool;
        const auto config = pool.Config(kind, 256, 3);
        auto writer = PoolFactory::CreatePoolWriter(config);
        auto holder = boost::make_shared<Holder>();
        auto reader = PoolFactory::CreatePoolReader(config, holder);
        for (std::uint64_t tag = 1; tag <= 3; ++tag) {
            ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 100 + tag, tag));
            ASSERT_TRUE(Eventually([&] { return holder->Count() == tag; }));
        }
        EXPECT_FALSE(Slot::HoldCurrentBlock());
        EXPECT_EQ(0u, Slot::CurrentBlockSequence());

        Slot::PoolReport report = Slot::SurveyPool(config.name);
        EXPECT_EQ(3u, report.heldBlocks);
        EXPECT_EQ(std::vector<pid_t>{::getpid()}, report.holders);
        EXPECT_EQ(WriteOutcome::Refused, Publish(*writer, 8, 99));
        {
            std::lock_guard<std::mutex> lock(holder->mutex);
            EXPECT_EQ((std::vector<std::uint64_t>{1, 2, 3}), holder->sequences);
            for (std::uint64_t tag = 1; tag <= 3; ++tag) {
                const Slot::PoolBlock& block = holder->held[tag - 1];
                EXPECT_EQ(tag, block.sequence());
                EXPECT_EQ(100 + tag, block.size());
                EXPECT_EQ(tag, Check(block.data(), block.size()));
            }
            // Copies count: the block returns only when the last one goes.
            Slot::PoolBlock copy = holder->held[0];
            holder->held.erase(holder->held.begin());
            EXPECT_EQ(WriteOutcome::Refused, Publish(*writer, 8, 99));
            holder->held.clear();
        }
        if (std::string(kind) == "queue") {
            EXPECT_EQ(3u, Slot::SurveyPool(config.name).freeBlocks);
            reader->unsubscribe(holder.get());
            auto plain = boost::make_shared<Holder>();
            plain->hold = false;
            reader->subscribe(plain.get());
            ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 8, 4));
            ASSERT_TRUE(Eventually([&] { return plain->Count() == 1; }));
            EXPECT_TRUE(Eventually([&] { return Slot::SurveyPool(config.name).freeBlocks == 3; }));
            reader->unsubscribe(plain.get());
        } else {
            EXPECT_EQ(WriteOutcome::Stored, Publish(*writer, 8, 4));
        }
    }
}

TEST_F(PoolTest, LatestKindDeliversEachNewStateOnceToEveryReaderProcess) {
    ScopedPool pool;
    const auto config = pool.Config("latest", 4096, 4);
    constexpr std::uint64_t kLast = 300;
    testsupport::PipeSignal ready;  // posted by each reader
    std::vector<std::unique_ptr<testsupport::ChildProcess>> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back(new testsupport::ChildProcess([&config, &ready] {
            struct Verifier : shared::ISubscriber {
                std::atomic<int> error{0};
                std::atomic<bool> done{false};
                std::uint64_t last = 0;
                void onNotify(const std::string&, const void* data, size_t size) override {
                    const std::uint64_t sequence = Slot::CurrentBlockSequence();
                    const std::uint64_t tag = Check(data, size);
                    if (sequence <= last) {
                        error = 2;  // delivered twice or out of order
                    } else if (tag == ~0ull) {
                        error = 3;  // torn
                    }
                    last = sequence;
                    done = done || tag == kLast;
                }
            };
            auto verifier = boost::make_shared<Verifier>();
            auto reader = PoolFactory::CreatePoolReader(config, verifier);
            ready.Post();
            if (!Eventually([&] { return verifier->done.load(); }, std::chrono::seconds(30))) {
                return testsupport::Failed(4, "the last block never came");
            }
            return verifier->error.load();
        }));
    }
    auto writer = PoolFactory::CreatePoolWriter(config);
    for (int r = 0; r < 3; ++r) {
        ASSERT_TRUE(ready.WaitFor());
    }
    for (std::uint64_t tag = 1; tag <= kLast; ++tag) {
        // A block still held by a slow reader may leave none free for a moment.
        ASSERT_TRUE(Eventually(
            [&] { return Publish(*writer, 8 + tag * 13, tag) != WriteOutcome::Refused; }));
    }
    for (auto& reader : readers) {
        EXPECT_TRUE(reader->Wait().Ok());
    }
}

TEST_F(PoolTest, QueueKindIsFifoAcrossProcessesWithOneReader) {
    ScopedPool pool;
    const auto config = pool.Config("queue", 1024, 4);
    constexpr std::uint64_t kBlocks = 200;
    testsupport::PipeSignal go;
    testsupport::PipeSignal readerUp;
    std::vector<std::unique_ptr<testsupport::ChildProcess>> children;
    for (std::uint64_t w = 1; w <= 2; ++w) {
        children.emplace_back(new testsupport::ChildProcess([&config, &go, w] {
            auto writer = PoolFactory::CreatePoolWriter(config);
            go.WaitFor();
            for (std::uint64_t n = 0; n < kBlocks; ++n) {
                // Refused while the queue is full; retried until stored.
                if (!Eventually([&] {
                        return Publish(*writer, 16 + n, w << 32 | n) == WriteOutcome::Stored;
                    })) {
                    return testsupport::Failed(2, "never stored");
                }
            }
            return 0;
        }));
    }
    children.emplace_back(new testsupport::ChildProcess([&config, &readerUp] {
        readerUp.WaitFor();
        const std::string text = ReaderError(config);
        const std::string expected = "Cannot create a second reader for queue pool '" +
                                     config.name + "': it has one (process " +
                                     std::to_string(::getppid()) + ")";
        return text == expected ? 0 : testsupport::Failed(3, text);
    }));

    auto collector = boost::make_shared<testsupport::Collector>();
    auto reader = PoolFactory::CreatePoolReader(config, collector);
    readerUp.Post();
    go.Post();
    go.Post();
    ASSERT_TRUE(collector->WaitFor(2 * kBlocks));
    for (auto& child : children) {
        EXPECT_TRUE(child->Wait().Ok());
    }
    std::uint64_t next[3] = {0, 0, 0};
    for (const auto& block : collector->Blocks()) {
        const std::uint64_t tag = Check(block.bytes.data(), block.bytes.size());
        ASSERT_NE(~0ull, tag);
        EXPECT_EQ(next[tag >> 32]++, tag & 0xffffffffu) << "writer " << (tag >> 32);
    }
    EXPECT_EQ(kBlocks, next[1]);
    EXPECT_EQ(kBlocks, next[2]);
    EXPECT_EQ(2 * kBlocks, collector->Count());
}

// A writer that got a loan always finds room in the ring: the reader frees a delivered block
// only after its entry has left the ring, also for a writer reclaiming meanwhile.
TEST_F(PoolTest, ALoanedBlockAlwaysFindsRoomInTheQueue) {
    ScopedPool pool;
    const auto config = pool.Config("queue", 64, 2);
    constexpr std::uint64_t kBlocks = 500000;
    struct Counter : shared::ISubscriber {
        void onNotify(const std::string&, const void*, size_t) override { ++count; }
        std::atomic<std::uint64_t> count{0};
    };
    auto counter = boost::make_shared<Counter>();
    auto reader =
        PoolFactory::CreateSpinningPoolReader(config, boost::posix_time::milliseconds(10), counter);
    auto writer = PoolFactory::CreatePoolWriter(config);
    // A count, bounded in time: on a machine busy with other tests the two threads meet less.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::uint64_t published = 0, notStored = 0;
    for (; published < kBlocks && std::chrono::steady_clock::now() < until; ++published) {
        Slot::PoolLoan loan = writer->loan(64);
        while (!loan) {
            ASSERT_EQ(WriteOutcome::Refused, loan.outcome());
            std::this_thread::yield();
            loan = writer->loan(64);
        }
        notStored += loan.publish(64) != WriteOutcome::Stored;
    }
    EXPECT_EQ(0u, notStored);
    EXPECT_TRUE(Eventually([&] { return counter->count == published - notStored; }));
}

// A reader killed after marking the block at the head Consumed, before moving the head, leaves
// its entry behind, also as the entry pushed last: the next reader delivers nothing of it, then
// what follows in order, each block with the sequence of its place in the ring.
TEST_F(PoolTest, AnEntryAKilledReaderLeftAtTheHeadIsNeverDelivered) {
    ScopedPool pool;
    const auto config = pool.Config("queue", 64, 2);
    auto writer = PoolFactory::CreatePoolWriter(config);
    ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 16, 1));  // the lowest block, 0
    Poke(pool.str(), BlockTable(pool.str()) + offsetof(Slot::PoolBlockSlot, state),
         Slot::StateConsumed | 1);

    auto collector = boost::make_shared<testsupport::Collector>();
    std::vector<std::uint64_t> sequences;  // reader thread, read after WaitFor
    collector->action = [&sequences] { sequences.push_back(Slot::CurrentBlockSequence()); };
    auto reader = PoolFactory::CreateSpinningPoolReader(config, boost::posix_time::milliseconds(1),
                                                        collector);
    // Past the left entry before anything else is pushed (its block, reclaimed, is loaned next).
    ASSERT_TRUE(
        Eventually([&] { return HeaderField(pool.str(), offsetof(Slot::PoolHeader, head)) == 1; }));
    for (std::uint64_t tag = 2; tag <= 4; ++tag) {
        // Refused while the left entry still fills the ring.
        ASSERT_TRUE(Eventually([&] { return Publish(*writer, 16, tag) == WriteOutcome::Stored; }));
        ASSERT_TRUE(collector->WaitFor(tag - 1));
    }
    reader.reset();
    EXPECT_EQ((std::vector<std::uint64_t>{2, 3, 4}), Tags(*collector));
    EXPECT_EQ((std::vector<std::uint64_t>{2, 3, 4}), sequences);
}

// glibc's mutex is laid out differently for 32- and 64-bit processes: a queue pool (whose
// writers share one) is refused to a process of the other width; a latest pool has none.
TEST_F(PoolTest, AQueuePoolIsOpenedByProcessesOfItsCreatorsWidthOnly) {
    ScopedPool queue, latest;
    const std::uint32_t other = sizeof(void*) == 8 ? 32 : 64;
    const std::uint32_t own = 96 - other;
    PoolFactory::CreatePoolWriter(queue.Config("queue", 64, 2));
    PoolFactory::CreatePoolWriter(latest.Config("latest", 64, 2));
    EXPECT_EQ(own,
              HeaderField(queue.str(), offsetof(Slot::PoolHeader, writerMutexBits)) & 0xffffffffu);
    Poke(queue.str(), offsetof(Slot::PoolHeader, writerMutexBits), other);
    Poke(latest.str(), offsetof(Slot::PoolHeader, writerMutexBits), other);
    const std::string refused =
        CannotOpen(queue.str(), "it is a \"queue\" pool of " + std::to_string(other) +
                                    "-bit processes, this one is " + std::to_string(own) + "-bit");
    EXPECT_EQ(refused, WriterError(queue.Config("queue", 64, 2)));
    EXPECT_EQ(refused, ReaderError(queue.Config("queue", 64, 2)));
    EXPECT_EQ("(nothing thrown)", ReaderError(latest.Config("latest", 64, 2)));
}

TEST_F(PoolTest, DamagedPoolFilesGiveClearErrorsAndNoStrayReads) {
    ScopedPool pool;
    const auto config = pool.Config("latest", 64, 2);
    PoolFactory::CreatePoolWriter(config);
    const std::uint64_t totalSize = HeaderField(pool.str(), offsetof(Slot::PoolHeader, totalSize));
    const auto refusal = [&](const std::string& why) { return CannotOpen(pool.str(), why); };

    Poke(pool.str(), offsetof(Slot::PoolHeader, version), std::uint32_t{1});
    EXPECT_EQ(refusal("layout version 1, expected 4"), WriterError(config));
    Poke(pool.str(), offsetof(Slot::PoolHeader, version), Slot::PoolLayoutVersion);
    Poke(pool.str(), offsetof(Slot::PoolHeader, blockCount), std::uint64_t{65});
    EXPECT_EQ(refusal("block count 65 or size 64 out of range"), WriterError(config));
    Poke(pool.str(), offsetof(Slot::PoolHeader, blockCount), std::uint64_t{3});
    EXPECT_EQ(refusal("inconsistent geometry"), WriterError(config));
    Slot::PoolReport report = Slot::SurveyPool(pool.str());
    EXPECT_EQ("damaged", report.state);
    EXPECT_EQ("inconsistent geometry", report.problem);
    Poke(pool.str(), offsetof(Slot::PoolHeader, blockCount), std::uint64_t{2});
    ASSERT_EQ(0, ::truncate(Slot::PoolPath(pool.str()).c_str(), totalSize - 1));
    EXPECT_EQ(refusal("the file has " + std::to_string(totalSize - 1) + " bytes, the pool needs " +
                      std::to_string(totalSize)),
              WriterError(config));
    ASSERT_EQ(0, ::truncate(Slot::PoolPath(pool.str()).c_str(), 100));
    EXPECT_EQ(refusal("the file has 100 bytes, less than a header"), ReaderError(config));

    // Words out of range inside a healthy file: the reader logs it and reads nothing.
    ScopedPool latest;
    const auto latestConfig = latest.Config("latest", 64, 2);
    auto writer = PoolFactory::CreatePoolWriter(latestConfig);
    ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 16, 1));
    Poke(latest.str(), offsetof(Slot::PoolHeader, latest), Slot::BlockRef(7, 200));
    EXPECT_EQ("the latest word names block 200", Slot::SurveyPool(latest.str()).problem);
    testsupport::LogCapture log("Slot.Pool");
    const auto logged = [&](const std::string& name, const std::string& what) {
        return Eventually([&] { return log.Count("ERROR", DamagedLine(name, what)) == 1; });
    };
    auto collector = boost::make_shared<testsupport::Collector>();
    {
        auto reader = PoolFactory::CreatePoolReader(latestConfig, collector);
        EXPECT_TRUE(logged(latest.str(), "the latest word names block 200"));
    }
    // The writer that meets the bad word learns of it: that publish and the next fail.
    EXPECT_EQ(WriteOutcome::Failed, Publish(*writer, 16, 2));
    EXPECT_EQ(WriteOutcome::Failed, Publish(*writer, 16, 3));
    EXPECT_EQ(WriteOutcome::Failed, Slot::LastWriteOutcome());
    // A latest word with a sequence never handed out would hold back every later state.
    ScopedPool ahead;
    auto aheadWriter = PoolFactory::CreatePoolWriter(ahead.Config("latest", 64, 2));
    ASSERT_EQ(WriteOutcome::Stored, Publish(*aheadWriter, 16, 1));
    Poke(ahead.str(), offsetof(Slot::PoolHeader, latest), Slot::BlockRef(1000, 0));
    const std::string beyond =
        "the latest word names sequence 1000, beyond the last one handed out";
    EXPECT_EQ(beyond + " (1)", Slot::SurveyPool(ahead.str()).problem);
    EXPECT_EQ(WriteOutcome::Failed, Publish(*aheadWriter, 16, 2));
    EXPECT_EQ(1u, log.Count("ERROR", DamagedLine(ahead.str(), beyond + " (2)")));

    ScopedPool queue;
    const auto queueConfig = queue.Config("queue", 64, 2);
    auto queueWriter = PoolFactory::CreatePoolWriter(queueConfig);
    ASSERT_EQ(WriteOutcome::Stored, Publish(*queueWriter, 16, 1));
    ASSERT_EQ(WriteOutcome::Stored, Publish(*queueWriter, 16, 2));
    Poke(queue.str(), HeaderField(queue.str(), offsetof(Slot::PoolHeader, ringOffset)),
         Slot::BlockRef(1, 77));
    auto queueReader = PoolFactory::CreatePoolReader(queueConfig, collector);
    ASSERT_TRUE(collector->WaitFor(1));
    EXPECT_TRUE(logged(queue.str(), "a ring entry names block 77"));
    ASSERT_EQ(1u, collector->Count());
    EXPECT_EQ(2u, Check(collector->Blocks()[0].bytes.data(), 16));

    // A writers' mutex whose kind word was overwritten never reaches glibc (which asserts on
    // some kinds): the pool is damaged for the writer that meets it.
    ScopedPool mutex;
    auto mutexWriter = PoolFactory::CreatePoolWriter(mutex.Config("queue", 64, 2));
    ASSERT_EQ(WriteOutcome::Stored, Publish(*mutexWriter, 16, 1));
    Poke(mutex.str(),
         offsetof(Slot::PoolHeader, writerMutex) + offsetof(pthread_mutex_t, __data.__kind),
         std::int32_t{0x2345});
    EXPECT_EQ(WriteOutcome::Failed, Publish(*mutexWriter, 16, 2));
    EXPECT_EQ(1u, log.Count("ERROR", DamagedLine(mutex.str(),
                                                 "the writers' lock: the lock is "
                                                 "not a robust lock (kind 9029)")));
    EXPECT_EQ(WriteOutcome::Failed, Publish(*mutexWriter, 16, 3));
}

// A stray write over the geometry of a pool that is open already: the processes that opened it
// keep the geometry they checked, for loans as for the ring and the deliveries.
TEST_F(PoolTest, AGeometryRewrittenAfterOpenIsNeverFollowed) {
    ScopedPool pool;
    const auto config = pool.Config("queue", 64, 2);
    auto writer = PoolFactory::CreatePoolWriter(config);
    auto collector = boost::make_shared<testsupport::Collector>();
    auto reader = PoolFactory::CreatePoolReader(config, collector);
    Poke(pool.str(), offsetof(Slot::PoolHeader, kind), std::uint32_t{Slot::LatestKind});
    Poke(pool.str(), offsetof(Slot::PoolHeader, maxBlockSize), std::uint64_t{1} << 30);
    Poke(pool.str(), offsetof(Slot::PoolHeader, blockCount), std::uint64_t{0});

    EXPECT_FALSE(writer->loan(4096));
    EXPECT_EQ(64u, writer->maxBlockSize());
    for (std::uint64_t tag = 1; tag <= 3; ++tag) {
        ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 16, tag));
        ASSERT_TRUE(collector->WaitFor(tag));
    }
    EXPECT_EQ((std::vector<std::uint64_t>{1, 2, 3}), Tags(*collector));
}

// A survey reads without locks while another process rewrites the file: scribbles over the
// geometry, or truncates the file and makes it whole again (as its owner may). It reports what
// it read, never follows an offset it did not check, and never faults as a mapping of vanished
// pages would (SIGBUS).
TEST_F(PoolTest, ASurveyWithstandsAFileRewrittenWhileItIsRead) {
    const auto surveyWhile = [](const std::string& name, const std::function<int(int)>& rewrite) {
        testsupport::ChildProcess rewriter([&] {
            testsupport::DieWithParent();
            const int fd = ::open(Slot::PoolPath(name).c_str(), O_RDWR);
            return fd < 0 ? testsupport::Failed(2, "cannot open the pool file") : rewrite(fd);
        });
        const testsupport::ChildResult surveys = testsupport::RunInChild([&] {
            const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
            for (int i = 0; i < 20000 && std::chrono::steady_clock::now() < end; ++i) {
                Slot::SurveyPool(name);
            }
            return 0;
        });
        testsupport::ChildResult ended;
        EXPECT_FALSE(rewriter.Poll(&ended)) << ended.Describe();
        rewriter.Kill(SIGKILL);
        rewriter.Wait();
        EXPECT_TRUE(surveys.Ok()) << surveys.Describe();
    };
    ScopedPool scribbled, truncated;
    PoolFactory::CreatePoolWriter(scribbled.Config("queue", 64, 2));
    surveyWhile(scribbled.str(), [](int fd) {
        void* header =
            ::mmap(nullptr, sizeof(Slot::PoolHeader), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (header == MAP_FAILED) {
            return testsupport::Failed(3, "cannot map the header");
        }
        auto* offset = reinterpret_cast<volatile std::uint64_t*>(
            static_cast<unsigned char*>(header) + offsetof(Slot::PoolHeader, attachmentOffset));
        const std::uint64_t good = *offset;
        for (;;) {
            *offset = std::uint64_t{1} << 40;
            *offset = good;
        }
    });
    PoolFactory::CreatePoolWriter(truncated.Config("latest", 64, 4));
    surveyWhile(truncated.str(), [](int fd) {
        Slot::PoolHeader header;
        if (::pread(fd, &header, sizeof(header), 0) != sizeof(header)) {
            return testsupport::Failed(3, "cannot read the header");
        }
        std::vector<unsigned char> tables(header.dataOffset);
        if (::pread(fd, tables.data(), tables.size(), 0) != static_cast<ssize_t>(tables.size())) {
            return testsupport::Failed(4, "cannot read the tables");
        }
        for (;;) {
            if (::ftruncate(fd, 0) != 0 ||
                ::ftruncate(fd, static_cast<off_t>(header.totalSize)) != 0 ||
                ::pwrite(fd, tables.data(), tables.size(), 0) !=
                    static_cast<ssize_t>(tables.size())) {
                return testsupport::Failed(5, "cannot truncate and restore the file");
            }
        }
    });
}

// Anyone may plant a FIFO in the pools' folder: opening the pool or surveying it refuses it at
// once instead of waiting for a writer of the FIFO.
TEST_F(PoolTest, AFifoUnderAPoolsNameIsRefusedWithoutWaiting) {
    ScopedPool folderMaker, pool;
    PoolFactory::CreatePoolWriter(folderMaker.Config("queue", 64, 1));
    ASSERT_EQ(0, ::mkfifo(Slot::PoolPath(pool.str()).c_str(), 0600));
    const testsupport::ChildResult result = testsupport::RunInChild(
        [&] {
            const std::string thrown = WriterError(pool.Config("queue", 64, 2));
            if (thrown != CannotOpen(pool.str(), "not a regular file")) {
                return testsupport::Failed(2, thrown);
            }
            const Slot::PoolReport report = Slot::SurveyPool(pool.str());
            return report.problem == "not a regular file" ? 0
                                                          : testsupport::Failed(3, report.problem);
        },
        std::chrono::seconds(10));
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

TEST_F(PoolTest, CreationIsAtomicAndCleansUpAfterDeadCreators) {
    ScopedPool pool;
    const auto config = pool.Config("queue", 1 << 20, 8);
    std::vector<std::unique_ptr<testsupport::ChildProcess>> creators;
    testsupport::PipeSignal go;
    for (std::uint64_t c = 0; c < 4; ++c) {
        creators.emplace_back(new testsupport::ChildProcess([&config, &go, c] {
            go.WaitFor();
            auto writer = PoolFactory::CreatePoolWriter(config);
            return Publish(*writer, 1000, c) == WriteOutcome::Stored ? 0 : 2;
        }));
    }
    for (int c = 0; c < 4; ++c) {
        go.Post();
    }
    for (auto& creator : creators) {
        EXPECT_TRUE(creator->Wait().Ok());
    }
    const Slot::PoolReport report = Slot::SurveyPool(pool.str());
    EXPECT_EQ("healthy", report.state);
    EXPECT_EQ(4u, report.waitingBlocks);
    const std::vector<std::string> pools = Slot::ListPools();
    EXPECT_EQ(1, std::count(pools.begin(), pools.end(), pool.str()));

    // A temporary is its creator's while the creator holds its lock, whatever its pid names here (a
    // creator in another pid namespace); one whose creator died is removed by the next creation.
    const std::string stale =
        Slot::PoolPath(Slot::PoolTemporaryPrefix + std::to_string(creators.front()->Pid()) + "-0");
    const int fd = ::open(stale.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_start = static_cast<off_t>(Slot::PoolCreatorLockByte);
    lock.l_len = 1;
    ASSERT_EQ(0, ::fcntl(fd, F_OFD_SETLK, &lock));
    ScopedPool second;
    PoolFactory::CreatePoolWriter(second.Config("latest", 8, 2));
    EXPECT_EQ(0, ::access(stale.c_str(), F_OK));
    ::close(fd);
    ScopedPool third;
    PoolFactory::CreatePoolWriter(third.Config("latest", 8, 2));
    EXPECT_NE(0, ::access(stale.c_str(), F_OK));
}

// Another user can plant entries in the shared folder under the names of this process's next
// temporaries (FIFOs: stale-temporary cleanup leaves what is not a regular file, and another
// user's entries could not be removed anyway). Creation must go on under other names.
TEST_F(PoolTest, EntriesPlantedUnderTemporaryNamesDoNotStopCreation) {
    ScopedPool folderMade, watched, planted;
    PoolFactory::CreatePoolWriter(folderMade.Config("latest", 8, 2));
    // The name of one temporary, seen as it is created: the names after it are planted.
    int watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ASSERT_GE(watch, 0);
    std::unique_ptr<int, void (*)(int*)> watchFd(&watch, [](int* fd) { ::close(*fd); });
    ASSERT_GE(::inotify_add_watch(watch, Slot::PoolDirectory().c_str(), IN_CREATE), 0);
    PoolFactory::CreatePoolWriter(watched.Config("latest", 8, 2));
    const std::string own = Slot::PoolTemporaryPrefix + std::to_string(::getpid()) + "-";
    std::string temporary;
    alignas(inotify_event) char events[16384];
    for (ssize_t got; temporary.empty() && (got = ::read(watch, events, sizeof(events))) > 0;) {
        for (char* at = events; at < events + got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            if (event->len != 0 && std::strncmp(event->name, own.c_str(), own.size()) == 0) {
                temporary = event->name;
            }
            at += sizeof(inotify_event) + event->len;
        }
    }
    ASSERT_FALSE(temporary.empty()) << "no temporary of this process was seen";
    const unsigned long long seen = std::strtoull(temporary.c_str() + own.size(), nullptr, 10);
    std::vector<std::string> plants;
    struct Remover {
        std::vector<std::string>& paths;
        ~Remover() {
            for (const std::string& path : paths) {
                ::unlink(path.c_str());
            }
        }
    } remover{plants};
    for (unsigned long long n = seen + 1; n <= seen + 16; ++n) {
        plants.push_back(Slot::PoolPath(own + std::to_string(n)));
        ASSERT_EQ(0, ::mkfifo(plants.back().c_str(), 0600)) << plants.back();
    }
    EXPECT_EQ("(nothing thrown)", WriterError(planted.Config("latest", 8, 2)));
    EXPECT_EQ("healthy", Slot::SurveyPool(planted.str()).state);
}

// The pools' folder made by another user (not root) is refused to everyone else: a survey says
// why, and lists its pools, instead of reporting them missing. Run in a mount namespace of its
// own, on a /dev/shm of its own (the folder of the machine is shared by every test run).
TEST_F(PoolTest, PoolsInARefusedFolderAreReportedWithTheReasonNotMissing) {
    ScopedPool pool, absent;
    const auto config = pool.Config("latest", 8, 2);
    auto unshareError = testsupport::SharedWithChildren<std::atomic<int>>();
    const testsupport::ChildResult result = testsupport::RunInChild([&] {
        *unshareError = pooltest::PrivateShm();
        if (*unshareError != 0) {
            return 0;
        }
        if (Slot::SurveyPool(pool.str()).state != "missing" || !Slot::ListPools().empty()) {
            return testsupport::Failed(2, "a pool found before the folder was made");
        }
        PoolFactory::CreatePoolWriter(config);
        *unshareError = pooltest::GivePoolFolderAway();
        if (*unshareError != 0) {
            return 0;
        }
        const Slot::PoolReport report = Slot::SurveyPool(pool.str());
        if (!report.exists || report.state != "damaged" || !report.folderRefused ||
            report.problem.rfind("Unsafe folder '" + Slot::PoolDirectory() + "': ", 0) != 0 ||
            WriterError(config) != CannotOpen(pool.str(), report.problem)) {
            return testsupport::Failed(3, report.state + ": " + report.problem);
        }
        if (Slot::ListPools() != std::vector<std::string>{pool.str()}) {
            return testsupport::Failed(4, "the pool is not listed");
        }
        return Slot::SurveyPool(absent.str()).state == "missing"
                   ? 0
                   : testsupport::Failed(5, "a pool that is not there is not missing");
    });
    ASSERT_TRUE(result.Ok()) << result.Describe();
    if (*unshareError != 0) {
        GTEST_SKIP() << "a mount namespace with a folder of another user cannot be made here: "
                     << std::strerror(*unshareError);
    }
}

TEST_F(PoolTest, APoolRemovedWhileItIsOpenedIsLookedForAgain) {
    // Another process removes the pool over and over while this one creates writers: every
    // opener finds the pool, makes it again, or gives up on one that keeps disappearing (the
    // remover may win every attempt); none fails on a file that went between two of its steps.
    ScopedPool pool;
    const auto config = pool.Config("latest", 64, 2);
    auto stop = testsupport::SharedWithChildren<std::atomic<bool>>();
    auto removals = testsupport::SharedWithChildren<std::atomic<unsigned>>();
    testsupport::ChildProcess remover([&] {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!stop->load() && std::chrono::steady_clock::now() < end) {
            if (PoolFactory::RemovePool(pool.str())) {
                removals->fetch_add(1);
            }
        }
        return 0;
    });
    const std::string keepsDisappearing =
        CannotOpen(pool.str(), "it keeps disappearing while it is opened");
    int opened = 0;
    int disappeared = 0;
    std::vector<std::string> failures;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(4);
    for (int i = 0; i < 5000 && std::chrono::steady_clock::now() < end; ++i) {
        const std::string text = WriterError(config);
        if (text == "(nothing thrown)") {
            ++opened;
        } else if (text == keepsDisappearing) {
            ++disappeared;
        } else if (failures.size() < 5) {
            failures.push_back(text);
        }
    }
    stop->store(true);
    EXPECT_TRUE(remover.Wait().Ok());
    EXPECT_TRUE(failures.empty()) << failures.front();
    // The race took place: pools were removed, and openers won some of them.
    EXPECT_GT(removals->load(), 0u);
    EXPECT_GT(opened, 0) << disappeared << " gave up";
}

TEST_F(PoolTest, CreationReservesItsMemory) {
    // A pool larger than /dev/shm is refused at creation, not with SIGBUS later.
    struct statvfs fs;
    ASSERT_EQ(0, ::statvfs(Slot::ShmDirectory().c_str(), &fs));
    const std::uint64_t total = static_cast<std::uint64_t>(fs.f_blocks) * fs.f_frsize;
    ScopedPool huge;
    const Slot::PoolConfig hugeConfig = huge.Config("latest", total / 32 + 4096, 64);
    if (total == 0 || total / 32 + 4096 > Slot::MaxPoolBlockSize ||
        Slot::PoolConfigProblem(hugeConfig)) {
        GTEST_SKIP() << "this process cannot ask for more than /dev/shm holds";
    }
    const std::string text = WriterError(hugeConfig);
    EXPECT_EQ(0u, text.find("Cannot reserve ")) << text;
    EXPECT_NE(std::string::npos, text.find(std::strerror(ENOSPC))) << text;
    EXPECT_EQ("missing", Slot::SurveyPool(huge.str()).state);
}

// The state letter of /proc/<pid>/stat ('\0' when it cannot be read).
char ProcessState(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const std::size_t close = line.rfind(')');
    return close == std::string::npos || close + 2 >= line.size() ? '\0' : line[close + 2];
}

enum class VictimEnd { Killed, Execs, MainThreadEnds };

// A dead process's loan, hold and queue reader claim return, with one ERROR line for the process
// however many entries it had, and a survey judges it dead as the reaper does; while it lives
// nothing is reaped.
// Killed: its queue reader, asleep, is no longer counted as a sleeper to wake once reaped (each
// publish would pay a wake-up call for good); the next reader takes its claim.
// Execs: it keeps its pid and start time, but its attachments' locks go with their descriptors
// (closed at exec): its blocks return and a new queue reader is taken while its new program runs.
// MainThreadEnds: it shows as a zombie while its other threads run on: its attachments, still
// locked, are not reaped until the whole process is gone.
TEST_F(PoolTest, ADeadProcessesBlocksAndQueueClaimReturnOnlyOnceItIsGone) {
    for (const VictimEnd end : {VictimEnd::Killed, VictimEnd::Execs, VictimEnd::MainThreadEnds}) {
        SCOPED_TRACE(static_cast<int>(end));
        ScopedPool pool, queue;
        const auto config = pool.Config("latest", 64, 4);
        const auto queueConfig = queue.Config("queue", 64, 2);
        auto writer = PoolFactory::CreatePoolWriter(config);
        ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 16, 1));
        const auto sleepers = [&] {
            return HeaderField(queue.str(), offsetof(Slot::PoolHeader, sleepers));
        };
        testsupport::PipeSignal ready;
        testsupport::ChildProcess victim([&] {
            // A test ended early never waits for it, nor for the program it becomes.
            testsupport::DieWithParent();
            // A loan and a hold of the latest pool, the queue pool's reader: kept for its life.
            const auto attach = [&] {
                auto loaner = PoolFactory::CreatePoolWriter(config);
                Slot::PoolLoan loan = loaner->loan(8);
                auto holder = boost::make_shared<Holder>();
                INotifierPtr reader = PoolFactory::CreatePoolReader(config, holder);
                INotifierPtr queueReader = PoolFactory::CreatePoolReader(queueConfig);
                if (!loan || !Eventually([&] { return holder->Count() == 1; })) {
                    return 2;
                }
                ready.Post();
                if (end == VictimEnd::Execs) {
                    ::execlp("sleep", "sleep", "120", static_cast<char*>(nullptr));
                    return 3;
                }
                SleepUntilKilled();
            };
            if (end != VictimEnd::MainThreadEnds) {
                return attach();
            }
            std::thread(attach).detach();
            // Ends the main thread only, as pthread_exit does, without unwinding through the
            // harness's frames.
            ::syscall(SYS_exit, 0);
            return 3;
        });
        ASSERT_TRUE(ready.WaitFor());
        if (end == VictimEnd::Execs) {
            EXPECT_TRUE(Eventually([&] { return ReaderError(queueConfig) == "(nothing thrown)"; },
                                   std::chrono::seconds(20), std::chrono::milliseconds(20)))
                << "the exec'd process's queue reader claim was kept";
        } else {
            if (end == VictimEnd::MainThreadEnds) {
                ASSERT_TRUE(Eventually([&] { return ProcessState(victim.Pid()) == 'Z'; }));
            }
            ASSERT_TRUE(Eventually([&] { return sleepers() != 0; }));
            EXPECT_EQ(0u, PoolFactory::Recover(pool.str()));
            EXPECT_EQ(0u, PoolFactory::Recover(queue.str()));
            const Slot::PoolReport report = Slot::SurveyPool(pool.str());
            EXPECT_EQ(1u, report.loanedBlocks);
            EXPECT_EQ(1u, report.heldBlocks);
            EXPECT_EQ(std::vector<pid_t>{victim.Pid()}, report.holders);
            EXPECT_TRUE(report.dead.empty());
            EXPECT_EQ(victim.Pid(), Slot::SurveyPool(queue.str()).queueReader);
            EXPECT_TRUE(HasReader(queueConfig));
            victim.Kill(SIGKILL);
            victim.Wait();
            if (end == VictimEnd::Killed) {
                EXPECT_EQ(1u, PoolFactory::Recover(queue.str()));
                EXPECT_EQ(0u, sleepers());
            }
        }
        EXPECT_EQ(std::vector<pid_t>{victim.Pid()}, Slot::SurveyPool(pool.str()).dead);
        testsupport::LogCapture log("Slot.Pool");
        EXPECT_EQ(1u, PoolFactory::Recover(pool.str()));
        // Its writer's loan and its reader's hold, two entries.
        EXPECT_EQ((std::vector<std::string>{DiedLine(pool.str(), victim.Pid(), 2)}),
                  log.Messages("ERROR"));
        const Slot::PoolReport report = Slot::SurveyPool(pool.str());
        EXPECT_EQ(0u, report.heldBlocks + report.loanedBlocks);
        EXPECT_EQ(3u, report.freeBlocks);  // all but the latest block
        EXPECT_EQ(std::vector<pid_t>{::getpid()}, report.attached);
        EXPECT_EQ(0u, PoolFactory::Recover(pool.str()));
        if (end == VictimEnd::Execs) {
            EXPECT_EQ(0, ::kill(victim.Pid(), 0)) << "the exec'd program still runs";
            victim.Kill(SIGKILL);
            victim.Wait();
        } else {
            EXPECT_NO_THROW(PoolFactory::CreatePoolReader(queueConfig));
        }
    }
}

// A child that publishes one 16-byte block tagged `tag` on a latest pool, stopped between
// taking its sequence and naming its block; it exits with 0 when `ok` accepts the outcome.
// Null when built without crash points.
std::unique_ptr<testsupport::ChildProcess> StoppedPublisher(
    const Slot::PoolConfig& config, std::uint64_t tag,
    const std::function<bool(WriteOutcome)>& ok) {
    auto child = std::make_unique<testsupport::ChildProcess>([&config, tag, &ok] {
        auto mine = PoolFactory::CreatePoolWriter(config);
        if (!shared::ArmCrashPoint("pool-latest-sequence-taken")) {
            return 2;
        }
        return ok(Publish(*mine, 16, tag)) ? 0 : 1;
    });
    const int status = StoppedOrEnded(*child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2) {
        return nullptr;
    }
    EXPECT_TRUE(WIFSTOPPED(status));
    return child;
}

// A writer delayed between taking its sequence and naming its block (stopped there). Publishing
// after a later sequence was named, the later block stays the latest, so that every reader,
// present or late, ends on the same and newest state. A stray write over its block's state
// meanwhile fails its publish, which says why.
TEST_F(PoolTest, ADelayedPublishNeverReplacesANewerOneNorPublishesARewrittenBlock) {
    ScopedPool pool, overwritten;
    const auto config = pool.Config("latest", 64, 3);
    auto writer = PoolFactory::CreatePoolWriter(config);
    auto delayed = StoppedPublisher(  // sequence 1
        config, 1, [](WriteOutcome outcome) { return outcome == WriteOutcome::Discarded; });
    if (!delayed) {
        GTEST_SKIP() << "built without crash points";
    }
    ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 16, 2));  // sequence 2, named first
    ::kill(delayed->Pid(), SIGCONT);
    EXPECT_TRUE(delayed->Wait().Ok());
    auto collector = boost::make_shared<testsupport::Collector>();
    std::uint64_t sequence = 0;  // reader thread, read after WaitFor
    collector->action = [&sequence] { sequence = Slot::CurrentBlockSequence(); };
    auto reader = PoolFactory::CreatePoolReader(config, collector);
    ASSERT_TRUE(collector->WaitFor(1));
    reader.reset();
    EXPECT_EQ(2u, Check(collector->Blocks()[0].bytes.data(), 16));
    EXPECT_EQ(2u, sequence);

    testsupport::LogCapture log("Slot.Pool");  // the child's copy counts its lines
    const std::string line =
        "Pool '" + overwritten.str() + "' is damaged: block 0 was no longer loaned at its publish";
    const auto overwrittenConfig = overwritten.Config("latest", 64, 2);
    delayed = StoppedPublisher(overwrittenConfig, 1, [&](WriteOutcome outcome) {
        return outcome == WriteOutcome::Failed && log.Count("ERROR", line) == 1;
    });
    ASSERT_TRUE(delayed);
    Poke(overwritten.str(), BlockTable(overwritten.str()) + offsetof(Slot::PoolBlockSlot, state),
         Slot::StateConsumed | 9);
    ::kill(delayed->Pid(), SIGCONT);
    EXPECT_TRUE(delayed->Wait().Ok());
}

// A queue's reader claim that names no attached entry (a stray write, or a reader that failed
// to start after claiming) does not keep readers out; a live reader's claim still does.
TEST_F(PoolTest, AQueueClaimNamingNoAttachedEntryIsTakenOver) {
    ScopedPool pool;
    const auto config = pool.Config("queue", 64, 2);
    auto writer = PoolFactory::CreatePoolWriter(config);  // entry 0: each reader gets entry 1
    // Left by an earlier owner of the reader's own entry (2), on a free entry, out of range.
    for (const std::uint64_t claim : {std::uint64_t{2}, std::uint64_t{6}, std::uint64_t{1000}}) {
        Poke(pool.str(), offsetof(Slot::PoolHeader, readerClaim), claim);
        auto collector = boost::make_shared<testsupport::Collector>();
        INotifierPtr reader;
        ASSERT_NO_THROW(reader = PoolFactory::CreatePoolReader(config, collector)) << claim;
        EXPECT_TRUE(HasReader(config));
        ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 16, claim));
        ASSERT_TRUE(collector->WaitFor(1));
        EXPECT_EQ(claim, Check(collector->Blocks()[0].bytes.data(), 16));
    }
}

// Readers that come and go on several threads: a reader taking over a claim it judged left over
// must never remove the claim a newer reader has just made (of the same entry, even).
TEST_F(PoolTest, ReadersComingAndGoingAreNeverTwoAtOnce) {
    ScopedPool pool;
    const auto config = pool.Config("queue", 64, 2);
    std::atomic<int> active{0};
    std::atomic<int> most{0};
    std::atomic<unsigned> made{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            while (!stop.load()) {
                INotifierPtr reader;
                try {
                    reader = PoolFactory::CreatePoolReader(config);
                } catch (const AbortSlotCreationException&) {
                    continue;  // it has one
                }
                const int now = ++active;
                int seen = most.load();
                while (now > seen && !most.compare_exchange_weak(seen, now)) {
                }
                ++made;
                std::this_thread::yield();
                --active;
                reader.reset();
            }
        });
    }
    // Enough turns to matter, however loaded the machine: a count, bounded by a generous time.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (made.load() < 200 && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_GT(made.load(), 10u);
    EXPECT_EQ(1, most.load());
}

// A process that has a single descriptor left still tells a live process from a dead one: it
// never takes the live one's loan for a dead process's.
TEST_F(PoolTest, AProcessShortOfDescriptorsNeverTakesALiveOneForDead) {
    ScopedPool pool;
    const auto config = pool.Config("queue", 64, 1);
    auto writer = PoolFactory::CreatePoolWriter(config);
    Slot::PoolLoan held = writer->loan(8);  // the only block
    ASSERT_TRUE(held);
    const testsupport::ChildResult result = testsupport::RunInChild([&] {
        auto other = PoolFactory::CreatePoolWriter(config);
        const int probe = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = static_cast<rlim_t>(probe) + 16;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        std::vector<int> taken{probe};
        for (int fd; (fd = ::dup(probe)) >= 0;) {
            taken.push_back(fd);
        }
        ::close(taken.back());
        // No block is free: the loan reaps dead processes, and must find none.
        const bool loaned = static_cast<bool>(other->loan(8));
        // The sanitizers' own checks need descriptors too.
        for (const int fd : taken) {
            ::close(fd);
        }
        return loaned ? testsupport::Failed(2, "a live process's loan was reaped") : 0;
    });
    EXPECT_TRUE(result.Ok()) << result.Describe();
    EXPECT_EQ(1u, Slot::SurveyPool(pool.str()).loanedBlocks);
}

// A latest-kind writer killed after naming its block the latest, before marking it published:
// a reader may deliver and hold that block, and once a later publish replaced it, reaping the
// writer must still leave it to its holder.
TEST_F(PoolTest, ADeadWritersReplacedBlockStaysWithItsHolder) {
    ScopedPool pool;
    const auto config = pool.Config("latest", 64, 2);
    testsupport::PipeSignal loaned;
    testsupport::ChildProcess victim([&]() -> int {
        auto loaner = PoolFactory::CreatePoolWriter(config);
        Slot::PoolLoan loan = loaner->loan(16);  // block 0
        Fill(loan.data(), 16, 1);
        loaned.Post();
        SleepUntilKilled();
    });
    ASSERT_TRUE(loaned.WaitFor());
    // What the victim's publish stores before the block's state, as it would have stored it.
    const std::uint64_t table = BlockTable(pool.str());
    Poke(pool.str(), table + offsetof(Slot::PoolBlockSlot, size), std::uint64_t{16});
    Poke(pool.str(), table + offsetof(Slot::PoolBlockSlot, sequence), std::uint64_t{1});
    Poke(pool.str(), offsetof(Slot::PoolHeader, nextSequence), std::uint64_t{1});
    Poke(pool.str(), offsetof(Slot::PoolHeader, latest), Slot::BlockRef(1, 0));

    auto writer = PoolFactory::CreatePoolWriter(config);
    auto holder = boost::make_shared<Holder>();
    auto reader = PoolFactory::CreatePoolReader(config, holder);
    ASSERT_TRUE(Eventually([&] { return holder->Count() == 1; }));
    ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 16, 2));  // block 1 replaces it
    ASSERT_TRUE(Eventually([&] { return holder->Count() == 2; }));
    victim.Kill(SIGKILL);
    victim.Wait();
    EXPECT_EQ(1u, PoolFactory::Recover(pool.str()));

    // Both blocks are held: nothing to loan, and the first keeps its bytes.
    EXPECT_FALSE(writer->loan(16));
    EXPECT_EQ(1u, holder->Tag(0));
    holder->Release();
    EXPECT_TRUE(writer->loan(16));
}

// A reader in another pid namespace with its own /proc, as in a container sharing /dev/shm (its
// pid 1 is another process here), holds blocks while a writer here runs out of them and reaps,
// and while the reader reaps the writer: neither takes the other for dead, and no held block is
// loaned again. Once the reader is killed, its blocks come back with the ERROR line naming its
// pid.
TEST_F(PoolTest, AReaderInAnotherPidNamespaceKeepsItsBlocksUntilItDies) {
    ScopedPool pool;
    const auto config = pool.Config("latest", 64, 3);
    auto writer = PoolFactory::CreatePoolWriter(config);
    ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 16, 1));
    struct Ledger {
        std::atomic<int> unshareError{0};
        std::atomic<bool> mountFailed{false};
        std::atomic<pid_t> outerPid{0};  // the reader's pid here
        std::atomic<pid_t> innerPid{0};  // its pid in its own namespace
        std::atomic<int> held{0};
        std::atomic<int> intact{-1};  // held blocks whose bytes match their sequence
    };
    auto ledger = testsupport::SharedWithChildren<Ledger>();
    testsupport::PipeSignal ready, verify, verified;
    // The child moves its later children into a new pid namespace (the grandchild is its pid 1)
    // and itself into a mount namespace of its own, where the grandchild mounts its /proc.
    testsupport::ChildProcess outer([&] {
        if (::unshare(CLONE_NEWPID | CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            ledger->unshareError = errno;
            ready.Post();
            return 0;
        }
        const pid_t inner = ::fork();
        if (inner < 0) {
            return testsupport::Failed(2, "fork into the new pid namespace");
        }
        if (inner == 0) {
            testsupport::DieWithParent();
            if (::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
                ledger->unshareError = errno;
                ledger->mountFailed = true;
                ready.Post();
                ::_exit(0);
            }
            auto holder = boost::make_shared<Holder>();
            auto reader = PoolFactory::CreatePoolReader(config, holder);
            Eventually([&] { return holder->Count() == 1; });
            ledger->innerPid = ::getpid();
            ready.Post();
            while (verify.WaitFor(std::chrono::seconds(60))) {
                // The survey counts a block as held from the start of its delivery, the holder
                // only once its callback has run.
                Eventually([&] { return holder->Count() >= 3; }, std::chrono::seconds(5));
                std::lock_guard<std::mutex> lock(holder->mutex);
                int intact = 0;
                for (const Slot::PoolBlock& block : holder->held) {
                    intact += Check(block.data(), block.size()) == block.sequence() ? 1 : 0;
                }
                ledger->held = static_cast<int>(holder->held.size());
                ledger->intact = intact;
                verified.Post();
            }
            ::_exit(0);
        }
        ledger->outerPid = inner;
        int status = 0;
        ::waitpid(inner, &status, 0);
        return 0;
    });
    ASSERT_TRUE(ready.WaitFor());
    if (ledger->unshareError != 0) {
        outer.Wait();
        GTEST_SKIP() << (ledger->mountFailed ? "a new pid namespace cannot mount its /proc here: "
                                             : "unshare(CLONE_NEWPID | CLONE_NEWNS) is not "
                                               "permitted here: ")
                     << std::strerror(ledger->unshareError);
    }
    ASSERT_EQ(1, ledger->innerPid.load());
    // Each publish replaces the latest block, which the reader then holds too, until no block is
    // free: from then on every loan reaps first, and must find nobody dead.
    int refused = 0;
    for (std::uint64_t tag = 2; tag < 12; ++tag) {
        Slot::PoolLoan loan = writer->loan(16);
        if (!loan) {
            ++refused;
            continue;
        }
        Fill(loan.data(), 16, tag);
        ASSERT_NE(WriteOutcome::Failed, loan.publish(16));
        // One writer: sequences follow its tags.
        ASSERT_TRUE(Eventually([&] {
            return Slot::SurveyPool(pool.str()).heldBlocks >= std::min<std::uint64_t>(tag, 3);
        })) << "the reader's holds were taken from it";
    }
    EXPECT_GT(refused, 0);
    const Slot::PoolReport report = Slot::SurveyPool(pool.str());
    EXPECT_EQ(3u, report.heldBlocks);
    EXPECT_EQ(std::vector<pid_t>{}, report.holders);
    EXPECT_EQ(1u, report.otherNamespaceHolders);
    EXPECT_EQ(1u, report.otherNamespaceAttached);
    EXPECT_EQ(0u, report.otherNamespaceDead);
    EXPECT_EQ(std::vector<pid_t>{::getpid()}, report.attached);
    verify.Post();
    ASSERT_TRUE(verified.WaitFor());
    EXPECT_EQ(3, ledger->held.load());
    EXPECT_EQ(3, ledger->intact.load());

    ::kill(ledger->outerPid, SIGKILL);
    EXPECT_TRUE(outer.Wait().Ok());
    EXPECT_EQ(1u, Slot::SurveyPool(pool.str()).otherNamespaceDead);
    testsupport::LogCapture log("Slot.Pool");
    EXPECT_TRUE(writer->loan(16));  // reaps
    EXPECT_EQ(1u, log.Count("ERROR", DiedLine(pool.str(), 1, 3)));
    EXPECT_EQ(0u, Slot::SurveyPool(pool.str()).otherNamespaceAttached);
}

// Entries that do not name this pid namespace are judged by their owner's lock alone: one whose
// process died before it wrote its namespace, or whose pid is a live process here, is reaped; a
// live attachment of this very process keeps its loan even when its entry claims another namespace.
TEST_F(PoolTest, EntriesOfOtherNamespacesAreJudgedByTheirOwnersLock) {
    ScopedPool pool;
    const auto config = pool.Config("queue", 64, 2);
    auto writer = PoolFactory::CreatePoolWriter(config);  // entry 0
    Slot::PoolLoan loan = writer->loan(8);
    ASSERT_TRUE(loan);
    const auto word = [&](unsigned index) {
        return sizeof(Slot::PoolHeader) + index * sizeof(Slot::PoolAttachmentSlot) +
               offsetof(Slot::PoolAttachmentSlot, word);
    };
    MoveToOtherPidNamespace(pool.str(), 0);
    // Entry 1: a live pid of this namespace, recorded as another namespace's, no lock.
    Poke(pool.str(), word(1), Slot::AttachInUse | static_cast<std::uint64_t>(::getpid()));
    MoveToOtherPidNamespace(pool.str(), 1);
    // Entry 2: killed after taking its entry, before writing its namespace.
    Poke(pool.str(), word(2), Slot::AttachInUse | 77);
    testsupport::LogCapture log("Slot.Pool");
    EXPECT_EQ(2u, PoolFactory::Recover(pool.str()));
    EXPECT_EQ(1u, log.Count("ERROR", DiedLine(pool.str(), ::getpid(), 0)));
    EXPECT_EQ(1u, log.Count("ERROR", DiedLine(pool.str(), 77, 0)));
    const Slot::PoolReport report = Slot::SurveyPool(pool.str());
    EXPECT_EQ(1u, report.loanedBlocks);
    EXPECT_EQ(1u, report.otherNamespaceAttached);
    EXPECT_EQ(0u, PoolFactory::Recover(pool.str()));
    EXPECT_EQ(WriteOutcome::Stored, loan.publish(8));

    // A queue reader of another namespace is not named by its pid when a second one is refused.
    INotifierPtr reader = PoolFactory::CreatePoolReader(config);  // entry 1, freed above
    MoveToOtherPidNamespace(pool.str(), 1);
    EXPECT_EQ("Cannot create a second reader for queue pool '" + pool.str() +
                  "': it has one (a process in another pid namespace)",
              ReaderError(config));
}

// A child forked without exec shares its parent's descriptors, so it would share the lock of
// the parent's attachment: a parent killed before its child would look alive to every judge
// that goes by the lock (one in another pid namespace) for as long as the child lived.
TEST_F(PoolTest, AChildForkedWithoutExecDoesNotKeepItsParentsEntryAlive) {
    ScopedPool pool;
    const auto config = pool.Config("queue", 64, 2);
    // The forked child lives until this end of the pipe closes (here, or when the test ends).
    int release[2];
    ASSERT_EQ(0, ::pipe2(release, O_CLOEXEC));
    std::unique_ptr<int, void (*)(int*)> releaseEnd(&release[1], [](int* fd) { ::close(*fd); });
    auto forked = testsupport::SharedWithChildren<std::atomic<pid_t>>();
    testsupport::PipeSignal ready, childRuns;
    testsupport::ChildProcess parent([&] {
        auto writer = PoolFactory::CreatePoolWriter(config);  // entry 0
        Slot::PoolLoan loan = writer->loan(8);
        const pid_t child = ::fork();
        if (child == 0) {
            // Its copies are closed at the fork, before it runs this.
            childRuns.Post();
            ::close(release[1]);
            char byte;
            while (::read(release[0], &byte, 1) < 0 && errno == EINTR) {
            }
            ::_exit(0);
        }
        forked->store(child);
        ready.Post();
        ::pause();
        return 0;
    });
    ::close(release[0]);
    ASSERT_TRUE(ready.WaitFor());
    ASSERT_TRUE(childRuns.WaitFor());
    MoveToOtherPidNamespace(pool.str(), 0);
    parent.Kill(SIGKILL);
    parent.Wait();
    ASSERT_EQ(0, ::kill(forked->load(), 0)) << "the forked child lives on";

    testsupport::LogCapture log("Slot.Pool");
    EXPECT_EQ(1u, PoolFactory::Recover(pool.str()));
    EXPECT_EQ(1u, log.Count("ERROR", DiedLine(pool.str(), parent.Pid(), 1)));
}

// A child forked while its parent holds blocks, has a loan and reads a queue pool gets copies
// of all of them. Dropping those copies (or using the inherited writer) must not free the
// parent's blocks under it, nor give up the parent's reader claim.
TEST_F(PoolTest, AForkedChildsCopiesOfHoldsLoansAndReadersLeaveTheParentsAlone) {
    ScopedPool latestPool, queuePool;
    const auto latest = latestPool.Config("latest", 64, 3);
    const auto queue = queuePool.Config("queue", 64, 2);
    auto writer = PoolFactory::CreatePoolWriter(latest);
    auto holder = boost::make_shared<Holder>();
    INotifierPtr reader = PoolFactory::CreatePoolReader(latest, holder);
    INotifierPtr queueReader = PoolFactory::CreatePoolReader(queue);
    ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 64, 1));
    ASSERT_TRUE(Eventually([&] { return holder->Count() == 1; }));
    ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 64, 2));
    ASSERT_TRUE(Eventually([&] { return holder->Count() == 2; }));
    Slot::PoolLoan loan = writer->loan(64);
    ASSERT_TRUE(loan);
    Fill(loan.data(), 64, 3);

    const testsupport::ChildResult child = testsupport::RunInChild([&] {
        // The reader's thread is idle in its sleep: nothing else uses these at the fork.
        holder->held.clear();
        loan = Slot::PoolLoan();
        queueReader.reset();
        testsupport::LogCapture log("Slot.Pool");
        Slot::PoolLoan own = writer->loan(8);
        if (own || own.outcome() != WriteOutcome::Failed ||
            log.Count("ERROR", "Pool '" + latestPool.str() +
                                   "': this writer was opened before a fork: a child opens "
                                   "its own") != 1) {
            return testsupport::Failed(2, "the inherited writer loaned a block");
        }
        return 0;
    });
    ASSERT_TRUE(child.Ok()) << child.Describe();

    const Slot::PoolReport report = Slot::SurveyPool(latestPool.str());
    EXPECT_EQ(2u, report.heldBlocks);
    EXPECT_EQ(1u, report.loanedBlocks);
    // The superseded block is still the parent's: no loan reuses it.
    EXPECT_FALSE(writer->loan(64));
    EXPECT_EQ(1u, holder->Tag(0));
    EXPECT_EQ(WriteOutcome::Stored, loan.publish(64));
    EXPECT_TRUE(HasReader(queue));  // the parent's claim: the child's would be a dead one
}

// A child forked with its parent's writers may later attach objects of its own, and get the
// entries the parent has freed meanwhile. Dropping its inherited copies must leave those
// entries alone: a queue pool keeps refusing a second reader while the child's lives, and the
// child's loan returns once it is killed.
TEST_F(PoolTest, AForkedChildsInheritedCopiesLeaveItsOwnEntriesAlone) {
    ScopedPool queuePool, latestPool;
    const auto queue = queuePool.Config("queue", 64, 2);
    const auto latest = latestPool.Config("latest", 64, 2);
    auto queueWriter = PoolFactory::CreatePoolWriter(queue);  // entry 0 of each
    auto latestWriter = PoolFactory::CreatePoolWriter(latest);
    testsupport::PipeSignal parentLeft, childReady;
    testsupport::ChildProcess child([&]() -> int {
        testsupport::DieWithParent();
        if (!parentLeft.WaitFor()) {
            return testsupport::Failed(2, "the parent kept its writers");
        }
        INotifierPtr reader = PoolFactory::CreatePoolReader(queue);  // entry 0 again
        auto writer = PoolFactory::CreatePoolWriter(latest);
        Slot::PoolLoan loan = writer->loan(8);
        queueWriter.reset();
        latestWriter.reset();
        childReady.Post();
        SleepUntilKilled();
    });
    queueWriter.reset();
    latestWriter.reset();
    parentLeft.Post();
    ASSERT_TRUE(childReady.WaitFor());
    EXPECT_EQ("Cannot create a second reader for queue pool '" + queuePool.str() +
                  "': it has one (process " + std::to_string(child.Pid()) + ")",
              ReaderError(queue));
    child.Kill(SIGKILL);
    child.Wait();
    testsupport::LogCapture log("Slot.Pool");
    EXPECT_EQ(1u, PoolFactory::Recover(latestPool.str()));
    EXPECT_EQ(1u, log.Count("ERROR", DiedLine(latestPool.str(), child.Pid(), 1)));
    EXPECT_EQ(0u, Slot::SurveyPool(latestPool.str()).loanedBlocks);
}

// Kills `victim`, tells `reaper` so and waits until the reaper, reaping it, has stopped at its
// crash point.
bool ReaperStopsOnceTheVictimIsKilled(testsupport::ChildProcess& victim,
                                      testsupport::PipeSignal& victimGone,
                                      testsupport::ChildProcess& reaper) {
    victim.Kill(SIGKILL);
    victim.Wait();
    victimGone.Post();
    return WIFSTOPPED(StoppedOrEnded(reaper));
}

// A reaper killed half-way leaves the entry marked as being reaped, and its reaper lock goes
// with it, also when it had forked a child (without exec) that runs on: the next reaper takes
// the entry over.
TEST_F(PoolTest, AReaperKilledHalfWayIsTakenOverWhileItsForkedChildRuns) {
    ScopedPool pool;
    const auto config = pool.Config("latest", 64, 2);
    testsupport::PipeSignal victimLoaned, reaperReady, victimGone, forkedRuns;
    testsupport::ChildProcess victim([&]() -> int {
        testsupport::DieWithParent();
        auto writer = PoolFactory::CreatePoolWriter(config);
        Slot::PoolLoan loan = writer->loan(8);  // block 0
        victimLoaned.Post();
        SleepUntilKilled();
    });
    ASSERT_TRUE(victimLoaned.WaitFor());
    auto forked = testsupport::SharedWithChildren<std::atomic<pid_t>>();
    testsupport::ChildProcess reaper([&] {
        if (!shared::ArmCrashPoint("pool-reaping")) {
            return 2;
        }
        auto writer = PoolFactory::CreatePoolWriter(config);
        Slot::PoolLoan loan = writer->loan(8);  // block 1: none is free after it
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(60);  // killed by the test, which a failure may skip
            forkedRuns.Post();
            SleepUntilKilled();
        }
        // Until a child first runs, it shares the lock descriptions: it closes its copies in
        // fork() itself, on its own side.
        if (!forkedRuns.WaitFor()) {
            return 5;
        }
        forked->store(child);
        reaperReady.Post();
        victimGone.WaitFor();
        return writer->loan(8) ? 3 : 4;  // reaps the victim, stopped half-way
    });
    if (!reaperReady.WaitFor()) {
        reaper.Wait();
        GTEST_SKIP() << "built without crash points";
    }
    ASSERT_TRUE(ReaperStopsOnceTheVictimIsKilled(victim, victimGone, reaper));
    reaper.Kill(SIGKILL);
    reaper.Wait();

    testsupport::LogCapture log("Slot.Pool");
    EXPECT_EQ(2u, PoolFactory::Recover(pool.str()));  // the victim's entry and the reaper's
    EXPECT_EQ(1u, log.Count("ERROR", DiedLine(pool.str(), victim.Pid(), 1)));
    EXPECT_EQ(0u, Slot::SurveyPool(pool.str()).loanedBlocks);
    EXPECT_EQ(0, ::kill(forked->load(), SIGKILL)) << "the reaper's child ran on";
}

TEST_F(PoolTest, ANewQueueReaderWaitsForAnotherProcessReapingTheDeadOne) {
    // The claim of a dead reader whose entry another process reaps (stopped half-way, holding
    // its reaper lock) is waited for, not taken for a live reader's.
    ScopedPool pool;
    const auto config = pool.Config("queue", 64, 2);
    testsupport::PipeSignal readerUp, reaperReady, victimGone;
    testsupport::ChildProcess victim([&]() -> int {
        testsupport::DieWithParent();
        auto reader = PoolFactory::CreatePoolReader(config);
        readerUp.Post();
        SleepUntilKilled();
    });
    ASSERT_TRUE(readerUp.WaitFor());
    testsupport::ChildProcess reaper([&] {
        if (!shared::ArmCrashPoint("pool-reaping")) {
            return 2;
        }
        reaperReady.Post();
        victimGone.WaitFor();
        return PoolFactory::Recover(pool.str()) == 1 ? 0 : 3;  // stopped half-way
    });
    if (!reaperReady.WaitFor()) {
        reaper.Wait();
        GTEST_SKIP() << "built without crash points";
    }
    ASSERT_TRUE(ReaperStopsOnceTheVictimIsKilled(victim, victimGone, reaper));
    std::thread resume([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ::kill(reaper.Pid(), SIGCONT);
    });
    EXPECT_EQ("(nothing thrown)", ReaderError(config));
    resume.join();
    EXPECT_TRUE(reaper.Wait().Ok());
}

TEST_F(PoolTest, ReadersStopInsideTheirOwnCallbackAndHoldsOutliveThem) {
    ScopedPool pool;
    const auto config = pool.Config("latest", 64, 2);
    auto writer = PoolFactory::CreatePoolWriter(config);
    EXPECT_THROW(PoolFactory::CreateSpinningPoolReader(config, boost::posix_time::seconds(-1)),
                 AbortSlotCreationException);

    // The last reference dropped by the reader's own subscriber.
    auto holder = boost::make_shared<Holder>();
    INotifierPtr reader =
        PoolFactory::CreateSpinningPoolReader(config, boost::posix_time::milliseconds(1));
    std::atomic<bool> dropped{false};
    holder->after = [&] {
        reader.reset();
        dropped = true;
    };
    reader->subscribe(holder.get());
    ASSERT_EQ(WriteOutcome::Stored, Publish(*writer, 16, 1));
    ASSERT_TRUE(Eventually([&] { return dropped.load(); }));
    // The hold keeps the block until released here, and with it the reader's attachment, which
    // goes once the reader (deleting itself on its own thread) and the hold are both gone.
    EXPECT_EQ(1u, Slot::SurveyPool(pool.str()).heldBlocks);
    EXPECT_EQ(1u, holder->Tag(0));
    holder->Release();
    EXPECT_TRUE(Eventually(
        [&] { return Slot::SurveyPool(pool.str()).attached == std::vector<pid_t>{::getpid()}; }));
    EXPECT_EQ(0u, Slot::SurveyPool(pool.str()).heldBlocks);
    EXPECT_EQ("missing", Slot::SurveyPool(testsupport::UniqueName("none")).state);
}

}  // namespace
