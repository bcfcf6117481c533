// SPDX-License-Identifier: Apache-2.0
// A slot that is already open whose header mutex word gets overwritten: a lock() waits a bounded
// time, then fails with an ERROR line naming the slot and the state, instead of blocking for
// ever. A live holder that really holds the lock is still waited for, however long. Every
// waiting step runs in a child under a watchdog.
#include "ChildProcess.h"
#include "Eventually.h"
#include "LogCapture.h"
#include "ShmHygiene.h"
#include "ShmObject.h"

#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/SlotImage.h>

#include <shared/ILockable.h>

#include <gtest/gtest.h>

#include <linux/futex.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

using boost::interprocess::open_or_create;
using testsupport::ChildProcess;
using testsupport::ChildResult;
using testsupport::Failed;
using testsupport::LogCapture;
using testsupport::PipeSignal;
using testsupport::RunInChild;
using testsupport::ScopedSlotName;

// The header mutex's lock word of the slot `name`, in a mapping of our own.
class LockWord {
public:
    explicit LockWord(const std::string& name) : map_(name, true) {
        const SlotImage::HeaderImage image = SlotImage::ParseHeader(map_.bytes, map_.size);
        EXPECT_TRUE(image.headerMutex.present);
        word_ = reinterpret_cast<int*>(map_.bytes + image.headerMutex.offset +
                                       offsetof(pthread_mutex_t, __data.__lock));
    }

    void Set(unsigned value) { __atomic_store_n(word_, static_cast<int>(value), __ATOMIC_SEQ_CST); }

private:
    testsupport::MappedObject map_;
    int* word_ = nullptr;
};

// In a child: lock() on the damaged lock must fail within a few bounds, with an ERROR line that
// names the slot and `state`.
ChildResult ExpectLockGivesUp(ReliableSlot& slot, const std::string& name,
                              const std::string& state) {
    return RunInChild(
        [&] {
            ::setenv("SLOT_CREATION_WAIT_MS", "300", 1);
            LogCapture log("Slot");
            const auto start = std::chrono::steady_clock::now();
            try {
                slot.GetLockable()->lock();
                return Failed(11, "lock() succeeded on a damaged lock word");
            } catch (const boost::interprocess::interprocess_exception& e) {
                if (std::string(e.what()).find(state) == std::string::npos) {
                    return Failed(12, std::string("exception: ") + e.what());
                }
            }
            if (std::chrono::steady_clock::now() - start > std::chrono::seconds(15)) {
                return Failed(13, "gave up far later than the bound");
            }
            const std::string expected = "Slot '" + name + "' : its header lock ";
            for (const std::string& m : log.Messages("ERROR")) {
                if (m.compare(0, expected.size(), expected) == 0 &&
                    m.find(state) != std::string::npos &&
                    m.find("; the lock is damaged, giving up") != std::string::npos) {
                    return 0;
                }
            }
            return Failed(14, "no ERROR line '" + expected + "..." + state + "'");
        },
        std::chrono::seconds(60));
}

