// SPDX-License-Identifier: Apache-2.0
// slotctl record / replay and the MCAP files between them: real slotctl processes, SIGKILL,
// and torn or hostile files read in-process.
#include "ChildProcess.h"
#include "Eventually.h"
#include "Files.h"
#include "HeaderHolder.h"
#include "McapRecording.h"
#include "ShmHygiene.h"
#include "SlotctlRunner.h"

#include <FileUtils/NamedPipeCreator.h>
#include <Slot/PoolFactory.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotSurvey.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <thread>

namespace {

using slotctltest::Background;
using slotctltest::Frames;
using slotctltest::Outcome;
using slotctltest::ReadRecording;
using slotctltest::Recording;
using slotctltest::RecordingPath;
using slotctltest::Slotctl;
using slotctltest::SlotctlEnding;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using testsupport::ReadFile;
using testsupport::ScopedSlotName;
using testsupport::WriteFile;

// Waits, bounded, until `done` holds: a running recorder hands each block to the system at once,
// and the file is read whole each time.
template <class Done>
bool WaitForRecording(Done done) {
    return testsupport::Eventually(done, std::chrono::seconds(60), std::chrono::milliseconds(20));
}

bool WaitForBlocks(const std::string& path, size_t count) {
    return WaitForRecording(
        [&] { return testsupport::Exists(path) && ReadRecording(path).blocks.size() == count; });
}

// Recording with and without compression, zstd where it is built in.
std::vector<std::string> Compressions() {
    return mcap::ZstdBuiltIn() ? std::vector<std::string>{"none", "zstd"}
                               : std::vector<std::string>{"none"};
}

SlotCfg Reliable(const std::string& name, size_t queue, size_t maxSize = 1024) {
    return SlotCfg(name, "reliable", boost::posix_time::milliseconds(100), queue, maxSize);
}

// Blocks with every byte value, an empty one included.
std::vector<std::string> TestBlocks(size_t count) {
    std::vector<std::string> blocks;
    for (size_t i = 0; i < count; ++i) {
        std::string block = "block " + std::to_string(i);
        block.append(i % 7, static_cast<char>(i * 37));
        block += std::string("\0\xff\n", 3);
        blocks.push_back(i == 3 ? std::string() : block);
    }
    return blocks;
}

// Writes the blocks into a new reliable slot (by default with room for 8 more), where they wait.
void Fill(const std::string& name, const std::vector<std::string>& blocks, size_t queue = 0,
          size_t maxSize = 1024) {
    const SlotCfg cfg = Reliable(name, queue != 0 ? queue : blocks.size() + 8, maxSize);
    ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
    for (const std::string& block : blocks) {
        writer->onNotify(name, block.data(), block.size());
    }
}

// The files of a split recording "x.mcap": "x-000.mcap", "x-001.mcap", ... as far as they exist.
std::vector<std::string> Parts(const std::string& path) {
    const std::string stem = path.substr(0, path.size() - 5);
    std::vector<std::string> parts;
    for (;;) {
        char part[32];
        std::snprintf(part, sizeof(part), "-%03zu.mcap", parts.size());
        if (!testsupport::Exists(stem + part)) {
            return parts;
        }
        parts.push_back(stem + part);
    }
}

// The messages of every part of a split recording, in order, per topic; each part whole unless
// `whole` is false.
std::map<std::string, Recording> ReadParts(const std::string& path, bool whole = true) {
    std::map<std::string, Recording> topics;
    for (const std::string& part : Parts(path)) {
        const mcap::ReadResult result =
            mcap::Read(part, [&](const mcap::Message& m, const mcap::Channel& channel) {
                topics[channel.topic].blocks.emplace_back(m.data, m.size);
                topics[channel.topic].sequences.push_back(m.sequence);
                return true;
            });
        EXPECT_TRUE(!whole || result.complete) << part << ": " << result.problem;
    }
    return topics;
}

// 1, 2, ... count: the sequence numbers a recorder gives a reliable slot's blocks.
std::vector<std::uint32_t> Numbers(size_t count) {
    std::vector<std::uint32_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 1u);
    return numbers;
}

// ---- the file format, in-process ----

// A file of `blocks` on one channel, and the file size after each block.
std::vector<std::uint64_t> WriteBlocks(const std::string& path,
                                       const mcap::Writer::Options& options,
                                       const std::vector<std::string>& blocks) {
    mcap::Writer writer(path, options);
    const std::uint16_t channel = writer.AddChannel("t", "application/octet-stream", {{"k", "v"}});
    std::vector<std::uint64_t> ends;
    for (size_t i = 0; i < blocks.size(); ++i) {
        writer.Add(mcap::Message{channel, static_cast<std::uint32_t>(i + 1), 1000 + i, 1000 + i,
                                 blocks[i].data(), blocks[i].size()});
        ends.push_back(writer.Size());
    }
    writer.Close();
    return ends;
}

// A file of `count` test blocks in chunks of 300 bytes.
std::vector<std::uint64_t> WriteFile(const std::string& path, bool zstd, size_t count) {
    mcap::Writer::Options options;
    options.zstd = zstd;
    options.chunkSize = 300;
    return WriteBlocks(path, options, TestBlocks(count));
}

TEST(SlotctlMcapFile, ACutFileReadsEveryWholeRecordBeforeTheCut) {
    for (const std::string& compression : Compressions()) {
        const bool zstd = compression == "zstd";
        const std::string path = RecordingPath("whole");
        const std::vector<std::uint64_t> ends = WriteFile(path, zstd, 20);
        const std::string bytes = ReadFile(path);
        const Recording full = ReadRecording(path);
        ASSERT_TRUE(full.result.complete) << full.result.problem;
        ASSERT_EQ(TestBlocks(20), full.blocks);
        const std::string cut = RecordingPath("cut");
        size_t previous = 0;
        for (size_t length = 0; length < bytes.size(); ++length) {
            WriteFile(cut, bytes.substr(0, length));
            const Recording part = ReadRecording(cut);
            SCOPED_TRACE("zstd " + std::to_string(zstd) + ", cut at " + std::to_string(length));
            EXPECT_FALSE(part.result.complete);
            EXPECT_FALSE(part.result.problem.empty());
            // What it reads is the start of the recording, never less than before.
            ASSERT_LE(part.blocks.size(), full.blocks.size());
            EXPECT_TRUE(std::equal(part.blocks.begin(), part.blocks.end(), full.blocks.begin()));
            EXPECT_GE(part.blocks.size(), previous);
            previous = part.blocks.size();
            if (!zstd) {
                // Plain: exactly the messages that end before the cut.
                EXPECT_EQ(
                    static_cast<size_t>(std::count_if(
                        ends.begin(), ends.end(), [&](std::uint64_t e) { return e <= length; })),
                    part.blocks.size());
            }
        }
        EXPECT_EQ(full.blocks.size(), previous);  // a file torn inside its summary lost nothing
    }
}

