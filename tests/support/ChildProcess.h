// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/mman.h>
#include <sys/types.h>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

namespace testsupport {

// Outcome of a child process.
struct ChildResult {
    bool exited = false;  // ended through exit with exitCode
    int exitCode = -1;
    int signal = 0;         // the signal that ended it, if any
    bool timedOut = false;  // killed by the watchdog

    bool Ok() const { return exited && exitCode == 0; }
    std::string Describe() const;
};

// A forked child running a function; its return value is the exit code, an escaping exception
// exits with 99. Every child has a watchdog: Wait kills it with SIGKILL when the time is up, and
// the destructor kills a child that was never waited for, so no test can hang CI.
// Fork before the test starts threads of its own: only the forking thread exists in the child.
class ChildProcess {
public:
    explicit ChildProcess(const std::function<int()>& body);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return pid_; }
    ChildResult Wait(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // True, with the result, once the child has ended; never waits and never kills.
    bool Poll(ChildResult* result);
    void Kill(int signal = 9);

private:
    pid_t pid_;
    bool reaped_;
    ChildResult result_;
};

// Runs `body` in a child and waits for it.
ChildResult RunInChild(const std::function<int()>& body,
                       std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Children forked while another thread keeps calling into a process-wide registry: how many hung
// (killed by the watchdog) and how many ended with status 2, their "wrong answer".
struct ForkRounds {
    int hung = 0;
    int wrong = 0;
    int ok = 0;                // ended with status 0
    std::string firstFailure;  // how the first child that did not end with 0 ended
};
// Runs `churn` in a loop on a thread of its own while up to `rounds` children run `body` one after
// the other (each under a 10 s watchdog); stops at the first hung child.
// g++ 12's AddressSanitizer has no fork handler for its own allocator: a child forked while the
// churn allocates can find the allocator's lock held for good, a hang of the sanitizer, not of the
// code under test. The tests that use this skip under it (SKIP_FORK_AMID_THREADS_UNDER_ASAN).
#if defined(__SANITIZE_ADDRESS__)
#define SKIP_FORK_AMID_THREADS_UNDER_ASAN() \
    GTEST_SKIP() << "AddressSanitizer's allocator is not fork-safe amid other threads"
#else
#define SKIP_FORK_AMID_THREADS_UNDER_ASAN() static_cast<void>(0)
#endif
ForkRounds ForkWhileAnotherThreadRuns(const std::function<void()>& churn,
                                      const std::function<int()>& body, int rounds = 100);

// In a child: prints what failed to stderr and returns `code`, a distinct exit code.
int Failed(int code, const std::string& what);

// In a child, or a grandchild the test does not wait for: die with the process that forked it,
// so that a watchdog's kill leaves nothing running (ends at once if that process is gone).
void DieWithParent();

// How long a kill campaign runs: SLOT_CRASH_SECONDS when set (at least 1 s), else `fallback`.
int CampaignSeconds(int fallback);

// A role of a kill campaign: a child running `life`, started again after every kill, and watched
// for progress through its `beats` counter.
struct CampaignRole {
    CampaignRole() = default;
    CampaignRole(std::string what, std::function<int()> life, std::function<std::uint64_t()> beats)
        : what(std::move(what)), life(std::move(life)), beats(std::move(beats)) {}

    std::string what;
    std::function<int()> life;
    std::function<std::uint64_t()> beats;
    std::unique_ptr<ChildProcess> child;
    int kills = 0;

    void Start();
    // Why the role stalls: its beats have not moved for longer than `bound`; "" while they move.
    std::string Stall(std::chrono::seconds bound);

    std::uint64_t lastBeat = 0;
    std::chrono::steady_clock::time_point lastProgress;
};

// A value-initialised T in memory shared with the children forked after this call (a ledger
// that children fill in and the test reads); unmapped when the pointer goes.
template <typename T>
std::unique_ptr<T, void (*)(T*)> SharedWithChildren() {
    void* memory =
        ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("cannot map memory shared with children");
    }
    return std::unique_ptr<T, void (*)(T*)>(new (memory) T(), [](T* value) {
        value->~T();
        ::munmap(value, sizeof(T));
    });
}

// One-way signal between processes (a pipe): Post() in one, WaitFor() in the other. Create it
// before fork. Each Post() releases one WaitFor().
class PipeSignal {
public:
    PipeSignal();
    ~PipeSignal();
    PipeSignal(const PipeSignal&) = delete;
    PipeSignal& operator=(const PipeSignal&) = delete;

    void Post();
    // True when a Post() arrived within the time-out.
    bool WaitFor(std::chrono::milliseconds timeout = std::chrono::seconds(20));

private:
    int fds_[2];
};

}  // namespace testsupport
