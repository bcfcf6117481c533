// SPDX-License-Identifier: Apache-2.0
// A process that dies holding a slot's locks, or half-way through creating a slot, must neither
// freeze the other processes nor make them lose accepted blocks. Every step that could hang runs
// in a child under a watchdog, so a hang fails the test instead of blocking the run.
#include "ChildProcess.h"
#include "Eventually.h"
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
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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
using testsupport::RunInChild;
using testsupport::ScopedSlotName;

const unsigned int kMaxSize = 64;
const unsigned int kCapacity = 8;

std::string Block(int i) {
    return "block " + std::to_string(i);
}

void Write(ReliableSlot& slot, const std::string& data) {
    shared::ILockable& lock = *slot.GetLockable();
    lock.lock();
    slot.WriteData(data.data(), data.size());
    lock.unlock();
}

std::string Read(ReliableSlot& slot) {
    char buffer[kMaxSize];
    shared::ILockable& lock = *slot.GetLockable();
    lock.lock();
    const size_t n = slot.ReadData(buffer, sizeof(buffer));
    lock.unlock();
    return std::string(buffer, n);
}

// Reads every waiting block; checks they are exactly `expected` blocks 0..expected-1.
int ExpectBlocks(ReliableSlot& slot, int expected) {
    if (slot.GetBufferLength() != static_cast<size_t>(expected)) {
        return Failed(21, std::to_string(slot.GetBufferLength()) + " blocks waiting, expected " +
                              std::to_string(expected));
    }
    for (int i = 0; i < expected; ++i) {
        const std::string got = Read(slot);
        if (got != Block(i)) {
            return Failed(22, "read '" + got + "', expected '" + Block(i) + "'");
        }
    }
    return 0;
}

// A child that opens the slot, writes `blocks` blocks, and dies as `die` says.
pid_t StartDyingWriter(const std::string& name, int blocks,
                       const std::function<void(ReliableSlot&)>& die,
                       std::unique_ptr<ChildProcess>& child) {
    child.reset(new ChildProcess([&] {
        ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
        for (int i = 0; i < blocks; ++i) {
            Write(slot, Block(i));
        }
        die(slot);
        return 3;  // not reached
    }));
    const ChildResult result = child->Wait(seconds(30));
    EXPECT_EQ(9, result.signal) << result.Describe();
    return child->Pid();
}

void DieHoldingTheLock(ReliableSlot& slot) {
    slot.GetLockable()->lock();
    shared::KillThisProcess();
}

size_t CountContaining(const LogCapture& log, const std::string& level, const std::string& text) {
    size_t n = 0;
    for (const std::string& m : log.Messages(level)) {
        n += m.find(text) != std::string::npos ? 1 : 0;
    }
    return n;
}

