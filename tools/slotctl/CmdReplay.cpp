// SPDX-License-Identifier: Apache-2.0
// slotctl replay: writes recorded blocks back into slots; read and info of a recording.
#include "BlockFormat.h"
#include "Cli.h"
#include "Commands.h"
#include "Mcap.h"
#include "Names.h"
#include "PoolTarget.h"
#include "Recording.h"
#include "Signals.h"
#include "SlotOptions.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/PoolSurvey.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotSurvey.h>
#include <Slot/SlotWriter.h>
#include <Slot/Version.h>
#include <Slot/WriteOutcome.h>
#include <shared/ILockable.h>
#include <shared/WriteOutcome.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <limits>
#include <memory>
#include <set>
#include <sstream>

namespace slotctl {

namespace {

boost::posix_time::ptime TimeOf(std::uint64_t ns) {
    return boost::posix_time::from_time_t(static_cast<std::time_t>(ns / 1000000000)) +
           boost::posix_time::microseconds(static_cast<long>((ns % 1000000000) / 1000));
}

// A paced replay says so when the next block is this far off, so that a quiet replay is not
// taken for a hung one.
constexpr std::int64_t kAnnouncedWaitMs = 10000;

// A wait in the largest two units that fit: "45 s", "2 min 5 s", "3 h 20 min", "12 days 4 h".
std::string WaitText(std::int64_t ms) {
    const std::int64_t seconds = (ms + 999) / 1000;
    const std::pair<const char*, std::int64_t> units[] = {
        {" days", 86400}, {" h", 3600}, {" min", 60}, {" s", 1}};
    std::ostringstream out;
    for (std::size_t i = 0; i < 3; ++i) {
        if (seconds >= units[i].second) {
            out << seconds / units[i].second << units[i].first;
            const std::int64_t rest = seconds % units[i].second / units[i + 1].second;
            if (rest != 0) {
                out << " " << rest << units[i + 1].first;
            }
            return out.str();
        }
    }
    out << seconds << " s";
    return out.str();
}

// Holds a recording's pace: each block waits until its log time, counted from the first
// block's, divided by the rate, has passed. One pacer serves every file of a pass, so that the
// pause between the parts of a split recording is kept.
class Pacer {
public:
    explicit Pacer(double rate) : rate_(rate) {}

    // False when Ctrl-C or a termination signal ended the wait. `file` holds the block.
    bool WaitFor(std::uint64_t logTime, const std::string& file) {
        if (!started_) {
            started_ = true;
            firstLog_ = logTime;
            start_ = std::chrono::steady_clock::now();
            return true;
        }
        if (logTime <= firstLog_) {
            return true;
        }
        // In double milliseconds: a wild log time (2^64 ns at the slowest rate is 1.8e16 ms)
        // stays within range.
        const double dueNs = static_cast<double>(logTime - firstLog_) / rate_;
        const double elapsedNs =
            static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                    std::chrono::steady_clock::now() - start_)
                                    .count());
        const std::int64_t waitMs = static_cast<std::int64_t>((dueNs - elapsedNs) / 1e6);
        if (waitMs >= kAnnouncedWaitMs) {
            std::cerr << "slotctl: the next block of " << Quote(file) << " is due in "
                      << WaitText(waitMs)
                      << " as recorded; waiting (Ctrl-C stops, --max replays without pauses)"
                      << std::endl;
        }
        // A wait beyond what one poll takes goes on in slices.
        for (std::int64_t left = waitMs; left > 0; left -= INT_MAX) {
            const int slice = static_cast<int>(std::min<std::int64_t>(left, INT_MAX));
            if (WaitReadableOrStop(-1, slice) == WaitResult::Stopped) {
                return false;
            }
        }
        return true;
    }

private:
    double rate_;
    bool started_ = false;
    std::uint64_t firstLog_ = 0;
    std::chrono::steady_clock::time_point start_;
};

