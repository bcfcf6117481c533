// SPDX-License-Identifier: Apache-2.0
#include "ChildRequire.h"
#include "ShmHygiene.h"

#include <shared/FileHelpers.h>
#include <shared/FileLock.h>
#include <shared/SharedFolder.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace {

using testsupport::ChildProcess;
using testsupport::ChildResult;
using testsupport::PipeSignal;
using testsupport::Require;
using testsupport::RunsInChild;

// A fresh path in the test run's folder.
std::string RunPath(const std::string& stem) {
    return testsupport::TestRunDir() + "/" + testsupport::UniqueName(stem);
}

std::string FreshLockFile() {
    return shared::TouchFile(RunPath("lock"));
}

// 0: refused, 1: claimed, else a failure code.
int TryInAnotherProcess(const std::string& path) {
    const ChildResult result = testsupport::RunInChild([&] {
        shared::FileLock other(path.c_str());
        return other.try_lock() ? 1 : 0;
    });
    return result.exited ? result.exitCode : 100;
}

// One holder per process. Record locks belong to the process, and closing any descriptor of
// the file drops them: the library's own ways into the file (other lock objects, TouchFile,
// surveys) must never close a second descriptor of it.
TEST(FileLock, OneHolderPerProcessWhomOtherObjectsTouchAndHolderLeaveTheLock) {
    const std::string path = FreshLockFile();
    EXPECT_EQ(0, shared::FileLock::Holder(path));
    {
        shared::FileLock held(path.c_str());
        ASSERT_TRUE(held.try_lock());
        shared::FileLock second(path.c_str());
        EXPECT_FALSE(second.try_lock());
        shared::TouchFile(path);
        { shared::FileLock unused(path.c_str()); }
        {
            shared::FileLock refused(path.c_str());
            EXPECT_FALSE(refused.try_lock());
        }
        EXPECT_EQ(::getpid(), shared::FileLock::Holder(path));
        EXPECT_EQ(::getpid(), shared::FileLock::AnyHolder(path));
        shared::FileLock moved(std::move(held));
        EXPECT_EQ(0, TryInAnotherProcess(path));
        EXPECT_EQ(::getpid(), shared::FileLock::Holder(path));
        moved.unlock();
        EXPECT_EQ(0, shared::FileLock::Holder(path));
        EXPECT_TRUE(second.try_lock());
    }
    EXPECT_EQ(0, shared::FileLock::Holder(path)) << "destruction releases the lock";
    EXPECT_EQ(1, TryInAnotherProcess(path));
}

