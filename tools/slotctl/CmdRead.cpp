// SPDX-License-Identifier: Apache-2.0
// slotctl read: subscribes to a reader made by the factory and prints each block.
#include "BlockFormat.h"
#include "Cli.h"
#include "Commands.h"
#include "HeldReader.h"
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
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <utility>

namespace slotctl {

namespace {

// A block and when it arrived.
typedef std::pair<std::string, boost::posix_time::ptime> Block;

// Blocks a reader of a reliable slot or a queue pool may have taken ahead of the printing:
// after a failed output that many are lost at most, the rest stays in the slot.
const size_t MaxAhead = 16;

// Runs on the reader's thread: copies each block and wakes the main thread, which prints.
// Printing stays on the main thread so that a slow or closed standard output never holds up
// a discarding reader's thread; one whose every block counts (`keeps`: a reliable slot, a
// queue pool) waits instead while MaxAhead blocks wait to be printed. The queue also stops the
// reader: at its `target`-th block (0: no target), or at the block in hand once Stop was
// called, so that such a slot keeps every block that was not taken.
class BlockQueue : public shared::ISubscriber {
public:
    // `drains`: see HeldReader.
    BlockQueue(std::uint64_t target, bool keeps, bool drains)
        : target_(target), keeps_(keeps), held_(drains) {
        if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
            throw CommandError(ExitFailure, "cannot make a pipe");
        }
    }
    ~BlockQueue() override {
        ::close(wake_[0]);
        ::close(wake_[1]);
    }

    void onNotify(const std::string&, const void* data, size_t size) override {
        bool stop = false;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            if (keeps_) {
                room_.wait(lock, [&] { return blocks_.size() < MaxAhead || stopping_; });
            }
            blocks_.emplace_back(std::string(static_cast<const char*>(data), size),
                                 boost::posix_time::microsec_clock::universal_time());
            ++taken_;
            stop = stopping_ || (target_ != 0 && taken_ >= target_);
        }
        const char byte = 1;
        // A full wake-up pipe already holds a wake-up.
        if (::write(wake_[1], &byte, 1) < 0) {
        }
        if (stop) {
            held_.StopHere();
        }
    }

    int WakeFd() const { return wake_[0]; }

    std::deque<Block> Take() {
        char drain[256];
        while (::read(wake_[0], drain, sizeof(drain)) > 0) {
        }
        std::deque<Block> taken;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            taken.swap(blocks_);
        }
        room_.notify_all();
        return taken;
    }

    // The share of this queue to make the reader with, and the reader once made.
    ISubscriberPtr Share() { return held_.Share(*this); }
    void Made(INotifierPtr reader) { held_.Made(std::move(reader)); }

    // Stops the reader: it takes nothing after the block in hand. Returns once the reader has
    // let go of the queue; its thread may first have to get the slot's lock.
    void Stop() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        room_.notify_all();
        held_.Stop();
        held_.WaitGone(-1);
    }

private:
    int wake_[2];
    const std::uint64_t target_;
    const bool keeps_;
    std::mutex mutex_;
    std::condition_variable room_;  // a Take or a stop
    std::deque<Block> blocks_;      // guarded by mutex_
    std::uint64_t taken_ = 0;       // guarded by mutex_
    bool stopping_ = false;         // guarded by mutex_
    HeldReader held_;
};

// A reader opened for read, and how its start ended.
struct Opened {
    std::string type;  // the slot's or the pool's kind
    // Ready, or what ended the start before the reader was made (it was made after all, and
    // may have taken blocks: they are printed as at the end of the reading).
    WaitResult start = WaitResult::Ready;
    int updateMs = 0;  // the reader's update time
};

