// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"
#include "FileTestSupport.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <FileUtils/FSUtils.h>
#include <FileUtils/NamedPipeCreator.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <memory>
#include <vector>

namespace {

using FileUtils::FSUtils;
using FileUtils::NamedPipeCreator;

mode_t ModeOf(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

TEST(NamedPipeCreator, CreatesAFifoButRefusesAnythingElseInTheWayAndLeavesItAlone) {
    testsupport::LogCapture log("FileUtils");
    const std::string name = testsupport::UniqueName("pipe");
    filetest::ScopedPaths cleanup;
    const std::string fifo = cleanup.Add(NamedPipeCreator::ConstructPipeFilename(name));
    EXPECT_EQ(testsupport::TestRunDir() + "/" + name + ".fifo", fifo);
    EXPECT_TRUE(NamedPipeCreator::CreateIfNeeded(fifo));
    EXPECT_TRUE(NamedPipeCreator::CreateIfNeeded(fifo));
    EXPECT_TRUE(S_ISFIFO(ModeOf(fifo)));

    const std::string dir = NamedPipeCreator::ConstructPipeFilename(testsupport::UniqueName("dir"));
    ASSERT_EQ(0, ::mkdir(dir.c_str(), 0700));
    EXPECT_FALSE(NamedPipeCreator::CreateIfNeeded(dir));
    EXPECT_TRUE(S_ISDIR(ModeOf(dir)));
    ::rmdir(dir.c_str());

    const std::string file =
        cleanup.Add(NamedPipeCreator::ConstructPipeFilename(testsupport::UniqueName("file")));
    filetest::WriteFile(file, "keep me");
    EXPECT_FALSE(NamedPipeCreator::CreateIfNeeded(file));
    EXPECT_EQ("keep me", filetest::ReadFile(file));

    EXPECT_FALSE(NamedPipeCreator::CreateIfNeeded(testsupport::TestRunDir() + "/missing/x.fifo"));
    EXPECT_EQ(3u, log.CountPrefix("ERROR", "Cannot create named pipe '"));
    EXPECT_EQ(1u, log.Count("ERROR", "Cannot create named pipe '" + file +
                                         "' : a file that is not a FIFO is in the way"));
}

TEST(NamedPipeCreator, ProcessesRacingToCreateTheSameFifoAllSucceed) {
    const std::string path =
        NamedPipeCreator::ConstructPipeFilename(testsupport::UniqueName("race"));
    filetest::ScopedPaths cleanup(path);
    testsupport::PipeSignal go;
    std::vector<std::unique_ptr<testsupport::ChildProcess>> children;
    const int kChildren = 8;
    for (int i = 0; i < kChildren; ++i) {
        children.emplace_back(new testsupport::ChildProcess([&] {
            go.WaitFor();
            return NamedPipeCreator::CreateIfNeeded(path) ? 0 : 1;
        }));
    }
    for (int i = 0; i < kChildren; ++i) {
        go.Post();
    }
    for (auto& child : children) {
        const testsupport::ChildResult result = child->Wait();
        EXPECT_TRUE(result.Ok()) << result.Describe();
    }
    EXPECT_TRUE(S_ISFIFO(ModeOf(path)));
}

TEST(SharedDirectories, AreCreatedOnDemandWritableByEveryone) {
    const mode_t oldMask = ::umask(022);
    const std::string lockDir = testsupport::TestRunDir() + "/" + testsupport::UniqueName("locks");
    const std::string pipeDir = testsupport::TestRunDir() + "/" + testsupport::UniqueName("pipes");
    ::setenv("SLOT_LOCK_DIR", lockDir.c_str(), 1);
    ::setenv("SLOT_PIPE_DIR", pipeDir.c_str(), 1);
    EXPECT_EQ(lockDir + "/a.b.lock", FSUtils::GetSingletonFileLockName("a.b"));
    EXPECT_EQ(pipeDir + "/a.b.fifo", NamedPipeCreator::ConstructPipeFilename("a.b"));
    ::setenv("SLOT_LOCK_DIR", testsupport::TestRunDir().c_str(), 1);
    ::setenv("SLOT_PIPE_DIR", testsupport::TestRunDir().c_str(), 1);
    ::umask(oldMask);
    // Sticky and world-writable despite the umask.
    EXPECT_EQ(static_cast<mode_t>(S_IFDIR | 01777), ModeOf(lockDir));
    EXPECT_EQ(static_cast<mode_t>(S_IFDIR | 01777), ModeOf(pipeDir));
    ::rmdir(lockDir.c_str());
    ::rmdir(pipeDir.c_str());
}

}  // namespace