TEST(DamagedHeaderLock, ImpossibleHoldersAreGivenUpOnAndTheSlotWorksOnceRepaired) {
    ScopedSlotName name("damagedlock");
    ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
    slot.GetLockable()->lock();
    slot.WriteData("one", 3);
    slot.WriteData("two", 3);
    slot.GetLockable()->unlock();
    LockWord word(name.str());

    // A live process that does not map the slot: an exec'ed sleep.
    const pid_t foreign = ::fork();
    ASSERT_GE(foreign, 0);
    if (foreign == 0) {
        ::execlp("sleep", "sleep", "60", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // A thread id that no longer exists: a child that has been reaped.
    const pid_t gone = ::fork();
    ASSERT_GE(gone, 0);
    if (gone == 0) {
        ::_exit(0);
    }
    ::waitpid(gone, nullptr, 0);

    struct Case {
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
    for (const Case& c : cases) {
        word.Set(c.value);
        const ChildResult result = ExpectLockGivesUp(slot, name.str(), c.state);
        EXPECT_TRUE(result.Ok()) << c.state << ": " << result.Describe();
    }
    ::kill(foreign, SIGKILL);
    ::waitpid(foreign, nullptr, 0);

    // Repaired by hand, the slot has kept both blocks.
    word.Set(0);
    slot.GetLockable()->lock();
    EXPECT_EQ(2u, slot.GetBufferLength());
    char buffer[64];
    EXPECT_EQ(3u, slot.ReadData(buffer, sizeof(buffer)));
    EXPECT_EQ(0, std::memcmp(buffer, "one", 3));
    slot.GetLockable()->unlock();
}

// The queue's mutex left locked by a thread whose id now names a live thread of a process that
// does not map the queue (an exec'ed sleep): its holder died, and the next lock holder repairs
// the queue instead of waiting for that thread, time after time.
TEST(DamagedHeaderLock, AQueueHolderWhoseThreadIdWasReusedIsTakenForDead) {
    ScopedSlotName name("reusedtid");
    ReliableSlot slot(open_or_create, name.c_str(), 64, 4);
    const pid_t foreign = ::fork();
    ASSERT_GE(foreign, 0);
    if (foreign == 0) {
        ::execlp("sleep", "sleep", "60", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // Until the exec, the child maps the queue as its parent does.
    ASSERT_TRUE(testsupport::Eventually([&] {
        std::ifstream comm("/proc/" + std::to_string(foreign) + "/comm");
        std::string command;
        return std::getline(comm, command) && command == "sleep";
    }));
    {
        testsupport::MappedObject queue(ReliableSlot::GetQueueName(name.str()), true);
        const SlotImage::QueueImage image = SlotImage::ParseQueue(queue.bytes, queue.size);
        ASSERT_TRUE(image.mutex.present);
        // Locked, and the holder recorded, as by that thread.
        pthread_mutex_t* mutex =
            reinterpret_cast<pthread_mutex_t*>(queue.bytes + image.mutex.offset);
        mutex->__data.__owner = foreign;
        __atomic_store_n(&mutex->__data.__lock, 1, __ATOMIC_SEQ_CST);
    }
    const ChildResult result = RunInChild([&] {
        LogCapture log("Slot");
        slot.GetLockable()->lock();
        slot.WriteData("one", 3);
        const size_t waiting = slot.GetBufferLength();
        slot.GetLockable()->unlock();
        const std::string expected = "Queue of '" + name.str() + "' was locked by thread " +
                                     std::to_string(foreign) + ", which died holding it;";
        for (const std::string& m : log.Messages("ERROR")) {
            if (m.compare(0, expected.size(), expected) == 0) {
                return waiting == 1 ? 0 : Failed(11, "the block was not stored");
            }
        }
        return Failed(12, "no ERROR line '" + expected + "'");
    });
    ::kill(foreign, SIGKILL);
    ::waitpid(foreign, nullptr, 0);
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

// Names whose path a memory map shows otherwise than a file system does: the kernel writes a
// newline in a path as "\012". The holder's mapping is found all the same.
const char* const HolderNameStems[] = {"heldlong", "held\nlong"};

// A live holder is waited for: of the header lock beyond the bound for a damaged lock, and of
// the queue's mutex (as one inside a queue call holds it) without being taken for a dead holder
// whose mutex may be made anew.
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
                testsupport::MappedObject queue(ReliableSlot::GetQueueName(name.str()), true);
                const SlotImage::QueueImage image = SlotImage::ParseQueue(queue.bytes, queue.size);
                if (!image.mutex.present) {
                    return Failed(11, "no queue mutex");
                }
                pthread_mutex_t* mutex =
                    reinterpret_cast<pthread_mutex_t*>(queue.bytes + image.mutex.offset);
                pthread_mutex_lock(mutex);
                locked.Post();
                ::usleep(600 * 1000);  // within the queue's bound for a live holder
                pthread_mutex_unlock(mutex);
                return 0;
            });
            ASSERT_TRUE(locked.WaitFor()) << holder.Wait().Describe();
            const ChildResult writer = RunInChild([&] {
                if (!queueMutex) {
                    ::setenv("SLOT_CREATION_WAIT_MS", "300", 1);
                }
                LogCapture log("Slot");
                try {
                    slot.GetLockable()->lock();
                } catch (const std::exception& e) {
                    return Failed(11, std::string("a live holder was given up on: ") + e.what());
                }
                slot.WriteData("one", 3);
                const size_t waiting = slot.GetBufferLength();
                slot.GetLockable()->unlock();
                if (!log.Messages("ERROR").empty()) {
                    return Failed(12, "ERROR: " + log.Messages("ERROR").front());
                }
                return waiting == 1 ? 0 : Failed(13, "the block was not stored");
            });
            EXPECT_TRUE(writer.Ok()) << writer.Describe();
            EXPECT_TRUE(holder.Wait().Ok());
        }
    }
}

}  // namespace
