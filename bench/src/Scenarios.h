// SPDX-License-Identifier: Apache-2.0
#pragma once

// What is measured. The parent side of each scenario starts the child processes, lets them go
// together, collects their key=value results and cleans up; the child side is the writer or
// reader loop itself.

#include "BenchUtil.h"
#include "Transport.h"

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// Counts and sizes of one benchmark run (full or quick).
struct Plan {
    bool quick = false;
    // Blocks above 64 KiB go only through the transports that measure them (TransportInfo).
    std::vector<size_t> latencySizes = {64, 1024, 4096, 65536, 1u << 20, 4u << 20};
    std::vector<size_t> throughputSizes = {64, 4096, 65536, 1u << 20, 4u << 20};
    std::vector<unsigned int> scaleSlots = {1, 10, 100};
    // Every latency and throughput run is split into rounds; a round visits every transport and
    // size before the next begins, so a burst of load elsewhere on the machine hits all of
    // them alike. Latency samples of the rounds are merged; throughput takes the median round.
    unsigned int rounds = 3;
    size_t latencyCount = 20000;  // per transport and size, over all rounds
    size_t latencyWarmup = 1000;
    // Large blocks: at most this many bytes per transport and size, and at least
    // latencyLeastCount blocks (each block of a few MiB costs milliseconds of copying).
    size_t latencyBytes = 2ull << 30;
    size_t latencyLeastCount = 300;
    unsigned int gapUs = 50;  // pause after each acknowledged block in paced runs
    size_t throughputBytesPerWriter = 1300ull * 1000 * 1000;  // scaled by block size, capped
    size_t throughputMinBlocks = 20000;
    size_t throughputMaxBlocks = 300000;
    // Large blocks: at most this many bytes per writer, and at least throughputLeastBlocks.
    size_t throughputMaxBytesPerWriter = 1600ull * 1000 * 1000;
    size_t throughputLeastBlocks = 200;
    size_t depth = 64;
    size_t scaleCount = 30000;
    size_t scaleWarmup = 1000;
    unsigned int idleMs = 1000;
    size_t creationCount = 100;
    size_t pauseCount = 5;
    double pauseMs = 100.0;
    double updateMs = 1000.0;
    double memcpySeconds = 0.25;

    // Blocks per writer of one throughput run, and blocks of one latency row over all rounds
    // (with the warm-up blocks among them scaled alike).
    size_t ThroughputBlocks(size_t blockSize) const;
    size_t LatencyCount(size_t blockSize) const;
    size_t LatencyWarmup(size_t blockSize) const;
    // Every block size of the plan, ascending.
    std::vector<size_t> AllSizes() const;
    static Plan Quick();
};

enum class Status { Ok, Skipped, Failed };

struct LatencyResult {
    std::string transport;
    size_t size = 0;
    Status status = Status::Skipped;
    std::string reason;
    Percentiles p;  // nanoseconds
    std::uint64_t lost = 0, duplicates = 0, corrupt = 0;
    double writerCpuNsPerBlock = 0, readerCpuNsPerBlock = 0;
    double readerCpuShare = 0;           // reader process CPU time per second of the run
    std::vector<std::uint64_t> samples;  // raw latencies of the runs merged so far
    unsigned int runs = 0;
    size_t paceBytes = 0;  // sent at the pace of blocks of this size (PaceWork); 0: its own
};

struct ThroughputResult {
    std::string transport;
    size_t size = 0;
    unsigned int writers = 1;
    Status status = Status::Skipped;
    std::string reason;
    size_t depth = 0;
    std::uint64_t blocks = 0;  // delivered
    double seconds = 0;
    double blocksPerSecond = 0, megabytesPerSecond = 0;
    std::uint64_t refusals = 0;
    double readerCpuPercent = 0, writerCpuPercent = 0;
    // CPU time per delivered block: steadier than rates on a busy machine.
    double readerCpuNsPerBlock = 0, writerCpuNsPerBlock = 0;
    std::uint64_t lost = 0, duplicates = 0, corrupt = 0;
    std::vector<double> roundRates;  // blocks/s of each round
};

