// SPDX-License-Identifier: Apache-2.0
// A reliable slot has one reader on the machine, whatever its flavour; the claim ends with the
// reader: forked children, destruction, refused readers and other threads, each seen from
// other real processes. That the lock file's claim ends with its process is FileLock's own.
#include "ChildProcess.h"
#include "Eventually.h"
#include "Readers.h"
#include "ShmHygiene.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/ReliableSlotReader.h>
#include <Slot/SlotLeftovers.h>
#include <Slot/SlotNames.h>
#include <Slot/SlotSurvey.h>

#include <FileUtils/FSUtils.h>
#include <shared/FileLock.h>

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

namespace {

using testsupport::ChildProcess;
using testsupport::ChildResult;
using testsupport::RefusalOf;
using testsupport::ScopedSlotName;

const boost::posix_time::milliseconds Update(50);

std::string Refusal(const std::string& name) {
    return "Cannot create non-unique reader for reliable slot '" + name + "'";
}

// The slot as the factory makes it, so that the factory's readers below share it.
boost::shared_ptr<ISlot> Reliable(const std::string& name) {
    const SimpleSlotCfg cfg = testsupport::ReaderCfg(name, "reliable");
    return SlotFactory::CreateSlot(&cfg);
}

// Whether a reader of `name` can be made in a fresh process right now (1 yes, 0 refused with
// the refusal text, anything else a failure).
int ClaimInAnotherProcess(const std::string& name) {
    const ChildResult result = testsupport::RunInChild([&] {
        const std::string refusal =
            RefusalOf([&] { ReliableSlotReader reader(Reliable(name), Update); });
        return refusal.empty() ? 1 : refusal == Refusal(name) ? 0 : 3;
    });
    return result.exited ? result.exitCode : 100;
}

// A child forked (without exec, e.g. by a host that spawns helpers) while this process's reader
// lives is refused with the same text, does not keep the claim when the parent's reader goes,
// and can become the reader afterwards: the parent's claim is not the child's.
TEST(ReaderClaim, AForkedChildNeverKeepsTheParentsClaimAndCanTakeItOnceFree) {
    ScopedSlotName name("claimfork");
    boost::shared_ptr<ISlot> slot = Reliable(name);
    std::unique_ptr<ReliableSlotReader> reader(new ReliableSlotReader(slot, Update));
    reader->Init();
    testsupport::PipeSignal refused, parentsGone;
    // The child makes readers without starting their threads: claiming is the constructor's.
    ChildProcess child([&] {
        reader.reset();  // the child's copy: dropping it leaves the claim the parent's
        const std::string refusal = RefusalOf([&] { ReliableSlotReader second(slot, Update); });
        if (refusal != Refusal(name)) {
            return testsupport::Failed(2, "not refused as it should be: '" + refusal + "'");
        }
        refused.Post();
        if (!parentsGone.WaitFor()) {
            return 3;
        }
        for (int i = 0; i < 2; ++i) {  // the child's own claim ends with its reader
            try {
                ReliableSlotReader mine(slot, Update);
            } catch (const std::exception& e) {
                return testsupport::Failed(4, e.what());
            }
        }
        return 0;
    });
    ASSERT_TRUE(refused.WaitFor());
    reader.reset();
    EXPECT_EQ(1, ClaimInAnotherProcess(name)) << "the forked child must not keep the claim";
    parentsGone.Post();
    const ChildResult result = child.Wait(std::chrono::seconds(20));
    EXPECT_TRUE(result.Ok()) << result.Describe();
}

// Children forked while another thread makes and drops readers never find the process's claims
// locked for good by that thread. (A hang shows as the child's watchdog.)
TEST(ReaderClaim, AForkedChildNeverWaitsForTheClaimsOfOtherThreads) {
    SKIP_FORK_AMID_THREADS_UNDER_ASAN();
    ScopedSlotName busyName("claimbusy"), childName("claimforked");
    boost::shared_ptr<ISlot> busy = Reliable(busyName);
    boost::shared_ptr<ISlot> forChild = Reliable(childName);
    // The first reader looks its logger up, under a lock of log4cxx's own that a child forked
    // meanwhile would never get: done before any fork.
    { ReliableSlotReader first(busy, Update); }
    const auto claim = [&] {
        ReliableSlotReader reader(forChild, Update);
        return 0;
    };
    const testsupport::ForkRounds rounds = testsupport::ForkWhileAnotherThreadRuns(
        [&] { ReliableSlotReader reader(busy, Update); }, claim, 1000);
    EXPECT_EQ(0, rounds.hung) << "a child found the claims locked for good";
    EXPECT_EQ(1000, rounds.ok) << "a child's reader failed: " << rounds.firstFailure;
}

// Both factory operations are refused with the same text while a reader of either flavour
// lives, in this process (the refusals leave the first reader's claim intact) and in another.
// Its destruction frees the name, also on another thread than the one that made it (a host
// that hands its reader over), for any thread and process, again and again. That reader,
// without subscribers, still drains the queue.
TEST(ReaderClaim, OnePerMachineWhateverTheFlavourAndThread) {
    ScopedSlotName name("claimone");
    const SimpleSlotCfg cfg = testsupport::ReaderCfg(name, "reliable");
    for (const testsupport::Flavour flavour :
         {testsupport::Flavour::Notifying, testsupport::Flavour::Spinning}) {
        SCOPED_TRACE(testsupport::FlavourName(flavour));
        INotifierPtr reader;
        std::thread([&] { reader = testsupport::MakeReader(flavour, cfg); }).join();
        // Each wake-up drains the queue also with nobody subscribed, so that writers never find
        // it full for want of a subscriber.
        for (int i = 0; i < 4; ++i) {
            testsupport::WriteThroughWriter(cfg, "unread");
        }
        boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
        EXPECT_TRUE(testsupport::Eventually([&] { return slot->GetBufferLength() == 0; }));
        const std::function<void()> second[] = {
            [&] { SlotFactory::CreateSlotReader(&cfg); },
            [&] { SlotFactory::CreateSpinningSlotReader(&cfg, Update); }};
        for (int attempt = 0; attempt < 4; ++attempt) {
            EXPECT_EQ(Refusal(name), RefusalOf(second[attempt % 2]));
        }
        // A survey in the reader's own process names it and leaves its claim alone.
        EXPECT_EQ(::getpid(), SlotSurvey::InspectSlot(name).readerPid);
        EXPECT_EQ(0, ClaimInAnotherProcess(name));
        std::thread([&] { reader.reset(); }).join();
        EXPECT_EQ(1, ClaimInAnotherProcess(name));
        EXPECT_NO_THROW(testsupport::MakeReader(flavour, cfg));
    }
}

// slotctl rm removing the lock file (the real SlotLeftovers::RemoveReaderLockFile, in a loop in
// another process) never gets a reader refused while none exists: a creation that meets the
// removal waits for it and claims the file made after it. A live reader in a third process is
// still the only one: every creation is refused with the exact text meanwhile.
TEST(ReaderClaim, ARemovalOfTheLockFileNeverRefusesAReaderButALiveReaderStillDoes) {
    ScopedSlotName name("claimrm");
    boost::shared_ptr<ISlot> slot = Reliable(name);
    struct Ledger {
        std::atomic<bool> stop{false};
        std::atomic<unsigned> removed{0};
    };
    auto ledger = testsupport::SharedWithChildren<Ledger>();
    testsupport::PipeSignal hold, holding, release;
    ChildProcess remover([&] {
        while (!ledger->stop) {
            const LeftoverRemoval removal = SlotLeftovers::RemoveReaderLockFile(name);
            if (removal.outcome == LeftoverOutcome::Failed) {
                return testsupport::Failed(1, removal.detail);
            }
            ledger->removed += removal.outcome == LeftoverOutcome::Removed ? 1 : 0;
        }
        return 0;
    });
    ChildProcess reader([&] {
        if (!hold.WaitFor()) {
            return 3;
        }
        ReliableSlotReader mine(Reliable(name), Update);
        holding.Post();
        return release.WaitFor(std::chrono::seconds(60)) ? 0 : 4;
    });

    // Made and dropped for a few seconds (longer while the remover has hardly started), or until
    // the remover has removed many of their files.
    int made = 0, refused = 0, failed = 0;
    std::string failure;
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        const auto elapsed = std::chrono::steady_clock::now() - start;
        if (ledger->removed >= 2000 || elapsed > std::chrono::seconds(30) ||
            (elapsed > std::chrono::seconds(3) && ledger->removed >= 10)) {
            break;
        }
        try {
            ReliableSlotReader claimer(slot, Update);
            ++made;
        } catch (const AbortSlotCreationException&) {
            ++refused;
        } catch (const std::exception& e) {
            failure = e.what();
            ++failed;
        }
    }
    EXPECT_EQ(0, refused + failed)
        << "of " << made + refused + failed << " creations, with " << ledger->removed
        << " removals, " << failed << " failed, the last with: " << failure;
    EXPECT_GT(ledger->removed, 0u) << "the remover never raced a reader";

