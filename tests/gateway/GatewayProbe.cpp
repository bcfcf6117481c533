// SPDX-License-Identifier: Apache-2.0
// Test driver for the two-host gateway test, run inside each "host" (the blocks are
// NumberedBlock.h's). gateway_probe
//   write SLOT MAXSIZE COUNT [PAUSE_MS]: numbered blocks into a reliable slot, waiting while it
//     is full (and PAUSE_MS after each block: a paced stream)
//   read SLOT MAXSIZE COUNT SECONDS: checks that blocks 0..COUNT-1 arrive in order, byte for
//     byte (a repeat of the block just read is counted, not an error)
//   state SLOT MAXSIZE TEXT: writes TEXT into a discarding slot
//   wait-state SLOT MAXSIZE TEXT SECONDS: waits until the discarding slot holds TEXT
//   watch-state SLOT MAXSIZE TEXT SECONDS: waits until a reader of the slot is given TEXT
//     (prints 'ready' once reading)
//   length SLOT MAXSIZE: prints the number of blocks waiting in a reliable slot
//   pool-write KIND POOL MAXSIZE BLOCKS COUNT [PAUSE_MS]: numbered blocks filled in place in
//     loans of a pool ("queue": each stored, retried while the pool is full)
//   pool-read KIND POOL MAXSIZE BLOCKS COUNT SECONDS: as read, from a pool reader, and the
//     blocks' sequence numbers grow; "latest": blocks may be skipped, not reordered, and the
//     last must arrive
//   pool-rm POOL: removes the pool
#include "NumberedBlock.h"

#include <Slot/PoolBlock.h>
#include <Slot/PoolFactory.h>
#include <Slot/SlotFactory.h>
#include <Slot/WriteOutcome.h>

#include <log4cxx/basicconfigurator.h>
#include <log4cxx/logger.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using gatewaytest::NumberedBlock;

SlotCfg Cfg(const std::string& name, const std::string& type, std::size_t maxSize) {
    const bool reliable = type == "reliable";
    // A discarding reader passes on only states younger than its update time: generous under
    // load.
    return SlotCfg(name, type, boost::posix_time::milliseconds(reliable ? 20 : 500),
                   reliable ? 16 : 1, maxSize);
}

