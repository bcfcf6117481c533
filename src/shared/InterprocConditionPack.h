#pragma once

#include <shared/Export.h>
#include <shared/ISyncEvent.h>
#include <shared/InterprocCondition.h>

#include <log4cxx/logger.h>

namespace shared {

// ISyncEvent over a mutex and a condition that live in a slot's segment and are owned by
// neither this object nor the slot object. Wait takes the mutex, so the caller must not hold it;
// Notify does not take it. Every Notify is a broadcast.
template <class Mutex>
class InterprocConditionPack : public ISyncEvent {
public:
    InterprocConditionPack(Mutex* mutex, InterprocCondition* condition);
    ~InterprocConditionPack() override;

    InterprocConditionPack(const InterprocConditionPack&) = delete;
    InterprocConditionPack& operator=(const InterprocConditionPack&) = delete;

    // One wake-up, spurious or not, ends the wait. Interruption point after the wait, with the
    // mutex still held (released as boost::thread_interrupted leaves).
    bool Wait(const boost::posix_time::time_duration& timeout) override;
    void Notify() override;

private:
    Mutex* mutex_;
    InterprocCondition* condition_;
    log4cxx::LoggerPtr logger_;
};

}  // namespace shared

#include <boost/interprocess/sync/interprocess_mutex.hpp>

namespace shared {
extern template class SHARED_EXPORT InterprocConditionPack<boost::interprocess::interprocess_mutex>;
}  // namespace shared