TEST(SlotctlMcapFile, HostileFilesEndWithAProblemNeverACrash) {
    const std::string path = RecordingPath("hostile");
    WriteFile(path, mcap::ZstdBuiltIn(), 30);
    const std::string good = ReadFile(path);
    const std::string bad = RecordingPath("bad");
    std::mt19937 random(12345);
    for (int round = 0; round < 1500; ++round) {
        std::string bytes = good;
        const size_t at = random() % bytes.size();
        if (round % 2 == 0) {
            bytes[at] = static_cast<char>(random());
        } else {
            // An absurd length or size field anywhere.
            const std::uint64_t huge = round % 4 == 1 ? ~std::uint64_t(0) : std::uint64_t(1) << 40;
            std::memcpy(&bytes[at], &huge, std::min<size_t>(8, bytes.size() - at));
        }
        WriteFile(bad, bytes);
        const Recording read = ReadRecording(bad);
        EXPECT_LE(read.blocks.size(), 30u);
        EXPECT_TRUE(read.result.complete || !read.result.problem.empty());
    }
    const struct {
        std::string bytes;
        std::string problem;
    } crafted[] = {
        {"not an mcap file", "not an MCAP file"},
        {good.substr(0, 8) + std::string("\x05\x10\0\0\0\0\0\0\0", 9) + std::string(16, '\0'),
         "does not begin with a header"},
        {good.substr(0, 8) + std::string("\x01\xff\xff\xff\xff\xff\xff\xff\x7f", 9),
         "ends inside a record"},
    };
    for (const auto& c : crafted) {
        WriteFile(bad, c.bytes);
        const Recording read = ReadRecording(bad);
        EXPECT_THAT(read.result.problem, HasSubstr(c.problem));
        EXPECT_TRUE(read.blocks.empty());
    }
    // A FIFO in the file's place (swapped in after the caller looked) is refused, not waited on.
    const std::string fifo = RecordingPath("fifo");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    const testsupport::ChildResult opened = testsupport::RunInChild(
        [&] {
            try {
                mcap::Read(fifo, [](const mcap::Message&, const mcap::Channel&) { return true; });
            } catch (const mcap::Error& e) {
                return std::string(e.what()) == "cannot read " + fifo + ": not a regular file" ? 0
                                                                                               : 1;
            }
            return 2;
        },
        std::chrono::seconds(10));
    ::unlink(fifo.c_str());
    EXPECT_TRUE(opened.Ok()) << opened.Describe();
}

// Appends the `size` low bytes of `value`, little-endian, as MCAP stores numbers.
void PutLittleEndian(std::string& bytes, std::uint64_t value, int size) {
    for (int i = 0; i < size; ++i) {
        bytes += static_cast<char>((value >> (8 * i)) & 0xff);
    }
}

// A sparse recording: a header, channel 1, then records of which only the heads (and a
// message's fields) are written; the rest of each record is a hole, which reads as zeros and
// takes no disk. `records` holds each record's opcode and length.
void WriteSparse(const std::string& path,
                 const std::vector<std::pair<std::uint8_t, std::uint64_t>>& records) {
    std::string bytes("\x89MCAP0\r\n", 8);
    auto put = [&](std::uint64_t value, int size) { PutLittleEndian(bytes, value, size); };
    auto putString = [&](const std::string& text) {
        put(text.size(), 4);
        bytes += text;
    };
    put(0x01, 1);
    put(4 + 4 + 4, 8);
    putString("");
    putString("test");
    put(0x04, 1);
    put(2 + 2 + 4 + 1 + 4 + 24 + 4, 8);
    put(1, 2);
    put(0, 2);
    putString("t");
    putString("application/octet-stream");
    put(0, 4);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    std::uint64_t offset = 0;  // where `bytes` go
    for (const auto& record : records) {
        const std::uint64_t end = offset + bytes.size() + 9 + record.second;
        put(record.first, 1);
        put(record.second, 8);
        if (record.first == 0x05) {
            put(1, 2);
            put(1, 4);
            put(1000, 8);
            put(1000, 8);
        }
        ASSERT_EQ(ssize_t(bytes.size()), ::pwrite(fd, bytes.data(), bytes.size(), off_t(offset)));
        offset = end;
        bytes.clear();
    }
    ASSERT_EQ(0, ::ftruncate(fd, off_t(offset)));
    ::close(fd);
}

