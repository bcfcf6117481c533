// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace shared {

// An event whose signal can be watched without a lock or a system call: a waiter that owns a
// core spins on it for a while before it sleeps on the event as usual.
class ISpinWait {
public:
    virtual ~ISpinWait() {}
    // Spins for at most `budget` until the event is signalled; returns at once for a budget of 0
    // or less. True when a signal came since the previous return of the event's Wait on this
    // thread, so that Wait now returns without sleeping. Ends early, returning false, when this
    // thread is asked to stop (boost::thread::interrupt): the caller then takes its interruption
    // point. Only the thread that waits on the event may call it.
    virtual bool SpinForSignal(const boost::posix_time::time_duration& budget) = 0;
};

}  // namespace shared
