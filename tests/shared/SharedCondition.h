// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ChildProcess.h"
#include "Eventually.h"
#include "ShmHygiene.h"

#include <shared/InterprocConditionPack.h>
#include <shared/LockablePtr.h>
#include <shared/SharedMemory.h>

#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/shared_ptr.hpp>

#include <gtest/gtest.h>

#include <sys/types.h>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace sharedtest {

using testsupport::Eventually;
using testsupport::Failed;

typedef boost::interprocess::interprocess_mutex Mutex;
typedef shared::InterprocConditionPack<Mutex> Pack;

// A segment opened (or created) by name, as every process of a slot opens it: the segment's
// unique mutex, the condition "cond_on_write" and the wrappers over them.
struct SharedCondition {
    explicit SharedCondition(const std::string& name);

    boost::shared_ptr<shared::ISharedMemory> memory;
    Mutex* mutex;
    shared::InterprocCondition* cond;
    shared::LockablePtr<Mutex> lockable;
    std::unique_ptr<Pack> pack;

    // A counter in the segment, created as 0 on first use; read and written atomically.
    std::uint32_t* Counter(const char* name);
};

// A test with a condition segment of a fresh name, removed afterwards.
class ConditionTest : public ::testing::Test {
protected:
    testsupport::ScopedSlotName name{"cond"};
    SharedCondition c{name};
};

std::uint32_t Load(const std::uint32_t& word);

// Waits until `count` threads are inside Wait, then takes and releases the mutex, so that every
// one of them has read the condition's sequence: a broadcast from now on reaches all of them.
// False when that does not happen within the time-out.
bool WaitForWaiters(SharedCondition& c, std::uint32_t count,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10));

// True once the thread `tid` of this process, or the process `pid` when tid is 0, is blocked in
// the kernel (state 'S').
bool WaitUntilBlocked(pid_t pid, pid_t tid = 0,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10));

pid_t CurrentTid();

}  // namespace sharedtest
