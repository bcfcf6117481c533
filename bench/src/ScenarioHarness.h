// SPDX-License-Identifier: Apache-2.0
#pragma once

// What every scenario shares: the child's side of a run (ready, go, receive under a watcher,
// pacing, results) and the parent's (start the reader and the writers, collect, clean up).

#include "Scenarios.h"

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace bench {

// ---------------------------------------------------------------------------------------------
// Child helpers

// ---------------------------------------------------------------------------------------------
// Child helpers
void SignalReady(ControlBlock* c);

// Waits for the parent's go; false when the parent never gave it or a child failed.
bool WaitForGo(ControlBlock* c, std::uint64_t deadlineNs);

void MarkFailed(ControlBlock* c);

void WriterFinished(ControlBlock* c);

std::uint64_t DeadlineFromArgs(const KeyValues& kv);

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
void PaceGap(std::uint64_t us);

// The work around a large block, done beside a small one so that the small one goes at the
// large one's pace: the writer fills `bytes` of its own memory per block from the same
// prepared blocks as a writer of that size, and the reader checks `bytes` of its own. Nothing
// when `bytes` is 0.
class PaceWork {
public:
    PaceWork(size_t bytes, bool writer)
        : source_(writer && bytes != 0 ? std::make_unique<BlockSource>(bytes, 0) : nullptr),
          to_(bytes) {}
    void Fill(std::uint64_t seq) {
        if (source_) {
            std::memcpy(to_.data(), source_->Prepare(seq), to_.size());
        }
    }
    void Check() {
        if (!to_.empty()) {
            sum_ = sum_ + PayloadChecksum(to_.data(), to_.size());
        }
    }

private:
    std::unique_ptr<BlockSource> source_;  // the writer's
    std::vector<char> to_;
    volatile std::uint64_t sum_ = 0;
};

std::uint64_t GraceNs(const RunParams& params);

// Hands a block to the sender: by copy through Send, or, for a transport that lends its memory,
// filled into a loan and published. With `stamp` the send time is stamped into the block just
// before the hand-over (after a loan is filled: filling it is the writer's own work, as making
// the block in its own buffer is for the other transports). Deliberate faults, to show that the
// checks catch them: with `inject` "drop" block 5 is left out, with "corrupt" block 7 goes with
// one payload byte changed.
void SendBlock(Sender& sender, char* block, size_t size, std::uint64_t seq,
               const std::string& inject, bool stamp);

// A writer of a queueing peer (ZeroMQ) hands its last blocks on while it closes, so it is
// closed before the process ends; slot writers need nothing of the kind.
void CloseSender(const RunParams& params, std::unique_ptr<Sender>& sender);

// Slot readers and writers are not destroyed: a reader's destructor waits up to one update
// time for its thread, and the parent removes every object of the run anyway.
[[noreturn]] void FinishChild(const RunParams& params, int code);

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
        const std::uint64_t wall0 = NowNs();
        {
            Watcher watcher(params.control, writers, sink, stop, GraceNs(params));
            if (receiver != nullptr) {
                receiver->Run(sink, stop);
            } else {
                stop.Wait();
            }
        }
        const std::uint64_t cpu = ProcessCpuNs() - cpu0;
        // CPU per second of the receive: what a reader that spins costs a host.
        out.SetDouble("cpu_share", static_cast<double>(cpu) / std::max<double>(1, NowNs() - wall0));
        return cpu;
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

// Receives the paced blocks of the latency and scale runs: checks each, stamps its latency and
// acknowledges it to the writer.
class LatencySink : public CountingSink {
public:
    LatencySink(size_t blockSize, size_t count, size_t warmup, unsigned int streams,
                ControlBlock* c, Stopper& stop, size_t paceBytes = 0)
        : pace_(paceBytes, false),
          blockSize_(blockSize),
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
        pace_.Check();
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
    PaceWork pace_;
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

// ---------------------------------------------------------------------------------------------
// Parent helpers

std::string ResultPath(const Harness& h, const std::string& run, const std::string& role);

struct Child {
    pid_t pid = -1;
    std::string role;
    std::string out;
};

// Waits until `n` children are ready; false when one of them died or the deadline passed.
bool WaitReady(Harness& h, std::uint32_t n, const std::vector<Child>& children,
               std::uint64_t deadlineNs);

void Go(Harness& h);

// Waits for every child; a child that already ended in WaitReady is reaped here too.
std::string FinishChildren(std::vector<Child>& children, std::uint64_t deadlineNs);

std::vector<std::string> ChildArgs(const Harness& h, const std::string& role, const RunParams& s,
                                   const std::string& out, std::uint64_t deadlineMs);

KeyValues LoadResult(const std::string& path, std::string& problem);

void RemoveAll(const std::vector<Child>& children);

std::string RunName(const Harness& h, const std::string& what, const std::string& transport,
                    size_t size, unsigned int writers = 1);

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
                    std::uint64_t deadlineMs);

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

RunParams BaseParams(const Harness& h, const std::string& transport, size_t size);

// ---------------------------------------------------------------------------------------------
// Child entry points

// The child side of each scenario: `kv` holds the child's arguments. Each returns the process
// exit code or ends the process itself (ChildRun::Finish).
int LatencyReader(const KeyValues& kv, RunParams& params);
int LatencyWriter(const KeyValues& kv, RunParams& params);
int ThroughputReader(const KeyValues& kv, RunParams& params);
int ThroughputWriter(const KeyValues& kv, RunParams& params);
int ScaleReader(const KeyValues& kv, RunParams& params);
int ScaleWriter(const KeyValues& kv, RunParams& params);
int CreateSlots(const KeyValues& kv);
int OpenSlots(const KeyValues& kv);

}  // namespace bench