// True when /proc/locks lists a record lock of this process on the file with inode `inode`.
bool KernelLockOfThisProcess(ino_t inode) {
    std::ifstream locks("/proc/locks");
    const std::string pid = " " + std::to_string(::getpid()) + " ";
    const std::string file = ":" + std::to_string(inode) + " ";
    for (std::string line; std::getline(locks, line);) {
        if (line.find("POSIX") != std::string::npos && line.find(pid) != std::string::npos &&
            line.find(file) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// A thread that locks a lock file as soon as another thread's TouchFile has made it keeps its
// lock in the kernel: the creation's own descriptor is closed before the lock, never after.
// Many rounds, since the window is a few instructions wide.
TEST(FileLock, ALockTakenWhileAnotherThreadMakesTheFileStays) {
    const std::string path = RunPath("made");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    int rounds = 0, lost = 0;
    for (; rounds < 20000 && std::chrono::steady_clock::now() < end; ++rounds) {
        ::unlink(path.c_str());
        std::atomic<int> stage{0};  // 1: the locker is done with its try; 2: TouchFile returned
        std::thread locker([&] {
            struct stat st;
            while (::stat(path.c_str(), &st) != 0) {
            }
            shared::FileLock lock(path.c_str());
            const bool locked = lock.try_lock();
            stage = 1;
            while (stage != 2) {
            }
            if (locked && !KernelLockOfThisProcess(st.st_ino)) {
                ++lost;
            }
        });
        shared::TouchFile(path);
        while (stage != 1) {
        }
        stage = 2;
        locker.join();
    }
    ::unlink(path.c_str());
    EXPECT_EQ(0, lost) << "of " << rounds << " rounds";
}

// A child forked without exec from the holder never holds the lock: neither while the holder
// lives, nor after the holder released it or was killed.
TEST(FileLock, AKilledHolderReleasesTheLockAndForkedChildrenNeverKeepIt) {
    const std::string path = FreshLockFile();
    {
        shared::FileLock lock(path.c_str());
        ASSERT_TRUE(lock.try_lock());
        PipeSignal checked, release;
        ChildProcess child([&] {
            // The inherited object does not hold the lock in the child, and cannot take it.
            int failures = lock.try_lock() ? 1 : 0;
            lock.unlock();  // must not release the parent's lock
            checked.Post();
            release.WaitFor(std::chrono::seconds(30));
            return failures;
        });
        ASSERT_TRUE(checked.WaitFor());
        EXPECT_EQ(::getpid(), shared::FileLock::Holder(path));
        EXPECT_EQ(0, TryInAnotherProcess(path));
        lock.unlock();
        EXPECT_EQ(1, TryInAnotherProcess(path)) << "the live child keeps nothing";
        release.Post();
        EXPECT_TRUE(child.Wait().Ok());
    }

    // The holder dies while a child it forked lives on.
    PipeSignal grandchildUp, stop;
    ChildProcess holder([&] {
        shared::FileLock lock(path.c_str());
        if (!lock.try_lock()) {
            return 1;
        }
        ChildProcess forked([&] {
            stop.WaitFor(std::chrono::seconds(30));
            return 0;
        });
        grandchildUp.Post();
        stop.WaitFor(std::chrono::seconds(30));
        return 0;
    });
    ASSERT_TRUE(grandchildUp.WaitFor());
    EXPECT_EQ(holder.Pid(), shared::FileLock::Holder(path));
    EXPECT_EQ(holder.Pid(), shared::FileLock::AnyHolder(path));
    shared::FileLock mine(path.c_str());
    EXPECT_FALSE(mine.try_lock());
    EXPECT_EQ(holder.Pid(), shared::FileLock::AnyHolder(path)) << "through our own descriptor";
    holder.Kill(SIGKILL);
    EXPECT_EQ(SIGKILL, holder.Wait().signal);
    EXPECT_EQ(0, shared::FileLock::Holder(path)) << "the orphaned grandchild holds nothing";
    EXPECT_EQ(0, shared::FileLock::AnyHolder(path));
    EXPECT_EQ(1, TryInAnotherProcess(path));
    EXPECT_TRUE(mine.try_lock());
    stop.Post();  // the grandchild's watchdog is its own wait
}

// A lock file of another user is locked through a read-only descriptor with a shared lock; it
// still excludes every other claimant, whichever kind of descriptor they have.
TEST(FileLock, ReadOnlyClaimantsExcludeEachOtherAndWritableOnes) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give the lock file to another user";
    }
    const uid_t other = 65534;  // nobody
    const std::string path = FreshLockFile();
    ASSERT_EQ(0, ::chown(path.c_str(), other, other));
    ASSERT_EQ(0, ::chmod(path.c_str(), 0644));
    // The test run's folder is root's 0700: let the other user reach the file.
    ASSERT_EQ(0, ::chmod(testsupport::TestRunDir().c_str(), 0711));
    auto asOwner = [&](PipeSignal& done, PipeSignal& stop) {
        return [&, path] {
            if (::setgid(other) != 0 || ::setuid(other) != 0) {
                return 2;
            }
            shared::FileLock lock(path.c_str());
            const bool claimed = lock.try_lock();
            done.Post();
            stop.WaitFor(std::chrono::seconds(30));
            return claimed ? 1 : 0;
        };
    };
    {
        shared::FileLock mine(path.c_str());  // read-only: the file is not root's
        ASSERT_TRUE(mine.try_lock());
        EXPECT_EQ(0, TryInAnotherProcess(path)) << "a second read-only claimant";
        PipeSignal done, stop;
        ChildProcess owner(asOwner(done, stop));
        ASSERT_TRUE(done.WaitFor());
        stop.Post();
        EXPECT_EQ(0, owner.Wait().exitCode) << "the owner's exclusive claim must be refused";
    }
    PipeSignal done, stop;
    ChildProcess owner(asOwner(done, stop));
    ASSERT_TRUE(done.WaitFor());
    shared::FileLock mine(path.c_str());
    EXPECT_FALSE(mine.try_lock()) << "the owner holds it";
    stop.Post();
    EXPECT_EQ(1, owner.Wait().exitCode);
    EXPECT_TRUE(mine.try_lock()) << "released by the owner's exit";
    ::chmod(testsupport::TestRunDir().c_str(), 0700);
}

// No other user can lock a reader out: a process of another uid cannot even open a lock file
// the library made, so the owner's claim goes through; an own lock file that others could open
// (made by an older version) is made the owner's alone when it is opened.
TEST(FileLock, OtherUsersCannotOpenALockFileAndOldReadableOnesAreTightened) {
    const std::string old = FreshLockFile();
    ASSERT_EQ(0, ::chmod(old.c_str(), 0644));
    { shared::FileLock opened(old.c_str()); }
    struct stat st;
    ASSERT_EQ(0, ::stat(old.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777) << "an own readable lock file was left readable";
    ::unlink(old.c_str());
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to run a process of another user";
    }
    const std::string path = FreshLockFile();
    // The test run's folder is root's 0700: let the other user reach the file.
    ASSERT_EQ(0, ::chmod(testsupport::TestRunDir().c_str(), 0711));
    PipeSignal tried, stop;
    ChildProcess stranger([&] {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
            return 2;
        }
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        const int error = errno;
        struct flock shared = {};
        shared.l_type = F_RDLCK;
        shared.l_whence = SEEK_SET;
        const bool locked = fd >= 0 && ::fcntl(fd, F_SETLK, &shared) == 0;
        tried.Post();
        stop.WaitFor(std::chrono::seconds(30));
        return fd < 0 && error == EACCES ? 0 : locked ? 3 : 4;
    });
    ASSERT_TRUE(tried.WaitFor());
    shared::FileLock mine;
    EXPECT_EQ(shared::FileLock::ClaimOutcome::Claimed, mine.Claim(path))
        << "a stranger's lock refused the owner";
    stop.Post();
    EXPECT_EQ(0, stranger.Wait().exitCode) << "2: no setuid, 3: locked it, 4: opened it";
    ::chmod(testsupport::TestRunDir().c_str(), 0700);
    ::unlink(path.c_str());
}

