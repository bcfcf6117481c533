// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

namespace shared {

// Named points at which a test can make the process die with SIGKILL, to check that every other
// process recovers from a death exactly there (holding a lock, half-way through creating an
// object...). They exist only in builds configured with SLOT_CRASH_POINTS (on by default when
// the tests are built); elsewhere CrashPoint() compiles to nothing.
//
// A point is armed only by ArmCrashPoint() in the process itself (its header is not installed):
// nothing from outside, such as the environment, can arm one, so a library built with the tests
// and then installed behaves as a release build does. The n-th time (default: the first) the
// process passes the armed point, it kills itself.
// SIGKILL to the calling process.
[[noreturn]] SHARED_EXPORT void KillThisProcess();

#ifdef SLOT_CRASH_POINTS
SHARED_EXPORT bool CrashPointsArmed();
// Counts a pass of `name`; true when this pass is the armed one.
SHARED_EXPORT bool CrashPointReached(const char* name);
inline void CrashPoint(const char* name) {
    if (CrashPointsArmed() && CrashPointReached(name)) {
        KillThisProcess();
    }
}
// For points that first set a scene (take a lock...): true when the process must die here.
inline bool CrashPointDue(const char* name) {
    return CrashPointsArmed() && CrashPointReached(name);
}
// Armed like a crash point, but the process stops itself there (SIGSTOP) instead of dying, so
// that a test can let another process pass first and then continue it (SIGCONT): a process
// delayed at exactly that point.
SHARED_EXPORT void StopPoint(const char* name);
#else
inline void CrashPoint(const char*) {}
inline bool CrashPointDue(const char*) {
    return false;
}
inline void StopPoint(const char*) {}
#endif

// Arms `name` in this process (replacing any armed point): the `hit`-th pass kills it. An empty
// name disarms. Returns false when the library was built without crash points.
SHARED_EXPORT bool ArmCrashPoint(const char* name, unsigned hit = 1);

}  // namespace shared
