// SPDX-License-Identifier: Apache-2.0
#include "Scenarios.h"
#include "SlotAdapters.h"

#include <Slot/SlotFactory.h>

#include <sched.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <thread>

namespace bench {

// ---------------------------------------------------------------------------------------------
// Plan

size_t Plan::ThroughputBlocks(size_t blockSize) const {
    const size_t byBytes = throughputBytesPerWriter / blockSize;
    return std::min(throughputMaxBlocks, std::max(throughputMinBlocks, byBytes));
}

Plan Plan::Quick() {
    Plan p;
    p.quick = true;
    p.rounds = 1;
    p.latencyCount = 300;
    p.latencyWarmup = 30;
    p.throughputBytesPerWriter = 16ull * 1000 * 1000;
    p.throughputMinBlocks = 200;
    p.throughputMaxBlocks = 3000;
    p.scaleSlots = {1, 10, 100};
    p.scaleCount = 300;
    p.scaleWarmup = 30;
    p.idleMs = 100;
    p.creationCount = 10;
    p.pauseCount = 2;
    p.pauseMs = 20.0;
    p.memcpySeconds = 0.02;
    return p;
}

namespace {

// ---------------------------------------------------------------------------------------------
// Child helpers

void SignalReady(ControlBlock* c) {
    __atomic_add_fetch(&c->ready, 1, __ATOMIC_SEQ_CST);
    FutexWakeAll(&c->ready);
}

// Waits for the parent's go; false when the parent never gave it or a child failed.
bool WaitForGo(ControlBlock* c, std::uint64_t deadlineNs) {
    return FutexWaitWhile(&c->go, 0, deadlineNs) &&
           __atomic_load_n(&c->failed, __ATOMIC_SEQ_CST) == 0;
}

void MarkFailed(ControlBlock* c) {
    __atomic_store_n(&c->failed, 1u, __ATOMIC_SEQ_CST);
    FutexWakeAll(&c->failed);
    FutexWakeAll(&c->ack);
    FutexWakeAll(&c->go);
}

void WriterFinished(ControlBlock* c) {
    __atomic_add_fetch(&c->writersDone, 1, __ATOMIC_SEQ_CST);
}

std::uint64_t DeadlineFromArgs(const KeyValues& kv) {
    return NowNs() + kv.GetU64("deadline_ms", 60000) * 1000000ull;
}

// Base of the receiving sinks: counts deliveries and tells a watcher when to stop.
class CountingSink : public BlockSink {
public:
    std::uint64_t Delivered() const { return delivered_.load(std::memory_order_relaxed); }

protected:
    std::atomic<std::uint64_t> delivered_{0};
};

// Stops the receiver once every writer has finished and nothing has arrived for `graceNs`, or
// when another process failed. The sink stops it earlier when the last block is in.
class Watcher {
public:
    Watcher(ControlBlock* c, unsigned int writers, const CountingSink& sink, Stopper& stop,
            std::uint64_t graceNs)
        : thread_([=, &sink, &stop] {
              std::uint64_t last = sink.Delivered();
              std::uint64_t lastChange = NowNs();
              while (!stop.Stopped() && !quit_.load()) {
                  std::this_thread::sleep_for(std::chrono::milliseconds(10));
                  const std::uint64_t now = NowNs();
                  if (__atomic_load_n(&c->failed, __ATOMIC_SEQ_CST) != 0) {
                      stop.Stop();
                      break;
                  }
                  const std::uint64_t d = sink.Delivered();
                  if (d != last) {
                      last = d;
                      lastChange = now;
                  } else if (__atomic_load_n(&c->writersDone, __ATOMIC_SEQ_CST) >= writers &&
                             now - lastChange > graceNs) {
                      stop.Stop();
                      break;
                  }
              }
          }) {}
    ~Watcher() {
        quit_.store(true);
        thread_.join();
    }

private:
    std::atomic<bool> quit_{false};
    std::thread thread_;
};

// The pause between an acknowledgement and the next block: long enough that the reader is back
// asleep when the block comes, as with sporadic data, so every block pays a full wake-up.
void PaceGap(std::uint64_t us) {
    if (us == 0) {
        return;
    }
    timespec ts = {static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &ts, nullptr);
}

std::uint64_t GraceNs(const RunParams& params) {
    return std::max<std::uint64_t>(2000000000ull,
                                   static_cast<std::uint64_t>(params.updateTimeMs * 2e6));
}

// Hands a block to the sender. Deliberate faults, to show that the checks catch them: with
// `inject` "drop" block 5 is left out, with "corrupt" block 7 goes with one payload byte changed.
void SendBlock(Sender& sender, const char* block, size_t size, std::uint64_t seq,
               const std::string& inject) {
    if (inject == "drop" && seq == 5) {
        return;
    }
    if (inject == "corrupt" && seq == 7) {
        std::vector<char> copy(block, block + size);
        copy[size - 1] ^= 0x5a;
        sender.Send(copy.data(), size);
        return;
    }
    sender.Send(block, size);
}

// A writer of a queueing peer (ZeroMQ) hands its last blocks on while it closes, so it is
// closed before the process ends; slot writers need nothing of the kind.
void CloseSender(const RunParams& params, std::unique_ptr<Sender>& sender) {
    if (params.transport.rfind("slot-", 0) != 0) {
        sender.reset();
    }
}

// Slot readers and writers are not destroyed: a reader's destructor waits up to one update
// time for its thread, and the parent removes every object of the run anyway.
[[noreturn]] void FinishChild(const RunParams& params, int code) {
    std::fflush(nullptr);
    if (params.transport.rfind("slot-", 0) == 0 || params.transport.empty()) {
        std::_Exit(code);
    }
    std::exit(code);
}

// What every latency, throughput and scale child does around its own loop: it reports ready,
// waits for the parent's go, receives under a watcher and saves its results on the way out.
struct ChildRun {
    ChildRun(const KeyValues& args, const RunParams& params)
        : args(args),
          params(params),
          deadline(DeadlineFromArgs(args)),
          count(args.GetU64("count")) {}

    // Tells the parent this child is ready and waits for its go; false when it never came or
    // another process failed.
    bool ReadyThenGo() {
        SignalReady(params.control);
        return WaitForGo(params.control, deadline);
    }

    // For a child that cannot start: the error becomes its result. Returns the exit code.
    int GiveUp(const std::string& error) {
        out.Set("error", error);
        out.Save(args.Get("out"));
        return 3;
    }

