// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"
#include "ChildRequire.h"
#include "LockedBlocks.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/DiscardingSlot.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>

#include <boost/interprocess/shared_memory_object.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <set>
#include <string>
#include <vector>

namespace {

using boost::interprocess::open_or_create;
typedef boost::shared_ptr<shared::ISharedMemory> Segment;

Segment OpenSegment(const std::string& name) {
    return Segment(shared::CreateSharedMemory(open_or_create, name.c_str(), 4096),
                   shared::DestroySharedMemory);
}

using testsupport::ShmExists;

// Usable bytes of the output buffer that "output_buffer_handle" points at.
size_t OutputBufferCapacity(shared::SlotSegment& segment) {
    const int handle = *segment.find<int>("output_buffer_handle").first;
    return segment.get_segment_manager()->size(segment.get_address_from_handle(handle));
}

// Exposes the protected operations of the base.
class ProbeSlot : public BaseQueueSlot {
public:
    ProbeSlot(const std::string& name, unsigned int maxDataSize, unsigned int bufferLength)
        : BaseQueueSlot(open_or_create, name.c_str(), maxDataSize, bufferLength) {}
    size_t ReadData(void*, size_t) override { return 0; }
    void WriteData(const void*, size_t) override {}
    using BaseQueueSlot::GetDataFromOutBuf;
    using BaseQueueSlot::InvalidHeaderMsg;
    using BaseQueueSlot::ReceiveAndCopyToOutBuf;
};

std::string AsString(const shared::SizedArray& a) {
    return std::string(a.data(), a.size());
}

TEST(SlotLayout, NamesOfASlot) {
    EXPECT_EQ("queue_abc", BaseQueueSlot::GetQueueName("abc"));
    EXPECT_EQ("condition_abc", BaseQueueSlot::GetConditionName("abc"));
    EXPECT_EQ("rwSync_abc.flk", BaseQueueSlot::GetRwSyncFileLockName("abc"));

    testsupport::ScopedSlotName name;
    ProbeSlot slot(name, 8, 1);
    EXPECT_EQ(name.str(), slot.GetName());
    EXPECT_EQ("Slot '" + name.str() + "'could not be created: invalid header",
              slot.InvalidHeaderMsg());
}

TEST(SlotLayout, SegmentHoldsFourNamedObjectsAndAnOutputBufferOfMaxSize) {
#if UINTPTR_MAX == 0xffffffffu
    EXPECT_EQ(612u, 100 + BaseQueueSlot::HeaderHeadroom);
#endif
    const std::set<std::string> expectedNames = {"last_write_tstamp", "output_buffer_data_size",
                                                 "output_buffer_handle", "cond_on_write"};
    for (unsigned int maxDataSize : {0u, 1u, 7u, 8u, 100u, 4095u, 4096u, 65536u, 1u << 20}) {
        SCOPED_TRACE(maxDataSize);
        testsupport::ScopedSlotName name;
        DiscardingSlot slot(open_or_create, name.c_str(), maxDataSize);
        EXPECT_EQ(maxDataSize, slot.GetMaxDataSize());

        Segment mem = OpenSegment(name);
        shared::SlotSegment& segment = mem->GetSegment();
        EXPECT_EQ(maxDataSize + BaseQueueSlot::HeaderHeadroom, segment.get_size());

        // The header mutex is a unique instance, not a fifth named object.
        std::set<std::string> names;
        for (auto it = segment.named_begin(); it != segment.named_end(); ++it) {
            names.insert(std::string(it->name(), it->name_length()));
        }
        EXPECT_EQ(expectedNames, names);
        EXPECT_EQ(1u, segment.find<boost::posix_time::ptime>("last_write_tstamp").second);
        EXPECT_EQ(1u, segment.find<unsigned int>("output_buffer_data_size").second);
        EXPECT_EQ(1u, segment.find<shared::InterprocCondition>("cond_on_write").second);

        const int handle = *segment.find<int>("output_buffer_handle").first;
        const size_t capacity = OutputBufferCapacity(segment);
        EXPECT_GT(handle, 0);
        EXPECT_GE(capacity, maxDataSize);
        EXPECT_LE(handle + capacity, segment.get_size());
    }
}

TEST(SlotLayout, ReopeningKeepsTheCreatedSizes) {
    testsupport::ScopedSlotName name;
    ReliableSlot first(open_or_create, name.c_str(), 100, 3);
    testsupport::LogCapture log("Slot");
    ReliableSlot second(open_or_create, name.c_str(), 200, 7);
    EXPECT_EQ(1u, log.Count("TRACE", "Slot '" + name.str() +
                                         "' exists with max data size 100 and buffer length 3; "
                                         "asked for 200 and 7"));
    EXPECT_TRUE(log.Messages("WARN").empty()) << "reopening with other sizes is no warning";
    EXPECT_EQ(1u, log.Count("TRACE", "Created shared memory and queue for '" + name.str() + "'"));
    EXPECT_EQ(1u, log.Count("TRACE", "BaseQueueSlot() : unlocked '" + name.str() + "'"));
    EXPECT_EQ(100u, second.GetMaxDataSize());
    const std::vector<char> block(100, 'x');
    for (int i = 0; i < 4; ++i) {
        second.WriteData(block.data(), block.size());
    }
    EXPECT_EQ(3u, first.GetBufferLength());
    Segment mem = OpenSegment(name);
    EXPECT_LT(OutputBufferCapacity(mem->GetSegment()), 200u);
}

TEST(SlotLayout, ObjectsOutliveEverySlotObject) {
    testsupport::ScopedSlotName name;
    testsupport::LogCapture log("Slot");
    {
        ReliableSlot writer(open_or_create, name.c_str(), 16, 2);
        ReliableSlot other(open_or_create, name.c_str(), 16, 2);
        writer.WriteData("kept", 4);
    }
    EXPECT_TRUE(ShmExists(name));
    EXPECT_TRUE(ShmExists("queue_" + name.str()));
    EXPECT_EQ(2u, log.Count("TRACE", "~BaseQueueSlot()"));
    ReliableSlot again(open_or_create, name.c_str(), 16, 2);
    EXPECT_EQ("kept", testsupport::ReadDirect(again));
}

// Which names are refused, in what words, leaving nothing behind: tests/gateway/NameRuleTest.
TEST(SlotCreation, SizesThatCannotBeAddressedAbortAndLeaveNothingBehind) {
    // Sizes whose queue or segment 32-bit offsets could not address.
    testsupport::ScopedSlotName name;
    EXPECT_THROW(ReliableSlot(open_or_create, name.c_str(), 65536, 65537),
                 AbortSlotCreationException);
    EXPECT_THROW(DiscardingSlot(open_or_create, name.c_str(), 0xffffffffu),
                 AbortSlotCreationException);
    EXPECT_TRUE(testsupport::LeftoverShmObjects().empty());
}

TEST(SlotOperations, OversizedBlockIsRefusedWithOneErrorAndChangesNothing) {
    testsupport::ScopedSlotName name;
    DiscardingSlot discarding(open_or_create, name.c_str(), 100);
    testsupport::ScopedSlotName reliableName;
    ReliableSlot reliable(open_or_create, reliableName.c_str(), 100, 4);
    for (ISlot* slot : std::vector<ISlot*>{&discarding, &reliable}) {
        const std::vector<char> block(101, 'b');
        slot->WriteData(block.data(), 100);
        const boost::posix_time::ptime written = slot->GetLastWriteTime();
        testsupport::LogCapture log("Slot");
        slot->WriteData(block.data(), 101);
        EXPECT_EQ(std::vector<std::string>{"Unable to write to '" + slot->GetName() +
                                           "': data size 101 > max data size 100"},
                  log.Messages("ERROR"));
        EXPECT_EQ(1u, log.Events().size());
        EXPECT_EQ(1u, slot->GetBufferLength());
        EXPECT_EQ(written, slot->GetLastWriteTime());
    }
}

// A discarding reader tells a new write by a write time other than the one it saw last: no
// write may carry the time of the write before it, however fast they follow each other (two in
// one microsecond of the clock would, and a reader that took the first never took the second).
TEST(SlotOperations, EveryWriteCarriesALaterTimeThanTheOneBefore) {
    testsupport::ScopedSlotName name;
    DiscardingSlot slot(open_or_create, name.c_str(), 8);
    boost::posix_time::ptime before = slot.GetLastWriteTime();
    for (int i = 0; i < 5000; ++i) {
        slot.WriteData("block", 5);
        const boost::posix_time::ptime written = slot.GetLastWriteTime();
        ASSERT_TRUE(before.is_not_a_date_time() || written > before) << "write " << i;
        before = written;
    }
}

// A block taken from the queue belongs to whoever took it: later receives, here or in another
// process, write the output buffer but never a block already handed out. A receive from the
// empty queue keeps the output buffer, which shows a block taken in another process.
TEST(SlotOwnership, AReceivedBlockNeverChangesAfterwards) {
    testsupport::ScopedSlotName name;
    ReliableSlot writer(open_or_create, name.c_str(), 64, 4);
    ProbeSlot probe(name, 64, 4);
    EXPECT_TRUE(probe.GetDataFromOutBuf().empty());
    writer.WriteData("first", 5);
    writer.WriteData("second!", 7);
    writer.WriteData("third", 5);
    const shared::SizedArray first = probe.ReceiveAndCopyToOutBuf();
    const shared::SizedArray second = probe.ReceiveAndCopyToOutBuf();
    const testsupport::ChildResult child = testsupport::RunInChild([&name] {
        ReliableSlot other(open_or_create, name.c_str(), 64, 4);
        return testsupport::ReadDirect(other) == "third" ? 0 : 1;
    });
    ASSERT_TRUE(child.Ok()) << child.Describe();
    EXPECT_EQ("first", AsString(first));
    EXPECT_EQ("second!", AsString(second));
    EXPECT_TRUE(probe.ReceiveAndCopyToOutBuf().empty());
    EXPECT_EQ("third", AsString(probe.GetDataFromOutBuf())) << "the output buffer has the last";
}

// Run under AddressSanitizer too: a view of the segment would be read after it was unmapped.
TEST(SlotOwnership, AReceivedBlockOutlivesItsSlotObject) {
    testsupport::ScopedSlotName name;
    ReliableSlot writer(open_or_create, name.c_str(), 4096, 4);
    std::string block(4000, '\0');
    std::generate(block.begin(), block.end(),
                  [n = 0]() mutable { return static_cast<char>(n++ * 13); });
    writer.WriteData(block.data(), block.size());
    writer.WriteData("tail", 4);
    // In a child: a block that still pointed into the unmapped segment would crash it.
    const testsupport::ChildResult child = testsupport::RunInChild([&] {
        shared::SizedArray kept;
        {
            ProbeSlot probe(name, 4096, 4);
            kept = probe.ReceiveAndCopyToOutBuf();
        }
        // Another mapping of the slot, and another receive, in between.
        ProbeSlot again(name, 4096, 4);
        if (AsString(again.ReceiveAndCopyToOutBuf()) != "tail") {
            return 1;
        }
        return AsString(kept) == block ? 0 : 2;
    });
    EXPECT_TRUE(child.Ok()) << child.Describe();
}

// Run these under AddressSanitizer too: an unclamped copy runs far past the mapped segment.
TEST(SlotSafety, CorruptedDataSizeIsClampedToTheOutputBuffer) {
    testsupport::ScopedSlotName name;
    DiscardingSlot slot(open_or_create, name.c_str(), 100);
    std::vector<char> block(100);
    std::iota(block.begin(), block.end(), 0);
    slot.WriteData(block.data(), block.size());
    std::vector<char> out(2 << 20);
    ASSERT_EQ(100u, slot.ReadData(out.data(), out.size()));

    Segment mem = OpenSegment(name);
    *mem->GetSegment().find<unsigned int>("output_buffer_data_size").first = 1u << 20;
    const size_t capacity = OutputBufferCapacity(mem->GetSegment());
    testsupport::LogCapture log("Slot");
    const size_t n = slot.ReadData(out.data(), out.size());
    EXPECT_EQ(capacity, n);
    EXPECT_TRUE(std::equal(block.begin(), block.end(), out.begin()));
    EXPECT_EQ(1u, log.Count("ERROR", "Output buffer of '" + name.str() +
                                         "' holds 1048576 bytes, more than its " +
                                         std::to_string(capacity) + "-byte allocation; clamped"));
}

TEST(SlotSafety, QueueRecreatedWithLargerBlocksIsClampedToTheOutputBuffer) {
    testsupport::ScopedSlotName name;
    { DiscardingSlot original(open_or_create, name.c_str(), 100); }
    boost::interprocess::shared_memory_object::remove(("queue_" + name.str()).c_str());

    testsupport::LogCapture log("Slot");
    DiscardingSlot slot(open_or_create, name.c_str(), 1000);
    Segment mem = OpenSegment(name);
    const size_t capacity = OutputBufferCapacity(mem->GetSegment());
    ASSERT_LT(capacity, 1000u);
    EXPECT_EQ(1u, log.Count("WARN", "Output buffer of '" + name.str() + "' has " +
                                        std::to_string(capacity) +
                                        " bytes, less than its max data size 1000"));

    std::vector<char> block(1000);
    std::generate(block.begin(), block.end(),
                  [n = 0]() mutable { return static_cast<char>(n++ * 7); });
    slot.WriteData(block.data(), block.size());
    std::vector<char> out(1000);
    ASSERT_EQ(1000u, slot.ReadData(out.data(), out.size()));
    EXPECT_EQ(block, out);
    const std::string cap = std::to_string(capacity);
    EXPECT_EQ(
        1u, log.Count("ERROR", "Block of 1000 bytes from '" + name.str() + "' is longer than its " +
                                   cap + "-byte output buffer; only " + cap + " bytes kept"));
    // The copy kept in the output buffer is the block's head.
    std::vector<char> again(1000);
    ASSERT_EQ(capacity, slot.ReadData(again.data(), again.size()));
    EXPECT_TRUE(std::equal(again.begin(), again.begin() + capacity, block.begin()));
}

TEST(SlotProcesses, OpeningResetsTheHeaderButKeepsQueuedBlocks) {
    testsupport::ScopedSlotName name;
    ReliableSlot slot(open_or_create, name.c_str(), 16, 4);
    slot.WriteData("one", 3);
    slot.WriteData("two", 3);
    ASSERT_EQ("one", testsupport::ReadDirect(slot));
    slot.WriteData("three", 5);
    ASSERT_FALSE(slot.GetLastWriteTime().is_not_a_date_time());

    ASSERT_TRUE(testsupport::RunsInChild([&name] {
        ReliableSlot reopened(open_or_create, name.c_str(), 16, 4);
        Segment mem = OpenSegment(name);
        testsupport::Require(reopened.GetLastWriteTime().is_not_a_date_time(), 1, "write time");
        testsupport::Require(
            *mem->GetSegment().find<unsigned int>("output_buffer_data_size").first == 0, 2,
            "output buffer's data size");
        testsupport::Require(reopened.GetBufferLength() == 2, 3, "queued blocks");
    }));

    EXPECT_TRUE(slot.GetLastWriteTime().is_not_a_date_time());
    EXPECT_EQ("two", testsupport::ReadDirect(slot));
    EXPECT_EQ("three", testsupport::ReadDirect(slot));
}

}  // namespace
