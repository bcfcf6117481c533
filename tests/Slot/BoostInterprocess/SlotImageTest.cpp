// SPDX-License-Identifier: Apache-2.0
// The raw-bytes view of a slot's header segment and queue, checked against what Boost itself
// answers for real objects, and against unfinished, foreign and damaged bytes.
#include "LockedBlocks.h"
#include "ShmHygiene.h"
#include "ShmObject.h"

#include <Slot/BoostInterprocess/DiscardingSlot.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/SlotImage.h>

#include <shared/SharedMemory.h>

#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/shared_memory_object.hpp>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using boost::interprocess::open_only;
using boost::interprocess::open_or_create;
using SlotImage::Verdict;

typedef testsupport::Bytes Image;
using testsupport::ReadObject;
using testsupport::WriteBlock;

// A copy of `image` with `value` written at `offset`.
template <class T>
Image Poked(Image image, std::uint64_t offset, T value) {
    EXPECT_LE(offset + sizeof(T), image.size());
    if (offset + sizeof(T) <= image.size()) {
        std::memcpy(image.data() + offset, &value, sizeof(T));
    }
    return image;
}

template <class T>
T Peek(const Image& image, std::uint64_t offset) {
    T value{};
    std::memcpy(&value, image.data() + offset, sizeof(T));
    return value;
}

SlotImage::HeaderImage ParseHeader(const Image& image) {
    return SlotImage::ParseHeader(image.data(), image.size());
}

SlotImage::QueueImage ParseQueue(const Image& image) {
    return SlotImage::ParseQueue(image.data(), image.size());
}

// Every region the parser reports lies inside the bytes it was given.
void ExpectInside(std::vector<SlotImage::Region> regions, std::uint64_t size) {
    for (const SlotImage::Region& region : regions) {
        EXPECT_TRUE(!region.present ||
                    (region.offset <= size && region.size <= size - region.offset))
            << region.offset << " + " << region.size << " of " << size;
    }
}

void ExpectRegionsInside(const SlotImage::HeaderImage& h, std::uint64_t size) {
    std::vector<SlotImage::Region> regions = {h.allocatorMutex, h.indexMutex, h.headerMutex,
                                              h.outputBuffer};
    for (const SlotImage::NamedObject& object : h.objects) {
        regions.push_back(object.value);
    }
    ExpectInside(regions, size);
}

TEST(SlotImage, HealthyReliableSlotAgreesWithBoost) {
    testsupport::ScopedSlotName name;
    ReliableSlot slot(open_or_create, name.c_str(), 100, 4);
    WriteBlock(slot, "first");
    WriteBlock(slot, "second block");

    const Image headerBytes = ReadObject(name);
    const SlotImage::HeaderImage h = ParseHeader(headerBytes);
    EXPECT_EQ(Verdict::Valid, h.verdict) << h.problem;
    EXPECT_EQ(SlotImage::CreationState::Initialised, h.creation);
    EXPECT_TRUE(h.Complete());
    EXPECT_EQ(headerBytes.size(), h.recordedSize);
    EXPECT_EQ(slot.GetLastWriteTime(), h.lastWrite);
    EXPECT_EQ(0u, h.outputDataSize);

    // The same objects as Boost finds them.
    shared::SlotSegment segment(open_only, name.c_str());
    EXPECT_EQ(segment.get_free_memory(), h.freeBytes);
    EXPECT_EQ(segment.get_num_named_objects(), h.namedCount);
    EXPECT_EQ(segment.get_num_unique_objects(), h.uniqueCount);
    // Offsets in the mapping, which starts at get_address.
    const char* const start = static_cast<const char*>(segment.get_address());
    EXPECT_EQ(start + h.managerOffset,
              reinterpret_cast<const char*>(segment.get_segment_manager()));
    const auto at = [&](const void* address) {
        return static_cast<std::uint64_t>(static_cast<const char*>(address) - start);
    };
    using boost::interprocess::interprocess_mutex;
    EXPECT_EQ(at(segment.find<interprocess_mutex>(boost::interprocess::unique_instance).first),
              h.headerMutex.offset);
    EXPECT_EQ(at(segment.find<boost::posix_time::ptime>("last_write_tstamp").first),
              h.objects[SlotImage::LastWriteTime].value.offset);
    EXPECT_EQ(at(segment.find<unsigned int>("output_buffer_data_size").first),
              h.objects[SlotImage::OutputDataSize].value.offset);
    const int handle = *segment.find<int>("output_buffer_handle").first;
    EXPECT_EQ(handle, h.outputHandle);
    void* buffer = segment.get_address_from_handle(handle);
    EXPECT_EQ(at(buffer), h.outputBuffer.offset);
    EXPECT_EQ(segment.get_segment_manager()->size(buffer), h.outputBuffer.size);
    EXPECT_TRUE(h.objects[SlotImage::WriteCondition].value.present);
    EXPECT_EQ(0, h.headerMutexOwnerThread);

    const Image queueBytes = ReadObject(BaseQueueSlot::GetQueueName(name));
    const SlotImage::QueueImage q = ParseQueue(queueBytes);
    EXPECT_EQ(Verdict::Valid, q.verdict) << q.problem;
    EXPECT_EQ(4u, q.capacity);
    EXPECT_EQ(100u, q.maxMessageSize);
    EXPECT_EQ(2u, q.waiting);
    EXPECT_EQ(queueBytes.size(), q.requiredSize);
    EXPECT_TRUE(q.countsValid && q.indexValid && q.messagesValid);
    EXPECT_EQ(0, q.mutexOwnerThread);

    // Slot "queue_<x>"'s header segment has the name of slot "<x>"'s queue.
    EXPECT_EQ(Verdict::Foreign, ParseQueue(headerBytes).verdict);
    EXPECT_EQ(Verdict::Foreign, ParseHeader(queueBytes).verdict);
}

