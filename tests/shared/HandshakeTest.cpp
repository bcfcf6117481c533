// SPDX-License-Identifier: Apache-2.0
#include "SharedCondition.h"

#include <shared/WaitForAsyncOpHandler.h>

#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>

#include <gtest/gtest.h>

#include <atomic>

namespace {

class CountingEvent : public shared::ISyncEvent {
public:
    bool Wait(const boost::posix_time::time_duration&) override { return false; }
    void Notify() override { ++notified; }
    std::atomic<int> notified{0};
};

// Runs handler.RunAndWaitForHandler(op) on a thread. Finish() reports whether it returned
// within the time-out; a stuck wait is released afterwards so the test fails instead of hanging.
class Handshake {
public:
    Handshake(shared::WaitForAsyncOpHandler& handler, const boost::function<void()>& op)
        : handler_(handler), tid_(0), thread_([this, op] {
              tid_ = sharedtest::CurrentTid();
              handler_.RunAndWaitForHandler(op);
          }) {}
    ~Handshake() {
        while (!Finish(boost::chrono::milliseconds(50))) {
            handler_.Notify();
        }
    }
    bool Finish(boost::chrono::milliseconds timeout = boost::chrono::seconds(10)) {
        return !thread_.joinable() || thread_.try_join_for(timeout);
    }
    pid_t Tid() const { return tid_; }

private:
    shared::WaitForAsyncOpHandler& handler_;
    std::atomic<pid_t> tid_;
    boost::thread thread_;
};

TEST(WaitForAsyncOpHandler, NotifyBeforeTheWaitIsNotLost) {
    shared::WaitForAsyncOpHandler handler((boost::shared_ptr<shared::ISyncEvent>()));
    const boost::function<void()> notify = [&] { handler.Notify(); };
    // From op itself, and from a thread that op started and waits for.
    const boost::function<void()> fromThread = [&] { boost::thread(notify).join(); };
    for (const boost::function<void()>& op : {notify, fromThread}) {
        Handshake handshake(handler, op);
        EXPECT_TRUE(handshake.Finish()) << "a Notify before op returned was lost";
    }
}

TEST(WaitForAsyncOpHandler, NotifyFromAnotherThreadReleasesTheWaitAndHandlerIsReusable) {
    boost::shared_ptr<CountingEvent> event = boost::make_shared<CountingEvent>();
    shared::WaitForAsyncOpHandler handler(event);
    for (int round = 0; round < 3; ++round) {
        Handshake waiting(handler, [] {});
        // Asleep in the wait, and nobody has notified in this round: the previous round's
        // Notify must not release it.
        ASSERT_TRUE(sharedtest::Eventually([&] { return waiting.Tid() != 0; }));
        ASSERT_TRUE(sharedtest::WaitUntilBlocked(::getpid(), waiting.Tid()))
            << "round " << round << ": the wait never went to sleep";
        EXPECT_FALSE(waiting.Finish(boost::chrono::milliseconds(100))) << "round " << round;
        handler.Notify();
        EXPECT_TRUE(waiting.Finish()) << "round " << round;
    }
    EXPECT_EQ(3, event->notified);
}

}  // namespace
