// SPDX-License-Identifier: Apache-2.0
// slotctl read: subscribes to a reader made by the factory and prints each block.
#include "BlockFormat.h"
#include "Cli.h"
#include "Commands.h"
#include "PoolTarget.h"
#include "Recording.h"
#include "Signals.h"
#include "SlotOptions.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/PoolFactory.h>
#include <Slot/PoolSurvey.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotSurvey.h>

#include <FileUtils/FSUtils.h>
#include <shared/FileLock.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <deque>
#include <iostream>
#include <mutex>
#include <utility>

namespace slotctl {

namespace {

// A block and when it arrived.
typedef std::pair<std::string, boost::posix_time::ptime> Block;

// Runs on the reader's thread: copies each block and wakes the main thread, which prints.
// Printing stays on the main thread so that a slow or closed standard output never holds up
// the reader thread.
class BlockQueue : public shared::ISubscriber {
public:
    BlockQueue() {
        if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
            throw CommandError(ExitFailure, "cannot make a pipe");
        }
    }
    ~BlockQueue() override {
        ::close(wake_[0]);
        ::close(wake_[1]);
    }

    void onNotify(const std::string&, const void* data, size_t size) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            blocks_.emplace_back(std::string(static_cast<const char*>(data), size),
                                 boost::posix_time::microsec_clock::universal_time());
        }
        const char byte = 1;
        // A full wake-up pipe already holds a wake-up.
        if (::write(wake_[1], &byte, 1) < 0) {
        }
    }

    int WakeFd() const { return wake_[0]; }

    std::deque<Block> Take() {
        char drain[256];
        while (::read(wake_[0], drain, sizeof(drain)) > 0) {
        }
        std::lock_guard<std::mutex> lock(mutex_);
        std::deque<Block> taken;
        taken.swap(blocks_);
        return taken;
    }

private:
    int wake_[2];
    std::mutex mutex_;
    std::deque<Block> blocks_;  // guarded by mutex_
};

// The queue outlives the reader, which gets it without ownership.
ISubscriberPtr Unowned(BlockQueue& queue) {
    return ISubscriberPtr(&queue, [](shared::ISubscriber*) {});
}

// Opens a reader of the slot `name` delivering to `queue`; returns the slot's kind.
std::string OpenSlotReader(const Arguments& arguments, const std::string& name, BlockQueue& queue,
                           INotifierPtr& reader, int limitMs) {
    const SlotCfg cfg = ResolveSlot(arguments, name);
    const std::string type = TypeName(cfg);
    try {
        // Subscribed before the reader's thread starts: a reliable reader drains the blocks
        // that were waiting at once, and they must reach us.
        // Opening waits for the slot's lock, which a live process may keep: that wait still
        // ends on Ctrl-C and --timeout.
        const WaitResult opened = RunInterruptibly(
            [&] { reader = SlotFactory::CreateSlotReader(&cfg, Unowned(queue)); }, limitMs);
        if (opened == WaitResult::Stopped) {
            LeaveNow(ExitInterrupted, "");
        }
        if (opened == WaitResult::TimedOut) {
            LeaveNow(ExitTimedOut, "slotctl: cannot read " + Quote(name) + ": not opened within " +
                                       std::to_string(limitMs) + " ms (its lock is held)");
        }
    } catch (const AbortSlotCreationException& e) {
        std::string message = "cannot read " + Quote(name) + ": " + e.what();
        if (type == "reliable") {
            const pid_t holder =
                shared::FileLock::Holder(FileUtils::FSUtils::GetSingletonFileLockName(name));
            if (holder > 0) {
                message += " (its reader is pid " + std::to_string(holder) + ")";
            }
        }
        throw CommandError(ExitFailure, message);
    } catch (const std::exception& e) {
        throw CommandError(ExitFailure, "cannot read " + Quote(name) + ": " + e.what());
    }
    return type;
}

