// SPDX-License-Identifier: Apache-2.0
// An open slot's header mutex word overwritten: lock() waits a bounded time, then fails with an
// ERROR line naming the slot and the state. A live holder is waited for, however long. Every
// waiting step runs in a child under a watchdog.
#include "ChildProcess.h"
#include "ChildRequire.h"
#include "Eventually.h"
#include "LockedBlocks.h"
#include "LogCapture.h"
#include "ShmHygiene.h"
#include "ShmObject.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/SlotImage.h>

#include <shared/ILockable.h>
#include <shared/RobustMutex.h>

#include <boost/interprocess/sync/interprocess_mutex.hpp>

#include <gtest/gtest.h>

#include <linux/futex.h>
#include <pthread.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>
#include <vector>

namespace {

using boost::interprocess::open_or_create;
using testsupport::ChildProcess;
using testsupport::LogCapture;
using testsupport::MappedObject;
using testsupport::PipeSignal;
using testsupport::Require;
using testsupport::RunsInChild;
using testsupport::ScopedSlotName;
using testsupport::WriteBlock;

// The header mutex of a slot's segment mapped for writing; null when there is none.
pthread_mutex_t* HeaderMutex(const MappedObject& header) {
    const SlotImage::HeaderImage image = SlotImage::ParseHeader(header.bytes, header.size);
    return image.headerMutex.present
               ? reinterpret_cast<pthread_mutex_t*>(header.bytes + image.headerMutex.offset)
               : nullptr;
}

// The mutex of a queue mapped for writing; null when there is none.
pthread_mutex_t* QueueMutex(const MappedObject& queue) {
    const SlotImage::QueueImage image = SlotImage::ParseQueue(queue.bytes, queue.size);
    return image.mutex.present
               ? reinterpret_cast<pthread_mutex_t*>(queue.bytes + image.mutex.offset)
               : nullptr;
}

// True once the child `pid` runs sleep: until its exec, it maps what its parent maps.
bool RunsSleep(pid_t pid) {
    return testsupport::Eventually([&] {
        std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
        std::string command;
        return std::getline(comm, command) && command == "sleep";
    });
}

// In a child: lock() on the damaged lock must fail within a few bounds, with an ERROR line that
// names the slot and `state`.
::testing::AssertionResult LockGivesUp(ReliableSlot& slot, const std::string& name,
                                       const std::string& state) {
    return RunsInChild(
        [&] {
            ::setenv("SLOT_CREATION_WAIT_MS", "300", 1);
            LogCapture log("Slot");
            const auto start = std::chrono::steady_clock::now();
            try {
                slot.GetLockable()->lock();
                Require(false, 11, "lock() succeeded on a damaged lock word");
            } catch (const boost::interprocess::interprocess_exception& e) {
                Require(std::string(e.what()).find(state) != std::string::npos, 12,
                        std::string("exception: ") + e.what());
            }
            Require(std::chrono::steady_clock::now() - start <= std::chrono::seconds(15), 13,
                    "gave up far later than the bound");
            const std::string expected = "Slot '" + name + "' : its header lock ";
            for (const std::string& m : log.Messages("ERROR")) {
                if (m.compare(0, expected.size(), expected) == 0 &&
                    m.find(state) != std::string::npos &&
                    m.find("; the lock is damaged, giving up") != std::string::npos) {
                    return;
                }
            }
            Require(false, 14, "no ERROR line '" + expected + "..." + state + "'");
        },
        std::chrono::seconds(60));
}

// Impossible holders of the header lock: a live process that does not map the slot (an exec'ed
// sleep), a thread that no longer exists (a reaped child), none at all.
TEST(DamagedHeaderLock, ImpossibleHoldersAreGivenUpOnAndTheSlotWorksOnceRepaired) {
    ScopedSlotName name("damagedlock");
    ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
    slot.GetLockable()->lock();
    slot.WriteData("one", 3);
    slot.WriteData("two", 3);
    slot.GetLockable()->unlock();
    MappedObject header(name.str(), true);
    pthread_mutex_t* const headerMutex = HeaderMutex(header);
    ASSERT_NE(nullptr, headerMutex);
    const auto setWord = [&](unsigned value) {
        __atomic_store_n(&headerMutex->__data.__lock, static_cast<int>(value), __ATOMIC_SEQ_CST);
    };

    ChildProcess stranger([] {
        ::execlp("sleep", "sleep", "60", static_cast<char*>(nullptr));
        return 127;
    });
    ASSERT_TRUE(RunsSleep(stranger.Pid()));
    const pid_t foreign = stranger.Pid();
    ChildProcess reaped([] { return 0; });
    ASSERT_TRUE(reaped.Wait().Ok());
    const pid_t gone = reaped.Pid();

    const struct {
        unsigned value;
        std::string state;
    } cases[] = {
        {static_cast<unsigned>(foreign), "is held by thread " + std::to_string(foreign) +
                                             " of process " + std::to_string(foreign) +
                                             ", which does not map /dev/shm/" + name.str()},
        {static_cast<unsigned>(gone) | FUTEX_WAITERS,
         "is held by thread " + std::to_string(gone) + ", which does not exist"},
        {FUTEX_WAITERS, "names no holder"},
    };
    for (const auto& c : cases) {
        setWord(c.value);
        EXPECT_TRUE(LockGivesUp(slot, name.str(), c.state)) << c.state;
    }

    // Repaired by hand, the slot has kept both blocks.
    setWord(0);
    EXPECT_EQ(2u, slot.GetBufferLength());
    EXPECT_EQ("one", testsupport::ReadBlock(slot, 64));

    // The queue's mutex left locked by a thread id that now names a live process not mapping the
    // queue (the sleep): its holder died, and the next holder repairs instead of waiting.
    {
        MappedObject queue(ReliableSlot::GetQueueName(name.str()), true);
        pthread_mutex_t* mutex = QueueMutex(queue);
        ASSERT_NE(nullptr, mutex);
        // Locked, and the holder recorded, as by that thread.
        mutex->__data.__owner = foreign;
        __atomic_store_n(&mutex->__data.__lock, 1, __ATOMIC_SEQ_CST);
    }
    EXPECT_TRUE(RunsInChild([&] {
        LogCapture log("Slot");
        testsupport::WriteBlock(slot, "three");
        Require(
            log.CountPrefix("ERROR", "Queue of '" + name.str() + "' was locked by thread " +
                                         std::to_string(foreign) + ", which died holding it;") != 0,
            12, "no ERROR line naming the dead holder");
        Require(slot.GetBufferLength() == 2, 11, "the block was not stored");
    }));
}

// Names whose path a memory map shows otherwise than a file system does: the kernel writes a
// newline in a path as "\012". The holder's mapping is found all the same.
const char* const HolderNameStems[] = {"heldlong", "held\nlong"};

// A live holder is waited for: of the header lock beyond the bound for a damaged lock, and of the
// queue's mutex (as inside a queue call) without being taken for a dead holder.
TEST(DamagedHeaderLock, ALiveHolderOfEitherLockIsWaitedFor) {
    for (const char* stem : HolderNameStems) {
        for (const bool queueMutex : {false, true}) {
            SCOPED_TRACE(std::string(stem) + (queueMutex ? ": queue mutex" : ": header lock"));
            ScopedSlotName name(stem);
            ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
            PipeSignal locked;
            ChildProcess holder([&] {
                if (!queueMutex) {
                    slot.GetLockable()->lock();
                    locked.Post();
                    ::usleep(1200 * 1000);  // four times the bound the waiter uses below
                    slot.GetLockable()->unlock();
                    return 0;
                }
                MappedObject queue(ReliableSlot::GetQueueName(name.str()), true);
                pthread_mutex_t* mutex = QueueMutex(queue);
                Require(mutex != nullptr, 11, "no queue mutex");
                pthread_mutex_lock(mutex);
                locked.Post();
                ::usleep(600 * 1000);  // within the queue's bound for a live holder
                pthread_mutex_unlock(mutex);
                return 0;
            });
            ASSERT_TRUE(locked.WaitFor()) << holder.Wait().Describe();
            EXPECT_TRUE(RunsInChild([&] {
                if (!queueMutex) {
                    ::setenv("SLOT_CREATION_WAIT_MS", "300", 1);
                }
                LogCapture log("Slot");
                try {
                    slot.GetLockable()->lock();
                } catch (const std::exception& e) {
                    Require(false, 11, std::string("a live holder was given up on: ") + e.what());
                }
                slot.WriteData("one", 3);
                const size_t waiting = slot.GetBufferLength();
                slot.GetLockable()->unlock();
                const std::vector<std::string> errors = log.Messages("ERROR");
                Require(errors.empty(), 12, "ERROR: " + (errors.empty() ? "" : errors.front()));
                Require(waiting == 1, 13, "the block was not stored");
            }));
            EXPECT_TRUE(holder.Wait().Ok());
        }
    }
}

// A header mutex without the robust attribute, as Boost's interprocess_mutex makes it: the slot
// works across processes and a live holder is waited for beyond the bound; only a dead holder is
// given up on after the bound.
TEST(PlainHeaderLock, ASlotWithAPlainHeaderMutexWorksAndGivesUpOnlyOnAGoneHolder) {
    ScopedSlotName name("plainlock");
    { ReliableSlot made(open_or_create, name.c_str(), 64, 4); }
    {
        MappedObject header(name.str(), true);
        pthread_mutex_t* const native = HeaderMutex(header);
        ASSERT_NE(nullptr, native);
        auto* mutex = new (native) boost::interprocess::interprocess_mutex();
        ASSERT_EQ(shared::SharedMutexKind(), shared::NativeMutex(mutex)->__data.__kind);
    }
    ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
    WriteBlock(slot, "one");

    auto released = testsupport::SharedWithChildren<std::atomic<bool>>();
    PipeSignal written;
    PipeSignal locked;
    ChildProcess other([&] {
        ::setenv("SLOT_CREATION_WAIT_MS", "300", 1);
        LogCapture log("Slot");
        ReliableSlot mine(open_or_create, name.c_str(), 64, 4);
        Require(testsupport::ReadBlock(mine, 64) == "one", 11, "the block was not read");
        WriteBlock(mine, "two");
        written.Post();
        Require(locked.WaitFor(), 12, "the parent never locked");
        Require(!mine.GetLockable()->try_lock(), 13, "try_lock took a lock held elsewhere");
        try {
            mine.GetLockable()->lock();
        } catch (const std::exception& e) {
            Require(false, 14, std::string("a live holder was given up on: ") + e.what());
        }
        Require(released->load(), 15, "lock() returned while the holder held the lock");
        mine.GetLockable()->unlock();
        const std::vector<std::string> errors = log.Messages("ERROR");
        Require(errors.empty(), 16, "ERROR: " + (errors.empty() ? "" : errors.front()));
        return 0;
    });
    ASSERT_TRUE(written.WaitFor()) << other.Wait().Describe();
    slot.GetLockable()->lock();
    locked.Post();
    ::usleep(1200 * 1000);  // four times the bound the other process uses
    released->store(true);
    slot.GetLockable()->unlock();
    const testsupport::ChildResult result = other.Wait();
    ASSERT_TRUE(result.Ok()) << result.Describe();
    EXPECT_EQ("two", testsupport::ReadBlock(slot, 64));

    // A holder that died leaves a plain lock locked: lock() gives up after the bound with the
    // ERROR line, and opening the slot gives up after the bound too.
    ChildProcess holder([&] {
        slot.GetLockable()->lock();
        return 0;
    });
    const pid_t gone = holder.Pid();
    ASSERT_TRUE(holder.Wait().Ok());
    EXPECT_TRUE(
        LockGivesUp(slot, name.str(),
                    "is held by thread " + std::to_string(gone) + ", which no longer exists"));
    EXPECT_TRUE(RunsInChild([&] {
        ::setenv("SLOT_CREATION_WAIT_MS", "300", 1);
        try {
            ReliableSlot again(open_or_create, name.c_str(), 64, 4);
            Require(false, 11, "a slot locked by a dead holder opened");
        } catch (const AbortSlotCreationException& e) {
            Require(std::string(e.what()).find("held by thread " + std::to_string(gone)) !=
                        std::string::npos,
                    12, std::string("exception: ") + e.what());
        }
    }));
}

}  // namespace
