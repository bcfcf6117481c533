// SPDX-License-Identifier: Apache-2.0
// The library's inspection of slots: states of healthy, half, unfinished, damaged, busy and
// dead-held slots seen with real processes, and that looking never changes a byte.
#include "ChildProcess.h"
#include "HeaderHolder.h"
#include "LockedBlocks.h"
#include "ShmHygiene.h"
#include "ShmObject.h"

#include <Slot/BoostInterprocess/DiscardingSlot.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/SlotImage.h>
#include <Slot/SlotAttachments.h>
#include <Slot/SlotLeftovers.h>
#include <Slot/SlotSurvey.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

namespace {

using boost::interprocess::open_or_create;
using testsupport::Bytes;
using testsupport::ChildProcess;
using testsupport::HeaderHolder;
using testsupport::ReadObject;
using testsupport::ScopedSlotName;
using testsupport::WriteBlock;
using testsupport::WriteObject;

// Inspects `name` and checks that doing so changed neither object.
SlotReport Inspect(const std::string& name) {
    const std::string queue = BaseQueueSlot::GetQueueName(name);
    const Bytes header = ReadObject(name);
    const Bytes queueBytes = ReadObject(queue);
    const auto start = std::chrono::steady_clock::now();
    SlotReport report = SlotSurvey::InspectSlot(name);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(header == ReadObject(name)) << "inspecting changed the header segment";
    EXPECT_TRUE(queueBytes == ReadObject(queue)) << "inspecting changed the queue";
    return report;
}

// The state the listing gives `name`; Absent when it is not listed.
SlotState ListedState(const std::string& name) {
    for (const SlotReport& report : SlotSurvey::ListSlots()) {
        if (report.name == name) {
            return report.state;
        }
    }
    return SlotState::Absent;
}

TEST(SlotSurvey, HealthySlotsOfBothKinds) {
    ScopedSlotName reliableName("rel");
    ScopedSlotName discardingName("dis");
    ReliableSlot reliable(open_or_create, reliableName.c_str(), 300, 5);
    DiscardingSlot discarding(open_or_create, discardingName.c_str(), 20);
    WriteBlock(reliable, "a");
    WriteBlock(reliable, "bb");
    WriteBlock(discarding, "c");
    ASSERT_EQ("a", testsupport::ReadBlock(reliable));

    const SlotReport r = Inspect(reliableName);
    EXPECT_EQ(SlotState::Healthy, r.state) << r.detail;
    EXPECT_EQ(SlotKind::Reliable, r.kind);
    EXPECT_EQ(5u, r.queue.capacity);
    EXPECT_EQ(300u, r.queue.maxBlockSize);
    EXPECT_EQ(1u, r.queue.waiting);
    EXPECT_EQ(reliable.GetLastWriteTime(), r.header.lastWrite);
    EXPECT_EQ(1u, r.header.outputDataSize);
    EXPECT_GE(r.header.outputBufferSize, 300u);
    EXPECT_TRUE(r.heldLocks.empty());
    EXPECT_EQ(0, r.deadHolder);
    EXPECT_EQ(0, r.readerPid);
    EXPECT_FALSE(r.readerLockFile.empty());
    for (int i = 0; i < SlotImage::HeaderObjectCount; ++i) {
        EXPECT_TRUE(r.header.Has(SlotImage::HeaderObject(i))) << SlotImage::HeaderObjectNames[i];
    }

    const SlotReport d = Inspect(discardingName);
    EXPECT_EQ(SlotState::Healthy, d.state) << d.detail;
    EXPECT_EQ(SlotKind::Discarding, d.kind);
    EXPECT_EQ(1u, d.queue.capacity);
    EXPECT_EQ(1u, d.queue.waiting);
    EXPECT_TRUE(d.readerLockFile.empty());

    EXPECT_EQ(SlotState::Healthy, ListedState(reliableName));
    EXPECT_EQ(SlotState::Healthy, ListedState(discardingName));
    const std::vector<SlotReport> all = SlotSurvey::ListSlots();
    EXPECT_TRUE(
        std::is_sorted(all.begin(), all.end(),
                       [](const SlotReport& a, const SlotReport& b) { return a.name < b.name; }));
}

TEST(SlotSurvey, NothingThereHalfAndUnfinishedSlots) {
    ScopedSlotName absent("absent");
    EXPECT_EQ(SlotState::Absent, Inspect(absent).state);
    EXPECT_EQ(SlotState::Absent, SlotSurvey::InspectSlot("").state);
    EXPECT_EQ(SlotState::Absent, SlotSurvey::InspectSlot("a/b").state);

    ScopedSlotName headerOnly("hdr"), queueOnly("que");
    { DiscardingSlot a(open_or_create, headerOnly.c_str(), 8); }
    { ReliableSlot b(open_or_create, queueOnly.c_str(), 8, 3); }
    ::shm_unlink(BaseQueueSlot::GetQueueName(headerOnly).c_str());
    ::shm_unlink(queueOnly.c_str());
    EXPECT_GE(Inspect(queueOnly).AgeSeconds(), 0);
    // What a creator killed at each point of creation leaves behind.
    ScopedSlotName emptyHeader("eh"), emptyQueue("eq"), initialising("init");
    ASSERT_TRUE(WriteObject(emptyHeader, Bytes()));
    ASSERT_TRUE(WriteObject(BaseQueueSlot::GetQueueName(emptyQueue), Bytes()));
    Bytes building(4096, 0);
    building[0] = 1;  // Boost's "initialising"
    ASSERT_TRUE(WriteObject(initialising, building));
    ASSERT_TRUE(WriteObject(BaseQueueSlot::GetQueueName(initialising), Bytes(4096, 0)));

    using Part = SlotPartState;
    const struct {
        const ScopedSlotName& name;
        SlotState state;
        SlotPartState header, queue;
        SlotKind kind;
    } cases[] = {
        {headerOnly, SlotState::Half, Part::Ok, Part::Absent, SlotKind::Unknown},
        {queueOnly, SlotState::Half, Part::Absent, Part::Ok, SlotKind::Reliable},
        {emptyHeader, SlotState::Unfinished, Part::Unfinished, Part::Absent, SlotKind::Unknown},
        {emptyQueue, SlotState::Unfinished, Part::Absent, Part::Unfinished, SlotKind::Unknown},
        {initialising, SlotState::Unfinished, Part::Unfinished, Part::Unfinished,
         SlotKind::Unknown}};
    // Each is listed, the queue-only one under its slot's name.
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name.str());
        const SlotReport report = Inspect(c.name);
        EXPECT_EQ(c.state, report.state);
        EXPECT_EQ(c.header, report.header.state);
        EXPECT_EQ(c.queue, report.queue.state);
        EXPECT_EQ(c.kind, report.kind);
        EXPECT_EQ(c.state, ListedState(c.name));
    }
    EXPECT_EQ(SlotState::Absent, ListedState(BaseQueueSlot::GetQueueName(emptyQueue)));
}