TEST(DeadLockHolder, NextLockerRepairsNamesTheHolderAndKeepsAcceptedBlocks) {
    ScopedSlotName name;
    // The survivor has the slot open before the holder dies.
    ReliableSlot survivor(open_or_create, name.c_str(), kMaxSize, kCapacity);
    std::unique_ptr<ChildProcess> child;
    const pid_t dead = StartDyingWriter(name, 3, DieHoldingTheLock, child);

    const ChildResult result = RunInChild([&] {
        LogCapture log("Slot");
        if (!survivor.GetLockable()->timed_lock(boost::posix_time::pos_infin)) {
            return Failed(11, "lock failed");
        }
        survivor.GetLockable()->unlock();
        const std::string expected = "Slot '" + name.str() + "' was locked by thread " +
                                     std::to_string(dead) + ", which died holding the lock";
        if (CountContaining(log, "ERROR", expected) != 1) {
            return Failed(12, "no ERROR line '" + expected + "'");
        }
        if (const int failed = ExpectBlocks(survivor, 3)) {
            return failed;
        }
        Write(survivor, Block(0));
        return ExpectBlocks(survivor, 1);
    });
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

TEST(DeadLockHolder, NewOpenerAndWaitingReaderRecoverToo) {
    ScopedSlotName name;
    std::unique_ptr<ChildProcess> child;
    StartDyingWriter(name, 2, DieHoldingTheLock, child);
    // A new opener locks the header while it constructs the slot: it repairs.
    const ChildResult opener = RunInChild([&] {
        LogCapture log("Slot");
        ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
        if (CountContaining(log, "ERROR", "which died holding the lock") != 1) {
            return Failed(11, "no repair logged");
        }
        return ExpectBlocks(slot, 2);
    });
    EXPECT_TRUE(opener.Ok()) << opener.Describe();

    // The condition pack's Wait relocks after waking: it repairs as well.
    ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
    StartDyingWriter(name, 0, DieHoldingTheLock, child);
    const ChildResult waiter = RunInChild([&] {
        LogCapture log("Slot");
        slot.GetOnWriteCondition()->Wait(boost::posix_time::milliseconds(1));
        return CountContaining(log, "ERROR", "which died holding the lock") == 1
                   ? 0
                   : Failed(11, "no repair logged by Wait");
    });
    EXPECT_TRUE(waiter.Ok()) << waiter.Describe();
}

// A writer killed inside a queue call: holding the queue's lock (under the slot's lock or in an
// unlocked direct write), or inside Boost's send after the queue counted its block and before the
// copy ended (or after the window moved, before the count). The block in flight is never
// delivered, those accepted before it are, in order (0 or 3 of them: the window's first position
// wraps or not), and the ERROR line names the slot and the dead writer.
TEST(DeadQueueHolder, DeathInsideAQueueCallLosesOnlyTheBlockInFlight) {
    if (!shared::ArmCrashPoint("")) {
        GTEST_SKIP() << "library built without SLOT_CRASH_POINTS";
    }
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
        std::unique_ptr<ChildProcess> child;
        const pid_t dead = StartDyingWriter(
            name, c.accepted,
            [&](ReliableSlot& slot) {
                shared::ArmCrashPoint(c.point);
                if (c.locked) {
                    Write(slot, inFlight);
                } else {
                    slot.WriteData(inFlight.data(), inFlight.size());
                }
            },
            child);
        const ChildResult result = RunInChild([&] {
            LogCapture log("Slot");
            ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
            Write(slot, Block(c.accepted));
            if (const int failed = ExpectBlocks(slot, c.accepted + 1)) {
                return failed;
            }
            const std::string expected = "Queue of '" + name.str() + "' was locked by thread " +
                                         std::to_string(dead) + ", which died holding it;";
            if (CountContaining(log, "ERROR", expected) != 1) {
                return Failed(11, "no ERROR line '" + expected + "'");
            }
            const bool copying = std::string(c.point) == "send-half-copied";
            if (copying && CountContaining(log, "ERROR", "had counted was dropped") != 1) {
                return Failed(12, "the dropped block is not named");
            }
            return 0;
        });
        EXPECT_TRUE(result.Ok()) << result.Describe();
    }
}

