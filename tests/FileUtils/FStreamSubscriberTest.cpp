// SPDX-License-Identifier: Apache-2.0
#include "ChildRequire.h"
#include "FileTestSupport.h"
#include "LogCapture.h"
#include "ShmHygiene.h"
#include "Verdicts.h"

#include <FileUtils/FSSAutoReopen.h>
#include <FileUtils/FStreamSubscriber.h>
#include <shared/FileHelpers.h>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <vector>

namespace {

using filetest::ReadFile;
using filetest::TestOutputCfg;
using filetest::WriteFile;
using FileUtils::FSSAutoReopen;
using testsupport::NoWarningsOrErrors;
using Output = FileUtils::FStreamSubscriber;

// Each test's files are removed when it ends; the writers' log is captured.
class FStreamSubscriber : public ::testing::Test {
protected:
    std::string NewFile(const std::string& stem) {
        return cleanup.Add(testsupport::TestRunDir() + "/" + testsupport::UniqueName(stem));
    }
    testsupport::LogCapture log{"Slot.Writer"};
    filetest::ScopedPaths cleanup;
};

void Send(shared::ISubscriber& s, const std::string& bytes) {
    s.onNotify("n", bytes.data(), bytes.size());
}

std::string Line(shared::SizedArray& data) {
    return std::string(data.data(), data.size()) + "\n";
}

TEST_F(FStreamSubscriber, AppendsFormattedBlocksOnlyOnceOpenedAndNeverTruncatesOnReopen) {
    const std::string file = NewFile("append");
    WriteFile(file, "old\n");
    Output s(TestOutputCfg(file), &Line);
    Send(s, "lost");
    EXPECT_EQ(1u,
              log.Count("WARN", "Stream of '" + file + "' is not open, block of 5 bytes dropped"));
    s.Reopen();
    Send(s, "abc");
    Send(s, std::string("d\0e", 3));
    s.Reopen();
    Send(s, "f");
    EXPECT_EQ(std::string("old\nabc\nd\0e\nf\n", 14), ReadFile(file));
}

// A file already past 2 GiB (sparse) is opened, appended to and checked for its size as any
// other: 32-bit builds use 64-bit file offsets too.
TEST_F(FStreamSubscriber, AppendsToAFileOfMoreThan2GiB) {
    const std::string file = NewFile("big");
    const off_t start = (off_t{1} << 31) + 10;
    WriteFile(file, "");
    ASSERT_EQ(0, ::truncate(file.c_str(), start)) << std::strerror(errno);
    Output s(TestOutputCfg(file), &Line);
    s.Reopen();
    Send(s, "abc");
    struct stat st;
    ASSERT_EQ(0, ::stat(file.c_str(), &st));
    EXPECT_EQ(start + 4, st.st_size);
    char tail[4] = {};
    const int fd = ::open(file.c_str(), O_RDONLY);
    ASSERT_LE(0, fd);
    EXPECT_EQ(4, ::pread(fd, tail, sizeof tail, start));
    ::close(fd);
    EXPECT_EQ("abc\n", std::string(tail, sizeof tail));
    EXPECT_TRUE(NoWarningsOrErrors(log));
}

// What is at the name is never followed nor cut: a symlink is refused (its target, existing or
// not, stays as it was), and starting empty (without append, at the first opening only) puts a
// new file in the place of the old one, so another name of the old file keeps its bytes.
TEST_F(FStreamSubscriber, NeverFollowsASymlinkNorCutsAnExistingFile) {
    const std::string target = NewFile("target");
    const std::string missing = NewFile("missing");
    WriteFile(target, "keep");
    for (const std::string& pointee : {target, missing}) {
        const std::string link = NewFile("link");
        ASSERT_EQ(0, ::symlink(pointee.c_str(), link.c_str()));
        for (bool append : {true, false}) {
            Output s(TestOutputCfg(link, append), &shared::FormatNothing);
            EXPECT_THROW(s.Reopen(), std::runtime_error);
            FSSAutoReopen a(TestOutputCfg(link, append), &shared::FormatNothing);
            Send(a, "x");
        }
    }
    EXPECT_EQ("keep", ReadFile(target));
    EXPECT_NE(0, ::access(missing.c_str(), F_OK)) << "a dangling symlink's target was created";

    const std::string file = NewFile("linked");
    const std::string otherName = NewFile("othername");
    WriteFile(file, "old bytes");
    ASSERT_EQ(0, ::link(file.c_str(), otherName.c_str()));
    Output s(TestOutputCfg(file, false), &shared::FormatNothing);
    s.Reopen();
    Send(s, "new");
    s.Reopen();
    Send(s, "er");
    EXPECT_EQ("newer", ReadFile(file));
    EXPECT_EQ("old bytes", ReadFile(otherName));
}

TEST_F(FStreamSubscriber, ReopenAndAutoReopenFollowAFileMovedOrRemovedAway) {
    const std::string file = NewFile("moved");
    const std::string moved = cleanup.Add(file + ".old");
    Output s(TestOutputCfg(file), &shared::FormatNothing);
    s.Reopen();
    Send(s, "a");
    ASSERT_EQ(0, std::rename(file.c_str(), moved.c_str()));
    Send(s, "b");  // still the open file
    s.Reopen();
    Send(s, "c");
    EXPECT_EQ("ab", ReadFile(moved));
    EXPECT_EQ("c", ReadFile(file));

    // The auto-reopening one needs no Reopen() at all.
    FSSAutoReopen a(TestOutputCfg(file), &shared::FormatNothing);
    Send(a, "d");
    ASSERT_EQ(0, std::rename(file.c_str(), moved.c_str()));
    Send(a, "e");
    ASSERT_EQ(0, ::unlink(file.c_str()));
    Send(a, "f");
    EXPECT_EQ("cd", ReadFile(moved));
    EXPECT_EQ("f", ReadFile(file));
    EXPECT_TRUE(NoWarningsOrErrors(log));
}

TEST_F(FStreamSubscriber, WithoutRotationRefusesWhatWouldPassTheMaximumSize) {
    const std::string file = NewFile("max");
    const std::string before(30, 'p');
    WriteFile(file, before);
    Output s(TestOutputCfg(file, true, false, 100), &shared::FormatNothing);
    s.Reopen();
    Send(s, std::string(40, 'a'));  // 70
    Send(s, std::string(40, 'b'));  // would be 110
    Send(s, std::string(30, 'c'));  // exactly 100
    Send(s, std::string(1, 'd'));
    Send(s, std::string(101, 'e'));
    EXPECT_EQ(before + std::string(40, 'a') + std::string(30, 'c'), ReadFile(file));
    EXPECT_EQ((std::vector<std::string>{
                  "'" + file + "' reached its maximum size of 100 bytes, block of 40 bytes dropped",
                  "'" + file + "' reached its maximum size of 100 bytes, block of 1 bytes dropped",
                  "Block of 101 bytes is larger than the maximum size of 100 bytes of '" + file +
                      "', dropped"}),
              log.Messages("WARN"));
}

TEST_F(FStreamSubscriber, RotationKeepsTheNewestFilesUpToTheMaximumIndex) {
    const std::string file = NewFile("rotate");
    cleanup.Add(file + ".0");
    cleanup.Add(file + ".1");
    cleanup.Add(file + ".2");
    Output s(TestOutputCfg(file, true, true, 10, 1), &shared::FormatNothing);
    s.Reopen();
    for (const char c : std::string("abcd")) {
        Send(s, std::string(6, c));
    }
    EXPECT_EQ("dddddd", ReadFile(file));
    EXPECT_EQ("cccccc", ReadFile(file + ".0"));
    EXPECT_EQ("bbbbbb", ReadFile(file + ".1"));
    EXPECT_NE(0, ::access((file + ".2").c_str(), F_OK));
    EXPECT_TRUE(NoWarningsOrErrors(log));

    // An older file that cannot move up (a folder in the way) stops the rotation instead of
    // being overwritten by the next move: the full current file refuses the block.
    ASSERT_EQ(0, ::unlink((file + ".1").c_str()));
    ASSERT_EQ(0, ::mkdir((file + ".1").c_str(), 0700));
    Send(s, std::string(6, 'e'));
    ::rmdir((file + ".1").c_str());
    EXPECT_EQ("dddddd", ReadFile(file));
    EXPECT_EQ("cccccc", ReadFile(file + ".0"));
    EXPECT_EQ(
        (std::vector<std::string>{"Cannot rotate '" + file + ".0' : " + std::strerror(EISDIR)}),
        log.Messages("ERROR"));
    EXPECT_EQ(1u, log.Count("WARN", "'" + file +
                                        "' reached its maximum size of 10 bytes, block of 6 bytes "
                                        "dropped"));
}

// An output whose time-stamped names take the time the test sets instead of the clock's.
template <class Base>
class Clocked : public Base {
public:
    explicit Clocked(const IFileOutputCfg& cfg) : Base(cfg, &shared::FormatNothing) {}
    boost::posix_time::ptime now = boost::posix_time::from_iso_string("20300102T030405");

private:
    boost::posix_time::ptime FileNameTime() const override { return now; }
};

// The files of the test's folder whose names begin with `base`, sorted; each is removed when
// the test ends.
std::vector<std::string> FilesOf(filetest::ScopedPaths& cleanup, const std::string& base) {
    const std::filesystem::path path(base);
    const std::string stem = path.filename().string();
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(path.parent_path())) {
        if (entry.path().filename().string().compare(0, stem.size(), stem) == 0) {
            found.push_back(cleanup.Add(entry.path().string()));
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

// A time-stamped output keeps its name when it rotates, however the clock moves meanwhile: its
// files rotate as one chain, the oldest goes, and the folder holds at most the maximum index + 2
// of them. An automatic reopening keeps the name too; only Reopen() takes a new time stamp and
// starts another chain, leaving the first as it was.
TEST_F(FStreamSubscriber, ATimeStampedOutputRotatesOneChainUntilReopened) {
    const std::string base = NewFile("stamped");
    const std::string first = base + "_20300102T030405";
    Clocked<Output> s(TestOutputCfg(base, true, true, 10, 1, true));
    s.Reopen();
    for (const char c : std::string("abcde")) {
        s.now += boost::posix_time::seconds(1);
        Send(s, std::string(6, c));
    }
    EXPECT_EQ(first, s.GetFileName());
    EXPECT_EQ((std::vector<std::string>{first, first + ".0", first + ".1"}),
              FilesOf(cleanup, base));
    EXPECT_EQ("eeeeee", ReadFile(first));
    EXPECT_EQ("dddddd", ReadFile(first + ".0"));
    EXPECT_EQ("cccccc", ReadFile(first + ".1"));

    s.Reopen();
    const std::string second = base + "_20300102T030410";
    Send(s, "ffffff");
    EXPECT_EQ((std::vector<std::string>{first, first + ".0", first + ".1", second}),
              FilesOf(cleanup, base));
    EXPECT_EQ("ffffff", ReadFile(second));
    EXPECT_EQ("eeeeee", ReadFile(first));

    Clocked<FSSAutoReopen> a(TestOutputCfg(base + "-auto", true, false, 0, 0, true));
    const std::string autoName = base + "-auto_20300102T030405";
    Send(a, "g");
    a.now += boost::posix_time::seconds(1);
    const std::string moved = cleanup.Add(base + "-moved");
    ASSERT_EQ(0, std::rename(autoName.c_str(), moved.c_str()));
    Send(a, "h");
    EXPECT_EQ((std::vector<std::string>{autoName}), FilesOf(cleanup, base + "-auto"));
    EXPECT_EQ("h", ReadFile(autoName));
    EXPECT_EQ("g", ReadFile(moved));
    EXPECT_TRUE(NoWarningsOrErrors(log));
}

// A write that fails part way (here at the process's file size limit, EFBIG) leaves no part of
// its block behind, so the blocks an auto-reopening writer appends later stay whole too.
TEST_F(FStreamSubscriber, AWriteThatFailsPartWayLeavesOnlyWholeBlocks) {
    const std::string file = NewFile("limit");
    const size_t kBlock = 4000;
    const rlim_t kLimit = 10000;
    std::string whole;
    for (unsigned int i = 0; i < kLimit / kBlock; ++i) {
        whole += filetest::Pattern(kBlock, i);
    }
    EXPECT_TRUE(testsupport::RunsInChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit = {kLimit, kLimit};
        testsupport::Require(::setrlimit(RLIMIT_FSIZE, &limit) == 0, 2, "setrlimit");
        FSSAutoReopen a(TestOutputCfg(file), &shared::FormatNothing);
        for (unsigned int i = 0; i < 4; ++i) {
            Send(a, filetest::Pattern(kBlock, i));
        }
        const std::string failed = "Write to '" + file + "' failed : " + std::strerror(EFBIG) +
                                   ", 4000 of 4000 bytes of a block dropped";
        testsupport::Require(log.Count("ERROR", failed) == 2 && log.Messages("ERROR").size() == 2,
                             3, "log");
    }));
    EXPECT_TRUE(filetest::SameBytes(whole, ReadFile(file)));
}

TEST_F(FStreamSubscriber, BlocksFromConcurrentThreadsAreNeverInterleaved) {
    const std::string file = NewFile("threads");
    Output s(TestOutputCfg(file), &Line);
    s.Reopen();
    const int kThreads = 4;
    const int kBlocks = 500;
    boost::thread_group threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.create_thread([&s, t] {
            for (int i = 0; i < kBlocks; ++i) {
                std::ostringstream block;
                block << t << ':' << i << ':' << std::string(static_cast<size_t>(50 + i % 37), 'x');
                Send(s, block.str());
            }
        });
    }
    threads.join_all();

    std::istringstream lines(ReadFile(file));
    std::map<int, int> next;
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        int t = -1;
        int i = -1;
        ASSERT_EQ(2, std::sscanf(line.c_str(), "%d:%d:", &t, &i)) << line;
        EXPECT_EQ(next[t]++, i) << "thread " << t << " out of order";
        const std::string expected = std::to_string(t) + ":" + std::to_string(i) + ":" +
                                     std::string(static_cast<size_t>(50 + i % 37), 'x');
        EXPECT_EQ(expected, line);
        ++count;
    }
    EXPECT_EQ(kThreads * kBlocks, count);
}

}  // namespace
