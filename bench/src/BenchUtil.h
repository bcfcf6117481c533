// SPDX-License-Identifier: Apache-2.0
#pragma once

// Building blocks shared by every role of the benchmark: the clock, the block format with its
// sequence number and checksum, percentiles, CPU time and the futex words of the control segment.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// CLOCK_MONOTONIC in nanoseconds: the same clock in every process of the machine.
std::uint64_t NowNs();

// CPU time (user + system) of this process in nanoseconds.
std::uint64_t ProcessCpuNs();

// Every benchmark block starts with this header; the rest of the block is payload. A block is
// never shorter than the header (the smallest measured size, 64 bytes, holds it).
//
//   offset 0   magic     uint32  kBlockMagic
//   offset 4   writer    uint32  writer id (0 or 1)
//   offset 8   seq       uint64  0, 1, 2, ... per writer
//   offset 16  sendNs    uint64  NowNs() taken just before the block is handed to the transport;
//                                not covered by the checksum, so stamping costs nothing extra
//   offset 24  size      uint32  total block size in bytes
//   offset 28  checksum  uint32  Mix(payload checksum, magic, writer, seq, size)
struct BlockHeader {
    std::uint32_t magic;
    std::uint32_t writer;
    std::uint64_t seq;
    std::uint64_t sendNs;
    std::uint32_t size;
    std::uint32_t checksum;
};
static_assert(sizeof(BlockHeader) == 32, "the header has no padding");

constexpr std::uint32_t kBlockMagic = 0x534c4254;  // "SLBT"

// Position-dependent checksum of a byte range (Fletcher-style, 64-bit sums over 8-byte words).
std::uint64_t PayloadChecksum(const char* data, size_t size);

// A small set of pre-filled blocks of one size. The payload differs between the blocks and its
// checksum is computed once, so that preparing a block for sending only rewrites the header.
class BlockSource {
public:
    BlockSource(size_t blockSize, std::uint32_t writer, unsigned int variants = 8);
    // Fills in the header of the next variant for `seq` (sendNs 0) and returns it.
    char* Prepare(std::uint64_t seq);
    size_t Size() const { return size_; }

private:
    size_t size_;
    std::uint32_t writer_;
    std::vector<std::vector<char>> blocks_;
    std::vector<std::uint64_t> payloadSums_;
};

// Stamps sendNs into a prepared block.
inline void StampSend(char* block, std::uint64_t ns) {
    reinterpret_cast<BlockHeader*>(block)->sendNs = ns;
}

// What a receiver learns from one block.
enum class BlockCheck { Ok, Short, BadMagic, BadChecksum };
BlockCheck CheckBlock(const char* data, size_t size, size_t expectedSize, BlockHeader* header);

// Per-writer sequence bookkeeping on the receiving side.
struct SequenceStats {
    std::uint64_t received = 0;
    std::uint64_t lost = 0;        // gaps in the sequence
    std::uint64_t duplicates = 0;  // a sequence number seen again or going backwards
    std::uint64_t corrupt = 0;     // wrong size, magic or checksum
    std::uint64_t next = 0;        // next expected sequence number
    // Records `seq`; answers true when it is the expected one.
    bool Accept(std::uint64_t seq);
};

// Latency summary in nanoseconds.
struct Percentiles {
    size_t count = 0;
    double p50 = 0, p90 = 0, p99 = 0, p999 = 0, max = 0, mean = 0;
};
Percentiles ComputePercentiles(std::vector<std::uint64_t> samples);

// Futex operations on a 32-bit word in shared memory (not process-private).
void FutexWakeAll(std::uint32_t* word);
// Sleeps while *word == expected, at most until deadlineNs (NowNs clock). False on timeout.
bool FutexWaitWhile(std::uint32_t* word, std::uint32_t expected, std::uint64_t deadlineNs);
// Waits until *word >= target (wrap-free counters). False on timeout.
bool FutexWaitAtLeast(std::uint32_t* word, std::uint32_t target, std::uint64_t deadlineNs);

// key=value files: how children hand their results to the parent.
class KeyValues {
public:
    void Set(const std::string& key, const std::string& value);
    void Set(const std::string& key, std::uint64_t value);
    void SetDouble(const std::string& key, double value);
    std::string Get(const std::string& key, const std::string& fallback = "") const;
    std::uint64_t GetU64(const std::string& key, std::uint64_t fallback = 0) const;
    double GetDouble(const std::string& key, double fallback = 0) const;
    bool Has(const std::string& key) const;
    bool Save(const std::string& path) const;
    bool Load(const std::string& path);

private:
    std::vector<std::pair<std::string, std::string>> entries_;
};

std::string FormatDouble(double value, int decimals);

}  // namespace bench
