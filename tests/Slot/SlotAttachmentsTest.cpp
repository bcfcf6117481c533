// SPDX-License-Identifier: Apache-2.0
// The processes attached to a slot, and the write count and output buffer read from outside,
// with real processes.
#include "ChildProcess.h"
#include "Collector.h"
#include "Eventually.h"
#include "LockedBlocks.h"
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

// A reader and a writer process, each with the slots it uses, are listed until they end. One
// pass over /proc for many slots gives each what Find gives it alone: slots attached by
// different children, one by two, a name whose header is another slot's queue ("queue_<a>"),
// a repeated, an invalid and similar names, one with a newline (written "\012" in the maps). A
// read-only look is no attachment; a descriptor open for writing is one, even unmapped; a
// mapping of a removed slot is none of its successor.
TEST(SlotAttachments, ProcessesAreListedPerSlotByFindAndFindManyUntilTheyEnd) {
    ScopedSlotName a("many"), b("new\nline"), c("many");
    SimpleSlotCfg reliable(a, "reliable", boost::posix_time::milliseconds(50), 4);
    SimpleSlotCfg discarding(b, "discarding", boost::posix_time::milliseconds(50), 1);
    SimpleSlotCfg unused(c, "discarding", boost::posix_time::milliseconds(50), 1);
    SlotFactory::CreateSlot(&reliable);
    SlotFactory::CreateSlot(&discarding);
    SlotFactory::CreateSlot(&unused);
    EXPECT_TRUE(NobodyAttached(a));
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

    // This process looks at a's header as an inspector does, and uses its queue.
    const int look = ::open(Slot::ShmPath(Slot::HeaderObjectName(a)).c_str(), O_RDONLY | O_CLOEXEC);
    const int use = ::open(Slot::ShmPath(Slot::QueueObjectName(a)).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(look, 0);
    ASSERT_GE(use, 0);
    const SlotAttachmentList withUse = SlotAttachments::Find(a);
    ::close(use);
    const SlotAttachment* self = Find(withUse, ::getpid());
    ASSERT_NE(nullptr, self);
    EXPECT_EQ("queue", self->What());

    const std::string similar = a.str().substr(0, a.str().size() - 1);
    const std::vector<SlotAttachmentQuery> queries = {{a, ""},
                                                      {b, ""},
                                                      {c, ""},
                                                      {Slot::QueueObjectName(a), ""},
                                                      {b, ""},
                                                      {"x/y", ""},
                                                      {a.str() + "x", ""},
                                                      {similar, ""}};
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
        "reader: - writer: -",
        "reader: - writer: -",
        "reader: - writer: -"};
    for (size_t i = 0; i < queries.size(); ++i) {
        EXPECT_EQ(expected[i], uses(many[i])) << queries[i].name;
        EXPECT_EQ(expected[i], uses(SlotAttachments::Find(queries[i].name))) << queries[i].name;
    }
    EXPECT_EQ(nullptr, Find(SlotAttachments::Find(a), ::getpid())) << "the read-only look counted";
    ::close(look);
    const SlotAttachment* w = Find(many[0], writer.Pid());
    ASSERT_NE(nullptr, w);
    EXPECT_EQ(::geteuid(), w->uid);
    // The children run this test program.
    EXPECT_NE(std::string::npos, w->command.find("Slot_tests")) << w->command;
    SlotFactory::RemoveSlot(a);
    SlotFactory::CreateSlot(&reliable);
    EXPECT_EQ(nullptr, Find(SlotAttachments::Find(a), writer.Pid()));

    end.Post();
    end.Post();
    EXPECT_TRUE(reader.Wait().Ok());
    EXPECT_TRUE(writer.Wait().Ok());
    EXPECT_TRUE(NobodyAttached(a));
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
    for (int i = 0; i < blocks; ++i) {
        ASSERT_EQ("block " + std::to_string(i), testsupport::ReadDirect(*slot, 64));
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