// Counts after reads: of a discarding slot, and of a reliable one whose index wrapped around.
TEST(SlotImage, CountsAfterReadsAndAroundTheCircularIndex) {
    testsupport::ScopedSlotName name;
    DiscardingSlot slot(open_or_create, name.c_str(), 1000);
    const std::string block(777, 'x');
    WriteBlock(slot, block);
    EXPECT_EQ(block, testsupport::ReadBlock(slot, 1000));

    const SlotImage::HeaderImage h = ParseHeader(ReadObject(name));
    EXPECT_EQ(Verdict::Valid, h.verdict) << h.problem;
    EXPECT_EQ(block.size(), h.outputDataSize);
    EXPECT_GE(h.outputBuffer.size, 1000u);
    const SlotImage::QueueImage q = ParseQueue(ReadObject(BaseQueueSlot::GetQueueName(name)));
    EXPECT_EQ(Verdict::Valid, q.verdict) << q.problem;
    EXPECT_EQ(1u, q.capacity);
    EXPECT_EQ(0u, q.waiting);

    testsupport::ScopedSlotName wrapped;
    ReliableSlot reliable(open_or_create, wrapped.c_str(), 16, 3);
    for (int i = 0; i < 7; ++i) {
        WriteBlock(reliable, "block " + std::to_string(i));
        if (i % 2 == 1) {
            testsupport::ReadBlock(reliable, 16);
        }
    }
    const SlotImage::QueueImage w = ParseQueue(ReadObject(BaseQueueSlot::GetQueueName(wrapped)));
    EXPECT_EQ(Verdict::Valid, w.verdict) << w.problem;
    EXPECT_EQ(reliable.GetBufferLength(), w.waiting);
}

// A source that counts the bytes the parser reads.
class CountingSource : public SlotImage::MemorySource {
public:
    explicit CountingSource(const Image& image) : MemorySource(image.data(), image.size()) {}
    bool ReadAt(std::uint64_t offset, void* out, std::size_t length) const override {
        read += length;
        return MemorySource::ReadAt(offset, out, length);
    }
    mutable std::uint64_t read = 0;
};

