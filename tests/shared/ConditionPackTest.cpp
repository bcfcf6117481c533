// SPDX-License-Identifier: Apache-2.0
#include "SharedCondition.h"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <functional>

namespace {

using namespace sharedtest;
namespace pt = boost::posix_time;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testsupport::ChildProcess;
using testsupport::EndedWell;
using testsupport::PipeSignal;
using testsupport::RunsInChild;
using ConditionPack = ConditionTest;
using CrossProcess = ConditionTest;

// One thread blocked in Pack::Wait. If the test fails while the thread is still waiting, the
// destructor notifies until it leaves, so that the segment is never unmapped under it.
class Waiter {
public:
    Waiter(Pack& pack, const pt::time_duration& timeout)
        : pack_(pack), thread_([this, timeout] {
              try {
                  result = pack_.Wait(timeout);
              } catch (const boost::thread_interrupted&) {
                  interrupted = true;
              }
          }) {}
    ~Waiter() {
        for (int i = 0; i < 200 && !Join(milliseconds(50)); ++i) {
            pack_.Notify();
        }
        if (thread_.joinable()) {
            std::abort();
        }
    }
    bool Join(milliseconds timeout = seconds(10)) {
        return !thread_.joinable() ||
               thread_.try_join_for(boost::chrono::milliseconds(timeout.count()));
    }
    void Interrupt() { thread_.interrupt(); }

    std::atomic<bool> result{false};
    std::atomic<bool> interrupted{false};

private:
    Pack& pack_;
    boost::thread thread_;
};

TEST_F(ConditionPack, LogsItsStepsWithExactTextsAndLevels) {
    {
        testsupport::LogCapture log("InterprocCondition");
        EXPECT_FALSE(c.pack->Wait(pt::milliseconds(0)));
        for (const pt::time_duration& timeout :
             {pt::time_duration(pt::seconds(20)), pt::time_duration(pt::pos_infin),
              pt::time_duration(pt::not_a_date_time)}) {
            Waiter waiter(*c.pack, timeout);
            ASSERT_TRUE(WaitForWaiters(c, 1));
            c.pack->Notify();
            ASSERT_TRUE(waiter.Join());
            EXPECT_TRUE(waiter.result);
        }
        const std::vector<std::string> expected = {"Wait() : acquired mutex",
                                                   "Wait() : cv.timed_wait(...) returned 0",
                                                   "Wait() : acquired mutex",
                                                   "notify_all()",
                                                   "Wait() : cv.timed_wait(...) returned 1",
                                                   "Wait() : acquired mutex",
                                                   "notify_all()",
                                                   "Wait() : cv.timed_wait(...) returned 1",
                                                   "Wait() : acquired mutex",
                                                   "notify_all()",
                                                   "Wait() : cv.wait(...) returned"};
        EXPECT_EQ(expected, log.Messages("TRACE"));
        EXPECT_EQ(expected.size(), log.Events().size());
    }
    // At DEBUG only the destructor speaks.
    testsupport::LogCapture log("InterprocCondition", log4cxx::Level::getDebug());
    c.pack->Wait(pt::milliseconds(0));
    c.pack->Notify();
    c.pack.reset();
    EXPECT_EQ(1u, log.Count("DEBUG", "~InterprocConditionPack()"));
    EXPECT_EQ(1u, log.Events().size());
}

// Zero and negative time-outs return false at once, without the mutex. A broadcast made while
// a pack is not waiting ends that pack's next wait at once, and only that one; a pack made after
// the broadcast does not see it.
TEST_F(ConditionPack, BroadcastBetweenWaitsEndsTheNextWaitOnce) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(c.pack->Wait(pt::milliseconds(0)));
    EXPECT_FALSE(c.pack->Wait(pt::seconds(-5)));
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(3));
    EXPECT_TRUE(c.MutexFree()) << "Wait must release the mutex";
    Pack other(c.mutex, c.cond);
    other.Notify();
    other.Notify();
    EXPECT_TRUE(c.pack->Wait(pt::milliseconds(0)));
    EXPECT_FALSE(c.pack->Wait(pt::milliseconds(0)));
    EXPECT_TRUE(other.Wait(pt::milliseconds(0)));
    EXPECT_FALSE(Pack(c.mutex, c.cond).Wait(pt::milliseconds(0)));

    ASSERT_TRUE(RunsInChild([&] { SharedCondition(name).pack->Notify(); }));
    start = std::chrono::steady_clock::now();
    EXPECT_TRUE(c.pack->Wait(pt::seconds(20)));
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(5));
    EXPECT_FALSE(c.pack->Wait(pt::milliseconds(0)));
}

