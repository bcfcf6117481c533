// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <Slot/BoostInterprocess/ReliableSlot.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <gtest/gtest.h>

#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using boost::interprocess::open_or_create;

TEST(ReliableSlot, AFullQueueRefusesWritesAndKeepsTheFirstBlocksInOrder) {
    testsupport::ScopedSlotName name;
    ReliableSlot slot(open_or_create, name.c_str(), 16, 3);
    testsupport::LogCapture log("Slot");
    slot.WriteData("b1", 2);
    slot.WriteData("b2", 2);
    slot.WriteData("b3", 3);
    const boost::posix_time::ptime lastAccepted = slot.GetLastWriteTime();
    EXPECT_EQ(
        1u, log.Count("TRACE", "Write timestamp " +
                                   boost::posix_time::to_simple_string(lastAccepted.time_of_day()) +
                                   " '" + name.str() + "' queue size==3"));
    slot.WriteData("b4", 2);
    slot.WriteData("b5", 2);
    const std::string full = "Queue in '" + name.str() + "' is full, the data was not written";
    EXPECT_EQ((std::vector<std::string>{full, full}), log.Messages("WARN"));
    EXPECT_EQ(3u, slot.GetBufferLength());
    EXPECT_EQ(lastAccepted, slot.GetLastWriteTime());

    char buffer[16];
    ASSERT_EQ(2u, slot.ReadData(buffer, sizeof buffer));
    EXPECT_EQ("b1", std::string(buffer, 2));
    EXPECT_EQ(1u,
              log.Count("DEBUG", "Received a data block from '" + name.str() + "', queue size==2"));
    ASSERT_EQ(2u, slot.ReadData(buffer, sizeof buffer));
    EXPECT_EQ("b2", std::string(buffer, 2));
    ASSERT_EQ(3u, slot.ReadData(buffer, sizeof buffer));
    EXPECT_EQ(std::string("b3\0", 3), std::string(buffer, 3));

    std::memset(buffer, '.', sizeof buffer);
    EXPECT_EQ(0u, slot.ReadData(buffer, sizeof buffer));
    EXPECT_EQ(std::string(16, '.'), std::string(buffer, sizeof buffer));
    EXPECT_EQ(
        std::vector<std::string>{"Unable to read from an empty queue of '" + name.str() + "'"},
        log.Messages("ERROR"));
}

TEST(ReliableSlot, AShortReadLosesTheRestOfTheBlock) {
    testsupport::ScopedSlotName name;
    ReliableSlot slot(open_or_create, name.c_str(), 16, 3);
    slot.WriteData("0123456789", 10);
    slot.WriteData("ab", 2);
    char buffer[16];
    ASSERT_EQ(4u, slot.ReadData(buffer, 4));
    EXPECT_EQ("0123", std::string(buffer, 4));
    ASSERT_EQ(2u, slot.ReadData(buffer, sizeof buffer));
    EXPECT_EQ("ab", std::string(buffer, 2));
}

// A block of a writer's sequence: its number, a payload derived from it, and a checksum.
struct NumberedBlock {
    std::uint32_t seq;
    std::uint32_t sum;
    unsigned char payload[65528];

    static NumberedBlock Make(std::uint32_t seq) {
        NumberedBlock b;
        b.seq = seq;
        for (size_t i = 0; i < sizeof b.payload; ++i) {
            b.payload[i] = static_cast<unsigned char>(seq * 7 + i);
        }
        b.sum = b.Checksum();
        return b;
    }
    std::uint32_t Checksum() const {
        std::uint32_t sum = seq * 2654435761u;
        for (unsigned char c : payload) {
            sum = sum * 31 + c;
        }
        return sum;
    }
};

// Two ReliableSlot objects read one slot on two threads without the slot's lock. In each round
// one of the two threads writes two blocks and both then read one at the same moment, so that
// their reads overlap; each block must reach exactly one of them, whole. Only two threads, both
// busy-waiting, so that on two cores both run at once.
TEST(ReliableSlot, UnlockedReadersNeverShareOrLoseABlock) {
    const std::uint32_t rounds = 2000;
    testsupport::ScopedSlotName name;
    std::atomic<std::uint32_t> round{0};     // rounds whose blocks are in the queue
    std::atomic<std::uint32_t> finished{0};  // reads done in all rounds so far
    std::atomic<bool> stop{false};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    // Busy-waits for `ready`, yielding after a while so that a thread that was preempted on a
    // loaded machine gets the core back. False when time ran out.
    const auto spinUntil = [&](const std::function<bool()>& ready) {
        for (unsigned spins = 0; !ready(); ++spins) {
            if (spins > 2000) {
                std::this_thread::yield();
                if (std::chrono::steady_clock::now() > deadline) {
                    stop = true;
                }
            }
            if (stop) {
                return false;
            }
        }
        return true;
    };
    std::vector<std::vector<std::uint32_t>> seen(2);
    std::vector<std::uint32_t> malformed(2, 0);
    std::vector<std::thread> readers;
    for (std::uint32_t r = 0; r < 2; ++r) {
        readers.emplace_back([&, r] {
            ReliableSlot mine(open_or_create, name.c_str(), sizeof(NumberedBlock), 4);
            std::unique_ptr<NumberedBlock> b(new NumberedBlock);
            for (std::uint32_t done = 0; done < rounds; ++done) {
                if (r == 0) {
                    if (!spinUntil([&] { return finished.load() == 2 * done; })) {
                        return;
                    }
                    for (std::uint32_t k = 0; k < 2; ++k) {
                        *b = NumberedBlock::Make(2 * done + k);
                        mine.WriteData(b.get(), sizeof *b);
                    }
                    round = done + 1;
                } else if (!spinUntil([&] { return round.load() != done; })) {
                    return;
                }
                // A different head start in each round (0 to 30 us, busy) so that one reader's
                // receive falls into every phase of the other's read in some round.
                const auto start = std::chrono::steady_clock::now();
                const auto headStart = std::chrono::microseconds((done * (r ? 7919 : 104729)) % 31);
                while (std::chrono::steady_clock::now() - start < headStart) {
                }
                const size_t n = mine.ReadData(b.get(), sizeof *b);
                if (n != sizeof *b || b->sum != b->Checksum() || b->seq >= 2 * rounds) {
                    ++malformed[r];
                } else {
                    seen[r].push_back(b->seq);
                }
                ++finished;
            }
        });
    }
    for (std::thread& t : readers) {
        t.join();
    }
    EXPECT_FALSE(stop) << "not done within the time limit";
    EXPECT_EQ(0u, malformed[0] + malformed[1]) << "torn or missing blocks";
    std::vector<std::uint32_t> all(seen[0]);
    all.insert(all.end(), seen[1].begin(), seen[1].end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all.end(), std::adjacent_find(all.begin(), all.end())) << "a block came twice";
    EXPECT_EQ(2 * rounds, all.size()) << "blocks lost";
}