// Parsing reads a slot's structure, not its blocks: a survey of a large slot stays cheap.
TEST(SlotImage, ParsingReadsTheStructureNotTheBlocks) {
    testsupport::ScopedSlotName name;
    const size_t maxSize = 256 * 1024;
    ReliableSlot slot(open_or_create, name.c_str(), maxSize, 4);
    const std::string block(200 * 1024, 'b');
    for (int i = 0; i < 3; ++i) {
        WriteBlock(slot, block);
    }
    ASSERT_EQ(block, testsupport::ReadBlock(slot, maxSize));

    const Image headerBytes = ReadObject(name);
    const CountingSource header(headerBytes);
    const SlotImage::HeaderImage h = SlotImage::ParseHeader(header);
    EXPECT_EQ(Verdict::Valid, h.verdict) << h.problem;
    EXPECT_EQ(block.size(), h.outputDataSize);
    const Image queueBytes = ReadObject(BaseQueueSlot::GetQueueName(name));
    const CountingSource queue(queueBytes);
    const SlotImage::QueueImage q = SlotImage::ParseQueue(queue);
    EXPECT_EQ(Verdict::Valid, q.verdict) << q.problem;
    EXPECT_EQ(2u, q.waiting);
    EXPECT_LT(header.read, 4096u) << "of " << headerBytes.size();
    EXPECT_LT(queue.read, 4096u) << "of " << queueBytes.size();
}

TEST(SlotImage, CreationStates) {
    struct Case {
        Image bytes;
        SlotImage::CreationState state;
        Verdict verdict;
    };
    auto word = [](std::uint32_t value) {
        Image bytes(4096, 0);
        std::memcpy(bytes.data(), &value, sizeof(value));
        return bytes;
    };
    auto zeros = [](size_t size, unsigned char last) {
        Image bytes(size, 0);
        bytes.back() = last;
        return bytes;
    };
    const Case cases[] = {
        {Image(), SlotImage::CreationState::Missing, Verdict::Unfinished},
        {Image(1, 0), SlotImage::CreationState::Missing, Verdict::Damaged},
        {word(0), SlotImage::CreationState::Uninitialised, Verdict::Unfinished},
        // Some other program's data that happens to start with a zero word.
        {[&] {
             Image bytes = word(0);
             bytes[4000] = 7;
             return bytes;
         }(),
         SlotImage::CreationState::Uninitialised, Verdict::Foreign},
        // Larger objects are read in pieces, to their last byte.
        {zeros(200 * 1024 + 1, 0), SlotImage::CreationState::Uninitialised, Verdict::Unfinished},
        {zeros(200 * 1024 + 1, 7), SlotImage::CreationState::Uninitialised, Verdict::Foreign},
        {word(1), SlotImage::CreationState::Initialising, Verdict::Unfinished},
        {word(3), SlotImage::CreationState::Corrupted, Verdict::Damaged},
        {word(0x464c457f), SlotImage::CreationState::Invalid, Verdict::Foreign},
        {word(2), SlotImage::CreationState::Initialised, Verdict::Foreign},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytes.size());
        EXPECT_EQ(c.state, SlotImage::ReadCreationState(c.bytes.data(), c.bytes.size()));
        const SlotImage::HeaderImage h = ParseHeader(c.bytes);
        const SlotImage::QueueImage q = ParseQueue(c.bytes);
        EXPECT_EQ(c.state, h.creation);
        EXPECT_EQ(c.state, q.creation);
        EXPECT_EQ(c.verdict, h.verdict) << h.problem;
        EXPECT_EQ(c.verdict, q.verdict) << q.problem;
        EXPECT_FALSE(h.problem.empty());
        EXPECT_FALSE(q.problem.empty());
    }
}

TEST(SlotImage, PartlyBuiltHeaderIsUnfinishedInBuildOrderOnly) {
    testsupport::ScopedSlotName name;
    {
        // The segment and its header mutex, as shared::CreateSharedMemory leaves them.
        std::unique_ptr<shared::ISharedMemory> memory(
            shared::CreateSharedMemory(open_or_create, name.c_str(), 4096));
        const SlotImage::HeaderImage h = ParseHeader(ReadObject(name));
        EXPECT_EQ(Verdict::Unfinished, h.verdict) << h.problem;
        EXPECT_TRUE(h.headerMutex.present);

        // The first two named objects: a builder that died half way.
        memory->GetSegment().construct<boost::posix_time::ptime>("last_write_tstamp")();
        memory->GetSegment().construct<unsigned int>("output_buffer_data_size")(0u);
        const SlotImage::HeaderImage half = ParseHeader(ReadObject(name));
        EXPECT_EQ(Verdict::Unfinished, half.verdict) << half.problem;
        EXPECT_TRUE(half.objects[SlotImage::OutputDataSize].value.present);
        EXPECT_FALSE(half.objects[SlotImage::OutputHandle].found);

        // A condition without a handle is not what any builder leaves.
        memory->GetSegment().construct<shared::InterprocCondition>("cond_on_write")();
        EXPECT_EQ(Verdict::Damaged, ParseHeader(ReadObject(name)).verdict);
    }
}

