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
//   stalled-reader DOMAIN PARTITION TOPIC SECONDS: a reader of a route's topic that is not a
//     gateway, as a monitoring tool that stalled: RELIABLE, KEEP_ALL with room for 2 samples,
//     never takes (prints 'ready' once it exists)
#include "NumberedBlock.h"

#include "GatewayBlock.h"

#include <Slot/PoolBlock.h>
#include <Slot/PoolFactory.h>
#include <Slot/SlotFactory.h>
#include <Slot/WriteOutcome.h>

#include <log4cxx/basicconfigurator.h>
#include <log4cxx/logger.h>

#include <dds/dds.h>

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

// Checks each delivered block against the next expected one. With `skips` (a latest pool), a
// later block may stand in for the next one; a pool's blocks must also carry growing sequence
// numbers.
class Checker : public shared::ISubscriber {
public:
    Checker(std::size_t maxSize, unsigned count, bool skips)
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

// What a command works on: a slot (SLOT MAXSIZE), or a pool (KIND POOL MAXSIZE BLOCKS).
struct End {
    bool pool;
    std::string kind, name;
    std::size_t maxSize, blocks;
    SlotCfg Slot() const {
        // A discarding reader passes on only states younger than its update time: generous under
        // load.
        const bool reliable = kind == "reliable";
        return SlotCfg(name, kind, boost::posix_time::milliseconds(reliable ? 20 : 500),
                       reliable ? 16 : 1, maxSize);
    }
    Slot::PoolConfig Pool() const { return Slot::PoolConfig{name, kind, maxSize, blocks}; }
};

// COUNT numbered blocks, PAUSE_MS after each, retried while the slot or pool is full.
int Write(const End& end, unsigned count, std::chrono::milliseconds pause) {
    const SlotCfg cfg = end.Slot();
    ISubscriberPtr slotWriter = end.pool ? nullptr : SlotFactory::CreateSlotWriter(&cfg);
    auto poolWriter = end.pool ? Slot::PoolFactory::CreatePoolWriter(end.Pool()) : nullptr;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    for (unsigned n = 0; n < count;) {
        const Bytes block = NumberedBlock(n, end.maxSize);
        Slot::WriteOutcome outcome;
        if (end.pool) {
            Slot::PoolLoan loan = poolWriter->loan(block.size());
            if (loan) {
                std::copy(block.begin(), block.end(), static_cast<unsigned char*>(loan.data()));
            }
            outcome = loan.publish(block.size());
        } else {
            slotWriter->onNotify(end.name, block.data(), block.size());
            outcome = Slot::LastWriteOutcome();
        }
        if (outcome == Slot::WriteOutcome::Stored ||
            (outcome == Slot::WriteOutcome::Discarded && end.kind == "latest")) {
            ++n;
            std::this_thread::sleep_for(pause);
        } else if (end.pool && outcome == Slot::WriteOutcome::Failed) {
            std::cerr << "gateway_probe: publishing block " << n << " failed\n";
            return 1;
        } else if (std::chrono::steady_clock::now() > deadline) {
            std::cerr << "gateway_probe: the " << (end.pool ? "pool" : "slot")
                      << " stayed full at block " << n << "\n";
            return 2;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return 0;
}

// Checks that COUNT numbered blocks arrive within SECONDS.
int Read(const End& end, unsigned count, std::chrono::seconds timeout) {
    const SlotCfg cfg = end.Slot();
    boost::shared_ptr<Checker> checker(new Checker(end.maxSize, count, end.kind == "latest"));
    INotifierPtr reader = end.pool ? Slot::PoolFactory::CreatePoolReader(end.Pool(), checker)
                                   : SlotFactory::CreateSlotReader(&cfg, checker);
    const int result = checker->Wait(timeout);
    reader.reset();
    return result;
}

// Waits until the discarding slot holds `text`.
int WaitState(const End& end, const std::string& text, std::chrono::seconds timeout) {
    const SlotCfg cfg = end.Slot();
    boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::vector<char> buffer(end.maxSize);
    std::string seen;
    while (std::chrono::steady_clock::now() < deadline) {
        seen.assign(buffer.data(), slot->ReadData(buffer.data(), buffer.size()));
        if (seen == text) {
            return 0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::cerr << "gateway_probe: '" << end.name << "' holds '" << seen << "', not '" << text
              << "'\n";
    return 2;
}

// Waits until a reader of the discarding slot, subscribed before the state is written ("ready"
// on stdout says so), is given `text`.
int WatchState(const End& end, const std::string& text, std::chrono::seconds timeout) {
    struct Watcher : shared::ISubscriber {
        std::mutex mutex;
        std::condition_variable changed;
        std::string seen;
        void onNotify(const std::string&, const void* data, size_t size) override {
            std::lock_guard<std::mutex> guard(mutex);
            seen.assign(static_cast<const char*>(data), size);
            changed.notify_all();
        }
    };
    const SlotCfg cfg = end.Slot();
    boost::shared_ptr<Watcher> watcher(new Watcher);
    INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg, watcher);
    std::cout << "ready" << std::endl;
    std::unique_lock<std::mutex> lock(watcher->mutex);
    const bool seen =
        watcher->changed.wait_for(lock, timeout, [&] { return watcher->seen == text; });
    if (!seen) {
        std::cerr << "gateway_probe: '" << end.name << "' showed '" << watcher->seen
                  << "' last, not '" << text << "'" << std::endl;
    }
    lock.unlock();
    reader.reset();
    return seen ? 0 : 2;
}

int StalledReader(std::uint32_t domain, const std::string& partition, const std::string& topic,
                  std::chrono::seconds timeout) {
    const dds_entity_t participant = dds_create_participant(domain, nullptr, nullptr);
    const dds_entity_t type =
        dds_create_topic(participant, &SlotGatewayWire_Block_desc, topic.c_str(), nullptr, nullptr);
    dds_qos_t* qos = dds_create_qos();
    dds_qset_partition1(qos, partition.c_str());
    const dds_entity_t subscriber = dds_create_subscriber(participant, qos, nullptr);
    dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
    dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
    dds_qset_resource_limits(qos, 2, DDS_LENGTH_UNLIMITED, 2);
    const dds_entity_t reader = dds_create_reader(subscriber, type, qos, nullptr);
    dds_delete_qos(qos);
    if (reader < 0) {
        std::cerr << "gateway_probe: no reader: " << dds_strretcode(reader) << std::endl;
        return 1;
    }
    std::cout << "ready" << std::endl;
    std::this_thread::sleep_for(timeout);
    dds_delete(participant);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    log4cxx::BasicConfigurator::configure();
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getError());
    std::vector<std::string> args(argv + 1, argv + argc);
    const auto number = [&](std::size_t i) { return std::strtoul(args[i].c_str(), nullptr, 10); };
    std::string mode = args.empty() ? "" : args[0];
    if (mode == "pool-rm" && args.size() == 2) {
        return Slot::PoolFactory::RemovePool(args[1]) ? 0 : 1;
    }
    if (mode == "stalled-reader" && args.size() == 5) {
        return StalledReader(number(1), args[2], args[3], std::chrono::seconds(number(4)));
    }
    // From here on, args[i] is the i-th argument after the slot's or pool's.
    End end{};
    if (mode == "pool-write" || mode == "pool-read") {
        if (args.size() >= 5) {
            end = {true, args[1], args[2], number(3), number(4)};
            mode = mode.substr(5);
            args.erase(args.begin() + 1, args.begin() + 5);
        }
    } else if (args.size() >= 3) {
        const bool reliable = mode == "write" || mode == "read" || mode == "length";
        end = {false, reliable ? "reliable" : "discarding", args[1], number(2), 0};
        args.erase(args.begin() + 1, args.begin() + 3);
    }
    if (end.name.empty()) {
        mode.clear();
    }
    if (mode == "write" && (args.size() == 2 || args.size() == 3)) {
        return Write(end, number(1), std::chrono::milliseconds(args.size() > 2 ? number(2) : 0));
    }
    if (mode == "read" && args.size() == 3) {
        return Read(end, number(1), std::chrono::seconds(number(2)));
    }
    const SlotCfg cfg = end.Slot();
    if (!end.pool && mode == "length" && args.size() == 1) {
        std::cout << SlotFactory::CreateSlot(&cfg)->GetBufferLength() << "\n";
        return 0;
    }
    if (!end.pool && mode == "state" && args.size() == 2) {
        SlotFactory::CreateSlot(&cfg)->WriteData(args[1].data(), args[1].size());
        return 0;
    }
    if (!end.pool && mode == "wait-state" && args.size() == 3) {
        return WaitState(end, args[1], std::chrono::seconds(number(2)));
    }
    if (!end.pool && mode == "watch-state" && args.size() == 3) {
        return WatchState(end, args[1], std::chrono::seconds(number(2)));
    }
    std::cerr
        << "usage: gateway_probe write|read|length|state|wait-state|watch-state SLOT MAXSIZE ...\n"
           "       gateway_probe pool-write|pool-read KIND POOL MAXSIZE BLOCKS COUNT ...\n"
           "       gateway_probe pool-rm POOL\n"
           "       gateway_probe stalled-reader DOMAIN PARTITION TOPIC SECONDS\n";
    return 64;
}