    // The same for a writer, which also fails the run so that the reader stops waiting.
    int GiveUpAndFailRun(const std::string& error) {
        const int code = GiveUp(error);
        MarkFailed(params.control);
        return code;
    }

    // Receives until the sink has every block, all `writers` have finished and gone quiet, or
    // another process failed. Without a `receiver` the blocks come on threads of their own.
    // Returns the CPU time of the process meanwhile.
    std::uint64_t Receive(unsigned int writers, CountingSink& sink, Stopper& stop,
                          Receiver* receiver) {
        const std::uint64_t cpu0 = ProcessCpuNs();
        {
            Watcher watcher(params.control, writers, sink, stop, GraceNs(params));
            if (receiver != nullptr) {
                receiver->Run(sink, stop);
            } else {
                stop.Wait();
            }
        }
        return ProcessCpuNs() - cpu0;
    }

    void SetCpuNsPerBlock(std::uint64_t cpuNs) {
        out.SetDouble("cpu_ns_per_block", static_cast<double>(cpuNs) / std::max<double>(1, count));
    }

    // Saves the results and ends the process.
    [[noreturn]] void Finish() {
        out.Save(args.Get("out"));
        FinishChild(params, 0);
    }

    const KeyValues& args;
    const RunParams& params;
    const std::uint64_t deadline;
    const size_t count;  // blocks per writer
    KeyValues out;
};

// The pacing of latency and scale writers: after each block the writer waits up to a second for
// the reader's acknowledgement, then pauses. A block not acknowledged in time is a timeout;
// five of them, or a failure elsewhere, end the run.
class AckPacer {
public:
    AckPacer(ControlBlock* c, std::uint64_t gapUs) : control_(c), gapUs_(gapUs) {}
    // Called after each block; false when the writer should stop.
    bool AwaitAck() {
        ++expectedAcks_;
        if (!FutexWaitAtLeast(&control_->ack, expectedAcks_, NowNs() + 1000000000ull)) {
            ++timeouts_;
            --expectedAcks_;
            if (timeouts_ >= 5 || __atomic_load_n(&control_->failed, __ATOMIC_SEQ_CST)) {
                return false;
            }
        }
        PaceGap(gapUs_);
        return true;
    }
    std::uint64_t Timeouts() const { return timeouts_; }

private:
    ControlBlock* control_;
    std::uint64_t gapUs_;
    std::uint64_t timeouts_ = 0;
    std::uint32_t expectedAcks_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Latency: paced, one block in flight

class LatencySink : public CountingSink {
public:
    LatencySink(size_t blockSize, size_t count, size_t warmup, unsigned int streams,
                ControlBlock* c, Stopper& stop)
        : blockSize_(blockSize),
          count_(count),
          warmup_(warmup),
          stats_(streams),
          control_(c),
          stop_(stop) {
        samples_.reserve(count);
    }
    void OnBlock(const char* data, size_t size) override {
        const std::uint64_t now = NowNs();
        BlockHeader h;
        if (CheckBlock(data, size, blockSize_, &h) != BlockCheck::Ok || h.writer >= stats_.size()) {
            ++corrupt_;
        } else {
            SequenceStats& s = stats_[h.writer];
            const bool inOrder = s.Accept(h.seq);
            ++valid_;
            if (inOrder && valid_ > warmup_) {
                samples_.push_back(now - h.sendNs);
            }
        }
        const std::uint64_t d = delivered_.fetch_add(1) + 1;
        __atomic_store_n(&control_->ack, static_cast<std::uint32_t>(d), __ATOMIC_SEQ_CST);
        FutexWakeAll(&control_->ack);
        if (valid_ + corrupt_ >= count_) {
            stop_.Stop();
        }
    }
    bool SaveSamples(const std::string& path) const {
        FILE* f = std::fopen(path.c_str(), "wb");
        if (f == nullptr) {
            return false;
        }
        const size_t n = std::fwrite(samples_.data(), sizeof(std::uint64_t), samples_.size(), f);
        return std::fclose(f) == 0 && n == samples_.size();
    }
    void Save(KeyValues& out, size_t expectedPerStream) const {
        std::uint64_t lost = 0, dup = 0;
        for (const SequenceStats& s : stats_) {
            dup += s.duplicates;
            // Gaps, plus whatever never came after the last block seen.
            lost += s.lost + (expectedPerStream > s.next ? expectedPerStream - s.next : 0);
        }
        const Percentiles p = ComputePercentiles(samples_);
        out.Set("valid", valid_);
        out.Set("lost", lost);
        out.Set("duplicates", dup);
        out.Set("corrupt", corrupt_);
        out.Set("samples", static_cast<std::uint64_t>(p.count));
        out.SetDouble("p50", p.p50);
        out.SetDouble("p90", p.p90);
        out.SetDouble("p99", p.p99);
        out.SetDouble("p999", p.p999);
        out.SetDouble("max", p.max);
        out.SetDouble("mean", p.mean);
    }

private:
    size_t blockSize_;
    size_t count_;
    size_t warmup_;
    std::vector<SequenceStats> stats_;
    ControlBlock* control_;
    Stopper& stop_;
    std::vector<std::uint64_t> samples_;
    std::uint64_t valid_ = 0;
    std::uint64_t corrupt_ = 0;
};

int LatencyReader(const KeyValues& kv, RunParams& params) {
    ChildRun run(kv, params);
    std::unique_ptr<Receiver> receiver = MakeReceiver(params);
    Stopper stop(run.deadline);
    LatencySink sink(params.blockSize, run.count, kv.GetU64("warmup"), 1, params.control, stop);
    receiver->Attach(sink);
    if (!run.ReadyThenGo()) {
        return run.GiveUp("no go from the parent");
    }
    const std::uint64_t cpu = run.Receive(1, sink, stop, receiver.get());
    sink.Save(run.out, run.count);
    if (!sink.SaveSamples(kv.Get("out") + ".samples")) {
        run.out.Set("error", "cannot write the latency samples");
    }
    run.SetCpuNsPerBlock(cpu);
    run.Finish();
}

// Sends `count` blocks, each only after the reader acknowledged the previous one. A block that
// is not acknowledged within a second counts as lost (the reader's sequence check says so too).
int LatencyWriter(const KeyValues& kv, RunParams& params) {
    ChildRun run(kv, params);
    const std::string inject = kv.Get("inject");
    std::unique_ptr<Sender> sender = MakeSender(params);
    BlockSource source(params.blockSize, params.writerId);
    if (!run.ReadyThenGo() || !sender->Warmup(run.deadline)) {
        return run.GiveUpAndFailRun("no go from the parent, or the transport never connected");
    }
    AckPacer pacer(params.control, kv.GetU64("gap_us", 50));
    const std::uint64_t cpu0 = ProcessCpuNs();
    for (size_t seq = 0; seq < run.count; ++seq) {
        char* block = source.Prepare(seq);
        StampSend(block, NowNs());
        SendBlock(*sender, block, params.blockSize, seq, inject);
        if (!pacer.AwaitAck()) {
            break;
        }
    }
    const std::uint64_t cpu = ProcessCpuNs() - cpu0;
    WriterFinished(params.control);
    const std::uint64_t refusals = sender->Refusals();
    CloseSender(params, sender);
    run.out.Set("timeouts", pacer.Timeouts());
    run.out.Set("refusals", refusals);
    run.SetCpuNsPerBlock(cpu);
    run.Finish();
}

// ---------------------------------------------------------------------------------------------
// Throughput: writers as fast as the transport accepts

class ThroughputSink : public CountingSink {
public:
    ThroughputSink(size_t blockSize, unsigned int writers, size_t perWriter, Stopper& stop)
        : blockSize_(blockSize), stats_(writers), expected_(writers * perWriter), stop_(stop) {}
    void OnBlock(const char* data, size_t size) override {
        const std::uint64_t now = NowNs();
        BlockHeader h;
        if (CheckBlock(data, size, blockSize_, &h) != BlockCheck::Ok || h.writer >= stats_.size()) {
            ++corrupt_;
        } else {
            stats_[h.writer].Accept(h.seq);
            ++valid_;
            if (firstNs_ == 0) {
                firstNs_ = now;
            }
            lastNs_ = now;
        }
        delivered_.fetch_add(1, std::memory_order_relaxed);
        if (valid_ + corrupt_ >= expected_) {
            stop_.Stop();
        }
    }
    void Save(KeyValues& out, size_t perWriter) const {
        std::uint64_t lost = 0, dup = 0;
        for (const SequenceStats& s : stats_) {
            dup += s.duplicates;
            lost += s.lost + (perWriter > s.next ? perWriter - s.next : 0);
        }
        out.Set("valid", valid_);
        out.Set("lost", lost);
        out.Set("duplicates", dup);
        out.Set("corrupt", corrupt_);
        out.Set("first_ns", firstNs_);
        out.Set("last_ns", lastNs_);
    }

private:
    size_t blockSize_;
    std::vector<SequenceStats> stats_;
    std::uint64_t expected_;
    Stopper& stop_;
    std::uint64_t valid_ = 0, corrupt_ = 0, firstNs_ = 0, lastNs_ = 0;
};

int ThroughputReader(const KeyValues& kv, RunParams& params) {
    ChildRun run(kv, params);
    std::unique_ptr<Receiver> receiver = MakeReceiver(params);
    Stopper stop(run.deadline);
    ThroughputSink sink(params.blockSize, params.writers, run.count, stop);
    receiver->Attach(sink);
    if (!run.ReadyThenGo()) {
        return run.GiveUp("no go from the parent");
    }
    run.out.Set("cpu_ns", run.Receive(params.writers, sink, stop, receiver.get()));
    __atomic_store_n(&params.control->reserved[kReaderDoneWord], 1u, __ATOMIC_SEQ_CST);
    FutexWakeAll(&params.control->reserved[kReaderDoneWord]);
    sink.Save(run.out, run.count);
    run.Finish();
}

int ThroughputWriter(const KeyValues& kv, RunParams& params) {
    ChildRun run(kv, params);
    const std::string inject = kv.Get("inject");
    std::unique_ptr<Sender> sender = MakeSender(params);
    BlockSource source(params.blockSize, params.writerId);
    if (!run.ReadyThenGo() || !sender->Warmup(run.deadline)) {
        return run.GiveUpAndFailRun("no go from the parent, or the transport never connected");
    }
    const std::uint64_t cpu0 = ProcessCpuNs();
    const std::uint64_t start = NowNs();
    for (size_t seq = 0; seq < run.count; ++seq) {
        char* block = source.Prepare(seq);
        SendBlock(*sender, block, params.blockSize, seq, inject);
        if ((seq & 1023) == 0 && NowNs() >= run.deadline) {
            break;
        }
    }
    const std::uint64_t end = NowNs();
    const std::uint64_t cpu = ProcessCpuNs() - cpu0;
    WriterFinished(params.control);
    run.out.Set("refusals", sender->Refusals());
    // A queueing peer may still hold blocks that its socket has accepted; keep it open until
    // the reader is done (or gives up), so closing cannot throw them away.
    FutexWaitWhile(&params.control->reserved[kReaderDoneWord], 0,
                   NowNs() + GraceNs(params) + 1000000000ull);
    CloseSender(params, sender);
    run.out.Set("start_ns", start);
    run.out.Set("end_ns", end);
    run.out.Set("cpu_ns", cpu);
    run.Finish();
}

// ---------------------------------------------------------------------------------------------
// Scale: N discarding slots in one writer process and one reader process, written round-robin,
// paced as in the latency runs.

// One slot of the scale runs: discarding, room for one block.
class ScaleConfig : public BenchSlotConfig {
public:
    ScaleConfig(const std::string& name, size_t size, double updateMs)
        : BenchSlotConfig(name, "discarding", size, 1, updateMs) {}
};

std::string ScaleSlotName(const std::string& base, unsigned int i) {
    return base + "_" + std::to_string(i);
}

// Several reader threads deliver at once here (one per slot), so the latency sink is guarded.
class LockedSink : public BlockSink {
public:
    explicit LockedSink(BlockSink& inner) : inner_(inner) {}
    void OnBlock(const char* data, size_t size) override {
        std::lock_guard<std::mutex> lock(mutex_);
        inner_.OnBlock(data, size);
    }

private:
    std::mutex mutex_;
    BlockSink& inner_;
};

int ScaleReader(const KeyValues& kv, RunParams& params) {
    ChildRun run(kv, params);
    const unsigned int slots = static_cast<unsigned int>(kv.GetU64("slots"));
    std::vector<INotifierPtr> readers(slots);
    // Each CreateSlotReader pauses one update time on purpose; made in parallel threads the
    // pauses overlap.
    const std::uint64_t setup0 = NowNs();
    {
        std::vector<std::thread> threads;
        std::atomic<bool> error{false};
        for (unsigned int i = 0; i < slots; ++i) {
            threads.emplace_back([&, i] {
                try {
                    ScaleConfig cfg(ScaleSlotName(params.name, i), params.blockSize,
                                    params.updateTimeMs);
                    readers[i] = SlotFactory::CreateSlotReader(&cfg);
                } catch (const std::exception& e) {
                    std::fprintf(stderr, "slotbench: reader %u: %s\n", i, e.what());
                    error.store(true);
                }
            });
        }
        for (std::thread& t : threads) {
            t.join();
        }
        if (error.load()) {
            throw std::runtime_error("a slot reader could not be created");
        }
    }
    const double setupMs = static_cast<double>(NowNs() - setup0) / 1e6;
    Stopper stop(run.deadline);
    LatencySink sink(params.blockSize, run.count, kv.GetU64("warmup"), slots, params.control, stop);
    LockedSink locked(sink);
    SinkSubscriber subscriber(locked);
    for (INotifierPtr& r : readers) {
        r->subscribe(&subscriber);
    }
    if (!run.ReadyThenGo()) {
        return run.GiveUp("no go from the parent");
    }
    // The slot readers deliver on threads of their own.
    const std::uint64_t cpu = run.Receive(1, sink, stop, nullptr);
    // Idle cost: every reader waiting on its slot, nothing written.
    const std::uint64_t idle0 = ProcessCpuNs();
    const std::uint64_t wall0 = NowNs();
    std::this_thread::sleep_for(std::chrono::milliseconds(kv.GetU64("idle_ms", 1000)));
    const double idlePercent =
        100.0 * static_cast<double>(ProcessCpuNs() - idle0) / static_cast<double>(NowNs() - wall0);
    for (INotifierPtr& r : readers) {
        r->unsubscribe(&subscriber);
    }
    // Blocks spread round-robin: slot i gets count / slots (+1 for the first count % slots).
    // Lost blocks: the parent compares the valid count with what was sent.
    sink.Save(run.out, 0);
    run.SetCpuNsPerBlock(cpu);
    run.out.SetDouble("idle_cpu_percent", idlePercent);
    run.out.SetDouble("setup_ms", setupMs);
    run.Finish();
}

int ScaleWriter(const KeyValues& kv, RunParams& params) {
    ChildRun run(kv, params);
    const unsigned int slots = static_cast<unsigned int>(kv.GetU64("slots"));
    const std::uint64_t setup0 = NowNs();
    std::vector<ISubscriberPtr> writers;
    std::vector<std::unique_ptr<BlockSource>> sources;
    for (unsigned int i = 0; i < slots; ++i) {
        ScaleConfig cfg(ScaleSlotName(params.name, i), params.blockSize, params.updateTimeMs);
        writers.push_back(SlotFactory::CreateSlotWriter(&cfg));
        sources.emplace_back(new BlockSource(params.blockSize, i, 2));
    }
    const double setupMs = static_cast<double>(NowNs() - setup0) / 1e6;
    if (!run.ReadyThenGo()) {
        return run.GiveUpAndFailRun("no go from the parent");
    }
    AckPacer pacer(params.control, kv.GetU64("gap_us", 50));
    std::vector<std::uint64_t> seqs(slots, 0);
    const std::uint64_t cpu0 = ProcessCpuNs();
    for (size_t k = 0; k < run.count; ++k) {
        const unsigned int i = static_cast<unsigned int>(k % slots);
        char* block = sources[i]->Prepare(seqs[i]++);
        StampSend(block, NowNs());
        writers[i]->onNotify(params.name, block, params.blockSize);
        if (!pacer.AwaitAck()) {
            break;
        }
    }
    const std::uint64_t cpu = ProcessCpuNs() - cpu0;
    WriterFinished(params.control);
    run.out.Set("timeouts", pacer.Timeouts());
    run.SetCpuNsPerBlock(cpu);
    run.out.SetDouble("setup_ms", setupMs);
    run.Finish();
}

// ---------------------------------------------------------------------------------------------
// Creation costs

// The slots of the creation runs: room for 16 blocks of 4 KiB.
class CostConfig : public BenchSlotConfig {
public:
    CostConfig(const std::string& name, const std::string& type, double updateMs)
        : BenchSlotConfig(name, type, 4096, 16, updateMs) {}
};

std::string CostName(const std::string& base, const std::string& kind, size_t i) {
    return base + "_" + kind + std::to_string(i);
}

class Timings {
public:
    template <class F>
    void Time(const std::string& op, F f) {
        const std::uint64_t t0 = NowNs();
        f();
        samples_[op].push_back(NowNs() - t0);
        if (std::find(order_.begin(), order_.end(), op) == order_.end()) {
            order_.push_back(op);
        }
    }
    void Save(KeyValues& out) const {
        size_t i = 0;
        for (const std::string& op : order_) {
            const Percentiles p = ComputePercentiles(samples_.at(op));
            const std::string key = "op" + std::to_string(i++);
            out.Set(key + "_name", op);
            out.Set(key + "_count", static_cast<std::uint64_t>(p.count));
            out.SetDouble(key + "_median_ns", p.p50);
            out.SetDouble(key + "_p90_ns", p.p90);
        }
        out.Set("ops", static_cast<std::uint64_t>(order_.size()));
    }
    double Median(const std::string& op) const {
        auto it = samples_.find(op);
        return it == samples_.end() ? 0 : ComputePercentiles(it->second).p50;
    }

private:
    std::map<std::string, std::vector<std::uint64_t>> samples_;
    std::vector<std::string> order_;
};

// First process: makes the slots (the first opener creates the queue and the segment).
int CreateSlots(const KeyValues& kv) {
    const std::string base = kv.Get("name");
    const size_t n = kv.GetU64("count");
    Timings t;
    for (size_t i = 0; i < n; ++i) {
        t.Time("CreateSlot, new reliable slot (creates queue and segment)", [&] {
            CostConfig cfg(CostName(base, "r", i), "reliable", 1000);
            SlotFactory::CreateSlot(&cfg);
        });
        t.Time("CreateSlot, new discarding slot", [&] {
            CostConfig cfg(CostName(base, "d", i), "discarding", 1000);
            SlotFactory::CreateSlot(&cfg);
        });
        t.Time("CreateSlotWriter, new discarding slot", [&] {
            CostConfig cfg(CostName(base, "w", i), "discarding", 1000);
            SlotFactory::CreateSlotWriter(&cfg);
        });
    }
    KeyValues out;
    t.Save(out);
    out.Save(kv.Get("out"));
    return 0;
}

// Second process: opens the slots the first one left in the system.
int OpenSlots(const KeyValues& kv) {
    const std::string base = kv.Get("name");
    const size_t n = kv.GetU64("count");
    const size_t pauses = kv.GetU64("pause_count");
    const double pauseMs = kv.GetDouble("pause_ms");
    Timings t;
    for (size_t i = 0; i < n; ++i) {
        boost::shared_ptr<ISlot> held;
        t.Time("CreateSlot, existing reliable slot (open)", [&] {
            CostConfig cfg(CostName(base, "r", i), "reliable", 1000);
            held = SlotFactory::CreateSlot(&cfg);
        });
        t.Time("CreateSlotWriter, existing discarding slot", [&] {
            CostConfig cfg(CostName(base, "d", i), "discarding", 1000);
            SlotFactory::CreateSlotWriter(&cfg);
        });
        INotifierPtr reader;
        t.Time("CreateSlotReader, discarding, update time 0 (no pause)", [&] {
            CostConfig cfg(CostName(base, "d", i), "discarding", 0);
            reader = SlotFactory::CreateSlotReader(&cfg);
        });
        t.Time("destroy that discarding reader (interrupt, join)", [&] { reader.reset(); });
        t.Time("CreateSlotReader, reliable, update time 0 (no pause)", [&] {
            CostConfig cfg(CostName(base, "r", i), "reliable", 0);
            reader = SlotFactory::CreateSlotReader(&cfg);
        });
        t.Time("destroy that reliable reader (interrupt, join, unlock)", [&] { reader.reset(); });
    }
    const std::string withPause =
        "CreateSlotReader, discarding, update time " + FormatDouble(pauseMs, 0) + " ms";
    for (size_t i = 0; i < pauses; ++i) {
        INotifierPtr reader;
        t.Time(withPause, [&] {
            CostConfig cfg(CostName(base, "d", i), "discarding", pauseMs);
            reader = SlotFactory::CreateSlotReader(&cfg);
        });
        // Waking the reader lets its destructor finish at once instead of after a whole wait.
        CostConfig cfg(CostName(base, "d", i), "discarding", pauseMs);
        boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
        std::thread waker([&] {
            for (int k = 0; k < 200 && reader; ++k) {
                slot->GetOnWriteCondition()->Notify();
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        reader.reset();
        waker.join();
    }
    for (size_t i = 0; i < n; ++i) {
        t.Time("RemoveSlot", [&] { SlotFactory::RemoveSlot(CostName(base, "r", i)); });
    }
    KeyValues out;
    t.Save(out);
    out.SetDouble(
        "pause_measured_ms",
        (t.Median(withPause) - t.Median("CreateSlotReader, discarding, update time 0 (no pause)")) /
            1e6);
    out.Save(kv.Get("out"));
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Parent helpers

std::string ResultPath(const Harness& h, const std::string& run, const std::string& role) {
    return h.tmpDir + "/" + run + "." + role + ".res";
}

struct Child {
    pid_t pid = -1;
    std::string role;
    std::string out;
};

// Waits until `n` children are ready; false when one of them died or the deadline passed.
bool WaitReady(Harness& h, std::uint32_t n, const std::vector<Child>& children,
               std::uint64_t deadlineNs) {
    ControlBlock* c = h.control->Get();
    for (;;) {
        if (FutexWaitAtLeast(&c->ready, n,
                             std::min<std::uint64_t>(deadlineNs, NowNs() + 100000000ull))) {
            return true;
        }
        if (NowNs() >= deadlineNs || __atomic_load_n(&c->failed, __ATOMIC_SEQ_CST) != 0) {
            return false;
        }
        for (const Child& child : children) {
            int status = 0;
            if (waitpid(child.pid, &status, WNOHANG) == child.pid) {
                return false;
            }
        }
    }
}

void Go(Harness& h) {
    __atomic_store_n(&h.control->Get()->go, 1u, __ATOMIC_SEQ_CST);
    FutexWakeAll(&h.control->Get()->go);
}

// Waits for every child; a child that already ended in WaitReady is reaped here too.
std::string FinishChildren(std::vector<Child>& children, std::uint64_t deadlineNs) {
    std::string problem;
    for (Child& c : children) {
        const ChildResult r = WaitChild(c.pid, deadlineNs);
        if (r.timedOut) {
            problem += c.role + " timed out and was killed; ";
        } else if (!r.exited && r.status > 0) {
            problem += c.role + " died of signal " + std::to_string(r.status) + "; ";
        } else if (r.exited && r.status != 0) {
            problem += c.role + " exited with " + std::to_string(r.status) + "; ";
        }
    }
    return problem;
}

std::vector<std::string> ChildArgs(const Harness& h, const std::string& role, const RunParams& s,
                                   const std::string& out, std::uint64_t deadlineMs) {
    std::vector<std::string> args = s.ToArgs();
    args.push_back("role=" + role);
    args.push_back("ctl=" + h.controlName);
    args.push_back("out=" + out);
    args.push_back("deadline_ms=" + std::to_string(deadlineMs));
    if (!h.inject.empty()) {
        args.push_back("inject=" + h.inject);
    }
    return args;
}

KeyValues LoadResult(const std::string& path, std::string& problem) {
    KeyValues kv;
    if (!kv.Load(path)) {
        problem += "no result from " + path.substr(path.rfind('/') + 1) + "; ";
    } else if (kv.Has("error")) {
        problem += kv.Get("error") + "; ";
    }
    std::remove(path.c_str());
    return kv;
}

void RemoveAll(const std::vector<Child>& children) {
    for (const Child& c : children) {
        std::remove(c.out.c_str());
        std::remove((c.out + ".part").c_str());
    }
}

std::string RunName(const Harness& h, const std::string& what, const std::string& transport,
                    size_t size, unsigned int writers = 1) {
    return h.tag + "_" + what + "_" + transport + "_" + std::to_string(size) +
           (writers > 1 ? "_w" + std::to_string(writers) : "");
}

// Starts reader first (it creates or opens the objects), then the writers; lets them go
// together; collects the results. The transport's objects are removed whatever happens.
struct PairOutcome {
    bool skipped = false;  // the transport could not be set up; `problem` says why
    std::string problem;
    KeyValues reader;
    std::vector<KeyValues> writers;
};

PairOutcome RunPair(Harness& h, RunParams& params, const std::string& readerRole,
                    const std::string& writerRole, const std::vector<std::string>& extra,
                    std::uint64_t deadlineMs) {
    PairOutcome outcome;
    h.control->Reset();
    const std::uint64_t deadline = NowNs() + deadlineMs * 1000000ull;
    std::vector<Child> children;
    try {
        PrepareTransport(params);
    } catch (const std::exception& e) {
        outcome.skipped = true;
        outcome.problem = e.what();
        CleanupTransport(params);
        return outcome;
    }
    try {
        Child reader;
        reader.role = readerRole;
        reader.out = ResultPath(h, params.name, "reader");
        std::vector<std::string> args = ChildArgs(h, readerRole, params, reader.out, deadlineMs);
        args.insert(args.end(), extra.begin(), extra.end());
        if (h.pin) {
            args.push_back("cpu=1");
        }
        reader.pid = SpawnChild(
            args, params.fdRead >= 0 ? std::vector<int>{params.fdRead} : std::vector<int>{});
        children.push_back(reader);
        if (!WaitReady(h, 1, children, deadline)) {
            outcome.problem += "the reader did not get ready; ";
        } else {
            for (unsigned int w = 0; w < params.writers; ++w) {
                RunParams ws = params;
                ws.writerId = w;
                Child writer;
                writer.role = writerRole + std::to_string(w);
                writer.out = ResultPath(h, params.name, "writer" + std::to_string(w));
                std::vector<std::string> wargs =
                    ChildArgs(h, writerRole, ws, writer.out, deadlineMs);
                wargs.insert(wargs.end(), extra.begin(), extra.end());
                if (h.pin) {
                    wargs.push_back("cpu=0");
                }
                writer.pid =
                    SpawnChild(wargs, params.fdWrite >= 0 ? std::vector<int>{params.fdWrite}
                                                          : std::vector<int>{});
                children.push_back(writer);
            }
            if (!WaitReady(h, 1 + params.writers, children, deadline)) {
                outcome.problem += "a writer did not get ready; ";
                MarkFailed(h.control->Get());
            }
        }
        // The socket pair now lives in the children only.
        if (params.fdRead >= 0) {
            close(params.fdRead);
            params.fdRead = -1;
        }
        if (params.fdWrite >= 0) {
            close(params.fdWrite);
            params.fdWrite = -1;
        }
        Go(h);
        outcome.problem += FinishChildren(children, deadline + 5000000000ull);
        outcome.reader = LoadResult(children[0].out, outcome.problem);
        for (size_t i = 1; i < children.size(); ++i) {
            outcome.writers.push_back(LoadResult(children[i].out, outcome.problem));
        }
    } catch (const std::exception& e) {
        outcome.problem += e.what();
        MarkFailed(h.control->Get());
        FinishChildren(children, NowNs() + 5000000000ull);
    }
    RemoveAll(children);
    CleanupTransport(params);
    return outcome;
}

// A run that did not take place, and why.
template <class Result>
Result Skip(Result r, const std::string& reason) {
    r.status = Status::Skipped;
    r.reason = reason;
    return r;
}

// The reader's duplicate and corruption counts and the run's status. (What counts as lost
// differs between the scenarios.)
template <class Result>
void SetOutcome(Result& r, const PairOutcome& o) {
    r.duplicates = o.reader.GetU64("duplicates");
    r.corrupt = o.reader.GetU64("corrupt");
    r.status = o.problem.empty() ? Status::Ok : Status::Failed;
    r.reason = o.problem;
}

RunParams BaseParams(const Harness& h, const std::string& transport, size_t size) {
    RunParams s;
    s.transport = transport;
    s.tmpDir = h.tmpDir;
    s.blockSize = size;
    s.depth = h.plan.depth;
    s.updateTimeMs = h.plan.updateMs;
    return s;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Parent entry points

LatencyResult RunLatency(Harness& h, const std::string& transport, size_t size, size_t count,
                         size_t warmup) {
    LatencyResult r;
    r.transport = transport;
    r.size = size;
    const std::string why = TransportUnavailable(transport);
    if (!why.empty()) {
        return Skip(r, why);
    }
    RunParams params = BaseParams(h, transport, size);
    params.name = RunName(h, "lat", transport, size);
    const std::uint64_t deadlineMs = 30000 + count * 2;
    PairOutcome o = RunPair(h, params, "lat-reader", "lat-writer",
                            {"count=" + std::to_string(count), "warmup=" + std::to_string(warmup),
                             "gap_us=" + std::to_string(h.plan.gapUs)},
                            deadlineMs);
    if (o.skipped) {
        return Skip(r, o.problem);
    }
    {
        const std::string path = ResultPath(h, params.name, "reader") + ".samples";
        if (FILE* f = std::fopen(path.c_str(), "rb")) {
            std::uint64_t v;
            while (std::fread(&v, sizeof v, 1, f) == 1) {
                r.samples.push_back(v);
            }
            std::fclose(f);
        }
        std::remove(path.c_str());
    }
    r.p = ComputePercentiles(r.samples);
    r.runs = 1;
    r.lost = o.reader.GetU64("lost", o.problem.empty() ? 0 : count);
    r.readerCpuNsPerBlock = o.reader.GetDouble("cpu_ns_per_block");
    if (!o.writers.empty()) {
        r.writerCpuNsPerBlock = o.writers[0].GetDouble("cpu_ns_per_block");
    }
    SetOutcome(r, o);
    return r;
}

ThroughputResult RunThroughput(Harness& h, const std::string& transport, size_t size,
                               unsigned int writers) {
    ThroughputResult r;
    r.transport = transport;
    r.size = size;
    r.writers = writers;
    const std::string why = TransportUnavailable(transport);
    if (!why.empty()) {
        return Skip(r, why);
    }
    RunParams params = BaseParams(h, transport, size);
    params.name = RunName(h, "tp", transport, size, writers);
    params.writers = writers;
    params.throughput = true;
    const size_t count = h.plan.ThroughputBlocks(size);
    const std::uint64_t deadlineMs = h.plan.quick ? 30000 : 120000;
    PairOutcome o = RunPair(h, params, "tp-reader", "tp-writer", {"count=" + std::to_string(count)},
                            deadlineMs);
    r.depth = params.depth;
    if (o.skipped) {
        return Skip(r, o.problem);
    }
    std::uint64_t start = 0, writerCpu = 0;
    for (const KeyValues& w : o.writers) {
        const std::uint64_t s = w.GetU64("start_ns");
        start = start == 0 ? s : std::min(start, s);
        writerCpu += w.GetU64("cpu_ns");
        r.refusals += w.GetU64("refusals");
    }
    const std::uint64_t last = o.reader.GetU64("last_ns");
    r.blocks = o.reader.GetU64("valid");
    r.seconds = last > start ? static_cast<double>(last - start) / 1e9 : 0;
    if (r.seconds > 0) {
        r.blocksPerSecond = static_cast<double>(r.blocks) / r.seconds;
        r.megabytesPerSecond = r.blocksPerSecond * static_cast<double>(size) / 1e6;
        r.readerCpuPercent =
            100.0 * static_cast<double>(o.reader.GetU64("cpu_ns")) / 1e9 / r.seconds;
        r.writerCpuPercent = 100.0 * static_cast<double>(writerCpu) / 1e9 / r.seconds;
        if (r.blocks > 0) {
            r.readerCpuNsPerBlock = static_cast<double>(o.reader.GetU64("cpu_ns")) / r.blocks;
            r.writerCpuNsPerBlock = static_cast<double>(writerCpu) / r.blocks;
        }
    }
    r.lost = o.reader.GetU64("lost", o.problem.empty() ? 0 : count * writers);
    SetOutcome(r, o);
    return r;
}

ScaleResult RunScale(Harness& h, unsigned int slots) {
    ScaleResult r;
    r.slots = slots;
    RunParams params = BaseParams(h, "slot-discarding", 64);
    params.name = h.tag + "_scale" + std::to_string(slots);
    const size_t count = h.plan.scaleCount;
    const std::uint64_t deadlineMs = 60000 + count * 2 + h.plan.idleMs;
    // The scale roles open their slots themselves; the transport is only named for cleanup.
    RunParams none = params;
    none.transport = "";
    PairOutcome o =
        RunPair(h, none, "scale-reader", "scale-writer",
                {"count=" + std::to_string(count), "warmup=" + std::to_string(h.plan.scaleWarmup),
                 "slots=" + std::to_string(slots), "gap_us=" + std::to_string(h.plan.gapUs),
                 "idle_ms=" + std::to_string(h.plan.idleMs)},
                deadlineMs);
    for (unsigned int i = 0; i < slots; ++i) {
        SlotFactory::RemoveSlot(ScaleSlotName(params.name, i));
    }
    r.p.count = o.reader.GetU64("samples");
    r.p.p50 = o.reader.GetDouble("p50");
    r.p.p90 = o.reader.GetDouble("p90");
    r.p.p99 = o.reader.GetDouble("p99");
    r.p.p999 = o.reader.GetDouble("p999");
    r.p.max = o.reader.GetDouble("max");
    const std::uint64_t valid = o.reader.GetU64("valid");
    r.lost = valid < count ? count - valid : 0;
    r.readerCpuNsPerBlock = o.reader.GetDouble("cpu_ns_per_block");
    r.idleCpuPercent = o.reader.GetDouble("idle_cpu_percent");
    r.readerSetupMs = o.reader.GetDouble("setup_ms");
    if (!o.writers.empty()) {
        r.writerCpuNsPerBlock = o.writers[0].GetDouble("cpu_ns_per_block");
        r.writerSetupMs = o.writers[0].GetDouble("setup_ms");
    }
    SetOutcome(r, o);
    return r;
}

CreationResult RunCreation(Harness& h) {
    CreationResult r;
    const std::string base = h.tag + "_cost";
    const size_t n = h.plan.creationCount;
    const std::uint64_t deadline =
        NowNs() + (60000 + n * 200) * 1000000ull +
        static_cast<std::uint64_t>(h.plan.pauseCount * h.plan.pauseMs * 4e6);
    std::string problem;
    std::vector<KeyValues> parts;
    for (const char* role : {"create-slots", "open-slots"}) {
        Child c;
        c.role = role;
        c.out = ResultPath(h, base, role);
        std::vector<std::string> args = {
            "role=" + std::string(role),
            "name=" + base,
            "count=" + std::to_string(n),
            "pause_count=" + std::to_string(h.plan.pauseCount),
            "pause_ms=" + FormatDouble(h.plan.pauseMs, 3),
            "ctl=" + h.controlName,
            "out=" + c.out,
            "deadline_ms=" + std::to_string((deadline - NowNs()) / 1000000ull)};
        c.pid = SpawnChild(args);
        std::vector<Child> one = {c};
        problem += FinishChildren(one, deadline);
        parts.push_back(LoadResult(c.out, problem));
        RemoveAll(one);
    }
    for (size_t i = 0; i < n; ++i) {
        for (const char* kind : {"r", "d", "w"}) {
            SlotFactory::RemoveSlot(CostName(base, kind, i));
        }
    }
    for (const KeyValues& kv : parts) {
        const size_t ops = kv.GetU64("ops");
        for (size_t i = 0; i < ops; ++i) {
            const std::string key = "op" + std::to_string(i);
            CostRow row;
            row.operation = kv.Get(key + "_name");
            row.count = kv.GetU64(key + "_count");
            row.medianUs = kv.GetDouble(key + "_median_ns") / 1e3;
            row.p90Us = kv.GetDouble(key + "_p90_ns") / 1e3;
            r.rows.push_back(row);
        }
    }
    r.pauseNominalMs = h.plan.pauseMs;
    if (parts.size() == 2) {
        r.pauseMeasuredMs = parts[1].GetDouble("pause_measured_ms");
    }
    r.status = problem.empty() ? Status::Ok : Status::Failed;
    r.reason = problem;
    return r;
}

void MergeLatency(LatencyResult& total, const LatencyResult& round) {
    if (total.runs == 0 && total.status == Status::Skipped && total.reason.empty()) {
        total = round;
        return;
    }
    if (round.status == Status::Skipped) {
        return;
    }
    const double a = total.runs, b = round.runs;
    total.writerCpuNsPerBlock =
        (total.writerCpuNsPerBlock * a + round.writerCpuNsPerBlock * b) / std::max(1.0, a + b);
    total.readerCpuNsPerBlock =
        (total.readerCpuNsPerBlock * a + round.readerCpuNsPerBlock * b) / std::max(1.0, a + b);
    total.runs += round.runs;
    total.samples.insert(total.samples.end(), round.samples.begin(), round.samples.end());
    total.p = ComputePercentiles(total.samples);
    total.lost += round.lost;
    total.duplicates += round.duplicates;
    total.corrupt += round.corrupt;
    if (round.status == Status::Failed) {
        total.status = Status::Failed;
        total.reason += round.reason;
    } else if (total.status == Status::Skipped) {
        total.status = round.status;
    }
}

void MergeThroughput(ThroughputResult& total, const ThroughputResult& round) {
    if (total.roundRates.empty() && total.status == Status::Skipped && total.reason.empty()) {
        total = round;
        total.roundRates.clear();
    } else if (round.status == Status::Skipped) {
        return;
    } else {
        const double n = static_cast<double>(total.roundRates.size());
        total.readerCpuPercent = (total.readerCpuPercent * n + round.readerCpuPercent) / (n + 1);
        total.writerCpuPercent = (total.writerCpuPercent * n + round.writerCpuPercent) / (n + 1);
        total.readerCpuNsPerBlock =
            (total.readerCpuNsPerBlock * n + round.readerCpuNsPerBlock) / (n + 1);
        total.writerCpuNsPerBlock =
            (total.writerCpuNsPerBlock * n + round.writerCpuNsPerBlock) / (n + 1);
        total.blocks += round.blocks;
        total.seconds += round.seconds;
        total.refusals += round.refusals;
        total.lost += round.lost;
        total.duplicates += round.duplicates;
        total.corrupt += round.corrupt;
        if (round.status == Status::Failed) {
            total.status = Status::Failed;
            total.reason += round.reason;
        }
    }
    if (round.status == Status::Ok) {
        total.roundRates.push_back(round.blocksPerSecond);
        std::vector<double> sorted = total.roundRates;
        std::sort(sorted.begin(), sorted.end());
        // Median round (the lower middle one for an even count).
        total.blocksPerSecond = sorted[(sorted.size() - 1) / 2];
        total.megabytesPerSecond = total.blocksPerSecond * static_cast<double>(total.size) / 1e6;
    }
}

std::vector<MemcpyResult> MeasureMemcpy(const Plan& plan) {
    std::vector<MemcpyResult> results;
    const size_t workingSet = 64ull << 20;
    std::vector<char> bigSrc(workingSet / 2, 1), bigDst(workingSet / 2, 2);
    // Warm-up: the first copies after an idle spell run before the core has reached its clock
    // speed and would make the first size look slow.
    {
        const std::uint64_t until = NowNs() + 100000000ull;
        while (NowNs() < until) {
            std::memcpy(bigDst.data(), bigSrc.data(), 1 << 20);
            asm volatile("" : : "r"(bigDst.data()) : "memory");
        }
    }
    for (size_t size : plan.latencySizes) {
        MemcpyResult m;
        m.size = size;
        std::vector<char> src(size, 3);
        // `span` bytes of source and of destination are walked block by block; a span of one
        // block keeps both in cache.
        auto run = [&](size_t span) {
            span = std::max(size, std::min(span, bigSrc.size()) / size * size);
            double best = 0;
            for (int trial = 0; trial < 5; ++trial) {
                size_t copies = 0;
                size_t offset = 0;
                const std::uint64_t t0 = NowNs();
                std::uint64_t t1 = t0;
                const std::uint64_t budget =
                    static_cast<std::uint64_t>(plan.memcpySeconds * 1e9 / 15);
                while (t1 - t0 < budget) {
                    for (int k = 0; k < 64; ++k) {
                        char* d = bigDst.data() + offset;
                        const char* s = bigSrc.data() + offset;
                        std::memcpy(d, s, size);
                        // Keeps the copy from being optimised away.
                        asm volatile("" : : "r"(d) : "memory");
                        offset += size;
                        if (offset + size > span) {
                            offset = 0;
                        }
                    }
                    copies += 64;
                    t1 = NowNs();
                }
                best = std::max(best, static_cast<double>(copies) * static_cast<double>(size) /
                                          static_cast<double>(t1 - t0));
            }
            return best;  // bytes per ns = GB/s
        };
        m.hotGBps = run(size);
        m.queueGBps = run(plan.depth * size);
        m.coldGBps = run(workingSet / 2);
        // The reader's check reads each block once.
        {
            std::uint64_t sink = 0;
            size_t checks = 0;
            const std::uint64_t t0 = NowNs();
            std::uint64_t t1 = t0;
            while (t1 - t0 < static_cast<std::uint64_t>(plan.memcpySeconds * 1e9 / 5)) {
                for (int k = 0; k < 64; ++k) {
                    sink += PayloadChecksum(src.data(), size);
                    asm volatile("" : : "r"(sink) : "memory");
                }
                checks += 64;
                t1 = NowNs();
            }
            m.checksumGBps = static_cast<double>(checks) * static_cast<double>(size) /
                             static_cast<double>(t1 - t0);
        }
        results.push_back(m);
    }
    return results;
}

// ---------------------------------------------------------------------------------------------
// Child entry

int ChildMain(const KeyValues& kv) {
    const std::uint64_t deadlineMs = kv.GetU64("deadline_ms", 60000);
    ArmChildWatchdog(static_cast<unsigned int>(deadlineMs / 1000 + 10));
    // Readers on one core, writers on another (when asked and the machine has two): the
    // scheduler then cannot move both ends onto one core for part of a run and not another.
    const long cpu = std::strtol(kv.Get("cpu", "-1").c_str(), nullptr, 10);
    if (cpu >= 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(static_cast<int>(cpu), &set);
        sched_setaffinity(0, sizeof set, &set);
    }
    ConfigureSlotLogging();
    const std::string role = kv.Get("role");
    std::unique_ptr<ControlSegment> control;
    RunParams params = RunParams::FromArgs(kv);
    try {
        control.reset(new ControlSegment(kv.Get("ctl"), false));
        params.control = control->Get();
        if (role == "lat-reader") {
            return LatencyReader(kv, params);
        }
        if (role == "lat-writer") {
            return LatencyWriter(kv, params);
        }
        if (role == "tp-reader") {
            return ThroughputReader(kv, params);
        }
        if (role == "tp-writer") {
            return ThroughputWriter(kv, params);
        }
        if (role == "scale-reader") {
            return ScaleReader(kv, params);
        }
        if (role == "scale-writer") {
            return ScaleWriter(kv, params);
        }
        if (role == "create-slots") {
            return CreateSlots(kv);
        }
        if (role == "open-slots") {
            return OpenSlots(kv);
        }
        throw std::runtime_error("unknown role " + role);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "slotbench %s (%s): %s\n", role.c_str(), params.transport.c_str(),
                     e.what());
        KeyValues out;
        out.Set("error", role + ": " + e.what());
        out.Save(kv.Get("out"));
        if (params.control != nullptr) {
            MarkFailed(params.control);
        }
        std::fflush(nullptr);
        std::_Exit(3);
    }
}

}  // namespace bench
