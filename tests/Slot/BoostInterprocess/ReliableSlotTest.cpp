// SPDX-License-Identifier: Apache-2.0
#include "LockedBlocks.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <Slot/BoostInterprocess/ReliableSlot.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <gtest/gtest.h>

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

// A short read loses the rest of its block: the next read has the next block.
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

    EXPECT_EQ("b1", testsupport::ReadDirect(slot));
    EXPECT_EQ(1u,
              log.Count("DEBUG", "Received a data block from '" + name.str() + "', queue size==2"));
    EXPECT_EQ("b", testsupport::ReadDirect(slot, 1));
    EXPECT_EQ(std::string("b3\0", 3), testsupport::ReadDirect(slot));

    char buffer[16];
    std::memset(buffer, '.', sizeof buffer);
    EXPECT_EQ(0u, slot.ReadData(buffer, sizeof buffer));
    EXPECT_EQ(std::string(16, '.'), std::string(buffer, sizeof buffer));
    EXPECT_EQ(
        std::vector<std::string>{"Unable to read from an empty queue of '" + name.str() + "'"},
        log.Messages("ERROR"));
}

// A queue made with a length of 0 holds nothing: its creator is warned, later openers are not
// (their length does not matter).
TEST(ReliableSlot, AQueueMadeWithALengthOf0IsWarnedAboutByItsCreatorOnly) {
    testsupport::ScopedSlotName name;
    testsupport::LogCapture log("Slot");
    ReliableSlot creator(open_or_create, name.c_str(), 16, 0);
    ReliableSlot opener(open_or_create, name.c_str(), 16, 0);
    EXPECT_EQ(std::vector<std::string>{"Slot '" + name.str() +
                                       "' was created with a buffer length of 0: its queue can "
                                       "hold no block"},
              log.Messages("WARN"));
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

// Two ReliableSlot objects read one slot on two busy-waiting threads (both run at once on two
// cores) without the slot's lock: each round one writes two blocks and both read one at once.
// Each block must reach exactly one of them, whole.
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

}  // namespace
