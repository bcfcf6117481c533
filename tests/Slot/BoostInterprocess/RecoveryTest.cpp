// SPDX-License-Identifier: Apache-2.0
// A process that dies holding a slot's locks, or half-way through creating a slot, neither freezes
// the others nor loses accepted blocks. Every step that could hang runs in a child under a
// watchdog.
#include "ChildProcess.h"
#include "ChildRequire.h"
#include "Eventually.h"
#include "LockedBlocks.h"
#include "LogCapture.h"
#include "ShmHygiene.h"
#include "ShmObject.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/DiscardingSlot.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/SlotImage.h>
#include <Slot/SlotFactory.h>

#include <shared/CrashPoint.h>
#include <shared/ILockable.h>
#include <shared/SharedMemory.h>

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// Skips a test that needs the crash points when the library was built without them.
#define SKIP_WITHOUT_CRASH_POINTS()                                \
    if (!shared::ArmCrashPoint("")) {                              \
        GTEST_SKIP() << "library built without SLOT_CRASH_POINTS"; \
    }

namespace {

// A slot's header segment mapped as raw bytes, as another process sees it.
struct RawObject : testsupport::MappedObject {
    using MappedObject::MappedObject;
    SlotImage::HeaderImage Image() const { return SlotImage::ParseHeader(bytes, size); }
};

using boost::interprocess::open_or_create;
using std::chrono::seconds;
using testsupport::ChildProcess;
using testsupport::ChildResult;
using testsupport::Failed;
using testsupport::LogCapture;
using testsupport::ReadBlock;
using testsupport::Require;
using testsupport::RequireOneContaining;
using testsupport::RunInChild;
using testsupport::RunsInChild;
using testsupport::ScopedSlotName;
using testsupport::WriteBlock;

const unsigned int kMaxSize = 64;
const unsigned int kCapacity = 8;

std::string Block(int i) {
    return "block " + std::to_string(i);
}

// In a child: every waiting block is read, and they are exactly blocks 0..expected-1.
void RequireBlocks(ReliableSlot& slot, int expected) {
    Require(slot.GetBufferLength() == static_cast<size_t>(expected), 21,
            std::to_string(slot.GetBufferLength()) + " blocks waiting, expected " +
                std::to_string(expected));
    for (int i = 0; i < expected; ++i) {
        const std::string got = ReadBlock(slot, kMaxSize);
        Require(got == Block(i), 22, "read '" + got + "', expected '" + Block(i) + "'");
    }
}

// Runs `body` in a child that must die of SIGKILL (at a crash point or by its own hand); its pid.
pid_t Killed(const std::function<void()>& body) {
    ChildProcess child([&] {
        body();
        return 3;  // not reached
    });
    const ChildResult result = child.Wait(seconds(30));
    EXPECT_EQ(9, result.signal) << result.Describe();
    return child.Pid();
}

// A child that opens the slot, writes `blocks` blocks, and dies as `die` says; its pid.
pid_t DyingWriter(const std::string& name, int blocks,
                  const std::function<void(ReliableSlot&)>& die) {
    return Killed([&] {
        ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
        for (int i = 0; i < blocks; ++i) {
            WriteBlock(slot, Block(i));
        }
        die(slot);
    });
}

void DieHoldingTheLock(ReliableSlot& slot) {
    slot.GetLockable()->lock();
    shared::KillThisProcess();
}

// The message of the exception that opening the slot `name` throws; "" when it opens.
std::string OpeningFails(const std::string& name, unsigned int maxSize = kMaxSize,
                         unsigned int capacity = kCapacity) {
    try {
        ReliableSlot slot(open_or_create, name.c_str(), maxSize, capacity);
    } catch (const AbortSlotCreationException& e) {
        return e.what();
    }
    return "";
}

// A child that dies inside the segment index of `name`, after `inside` ran there; its pid.
pid_t DiesInsideTheIndex(const std::string& name, const std::function<void()>& inside) {
    return Killed([&] {
        std::unique_ptr<shared::ISharedMemory> segment(
            shared::CreateSharedMemory(open_or_create, name.c_str(), 4096));
        auto die = [&] {
            inside();
            shared::KillThisProcess();
        };
        segment->GetSegment().atomic_func(die);
    });
}

// Waits until `child` stopped itself at a stopping crash point.
::testing::AssertionResult Stopped(const ChildProcess& child) {
    int status = 0;
    const bool changed = testsupport::Eventually(
        [&] { return ::waitpid(child.Pid(), &status, WNOHANG | WUNTRACED) == child.Pid(); });
    if (changed && WIFSTOPPED(status)) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "the child ended or ran on instead of stopping";
}

// Whoever locks next after a holder died: a process that had the slot open, a new opener (it
// locks the header while it constructs the slot) and the condition pack's Wait (it relocks after
// waking) each repair the lock, name the dead holder and keep the accepted blocks.
TEST(DeadLockHolder, EveryNextLockerRepairsNamesTheHolderAndKeepsAcceptedBlocks) {
    ScopedSlotName name;
    // The survivor has the slot open before the holder dies.
    ReliableSlot survivor(open_or_create, name.c_str(), kMaxSize, kCapacity);
    const pid_t dead = DyingWriter(name, 3, DieHoldingTheLock);
    EXPECT_TRUE(RunsInChild([&] {
        LogCapture log("Slot");
        Require(survivor.GetLockable()->timed_lock(boost::posix_time::pos_infin), 11,
                "lock failed");
        survivor.GetLockable()->unlock();
        RequireOneContaining(log, "ERROR",
                             "Slot '" + name.str() + "' was locked by thread " +
                                 std::to_string(dead) + ", which died holding the lock",
                             12);
        RequireBlocks(survivor, 3);
        WriteBlock(survivor, Block(0));
        RequireBlocks(survivor, 1);
    }));

    DyingWriter(name, 2, DieHoldingTheLock);
    EXPECT_TRUE(RunsInChild([&] {
        LogCapture log("Slot");
        ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
        RequireOneContaining(log, "ERROR", "which died holding the lock", 11);
        RequireBlocks(slot, 2);
    }));

    DyingWriter(name, 0, DieHoldingTheLock);
    EXPECT_TRUE(RunsInChild([&] {
        LogCapture log("Slot");
        survivor.GetOnWriteCondition()->Wait(boost::posix_time::milliseconds(1));
        RequireOneContaining(log, "ERROR", "which died holding the lock", 11);
    }));
}

// A writer killed holding the queue's lock (under the slot's lock or in a direct write), or inside
// Boost's send after the count and before the copy ended (or after the window moved): only the
// block in flight is lost, the 0 or 3 before it (the window wraps or not) arrive in order, and the
// ERROR line names the slot and the dead writer.
TEST(DeadQueueHolder, DeathInsideAQueueCallLosesOnlyTheBlockInFlight) {
    SKIP_WITHOUT_CRASH_POINTS();
    const std::string inFlight(kMaxSize, 'x');
    const struct {
        const char* point;
        bool locked;
        int accepted;
    } cases[] = {{"send-queue-locked", true, 3}, {"send-queue-locked", false, 3},
                 {"send-half-copied", true, 0},  {"send-half-copied", true, 3},
                 {"send-window-moved", true, 0}, {"send-window-moved", true, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.point) + (c.locked ? " locked" : " unlocked") + " after " +
                     std::to_string(c.accepted) + " blocks");
        ScopedSlotName name;
        const pid_t dead = DyingWriter(name, c.accepted, [&](ReliableSlot& slot) {
            shared::ArmCrashPoint(c.point);
            if (c.locked) {
                WriteBlock(slot, inFlight);
            } else {
                slot.WriteData(inFlight.data(), inFlight.size());
            }
        });
        EXPECT_TRUE(RunsInChild([&] {
            LogCapture log("Slot");
            ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
            WriteBlock(slot, Block(c.accepted));
            RequireBlocks(slot, c.accepted + 1);
            RequireOneContaining(log, "ERROR",
                                 "Queue of '" + name.str() + "' was locked by thread " +
                                     std::to_string(dead) + ", which died holding it;",
                                 11);
            if (std::string(c.point) == "send-half-copied") {
                RequireOneContaining(log, "ERROR", "had counted was dropped", 12);
            }
        }));
    }
}

