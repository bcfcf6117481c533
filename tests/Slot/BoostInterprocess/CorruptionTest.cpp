// SPDX-License-Identifier: Apache-2.0
// Random bytes over a slot's header segment or queue, before or while it is open: using the slot
// gives exceptions or ERROR lines, never a crash, an out-of-bounds access (run it under ASan/UBSan)
// or a hang. Each case runs in a child under a watchdog.
#include "ChildProcess.h"
#include "ChildRequire.h"
#include "LockedBlocks.h"
#include "LogCapture.h"
#include "ShmHygiene.h"
#include "ShmObject.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/DiscardingSlot.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/SlotImage.h>
#include <Slot/ISlotConfiguration.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotSurvey.h>
#include <Slot/SlotWriter.h>

#include <shared/ILockable.h>
#include <shared/ISubscriber.h>
#include <shared/SharedMemory.h>

#include <boost/interprocess/ipc/message_queue.hpp>

#include <gtest/gtest.h>

#include <pthread.h>
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using boost::interprocess::interprocess_exception;
using boost::interprocess::open_or_create;
using testsupport::ReadBlock;
using testsupport::Require;
using testsupport::RequireOneLine;
using testsupport::RunInChild;
using testsupport::WriteBlock;

// Runs `use`; an exception of one of `Kinds` is an allowed outcome, any other fails the case.
template <class Use>
void Allowing(Use use) {
    use();
}
template <class Kind, class... More, class Use>
void Allowing(Use use) {
    try {
        Allowing<More...>(use);
    } catch (const Kind&) {
    }
}

// Random bytes over bytes [at, at + length) of the `size` bytes at `bytes`.
void Fill(unsigned char* bytes, size_t size, size_t at, size_t length, std::mt19937& random) {
    for (size_t k = at; k < at + length && k < size; ++k) {
        bytes[k] = static_cast<unsigned char>(random());
    }
}

// Overwrites `count` random runs of 1-8 random bytes of the object `name`, mapped for writing as
// a stray process would.
void Scribble(const std::string& name, std::mt19937& random, int count) {
    testsupport::MappedObject map(name, true);
    ASSERT_NE(nullptr, map.bytes) << name;
    for (int i = 0; i < count; ++i) {
        const size_t at = random() % map.size;
        Fill(map.bytes, map.size, at, 1 + random() % 8, random);
    }
}

// Opens, writes and reads the slot; every failure must be an exception of the library's kinds.
int UseSlot(const std::string& name) {
    Allowing<AbortSlotCreationException, interprocess_exception>([&] {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        for (int i = 0; i < 3; ++i) {
            WriteBlock(slot, "fresh");
            Allowing<interprocess_exception>([&] { ReadBlock(slot, 64); });
            slot.GetBufferLength();
            slot.GetLastWriteTime();
        }
    });
    return 0;
}

// The cases a campaign runs: SLOT_CORRUPTION_CASES of them (or `count`) from case
// SLOT_CORRUPTION_FIRST (or 0), in the series SLOT_CORRUPTION_SEED (or `seed`). Each case draws
// from its own generator, so that one case can be run alone.
struct Cases {
    unsigned seed;
    int first;
    int end;
    std::mt19937 Random(int c) const {
        std::seed_seq caseSeed{seed, static_cast<unsigned>(c)};
        return std::mt19937(caseSeed);
    }
    std::string Name(int c, const std::string& what) const {
        return "seed " + std::to_string(seed) + ", case " + std::to_string(c) + " (" + what + ")";
    }
};

// Runs the case `what` in a child under a watchdog, with the creation wait cut to 100 ms.
::testing::AssertionResult RunCase(const std::string& what, const std::function<int()>& body) {
    const testsupport::ChildResult result = RunInChild(
        [&] {
            ::setenv("SLOT_CREATION_WAIT_MS", "100", 1);
            return body();
        },
        std::chrono::seconds(30));
    if (result.Ok()) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << what << ": " << result.Describe();
}

