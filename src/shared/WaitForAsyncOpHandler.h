// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>
#include <shared/ISyncEvent.h>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

namespace shared {

// Start-up handshake: RunAndWaitForHandler runs an operation that starts something
// asynchronous, then blocks until that something calls Notify(). A Notify() that comes before
// the wait has begun (even before the operation returned) is not lost: it is latched.
// A supplied event is notified as well; an empty pointer means "no event of the caller's".
class SHARED_EXPORT WaitForAsyncOpHandler {
public:
    explicit WaitForAsyncOpHandler(const boost::shared_ptr<ISyncEvent>& event);

    WaitForAsyncOpHandler(const WaitForAsyncOpHandler&) = delete;
    WaitForAsyncOpHandler& operator=(const WaitForAsyncOpHandler&) = delete;

    // Runs op on the calling thread, then waits (without limit) for Notify().
    void RunAndWaitForHandler(const boost::function<void()>& op);
    void Notify();

private:
    boost::shared_ptr<ISyncEvent> event_;
    boost::mutex mutex_;
    boost::condition_variable done_;  // signalled with mutex_ held
    bool notified_;                   // guarded by mutex_
};

}  // namespace shared
