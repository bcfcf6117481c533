// SPDX-License-Identifier: Apache-2.0
#include <shared/InterprocConditionPack.h>
#include <shared/RobustMutex.h>
#include <shared/UtcClock.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/thread/thread.hpp>

#include <time.h>
#include <chrono>
#include <cstdint>
#include <limits>

namespace shared {

namespace {

// The pack's mutex as the lock of the wait: robust locking with the pack's repair. Held from a
// lock() that returns to the next unlock() or to its end. A lock() that throws (a damaged lock,
// or one given up on after the wait) leaves it not held, so its end unlocks nothing: the
// mutex may be another thread's by then.
class RecoveringMutex {
public:
    RecoveringMutex(pthread_mutex_t* mutex, const OwnerDeadRepair& repair, const LockWatch& watch)
        : mutex_(mutex), repair_(repair), watch_(watch) {}
    ~RecoveringMutex() {
        if (held_) {
            unlock();
        }
    }
    RecoveringMutex(const RecoveringMutex&) = delete;
    RecoveringMutex& operator=(const RecoveringMutex&) = delete;
    void lock() {
        LockRecovering(mutex_, repair_, &watch_);
        held_ = true;
    }
    void unlock() {
        held_ = false;
        UnlockRobust(mutex_, &watch_);
    }

private:
    pthread_mutex_t* mutex_;
    const OwnerDeadRepair& repair_;
    const LockWatch& watch_;
    bool held_ = false;
};

std::int64_t MonotonicNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Tells the core that this is a spin-wait loop: it saves power and lets the other hardware
// thread of the core run, and the loop leaves without a memory-order pipeline flush.
inline void CpuRelax() {
#if defined(__i386__) || defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#endif
}

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
    RecoveringMutex mutex(NativeMutex(mutex_), repair_, watch_);
    // One level test for the wait's TRACE lines: the second would come right after a wake-up.
    const bool trace = logger_->isTraceEnabled();
    mutex.lock();
    if (trace) {
        LOG4CXX_TRACE(logger_, "Wait() : acquired mutex");
    }
    bool result;
    if (timeout.is_not_a_date_time()) {
        condition_->timed_wait(mutex, boost::posix_time::ptime(boost::posix_time::pos_infin),
                               &lastSeen_);
        result = true;
        if (trace) {
            LOG4CXX_TRACE(logger_, "Wait() : cv.wait(...) returned");
        }
    } else {
        // On the monotonic clock: a change of the system's time neither ends the wait early nor
        // makes it last until the wall clock catches up. pos_infin is a timed wait too, whose
        // deadline (now plus infinity) never comes: it sleeps without one.
        result =
            timeout.is_pos_infinity()
                ? condition_->timed_wait(
                      mutex, boost::posix_time::ptime(boost::posix_time::pos_infin), &lastSeen_)
                : condition_->timed_wait_for(mutex, SaturatedNanoseconds(timeout), &lastSeen_);
        if (trace) {
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

template <class Mutex>
bool InterprocConditionPack<Mutex>::SpinForSignal(const boost::posix_time::time_duration& budget) {
    if (budget.is_special() || budget.is_negative() || budget.ticks() == 0) {
        return false;
    }
    const std::int64_t now = MonotonicNs();
    const std::int64_t span = SaturatedNanoseconds(budget).count();
    const std::int64_t deadline = span >= std::numeric_limits<std::int64_t>::max() - now
                                      ? std::numeric_limits<std::int64_t>::max()
                                      : now + span;
    // The clock and the stop request are asked once per round of pauses only: the word itself
    // is a load from a cache line that stays in this core's cache until a broadcast writes it.
    constexpr unsigned int kRound = 32;
    for (;;) {
        for (unsigned int i = 0; i < kRound; ++i) {
            if (__atomic_load_n(&condition_->sequence, __ATOMIC_ACQUIRE) != lastSeen_) {
                return true;
            }
            CpuRelax();
        }
        if (boost::this_thread::interruption_requested() || MonotonicNs() >= deadline) {
            return __atomic_load_n(&condition_->sequence, __ATOMIC_ACQUIRE) != lastSeen_ &&
                   !boost::this_thread::interruption_requested();
        }
    }
}

template class InterprocConditionPack<boost::interprocess::interprocess_mutex>;

}  // namespace shared