// Looking makes neither the pipe folder nor the lock folder: one made by a look would belong to
// whoever looked first, and root's and every other user's pipes and readers would refuse it.
TEST(SlotSurvey, LookingCreatesNoSharedFolder) {
    ScopedSlotName name("look");
    { ReliableSlot slot(open_or_create, name.c_str(), 8, 2); }
    testsupport::ScopedMissingSharedFolders folders;
    const SlotReport report = Inspect(name);
    EXPECT_EQ(SlotKind::Reliable, report.kind);
    EXPECT_EQ(0, report.readerPid);
    EXPECT_TRUE(report.pipePath.empty());
    EXPECT_EQ(SlotState::Healthy, ListedState(name));
    EXPECT_TRUE(SlotAttachments::Find(name, report.pipePath).processes.empty());
    EXPECT_EQ(LeftoverOutcome::Absent, SlotLeftovers::RemoveReaderLockFile(name).outcome);
    EXPECT_TRUE(SlotLeftovers::OrphanedReaderLockFiles().empty());
    EXPECT_EQ(std::vector<std::string>(), folders.Made());
}

TEST(SlotSurvey, DamagedAndForeignObjects) {
    ScopedSlotName name("dmg");
    { ReliableSlot slot(open_or_create, name.c_str(), 64, 4); }
    Bytes header = ReadObject(name);
    const SlotImage::HeaderImage image = SlotImage::ParseHeader(header.data(), header.size());
    ASSERT_TRUE(image.objects[SlotImage::OutputHandle].value.present);
    const std::int32_t outside = 1 << 30;
    std::memcpy(&header[image.objects[SlotImage::OutputHandle].value.offset], &outside,
                sizeof(outside));
    ASSERT_TRUE(WriteObject(name, header));
    const SlotReport damaged = Inspect(name);
    EXPECT_EQ(SlotState::Damaged, damaged.state);
    EXPECT_EQ(SlotPartState::Damaged, damaged.header.state);
    EXPECT_FALSE(damaged.detail.empty());

    // Another program's object under the queue's name: the slot is damaged, the object foreign.
    ScopedSlotName foreign("frg");
    { DiscardingSlot slot(open_or_create, foreign.c_str(), 8); }
    Bytes noise(8192);
    for (size_t i = 0; i < noise.size(); ++i) {
        noise[i] = static_cast<unsigned char>((i * 2654435761u) >> 13);
    }
    ASSERT_TRUE(WriteObject(BaseQueueSlot::GetQueueName(foreign), noise));
    const SlotReport f = Inspect(foreign);
    EXPECT_EQ(SlotState::Damaged, f.state);
    EXPECT_EQ(SlotPartState::Foreign, f.queue.state);

    // Another program's data under both names is no slot at all, and not listed; also when it
    // starts with a zero word, which is no unfinished slot part (nor removed as one by slotctl
    // rm --stale).
    Bytes zeroWord(4096, 0);
    zeroWord[100] = 1;
    noise[0] = 2;
    noise[1] = noise[2] = noise[3] = 0;
    for (const Bytes& data : {noise, zeroWord}) {
        ScopedSlotName garbage("garbage");
        ASSERT_TRUE(WriteObject(garbage, data));
        ASSERT_TRUE(WriteObject(BaseQueueSlot::GetQueueName(garbage), data));
        const SlotReport g = Inspect(garbage);
        EXPECT_EQ(SlotPartState::Foreign, g.header.state);
        EXPECT_EQ(SlotPartState::Foreign, g.queue.state);
        EXPECT_EQ(SlotState::Absent, ListedState(garbage));
    }
    // Sparse objects of any size cost nothing to make on tmpfs: one larger than any slot object
    // is foreign without being read (reading 1 TiB of zeros would take minutes).
    ScopedSlotName sparse("sparse");
    for (const std::string& object : {std::string(sparse), BaseQueueSlot::GetQueueName(sparse)}) {
        ASSERT_TRUE(WriteObject(object, Bytes()));
        ASSERT_EQ(0, ::truncate(Slot::ShmPath(object).c_str(), off_t(1) << 40));
    }
    const auto start = std::chrono::steady_clock::now();
    const SlotReport huge = SlotSurvey::InspectSlot(sparse);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(SlotPartState::Foreign, huge.header.state);
    EXPECT_EQ(SlotPartState::Foreign, huge.queue.state);
    EXPECT_EQ(SlotState::Absent, ListedState(sparse));
}