struct ScaleResult {
    unsigned int slots = 0;
    Status status = Status::Skipped;
    std::string reason;
    Percentiles p;
    std::uint64_t lost = 0, duplicates = 0, corrupt = 0;
    double writerCpuNsPerBlock = 0, readerCpuNsPerBlock = 0;
    double idleCpuPercent = 0;  // reader process, all readers waiting, nothing written
    double readerSetupMs = 0;   // creating every reader, in parallel threads
    double writerSetupMs = 0;
};

struct CostRow {
    std::string operation;
    size_t count = 0;
    double medianUs = 0, p90Us = 0;
    std::string note;
};

struct CreationResult {
    Status status = Status::Skipped;
    std::string reason;
    std::vector<CostRow> rows;
    double pauseNominalMs = 0;
    double pauseMeasuredMs = 0;  // CreateSlotReader with the pause, minus without
};

struct MemcpyResult {
    size_t size = 0;
    double hotGBps = 0;       // source and destination stay in cache
    double queueGBps = 0;     // source and destination walk a slot queue's worth (depth x size)
    double coldGBps = 0;      // source and destination walk a 64 MiB working set
    double checksumGBps = 0;  // the reader's block check, for comparison
};

struct Results {
    Plan plan;
    std::vector<LatencyResult> latency;
    // 64 B blocks at the pace of the largest latency size, for the transports measured there:
    // beside that size's row, only the size handed over differs.
    std::vector<LatencyResult> pacedLatency;
    std::vector<ThroughputResult> throughput;
    std::vector<ScaleResult> scale;
    CreationResult creation;
    std::vector<MemcpyResult> memcpy;
    std::vector<std::string> skipped;  // "peer: reason"
    bool anyDataError = false;         // lost, duplicated or corrupted blocks anywhere
    bool anyFailure = false;           // a run that could not finish
};

// The parent's environment for all runs.
struct Harness {
    std::string tag;     // unique per benchmark run, part of every object name
    std::string tmpDir;  // private directory (lock files, FIFOs, result files)
    std::string controlName;
    ControlSegment* control = nullptr;
    Plan plan;
    bool pin = false;    // readers on CPU 1, writers on CPU 0
    std::string inject;  // "drop" or "corrupt": a deliberate fault in every run (self-check)
};

// One round: `count` paced blocks, the first `warmup` not counted; with `paceBytes`, each
// block at the pace of a block of that size.
LatencyResult RunLatency(Harness& h, const std::string& transport, size_t size, size_t count,
                         size_t warmup, size_t paceBytes = 0);
// Adds a round to the result so far (samples merged, counts summed, percentiles recomputed).
void MergeLatency(LatencyResult& total, const LatencyResult& round);
void MergeThroughput(ThroughputResult& total, const ThroughputResult& round);
ThroughputResult RunThroughput(Harness& h, const std::string& transport, size_t size,
                               unsigned int writers);
ScaleResult RunScale(Harness& h, unsigned int slots);
CreationResult RunCreation(Harness& h);
std::vector<MemcpyResult> MeasureMemcpy(const Plan& plan);

// Child entry point: `kv` holds the key=value arguments. Returns the process exit code.
int ChildMain(const KeyValues& kv);

// The number of copies a slot makes of each block (see the report): writer's buffer -> queue,
// queue -> output buffer, output buffer -> reader thread's buffer.
constexpr unsigned int kSlotCopiesPerBlock = 3;

// The ratios a zero-copy transport is held to, for one transport of a run; 0 where a figure is
// missing. flat: p50 at 4 MiB / own p50 at 64 B; flatPaced: the same with the 64 B blocks sent
// at the 4 MiB pace; vsIceoryx: MB/s at 1 MiB (1 writer) / iceoryx's; vsReliable: p50 at 64 B /
// the reliable slot's; vsFloor: p50 at 64 B / the spinning floor's.
struct TargetRatios {
    double flat = 0, flatPaced = 0, vsIceoryx = 0, vsReliable = 0, vsFloor = 0;
};
TargetRatios ComputeTargetRatios(const Results& r, const std::string& transport);

void WriteReport(const Results& r, const std::string& outDir);

}  // namespace bench
