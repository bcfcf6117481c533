// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/interprocess/sync/interprocess_condition.hpp>

#include <shared/RobustMutex.h>

#include <chrono>
#include <cstdint>
#include <ctime>

namespace shared {

// Process-shared condition variable kept in a slot's segment as the named object "cond_on_write".
//
// Why not boost::interprocess::interprocess_condition (a process-shared pthread_cond_t)? glibc's
// condition variables keep waiter bookkeeping inside the object; a waiter killed mid-wait leaves
// that bookkeeping behind and later broadcasts or waits of live processes can hang for ever
// (sourceware bug 21422). Slot readers wait on this object and reader processes do crash.
//
// This condition keeps no per-waiter state in shared memory. It is a sequence word used as a
// Linux futex: a broadcast increments the word and wakes every futex waiter on it; a waiter reads
// the word while it holds the mutex, releases the mutex, sleeps while the word is unchanged, and
// relocks. A killed waiter leaves at most a too-high `waiters` count, which only costs later
// broadcasts one wake system call. The object has the size of interprocess_condition so the
// segment layout stays that of every process that opens a slot.
//
// Shared-memory layout (all fields written with atomic operations, by any process):
//   offset 0: sequence  uint32  incremented by every broadcast (futex word)
//   offset 4: waiters   uint32  number of threads inside Wait (approximate after a crash)
//   offset 8: reserved  zero
struct SHARED_EXPORT InterprocCondition {
    InterprocCondition() : sequence(0), waiters(0) {
        for (unsigned char& byte : reserved) {
            byte = 0;
        }
    }
    InterprocCondition(const InterprocCondition&) = delete;
    InterprocCondition& operator=(const InterprocCondition&) = delete;

    // Wakes every waiter, in every process.
    void notify_all();

    // Releases `mutex` (held by the caller), sleeps until notify_all or the absolute UTC
    // deadline, relocks `mutex`. Returns false only when the deadline passed. A deadline of
    // pos_infin or not_a_date_time waits without a deadline. Spurious wake-ups return true.
    //
    // `lastSeen` (optional, owned by the caller) remembers the sequence at the caller's previous
    // return: when a broadcast came while the caller was not waiting, the wait returns true at
    // once instead of sleeping through it. On return it holds the sequence seen then.
    template <class Mutex>
    bool timed_wait(Mutex& mutex, const boost::posix_time::ptime& deadline,
                    std::uint32_t* lastSeen = nullptr) {
        return WaitWith(mutex, lastSeen, [&](std::uint32_t seen) { return Sleep(seen, deadline); });
    }
    // The same for at most `timeout`, on the monotonic clock: no change of the system's time
    // shortens or lengthens the wait.
    template <class Mutex>
    bool timed_wait_for(Mutex& mutex, std::chrono::nanoseconds timeout,
                        std::uint32_t* lastSeen = nullptr) {
        const timespec deadline = MonotonicDeadline(timeout);
        return WaitWith(mutex, lastSeen,
                        [&](std::uint32_t seen) { return SleepUntil(seen, &deadline, false); });
    }

    // The current sequence, to initialise a caller's `lastSeen`.
    std::uint32_t Sequence() const { return __atomic_load_n(&sequence, __ATOMIC_SEQ_CST); }

    std::uint32_t sequence;
    std::uint32_t waiters;
    unsigned char reserved[sizeof(boost::interprocess::interprocess_condition) - 8];

private:
    template <class Mutex, class SleepFn>
    bool WaitWith(Mutex& mutex, std::uint32_t* lastSeen, const SleepFn& sleep) {
        const std::uint32_t seen = Enter();
        bool woken = true;
        if (lastSeen == nullptr || *lastSeen == seen) {
            mutex.unlock();
            try {
                woken = sleep(seen);
            } catch (...) {
                Leave();
                // The caller's lock owns the mutex again as the exception leaves.
                mutex.lock();
                throw;
            }
            // No longer a waiter, also when re-taking the mutex throws (a damaged lock, or one
            // given up on): then the mutex is not held, which the caller's lock must know.
            Leave();
            mutex.lock();
        } else {
            Leave();
        }
        if (lastSeen != nullptr) {
            *lastSeen = __atomic_load_n(&sequence, __ATOMIC_SEQ_CST);
        }
        return woken;
    }

    std::uint32_t Enter();
    void Leave();
    bool Sleep(std::uint32_t seen, const boost::posix_time::ptime& deadline);
    // Sleeps while the sequence is `seen`, until the absolute time `deadline` (null: none) on
    // CLOCK_REALTIME or CLOCK_MONOTONIC. False only when the deadline passed.
    bool SleepUntil(std::uint32_t seen, const timespec* deadline, bool realtime);
};

static_assert(sizeof(InterprocCondition) == sizeof(boost::interprocess::interprocess_condition),
              "the condition keeps the size of the layout's interprocess_condition");
static_assert(alignof(InterprocCondition) <= alignof(boost::interprocess::interprocess_condition),
              "the condition fits where an interprocess_condition fits");

}  // namespace shared
