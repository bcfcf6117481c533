// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ChildProcess.h"
#include "ChildRequire.h"
#include "Eventually.h"
#include "Files.h"
#include "ShmHygiene.h"
#include "Verdicts.h"

#include <shared/InterprocConditionPack.h>
#include <shared/LockablePtr.h>
#include <shared/SharedMemory.h>

#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/shared_ptr.hpp>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace sharedtest {

using testsupport::Eventually;
using testsupport::Failed;
using testsupport::Require;

typedef boost::interprocess::interprocess_mutex Mutex;
typedef shared::InterprocConditionPack<Mutex> Pack;

// A segment opened (or created) by name, as every process of a slot opens it: the segment's
// unique mutex, the condition "cond_on_write" and the wrappers over them.
struct SharedCondition {
    explicit SharedCondition(const std::string& name)
        : memory(
              shared::CreateSharedMemory(boost::interprocess::open_or_create, name.c_str(), 65536),
              shared::DestroySharedMemory),
          mutex(memory->GetMutex()),
          cond(memory->GetSegment().find_or_construct<shared::InterprocCondition>(
              "cond_on_write")()),
          lockable(mutex),
          pack(new Pack(mutex, cond)) {}

    boost::shared_ptr<shared::ISharedMemory> memory;
    Mutex* mutex;
    shared::InterprocCondition* cond;
    shared::LockablePtr<Mutex> lockable;
    std::unique_ptr<Pack> pack;

    // A counter in the segment, created as 0 on first use; read and written atomically.
    std::uint32_t* Counter(const char* name) {
        return memory->GetSegment().find_or_construct<std::uint32_t>(name)(0u);
    }
    // True when the mutex is free: taken and released again at once.
    bool MutexFree() {
        if (!lockable.try_lock()) {
            return false;
        }
        lockable.unlock();
        return true;
    }
};

// A test with a condition segment of a fresh name, removed afterwards.
class ConditionTest : public ::testing::Test {
protected:
    testsupport::ScopedSlotName name{"cond"};
    SharedCondition c{name};
};

inline std::uint32_t Load(const std::uint32_t& word) {
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}

// Waits until `count` threads are inside Wait, then takes and releases the mutex, so that every
// one of them has read the condition's sequence: a broadcast from now on reaches all of them.
// False when that does not happen within the time-out.
inline bool WaitForWaiters(SharedCondition& c, std::uint32_t count,
                           std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    if (!Eventually([&] { return Load(c.cond->waiters) >= count; }, timeout)) {
        return false;
    }
    boost::interprocess::scoped_lock<Mutex> passThrough(*c.mutex);
    return true;
}

// True once the thread `tid` of this process, or the process `pid` when tid is 0, is blocked in
// the kernel (state 'S').
inline bool WaitUntilBlocked(pid_t pid, pid_t tid = 0,
                             std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const std::string path = tid == 0 ? "/proc/" + std::to_string(pid) + "/stat"
                                      : "/proc/self/task/" + std::to_string(tid) + "/stat";
    return Eventually(
        [&] {
            // "pid (comm) S ...": the state follows the last ')'.
            const std::string text = testsupport::ReadFile(path);
            const std::string::size_type close = text.rfind(')');
            return close != std::string::npos && close + 2 < text.size() && text[close + 2] == 'S';
        },
        timeout);
}

inline pid_t CurrentTid() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

}  // namespace sharedtest
