// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <Slot/BoostInterprocess/DiscardingSlot.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <gtest/gtest.h>

#include <sched.h>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using boost::interprocess::open_or_create;

TEST(DiscardingSlot, FreshSlotReadsNothingAndLeavesTheBuffer) {
    testsupport::ScopedSlotName name;
    DiscardingSlot slot(open_or_create, name.c_str(), 32);
    testsupport::LogCapture log("Slot");
    char buffer[8];
    std::memset(buffer, 0x5a, sizeof buffer);
    EXPECT_EQ(0u, slot.ReadData(buffer, sizeof buffer));
    EXPECT_EQ(std::string(8, '\x5a'), std::string(buffer, sizeof buffer));
    EXPECT_EQ(1u, log.Count("DEBUG", "Returned a copy of last data block, queue of '" + name.str() +
                                         "'is empty"));
}

TEST(DiscardingSlot, ABlockIsReadFromTheQueueThenAgainFromTheOutputBuffer) {
    testsupport::ScopedSlotName name;
    DiscardingSlot slot(open_or_create, name.c_str(), 32);
    testsupport::LogCapture log("Slot");
    slot.WriteData("abcdef", 6);
    EXPECT_EQ(1u, log.Count("TRACE", "write timestamp " +
                                         boost::posix_time::to_simple_string(
                                             slot.GetLastWriteTime().time_of_day()) +
                                         " queue size==1"));
    char buffer[32];
    ASSERT_EQ(6u, slot.ReadData(buffer, sizeof buffer));
    EXPECT_EQ("abcdef", std::string(buffer, 6));
    EXPECT_EQ(1u, log.Count("DEBUG",
                            "Received a data block from queue of  '" + name.str() + "', size==0"));
    std::memset(buffer, 0, sizeof buffer);
    ASSERT_EQ(6u, slot.ReadData(buffer, sizeof buffer));
    EXPECT_EQ("abcdef", std::string(buffer, 6));
}

TEST(DiscardingSlot, ASecondWriteDiscardsTheWaitingBlock) {
    testsupport::ScopedSlotName name;
    DiscardingSlot slot(open_or_create, name.c_str(), 32);
    testsupport::LogCapture log("Slot");
    slot.WriteData("first", 5);
    slot.WriteData("second", 6);
    EXPECT_EQ(std::vector<std::string>{"One data block discarded from " + name.str()},
              log.Messages("WARN"));
    EXPECT_EQ(1u, slot.GetBufferLength());
    char buffer[32];
    ASSERT_EQ(6u, slot.ReadData(buffer, sizeof buffer));
    EXPECT_EQ("second", std::string(buffer, 6));
}

TEST(DiscardingSlot, AShortReadCutsTheBlock) {
    testsupport::ScopedSlotName name;
    DiscardingSlot slot(open_or_create, name.c_str(), 32);
    slot.WriteData("0123456789", 10);
    char buffer[8] = {'.', '.', '.', '.', '.', '.', '.', '.'};
    ASSERT_EQ(4u, slot.ReadData(buffer, 4));
    EXPECT_EQ("0123....", std::string(buffer, 8));
}

// Blocks of 10..64 bytes: writer id, sequence number, length, filler, FNV-1a checksum.
const unsigned int HammerBlockMax = 64;

std::uint32_t Checksum(const char* data, size_t size) {
    std::uint32_t hash = 2166136261u;
    for (size_t i = 0; i < size; ++i) {
        hash = (hash ^ static_cast<unsigned char>(data[i])) * 16777619u;
    }
    return hash;
}

std::vector<char> MakeBlock(unsigned char writer, std::uint32_t seq) {
    std::vector<char> block(10 + (seq * 7 + writer * 13) % (HammerBlockMax - 9));
    block[0] = static_cast<char>(writer);
    std::memcpy(&block[1], &seq, 4);
    block[5] = static_cast<char>(block.size());
    for (size_t i = 6; i < block.size() - 4; ++i) {
        block[i] = static_cast<char>(seq * 31 + i * writer);
    }
    const std::uint32_t sum = Checksum(block.data(), block.size() - 4);
    std::memcpy(&block[block.size() - 4], &sum, 4);
    return block;
}

// Two writer processes and a reader process share a slot, each holding the slot's lockable around
// its call as the slot writer and reader do. Every block read must be whole and one a writer made,
// and each writer's blocks must arrive in order (the newest wins, none comes back older).
TEST(SlotProcesses, DiscardingSlotDeliversWholeBlocksUnderContention) {
    const std::uint32_t blocksPerWriter = 5000;
    testsupport::ScopedSlotName name;
    DiscardingSlot slot(open_or_create, name.c_str(), HammerBlockMax);
    testsupport::PipeSignal ready, go, stop;

    auto writer = [&](unsigned char id) {
        return [&, id] {
            DiscardingSlot mine(open_or_create, name.c_str(), HammerBlockMax);
            ready.Post();
            if (!go.WaitFor()) {
                return 10;
            }
            for (std::uint32_t seq = 1; seq <= blocksPerWriter; ++seq) {
                const std::vector<char> block = MakeBlock(id, seq);
                mine.GetLockable()->lock();
                mine.WriteData(block.data(), block.size());
                mine.GetLockable()->unlock();
                sched_yield();  // on two cores, let the others in between blocks
            }
            return 0;
        };
    };
    auto reader = [&] {
        DiscardingSlot mine(open_or_create, name.c_str(), HammerBlockMax);
        ready.Post();
        if (!go.WaitFor()) {
            return 10;
        }
        std::uint32_t last[3] = {0, 0, 0};
        for (;;) {
            const bool stopping = stop.WaitFor(std::chrono::milliseconds(0));
            char buffer[HammerBlockMax];
            mine.GetLockable()->lock();
            const size_t n = mine.ReadData(buffer, sizeof buffer);
            mine.GetLockable()->unlock();
            sched_yield();
            if (n != 0) {
                std::uint32_t sum, seq;
                std::memcpy(&sum, buffer + n - 4, 4);
                if (n < 10 || static_cast<unsigned char>(buffer[5]) != n ||
                    sum != Checksum(buffer, n - 4)) {
                    return 1;  // torn or foreign bytes
                }
                const unsigned char id = static_cast<unsigned char>(buffer[0]);
                std::memcpy(&seq, buffer + 1, 4);
                if (id < 1 || id > 2 || seq == 0 || seq > blocksPerWriter) {
                    return 2;
                }
                if (seq < last[id]) {
                    return 3;  // an older block of this writer came back
                }
                last[id] = seq;
            }
            if (stopping) {
                return last[1] + last[2] != 0 ? 0 : 4;
            }
        }
    };

    std::vector<std::unique_ptr<testsupport::ChildProcess>> writers;
    testsupport::ChildProcess readerProcess(reader);
    writers.emplace_back(new testsupport::ChildProcess(writer(1)));
    writers.emplace_back(new testsupport::ChildProcess(writer(2)));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(ready.WaitFor());
    }
    for (int i = 0; i < 3; ++i) {
        go.Post();
    }
    for (auto& w : writers) {
        const testsupport::ChildResult result = w->Wait(std::chrono::seconds(120));
        EXPECT_TRUE(result.Ok()) << "writer: " << result.Describe();
    }
    stop.Post();
    const testsupport::ChildResult result = readerProcess.Wait(std::chrono::seconds(60));
    EXPECT_TRUE(result.Ok()) << "reader: " << result.Describe();
}

}  // namespace