TEST(SlotSurvey, AHeaderMutexHeldByALiveProcessIsBusyUntilReleasedAndByAKilledOneNamesItsPid) {
    ScopedSlotName name("busy");
    HeaderHolder holder(name);
    ASSERT_TRUE(holder.WaitLocked()) << holder.Child().Wait().Describe();
    const SlotReport busy = Inspect(name);
    EXPECT_EQ(SlotState::Busy, busy.state) << busy.detail;
    ASSERT_EQ(1u, busy.heldLocks.size());
    EXPECT_EQ("header mutex", busy.heldLocks[0].lock);
    EXPECT_EQ(holder.Child().Pid(), busy.heldLocks[0].process);
    EXPECT_FALSE(busy.heldLocks[0].HolderDead());
    // A single look sees the same holder.
    const SlotReport glance = SlotSurvey::InspectSlotAtOnce(name);
    EXPECT_EQ(SlotState::Busy, glance.state) << glance.detail;
    ASSERT_EQ(1u, glance.heldLocks.size());
    EXPECT_EQ(holder.Child().Pid(), glance.heldLocks[0].process);
    holder.Release();
    EXPECT_TRUE(holder.Child().Wait().Ok());
    EXPECT_EQ(SlotState::Healthy, Inspect(name).state);
    EXPECT_EQ(SlotState::Healthy, SlotSurvey::InspectSlotAtOnce(name).state);

    HeaderHolder killed(name);
    ASSERT_TRUE(killed.WaitLocked()) << killed.Child().Wait().Describe();
    const pid_t pid = killed.Child().Pid();
    killed.Child().Kill(SIGKILL);
    EXPECT_EQ(SIGKILL, killed.Child().Wait().signal);
    const SlotReport report = Inspect(name);
    EXPECT_EQ(SlotState::DeadHolder, report.state) << report.detail;
    EXPECT_EQ(pid, report.deadHolder);
    ASSERT_EQ(1u, report.heldLocks.size());
    EXPECT_TRUE(report.heldLocks[0].HolderDead());
    EXPECT_NE(std::string::npos, report.detail.find(std::to_string(pid))) << report.detail;
    EXPECT_EQ(SlotState::DeadHolder, ListedState(name));
}

