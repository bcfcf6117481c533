// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace shared {

// A mutex that may live in another process's view of shared memory.
class ILockable {
public:
    virtual ~ILockable() {}
    virtual void lock() = 0;
    virtual bool try_lock() = 0;
    // absTime is an absolute UTC time.
    virtual bool timed_lock(const boost::posix_time::ptime& absTime) = 0;
    virtual void unlock() = 0;
};

}  // namespace shared
