// SPDX-License-Identifier: Apache-2.0
#include "Signals.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <thread>

namespace slotctl {

namespace {

int signalFd = -1;
int takenFd = -1;
std::atomic<bool> received{false};

sigset_t StopSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

}  // namespace

void StopSignals::Block() {
    // A closed standard descriptor would be taken by the descriptors below, and messages meant
    // for standard error would then be written into them: /dev/null stands in for it (the
    // lowest free descriptor, the lower ones being open by then).
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
            const int null = ::open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);
            static_cast<void>(null);
        }
    }
    std::signal(SIGPIPE, SIG_IGN);
    const sigset_t set = StopSet();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signalFd = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    takenFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (signalFd < 0 || takenFd < 0) {
        std::abort();
    }
}

int StopSignals::Fd() {
    return signalFd;
}

int StopSignals::TakenFd() {
    return takenFd;
}

bool StopSignals::Received() {
    signalfd_siginfo info;
    bool taken = false;
    while (signalFd >= 0 && ::read(signalFd, &info, sizeof(info)) == sizeof(info)) {
        taken = true;
    }
    // Never read back: the counter stays above zero, so the descriptor stays readable.
    if (taken && !received.exchange(true)) {
        const std::uint64_t one = 1;
        while (::write(takenFd, &one, sizeof(one)) < 0 && errno == EINTR) {
        }
    }
    return received;
}

void StopSignals::ResetForExec() {
    const sigset_t set = StopSet();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_DFL);
}

WaitResult WaitOrStop(int fd, short events, int timeoutMs, int watched) {
    if (StopSignals::Received()) {
        return WaitResult::Stopped;
    }
    // poll leaves out a negative descriptor. `watched` asks for nothing: an error or a hang-up (a
    // pipe whose reader went reports POLLERR) is reported anyway, and nothing else is.
    pollfd fds[4] = {{signalFd, POLLIN, 0}, {takenFd, POLLIN, 0}, {fd, events, 0}, {watched, 0, 0}};
    int r;
    do {
        r = ::poll(fds, 4, timeoutMs);
    } while (r < 0 && errno == EINTR);
    if (StopSignals::Received()) {
        return WaitResult::Stopped;
    }
    if (r > 0 && fds[3].revents != 0) {
        return WaitResult::Gone;
    }
    return r == 0 ? WaitResult::TimedOut : WaitResult::Ready;
}

WaitResult WaitReadableOrStop(int fd, int timeoutMs, int watched) {
    return WaitOrStop(fd, POLLIN, timeoutMs, watched);
}

struct HelperRun::State {
    int done[2] = {-1, -1};
    std::exception_ptr error;
    ~State() {
        ::close(done[0]);
        ::close(done[1]);
    }
};

HelperRun::HelperRun(const std::function<void()>& work) : state_(std::make_shared<State>()) {
    if (::pipe2(state_->done, O_CLOEXEC) != 0) {
        work();  // no pipe: run it here, uninterruptibly
        done_ = true;
        return;
    }
    std::thread([state = state_, job = std::function<void()>(work)]() mutable {
        try {
            job();
        } catch (...) {
            state->error = std::current_exception();
        }
        // What the work holds goes before the caller is told: once told, it may release the rest
        // and end the process, and nothing may then be destroyed on this thread.
        job = nullptr;
        const char byte = 1;
        while (::write(state->done[1], &byte, 1) < 0 && errno == EINTR) {
        }
    }).detach();
}

WaitResult HelperRun::Wait(int timeoutMs, bool stoppable) {
    if (done_) {
        return WaitResult::Ready;
    }
    WaitResult result;
    if (stoppable) {
        result = WaitReadableOrStop(state_->done[0], timeoutMs);
    } else {
        pollfd done = {state_->done[0], POLLIN, 0};
        int r;
        do {
            r = ::poll(&done, 1, timeoutMs);
        } while (r < 0 && errno == EINTR);
        result = r == 0 ? WaitResult::TimedOut : WaitResult::Ready;
    }
    if (result == WaitResult::Ready) {
        done_ = true;
        // Taking the byte orders everything the work did before this thread goes on (for the
        // reader of this code and for ThreadSanitizer alike).
        char byte = 0;
        while (::read(state_->done[0], &byte, 1) < 0 && errno == EINTR) {
        }
        // Taken out of the shared state, so that the worker's last reference never frees it.
        std::exception_ptr error = std::move(state_->error);
        state_->error = nullptr;
        if (error) {
            std::rethrow_exception(error);
        }
    }
    return result;
}

WaitResult RunInterruptibly(const std::function<void()>& work, int timeoutMs) {
    return HelperRun(work).Wait(timeoutMs, true);
}

WaitResult RunBounded(const std::function<void()>& work, int timeoutMs) {
    return HelperRun(work).Wait(timeoutMs, false);
}

void LeaveNow(int status, const std::string& message) {
    if (!message.empty()) {
        std::cerr << message << std::endl;
    }
    std::cout.flush();
    std::_Exit(status);
}

}  // namespace slotctl
