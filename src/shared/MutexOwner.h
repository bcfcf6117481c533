// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <pthread.h>
#include <sys/types.h>

#include <string>

namespace shared {

// Who holds a process-shared pthread mutex, read without taking or changing the lock, so that a
// lock left by a dead process can be told from one that a live process holds. The answer is a
// snapshot: the owner may change right after it is read.

// Kernel thread id that glibc records as the owner of `mutex`, 0 when it records none. A robust
// mutex whose owner died keeps that thread id until the next locker takes it over.
SHARED_EXPORT pid_t MutexOwnerThread(const pthread_mutex_t* mutex);

// False when the bytes of `mutex` cannot be a pthread mutex of kind `kind` (glibc's __kind, e.g.
// 128 for a process-shared normal mutex) in a state glibc would produce: a wrong kind, or a free
// lock word with an owner or a recursion count (glibc asserts on those, and its other paths
// follow the kind). Checked a few times over a millisecond, as other processes may be locking
// it meanwhile.
SHARED_EXPORT bool MutexLooksSane(const pthread_mutex_t* mutex, int kind);

// Process of the thread `tid` (its thread-group id), or 0 when no such thread lives.
SHARED_EXPORT pid_t ProcessOfThread(pid_t tid);

// Whether the live process `pid` maps the file `path` (e.g. "/dev/shm/<object>"): 1 yes, 0 no
// (also a kernel thread, whose map is empty), -1 unknown (its memory map cannot be read, e.g.
// another user's process).
SHARED_EXPORT int ProcessMapsFile(pid_t pid, const std::string& path);

}  // namespace shared
