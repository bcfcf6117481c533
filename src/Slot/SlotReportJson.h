// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/PoolSurvey.h>
#include <Slot/SlotSurvey.h>
#include <Slot/SlotText.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <sys/types.h>
#include <string>
#include <vector>

// A SlotReport in the words and JSON documents that slotctl prints and the Python binding
// returns: one vocabulary for both. The keys are documented in docs/slotctl.md ("JSON output").
namespace Slot {

// Whether the part's bytes were read (valid, damaged or unfinished): its contents are known.
SLOT_EXPORT bool PartReadable(const SlotPartReport& part);

// Whether the queue's counts (capacity, largest block, waiting) were read.
SLOT_EXPORT bool QueueKnown(const SlotReport& report);

// A part this user cannot use: it exists, but cannot be opened read-write; nullptr if none.
SLOT_EXPORT const SlotPartReport* UnusablePart(const SlotReport& report);

// The slot's state in one word, as listings show it: "slot" (healthy), "pipe", "header-only",
// "queue-only", "no-access", "busy", "dead-holder", "unfinished", "damaged", or "absent".
SLOT_EXPORT std::string StateWord(const SlotReport& report);
// Every word StateWord can give.
SLOT_EXPORT std::vector<std::string> StateWords();

// SlotKindText of a known kind; "" for SlotKind::Unknown.
SLOT_EXPORT std::string KindWord(const SlotReport& report);
// Every text of SlotKindText but "unknown", and every text of SlotPartStateText.
SLOT_EXPORT std::vector<std::string> KindWords();
SLOT_EXPORT std::vector<std::string> PartStateWords();

// "2026-11-22T10:00:01.123456Z", or "never" for not_a_date_time.
SLOT_EXPORT std::string TimeText(const boost::posix_time::ptime& time);

// The slot's last write as TimeText, or "" when the header does not tell it.
SLOT_EXPORT std::string LastWriteText(const SlotReport& report);

// Owner uid and age in seconds of the slot: of its header segment, else its queue, else its
// FIFO. False when there is none of them.
SLOT_EXPORT bool OwnerAndAge(const SlotReport& report, uid_t& owner, double& age);

// The user's name (Printable), or the uid as a number when the system has no name for it.
SLOT_EXPORT std::string UserName(uid_t uid);

// The keys of one slot in a listing, written into the object `json` has open.
SLOT_EXPORT void AddListEntry(JsonWriter& json, const SlotReport& report);

// The JSON array of a listing (`slotctl ls --json`): one object per report, with the slot's
// summary keys.
SLOT_EXPORT std::string ListJson(const std::vector<SlotReport>& reports);
// The JSON document of one slot (`slotctl info --json`): the summary keys of a listing, then its
// parts, held locks and the processes attached to it (looked up now, see SlotAttachments).
SLOT_EXPORT std::string InfoJson(const SlotReport& report);

// The keys of one pool in a listing, written into the object `json` has open: "pool" is true,
// which no slot entry has.
SLOT_EXPORT void AddPoolEntry(JsonWriter& json, const PoolReport& report);
// The listing of `slotctl ls --json`: the slots, then the pools.
SLOT_EXPORT std::string ListJson(const std::vector<SlotReport>& slots,
                                 const std::vector<PoolReport>& pools);
// The JSON array of the pools alone, as in that listing.
SLOT_EXPORT std::string PoolListJson(const std::vector<PoolReport>& pools);
// The JSON document of one pool (`slotctl info --json`): the keys of its listing entry, then its
// file, the file's size and the processes attached to it.
SLOT_EXPORT std::string PoolInfoJson(const PoolReport& report);

}  // namespace Slot
