// SPDX-License-Identifier: Apache-2.0
#include "ChildRequire.h"

#include <shared/Notifier.h>
#include <shared/ReaderNotifier.h>
#include <shared/SizedArray.h>

#include <boost/thread/thread.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <vector>

namespace {

// Counts its calls; runs an optional action inside onNotify.
class Recorder : public shared::ISubscriber {
public:
    void onNotify(const std::string& n, const void* d, size_t s) override {
        name = n;
        data = d;
        size = s;
        ++calls;
        if (action) {
            action();
        }
    }
    std::atomic<int> calls{0};
    std::string name;
    const void* data = nullptr;
    size_t size = 0;
    std::function<void()> action;
};

// A subscriber that stays inside its first onNotify until Release(): a delivery in progress.
struct HeldDelivery {
    HeldDelivery() {
        std::shared_future<void> go = proceed.get_future().share();
        subscriber.action = [this, go] {
            entered.set_value();
            go.wait();
        };
    }
    void WaitEntered() { entered.get_future().wait(); }
    void Release() { proceed.set_value(); }

    Recorder subscriber;
    std::promise<void> entered;
    std::promise<void> proceed;
};

// Complains when it is called after the test flagged it unsubscribed.
class Watched : public shared::ISubscriber {
public:
    explicit Watched(std::atomic<int>& violations) : violations_(violations) {}
    void onNotify(const std::string&, const void*, size_t) override {
        if (unsubscribed) {
            ++violations_;
        }
        ++calls;
    }
    std::atomic<bool> unsubscribed{false};
    std::atomic<int> calls{0};

private:
    std::atomic<int>& violations_;
};

// Position of a virtual member function in its class's virtual table. Under the Itanium C++ ABI
// (x86 and x86_64 Linux) a pointer to a virtual member function holds 1 + its byte offset in the
// table.
template <typename F>
std::ptrdiff_t TableIndex(F function) {
    struct Representation {
        std::uintptr_t ptr;
        std::ptrdiff_t adj;
    };
    static_assert(sizeof(F) == sizeof(Representation), "Itanium pointer to member function");
    Representation rep;
    std::memcpy(&rep, &function, sizeof rep);
    if ((rep.ptr & 1) == 0) {
        return -1;  // not virtual
    }
    return static_cast<std::ptrdiff_t>((rep.ptr - 1) / sizeof(void*));
}

// A class that extends the notifier's table: its first own virtual function comes after all of
// the notifier's entries.
class Extended : public shared::Notifier {
public:
    virtual void extra() {}
};

template <typename Class>
void ExpectOperationsFirstThenDestructor() {
    typedef void (Class::*NotifyBytes)(const std::string&, const void*, unsigned int);
    typedef void (Class::*NotifyArray)(shared::SizedArray*);
    EXPECT_EQ(0, TableIndex(&Class::subscribe));
    EXPECT_EQ(1, TableIndex(&Class::unsubscribe));
    EXPECT_EQ(2, TableIndex(&Class::unsubscribeAll));
    EXPECT_EQ(3, TableIndex(static_cast<NotifyBytes>(&Class::notify)));
    EXPECT_EQ(4, TableIndex(static_cast<NotifyArray>(&Class::notify)));
}

TEST(Notifier, VirtualOperationsComeInTableOrderWithTheDestructorLast) {
#if defined(__x86_64__) || defined(__i386__)
    ExpectOperationsFirstThenDestructor<shared::INotifier>();
    ExpectOperationsFirstThenDestructor<shared::Notifier>();
    ExpectOperationsFirstThenDestructor<shared::ReaderNotifier>();
    // Five operations, then the destructor's two entries (complete and deleting).
    EXPECT_EQ(7, TableIndex(&Extended::extra));
#else
    GTEST_SKIP() << "pointer-to-member layout checked for x86 only";
#endif
}

TEST(Notifier, DeliversOnceToEachSubscriberWhatItWasGiven) {
    shared::Notifier notifier;
    Recorder a;
    Recorder b;
    notifier.subscribe(&a);
    notifier.subscribe(&a);
    notifier.subscribe(&b);
    const char bytes[] = "abc";
    notifier.notify("slot", bytes, 3);
    EXPECT_EQ(1, a.calls);
    EXPECT_EQ("slot", a.name);
    EXPECT_EQ(bytes, a.data);
    EXPECT_EQ(3u, a.size);

    notifier.unsubscribe(&a);  // one unsubscribe undoes both subscribes
    shared::SizedArray array(5);
    array.setSize(2);
    notifier.notify(&array);
    EXPECT_EQ(1, a.calls);
    EXPECT_EQ(2, b.calls);
    EXPECT_EQ("", b.name);
    EXPECT_EQ(array.data(), b.data);
    EXPECT_EQ(2u, b.size);
}

TEST(Notifier, SubscribersMayUnsubscribeFromInsideOnNotify) {
    shared::Notifier notifier;
    Recorder first;
    Recorder self;
    Recorder last;
    self.action = [&] { notifier.unsubscribe(&self); };
    notifier.subscribe(&first);
    notifier.subscribe(&self);
    notifier.subscribe(&last);
    notifier.notify("n", nullptr, 0);
    notifier.notify("n", nullptr, 0);
    EXPECT_EQ(2, first.calls);
    EXPECT_EQ(1, self.calls);
    EXPECT_EQ(2, last.calls) << "removing a subscriber mid-notify skipped the next one";

    // unsubscribeAll from inside: the ones not yet called in this round are not called.
    first.action = [&] { notifier.unsubscribeAll(); };
    notifier.notify("n", nullptr, 0);
    notifier.notify("n", nullptr, 0);
    EXPECT_EQ(3, first.calls);
    EXPECT_EQ(2, last.calls);

    first.action = nullptr;
    notifier.subscribe(&last);
    notifier.notify("n", nullptr, 0);
    EXPECT_EQ(3, first.calls);
    EXPECT_EQ(3, last.calls);

    // Leaving and coming back inside its own call: one call per notification, and a subscriber
    // added during a notification starts with the next one.
    notifier.unsubscribeAll();
    Recorder added;
    self.calls = 0;
    self.action = [&] {
        notifier.unsubscribe(&self);
        notifier.subscribe(&self);
        notifier.subscribe(&added);
    };
    notifier.subscribe(&self);
    notifier.notify("n", nullptr, 0);
    EXPECT_EQ(1, self.calls);
    EXPECT_EQ(0, added.calls);
    self.action = nullptr;
    notifier.notify("n", nullptr, 0);
    EXPECT_EQ(2, self.calls);
    EXPECT_EQ(1, added.calls);
}

// unsubscribe from another thread waits for a delivery in progress to that subscriber.
TEST(Notifier, UnsubscribeWaitsForTheDeliveryInProgress) {
    shared::Notifier notifier;
    HeldDelivery slow;
    notifier.subscribe(&slow.subscriber);
    boost::thread notifying([&] { notifier.notify("n", nullptr, 0); });
    slow.WaitEntered();
    boost::thread unsubscribing([&] { notifier.unsubscribe(&slow.subscriber); });
    EXPECT_FALSE(unsubscribing.try_join_for(boost::chrono::milliseconds(100)));
    slow.Release();
    EXPECT_TRUE(unsubscribing.try_join_for(boost::chrono::seconds(10)));
    EXPECT_TRUE(notifying.try_join_for(boost::chrono::seconds(10)));
}

// In a child forked while another thread delivers, a reader's notifier (whose mutex that thread
// holds for good there) returns from its subscription calls at once and has no subscribers; a
// plain notifier made before the fork works in the child as anywhere. A hang shows as the
// child's watchdog.
TEST(ReaderNotifier, AForkedChildsCopyLeavesAtOnceWhileAPlainNotifierKeepsWorking) {
    shared::ReaderNotifier reader;
    shared::Notifier plain;
    HeldDelivery slow;
    reader.subscribe(&slow.subscriber);
    boost::thread notifying([&] { reader.notify("n", nullptr, 0); });
    slow.WaitEntered();
    EXPECT_TRUE(testsupport::RunsInChild(
        [&] {
            Recorder mine;
            reader.subscribe(&mine);
            reader.unsubscribe(&slow.subscriber);
            reader.unsubscribeAll();
            testsupport::Require(!reader.hasSubscribers(), 2, "the copy has subscribers");
            plain.subscribe(&mine);
            plain.notify("n", nullptr, 0);
            testsupport::Require(mine.calls == 1, 3, "the plain notifier did not deliver");
        },
        std::chrono::seconds(10)));
    slow.Release();
    notifying.join();
    EXPECT_FALSE(reader.Inherited());
    EXPECT_TRUE(reader.hasSubscribers());
}

// Subscribers come and go on two threads while a third notifies without pause. Once
// unsubscribe has returned a subscriber is never called: half of them are destroyed right then
// (a call would be a use after free for ASan), the other half check a flag set at that moment.
TEST(Notifier, UnsubscribedSubscriberIsNeverCalledWhileAnotherThreadNotifies) {
    const int kIterations = 3000;
    shared::Notifier notifier;
    Recorder steady;
    notifier.subscribe(&steady);
    std::atomic<bool> stop{false};
    std::atomic<int> violations{0};
    std::atomic<int> delivered{0};
    boost::thread notifying([&] {
        while (!stop) {
            notifier.notify("n", nullptr, 0);
        }
    });
    // On a loaded machine each yield may cost a time slice: the churn also ends after 20 s.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    auto churn = [&] {
        std::vector<std::unique_ptr<Watched>> kept;
        for (int i = 0; i < kIterations && std::chrono::steady_clock::now() < deadline; ++i) {
            std::unique_ptr<Watched> subscriber(new Watched(violations));
            notifier.subscribe(subscriber.get());
            if (i % 3 == 0) {
                notifier.subscribe(subscriber.get());
            }
            // Give the notifier a chance to be mid-delivery when we leave.
            for (int spin = 0; spin < 100 && subscriber->calls == 0; ++spin) {
                boost::this_thread::yield();
            }
            notifier.unsubscribe(subscriber.get());
            subscriber->unsubscribed = true;
            delivered += subscriber->calls;
            if (i % 2 == 0) {
                kept.push_back(std::move(subscriber));
            }
        }
        for (int i = 0; i < 1000 && !kept.empty(); ++i) {
            boost::this_thread::yield();  // let late (wrong) deliveries reach the kept ones
        }
    };
    boost::thread churning(churn);
    churn();
    churning.join();
    stop = true;
    notifying.join();
    EXPECT_EQ(0, violations);
    EXPECT_GT(delivered, 0) << "the race never happened";
    EXPECT_GT(steady.calls, 0);
}

}  // namespace
