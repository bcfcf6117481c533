// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <pthread.h>

namespace shared {

// A process-wide mutex that fork() takes around itself (pthread_atfork), for a registry that a
// child must find consistent: no other thread is in the middle of an update when the child
// starts. In the child, the forking thread (its only one, which took the mutex in the prepare
// handler) unlocks it and `InChild` runs, with only async-signal-safe calls: the parent may
// have forked while another thread was in malloc. `Init` runs once, before the handlers are
// installed, under no lock.
//
// One instantiation per registry: the handlers are the template's own static functions.
//
// Lock order: never hold two of these at once. fork() takes all of them, in the reverse order of
// their first use, so a thread holding one while it waits for another could deadlock a forking
// thread (and ThreadSanitizer reports the inversion).
template <void (*Init)(), void (*InChild)()>
class AtForkMutex {
public:
    // Holds the mutex; the first one ever also runs Init and installs the fork handlers.
    class Lock {
    public:
        Lock() {
            pthread_once(&once_, Install);
            pthread_mutex_lock(&mutex_);
        }
        ~Lock() { pthread_mutex_unlock(&mutex_); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
    };

private:
    static void Install() {
        Init();
        pthread_atfork(Prepare, Parent, Child);
    }
    static void Prepare() { pthread_mutex_lock(&mutex_); }
    static void Parent() { pthread_mutex_unlock(&mutex_); }
    static void Child() {
        pthread_mutex_unlock(&mutex_);
        InChild();
    }

    inline static pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    inline static pthread_once_t once_ = PTHREAD_ONCE_INIT;
};

}  // namespace shared