Cases CasesToRun(int count, unsigned seed) {
    if (const char* text = std::getenv("SLOT_CORRUPTION_CASES")) {
        count = std::max(1, std::atoi(text));
    }
    if (const char* text = std::getenv("SLOT_CORRUPTION_SEED")) {
        seed = static_cast<unsigned>(std::strtoul(text, nullptr, 10));
    }
    int first = 0;
    if (const char* text = std::getenv("SLOT_CORRUPTION_FIRST")) {
        first = std::max(0, std::atoi(text));
    }
    return Cases{seed, first, first + count};
}

TEST(Corruption, RandomBytesOverAHeaderOrAQueueNeverCrashOrHang) {
    const Cases cases = CasesToRun(200, 20261123);
    for (int c = cases.first; c < cases.end; ++c) {
        std::mt19937 random = cases.Random(c);
        testsupport::ScopedSlotName name("corrupt");
        {
            ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
            WriteBlock(slot, "block one");
            WriteBlock(slot, "block two");
        }
        const bool queue = c % 2 == 1;
        Scribble(queue ? "queue_" + name.str() : name.str(), random, 1 + c % 4);
        ASSERT_TRUE(
            RunCase(cases.Name(c, queue ? "queue" : "header"), [&] { return UseSlot(name); }));
        SlotFactory::RemoveSlot(name.str());
    }
}

// Every 32-bit word of the segment's bookkeeping replaced by values that look like sizes, offsets
// and flags, with the last named object renamed so that opening allocates it again through the
// damage. The segment's mutexes are left alone: a lock a live process seems to hold is waited for.
TEST(Corruption, EveryBookkeepingWordDamagedBeforeAnAllocation) {
    testsupport::ScopedSlotName name("corrupt");
    {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        WriteBlock(slot, "block");
    }
    testsupport::Bytes pristine = testsupport::ReadObject(name.str());
    const char condition[] = "cond_on_write";
    auto found =
        std::search(pristine.begin(), pristine.end(), condition, condition + sizeof(condition) - 1);
    ASSERT_NE(pristine.end(), found);
    found[sizeof(condition) - 2] = 'f';  // same length: the index stays in order
    const SlotImage::HeaderImage image = SlotImage::ParseHeader(pristine.data(), pristine.size());
    ASSERT_EQ(SlotImage::Verdict::Unfinished, image.verdict) << image.problem;
    ASSERT_TRUE(image.outputBuffer.present);
    auto inside = [](std::uint64_t at, const SlotImage::Region& region) {
        return region.present && at + 4 > region.offset && at < region.offset + region.size;
    };
    const std::uint32_t values[] = {0, 1, 16, 0x80000002u, 0xfffffff0u};
    int cases = 0;
    for (std::uint64_t at = image.managerOffset; at + 4 <= pristine.size(); at += 4) {
        if (inside(at, image.outputBuffer) || inside(at, image.allocatorMutex) ||
            inside(at, image.indexMutex) || inside(at, image.headerMutex)) {
            continue;
        }
        for (std::uint32_t value : values) {
            std::vector<unsigned char> bytes = pristine;
            std::memcpy(&bytes[at], &value, sizeof(value));
            ASSERT_TRUE(testsupport::WriteObject(name.str(), bytes));
            ASSERT_TRUE(RunCase("word at " + std::to_string(at) + " = " + std::to_string(value),
                                [&] { return UseSlot(name); }));
            ++cases;
        }
    }
    EXPECT_GT(cases, 100);
}

