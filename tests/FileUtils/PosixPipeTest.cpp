// SPDX-License-Identifier: Apache-2.0
#include "ChildRequire.h"
#include "Collector.h"
#include "FileTestSupport.h"
#include "LogCapture.h"
#include "ShmHygiene.h"
#include "Verdicts.h"

#include <FileUtils/FSSAutoReopen.h>
#include <FileUtils/NamedPipeCreator.h>
#include <FileUtils/PosixFileReader.h>
#include <shared/FileHelpers.h>
#include <shared/WriteOutcome.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <fstream>
#include <thread>
#include <vector>

namespace {

using boost::posix_time::milliseconds;
using boost::posix_time::seconds;
using testsupport::EndedWell;
using testsupport::Require;

// Each test's FIFO has a fresh slot name and is removed when the test ends.
class PosixPipe : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(FileUtils::NamedPipeCreator::CreateIfNeeded(fifo.path)); }
    struct {
        std::string name = testsupport::UniqueName("pipe");
        std::string path = FileUtils::NamedPipeCreator::ConstructPipeFilename(name);
    } fifo;
    filetest::ScopedPaths cleanup{fifo.path};
};

// The writer exactly as the posix-pipe slot writer is made: pass-through format, stream opened.
struct PipeWriter {
    explicit PipeWriter(const std::string& path)
        : cfg(path, false, false), writer(cfg, &shared::FormatNothing) {
        writer.Reopen();
    }
    void Write(const std::string& bytes) { writer.onNotify("w", bytes.data(), bytes.size()); }
    SimpleFileOutputCfg cfg;
    FileUtils::FSSAutoReopen writer;
};

// Writes `total` bytes of pattern `seed` in blocks of uneven sizes, small and larger than
// PIPE_BUF. Returns 0 when no block was dropped.
int WriteStream(const std::string& path, size_t total, unsigned int seed) {
    testsupport::LogCapture log("Slot.Writer");
    PipeWriter w(path);
    w.writer.SetPipeFullTimeout(seconds(20));
    const std::string bytes = filetest::Pattern(total, seed);
    static const size_t sizes[] = {1, 4096, 17, 333, 5000, 4095, 64, 9999, 2, 4097};
    size_t offset = 0;
    for (size_t i = 0; offset < total; ++i) {
        const size_t n = std::min(sizes[i % 10], total - offset);
        w.Write(bytes.substr(offset, n));
        offset += n;
    }
    return log.Messages("WARN").empty() && log.Messages("ERROR").empty() ? 0 : 3;
}

TEST_F(PosixPipe, WriterWithoutReaderNeitherHangsNorDiesAndReportsWhatItDrops) {
    const int kBlocks = 40;  // 160 KiB: more than a pipe holds
    EXPECT_TRUE(testsupport::RunsInChild([&] {
        std::signal(SIGPIPE, SIG_DFL);
        testsupport::LogCapture log("Slot.Writer");
        {
            PipeWriter w(fifo.path);
            w.writer.SetWriteOutcomeName(fifo.name);
            w.writer.SetPipeFullTimeout(milliseconds(100));
            for (int i = 0; i < kBlocks; ++i) {
                w.Write(std::string(4096, 'x'));
            }
        }
        const size_t dropped = log.Count(
            "WARN", "Named pipe '" + fifo.path + "' is full, block of 4096 bytes dropped");
        // Nobody reads: what the pipe holds is lost with it, and that is reported, in the log
        // and in the counts, which still count the blocks as stored.
        const shared::WriteCounts counts = shared::GetWriteCounts(fifo.name);
        Require(dropped != 0 && dropped != static_cast<size_t>(kBlocks) &&
                    counts.stored == kBlocks - dropped,
                4,
                "dropped " + std::to_string(dropped) + ", stored " + std::to_string(counts.stored));
        Require(counts.bytesLostAtClose == counts.stored * 4096, 6, "bytes lost at close");
        Require(log.CountPrefix("WARN", "Closing named pipe '" + fifo.path +
                                            "' that no reader has open: ") == 1,
                5, "the loss at close was not logged once");
    }));
}