// A direct call still makes its queue calls under the slot's lock: it waits while another process
// holds it. (Its death inside the queue is the unlocked case above.)
TEST(DeadQueueHolder, ADirectCallWaitsForTheSlotsLock) {
    SKIP_WITHOUT_CRASH_POINTS();
    ScopedSlotName name;
    ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
    testsupport::PipeSignal opened, go;
    ChildProcess direct([&] {
        ReliableSlot mine(open_or_create, name.c_str(), kMaxSize, kCapacity);
        opened.Post();
        go.WaitFor();
        shared::ArmCrashPoint("send-queue-locked");
        mine.WriteData("lost", 4);
        return 3;  // not reached
    });
    ASSERT_TRUE(opened.WaitFor());
    slot.GetLockable()->lock();
    go.Post();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ChildResult early;
    const bool waited = !direct.Poll(&early);
    slot.GetLockable()->unlock();
    EXPECT_TRUE(waited) << "it went into the queue under another's lock: " << early.Describe();
    const ChildResult died = direct.Wait(seconds(30));
    EXPECT_EQ(9, died.signal) << "it never reached the queue: " << died.Describe();
}

TEST(DeadQueueHolder, ADiscardingSlotNeverDeliversAHalfCopiedBlock) {
    SKIP_WITHOUT_CRASH_POINTS();
    ScopedSlotName name;
    Killed([&] {
        DiscardingSlot slot(open_or_create, name.c_str(), kMaxSize);
        WriteBlock(slot, "kept");
        shared::ArmCrashPoint("send-half-copied");
        WriteBlock(slot, std::string(kMaxSize, 'x'));
    });
    EXPECT_TRUE(RunsInChild([&] {
        LogCapture log("Slot");
        DiscardingSlot slot(open_or_create, name.c_str(), kMaxSize);
        const std::string got = ReadBlock(slot, kMaxSize);
        Require(got.empty(), 11,
                "read " + std::to_string(got.size()) + " bytes of a block never finished");
        RequireOneContaining(log, "ERROR", "had counted was dropped", 12);
        WriteBlock(slot, "next");
        Require(ReadBlock(slot, kMaxSize) == "next", 13, "the next block is wrong");
    }));
}