TEST_F(ConditionPack, WaitsWithoutDeadlineReturnTrueOnlyAfterNotify) {
    // A deadline beyond 2038 as well: it must not overflow a 32-bit time_t; and one of 300
    // years, beyond what a count of nanoseconds holds.
    for (const pt::time_duration& timeout :
         {pt::time_duration(pt::not_a_date_time), pt::time_duration(pt::pos_infin),
          pt::time_duration(pt::hours(24 * 365 * 40)),
          pt::time_duration(pt::hours(24 * 365 * 300))}) {
        Waiter waiter(*c.pack, timeout);
        ASSERT_TRUE(WaitForWaiters(c, 1));
        EXPECT_FALSE(waiter.Join(milliseconds(100))) << timeout << " returned without notify";
        c.pack->Notify();
        ASSERT_TRUE(waiter.Join()) << timeout;
        EXPECT_TRUE(waiter.result) << timeout;
    }
}

TEST_F(ConditionPack, InterruptedWaiterStaysUntilNotifiedThenLeavesWithMutexUnlocked) {
    {
        Waiter waiter(*c.pack, pt::not_a_date_time);
        ASSERT_TRUE(WaitForWaiters(c, 1));
        waiter.Interrupt();
        EXPECT_FALSE(waiter.Join(milliseconds(100))) << "the wait itself is no interruption point";
        c.pack->Notify();
        ASSERT_TRUE(waiter.Join());
        EXPECT_TRUE(waiter.interrupted);
    }
    EXPECT_TRUE(RunsInChild([&] {
        Require(SharedCondition(name).MutexFree(), 1,
                "mutex still held after the interrupted wait");
    }));
    EXPECT_TRUE(c.MutexFree());
}

// A wait whose re-lock fails (here: the lock damaged meanwhile) leaves without the mutex: it
// unlocks nothing and writes nothing into the lock it does not hold, and it is no waiter any
// more.
TEST_F(ConditionPack, AWaitWhoseRelockFailsLeavesTheLockAsItFoundIt) {
    pthread_mutex_t* native = shared::NativeMutex(c.mutex);
    const int kind = __atomic_load_n(&native->__data.__kind, __ATOMIC_RELAXED);
    shared::LockWatch watch;
    watch.kind = kind;
    c.pack->SetLockWatch(watch);
    std::string thrown;
    boost::thread waiter([&] {
        try {
            c.pack->Wait(pt::seconds(20));
        } catch (const std::exception& e) {
            thrown = e.what();
        }
    });
    ASSERT_TRUE(WaitForWaiters(c, 1));
    const int damaged = kind ^ 0x40;
    __atomic_store_n(&native->__data.__kind, damaged, __ATOMIC_RELAXED);
    c.pack->Notify();
    ASSERT_TRUE(waiter.try_join_for(boost::chrono::seconds(10)));
    EXPECT_EQ("the lock is not a robust lock (kind " + std::to_string(damaged) + ")", thrown);
    EXPECT_EQ(damaged, __atomic_load_n(&native->__data.__kind, __ATOMIC_RELAXED));
    EXPECT_EQ(0u, Load(c.cond->waiters));
    __atomic_store_n(&native->__data.__kind, kind, __ATOMIC_RELAXED);
    EXPECT_TRUE(c.MutexFree()) << "the mutex was left unlocked";
}

// A thread blocked on the mutex, which the test thread holds. `allowed`: it has
// InterruptibleLockWaits. It records how its wait ended.
class BlockedLocker {
public:
    enum Outcome { Waiting, Locked, Interrupted, InterruptedRequestTaken };

    BlockedLocker(bool allowed, const std::function<void()>& wait)
        : thread_([this, allowed, wait] {
              tid = CurrentTid();
              std::unique_ptr<shared::InterruptibleLockWaits> interruptible;
              if (allowed) {
                  interruptible.reset(new shared::InterruptibleLockWaits);
              }
              try {
                  wait();
                  outcome = Locked;
              } catch (const boost::thread_interrupted&) {
                  outcome = boost::this_thread::interruption_requested() ? Interrupted
                                                                         : InterruptedRequestTaken;
              }
          }) {}
    ~BlockedLocker() { thread_.join(); }  // the test releases the mutex before

    // Interrupts the thread once it is blocked; true when it ended within `timeout`.
    bool InterruptAndJoin(milliseconds timeout) {
        EXPECT_TRUE(Eventually([&] { return tid.load() != 0; }));
        EXPECT_TRUE(WaitUntilBlocked(::getpid(), tid));
        thread_.interrupt();
        return thread_.try_join_for(boost::chrono::milliseconds(timeout.count()));
    }

