// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"
#include "Collector.h"
#include "ShmHygiene.h"

#include <Slot/SlotFactory.h>

#include <FileUtils/NamedPipeCreator.h>

#include <gtest/gtest.h>

#include <unistd.h>
#include <string>

namespace {

using testsupport::ChildProcess;
using testsupport::Collector;
using testsupport::PipeSignal;
using testsupport::ScopedSlotName;

std::string Block(int i) {
    // Sizes vary from 1 to 300 bytes; the content depends on the index.
    std::string block(1 + (i * 37) % 300, '\0');
    for (size_t k = 0; k < block.size(); ++k) {
        block[k] = static_cast<char>(i * 31 + k);
    }
    return block;
}

// Process A writes through CreateSlotWriter, process B receives through CreateSlotReader.
void RunAcrossProcesses(const std::string& type, int count, bool everyBlock) {
    ScopedSlotName name(type);
    PipeSignal readerReady, delivered;
    ChildProcess reader([&] {
        SimpleSlotCfg cfg(name, type, boost::posix_time::milliseconds(100), 320);
        Collector collector;
        INotifierPtr notifier = SlotFactory::CreateSlotReader(&cfg);
        notifier->subscribe(&collector);
        readerReady.Post();
        if (!collector.WaitFor(everyBlock ? count : 1)) {
            return 10;
        }
        if (!everyBlock) {
            // A discarding reader wants the latest state: wait for the last block to show up.
            for (int tries = 0; tries < 200 && collector.Blocks().back().bytes != Block(count - 1);
                 ++tries) {
                collector.WaitFor(collector.Count() + 1, std::chrono::milliseconds(100));
            }
        }
        notifier->unsubscribe(&collector);
        const std::vector<Collector::Block> blocks = collector.Blocks();
        int previous = -1;
        for (const Collector::Block& b : blocks) {
            if (b.name != name.str()) {
                return 11;
            }
            int index = -1;  // which block is this? it must be one that was written, in order
            for (int i = previous + 1; i < count && index < 0; ++i) {
                if (Block(i) == b.bytes) {
                    index = i;
                }
            }
            if (index < 0 || (everyBlock && index != previous + 1)) {
                return 12;
            }
            previous = index;
        }
        delivered.Post();
        return previous == count - 1 ? 0 : 13;
    });
    ASSERT_TRUE(readerReady.WaitFor()) << reader.Wait(std::chrono::milliseconds(1)).Describe();
    ChildProcess writer([&] {
        SimpleSlotCfg cfg(name, type, boost::posix_time::milliseconds(100), 320);
        ISubscriberPtr sink = SlotFactory::CreateSlotWriter(&cfg);
        for (int i = 0; i < count; ++i) {
            const std::string block = Block(i);
            // The queue holds every block, so none is refused.
            sink->onNotify("ignored", block.data(), block.size());
        }
        return 0;
    });
    EXPECT_TRUE(writer.Wait().Ok());
    EXPECT_TRUE(delivered.WaitFor(std::chrono::seconds(30)));
    const testsupport::ChildResult result = reader.Wait();
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

TEST(EndToEnd, ReliableDeliversEveryBlockAcrossProcesses) {
    RunAcrossProcesses("reliable", 300, true);
}

TEST(EndToEnd, DiscardingDeliversTheLatestStateAcrossProcesses) {
    RunAcrossProcesses("discarding", 200, false);
}

}  // namespace

namespace {

// A named pipe is a byte stream: what arrives, concatenated, is what was written, in order.
TEST(EndToEnd, PosixPipeCarriesTheBytesInOrderAcrossProcesses) {
    ScopedSlotName name("fifo");
    std::string expected;
    for (int i = 0; i < 200; ++i) {
        expected += Block(i);
    }
    PipeSignal readerReady, done;
    ChildProcess reader([&] {
        SimpleSlotCfg cfg(name, "posix-pipe", boost::posix_time::milliseconds(50), 1);
        Collector collector;
        INotifierPtr notifier = SlotFactory::CreateSlotReader(&cfg);
        notifier->subscribe(&collector);
        readerReady.Post();
        std::string received;
        for (size_t seen = 0; received.size() < expected.size();) {
            if (!collector.WaitFor(seen + 1)) {
                return 10;
            }
            const std::vector<Collector::Block> blocks = collector.Blocks();
            for (; seen < blocks.size(); ++seen) {
                if (blocks[seen].name != name.str()) {
                    return 11;
                }
                received += blocks[seen].bytes;
            }
        }
        notifier->unsubscribe(&collector);
        done.Post();
        return received == expected ? 0 : 12;
    });
    ASSERT_TRUE(readerReady.WaitFor());
    const testsupport::ChildResult writer = testsupport::RunInChild([&] {
        SimpleSlotCfg cfg(name, "posix-pipe", boost::posix_time::milliseconds(50), 1);
        ISubscriberPtr sink = SlotFactory::CreateSlotWriter(&cfg);
        for (int i = 0; i < 200; ++i) {
            const std::string block = Block(i);
            sink->onNotify("", block.data(), block.size());
        }
        return 0;
    });
    EXPECT_TRUE(writer.Ok()) << writer.Describe();
    EXPECT_TRUE(done.WaitFor(std::chrono::seconds(30)));
    const testsupport::ChildResult result = reader.Wait();
    EXPECT_TRUE(result.Ok()) << result.Describe();
    ::unlink(FileUtils::NamedPipeCreator::ConstructPipeFilename(name).c_str());
}

}  // namespace
