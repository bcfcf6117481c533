// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"
#include "Collector.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <Slot/Slot.h>

#include <FileUtils/FSUtils.h>
#include <shared/FileLock.h>

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <unistd.h>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace {

const char kRefused[] = "Cannot create non-unique reader for named pipe ''";

// The stub slot's name is empty, so every reader here uses the lock file ".lock". Each test
// gets a lock directory of its own (set before any thread or child exists) and removes it.
class WindowsPipeReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        lockDir_ = testsupport::TestRunDir() + "/" + testsupport::UniqueName("winpipe");
        const char* old = std::getenv("SLOT_LOCK_DIR");
        oldLockDir_ = old != nullptr ? old : "";
        ::setenv("SLOT_LOCK_DIR", lockDir_.c_str(), 1);
        lockFile_ = FileUtils::FSUtils::GetSingletonFileLockName("");
        ASSERT_EQ(lockDir_ + "/.lock", lockFile_);
    }
    void TearDown() override {
        ::unlink(lockFile_.c_str());
        ::rmdir(lockDir_.c_str());
        ::setenv("SLOT_LOCK_DIR", oldLockDir_.c_str(), 1);
    }

    // A reader of the stub slot.
    static std::unique_ptr<WindowsPipeReader> Reader(
        boost::posix_time::time_duration update = boost::posix_time::milliseconds(10)) {
        SimpleSlotCfg cfg("ignored", "win-pipe", boost::posix_time::milliseconds(10), 1);
        return std::unique_ptr<WindowsPipeReader>(
            new WindowsPipeReader(boost::make_shared<WindowsPipeServerSlot>(&cfg), update));
    }

    std::string lockDir_;
    std::string oldLockDir_;
    std::string lockFile_;
};

// A reader never started is destroyed and releases the name: the next one runs, delivers nothing
// and stops promptly.
TEST_F(WindowsPipeReaderTest, StubReaderRunsDeliversNothingAndStopsPromptly) {
    testsupport::LogCapture log("Slot.Reader");
    Reader();
    EXPECT_EQ(
        (std::vector<std::string>{"~WindowsPipeReader(), ''", "~WindowsPipeReader(), '' joined"}),
        log.Messages());
    log.Clear();
    testsupport::Collector collector;
    std::unique_ptr<WindowsPipeReader> reader = Reader(boost::posix_time::seconds(60));
    reader->subscribe(&collector);
    reader->Init();
    EXPECT_EQ(1u, log.Count("DEBUG", "Thread started"));
    EXPECT_EQ(1u, log.Count("INFO", "Initialized"));
    EXPECT_EQ(::getpid(), shared::FileLock::Holder(lockFile_));
    reader->Init();  // already running: no second thread
    EXPECT_EQ(1u, log.Count("DEBUG", "Thread started"));

    log.Clear();
    const auto start = std::chrono::steady_clock::now();
    reader.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_EQ(0u, collector.Count());
    EXPECT_EQ((std::vector<std::string>{"~WindowsPipeReader(), ''", "Thread shutdown for ''",
                                        "~WindowsPipeReader(), '' joined"}),
              log.Messages());
    EXPECT_EQ(0, shared::FileLock::Holder(lockFile_));
}

// A second reader is refused while the first lives: in this process (the refused one closes its
// own descriptor of the lock file, the first keeps its lock), in a fresh process, and in a child
// forked while the reader runs. Such a child drops its copy at once and leaves the parent's
// reader (thread and lock) alone; the parent's reader does not count in it, so that it may make
// the name's reader once the parent's is gone.
TEST_F(WindowsPipeReaderTest, ASecondReaderIsRefusedWhileTheFirstLivesInAnyProcess) {
    testsupport::PipeSignal refuseNow, acceptNow;
    // Forked before this process starts any thread.
    testsupport::ChildProcess fresh([&] {
        if (!refuseNow.WaitFor()) {
            return 3;
        }
        try {
            Reader()->Init();
            return 1;
        } catch (const std::logic_error& e) {
            return std::string(e.what()) == kRefused ? 0 : 2;
        }
    });

    testsupport::LogCapture log("Slot.Reader");
    std::unique_ptr<WindowsPipeReader> first = Reader();
    first->Init();
    try {
        Reader();
        ADD_FAILURE() << "second reader in the same process was accepted";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(kRefused, e.what());
    }
    EXPECT_EQ(::getpid(), shared::FileLock::Holder(lockFile_));
    refuseNow.Post();
    testsupport::ChildResult result = fresh.Wait();
    EXPECT_TRUE(result.Ok()) << result.Describe();

    // Children forked while the reader runs start no thread (a fork of a process with threads
    // may not start one under ThreadSanitizer): the uniqueness is decided in the constructor.
    testsupport::ChildProcess forked([&] {
        if (!acceptNow.WaitFor()) {
            return 3;
        }
        try {
            Reader();
            return 0;
        } catch (const std::logic_error& e) {
            return testsupport::Failed(2, e.what());
        }
    });
    result = testsupport::RunInChild(
        [&] {
            first.reset();
            return 0;
        },
        std::chrono::seconds(10));
    EXPECT_TRUE(result.Ok()) << result.Describe();
    EXPECT_EQ(::getpid(), shared::FileLock::Holder(lockFile_));

    // The first reader's thread was running all along: it is the one that shuts down now.
    first.reset();
    EXPECT_EQ(1u, log.Count("DEBUG", "Thread shutdown for ''"));
    acceptNow.Post();
    result = forked.Wait();
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

}  // namespace