class DamagedSlot : public ::testing::Test {
protected:
    void SetUp() override {
        slot_.reset(new ReliableSlot(open_or_create, name_.c_str(), 40, 4));
        WriteBlock(*slot_, "one");
        WriteBlock(*slot_, "two");
        header_ = ReadObject(name_);
        queue_ = ReadObject(BaseQueueSlot::GetQueueName(name_));
        h_ = ParseHeader(header_);
        q_ = ParseQueue(queue_);
        ASSERT_EQ(Verdict::Valid, h_.verdict);
        ASSERT_EQ(Verdict::Valid, q_.verdict);
    }

    testsupport::ScopedSlotName name_;
    std::unique_ptr<ReliableSlot> slot_;
    Image header_;
    Image queue_;
    SlotImage::HeaderImage h_;
    SlotImage::QueueImage q_;
};

TEST_F(DamagedSlot, QueueCountsIndexAndLengths) {
    typedef boost::interprocess::message_queue_t<shared::SlotOffsetPtr>::size_type Count;
    // The count of waiting messages is the third 32-bit field after the index pointer.
    const std::uint64_t waitingAt = q_.controlOffset + sizeof(shared::SlotOffsetPtr) + 8;
    ASSERT_EQ(2u, Peek<Count>(queue_, waitingAt));
    SlotImage::QueueImage q = ParseQueue(Poked<Count>(queue_, waitingAt, 5));
    EXPECT_EQ(Verdict::Damaged, q.verdict);
    EXPECT_FALSE(q.countsValid);

    typedef shared::SlotOffsetPtr::offset_type Offset;
    const std::uint64_t entry = q_.index.offset + sizeof(shared::SlotOffsetPtr);
    q = ParseQueue(Poked<Offset>(queue_, entry, Peek<Offset>(queue_, entry) + 3));
    EXPECT_EQ(Verdict::Damaged, q.verdict);
    EXPECT_TRUE(q.countsValid);
    EXPECT_FALSE(q.indexValid);

    // Two index entries naming the same message.
    const Offset same =
        static_cast<Offset>(Peek<Offset>(queue_, q_.index.offset) - sizeof(shared::SlotOffsetPtr));
    EXPECT_FALSE(ParseQueue(Poked<Offset>(queue_, entry, same)).indexValid);

    // Every waiting message's length field, made larger than the maximum.
    Image bad = queue_;
    for (std::uint64_t m = 0; m < q_.capacity; ++m) {
        bad = Poked<Count>(bad, q_.messages.offset + m * q_.messageStride, 41);
    }
    q = ParseQueue(bad);
    EXPECT_EQ(Verdict::Damaged, q.verdict);
    EXPECT_TRUE(q.indexValid);
    EXPECT_FALSE(q.messagesValid);
    // Only the second oldest: it is the one named.
    const std::uint64_t second =
        q_.index.offset + (q_.firstIndex + 1) % q_.capacity * sizeof(Offset);
    q = ParseQueue(
        Poked<Count>(queue_, static_cast<Offset>(second + Peek<Offset>(queue_, second)), 41));
    EXPECT_EQ("waiting message 1 is longer than the maximum", q.problem);

    bad = queue_;
    bad.resize(bad.size() - 1);
    EXPECT_EQ(Verdict::Damaged, ParseQueue(bad).verdict);
}

