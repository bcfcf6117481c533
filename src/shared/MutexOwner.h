// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <pthread.h>
#include <sys/types.h>

namespace shared {

// Who holds a process-shared pthread mutex, read without taking or changing the lock, so that a
// lock left by a dead process can be told from one that a live process holds. The answer is a
// snapshot: the owner may change right after it is read.

// Kernel thread id that glibc records as the owner of `mutex`, 0 when it records none. A robust
// mutex whose owner died keeps that thread id until the next locker takes it over.
SHARED_EXPORT pid_t MutexOwnerThread(const pthread_mutex_t* mutex);

// Process of the thread `tid` (its thread-group id), or 0 when no such thread lives.
SHARED_EXPORT pid_t ProcessOfThread(pid_t tid);

}  // namespace shared