    hold.Post();
    ASSERT_TRUE(holding.WaitFor());
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(Refusal(name), RefusalOf([&] { ReliableSlotReader second(slot, Update); }))
            << "while another process's reader lives";
    }
    EXPECT_EQ(reader.Pid(),
              shared::FileLock::Holder(FileUtils::FSUtils::GetSingletonFileLockName(name)))
        << "the live reader's lock file was removed";
    release.Post();
    EXPECT_TRUE(reader.Wait().Ok());
    ledger->stop = true;
    const ChildResult result = remover.Wait();
    EXPECT_TRUE(result.Ok()) << result.Describe();
    EXPECT_NO_THROW(ReliableSlotReader(slot, Update));
}

// A root reader of another user's slot gives the lock file it makes to the slot's owner, still
// the owner's alone: the owner can be the slot's reader once root's reader is gone.
TEST(ReaderClaim, ARootReaderLeavesTheLockFileToTheSlotsOwner) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to read another user's slot";
    }
    const uid_t owner = 65534;  // nobody
    ScopedSlotName name("claimowner");
    boost::shared_ptr<ISlot> slot = Reliable(name);
    for (const std::string& object : {Slot::HeaderObjectName(name), Slot::QueueObjectName(name)}) {
        ASSERT_EQ(0, ::chown(Slot::ShmPath(object).c_str(), owner, owner));
    }
    const std::string lock = FileUtils::FSUtils::GetSingletonFileLockName(name);
    { ReliableSlotReader reader(slot, Update); }
    struct stat st;
    ASSERT_EQ(0, ::lstat(lock.c_str(), &st));
    EXPECT_EQ(owner, st.st_uid);
    EXPECT_EQ(0600u, st.st_mode & 07777);
    // The test run's folder is root's 0700: let the owner reach the lock file.
    ASSERT_EQ(0, ::chmod(testsupport::TestRunDir().c_str(), 0711));
    const ChildResult result = testsupport::RunInChild([&] {
        if (::setgid(owner) != 0 || ::setuid(owner) != 0) {
            return 2;
        }
        const std::string refusal =
            RefusalOf([&] { ReliableSlotReader reader(Reliable(name), Update); });
        return refusal.empty() ? 1 : 3;
    });
    ::chmod(testsupport::TestRunDir().c_str(), 0700);
    EXPECT_EQ(1, result.exitCode) << result.Describe();
    ::unlink(lock.c_str());
}

