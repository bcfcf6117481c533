// SPDX-License-Identifier: Apache-2.0
// slotctl record: reads slots and writes every block that arrives to an MCAP file.
#include "Cli.h"
#include "Commands.h"
#include "HeldReader.h"
#include "Mcap.h"
#include "PoolTarget.h"
#include "Recording.h"
#include "Signals.h"
#include "SlotOptions.h"

#include <Slot/PoolBlock.h>
#include <Slot/SlotActivity.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotReportJson.h>
#include <Slot/SlotSurvey.h>
#include <Slot/Version.h>

#include <FileUtils/FSUtils.h>
#include <shared/FileLock.h>

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <deque>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

namespace slotctl {

namespace {

// Blocks the reader threads may hold for the file before they wait for it (a reliable slot
// then fills and refuses its writers; a discarding one shows gaps).
const size_t MaxBacklogBytes = 64u << 20;

std::uint64_t NowNs() {
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

// A block a reader thread could not write itself, waiting for the main thread.
struct Arrival {
    size_t slot;
    std::uint32_t sequence;
    std::uint64_t time;
    std::string data;  // a buffer of the pool: its capacity may exceed the block
};

// What the reader threads hand to the main thread, which writes the file. The blocks' buffers
// come back to a pool once written, so that a steady stream allocates nothing.
class Backlog {
public:
    Backlog() {
        if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
            throw CommandError(ExitFailure, "cannot make a pipe");
        }
    }
    ~Backlog() {
        ::close(wake_[0]);
        ::close(wake_[1]);
    }
    int WakeFd() const { return wake_[0]; }

    // A copy of the block; false when stopping before there was room.
    bool Put(size_t slot, std::uint32_t sequence, std::uint64_t time, const char* data,
             size_t size) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (bytes_ >= MaxBacklogBytes) {
            heldBack_ = true;
            room_.wait(lock, [&] { return bytes_ < MaxBacklogBytes || stopping_; });
            if (stopping_ && bytes_ >= MaxBacklogBytes) {
                return false;
            }
        }
        bytes_ += size;
        std::string buffer;
        if (!spare_.empty()) {
            buffer.swap(spare_.back());
            spare_.pop_back();
            spareBytes_ -= buffer.capacity();
        }
        // The copy is made without the lock: the main thread may take meanwhile.
        lock.unlock();
        buffer.assign(data, size);
        lock.lock();
        items_.push_back(Arrival{slot, sequence, time, std::move(buffer)});
        // Only the first block after a Take needs to wake the main thread.
        const bool wake = items_.size() == 1;
        lock.unlock();
        if (wake) {
            Wake();
        }
        return true;
    }

    std::deque<Arrival> Take() {
        char drain[256];
        while (::read(wake_[0], drain, sizeof(drain)) > 0) {
        }
        std::deque<Arrival> taken;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            taken.swap(items_);
            for (const Arrival& arrival : taken) {
                bytes_ -= arrival.data.size();
            }
        }
        room_.notify_all();
        return taken;
    }

    // Written blocks: their buffers serve again, up to a bound.
    void Recycle(std::deque<Arrival>& written) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (Arrival& arrival : written) {
            if (spareBytes_ + arrival.data.capacity() <= MaxBacklogBytes / 4) {
                spareBytes_ += arrival.data.capacity();
                spare_.push_back(std::move(arrival.data));
            }
        }
        written.clear();
    }

    // Makes the main thread look (more blocks, the count reached, a failure).
    void Wake() {
        const char byte = 1;
        if (::write(wake_[1], &byte, 1) < 0) {
            // A full wake-up pipe already holds a wake-up.
        }
    }

    void Stop() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        room_.notify_all();
    }
    bool Stopping() {
        std::lock_guard<std::mutex> lock(mutex_);
        return stopping_;
    }
    // Whether the readers ever had to wait for the file.
    bool HeldBack() {
        std::lock_guard<std::mutex> lock(mutex_);
        return heldBack_;
    }

private:
    int wake_[2];
    std::mutex mutex_;
    std::condition_variable room_;
    std::deque<Arrival> items_;
    size_t bytes_ = 0;  // of the blocks put and not yet taken
    std::vector<std::string> spare_;
    size_t spareBytes_ = 0;
    bool heldBack_ = false;
    bool stopping_ = false;
};

struct Source;

