// SPDX-License-Identifier: Apache-2.0
// slotctl write: one block, repeated blocks, or one block per input line, through a writer made
// by the factory.
#include "BlockFormat.h"
#include "Cli.h"
#include "Commands.h"
#include "PoolTarget.h"
#include "Signals.h"
#include "SlotOptions.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/ConfigurationTags.h>
#include <Slot/PoolFactory.h>
#include <Slot/SlotFactory.h>
#include <Slot/WriteOutcome.h>

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>

namespace slotctl {

namespace {

enum class Input { Data, End, Failed, Stopped };

// Waits until standard input is readable, without blocking the stop signals, and appends what
// one read gives to `data`.
Input ReadInput(std::string& data) {
    for (;;) {
        if (WaitReadableOrStop(STDIN_FILENO, -1) == WaitResult::Stopped) {
            return Input::Stopped;
        }
        char chunk[65536];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n == 0 ? Input::End : Input::Failed;
        }
        data.append(chunk, static_cast<size_t>(n));
        return Input::Data;
    }
}

// Reads standard input line by line, keeping at most `limit` bytes of a line: a longer one is
// handed out cut as soon as it passes the limit, and the rest of it is read and dropped.
class LineReader {
public:
    explicit LineReader(size_t limit) : limit_(limit) {}

