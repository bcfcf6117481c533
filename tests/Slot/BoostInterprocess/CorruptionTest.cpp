// SPDX-License-Identifier: Apache-2.0
// Random bytes written over a slot's header segment or queue, before it is opened or while it is
// open: opening, writing and reading the slot give exceptions or ERROR lines, never a crash, an
// out-of-bounds access (run it under ASan/UBSan) or a hang. Each case runs in a child under a
// watchdog.
#include "ChildProcess.h"
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
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using boost::interprocess::open_or_create;

// Overwrites `count` random runs of 1-8 random bytes of the object `name`.
void Scribble(const std::string& name, std::mt19937& random, int count) {
    // Mapped for writing, as a stray process would.
    testsupport::MappedObject map(name, true);
    ASSERT_NE(nullptr, map.bytes) << name;
    unsigned char* const bytes = map.bytes;
    const size_t size = map.size;
    for (int i = 0; i < count; ++i) {
        const size_t at = random() % size;
        const size_t run = 1 + random() % 8;
        for (size_t k = at; k < at + run && k < size; ++k) {
            bytes[k] = static_cast<unsigned char>(random());
        }
    }
}

// Opens, writes and reads the slot; every failure must be an exception of the library's kinds.
int UseSlot(const std::string& name) {
    ::setenv("SLOT_CREATION_WAIT_MS", "100", 1);
    try {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        char buffer[64];
        for (int i = 0; i < 3; ++i) {
            shared::ILockable& lock = *slot.GetLockable();
            lock.lock();
            slot.WriteData("fresh", 5);
            lock.unlock();
            lock.lock();
            try {
                slot.ReadData(buffer, sizeof(buffer));
            } catch (const boost::interprocess::interprocess_exception&) {
            }
            lock.unlock();
            slot.GetBufferLength();
            slot.GetLastWriteTime();
        }
    } catch (const AbortSlotCreationException&) {
    } catch (const boost::interprocess::interprocess_exception&) {
    }
    return 0;
}

// The cases a campaign runs: SLOT_CORRUPTION_CASES of them (or `count`) from case
// SLOT_CORRUPTION_FIRST (or 0), in the series SLOT_CORRUPTION_SEED (or `seed`).
struct Cases {
    unsigned seed;
    int first;
    int end;
};

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
    const unsigned seed = cases.seed;
    // Each case draws from its own generator, so that one case can be run alone.
    for (int c = cases.first; c < cases.end; ++c) {
        std::seed_seq caseSeed{seed, static_cast<unsigned>(c)};
        std::mt19937 random(caseSeed);
        testsupport::ScopedSlotName name("corrupt");
        {
            ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
            slot.GetLockable()->lock();
            slot.WriteData("block one", 9);
            slot.WriteData("block two", 9);
            slot.GetLockable()->unlock();
        }
        const bool queue = c % 2 == 1;
        Scribble(queue ? "queue_" + name.str() : name.str(), random, 1 + c % 4);
        const testsupport::ChildResult result =
            testsupport::RunInChild([&] { return UseSlot(name); }, std::chrono::seconds(30));
        ASSERT_TRUE(result.Ok()) << "seed " << seed << ", case " << c << " ("
                                 << (queue ? "queue" : "header") << "): " << result.Describe();
        SlotFactory::RemoveSlot(name.str());
    }
}

