// SPDX-License-Identifier: Apache-2.0
// slotbench: latency, throughput, scale and creation costs of libSlot's slots, next to the
// machine's floor and to other IPC mechanisms, every writer and reader in a process of its own.
//
//   slotbench --out DIR [--quick] [--tag TAG] [--tmp DIR] [--only PARTS] [--transports LIST]
//             [--sizes LIST] [--rounds N]
//   slotbench --cleanup --tag TAG      remove whatever a killed run with this tag left behind
//   slotbench ... --inject drop|corrupt  a deliberate fault in every run: must exit 1
//
// Exit status: 0 when every measured path delivered every block intact, 1 when a block was
// lost, duplicated or corrupted or a run failed, 2 for a usage error.
#include "Scenarios.h"

#include <Slot/SlotFactory.h>

#include <dirent.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>

using namespace bench;

namespace {

std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> parts;
    std::stringstream in(text);
    std::string part;
    while (std::getline(in, part, ',')) {
        if (!part.empty()) {
            parts.push_back(part);
        }
    }
    return parts;
}

bool Wanted(const std::vector<std::string>& filter, const std::string& item) {
    return filter.empty() || std::find(filter.begin(), filter.end(), item) != filter.end();
}

// Names in /dev/shm that hold the tag: what a run leaves behind when it is killed.
std::vector<std::string> Leftovers(const std::string& tag) {
    std::vector<std::string> found;
    DIR* dir = opendir("/dev/shm");
    if (dir == nullptr) {
        return found;
    }
    while (dirent* e = readdir(dir)) {
        if (std::strstr(e->d_name, tag.c_str()) != nullptr) {
            found.push_back(e->d_name);
        }
    }
    closedir(dir);
    return found;
}

// POSIX queues live outside /dev/shm (no mqueue file system is mounted here): unlink every name
// a run with this tag could have used.
void UnlinkQueues(const std::string& tag) {
    for (const char* what : {"lat", "tp"}) {
        for (size_t size : Plan().AllSizes()) {
            for (const char* suffix : {"", "_w2"}) {
                const std::string name =
                    "/" + tag + "_" + what + "_posix-mq_" + std::to_string(size) + suffix + "_pmq";
                mq_unlink(name.c_str());
            }
        }
    }
}

int Cleanup(const std::string& tag) {
    UnlinkQueues(tag);
    for (const std::string& name : Leftovers(tag)) {
        const std::string path = "/dev/shm/" + name;
        std::fprintf(stderr, "slotbench: removing leftover /dev/shm/%s\n", name.c_str());
        unlink(path.c_str());
    }
    return 0;
}

// Ends the progress line of a run that was skipped or failed.
void PrintNotMeasured(Status status, const std::string& reason) {
    std::fprintf(stderr, "%s %s\n",
                 status == Status::Skipped ? "skipped:" : "FAILED:", reason.c_str());
}

// Ends the progress line of one latency run.
void PrintLatency(const LatencyResult& r) {
    if (r.status == Status::Ok) {
        std::fprintf(stderr, "p50 %.2f us p99 %.2f us lost %llu corrupt %llu\n", r.p.p50 / 1e3,
                     r.p.p99 / 1e3, static_cast<unsigned long long>(r.lost),
                     static_cast<unsigned long long>(r.corrupt));
    } else {
        PrintNotMeasured(r.status, r.reason);
    }
}

void Usage() {
    std::fprintf(stderr,
                 "usage: slotbench --out DIR [--quick] [--tag TAG] [--tmp DIR]\n"
                 "                 [--only latency,throughput,scale,creation]\n"
                 "                 [--transports NAME,...] [--sizes BYTES,...] [--rounds N]\n"
                 "                 [--pin] [--inject drop|corrupt]\n"
                 "       slotbench --cleanup --tag TAG\n");
}

}  // namespace

