// SPDX-License-Identifier: Apache-2.0
// The reliable reader's lock file outlives its slot; SlotLeftovers finds and removes it, never
// one that a reader holds and never through a link.
#include "ChildProcess.h"
#include "Files.h"
#include "ShmHygiene.h"

#include <Slot/Slot.h>
#include <Slot/SlotLeftovers.h>

#include <FileUtils/FSUtils.h>
#include <shared/FileHelpers.h>
#include <shared/FileLock.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>

namespace {

using testsupport::ChildProcess;
using testsupport::Exists;
using testsupport::ScopedSlotName;

bool Listed(const std::string& name) {
    const std::vector<std::string> orphans = SlotLeftovers::OrphanedReaderLockFiles();
    return std::find(orphans.begin(), orphans.end(), name) != orphans.end();
}

// Held by a live reader (of another process or this one), a lock file is kept; once its reader
// has ended and its slot is gone, it is listed and removed.
TEST(SlotLeftovers, ALockFileIsKeptWhileHeldAndRemovedOnceOrphaned) {
    ScopedSlotName name("orphan");
    const SimpleSlotCfg cfg(name, "reliable", boost::posix_time::milliseconds(20), 4);
    const std::string lock = FileUtils::FSUtils::GetSingletonFileLockName(name);
    testsupport::PipeSignal ready, done;
    ChildProcess child([&] {
        INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg);
        ready.Post();
        return done.WaitFor() ? 0 : 1;
    });
    ASSERT_TRUE(ready.WaitFor()) << child.Wait().Describe();
    SlotFactory::RemoveSlot(name);  // the reader lives on the removed objects
    EXPECT_TRUE(Exists(lock)) << "RemoveSlot removes the shared memory only";
    EXPECT_FALSE(Listed(name)) << "a held lock file is no leftover";
    LeftoverRemoval removal = SlotLeftovers::RemoveReaderLockFile(name);
    EXPECT_EQ(LeftoverOutcome::Held, removal.outcome);
    EXPECT_EQ(child.Pid(), removal.holder);
    EXPECT_TRUE(Exists(lock));
    done.Post();
    ASSERT_TRUE(child.Wait().Ok());

    EXPECT_TRUE(Listed(name));
    removal = SlotLeftovers::RemoveReaderLockFile(name);
    EXPECT_EQ(LeftoverOutcome::Removed, removal.outcome) << removal.detail;
    EXPECT_EQ(lock, removal.path);
    EXPECT_FALSE(Exists(lock));
    EXPECT_FALSE(Listed(name));
    EXPECT_EQ(LeftoverOutcome::Absent, SlotLeftovers::RemoveReaderLockFile(name).outcome);

    // The name is free again. A reader of this process: the attempt must neither succeed nor
    // drop the reader's lock; ended, its lock file is no leftover while the slot exists.
    INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg);
    ASSERT_TRUE(Exists(lock));
    removal = SlotLeftovers::RemoveReaderLockFile(name);
    EXPECT_EQ(LeftoverOutcome::Held, removal.outcome);
    EXPECT_EQ(::getpid(), removal.holder);
    EXPECT_EQ(::getpid(), shared::FileLock::Holder(lock));
    reader.reset();
    EXPECT_FALSE(Listed(name)) << "the slot still exists";
    EXPECT_EQ(LeftoverOutcome::Removed, SlotLeftovers::RemoveReaderLockFile(name).outcome);
}