// Two writer processes one after the other, in blocks of uneven sizes around PIPE_BUF: every
// byte arrives unchanged and in order, and the end of the first writer is not an end for the
// reader.
TEST_F(PosixPipe, BytesOfWritersInOtherProcessesArriveInOrderAlsoAfterOneHasGone) {
    const size_t first = 50000;
    const size_t second = 70000;
    testsupport::PipeSignal go1;
    testsupport::PipeSignal go2;
    testsupport::ChildProcess writer1(
        [&] { return go1.WaitFor() ? WriteStream(fifo.path, first, 1) : 2; });
    testsupport::ChildProcess writer2(
        [&] { return go2.WaitFor() ? WriteStream(fifo.path, second, 2) : 2; });

    testsupport::LogCapture readerLog("Slot.Reader");
    testsupport::Collector collector;
    {
        FileUtils::PosixFileReader reader(fifo.path, 512, milliseconds(50));
        reader.subscribe(&collector);
        go1.Post();
        EXPECT_TRUE(EndedWell(writer1.Wait()));
        ASSERT_TRUE(collector.WaitForBytes(first));
        // The first writer has closed its end; the reader must not have taken that as an end.
        go2.Post();
        EXPECT_TRUE(EndedWell(writer2.Wait()));
        ASSERT_TRUE(collector.WaitForBytes(first + second));
    }
    EXPECT_EQ(filetest::Pattern(first, 1) + filetest::Pattern(second, 2), collector.Stream());
    EXPECT_EQ(std::set<std::string>{fifo.name}, collector.Names());
    EXPECT_TRUE(readerLog.Messages("ERROR").empty());
    EXPECT_EQ(1u, readerLog.Count("DEBUG", "Reader thread started for '" + fifo.path + "'"));
    EXPECT_EQ(1u, readerLog.Count("DEBUG", "Reader thread stopped for '" + fifo.path + "'"));
}

// A pipe removed while a writer and a reader have it open: both keep it (a file in its place
// would stand in the way of the next reader). Made again (by a new reader or writer), it is
// another pipe: the writer's next block goes into that one, and the reader follows it there,
// rather than either staying with the old pipe that nobody else uses. What the writer leaves
// unread in the old pipe with no reader is reported lost.
TEST_F(PosixPipe, WritersAndReadersFollowTheirPipeMadeAgainAndMakeNoFileInItsPlace) {
    testsupport::LogCapture writerLog("Slot.Writer");
    testsupport::LogCapture readerLog("Slot.Reader");
    PipeWriter w(fifo.path);
    w.writer.SetWriteOutcomeName(fifo.name);
    ASSERT_EQ("", FileUtils::NamedPipeCreator::Remove(fifo.path));
    w.Write("lost with the old pipe");
    // Neither reopening the gone pipe nor a pipe writer opening it for the first time (the pipe
    // removed between its creation and the opening) makes a file in its place.
    w.writer.Reopen();
    FileUtils::FSSAutoReopen late(w.cfg, &shared::FormatNothing);
    late.SetNamedPipeOnly();
    try {
        late.Reopen();
        ADD_FAILURE() << "a missing pipe was opened";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ("Cannot open '" + fifo.path + "' : No such file or directory",
                  std::string(e.what()));
    }
    struct stat st;
    EXPECT_NE(0, ::lstat(fifo.path.c_str(), &st)) << "something was made in the pipe's place";
    ASSERT_TRUE(FileUtils::NamedPipeCreator::CreateIfNeeded(fifo.path));
    FileUtils::PosixFileReader reader(fifo.path, 1000, milliseconds(10));
    testsupport::Collector got;
    reader.subscribe(&got);
    w.Write("after");
    ASSERT_TRUE(got.WaitForBytes(5)) << "the block went into the removed pipe";

    // Removed under the running reader (slotctl rm --force): both keep the gone pipe. Made
    // again by a newcomer, the old writer and the reader move to it.
    ASSERT_EQ("", FileUtils::NamedPipeCreator::Remove(fifo.path));
    w.Write("kept");
    ASSERT_TRUE(got.WaitForBytes(9));
    ASSERT_TRUE(FileUtils::NamedPipeCreator::CreateIfNeeded(fifo.path));
    PipeWriter newcomer(fifo.path);
    newcomer.Write("new");
    w.Write("again");
    ASSERT_TRUE(got.WaitForBytes(17)) << "the reader stayed with the removed pipe";
    reader.unsubscribe(&got);
    EXPECT_EQ("afterkeptnewagain", got.Stream());
    EXPECT_EQ(1u, readerLog.Count("INFO", "Named pipe '" + fifo.path +
                                              "' was made again, reading the new one"));
    EXPECT_TRUE(readerLog.Messages("ERROR").empty());
    // Only the first move left bytes behind: the reader had taken "kept" before the second.
    EXPECT_EQ(std::vector<std::string>{"Closing named pipe '" + fifo.path +
                                       "' that no reader has open: 22 unread bytes are lost"},
              writerLog.Messages("WARN"));
    EXPECT_EQ(22u, shared::GetWriteCounts(fifo.name).bytesLostAtClose);
}