// Checks each delivered block against the next expected one. With `skips` (a latest pool), a
// later block may stand in for the next one; a pool's blocks must also carry growing sequence
// numbers.
class Checker : public shared::ISubscriber {
public:
    Checker(std::size_t maxSize, unsigned count, bool skips = false)
        : maxSize_(maxSize), count_(count), skips_(skips) {}
    void onNotify(const std::string&, const void* data, size_t size) override {
        const auto* bytes = static_cast<const unsigned char*>(data);
        const Bytes block(bytes, bytes + size);
        const std::uint64_t sequence = Slot::CurrentBlockSequence();
        std::lock_guard<std::mutex> guard(mutex_);
        unsigned match = next_;
        while (skips_ && match + 1 < count_ && block != NumberedBlock(match, maxSize_)) {
            ++match;
        }
        if (failed_ || next_ >= count_) {
            ++extra_;
        } else if (sequence != 0 && sequence <= sequence_) {
            Fail("sequence " + std::to_string(sequence) + " after " + std::to_string(sequence_));
        } else if (block == NumberedBlock(match, maxSize_)) {
            skipped_ += match - next_;
            next_ = match + 1;
        } else if (next_ > 0 && block == NumberedBlock(next_ - 1, maxSize_)) {
            ++repeats_;
        } else {
            Fail("block " + std::to_string(next_) + " expected (" +
                 std::to_string(NumberedBlock(next_, maxSize_).size()) + " bytes), got " +
                 std::to_string(size) + " other bytes");
        }
        sequence_ = sequence;
        changed_.notify_all();
    }
    // 0 all arrived, 1 wrong block, 2 time out.
    int Wait(std::chrono::seconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        const bool done =
            changed_.wait_for(lock, timeout, [&] { return failed_ || next_ >= count_; });
        std::cout << "received " << next_ << " of " << count_ << " blocks in order, " << repeats_
                  << " repeated, " << skipped_ << " skipped, " << extra_ << " extra\n";
        return failed_ ? 1 : done ? 0 : 2;
    }

private:
    void Fail(const std::string& what) {
        failed_ = true;
        std::cerr << "gateway_probe: " << what << "\n";
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    const std::size_t maxSize_;
    const unsigned count_;
    const bool skips_;
    unsigned next_ = 0, repeats_ = 0, skipped_ = 0, extra_ = 0;
    std::uint64_t sequence_ = 0;
    bool failed_ = false;
};

Slot::PoolConfig PoolCfg(char** argv) {  // KIND POOL MAXSIZE BLOCKS
    return Slot::PoolConfig{argv[1], argv[0], std::strtoul(argv[2], nullptr, 10),
                            std::strtoul(argv[3], nullptr, 10)};
}

// pool-write KIND POOL MAXSIZE BLOCKS COUNT [PAUSE_MS]
int PoolWrite(int argc, char** argv) {
    const Slot::PoolConfig cfg = PoolCfg(argv);
    boost::shared_ptr<Slot::PoolWriter> writer = Slot::PoolFactory::CreatePoolWriter(cfg);
    const unsigned count = std::strtoul(argv[4], nullptr, 10);
    const std::chrono::milliseconds pause(argc > 5 ? std::strtoul(argv[5], nullptr, 10) : 0);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    for (unsigned n = 0; n < count;) {
        const Bytes block = NumberedBlock(n, cfg.maxBlockSize);
        Slot::PoolLoan loan = writer->loan(block.size());
        if (loan) {
            std::copy(block.begin(), block.end(), static_cast<unsigned char*>(loan.data()));
        }
        const Slot::WriteOutcome outcome = loan.publish(block.size());
        if (outcome == Slot::WriteOutcome::Stored ||
            (outcome == Slot::WriteOutcome::Discarded && cfg.kind == "latest")) {
            ++n;
            std::this_thread::sleep_for(pause);
        } else if (outcome == Slot::WriteOutcome::Failed) {
            std::cerr << "gateway_probe: publishing block " << n << " failed\n";
            return 1;
        } else if (std::chrono::steady_clock::now() > end) {
            std::cerr << "gateway_probe: the pool stayed full at block " << n << "\n";
            return 2;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return 0;
}

// pool-read KIND POOL MAXSIZE BLOCKS COUNT SECONDS
int PoolRead(char** argv) {
    const Slot::PoolConfig cfg = PoolCfg(argv);
    boost::shared_ptr<Checker> checker(
        new Checker(cfg.maxBlockSize, std::strtoul(argv[4], nullptr, 10), cfg.kind == "latest"));
    INotifierPtr reader = Slot::PoolFactory::CreatePoolReader(cfg, checker);
    const int result = checker->Wait(std::chrono::seconds(std::strtoul(argv[5], nullptr, 10)));
    reader.reset();
    return result;
}

int Usage() {
    std::cerr
        << "usage: gateway_probe write|read|length|state|wait-state|watch-state SLOT MAXSIZE ...\n"
           "       gateway_probe pool-write|pool-read KIND POOL MAXSIZE BLOCKS COUNT ...\n"
           "       gateway_probe pool-rm POOL\n";
    return 64;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string first = argc > 1 ? argv[1] : "";
    if (first == "pool-write" || first == "pool-read" || first == "pool-rm") {
        log4cxx::BasicConfigurator::configure();
        log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getError());
        if (first == "pool-rm" && argc == 3) {
            return Slot::PoolFactory::RemovePool(argv[2]) ? 0 : 1;
        }
        if (first == "pool-write" && (argc == 7 || argc == 8)) {
            return PoolWrite(argc - 2, argv + 2);
        }
        if (first == "pool-read" && argc == 8) {
            return PoolRead(argv + 2);
        }
        return Usage();
    }
    if (argc < 4 || (std::string(argv[1]) != "length" && argc < 5)) {
        return Usage();
    }
    log4cxx::BasicConfigurator::configure();
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getError());
    const std::string mode = argv[1], name = argv[2];
    const std::size_t maxSize = std::strtoul(argv[3], nullptr, 10);
    if (mode == "write") {
        const SlotCfg cfg = Cfg(name, "reliable", maxSize);
        ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
        const unsigned count = std::strtoul(argv[4], nullptr, 10);
        const std::chrono::milliseconds pause(argc > 5 ? std::strtoul(argv[5], nullptr, 10) : 0);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        for (unsigned n = 0; n < count;) {
            const Bytes block = NumberedBlock(n, maxSize);
            writer->onNotify(name, block.data(), block.size());
            if (Slot::LastWriteOutcome() == Slot::WriteOutcome::Stored) {
                ++n;
                std::this_thread::sleep_for(pause);
            } else if (std::chrono::steady_clock::now() > end) {
                std::cerr << "gateway_probe: the slot stayed full at block " << n << "\n";
                return 2;
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        return 0;
    }
    if (mode == "read" && argc == 6) {
        const SlotCfg cfg = Cfg(name, "reliable", maxSize);
        boost::shared_ptr<Checker> checker(
            new Checker(maxSize, std::strtoul(argv[4], nullptr, 10)));
        INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg, checker);
        const int result = checker->Wait(std::chrono::seconds(std::strtoul(argv[5], nullptr, 10)));
        reader.reset();
        return result;
    }
    if (mode == "length") {
        const SlotCfg cfg = Cfg(name, "reliable", maxSize);
        std::cout << SlotFactory::CreateSlot(&cfg)->GetBufferLength() << "\n";
        return 0;
    }
    if (mode == "state") {
        const SlotCfg cfg = Cfg(name, "discarding", maxSize);
        boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
        const std::string text = argv[4];
        slot->WriteData(text.data(), text.size());
        return 0;
    }
    if (mode == "wait-state" && argc == 6) {
        const SlotCfg cfg = Cfg(name, "discarding", maxSize);
        boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
        const std::string text = argv[4];
        const auto end = std::chrono::steady_clock::now() +
                         std::chrono::seconds(std::strtoul(argv[5], nullptr, 10));
        std::vector<char> buffer(maxSize);
        std::string seen;
        while (std::chrono::steady_clock::now() < end) {
            const size_t n = slot->ReadData(buffer.data(), buffer.size());
            seen.assign(buffer.data(), n);
            if (seen == text) {
                return 0;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::cerr << "gateway_probe: '" << name << "' holds '" << seen << "', not '" << text
                  << "'\n";
        return 2;
    }
    if (mode == "watch-state" && argc == 6) {
        // Subscribed before the state is written: "ready" on stdout says so.
        struct Watcher : shared::ISubscriber {
            std::mutex mutex;
            std::condition_variable changed;
            std::string text, seen;
            void onNotify(const std::string&, const void* data, size_t size) override {
                std::lock_guard<std::mutex> guard(mutex);
                seen.assign(static_cast<const char*>(data), size);
                changed.notify_all();
            }
        };
        const SlotCfg cfg = Cfg(name, "discarding", maxSize);
        boost::shared_ptr<Watcher> watcher(new Watcher);
        watcher->text = argv[4];
        INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg, watcher);
        std::cout << "ready" << std::endl;
        std::unique_lock<std::mutex> lock(watcher->mutex);
        const bool seen = watcher->changed.wait_for(
            lock, std::chrono::seconds(std::strtoul(argv[5], nullptr, 10)),
            [&] { return watcher->seen == watcher->text; });
        if (!seen) {
            std::cerr << "gateway_probe: '" << name << "' showed '" << watcher->seen
                      << "' last, not '" << watcher->text << "'" << std::endl;
        }
        lock.unlock();
        reader.reset();
        return seen ? 0 : 2;
    }
    return Usage();
}
