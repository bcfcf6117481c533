// SPDX-License-Identifier: Apache-2.0
// Test driver for the two-host gateway test, run inside each "host":
//   gateway_probe write SLOT MAXSIZE COUNT [PAUSE_MS]  numbered blocks into a reliable slot,
//                                                    waiting while it is full (and PAUSE_MS
//                                                    after each block: a paced stream)
//   gateway_probe read SLOT MAXSIZE COUNT SECONDS    checks that blocks 0..COUNT-1 arrive in
//                                                    order, byte for byte (a repeat of the
//                                                    block just read is counted, not an error)
//   gateway_probe state SLOT MAXSIZE TEXT            writes TEXT into a discarding slot
//   gateway_probe wait-state SLOT MAXSIZE TEXT SECONDS  waits until the discarding slot holds TEXT
//   gateway_probe watch-state SLOT MAXSIZE TEXT SECONDS  waits until a reader of the slot is
//                                                    given TEXT (prints 'ready' once reading)
//   gateway_probe length SLOT MAXSIZE                prints the number of blocks waiting in a
//                                                    reliable slot
// The blocks are NumberedBlock.h's.
#include "NumberedBlock.h"

#include <Slot/SlotFactory.h>
#include <Slot/WriteOutcome.h>

#include <log4cxx/basicconfigurator.h>
#include <log4cxx/logger.h>

#include <chrono>
#include <condition_variable>
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

// Checks each delivered block against the next expected one.
class Checker : public shared::ISubscriber {
public:
    Checker(std::size_t maxSize, unsigned count) : maxSize_(maxSize), count_(count) {}
    void onNotify(const std::string&, const void* data, size_t size) override {
        const auto* bytes = static_cast<const unsigned char*>(data);
        const Bytes block(bytes, bytes + size);
        std::lock_guard<std::mutex> guard(mutex_);
        if (failed_ || next_ >= count_) {
            ++extra_;
        } else if (block == NumberedBlock(next_, maxSize_)) {
            ++next_;
        } else if (next_ > 0 && block == NumberedBlock(next_ - 1, maxSize_)) {
            ++repeats_;
        } else {
            failed_ = true;
            std::cerr << "gateway_probe: block " << next_ << " expected ("
                      << NumberedBlock(next_, maxSize_).size() << " bytes), got " << size
                      << " other bytes\n";
        }
        changed_.notify_all();
    }
    // 0 all arrived, 1 wrong block, 2 time out.
    int Wait(std::chrono::seconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        const bool done =
            changed_.wait_for(lock, timeout, [&] { return failed_ || next_ >= count_; });
        std::cout << "received " << next_ << " of " << count_ << " blocks in order, " << repeats_
                  << " repeated, " << extra_ << " extra\n";
        return failed_ ? 1 : done ? 0 : 2;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    const std::size_t maxSize_;
    const unsigned count_;
    unsigned next_ = 0, repeats_ = 0, extra_ = 0;
    bool failed_ = false;
};

int Usage() {
    std::cerr
        << "usage: gateway_probe write|read|length|state|wait-state|watch-state SLOT MAXSIZE ...\n";
    return 64;
}

}  // namespace

int main(int argc, char** argv) {
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
