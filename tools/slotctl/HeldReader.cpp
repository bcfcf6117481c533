// SPDX-License-Identifier: Apache-2.0
#include "HeldReader.h"

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/thread/thread.hpp>

#include <algorithm>
#include <chrono>

namespace slotctl {

ISubscriberPtr HeldReader::Share(shared::ISubscriber& subscriber) {
    std::shared_ptr<std::promise<void>> gone = gone_;
    return ISubscriberPtr(&subscriber, [gone](shared::ISubscriber*) { gone->set_value(); });
}

void HeldReader::Made(INotifierPtr reader) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reader_ = std::move(reader);
        made_ = true;
    }
    madeCondition_.notify_all();
}

void HeldReader::Stop() {
    INotifierPtr doomed;  // dropped after the lock
    std::unique_lock<std::mutex> lock(mutex_);
    madeCondition_.wait(lock, [&] { return made_; });
    doomed.swap(reader_);
}

void HeldReader::StopHere() {
    INotifierPtr doomed;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        madeCondition_.wait(lock, [&] { return made_; });
        doomed.swap(reader_);
    }
    if (doomed || !drains_) {
        return;  // released on this thread when dropped here; or the stop ends the thread soon
    }
    // Another thread is stopping the reader and is about to interrupt this one: the sleep ends
    // with boost::thread_interrupted, which ends the reader's thread before it takes another
    // block. Bounded, should the stop never come.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < end) {
        boost::this_thread::sleep(boost::posix_time::milliseconds(1));
    }
}

bool HeldReader::WaitGone(int ms) {
    if (ms < 0) {
        goneFuture_.wait();
        return true;
    }
    return goneFuture_.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready;
}

ReaderStart StartReader(const std::function<void()>& make, int timeoutMs, int updateMs) {
    // Beyond the reader's one update time: its thread's start, and a loaded machine.
    const int marginMs = 5000;
    HelperRun making(make);
    ReaderStart start;
    start.wait = making.Wait(timeoutMs, true);
    if (start.wait == WaitResult::Ready) {
        start.made = true;
        return start;
    }
    try {
        start.made = making.Wait(std::max(updateMs, 0) + marginMs, false) == WaitResult::Ready;
    } catch (...) {
        // Not made after all: `make` handed null over, and there is no reader to stop.
    }
    return start;
}

}  // namespace slotctl
