// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace slotctl {

// SIGINT, SIGTERM and SIGHUP as a file descriptor. Call Block() first thing in main, before
// any thread exists: every later thread inherits the blocked mask, so the signals never
// interrupt a library thread that may hold a slot's lock; they wait in the descriptor until a
// thread looks. SIGPIPE is ignored: writes to a closed pipe fail with EPIPE instead.
// Received() may be called on any thread; the waits below see a stop taken by another thread.
class StopSignals {
public:
    static void Block();
    // Readable when one of the signals is pending.
    static int Fd();
    // Readable for good once Received() has taken a stop signal, on whatever thread: a thread
    // that waits while another one takes the signals watches this one too.
    static int TakenFd();
    // True once one of the signals has arrived (reads Fd(), so it is not readable again until
    // the next signal; TakenFd() stays readable).
    static bool Received();
    // For a child about to exec: restores the default mask and dispositions.
    static void ResetForExec();
};

// Gone: the descriptor a wait watches reported an error or a hang-up.
enum class WaitResult { Ready, TimedOut, Stopped, Gone };

// Waits until `fd` reports one of `events` or an error (fd < 0: just waits), the time-out passes
// (-1: none) or a stop signal arrives, also one another thread took; or until `watched` (-1: none)
// reports an error or a hang-up (Gone, which outranks `fd`, as a stop outranks both).
WaitResult WaitOrStop(int fd, short events, int timeoutMs, int watched = -1);

// WaitOrStop for `fd` readable.
WaitResult WaitReadableOrStop(int fd, int timeoutMs, int watched = -1);

// `work` running on a helper thread of its own, waited for in steps: a wait that ends first (a
// stop signal, a time-out) leaves the helper running, and a later wait may still see it end.
// The helper holds what `work` captured and may outlive this object.
class HelperRun {
public:
    explicit HelperRun(const std::function<void()>& work);
    HelperRun(const HelperRun&) = delete;
    HelperRun& operator=(const HelperRun&) = delete;
    // Waits until `work` has returned (Ready; an exception of it is rethrown here), the time-out
    // passes (-1: none) or, when `stoppable`, a stop signal arrives, also one taken before.
    WaitResult Wait(int timeoutMs, bool stoppable);

private:
    struct State;
    std::shared_ptr<State> state_;
    bool done_ = false;
};

// Runs `work` on a helper thread and waits until it has returned (Ready; an exception of `work`
// is rethrown here), the time-out passes (-1: none) or a stop signal arrives. `work` may block on
// a slot's lock that another live process holds; a wait that ends first leaves the helper
// blocked (it holds nothing), and the caller must then leave the process with LeaveNow.
WaitResult RunInterruptibly(const std::function<void()>& work, int timeoutMs);
// The same, ended by the time-out alone: for the clean-up after a stop signal, which that signal
// must not cut short.
WaitResult RunBounded(const std::function<void()>& work, int timeoutMs);

// Ends the process at once with `status` after printing `message` (if any) to stderr, without
// running destructors that could wait for a helper thread blocked on a lock.
[[noreturn]] void LeaveNow(int status, const std::string& message);

}  // namespace slotctl