// The file and what has been written to it, shared by the main thread and the reader threads
// that write their blocks themselves; `mutex` guards all of it.
struct Sink {
    std::timed_mutex mutex;
    std::function<void(Source&, std::uint32_t, std::uint64_t, const char*, size_t)> store;
    std::string failure;              // why writing the file failed; nothing more is written then
    std::atomic<bool> failed{false};  // failure is set; readable without the mutex
    std::uint64_t total = 0, totalBytes = 0;

    // Under the mutex: the first failure is the one reported.
    void Fail(const std::string& why) {
        if (failure.empty()) {
            failure = why;
        }
        failed = true;
    }
};

// One recorded slot or pool.
struct Source : public shared::ISubscriber {
    // `drains`: a reliable slot's (see HeldReader).
    Source(size_t index, const std::string& name, bool drains, Backlog& backlog, Sink& sink)
        : index(index), name(name), backlog(backlog), sink(sink), held(drains) {}

    // The reader's thread: numbers the block, passes it on to --tee, writes it or queues it.
    void onNotify(const std::string&, const void* data, size_t size) override {
        const std::uint64_t time = NowNs();
        std::uint32_t sequence = lastSequence + 1;
        if (pool) {
            // The block's own number: states this reader never saw show as gaps.
            sequence = static_cast<std::uint32_t>(Slot::CurrentBlockSequence());
        } else if (discarding) {
            // The slot's write counter now: writes this reader never saw show as gaps. A write
            // that lands between the take and this look numbers the block a little high; the
            // next block's number is right again. The writer counts a write just after its
            // block can be taken, so a look may also come one write early: a block's number
            // is exact to one write.
            const SlotActivitySample sample = SlotActivity::Sample(name);
            if (sample.valid &&
                (!numbered || static_cast<std::int32_t>(sample.writeSequence - lastSequence) > 0)) {
                sequence = sample.writeSequence;
            }
        }
        numbered = true;
        lastSequence = sequence;
        const char* bytes = static_cast<const char*>(data);
        // A stop while OTHER stays full ends the passing on: the block in hand is recorded and
        // counted as not passed on, and the reader takes nothing more (a reliable slot keeps
        // the rest), so that no later block is recorded without being passed on.
        bool teeStopped = false;
        if (tee) {
            teeStopped = tee->Write(bytes, size, [&] { return backlog.Stopping(); }) ==
                         RetryingWriter::Result::Stopped;
        }
        if (!Keep(sequence, time, bytes, size) && teeStopped) {
            held.StopHere();
        }
    }

    // Writes the block or queues it; false when the reader was already told to take nothing
    // more (a failed recording).
    bool Keep(std::uint32_t sequence, std::uint64_t time, const char* bytes, size_t size) {
        if (sink.failed) {
            // The recording has failed: this block is lost, and the reader takes nothing more
            // (a reliable slot keeps the rest).
            ++dropped;
            held.StopHere();
            return true;
        }
        // A reliable slot's block is written from here, without a copy, once none of its
        // earlier blocks still waits in the backlog: the bytes are valid during this call, and
        // the slot's lock is not held. Such a reader waits for the file while the main thread
        // writes (its slot's queue holds the writer meanwhile); copying into the backlog instead
        // would keep the main thread writing and every later block copied. A discarding slot's
        // reader never waits for the file: a write meanwhile could be lost. A pool's block is
        // written from here in the same way (a queue pool's reader waits for the file as a
        // reliable slot's does); a latest pool's only when the file is free at once.
        // The main thread holds the file only while it writes a pass, never while it waits
        // for a reader, so a reader's plain lock() ends.
        bool direct = false;
        if (queued == 0 && !discarding) {
            sink.mutex.lock();
            direct = true;
        } else if (queued == 0 && pool) {
            direct = sink.mutex.try_lock();
        }
        if (direct) {
            {
                std::lock_guard<std::timed_mutex> lock(sink.mutex, std::adopt_lock);
                if (sink.failure.empty()) {
                    try {
                        sink.store(*this, sequence, time, bytes, size);
                        return false;
                    } catch (const std::exception& e) {
                        sink.Fail(e.what());
                        backlog.Wake();
                    }
                }
                ++dropped;
            }
            // After the file's lock, which the main thread's stop may wait for: this reader
            // takes nothing more, whoever stops it.
            held.StopHere();
            return true;
        }
        ++queued;
        if (!backlog.Put(index, sequence, time, bytes, size)) {
            --queued;
            ++dropped;
        }
        return false;
    }