// Fills part of the header segment `name` with random bytes while it is mapped elsewhere: a
// run of the bookkeeping in front of the output buffer, a run anywhere, or the whole segment.
// `keepFirstWord` restores Boost's creation-state word, so that openers get past it.
void FillOpenHeader(const std::string& name, std::mt19937& random, bool keepFirstWord) {
    testsupport::MappedObject map(name, true);
    Require(map.bytes != nullptr, 20, "cannot map " + name);
    const size_t size = map.size;
    std::uint64_t firstWord;
    std::memcpy(&firstWord, map.bytes, sizeof(firstWord));
    size_t at = 0;
    size_t length = size;
    switch (random() % 3) {
        case 0:  // the segment manager, the index, the named objects
            at = random() % std::min<size_t>(size, 1024);
            length = 1 + random() % 256;
            break;
        case 1:
            at = random() % size;
            length = 1 + random() % 4096;
            break;
        default:
            break;
    }
    Fill(map.bytes, size, at, length, random);
    if (keepFirstWord) {
        std::memcpy(map.bytes, &firstWord, sizeof(firstWord));
    }
}

// Uses `slot`, open while its header was filled: a read, a write through a writer of it and one of
// a new opening, then another opening.
int UseDamagedOpenSlot(const boost::shared_ptr<ISlot>& slot, const SimpleSlotCfg& cfg) {
    Allowing<interprocess_exception>([&] { ReadBlock(*slot); });
    Allowing<interprocess_exception>([&] { SlotWriter(slot).onNotify("", "fresh", 5); });
    slot->GetBufferLength();
    slot->GetLastWriteTime();
    Allowing<AbortSlotCreationException, interprocess_exception>(
        [&] { SlotFactory::CreateSlotWriter(&cfg)->onNotify("", "fresh", 5); });
    Allowing<AbortSlotCreationException>([&] { SlotFactory::CreateSlot(&cfg); });
    return 0;
}

// The header segment of an open slot, of either kind, filled with random bytes; the first word
// is kept in half of the cases. The survey must still read it and removal must remove it.
TEST(Corruption, RandomBytesOverAnOpenSlotsHeaderNeverCrashOrHang) {
    const Cases cases = CasesToRun(60, 20261125);
    for (int c = cases.first; c < cases.end; ++c) {
        testsupport::ScopedSlotName name("corruptopen");
        const bool reliable = c % 2 == 0;
        const bool keepFirstWord = c % 4 < 2;
        const SimpleSlotCfg cfg(name.str(), reliable ? "reliable" : "discarding",
                                boost::posix_time::milliseconds(10), 4);
        const std::string what = cfg.GetSlotType() + (keepFirstWord ? ", first word kept" : "");
        ASSERT_TRUE(RunCase(cases.Name(c, what), [&] {
            std::mt19937 random = cases.Random(c);
            const boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
            WriteBlock(*slot, "block one");
            FillOpenHeader(name.str(), random, keepFirstWord);
            return UseDamagedOpenSlot(slot, cfg);
        }));
        SlotSurvey::InspectSlot(name.str());
        SlotFactory::RemoveSlot(name.str());
        ASSERT_EQ(SlotState::Absent, SlotSurvey::InspectSlot(name.str()).state) << "case " << c;
    }
}