// Every 32-bit word of the segment's bookkeeping (all but the output buffer's data) replaced by
// values that look like sizes, offsets and flags, while the last named object's name is changed,
// so that opening must construct it again and so allocate through whatever the damage left:
// no crash, no hang. The words of the segment's own mutexes are left alone (a lock word that a
// live process seems to hold is waited for, as any lock is).
TEST(Corruption, EveryBookkeepingWordDamagedBeforeAnAllocation) {
    testsupport::ScopedSlotName name("corrupt");
    {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        slot.GetLockable()->lock();
        slot.WriteData("block", 5);
        slot.GetLockable()->unlock();
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
    auto insideMutex = [&](std::uint64_t at) {
        for (const SlotImage::Region& mutex :
             {image.allocatorMutex, image.indexMutex, image.headerMutex}) {
            if (mutex.present && at + 4 > mutex.offset && at < mutex.offset + mutex.size) {
                return true;
            }
        }
        return false;
    };
    const std::uint32_t values[] = {0, 1, 16, 0x80000002u, 0xfffffff0u};
    int cases = 0;
    for (std::uint64_t at = image.managerOffset; at + 4 <= pristine.size(); at += 4) {
        const bool data = at + 4 > image.outputBuffer.offset &&
                          at < image.outputBuffer.offset + image.outputBuffer.size;
        if (data || insideMutex(at)) {
            continue;
        }
        for (std::uint32_t value : values) {
            std::vector<unsigned char> bytes = pristine;
            std::memcpy(&bytes[at], &value, sizeof(value));
            ASSERT_TRUE(testsupport::WriteObject(name.str(), bytes));
            const testsupport::ChildResult result =
                testsupport::RunInChild([&] { return UseSlot(name); }, std::chrono::seconds(30));
            ASSERT_TRUE(result.Ok())
                << "word at " << at << " = " << value << ": " << result.Describe();
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
    ASSERT_NE(nullptr, map.bytes) << name;
    unsigned char* const bytes = map.bytes;
    const size_t size = map.size;
    std::uint64_t firstWord;
    std::memcpy(&firstWord, bytes, sizeof(firstWord));
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
    for (size_t k = at; k < at + length && k < size; ++k) {
        bytes[k] = static_cast<unsigned char>(random());
    }
    if (keepFirstWord) {
        std::memcpy(bytes, &firstWord, sizeof(firstWord));
    }
}

// Uses `slot`, open while its header was filled: a read under its lock, a write through a
// writer of this slot and one of a new opening, then another opening. Every failure must be one
// of the library's kinds.
int UseDamagedOpenSlot(const boost::shared_ptr<ISlot>& slot, const SimpleSlotCfg& cfg) {
    std::vector<char> buffer(slot->GetMaxDataSize());
    try {
        shared::ILockable& lock = *slot->GetLockable();
        lock.lock();
        try {
            slot->ReadData(buffer.data(), buffer.size());
        } catch (const boost::interprocess::interprocess_exception&) {
        }
        lock.unlock();
    } catch (const boost::interprocess::interprocess_exception&) {
    }
    try {
        SlotWriter writer(slot);
        writer.onNotify("", "fresh", 5);
    } catch (const boost::interprocess::interprocess_exception&) {
    }
    slot->GetBufferLength();
    slot->GetLastWriteTime();
    try {
        const ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
        writer->onNotify("", "fresh", 5);
    } catch (const AbortSlotCreationException&) {
    } catch (const boost::interprocess::interprocess_exception&) {
    }
    try {
        SlotFactory::CreateSlot(&cfg);
    } catch (const AbortSlotCreationException&) {
    }
    return 0;
}

// The header segment of an open slot, of either kind, filled with random bytes; the first word
// is kept in half of the cases. The survey must still read it and removal must remove it.
TEST(Corruption, RandomBytesOverAnOpenSlotsHeaderNeverCrashOrHang) {
    const Cases cases = CasesToRun(60, 20261125);
    const unsigned seed = cases.seed;
    for (int c = cases.first; c < cases.end; ++c) {
        testsupport::ScopedSlotName name("corruptopen");
        const bool reliable = c % 2 == 0;
        const bool keepFirstWord = c % 4 < 2;
        const SimpleSlotCfg cfg(name.str(), reliable ? "reliable" : "discarding",
                                boost::posix_time::milliseconds(10), 4);
        const testsupport::ChildResult result = testsupport::RunInChild(
            [&] {
                ::setenv("SLOT_CREATION_WAIT_MS", "100", 1);
                std::seed_seq caseSeed{seed, static_cast<unsigned>(c)};
                std::mt19937 random(caseSeed);
                const boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
                slot->GetLockable()->lock();
                slot->WriteData("block one", 9);
                slot->GetLockable()->unlock();
                FillOpenHeader(name.str(), random, keepFirstWord);
                return UseDamagedOpenSlot(slot, cfg);
            },
            std::chrono::seconds(30));
        ASSERT_TRUE(result.Ok()) << "seed " << seed << ", case " << c << " ("
                                 << (reliable ? "reliable" : "discarding")
                                 << (keepFirstWord ? ", first word kept" : "")
                                 << "): " << result.Describe();
        SlotSurvey::InspectSlot(name.str());
        SlotFactory::RemoveSlot(name.str());
        ASSERT_EQ(SlotState::Absent, SlotSurvey::InspectSlot(name.str()).state) << "case " << c;
    }
}

// The words an open slot follows, each changed while it is open: a changed output buffer handle
// makes a read throw before it takes a block, and the survey call the slot damaged; a header
// mutex of another kind is given up on at once with the ERROR line; a write time that is no time
// reads as not written. The slot is removed as any other.
TEST(Corruption, WordsAnOpenSlotFollowsAreCheckedAtEveryUse) {
    testsupport::ScopedSlotName name("corruptword");
    ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
    shared::ILockable& lock = *slot.GetLockable();
    lock.lock();
    slot.WriteData("kept", 4);
    lock.unlock();
    const testsupport::Bytes pristine = testsupport::ReadObject(name.str());
    const SlotImage::HeaderImage image = SlotImage::ParseHeader(pristine.data(), pristine.size());
    ASSERT_EQ(SlotImage::Verdict::Valid, image.verdict) << image.problem;
    auto overwrite = [&](std::uint64_t at, const void* value, size_t size) {
        std::vector<unsigned char> bytes = pristine;
        std::memcpy(&bytes[at], value, size);
        ASSERT_TRUE(testsupport::WriteObject(name.str(), bytes));
    };
    char buffer[64];

    const std::int32_t handle = image.outputHandle + 16;
    overwrite(image.objects[SlotImage::OutputHandle].value.offset, &handle, sizeof(handle));
    lock.lock();
    try {
        slot.ReadData(buffer, sizeof(buffer));
        ADD_FAILURE() << "a read followed a changed output buffer handle";
    } catch (const boost::interprocess::interprocess_exception& e) {
        EXPECT_NE(std::string::npos,
                  std::string(e.what()).find("segment '" + name.str() +
                                             "' is damaged: its output buffer handle is " +
                                             std::to_string(handle)))
            << e.what();
    }
    lock.unlock();
    EXPECT_EQ(1u, slot.GetBufferLength()) << "the block was taken although the read failed";
    EXPECT_EQ(SlotState::Damaged, SlotSurvey::InspectSlot(name.str()).state);

    const std::uint64_t never = 0x7ffffffffffffff0ull;
    overwrite(image.objects[SlotImage::LastWriteTime].value.offset, &never, sizeof(never));
    EXPECT_TRUE(slot.GetLastWriteTime().is_not_a_date_time());

    const int kind = 3;  // adaptive, not robust
    overwrite(image.headerMutex.offset + offsetof(pthread_mutex_t, __data.__kind), &kind,
              sizeof(kind));
    {
        testsupport::LogCapture log("Slot");
        EXPECT_THROW(lock.lock(), boost::interprocess::interprocess_exception);
        EXPECT_THROW(lock.try_lock(), boost::interprocess::interprocess_exception);
        bool logged = false;
        for (const std::string& m : log.Messages("ERROR")) {
            logged = logged || m == "Slot '" + name.str() +
                                        "' : its header lock is not a robust lock (kind 3); the "
                                        "lock is damaged, giving up";
        }
        EXPECT_TRUE(logged);
    }

    ASSERT_TRUE(testsupport::WriteObject(name.str(), pristine));
    lock.lock();
    EXPECT_EQ(4u, slot.ReadData(buffer, sizeof(buffer)));
    lock.unlock();
    EXPECT_EQ(0, std::memcmp(buffer, "kept", 4));
    SlotFactory::RemoveSlot(name.str());
    EXPECT_EQ(SlotState::Absent, SlotSurvey::InspectSlot(name.str()).state);
}

// ---- The queue's words changed while a slot has it open -------------------------------------
// Each case runs in a child, so that an out-of-bounds copy fails the case instead of the run
// (under ASan it aborts the child). Each checks the exact ERROR line and that the slot works on.

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

// Holds a slot's lock for a scope, also when the call under it throws.
struct Held {
    explicit Held(ISlot& slot) : lock(*slot.GetLockable()) { lock.lock(); }
    ~Held() { lock.unlock(); }
    shared::ILockable& lock;
};

void WriteBlock(ISlot& slot, const std::string& data) {
    Held held(slot);
    slot.WriteData(data.data(), data.size());
}

// Reads into a heap buffer of exactly `size` bytes, so that ASan sees any copy beyond it.
std::string ReadBlock(ISlot& slot, size_t size) {
    std::vector<char> buffer(size);
    Held held(slot);
    const size_t n = slot.ReadData(buffer.data(), buffer.size());
    return std::string(buffer.data(), std::min(n, buffer.size()));
}

// In a child: 0 when `log` holds exactly one ERROR line `line`.
int ExpectOneError(const testsupport::LogCapture& log, const std::string& line, int code) {
    if (log.Count("ERROR", line) == 1) {
        return 0;
    }
    std::string seen;
    for (const std::string& m : log.Messages("ERROR")) {
        seen += "\n  " + m;
    }
    return testsupport::Failed(code, "expected the ERROR line\n  " + line + "\ngot" + seen);
}

// In a child: 0 when the slot stores and delivers a block again and its queue is whole.
int ExpectWorking(ISlot& slot, const std::string& name, int code) {
    WriteBlock(slot, "afterwards");
    const std::string got = ReadBlock(slot, slot.GetMaxDataSize());
    if (got != "afterwards") {
        return testsupport::Failed(code, "read '" + got + "' after the repair");
    }
    StrayQueueView view(name);
    if (view.image.verdict != SlotImage::Verdict::Valid) {
        return testsupport::Failed(
            code + 1, "queue left " + std::string(SlotImage::VerdictText(view.image.verdict)) +
                          ": " + view.image.problem);
    }
    return 0;
}

// The probe's case: the max message size raised from 64 to 1 MiB while a discarding slot is
// open, then a 1 MiB write. The slot keeps its own 64: the write is refused with the usual line
// (Boost would have copied 1 MiB into a 64-byte message slot), and the next queue use puts the
// word back.
TEST(QueueDamagedWhileOpen, ARaisedMaxSizeIsNeverUsedAndIsPutBack) {
    testsupport::ScopedSlotName name("qmaxsize");
    const testsupport::ChildResult result = testsupport::RunInChild([&] {
        DiscardingSlot slot(open_or_create, name.c_str(), 64);
        StrayQueueView view(name);
        const_cast<QueueSize&>(view.Control().m_max_msg_size) = 1u << 20;
        if (slot.GetMaxDataSize() != 64) {
            return testsupport::Failed(10,
                                       "max data size " + std::to_string(slot.GetMaxDataSize()));
        }
        testsupport::LogCapture log("Slot");
        WriteBlock(slot, std::string(1u << 20, 'x'));
        if (int failed = ExpectOneError(
                log,
                "Unable to write to '" + name.str() + "': data size 1048576 > max data size 64",
                11)) {
            return failed;
        }
        WriteBlock(slot, "small");
        if (int failed = ExpectOneError(log,
                                        "Queue of '" + name.str() +
                                            "' : max message size 1048576 instead of 64; the "
                                            "values found at its opening were restored",
                                        12)) {
            return failed;
        }
        if (view.Control().m_max_msg_size != 64) {
            return testsupport::Failed(13, "max message size not put back");
        }
        if (ReadBlock(slot, 64) != "small") {
            return testsupport::Failed(14, "the block written after the damage was lost");
        }
        return ExpectWorking(slot, name, 15);
    });
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

// The probe's case: a waiting block's length set to 100000 in a reliable slot of 64-byte blocks,
// then a read into a 64-byte buffer. Boost would copy 100000 bytes into it; the block is dropped
// instead, and the blocks before and after it are delivered.
TEST(QueueDamagedWhileOpen, AWaitingBlocksLengthBeyondTheMaximumIsDroppedNotCopied) {
    testsupport::ScopedSlotName name("qlength");
    const testsupport::ChildResult result = testsupport::RunInChild([&] {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        WriteBlock(slot, "first");
        WriteBlock(slot, std::string(64, 'y'));
        if (ReadBlock(slot, 64) != "first") {
            return testsupport::Failed(10, "first block not read");
        }
        StrayQueueView view(name);
        const std::uint64_t oldest = view.OldestPosition();
        view.Message(oldest).len = 100000;
        testsupport::LogCapture log("Slot");
        if (ReadBlock(slot, 64) != "") {
            return testsupport::Failed(11, "a block was delivered");
        }
        if (int failed = ExpectOneError(
                log,
                "Queue of '" + name.str() + "' : the block at index position " +
                    std::to_string(oldest) +
                    " claims 100000 bytes, more than the 64-byte maximum; 1 waiting block was "
                    "dropped",
                12)) {
            return failed;
        }
        if (slot.GetBufferLength() != 0) {
            return testsupport::Failed(13, "the damaged block is still counted");
        }
        return ExpectWorking(slot, name, 14);
    });
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

// The oldest block's index entry pointed past the end of the queue: the read drops the block
// rather than follow the entry, and the index is a permutation of the message slots again.
TEST(QueueDamagedWhileOpen, AnIndexEntryOutsideTheMessagesIsDroppedNotFollowed) {
    testsupport::ScopedSlotName name("qentry");
    const testsupport::ChildResult result = testsupport::RunInChild([&] {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        WriteBlock(slot, "lost");
        WriteBlock(slot, "kept");
        StrayQueueView view(name);
        const std::uint64_t oldest = view.OldestPosition();
        const std::uint64_t outside = view.map.size + 4096;
        view.Entry(oldest) = static_cast<QueueOffset>(outside - view.EntryAt(oldest));
        testsupport::LogCapture log("Slot");
        const std::string got = ReadBlock(slot, 64);
        if (int failed = ExpectOneError(
                log,
                "Queue of '" + name.str() + "' : index position " + std::to_string(oldest) +
                    " points at offset " + std::to_string(outside) + " of its " +
                    std::to_string(view.map.size) +
                    " bytes, not at a message slot; its index was rebuilt, 1 waiting block was "
                    "dropped",
                10)) {
            return failed;
        }
        if (got != "kept") {
            return testsupport::Failed(11, "read '" + got + "', not the block after the damage");
        }
        return ExpectWorking(slot, name, 12);
    });
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

// The index pointer moved 1 MiB on and the capacity raised, while blocks wait: the next write
// puts both back before Boost follows them, and the waiting blocks stay, in order.
TEST(QueueDamagedWhileOpen, AMovedIndexPointerAndCapacityArePutBack) {
    testsupport::ScopedSlotName name("qindex");
    const testsupport::ChildResult result = testsupport::RunInChild([&] {
        ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
        WriteBlock(slot, "one");
        StrayQueueView view(name);
        QueueOffset& index = *reinterpret_cast<QueueOffset*>(&view.Control().mp_index);
        const QueueOffset before = index;
        index = before + (1u << 20);
        const_cast<QueueSize&>(view.Control().m_max_num_msg) = 1000;
        testsupport::LogCapture log("Slot");
        WriteBlock(slot, "two");
        if (int failed = ExpectOneError(log,
                                        "Queue of '" + name.str() +
                                            "' : capacity 1000 instead of 4, index pointer "
                                            "offset " +
                                            std::to_string(before + (1u << 20)) + " instead of " +
                                            std::to_string(before) +
                                            "; the values found at its opening were restored",
                                        10)) {
            return failed;
        }
        if (index != before || view.Control().m_max_num_msg != 4) {
            return testsupport::Failed(11, "the index pointer or the capacity was not put back");
        }
        const std::string first = ReadBlock(slot, 64);
        const std::string second = ReadBlock(slot, 64);
        if (first != "one" || second != "two") {
            return testsupport::Failed(12, "read '" + first + "', '" + second + "'");
        }
        return ExpectWorking(slot, name, 13);
    });
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

// Random runs of random bytes over the queue of a slot open in this process, most of them over
// its control block and index. The queue's mutex and the creation word are kept: lock words are
// the lock tests' matter, and the open queue never reads the creation word again.
void ScribbleOpenQueue(const std::string& slotName, std::mt19937& random) {
    StrayQueueView view(slotName);
    ASSERT_NE(nullptr, view.map.bytes);
    ASSERT_TRUE(view.image.mutex.present);
    const size_t size = view.map.size;
    const std::vector<unsigned char> mutex(
        view.map.bytes + view.image.mutex.offset,
        view.map.bytes + view.image.mutex.offset + view.image.mutex.size);
    std::uint64_t firstWord;
    std::memcpy(&firstWord, view.map.bytes, sizeof(firstWord));
    const size_t front = std::min<size_t>(size, view.image.messages.offset + 64);
    for (int runs = 1 + random() % 3; runs > 0; --runs) {
        const size_t at = random() % 4 != 0 ? random() % front : random() % size;
        const size_t length = 1 + random() % 8;
        for (size_t k = at; k < at + length && k < size; ++k) {
            view.map.bytes[k] = static_cast<unsigned char>(random());
        }
    }
    std::memcpy(view.map.bytes + view.image.mutex.offset, mutex.data(), mutex.size());
    std::memcpy(view.map.bytes, &firstWord, sizeof(firstWord));
}

// The queue of an open slot, of either kind, damaged at random while blocks wait: reads into a
// buffer of exactly the max data size, writes and counts never crash, copy out of bounds (run
// it under ASan) or hang; failures are the library's exceptions and ERROR lines.
TEST(QueueDamagedWhileOpen, RandomBytesOverAnOpenQueueNeverCrashOrHang) {
    const Cases cases = CasesToRun(100, 20261127);
    const unsigned seed = cases.seed;
    for (int c = cases.first; c < cases.end; ++c) {
        testsupport::ScopedSlotName name("qrandom");
        const bool reliable = c % 2 == 0;
        const testsupport::ChildResult result = testsupport::RunInChild(
            [&] {
                ::setenv("SLOT_CREATION_WAIT_MS", "100", 1);
                std::seed_seq caseSeed{seed, static_cast<unsigned>(c)};
                std::mt19937 random(caseSeed);
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
                    try {
                        ReadBlock(*slot, slot->GetMaxDataSize());
                    } catch (const boost::interprocess::interprocess_exception&) {
                    }
                    WriteBlock(*slot, std::string(1 + random() % 64, 'w'));
                    slot->GetBufferLength();
                }
                return 0;
            },
            std::chrono::seconds(30));
        ASSERT_TRUE(result.Ok()) << "seed " << seed << ", case " << c << " ("
                                 << (reliable ? "reliable" : "discarding")
                                 << "): " << result.Describe();
    }
}

}  // namespace