// Reads a recording, turning a file that cannot be opened into a command error. Ctrl-C or a
// termination signal ends the reading also inside a long record (`stopped`).
mcap::ReadResult ReadFile(const std::string& path,
                          const std::function<bool(const mcap::Message&, const mcap::Channel&)>& cb,
                          bool needData = true) {
    try {
        return mcap::Read(path, cb, needData, [] { return StopSignals::Received(); });
    } catch (const mcap::Error& e) {
        throw CommandError(ExitFailure, e.what());
    }
}

// Reports how reading ended: nothing for a complete file, a note for a file cut short (what a
// killed recorder leaves), an error line for a damaged one. The exit status.
int ReportEnd(const std::string& path, const mcap::ReadResult& result) {
    if (result.problem.empty()) {
        return ExitOk;
    }
    if (result.cutShort) {
        std::cerr << "slotctl: " << Printable(path) << ": " << result.problem
                  << " (a recording that was not closed); read up to its last whole record"
                  << std::endl;
        return ExitOk;
    }
    std::cerr << "slotctl: " << Printable(path) << " is damaged at byte " << result.problemOffset
              << ": " << Printable(result.problem) << std::endl;
    return ExitFailure;
}

// The pool a pool's channel recorded, as its metadata (which is not trusted) describes it,
// under the name `name`.
Slot::PoolConfig RecordedPool(const mcap::Channel& channel, const std::string& name) {
    auto number = [&](const char* key) -> std::size_t {
        const auto it = channel.metadata.find(key);
        if (it == channel.metadata.end() || it->second.empty() ||
            it->second.find_first_not_of("0123456789") != std::string::npos ||
            it->second.size() > 12) {
            return 0;
        }
        // Beyond what size_t holds (32-bit builds): no pool, not the value cut to its low bits.
        const unsigned long long value = std::stoull(it->second);
        return value > std::numeric_limits<std::size_t>::max() ? 0
                                                               : static_cast<std::size_t>(value);
    };
    const auto kind = channel.metadata.find(meta::Kind);
    Slot::PoolConfig config{name, kind == channel.metadata.end() ? std::string() : kind->second,
                            number(meta::MaxBlockSize), number(meta::BlockCount)};
    if (const auto problem = Slot::PoolConfigProblem(config)) {
        throw CommandError(ExitFailure, "cannot replay " + Quote(channel.topic) +
                                            ": its channel describes no valid pool (" +
                                            Printable(*problem) + ")");
    }
    return config;
}

}  // namespace

