// SPDX-License-Identifier: Apache-2.0
// What do many slots in one process pair cost, busy and idle?
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

// paced as in the latency runs.
// One slot of the scale runs: discarding, room for one block.
SlotCfg ScaleConfig(const std::string& name, size_t size, double updateMs) {
    return BenchSlotConfig(name, "discarding", size, 1, updateMs);
}

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

}  // namespace

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
                    const SlotCfg cfg = ScaleConfig(ScaleSlotName(params.name, i), params.blockSize,
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
        const SlotCfg cfg =
            ScaleConfig(ScaleSlotName(params.name, i), params.blockSize, params.updateTimeMs);
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

}  // namespace bench
