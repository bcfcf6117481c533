// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Cli.h"

#include <cstdint>
#include <string>
#include <vector>

namespace slotctl {
namespace demo {

// The demo's three slots, in display order.
enum SlotIndex { Discarding, Reliable, PosixPipe };
const int SlotCount = 3;
extern const char* const SlotTypes[SlotCount];  // "discarding", "reliable", "posix-pipe"

// What the controller passes on to its two processes.
struct Settings {
    std::string prefix;
    std::uint64_t blockSize = 64;
    std::uint64_t rate = 1000;  // blocks per second per slot
    std::uint64_t burst = 50;   // blocks written back to back
    std::uint64_t queue = 16;   // reliable capacity
    std::uint64_t updateMs = 100;
    std::uint64_t durationMs = 10000;

    std::string SlotName(int slot) const;
    std::vector<std::string> ToArguments() const;
    // Reads what ToArguments wrote (the hidden commands' arguments).
    static Settings FromArguments(const std::string& command, const std::vector<std::string>& args);
};

// Every block begins with its sequence number and the CLOCK_MONOTONIC time at which it was
// handed to the writer, both 64-bit in host order; the rest is a fill pattern. A block of the
// demo's size that does not look so (another writer's) is counted as foreign and ignored.
const std::uint64_t MinBlockSize = 16;
// Blocks of up to PIPE_BUF bytes go through a pipe whole.
const std::uint64_t MaxBlockSize = 4096;

std::uint64_t MonotonicNs();

// Lines on the processes' standard output, one report each:
//   publisher   "P <elapsed ms> <sent> <not stored>" x3        while running
//               "E <elapsed ms> <sent> <not stored>" x3        once, at the end
//   subscriber  "ready"                                        readers subscribed
//               "S <received> <duplicates> <out of order> <foreign> <p50 ns> <p99 ns>" x3
//                                                              periodically
//               "F ..." like S                                 once, at the end
// "Not stored" counts the library's warnings for the slot: waiting blocks discarded
// (discarding), blocks refused by a full queue (reliable), blocks dropped by a full pipe.
// A latency of -1 means no sample yet. The controller writes nothing but closes the
// processes' standard input to stop them.

}  // namespace demo
}  // namespace slotctl
