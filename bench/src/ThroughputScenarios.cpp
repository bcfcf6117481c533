// SPDX-License-Identifier: Apache-2.0
// How many blocks per second get through when writers write as fast as the transport accepts?
#include "ScenarioHarness.h"
#include "SlotAdapters.h"

#include <Slot/SlotFactory.h>

#include <sched.h>
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

namespace {

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

}  // namespace

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
        SendBlock(*sender, block, params.blockSize, seq, inject, false);
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

}  // namespace bench