// A direct call that bypasses the slot's lock still makes its queue calls under it: it waits
// while another process holds the lock (which may be inside the queue), and its own death
// inside the queue is recovered by the next holder like any other.
TEST(DeadQueueHolder, ADirectCallWaitsForTheSlotsLockAndItsDeathInsideTheQueueIsRecovered) {
    if (!shared::ArmCrashPoint("")) {
        GTEST_SKIP() << "library built without SLOT_CRASH_POINTS";
    }
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
    ASSERT_EQ(9, died.signal) << died.Describe();

    const ChildResult result = RunInChild([&] {
        LogCapture log("Slot");
        Write(slot, Block(0));
        if (const int failed = ExpectBlocks(slot, 1)) {
            return failed;
        }
        const std::string expected = "Queue of '" + name.str() + "' was locked by thread " +
                                     std::to_string(direct.Pid()) + ", which died holding it;";
        return CountContaining(log, "ERROR", expected) == 1
                   ? 0
                   : Failed(11, "no ERROR line '" + expected + "'");
    });
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

TEST(DeadQueueHolder, ADiscardingSlotNeverDeliversAHalfCopiedBlock) {
    if (!shared::ArmCrashPoint("")) {
        GTEST_SKIP() << "library built without SLOT_CRASH_POINTS";
    }
    ScopedSlotName name;
    const std::string inFlight(kMaxSize, 'x');
    std::unique_ptr<ChildProcess> child(new ChildProcess([&] {
        DiscardingSlot slot(open_or_create, name.c_str(), kMaxSize);
        slot.GetLockable()->lock();
        slot.WriteData("kept", 4);
        slot.GetLockable()->unlock();
        shared::ArmCrashPoint("send-half-copied");
        slot.GetLockable()->lock();
        slot.WriteData(inFlight.data(), inFlight.size());
        return 3;  // not reached
    }));
    const ChildResult died = child->Wait(seconds(30));
    ASSERT_EQ(9, died.signal) << died.Describe();
    const ChildResult result = RunInChild([&] {
        LogCapture log("Slot");
        DiscardingSlot slot(open_or_create, name.c_str(), kMaxSize);
        char buffer[kMaxSize];
        shared::ILockable& lock = *slot.GetLockable();
        lock.lock();
        const size_t n = slot.ReadData(buffer, sizeof(buffer));
        lock.unlock();
        if (n != 0) {
            return Failed(11, "read " + std::to_string(n) + " bytes of a block never finished");
        }
        if (CountContaining(log, "ERROR", "had counted was dropped") != 1) {
            return Failed(12, "the dropped block is not named");
        }
        lock.lock();
        slot.WriteData("next", 4);
        const size_t next = slot.ReadData(buffer, sizeof(buffer));
        lock.unlock();
        return std::string(buffer, next) == "next" ? 0 : Failed(13, "the next block is wrong");
    });
    EXPECT_TRUE(result.Ok()) << result.Describe();
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
    struct Case {
        bool queue;
        size_t size;
        int state;
        const char* cause;
    };
    const Case cases[] = {
        {true, 0, -1, "has size 0"},
        {true, 4096, 0, "was never initialised"},
        {true, 4096, 1, "is still being initialised"},
        {false, 0, -1, "has size 0"},
        {false, 8192, 0, "was never initialised"},
        {false, 8192, 1, "is still being initialised"},
        {true, 4096, 7, "is damaged (creation state 7)"},
    };
    for (const Case& c : cases) {
        ScopedSlotName name;
        const std::string object = c.queue ? "queue_" + name.str() : name.str();
        SCOPED_TRACE(object + " " + c.cause);
        MakeUnfinished(object, c.size, c.state);
        const ChildResult result = RunInChild(
            [&] {
                ::setenv("SLOT_CREATION_WAIT_MS", "200", 1);
                const auto start = std::chrono::steady_clock::now();
                try {
                    ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
                } catch (const AbortSlotCreationException& e) {
                    const std::string expected =
                        "Slot could not be created: '" + object + "' " + c.cause;
                    const std::string remedy = "slotctl rm --stale " + name.str();
                    const std::string what = e.what();
                    if (what.rfind(expected, 0) != 0 || what.find(remedy) == std::string::npos) {
                        return Failed(11, "message: " + what);
                    }
                    const bool unfinished = c.state != 7;
                    if (unfinished &&
                        std::chrono::steady_clock::now() - start < std::chrono::milliseconds(200)) {
                        return Failed(12, "gave up before the bound");
                    }
                    return 0;
                }
                return Failed(13, "no exception");
            },
            seconds(60));
        EXPECT_TRUE(result.Ok()) << result.Describe();
        // The remedy works: after removal the slot can be created.
        SlotFactory::RemoveSlot(name.str());
        EXPECT_NO_THROW(ReliableSlot(open_or_create, name.c_str(), kMaxSize, kCapacity));
    }
}

TEST(UnfinishedCreation, CreatorKilledAtEachStepNeverHangsTheNextOpener) {
    if (!shared::ArmCrashPoint("")) {
        GTEST_SKIP() << "library built without SLOT_CRASH_POINTS";
    }
    // Points in creation order; "header-locked" dies holding the header mutex, which the next
    // opener recovers, the others leave an unfinished object, which it reports.
    const std::pair<const char*, bool> points[] = {
        {"create-sized", false},   {"create-initialising", false},   {"queue-opened", true},
        {"create-sized:2", false}, {"create-initialising:2", false}, {"segment-opened", true},
        {"header-locked", true}};
    for (const auto& point : points) {
        SCOPED_TRACE(point.first);
        ScopedSlotName name;
        std::string pointName = point.first;
        unsigned hit = 1;
        if (pointName.find(':') != std::string::npos) {
            hit = static_cast<unsigned>(std::stoul(pointName.substr(pointName.find(':') + 1)));
            pointName.resize(pointName.find(':'));
        }
        ChildProcess creator([&] {
            shared::ArmCrashPoint(pointName.c_str(), hit);
            ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
            return 3;
        });
        EXPECT_EQ(9, creator.Wait(seconds(30)).signal);
        const ChildResult opener = RunInChild(
            [&] {
                ::setenv("SLOT_CREATION_WAIT_MS", "200", 1);
                try {
                    ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
                    Write(slot, Block(0));
                    return ExpectBlocks(slot, 1) == 0 ? 0 : 21;
                } catch (const AbortSlotCreationException& e) {
                    return std::string(e.what()).find("slotctl rm --stale") != std::string::npos
                               ? 1
                               : Failed(22, e.what());
                }
            },
            seconds(60));
        ASSERT_TRUE(opener.exited) << opener.Describe();
        EXPECT_EQ(point.second ? 0 : 1, opener.exitCode);
    }
}

// The first opener makes "output_buffer_handle", then allocates the buffer and stores its handle
// there. Killed in between, it leaves a header whose handle names nothing; the next opener
// finishes that step (with the buffer already allocated, if any), so that every later opener and
// every read works as on a slot built whole, and no memory of the segment is lost.
TEST(UnfinishedCreation, FirstOpenerKilledBeforeStoringTheBufferHandleLeavesAWholeSlot) {
    if (!shared::ArmCrashPoint("")) {
        GTEST_SKIP() << "library built without SLOT_CRASH_POINTS";
    }
    std::uint64_t wholeFreeBytes = 0;
    {
        ScopedSlotName reference;
        DiscardingSlot slot(open_or_create, reference.c_str(), kMaxSize);
        wholeFreeBytes = RawObject(reference, false).Image().freeBytes;
    }
    for (const char* point : {"handle-constructed", "buffer-allocated"}) {
        SCOPED_TRACE(point);
        ScopedSlotName name;
        ChildProcess creator([&] {
            shared::ArmCrashPoint(point);
            DiscardingSlot slot(open_or_create, name.c_str(), kMaxSize);
            return 3;
        });
        const ChildResult killed = creator.Wait(seconds(30));
        ASSERT_EQ(9, killed.signal) << killed.Describe();
        const ChildResult openers = RunInChild([&] {
            LogCapture log("Slot");
            // Each opener passes a block, and a read of the empty slot hands out its copy.
            auto passBlocks = [&name](const std::string& block) {
                DiscardingSlot slot(open_or_create, name.c_str(), kMaxSize);
                shared::ILockable& lock = *slot.GetLockable();
                char buffer[kMaxSize];
                lock.lock();
                slot.WriteData(block.data(), block.size());
                const size_t first = slot.ReadData(buffer, sizeof(buffer));
                const std::string got(buffer, first);
                const size_t again = slot.ReadData(buffer, sizeof(buffer));
                const std::string copy(buffer, again);
                lock.unlock();
                return got == block && copy == block;
            };
            if (!passBlocks(Block(0)) || !passBlocks(Block(1))) {
                return Failed(11, "a block or its copy did not pass");
            }
            const std::vector<std::string> errors = log.Messages("ERROR");
            const std::string repaired = "Slot '" + name.str() + "' was locked by thread ";
            if (errors.size() != 1 || errors[0].compare(0, repaired.size(), repaired) != 0) {
                return Failed(12, "ERROR lines other than the dead holder's repair: " +
                                      std::to_string(errors.size()));
            }
            const std::string finished = "Slot '" + name.str() +
                                         "' : the process that built its header died before it "
                                         "stored the output buffer's handle; stored now";
            if (log.Messages("WARN") != std::vector<std::string>{finished}) {
                return Failed(13, "not exactly the WARN line '" + finished + "'");
            }
            return 0;
        });
        EXPECT_TRUE(openers.Ok()) << openers.Describe();
        const SlotImage::HeaderImage image = RawObject(name, false).Image();
        EXPECT_EQ(SlotImage::Verdict::Valid, image.verdict) << image.problem;
        EXPECT_TRUE(image.strayAllocations.empty());
        EXPECT_EQ(wholeFreeBytes, image.freeBytes);
    }
}

// A queue removed and created again while it is being opened: the slot's checking view of the
// queue and Boost's queue must be the same object, or counts, checks and repairs would concern
// another queue than the blocks. The opener stops after its view mapped the queue, before Boost
// opens it.
TEST(UnfinishedCreation, AQueueCreatedAgainWhileItIsOpenedIsOpenedAgain) {
    if (!shared::ArmCrashPoint("")) {
        GTEST_SKIP() << "library built without SLOT_CRASH_POINTS";
    }
    ScopedSlotName name;
    // The first queue holds a block, so that a mix-up of the two shows.
    {
        ReliableSlot first(open_or_create, name.c_str(), kMaxSize, kCapacity);
        Write(first, "stale");
    }
    ChildProcess opener([&] {
        shared::ArmCrashPoint("queue-checker-opened");
        ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
        return ExpectBlocks(slot, 1);
    });
    int status = 0;
    ASSERT_TRUE(testsupport::Eventually(
        [&] { return ::waitpid(opener.Pid(), &status, WNOHANG | WUNTRACED) == opener.Pid(); }));
    ASSERT_TRUE(WIFSTOPPED(status)) << "the opener ended instead of stopping";
    SlotFactory::RemoveSlot(name.str());
    {
        ReliableSlot again(open_or_create, name.c_str(), kMaxSize, kCapacity);
        Write(again, Block(0));
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
        ChildProcess dier([&] {
            std::unique_ptr<shared::ISharedMemory> segment(
                shared::CreateSharedMemory(open_or_create, name.c_str(), 4096));
            auto die = [&] {
                if (halfChanged) {
                    // The allocator's record of the segment's size, as an allocation in progress
                    // may leave its bookkeeping for a moment.
                    RawObject raw(name.str(), true);
                    // Boost's size type: 32 bits on i386, 64 bits on x86_64, like std::size_t.
                    const std::size_t at = static_cast<std::size_t>(raw.Image().managerOffset);
                    const std::size_t recorded = raw.size - at;
                    const std::size_t end = std::min(raw.size, at + 4096);
                    for (std::size_t p = at; p + sizeof(std::size_t) <= end;
                         p += sizeof(std::size_t)) {
                        std::size_t word;
                        std::memcpy(&word, raw.bytes + p, sizeof word);
                        if (word == recorded) {
                            word += 64;
                            std::memcpy(raw.bytes + p, &word, sizeof word);
                            break;
                        }
                    }
                }
                shared::KillThisProcess();
            };
            segment->GetSegment().atomic_func(die);
            return 3;
        });
        EXPECT_EQ(9, dier.Wait(seconds(30)).signal);
        if (halfChanged) {
            ASSERT_EQ(SlotImage::Verdict::Damaged, RawObject(name.str(), false).Image().verdict);
        }
        const ChildResult opener = RunInChild([&] {
            try {
                ReliableSlot slot(open_or_create, name.c_str(), kMaxSize, kCapacity);
            } catch (const AbortSlotCreationException& e) {
                const std::string expected =
                    "Slot could not be created: The index lock of segment '" + name.str() +
                    "' is held by thread " + std::to_string(dier.Pid()) +
                    ", which died holding it; remove it (slotctl rm --stale " + name.str() + ")";
                return std::string(e.what()).rfind(expected, 0) == 0 ? 0 : Failed(11, e.what());
            }
            return Failed(12, "no exception");
        });
        EXPECT_TRUE(opener.Ok()) << opener.Describe();
    }
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
        int code = 0;
        // The queue does not fit; then the queue fits but the segment does not.
        for (const unsigned int capacity : {16u, 1u}) {
            try {
                ReliableSlot slot(open_or_create, name.c_str(), 160 * 1024, capacity);
                code = Failed(11, "created");
            } catch (const AbortSlotCreationException& e) {
                if (std::string(e.what()) !=
                    std::string("Slot could not be created: ") + std::strerror(ENOSPC)) {
                    code = Failed(12, e.what());
                }
            }
            if (::access("/dev/shm/queue_nospace", F_OK) == 0 ||
                ::access("/dev/shm/nospace", F_OK) == 0) {
                code = Failed(13, "an object was left behind");
            }
        }
        // What fits is created and works.
        ReliableSlot small(open_or_create, name.c_str(), 1024, 4);
        Write(small, Block(0));
        return code != 0 ? code : ExpectBlocks(small, 1);
    });
    if (result.exited && result.exitCode == 77) {
        GTEST_SKIP() << "cannot mount a private tmpfs on /dev/shm (needs root): not tested";
    }
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

}  // namespace
