// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace slotctl {

// SIGINT, SIGTERM and SIGHUP as a file descriptor. Call Block() first thing in main, before
// any thread exists: every later thread inherits the blocked mask, so the signals never
// interrupt a library thread that may hold a slot's lock; they wait in the descriptor until the
// main thread looks. SIGPIPE is ignored: writes to a closed pipe fail with EPIPE instead.
class StopSignals {
public:
    static void Block();
    // Readable when one of the signals is pending.
    static int Fd();
    // True once one of the signals has arrived (reads the descriptor, so it is not readable
    // again until the next signal).
    static bool Received();
    // For a child about to exec: restores the default mask and dispositions.
    static void ResetForExec();
};

enum class WaitResult { Ready, TimedOut, Stopped };

// Waits until `fd` is readable (fd < 0: just waits), the time-out passes (-1: none) or a stop
// signal arrives.
WaitResult WaitReadableOrStop(int fd, int timeoutMs);

}  // namespace slotctl
