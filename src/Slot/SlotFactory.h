// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/ISlot.h>
#include <Slot/ISlotConfiguration.h>

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

    // A started reader: its thread already runs when it is returned.
    static INotifierPtr CreateSlotReader(const ISlotConfiguration* cfg);
    // A ready writer; for "posix-pipe" its stream is already open.
    static ISubscriberPtr CreateSlotWriter(const ISlotConfiguration* cfg);
};
