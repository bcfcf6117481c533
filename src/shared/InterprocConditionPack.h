// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>
#include <shared/ISpinWait.h>
#include <shared/ISyncEvent.h>
#include <shared/InterprocCondition.h>
#include <shared/RobustMutex.h>

#include <log4cxx/logger.h>

namespace shared {

// ISyncEvent over a mutex and a condition that live in a slot's segment and are owned by
// neither this object nor the slot object. Wait takes the mutex, so the caller must not hold it;
// Notify does not take it. Every Notify is a broadcast.
//
// A broadcast that comes while this pack's waiter is busy between two waits is not lost: the
// next Wait returns true at once. (A slot reader reads the slot after every wake-up, so it then
// sees the write that the broadcast announced without waiting a whole update time for it.)
//
// SpinForSignal watches the condition's sequence word without the mutex: a broadcast is seen
// within a pause instruction's time, and the Wait that follows returns without sleeping.
template <class Mutex>
class InterprocConditionPack : public ISyncEvent, public ISpinWait {
public:
    InterprocConditionPack(Mutex* mutex, InterprocCondition* condition);
    ~InterprocConditionPack() override;

    InterprocConditionPack(const InterprocConditionPack&) = delete;
    InterprocConditionPack& operator=(const InterprocConditionPack&) = delete;

    // One wake-up, spurious or not, ends the wait. Interruption point after the wait, with the
    // mutex still held (released as boost::thread_interrupted leaves). On a thread with
    // InterruptibleLockWaits, taking the mutex (before and after the sleep) ends on an
    // interruption too, the mutex not held.
    bool Wait(const boost::posix_time::time_duration& timeout) override;
    void Notify() override;
    bool SpinForSignal(const boost::posix_time::time_duration& budget) override;

    // Repair run when Wait locks the (robust) mutex after its holder died; see LockablePtr.
    // Set before the pack is shared between threads.
    void SetOwnerDeadRepair(const OwnerDeadRepair& repair) { repair_ = repair; }
    // The relock's watch (see LockWatch), as the LockablePtr over the same mutex has it.
    void SetLockWatch(const LockWatch& watch) { watch_ = watch; }

private:
    Mutex* mutex_;
    InterprocCondition* condition_;
    // Condition sequence at the previous return of Wait; written under mutex_ by the waiting
    // thread, which alone reads it without the mutex (SpinForSignal).
    std::uint32_t lastSeen_;
    log4cxx::LoggerPtr logger_;
    OwnerDeadRepair repair_;
    LockWatch watch_;
};

}  // namespace shared

#include <boost/interprocess/sync/interprocess_mutex.hpp>

namespace shared {
extern template class SHARED_EXPORT InterprocConditionPack<boost::interprocess::interprocess_mutex>;
}  // namespace shared
