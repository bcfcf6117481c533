// SPDX-License-Identifier: Apache-2.0
// Attacks by another local user on the files the library uses in shared folders. The victim is
// this process (root); each attacker step runs in a child as a throwaway unprivileged user. No
// victim file may be changed or created, and the victim is never refused for good.
#include "ChildProcess.h"
#include "FakeSlot.h"
#include "Files.h"
#include "ShmHygiene.h"

#include <FileUtils/FSUtils.h>
#include <FileUtils/NamedPipeCreator.h>
#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/ReliableSlotReader.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotNames.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <tuple>

namespace {

using testsupport::ChildProcess;
using testsupport::ChildResult;
using testsupport::PipeSignal;

const boost::posix_time::milliseconds Update(20);

// Runs a program with arguments, with a watchdog; its exit code, or -1.
int Run(const std::vector<std::string>& argv) {
    ChildProcess child([&] {
        std::vector<char*> args;
        for (const std::string& arg : argv) {
            args.push_back(const_cast<char*>(arg.c_str()));
        }
        args.push_back(nullptr);
        const int devnull = ::open("/dev/null", O_WRONLY);
        ::dup2(devnull, 1);
        ::dup2(devnull, 2);
        ::execv(args[0], args.data());
        return 127;
    });
    const ChildResult result = child.Wait(std::chrono::seconds(60));
    return result.exited ? result.exitCode : -1;
}

// An unprivileged user that exists for the life of the object.
class ThrowawayUser {
public:
    ThrowawayUser() {
        static std::atomic<unsigned int> counter{0};
        name_ = "slotatk" + std::to_string(::getpid()) + "x" + std::to_string(counter++);
        if (Run({"/usr/sbin/useradd", "--system", "--no-create-home", "--user-group", "--shell",
                 "/usr/sbin/nologin", name_}) != 0) {
            return;
        }
        if (const passwd* pw = ::getpwnam(name_.c_str())) {
            uid_ = pw->pw_uid;
            gid_ = pw->pw_gid;
            made_ = true;
        }
    }
    ~ThrowawayUser() {
        if (made_) {
            Run({"/usr/sbin/userdel", name_});
        }
    }
    ThrowawayUser(const ThrowawayUser&) = delete;
    ThrowawayUser& operator=(const ThrowawayUser&) = delete;

    bool Made() const { return made_; }
    // Gives `path` to this user; false when that fails.
    bool Own(const std::string& path) const { return ::chown(path.c_str(), uid_, gid_) == 0; }
    // Turns the calling (child) process into this user; false when that fails.
    bool Become() const {
        return ::setgroups(0, nullptr) == 0 && ::setgid(gid_) == 0 && ::setuid(uid_) == 0 &&
               ::geteuid() == uid_;
    }

private:
    std::string name_;
    uid_t uid_ = 0;
    gid_t gid_ = 0;
    bool made_ = false;
};

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return ::remove(path);
}

// What a victim file looks like; equal only when nothing about it changed.
struct Snapshot {
    bool exists = false;
    std::string bytes;
    struct stat st = {};

    static Snapshot Of(const std::string& path) {
        Snapshot s;
        s.exists = ::lstat(path.c_str(), &s.st) == 0;
        s.bytes = s.exists ? testsupport::ReadFile(path) : "";
        return s;
    }
    auto Key() const {
        return std::tie(exists, bytes, st.st_ino, st.st_size, st.st_mode, st.st_uid, st.st_nlink,
                        st.st_mtim.tv_sec, st.st_mtim.tv_nsec, st.st_ctim.tv_sec,
                        st.st_ctim.tv_nsec);
    }
    bool operator==(const Snapshot& o) const { return Key() == o.Key(); }
};