// Words an open slot follows, changed while it is open: a changed output buffer handle makes a read
// throw before it takes a block; a write time that is no time reads as not written; a header mutex
// of another kind is given up on at once with the ERROR line.
TEST(Corruption, WordsAnOpenSlotFollowsAreCheckedAtEveryUse) {
    testsupport::ScopedSlotName name("corruptword");
    ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
    WriteBlock(slot, "kept");
    const testsupport::Bytes pristine = testsupport::ReadObject(name.str());
    const SlotImage::HeaderImage image = SlotImage::ParseHeader(pristine.data(), pristine.size());
    ASSERT_EQ(SlotImage::Verdict::Valid, image.verdict) << image.problem;
    auto overwrite = [&](std::uint64_t at, const void* value, size_t size) {
        std::vector<unsigned char> bytes = pristine;
        std::memcpy(&bytes[at], value, size);
        ASSERT_TRUE(testsupport::WriteObject(name.str(), bytes));
    };

    const std::int32_t handle = image.outputHandle + 16;
    overwrite(image.objects[SlotImage::OutputHandle].value.offset, &handle, sizeof(handle));
    try {
        ReadBlock(slot, 64);
        ADD_FAILURE() << "a read followed a changed output buffer handle";
    } catch (const interprocess_exception& e) {
        EXPECT_NE(std::string::npos,
                  std::string(e.what()).find("segment '" + name.str() +
                                             "' is damaged: its output buffer handle is " +
                                             std::to_string(handle)))
            << e.what();
    }
    EXPECT_EQ(1u, slot.GetBufferLength()) << "the block was taken although the read failed";

    const std::uint64_t never = 0x7ffffffffffffff0ull;
    overwrite(image.objects[SlotImage::LastWriteTime].value.offset, &never, sizeof(never));
    EXPECT_TRUE(slot.GetLastWriteTime().is_not_a_date_time());

    const int kind = 3;  // adaptive, not robust
    overwrite(image.headerMutex.offset + offsetof(pthread_mutex_t, __data.__kind), &kind,
              sizeof(kind));
    {
        testsupport::LogCapture log("Slot");
        EXPECT_THROW(slot.GetLockable()->lock(), interprocess_exception);
        EXPECT_THROW(slot.GetLockable()->try_lock(), interprocess_exception);
        EXPECT_LE(1u, log.Count("ERROR", "Slot '" + name.str() +
                                             "' : its header lock is not a robust lock (kind 3); "
                                             "the lock is damaged, giving up"));
    }

    ASSERT_TRUE(testsupport::WriteObject(name.str(), pristine));
    EXPECT_EQ("kept", ReadBlock(slot, 64));
}

// ---- The queue's words changed while a slot has it open -------------------------------------
// Each case runs in a child, so that an out-of-bounds copy (an ASan abort) fails only the case.

typedef boost::interprocess::ipcdetail::mq_hdr_t<shared::SlotOffsetPtr> QueueControl;
typedef boost::interprocess::ipcdetail::msg_hdr_t<shared::SlotOffsetPtr> QueueMessage;
typedef boost::interprocess::message_queue_t<shared::SlotOffsetPtr>::size_type QueueSize;
// An index entry's stored offset (64-bit on x86_64, 32-bit on the 32-bit target).
typedef shared::SlotOffsetPtr::offset_type QueueOffset;

// The queue "queue_<name>" mapped for writing, as a stray process maps it, and its layout now.
struct StrayQueueView {
    explicit StrayQueueView(const std::string& slotName)
        : map("queue_" + slotName, true), image(SlotImage::ParseQueue(map.bytes, map.size)) {}
    QueueControl& Control() {
        return *reinterpret_cast<QueueControl*>(map.bytes + image.controlOffset);
    }
    // The raw offset of index position `position`, and the message it points at.
    QueueOffset& Entry(std::uint64_t position) {
        return *reinterpret_cast<QueueOffset*>(map.bytes + EntryAt(position));
    }
    std::uint64_t EntryAt(std::uint64_t position) const {
        return image.index.offset + position * sizeof(QueueOffset);
    }
    QueueMessage& Message(std::uint64_t position) {
        return *reinterpret_cast<QueueMessage*>(map.bytes + EntryAt(position) + Entry(position));
    }
    std::uint64_t OldestPosition() const {
        return (image.firstIndex + image.waiting - 1) % image.capacity;
    }
    testsupport::MappedObject map;
    SlotImage::QueueImage image;
};

// In a child: the slot stores and delivers a block again and its queue is whole.
void RequireWorking(ISlot& slot, const std::string& name, int code) {
    WriteBlock(slot, "afterwards");
    const std::string got = ReadBlock(slot);
    Require(got == "afterwards", code, "read '" + got + "' after the repair");
    StrayQueueView view(name);
    Require(view.image.verdict == SlotImage::Verdict::Valid, code + 1,
            "queue left " + std::string(SlotImage::VerdictText(view.image.verdict)) + ": " +
                view.image.problem);
}