// Raw objects as a creator killed at some point leaves them.
void MakeUnfinished(const std::string& name, size_t size, int state) {
    testsupport::Bytes bytes(size, 0);
    if (state >= 0) {
        const std::uint32_t word = static_cast<std::uint32_t>(state);
        std::memcpy(bytes.data(), &word, sizeof(word));
    }
    ASSERT_TRUE(testsupport::WriteObject(name, bytes)) << name;
}

TEST(UnfinishedCreation, OpenerGivesUpWithinTheBoundNamingCauseAndRemedy) {
    const struct {
        bool queue;
        size_t size;
        int state;
        const char* cause;
    } cases[] = {
        {true, 0, -1, "has size 0"},
        {true, 4096, 0, "was never initialised"},
        {true, 4096, 1, "is still being initialised"},
        {false, 0, -1, "has size 0"},
        {false, 8192, 0, "was never initialised"},
        {false, 8192, 1, "is still being initialised"},
        {true, 4096, 7, "is damaged (creation state 7)"},
    };
    for (const auto& c : cases) {
        ScopedSlotName name;
        const std::string object = c.queue ? "queue_" + name.str() : name.str();
        SCOPED_TRACE(object + " " + c.cause);
        MakeUnfinished(object, c.size, c.state);
        EXPECT_TRUE(RunsInChild(
            [&] {
                ::setenv("SLOT_CREATION_WAIT_MS", "200", 1);
                const auto start = std::chrono::steady_clock::now();
                const std::string what = OpeningFails(name);
                Require(
                    what.rfind("Slot could not be created: '" + object + "' " + c.cause, 0) == 0 &&
                        what.find("slotctl rm --stale " + name.str()) != std::string::npos,
                    11, "message: " + what);
                // An unfinished object may still be finished: it is waited for.
                Require(c.state == 7 || std::chrono::steady_clock::now() - start >=
                                            std::chrono::milliseconds(200),
                        12, "gave up before the bound");
            },
            seconds(60)));
        // The remedy works: after removal the slot can be created.
        SlotFactory::RemoveSlot(name.str());
        EXPECT_NO_THROW(ReliableSlot(open_or_create, name.c_str(), kMaxSize, kCapacity));
    }
}

