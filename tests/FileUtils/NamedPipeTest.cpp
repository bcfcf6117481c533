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

// CreateIfNeeded refuses `path` with exactly one error line that gives `reason`.
void ExpectRefused(const testsupport::LogCapture& log, const std::string& path,
                   const std::string& reason) {
    EXPECT_FALSE(NamedPipeCreator::CreateIfNeeded(path)) << path;
    EXPECT_EQ(1u, log.Count("ERROR", "Cannot create named pipe '" + path + "' : " + reason));
}

// Only a FIFO of root or of this user is used; a file, a symlink or another user's FIFO in the
// way is refused and left as it is.
TEST(NamedPipeCreator, CreatesAFifoButRefusesAnythingElseInTheWayAndLeavesItAlone) {
    testsupport::LogCapture log("FileUtils");
    filetest::ScopedPaths cleanup;
    auto fresh = [&](const char* stem) {
        return cleanup.Add(NamedPipeCreator::ConstructPipeFilename(testsupport::UniqueName(stem)));
    };
    const std::string name = testsupport::UniqueName("pipe");
    const std::string fifo = cleanup.Add(NamedPipeCreator::ConstructPipeFilename(name));
    EXPECT_EQ(testsupport::TestRunDir() + "/" + name + ".fifo", fifo);
    EXPECT_TRUE(NamedPipeCreator::CreateIfNeeded(fifo));
    EXPECT_TRUE(NamedPipeCreator::CreateIfNeeded(fifo));
    EXPECT_TRUE(S_ISFIFO(ModeOf(fifo)));

    const std::string file = fresh("file");
    filetest::WriteFile(file, "keep me");
    ExpectRefused(log, file, "a file that is not a FIFO is in the way");
    EXPECT_EQ("keep me", filetest::ReadFile(file));

    const std::string target = testsupport::TestRunDir() + "/" + testsupport::UniqueName("t");
    const std::string link = fresh("link");
    ASSERT_EQ(0, ::symlink(target.c_str(), link.c_str()));
    ExpectRefused(log, link, "a file that is not a FIFO is in the way");
    EXPECT_EQ(0u, ModeOf(target)) << "a dangling symlink's target was created";
    if (::geteuid() == 0) {
        const std::string foreign = fresh("f");
        ASSERT_EQ(0, ::mkfifo(foreign.c_str(), 0666));
        ASSERT_EQ(0, ::chown(foreign.c_str(), 65534, 65534));
        ExpectRefused(log, foreign, "a named pipe of uid 65534 is in the way");
    }
    const std::string missing = testsupport::TestRunDir() + "/missing/x.fifo";
    EXPECT_FALSE(NamedPipeCreator::CreateIfNeeded(missing));
    EXPECT_EQ(1u, log.CountPrefix("ERROR", "Cannot create named pipe '" + missing + "' : "));
    EXPECT_EQ(::geteuid() == 0 ? 4u : 3u, log.CountPrefix("ERROR", "Cannot create named pipe '"));
}

// Nobody but the owner may write into a FIFO, whatever the umask: a new one is made 0644, and
// an own one that group or others may write to (made by an older version under umask 0) is
// tightened. Others keep their read bits.
TEST(NamedPipeCreator, NoFifoIsWritableByGroupOrOthersEvenUnderUmaskZero) {
    filetest::ScopedPaths cleanup;
    const std::string fresh =
        cleanup.Add(NamedPipeCreator::ConstructPipeFilename(testsupport::UniqueName("umask0")));
    const std::string old =
        cleanup.Add(NamedPipeCreator::ConstructPipeFilename(testsupport::UniqueName("old")));
    struct UmaskZero {
        UmaskZero() : saved(::umask(0)) {}
        ~UmaskZero() { ::umask(saved); }
        mode_t saved;
    };
    {
        UmaskZero zero;
        ASSERT_TRUE(NamedPipeCreator::CreateIfNeeded(fresh));
        ASSERT_EQ(0, ::mkfifo(old.c_str(), 0666));
        ASSERT_TRUE(NamedPipeCreator::CreateIfNeeded(old));
    }
    EXPECT_EQ(static_cast<mode_t>(S_IFIFO | 0644), ModeOf(fresh));
    EXPECT_EQ(static_cast<mode_t>(S_IFIFO | 0644), ModeOf(old));
}

TEST(NamedPipeCreator, NamesThatDoNotStayInThePipeFolderAreRefusedAndCreateNothing) {
    testsupport::LogCapture log("FileUtils");
    const std::string dir = testsupport::TestRunDir();
    // A folder below the pipe folder and one beside it, so that a FIFO could be made there.
    const std::string sub = testsupport::UniqueName("sub");
    const std::string beside = dir + "/" + testsupport::UniqueName("beside");
    ASSERT_EQ(0, ::mkdir((dir + "/" + sub).c_str(), 0700));
    ASSERT_EQ(0, ::mkdir(beside.c_str(), 0700));
    const std::string besideName = beside.substr(beside.rfind('/') + 1);
    ::setenv("SLOT_PIPE_DIR", (dir + "/" + sub).c_str(), 1);
    const std::string up = NamedPipeCreator::ConstructPipeFilename("../" + besideName + "/x");
    ::setenv("SLOT_PIPE_DIR", dir.c_str(), 1);
    const std::vector<std::string> paths = {
        up,
        NamedPipeCreator::ConstructPipeFilename(sub + "/b"),
        NamedPipeCreator::ConstructPipeFilename(""),
        NamedPipeCreator::ConstructPipeFilename("."),
        NamedPipeCreator::ConstructPipeFilename(".."),
    };
    for (const std::string& path : paths) {
        ExpectRefused(log, path, "the name does not stay in the pipe folder");
        EXPECT_EQ(0u, ModeOf(path)) << path << " was created";
    }
    EXPECT_EQ(0u, ModeOf(beside + "/x.fifo"));
    ::rmdir((dir + "/" + sub).c_str());
    ::rmdir(beside.c_str());
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
