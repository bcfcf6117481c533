// SPDX-License-Identifier: Apache-2.0
// What do creating and destroying slots, readers and writers cost?
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

// The slots of the creation runs: room for 16 blocks of 4 KiB.
SlotCfg CostConfig(const std::string& name, const std::string& type, double updateMs) {
    return BenchSlotConfig(name, type, 4096, 16, updateMs);
}

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

}  // namespace

// First process: makes the slots (the first opener creates the queue and the segment).
int CreateSlots(const KeyValues& kv) {
    const std::string base = kv.Get("name");
    const size_t n = kv.GetU64("count");
    Timings t;
    for (size_t i = 0; i < n; ++i) {
        t.Time("CreateSlot, new reliable slot (creates queue and segment)", [&] {
            const SlotCfg cfg = CostConfig(CostName(base, "r", i), "reliable", 1000);
            SlotFactory::CreateSlot(&cfg);
        });
        t.Time("CreateSlot, new discarding slot", [&] {
            const SlotCfg cfg = CostConfig(CostName(base, "d", i), "discarding", 1000);
            SlotFactory::CreateSlot(&cfg);
        });
        t.Time("CreateSlotWriter, new discarding slot", [&] {
            const SlotCfg cfg = CostConfig(CostName(base, "w", i), "discarding", 1000);
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
            const SlotCfg cfg = CostConfig(CostName(base, "r", i), "reliable", 1000);
            held = SlotFactory::CreateSlot(&cfg);
        });
        t.Time("CreateSlotWriter, existing discarding slot", [&] {
            const SlotCfg cfg = CostConfig(CostName(base, "d", i), "discarding", 1000);
            SlotFactory::CreateSlotWriter(&cfg);
        });
        INotifierPtr reader;
        t.Time("CreateSlotReader, discarding, update time 0 (no pause)", [&] {
            const SlotCfg cfg = CostConfig(CostName(base, "d", i), "discarding", 0);
            reader = SlotFactory::CreateSlotReader(&cfg);
        });
        t.Time("destroy that discarding reader (interrupt, join)", [&] { reader.reset(); });
        t.Time("CreateSlotReader, reliable, update time 0 (no pause)", [&] {
            const SlotCfg cfg = CostConfig(CostName(base, "r", i), "reliable", 0);
            reader = SlotFactory::CreateSlotReader(&cfg);
        });
        t.Time("destroy that reliable reader (interrupt, join, unlock)", [&] { reader.reset(); });
    }
    const std::string withPause =
        "CreateSlotReader, discarding, update time " + FormatDouble(pauseMs, 0) + " ms";
    for (size_t i = 0; i < pauses; ++i) {
        INotifierPtr reader;
        t.Time(withPause, [&] {
            const SlotCfg cfg = CostConfig(CostName(base, "d", i), "discarding", pauseMs);
            reader = SlotFactory::CreateSlotReader(&cfg);
        });
        // Waking the reader lets its destructor finish at once instead of after a whole wait.
        const SlotCfg cfg = CostConfig(CostName(base, "d", i), "discarding", pauseMs);
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

}  // namespace bench