// The max message size raised from 64 to 1 MiB under an open discarding slot, then a 1 MiB write:
// refused with the usual line (Boost would copy 1 MiB into a 64-byte slot); the next use puts the
// word back.
TEST(QueueDamagedWhileOpen, ARaisedMaxSizeIsNeverUsedAndIsPutBack) {
    const testsupport::ScopedSlotName name("qmaxsize");
    EXPECT_TRUE(testsupport::RunsInChild([&] {
        DiscardingSlot slot(open_or_create, name.c_str(), 64);
        StrayQueueView view(name);
        const_cast<QueueSize&>(view.Control().m_max_msg_size) = 1u << 20;
        Require(slot.GetMaxDataSize() == 64, 10,
                "max data size " + std::to_string(slot.GetMaxDataSize()));
        testsupport::LogCapture log("Slot");
        WriteBlock(slot, std::string(1u << 20, 'x'));
        RequireOneLine(
            log, "ERROR",
            "Unable to write to '" + name.str() + "': data size 1048576 > max data size 64", 11);
        WriteBlock(slot, "small");
        RequireOneLine(log, "ERROR",
                       "Queue of '" + name.str() +
                           "' : max message size 1048576 instead of 64; the values found at its "
                           "opening were restored",
                       12);
        Require(view.Control().m_max_msg_size == 64, 13, "max message size not put back");
        Require(ReadBlock(slot, 64) == "small", 14, "the block written after the damage was lost");
        RequireWorking(slot, name, 15);
    }));
}

// A waiting block's length set to 100000 in a slot of 64-byte blocks, then a 64-byte read (Boost
// would copy 100000 bytes): the block is dropped, those before and after it are delivered.
TEST(QueueDamagedWhileOpen, AWaitingBlocksLengthBeyondTheMaximumIsDroppedNotCopied) {
    const testsupport::ScopedSlotName name("qlength");
    EXPECT_TRUE(testsupport::RunsInChild([&] {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        WriteBlock(slot, "first");
        WriteBlock(slot, std::string(64, 'y'));
        Require(ReadBlock(slot, 64) == "first", 10, "first block not read");
        StrayQueueView view(name);
        const std::uint64_t oldest = view.OldestPosition();
        view.Message(oldest).len = 100000;
        testsupport::LogCapture log("Slot");
        Require(ReadBlock(slot, 64).empty(), 11, "a block was delivered");
        RequireOneLine(log, "ERROR",
                       "Queue of '" + name.str() + "' : the block at index position " +
                           std::to_string(oldest) +
                           " claims 100000 bytes, more than the 64-byte maximum; 1 waiting block "
                           "was dropped",
                       12);
        Require(slot.GetBufferLength() == 0, 13, "the damaged block is still counted");
        RequireWorking(slot, name, 14);
    }));
}

// The oldest block's index entry pointed past the end of the queue: the read drops the block
// rather than follow the entry, and the index is a permutation of the message slots again.
TEST(QueueDamagedWhileOpen, AnIndexEntryOutsideTheMessagesIsDroppedNotFollowed) {
    const testsupport::ScopedSlotName name("qentry");
    EXPECT_TRUE(testsupport::RunsInChild([&] {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        WriteBlock(slot, "lost");
        WriteBlock(slot, "kept");
        StrayQueueView view(name);
        const std::uint64_t oldest = view.OldestPosition();
        const std::uint64_t outside = view.map.size + 4096;
        view.Entry(oldest) = static_cast<QueueOffset>(outside - view.EntryAt(oldest));
        testsupport::LogCapture log("Slot");
        const std::string got = ReadBlock(slot, 64);
        RequireOneLine(log, "ERROR",
                       "Queue of '" + name.str() + "' : index position " + std::to_string(oldest) +
                           " points at offset " + std::to_string(outside) + " of its " +
                           std::to_string(view.map.size) +
                           " bytes, not at a message slot; its index was rebuilt, 1 waiting "
                           "block was dropped",
                       10);
        Require(got == "kept", 11, "read '" + got + "', not the block after the damage");
        RequireWorking(slot, name, 12);
    }));
}