int main(int argc, char** argv) {
    SetSelfExecutable(argv[0]);
    if (argc >= 2 && std::string(argv[1]) == "--child") {
        KeyValues kv;
        for (int i = 2; i < argc; ++i) {
            const std::string arg = argv[i];
            const size_t eq = arg.find('=');
            if (eq != std::string::npos) {
                kv.Set(arg.substr(0, eq), arg.substr(eq + 1));
            }
        }
        return ChildMain(kv);
    }

    Plan plan;
    std::string outDir, tag = "sb" + std::to_string(getpid()), tmpDir;
    std::vector<std::string> only, transports, sizes;
    bool cleanup = false;
    unsigned int rounds = 0;
    bool pin = false;
    std::string inject;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                Usage();
                std::exit(2);
            }
            return argv[++i];
        };
        if (arg == "--quick") {
            plan = Plan::Quick();
        } else if (arg == "--out") {
            outDir = value();
        } else if (arg == "--tag") {
            tag = value();
        } else if (arg == "--tmp") {
            tmpDir = value();
        } else if (arg == "--only") {
            only = Split(value());
        } else if (arg == "--transports") {
            transports = Split(value());
        } else if (arg == "--sizes") {
            sizes = Split(value());
        } else if (arg == "--rounds") {
            rounds = static_cast<unsigned int>(std::strtoul(value().c_str(), nullptr, 10));
        } else if (arg == "--inject") {
            inject = value();
        } else if (arg == "--pin") {
            pin = true;
        } else if (arg == "--cleanup") {
            cleanup = true;
        } else {
            Usage();
            return 2;
        }
    }
    if (cleanup) {
        return Cleanup(tag);
    }
    if (rounds > 0) {
        plan.rounds = rounds;
    }
    if (outDir.empty()) {
        Usage();
        return 2;
    }
    auto sizeWanted = [&](size_t size) { return Wanted(sizes, std::to_string(size)); };

    bool ownTmp = false;
    if (tmpDir.empty()) {
        char pattern[] = "/tmp/slotbench.XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            std::perror("mkdtemp");
            return 2;
        }
        tmpDir = pattern;
        ownTmp = true;
    }
    // Reliable readers' lock files and posix-pipe FIFOs go into the run's own directory.
    setenv("SLOT_LOCK_DIR", (tmpDir + "/locks").c_str(), 0);
    setenv("SLOT_PIPE_DIR", (tmpDir + "/pipes").c_str(), 0);
    ConfigureSlotLogging();

    Results results;
    results.plan = plan;
    {
        Harness h;
        h.tag = tag;
        h.tmpDir = tmpDir;
        h.plan = plan;
        h.pin = pin && sysconf(_SC_NPROCESSORS_ONLN) >= 2;
        h.inject = inject;
        h.controlName = "/" + tag + "_ctl";
        ControlSegment control(h.controlName, true);
        h.control = &control;

        std::fprintf(stderr, "slotbench: memcpy bandwidth\n");
        results.memcpy = MeasureMemcpy(plan);

        // Results keyed by transport, size and writers, merged over the rounds.
        std::vector<LatencyResult> latency;
        std::vector<ThroughputResult> throughput;
        auto latencySlot = [&](const std::string& t, size_t size, size_t pace) -> LatencyResult& {
            for (LatencyResult& r : latency) {
                if (r.transport == t && r.size == size && r.paceBytes == pace) {
                    return r;
                }
            }
            latency.emplace_back();
            latency.back().transport = t;
            latency.back().size = size;
            latency.back().paceBytes = pace;
            return latency.back();
        };
        auto throughputSlot = [&](const std::string& t, size_t size,
                                  unsigned int writers) -> ThroughputResult& {
            for (ThroughputResult& r : throughput) {
                if (r.transport == t && r.size == size && r.writers == writers) {
                    return r;
                }
            }
            throughput.emplace_back();
            throughput.back().transport = t;
            throughput.back().size = size;
            throughput.back().writers = writers;
            return throughput.back();
        };
        // One round of the rows of `size` for every transport measured there; with `pace`,
        // `size` blocks at the pace of `pace`-byte ones, for the transports measured at `pace`.
        auto latencyRows = [&](unsigned int round, size_t size, size_t pace) {
            const size_t rowSize = std::max(size, pace);
            const size_t perRoundCount =
                std::max<size_t>(plan.LatencyCount(rowSize) / plan.rounds, 10);
            const size_t perRoundWarmup = plan.LatencyWarmup(rowSize) / plan.rounds;
            for (const TransportInfo& t : Transports()) {
                if (!t.latency || !t.MeasuredAt(rowSize) || !Wanted(transports, t.name)) {
                    continue;
                }
                LatencyResult& total = latencySlot(t.name, size, pace);
                if (round > 1 && total.status == Status::Skipped) {
                    continue;
                }
                const LatencyResult r =
                    RunLatency(h, t.name, size, perRoundCount, perRoundWarmup, pace);
                MergeLatency(total, r);
                std::fprintf(stderr, "slotbench: round %u latency %-34s %6zu B", round,
                             t.label.c_str(), size);
                if (pace != 0) {
                    std::fprintf(stderr, " at the %zu B pace", pace);
                }
                std::fprintf(stderr, ": ");
                PrintLatency(r);
            }
        };
        for (unsigned int round = 1; round <= plan.rounds; ++round) {
            if (Wanted(only, "latency")) {
                for (size_t size : plan.latencySizes) {
                    if (sizeWanted(size)) {
                        latencyRows(round, size, 0);
                    }
                }
                const size_t pace = plan.latencySizes.back();
                if (sizeWanted(64) && sizeWanted(pace) && pace > 64) {
                    latencyRows(round, 64, pace);
                }
            }
            if (Wanted(only, "throughput")) {
                for (size_t size : plan.throughputSizes) {
                    if (!sizeWanted(size)) {
                        continue;
                    }
                    for (const TransportInfo& t : Transports()) {
                        if (!t.throughput || !t.MeasuredAt(size) || !Wanted(transports, t.name)) {
                            continue;
                        }
                        for (unsigned int writers : {1u, 2u}) {
                            if (writers > 1 && !t.multiWriter) {
                                continue;
                            }
                            ThroughputResult& total = throughputSlot(t.name, size, writers);
                            if (round > 1 && total.status == Status::Skipped) {
                                continue;
                            }
                            const ThroughputResult r = RunThroughput(h, t.name, size, writers);
                            MergeThroughput(total, r);
                            std::fprintf(stderr,
                                         "slotbench: round %u throughput %-32s %6zu B %uw: ", round,
                                         t.label.c_str(), size, writers);
                            if (r.status == Status::Ok) {
                                std::fprintf(stderr,
                                             "%.0f blocks/s %.1f MB/s refusals %llu lost %llu\n",
                                             r.blocksPerSecond, r.megabytesPerSecond,
                                             static_cast<unsigned long long>(r.refusals),
                                             static_cast<unsigned long long>(r.lost));
                            } else {
                                PrintNotMeasured(r.status, r.reason);
                            }
                        }
                    }
                }
            }
        }
        for (const LatencyResult& r : latency) {
            (r.paceBytes != 0 ? results.pacedLatency : results.latency).push_back(r);
        }
        results.throughput = throughput;
        if (Wanted(only, "scale")) {
            for (unsigned int n : plan.scaleSlots) {
                ScaleResult r = RunScale(h, n);
                std::fprintf(stderr, "slotbench: scale %3u slots: p50 %.2f us p99 %.2f us %s\n", n,
                             r.p.p50 / 1e3, r.p.p99 / 1e3, r.reason.c_str());
                results.scale.push_back(r);
            }
        }
        if (Wanted(only, "creation")) {
            results.creation = RunCreation(h);
            std::fprintf(
                stderr, "slotbench: creation costs %s\n",
                results.creation.status == Status::Ok ? "ok" : results.creation.reason.c_str());
        }
    }

    std::set<std::string> skipped;
    for (const LatencyResult& r : results.latency) {
        if (r.status == Status::Skipped) {
            skipped.insert(FindTransport(r.transport)->label + ": " + r.reason);
        }
        results.anyDataError = results.anyDataError || r.lost || r.duplicates || r.corrupt;
        results.anyFailure = results.anyFailure || r.status == Status::Failed;
    }
    for (const LatencyResult& r : results.pacedLatency) {
        results.anyDataError = results.anyDataError || r.lost || r.duplicates || r.corrupt;
        results.anyFailure = results.anyFailure || r.status == Status::Failed;
    }
    for (const ThroughputResult& r : results.throughput) {
        if (r.status == Status::Skipped) {
            skipped.insert(FindTransport(r.transport)->label + " (throughput, " +
                           std::to_string(r.size) + " B): " + r.reason);
        }
        results.anyDataError = results.anyDataError || r.lost || r.duplicates || r.corrupt;
        results.anyFailure = results.anyFailure || r.status == Status::Failed;
    }
    for (const ScaleResult& r : results.scale) {
        results.anyDataError = results.anyDataError || r.lost || r.duplicates || r.corrupt;
        results.anyFailure = results.anyFailure || r.status == Status::Failed;
    }
    results.anyFailure = results.anyFailure || results.creation.status == Status::Failed;
    results.skipped.assign(skipped.begin(), skipped.end());

    // Nothing of this run may stay behind.
    UnlinkQueues(tag);
    const std::vector<std::string> left = Leftovers(tag);
    for (const std::string& name : left) {
        std::fprintf(stderr, "slotbench: LEFT BEHIND /dev/shm/%s (removed now)\n", name.c_str());
        unlink(("/dev/shm/" + name).c_str());
    }
    if (!left.empty()) {
        results.anyFailure = true;
    }
    if (ownTmp) {
        const std::string command = "rm -rf '" + tmpDir + "'";
        if (std::system(command.c_str()) != 0) {
            std::fprintf(stderr, "slotbench: could not remove %s\n", tmpDir.c_str());
        }
    }

    WriteReport(results, outDir);
    if (results.anyDataError || results.anyFailure) {
        std::fprintf(stderr,
                     "slotbench: FAILED: a measured path lost, duplicated or corrupted "
                     "blocks, or a run failed (see the report)\n");
        return 1;
    }
    std::fprintf(stderr, "slotbench: every measured path delivered every block intact\n");
    return 0;
}
