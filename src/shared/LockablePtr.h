// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/ILockable.h>
#include <shared/RobustMutex.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <chrono>

namespace shared {

// ILockable over a mutex that lives elsewhere (in a slot's shared segment). Never owns, creates
// or destroys the mutex; destroying a locked LockablePtr leaves the mutex locked. Unbound (null)
// it does nothing: lock/unlock return at once, try_lock/timed_lock answer false.
//
// The mutex may be robust. When its previous holder died, the lock operations run the repair
// set with SetOwnerDeadRepair (while holding the mutex), mark the mutex consistent and return
// as after an ordinary lock. Without a repair the mutex is only marked consistent.
template <class Mutex>
class LockablePtr : public ILockable {
public:
    LockablePtr() : mutex_(nullptr) {}
    explicit LockablePtr(Mutex* mutex) : mutex_(mutex) {}

    // Binding unlocks the previously bound mutex, if any, then stores the new one.
    void Bind(Mutex* mutex) {
        if (mutex_ != nullptr) {
            UnlockRobust(NativeMutex(mutex_));
        }
        mutex_ = mutex;
    }
    Mutex* Get() const { return mutex_; }

    // Set before the lockable is shared between threads.
    void SetOwnerDeadRepair(const OwnerDeadRepair& repair) { repair_ = repair; }
    // What lock() may learn about a holder it waits for, and the mutex's kind (see LockWatch).
    void SetLockWatch(const LockWatch& watch) { watch_ = watch; }

    void lock() override {
        if (mutex_ != nullptr) {
            LockRecovering(NativeMutex(mutex_), repair_, &watch_);
        }
    }
    bool try_lock() override {
        return mutex_ != nullptr && TryLockRecovering(NativeMutex(mutex_), repair_, &watch_);
    }
    bool timed_lock(const boost::posix_time::ptime& absTime) override {
        return mutex_ != nullptr &&
               TimedLockRecovering(NativeMutex(mutex_), absTime, repair_, &watch_);
    }
    // For at most `timeout` on the monotonic clock (TimedLockRecoveringFor): the library's own
    // bounds, which no change of the system's time moves.
    bool lock_for(std::chrono::nanoseconds timeout) {
        return mutex_ != nullptr &&
               TimedLockRecoveringFor(NativeMutex(mutex_), timeout, repair_, &watch_);
    }
    void unlock() override {
        if (mutex_ != nullptr) {
            UnlockRobust(NativeMutex(mutex_), &watch_);
        }
    }

private:
    Mutex* mutex_;
    OwnerDeadRepair repair_;
    LockWatch watch_;
};

}  // namespace shared
