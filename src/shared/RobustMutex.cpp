// SPDX-License-Identifier: Apache-2.0
#include <shared/RobustMutex.h>

#include <shared/ManagedObject.h>
#include <shared/MutexOwner.h>

#include <boost/interprocess/exceptions.hpp>
#include <boost/thread/thread.hpp>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>

namespace shared {

namespace {

// MutexOwnerThread, inlined on the lock paths.
inline pid_t RecordedOwner(const pthread_mutex_t* mutex) {
    return __atomic_load_n(&mutex->__data.__owner, __ATOMIC_RELAXED);
}

void ThrowLockError(int) {
    throw boost::interprocess::lock_exception();
}

void InitMutex(pthread_mutex_t* mutex, bool robust) {
    pthread_mutexattr_t attr;
    int rc = pthread_mutexattr_init(&attr);
    if (rc == 0) {
        rc = pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    }
    if (rc == 0 && robust) {
        rc = pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    }
    if (rc == 0) {
        rc = pthread_mutex_init(mutex, &attr);
    }
    pthread_mutexattr_destroy(&attr);
    if (rc != 0) {
        throw boost::interprocess::interprocess_exception(boost::interprocess::error_info(rc));
    }
}

// The caller holds `mutex` after EOWNERDEAD: repair, then make the mutex usable again.
void Recover(pthread_mutex_t* mutex, pid_t deadThread, const OwnerDeadRepair& repair) {
    try {
        if (repair) {
            repair(deadThread);
        }
    } catch (...) {
        pthread_mutex_consistent(mutex);
        pthread_mutex_unlock(mutex);
        throw;
    }
    pthread_mutex_consistent(mutex);
}

timespec ToTimespec(const boost::posix_time::ptime& deadline) {
    static const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
    timespec abs = {0, 0};
    if (deadline.is_neg_infinity()) {
        return abs;
    }
    const boost::posix_time::time_duration since = deadline - epoch;
    if (since.is_negative()) {
        return abs;
    }
    if (since.total_seconds() > std::numeric_limits<time_t>::max()) {
        abs.tv_sec = std::numeric_limits<time_t>::max();
        return abs;
    }
    abs.tv_sec = static_cast<time_t>(since.total_seconds());
    abs.tv_nsec = static_cast<long>(since.fractional_seconds()) *
                  (1000000000L / boost::posix_time::time_duration::ticks_per_second());
    return abs;
}

}  // namespace

timespec MonotonicDeadline(std::chrono::nanoseconds timeout) {
    timespec abs{};
    clock_gettime(CLOCK_MONOTONIC, &abs);
    const std::int64_t ns = std::max<std::int64_t>(0, timeout.count());
    // A 32-bit time_t is clamped at its end rather than wrapped round into the past.
    const std::int64_t seconds = static_cast<std::int64_t>(abs.tv_sec) + ns / 1000000000 + 1;
    if (seconds > static_cast<std::int64_t>(std::numeric_limits<time_t>::max())) {
        abs.tv_sec = std::numeric_limits<time_t>::max();
        abs.tv_nsec = 0;
        return abs;
    }
    abs.tv_sec += static_cast<time_t>(ns / 1000000000);
    abs.tv_nsec += static_cast<long>(ns % 1000000000);
    if (abs.tv_nsec >= 1000000000L) {
        abs.tv_nsec -= 1000000000L;
        ++abs.tv_sec;
    }
    return abs;
}

std::chrono::nanoseconds SaturatedNanoseconds(const boost::posix_time::time_duration& duration) {
    if (duration.is_special() || duration.is_negative()) {
        return std::chrono::nanoseconds(0);
    }
    // Ticks are microseconds (or finer): compare before multiplying.
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    const std::int64_t perSecond = boost::posix_time::time_duration::ticks_per_second();
    const std::int64_t seconds = duration.ticks() / perSecond;
    if (seconds >= kMax / 1000000000) {
        return std::chrono::nanoseconds(kMax);
    }
    return std::chrono::nanoseconds(duration.total_nanoseconds());
}

void InitRobustMutex(pthread_mutex_t* mutex) {
    InitMutex(mutex, true);
}

void InitSharedMutex(pthread_mutex_t* mutex) {
    InitMutex(mutex, false);
}

namespace {

// The end of a lock attempt: true when this thread now holds the mutex (repaired first when its
// holder died), false when `failure` (EBUSY, ETIMEDOUT) came back; any other error throws.
bool Acquired(int rc, int failure, pthread_mutex_t* mutex, pid_t previous,
              const OwnerDeadRepair& repair) {
    if (rc == 0) {
        return true;
    }
    if (rc == failure) {
        return false;
    }
    if (rc == EOWNERDEAD) {
        Recover(mutex, previous, repair);
        return true;
    }
    ThrowLockError(rc);
    return false;
}

}  // namespace

namespace {

// glibc's __kind of a mutex as `init` makes it.
int KindMadeBy(void (*init)(pthread_mutex_t*)) {
    pthread_mutex_t probe;
    init(&probe);
    const int kind = probe.__data.__kind;
    pthread_mutex_destroy(&probe);
    return kind;
}

// How long a contended locker waits between two looks at the lock word.
constexpr std::chrono::milliseconds LockSlice(100);

// Set while an InterruptibleLockWaits lives on this thread.
thread_local bool interruptibleWaits = false;

// Between two slices of a contended wait: ends it where the thread allows. Unlike
// boost::this_thread::interruption_point, it leaves the request pending (see
// InterruptibleLockWaits).
void StopWaitIfInterrupted() {
    if (interruptibleWaits && boost::this_thread::interruption_enabled() &&
        boost::this_thread::interruption_requested()) {
        throw boost::thread_interrupted();
    }
}

// See LockWatch::kind. One load and compare before each lock.
void CheckKind(pthread_mutex_t* mutex, const LockWatch* watch) {
    if (watch == nullptr || watch->kind < 0) {
        return;
    }
    const int kind = __atomic_load_n(&mutex->__data.__kind, __ATOMIC_RELAXED);
    if (__builtin_expect(kind != watch->kind, 0)) {
        const std::string why = "is not a robust lock (kind " + std::to_string(kind) + ")";
        if (watch->giveUp) {
            watch->giveUp(why);
        }
        throw boost::interprocess::interprocess_exception(("the lock " + why).c_str());
    }
}

// The thread that a held mutex of kind `kind` names as its holder, 0 when none. A robust mutex
// keeps it in the lock word itself; a plain one's word is only 0, 1 or 2 (free, held, held with
// waiters), and glibc records the holder in __owner just after taking the word and clears it
// just before releasing it.
pid_t HolderOf(const pthread_mutex_t* mutex, int kind, unsigned word) {
    if (word == 0) {
        return 0;
    }
    return kind == RobustMutexKind() ? static_cast<pid_t>(word & FUTEX_TID_MASK)
                                     : RecordedOwner(mutex);
}

}  // namespace

InterruptibleLockWaits::InterruptibleLockWaits(bool interruptible) : previous_(interruptibleWaits) {
    interruptibleWaits = interruptible;
}

InterruptibleLockWaits::~InterruptibleLockWaits() {
    interruptibleWaits = previous_;
}

int RobustMutexKind() {
    static const int kind = KindMadeBy(InitRobustMutex);
    return kind;
}

int SharedMutexKind() {
    static const int kind = KindMadeBy(InitSharedMutex);
    return kind;
}

std::string LockDamage(const pthread_mutex_t* mutex) {
    const int kind = __atomic_load_n(&mutex->__data.__kind, __ATOMIC_RELAXED);
    const unsigned word =
        static_cast<unsigned>(__atomic_load_n(&mutex->__data.__lock, __ATOMIC_RELAXED));
    if (kind == SharedMutexKind()) {
        if (word == 0) {
            return std::string();
        }
        // Nothing marks a plain mutex as left by a dead holder: its recorded holder is asked.
        // No holder is recorded only for an instant, while a live holder takes or releases it.
        const pid_t owner = RecordedOwner(mutex);
        if (owner == 0) {
            return "is held without a recorded holder";
        }
        if (ProcessOfThread(owner) == 0) {
            return "is held by thread " + std::to_string(owner) + ", which no longer exists";
        }
        return std::string();
    }
    if (kind != RobustMutexKind()) {
        return "is not a robust lock (kind " + std::to_string(kind) + ")";
    }
    if (word == 0 || (word & FUTEX_OWNER_DIED) != 0) {
        return std::string();  // free, or the next locker gets EOWNERDEAD
    }
    // A robust mutex keeps its holder's thread id in the lock word itself.
    const pid_t owner = static_cast<pid_t>(word & FUTEX_TID_MASK);
    if (owner == 0) {
        return "word " + std::to_string(word) + " names no holder";
    }
    if (ProcessOfThread(owner) == 0) {
        // The kernel marks the owner dead when a holder exits; this word was written otherwise.
        return "is held by thread " + std::to_string(owner) +
               ", which does not exist, without being marked as left by a dead holder";
    }
    return std::string();
}

void LockRecovering(pthread_mutex_t* mutex, const OwnerDeadRepair& repair, const LockWatch* watch) {
    // glibc replaces the recorded owner when it hands out a mutex whose owner died, so the dead
    // holder's id can only be read before locking. One relaxed load.
    CheckKind(mutex, watch);
    const pid_t previous = RecordedOwner(mutex);
    if (Acquired(pthread_mutex_trylock(mutex), EBUSY, mutex, previous, repair)) {
        return;
    }
    const std::chrono::milliseconds limit = CreationWaitLimit();
    bool damaged = false;
    std::chrono::steady_clock::time_point damagedSince;
    for (;;) {
        // Nothing is held here: an interruption leaves the mutex as it found it.
        StopWaitIfInterrupted();
        // Slices on the monotonic clock: a step of the system's time neither stretches a slice
        // nor, with it, the bound on a damaged lock.
        if (TimedLockRecoveringFor(mutex, LockSlice, repair, watch)) {
            return;
        }
        std::string why = LockDamage(mutex);
        if (why.empty() && watch != nullptr && watch->holderCheck) {
            const int kind = __atomic_load_n(&mutex->__data.__kind, __ATOMIC_RELAXED);
            const unsigned word =
                static_cast<unsigned>(__atomic_load_n(&mutex->__data.__lock, __ATOMIC_RELAXED));
            const pid_t owner = HolderOf(mutex, kind, word);
            if (owner != 0) {
                why = watch->holderCheck(owner);
            }
        }
        const auto now = std::chrono::steady_clock::now();
        if (why.empty()) {
            damaged = false;
            continue;
        }
        if (!damaged) {
            damaged = true;
            damagedSince = now;
        } else if (now - damagedSince >= limit) {
            why += " for more than " + std::to_string(limit.count()) + " ms";
            if (watch != nullptr && watch->giveUp) {
                watch->giveUp(why);
            }
            throw boost::interprocess::interprocess_exception(("the lock " + why).c_str());
        }
    }
}

bool TryLockRecovering(pthread_mutex_t* mutex, const OwnerDeadRepair& repair,
                       const LockWatch* watch) {
    CheckKind(mutex, watch);
    const pid_t previous = RecordedOwner(mutex);
    return Acquired(pthread_mutex_trylock(mutex), EBUSY, mutex, previous, repair);
}

namespace {

// Locks until `abs` on `clock` (CLOCK_REALTIME or CLOCK_MONOTONIC).
bool LockUntil(pthread_mutex_t* mutex, clockid_t clock, const timespec& abs,
               const OwnerDeadRepair& repair, const LockWatch* watch) {
    CheckKind(mutex, watch);
    const pid_t previous = RecordedOwner(mutex);
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer's timed locks record the lock only when they return 0, not with
    // EOWNERDEAD (this thread then holds the mutex all the same), and then report its unlock as
    // misuse. Its trylock records both, so sanitized builds poll with it.
    int rc = pthread_mutex_trylock(mutex);
    while (rc == EBUSY) {
        timespec now{};
        clock_gettime(clock, &now);
        if (now.tv_sec > abs.tv_sec || (now.tv_sec == abs.tv_sec && now.tv_nsec >= abs.tv_nsec)) {
            rc = ETIMEDOUT;
            break;
        }
        const timespec pause{0, 200 * 1000};
        nanosleep(&pause, nullptr);
        rc = pthread_mutex_trylock(mutex);
    }
#else
    const int rc = pthread_mutex_clocklock(mutex, clock, &abs);
#endif
    return Acquired(rc, ETIMEDOUT, mutex, previous, repair);
}

}  // namespace

bool TimedLockRecovering(pthread_mutex_t* mutex, const boost::posix_time::ptime& deadline,
                         const OwnerDeadRepair& repair, const LockWatch* watch) {
    if (deadline.is_pos_infinity()) {
        LockRecovering(mutex, repair, watch);
        return true;
    }
    return LockUntil(mutex, CLOCK_REALTIME, ToTimespec(deadline), repair, watch);
}

bool TimedLockRecoveringFor(pthread_mutex_t* mutex, std::chrono::nanoseconds timeout,
                            const OwnerDeadRepair& repair, const LockWatch* watch) {
    return LockUntil(mutex, CLOCK_MONOTONIC, MonotonicDeadline(timeout), repair, watch);
}

void UnlockRobust(pthread_mutex_t* mutex, const LockWatch* watch) {
    // The caller holds the mutex, so its kind is the caller's to restore: glibc's unlock of
    // another kind would leave a robust mutex linked in this thread's list of robust mutexes.
    if (watch != nullptr && watch->kind >= 0 &&
        __builtin_expect(__atomic_load_n(&mutex->__data.__kind, __ATOMIC_RELAXED) != watch->kind,
                         0)) {
        __atomic_store_n(&mutex->__data.__kind, watch->kind, __ATOMIC_RELAXED);
    }
    pthread_mutex_unlock(mutex);
}

pid_t CurrentThreadId() {
    // Not cached: a forked child's thread would inherit its parent's cached id.
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

namespace {

// Counts the forks of this process's lineage: a thread's kept id is valid for the count it was
// kept at.
std::atomic<unsigned> forkGeneration{0};

void CountFork() {
    forkGeneration.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

pid_t ThisThreadId() {
    static const int installed = pthread_atfork(nullptr, nullptr, CountFork);
    (void)installed;
    thread_local unsigned keptAt = ~0u;
    thread_local pid_t kept = 0;
    const unsigned generation = forkGeneration.load(std::memory_order_relaxed);
    if (keptAt != generation) {
        kept = CurrentThreadId();
        keptAt = generation;
    }
    return kept;
}

}  // namespace shared