// The index pointer moved 1 MiB on and the capacity raised, while blocks wait: the next write
// puts both back before Boost follows them, and the waiting blocks stay, in order.
TEST(QueueDamagedWhileOpen, AMovedIndexPointerAndCapacityArePutBack) {
    const testsupport::ScopedSlotName name("qindex");
    EXPECT_TRUE(testsupport::RunsInChild([&] {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        WriteBlock(slot, "one");
        StrayQueueView view(name);
        QueueOffset& index = *reinterpret_cast<QueueOffset*>(&view.Control().mp_index);
        const QueueOffset before = index;
        index = before + (1u << 20);
        const_cast<QueueSize&>(view.Control().m_max_num_msg) = 1000;
        testsupport::LogCapture log("Slot");
        WriteBlock(slot, "two");
        RequireOneLine(
            log, "ERROR",
            "Queue of '" + name.str() + "' : capacity 1000 instead of 4, index pointer " +
                "offset " + std::to_string(before + (1u << 20)) + " instead of " +
                std::to_string(before) + "; the values found at its opening were restored",
            10);
        Require(index == before && view.Control().m_max_num_msg == 4, 11,
                "the index pointer or the capacity was not put back");
        const std::string first = ReadBlock(slot, 64);
        const std::string second = ReadBlock(slot, 64);
        Require(first == "one" && second == "two", 12, "read '" + first + "', '" + second + "'");
        RequireWorking(slot, name, 13);
    }));
}

// Random runs of random bytes over the queue of a slot open in this process, mostly over its
// control block and index. Its mutex (the lock tests' matter) and creation word (never read again
// once open) are kept.
void ScribbleOpenQueue(const std::string& slotName, std::mt19937& random) {
    StrayQueueView view(slotName);
    Require(view.map.bytes != nullptr && view.image.mutex.present, 20, "no queue mutex found");
    const size_t size = view.map.size;
    unsigned char* const mutexAt = view.map.bytes + view.image.mutex.offset;
    const std::vector<unsigned char> mutex(mutexAt, mutexAt + view.image.mutex.size);
    std::uint64_t firstWord;
    std::memcpy(&firstWord, view.map.bytes, sizeof(firstWord));
    const size_t front = std::min<size_t>(size, view.image.messages.offset + 64);
    for (int runs = 1 + random() % 3; runs > 0; --runs) {
        const size_t at = random() % 4 != 0 ? random() % front : random() % size;
        Fill(view.map.bytes, size, at, 1 + random() % 8, random);
    }
    std::memcpy(mutexAt, mutex.data(), mutex.size());
    std::memcpy(view.map.bytes, &firstWord, sizeof(firstWord));
}

// The queue of an open slot, of either kind, damaged at random while blocks wait: reads into a
// buffer of exactly the max data size, writes and counts never crash, copy out of bounds (run
// it under ASan) or hang; failures are the library's exceptions and ERROR lines.
TEST(QueueDamagedWhileOpen, RandomBytesOverAnOpenQueueNeverCrashOrHang) {
    const Cases cases = CasesToRun(100, 20261127);
    for (int c = cases.first; c < cases.end; ++c) {
        testsupport::ScopedSlotName name("qrandom");
        const bool reliable = c % 2 == 0;
        ASSERT_TRUE(RunCase(cases.Name(c, reliable ? "reliable" : "discarding"), [&] {
            std::mt19937 random = cases.Random(c);
            std::unique_ptr<ISlot> slot;
            if (reliable) {
                slot.reset(new ReliableSlot(open_or_create, name.c_str(), 64, 4));
            } else {
                slot.reset(new DiscardingSlot(open_or_create, name.c_str(), 64));
            }
            WriteBlock(*slot, "block one");
            WriteBlock(*slot, std::string(64, 'b'));
            ScribbleOpenQueue(name, random);
            for (int round = 0; round < 3; ++round) {
                Allowing<interprocess_exception>([&] { ReadBlock(*slot); });
                WriteBlock(*slot, std::string(1 + random() % 64, 'w'));
                slot->GetBufferLength();
            }
            return 0;
        }));
    }
}

}  // namespace