// Locks a mutex inside `object` at `offset` through a raw mapping in a child, kills the child
// while it holds it, and returns the child's pid: what a process dying inside a queue
// operation or a segment allocation leaves behind.
pid_t KillWhileHolding(const std::string& object, std::uint64_t offset) {
    testsupport::PipeSignal locked;
    ChildProcess child([&] {
        testsupport::MappedObject map(object, true);
        if (map.bytes == nullptr) {
            return 1;
        }
        auto* mutex = reinterpret_cast<pthread_mutex_t*>(map.bytes + offset);
        if (::pthread_mutex_lock(mutex) != 0) {
            return 2;
        }
        locked.Post();
        ::pause();
        return 0;
    });
    EXPECT_TRUE(locked.WaitFor()) << child.Wait().Describe();
    child.Kill(SIGKILL);
    child.Wait();
    return child.Pid();
}

// A queue mutex, and the segment's mutexes (every later named lookup or allocation in the
// segment would wait for these for ever), left held by killed processes.
TEST(SlotSurvey, QueueAndSegmentManagerMutexesLeftByAKilledProcessAreReported) {
    ScopedSlotName name("qdead");
    { DiscardingSlot slot(open_or_create, name.c_str(), 32); }
    const std::string queue = BaseQueueSlot::GetQueueName(name);
    const Bytes queueBytes = ReadObject(queue);
    const SlotImage::QueueImage queueImage =
        SlotImage::ParseQueue(queueBytes.data(), queueBytes.size());
    ASSERT_TRUE(queueImage.mutex.present);
    const pid_t pid = KillWhileHolding(queue, queueImage.mutex.offset);
    const SlotReport report = Inspect(name);
    EXPECT_EQ(SlotState::DeadHolder, report.state) << report.detail;
    EXPECT_EQ(pid, report.deadHolder);
    ASSERT_EQ(1u, report.heldLocks.size());
    EXPECT_EQ("queue mutex", report.heldLocks[0].lock);

    ScopedSlotName segment("smdead");
    { ReliableSlot slot(open_or_create, segment.c_str(), 32, 2); }
    const Bytes bytes = ReadObject(segment);
    const SlotImage::HeaderImage image = SlotImage::ParseHeader(bytes.data(), bytes.size());
    ASSERT_TRUE(image.indexMutex.present && image.allocatorMutex.present);
    const pid_t indexHolder = KillWhileHolding(segment, image.indexMutex.offset);
    const pid_t allocatorHolder = KillWhileHolding(segment, image.allocatorMutex.offset);
    const SlotReport held = Inspect(segment);
    EXPECT_EQ(SlotState::DeadHolder, held.state) << held.detail;
    ASSERT_EQ(2u, held.heldLocks.size());
    EXPECT_EQ("segment index mutex", held.heldLocks[0].lock);
    EXPECT_EQ(indexHolder, held.heldLocks[0].thread);
    EXPECT_EQ("segment allocator mutex", held.heldLocks[1].lock);
    EXPECT_EQ(allocatorHolder, held.heldLocks[1].thread);
    EXPECT_TRUE(held.heldLocks[0].HolderDead() && held.heldLocks[1].HolderDead());
}

}  // namespace