class Attack : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "\n\n*** ATTACK TESTS SKIPPED: they must run as root, to make a "
                            "throwaway user that attacks root's files. ***\n";
        }
        user_.reset(new ThrowawayUser);
        ASSERT_TRUE(user_->Made()) << "useradd failed";
        const std::string stem = "/tmp/" + testsupport::UniqueName("attack");
        // A folder like /tmp or /run/lock: root's, sticky, writable by everyone.
        shared_ = stem + "-shared";
        ASSERT_EQ(0, ::mkdir(shared_.c_str(), 0700));
        ASSERT_EQ(0, ::chmod(shared_.c_str(), 01777));
        // Root's own files, which the attacker may name but not touch.
        victimDir_ = stem + "-victim";
        ASSERT_EQ(0, ::mkdir(victimDir_.c_str(), 0755));
        victim_ = victimDir_ + "/secret";
        std::ofstream(victim_.c_str()) << "root's bytes\n";
        ASSERT_EQ(0, ::chmod(victim_.c_str(), 0600));
        notThere_ = victimDir_ + "/never-created";
        before_ = Snapshot::Of(victim_);
        oldLockDir_ = Env("SLOT_LOCK_DIR");
        oldPipeDir_ = Env("SLOT_PIPE_DIR");
        SetDirs(shared_ + "/locks", shared_ + "/pipes");
    }

    void TearDown() override {
        if (::geteuid() != 0) {
            return;
        }
        EXPECT_TRUE(before_ == Snapshot::Of(victim_)) << "the victim file was changed";
        EXPECT_FALSE(Snapshot::Of(notThere_).exists) << "a file was created through a symlink";
        Restore("SLOT_LOCK_DIR", oldLockDir_);
        Restore("SLOT_PIPE_DIR", oldPipeDir_);
        ::nftw(shared_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
        ::nftw(victimDir_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
        user_.reset();
    }

    static std::optional<std::string> Env(const char* name) {
        const char* value = std::getenv(name);
        return value ? std::optional<std::string>(value) : std::nullopt;
    }

    static void Restore(const char* name, const std::optional<std::string>& value) {
        value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
    }

    static void SetDirs(const std::string& locks, const std::string& pipes) {
        ::setenv("SLOT_LOCK_DIR", locks.c_str(), 1);
        ::setenv("SLOT_PIPE_DIR", pipes.c_str(), 1);
    }

    // Runs `step` as the throwaway user in a child; its return value (0 = done as planned).
    int AsAttacker(const std::function<int()>& step) {
        ChildProcess child([&] { return user_->Become() ? step() : 90; });
        const ChildResult result = child.Wait(std::chrono::seconds(60));
        return result.exited ? result.exitCode : 100;
    }

    // Root tries a reliable reader of `name` the way a host does; true when it got one.
    static bool RootReader(const std::string& name) {
        const SimpleSlotCfg cfg(name, "reliable", Update, 4);
        try {
            INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg);
            return true;
        } catch (const std::exception&) {
            return false;
        }
    }

    std::unique_ptr<ThrowawayUser> user_;
    std::string shared_;
    std::string victimDir_;
    std::string victim_;
    std::string notThere_;
    Snapshot before_;
    std::optional<std::string> oldLockDir_;
    std::optional<std::string> oldPipeDir_;
};