    // False at end of input or when stopped. `cut`: the line was longer than the limit.
    bool Next(std::string& line, bool& cut) {
        for (;;) {
            const std::string::size_type newline = buffer_.find('\n');
            const bool complete = newline != std::string::npos;
            const size_t end = complete ? newline : buffer_.size();
            if (skipping_) {
                buffer_.erase(0, complete ? newline + 1 : end);
                skipping_ = !complete;
                if (complete) {
                    continue;
                }
            } else {
                const size_t kept = std::min(end, limit_ - line_.size());
                line_.append(buffer_, 0, kept);
                cut = kept < end;
                if (cut || complete || (eof_ && !line_.empty())) {
                    buffer_.erase(0, cut ? kept : complete ? newline + 1 : end);
                    skipping_ = cut;
                    line.swap(line_);
                    line_.clear();
                    return true;
                }
                buffer_.clear();
            }
            if (eof_) {
                return false;
            }
            const Input input = ReadInput(buffer_);
            if (input == Input::Stopped) {
                return false;
            }
            eof_ = input != Input::Data;  // a read error ends the input too
        }
    }

private:
    const size_t limit_;
    std::string buffer_;     // read, not yet looked at
    std::string line_;       // the line so far, up to the limit
    bool skipping_ = false;  // dropping the rest of a line that was cut
    bool eof_ = false;
};

// Standard input, read until it ends or more than `limit` bytes came (then more are returned).
std::string ReadAllInput(size_t limit) {
    std::string data;
    while (data.size() <= limit) {
        const Input input = ReadInput(data);
        if (input == Input::Failed) {
            throw CommandError(ExitFailure,
                               std::string("cannot read standard input: ") + std::strerror(errno));
        }
        if (input != Input::Data) {
            break;
        }
    }
    return data;
}

std::string Plural(std::uint64_t n, const char* word) {
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

}  // namespace

int RunWrite(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("write", args,
                              SlotValuedOptions({"length", "every", "count", "timeout"}),
                              TargetFlags({"lines", "frames"}));
    arguments.ExpectOperands(1, 2, "a slot name and at most one DATA operand");
    const std::string& name = arguments.Operands()[0];
    const bool lines = arguments.Has("lines");
    const bool hasLength = arguments.Has("length");
    const std::uint64_t length = arguments.GetNumber("length", 0, 0, INT_MAX);
    const std::uint64_t everyMs = arguments.GetNumber("every", 0, 0, 86400000);
    const std::uint64_t timeoutMs = arguments.GetNumber("timeout", 0, 1, INT_MAX);
    const int limitMs = timeoutMs == 0 ? -1 : static_cast<int>(timeoutMs);
    // Opening and every write wait for the slot's lock, which a live process may keep: those
    // waits end on Ctrl-C and --timeout. The time-out of the opening counts from here.
    const auto started = std::chrono::steady_clock::now();
    auto leaveUnlessReady = [&](const char* what, WaitResult result) {
        if (result == WaitResult::Stopped) {
            LeaveNow(ExitInterrupted, "slotctl: interrupted");
        }
        if (result == WaitResult::TimedOut) {
            LeaveNow(ExitTimedOut, "slotctl: cannot write to " + Quote(name) + ": " + what +
                                       " within " + std::to_string(timeoutMs) + " ms" +
                                       HeldLockNote(name));
        }
    };
    const bool frames = arguments.Has("frames");
    if (frames && (lines || arguments.Has("count") || arguments.Operands().size() > 1)) {
        throw UsageError(
            "write: --frames reads blocks from standard input; it cannot go with "
            "--lines, --count or DATA");
    }
    if (lines && arguments.Has("count")) {
        throw UsageError("write: --count repeats one block; it cannot go with --lines");
    }
    // Without --every one block is written once; with it, until interrupted.
    const std::uint64_t count =
        arguments.GetNumber("count", arguments.Has("every") ? 0 : 1, 0, UINT64_MAX >> 1);
    // A pool is written through a pool writer, whose onNotify copies the block into a loan.
    const bool pool = MeansPool(arguments, "write", name);
    std::optional<Slot::PoolConfig> poolConfig;
    std::optional<SlotCfg> cfg;
    if (pool) {
        poolConfig = ResolvePool(arguments, "write", name);
    } else {
        cfg.emplace(ResolveSlot(arguments, name));
    }
    const std::size_t maxSize = pool ? poolConfig->maxBlockSize : cfg->GetMaxSize();
    const std::string kind = pool ? poolConfig->kind + " pool" : TypeName(*cfg);
    // A posix-pipe's writer takes a block as large as the pipe can be made, whatever --max-size
    // says: only what no pipe can hold bounds a whole-input block there.
    const bool pipe = kind == Configuration::Object::Slot::Type::posixPipeTag;
    const std::size_t blockLimit = pipe ? static_cast<std::size_t>(INT_MAX) : maxSize;
    // Why a block is refused before it is written: "<what> is larger than ...".
    auto tooLarge = [&](const std::string& what, std::size_t limit) {
        return what +
               (pool                          ? " is larger than the pool's block size "
                : pipe && limit == blockLimit ? " is larger than a named pipe can hold: "
                                              : " is larger than the slot's maximum block size ") +
               std::to_string(limit);
    };
    if (hasLength && length > blockLimit) {
        throw CommandError(ExitFailure,
                           "write: " + tooLarge("--length " + std::to_string(length), blockLimit));
    }
    // The most bytes of standard input one block takes: with --length the rest is cut, and
    // without it more is a block too large. Input beyond that is not held.
    const size_t inputLimit = hasLength ? static_cast<size_t>(length) : blockLimit;

    const bool fromStdin = arguments.Operands().size() < 2 || arguments.Operands()[1] == "-";
    // This run's blocks: the counts of the slot's name in this process, before and after.
    const Slot::WriteCounts before = Slot::GetWriteCounts(name);
    unsigned long blocks = 0;
    bool stopped = false;
    std::string inputProblem;  // why the input ended early, or was refused
    {
        ISubscriberPtr writer;
        try {
            const auto openPool = [&] {
                writer = Slot::PoolFactory::CreatePoolWriter(*poolConfig);
            };
            const auto openSlot = [&] { writer = SlotFactory::CreateSlotWriter(&*cfg); };
            leaveUnlessReady("not opened",
                             pool ? RunInterruptibly(openPool, limitMs)
                                  : OpenSlotInterruptibly(name, openSlot, limitMs, started));
        } catch (const AbortSlotCreationException& e) {
            throw CommandError(ExitFailure, "cannot write to " + Quote(name) + ": " + e.what());
        }
        auto shape = [&](std::string block) {
            if (hasLength) {
                block.resize(static_cast<size_t>(length), '\0');
            }
            return block;
        };
        auto pause = [&](bool more) {
            if (StopSignals::Received()) {
                stopped = true;
            } else if (more && everyMs != 0 &&
                       WaitReadableOrStop(-1, static_cast<int>(everyMs)) == WaitResult::Stopped) {
                stopped = true;
            }
            return !stopped;
        };
        auto write = [&](const std::string& block) {
            // The outcome is the writing thread's.
            Slot::WriteOutcome outcome = Slot::WriteOutcome::None;
            const auto put = [&] {
                writer->onNotify(name, block.data(), block.size());
                outcome = Slot::LastWriteOutcome();
            };
            leaveUnlessReady("not done", RunInterruptibly(put, limitMs));
            ++blocks;
            // The library logs why a slot refused a block; a pool's refusal is said here.
            if (pool && outcome == Slot::WriteOutcome::Refused) {
                const auto bytes = [](size_t n) {
                    return std::to_string(n) + (n == 1 ? " byte" : " bytes");
                };
                std::cerr << "slotctl: the pool " << Quote(name) << " refused a block of "
                          << bytes(block.size()) << ": "
                          << (block.size() > maxSize
                                  ? "larger than its blocks (" + bytes(maxSize) + ")"
                                  : std::string("no block is free, or its queue is full"))
                          << std::endl;
            }
        };
        if (frames) {
            FrameParser parser;
            std::string block;
            bool first = true;
            for (;;) {
                const std::int64_t declared = parser.NextSize();
                if (declared > static_cast<std::int64_t>(maxSize)) {
                    inputProblem =
                        tooLarge("a frame of " + std::to_string(declared) + " bytes", maxSize);
                    break;
                }
                if (parser.Next(block)) {
                    if (!first && !pause(true)) {
                        break;
                    }
                    write(shape(block));
                    first = false;
                    continue;
                }
                if (StopSignals::Received()) {
                    stopped = true;
                    break;
                }
                std::string chunk;
                const Input input = ReadInput(chunk);
                if (input == Input::Stopped) {
                    stopped = true;
                    break;
                }
                if (input == Input::Failed) {
                    inputProblem =
                        std::string("cannot read standard input: ") + std::strerror(errno);
                    break;
                }
                if (input == Input::End) {
                    if (parser.Pending() != 0) {
                        inputProblem = "standard input ends inside a frame (" +
                                       std::to_string(parser.Pending()) +
                                       " bytes of an incomplete frame; each frame is a 4-byte "
                                       "little-endian length and that many bytes)";
                    }
                    break;
                }
                parser.Append(chunk.data(), chunk.size());
            }
        } else if (lines) {
            if (fromStdin) {
                LineReader reader(inputLimit);
                std::string line;
                bool cut = false;
                bool first = true;
                while ((first || pause(true)) && reader.Next(line, cut)) {
                    if (cut && !hasLength) {
                        inputProblem = tooLarge("a line of standard input", blockLimit);
                        break;
                    }
                    write(shape(line));
                    first = false;
                }
                stopped = stopped || StopSignals::Received();
            } else {
                std::string data = arguments.Operands()[1];
                if (!data.empty() && data.back() == '\n') {
                    data.pop_back();
                }
                std::string::size_type start = 0;
                for (;;) {
                    const std::string::size_type end = data.find('\n', start);
                    write(shape(data.substr(start, end == std::string::npos ? end : end - start)));
                    if (end == std::string::npos || !pause(true)) {
                        break;
                    }
                    start = end + 1;
                }
            }
        } else {
            const std::string input =
                fromStdin ? ReadAllInput(inputLimit) : arguments.Operands()[1];
            if (fromStdin && !hasLength && input.size() > blockLimit) {
                inputProblem = tooLarge("standard input", blockLimit);
            }
            const std::string block = inputProblem.empty() ? shape(input) : "";
            stopped = StopSignals::Received();
            for (std::uint64_t i = 0; inputProblem.empty() && !stopped && (count == 0 || i < count);
                 ++i) {
                write(block);
                if (!pause(count == 0 || i + 1 < count)) {
                    break;
                }
            }
        }
        writer.reset();
    }
    // The library, or for a pool's refusal this command, has printed a line for each of these
    // as it happened. A posix-pipe's writer has been closed above: bytes that nobody read from
    // it are lost with it.
    const Slot::WriteCounts after = Slot::GetWriteCounts(name);
    const std::uint64_t problems = after.NotStored() - before.NotStored();
    const std::uint64_t discarded = after.discarded - before.discarded;
    const std::uint64_t lostAtClose = after.bytesLostAtClose - before.bytesLostAtClose;
    std::string summary = Plural(blocks, "block") + " to " + Quote(name) + " (" + kind + ")";
    if (problems == 0 && lostAtClose == 0 && inputProblem.empty()) {
        summary += ": all stored";
    }
    if (problems != 0) {
        summary += ": " + std::to_string(problems) + " refused, dropped or failed (see above)";
    }
    if (lostAtClose != 0) {
        summary += (problems == 0 ? ": " : "; ") + PipeLossText(lostAtClose);
    }
    if (discarded != 0) {
        summary += "; " + Plural(discarded, "waiting block") + " discarded";
    }
    if (stopped) {
        summary += "; interrupted";
    }
    std::cerr << "slotctl: " << summary << std::endl;
    if (!inputProblem.empty()) {
        std::cerr << "slotctl: " << inputProblem << std::endl;
        return ExitFailure;
    }
    if (stopped) {
        return ExitInterrupted;
    }
    return problems == 0 && lostAtClose == 0 ? ExitOk : ExitFailure;
}

}  // namespace slotctl