// A record's apparent size never becomes memory (a sparse file makes records of gigabytes that
// cost no disk): records the reader ignores, a data end, a summary and the data of messages info
// only counts are read a piece at a time (for the CRC); a header or channel record beyond 1 MiB
// and a message larger than any block a recording holds are damage.
TEST(SlotctlMcapFile, HugeRecordsAreReadInPiecesOrRefused) {
    const std::string path = RecordingPath("huge");
    const std::uint64_t big = std::uint64_t(600) << 20;
    WriteSparse(path, {{0x09, big}, {0x05, 22 + big}});
    const Outcome info = SlotctlEnding(0, {"info", path});
    EXPECT_THAT(info.out, HasSubstr("  blocks:    1\n"));
    EXPECT_THAT(info.out, HasSubstr("not closed (the file ends without its summary)"));

    const std::string tooBigPath = RecordingPath("toobig");
    const std::uint64_t tooBig = 22 + 0xffffffffull + 1;
    WriteSparse(tooBigPath, {{0x05, tooBig}});
    for (const std::string command : {"info", "read"}) {
        const Outcome run = SlotctlEnding(1, {command, tooBigPath});
        EXPECT_THAT(run.out + run.err,
                    HasSubstr("damaged at byte 79: a message record of " + std::to_string(tooBig) +
                              " bytes, more than the largest block a recording holds "
                              "(4294967295 bytes)"));
    }

    const std::uint64_t gib = std::uint64_t(1) << 30;
    for (const auto& kept : {std::make_pair(0x01, "header"), std::make_pair(0x04, "channel")}) {
        const std::string head = RecordingPath("bighead");
        WriteSparse(head, {{std::uint8_t(kept.first), gib}});
        const Outcome refused = SlotctlEnding(1, {"info", head});
        EXPECT_THAT(refused.out, HasSubstr(std::string("damaged at byte 79: a ") + kept.second +
                                           " record of 1073741824 bytes, more than 1048576 bytes"));
    }
    const std::string dataEnd = RecordingPath("bigend");
    WriteSparse(dataEnd, {{0x0f, gib}});
    const Outcome end = SlotctlEnding(0, {"info", dataEnd});
    // A data end, a summary of one huge record, and a footer pointing at it: a complete file.
    const std::string summary = RecordingPath("bigsummary");
    WriteSparse(summary, {{0x0f, 4}, {0x00, gib}});
    struct stat st {};
    ASSERT_EQ(0, ::stat(summary.c_str(), &st));
    std::string footer("\x02\x14\0\0\0\0\0\0\0", 9);
    PutLittleEndian(footer, std::uint64_t(st.st_size) - 9 - gib, 8);
    footer += std::string(12, '\0') + std::string("\x89MCAP0\r\n", 8);
    const int fd = ::open(summary.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    const ssize_t appended = ::write(fd, footer.data(), footer.size());
    ::close(fd);
    ASSERT_EQ(ssize_t(footer.size()), appended);
    const Outcome complete = SlotctlEnding(0, {"info", summary});
    EXPECT_THAT(complete.out, HasSubstr("complete (summary and footer checked)"));
    rusage usage{};
    ASSERT_EQ(0, ::getrusage(RUSAGE_CHILDREN, &usage));
    EXPECT_LT(usage.ru_maxrss, 300 * 1024) << "KiB at most, of any slotctl run so far";
}

// A block too large for a chunk goes between the chunks as a plain message; the chunk before it
// closes first. Every block reads back in order.
TEST(SlotctlMcapFile, ABlockLargerThanAChunkMayHoldIsWrittenOutsideTheChunks) {
    if (!mcap::ZstdBuiltIn()) {
        GTEST_SKIP() << "zstd is not built in";
    }
    const std::string path = RecordingPath("bigblock");
    mcap::Writer::Options options;
    options.zstd = true;
    options.maxChunkSize = 200;
    const std::vector<std::string> blocks = {std::string(60, 'a'), std::string(60, 'b'),
                                             std::string(300, 'c'), std::string(150, 'd'),
                                             std::string(150, 'e')};
    WriteBlocks(path, options, blocks);
    const Recording read = ReadRecording(path);
    EXPECT_TRUE(read.result.complete) << read.result.problem;
    EXPECT_EQ(blocks, read.blocks);
    EXPECT_EQ(Numbers(blocks.size()), read.sequences);
    // a+b, then d and e each alone (together they would pass 200 bytes); c in none.
    EXPECT_EQ(3u, read.result.chunks);
}

// A stop signal while reading a recording ends read and info with status 130, and info shows no
// state for the part it read: between messages (reading the records between them takes seconds,
// so the signal comes part way), and inside long records without a message between them (1 TiB
// of holes to read, each record less than 2 GiB, which a 32-bit build can address).
TEST(SlotctlMcapFile, AStopWhileReadingARecordingEndsWithStatus130) {
    const std::string messages = RecordingPath("stopped"), holes = RecordingPath("longrecord");
    std::vector<std::pair<std::uint8_t, std::uint64_t>> records;
    for (int i = 0; i < 16; ++i) {
        records.emplace_back(0x09, std::uint64_t(256) << 20);
        records.emplace_back(0x05, 23);
    }
    WriteSparse(messages, records);
    WriteSparse(holes, std::vector<std::pair<std::uint8_t, std::uint64_t>>(
                           512, {0x09, (std::uint64_t(1) << 31) - 4096}));
    for (const auto& file : {std::make_pair(messages, 500), std::make_pair(holes, 1000)}) {
        for (const std::string command : {"info", "read"}) {
            Background reading({command, file.first}, 0, command == "read" ? "/dev/null" : "");
            std::this_thread::sleep_for(std::chrono::milliseconds(file.second));
            reading.Signal(SIGINT);
            const Outcome run = reading.Finish(std::chrono::seconds(30));
            EXPECT_EQ(130, run.status) << command << ": " << run.Describe();
            EXPECT_EQ("", run.out + run.err) << command << ": " << run.Describe();
        }
    }
}

// A file whose header cannot be written (here: past the file size limit, as on a full disk)
// is not left behind, nor is its descriptor.
TEST(SlotctlMcapFile, AWriterThatCannotWriteItsHeaderLeavesNoFileAndNoDescriptor) {
    const std::string path = RecordingPath("noroom");
    const testsupport::ChildResult made = testsupport::RunInChild(
        [&] {
            // A descriptor left open would take the lowest free number.
            const auto lowestFree = [] {
                const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
                ::close(fd);
                return fd;
            };
            std::signal(SIGXFSZ, SIG_IGN);
            const rlimit limit{4, 4};
            if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) {
                return testsupport::Failed(1, "setrlimit");
            }
            const int before = lowestFree();
            try {
                mcap::Writer writer(path, mcap::Writer::Options());
                return testsupport::Failed(2, "the header was written");
            } catch (const mcap::Error& e) {
                if (std::string(e.what()) != "cannot write " + path + ": File too large") {
                    return testsupport::Failed(3, e.what());
                }
            }
            if (lowestFree() != before) {
                return testsupport::Failed(4, "a descriptor was left open");
            }
            return testsupport::Exists(path) ? testsupport::Failed(5, "the file was left") : 0;
        },
        std::chrono::seconds(10));
    EXPECT_TRUE(made.Ok()) << made.Describe();
}

TEST(SlotctlMcapFile, AFileShortenedWhileBeingReadIsAnErrorSayingSo) {
    const std::string path = RecordingPath("shrinking");
    const std::vector<std::uint64_t> ends = WriteFile(path, false, 20);
    size_t seen = 0;
    try {
        mcap::Read(path, [&](const mcap::Message&, const mcap::Channel&) {
            // Another process cuts the file after the first block.
            if (++seen == 1) {
                EXPECT_EQ(0, ::truncate(path.c_str(), static_cast<off_t>(ends[0])));
            }
            return true;
        });
        ADD_FAILURE() << "read past the end of a shortened file";
    } catch (const mcap::Error& e) {
        // Not the stale errno of some earlier call.
        EXPECT_EQ("cannot read " + path + ": it was shortened while being read (byte " +
                      std::to_string(ends[0]) + " is gone)",
                  e.what());
    }
    EXPECT_EQ(1u, seen);
}

// ---- record and replay, real processes ----

