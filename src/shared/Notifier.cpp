// SPDX-License-Identifier: Apache-2.0
#include <shared/Notifier.h>

#include <algorithm>

namespace shared {

Notifier::Notifier() : notifyDepth_(0), hasHoles_(false) {}

Notifier::~Notifier() {}

void Notifier::subscribe(ISubscriber* subscriber) {
    if (subscriber == nullptr) {
        return;
    }
    boost::recursive_mutex::scoped_lock lock(mutex_);
    if (std::find(subscribers_.begin(), subscribers_.end(), subscriber) == subscribers_.end()) {
        subscribers_.push_back(subscriber);
    }
}

void Notifier::unsubscribe(ISubscriber* subscriber) {
    boost::recursive_mutex::scoped_lock lock(mutex_);
    std::vector<ISubscriber*>::iterator it =
        std::find(subscribers_.begin(), subscribers_.end(), subscriber);
    if (it == subscribers_.end()) {
        return;
    }
    if (notifyDepth_ > 0) {
        // A notification on this thread is iterating by index: leave a hole, compact later.
        *it = nullptr;
        hasHoles_ = true;
    } else {
        subscribers_.erase(it);
    }
}

void Notifier::unsubscribeAll() {
    boost::recursive_mutex::scoped_lock lock(mutex_);
    if (notifyDepth_ > 0) {
        std::fill(subscribers_.begin(), subscribers_.end(), nullptr);
        hasHoles_ = !subscribers_.empty();
    } else {
        subscribers_.clear();
    }
}

void Notifier::notify(const std::string& name, const void* data, unsigned int size) {
    boost::recursive_mutex::scoped_lock lock(mutex_);
    struct DepthGuard {
        Notifier& self;
        explicit DepthGuard(Notifier& n) : self(n) { ++self.notifyDepth_; }
        ~DepthGuard() {
            if (--self.notifyDepth_ == 0 && self.hasHoles_) {
                self.compact();
            }
        }
    } guard(*this);
    // Index loop over the subscribers of the moment the notification began: removed ones become
    // null; ones added meanwhile are appended past `end` and get the next notification (so one
    // that unsubscribes and subscribes again inside its call is not called twice).
    const size_t end = subscribers_.size();
    for (size_t i = 0; i < end; ++i) {
        ISubscriber* subscriber = subscribers_[i];
        if (subscriber != nullptr) {
            subscriber->onNotify(name, data, size);
        }
    }
}

void Notifier::notify(SizedArray* data) {
    static const std::string noName;
    notify(noName, data->data(), data->size());
}

bool Notifier::hasSubscribers() {
    boost::recursive_mutex::scoped_lock lock(mutex_);
    return std::find_if(subscribers_.begin(), subscribers_.end(),
                        [](ISubscriber* s) { return s != nullptr; }) != subscribers_.end();
}

void Notifier::compact() {
    subscribers_.erase(std::remove(subscribers_.begin(), subscribers_.end(), nullptr),
                       subscribers_.end());
    hasHoles_ = false;
}

}  // namespace shared
