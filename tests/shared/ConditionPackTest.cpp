#include "ChildProcess.h"
#include "LogCapture.h"
#include "ShmHygiene.h"

#include <shared/InterprocConditionPack.h>
#include <shared/LockablePtr.h>
#include <shared/SharedMemory.h>

#include <gtest/gtest.h>

namespace {

TEST(ConditionPack, ZeroTimeoutReturnsFalse) {
    testsupport::ScopedSlotName name("cond");
    boost::shared_ptr<shared::ISharedMemory> mem(
        shared::CreateSharedMemory(boost::interprocess::open_or_create, name.c_str(), 4096),
        shared::DestroySharedMemory);
    shared::InterprocCondition* cond =
        mem->GetSegment().find_or_construct<shared::InterprocCondition>("cond_on_write")();
    shared::InterprocConditionPack<boost::interprocess::interprocess_mutex> pack(mem->GetMutex(),
                                                                                 cond);
    testsupport::LogCapture log("InterprocCondition");
    EXPECT_FALSE(pack.Wait(boost::posix_time::microseconds(0)));
    EXPECT_EQ(1u, log.Count("TRACE", "Wait() : acquired mutex"));
    EXPECT_EQ(1u, log.Count("TRACE", "Wait() : cv.timed_wait(...) returned 0"));
}

}  // namespace