TEST(UnfinishedCreation, CreatorKilledAtEachStepNeverHangsTheNextOpener) {
    SKIP_WITHOUT_CRASH_POINTS();
    // Points in creation order; "header-locked" dies holding the header mutex, which the next
    // opener recovers, the others leave an unfinished object, which it reports.
    const struct {
        const char* point;
        unsigned hit;
        bool recovered;
    } points[] = {{"create-sized", 1, false},        {"create-initialising", 1, false},
                  {"queue-opened", 1, true},         {"create-sized", 2, false},
                  {"create-initialising", 2, false}, {"segment-opened", 1, true},
                  {"header-locked", 1, true}};
    for (const auto& point : points) {
        SCOPED_TRACE(std::string(point.point) + ":" + std::to_string(point.hit));
        ScopedSlotName name;
        Killed([&] {
            shared::ArmCrashPoint(point.point, point.hit);
            ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
        });
        const ChildResult opener = RunInChild(
            [&] {
                ::setenv("SLOT_CREATION_WAIT_MS", "200", 1);
                try {
                    ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
                    WriteBlock(slot, Block(0));
                    RequireBlocks(slot, 1);
                    return 0;
                } catch (const AbortSlotCreationException& e) {
                    return std::string(e.what()).find("slotctl rm --stale") != std::string::npos
                               ? 1
                               : Failed(22, e.what());
                }
            },
            seconds(60));
        ASSERT_TRUE(opener.exited) << opener.Describe();
        EXPECT_EQ(point.recovered ? 0 : 1, opener.exitCode);
    }
}

// A first opener killed between making "output_buffer_handle" and storing the buffer's handle in
// it: the next opener finishes that step (with the buffer already allocated, if any), so that the
// slot works as one built whole and no memory of the segment is lost.
TEST(UnfinishedCreation, FirstOpenerKilledBeforeStoringTheBufferHandleLeavesAWholeSlot) {
    SKIP_WITHOUT_CRASH_POINTS();
    std::uint64_t wholeFreeBytes = 0;
    {
        ScopedSlotName reference;
        DiscardingSlot slot(open_or_create, reference.c_str(), kMaxSize);
        wholeFreeBytes = RawObject(reference, false).Image().freeBytes;
    }
    for (const char* point : {"handle-constructed", "buffer-allocated"}) {
        SCOPED_TRACE(point);
        ScopedSlotName name;
        Killed([&] {
            shared::ArmCrashPoint(point);
            DiscardingSlot slot(open_or_create, name.c_str(), kMaxSize);
        });
        EXPECT_TRUE(RunsInChild([&] {
            LogCapture log("Slot");
            // Each opener passes a block, and a read of the empty slot hands out its copy.
            for (int i = 0; i < 2; ++i) {
                DiscardingSlot slot(open_or_create, name.c_str(), kMaxSize);
                WriteBlock(slot, Block(i));
                Require(
                    ReadBlock(slot, kMaxSize) == Block(i) && ReadBlock(slot, kMaxSize) == Block(i),
                    11, "a block or its copy did not pass");
            }
            const std::string repaired = "Slot '" + name.str() + "' was locked by thread ";
            Require(log.Messages("ERROR").size() == 1 && log.CountPrefix("ERROR", repaired) == 1,
                    12, "ERROR lines other than the dead holder's repair");
            const std::string finished = "Slot '" + name.str() +
                                         "' : the process that built its header died before it "
                                         "stored the output buffer's handle; stored now";
            Require(log.Messages("WARN") == std::vector<std::string>{finished}, 13,
                    "not exactly the WARN line '" + finished + "'");
        }));
        const SlotImage::HeaderImage image = RawObject(name, false).Image();
        EXPECT_EQ(SlotImage::Verdict::Valid, image.verdict) << image.problem;
        EXPECT_TRUE(image.strayAllocations.empty());
        EXPECT_EQ(wholeFreeBytes, image.freeBytes);
    }
}

