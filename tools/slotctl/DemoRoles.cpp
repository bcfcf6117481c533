// SPDX-License-Identifier: Apache-2.0
// The demo's publisher and subscriber processes.
#include "Commands.h"
#include "Demo.h"
#include "Logging.h"
#include "Signals.h"
#include "SlotOptions.h"

#include <Slot/SlotFactory.h>
#include <Slot/WriteOutcome.h>

#include <FileUtils/NamedPipeCreator.h>
#include <IoUtils/AccumulationBuffer.h>

#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>

namespace slotctl {
namespace demo {

const char* const SlotTypes[SlotCount] = {"discarding", "reliable", "posix-pipe"};

std::string Settings::SlotName(int slot) const {
    return prefix + "-" + SlotTypes[slot];
}

std::vector<std::string> Settings::ToArguments() const {
    return {"--prefix",      prefix,
            "--size",        std::to_string(blockSize),
            "--rate",        std::to_string(rate),
            "--burst",       std::to_string(burst),
            "--queue",       std::to_string(queue),
            "--update-time", std::to_string(updateMs),
            "--duration-ms", std::to_string(durationMs)};
}

Settings Settings::FromArguments(const std::string& command, const std::vector<std::string>& args) {
    const Arguments arguments(
        command, args, {"prefix", "size", "rate", "burst", "queue", "update-time", "duration-ms"},
        {});
    Settings settings;
    settings.prefix = arguments.Get("prefix");
    settings.blockSize =
        arguments.GetNumber("size", settings.blockSize, MinBlockSize, MaxBlockSize);
    settings.rate = arguments.GetNumber("rate", settings.rate, 1, 10000000);
    settings.burst = arguments.GetNumber("burst", settings.burst, 1, 1000000);
    settings.queue = arguments.GetNumber("queue", settings.queue, 1, 1000000);
    settings.updateMs = arguments.GetNumber("update-time", settings.updateMs, 1, 60000);
    settings.durationMs = arguments.GetNumber("duration-ms", settings.durationMs, 0, 86400000);
    return settings;
}

std::uint64_t MonotonicNs() {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

namespace {

SlotCfg DemoConfig(const Settings& settings, int slot) {
    return SlotCfg(settings.SlotName(slot), SlotTypes[slot],
                   boost::posix_time::milliseconds(static_cast<long>(settings.updateMs)),
                   static_cast<size_t>(settings.queue), static_cast<size_t>(settings.blockSize));
}

void PrintLine(const std::string& line) {
    // One write per line, so the controller never sees half a report.
    const std::string text = line + "\n";
    if (::write(STDOUT_FILENO, text.data(), text.size()) < 0) {
        // The controller is gone; standard input will tell us to stop.
    }
}

// True when the controller closed our standard input (or wrote to it) within `timeoutNs`.
bool StopRequested(std::uint64_t timeoutNs) {
    pollfd p = {STDIN_FILENO, POLLIN, 0};
    timespec ts;
    ts.tv_sec = static_cast<time_t>(timeoutNs / 1000000000u);
    ts.tv_nsec = static_cast<long>(timeoutNs % 1000000000u);
    const int r = ::ppoll(&p, 1, &ts, nullptr);
    return r > 0;
}

// Blocks of each demo slot that did not get through as written: discarded waiting blocks of the
// discarding slot, refused blocks of the reliable one, dropped blocks of the pipe, and failures.
class NotStoredCounter {
public:
    explicit NotStoredCounter(const Settings& settings) {
        for (int i = 0; i < SlotCount; ++i) {
            names_[i] = settings.SlotName(i);
            before_[i] = Lost(Slot::GetWriteCounts(names_[i]));
        }
    }
    std::uint64_t Count(int slot) const {
        return Lost(Slot::GetWriteCounts(names_[slot])) - before_[slot];
    }

private:
    static std::uint64_t Lost(const Slot::WriteCounts& counts) {
        return counts.discarded + counts.NotStored();
    }
    std::string names_[SlotCount];
    std::uint64_t before_[SlotCount] = {};
};

std::string PublisherLine(char tag, std::uint64_t elapsedMs, const std::uint64_t* sent,
                          const NotStoredCounter& notStored) {
    std::string line(1, tag);
    line += " " + std::to_string(elapsedMs);
    for (int i = 0; i < SlotCount; ++i) {
        line += " " + std::to_string(sent[i]) + " " + std::to_string(notStored.Count(i));
    }
    return line;
}

// Byte `k` of every block after its sequence number and time stamp.
char FillByte(size_t k) {
    return static_cast<char>('a' + k % 26);
}

// Receives the blocks of one slot and measures them.
class Measure : public shared::ISubscriber {
public:
    explicit Measure(const Settings& settings)
        : blockSize_(settings.blockSize),
          rate_(static_cast<double>(settings.rate)),
          burst_(static_cast<double>(settings.burst)),
          start_(MonotonicNs()) {}

    void onNotify(const std::string&, const void* data, size_t size) override {
        const std::uint64_t now = MonotonicNs();
        if (size != blockSize_) {
            return;  // not one of ours
        }
        const char* bytes = static_cast<const char*>(data);
        std::uint64_t seq = 0;
        std::uint64_t stamp = 0;
        std::memcpy(&seq, bytes, sizeof(seq));
        std::memcpy(&stamp, bytes + sizeof(seq), sizeof(stamp));
        // Another writer's block of the same size (the slots are open to all): its fill differs,
        // or its number is beyond what the publisher, which starts after this reader, can have
        // sent by now. The number indexes seen_ only once it passed.
        bool ours = static_cast<double>(seq) <=
                    static_cast<double>(now - start_) * 1e-9 * rate_ + 2 * burst_;
        for (size_t k = 2 * sizeof(std::uint64_t); ours && k < size; ++k) {
            ours = bytes[k] == FillByte(k);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (!ours) {
            ++foreign_;
            return;
        }
        if (seq >= seen_.size()) {
            seen_.resize(std::max<size_t>(static_cast<size_t>(seq) + 1, seen_.size() * 2), false);
        }
        if (seen_[seq]) {
            ++duplicates_;
            return;
        }
        seen_[seq] = true;
        if (received_ != 0 && seq < highest_) {
            ++outOfOrder_;
        }
        highest_ = std::max(highest_, seq);
        ++received_;
        latencies_.push_back(now > stamp ? now - stamp : 0);
    }

    // "<received> <duplicates> <out of order> <foreign> <p50 ns> <p99 ns>"
    std::string Report() {
        std::vector<std::uint64_t> latencies;
        std::string counts;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            latencies = latencies_;
            counts = std::to_string(received_) + " " + std::to_string(duplicates_) + " " +
                     std::to_string(outOfOrder_) + " " + std::to_string(foreign_);
        }
        return counts + " " + Percentile(latencies, 50) + " " + Percentile(latencies, 99);
    }

private:
    static std::string Percentile(std::vector<std::uint64_t>& values, unsigned percent) {
        if (values.empty()) {
            return "-1";
        }
        const size_t index = (values.size() - 1) * percent / 100;
        std::nth_element(values.begin(), values.begin() + static_cast<long>(index), values.end());
        return std::to_string(values[index]);
    }

    const std::uint64_t blockSize_;
    const double rate_;   // blocks per second
    const double burst_;  // blocks sent at once
    const std::uint64_t start_;
    std::mutex mutex_;
    std::vector<bool> seen_;                // guarded by mutex_
    std::vector<std::uint64_t> latencies_;  // guarded by mutex_
    std::uint64_t received_ = 0;            // guarded by mutex_
    std::uint64_t duplicates_ = 0;          // guarded by mutex_
    std::uint64_t outOfOrder_ = 0;          // guarded by mutex_
    std::uint64_t highest_ = 0;             // guarded by mutex_
    std::uint64_t foreign_ = 0;             // guarded by mutex_
};

}  // namespace

}  // namespace demo

int RunDemoPublisher(const Context&, const std::vector<std::string>& args) {
    using namespace demo;
    const Settings settings = Settings::FromArguments("__demo-publisher", args);
    NotStoredCounter notStored(settings);
    std::vector<ISubscriberPtr> writers;
    for (int i = 0; i < SlotCount; ++i) {
        const SlotCfg cfg = DemoConfig(settings, i);
        writers.push_back(SlotFactory::CreateSlotWriter(&cfg));
    }
    std::string block(static_cast<size_t>(settings.blockSize), '\0');
    for (size_t k = 2 * sizeof(std::uint64_t); k < block.size(); ++k) {
        block[k] = FillByte(k);
    }
    std::uint64_t sent[SlotCount] = {};
    const std::uint64_t start = MonotonicNs();
    const std::uint64_t end = start + settings.durationMs * 1000000u;
    const std::uint64_t burstSpacingNs = settings.burst * 1000000000u / settings.rate;
    std::uint64_t nextReport = start;
    for (std::uint64_t burst = 0;; ++burst) {
        const std::uint64_t due = start + burst * burstSpacingNs;
        std::uint64_t now = MonotonicNs();
        if (due >= end) {
            break;
        }
        if (due > now && StopRequested(due - now)) {
            break;
        }
        for (std::uint64_t j = 0; j < settings.burst; ++j) {
            for (int i = 0; i < SlotCount; ++i) {
                const std::uint64_t seq = sent[i];
                const std::uint64_t stamp = MonotonicNs();
                std::memcpy(&block[0], &seq, sizeof(seq));
                std::memcpy(&block[sizeof(seq)], &stamp, sizeof(stamp));
                writers[static_cast<size_t>(i)]->onNotify(settings.SlotName(i), block.data(),
                                                          block.size());
                ++sent[i];
            }
        }
        now = MonotonicNs();
        if (now >= nextReport) {
            PrintLine(PublisherLine('P', (now - start) / 1000000u, sent, notStored));
            nextReport = now + 20000000u;
        }
        if (StopRequested(0)) {
            break;
        }
    }
    writers.clear();
    PrintLine(PublisherLine('E', (MonotonicNs() - start) / 1000000u, sent, notStored));
    return ExitOk;
}

int RunDemoSubscriber(const Context&, const std::vector<std::string>& args) {
    using namespace demo;
    const Settings settings = Settings::FromArguments("__demo-subscriber", args);
    std::vector<std::unique_ptr<Measure>> measures;
    for (int i = 0; i < SlotCount; ++i) {
        measures.emplace_back(new Measure(settings));
    }
    // A pipe is a byte stream: the accumulation buffer cuts it back into blocks.
    IoUtils::AccumulationBuffer blocks(static_cast<unsigned int>(settings.blockSize),
                                       static_cast<unsigned int>(settings.blockSize));
    blocks.subscribe(measures[PosixPipe].get());
    std::vector<INotifierPtr> readers;
    for (int i = 0; i < SlotCount; ++i) {
        const SlotCfg cfg = DemoConfig(settings, i);
        shared::ISubscriber* target = i == PosixPipe
                                          ? static_cast<shared::ISubscriber*>(&blocks)
                                          : static_cast<shared::ISubscriber*>(measures[i].get());
        // Subscribed before the thread starts; the targets outlive the readers.
        readers.push_back(SlotFactory::CreateSlotReader(
            &cfg, ISubscriberPtr(target, [](shared::ISubscriber*) {})));
    }
    PrintLine("ready");
    auto report = [&](char tag) {
        std::string line(1, tag);
        for (int i = 0; i < SlotCount; ++i) {
            line += " " + measures[static_cast<size_t>(i)]->Report();
        }
        PrintLine(line);
    };
    while (!StopRequested(100000000u)) {
        report('S');
    }
    for (INotifierPtr& reader : readers) {
        reader->unsubscribeAll();
    }
    readers.clear();
    report('F');
    return ExitOk;
}

}  // namespace slotctl
