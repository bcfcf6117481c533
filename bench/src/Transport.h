// SPDX-License-Identifier: Apache-2.0
#pragma once

// One interface over every mechanism that is measured: libSlot's three slot types and the peers.
// A Sender lives in a writer process, a Receiver in a reader process; both are opened before
// the child reports "ready", so that opening costs never fall into a measurement.

#include "Process.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace bench {

// Everything a transport needs to know about one run. The parent fills it in and hands it to
// the children as key=value arguments.
struct RunParams {
    std::string transport;  // see TransportNames()
    std::string name;       // unique base name of every object of this run (holds the pid)
    std::string tmpDir;     // private directory of this benchmark run
    size_t blockSize = 64;  // bytes per block
    size_t depth = 64;      // queue length in blocks where the transport has one
    unsigned int writers = 1;
    unsigned int writerId = 0;
    bool throughput = false;       // writers go as fast as accepted; else paced
    double updateTimeMs = 1000.0;  // slot update time
    int fdRead = -1;               // inherited descriptors (socket pair)
    int fdWrite = -1;
    ControlBlock* control = nullptr;  // the parent's control segment (mapped in every child)

    std::vector<std::string> ToArgs() const;
    static RunParams FromArgs(const KeyValues& kv);
};

class Sender {
public:
    virtual ~Sender() {}
    // Hands one block to the transport. Returns once the transport has accepted it; a transport
    // that refuses blocks (a full reliable slot) is retried here and the refusals counted.
    virtual void Send(const char* data, size_t size) = 0;
    // A transport that lends its own shared memory returns here a writable block of `size`
    // bytes, which the writer fills in place and hands over with Publish; a loan that cannot be
    // had yet is waited for (and counted as a refusal) here. nullptr, the default: the
    // transport takes blocks by copy through Send.
    virtual char* Loan(size_t size) {
        (void)size;
        return nullptr;
    }
    virtual void Publish(char* block, size_t size) {
        (void)block;
        (void)size;
    }
    virtual std::uint64_t Refusals() const { return 0; }
    // Called once all processes are ready and before the first measured block: a transport
    // whose subscription settles asynchronously (ZeroMQ, iceoryx) waits here until a block
    // would reach the reader. False when it never did by the deadline.
    virtual bool Warmup(std::uint64_t deadlineNs) {
        (void)deadlineNs;
        return true;
    }
};

// First word of a ZeroMQ warm-up message; readers drop such messages.
constexpr std::uint32_t kProbeMagic = 0x50524f42;  // "PROB"
// Index in ControlBlock::reserved of the flag a reader sets when it has seen a probe.
constexpr int kProbeSeenWord = 0;
// Index in ControlBlock::reserved of the flag a throughput reader sets when it has stopped.
constexpr int kReaderDoneWord = 1;

// Receives complete blocks, on whatever thread the transport delivers on.
class BlockSink {
public:
    virtual ~BlockSink() {}
    virtual void OnBlock(const char* data, size_t size) = 0;
};

// Ends a receiver's run: set by the sink when every block is in, or by the deadline.
class Stopper {
public:
    explicit Stopper(std::uint64_t deadlineNs) : deadlineNs_(deadlineNs) {}
    void Stop();
    bool Stopped() const;
    // Blocks until Stop() or the deadline; true when stopped before the deadline.
    bool Wait();
    std::uint64_t DeadlineNs() const { return deadlineNs_; }

private:
    const std::uint64_t deadlineNs_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::atomic<bool> stopped_{false};
};

class Receiver {
public:
    virtual ~Receiver() {}
    // Called before the reader reports ready: a transport that delivers on a thread of its own
    // (the slot readers) attaches the sink here, so that no block written after "go" can pass
    // before anybody listens.
    virtual void Attach(BlockSink& sink) { (void)sink; }
    // Delivers blocks to `sink` until `stop` is stopped or its deadline passes.
    virtual void Run(BlockSink& sink, Stopper& stop) = 0;
};

// Turns a byte stream (pipes, sockets) back into blocks of a fixed size.
class StreamReassembler {
public:
    StreamReassembler(size_t blockSize, BlockSink& sink) : blockSize_(blockSize), sink_(sink) {
        pending_.reserve(blockSize);
    }
    void Feed(const char* data, size_t size);

private:
    size_t blockSize_;
    BlockSink& sink_;
    std::vector<char> pending_;
};

// The catalogue of what is measured, in report order: one entry per transport, with what it is
// measured in and the functions that make its two ends. Adding a transport is one entry here
// plus its adapter (a Sender, a Receiver and, where objects must exist before the children
// start, a prepare/cleanup pair).
struct TransportInfo {
    std::string name;
    std::string label;
    bool isSlot;
    bool latency;
    bool throughput;
    bool multiWriter;
    bool spinning;    // the reader busy-polls: set beside the spinning floor
    size_t maxBlock;  // largest block size measured; 0: every size of the plan
    // Parent side, may be null: creates what must exist before the children start (FIFO,
    // condition segment, socket pair) and removes everything of the run, also after a failure.
    void (*prepare)(RunParams& params);
    void (*cleanup)(RunParams& params);
    // Child side; null for a peer whose package was not found at configure time.
    std::unique_ptr<Sender> (*makeSender)(const RunParams& params);
    std::unique_ptr<Receiver> (*makeReceiver)(const RunParams& params);
    // Why the transport cannot run here, or "" when it can; null: it always can.
    std::string (*unavailable)();

    bool MeasuredAt(size_t blockSize) const { return maxBlock == 0 || blockSize <= maxBlock; }
};
const std::vector<TransportInfo>& Transports();
const TransportInfo* FindTransport(const std::string& name);

// Why a transport cannot run here, or "" when it can.
std::string TransportUnavailable(const std::string& name);

// The catalogue's functions for the transport of `params`. A run that names no transport (the
// scale roles open their slots themselves) has nothing to prepare or clean up.
void PrepareTransport(RunParams& params);
void CleanupTransport(RunParams& params);
std::unique_ptr<Sender> MakeSender(const RunParams& params);
std::unique_ptr<Receiver> MakeReceiver(const RunParams& params);

// Optional peers, defined in their own files when the package was found at configure time.
#ifdef SLOTBENCH_HAVE_ZMQ
std::unique_ptr<Sender> MakeZmqSender(const RunParams& params);
std::unique_ptr<Receiver> MakeZmqReceiver(const RunParams& params);
std::string ZmqVersion();
#endif
#ifdef SLOTBENCH_HAVE_ICEORYX
std::unique_ptr<Sender> MakeIceoryxSender(const RunParams& params);
std::unique_ptr<Sender> MakeIceoryxLoanSender(const RunParams& params);
std::unique_ptr<Receiver> MakeIceoryxReceiver(const RunParams& params);
#endif

// Slot library logging: errors only, on stderr.
void ConfigureSlotLogging();

}  // namespace bench
