// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>

#include <pthread.h>
#include <sys/types.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <string>

namespace shared {

// Locking of robust process-shared mutexes. When the holder of a robust mutex dies, the next
// locker gets the mutex together with EOWNERDEAD; it must repair what the mutex guards and mark
// the mutex consistent, or the mutex becomes unusable for everyone. Boost's interprocess_mutex
// throws on EOWNERDEAD although the caller then holds the mutex, so robust mutexes are locked
// through these functions instead.
//
// `repair` runs while the caller holds the mutex and before it is marked consistent. It gets the
// thread id that the mutex recorded as its owner before this lock was taken (0 when unknown; it
// may name a thread that held the mutex earlier, since it is read before the lock is taken). If
// `repair` throws, the mutex is marked consistent, released, and the exception passes on.
typedef std::function<void(pid_t deadThread)> OwnerDeadRepair;

// The pthread mutex inside a Boost.Interprocess mutex (on Linux it is nothing else).
inline pthread_mutex_t* NativeMutex(boost::interprocess::interprocess_mutex* mutex) {
    static_assert(sizeof(boost::interprocess::interprocess_mutex) == sizeof(pthread_mutex_t),
                  "interprocess_mutex is a bare pthread_mutex_t");
    return reinterpret_cast<pthread_mutex_t*>(mutex);
}

// Initialises `mutex` (not in use) as a process-shared, robust, non-recursive mutex.
// Throws boost::interprocess::interprocess_exception on failure.
SHARED_EXPORT void InitRobustMutex(pthread_mutex_t* mutex);
// Initialises `mutex` (not in use) as a process-shared, non-robust, non-recursive mutex: what
// Boost's interprocess_mutex constructor makes.
SHARED_EXPORT void InitSharedMutex(pthread_mutex_t* mutex);

// What a blocking locker may learn about the holder of a mutex it has waited for, from the
// mutex's user (which knows what the mutex guards).
struct LockWatch {
    // Empty when the live thread `owner`, recorded as the holder (in a robust mutex's lock word,
    // in a plain one's __owner), may really hold the mutex; otherwise why it cannot (e.g. its
    // process does not map the memory the mutex lives in).
    std::function<std::string(pid_t owner)> holderCheck;
    // Told why the lock is given up, just before LockRecovering throws.
    std::function<void(const std::string& why)> giveUp;
    // The mutex's kind word as it was made (RobustMutexKind() or SharedMutexKind() for a slot's
    // header mutex), or -1: not checked. glibc picks its lock path by this word, and some paths
    // assert on the other words or make system calls with them: a lock that finds another kind
    // gives up at once (giveUp, then interprocess_exception "the lock is not a robust lock
    // (kind <k>)"); an unlock restores it first, as the holder.
    int kind = -1;
};

// glibc's kind word of a mutex made by InitRobustMutex.
SHARED_EXPORT int RobustMutexKind();
// glibc's kind word of a mutex made by InitSharedMutex (and by Boost's interprocess_mutex).
SHARED_EXPORT int SharedMutexKind();

// While one lives on a thread, that thread's contended waits in LockRecovering may be ended by a
// boost::thread interruption: between two slices of the wait, an interruption requested of the
// thread (and not disabled there) ends the wait with boost::thread_interrupted, the mutex not
// taken. The request is left pending, so that the thread's next interruption point takes it even
// when a caller swallows this exception. Other threads' waits are unchanged. For threads that
// their owner stops by interruption and joins (a slot reader's): a holder that stays alive
// without letting go (stopped by SIGSTOP or a debugger) cannot then hold up the join.
// InterruptibleLockWaits(false) makes the waits uninterruptible again for its lifetime (code
// that cannot take the interruption, such as subscribers that must finish storing a block).
class SHARED_EXPORT InterruptibleLockWaits {
public:
    explicit InterruptibleLockWaits(bool interruptible = true);
    ~InterruptibleLockWaits();
    InterruptibleLockWaits(const InterruptibleLockWaits&) = delete;
    InterruptibleLockWaits& operator=(const InterruptibleLockWaits&) = delete;

private:
    bool previous_;
};

// Blocking lock, of a robust mutex or a plain process-shared one. Uncontended it is one trylock.
// Contended it waits in slices of the monotonic clock and, between them, looks at the lock: a lock
// that no live holder can leave, or a holder that `watch` rejects, is a damaged lock. For a robust
// mutex that is a word owned by a thread that no longer exists although the kernel did not mark the
// owner dead, or waiters flagged without an owner; for a plain one (nothing marks its owner dead,
// so a holder that died leaves it locked) a recorded holder that no longer exists, or none
// recorded; any other kind of mutex is damaged. When that persists for CreationWaitLimit() (2 s by
// default) the lock is given up: watch->giveUp is told, and
// boost::interprocess::interprocess_exception("the lock <why>") is thrown. A live, plausible holder
// is waited for as long as it holds the mutex, or until an interruption where the thread has an
// InterruptibleLockWaits. Throws boost::interprocess::lock_exception when the system refuses.
SHARED_EXPORT void LockRecovering(pthread_mutex_t* mutex, const OwnerDeadRepair& repair,
                                  const LockWatch* watch = nullptr);
// Why `mutex` cannot be released by a live holder, or empty (see LockRecovering). A snapshot of
// its words; for tests and diagnostics.
SHARED_EXPORT std::string LockDamage(const pthread_mutex_t* mutex);
// One attempt: true when acquired, false when someone holds it.
SHARED_EXPORT bool TryLockRecovering(pthread_mutex_t* mutex, const OwnerDeadRepair& repair,
                                     const LockWatch* watch = nullptr);
// Until the absolute UTC time `deadline` (pos_infin: LockRecovering). False when it passed.
SHARED_EXPORT bool TimedLockRecovering(pthread_mutex_t* mutex,
                                       const boost::posix_time::ptime& deadline,
                                       const OwnerDeadRepair& repair,
                                       const LockWatch* watch = nullptr);
// For at most `timeout` on the monotonic clock, which no change of the system's time moves:
// for the library's own bounds.
SHARED_EXPORT bool TimedLockRecoveringFor(pthread_mutex_t* mutex, std::chrono::nanoseconds timeout,
                                          const OwnerDeadRepair& repair,
                                          const LockWatch* watch = nullptr);
// The CLOCK_MONOTONIC time `timeout` from now (a negative one counts as 0).
SHARED_EXPORT timespec MonotonicDeadline(std::chrono::nanoseconds timeout);
// `duration` in nanoseconds: 0 for a negative or special one, and the largest count beyond about
// 292 years, where total_nanoseconds() wraps round to a negative count.
SHARED_EXPORT std::chrono::nanoseconds SaturatedNanoseconds(
    const boost::posix_time::time_duration& duration);
// `now` + `span` (not negative), or the clock's last time point where the sum would pass it.
template <class TimePoint>
TimePoint SaturatedLater(TimePoint now, std::chrono::nanoseconds span) {
    const auto room = std::chrono::duration_cast<std::chrono::nanoseconds>(TimePoint::max() - now);
    return span >= room ? TimePoint::max()
                        : now + std::chrono::duration_cast<typename TimePoint::duration>(span);
}
// Never throws (it runs in destructors); unlocking a mutex the caller does not hold does nothing.
SHARED_EXPORT void UnlockRobust(pthread_mutex_t* mutex, const LockWatch* watch = nullptr);

// The calling thread's kernel thread id.
SHARED_EXPORT pid_t CurrentThreadId();
// The same, kept per thread after the first call (no system call): for hot paths. Asked again
// after every fork made through fork() (the child's thread has another id); a process made by a
// bare clone system call, which runs no fork handlers, must not rely on it.
SHARED_EXPORT pid_t ThisThreadId();

}  // namespace shared