    size_t index;
    std::string name;
    std::string kind;  // "reliable", "queue pool", ...
    Metadata metadata;
    std::unique_ptr<SlotCfg> cfg;  // a slot's
    bool pool = false;
    Slot::PoolConfig poolConfig;  // a pool's
    Backlog& backlog;
    Sink& sink;
    bool discarding = false;  // a discarding slot or a latest pool
    // --tee's writer, made (the slot or pool created when missing) only once the recording
    // can start: a run that fails before leaves nothing behind.
    std::function<RetryingWriter*()> makeTee;
    std::unique_ptr<RetryingWriter> tee;
    boost::shared_ptr<ISlot> opened;  // a slot's, opened before any reader starts
    HeldReader held;
    bool started = false;  // the reader was made
    // The reader's thread only.
    bool numbered = false;
    std::uint32_t lastSequence = 0;
    std::atomic<std::uint64_t> dropped{0};
    // Blocks in the backlog, not yet written.
    std::atomic<std::uint64_t> queued{0};
    // Under the sink's mutex.
    std::uint64_t blocks = 0, bytes = 0, gaps = 0;
    bool seen = false;
    std::uint32_t seenSequence = 0;
};

std::string Plural(std::uint64_t n, const char* word) {
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

// "run.mcap" split into "run-000.mcap", "run-001.mcap", ...
std::string PartName(const std::string& path, unsigned part) {
    const std::string stem = EndsWith(path, ".mcap") ? path.substr(0, path.size() - 5) : path;
    char number[16];
    std::snprintf(number, sizeof(number), "-%03u", part);
    return stem + number + ".mcap";
}

// A size with an optional K, M or G (powers of 1024).
std::uint64_t ParseSize(const std::string& text) {
    std::string digits = text;
    std::uint64_t unit = 1;
    if (!digits.empty()) {
        const char last = digits.back();
        unit = last == 'K' || last == 'k' ? 1024u
               : last == 'M'              ? 1024u * 1024u
               : last == 'G'              ? 1024u * 1024u * 1024u
                                          : 1u;
        if (unit != 1) {
            digits.pop_back();
        }
    }
    return ParseNumber(digits, "record: --split-size (bytes, or with K, M or G)", 1,
                       (UINT64_MAX >> 2) / unit) *
           unit;
}

}  // namespace