// Opens a reader of the slot `name` delivering to a queue made for it, within `limitMs` (-1: no
// limit) or until a stop signal.
Opened OpenSlotReader(const Arguments& arguments, const std::string& name, std::uint64_t target,
                      std::unique_ptr<BlockQueue>& made, int limitMs) {
    const auto started = std::chrono::steady_clock::now();
    const SlotCfg cfg = ResolveSlot(arguments, name);
    Opened opened;
    opened.type = TypeName(cfg);
    opened.updateMs = static_cast<int>(cfg.GetUpdateTime().total_milliseconds());
    made.reset(new BlockQueue(target, opened.type == "reliable", opened.type == "reliable"));
    BlockQueue& queue = *made;
    auto leaveNotOpened = [&](WaitResult wait) {
        if (wait == WaitResult::Stopped) {
            LeaveNow(ExitInterrupted, "");
        }
        LeaveNow(ExitTimedOut, "slotctl: cannot read " + Quote(name) + ": not opened within " +
                                   std::to_string(limitMs) + " ms" + HeldLockNote(name));
    };
    try {
        // Opening waits for the slot's lock, which a live process may keep: that wait still ends
        // on Ctrl-C and --timeout, and nothing is taken before it ends. The slot stays open
        // while the reader starts.
        boost::shared_ptr<ISlot> slot;
        if (opened.type == "reliable" || opened.type == "discarding") {
            const WaitResult wait = OpenSlotInterruptibly(
                name, [&] { slot = SlotFactory::CreateSlot(&cfg); }, limitMs, started);
            if (wait != WaitResult::Ready) {
                leaveNotOpened(wait);
            }
        }
        int leftMs = -1;
        if (limitMs >= 0) {
            const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::steady_clock::now() - started);
            leftMs = std::max(0, limitMs - static_cast<int>(spent.count()));
        }
        // Subscribed before the reader's thread starts: a reliable reader drains the blocks
        // that were waiting at once, and they must reach us, also when the start is cut short.
        const ReaderStart start = StartReader(
            [&] {
                try {
                    queue.Made(SlotFactory::CreateSlotReader(&cfg, queue.Share()));
                } catch (...) {
                    queue.Made(nullptr);
                    throw;
                }
            },
            leftMs, opened.updateMs);
        if (!start.made) {
            leaveNotOpened(start.wait);
        }
        opened.start = start.wait;
    } catch (const AbortSlotCreationException& e) {
        std::string message = "cannot read " + Quote(name) + ": " + e.what();
        if (opened.type == "reliable") {
            const pid_t holder = shared::FileLock::Holder(
                FileUtils::FSUtils::SingletonFileLockNameWithoutCreating(name));
            if (holder > 0) {
                message += " (its reader is pid " + std::to_string(holder) + ")";
            }
        }
        throw CommandError(ExitFailure, message);
    } catch (const std::exception& e) {
        throw CommandError(ExitFailure, "cannot read " + Quote(name) + ": " + e.what());
    }
    return opened;
}

// Opens a reader of the pool `name` (made when missing) delivering to a queue made for it, of
// the kind "<kind> pool". Opening a pool waits for nothing another process holds.
Opened OpenPoolReader(const Arguments& arguments, const std::string& name, std::uint64_t target,
                      std::unique_ptr<BlockQueue>& made) {
    const Slot::PoolConfig config = ResolvePool(arguments, "read", name);
    made.reset(new BlockQueue(target, config.kind == "queue", false));
    BlockQueue& queue = *made;
    try {
        queue.Made(Slot::PoolFactory::CreatePoolReader(config, queue.Share()));
    } catch (const std::exception& e) {
        queue.Made(nullptr);
        std::string message = "cannot read " + Quote(name) + ": " + e.what();
        const Slot::PoolReport report = Slot::SurveyPool(name);
        if (config.kind == "queue" && report.queueReader > 0) {
            message += " (its reader is " + PidText(report, report.queueReader) + ")";
        }
        throw CommandError(ExitFailure, message);
    }
    Opened opened;
    opened.type = config.kind + " pool";
    return opened;
}

}  // namespace

void RefuseMissingRecording(const std::string& verb, const std::string& operand) {
    if (EndsWith(operand, ".mcap") &&
        SlotSurvey::InspectSlot(operand).header.state == SlotPartState::Absent) {
        throw CommandError(ExitFailure, "cannot " + verb + " " + Quote(operand) +
                                            ": no such recording (and no slot of that name)");
    }
}