// Planted on the lock path: lock files that are symlinks (to the victim, to a name in root's
// folder), the lock folder made first (sticky, open to all), a root-looking folder in one of
// theirs, a symlink to root's folder as the lock folder. None is used or written through.
TEST_F(Attack, LockFilesAndFoldersPlantedByTheAttackerAreNotUsed) {
    testsupport::ScopedSlotName name("atklink");
    testsupport::ScopedSlotName dangling("atkdangle");
    // The lock folder is root's, made by the library.
    const std::string lock = FileUtils::FSUtils::GetSingletonFileLockName(name);
    const std::string danglingLock = FileUtils::FSUtils::GetSingletonFileLockName(dangling);
    const std::string attackerDir = shared_ + "/libslot";
    const std::string attackerParent = shared_ + "/mine";
    const std::string folderLink = shared_ + "/link";
    ASSERT_EQ(0, AsAttacker([&] {
                  const std::string inAttackerDir = attackerDir + "/" + name.str() + ".lock";
                  const bool ok = ::symlink(victim_.c_str(), lock.c_str()) == 0 &&
                                  ::symlink(notThere_.c_str(), danglingLock.c_str()) == 0 &&
                                  ::mkdir(attackerDir.c_str(), 0700) == 0 &&
                                  ::chmod(attackerDir.c_str(), 01777) == 0 &&
                                  ::symlink(victim_.c_str(), inAttackerDir.c_str()) == 0 &&
                                  ::mkdir(attackerParent.c_str(), 0755) == 0 &&
                                  ::mkdir((attackerParent + "/locks").c_str(), 0755) == 0 &&
                                  ::symlink(victimDir_.c_str(), folderLink.c_str()) == 0;
                  return ok ? 0 : 1;
              }));
    EXPECT_FALSE(RootReader(name));
    EXPECT_FALSE(RootReader(dangling));
    EXPECT_EQ(0, shared::FileLock::Holder(lock));
    for (const std::string& dir : {attackerDir, attackerParent + "/locks", folderLink}) {
        SetDirs(dir, shared_ + "/pipes");
        EXPECT_FALSE(RootReader(name)) << dir;
    }
    struct stat st;
    EXPECT_NE(0, ::lstat((victimDir_ + "/" + name.str() + ".lock").c_str(), &st))
        << "a lock file was made in root's folder through the symlink";
}

// The attacker keeps swapping the FIFO's name between a FIFO of theirs and a symlink to the
// victim while root makes posix-pipe writers and readers and writes blocks.
TEST_F(Attack, FifoSwapRaceNeverReachesTheVictim) {
    const std::string name = testsupport::UniqueName("atkfifo");
    const std::string fifo = FileUtils::NamedPipeCreator::ConstructPipeFilename(name);
    const std::string dir = fifo.substr(0, fifo.rfind('/'));
    PipeSignal started, stop;
    ChildProcess attacker([&] {
        if (!user_->Become()) {
            return 90;
        }
        const std::string asFifo = dir + "/.a" + name;
        const std::string asLink = dir + "/.b" + name;
        // The name is the attacker's from the start, so it always is.
        if (::mkfifo(fifo.c_str(), 0666) != 0) {
            return 1;
        }
        started.Post();
        for (int i = 0; i < 100000 && !stop.WaitFor(std::chrono::milliseconds(0)); ++i) {
            ::mkfifo(asFifo.c_str(), 0666);
            ::rename(asFifo.c_str(), fifo.c_str());
            ::symlink(victim_.c_str(), asLink.c_str());
            ::rename(asLink.c_str(), fifo.c_str());
        }
        return 0;
    });
    ASSERT_TRUE(started.WaitFor());
    const SimpleSlotCfg cfg(name, "posix-pipe", Update, 4);
    const std::string block = "root's block\n";
    int made = 0;
    for (int i = 0; i < 300; ++i) {
        try {
            ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
            writer->onNotify(name, block.data(), block.size());
            ++made;
        } catch (const std::exception&) {
        }
        try {
            INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg);
        } catch (const std::exception&) {
        }
    }
    stop.Post();
    const ChildResult result = attacker.Wait(std::chrono::seconds(60));
    EXPECT_TRUE(result.Ok()) << result.Describe();
    EXPECT_EQ(0, made) << "root wrote into a FIFO of another user";
    ::unlink(fifo.c_str());
}