// A pipe through which each writer process reports how many refusals it logged.
class ReportPipe {
public:
    ReportPipe() {
        if (::pipe(fds_) != 0) {
            std::abort();
        }
    }
    ~ReportPipe() {
        ::close(fds_[0]);
        ::close(fds_[1]);
    }
    void Send(std::uint32_t writer, std::uint32_t count) {
        const std::uint32_t message[2] = {writer, count};
        if (::write(fds_[1], message, sizeof message) != sizeof message) {
            std::abort();
        }
    }
    bool Receive(std::uint32_t* writer, std::uint32_t* count) {
        std::uint32_t message[2];
        if (::read(fds_[0], message, sizeof message) != sizeof message) {
            return false;
        }
        *writer = message[0];
        *count = message[1];
        return true;
    }

private:
    int fds_[2];
};

// Three writer processes and the reading test process share a 4-block slot. Each writer first
// writes a burst while nobody reads, so refusals are certain. Every block read must come exactly
// once and in its writer's order, and each writer's accepted plus refused blocks (counted from its
// WARN lines) must add up to what it wrote.
TEST(SlotProcesses, ReliableSlotDeliversEveryAcceptedBlockOnceInWriterOrder) {
    const std::uint32_t writers = 3, blocksPerWriter = 400, burst = 20, capacity = 4;
    testsupport::ScopedSlotName name;
    ReliableSlot slot(open_or_create, name.c_str(), 8, capacity);
    testsupport::PipeSignal burstDone, go, finished;
    ReportPipe reports;

    std::vector<std::unique_ptr<testsupport::ChildProcess>> children;
    for (std::uint32_t id = 0; id < writers; ++id) {
        children.emplace_back(new testsupport::ChildProcess([&, id] {
            ReliableSlot mine(open_or_create, name.c_str(), 8, capacity);
            testsupport::LogCapture log("Slot", log4cxx::Level::getWarn());
            for (std::uint32_t seq = 0; seq < blocksPerWriter; ++seq) {
                if (seq == burst) {
                    burstDone.Post();
                    if (!go.WaitFor()) {
                        return 10;
                    }
                }
                const std::uint32_t block[2] = {id, seq};
                mine.GetLockable()->lock();
                mine.WriteData(block, sizeof block);
                mine.GetLockable()->unlock();
            }
            reports.Send(id, static_cast<std::uint32_t>(
                                 log.Count("WARN", "Queue in '" + name.str() +
                                                       "' is full, the data was not written")));
            finished.Post();
            return 0;
        }));
    }
    for (std::uint32_t i = 0; i < writers; ++i) {
        ASSERT_TRUE(burstDone.WaitFor());
    }
    for (std::uint32_t i = 0; i < writers; ++i) {
        go.Post();
    }

    std::vector<std::vector<std::uint32_t>> received(writers);
    std::uint32_t done = 0;
    bool wellFormed = true;
    for (;;) {
        const bool allDone = done == writers;
        slot.GetLockable()->lock();
        while (slot.GetBufferLength() != 0) {
            std::uint32_t block[2] = {0, 0};
            wellFormed = slot.ReadData(block, sizeof block) == sizeof block && wellFormed;
            if (block[0] < writers) {
                received[block[0]].push_back(block[1]);
            } else {
                wellFormed = false;
            }
        }
        slot.GetLockable()->unlock();
        if (allDone) {
            break;
        }
        if (finished.WaitFor(std::chrono::milliseconds(0))) {
            ++done;
        }
    }
    EXPECT_TRUE(wellFormed);

    std::uint32_t refusedTotal = 0;
    for (auto& child : children) {
        const testsupport::ChildResult result = child->Wait(std::chrono::seconds(120));
        ASSERT_TRUE(result.Ok()) << result.Describe();
        std::uint32_t id = 0, refused = 0;
        ASSERT_TRUE(reports.Receive(&id, &refused));
        ASSERT_LT(id, writers);
        const std::vector<std::uint32_t>& seqs = received[id];
        for (size_t i = 1; i < seqs.size(); ++i) {
            ASSERT_LT(seqs[i - 1], seqs[i]) << "writer " << id << " out of order or repeated";
        }
        EXPECT_EQ(blocksPerWriter, seqs.size() + refused) << "writer " << id;
        refusedTotal += refused;
    }
    EXPECT_GE(refusedTotal, writers * burst - capacity);
}

}  // namespace
