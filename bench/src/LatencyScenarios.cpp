// SPDX-License-Identifier: Apache-2.0
// How long does one block take from writer to subscriber, when every block pays a full wake-up?
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

int LatencyReader(const KeyValues& kv, RunParams& params) {
    ChildRun run(kv, params);
    std::unique_ptr<Receiver> receiver = MakeReceiver(params);
    Stopper stop(run.deadline);
    LatencySink sink(params.blockSize, run.count, kv.GetU64("warmup"), 1, params.control, stop,
                     kv.GetU64("pace_bytes", 0));
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
// With `pace_bytes`, each block goes at the pace of a block of that size (PaceWork).
int LatencyWriter(const KeyValues& kv, RunParams& params) {
    ChildRun run(kv, params);
    const std::string inject = kv.Get("inject");
    std::unique_ptr<Sender> sender = MakeSender(params);
    BlockSource source(params.blockSize, params.writerId);
    PaceWork pace(kv.GetU64("pace_bytes", 0), true);
    if (!run.ReadyThenGo() || !sender->Warmup(run.deadline)) {
        return run.GiveUpAndFailRun("no go from the parent, or the transport never connected");
    }
    AckPacer pacer(params.control, kv.GetU64("gap_us", 50));
    const std::uint64_t cpu0 = ProcessCpuNs();
    for (size_t seq = 0; seq < run.count; ++seq) {
        char* block = source.Prepare(seq);
        pace.Fill(seq);
        SendBlock(*sender, block, params.blockSize, seq, inject, true);
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
// Parent entry points

LatencyResult RunLatency(Harness& h, const std::string& transport, size_t size, size_t count,
                         size_t warmup, size_t paceBytes) {
    LatencyResult r;
    r.transport = transport;
    r.size = size;
    r.paceBytes = paceBytes;
    const std::string why = TransportUnavailable(transport);
    if (!why.empty()) {
        return Skip(r, why);
    }
    RunParams params = BaseParams(h, transport, size);
    params.name = RunName(h, paceBytes ? "latp" : "lat", transport, size);
    const std::uint64_t deadlineMs = 30000 + count * 2 + count * (paceBytes >> 20);
    PairOutcome o = RunPair(
        h, params, "lat-reader", "lat-writer",
        {"count=" + std::to_string(count), "warmup=" + std::to_string(warmup),
         "gap_us=" + std::to_string(h.plan.gapUs), "pace_bytes=" + std::to_string(paceBytes)},
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
    r.readerCpuShare = o.reader.GetDouble("cpu_share");
    if (!o.writers.empty()) {
        r.writerCpuNsPerBlock = o.writers[0].GetDouble("cpu_ns_per_block");
    }
    SetOutcome(r, o);
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
    total.readerCpuShare =
        (total.readerCpuShare * a + round.readerCpuShare * b) / std::max(1.0, a + b);
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

}  // namespace bench