// A host may put a boost::mutex of its own into the public map for a name before the first
// reader: readers use it, and the name's claim (kept apart from the mutex) still refuses a
// second reader of this process, also one that found a new lock file, and ends with the reader.
TEST(ReaderClaim, AHostsOwnMutexInTheMapServesAsTheNamesMutex) {
    ScopedSlotName name("claimhost");
    boost::shared_ptr<ISlot> slot = Reliable(name);
    const boost::shared_ptr<boost::mutex> hosts = boost::make_shared<boost::mutex>();
    ReliableSlotReader::SingletonMutexes[name] = hosts;
    for (int round = 0; round < 2; ++round) {
        std::unique_ptr<ReliableSlotReader> first(new ReliableSlotReader(slot, Update));
        EXPECT_EQ(hosts, first->FindOrCreateSingletonMutex(name));
        const auto second = [&] { ReliableSlotReader second(slot, Update); };
        EXPECT_EQ(Refusal(name), RefusalOf(second));
        // With the lock file gone, a second reader claims a new one: the name's claim refuses.
        const std::string lock = FileUtils::FSUtils::GetSingletonFileLockName(name);
        ASSERT_EQ(0, ::unlink(lock.c_str()));
        EXPECT_EQ(Refusal(name), RefusalOf(second)) << "the name's claim let a second reader in";
        first.reset();
        EXPECT_EQ(1, ClaimInAnotherProcess(name));
    }
    EXPECT_EQ(hosts, ReliableSlotReader::SingletonMutexes[name]);
    EXPECT_TRUE(hosts->try_lock()) << "the claim is not the mutex's lock";
    hosts->unlock();
}

}  // namespace