bool IsRecordingFile(const std::string& operand) {
    struct stat st {};
    return EndsWith(operand, ".mcap") && ::stat(operand.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

namespace {

std::string HostName() {
    char host[256] = {};
    if (::gethostname(host, sizeof(host) - 1) != 0) {
        host[0] = '\0';
    }
    return host;
}

// The value of `key`, or "" when absent.
std::string Value(const Metadata& metadata, const char* key) {
    const auto it = metadata.find(key);
    return it == metadata.end() ? std::string() : it->second;
}

}  // namespace

Metadata SlotMetadata(const ISlotConfiguration& cfg) {
    return {{meta::Kind, TypeName(cfg)},
            {meta::MaxBlockSize, std::to_string(cfg.GetMaxSize())},
            {meta::QueueLength, std::to_string(cfg.GetMaxBufferLength())},
            {meta::Host, HostName()},
            {meta::Version, Slot::Version()}};
}

Metadata PoolMetadata(const Slot::PoolConfig& config) {
    return {{meta::Object, meta::PoolObject},
            {meta::Kind, config.kind},
            {meta::MaxBlockSize, std::to_string(config.maxBlockSize)},
            {meta::BlockCount, std::to_string(config.blockCount)},
            {meta::Host, HostName()},
            {meta::Version, Slot::Version()}};
}

bool IsPoolChannel(const Metadata& metadata) {
    return Value(metadata, meta::Object) == meta::PoolObject;
}

std::string ChannelKindText(const Metadata& metadata) {
    const std::string kind = Value(metadata, meta::Kind);
    if (kind.empty()) {
        return "-";
    }
    return Printable(kind) + (IsPoolChannel(metadata) ? " pool" : "");
}

Slot::PoolConfig PoolTargetFor(const std::string& command, const std::string& name,
                               const Slot::PoolConfig& recorded) {
    CheckSlotName(name);
    CheckPoolTarget(command, name);
    const Slot::PoolReport report = Slot::SurveyPool(name);
    if (report.exists && report.state != "healthy") {
        throw CommandError(ExitFailure, command + ": the pool " + Quote(name) +
                                            " cannot be used: " + Printable(report.problem));
    }
    Slot::PoolConfig config = recorded;
    config.name = name;
    if (report.exists) {
        config.maxBlockSize = report.maxBlockSize;
        config.blockCount = report.blockCount;
    }
    return config;
}

std::string ByteText(std::uint64_t bytes) {
    char text[32];
    if (bytes < 1000) {
        std::snprintf(text, sizeof(text), "%llu B", static_cast<unsigned long long>(bytes));
    } else if (bytes < 1000000) {
        std::snprintf(text, sizeof(text), "%.1f kB", bytes / 1e3);
    } else if (bytes < 1000000000) {
        std::snprintf(text, sizeof(text), "%.1f MB", bytes / 1e6);
    } else {
        std::snprintf(text, sizeof(text), "%.2f GB", bytes / 1e9);
    }
    return text;
}

RetryingWriter::RetryingWriter(const ISlotConfiguration& cfg, Waits waits)
    : name_(cfg.GetName()),
      maxSize_(cfg.GetMaxSize()),
      waits_(waits),
      lostAtCloseBefore_(Slot::GetWriteCounts(cfg.GetName()).bytesLostAtClose) {
    // A shared-memory slot is kept itself, for its lock and its count of waiting blocks; it is
    // written as SlotWriter writes (Plain) or with the interruptible lock below. A posix-pipe
    // gets the factory's writer, whose waits are bounded by the pipe's own time-out. The helper
    // owns what it uses: after a stop it may still be waiting for the lock.
    struct Opened {
        SlotCfg cfg;
        ISubscriberPtr writer;
        boost::shared_ptr<ISlot> slot;
    };
    auto opened = std::make_shared<Opened>(Opened{SlotCfg(cfg), {}, {}});
    auto open = [opened] {
        const std::string type = opened->cfg.GetSlotType();
        if (type != "reliable" && type != "discarding") {
            opened->writer = SlotFactory::CreateSlotWriter(&opened->cfg);
            return;
        }
        opened->slot = SlotFactory::CreateSlot(&opened->cfg);
        opened->writer.reset(new SlotWriter(opened->slot));
    };
    try {
        if (OpenSlotInterruptibly(name_, open, -1) != WaitResult::Ready) {
            abandoned_ = true;
            return;
        }
    } catch (const std::exception& e) {
        throw CommandError(ExitFailure, "cannot write to " + Quote(name_) + ": " + e.what());
    }
    writer_ = opened->writer;
    slot_ = opened->slot;
    if (slot_ && opened->cfg.GetSlotType() == "reliable") {
        // The queue's own capacity: an existing queue keeps its size whatever was asked.
        capacity_ = SlotSurvey::InspectSlot(name_).queue.capacity;
    }
}

RetryingWriter::RetryingWriter(const Slot::PoolConfig& config)
    : name_(config.name), maxSize_(config.maxBlockSize) {
    try {
        pool_ = Slot::PoolFactory::CreatePoolWriter(config);
        maxSize_ = pool_->maxBlockSize();  // the creator's, when the pool existed
    } catch (const std::exception& e) {
        throw CommandError(ExitFailure, "cannot write to " + Quote(name_) + ": " + e.what());
    }
}

void RetryingWriter::Close() {
    writer_.reset();
    slot_.reset();
}

std::uint64_t RetryingWriter::BytesLostAtClose() const {
    return Slot::GetWriteCounts(name_).bytesLostAtClose - lostAtCloseBefore_;
}

bool RetryingWriter::Room() const {
    return !slot_ || capacity_ == 0 || slot_->GetBufferLength() < capacity_;
}

Slot::WriteOutcome RetryingWriter::WriteSlot(const char* data, size_t size,
                                             const std::function<bool()>& stopping) {
    if (waits_ == Waits::Plain || !slot_) {
        writer_->onNotify(name_, data, size);
        return Slot::LastWriteOutcome();
    }
    // SlotWriter's write, with its wait for the lock cut into short ones that look for a stop
    // between them: a live process may keep the lock for ever. No helper thread, so that
    // replaying as fast as the slot takes costs nothing per block.
    shared::ILockable& lock = *slot_->GetLockable();
    while (!lock.timed_lock(boost::posix_time::microsec_clock::universal_time() +
                            boost::posix_time::milliseconds(100))) {
        if (stopping()) {
            stoppedWaiting_ = true;
            return Slot::WriteOutcome::None;
        }
    }
    try {
        slot_->WriteData(data, size);
    } catch (...) {
        lock.unlock();
        // The slot kinds record their own outcomes; a write that throws is a failed one.
        shared::RecordWriteOutcome(shared::WriteCountersFor(name_), shared::WriteOutcome::Failed);
        throw;
    }
    lock.unlock();
    slot_->GetOnWriteCondition()->Notify();
    return Slot::LastWriteOutcome();
}

RetryingWriter::Result RetryingWriter::Write(const char* data, size_t size,
                                             const std::function<bool()>& stopping) {
    if (abandoned_) {
        ++lost_;
        return Result::Stopped;
    }
    if (size > maxSize_) {
        ++lost_;
        return Result::TooLarge;
    }
    long pauseUs = 50;
    for (;;) {
        // None: not written yet, the queue is full.
        Slot::WriteOutcome outcome = Slot::WriteOutcome::None;
        if (pool_) {
            // A loan is refused when no block is free; publish when a queue is full.
            Slot::PoolLoan loan = pool_->loan(size);
            if (loan) {
                std::memcpy(loan.data(), data, size);
                outcome = loan.publish(size);
            } else {
                outcome = loan.outcome();
            }
        } else if (Room()) {
            outcome = WriteSlot(data, size, stopping);
            if (stoppedWaiting_) {
                ++lost_;
                return Result::Stopped;
            }
        }
        if (outcome == Slot::WriteOutcome::Stored || outcome == Slot::WriteOutcome::Discarded) {
            ++stored_;
            return Result::Stored;
        }
        if (outcome == Slot::WriteOutcome::Failed) {
            ++lost_;
            return Result::Failed;
        }
        // Refused, or not tried: the slot is full. Its reader makes room.
        ++retries_;
        if (stopping()) {
            ++lost_;
            return Result::Stopped;
        }
        const timespec pause{0, pauseUs * 1000};
        ::nanosleep(&pause, nullptr);
        pauseUs = std::min(pauseUs * 2, 5000L);
    }
}

int ReadRecording(const Arguments& arguments, const std::string& path, int limitMs) {
    const std::string format = arguments.Get("format", "text");
    if (!IsBlockFormat(format)) {
        throw UsageError("read: --format must be text, hex, raw, frames or ndjson, not " +
                         Quote(format));
    }
    const std::uint64_t target = arguments.GetNumber("count", 0, 0, UINT64_MAX >> 1);
    std::uint64_t printed = 0;
    int outputError = 0;
    const mcap::ReadResult result =
        ReadFile(path, [&](const mcap::Message& message, const mcap::Channel&) {
            const std::string block(message.data, message.size);
            if (!WriteOut(FormatBlock(format, block, TimeOf(message.logTime)), limitMs)) {
                outputError = errno;
                return false;
            }
            ++printed;
            return target == 0 || printed < target;
        });
    if (outputError != 0) {
        return OutputFailed(outputError);
    }
    // A stop ends the reading as the callback's wish, with no problem to report.
    if (StopSignals::Received()) {
        return ExitInterrupted;
    }
    if (target != 0 && printed >= target) {
        return ExitOk;
    }
    return ReportEnd(path, result);
}

int RecordingInfo(const std::string& path) {
    struct Counts {
        std::uint64_t blocks = 0, bytes = 0, gaps = 0, first = 0, last = 0;
        std::uint32_t sequence = 0;
    };
    std::map<std::uint16_t, Counts> counts;
    std::uint64_t first = UINT64_MAX, last = 0;
    const mcap::ReadResult result = ReadFile(
        path,
        [&](const mcap::Message& message, const mcap::Channel&) {
            Counts& c = counts[message.channel];
            if (c.blocks != 0 && message.sequence - c.sequence > 1 &&
                message.sequence - c.sequence < 0x80000000u) {
                c.gaps += message.sequence - c.sequence - 1;
            }
            c.first = c.blocks == 0 ? message.logTime : c.first;
            c.last = message.logTime;
            ++c.blocks;
            c.bytes += message.size;
            c.sequence = message.sequence;
            first = std::min(first, message.logTime);
            last = std::max(last, message.logTime);
            return true;
        },
        false);
    // Stopped part way: the counts and the state would describe only what was read.
    if (StopSignals::Received()) {
        return ExitInterrupted;
    }
    std::ostringstream out;
    out << "recording " << Printable(path) << "\n";
    out << "  state:     "
        << (result.complete   ? "complete (summary and footer checked)"
            : result.cutShort ? "not closed (" + result.problem + "); read to its last whole record"
                              : "damaged at byte " + std::to_string(result.problemOffset) + ": " +
                                    Printable(result.problem))
        << "\n";
    out << "  written by: " << Printable(result.library.empty() ? "-" : result.library) << "\n";
    if (result.messages == 0) {
        out << "  blocks:    0\n";
    } else {
        out << "  time:      " << FormatTime(TimeOf(first)) << " to " << FormatTime(TimeOf(last));
        char seconds[32];
        std::snprintf(seconds, sizeof(seconds), " (%.3f s)", (last - first) / 1e9);
        out << seconds << "\n";
        out << "  blocks:    " << result.messages;
        if (result.chunks != 0) {
            out << " in " << result.chunks << " chunk" << (result.chunks == 1 ? "" : "s");
        }
        out << "\n";
    }
    for (const mcap::Channel& channel : result.channels) {
        const Counts& c = counts[channel.id];
        auto value = [&](const char* key) {
            const auto it = channel.metadata.find(key);
            return it == channel.metadata.end() ? std::string("-") : Printable(it->second);
        };
        const bool pool = IsPoolChannel(channel.metadata);
        out << "  channel " << channel.id << ": " << Quote(channel.topic) << " ("
            << ChannelKindText(channel.metadata) << ", max block " << value(meta::MaxBlockSize)
            << (pool ? ", blocks " : ", queue ")
            << value(pool ? meta::BlockCount : meta::QueueLength) << ", host " << value(meta::Host)
            << ", libSlot " << value(meta::Version) << "): " << c.blocks << " block"
            << (c.blocks == 1 ? "" : "s") << ", " << ByteText(c.bytes) << ", " << c.gaps << " gap"
            << (c.gaps == 1 ? "" : "s") << "\n";
    }
    std::cout << out.str() << std::flush;
    return result.problem.empty() || result.cutShort ? ExitOk : ExitFailure;
}

int RunReplay(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("replay", args, {"map", "rate", "topics", "update-time"},
                              {"max", "loop"});
    arguments.ExpectOperands(1, SIZE_MAX, "one or more recordings (FILE.mcap)");
    const double rate = arguments.GetSeconds("rate", 1.0, 1e-3, 1e6);
    const bool max = arguments.Has("max");
    if (max && arguments.Has("rate")) {
        throw UsageError("replay: --max and --rate cannot go together");
    }
    std::map<std::string, std::string> mapping;
    for (const std::string& item : arguments.GetAll("map")) {
        const std::string::size_type equals = item.find('=');
        if (equals == std::string::npos || equals == 0 || equals + 1 == item.size()) {
            throw UsageError("replay: --map takes OLD=NEW, not " + Quote(item));
        }
        CheckSlotName(item.substr(equals + 1));
        mapping[item.substr(0, equals)] = item.substr(equals + 1);
    }
    std::set<std::string> topics;
    if (arguments.Has("topics")) {
        std::string list = arguments.Get("topics");
        std::string::size_type start = 0;
        for (;;) {
            const std::string::size_type comma = list.find(',', start);
            topics.insert(list.substr(start, comma == std::string::npos ? comma : comma - start));
            if (comma == std::string::npos) {
                break;
            }
            start = comma + 1;
        }
    }
    for (const std::string& file : arguments.Operands()) {
        if (!IsRecordingFile(file)) {
            throw UsageError("replay: " + Quote(file) +
                             " is not a recording (a regular file named *.mcap)");
        }
    }

    std::map<std::string, std::unique_ptr<RetryingWriter>> writers;  // by slot name
    std::map<std::string, std::string> kinds;
    bool stopped = false;
    auto stopping = [&] {
        if (!stopped && StopSignals::Received()) {
            stopped = true;
        }
        return stopped;
    };
    // The slot `name` that `channel` goes to, opened (and made, with the recorded kind and sizes)
    // at its first block; throws when it cannot be.
    auto openWriter = [&](const mcap::Channel& channel,
                          const std::string& name) -> RetryingWriter& {
        auto& writer = writers[name];
        if (!writer && IsPoolChannel(channel.metadata)) {
            CheckSlotName(name);
            writer.reset(
                new RetryingWriter(PoolTargetFor("replay", name, RecordedPool(channel, name))));
            kinds[name] = ChannelKindText(channel.metadata);
        }
        if (!writer) {
            CheckSlotName(name);
            CheckSlotTarget("replay", name);
            std::vector<std::string> given;
            if (SlotSurvey::InspectSlot(name).header.state == SlotPartState::Absent) {
                const std::pair<const char*, const char*> fields[] = {
                    {meta::Kind, "--type"},
                    {meta::MaxBlockSize, "--max-size"},
                    {meta::QueueLength, "--queue"}};
                for (const auto& field : fields) {
                    const auto it = channel.metadata.find(field.first);
                    if (it != channel.metadata.end()) {
                        given.push_back(field.second);
                        given.push_back(it->second);
                    }
                }
            }
            if (arguments.Has("update-time")) {
                given.push_back("--update-time");
                given.push_back(arguments.Get("update-time"));
            }
            SlotCfg cfg("", "", boost::posix_time::milliseconds(100), 1, 1);
            try {
                cfg = ResolveSlot(Arguments("replay", given, SlotValuedOptions({}), {}), name);
            } catch (const CommandError& e) {
                throw CommandError(ExitFailure, "cannot replay into " + Quote(name) +
                                                    " (as recorded): " + e.what());
            }
            // Opening and each write end at Ctrl-C also while a live process keeps the lock.
            writer.reset(new RetryingWriter(cfg, RetryingWriter::Waits::Interruptible));
            kinds[name] = TypeName(cfg);
        }
        return *writer;
    };
    // Names a channel could not be replayed into (an invalid name, one of the other kind,
    // metadata that describes nothing valid), with the blocks not written to them. The other
    // channels go on; the reason is said at once, the count in the summary (status 1).
    std::map<std::string, std::uint64_t> refused;
    // The writer of a channel's slot; null when it cannot be had.
    auto writerFor = [&](const mcap::Channel& channel) -> RetryingWriter* {
        const auto mapped = mapping.find(channel.topic);
        const std::string name = mapped == mapping.end() ? channel.topic : mapped->second;
        const auto no = refused.find(name);
        if (no != refused.end()) {
            ++no->second;
            return nullptr;
        }
        try {
            return &openWriter(channel, name);
        } catch (const std::exception& e) {
            writers.erase(name);
            refused[name] = 1;
            std::cerr << "slotctl: " << Printable(e.what()) << std::endl;
            return nullptr;
        }
    };

    int status = ExitOk;
    std::uint64_t tooLarge = 0;
    // Blocks of the current pass: a pass without any ends --loop (it would spin, replaying
    // nothing, until Ctrl-C).
    std::uint64_t passBlocks = 0;
    do {
        passBlocks = 0;
        Pacer pacer(rate);
        for (const std::string& file : arguments.Operands()) {
            const mcap::ReadResult result =
                ReadFile(file, [&](const mcap::Message& message, const mcap::Channel& channel) {
                    if (!topics.empty() && topics.count(channel.topic) == 0) {
                        return true;
                    }
                    if (!max && !pacer.WaitFor(message.logTime, file)) {
                        stopped = true;
                    }
                    if (stopping()) {
                        return false;
                    }
                    RetryingWriter* const writer = writerFor(channel);
                    if (writer == nullptr) {
                        return true;
                    }
                    ++passBlocks;
                    const RetryingWriter::Result written =
                        writer->Write(message.data, message.size, stopping);
                    if (written == RetryingWriter::Result::TooLarge) {
                        ++tooLarge;
                    }
                    if (written == RetryingWriter::Result::Stopped) {
                        stopped = true;
                    }
                    return !stopped;
                });
            if (stopped || result.stopped) {
                stopped = true;
                break;
            }
            status = std::max(status, ReportEnd(file, result));
        }
    } while (arguments.Has("loop") && !stopped && status == ExitOk && passBlocks != 0);

    bool abandoned = false;
    for (const auto& item : writers) {
        RetryingWriter& writer = *item.second;
        abandoned = abandoned || writer.Abandoned();
        writer.Close();
        std::cerr << "slotctl: replayed " << writer.Stored() << " block"
                  << (writer.Stored() == 1 ? "" : "s") << " into " << Quote(item.first) << " ("
                  << kinds[item.first] << ")";
        if (writer.Retries() != 0) {
            std::cerr << ", " << writer.Retries() << " refused writes retried";
        }
        if (writer.Lost() != 0) {
            std::cerr << ", " << writer.Lost() << " not written (too large, failed or interrupted)";
            status = std::max(status, static_cast<int>(ExitFailure));
        }
        if (writer.BytesLostAtClose() != 0) {
            std::cerr << ", " << PipeLossText(writer.BytesLostAtClose());
            status = std::max(status, static_cast<int>(ExitFailure));
        }
        std::cerr << std::endl;
    }
    for (const auto& item : refused) {
        std::cerr << "slotctl: replayed 0 blocks into " << Quote(item.first) << ", " << item.second
                  << " not written (it cannot be replayed into, as said above)" << std::endl;
        status = std::max(status, static_cast<int>(ExitFailure));
    }
    if (writers.empty() && refused.empty()) {
        std::cerr << "slotctl: nothing replayed (no blocks"
                  << (topics.empty() ? "" : " of the topics given") << ")" << std::endl;
    }
    if (tooLarge != 0) {
        std::cerr << "slotctl: " << tooLarge
                  << " blocks were larger than their slot's maximum block size" << std::endl;
    }
    if (abandoned) {
        // A helper thread still waits for a slot's lock: no destructor may wait for it.
        LeaveNow(ExitInterrupted, "");
    }
    return stopped ? ExitInterrupted : status;
}

}  // namespace slotctl
