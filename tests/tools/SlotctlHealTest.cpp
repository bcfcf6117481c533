// SPDX-License-Identifier: Apache-2.0
// slotctl read and write on a slot whose header mutex was held by a process that was killed:
// the library repairs the lock, so the tool uses the slot, and the blocks accepted before the
// death are read back.
#include "ChildProcess.h"
#include "ShmHygiene.h"
#include "SlotctlRunner.h"

#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/SlotSurvey.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

namespace {

using slotctltest::Outcome;
using slotctltest::Slotctl;
using ::testing::AllOf;
using ::testing::HasSubstr;
using testsupport::ChildProcess;
using testsupport::PipeSignal;
using testsupport::ScopedSlotName;

// Writes two blocks to a reliable slot, then locks it and is killed while it holds the lock.
void KillHolderOf(const std::string& name) {
    PipeSignal locked;
    ChildProcess holder([&] {
        ReliableSlot slot(boost::interprocess::open_or_create, name.c_str(), 64, 4);
        slot.GetLockable()->lock();
        slot.WriteData("first", 5);
        slot.WriteData("second", 6);
        slot.GetLockable()->unlock();
        slot.GetLockable()->lock();
        locked.Post();
        ::pause();
        return 0;
    });
    ASSERT_TRUE(locked.WaitFor()) << holder.Wait().Describe();
    holder.Kill(SIGKILL);
    holder.Wait();
    ASSERT_EQ(SlotState::DeadHolder, SlotSurvey::InspectSlot(name).state);
}

TEST(SlotctlHeal, ReadAndWriteRepairASlotWhoseHolderWasKilled) {
    ScopedSlotName name("healread");
    KillHolderOf(name.str());

    const Outcome read = Slotctl({"read", name.str(), "--count", "2", "--timeout", "20000"},
                                 slotctltest::Options{"", std::chrono::seconds(30)});
    ASSERT_FALSE(read.timedOut) << read.Describe();
    EXPECT_EQ(0, read.status) << read.Describe();
    EXPECT_THAT(read.out, AllOf(HasSubstr("first\n"), HasSubstr("second\n")));
    EXPECT_LT(read.out.find("first"), read.out.find("second")) << read.Describe();
    EXPECT_EQ(SlotState::Healthy, SlotSurvey::InspectSlot(name.str()).state);

    ScopedSlotName other("healwrite");
    KillHolderOf(other.str());
    const Outcome write = Slotctl({"write", other.str(), "third"});
    ASSERT_FALSE(write.timedOut) << write.Describe();
    EXPECT_EQ(0, write.status) << write.Describe();
    const SlotReport after = SlotSurvey::InspectSlot(other.str());
    EXPECT_EQ(SlotState::Healthy, after.state) << after.detail;
    EXPECT_EQ(3u, after.queue.waiting) << "the two blocks accepted before the death stay";
}

}  // namespace
