// SPDX-License-Identifier: Apache-2.0
// slotctl hz, bw and peek: a slot's traffic and its last block taken, seen from outside. None of
// them opens the slot through the library, takes a block or a lock.
#include "BlockFormat.h"
#include "Cli.h"
#include "Commands.h"
#include "PoolTarget.h"
#include "Signals.h"
#include "WriteRate.h"

#include <Slot/PoolSurvey.h>
#include <Slot/SlotActivity.h>
#include <Slot/SlotSurvey.h>

#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <iostream>

namespace slotctl {

namespace {

// Refuses what has no header to watch, with the reason.
SlotActivitySample FirstSample(const std::string& command, const std::string& name,
                               bool withOutput) {
    CheckSlotName(name);
    const SlotActivitySample sample = SlotActivity::Sample(name, withOutput);
    if (!sample.valid) {
        const SlotReport report = SlotSurvey::InspectSlot(name);
        if (!report.HasSharedMemory() && !report.pipePath.empty()) {
            throw CommandError(ExitFailure, command + ": " + Quote(name) +
                                                " is a posix-pipe: a pipe cannot be watched "
                                                "without taking its bytes");
        }
        throw CommandError(
            ExitFailure, command + ": " + Quote(name) + " has no usable header: " + sample.problem);
    }
    return sample;
}

// Samples the slot once per window and prints a line per window, until --timeout, Ctrl-C or the
// slot goes away.
int Watch(const std::vector<std::string>& args, bool bandwidth) {
    const std::string command = bandwidth ? "bw" : "hz";
    const Arguments arguments(command, args, {"window", "timeout"}, TargetFlags({}));
    arguments.ExpectOperands(1, 1, "one slot name");
    const std::string& name = arguments.Operands()[0];
    const double window = arguments.GetSeconds("window", 1.0, 0.05, 3600);
    const std::uint64_t timeoutMs = arguments.GetNumber("timeout", 0, 1, INT_MAX);
    // A pool's publishes are counted by its sequence, read as ls reads it: no block is taken.
    const bool pool = MeansPool(arguments, command, name);
    SlotActivitySample last;
    Slot::PoolReport lastPool;
    if (pool) {
        if (bandwidth) {
            throw CommandError(ExitFailure, "bw: " + Quote(name) +
                                                " is a pool: the sizes of its blocks are not "
                                                "counted (hz counts its publishes)");
        }
        lastPool = Slot::SurveyPool(name);
        if (lastPool.state != "healthy") {
            throw CommandError(ExitFailure,
                               "hz: the pool " + Quote(name) + " is " + lastPool.state +
                                   (lastPool.problem.empty() ? std::string()
                                                             : ": " + Printable(lastPool.problem)));
        }
    } else {
        last = FirstSample(command, name, false);
    }

    typedef std::chrono::steady_clock Clock;
    const Clock::time_point start = Clock::now();
    const Clock::time_point end =
        timeoutMs == 0 ? Clock::time_point::max() : start + std::chrono::milliseconds(timeoutMs);
    Clock::time_point windowStart = start;
    std::uint64_t total = 0;
    double estimatedBytes = 0;
    std::cerr << "slotctl: counting writes to " << Quote(name) << " every " << Fixed(window, 2)
              << " s (nothing is read from the " << (pool ? "pool" : "slot") << "); Ctrl-C ends"
              << std::endl;
    int status = ExitOk;
    for (;;) {
        const Clock::time_point due = std::min(
            end, windowStart + std::chrono::microseconds(static_cast<std::int64_t>(window * 1e6)));
        // Rounded up, so that the wait never ends before the window does.
        const auto waitMs =
            (std::chrono::duration_cast<std::chrono::microseconds>(due - Clock::now()).count() +
             999) /
            1000;
        const WaitResult wait =
            WaitReadableOrStop(-1, static_cast<int>(std::max<std::int64_t>(0, waitMs)));
        // Stopped: the writes since the last window are still counted and shown.
        const bool stopped = wait == WaitResult::Stopped;
        if (stopped) {
            status = ExitInterrupted;
        }
        SlotActivitySample now;
        std::uint64_t writes = 0;
        if (pool) {
            const Slot::PoolReport report = Slot::SurveyPool(name);
            if (report.state != "healthy" || report.lastSequence < lastPool.lastSequence) {
                std::cerr << "slotctl: the pool " << Quote(name) << " is gone: "
                          << (report.state != "healthy" ? report.state : "made anew") << std::endl;
                status = ExitFailure;
                break;
            }
            writes = report.lastSequence - lastPool.lastSequence;
            lastPool = report;
        } else {
            now = SlotActivity::Sample(name, false);
            if (!now.valid) {
                std::cerr << "slotctl: " << Quote(name) << " is gone: " << now.problem << std::endl;
                status = ExitFailure;
                break;
            }
            writes = WritesSince(last, now);
            last = now;
        }
        const Clock::time_point at = Clock::now();
        const double seconds = std::chrono::duration<double>(at - windowStart).count();
        const double elapsed = std::chrono::duration<double>(at - start).count();
        windowStart = at;
        total += writes;
        const double rate = seconds > 0 ? writes / seconds : 0;
        std::string line;
        if (!bandwidth) {
            line = "rate: " + Fixed(rate, 1) + " writes/s (" + std::to_string(writes) +
                   " writes in " + Fixed(seconds, 2) + " s); average " +
                   Fixed(elapsed > 0 ? total / elapsed : 0, 1) + " writes/s over " +
                   Fixed(elapsed, 1) + " s";
        } else {
            // The header keeps only the size of the last block a reader took: the bytes of the
            // other blocks are not known without taking them.
            double bytes = 0;
            const bool sizeKnown = EstimatedBytes(static_cast<std::uint32_t>(writes), now, bytes);
            estimatedBytes += bytes;
            line = "estimated bandwidth: " + BytesPerSecondText(seconds > 0 ? bytes / seconds : 0) +
                   " (" + std::to_string(writes) + " writes/s x " +
                   std::to_string(now.outputDataSize) +
                   " bytes, the size of the last block taken); average " +
                   BytesPerSecondText(elapsed > 0 ? estimatedBytes / elapsed : 0);
            if (!sizeKnown) {
                line += " [block size unknown: no block taken since the slot was opened]";
            }
            if (seconds > 0) {
                line.replace(line.find(" writes/s"), 9, " writes in " + Fixed(seconds, 2) + " s");
            }
        }
        if (!WriteOut(line + "\n")) {
            status = OutputFailed(errno);
            break;
        }
        if (stopped || at >= end) {
            break;
        }
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    std::cerr << "slotctl: " << total << " writes to " << Quote(name) << " in " << Fixed(elapsed, 2)
              << " s" << std::endl;
    return status;
}

}  // namespace

int RunHz(const Context&, const std::vector<std::string>& args) {
    return Watch(args, false);
}

int RunBw(const Context&, const std::vector<std::string>& args) {
    return Watch(args, true);
}

int RunPeek(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("peek", args, {"format"}, {});
    arguments.ExpectOperands(1, 1, "one slot name");
    const std::string& name = arguments.Operands()[0];
    const std::string format = arguments.Get("format", "text");
    if (!IsBlockFormat(format)) {
        throw UsageError("peek: --format must be text, hex, raw, frames or ndjson, not " +
                         Quote(format));
    }
    CheckSlotName(name);
    if (Slot::SurveyPool(name).exists && !SlotExists(name)) {
        throw CommandError(ExitFailure, "peek: " + Quote(name) +
                                            " is a pool: it has no output buffer to show (read "
                                            "takes its blocks)");
    }
    const SlotActivitySample sample = FirstSample("peek", name, true);
    if (!sample.hasOutput) {
        throw CommandError(ExitFailure, "peek: " + Quote(name) + " has no readable output buffer");
    }
    // The time printed with ndjson is the slot's last write, the only time the header keeps.
    return WriteOut(FormatBlock(format, sample.output, sample.lastWrite)) ? ExitOk
                                                                          : OutputFailed(errno);
}

}  // namespace slotctl