// A killed gateway's claim file is removed the same way: kept while a gateway holds it, listed
// and removed once unheld with its slot gone; a link in its place is left alone.
TEST(SlotLeftovers, AGatewayClaimFileIsKeptWhileHeldAndRemovedOnceOrphaned) {
    ScopedSlotName name("claim");
    const std::string claim = FileUtils::FSUtils::GetGatewayClaimFileName(name);
    const auto listed = [&] {
        const std::vector<std::string> orphans = SlotLeftovers::OrphanedGatewayClaimFiles();
        return std::find(orphans.begin(), orphans.end(), name.str()) != orphans.end();
    };
    testsupport::PipeSignal ready, done;
    ChildProcess child([&] {
        shared::FileLock lock;
        if (lock.Claim(claim) != shared::FileLock::ClaimOutcome::Claimed) {
            return 1;
        }
        ready.Post();
        return done.WaitFor() ? 0 : 1;
    });
    ASSERT_TRUE(ready.WaitFor()) << child.Wait().Describe();
    EXPECT_FALSE(listed());
    LeftoverRemoval removal = SlotLeftovers::RemoveGatewayClaimFile(name);
    EXPECT_EQ(LeftoverOutcome::Held, removal.outcome);
    EXPECT_EQ(child.Pid(), removal.holder);
    child.Kill();
    child.Wait();
    EXPECT_TRUE(Exists(claim));
    EXPECT_TRUE(listed());
    EXPECT_FALSE(Listed(name)) << "no reader lock file";
    removal = SlotLeftovers::RemoveGatewayClaimFile(name);
    EXPECT_EQ(LeftoverOutcome::Removed, removal.outcome) << removal.detail;
    EXPECT_EQ(claim, removal.path);
    EXPECT_FALSE(Exists(claim));

    const std::string target = testsupport::TestRunDir() + "/" + testsupport::UniqueName("target");
    testsupport::WriteFile(target, "precious");
    ASSERT_EQ(0, ::symlink(target.c_str(), claim.c_str()));
    EXPECT_FALSE(listed());
    EXPECT_EQ(LeftoverOutcome::Failed, SlotLeftovers::RemoveGatewayClaimFile(name).outcome);
    EXPECT_EQ("precious", testsupport::ReadFile(target));
    ::unlink(claim.c_str());
    ::unlink(target.c_str());
}

TEST(SlotLeftovers, ALinkOrAFolderInPlaceOfTheLockFileIsLeftAloneAndItsTargetKept) {
    ScopedSlotName name("planted");
    const std::string lock = FileUtils::FSUtils::GetSingletonFileLockName(name);
    const std::string target = testsupport::TestRunDir() + "/" + testsupport::UniqueName("target");
    testsupport::WriteFile(target, "precious");
    ASSERT_EQ(0, ::symlink(target.c_str(), lock.c_str()));
    EXPECT_FALSE(Listed(name));
    LeftoverRemoval removal = SlotLeftovers::RemoveReaderLockFile(name);
    EXPECT_EQ(LeftoverOutcome::Failed, removal.outcome);
    EXPECT_FALSE(removal.detail.empty());
    EXPECT_TRUE(Exists(lock));
    EXPECT_EQ("precious", testsupport::ReadFile(target));
    ::unlink(lock.c_str());
    ::unlink(target.c_str());

    ASSERT_EQ(0, ::mkdir(lock.c_str(), 0700));
    EXPECT_EQ(LeftoverOutcome::Failed, SlotLeftovers::RemoveReaderLockFile(name).outcome);
    EXPECT_TRUE(Exists(lock));
    ::rmdir(lock.c_str());
}

TEST(SlotLeftovers, NamesWithoutALockFileOfTheirOwnAreNeverLookedUp) {
    // "" would be the folder's ".lock" (another component's), "../x" a file elsewhere.
    const std::string empty = FileUtils::FSUtils::GetSingletonFileLockName("");
    shared::TouchFile(empty);
    for (const std::string& name : {std::string(""), std::string("../x"), std::string("a/b")}) {
        const LeftoverRemoval removal = SlotLeftovers::RemoveReaderLockFile(name);
        EXPECT_EQ(LeftoverOutcome::Absent, removal.outcome) << name;
        EXPECT_EQ("", removal.path) << name;
    }
    EXPECT_TRUE(Exists(empty));
    EXPECT_FALSE(Listed(""));
    ::unlink(empty.c_str());
}

TEST(SlotLeftovers, AClaimOnALockFileRemovedSinceItWasOpenedIsRefused) {
    // The remover unlinks while it holds the claim; a reader that opened the file before then
    // must not end up holding a file that the next reader cannot see.
    ScopedSlotName name("race");
    const std::string lock = shared::TouchFile(FileUtils::FSUtils::GetSingletonFileLockName(name));
    shared::FileLock early(lock.c_str());
    ASSERT_EQ(0, ::unlink(lock.c_str()));
    EXPECT_FALSE(early.try_lock());
    shared::FileLock fresh(shared::TouchFile(lock).c_str());
    EXPECT_TRUE(fresh.try_lock());
    fresh.unlock();
    ::unlink(lock.c_str());
}

}  // namespace
