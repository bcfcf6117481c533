// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>
#include <shared/INotifier.h>

#include <boost/thread/recursive_mutex.hpp>

#include <vector>

namespace shared {

// Delivers every notification to its subscribers on the notifying thread.
//
// Concurrency contract:
// - subscribe/unsubscribe/unsubscribeAll may be called from any thread, also while another
//   thread notifies;
// - once unsubscribe (or unsubscribeAll) has returned, the subscriber is not called again, so it
//   may be destroyed. To give that guarantee a notification holds mutex_ while subscribers run:
//   an unsubscribe from another thread waits for the notification in progress;
// - a subscriber may unsubscribe itself (or others) from inside onNotify: the mutex is
//   recursive, and removals during a notification only clear the entry;
// - a subscriber added during a notification gets the next one, not the one in progress;
// - subscribing the same subscriber twice delivers to it once, also when it unsubscribes and
//   subscribes again during a notification.
// A subscriber must not wait, inside onNotify, for another thread that calls into this notifier,
// and that includes subscribe/unsubscribe of another notifier: two notifiers whose subscribers
// change each other's subscriptions at the same moment would wait for each other for ever.
class SHARED_EXPORT Notifier : public virtual INotifier {
public:
    Notifier();

    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    // In the order of INotifier's table, the destructor last.
    void subscribe(ISubscriber* subscriber) override;
    void unsubscribe(ISubscriber* subscriber) override;
    void unsubscribeAll() override;
    void notify(const std::string& name, const void* data, unsigned int size) override;
    void notify(SizedArray* data) override;
    ~Notifier() override;

    // Whether anyone would receive a notification now.
    bool hasSubscribers();

private:
    void compact();

    boost::recursive_mutex mutex_;
    std::vector<ISubscriber*> subscribers_;  // guarded by mutex_; null = removed during notify
    unsigned int notifyDepth_;               // guarded by mutex_; nesting of running notify()s
    bool hasHoles_;                          // guarded by mutex_
};

}  // namespace shared
