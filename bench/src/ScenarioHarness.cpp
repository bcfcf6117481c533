// SPDX-License-Identifier: Apache-2.0
#include "ScenarioHarness.h"

#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace bench {

// ---------------------------------------------------------------------------------------------
// Plan

size_t Plan::ThroughputBlocks(size_t blockSize) const {
    const size_t byBytes = throughputBytesPerWriter / blockSize;
    const size_t blocks = std::min(throughputMaxBlocks, std::max(throughputMinBlocks, byBytes));
    return std::min(blocks,
                    std::max(throughputLeastBlocks, throughputMaxBytesPerWriter / blockSize));
}

size_t Plan::LatencyCount(size_t blockSize) const {
    return std::min(latencyCount, std::max(latencyLeastCount, latencyBytes / blockSize));
}

size_t Plan::LatencyWarmup(size_t blockSize) const {
    return latencyWarmup * LatencyCount(blockSize) / std::max<size_t>(1, latencyCount);
}

std::vector<size_t> Plan::AllSizes() const {
    std::vector<size_t> all = latencySizes;
    all.insert(all.end(), throughputSizes.begin(), throughputSizes.end());
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all;
}

Plan Plan::Quick() {
    Plan p;
    p.quick = true;
    p.rounds = 1;
    // 4 MiB takes the same paths as 1 MiB; the quick run leaves it out.
    p.latencySizes = {64, 1024, 4096, 65536, 1u << 20};
    p.throughputSizes = {64, 4096, 65536, 1u << 20};
    p.latencyCount = 300;
    p.latencyWarmup = 30;
    p.latencyBytes = 40u << 20;
    p.latencyLeastCount = 40;
    p.throughputBytesPerWriter = 16ull * 1000 * 1000;
    p.throughputMinBlocks = 200;
    p.throughputMaxBlocks = 3000;
    p.throughputMaxBytesPerWriter = 100ull * 1000 * 1000;
    p.throughputLeastBlocks = 40;
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

void SignalReady(ControlBlock* c) {
    __atomic_add_fetch(&c->ready, 1, __ATOMIC_SEQ_CST);
    FutexWakeAll(&c->ready);
}

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

void SendBlock(Sender& sender, char* block, size_t size, std::uint64_t seq,
               const std::string& inject, bool stamp) {
    if (inject == "drop" && seq == 5) {
        return;
    }
    std::vector<char> corrupted;
    char* source = block;
    if (inject == "corrupt" && seq == 7) {
        corrupted.assign(block, block + size);
        corrupted[size - 1] ^= 0x5a;
        source = corrupted.data();
    }
    if (char* loan = sender.Loan(size)) {
        std::memcpy(loan, source, size);
        if (stamp) {
            StampSend(loan, NowNs());
        }
        sender.Publish(loan, size);
        return;
    }
    if (stamp) {
        StampSend(source, NowNs());
    }
    sender.Send(source, size);
}

void CloseSender(const RunParams& params, std::unique_ptr<Sender>& sender) {
    if (params.transport.rfind("slot-", 0) != 0) {
        sender.reset();
    }
}

[[noreturn]] void FinishChild(const RunParams& params, int code) {
    std::fflush(nullptr);
    if (params.transport.rfind("slot-", 0) == 0 || params.transport.empty()) {
        std::_Exit(code);
    }
    std::exit(code);
}

std::string ResultPath(const Harness& h, const std::string& run, const std::string& role) {
    return h.tmpDir + "/" + run + "." + role + ".res";
}

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
                    size_t size, unsigned int writers) {
    return h.tag + "_" + what + "_" + transport + "_" + std::to_string(size) +
           (writers > 1 ? "_w" + std::to_string(writers) : "");
}

PairOutcome RunPair(Harness& h, RunParams& params, const std::string& readerRole,
                    const std::string& writerRole, const std::vector<std::string>& extra,
                    std::uint64_t deadlineMs) {
    PairOutcome outcome;
    h.control->Reset();
    const std::uint64_t deadline = NowNs() + deadlineMs * 1000000ull;
    std::vector<Child> children;
    // A reader that busy-polls is pinned always, the spinning floor's as every other: the floor
    // is the least a hand-over costs when each end has a core of its own, and the spinning
    // readers are set beside it under the same condition (a busy-polling reader is deployed on
    // a core of its own). Left to the scheduler on a loaded machine, both ends share a core for
    // much of the run and each hand-over waits for a time slice (3.9 µs instead of 0.07 µs).
    const TransportInfo* info = FindTransport(params.transport);
    const bool pin =
        h.pin || (info != nullptr && info->spinning && sysconf(_SC_NPROCESSORS_ONLN) >= 2);
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
        if (pin) {
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
                if (pin) {
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

RunParams BaseParams(const Harness& h, const std::string& transport, size_t size) {
    RunParams s;
    s.transport = transport;
    s.tmpDir = h.tmpDir;
    s.blockSize = size;
    s.depth = h.plan.depth;
    s.updateTimeMs = h.plan.updateMs;
    return s;
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
