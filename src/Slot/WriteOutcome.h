// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/WriteOutcome.h>

/// @file
/// Write outcomes without reading the log.
///
/// A write into a slot never throws for a full or refused block: `SlotWriter::onNotify` and
/// `WriteData` return normally and say what happened only in the log. These functions tell a
/// program the same without parsing log lines:
///
/// @code
/// writer->onNotify(cfg.GetName(), block.data(), block.size());
/// if (Slot::LastWriteOutcome() == Slot::WriteOutcome::Refused) {
///     // the reliable slot was full (or the block too large): keep the block and retry later
/// }
/// Slot::WriteCounts counts = Slot::GetWriteCounts(cfg.GetName());   // this process, so far
/// @endcode
///
/// Every write through a "discarding" or "reliable" slot (`SlotWriter`, `SimpleSlotRW`, a
/// direct `WriteData`) and through the writer of a "posix-pipe" slot is recorded:
///
/// - `Stored`: discarding and reliable: in the queue; posix-pipe: written whole.
/// - `Discarded`: discarding only: in the queue, the block waiting there was thrown away.
/// - `Refused`: discarding: larger than the maximum size, or lost to another writer; reliable:
///   full, or too large; posix-pipe: the pipe stayed full, block dropped.
/// - `Failed`: discarding and reliable: queue error; posix-pipe: write error, the pipe is not
///   open, or part of a block dropped.
///
/// A posix-pipe's stored blocks are lost later when its writer closes the pipe while no reader
/// has it open: `WriteCounts::bytesLostAtClose` adds up those bytes (0 for the other kinds).
///
/// The last outcome belongs to the calling thread (a write made by a reader thread or a
/// notifier's thread is seen there). The counts are per slot name and per process, summed
/// over every writer of the process, and never reset while it runs; a child forked without exec
/// starts from zero (the parent's writes are not its own). Recording costs one thread-local
/// store and one relaxed atomic increment per write.

namespace Slot {

using shared::GetWriteCounts;
using shared::LastWriteOutcome;
using shared::ToString;
using shared::WriteCounts;
using shared::WriteOutcome;

}  // namespace Slot
