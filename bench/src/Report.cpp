// SPDX-License-Identifier: Apache-2.0
// Markdown tables and gnuplot data of one benchmark run. Every figure stands next to the floor
// and the peers of the same run as a ratio: absolute numbers drift with the machine's load.
#include "Scenarios.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

namespace bench {

namespace {

std::string Label(const std::string& transport) {
    const TransportInfo* t = FindTransport(transport);
    return t != nullptr ? t->label : transport;
}

std::string SizeText(size_t size) {
    if (size >= (1u << 20) && size % (1u << 20) == 0) {
        return std::to_string(size >> 20) + " MiB";
    }
    if (size >= 1024 && size % 1024 == 0) {
        return std::to_string(size / 1024) + " KiB";
    }
    return std::to_string(size) + " B";
}

std::string Us(double ns) {
    const double us = ns / 1e3;
    return FormatDouble(us, us < 10 ? 2 : (us < 100 ? 1 : 0));
}

std::string Ratio(double a, double b) {
    if (!(a > 0) || !(b > 0)) {
        return "–";
    }
    const double r = a / b;
    return FormatDouble(r, r < 10 ? 2 : 1) + "×";
}

std::string Percent(double r) {
    return FormatDouble(100.0 * r, 0) + " %";
}

std::string Big(double v) {
    if (v >= 1e6) {
        return FormatDouble(v / 1e6, 2) + " M";
    }
    if (v >= 1e3) {
        return FormatDouble(v / 1e3, 1) + " k";
    }
    return FormatDouble(v, 0);
}

const LatencyResult* FindLatency(const Results& r, const std::string& t, size_t size) {
    for (const LatencyResult& l : r.latency) {
        if (l.transport == t && l.size == size && l.status == Status::Ok) {
            return &l;
        }
    }
    return nullptr;
}

// The 64 B row of a transport sent at the pace of `pace`-byte blocks.
const LatencyResult* FindPacedLatency(const Results& r, const std::string& t, size_t pace) {
    for (const LatencyResult& l : r.pacedLatency) {
        if (l.transport == t && l.paceBytes == pace && l.status == Status::Ok) {
            return &l;
        }
    }
    return nullptr;
}

const ThroughputResult* FindThroughput(const Results& r, const std::string& t, size_t size,
                                       unsigned int writers) {
    for (const ThroughputResult& x : r.throughput) {
        if (x.transport == t && x.size == size && x.writers == writers && x.status == Status::Ok) {
            return &x;
        }
    }
    return nullptr;
}

const MemcpyResult* FindMemcpy(const Results& r, size_t size) {
    for (const MemcpyResult& m : r.memcpy) {
        if (m.size == size) {
            return &m;
        }
    }
    return nullptr;
}

// Bound on slot throughput in MB/s: each block is copied kSlotCopiesPerBlock times, one copy
// after the other, at the memcpy bandwidth measured for its size.
enum class Span { Hot, Queue, Dram };

double SlotBoundMBps(const Results& r, size_t size, Span span) {
    const MemcpyResult* m = FindMemcpy(r, size);
    if (m == nullptr) {
        return 0;
    }
    const double gbps =
        span == Span::Hot ? m->hotGBps : (span == Span::Queue ? m->queueGBps : m->coldGBps);
    return gbps * 1e3 / kSlotCopiesPerBlock;
}

std::string StatusText(Status s, const std::string& reason) {
    switch (s) {
        case Status::Ok:
            return "ok";
        case Status::Skipped:
            return "skipped: " + reason;
        case Status::Failed:
            return "FAILED: " + reason;
    }
    return "";
}

const char* kSlotKinds[] = {"slot-discarding", "slot-reliable", "slot-posix-pipe", "slot-spinning"};

void WriteTargets(std::ostream& md, const Results& r) {
    md << "## Targets\n\n"
       << "| target | measured in this run | goal | verdict |\n"
       << "|---|---|---|---|\n";
    const LatencyResult* floor = FindLatency(r, "floor-condvar", 64);
    for (const char* kind : kSlotKinds) {
        const LatencyResult* s = FindLatency(r, kind, 64);
        if (s == nullptr || floor == nullptr) {
            md << "| " << Label(kind) << ": p50 latency at 64 B vs condvar floor | not measured | "
               << "≤ 1.3× | – |\n";
            continue;
        }
        const double ratio = s->p.p50 / floor->p.p50;
        md << "| " << Label(kind) << ": p50 latency at 64 B vs condvar floor | " << Us(s->p.p50)
           << " µs vs " << Us(floor->p.p50) << " µs = " << Ratio(s->p.p50, floor->p.p50)
           << " | ≤ 1.3× | " << (ratio <= 1.3 ? "met" : "**missed**") << " |\n";
        for (const char* peer : {"posix-mq", "fifo", "uds", "zmq"}) {
            const LatencyResult* p = FindLatency(r, peer, 64);
            if (p == nullptr) {
                md << "| " << Label(kind) << ": p50 at 64 B vs " << Label(peer)
                   << " | peer not measured | ≤ 1.0× | – |\n";
                continue;
            }
            const double pr = s->p.p50 / p->p.p50;
            md << "| " << Label(kind) << ": p50 at 64 B vs " << Label(peer) << " | " << Us(s->p.p50)
               << " µs vs " << Us(p->p.p50) << " µs = " << Ratio(s->p.p50, p->p.p50)
               << " | ≤ 1.0× | " << (pr <= 1.0 ? "met" : "**missed**") << " |\n";
        }
    }
    // The spinning reader buys its latency with a core: its CPU stands beside the figure.
    const LatencyResult* spin = FindLatency(r, "slot-spinning", 64);
    const LatencyResult* mqLatency = FindLatency(r, "posix-mq", 64);
    if (spin == nullptr || mqLatency == nullptr) {
        md << "| " << Label("slot-spinning") << ": p50 at 64 B vs " << Label("posix-mq")
           << ", with the reader's CPU | not measured | ≤ 0.5× | – |\n";
    } else {
        const double sr = spin->p.p50 / mqLatency->p.p50;
        md << "| " << Label("slot-spinning") << ": p50 at 64 B vs " << Label("posix-mq")
           << ", with the reader's CPU | " << Us(spin->p.p50) << " µs vs " << Us(mqLatency->p.p50)
           << " µs = " << Ratio(spin->p.p50, mqLatency->p.p50) << "; reader CPU "
           << Us(spin->readerCpuNsPerBlock) << " µs/block, " << Percent(spin->readerCpuShare)
           << " of a core (ordinary reliable reader: "
           << (FindLatency(r, "slot-reliable", 64)
                   ? Us(FindLatency(r, "slot-reliable", 64)->readerCpuNsPerBlock) + " µs/block, " +
                         Percent(FindLatency(r, "slot-reliable", 64)->readerCpuShare)
                   : std::string("–"))
           << ") | ≤ 0.5× | " << (sr <= 0.5 ? "met" : "**missed**") << " |\n";
    }
    const ThroughputResult* big = FindThroughput(r, "slot-reliable", 65536, 1);
    if (big != nullptr && SlotBoundMBps(r, 65536, Span::Hot) > 0) {
        struct Bound {
            Span span;
            const char* what;
            bool target;
        };
        const Bound bounds[] = {
            {Span::Hot, "memcpy with source and destination in cache (strictest)", true},
            {Span::Queue, "memcpy over a slot queue's worth of memory (depth × 64 KiB)", true},
            {Span::Dram, "memcpy over 64 MiB (memory-bound)", false}};
        for (const Bound& b : bounds) {
            const double bound = SlotBoundMBps(r, 65536, b.span);
            const double share = big->megabytesPerSecond / bound;
            md << "| reliable slot, 64 KiB blocks, 1 writer: throughput vs bound = " << b.what
               << " ÷ " << kSlotCopiesPerBlock << " copies | "
               << FormatDouble(big->megabytesPerSecond, 0) << " MB/s vs " << FormatDouble(bound, 0)
               << " MB/s = " << Percent(share) << " | "
               << (b.target ? "≥ 80 % | " : "(information) | ")
               << (b.target ? (share >= 0.8 ? "met" : "**missed**") : "–") << " |\n";
        }
        const MemcpyResult* m = FindMemcpy(r, 65536);
        if (m != nullptr && m->checksumGBps > 0) {
            // The subscriber runs on the slot's reader thread, so the benchmark's own check of
            // every block is paid there too.
            const double withCheck =
                1e3 / (kSlotCopiesPerBlock / m->hotGBps + 1.0 / m->checksumGBps);
            md << "| same, bound = hot memcpy ÷ " << kSlotCopiesPerBlock
               << " copies plus the benchmark's check of each block on the reader thread | "
               << FormatDouble(big->megabytesPerSecond, 0) << " MB/s vs "
               << FormatDouble(withCheck, 0)
               << " MB/s = " << Percent(big->megabytesPerSecond / withCheck)
               << " | (information) | – |\n";
        }
    } else {
        md << "| reliable slot, 64 KiB: throughput vs memcpy bound | not measured | ≥ 80 % | – |\n";
    }
    const ThroughputResult* small = FindThroughput(r, "slot-reliable", 64, 1);
    const ThroughputResult* mq = FindThroughput(r, "posix-mq", 64, 1);
    if (small != nullptr && mq != nullptr) {
        const double ratio = small->blocksPerSecond / mq->blocksPerSecond;
        md << "| reliable slot, 64 B blocks, 1 writer: blocks/s vs raw POSIX mq | "
           << Big(small->blocksPerSecond) << " vs " << Big(mq->blocksPerSecond) << " = "
           << Ratio(small->blocksPerSecond, mq->blocksPerSecond) << " | ≥ 1.0× | "
           << (ratio >= 1.0 ? "met" : "**missed**") << " |\n";
    } else {
        md << "| reliable slot, 64 B: blocks/s vs POSIX mq | not measured | ≥ 1.0× | – |\n";
    }
    md << "\n";
}

// The block sizes that large-block transports are compared at.
const size_t kComparedSizes[] = {64, 65536, 1u << 20, 4u << 20};
constexpr size_t kSmall = 64, kLarge = 4u << 20, kThroughputSize = 1u << 20;

void WriteSizes(std::ostream& md, const Results& r) {
    md << "## Block sizes side by side\n\n"
       << "The transports measured with blocks above 64 KiB, at the sizes they are compared at, "
          "from the latency and throughput sections of this run (throughput: 1 writer, median "
          "round). The memcpy row is one copy in one process over a slot queue's worth of "
          "memory (depth × block, at most 32 MiB): the cost of each copy a transport makes.\n\n"
       << "| transport | block | p50 µs | p99 µs | MB/s | p50 ÷ own p50 at 64 B |\n"
       << "|---|---:|---:|---:|---:|---:|\n";
    for (const TransportInfo& t : Transports()) {
        if (t.maxBlock != 0) {
            continue;
        }
        const LatencyResult* small = FindLatency(r, t.name, kSmall);
        for (size_t size : kComparedSizes) {
            const LatencyResult* l = FindLatency(r, t.name, size);
            const ThroughputResult* x = FindThroughput(r, t.name, size, 1);
            if (l == nullptr && x == nullptr) {
                continue;
            }
            md << "| " << t.label << " | " << SizeText(size) << " | " << (l ? Us(l->p.p50) : "–")
               << " | " << (l ? Us(l->p.p99) : "–") << " | "
               << (x ? FormatDouble(x->megabytesPerSecond, 0) : "–") << " | "
               << (l && small ? Ratio(l->p.p50, small->p.p50) : "–") << " |\n";
        }
        if (const LatencyResult* l = FindPacedLatency(r, t.name, kLarge)) {
            md << "| " << t.label << " | 64 B at the " << SizeText(kLarge) << " pace | "
               << Us(l->p.p50) << " | " << Us(l->p.p99) << " | – | "
               << (small ? Ratio(l->p.p50, small->p.p50) : "–") << " |\n";
        }
    }
    for (size_t size : kComparedSizes) {
        const MemcpyResult* m = FindMemcpy(r, size);
        if (m == nullptr || !(m->queueGBps > 0)) {
            continue;
        }
        const double ns = static_cast<double>(size) / m->queueGBps;
        md << "| memcpy, one copy | " << SizeText(size) << " | " << Us(ns) << " | – | "
           << FormatDouble(m->queueGBps * 1e3, 0) << " | – |\n";
    }
    md << "\n";
}

}  // namespace

TargetRatios ComputeTargetRatios(const Results& r, const std::string& transport) {
    TargetRatios t;
    const LatencyResult* small = FindLatency(r, transport, kSmall);
    const LatencyResult* large = FindLatency(r, transport, kLarge);
    const LatencyResult* reliable = FindLatency(r, "slot-reliable", kSmall);
    const LatencyResult* floor = FindLatency(r, "floor-spin", kSmall);
    const ThroughputResult* own = FindThroughput(r, transport, kThroughputSize, 1);
    const ThroughputResult* iceoryx = FindThroughput(r, "iceoryx", kThroughputSize, 1);
    auto ratio = [](double a, double b) { return a > 0 && b > 0 ? a / b : 0.0; };
    if (small != nullptr) {
        t.flat = large ? ratio(large->p.p50, small->p.p50) : 0;
        t.vsReliable = reliable ? ratio(small->p.p50, reliable->p.p50) : 0;
        t.vsFloor = floor ? ratio(small->p.p50, floor->p.p50) : 0;
    }
    const LatencyResult* paced = FindPacedLatency(r, transport, kLarge);
    if (large != nullptr && paced != nullptr) {
        t.flatPaced = ratio(large->p.p50, paced->p.p50);
    }
    if (own != nullptr && iceoryx != nullptr) {
        t.vsIceoryx = ratio(own->megabytesPerSecond, iceoryx->megabytesPerSecond);
    }
    return t;
}

namespace {

// "1.23× met", "4.56× **missed**", or "–" when a figure is missing; no verdict without a goal.
std::string Verdict(double ratio, double goal, bool atMost, bool hasGoal = true) {
    if (!(ratio > 0)) {
        return "–";
    }
    const std::string text = FormatDouble(ratio, ratio < 10 ? 2 : 1) + "×";
    if (!hasGoal) {
        return text;
    }
    const bool met = atMost ? ratio <= goal : ratio >= goal;
    return text + (met ? " met" : " **missed**");
}

void WriteTargetRatios(std::ostream& md, const Results& r) {
    md << "## Ratios set as targets for zero-copy transports\n\n"
       << "For every transport of this run, the ratios that a zero-copy transport is held to, "
          "all from this run: p50 latency at 4 MiB ÷ its own p50 at 64 B (flat in the block "
          "size: ≤ 1.5×), with the 64 B blocks sent back to back as in the latency section, and "
          "with them sent at the 4 MiB pace (the writer fills and the reader checks 4 MiB of "
          "its own memory around each, so that only the size handed over differs: see the "
          "latency section); throughput at 1 MiB, 1 writer ÷ iceoryx's (≥ 1.0×); p50 at 64 B ÷ the "
          "reliable slot's (≤ 1.0×); p50 at 64 B ÷ the spinning floor's (≤ 3×, a goal for "
          "readers that busy-poll; shown without a verdict for the others). The slots and the "
          "peers are here for reference: the goals are the zero-copy transports' own.\n\n"
       << "| transport | p50 4 MiB ÷ p50 64 B | the same, 64 B at the 4 MiB pace | "
          "MB/s 1 MiB ÷ iceoryx | p50 64 B ÷ slot reliable | p50 64 B ÷ spinning floor |\n"
       << "|---|---:|---:|---:|---:|---:|\n";
    for (const TransportInfo& t : Transports()) {
        bool any = false;
        for (size_t size : r.plan.AllSizes()) {
            any = any || FindLatency(r, t.name, size) || FindThroughput(r, t.name, size, 1);
        }
        if (!any) {
            continue;
        }
        const TargetRatios x = ComputeTargetRatios(r, t.name);
        md << "| " << t.label << " | " << Verdict(x.flat, 1.5, true) << " | "
           << Verdict(x.flatPaced, 1.5, true) << " | " << Verdict(x.vsIceoryx, 1.0, false) << " | "
           << Verdict(x.vsReliable, 1.0, true) << " | " << Verdict(x.vsFloor, 3.0, true, t.spinning)
           << " |\n";
    }
    md << "\n";
}

// The 64 B rows sent at the pace of the largest size, beside that size's own rows.
void WritePacedLatency(std::ostream& md, const Results& r) {
    if (r.pacedLatency.empty()) {
        return;
    }
    const size_t pace = r.pacedLatency.front().paceBytes;
    md << "### 64 B blocks at the " << SizeText(pace) << " pace\n\n"
       << "Each row above moves its blocks at its own pace: a " << SizeText(pace)
       << " block takes the writer a fill and the reader a check of " << SizeText(pace)
       << " around each hand-over, so both sleep longer between blocks than at 64 B. Here 64 B "
          "blocks go at the "
       << SizeText(pace) << " pace: before each block the writer fills " << SizeText(pace)
       << " of its own memory, and after its time stamp the reader checks " << SizeText(pace)
       << " of its own, as each does with a block of that size. Beside the " << SizeText(pace)
       << " row, only the size of the block handed over differs. Same counts as the "
       << SizeText(pace) << " rows.\n\n"
       << "| transport | p50 | p99 | p99.9 | max | own " << SizeText(pace) << " p50 ÷ this p50 |\n"
       << "|---|---:|---:|---:|---:|---:|\n";
    for (const LatencyResult& l : r.pacedLatency) {
        if (l.status != Status::Ok) {
            md << "| " << Label(l.transport) << " | " << StatusText(l.status, l.reason)
               << " | | | | |\n";
            continue;
        }
        const LatencyResult* large = FindLatency(r, l.transport, pace);
        md << "| " << Label(l.transport) << " | " << Us(l.p.p50) << " | " << Us(l.p.p99) << " | "
           << Us(l.p.p999) << " | " << Us(l.p.max) << " | "
           << (large ? Ratio(large->p.p50, l.p.p50) : "–") << " |\n";
    }
    md << "\n";
}

void WriteLatency(std::ostream& md, const Results& r) {
    md << "## One-way latency, paced\n\n"
       << "From just before the writer hands the block over (`SlotWriter::onNotify` for slots) "
          "to the start of the subscriber's `onNotify` in the reader process (CLOCK_MONOTONIC "
          "stamped into the block). The next block is written only after the reader "
          "acknowledged the previous one, and then after a pause of "
       << r.plan.gapUs
       << " µs, so that queues never fill and the reader is back asleep when each block comes "
          "(every block pays a full wake-up, as sporadic data does). "
       << r.plan.latencyCount << " blocks per row in " << r.plan.rounds
       << " round(s) (each round visits every transport and size before the next begins; the "
          "samples are merged), the first "
       << r.plan.latencyWarmup << " not counted; rows of blocks above 64 KiB carry at most "
       << r.plan.latencyBytes / (1u << 20) << " MiB and at least " << r.plan.latencyLeastCount
       << " blocks (the warm-up scaled alike), so their p99.9 is rough. µs; ratios against the "
          "condvar floor of the same size. CPU per block includes the pacing (the writer's pause "
          "and its wait for the acknowledgement). The spinning floor hands a 64-byte block over "
          "through one cache line of shared memory: the writer stores the block and then its "
          "sequence number, the reader spins on that word and checks the block in place, with "
          "no lock and no system call (the acknowledgement back is the harness's, as for every "
          "row, and not timed).\n\n";
    for (size_t size : r.plan.latencySizes) {
        const LatencyResult* floor = FindLatency(r, "floor-condvar", size);
        md << "### " << SizeText(size) << " blocks (" << r.plan.LatencyCount(size)
           << " per row)\n\n"
           << "| transport | p50 | p99 | p99.9 | max | p50 ÷ floor | p99 ÷ floor | "
              "writer CPU µs/block | reader CPU µs/block |\n"
           << "|---|---:|---:|---:|---:|---:|---:|---:|---:|\n";
        for (const LatencyResult& l : r.latency) {
            if (l.size != size) {
                continue;
            }
            if (l.status != Status::Ok) {
                md << "| " << Label(l.transport) << " | " << StatusText(l.status, l.reason)
                   << " | | | | | | | |\n";
                continue;
            }
            md << "| " << Label(l.transport) << " | " << Us(l.p.p50) << " | " << Us(l.p.p99)
               << " | " << Us(l.p.p999) << " | " << Us(l.p.max) << " | "
               << (floor ? Ratio(l.p.p50, floor->p.p50) : "–") << " | "
               << (floor ? Ratio(l.p.p99, floor->p.p99) : "–") << " | " << Us(l.writerCpuNsPerBlock)
               << " | " << Us(l.readerCpuNsPerBlock) << " |\n";
        }
        md << "\n";
    }
    WritePacedLatency(md, r);
    // Slot against every peer, p50.
    std::vector<std::string> peers;
    for (const TransportInfo& t : Transports()) {
        if (!t.isSlot && t.latency) {
            peers.push_back(t.name);
        }
    }
    md << "### Slot p50 ÷ peer p50 (below 1 means the slot is faster)\n\n| block | slot |";
    for (const std::string& p : peers) {
        md << " ÷ " << Label(p) << " |";
    }
    md << "\n|---|---|";
    for (size_t i = 0; i < peers.size(); ++i) {
        md << "---:|";
    }
    md << "\n";
    for (size_t size : r.plan.latencySizes) {
        for (const char* kind : kSlotKinds) {
            const LatencyResult* s = FindLatency(r, kind, size);
            if (s == nullptr) {
                continue;
            }
            md << "| " << SizeText(size) << " | " << Label(kind) << " |";
            for (const std::string& p : peers) {
                const LatencyResult* pl = FindLatency(r, p, size);
                md << " " << (pl ? Ratio(s->p.p50, pl->p.p50) : "–") << " |";
            }
            md << "\n";
        }
    }
    md << "\n";
}

void WriteThroughput(std::ostream& md, const Results& r) {
    md << "## Throughput\n\n"
       << "Writers send as fast as the transport accepts: a refused write into a full reliable "
          "slot is counted (the library logs it at WARN; a counting appender sees it) and tried "
          "again after a short back-off; the other transports block the writer instead. The "
          "reader checks every block (sequence number per writer and checksum). Time from the "
          "first writer's start to the reader's last block. Queue length "
       << r.plan.depth
       << " blocks where the transport has one (POSIX mq: what the system granted, see the "
          "depth column). The memcpy bound is hot-cache memcpy bandwidth of the block size "
          "divided by the "
       << kSlotCopiesPerBlock
       << " copies a slot makes per block; \"slot ÷ this\" compares the reliable slot with the "
          "same writer count and block size.\n\n";
    for (size_t size : r.plan.throughputSizes) {
        const double bound = SlotBoundMBps(r, size, Span::Hot);
        md << "### " << SizeText(size) << " blocks (" << r.plan.ThroughputBlocks(size)
           << " per writer; slot bound " << FormatDouble(bound, 0) << " MB/s)\n\n"
           << "| transport | writers | depth | blocks/s (median round) | rounds min–max | MB/s | "
              "÷ memcpy bound | slot ÷ this | refusals per block | reader CPU | writers CPU | "
              "reader CPU µs/block | writers CPU µs/block |\n"
           << "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
        for (const ThroughputResult& t : r.throughput) {
            if (t.size != size) {
                continue;
            }
            if (t.status != Status::Ok) {
                md << "| " << Label(t.transport) << " | " << t.writers << " | "
                   << StatusText(t.status, t.reason) << " | | | | | | | | | | |\n";
                continue;
            }
            const ThroughputResult* slot = FindThroughput(r, "slot-reliable", size, t.writers);
            const auto range = std::minmax_element(t.roundRates.begin(), t.roundRates.end());
            md << "| " << Label(t.transport) << " | " << t.writers << " | " << t.depth << " | "
               << Big(t.blocksPerSecond) << " | "
               << (t.roundRates.empty() ? "–" : Big(*range.first) + "–" + Big(*range.second))
               << " | " << FormatDouble(t.megabytesPerSecond, 1) << " | "
               << (bound > 0 ? Percent(t.megabytesPerSecond / bound) : "–") << " | "
               << (slot ? Ratio(slot->blocksPerSecond, t.blocksPerSecond) : "–") << " | "
               << FormatDouble(t.blocks ? static_cast<double>(t.refusals) / t.blocks : 0, 2)
               << " | " << FormatDouble(t.readerCpuPercent, 0) << " % | "
               << FormatDouble(t.writerCpuPercent, 0) << " % | " << Us(t.readerCpuNsPerBlock)
               << " | " << Us(t.writerCpuNsPerBlock) << " |\n";
        }
        md << "\n";
    }
}

void WriteScale(std::ostream& md, const Results& r) {
    md << "## Scale: slots open and active in one process pair\n\n"
       << "N discarding slots of 64 B (update time " << FormatDouble(r.plan.updateMs, 0)
       << " ms), N readers in one process (N reader threads) and N writers in another; blocks "
          "go round-robin over the slots, paced as above (same pause, "
       << r.plan.scaleCount
       << " blocks). CPU per block is process CPU time over the paced run divided by the "
          "blocks; idle CPU is the reader process over "
       << r.plan.idleMs
       << " ms with every reader waiting and nothing written. Setup: creating the N readers "
          "in N parallel threads (each pauses one update time on purpose), and the N writers "
          "one after the other.\n\n"
       << "| slots | p50 µs | p99 µs | p99.9 µs | p50 ÷ 1 slot | reader CPU µs/block | writer CPU "
          "µs/block | idle reader CPU | reader setup ms | writer setup ms |\n"
       << "|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
    const ScaleResult* one = nullptr;
    for (const ScaleResult& s : r.scale) {
        if (s.slots == 1 && s.status == Status::Ok) {
            one = &s;
        }
    }
    for (const ScaleResult& s : r.scale) {
        if (s.status != Status::Ok) {
            md << "| " << s.slots << " | " << StatusText(s.status, s.reason)
               << " | | | | | | | | |\n";
            continue;
        }
        md << "| " << s.slots << " | " << Us(s.p.p50) << " | " << Us(s.p.p99) << " | "
           << Us(s.p.p999) << " | " << (one ? Ratio(s.p.p50, one->p.p50) : "–") << " | "
           << Us(s.readerCpuNsPerBlock) << " | " << Us(s.writerCpuNsPerBlock) << " | "
           << FormatDouble(s.idleCpuPercent, 2) << " % | " << FormatDouble(s.readerSetupMs, 0)
           << " | " << FormatDouble(s.writerSetupMs, 1) << " |\n";
    }
    md << "\n";
}

void WriteCreation(std::ostream& md, const Results& r) {
    md << "## Cost of creating and opening\n\n"
       << "One process creates the slots (4 KiB blocks, 16 deep), exits, and a second process "
          "opens them, so \"existing\" means made by another process. Readers are made with "
          "update time 0 to leave out the deliberate pause of `Init`; the pause is measured on "
          "its own below.\n\n";
    if (r.creation.status != Status::Ok) {
        md << StatusText(r.creation.status, r.creation.reason) << "\n\n";
    }
    md << "| operation | n | median µs | p90 µs |\n|---|---:|---:|---:|\n";
    for (const CostRow& row : r.creation.rows) {
        md << "| " << row.operation << " | " << row.count << " | " << FormatDouble(row.medianUs, 1)
           << " | " << FormatDouble(row.p90Us, 1) << " |\n";
    }
    md << "\nDeliberate pause of `CreateSlotReader` (`Init` sleeps one update time): nominal "
       << FormatDouble(r.creation.pauseNominalMs, 1) << " ms, measured "
       << FormatDouble(r.creation.pauseMeasuredMs, 2)
       << " ms (median with the pause minus median without).\n\n";
}

void WriteMachine(std::ostream& md, const Results& r) {
    md << "## Machine limits: memcpy and the copies of a slot block\n\n"
       << "A block written into a slot and delivered to a subscriber is copied "
       << kSlotCopiesPerBlock
       << " times: (1) writer's buffer → message queue (`try_send` in `WriteData`), (2) queue → "
          "the reader thread's buffer (`try_receive` straight into the `SizedArray` that "
          "`BaseSlotReader::ReadAndNotify` allocates for every read, in `ReadData`; a caller "
          "buffer shorter than the queue's messages goes through a receive buffer of its own, "
          "one copy more), (3) that buffer → the slot's output buffer in the header segment, "
          "which keeps a copy of the last block taken; subscribers get a pointer to the "
          "reader's buffer. The bound is memcpy bandwidth ÷ "
       << kSlotCopiesPerBlock
       << " (copies one after the other: the writer holds the slot's header mutex around its "
          "copy and the reader around its two, so they cannot overlap).\n\n"
       << "| block | memcpy hot GB/s | memcpy over depth × block GB/s | memcpy over 64 MiB GB/s | "
          "block check GB/s | slot bound MB/s (hot ÷ "
       << kSlotCopiesPerBlock
       << ") | slot bound blocks/s |\n|---:|---:|---:|---:|---:|---:|---:|\n";
    for (const MemcpyResult& m : r.memcpy) {
        const double bound = m.hotGBps * 1e3 / kSlotCopiesPerBlock;
        md << "| " << SizeText(m.size) << " | " << FormatDouble(m.hotGBps, 1) << " | "
           << FormatDouble(m.queueGBps, 1) << " | " << FormatDouble(m.coldGBps, 1) << " | "
           << FormatDouble(m.checksumGBps, 1) << " | " << FormatDouble(bound, 0) << " | "
           << Big(bound * 1e6 / m.size) << " |\n";
    }
    md << "\n";
}

void WriteIntegrity(std::ostream& md, const Results& r) {
    md << "## Integrity of every measured path\n\n";
    size_t runs = 0;
    std::ostringstream problems;
    auto check = [&](const std::string& what, Status status, const std::string& reason,
                     std::uint64_t lost, std::uint64_t dup, std::uint64_t corrupt) {
        if (status == Status::Skipped) {
            return;
        }
        ++runs;
        if (status == Status::Failed || lost || dup || corrupt) {
            problems << "- " << what << ": lost " << lost << ", duplicated " << dup
                     << ", corrupted " << corrupt
                     << (status == Status::Failed ? " (" + reason + ")" : "") << "\n";
        }
    };
    for (const LatencyResult& l : r.latency) {
        check("latency " + Label(l.transport) + " " + SizeText(l.size), l.status, l.reason, l.lost,
              l.duplicates, l.corrupt);
    }
    for (const ThroughputResult& t : r.throughput) {
        check("throughput " + Label(t.transport) + " " + SizeText(t.size) + " " +
                  std::to_string(t.writers) + "w",
              t.status, t.reason, t.lost, t.duplicates, t.corrupt);
    }
    for (const ScaleResult& s : r.scale) {
        check("scale " + std::to_string(s.slots) + " slots", s.status, s.reason, s.lost,
              s.duplicates, s.corrupt);
    }
    const std::string text = problems.str();
    if (text.empty()) {
        md << "All " << runs
           << " measured runs delivered every block once, in order, with a valid checksum.\n\n";
    } else {
        md << "**Blocks were lost, duplicated or corrupted, or a run failed:**\n\n" << text << "\n";
    }
    if (r.creation.status == Status::Failed) {
        md << "Creation costs: " << r.creation.reason << "\n\n";
    }
    md << "## Peers that could not run\n\n";
    if (r.skipped.empty()) {
        md << "None: every peer ran.\n\n";
    }
    for (const std::string& s : r.skipped) {
        md << "- " << s << "\n";
    }
    md << "\n";
}

struct Series {
    std::string label;
    bool thick;  // slots are drawn thick
};

// One plot command over the index blocks of a data file, a line per series.
std::string PlotCommand(const std::string& file, const std::vector<Series>& series, int column) {
    std::ostringstream cmd;
    cmd << "plot ";
    for (size_t i = 0; i < series.size(); ++i) {
        cmd << (i ? ", \\\n     " : "") << "'" << file << "' index " << i << " using 1:" << column
            << " with linespoints lw " << (series[i].thick ? 3 : 1) << " title '" << series[i].label
            << "'";
    }
    cmd << "\n";
    return cmd.str();
}

void WritePlotData(const Results& r, const std::string& outDir) {
    std::vector<Series> latencySeries, throughputSeries;
    {
        std::ofstream dat(outDir + "/latency.dat");
        int index = 0;
        for (const TransportInfo& t : Transports()) {
            bool any = false;
            for (size_t size : r.plan.latencySizes) {
                any = any || FindLatency(r, t.name, size) != nullptr;
            }
            if (!any) {
                continue;
            }
            if (index++ > 0) {
                dat << "\n\n";
            }
            latencySeries.push_back({t.label, t.isSlot});
            dat << "# " << t.label << ": size p50 p99 p99.9 (us)\n";
            for (size_t size : r.plan.latencySizes) {
                const LatencyResult* l = FindLatency(r, t.name, size);
                if (l != nullptr) {
                    dat << size << " " << l->p.p50 / 1e3 << " " << l->p.p99 / 1e3 << " "
                        << l->p.p999 / 1e3 << "\n";
                }
            }
        }
    }
    {
        std::ofstream dat(outDir + "/throughput.dat");
        throughputSeries.push_back(
            {"slot bound: hot memcpy / " + std::to_string(kSlotCopiesPerBlock) + " copies", false});
        dat << "# slot bound: size MB/s\n";
        for (size_t size : r.plan.throughputSizes) {
            dat << size << " " << SlotBoundMBps(r, size, Span::Hot) << "\n";
        }
        for (const TransportInfo& t : Transports()) {
            for (unsigned int w : {1u, 2u}) {
                bool any = false;
                for (size_t size : r.plan.throughputSizes) {
                    any = any || FindThroughput(r, t.name, size, w) != nullptr;
                }
                if (!any) {
                    continue;
                }
                const std::string label = t.label + (w > 1 ? ", 2 writers" : "");
                throughputSeries.push_back({label, t.isSlot});
                dat << "\n\n# " << label << ": size MB/s\n";
                for (size_t size : r.plan.throughputSizes) {
                    const ThroughputResult* x = FindThroughput(r, t.name, size, w);
                    if (x != nullptr) {
                        dat << size << " " << x->megabytesPerSecond << "\n";
                    }
                }
            }
        }
    }
    {
        std::ofstream dat(outDir + "/scale.dat");
        dat << "slots p50 p99 p999 reader_cpu_us idle_cpu_percent\n";
        for (const ScaleResult& s : r.scale) {
            if (s.status == Status::Ok) {
                dat << s.slots << " " << s.p.p50 / 1e3 << " " << s.p.p99 / 1e3 << " "
                    << s.p.p999 / 1e3 << " " << s.readerCpuNsPerBlock / 1e3 << " "
                    << s.idleCpuPercent << "\n";
            }
        }
    }
    std::ofstream gp(outDir + "/plots.gp");
    gp << "# Made by slotbench; run with gnuplot in this directory.\n"
          "set terminal pngcairo size 1000,640 font ',10' noenhanced\n"
          "set key outside right top\n"
          "set grid\n"
          "set logscale xy\n"
          "set xtics ('64 B' 64, '1 KiB' 1024, '4 KiB' 4096, '64 KiB' 65536, '1 MiB' 1048576, "
          "'4 MiB' 4194304)\n"
          "set xlabel 'block size'\n"
          "set output 'latency_p50.png'\n"
          "set title 'One-way latency p50 (paced), µs (slots drawn thick)'\n"
       << PlotCommand("latency.dat", latencySeries, 2)
       << "set output 'latency_p99.png'\n"
          "set title 'One-way latency p99 (paced), µs (slots drawn thick)'\n"
       << PlotCommand("latency.dat", latencySeries, 3)
       << "set output 'throughput.png'\n"
          "set title 'Throughput (median round), MB/s'\n"
          "set xtics ('64 B' 64, '4 KiB' 4096, '64 KiB' 65536, '1 MiB' 1048576, "
          "'4 MiB' 4194304)\n"
       << PlotCommand("throughput.dat", throughputSeries, 2)
       << "set output 'scale.png'\n"
          "set title 'Discarding slots, 64 B, paced round-robin'\n"
          "set xlabel 'slots open and active'\n"
          "set xtics (1, 10, 100)\n"
          "set ylabel 'µs'\n"
          "plot 'scale.dat' using 1:2 with linespoints title 'p50 latency', "
          "'' using 1:3 with linespoints title 'p99 latency', "
          "'' using 1:5 with linespoints title 'reader CPU per block'\n";
}

}  // namespace

void WriteReport(const Results& r, const std::string& outDir) {
    std::ofstream md(outDir + "/body.md");
    md << "Counts: "
       << (r.plan.quick ? "**quick run** (tiny counts: p99.9 and throughput are "
                          "rough; use the full run for figures)"
                        : "full run")
       << ".\n\n";
    WriteTargets(md, r);
    WriteTargetRatios(md, r);
    WriteSizes(md, r);
    WriteLatency(md, r);
    WriteThroughput(md, r);
    WriteScale(md, r);
    WriteCreation(md, r);
    WriteMachine(md, r);
    WriteIntegrity(md, r);
    md << "Plots: `latency_p50.png`, `latency_p99.png`, `throughput.png`, `scale.png` beside "
          "this file.\n";
    WritePlotData(r, outDir);
}

}  // namespace bench
