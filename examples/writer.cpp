// SPDX-License-Identifier: Apache-2.0
// Writes numbered text blocks into a "reliable" slot, one every 100 ms, and says how many the
// slot refused (a reliable slot refuses blocks while its queue is full). Exit status 1 when any
// block was refused.
//   example_writer NAME [COUNT]
#include <Slot/Slot.h>

#include <log4cxx/basicconfigurator.h>
#include <log4cxx/logger.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: example_writer NAME [COUNT]\n";
        return 2;
    }
    const int count = argc > 2 ? std::atoi(argv[2]) : 10;
    // The library logs through log4cxx and configures nothing: warnings and errors to stdout.
    log4cxx::BasicConfigurator::configure();
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getWarn());
    int refused = 0;
    try {
        // Name, type, update time, queue length; blocks of at most 64 KiB.
        SimpleSlotCfg cfg(argv[1], "reliable", boost::posix_time::milliseconds(100), 16);
        ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
        for (int i = 0; i < count; ++i) {
            const std::string block = "block " + std::to_string(i);
            // A writer is a subscriber: hand it a notification and it stores one block.
            writer->onNotify(cfg.GetName(), block.data(), block.size());
            // A full queue refuses the block without an exception: ask what became of it.
            if (Slot::LastWriteOutcome() != Slot::WriteOutcome::Stored) {
                ++refused;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    } catch (const std::exception& e) {
        std::cerr << "example_writer: " << e.what() << "\n";
        return 1;
    }
    if (refused != 0) {
        std::cerr << "example_writer: " << refused << " of " << count << " blocks refused\n";
        return 1;
    }
    return 0;
}
