// SPDX-License-Identifier: Apache-2.0
// Prints every block that arrives in a "reliable" slot until COUNT blocks have arrived.
//   example_reader NAME [COUNT]
#include <Slot/Slot.h>

#include <log4cxx/basicconfigurator.h>
#include <log4cxx/logger.h>

#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>

namespace {

// Runs on the reader's thread; copies what it needs during the call.
class Printer : public shared::ISubscriber {
public:
    void onNotify(const std::string& slot, const void* data, size_t size) override {
        std::cout << slot << ": " << std::string(static_cast<const char*>(data), size) << std::endl;
        std::lock_guard<std::mutex> lock(mutex_);
        ++received_;
        changed_.notify_all();
    }
    void WaitFor(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return received_ >= count; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int received_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: example_reader NAME [COUNT]\n";
        return 2;
    }
    const int count = argc > 2 ? std::atoi(argv[2]) : 10;
    // The library logs through log4cxx and configures nothing: warnings and errors to stdout.
    log4cxx::BasicConfigurator::configure();
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getWarn());
    try {
        SimpleSlotCfg cfg(argv[1], "reliable", boost::posix_time::milliseconds(100), 16);
        // Subscribed before the reader's thread starts: blocks already waiting in the queue
        // reach it instead of being taken while nobody listens.
        boost::shared_ptr<Printer> printer(new Printer);
        INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg, printer);
        printer->WaitFor(count);
        reader->unsubscribe(printer.get());
    } catch (const std::exception& e) {
        std::cerr << "example_reader: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