// A queue created again while it is opened (stopped after the slot's checking view mapped it,
// before Boost opens it): both must be the same object, or checks and repairs miss the blocks.
TEST(UnfinishedCreation, AQueueCreatedAgainWhileItIsOpenedIsOpenedAgain) {
    SKIP_WITHOUT_CRASH_POINTS();
    ScopedSlotName name;
    // The first queue holds a block, so that a mix-up of the two shows.
    {
        ReliableSlot first(open_or_create, name.c_str(), kMaxSize, kCapacity);
        WriteBlock(first, "stale");
    }
    ChildProcess opener([&] {
        shared::ArmCrashPoint("queue-checker-opened");
        ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
        RequireBlocks(slot, 1);
        return 0;
    });
    ASSERT_TRUE(Stopped(opener));
    SlotFactory::RemoveSlot(name.str());
    {
        ReliableSlot again(open_or_create, name.c_str(), kMaxSize, kCapacity);
        WriteBlock(again, Block(0));
    }
    ::kill(opener.Pid(), SIGCONT);
    const ChildResult result = opener.Wait(seconds(30));
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

// A process killed inside the segment's index (or its allocator) may leave it half changed: the
// opener names the dead holder of the index lock, whether or not the bookkeeping looks damaged.
TEST(UnfinishedCreation, DeathInsideTheSegmentIndexIsReportedNotWaitedFor) {
    for (const bool halfChanged : {false, true}) {
        SCOPED_TRACE(halfChanged ? "bookkeeping half changed" : "bookkeeping intact");
        ScopedSlotName name;
        { ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity); }
        const pid_t dier = DiesInsideTheIndex(name, [&] {
            if (!halfChanged) {
                return;
            }
            // The allocator's record of the segment's size, as an allocation in progress may
            // leave its bookkeeping for a moment.
            RawObject raw(name.str(), true);
            // Boost's size type: 32 bits on i386, 64 bits on x86_64, like std::size_t.
            const std::size_t at = static_cast<std::size_t>(raw.Image().managerOffset);
            const std::size_t recorded = raw.size - at;
            const std::size_t end = std::min(raw.size, at + 4096);
            for (std::size_t p = at; p + sizeof(std::size_t) <= end; p += sizeof(std::size_t)) {
                std::size_t word;
                std::memcpy(&word, raw.bytes + p, sizeof word);
                if (word == recorded) {
                    word += 64;
                    std::memcpy(raw.bytes + p, &word, sizeof word);
                    break;
                }
            }
        });
        if (halfChanged) {
            ASSERT_EQ(SlotImage::Verdict::Damaged, RawObject(name.str(), false).Image().verdict);
        }
        EXPECT_TRUE(RunsInChild([&] {
            const std::string expected =
                "Slot could not be created: The index lock of segment '" + name.str() +
                "' is held by thread " + std::to_string(dier) +
                ", which died holding it; remove it (slotctl rm --stale " + name.str() + ")";
            const std::string what = OpeningFails(name);
            Require(what.rfind(expected, 0) == 0, 11, "message: " + what);
        }));
    }
}

// Another process dies inside the index (a find needs no slot lock) after an opener holding the
// slot's lock checked the index lock: the opener names the dead holder and lets the slot's lock go
// instead of waiting for ever with it held.
TEST(UnfinishedCreation, DeathInsideTheSegmentIndexAfterTheCheckIsReportedNotWaitedFor) {
    SKIP_WITHOUT_CRASH_POINTS();
    ScopedSlotName name;
    { ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity); }
    const std::string expected = "Slot could not be created: The index lock of segment '" +
                                 name.str() + "' is held by thread ";
    ChildProcess opener([&] {
        shared::ArmCrashPoint("header-checked");
        const std::string what = OpeningFails(name);
        Require(what.rfind(expected, 0) == 0, 11, "message: " + what);
        return 0;
    });
    ASSERT_TRUE(Stopped(opener));
    DiesInsideTheIndex(name, [] {});
    ::kill(opener.Pid(), SIGCONT);
    const ChildResult result = opener.Wait(seconds(30));
    EXPECT_TRUE(result.Ok()) << result.Describe();
    EXPECT_EQ(0, RawObject(name.str(), false).Image().headerMutexOwnerThread)
        << "the slot's lock was left held";
}

// A full /dev/shm: creation fails with the system's text instead of a later SIGBUS, and leaves
// nothing behind. Needs a private mount namespace with a tiny tmpfs on /dev/shm (root).
TEST(NoSpace, CreationReservesBothObjectsAndFailsCleanly) {
    const ChildResult result = RunInChild([] {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("slottest", "/dev/shm", "tmpfs", 0, "size=256k") != 0) {
            return 77;
        }
        const std::string name = "nospace";
        // The queue does not fit; then the queue fits but the segment does not.
        for (const unsigned int capacity : {16u, 1u}) {
            const std::string what = OpeningFails(name, 160 * 1024, capacity);
            Require(what == std::string("Slot could not be created: ") + std::strerror(ENOSPC), 12,
                    "message: " + what);
            Require(::access("/dev/shm/queue_nospace", F_OK) != 0 &&
                        ::access("/dev/shm/nospace", F_OK) != 0,
                    13, "an object was left behind");
        }
        // What fits is created and works.
        ReliableSlot small(open_or_create, name.c_str(), 1024, 4);
        WriteBlock(small, Block(0));
        RequireBlocks(small, 1);
        return 0;
    });
    if (result.exited && result.exitCode == 77) {
        GTEST_SKIP() << "cannot mount a private tmpfs on /dev/shm (needs root): not tested";
    }
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

}  // namespace