int RunRead(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("read", args, SlotValuedOptions({"count", "timeout", "format"}),
                              TargetFlags({"follow"}));
    arguments.ExpectOperands(1, 1, "one slot name or recording");
    const std::string& name = arguments.Operands()[0];
    // Bounds the wait for a block and for room in standard output.
    const std::uint64_t timeoutMs = arguments.GetNumber("timeout", 0, 1, INT_MAX);
    const int limitMs = timeoutMs == 0 ? -1 : static_cast<int>(timeoutMs);
    if (IsRecordingFile(name)) {
        return ReadRecording(arguments, name, limitMs);
    }
    // Reading would make a slot of that name and wait.
    RefuseMissingRecording("read", name);
    const std::string format = arguments.Get("format", "text");
    if (!IsBlockFormat(format)) {
        throw UsageError("read: --format must be text, hex, raw, frames or ndjson, not " +
                         Quote(format));
    }
    // Blocks to print before ending; 0: no limit.
    const std::uint64_t target =
        arguments.GetNumber("count", arguments.Has("follow") ? 0 : 1, 0, UINT64_MAX >> 1);
    std::unique_ptr<BlockQueue> made;
    const Opened opened = MeansPool(arguments, "read", name)
                              ? OpenPoolReader(arguments, name, target, made)
                              : OpenSlotReader(arguments, name, target, made, limitMs);
    const std::string& type = opened.type;
    BlockQueue& queue = *made;
    std::cerr << "slotctl: reading " << Quote(name) << " (" << type << ")" << std::endl;

    std::uint64_t printed = 0;
    int status = ExitOk;
    int outputError = 0;          // why standard output failed; 0 while it works
    std::uint64_t unwritten = 0;  // blocks taken and not written, after a failure
    auto print = [&](const std::deque<Block>& blocks) {
        for (const Block& block : blocks) {
            if (outputError == 0 &&
                !WriteOut(FormatBlock(format, block.first, block.second), limitMs)) {
                outputError = errno;
            }
            ++(outputError == 0 ? printed : unwritten);
        }
    };
    // After a failed output: its reason, unless it is a closed pipe, and the blocks taken and
    // not written, also after a closed pipe when every block counts (a reliable slot, a queue
    // pool).
    auto reportOutputFailure = [&] {
        const std::string failure = OutputFailure(outputError);
        if (!failure.empty()) {
            std::cerr << "slotctl: " << failure << std::endl;
        }
        if (unwritten != 0 && (!failure.empty() || type == "reliable" || type == "queue pool")) {
            std::cerr << "slotctl: " << unwritten << (unwritten == 1 ? " block" : " blocks")
                      << " taken from " << Quote(name) << " and not written" << std::endl;
        }
    };
    // "N of COUNT read", or "N read" without a count to reach.
    auto readText = [&] {
        return std::to_string(printed) + (target != 0 ? " of " + std::to_string(target) : "") +
               " read";
    };
    // A start cut short by a stop signal or the time-out ends the reading, after the same end
    // as a reading's: what the reader took meanwhile is printed below.
    if (opened.start == WaitResult::Stopped) {
        status = ExitInterrupted;
    } else if (opened.start == WaitResult::TimedOut) {
        status = ExitTimedOut;
    }
    while (status == ExitOk && outputError == 0 && (target == 0 || printed < target)) {
        const WaitResult wait = WaitReadableOrStop(queue.WakeFd(), limitMs, OutputWatchFd());
        if (wait == WaitResult::Stopped) {
            status = ExitInterrupted;
            break;
        }
        if (wait == WaitResult::Gone) {
            // Nobody reads standard output any more (`| head -1`): the reader is stopped now,
            // and its claim released, rather than at the next block, which it would take from a
            // reliable slot or a queue pool only to lose it. It ends as a closed pipe does.
            outputError = EPIPE;
            break;
        }
        if (wait == WaitResult::TimedOut) {
            // Giving up is not success, also with --follow: a script must be able to tell
            // "no more blocks came" from "all blocks asked for were read".
            std::cerr << "slotctl: no block from " << Quote(name) << " within " << timeoutMs
                      << " ms (" << readText() << ")" << std::endl;
            status = ExitTimedOut;
            break;
        }
        print(queue.Take());
    }
    // The reader takes nothing after the block in hand (with --count it stopped itself at its
    // last block, and took no more). Its thread may be waiting for the slot's lock: stopping it
    // is bounded too, but not cut short by the stop signal that may have ended the loop: the
    // block in hand would then be taken after the Take below, and neither printed nor counted.
    // A reader's thread sees the stop once its wait of one update time ends.
    const WaitResult closed =
        RunBounded([&] { queue.Stop(); }, std::max(limitMs, opened.updateMs + 2000));
    // A block the reader took meanwhile (a stop, a timeout) is printed rather than lost.
    print(queue.Take());
    if (opened.start == WaitResult::TimedOut && target != 0 && printed >= target) {
        status = ExitOk;  // every block asked for came, before the start was over
    } else if (opened.start == WaitResult::TimedOut && outputError == 0) {
        // The slot was opened in time; the reader's start, one update time, was not over.
        std::cerr << "slotctl: the reader of " << Quote(name) << " did not finish starting within "
                  << timeoutMs << " ms (its start takes one update time, " << opened.updateMs
                  << " ms; " << readText() << ")" << std::endl;
    }
    if (outputError != 0) {
        reportOutputFailure();
        status = OutputStatus(outputError);
    }
    if (closed != WaitResult::Ready) {
        LeaveNow(outputError == 0 && closed == WaitResult::Stopped ? ExitInterrupted : status, "");
    }
    return status;
}

}  // namespace slotctl