// Each block in order through record, read and replay; a killed recorder leaves a file read to
// its last record.
TEST(SlotctlRecord, RecordsReplaysAndReadsBackEveryBlockInOrderAlsoWhenKilled) {
    for (const std::string& compression : Compressions()) {
        ScopedSlotName source("rec"), target("replayed");
        const std::vector<std::string> blocks = TestBlocks(40);
        Fill(source, blocks);
        const std::string path = RecordingPath("roundtrip");
        const Outcome recorded = Slotctl(
            {"record", "-o", path, "--compression", compression, "--count", "40", source.str()});
        ASSERT_EQ(0, recorded.status) << recorded.Describe();
        EXPECT_THAT(recorded.err,
                    AllOf(HasSubstr("40 blocks"), HasSubstr("0 gaps"), HasSubstr("kept up")));

        const Outcome read = SlotctlEnding(0, {"read", path, "--format", "frames"});
        EXPECT_EQ(Frames(blocks), read.out);

        const Outcome replayed =
            Slotctl({"replay", "--max", "--map", source.str() + "=" + target.str(), path});
        ASSERT_EQ(0, replayed.status) << replayed.Describe();
        // Made with the recorded kind and sizes.
        const Outcome info = Slotctl({"info", target.str()});
        EXPECT_THAT(info.out,
                    AllOf(HasSubstr("reliable (queue capacity 48)"), HasSubstr("1024 bytes")));
        const Outcome back =
            SlotctlEnding(0, {"read", target.str(), "--count", "40", "--format", "frames"});
        EXPECT_EQ(Frames(blocks), back.out);

        ScopedSlotName name("killed");
        Fill(name, blocks);
        const std::string killedPath = RecordingPath("killed");
        Background recorder({"record", "-o", killedPath, "--compression", compression, name.str()});
        ASSERT_TRUE(WaitForBlocks(killedPath, 40));
        recorder.Signal(SIGKILL);
        EXPECT_EQ(SIGKILL, recorder.Finish().signal);
        const Outcome killed = SlotctlEnding(0, {"read", killedPath, "--format", "frames"});
        EXPECT_EQ(Frames(blocks), killed.out);
        EXPECT_THAT(killed.err, HasSubstr("not closed"));
        const Outcome killedInfo = SlotctlEnding(0, {"info", killedPath});
        EXPECT_THAT(killedInfo.out, AllOf(HasSubstr("not closed"), HasSubstr("40 blocks")));
    }
}

TEST(SlotctlRecord, WritesTheRecorderNeverSawAreGaps) {
    ScopedSlotName name("gaps");
    const SlotCfg cfg(name, "discarding", boost::posix_time::milliseconds(100), 16, 1024);
    SlotFactory::CreateSlot(&cfg);
    const std::string path = RecordingPath("gaps");
    Background recorder({"record", "-o", path, name.str()});
    ASSERT_TRUE(recorder.WaitForErr("slotctl: recording"));
    ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
    const int writes = 2000;
    writer->onNotify(name, "0", 1);
    // The first block is numbered once nothing else is written meanwhile; then a burst the
    // reader cannot follow block by block.
    ASSERT_TRUE(WaitForBlocks(path, 1));
    for (int i = 1; i < writes; ++i) {
        const std::string block = std::to_string(i);
        writer->onNotify(name, block.data(), block.size());
    }
    const std::string last = std::to_string(writes - 1);
    EXPECT_TRUE(WaitForRecording([&] {
        const std::vector<std::string> blocks = ReadRecording(path).blocks;
        return !blocks.empty() && blocks.back() == last;
    }));
    recorder.Signal(SIGINT);
    const Outcome run = recorder.Finish();
    ASSERT_EQ(0, run.status) << run.Describe();
    const Recording recorded = ReadRecording(path);
    ASSERT_TRUE(recorded.result.complete) << recorded.result.problem;
    ASSERT_EQ(last, recorded.blocks.back());
    std::uint64_t gaps = 0;
    for (size_t i = 1; i < recorded.sequences.size(); ++i) {
        ASSERT_LT(recorded.sequences[i - 1], recorded.sequences[i]);
        gaps += recorded.sequences[i] - recorded.sequences[i - 1] - 1;
    }
    EXPECT_GT(gaps, 0u);
    // A write is counted just after its block can be taken: the first block's number may be
    // one write early, never more.
    EXPECT_GE(recorded.blocks.size() + gaps, static_cast<std::uint64_t>(writes));
    EXPECT_LE(recorded.blocks.size() + gaps, static_cast<std::uint64_t>(writes) + 1);
    EXPECT_THAT(run.err,
                AllOf(HasSubstr(std::to_string(gaps) + " gap"), HasSubstr("did not keep up")));
}

// Slots recorded together. A discarding slot's reader always queues a copy of its block, in a
// buffer that may have served a longer block before; a reliable slot's reader writes its block
// itself when the file is free and queues a copy when it is busy. Either way each slot's blocks
// land whole and in order, across rotations.
TEST(SlotctlRecord, SlotsRecordedTogetherKeepTheirBlocksInOrderAndWhole) {
    const size_t count = 300;
    ScopedSlotName a("togethera"), b("togetherb"), c("togetherc");
    const std::vector<std::string> names = {a, b, c};
    std::map<std::string, std::vector<std::string>> written;
    for (const std::string& name : names) {
        std::vector<std::string>& blocks = written[name];
        for (size_t i = 0; i < count; ++i) {
            // Long and short in turn: a short block in a long one's buffer would show its tail.
            std::string block = name + " " + std::to_string(i) + " ";
            block.resize(i % 2 == 0 ? 1000 : block.size() + i % 5, static_cast<char>('a' + i % 26));
            blocks.push_back(block);
        }
        if (name != c.str()) {
            Fill(name, blocks);
        }
    }
    const SlotCfg discarding(c, "discarding", boost::posix_time::milliseconds(100), 16, 1024);
    SlotFactory::CreateSlot(&discarding);
    const std::string path = RecordingPath("together");
    // The discarding slot's update time: its reader passes on only a state younger than that,
    // so a shorter one could miss the last state for good on a loaded machine.
    Background recorder(
        {"record", "-o", path, "--split-size", "64K", "--update-time", "100", a, b, c});
    ASSERT_TRUE(recorder.WaitForErr("(discarding)"));
    ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&discarding);
    // Paced, so that the reader gets most of them (it takes the latest block each time).
    for (const std::string& block : written[c]) {
        writer->onNotify(c, block.data(), block.size());
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::map<std::string, Recording> got;
    // Until the reliable slots are drained and the discarding one's last block is in.
    EXPECT_TRUE(WaitForRecording([&] {
        got = ReadParts(path, false);
        return got[a].blocks.size() >= count && got[b].blocks.size() >= count &&
               !got[c].blocks.empty() && got[c].blocks.back() == written[c].back();
    }));
    recorder.Signal(SIGINT);
    const Outcome run = recorder.Finish();
    ASSERT_EQ(0, run.status) << run.Describe();
    got = ReadParts(path);
    EXPECT_GE(Parts(path).size(), 4u);
    EXPECT_EQ(written[a], got[a].blocks);
    EXPECT_EQ(written[b], got[b].blocks);
    // The discarding slot may lose blocks to its writer's burst; those it recorded are whole.
    size_t next = 0;
    for (const std::string& block : got[c].blocks) {
        const size_t index = std::strtoul(block.c_str() + c.str().size() + 1, nullptr, 10);
        ASSERT_GE(index, next) << block;
        ASSERT_LT(index, count) << block;
        EXPECT_EQ(written[c][index], block);
        next = index + 1;
    }
    EXPECT_EQ(count, next);
    // A reliable slot's blocks are numbered by the recorder (a discarding one's by the slot).
    EXPECT_EQ(Numbers(count), got[a].sequences);
    EXPECT_EQ(Numbers(count), got[b].sequences);
}