// Processes racing for one lock file: never two winners, also when all of them must use shared
// locks (the file is another user's), where a race may leave no winner at all.
TEST(FileLock, RacingProcessesNeverBothWin) {
    const int kProcesses = 6;
    for (int kind = 0; kind < 2; ++kind) {
        if (kind == 1 && ::geteuid() != 0) {
            GTEST_SKIP() << "needs root to give the lock file to another user";
        }
        for (int round = 0; round < 10; ++round) {
            const std::string path = FreshLockFile();
            if (kind == 1) {
                ASSERT_EQ(0, ::chown(path.c_str(), 65534, 65534));
            }
            PipeSignal go, tried, done;
            std::vector<std::unique_ptr<ChildProcess>> children;
            for (int i = 0; i < kProcesses; ++i) {
                children.emplace_back(new ChildProcess([&] {
                    shared::FileLock lock(path.c_str());
                    go.WaitFor();
                    const bool won = lock.try_lock();
                    tried.Post();
                    done.WaitFor();  // winners hold until everybody has tried
                    return won ? 1 : 0;
                }));
            }
            for (int i = 0; i < kProcesses; ++i) {
                go.Post();
            }
            for (int i = 0; i < kProcesses; ++i) {
                ASSERT_TRUE(tried.WaitFor());
            }
            for (int i = 0; i < kProcesses; ++i) {
                done.Post();
            }
            int winners = 0;
            for (auto& child : children) {
                const ChildResult result = child->Wait();
                ASSERT_TRUE(result.exited) << result.Describe();
                winners += result.exitCode;
            }
            if (kind == 0) {
                EXPECT_EQ(1, winners) << "exclusive locks: exactly one winner";
            } else {
                EXPECT_LE(winners, 1) << "shared-lock claimants: at most one winner";
            }
        }
    }
}