    std::atomic<pid_t> tid{0};
    std::atomic<int> outcome{Waiting};

private:
    boost::thread thread_;
};

// Where a thread has InterruptibleLockWaits, an interruption ends its waits for a held mutex
// (lock(), and the locks before and after a condition wait) without the mutex, leaving the
// request pending. Elsewhere the lock waits on.
TEST_F(ConditionPack, AnInterruptionEndsLockWaitsOnlyWhereTheThreadAllowsIt) {
    const std::function<void()> lock = [&] {
        c.lockable.lock();
        c.lockable.unlock();
    };
    const std::function<void()> wait = [&] { c.pack->Wait(pt::seconds(20)); };
    {
        c.lockable.lock();
        BlockedLocker plain(false, lock);
        EXPECT_FALSE(plain.InterruptAndJoin(milliseconds(300))) << "a plain lock was interrupted";
        c.lockable.unlock();
        EXPECT_TRUE(Eventually([&] { return plain.outcome == BlockedLocker::Locked; }));
    }
    for (const std::function<void()>& blocked : {lock, wait}) {
        c.lockable.lock();
        BlockedLocker allowed(true, blocked);
        EXPECT_TRUE(allowed.InterruptAndJoin(seconds(10)));
        EXPECT_EQ(BlockedLocker::Interrupted, allowed.outcome);
        c.lockable.unlock();
    }
    {
        // Asleep in the condition, woken while the mutex is held: the relock is interrupted.
        BlockedLocker relock(true, wait);
        ASSERT_TRUE(WaitForWaiters(c, 1));
        c.lockable.lock();
        c.pack->Notify();
        EXPECT_TRUE(relock.InterruptAndJoin(seconds(10)));
        EXPECT_EQ(BlockedLocker::Interrupted, relock.outcome);
        EXPECT_EQ(0u, Load(c.cond->waiters));
        c.lockable.unlock();
    }
    EXPECT_TRUE(c.MutexFree()) << "an interrupted wait left the mutex held";
}

TEST(Lockable, UnboundReturnsAtOnceAndBoundNeverUnlocksOnDestruction) {
    shared::LockablePtr<Mutex> unbound;
    unbound.lock();
    unbound.unlock();
    EXPECT_FALSE(unbound.try_lock());
    EXPECT_FALSE(unbound.timed_lock(pt::pos_infin));

    Mutex first;
    Mutex second;
    {
        shared::LockablePtr<Mutex> lockable(&first);
        lockable.lock();
    }
    EXPECT_FALSE(first.try_lock()) << "destroying a locked LockablePtr unlocked the mutex";
    shared::LockablePtr<Mutex> rebound(&first);
    rebound.Bind(&second);  // unlocks the mutex bound before
    EXPECT_TRUE(first.try_lock());
    first.unlock();
}

// A plain process-shared mutex, as Boost makes it, held by a live thread for longer than the
// bound a damaged lock gets is waited for. Nothing marks its holder dead: a recorded holder that
// no longer exists, or none recorded, is given up on after the bound.
TEST_F(CrossProcess, APlainMutexIsWaitedForUntilItsHolderIsGone) {
    Mutex* plain = c.memory->GetSegment().construct<Mutex>("plain")();
    pthread_mutex_t* native = shared::NativeMutex(plain);
    ASSERT_EQ(shared::SharedMutexKind(), native->__data.__kind);
    EXPECT_TRUE(RunsInChild([&] {
        ::setenv("SLOT_CREATION_WAIT_MS", "200", 1);
        shared::LockablePtr<Mutex> lockable(plain);
        std::atomic<bool> held{false};
        std::atomic<bool> released{false};
        boost::thread holder([&] {
            lockable.lock();
            held = true;
            boost::this_thread::sleep_for(boost::chrono::milliseconds(1000));
            released = true;
            lockable.unlock();
        });
        Require(Eventually([&] { return held.load(); }), 11, "the holder never locked");
        try {
            lockable.lock();
        } catch (const std::exception& e) {
            Require(false, 12, std::string("a live holder was given up on: ") + e.what());
        }
        Require(released, 13, "lock() returned while the holder held the mutex");
        lockable.unlock();
        holder.join();
    }));

    ChildProcess dead([&] {
        shared::LockablePtr<Mutex>(plain).lock();
        return 0;
    });
    const pid_t gone = dead.Pid();
    ASSERT_TRUE(dead.Wait().Ok());
    auto givesUp = [&](const std::string& state) {
        return RunsInChild([&] {
            ::setenv("SLOT_CREATION_WAIT_MS", "200", 1);
            shared::LockablePtr<Mutex> lockable(plain);
            Require(!lockable.try_lock(), 11, "try_lock took a held mutex");
            try {
                lockable.lock();
                Require(false, 12, "lock() took a mutex whose holder is gone");
            } catch (const boost::interprocess::interprocess_exception& e) {
                Require(std::string(e.what()) == "the lock " + state + " for more than 200 ms", 13,
                        std::string("exception: ") + e.what());
            }
        });
    };
    EXPECT_TRUE(givesUp("is held by thread " + std::to_string(gone) + ", which no longer exists"));
    native->__data.__owner = 0;  // as a holder that died while it took the lock leaves it
    EXPECT_TRUE(givesUp("is held without a recorded holder"));
}

