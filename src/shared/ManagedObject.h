// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

namespace shared {

// Creation of the POSIX shared-memory objects behind Boost.Interprocess managed objects (a
// managed segment, a message queue), without Boost's unbounded waits and without SIGBUS.
//
// Such an object starts with Boost's creation-state word (0 uninitialised, 1 initialising,
// 2 initialised, 3 corrupted); the user part starts `userOffset` bytes later. Boost's opener
// spins without limit while the object has size 0 or the word is below 2, so a creator killed
// half-way wedges every later opener. And POSIX shared memory is a tmpfs: ftruncate reserves
// nothing, and the first touch of a page that tmpfs cannot back kills the toucher with SIGBUS.
//
// PrepareManagedObject makes the object ready for Boost's open_only:
// - When `name` does not exist, it creates it exclusively (permissions 0644), reserves all
//   `size` bytes with posix_fallocate before touching any, runs `initialise(userAddress,
//   userSize)` and marks the object initialised. If the reservation or the initialisation fails,
//   the object is unlinked again and the failure thrown: nothing half-made is left.
// - When it exists, it must belong to root or to this user and group and others must not write
//   it (shared::SharedWriteProblem; one of this user's own is made 0644): otherwise it is refused
//   before it is mapped.
// - When it exists, it waits up to CreationWaitLimit() for its creator to finish. An object that
//   is still unfinished then (size 0, never initialised, or initialising) is left alone and
//   reported: its creator may only be slow, so taking it over could corrupt it.
// Returns true when this call created the object. Failures raise
// boost::interprocess::interprocess_exception whose text names the object, the cause and, for
// an unfinished or damaged object, `remedy`.
SHARED_EXPORT bool PrepareManagedObject(const std::string& name, std::size_t size,
                                        std::size_t userOffset,
                                        const std::function<void(void*, std::size_t)>& initialise,
                                        const std::string& remedy);

// How long an opener waits for another process to finish creating an object:
// $SLOT_CREATION_WAIT_MS milliseconds when set (0 to 600000), else 2000 ms.
SHARED_EXPORT std::chrono::milliseconds CreationWaitLimit();

// Returns only after a live holder releases `mutex` (a pthread mutex in shared memory that is
// not robust) or throws boost::interprocess::interprocess_exception when it stays held longer
// than CreationWaitLimit() or its holder is dead. `what` names the mutex in the message.
SHARED_EXPORT void AwaitUnheldMutex(const void* mutex, const std::string& what,
                                    const std::string& remedy);
// The same wait, but it takes `mutex` (a recursive one held by the caller is taken again).
SHARED_EXPORT void LockUnheldMutex(void* mutex, const std::string& what, const std::string& remedy);

}  // namespace shared
