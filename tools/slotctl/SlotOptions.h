// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Cli.h"
#include "Signals.h"

#include <Slot/ISlotConfiguration.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>

namespace slotctl {

// The kind a slot of this type is, for messages: the empty type is discarding.
std::string TypeName(const ISlotConfiguration& cfg);

// The valued options that describe a slot (shared by read and write), and `more`.
std::set<std::string> SlotValuedOptions(std::initializer_list<std::string> more);

// Builds the configuration for `name` from --type, --max-size, --queue and --update-time. What
// is not given is taken from the slot when it exists (its kind, block size and capacity: an
// existing queue keeps its sizes anyway), else the defaults: discarding, 65536 bytes, 16
// blocks, 100 ms. Refuses, with one line, a slot that cannot be used safely: one whose parts
// cannot be opened, are not slot parts, are unfinished, or are locked by a dead process.
SlotCfg ResolveSlot(const Arguments& arguments, const std::string& name);

// Runs `open`, which opens the slot `name` (or makes its writer) through the library, as
// RunInterruptibly does: until it returns (Ready; what it throws is rethrown here), `limitMs`
// (-1: none) counted from `started` passes (so that the look at the slot before opening it
// counts too), or a stop signal arrives. The library gives up waiting for the slot's lock after
// its creation bound (2 s, SLOT_CREATION_WAIT_MS), also when a live process keeps it (one
// stopped with SIGSTOP, say): as long as a look at the slot then finds another live process
// holding one of its locks, `open` is tried again, so that only the time-out or a stop ends
// that wait. After a wait that ended first, `open` may still be running: it is not tried again,
// and the caller leaves with LeaveNow (or keeps nothing it captured).
WaitResult OpenSlotInterruptibly(
    const std::string& name, const std::function<void()>& open, int limitMs,
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now());

// " (its lock is held)" when another live process holds a lock inside the slot `name` now (one
// look without a lock, which does not wait), else "": the reason a --timeout ended opening or
// writing it, when that is known. Opening a discarding slot's reader takes about one update time
// without any lock.
std::string HeldLockNote(const std::string& name);

// What a summary says of the `bytes` (not 0) that a posix-pipe lost when it was closed while no
// reader had it open (Slot::WriteCounts::bytesLostAtClose): "5 unread bytes lost: no reader had
// the pipe open when it was closed". The blocks themselves were stored.
std::string PipeLossText(std::uint64_t bytes);

}  // namespace slotctl