// Claim makes a missing lock file and takes it. It waits out a remover's claim (the file is
// unlinked while so claimed, and the claim takes the file made after it), gives up after a
// bounded time when the remover never finishes, and never waits when a claimant holds the file:
// a claimant and a remover exclude each other like two claimants.
TEST(FileLock, ClaimWaitsOutARemoverButNeverAClaimant) {
    using Outcome = shared::FileLock::ClaimOutcome;
    const std::string path = RunPath("claim");
    // A remover that unlinks the file a moment after it claimed it, and one that never does.
    PipeSignal quickHeld, stuckHeld, stuckStop;
    auto remover = [&path](PipeSignal* held, std::function<bool()> waitUntilUnlink) {
        return [&path, held, waitUntilUnlink] {
            shared::FileLock lock(shared::TouchFile(path).c_str());
            if (!lock.TryLockForRemoval()) {
                return 1;
            }
            held->Post();
            return waitUntilUnlink() && ::unlink(path.c_str()) == 0 ? 0 : 2;
        };
    };
    ChildProcess quick(remover(&quickHeld, [] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return true;
    }));
    ASSERT_TRUE(quickHeld.WaitFor());
    EXPECT_EQ(quick.Pid(), shared::FileLock::Holder(path)) << "a remover is a holder to surveys";
    shared::FileLock mine;
    EXPECT_EQ(Outcome::Claimed, mine.Claim(path));
    // The remover unlinked the file it held (its status), and the file now at the path is the
    // claimant's. (Inode numbers do not tell the two files apart: a file system may give the
    // new file the removed one's number.)
    EXPECT_TRUE(quick.Wait().Ok());
    EXPECT_EQ(::getpid(), shared::FileLock::Holder(path));

    // A claimant refuses a remover of another process, and another claimant at once.
    EXPECT_TRUE(RunsInChild([&] {
        Require(!shared::FileLock(path.c_str()).TryLockForRemoval(), 1, "a remover got in");
        pid_t holder = 0;
        Require(shared::FileLock().Claim(path, &holder) == Outcome::Held && holder == ::getppid(),
                2, "a second claimant was not refused with the holder named");
    }));
    pid_t holder = 0;
    shared::FileLock second;
    EXPECT_EQ(Outcome::Held, second.Claim(path, &holder)) << "a second claimant of this process";
    EXPECT_EQ(::getpid(), holder);
    mine.unlock();

    ChildProcess stuck(remover(&stuckHeld, [&] { return stuckStop.WaitFor(); }));
    ASSERT_TRUE(stuckHeld.WaitFor());
    EXPECT_EQ(Outcome::Unsettled, mine.Claim(path)) << "a remover that never finishes";
    EXPECT_FALSE(mine.try_lock());
    stuckStop.Post();
    EXPECT_TRUE(stuck.Wait().Ok());
    EXPECT_EQ(Outcome::Claimed, mine.Claim(path));
    ::unlink(path.c_str());
}

TEST(TouchFile, CreatesAnOwnersOnlyFileAndRefusesSymlinksAndFolders) {
    const std::string dir = testsupport::TestRunDir();
    const mode_t old = ::umask(0);
    const std::string path = FreshLockFile();
    ::umask(old);
    struct stat st;
    ASSERT_EQ(0, ::lstat(path.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777) << "the owner's alone whatever the umask";

    const std::string target = RunPath("target");
    const std::string link = RunPath("link");
    ASSERT_EQ(0, ::symlink(target.c_str(), link.c_str()));
    EXPECT_THROW(shared::TouchFile(link), std::runtime_error);
    EXPECT_NE(0, ::lstat(target.c_str(), &st)) << "a dangling symlink's target was created";
    EXPECT_THROW(shared::FileLock(link.c_str()), std::exception);
    EXPECT_THROW(shared::TouchFile(dir), std::runtime_error);
    EXPECT_THROW(shared::TouchFile(dir + "/.."), std::runtime_error);
}

TEST(CheckedFolder, RefusesSymlinksDotDotAndFoldersOthersMayChangeUnlessSticky) {
    const std::string base = RunPath("folders");
    ASSERT_EQ(0, ::mkdir(base.c_str(), 0755));
    EXPECT_NO_THROW(shared::CheckedFolder::Open(base));
    EXPECT_NO_THROW(shared::CheckedFolder::Open(base + "/made", 01777));
    struct stat st;
    ASSERT_EQ(0, ::stat((base + "/made").c_str(), &st));
    EXPECT_EQ(static_cast<mode_t>(S_IFDIR | 01777), st.st_mode);

    const std::string open = base + "/open";
    ASSERT_EQ(0, ::mkdir(open.c_str(), 0700));
    ASSERT_EQ(0, ::chmod(open.c_str(), 0777));
    try {
        shared::CheckedFolder::Open(open + "/below", 01777);
        ADD_FAILURE() << "a folder anyone may change was accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ("Unsafe folder '" + open + "/below': '" + open +
                      "' is writable by others and not sticky",
                  std::string(e.what()));
    }
    EXPECT_NE(0, ::stat((open + "/below").c_str(), &st)) << "created below an unsafe folder";

    const std::string link = base + "/link";
    ASSERT_EQ(0, ::symlink(base.c_str(), link.c_str()));
    EXPECT_THROW(shared::CheckedFolder::Open(link), std::runtime_error);
    EXPECT_THROW(shared::CheckedFolder::Open(link + "/made"), std::runtime_error);
    EXPECT_THROW(shared::CheckedFolder::Open(base + "/made/.."), std::runtime_error);

    if (::geteuid() == 0) {
        const std::string foreign = base + "/foreign";
        ASSERT_EQ(0, ::mkdir(foreign.c_str(), 0755));
        ASSERT_EQ(0, ::chown(foreign.c_str(), 65534, 65534));
        EXPECT_THROW(shared::CheckedFolder::Open(foreign), std::runtime_error);
    }
}

}  // namespace
