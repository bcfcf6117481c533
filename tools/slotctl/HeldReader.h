// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Signals.h"

#include <Slot/SlotFactory.h>

#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>

namespace slotctl {

// A reader made by the factory or the pool factory that can be stopped from any thread, also by
// its own subscriber inside onNotify. Stopped there it takes nothing after the block in hand: a
// reliable slot or a queue pool keeps the rest for the next reader.
class HeldReader {
public:
    // `drains`: a reliable slot's reader, whose thread takes every waiting block before it looks
    // at a stop from another thread.
    explicit HeldReader(bool drains) : drains_(drains) {}
    HeldReader(const HeldReader&) = delete;
    HeldReader& operator=(const HeldReader&) = delete;

    // The share of `subscriber` to make the reader with. Gone() is ready once the reader has let
    // go of it: its thread touches the subscriber no more.
    ISubscriberPtr Share(shared::ISubscriber& subscriber);

    // Hands the reader over once made; null when making it failed. Its thread runs before it is
    // returned, and may already wait here to stop it.
    void Made(INotifierPtr reader);

    // Drops the reader. Elsewhere than on its thread that stops and joins the thread, which may
    // be inside a delivery: the subscriber then calls StopHere, so that a reliable slot's reader
    // takes nothing after that block either.
    void Stop();

    // On the reader's own thread, inside onNotify: the reader takes nothing after this block.
    // Released here when Stop has not taken it yet; otherwise the thread waits here for the stop
    // that Stop is making (a reliable slot's reader would drain its slot before it looked).
    void StopHere();

    // Waits up to `ms` ms (-1: without end) for the reader to let go of its subscriber; whether
    // it did.
    bool WaitGone(int ms);

private:
    const bool drains_;
    std::mutex mutex_;  // guards reader_ and made_
    std::condition_variable madeCondition_;
    INotifierPtr reader_;
    bool made_ = false;
    std::shared_ptr<std::promise<void>> gone_ = std::make_shared<std::promise<void>>();
    std::future<void> goneFuture_ = gone_->get_future();
};

// How StartReader ended.
struct ReaderStart {
    // Ready: the reader was made in time; Stopped, TimedOut: what ended the wait first.
    WaitResult wait = WaitResult::Ready;
    // The reader was made, also after the wait ended: it runs, and is stopped as usual. When not,
    // its making may still wait for a lock another process holds, with references to the
    // caller's objects: the process must then end with LeaveNow.
    bool made = false;
};

// Runs `make` (which makes a reader and hands it, or null, to its HeldReader) on a helper thread
// and waits until it has returned, `timeoutMs` passes (-1: none) or a stop signal arrives; an
// exception of `make` seen by that wait is rethrown. The reader's thread runs before its making
// returns (for one update time, `updateMs`: a reliable reader drains its slot meanwhile), so
// after a stop or a time-out the making is still waited for, bounded: once made, the reader is
// stopped the usual way and every block it took reaches its subscriber's owner.
ReaderStart StartReader(const std::function<void()>& make, int timeoutMs, int updateMs);

}  // namespace slotctl
