// SPDX-License-Identifier: Apache-2.0
#include "SharedCondition.h"

#include <boost/interprocess/sync/scoped_lock.hpp>

#include <sys/syscall.h>
#include <unistd.h>
#include <fstream>

namespace sharedtest {

SharedCondition::SharedCondition(const std::string& name)
    : memory(shared::CreateSharedMemory(boost::interprocess::open_or_create, name.c_str(), 65536),
             shared::DestroySharedMemory),
      mutex(memory->GetMutex()),
      cond(memory->GetSegment().find_or_construct<shared::InterprocCondition>("cond_on_write")()),
      lockable(mutex),
      pack(new Pack(mutex, cond)) {}

std::uint32_t* SharedCondition::Counter(const char* name) {
    return memory->GetSegment().find_or_construct<std::uint32_t>(name)(0u);
}

std::uint32_t Load(const std::uint32_t& word) {
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}

bool WaitForWaiters(SharedCondition& c, std::uint32_t count, std::chrono::milliseconds timeout) {
    if (!Eventually([&] { return Load(c.cond->waiters) >= count; }, timeout)) {
        return false;
    }
    boost::interprocess::scoped_lock<Mutex> passThrough(*c.mutex);
    return true;
}

bool WaitUntilBlocked(pid_t pid, pid_t tid, std::chrono::milliseconds timeout) {
    const std::string path = tid == 0 ? "/proc/" + std::to_string(pid) + "/stat"
                                      : "/proc/self/task/" + std::to_string(tid) + "/stat";
    return Eventually(
        [&] {
            std::ifstream in(path);
            std::string text((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
            // "pid (comm) S ...": the state follows the last ')'.
            const std::string::size_type close = text.rfind(')');
            return close != std::string::npos && close + 2 < text.size() && text[close + 2] == 'S';
        },
        timeout);
}

pid_t CurrentTid() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

}  // namespace sharedtest
