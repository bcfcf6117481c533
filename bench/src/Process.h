// SPDX-License-Identifier: Apache-2.0
#pragma once

// Child processes and the control segment that synchronises them.
//
// The parent starts every writer and reader as a new process running this same binary
// ("slotbench --child key=value ..."). Each child dies with its parent (PR_SET_PDEATHSIG), arms
// its own alarm as a last-resort watchdog, and is killed by the parent when it outlives its
// deadline, so a hung transport fails the run instead of hanging it.

#include "BenchUtil.h"

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// The control segment, one per parent process, in POSIX shared memory under a name that holds
// the parent's pid. Every field is a futex word or is written with atomic operations.
struct ControlBlock {
    std::uint32_t ready;   // children that have opened their transport
    std::uint32_t go;      // set to 1 by the parent: the children may start
    std::uint32_t ack;     // blocks taken by the reader so far (the pacing of latency runs)
    std::uint32_t failed;  // set by a child that gave up, so that the others stop waiting
    std::uint32_t writersDone;
    std::uint32_t reserved[11];
};

// Creates (parent) or opens (child) the control segment; the creator unlinks it on destruction.
class ControlSegment {
public:
    ControlSegment(const std::string& name, bool create);
    ~ControlSegment();
    ControlSegment(const ControlSegment&) = delete;
    ControlSegment& operator=(const ControlSegment&) = delete;

    ControlBlock* Get() { return block_; }
    // Zeroes every field before the next run.
    void Reset();

private:
    std::string name_;
    bool owner_;
    ControlBlock* block_;
};

struct ChildResult {
    bool exited = false;  // ended by itself (not killed by the watchdog)
    int status = -1;      // exit code when it exited, else the signal
    bool timedOut = false;
};

// Starts this binary as a child with the given key=value arguments. `keepFds` stay open in it.
pid_t SpawnChild(const std::vector<std::string>& args, const std::vector<int>& keepFds = {});
// Waits for the child until deadlineNs (NowNs clock); kills it (SIGKILL, by pid) when late.
ChildResult WaitChild(pid_t pid, std::uint64_t deadlineNs);

// Called first thing in a child: dies with the parent and arms a watchdog of `seconds`.
void ArmChildWatchdog(unsigned int seconds);

// Remembers argv[0]'s executable for SpawnChild.
void SetSelfExecutable(const char* argv0);

}  // namespace bench