// Opens a reader of the pool `name` (made when missing) delivering to `queue`; returns "<kind>
// pool". Opening a pool waits for nothing another process holds.
std::string OpenPoolReader(const Arguments& arguments, const std::string& name, BlockQueue& queue,
                           INotifierPtr& reader) {
    const Slot::PoolConfig config = ResolvePool(arguments, "read", name);
    try {
        reader = Slot::PoolFactory::CreatePoolReader(config, Unowned(queue));
    } catch (const std::exception& e) {
        std::string message = "cannot read " + Quote(name) + ": " + e.what();
        const Slot::PoolReport report = Slot::SurveyPool(name);
        if (config.kind == "queue" && report.queueReader > 0) {
            message += " (its reader is " + PidText(report, report.queueReader) + ")";
        }
        throw CommandError(ExitFailure, message);
    }
    return config.kind + " pool";
}

}  // namespace

int RunRead(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("read", args, SlotValuedOptions({"count", "timeout", "format"}),
                              TargetFlags({"follow"}));
    arguments.ExpectOperands(1, 1, "one slot name or recording");
    const std::string& name = arguments.Operands()[0];
    if (IsRecordingFile(name)) {
        return ReadRecording(arguments, name);
    }
    if (EndsWith(name, ".mcap") &&
        SlotSurvey::InspectSlot(name).header.state == SlotPartState::Absent) {
        // Meant as a recording, most likely: reading would make a slot of that name and wait.
        throw CommandError(ExitFailure, "cannot read " + Quote(name) +
                                            ": no such recording (and no slot of that name)");
    }
    const std::string format = arguments.Get("format", "text");
    if (!IsBlockFormat(format)) {
        throw UsageError("read: --format must be text, hex, raw, frames or ndjson, not " +
                         Quote(format));
    }
    // Blocks to print before ending; 0: no limit.
    const std::uint64_t target =
        arguments.GetNumber("count", arguments.Has("follow") ? 0 : 1, 0, UINT64_MAX >> 1);
    const std::uint64_t timeoutMs = arguments.GetNumber("timeout", 0, 1, INT_MAX);
    const int limitMs = timeoutMs == 0 ? -1 : static_cast<int>(timeoutMs);
    BlockQueue queue;
    INotifierPtr reader;
    const std::string type = MeansPool(arguments, "read", name)
                                 ? OpenPoolReader(arguments, name, queue, reader)
                                 : OpenSlotReader(arguments, name, queue, reader, limitMs);
    std::cerr << "slotctl: reading " << Quote(name) << " (" << type << ")" << std::endl;

    std::uint64_t printed = 0;
    int status = ExitOk;
    bool outputGone = false;
    auto print = [&](const std::deque<Block>& blocks) {
        for (const Block& block : blocks) {
            const std::string out = FormatBlock(format, block.first, block.second);
            if (outputGone || !WriteOut(out)) {
                outputGone = true;  // nobody reads our output any more
                return;
            }
            ++printed;
        }
    };
    while (!outputGone && (target == 0 || printed < target)) {
        const WaitResult wait =
            WaitReadableOrStop(queue.WakeFd(), timeoutMs == 0 ? -1 : static_cast<int>(timeoutMs));
        if (wait == WaitResult::Stopped) {
            status = ExitInterrupted;
            break;
        }
        if (wait == WaitResult::TimedOut) {
            // Giving up is not success, also with --follow: a script must be able to tell
            // "no more blocks came" from "all blocks asked for were read".
            std::cerr << "slotctl: no block from " << Quote(name) << " within " << timeoutMs
                      << " ms (" << printed;
            if (target != 0) {
                std::cerr << " of " << target;
            }
            std::cerr << " read)" << std::endl;
            status = ExitTimedOut;
            break;
        }
        print(queue.Take());
    }
    // The reader's thread may be waiting for the slot's lock: stopping it is bounded too.
    const WaitResult closed = RunInterruptibly(
        [&] {
            reader->unsubscribe(&queue);
            reader.reset();
        },
        limitMs < 0 ? 2000 : limitMs);
    if (closed != WaitResult::Ready) {
        print(queue.Take());
        LeaveNow(closed == WaitResult::Stopped ? ExitInterrupted : status, "");
    }
    // A reliable reader takes every waiting block at each wake-up: what it took beyond the
    // count is printed too rather than lost.
    print(queue.Take());
    return status;
}

}  // namespace slotctl