// A lock file left by a reader never refuses the slot's next reader once the first has gone,
// whether root's or the slot owner's reader ran last, also when an older version left the file
// readable by everyone; while a reader lives, the other one is refused.
TEST_F(Attack, NoLastingRefusalThroughTheLockFile) {
    for (int round = 0; round < 2; ++round) {
        testsupport::ScopedSlotName name("atkclaim");
        const std::string lock = FileUtils::FSUtils::GetSingletonFileLockName(name);
        const std::string refusal =
            "Cannot create non-unique reader for reliable slot '" + name.str() + "'";
        // The slot is the other user's: root's reader gives the lock file it makes to them.
        const SimpleSlotCfg slotCfg(name, "reliable", Update, 4);
        SlotFactory::CreateSlot(&slotCfg);
        for (const std::string& object :
             {Slot::HeaderObjectName(name), Slot::QueueObjectName(name)}) {
            ASSERT_TRUE(user_->Own(Slot::ShmPath(object)));
        }
        if (round == 0) {
            // The owner's reader ran once under an older version and left its lock file: mode
            // 0644, with a pid in it.
            std::ofstream(lock.c_str()) << "12345\n";
            ASSERT_TRUE(user_->Own(lock));
            ASSERT_EQ(0, ::chmod(lock.c_str(), 0644));
        }
        // The owner's reader (of a slot object in its own memory; only the lock file is shared)
        // while root's reader may or may not live.
        auto userReader = [&](PipeSignal& claimed, PipeSignal& release) {
            return [&, name = name.str()] {
                if (!user_->Become()) {
                    return 90;
                }
                try {
                    boost::shared_ptr<ISlot> slot(new testsupport::FakeSlot(name));
                    ReliableSlotReader reader(slot, Update);
                    claimed.Post();
                    release.WaitFor(std::chrono::seconds(60));
                    return 0;
                } catch (const AbortSlotCreationException& e) {
                    claimed.Post();
                    return std::string(e.what()) == refusal ? 1 : 2;
                } catch (const std::exception&) {
                    claimed.Post();
                    return 3;
                }
            };
        };
        // Root's reader, of a slot object in its own memory too: a root process no longer opens
        // a slot whose objects another user owns, but the lock file is claimed all the same.
        auto rootReader = [&] {
            return std::unique_ptr<ReliableSlotReader>(new ReliableSlotReader(
                boost::shared_ptr<ISlot>(new testsupport::FakeSlot(name)), Update));
        };
        auto rootClaims = [&] {
            try {
                rootReader();
                return true;
            } catch (const std::exception&) {
                return false;
            }
        };
        {
            // Root holds a reader: the other user is refused.
            const std::unique_ptr<ReliableSlotReader> held = rootReader();
            PipeSignal claimed, release;
            ChildProcess user(userReader(claimed, release));
            ASSERT_TRUE(claimed.WaitFor());
            EXPECT_EQ(1, user.Wait().exitCode) << "refused while root's reader lives";
        }
        // Root's reader is gone: the other user gets one, and root is refused meanwhile.
        PipeSignal claimed, release;
        ChildProcess user(userReader(claimed, release));
        ASSERT_TRUE(claimed.WaitFor());
        EXPECT_FALSE(rootClaims()) << "the other user's reader lives";
        // It dies without cleaning up: root gets the next reader.
        user.Kill(SIGKILL);
        user.Wait();
        EXPECT_TRUE(rootClaims());
    }
}

// A lock file that refuses a reader until it is removed is one that the reader cannot even open
// (another user's, such as one a root pipe reader made): the refusal says whose file it is.
TEST_F(Attack, UnreadableLockFileIsRefusedWithAClearMessage) {
    const testsupport::ScopedSlotName name("atkmode");
    const std::string lock = FileUtils::FSUtils::GetSingletonFileLockName(name);
    std::ofstream(lock.c_str()) << "";
    ASSERT_EQ(0, ::chmod(lock.c_str(), 0600));
    EXPECT_EQ(0, AsAttacker([&] {
                  try {
                      boost::shared_ptr<ISlot> slot(new testsupport::FakeSlot(name));
                      ReliableSlotReader reader(slot, Update);
                      return 1;
                  } catch (const std::exception& e) {
                      const std::string expected = "Cannot open lock file '" + lock +
                                                   "' : it belongs to uid 0 with mode 0600";
                      return std::string(e.what()).compare(0, expected.size(), expected) == 0 ? 0
                                                                                              : 2;
                  }
              }));
    EXPECT_TRUE(RootReader(name)) << "root's own reader is not refused";
}

}  // namespace
