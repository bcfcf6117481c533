// SPDX-License-Identifier: Apache-2.0
#include <shared/InterprocConditionPack.h>
#include <shared/UtcClock.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/thread/thread.hpp>

namespace shared {

namespace {

// The pack's mutex as the lock of the wait: robust locking with the pack's repair.
class RecoveringMutex {
public:
    RecoveringMutex(pthread_mutex_t* mutex, const OwnerDeadRepair& repair)
        : mutex_(mutex), repair_(repair) {}
    void lock() { LockRecovering(mutex_, repair_); }
    void unlock() { UnlockRobust(mutex_); }

private:
    pthread_mutex_t* mutex_;
    const OwnerDeadRepair& repair_;
};

}  // namespace

template <class Mutex>
InterprocConditionPack<Mutex>::InterprocConditionPack(Mutex* mutex, InterprocCondition* condition)
    : mutex_(mutex),
      condition_(condition),
      lastSeen_(condition->Sequence()),
      logger_(log4cxx::Logger::getLogger("InterprocCondition")) {}

template <class Mutex>
InterprocConditionPack<Mutex>::~InterprocConditionPack() {
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "~InterprocConditionPack()");
    }
}

template <class Mutex>
bool InterprocConditionPack<Mutex>::Wait(const boost::posix_time::time_duration& timeout) {
    RecoveringMutex mutex(NativeMutex(mutex_), repair_);
    boost::interprocess::scoped_lock<RecoveringMutex> lock(mutex);
    if (logger_->isTraceEnabled()) {
        LOG4CXX_TRACE(logger_, "Wait() : acquired mutex");
    }
    bool result;
    if (timeout.is_not_a_date_time()) {
        condition_->timed_wait(mutex, boost::posix_time::ptime(boost::posix_time::pos_infin),
                               &lastSeen_);
        result = true;
        if (logger_->isTraceEnabled()) {
            LOG4CXX_TRACE(logger_, "Wait() : cv.wait(...) returned");
        }
    } else {
        // Deadlines are absolute UTC times: the futex sleeps on CLOCK_REALTIME.
        const boost::posix_time::ptime deadline = shared::UtcNow() + timeout;
        result = condition_->timed_wait(mutex, deadline, &lastSeen_);
        if (logger_->isTraceEnabled()) {
            LOG4CXX_TRACE(logger_, "Wait() : cv.timed_wait(...) returned " << result);
        }
    }
    boost::this_thread::interruption_point();
    return result;
}

template <class Mutex>
void InterprocConditionPack<Mutex>::Notify() {
    if (logger_->isTraceEnabled()) {
        LOG4CXX_TRACE(logger_, "notify_all()");
    }
    condition_->notify_all();
}

template class InterprocConditionPack<boost::interprocess::interprocess_mutex>;

}  // namespace shared
