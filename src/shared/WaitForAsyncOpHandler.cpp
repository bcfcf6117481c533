// SPDX-License-Identifier: Apache-2.0
#include <shared/WaitForAsyncOpHandler.h>

namespace shared {

WaitForAsyncOpHandler::WaitForAsyncOpHandler(const boost::shared_ptr<ISyncEvent>& event)
    : event_(event), notified_(false) {}

void WaitForAsyncOpHandler::RunAndWaitForHandler(const boost::function<void()>& op) {
    {
        boost::mutex::scoped_lock lock(mutex_);
        notified_ = false;
    }
    op();
    boost::mutex::scoped_lock lock(mutex_);
    while (!notified_) {
        done_.wait(lock);
    }
}

void WaitForAsyncOpHandler::Notify() {
    {
        boost::mutex::scoped_lock lock(mutex_);
        notified_ = true;
        done_.notify_all();
    }
    if (event_) {
        event_->Notify();
    }
}

}  // namespace shared
