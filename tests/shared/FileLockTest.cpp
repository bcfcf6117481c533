// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"
#include "ShmHygiene.h"

#include <shared/FileHelpers.h>
#include <shared/FileLock.h>

#include <gtest/gtest.h>

#include <unistd.h>
#include <csignal>
#include <fstream>

namespace {

using testsupport::ChildProcess;
using testsupport::ChildResult;
using testsupport::PipeSignal;

std::string FreshLockFile() {
    return shared::TouchFile(testsupport::TestRunDir() + "/" + testsupport::UniqueName("lock"));
}

bool RefusedInAnotherProcess(const std::string& path) {
    const ChildResult result = testsupport::RunInChild([&] {
        shared::FileLock other(path.c_str());
        return other.try_lock() ? 1 : 0;
    });
    return result.Ok();
}

TEST(FileLock, SecondLockInTheSameProcessIsRefusedAndHolderIsReported) {
    const std::string path = FreshLockFile();
    EXPECT_EQ(0, shared::FileLock::Holder(path));
    {
        shared::FileLock first(path.c_str());
        ASSERT_TRUE(first.try_lock());
        shared::FileLock second(path.c_str());
        EXPECT_FALSE(second.try_lock());
        EXPECT_EQ(::getpid(), shared::FileLock::Holder(path));
        first.unlock();
        EXPECT_EQ(0, shared::FileLock::Holder(path));
        EXPECT_TRUE(second.try_lock());
    }
    EXPECT_EQ(0, shared::FileLock::Holder(path)) << "destruction releases the lock";
}

// With classic fcntl locks, closing any descriptor of the file drops the process's lock.
TEST(FileLock, ClosingOtherDescriptorsOfTheFileKeepsTheLock) {
    const std::string path = FreshLockFile();
    shared::FileLock held(path.c_str());
    ASSERT_TRUE(held.try_lock());
    { std::ifstream reader(path); }
    shared::TouchFile(path);
    { shared::FileLock unused(path.c_str()); }
    {
        shared::FileLock refused(path.c_str());
        EXPECT_FALSE(refused.try_lock());
    }
    EXPECT_TRUE(RefusedInAnotherProcess(path));
    EXPECT_EQ(::getpid(), shared::FileLock::Holder(path));
}

TEST(FileLock, HolderKilledReleasesTheLock) {
    const std::string path = FreshLockFile();
    PipeSignal locked;
    PipeSignal never;
    ChildProcess holder([&] {
        shared::FileLock lock(path.c_str());
        if (!lock.try_lock()) {
            return 1;
        }
        locked.Post();
        never.WaitFor(std::chrono::seconds(30));
        return 0;
    });
    ASSERT_TRUE(locked.WaitFor());
    EXPECT_EQ(holder.Pid(), shared::FileLock::Holder(path));
    shared::FileLock mine(path.c_str());
    EXPECT_FALSE(mine.try_lock());
    holder.Kill(SIGKILL);
    EXPECT_EQ(SIGKILL, holder.Wait().signal);
    EXPECT_EQ(0, shared::FileLock::Holder(path));
    EXPECT_TRUE(mine.try_lock());
}

}  // namespace
