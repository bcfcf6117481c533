// SPDX-License-Identifier: Apache-2.0
// Watching a condition's write signal without its lock: what a spin reports, and that it ends.
#include "SharedCondition.h"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using namespace sharedtest;
namespace pt = boost::posix_time;
using testsupport::ChildProcess;
using testsupport::PipeSignal;
using SpinWait = ConditionTest;

// A budget of 0 never spins, and nothing signalled is nothing seen; a broadcast made before the
// spin (while the waiter was busy) is seen at once, and the Wait after it does not sleep.
TEST_F(SpinWait, ReportsBroadcastsSinceThePreviousWait) {
    EXPECT_FALSE(c.pack->SpinForSignal(pt::time_duration(0, 0, 0)));
    EXPECT_FALSE(c.pack->SpinForSignal(pt::microseconds(200)));
    EXPECT_FALSE(c.pack->SpinForSignal(pt::microseconds(-5)));
    c.pack->Notify();
    EXPECT_FALSE(c.pack->SpinForSignal(pt::time_duration(0, 0, 0))) << "0 does not even look";
    EXPECT_TRUE(c.pack->SpinForSignal(pt::hours(1)));
    EXPECT_TRUE(c.pack->SpinForSignal(pt::hours(1))) << "seen, but not consumed by a Wait";
    // Would sleep an hour if the broadcast were lost between the spin and the wait.
    EXPECT_TRUE(c.pack->Wait(pt::hours(1)));
    EXPECT_FALSE(c.pack->SpinForSignal(pt::microseconds(200))) << "the Wait took it";
}

// A broadcast from another process ends a spin whose budget would outlast the test: the signal
// is watched in the shared word, not in a copy. The spinner is no sleeper: the broadcast finds
// no waiter counted, so it makes no wake system call.
TEST_F(SpinWait, SeesABroadcastOfAnotherProcess) {
    PipeSignal spinning;
    ChildProcess child([&] {
        SharedCondition mine(name);
        Require(spinning.WaitFor(), 2, "no spin started");
        const bool counted = Load(mine.cond->waiters) != 0;
        mine.pack->Notify();  // also after a failure: the parent spins until it comes
        Require(!counted, 3, "a spinning waiter is counted as a sleeper");
        return 0;
    });
    spinning.Post();
    EXPECT_TRUE(c.pack->SpinForSignal(pt::hours(1)));
    EXPECT_TRUE(testsupport::EndedWell(child.Wait()));
}

// Interrupting the spinning thread ends a spin of an hour, reporting no signal, and leaves the
// interruption to be taken by the caller.
TEST_F(SpinWait, EndsWhenItsThreadIsInterrupted) {
    std::atomic<int> outcome{-1};
    std::atomic<bool> started{false};
    std::atomic<bool> interrupted{false};
    boost::thread spinner([&] {
        started = true;
        outcome = c.pack->SpinForSignal(pt::hours(1)) ? 1 : 0;
        try {
            boost::this_thread::interruption_point();
        } catch (const boost::thread_interrupted&) {
            interrupted = true;
        }
    });
    ASSERT_TRUE(Eventually([&] { return started.load(); }));
    spinner.interrupt();
    const bool joined = spinner.try_join_for(boost::chrono::seconds(60));
    if (!joined) {
        c.pack->Notify();  // let it go rather than leave it spinning on an unmapped word
        spinner.join();
    }
    EXPECT_TRUE(joined);
    EXPECT_EQ(0, outcome.load());
    EXPECT_TRUE(interrupted.load());
}

}  // namespace
