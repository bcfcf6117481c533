// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace shared {

// An event that can be waited on with a time-out and notified.
class ISyncEvent {
public:
    virtual ~ISyncEvent() {}
    // True when woken (or after a wait without deadline), false when the time-out passed.
    // not_a_date_time waits without a deadline.
    virtual bool Wait(const boost::posix_time::time_duration& timeout) = 0;
    virtual void Notify() = 0;
};

}  // namespace shared
