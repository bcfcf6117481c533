// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/ISlot.h>
#include <Slot/ISlotConfiguration.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/shared_ptr.hpp>

#include <string>

// The library's front door: builds slots, readers and writers from a slot configuration.
// Static operations only; reentrant, holds no lock of its own. Never returns a null pointer:
// a caller gets a working object or an exception (AbortSlotCreationException for an invalid
// type, a pipe that cannot be made, shared memory that cannot be set up, or a second reader of a
// reliable slot). The configuration is not kept.
class SLOT_EXPORT SlotFactory {
public:
    SlotFactory() = delete;

    // "reliable", "discarding", "posix-pipe" and the empty type (the default: discarding).
    static bool SlotTypeIsValid(const std::string& type);
    // Opens or creates the shared-memory slot: a ReliableSlot for "reliable", a DiscardingSlot
    // for every other valid type.
    static boost::shared_ptr<ISlot> CreateSlot(const ISlotConfiguration* cfg);
    // Unlinks the slot's header segment and queue. True when both were removed.
    static bool RemoveSlot(std::string name);

    // A started reader: its thread already runs when it is returned. The update time must be
    // finite and not negative (AbortSlotCreationException otherwise). The last reference to a
    // reader of a shared-memory slot may be dropped anywhere, also inside one of its subscribers'
    // onNotify: the reader then delivers nothing more and is destroyed when that notification
    // has returned. A child forked without exec has a copy without the thread
    // (shared::ReaderNotifier): its subscription calls return at once and dropping it leaves the
    // parent's reader as it is.
    static INotifierPtr CreateSlotReader(const ISlotConfiguration* cfg);
    // The same, with `firstSubscriber` subscribed before the reader's thread starts, so that it
    // gets every block the reader takes, also those that waited in a reliable slot. The reader
    // keeps a share of it until the reader is destroyed. A null pointer subscribes nobody.
    static INotifierPtr CreateSlotReader(const ISlotConfiguration* cfg,
                                         const ISubscriberPtr& firstSubscriber);
    // A reader for hosts that can give a core to a slot: like CreateSlotReader, but before each
    // wait the reader's thread spins for up to `spinBudget` on the slot's write signal (without
    // a lock or a system call) and sleeps on it only when nothing came. A block written while it
    // spins is taken without a wake-up; while it spins, it keeps a core busy. It delivers exactly
    // what the ordinary reader of the slot's type delivers (a discarding slot's latest fresh
    // block, each block of a reliable slot in order, one reliable reader per machine, the same
    // log lines), and writers do not pay for it. A budget of 0 makes the ordinary reader.
    // "posix-pipe" slots have no write signal to spin on: they get their ordinary reader.
    // Throws AbortSlotCreationException for a negative or infinite budget, besides the refusals
    // of CreateSlotReader.
    static INotifierPtr CreateSpinningSlotReader(
        const ISlotConfiguration* cfg, const boost::posix_time::time_duration& spinBudget,
        const ISubscriberPtr& firstSubscriber = ISubscriberPtr());
    // A ready writer; for "posix-pipe" its stream is already open.
    static ISubscriberPtr CreateSlotWriter(const ISlotConfiguration* cfg);
};