TEST_F(CrossProcess, TryLockAndTimedLockOfMutexHeldByAnotherProcess) {
    PipeSignal locked;
    PipeSignal release;
    ChildProcess holder([&] {
        SharedCondition o(name);
        o.lockable.lock();
        locked.Post();
        if (!release.WaitFor()) {
            return Failed(1, "never released");
        }
        o.lockable.unlock();
        return 0;
    });
    ASSERT_TRUE(locked.WaitFor());
    bool got = true;
    EXPECT_NO_THROW(got = c.lockable.try_lock());
    EXPECT_FALSE(got);
    const pt::ptime now = pt::microsec_clock::universal_time();
    EXPECT_FALSE(c.lockable.timed_lock(now - pt::seconds(1)));
    EXPECT_FALSE(c.lockable.timed_lock(now + pt::milliseconds(50)));

    // pos_infin is a plain lock: it waits for the holder, however long.
    std::atomic<bool> infinite{false};
    std::atomic<bool> heldAfterwards{false};
    boost::thread locker([&] {
        infinite = c.lockable.timed_lock(pt::pos_infin);
        heldAfterwards = !c.lockable.try_lock();
        c.lockable.unlock();
    });
    EXPECT_FALSE(locker.try_join_for(boost::chrono::milliseconds(100)));
    release.Post();
    ASSERT_TRUE(locker.try_join_for(boost::chrono::seconds(10)));
    EXPECT_TRUE(infinite);
    EXPECT_TRUE(heldAfterwards);
    EXPECT_TRUE(EndedWell(holder.Wait()));

    // And the other way round: this process holds it, another one is refused.
    c.lockable.lock();
    const ::testing::AssertionResult refused = RunsInChild(
        [&] { Require(!SharedCondition(name).MutexFree(), 1, "try_lock took a held mutex"); });
    c.lockable.unlock();
    EXPECT_TRUE(refused);
}

// Deadlines are absolute times on CLOCK_REALTIME; built from local time they would lie hours in
// the past west of Greenwich and the waits would return at once.
TEST_F(CrossProcess, TimedWaitsLastTheirTimeUnderAWesternTimeZone) {
    PipeSignal waited;
    PipeSignal locked;
    ChildProcess child([&] {
        ::setenv("TZ", "America/New_York", 1);
        ::tzset();
        Require(
            pt::microsec_clock::local_time() <= pt::microsec_clock::universal_time() - pt::hours(3),
            1, "time zone not in effect");
        SharedCondition o(name);
        auto start = std::chrono::steady_clock::now();
        auto lastedAbout200ms = [&] {
            const auto elapsed = std::chrono::steady_clock::now() - start;
            return elapsed >= milliseconds(150) && elapsed <= seconds(5);
        };
        const bool woken = o.pack->Wait(pt::milliseconds(200));
        const bool lasted = lastedAbout200ms();
        waited.Post();
        Require(!woken, 2, "Wait returned true with nobody notifying");
        Require(lasted, 3, "Wait(200ms) did not last about 200 ms");
        Require(locked.WaitFor(), 4, "parent never locked");
        start = std::chrono::steady_clock::now();
        Require(
            !o.lockable.timed_lock(pt::microsec_clock::universal_time() + pt::milliseconds(200)), 5,
            "timed_lock took a held mutex");
        Require(lastedAbout200ms(), 6, "timed_lock(now + 200ms) did not last about 200 ms");
        return 0;
    });
    ASSERT_TRUE(waited.WaitFor());
    c.lockable.lock();  // held here while the child tries its timed lock
    locked.Post();
    const testsupport::ChildResult result = child.Wait();
    c.lockable.unlock();
    EXPECT_TRUE(EndedWell(result));
}

}  // namespace
