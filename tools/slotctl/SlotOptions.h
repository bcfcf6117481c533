// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Cli.h"

#include <Slot/ISlotConfiguration.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstddef>
#include <cstdint>
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

// " (its lock is held)" when another live process holds a lock inside the slot `name` now (a
// look without a lock), else "": the reason a --timeout ended opening or writing it, when that
// is known. Opening a discarding slot's reader takes about one update time without any lock.
std::string HeldLockNote(const std::string& name);

// What a summary says of the `bytes` (not 0) that a posix-pipe lost when it was closed while no
// reader had it open (Slot::WriteCounts::bytesLostAtClose): "5 unread bytes lost: no reader had
// the pipe open when it was closed". The blocks themselves were stored.
std::string PipeLossText(std::uint64_t bytes);

}  // namespace slotctl