int RunRecord(const Context&, const std::vector<std::string>& rawArgs) {
    std::vector<std::string> args;
    for (size_t i = 0; i < rawArgs.size(); ++i) {
        // -o is the usual short name of the output.
        args.push_back(rawArgs[i] == "-o" ? "--output" : rawArgs[i]);
        if (rawArgs[i] == "--") {
            args.insert(args.end(), rawArgs.begin() + static_cast<long>(i) + 1, rawArgs.end());
            break;
        }
    }
    const Arguments arguments("record", args,
                              {"output", "split-size", "split-duration", "compression", "duration",
                               "count", "tee", "update-time"},
                              TargetFlags({}));
    arguments.ExpectOperands(1, 1000, "one or more slot or pool names");
    if (!arguments.Has("output")) {
        throw UsageError("record: the output file is missing (-o FILE.mcap)");
    }
    const std::string output = arguments.Get("output");
    const std::string compression = arguments.Get("compression", "none");
    if (compression != "none" && compression != "zstd") {
        throw UsageError("record: --compression must be zstd or none, not " + Quote(compression));
    }
    if (compression == "zstd" && !mcap::ZstdBuiltIn()) {
        throw CommandError(ExitFailure,
                           "record: compression zstd is not built in (this slotctl was built "
                           "without libzstd); use --compression none");
    }
    const std::uint64_t splitSize =
        arguments.Has("split-size") ? ParseSize(arguments.Get("split-size")) : 0;
    const double splitSeconds = arguments.GetSeconds("split-duration", 0, 0.001, 1e9);
    const double seconds = arguments.GetSeconds("duration", 0, 0.001, 1e9);
    const std::uint64_t count = arguments.GetNumber("count", 0, 1, UINT64_MAX >> 1);
    const bool split = splitSize != 0 || splitSeconds != 0;
    const std::vector<std::string>& names = arguments.Operands();
    if (arguments.Has("tee") && names.size() != 1) {
        throw UsageError("record: --tee passes one slot or pool on; give exactly one NAME with it");
    }

    for (size_t i = 0; i < names.size(); ++i) {
        if (std::find(names.begin(), names.begin() + static_cast<long>(i), names[i]) !=
            names.begin() + static_cast<long>(i)) {
            throw UsageError("record: " + Quote(names[i]) + " is named twice");
        }
    }
    Backlog backlog;
    Sink sink;
    std::vector<std::unique_ptr<Source>> sources;
    for (const std::string& name : names) {
        if (arguments.Has("tee")) {
            CheckSlotName(arguments.Get("tee"));
            if (arguments.Get("tee") == name) {
                throw UsageError(
                    "record: --tee must name another slot or pool than the one "
                    "recorded");
            }
        }
        if (MeansPool(arguments, "record", name)) {
            const Slot::PoolReport report = Slot::SurveyPool(name);
            if (!report.exists) {
                throw CommandError(ExitFailure, "cannot record " + Quote(name) + ": no such pool");
            }
            const Slot::PoolConfig config = ResolvePool(arguments, "record", name);
            if (config.kind == "queue" && report.queueReader > 0 &&
                report.Alive(report.queueReader)) {
                // One reader per machine, as for a reliable slot.
                throw CommandError(ExitFailure,
                                   "cannot record " + Quote(name) +
                                       ": the queue pool already has a reader (pid " +
                                       std::to_string(report.queueReader) +
                                       "); a queue pool has one reader, so stop it and let the "
                                       "recorder pass the blocks on with --tee OTHER");
            }
            std::unique_ptr<Source> source(new Source(sources.size(), name, false, backlog, sink));
            source->pool = true;
            source->poolConfig = config;
            source->kind = config.kind + " pool";
            source->metadata = PoolMetadata(config);
            source->discarding = config.kind == "latest";
            if (arguments.Has("tee")) {
                const Slot::PoolConfig teeConfig =
                    PoolTargetFor("record", arguments.Get("tee"), config);
                source->makeTee = [teeConfig] { return new RetryingWriter(teeConfig); };
            }
            sources.push_back(std::move(source));
            continue;
        }
        std::vector<std::string> given;
        if (arguments.Has("update-time")) {
            given = {"--update-time", arguments.Get("update-time")};
        }
        const SlotCfg cfg =
            ResolveSlot(Arguments("record", given, SlotValuedOptions({}), {}), name);
        if (SlotSurvey::InspectSlot(name).header.state == SlotPartState::Absent) {
            throw CommandError(ExitFailure, "cannot record " + Quote(name) + ": no such slot");
        }
        const std::string type = TypeName(cfg);
        if (type == "reliable") {
            // One reader per machine: the recorder must be it.
            const pid_t holder = shared::FileLock::Holder(
                FileUtils::FSUtils::SingletonFileLockNameWithoutCreating(name));
            if (holder > 0) {
                throw CommandError(ExitFailure,
                                   "cannot record " + Quote(name) +
                                       ": the reliable slot already has a reader (pid " +
                                       std::to_string(holder) +
                                       "); a reliable slot has one reader, so stop it and let "
                                       "the recorder pass the blocks on with --tee OTHER");
            }
        }
        sources.emplace_back(new Source(sources.size(), name, type == "reliable", backlog, sink));
        sources.back()->cfg.reset(new SlotCfg(cfg));
        sources.back()->kind = type;
        sources.back()->metadata = SlotMetadata(cfg);
        sources.back()->discarding = type == "discarding";
        if (arguments.Has("tee")) {
            // Of the recorded slot's kind, checked as write checks --type; an existing slot
            // keeps its sizes, a missing one is made with the recorded one's.
            const std::string other = arguments.Get("tee");
            std::vector<std::string> teeGiven = given;
            teeGiven.insert(teeGiven.end(), {"--type", type});
            if (SlotSurvey::InspectSlot(other).header.state == SlotPartState::Absent) {
                teeGiven.insert(teeGiven.end(),
                                {"--max-size", std::to_string(cfg.GetMaxSize()), "--queue",
                                 std::to_string(cfg.GetMaxBufferLength())});
            }
            const SlotCfg teeCfg =
                ResolveSlot(Arguments("record", teeGiven, SlotValuedOptions({}), {}), other);
            sources.back()->makeTee = [teeCfg] {
                return new RetryingWriter(teeCfg, RetryingWriter::Waits::Plain);
            };
        }
    }

    mcap::Writer::Options options;
    options.zstd = compression == "zstd";
    options.library = std::string("slotctl ") + SLOT_VERSION_STRING;
    std::vector<std::string> files;
    std::unique_ptr<mcap::Writer> writer;
    // The next file; an mcap::Error leaves `writer` and `files` as they were.
    auto open = [&] {
        const std::string path =
            split ? PartName(output, static_cast<unsigned>(files.size())) : output;
        std::unique_ptr<mcap::Writer> next(new mcap::Writer(path, options));
        for (const auto& source : sources) {
            next->AddChannel(source->name, "application/octet-stream", source->metadata);
        }
        writer = std::move(next);
        files.push_back(path);
    };
    try {
        open();
    } catch (const mcap::Error& e) {
        throw CommandError(ExitFailure, std::string("record: ") + e.what());
    }
    const auto started = std::chrono::steady_clock::now();
    auto fileStarted = started;
    // Under the sink's mutex, on the main thread or a reader's.
    sink.store = [&](Source& source, std::uint32_t sequence, std::uint64_t time, const char* data,
                     size_t size) {
        const auto now = std::chrono::steady_clock::now();
        // A part that cannot be made or written ends the recording (the caller's catch): the
        // parts before it stay closed and whole.
        // The open chunk counts: up to 1 MiB before compression that Size() leaves out. Closed
        // once the part would reach its size with it, it counts as the bytes it packs to.
        if (split && splitSize != 0 && writer->OpenChunkSize() != 0 &&
            writer->Size() + writer->OpenChunkSize() >= splitSize) {
            writer->EndChunk();
        }
        if (split && writer->Size() > 0 &&
            ((splitSize != 0 && writer->Size() >= splitSize) ||
             (splitSeconds != 0 &&
              std::chrono::duration<double>(now - fileStarted).count() >= splitSeconds))) {
            writer->Close();
            open();
            fileStarted = now;
        }
        if (source.seen && sequence - source.seenSequence > 1) {
            source.gaps += sequence - source.seenSequence - 1;
        }
        source.seen = true;
        source.seenSequence = sequence;
        mcap::Message message;
        message.channel = static_cast<std::uint16_t>(source.index + 1);
        message.sequence = sequence;
        message.logTime = time;
        // Blocks carry no time of their own: published is when it arrived.
        message.publishTime = time;
        message.data = data;
        message.size = size;
        writer->Add(message);
        ++source.blocks;
        source.bytes += size;
        ++sink.total;
        sink.totalBytes += size;
        if (sink.total == count) {
            backlog.Wake();
        }
    };
    // The blocks the reader threads left in the backlog.
    auto storeBacklog = [&] {
        std::deque<Arrival> taken = backlog.Take();
        for (const Arrival& arrival : taken) {
            Source& source = *sources[arrival.slot];
            sink.store(source, arrival.sequence, arrival.time, arrival.data.data(),
                       arrival.data.size());
            --source.queued;
        }
        backlog.Recycle(taken);
    };

    // Once a reader runs, a rotation may change `files`.
    const std::string firstFile = files.front();
    // Before any reader starts: the recording does not start, the files made for it go again.
    auto abandon = [&] {
        writer.reset();
        for (const std::string& file : files) {
            ::unlink(file.c_str());
        }
    };
    // Every slot is opened before any reader starts, so that a slot that cannot be opened (or
    // whose lock a live process keeps, until Ctrl-C) ends the recording before anything is
    // taken from the others. Pools were checked by their survey.
    for (const auto& source : sources) {
        if (source->pool || (source->kind != "reliable" && source->kind != "discarding")) {
            continue;
        }
        try {
            const WaitResult opened = OpenSlotInterruptibly(
                source->name, [&] { source->opened = SlotFactory::CreateSlot(source->cfg.get()); },
                -1);
            if (opened != WaitResult::Ready) {
                abandon();
                LeaveNow(ExitInterrupted, "");
            }
        } catch (const std::exception& e) {
            abandon();
            throw CommandError(ExitFailure,
                               "cannot record " + Quote(source->name) + ": " + e.what());
        }
    }
    for (const auto& source : sources) {
        if (source->makeTee) {
            try {
                source->tee.reset(source->makeTee());
            } catch (...) {
                abandon();
                throw;
            }
            if (source->tee->Abandoned()) {
                abandon();
                LeaveNow(ExitInterrupted, "");
            }
        }
    }
    // A reader that cannot be made now (its slot changed meanwhile) or whose making is
    // interrupted ends the recording as a stop does: what the others took is written, and what
    // the interrupted one took while it started, once its making is over.
    std::string startFailure;
    bool startInterrupted = false;
    bool makingLeft = false;  // an interrupted making still runs, with references to `sources`
    for (const auto& source : sources) {
        if (sink.failed) {
            break;  // a reader already started could not write its block
        }
        try {
            // Subscribed before the reader's thread starts, so that the blocks waiting in a
            // reliable slot are recorded too. Opening waits for the slot's lock, which a live
            // process may keep: that wait still ends on Ctrl-C. The subscriber's last share
            // goes with the reader.
            const ReaderStart start = StartReader(
                [&] {
                    const ISubscriberPtr subscriber = source->held.Share(*source);
                    INotifierPtr reader;
                    try {
                        reader = source->pool
                                     ? Slot::PoolFactory::CreatePoolReader(source->poolConfig,
                                                                           subscriber)
                                     : SlotFactory::CreateSlotReader(source->cfg.get(), subscriber);
                    } catch (...) {
                        source->held.Made(nullptr);
                        throw;
                    }
                    // Its thread may already wait for it, to release it (a failure).
                    source->held.Made(std::move(reader));
                },
                -1,
                source->cfg ? static_cast<int>(source->cfg->GetUpdateTime().total_milliseconds())
                            : 0);
            if (start.wait != WaitResult::Ready) {
                startInterrupted = true;
                source->started = start.made;
                makingLeft = !start.made;
                break;
            }
        } catch (const std::exception& e) {
            startFailure = "cannot record " + Quote(source->name) + ": " + e.what();
            break;
        }
        source->started = true;
        source->opened.reset();
        std::cerr << "slotctl: recording " << Quote(source->name) << " (" << source->kind << ") to "
                  << Printable(firstFile) << std::endl;
    }

    const bool progress = ::isatty(STDERR_FILENO) == 1;
    auto lastProgress = started;
    auto showProgress = [&] {
        std::uint64_t gaps = 0;
        for (const auto& source : sources) {
            gaps += source->gaps;
        }
        std::cerr << "\rslotctl: " << Plural(sink.total, "block") << ", "
                  << ByteText(sink.totalBytes) << ", " << Plural(gaps, "gap") << ", "
                  << Plural(files.size(), "file") << "\x1b[K" << std::flush;
    };

    bool stopped = startInterrupted;
    while (startFailure.empty() && !startInterrupted) {
        int waitMs = 100;
        if (seconds != 0) {
            const double left =
                seconds -
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            if (left <= 0) {
                break;
            }
            waitMs = std::min(waitMs, static_cast<int>(left * 1000) + 1);
        }
        {
            std::lock_guard<std::timed_mutex> lock(sink.mutex);
            if (!sink.failure.empty() || (count != 0 && sink.total >= count)) {
                break;
            }
        }
        if (WaitReadableOrStop(backlog.WakeFd(), waitMs) == WaitResult::Stopped) {
            stopped = true;
            break;
        }
        std::lock_guard<std::timed_mutex> lock(sink.mutex);
        try {
            storeBacklog();
            // Also what the readers wrote themselves reaches the system within one pass.
            writer->Flush(NowNs());
        } catch (const std::exception& e) {
            sink.Fail(e.what());
        }
        const auto now = std::chrono::steady_clock::now();
        if (progress && now - lastProgress >= std::chrono::seconds(1)) {
            showProgress();
            lastProgress = now;
        }
    }
    // Readers stop first; what they took is written too, never dropped. A reader's thread
    // waiting for a slot's lock, or for room in a --tee slot, ends within the bound.
    // After a failure each reader stops at its next block, lost then and counted so, also one
    // stopped here first: a reliable slot keeps the rest.
    backlog.Stop();
    for (const auto& source : sources) {
        if (!source->started) {
            continue;
        }
        // Not RunInterruptibly: the stop signal that ended the loop must not cut this short.
        // A reader released on its own thread may still be ending: it is waited for as well.
        auto stoppedReader = std::make_shared<std::promise<void>>();
        std::future<void> readerStopped = stoppedReader->get_future();
        std::thread stopper([&source, stoppedReader] {
            source->held.Stop();
            source->held.WaitGone(-1);
            stoppedReader->set_value();
        });
        if (readerStopped.wait_for(std::chrono::seconds(5)) == std::future_status::ready) {
            stopper.join();
        } else {
            stopper.detach();
            // A reader stuck inside a write of the file holds it: then the file stays as it is,
            // readable to its last whole record.
            std::string outcome = "is left as it is";
            if (sink.mutex.try_lock_for(std::chrono::seconds(5))) {
                std::lock_guard<std::timed_mutex> lock(sink.mutex, std::adopt_lock);
                try {
                    if (sink.failure.empty()) {
                        storeBacklog();
                        writer->Close();
                        outcome = "is closed";
                    }
                } catch (const mcap::Error&) {
                }
                outcome = Printable(files.back()) + " " + outcome;
            }
            LeaveNow(ExitFailure, "slotctl: a slot's reader did not stop; " + outcome);
        }
    }
    // The readers are gone: the rest is the main thread's.
    std::string failure = sink.failure;
    if (failure.empty()) {
        try {
            storeBacklog();
            writer->Close();
        } catch (const std::exception& e) {
            failure = e.what();
        }
    }
    if (progress) {
        std::cerr << "\r\x1b[K";
    }
    // Taken from a slot or pool and not written: dropped by a reader, or left in the backlog
    // by a failure.
    auto lostOf = [](const Source& source) { return source.dropped + source.queued; };
    std::uint64_t gaps = 0, lost = 0;
    for (const auto& source : sources) {
        gaps += source->gaps;
        lost += lostOf(*source);
    }
    const bool startCut = startInterrupted || !startFailure.empty();
    if (startCut && sink.total == 0 && lost == 0 && failure.empty()) {
        // Nothing was taken: the recording did not start, and its file goes again.
        abandon();
        if (startInterrupted) {
            LeaveNow(ExitInterrupted, "");
        }
        throw CommandError(ExitFailure, startFailure);
    }
    for (const auto& source : sources) {
        std::cerr << "slotctl: recorded " << Quote(source->name) << " (" << source->kind
                  << "): " << Plural(source->blocks, "block") << ", " << ByteText(source->bytes)
                  << ", " << Plural(source->gaps, "gap");
        if (lostOf(*source) != 0) {
            std::cerr << "; " << Plural(lostOf(*source), "block") << " lost (taken, not written)";
        }
        if (source->tee) {
            const RetryingWriter& tee = *source->tee;
            std::cerr << "; passed " << tee.Stored() << " on to " << Quote(tee.Name());
            if (tee.Retries() != 0) {
                std::cerr << " (" << tee.Retries() << " refused writes retried)";
            }
            if (tee.Lost() != 0) {
                std::cerr << ", " << tee.Lost() << " not passed on";
            }
        }
        std::cerr << std::endl;
    }
    const bool keptUp = gaps == 0 && lost == 0 && !backlog.HeldBack() && failure.empty();
    std::cerr << "slotctl: wrote " << Plural(files.size(), "file") << ": "
              << Printable(files.front());
    if (files.size() > 1) {
        std::cerr << " to " << Printable(files.back());
    }
    std::cerr << "; " << (keptUp ? "kept up" : "did not keep up")
              << (stopped ? "; interrupted" : "") << std::endl;
    if (!failure.empty()) {
        if (!startFailure.empty()) {
            std::cerr << "slotctl: " << Printable(startFailure) << std::endl;
        }
        if (makingLeft) {
            // Nothing may be destroyed under the making that still runs.
            LeaveNow(ExitFailure, "slotctl: " + Printable("record: " + failure));
        }
        throw CommandError(ExitFailure, "record: " + failure);
    }
    if (!startFailure.empty()) {
        throw CommandError(ExitFailure, startFailure);
    }
    if (makingLeft) {
        LeaveNow(ExitInterrupted, "");
    }
    // A block recorded and not passed on (too large, failed, or a stop while OTHER was full)
    // is a loss for OTHER's consumer, as replay's blocks not written are.
    for (const auto& source : sources) {
        if (source->tee && source->tee->Lost() != 0) {
            return ExitFailure;
        }
    }
    return startInterrupted ? ExitInterrupted : ExitOk;
}

}  // namespace slotctl