// Rotation by size (blocks waiting in the slot), by time (blocks written while it records) and
// by size with zstd, where the open chunk (up to 1 MiB before compression) counts towards
// --split-size: the files, read in order, hold every block once, with unbroken sequences, and
// compressed parts stay near the size asked for.
enum class Split { BySize, ByTime, BySizeZstd };
class SlotctlRecordSplit : public ::testing::TestWithParam<Split> {};

TEST_P(SlotctlRecordSplit, LosesNoBlock) {
    const Split split = GetParam();
    if (split == Split::BySizeZstd && !mcap::ZstdBuiltIn()) {
        GTEST_SKIP() << "zstd is not built in";
    }
    ScopedSlotName name("split");
    std::vector<std::string> blocks = TestBlocks(200);
    const std::string path = RecordingPath("split");
    Outcome run;
    if (split == Split::ByTime) {
        const SlotCfg cfg = Reliable(name, blocks.size() + 8);
        ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
        Background recorder(
            {"record", "-o", path, "--split-duration", "0.3", "--count", "200", name.str()});
        ASSERT_TRUE(recorder.WaitForErr("slotctl: recording"));
        // Paced over about 2 s, so that 0.3 s files each get some of them.
        for (const std::string& block : blocks) {
            writer->onNotify(name, block.data(), block.size());
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        run = recorder.Finish();
    } else if (split == Split::BySize) {
        Fill(name, blocks);
        run = Slotctl({"record", "-o", path, "--split-size", "1K", "--count", "200", name.str()});
    } else {
        // Incompressible blocks.
        std::mt19937 random(7);
        blocks.resize(300);
        for (std::string& block : blocks) {
            block.clear();
            for (int i = 0; i < 10000; ++i) {
                block += static_cast<char>(random());
            }
        }
        Fill(name, blocks, 0, 10240);
        run = Slotctl({"record", "-o", path, "--compression", "zstd", "--split-size", "100K",
                       "--count", "300", name.str()});
    }
    ASSERT_EQ(0, run.status) << run.Describe();
    const std::vector<std::string> parts = Parts(path);
    const Recording got = ReadParts(path)[name.str()];
    EXPECT_EQ(Numbers(blocks.size()), got.sequences);
    EXPECT_EQ(blocks, got.blocks);
    EXPECT_GE(parts.size(), split == Split::ByTime ? 3u : split == Split::BySize ? 5u : 20u);
    EXPECT_THAT(run.err, HasSubstr("wrote " + std::to_string(parts.size()) + " files"));
    for (const std::string& part : parts) {
        struct stat st {};
        ASSERT_EQ(0, ::stat(part.c_str(), &st));
        EXPECT_TRUE(split != Split::BySizeZstd || st.st_size < 200 * 1024) << part;
    }
}

std::string SplitName(const ::testing::TestParamInfo<Split>& info) {
    const char* names[] = {"BySize", "ByTime", "BySizeZstd"};
    return names[static_cast<int>(info.param)];
}
INSTANTIATE_TEST_SUITE_P(Ways, SlotctlRecordSplit,
                         ::testing::Values(Split::BySize, Split::ByTime, Split::BySizeZstd),
                         SplitName);

// (A recording refused before it starts makes no --tee slot either.)
TEST(SlotctlRecord, RefusalsAndDamagedFilesGiveOneClearLine) {
    ScopedSlotName reliable("busy");
    Fill(reliable, {"x"});
    ScopedSlotName free("free"), tee("teenotmade");
    Fill(free, {"y"});
    Background reader({"read", reliable.str(), "--follow"});
    ASSERT_TRUE(reader.WaitForErr("slotctl: reading"));
    const std::string damaged = RecordingPath("damaged");
    const std::string good = RecordingPath("good");
    WriteFile(good, false, 5);
    std::string bytes = ReadFile(good);
    bytes[40] ^= 0x55;  // inside the channel record: the data section's CRC no longer matches
    WriteFile(damaged, bytes);
    const std::string existing = RecordingPath("existing");
    WriteFile(existing, "keep me");
    const struct {
        std::vector<std::string> args;
        int status;
        std::string message;
    } cases[] = {
        {{"record", "-o", RecordingPath("refused"), reliable.str()},
         1,
         "the reliable slot already has a reader (pid " + std::to_string(reader.Pid()) + ")"},
        {{"record", "-o", existing, "--tee", tee.str(), free.str()}, 1, "File exists"},
        {{"record", reliable.str()}, 2, "the output file is missing"},
        {{"record", "-o", RecordingPath("twice"), free.str(), free.str()}, 2, "is named twice"},
        {{"record", "-o", RecordingPath("x"), "--compression", "lz4", reliable.str()},
         2,
         "--compression must be zstd or none"},
        {{"read", damaged}, 1, "is damaged at byte"},
        {{"read", RecordingPath("missing")}, 1, "no such recording (and no slot of that name)"},
        {{"info", RecordingPath("missing")}, 1, "no such recording (and no slot of that name)"},
        {{"replay", "--max", good.substr(0, good.size() - 5)}, 2, "is not a recording"},
    };
    for (const auto& c : cases) {
        const Outcome run = Slotctl(c.args);
        EXPECT_EQ(c.status, run.status) << run.Describe();
        EXPECT_EQ(1u, run.ErrLines().size()) << run.Describe();
        EXPECT_THAT(run.err, HasSubstr(c.message)) << run.Describe();
    }
    EXPECT_EQ("keep me", ReadFile(existing));
    EXPECT_FALSE(slotctltest::ShmExists(tee.str()));
    EXPECT_FALSE(slotctltest::ShmExists("queue_" + tee.str()));
    reader.Signal(SIGINT);
    reader.Finish();
}

size_t Waiting(const std::string& name, size_t queue) {
    const SlotCfg cfg = Reliable(name, queue);
    return SlotFactory::CreateSlot(&cfg)->GetBufferLength();
}

// A part that cannot be made (its name is taken) ends the recording at the block that needed
// it: that block is lost and said so, the reader takes nothing more, so the blocks after it
// still wait in the reliable slot, and the part before it is closed and whole.
TEST(SlotctlRecord, APartThatCannotBeMadeStopsTheRecordingLosingOnlyTheBlockInHand) {
    ScopedSlotName name("splitfail");
    std::vector<std::string> blocks;
    for (char c = 'a'; c < 'e'; ++c) {
        blocks.push_back(std::string(1000, c));  // one block fills a 1K part
    }
    Fill(name, blocks);
    const std::string path = RecordingPath("splitfail");
    const std::string stem = path.substr(0, path.size() - 5);
    const std::string taken = stem + "-001.mcap";
    WriteFile(taken, "keep me");
    const Outcome run = SlotctlEnding(1, {"record", "-o", path, "--split-size", "1K", name.str()},
                                      slotctltest::Options{"", std::chrono::seconds(30)});
    EXPECT_EQ("keep me", ReadFile(taken));
    EXPECT_THAT(run.err,
                AllOf(HasSubstr("slotctl: recorded '" + name.str() +
                                "' (reliable): 1 block, 1.0 kB, 0 gaps; 1 block lost (taken, "
                                "not written)\n"),
                      HasSubstr("slotctl: wrote 1 file: " + stem + "-000.mcap; did not keep up\n"),
                      HasSubstr("slotctl: record: cannot create " + taken + ": File exists\n")))
        << run.Describe();
    const Recording first = ReadRecording(stem + "-000.mcap");
    EXPECT_TRUE(first.result.complete) << first.result.problem;
    EXPECT_EQ(std::vector<std::string>{blocks[0]}, first.blocks);
    const Outcome rest =
        Slotctl({"read", name.str(), "--count", "2", "--timeout", "10000", "--format", "frames"});
    EXPECT_EQ(Frames({blocks[2], blocks[3]}), rest.out) << rest.Describe();
}

// Every slot is opened before any reader starts: while the recorder waits for one slot's lock,
// the others keep their blocks, and Ctrl-C then leaves no file.
TEST(SlotctlRecord, ASlotThatCannotBeOpenedYetTakesNothingFromTheOthers) {
    ScopedSlotName ready("openready"), held("openheld");
    const std::vector<std::string> blocks = TestBlocks(3);
    Fill(ready, blocks);
    testsupport::HeaderHolder holder(held);
    ASSERT_TRUE(holder.WaitLocked()) << holder.Child().Wait().Describe();
    const std::string path = RecordingPath("openheld");
    Background recorder({"record", "-o", path, ready.str(), held.str()});
    const bool made = WaitForRecording([&] { return testsupport::Exists(path); });
    // A reader started now would take them within its first update time (0.1 s).
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const size_t waiting = Waiting(ready, blocks.size() + 8);
    recorder.Signal(SIGINT);
    const Outcome run = recorder.Finish();
    holder.Release();
    holder.Child().Wait();
    EXPECT_TRUE(made) << run.Describe();
    EXPECT_EQ(blocks.size(), waiting);
    EXPECT_EQ(130, run.status) << run.Describe();
    EXPECT_FALSE(testsupport::Exists(path));
    EXPECT_EQ(blocks.size(), Waiting(ready, blocks.size() + 8));
}

// A reader takes its slot's blocks while it starts (one update time, here 3 s): Ctrl-C then
// ends the recording once the start is over, with every block taken in the file.
TEST(SlotctlRecord, AnInterruptWhileAReaderStartsLosesNoBlockItTook) {
    ScopedSlotName name("recstart");
    const std::vector<std::string> blocks = TestBlocks(30);
    Fill(name, blocks);
    const std::string path = RecordingPath("recstart");
    Background recorder({"record", "-o", path, "--update-time", "3000", name.str()});
    EXPECT_TRUE(testsupport::Eventually(
        [&] { return SlotSurvey::InspectSlot(name.str()).readerPid == recorder.Pid(); },
        std::chrono::seconds(30)));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    recorder.Signal(SIGINT);
    const Outcome run = recorder.FinishEnding(130);
    // Nothing taken (a start slower than the signal): no file is left.
    const Recording recorded = testsupport::Exists(path) ? ReadRecording(path) : Recording();
    const size_t waiting = Waiting(name, blocks.size() + 8);
    ASSERT_LE(recorded.blocks.size(), blocks.size());
    EXPECT_EQ(std::vector<std::string>(blocks.begin(), blocks.end() - static_cast<long>(waiting)),
              recorded.blocks)
        << run.Describe();
}

TEST(SlotctlRecord, TeePassesEveryBlockOnInOrderThroughRefusals) {
    ScopedSlotName source("teesrc"), other("teeout");
    const std::vector<std::string> blocks = TestBlocks(100);
    Fill(source, blocks);
    // Capacity 2: the consumer's slot refuses most of the time.
    const SlotCfg otherCfg = Reliable(other, 2);
    SlotFactory::CreateSlot(&otherCfg);
    Background consumer({"read", other.str(), "--count", "100", "--format", "frames"});
    ASSERT_TRUE(consumer.WaitForErr("slotctl: reading"));
    const std::string path = RecordingPath("tee");
    const Outcome run =
        Slotctl({"record", "-o", path, "--tee", other.str(), "--count", "100", source.str()});
    ASSERT_EQ(0, run.status) << run.Describe();
    EXPECT_THAT(run.err, HasSubstr("passed 100 on to"));
    const Outcome consumed = consumer.FinishEnding(0);
    EXPECT_EQ(Frames(blocks), consumed.out);
    EXPECT_EQ(blocks, ReadRecording(path).blocks);
}

// A stop while OTHER stays full (no reader) ends the passing on at the block in hand: it is
// recorded and counted as not passed on (status 1), and the rest stay in the recorded slot.
TEST(SlotctlRecord, TeeStoppedWhileFullTakesNothingMoreAndFails) {
    ScopedSlotName source("teefullsrc"), other("teefullout");
    const std::vector<std::string> blocks = TestBlocks(3);
    Fill(source, blocks);
    Fill(other, {"full"}, 1);
    const std::string path = RecordingPath("teefull");
    Background recorder({"record", "-o", path, "--tee", other.str(), source.str()});
    const bool taken =
        WaitForRecording([&] { return Waiting(source, blocks.size() + 8) == blocks.size() - 1; });
    recorder.Signal(SIGINT);
    const Outcome run = recorder.Finish();
    ASSERT_TRUE(taken) << run.Describe();
    EXPECT_EQ(1, run.status) << run.Describe();
    EXPECT_THAT(run.err,
                AllOf(HasSubstr("): 1 block, 10 B, 0 gaps; passed 0 on to '" + other.str() + "'"),
                      HasSubstr(", 1 not passed on\n")))
        << run.Describe();
    EXPECT_EQ(std::vector<std::string>{blocks[0]}, ReadRecording(path).blocks);
    EXPECT_EQ(blocks.size() - 1, Waiting(source, blocks.size() + 8));
}

// A message to record: its channel's index, its log time in ns and its block.
struct Logged {
    std::uint16_t channel;
    std::uint64_t time;
    std::string block;
};

const std::map<std::string, std::string> kReliable8 = {
    {"kind", "reliable"}, {"queue_length", "8"}, {"max_block_size", "64"}};

// A new recording of `messages` on channels `topics`, each with `metadata`.
std::string Recorded(const std::vector<std::string>& topics, const std::vector<Logged>& messages,
                     const std::map<std::string, std::string>& metadata = kReliable8) {
    const std::string path = RecordingPath("replay");
    mcap::Writer writer(path, mcap::Writer::Options());
    std::vector<std::uint16_t> ids;
    for (const std::string& topic : topics) {
        ids.push_back(writer.AddChannel(topic, "application/octet-stream", metadata));
    }
    std::vector<std::uint32_t> sequences(topics.size());
    for (const Logged& m : messages) {
        writer.Add(mcap::Message{ids[m.channel], ++sequences[m.channel], m.time, 0, m.block.data(),
                                 m.block.size()});
    }
    writer.Close();
    return path;
}

// The blocks on channel 0 of a recording, `gapNs` apart from 1 s on.
std::vector<Logged> Spaced(const std::vector<std::string>& blocks, std::uint64_t gapNs) {
    std::vector<Logged> messages;
    for (size_t i = 0; i < blocks.size(); ++i) {
        messages.push_back({0, 1000000000ull + i * gapNs, blocks[i]});
    }
    return messages;
}

// A pool channel whose geometry fits no pool is refused before anything is made; in 32-bit
// builds too, where a size of 33 bits must not wrap to a small one.
TEST(SlotctlReplay, APoolChannelThatFitsNoPoolIsRefused) {
    ScopedSlotName target("nopool");
    const std::string path = Recorded({target}, Spaced({"b0"}, 1),
                                      {{"object", "pool"},
                                       {"kind", "queue"},
                                       {"max_block_size", "4294967297"},
                                       {"block_count", "4"}});
    const Outcome refused = Slotctl({"replay", "--max", path});
    Slot::PoolFactory::RemovePool(target);
    EXPECT_EQ(1, refused.status) << refused.Describe();
    EXPECT_THAT(refused.err, HasSubstr("its channel describes no valid pool ("));
}

// A channel whose name cannot be replayed into fails alone: the others are replayed, the summary
// counts its blocks as not written, status 1.
TEST(SlotctlReplay, AChannelThatCannotBeReplayedIntoFailsAlone) {
    ScopedSlotName good("goodchan");
    const std::string path =
        Recorded({good, "bad/x"}, {{0, 1, "g1"}, {1, 2, "b1"}, {1, 3, "b2"}, {0, 4, "g2"}});
    const Outcome run = SlotctlEnding(1, {"replay", "--max", path});
    EXPECT_THAT(run.err, AllOf(HasSubstr("slotctl: invalid slot name 'bad/x'"),
                               HasSubstr("slotctl: replayed 2 blocks into '" + good.str() + "'"),
                               HasSubstr("slotctl: replayed 0 blocks into 'bad/x', 2 not written")))
        << run.Describe();
}

TEST(SlotctlReplay, PacesAcrossPartsSelectsTopicsAndLoops) {
    ScopedSlotName fast("fast"), skipped("skipped");
    // Five blocks 100 ms apart on the first channel, one on the second.
    std::vector<Logged> messages = Spaced({"b0", "b1", "b2", "b3", "b4"}, 100000000ull);
    messages.push_back({1, 1000000000ull, "x"});
    const std::string path = Recorded({fast, skipped}, messages);
    const auto started = std::chrono::steady_clock::now();
    const Outcome paced = Slotctl({"replay", "--rate", "2", "--topics", fast.str(), path});
    const auto took = std::chrono::steady_clock::now() - started;
    ASSERT_EQ(0, paced.status) << paced.Describe();
    // 400 ms recorded at twice the pace: never faster than 200 ms.
    EXPECT_GE(took, std::chrono::milliseconds(200));
    EXPECT_THAT(paced.err, AllOf(HasSubstr("replayed 5 blocks into '" + fast.str()),
                                 Not(HasSubstr("is due in"))));
    EXPECT_FALSE(slotctltest::ShmExists(skipped.str()));

    // The parts of a split recording keep the pause between them: one pace for all the files.
    ScopedSlotName parts("pacedparts");
    const std::string first = Recorded({parts}, {{0, 1000000000ull, "a"}});
    const std::string second = Recorded({parts}, {{0, 2000000000ull, "b"}});
    const auto partsStarted = std::chrono::steady_clock::now();
    const Outcome both = Slotctl({"replay", first, second});
    EXPECT_GE(std::chrono::steady_clock::now() - partsStarted, std::chrono::milliseconds(1000));
    EXPECT_EQ(0, both.status) << both.Describe();
    EXPECT_THAT(both.err, HasSubstr("replayed 2 blocks into '" + parts.str()));

    // Looping: the recording again and again, in order, until Ctrl-C.
    Background looping({"replay", "--loop", "--max", "--topics", fast.str(), path});
    const Outcome read = Slotctl({"read", fast.str(), "--count", "15", "--timeout", "30000"});
    looping.Signal(SIGINT);
    looping.FinishEnding(130);
    const std::string round = "2 bytes: b0\n2 bytes: b1\n2 bytes: b2\n2 bytes: b3\n2 bytes: b4\n";
    EXPECT_THAT(read.out, StartsWith(round + round + round));
}

// A log time far ahead (here the largest there is) is waited for as recorded, said so, and
// left with Ctrl-C; its arithmetic does not overflow.
TEST(SlotctlReplay, ALongWaitAsRecordedIsAnnouncedAndInterruptible) {
    ScopedSlotName name("farahead");
    const std::string path = Recorded({name}, {{0, 1000000000ull, "a"}, {0, UINT64_MAX, "b"}}, {});
    Background replay({"replay", path});
    const bool announced = replay.WaitForErr(
        "is due in 213503 days 23 h as recorded; waiting (Ctrl-C stops, --max "
        "replays without pauses)");
    replay.Signal(SIGINT);
    const Outcome interrupted = replay.Finish();
    EXPECT_TRUE(announced) << interrupted.Describe();
    EXPECT_EQ(130, interrupted.status) << interrupted.Describe();
    EXPECT_THAT(interrupted.err, HasSubstr("replayed 1 block into '" + name.str()));
}

// While a live process keeps the slot's lock, replay waits for it both when opening the slot
// and when writing a block, and each of those waits ends at SIGTERM or SIGINT with the summary
// and status 130.
TEST(SlotctlReplay, WaitsForAHeldLockEndAtAStopSignal) {
    const std::string path = Recorded({"src"}, Spaced({"one", "two"}, 3000000000ull));
    // Signals the replay that waits for `holder`'s lock and checks how it ended.
    auto stopWaiting = [](Background& replay, testsupport::HeaderHolder& holder, int signal,
                          const std::string& summary) {
        replay.Signal(signal);
        const Outcome run = replay.Finish(std::chrono::seconds(15));
        holder.Release();
        holder.Child().Wait();
        EXPECT_EQ(130, run.status) << run.Describe();
        EXPECT_THAT(run.err, HasSubstr(summary));
    };
    for (const int signal : {SIGTERM, SIGINT}) {
        ScopedSlotName opening("heldopen");
        {
            testsupport::HeaderHolder holder(opening);
            ASSERT_TRUE(holder.WaitLocked()) << holder.Child().Wait().Describe();
            Background replay({"replay", "--map", "src=" + opening.str(), path});
            std::this_thread::sleep_for(std::chrono::seconds(1));
            stopWaiting(replay, holder, signal,
                        "slotctl: replayed 0 blocks into '" + opening.str() +
                            "' (reliable), 1 not written");
        }
        // The first block is written, then the lock is taken before the second is due.
        ScopedSlotName writing("heldwrite");
        Background replay({"replay", "--map", "src=" + writing.str(), path});
        ASSERT_TRUE(WaitForRecording([&] {
            return SlotSurvey::InspectSlot(writing.str()).queue.waiting == 1;
        })) << replay.Finish().Describe();
        testsupport::HeaderHolder holder(writing);
        ASSERT_TRUE(holder.WaitLocked()) << holder.Child().Wait().Describe();
        std::this_thread::sleep_for(std::chrono::milliseconds(4000));
        stopWaiting(
            replay, holder, signal,
            "slotctl: replayed 1 block into '" + writing.str() + "' (reliable), 1 not written");
    }
}

// A block waits while the reliable slot is full without being written again and again: no WARN
// line per retry, the waits are counted, and every block arrives in order.
TEST(SlotctlReplay, AFullSlotIsWaitedForWithoutAWarningPerRetry) {
    ScopedSlotName name("fullreplay");
    Fill(name, {"old1", "old2"}, 2);
    const std::string path = Recorded({"src"}, Spaced({"new1", "new2", "new3"}, 1000));
    Background replay({"replay", "--max", "--map", "src=" + name.str(), path});
    // Refused writes would log about one WARN line per retry meanwhile.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const Outcome read = Slotctl({"read", name.str(), "--count", "5", "--timeout", "20000"});
    const Outcome run = replay.Finish();
    EXPECT_EQ("4 bytes: old1\n4 bytes: old2\n4 bytes: new1\n4 bytes: new2\n4 bytes: new3\n",
              read.out)
        << read.Describe();
    EXPECT_EQ(0, run.status) << run.Describe();
    EXPECT_THAT(run.err, AllOf(Not(HasSubstr("is full")), HasSubstr(" refused writes retried")));
}

// Blocks replayed into a posix-pipe that nobody reads are lost when replay closes it: said in the
// pipe's line, status 1.
TEST(SlotctlReplay, BytesAPipeLosesUnreadAtTheEndAreReported) {
    ScopedSlotName name("replaypipe");
    const std::string path =
        Recorded({name}, Spaced({"ab", "cde"}, 1000), {{"kind", "posix-pipe"}});
    const Outcome run = Slotctl({"replay", "--max", path});
    ::unlink(FileUtils::NamedPipeCreator::ConstructPipeFilename(name).c_str());
    EXPECT_EQ(1, run.status) << run.Describe();
    EXPECT_THAT(run.err, HasSubstr("slotctl: replayed 2 blocks into '" + name.str() +
                                   "' (posix-pipe), 5 unread bytes lost: no reader had the pipe "
                                   "open when it was closed\n"));
}

// read FILE.mcap whose output fails says so and fails; with --timeout MS it gives up on an output
// that takes nothing for MS ms: status 124.
TEST(SlotctlReplay, ReadingARecordingIntoAFullOrStuckOutputFails) {
    const std::string path = Recorded({"src"}, Spaced({"one", "two"}, 1000));
    const slotctltest::ShellRun full =
        slotctltest::InShell("\"$0\" read " + path + " 2>&1 >/dev/full; echo $?");
    EXPECT_EQ("slotctl: cannot write standard output: No space left on device\n1\n", full.out);

    const std::string big = Recorded({"src"}, Spaced({std::string(200000, 'x')}, 1000));
    const std::string fifo = RecordingPath("stuckout");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    const int undrained = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Background reader({"read", big, "--format", "raw", "--timeout", "500"}, 0, fifo);
    const Outcome run = reader.Finish(std::chrono::seconds(30));
    ::close(undrained);
    ::unlink(fifo.c_str());
    EXPECT_EQ(124, run.status) << run.Describe();
    EXPECT_EQ("slotctl: cannot write standard output: it took nothing within the time-out\n",
              run.err);
}

TEST(SlotctlReplay, LoopingOverRecordingsWithoutABlockToReplayEnds) {
    ScopedSlotName name("loopnone");
    const std::vector<std::string> runs[] = {
        {"replay", "--loop", "--max", Recorded({name}, {}, {})},
        {"replay", "--loop", "--max", "--topics", name.str(),
         Recorded({name.str() + "x"}, Spaced({"x"}, 0), {})},
    };
    for (const std::vector<std::string>& args : runs) {
        SCOPED_TRACE(args.back());
        // (It once spun until killed.)
        const Outcome run =
            SlotctlEnding(0, args, slotctltest::Options{"", std::chrono::seconds(20)});
        EXPECT_THAT(run.err, HasSubstr("nothing replayed (no blocks"));
        EXPECT_FALSE(slotctltest::ShmExists(name.str()));
    }
}

}  // namespace
