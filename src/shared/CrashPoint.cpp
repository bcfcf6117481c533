// SPDX-License-Identifier: Apache-2.0
#include <shared/CrashPoint.h>

#include <csignal>
#include <cstdlib>
#include <mutex>
#include <string>

namespace shared {

void KillThisProcess() {
    ::raise(SIGKILL);
    std::abort();
}

#ifdef SLOT_CRASH_POINTS

namespace {

struct Armed {
    std::mutex mutex;
    std::string name;    // guarded by mutex
    unsigned left = 0;   // passes still to go; guarded by mutex
    bool armed = false;  // read without the mutex on every pass
};

Armed& State() {
    static Armed* state = new Armed;
    return *state;
}

}  // namespace

bool CrashPointsArmed() {
    return __atomic_load_n(&State().armed, __ATOMIC_RELAXED);
}

bool CrashPointReached(const char* name) {
    Armed& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.name == name && state.left != 0 && --state.left == 0;
}

void StopPoint(const char* name) {
    if (CrashPointsArmed() && CrashPointReached(name)) {
        ::raise(SIGSTOP);
    }
}

bool ArmCrashPoint(const char* name, unsigned hit) {
    Armed& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.name = name;
    state.left = hit == 0 ? 1 : hit;
    __atomic_store_n(&state.armed, !state.name.empty(), __ATOMIC_RELEASE);
    return true;
}

#else

bool ArmCrashPoint(const char*, unsigned) {
    return false;
}

#endif

}  // namespace shared
