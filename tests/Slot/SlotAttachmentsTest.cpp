// SPDX-License-Identifier: Apache-2.0
// The processes attached to a slot, and the write count and output buffer read from outside,
// with real processes.
#include "ChildProcess.h"
#include "Collector.h"
#include "Eventually.h"
#include "ShmHygiene.h"
#include "ShmObject.h"

#include <Slot/SlotActivity.h>
#include <Slot/SlotAttachments.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotNames.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

using testsupport::ChildProcess;
using testsupport::ScopedSlotName;

const SlotAttachment* Find(const SlotAttachmentList& list, pid_t pid) {
    const auto it = std::find_if(list.processes.begin(), list.processes.end(),
                                 [&](const SlotAttachment& process) { return process.pid == pid; });
    return it == list.processes.end() ? nullptr : &*it;
}

// Whether nobody is attached to `name`. Another test's survey ("slotctl ls" in parallel) maps
// every slot for a moment, so an attachment has to last to count.
bool NobodyAttached(const std::string& name) {
    return testsupport::Eventually([&] { return SlotAttachments::Find(name).processes.empty(); },
                                   std::chrono::seconds(10), std::chrono::milliseconds(20));
}

TEST(SlotAttachments, AWriterAndAReaderProcessAreListedUntilTheyEndOrTheSlotIsMadeAgain) {
    ScopedSlotName name("attach");
    SimpleSlotCfg cfg(name, "reliable", boost::posix_time::milliseconds(50), 4);
    SlotFactory::CreateSlot(&cfg);
    EXPECT_TRUE(NobodyAttached(name));

    testsupport::PipeSignal writerReady, readerReady, end;
    ChildProcess writer([&] {
        ISubscriberPtr slot = SlotFactory::CreateSlotWriter(&cfg);
        writerReady.Post();
        return end.WaitFor(std::chrono::seconds(60)) ? 0 : 1;
    });
    ChildProcess reader([&] {
        INotifierPtr slot =
            SlotFactory::CreateSlotReader(&cfg, ISubscriberPtr(new testsupport::Collector));
        readerReady.Post();
        return end.WaitFor(std::chrono::seconds(60)) ? 0 : 1;
    });
    ASSERT_TRUE(writerReady.WaitFor());
    ASSERT_TRUE(readerReady.WaitFor());
    // This process looks at the header as an inspector does (read only): that is no attachment.
    // A descriptor open for writing is one, even unmapped.
    const std::string headerPath = Slot::ShmPath(Slot::HeaderObjectName(name));
    const std::string queuePath = Slot::ShmPath(Slot::QueueObjectName(name));
    const int look = ::open(headerPath.c_str(), O_RDONLY | O_CLOEXEC);
    const int use = ::open(queuePath.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(look, 0);
    ASSERT_GE(use, 0);
    const SlotAttachmentList withUse = SlotAttachments::Find(name);
    ::close(use);
    const SlotAttachment* self = Find(withUse, ::getpid());
    ASSERT_NE(nullptr, self);
    EXPECT_EQ("queue", self->What());

    const SlotAttachmentList list = SlotAttachments::Find(name);
    ::close(look);
    const SlotAttachment* w = Find(list, writer.Pid());
    const SlotAttachment* r = Find(list, reader.Pid());
    ASSERT_NE(nullptr, w);
    ASSERT_NE(nullptr, r);
    EXPECT_TRUE(w->header && w->queue && !w->reader) << w->What();
    EXPECT_EQ("header, queue, reader lock", r->What());
    EXPECT_EQ(::geteuid(), w->uid);
    // The children run this test program.
    EXPECT_NE(std::string::npos, w->command.find("Slot_tests")) << w->command;
    EXPECT_EQ(nullptr, Find(list, ::getpid()));
    // Another slot of a similar name is not this one.
    EXPECT_TRUE(SlotAttachments::Find(name.str() + "x").processes.empty());
    EXPECT_TRUE(
        SlotAttachments::Find(name.str().substr(0, name.str().size() - 1)).processes.empty());
    // The writer's mapping of a removed slot is no attachment of its successor.
    SlotFactory::RemoveSlot(name);
    SlotFactory::CreateSlot(&cfg);
    EXPECT_EQ(nullptr, Find(SlotAttachments::Find(name), writer.Pid()));

    end.Post();
    end.Post();
    EXPECT_TRUE(writer.Wait().Ok());
    EXPECT_TRUE(reader.Wait().Ok());
    EXPECT_TRUE(NobodyAttached(name));
}

// One pass over /proc for many slots gives each what Find gives it alone: slots attached by
// different child processes, one by two, a name whose header is another slot's queue
// ("queue_<a>"), a repeated and an invalid name.
TEST(SlotAttachments, FindManyGivesEverySlotWhatFindGivesIt) {
    ScopedSlotName a("many"), b("many"), c("many");
    SimpleSlotCfg reliable(a, "reliable", boost::posix_time::milliseconds(50), 4);
    SimpleSlotCfg discarding(b, "discarding", boost::posix_time::milliseconds(50), 1);
    SimpleSlotCfg unused(c, "discarding", boost::posix_time::milliseconds(50), 1);
    SlotFactory::CreateSlot(&reliable);
    SlotFactory::CreateSlot(&discarding);
    SlotFactory::CreateSlot(&unused);
    testsupport::PipeSignal readerReady, writerReady, end;
    ChildProcess reader([&] {
        INotifierPtr slot =
            SlotFactory::CreateSlotReader(&reliable, ISubscriberPtr(new testsupport::Collector));
        readerReady.Post();
        return end.WaitFor(std::chrono::seconds(60)) ? 0 : 1;
    });
    ChildProcess writer([&] {
        ISubscriberPtr first = SlotFactory::CreateSlotWriter(&reliable);
        ISubscriberPtr second = SlotFactory::CreateSlotWriter(&discarding);
        writerReady.Post();
        return end.WaitFor(std::chrono::seconds(60)) ? 0 : 1;
    });
    ASSERT_TRUE(readerReady.WaitFor());
    ASSERT_TRUE(writerReady.WaitFor());

    const std::vector<SlotAttachmentQuery> queries = {
        {a, ""}, {b, ""}, {c, ""}, {Slot::QueueObjectName(a), ""}, {b, ""}, {"x/y", ""}};
    const std::vector<SlotAttachmentList> many = SlotAttachments::FindMany(queries);
    ASSERT_EQ(queries.size(), many.size());
    // What the children use of each, as each list and as Find alone tell it.
    auto uses = [&](const SlotAttachmentList& list) {
        std::string text;
        for (const pid_t pid : {reader.Pid(), writer.Pid()}) {
            const SlotAttachment* process = Find(list, pid);
            text += (pid == reader.Pid() ? "reader: " : " writer: ") +
                    (process == nullptr ? "-" : process->What());
        }
        return text;
    };
    const std::vector<std::string> expected = {
        "reader: header, queue, reader lock writer: header, queue",
        "reader: - writer: header, queue",
        "reader: - writer: -",
        "reader: header writer: header",  // a's queue is the header of "queue_<a>"
        "reader: - writer: header, queue",
        "reader: - writer: -"};
    for (size_t i = 0; i < queries.size(); ++i) {
        EXPECT_EQ(expected[i], uses(many[i])) << queries[i].name;
        EXPECT_EQ(expected[i], uses(SlotAttachments::Find(queries[i].name))) << queries[i].name;
    }
    const SlotAttachment* w = Find(many[0], writer.Pid());
    ASSERT_NE(nullptr, w);
    EXPECT_EQ(::geteuid(), w->uid);
    EXPECT_NE(std::string::npos, w->command.find("Slot_tests")) << w->command;

    end.Post();
    end.Post();
    EXPECT_TRUE(reader.Wait().Ok());
    EXPECT_TRUE(writer.Wait().Ok());
}

TEST(SlotActivity, CountsTheWritesOfAnotherProcessAndShowsTheLastBlockTaken) {
    ScopedSlotName name("activity");
    SimpleSlotCfg cfg(name, "reliable", boost::posix_time::milliseconds(50), 64);
    SlotFactory::CreateSlot(&cfg);
    const SlotActivitySample before = SlotActivity::Sample(name, true);
    ASSERT_TRUE(before.valid) << before.problem;
    EXPECT_TRUE(before.hasOutput);
    EXPECT_EQ("", before.output);

    const int blocks = 25;
    ChildProcess writer([&] {
        ISubscriberPtr slot = SlotFactory::CreateSlotWriter(&cfg);
        for (int i = 0; i < blocks; ++i) {
            const std::string block = "block " + std::to_string(i);
            slot->onNotify(name, block.data(), block.size());
        }
        return 0;
    });
    ASSERT_TRUE(writer.Wait().Ok());
    const SlotActivitySample written = SlotActivity::Sample(name, true);
    ASSERT_TRUE(written.valid);
    EXPECT_EQ(static_cast<std::uint32_t>(blocks), SlotActivity::WritesBetween(before, written));
    EXPECT_FALSE(written.lastWrite.is_special());

    // Sampling took nothing: every block is still there, in order.
    boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
    char buffer[64];
    for (int i = 0; i < blocks; ++i) {
        const size_t n = slot->ReadData(buffer, sizeof(buffer));
        ASSERT_EQ("block " + std::to_string(i), std::string(buffer, n));
    }
    const SlotActivitySample read = SlotActivity::Sample(name, true);
    EXPECT_EQ(0u, SlotActivity::WritesBetween(written, read));
    const std::string last = "block " + std::to_string(blocks - 1);
    EXPECT_EQ(last, read.output);
    EXPECT_EQ(last.size(), read.outputDataSize);
}

TEST(SlotActivity, ObjectsThatAreNoSlotHeadersAreRefusedWithoutReadingOutside) {
    ScopedSlotName name("notaheader");
    EXPECT_FALSE(SlotActivity::Sample(name).valid);
    EXPECT_FALSE(SlotActivity::Sample("a/b").valid);
    EXPECT_FALSE(SlotActivity::Sample("").valid);

    // A real header cut short, and one with random bytes over it: never valid beyond its size
    // (ASan checks the reads), never a crash.
    SimpleSlotCfg cfg(name, "discarding", boost::posix_time::milliseconds(50), 1);
    SlotFactory::CreateSlot(&cfg);
    const testsupport::Bytes original = testsupport::ReadObject(name);
    ASSERT_FALSE(original.empty());
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        testsupport::Bytes bytes = original;
        bytes.resize(random() % (original.size() + 1));
        for (int flips = 0; flips < 8 && !bytes.empty(); ++flips) {
            bytes[random() % bytes.size()] = static_cast<unsigned char>(random());
        }
        ASSERT_TRUE(testsupport::WriteObject(name, bytes));
        const SlotActivitySample sample = SlotActivity::Sample(name, true);
        if (sample.hasOutput) {
            EXPECT_EQ(sample.outputDataSize, sample.output.size());
        }
    }
}

}  // namespace
