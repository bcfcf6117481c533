// SPDX-License-Identifier: Apache-2.0
// A reader process killed while it waits on the condition must not make the Wait or Notify of
// any other process hang. Each scenario runs in a driver process under a watchdog, so a hang
// anywhere fails the test instead of blocking the run.
#include "SharedCondition.h"

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/thread/thread.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>

namespace {

using namespace sharedtest;
namespace pt = boost::posix_time;
using std::chrono::seconds;
using testsupport::ChildProcess;
using testsupport::DieWithParent;
using testsupport::PipeSignal;

const std::uint32_t kWaitersPerProcess = 2;
const int kRounds = 6;

// One side of the wake-up rounds: two threads wait once per round (one without deadline, one
// with a long one) and count themselves in "woken"; the main thread broadcasts every other
// round, once all waiters of both processes have left the previous round and entered this one.
// `stuck` is how many entries killed waiters left in the condition's waiter count. A failure ends
// the process (and its waiting threads) at once.
void WakeRounds(SharedCondition& c, bool evenRounds, std::uint32_t stuck) {
    std::uint32_t* woken = c.Counter("woken");
    const std::uint32_t all = 2 * kWaitersPerProcess;
    std::atomic<int> missed{0};
    boost::thread_group threads;
    for (std::uint32_t i = 0; i < kWaitersPerProcess; ++i) {
        const pt::time_duration timeout =
            i == 0 ? pt::time_duration(pt::not_a_date_time) : pt::time_duration(pt::seconds(30));
        threads.create_thread([&, timeout] {
            for (int round = 0; round < kRounds; ++round) {
                missed += c.pack->Wait(timeout) ? 0 : 1;
                __atomic_add_fetch(woken, 1, __ATOMIC_SEQ_CST);
            }
        });
    }
    for (int round = evenRounds ? 0 : 1; round < kRounds; round += 2) {
        Require(Eventually([&] { return Load(*woken) >= all * round; }) &&
                    WaitForWaiters(c, stuck + all),
                11, "waiters did not come round");
        c.pack->Notify();
    }
    threads.join_all();
    Require(missed == 0, 12, "a waiter timed out: a broadcast was lost");
}

// This process and a second one run WakeRounds against each other.
void WakeRoundsWithAnotherProcess(SharedCondition& c, const std::string& name) {
    const std::uint32_t stuck = Load(c.cond->waiters);
    __atomic_store_n(c.Counter("woken"), 0u, __ATOMIC_SEQ_CST);
    ChildProcess other([&] {
        DieWithParent();
        SharedCondition o(name);
        WakeRounds(o, false, stuck);
        return 0;
    });
    WakeRounds(c, true, stuck);
    Require(other.Wait(seconds(40)).Ok(), 13, "the other live process failed");
}

void SpinFor(std::chrono::microseconds duration) {
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
    }
}

// Kills a fresh waiter at a different point each round: blocked on the mutex on its way in,
// between releasing the mutex and sleeping, or surely asleep. (Never while it holds the mutex:
// nothing recovers a mutex whose holder died.) Then the condition must still serve two live
// processes.
void KillWaitersAtManyPoints(const std::string& name) {
    SharedCondition c(name);
    for (int round = 0; round < 20; ++round) {
        const std::uint32_t before = Load(c.cond->waiters);
        const bool blockedOnMutex = round % 5 == 0;
        PipeSignal ready;
        if (blockedOnMutex) {
            c.lockable.lock();
        }
        ChildProcess victim([&] {
            DieWithParent();
            SharedCondition v(name);
            ready.Post();
            v.pack->Wait(round % 2 == 0 ? pt::time_duration(pt::not_a_date_time)
                                        : pt::time_duration(pt::seconds(60)));
            return 0;
        });
        Require(ready.WaitFor(), 1, "victim did not start");
        if (blockedOnMutex) {
            Require(WaitUntilBlocked(victim.Pid()), 2, "victim never blocked on the mutex");
        } else {
            Require(WaitForWaiters(c, before + 1), 3, "victim never entered Wait");
            Require(round % 5 != 1 || WaitUntilBlocked(victim.Pid()), 5,
                    "victim never went to sleep in Wait");
            SpinFor(std::chrono::microseconds(20 * round));
        }
        victim.Kill(SIGKILL);
        victim.Wait();
        if (blockedOnMutex) {
            c.lockable.unlock();
        }
        // The broadcast ends this pack's next wait at once, and only that one.
        c.pack->Notify();
        Require(c.pack->Wait(pt::milliseconds(0)) && !c.pack->Wait(pt::milliseconds(0)), 4,
                "Wait(0) after a broadcast answered wrong");
    }
    WakeRoundsWithAnotherProcess(c, name);
}

TEST(CrashedWaiter, WaitersKilledAtManyPointsLeaveTheConditionUsable) {
    testsupport::ScopedSlotName name("crash");
    EXPECT_TRUE(testsupport::RunsInChild([&] { KillWaitersAtManyPoints(name); }, seconds(90)));
}

}  // namespace