// Every byte waiting in the pipe at `path` now, read through a descriptor of our own.
std::string DrainPipe(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    std::string bytes;
    char buffer[8192];
    ssize_t n;
    while (fd >= 0 && (n = ::read(fd, buffer, sizeof(buffer))) > 0) {
        bytes.append(buffer, static_cast<size_t>(n));
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return bytes;
}

// A writer given time waits for room for a whole block larger than PIPE_BUF and never writes a
// part of one: a reader of a pipe it keeps full gets every block whole, in order.
TEST_F(PosixPipe, AWriterWaitsForRoomForWholeBlocks) {
    testsupport::LogCapture log("Slot.Writer");
    PipeWriter w(fifo.path);
    w.writer.SetPipeFullTimeout(seconds(20));
    std::string all;
    for (unsigned int i = 0; i < 4; ++i) {
        all += filetest::Pattern(40000, i);
    }
    testsupport::PipeSignal go;
    testsupport::ChildProcess reader([&] {
        go.WaitFor();
        const int fd = ::open(fifo.path.c_str(), O_RDONLY | O_CLOEXEC);
        std::string got;
        char chunk[1000];
        while (fd >= 0 && got.size() < all.size()) {
            const ssize_t n = ::read(fd, chunk, sizeof(chunk));
            if (n <= 0) {
                return 2;
            }
            got.append(chunk, static_cast<size_t>(n));
        }
        return got == all ? 0 : 3;
    });
    go.Post();
    for (size_t at = 0; at < all.size(); at += 40000) {
        w.Write(all.substr(at, 40000));
    }
    EXPECT_TRUE(EndedWell(reader.Wait()));
    EXPECT_TRUE(log.Messages("WARN").empty());
}

// Blocks that do not share pages: each unread write holds pages of its own, far more than its
// bytes fill. With one writer and nobody reading, a block is stored whole or refused, never cut,
// and its outcome says which; a reader then gets whole blocks only, in order.
TEST_F(PosixPipe, BlocksInPagesOfTheirOwnEnterWholeOrNotAtAll) {
    testsupport::LogCapture log("Slot.Writer");
    PipeWriter w(fifo.path);
    w.writer.SetPipeFullTimeout(milliseconds(100));
    w.writer.SetWriteOutcomeName(fifo.name);
    const int probe = ::open(fifo.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(probe, 0);
    const int capacity = ::fcntl(probe, F_GETPIPE_SZ);
    ::close(probe);
    const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    ASSERT_GE(capacity, static_cast<int>(4 * page));
    const size_t pages = static_cast<size_t>(capacity) / page;

    // Two of these never share a page, so each takes one: all pages but two are taken.
    std::string stored;
    const size_t small = page / 2 + 52;
    for (size_t i = 0; i + 2 < pages; ++i) {
        const std::string block = filetest::Pattern(small, 100 + static_cast<unsigned>(i));
        w.Write(block);
        EXPECT_EQ(shared::WriteOutcome::Stored, shared::LastWriteOutcome()) << "block " << i;
        stored += block;
    }
    // Fits in the bytes left, not in the two pages left.
    const std::string large = filetest::Pattern(4 * page + 3616, 7);
    ASSERT_GT(large.size(), static_cast<size_t>(PIPE_BUF));
    w.Write(large);
    EXPECT_EQ(shared::WriteOutcome::Refused, shared::LastWriteOutcome());
    EXPECT_EQ(1u, log.Count("WARN", "Named pipe '" + fifo.path + "' is full, block of " +
                                        std::to_string(large.size()) + " bytes dropped"));
    EXPECT_TRUE(filetest::SameBytes(stored, DrainPipe(fifo.path)));

    // Drained, the pipe takes it whole.
    w.Write(large);
    EXPECT_EQ(shared::WriteOutcome::Stored, shared::LastWriteOutcome());
    EXPECT_TRUE(filetest::SameBytes(large, DrainPipe(fifo.path)));

    // Blocks of whole pages fill the pipe to its last page without a needless refusal.
    stored.clear();
    for (unsigned int i = 0; i < 4; ++i) {
        const std::string block = filetest::Pattern(page, 200 + i);
        w.Write(block);
        stored += block;
        EXPECT_EQ(shared::WriteOutcome::Stored, shared::LastWriteOutcome()) << "page " << i;
    }
    const std::string rest = filetest::Pattern((pages - 4) * page, 8);
    w.Write(rest);
    EXPECT_EQ(shared::WriteOutcome::Stored, shared::LastWriteOutcome());
    EXPECT_TRUE(filetest::SameBytes(stored + rest, DrainPipe(fifo.path)));
    EXPECT_EQ(1u, log.Messages("WARN").size());
    EXPECT_TRUE(log.Messages("ERROR").empty());
    const shared::WriteCounts counts = shared::GetWriteCounts(fifo.name);
    EXPECT_EQ(1u, counts.refused);
    EXPECT_EQ(0u, counts.failed);
}

// A block larger than the pipe's size makes the writer raise it rather than cut the block.
TEST_F(PosixPipe, BlockLargerThanThePipeRaisesItsSize) {
    testsupport::LogCapture log("Slot.Writer");
    PipeWriter w(fifo.path);
    const std::string block = filetest::Pattern(200000, 4);
    w.Write(block);
    EXPECT_EQ(block, DrainPipe(fifo.path));
    EXPECT_TRUE(testsupport::NoWarningsOrErrors(log));

    // An unprivileged writer may not raise it beyond /proc/sys/fs/pipe-max-size: such a block
    // fails whole (a refusal would invite endless retries).
    if (::geteuid() != 0) {
        return;
    }
    std::ifstream limitFile("/proc/sys/fs/pipe-max-size");
    size_t limit = 0;
    ASSERT_TRUE(limitFile >> limit);
    const std::string huge = filetest::Pattern(limit + 4096, 5);
    ASSERT_EQ(0, ::chmod(fifo.path.c_str(), 0666));
    ASSERT_EQ(0, ::chmod(testsupport::TestRunDir().c_str(), 0711));
    const ::testing::AssertionResult failedWhole = testsupport::RunsInChild([&] {
        Require(::setgid(65534) == 0 && ::setuid(65534) == 0, 2, "cannot become nobody");
        testsupport::LogCapture childLog("Slot.Writer");
        PipeWriter nobody(fifo.path);
        nobody.writer.SetWriteOutcomeName(fifo.name);
        nobody.Write(huge);
        const std::string error = "Block of " + std::to_string(huge.size()) +
                                  " bytes is larger than named pipe '" + fifo.path + "' can hold (";
        Require(childLog.CountPrefix("ERROR", error) == 1, 3, "no error logged");
        Require(shared::LastWriteOutcome() == shared::WriteOutcome::Failed, 4, "not failed");
    });
    ::chmod(testsupport::TestRunDir().c_str(), 0700);
    EXPECT_TRUE(failedWhole);
    EXPECT_EQ("", DrainPipe(fifo.path));
}

// The reader takes nothing while nobody is subscribed: bytes written before the reader opened
// the pipe, or after its last subscriber left, wait for the next subscriber. Stopping does not
// wait for the reader's long period.
TEST_F(PosixPipe, BytesWaitForTheNextSubscriberAndTheReaderStopsPromptly) {
    PipeWriter w(fifo.path);
    std::string waiting = filetest::Pattern(3000, 5);
    w.Write(waiting);
    const auto start = std::chrono::steady_clock::now();
    {
        FileUtils::PosixFileReader reader(fifo.path, 100, seconds(60));
        for (int round = 0; round < 3; ++round) {
            testsupport::Collector collector;
            reader.subscribe(&collector);
            w.Write("hello");
            ASSERT_TRUE(collector.WaitForBytes(waiting.size() + 5));
            if (round == 1) {
                reader.unsubscribe(&collector);
            } else {
                reader.unsubscribeAll();
            }
            const std::string got = waiting + "hello";
            waiting = filetest::Pattern(3000, 9 + round);
            w.Write(waiting);
            // Time for the reader to wake up to the bytes; it must leave them.
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            EXPECT_EQ(got, collector.Stream()) << "round " << round;
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// A max size this process cannot allocate (address space capped, as on a 32-bit host with a
// max size of GiBs) is read in smaller chunks: every byte arrives, in order.
TEST_F(PosixPipe, AChunkTooLargeToAllocateIsReadInSmallerOnes) {
    EXPECT_TRUE(testsupport::RunsInChild([&] {
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        const rlimit cap = {static_cast<rlim_t>(pages) * ::sysconf(_SC_PAGESIZE) + (1u << 30),
                            RLIM_INFINITY};
        Require(::setrlimit(RLIMIT_AS, &cap) == 0, 2, "cannot cap the address space");
        testsupport::LogCapture log("Slot.Reader");
        const unsigned size = 3u << 30;
        FileUtils::PosixFileReader reader(fifo.path, size, milliseconds(50));
        testsupport::Collector collector;
        reader.subscribe(&collector);
        const std::string bytes = filetest::Pattern(300000, 7);
        PipeWriter(fifo.path).Write(bytes);
        Require(collector.WaitForBytes(bytes.size()) && collector.Stream() == bytes, 3,
                "the bytes did not all arrive in order");
        testsupport::RequireOneContaining(log, "WARN",
                                          "No memory for chunks of " + std::to_string(size) +
                                              " bytes from '" + fifo.path + "', reading chunks of ",
                                          4);
        reader.unsubscribeAll();
    }));
}
#endif

// A subscriber that throws boost::thread_interrupted does not stop the reader: that is the
// destructor's way to stop it, not a subscriber's.
TEST_F(PosixPipe, ASubscriberThrowingAnInterruptionDoesNotStopTheReader) {
    struct Interrupting : testsupport::Collector {
        void onNotify(const std::string& name, const void* data, size_t size) override {
            testsupport::Collector::onNotify(name, data, size);
            if (!thrown.exchange(true)) {
                throw boost::thread_interrupted();
            }
        }
        std::atomic<bool> thrown{false};
    } collector;
    testsupport::LogCapture log("Slot.Reader");
    FileUtils::PosixFileReader reader(fifo.path, 0, milliseconds(20));
    reader.subscribe(&collector);
    PipeWriter w(fifo.path);
    w.Write("first");
    ASSERT_TRUE(collector.WaitForBytes(5));
    w.Write("second");
    EXPECT_TRUE(collector.WaitForBytes(11)) << collector.Stream();
    EXPECT_EQ(1u, log.Messages("ERROR").size());
    reader.unsubscribeAll();
}

// Subscribers slower than the writer keep the reader busy all the time: unsubscribe and
// unsubscribeAll still get their turn after the delivery in progress, not when the pipe runs dry.
TEST_F(PosixPipe, UnsubscribingIsServedWhileSlowSubscribersKeepTheReaderBusy) {
    testsupport::LogCapture writerLog("Slot.Writer");  // full-pipe drops are not the point
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        PipeWriter w(fifo.path);
        w.writer.SetPipeFullTimeout(milliseconds(200));
        const std::string block(1000, 'x');
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!stop && std::chrono::steady_clock::now() < end) {
            w.Write(block);
        }
    });
    testsupport::Collector slow;
    testsupport::Collector slower;
    // Busy for a while, as a subscriber that computes: the reader thread never sleeps.
    slow.action = slower.action = [] {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1);
        while (std::chrono::steady_clock::now() < until) {
        }
    };
    {
        FileUtils::PosixFileReader reader(fifo.path, 16, milliseconds(10));
        reader.subscribe(&slow);
        reader.subscribe(&slower);
        EXPECT_TRUE(slower.WaitForBytes(50 * 16));
        auto start = std::chrono::steady_clock::now();
        reader.unsubscribe(&slow);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        start = std::chrono::steady_clock::now();
        reader.unsubscribeAll();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        stop = true;
        writer.join();
    }
}

}  // namespace
