// SPDX-License-Identifier: Apache-2.0
#include <shared/WriteOutcome.h>

#include <shared/AtForkMutex.h>

#include <atomic>
#include <memory>
#include <unordered_map>

namespace shared {

class WriteCounters {
public:
    std::atomic<std::uint64_t> stored{0};
    std::atomic<std::uint64_t> discarded{0};
    std::atomic<std::uint64_t> refused{0};
    std::atomic<std::uint64_t> failed{0};
    std::atomic<std::uint64_t> bytesLostAtClose{0};
};

namespace {

thread_local WriteOutcome lastOutcome = WriteOutcome::None;

// Slot name -> counters. Entries are never removed, so the pointers handed out stay valid;
// the map is touched only when a writer first meets a name and when counts are asked for.
// Never freed: writers may still record while static objects are torn down.
std::unordered_map<std::string, std::unique_ptr<WriteCounters>>* Counters = nullptr;

void InitCounters() {
    Counters = new std::unordered_map<std::string, std::unique_ptr<WriteCounters>>;
}

// The counts are the process's own writes: a forked child has made none yet.
void ZeroCountsInChild() {
    for (auto& entry : *Counters) {
        WriteCounters& c = *entry.second;
        c.stored.store(0, std::memory_order_relaxed);
        c.discarded.store(0, std::memory_order_relaxed);
        c.refused.store(0, std::memory_order_relaxed);
        c.failed.store(0, std::memory_order_relaxed);
        c.bytesLostAtClose.store(0, std::memory_order_relaxed);
    }
}

// fork() takes it around itself: a child never finds it held by a thread it does not have.
using CountersLock = AtForkMutex<InitCounters, ZeroCountsInChild>::Lock;

std::uint64_t Load(const std::atomic<std::uint64_t>& value) {
    return value.load(std::memory_order_relaxed);
}

}  // namespace

WriteCounters* WriteCountersFor(const std::string& slotName) {
    CountersLock lock;
    std::unique_ptr<WriteCounters>& entry = (*Counters)[slotName];
    if (!entry) {
        entry.reset(new WriteCounters);
    }
    return entry.get();
}

void RecordWriteOutcome(WriteCounters* counters, WriteOutcome outcome) {
    std::atomic<std::uint64_t>* counter = nullptr;
    switch (outcome) {
        case WriteOutcome::None:
            return;
        case WriteOutcome::Stored:
            counter = &counters->stored;
            break;
        case WriteOutcome::Discarded:
            counter = &counters->discarded;
            break;
        case WriteOutcome::Refused:
            counter = &counters->refused;
            break;
        case WriteOutcome::Failed:
            counter = &counters->failed;
            break;
    }
    lastOutcome = outcome;
    counter->fetch_add(1, std::memory_order_relaxed);
}

void RecordBytesLostAtClose(WriteCounters* counters, std::uint64_t bytes) {
    counters->bytesLostAtClose.fetch_add(bytes, std::memory_order_relaxed);
}

WriteOutcome LastWriteOutcome() {
    return lastOutcome;
}

WriteCounts GetWriteCounts(const std::string& slotName) {
    CountersLock lock;
    WriteCounts counts;
    const auto found = Counters->find(slotName);
    if (found != Counters->end()) {
        const WriteCounters& c = *found->second;
        counts.stored = Load(c.stored);
        counts.discarded = Load(c.discarded);
        counts.refused = Load(c.refused);
        counts.failed = Load(c.failed);
        counts.bytesLostAtClose = Load(c.bytesLostAtClose);
    }
    return counts;
}

const char* ToString(WriteOutcome outcome) {
    switch (outcome) {
        case WriteOutcome::None:
            return "none";
        case WriteOutcome::Stored:
            return "stored";
        case WriteOutcome::Discarded:
            return "discarded";
        case WriteOutcome::Refused:
            return "refused";
        case WriteOutcome::Failed:
            return "failed";
    }
    return "unknown";
}

}  // namespace shared
