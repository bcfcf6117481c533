// SPDX-License-Identifier: Apache-2.0
#include <shared/InterprocCondition.h>

#include <boost/interprocess/exceptions.hpp>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <ctime>
#include <limits>

namespace shared {

namespace {

long Futex(std::uint32_t* word, int op, std::uint32_t value, const timespec* timeout,
           std::uint32_t bitset) {
    return syscall(SYS_futex, word, op, value, timeout, nullptr, bitset);
}

}  // namespace

void InterprocCondition::notify_all() {
    __atomic_add_fetch(&sequence, 1, __ATOMIC_SEQ_CST);
    // A waiter increments `waiters` before it reads `sequence` (both seq_cst); a waiter that read
    // the old sequence is therefore counted here, and one that reads the new one will not sleep.
    if (__atomic_load_n(&waiters, __ATOMIC_SEQ_CST) != 0) {
        Futex(&sequence, FUTEX_WAKE, INT_MAX, nullptr, 0);
    }
}

std::uint32_t InterprocCondition::Enter() {
    __atomic_add_fetch(&waiters, 1, __ATOMIC_SEQ_CST);
    return __atomic_load_n(&sequence, __ATOMIC_SEQ_CST);
}

void InterprocCondition::Leave() {
    __atomic_sub_fetch(&waiters, 1, __ATOMIC_SEQ_CST);
}

bool InterprocCondition::Sleep(std::uint32_t seen, const boost::posix_time::ptime& deadline) {
    if (deadline.is_not_a_date_time() || deadline.is_pos_infinity()) {
        return SleepUntil(seen, nullptr, true);
    }
    timespec abs = {0, 0};
    if (!deadline.is_neg_infinity()) {
        static const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
        const boost::posix_time::time_duration since = deadline - epoch;
        if (since.is_negative()) {
            return false;
        }
        // A 32-bit time_t ends in 2038; a later deadline is clamped to that end instead of
        // wrapping round into an invalid or past time.
        if (since.total_seconds() > std::numeric_limits<time_t>::max()) {
            abs.tv_sec = std::numeric_limits<time_t>::max();
        } else {
            abs.tv_sec = static_cast<time_t>(since.total_seconds());
            abs.tv_nsec = static_cast<long>(since.fractional_seconds()) *
                          (1000000000L / boost::posix_time::time_duration::ticks_per_second());
        }
    }
    // Absolute deadline on CLOCK_REALTIME, the clock of the UTC deadline.
    return SleepUntil(seen, &abs, true);
}

bool InterprocCondition::SleepUntil(std::uint32_t seen, const timespec* deadline, bool realtime) {
    // FUTEX_WAIT_BITSET takes an absolute time, on CLOCK_MONOTONIC unless told otherwise.
    const long rc =
        deadline == nullptr
            ? Futex(&sequence, FUTEX_WAIT, seen, nullptr, 0)
            : Futex(&sequence, FUTEX_WAIT_BITSET | (realtime ? FUTEX_CLOCK_REALTIME : 0), seen,
                    deadline, FUTEX_BITSET_MATCH_ANY);
    if (rc == 0) {
        return true;
    }
    switch (errno) {
        case EAGAIN:  // the sequence moved before we slept: a broadcast came
        case EINTR:   // a signal: a spurious wake-up
            return true;
        case ETIMEDOUT:
            return false;
        default:
            throw boost::interprocess::interprocess_exception(
                boost::interprocess::error_info(boost::interprocess::system_error_code()));
    }
}

}  // namespace shared