TEST_F(DamagedSlot, HeaderSizeHandleAndDataSize) {
    // The segment size the allocator records, a 32-bit field of its header.
    std::uint64_t recordedAt = h_.managerOffset;
    while (Peek<std::uint32_t>(header_, recordedAt) != header_.size() - h_.managerOffset) {
        recordedAt += 4;
        ASSERT_LT(recordedAt, h_.managerOffset + 128);
    }
    SlotImage::HeaderImage h = ParseHeader(Poked<std::uint32_t>(header_, recordedAt, 1u << 30));
    EXPECT_EQ(Verdict::Damaged, h.verdict);
    EXPECT_TRUE(h.Complete()) << "the objects are still found";

    const std::int32_t outside[] = {
        -16, 0, 8, static_cast<std::int32_t>(header_.size()), h_.outputHandle + 1, 0x7ffffff0};
    for (std::int32_t handle : outside) {
        h = ParseHeader(
            Poked<std::int32_t>(header_, h_.objects[SlotImage::OutputHandle].value.offset, handle));
        EXPECT_EQ(Verdict::Damaged, h.verdict) << handle;
        EXPECT_FALSE(h.outputBuffer.present) << handle;
    }

    EXPECT_EQ(Verdict::Damaged,
              ParseHeader(
                  Poked<std::uint32_t>(header_, h_.objects[SlotImage::OutputDataSize].value.offset,
                                       static_cast<std::uint32_t>(h_.outputBuffer.size + 1)))
                  .verdict);
}

TEST_F(DamagedSlot, IndexLinksThatLoopOrLeave) {
    // The name index's root pointer (after its entry count), made to point at itself, and far
    // outside.
    typedef shared::SlotOffsetPtr::offset_type Offset;
    const std::uint64_t indexBytes = sizeof(std::size_t) + 3 * sizeof(Offset);
    const std::uint64_t namedRootAt = h_.managerOffset +
                                      sizeof(shared::SlotSegment::segment_manager) -
                                      2 * indexBytes + sizeof(std::size_t);
    // It points at an entry past the segment manager (bit 1 is the colour).
    const Offset root =
        static_cast<Offset>(namedRootAt + (Peek<Offset>(header_, namedRootAt) & ~Offset(2)));
    ASSERT_GT(root, namedRootAt);
    ASSERT_LT(root, header_.size());
    for (Offset raw : {Offset(0), Offset(0x7ffffff0), ~Offset(0) - 7}) {
        const SlotImage::HeaderImage h = ParseHeader(Poked(header_, namedRootAt, raw));
        EXPECT_NE(Verdict::Valid, h.verdict);
        ExpectRegionsInside(h, header_.size());
    }
}

// Arbitrary damage to real images: never out of bounds (run under ASan), every region reported
// lies inside the bytes, and the parsers agree with themselves on a page-aligned copy.
TEST_F(DamagedSlot, RandomDamageStaysInBounds) {
    std::mt19937 random(12345);
    const Image originals[] = {header_, queue_};
    int valid = 0;
    for (int round = 0; round < 3000; ++round) {
        Image bytes = originals[round % 2];
        const int kind = random() % 4;
        const int flips = 1 + random() % 8;
        for (int i = 0; i < flips; ++i) {
            const size_t at = random() % bytes.size();
            if (kind == 0) {
                bytes[at] ^= static_cast<unsigned char>(1u << (random() % 8));
            } else if (kind == 1) {
                bytes[at] = static_cast<unsigned char>(random());
            } else if (kind == 2 && at + 4 <= bytes.size()) {
                const std::uint32_t value = random();
                std::memcpy(&bytes[at], &value, sizeof(value));
            }
        }
        if (kind == 3) {
            bytes.resize(random() % bytes.size());
        }
        // An exactly sized heap copy, so any read past the end is caught.
        std::unique_ptr<unsigned char[]> exact(new unsigned char[bytes.size() + 1]);
        std::memcpy(exact.get(), bytes.data(), bytes.size());
        const SlotImage::HeaderImage h = SlotImage::ParseHeader(exact.get(), bytes.size());
        const SlotImage::QueueImage q = SlotImage::ParseQueue(exact.get(), bytes.size());
        ExpectRegionsInside(h, bytes.size());
        ExpectInside({q.mutex, q.receiveCondition, q.sendCondition, q.index, q.messages},
                     bytes.size());
        valid += (h.verdict == Verdict::Valid) + (q.verdict == Verdict::Valid);
        if (::testing::Test::HasFailure()) {
            FAIL() << "round " << round;
        }
    }
    EXPECT_GT(valid, 0) << "some damage lands in bytes nobody checks (data, free space)";
}

}  // namespace
