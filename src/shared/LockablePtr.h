// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/ILockable.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace shared {

// ILockable over a mutex that lives elsewhere (in a slot's shared segment). Never owns, creates
// or destroys the mutex; destroying a locked LockablePtr leaves the mutex locked. Unbound (null)
// it does nothing: lock/unlock return at once, try_lock/timed_lock answer false.
template <class Mutex>
class LockablePtr : public ILockable {
public:
    LockablePtr() : mutex_(nullptr) {}
    explicit LockablePtr(Mutex* mutex) : mutex_(mutex) {}

    // Binding unlocks the previously bound mutex, if any, then stores the new one.
    void Bind(Mutex* mutex) {
        if (mutex_ != nullptr) {
            mutex_->unlock();
        }
        mutex_ = mutex;
    }
    Mutex* Get() const { return mutex_; }

    void lock() override {
        if (mutex_ != nullptr) {
            mutex_->lock();
        }
    }
    bool try_lock() override { return mutex_ != nullptr && mutex_->try_lock(); }
    bool timed_lock(const boost::posix_time::ptime& absTime) override {
        return mutex_ != nullptr && mutex_->timed_lock(absTime);
    }
    void unlock() override {
        if (mutex_ != nullptr) {
            mutex_->unlock();
        }
    }

private:
    Mutex* mutex_;
};

}  // namespace shared
