// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

namespace testsupport {

std::string ChildResult::Describe() const {
    if (timedOut) {
        return "child timed out and was killed";
    }
    if (exited) {
        return "child exited with " + std::to_string(exitCode);
    }
    return "child killed by signal " + std::to_string(signal);
}

ChildProcess::ChildProcess(const std::function<int()>& body) : pid_(::fork()), reaped_(false) {
    if (pid_ < 0) {
        std::abort();
    }
    if (pid_ == 0) {
        int code = 99;
        try {
            code = body();
        } catch (const std::exception&) {
            code = 99;
        } catch (...) {
            code = 99;
        }
        // Skip atexit handlers and static destructors that belong to the parent's test run.
        ::_exit(code);
    }
}

ChildProcess::~ChildProcess() {
    if (!reaped_) {
        Kill(SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
}

ChildResult ChildProcess::Wait(std::chrono::milliseconds timeout) {
    if (reaped_) {
        return result_;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    for (;;) {
        const pid_t r = ::waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            break;
        }
        if (r < 0 && errno != EINTR) {
            reaped_ = true;
            return result_;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            result_.timedOut = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    reaped_ = true;
    if (WIFEXITED(status)) {
        result_.exited = true;
        result_.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result_.signal = WTERMSIG(status);
    }
    return result_;
}

bool ChildProcess::Poll(ChildResult* result) {
    if (!reaped_) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) != pid_) {
            return false;
        }
        reaped_ = true;
        if (WIFEXITED(status)) {
            result_.exited = true;
            result_.exitCode = WEXITSTATUS(status);
        } else if (WIFSIGNALED(status)) {
            result_.signal = WTERMSIG(status);
        }
    }
    *result = result_;
    return true;
}

void ChildProcess::Kill(int signal) {
    if (!reaped_) {
        ::kill(pid_, signal);
    }
}

ChildResult RunInChild(const std::function<int()>& body, std::chrono::milliseconds timeout) {
    ChildProcess child(body);
    return child.Wait(timeout);
}

PipeSignal::PipeSignal() {
    if (::pipe2(fds_, O_CLOEXEC) != 0) {
        std::abort();
    }
}

PipeSignal::~PipeSignal() {
    ::close(fds_[0]);
    ::close(fds_[1]);
}

void PipeSignal::Post() {
    const char byte = 1;
    while (::write(fds_[1], &byte, 1) < 0 && errno == EINTR) {
    }
}

bool PipeSignal::WaitFor(std::chrono::milliseconds timeout) {
    pollfd p = {fds_[0], POLLIN, 0};
    const int r = ::poll(&p, 1, static_cast<int>(timeout.count()));
    if (r <= 0) {
        return false;
    }
    char byte;
    return ::read(fds_[0], &byte, 1) == 1;
}

ForkRounds ForkWhileAnotherThreadRuns(const std::function<void()>& churn,
                                      const std::function<int()>& body, int rounds) {
    std::atomic<bool> stop{false};
    std::thread other([&] {
        while (!stop) {
            churn();
        }
    });
    ForkRounds result;
    for (int i = 0; i < rounds && result.hung == 0; ++i) {
        const ChildResult child = RunInChild(body, std::chrono::seconds(10));
        result.hung += child.timedOut ? 1 : 0;
        result.wrong += child.exited && child.exitCode == 2 ? 1 : 0;
        result.ok += child.Ok() ? 1 : 0;
        if (!child.Ok() && result.firstFailure.empty()) {
            result.firstFailure = child.Describe();
        }
    }
    stop = true;
    other.join();
    return result;
}

int Failed(int code, const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    return code;
}

int CampaignSeconds(int fallback) {
    const char* text = std::getenv("SLOT_CRASH_SECONDS");
    return text != nullptr ? std::max(1, std::atoi(text)) : fallback;
}

void CampaignRole::Start() {
    child.reset(new ChildProcess(life));
    lastProgress = std::chrono::steady_clock::now();
}

std::string CampaignRole::Stall(std::chrono::seconds bound) {
    const std::uint64_t beat = beats();
    const auto now = std::chrono::steady_clock::now();
    if (beat != lastBeat) {
        lastBeat = beat;
        lastProgress = now;
    } else if (now - lastProgress > bound) {
        return what + " made no progress for " + std::to_string(bound.count()) + " s";
    }
    return "";
}

void DieWithParent() {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() == 1) {
        ::_exit(1);
    }
}

}  // namespace testsupport
