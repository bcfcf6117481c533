// SPDX-License-Identifier: Apache-2.0
#include "SlotOptions.h"

#include "Names.h"

#include <Slot/ConfigurationTags.h>
#include <Slot/SlotSurvey.h>

#include <climits>

namespace slotctl {

namespace {

const size_t DefaultMaxSize = 65536;
const size_t DefaultQueue = 16;
const std::uint64_t DefaultUpdateMs = 100;

// Refuses a part of the slot that the library could not use, with the reason and the remedy.
void RefuseUnusable(const SlotPartReport& part) {
    switch (part.state) {
        case SlotPartState::Absent:
            return;
        case SlotPartState::Ok:
            if (!part.writable) {
                throw CommandError(ExitFailure,
                                   "cannot open " + Printable(part.path) + ": Permission denied");
            }
            return;
        case SlotPartState::NoAccess:
            throw CommandError(ExitFailure,
                               "cannot open " + Printable(part.path) + ": " + part.detail);
        case SlotPartState::Foreign:
            throw CommandError(
                ExitFailure,
                Printable(part.path) + " is not part of a slot: it is " + Printable(part.detail));
        case SlotPartState::Unfinished:
        case SlotPartState::Damaged:
            throw CommandError(ExitFailure, Printable(part.path) +
                                                " cannot be used: " + Printable(part.detail) +
                                                "; remove the slot with slotctl rm");
    }
}

}  // namespace

std::set<std::string> SlotValuedOptions(std::initializer_list<std::string> more) {
    std::set<std::string> valued = {"type", "max-size", "queue", "update-time"};
    valued.insert(more);
    return valued;
}

std::string TypeName(const ISlotConfiguration& cfg) {
    const std::string type = cfg.GetSlotType();
    return type.empty() ? std::string(Configuration::Object::Slot::Type::discardingTag) : type;
}

SlotCfg ResolveSlot(const Arguments& arguments, const std::string& name) {
    CheckSlotName(name);
    const bool typeGiven = arguments.Has("type");
    if (typeGiven) {
        CheckSlotType(arguments.Get("type"));
    }
    const std::uint64_t maxSize = arguments.GetNumber("max-size", 0, 1, INT_MAX);
    const std::uint64_t queue = arguments.GetNumber("queue", 0, 1, INT_MAX);
    const std::uint64_t updateMs = arguments.GetNumber("update-time", DefaultUpdateMs, 1, 3600000);

    std::string type = arguments.Get("type");
    const std::string pipeType = Configuration::Object::Slot::Type::posixPipeTag;
    size_t existingMaxSize = DefaultMaxSize;
    size_t existingQueue = DefaultQueue;
    if (!typeGiven || type != pipeType) {
        const SlotReport report = SlotSurvey::InspectSlot(name);
        RefuseUnusable(report.header);
        RefuseUnusable(report.queue);
        // The library repairs a header or queue mutex whose holder died when it next takes it
        // (with an ERROR line naming the slot), so such a slot is used, not refused. The
        // segment's own allocator and index mutexes are not robust: nothing repairs those.
        for (const SlotLockReport& lock : report.heldLocks) {
            if (lock.HolderDead() && lock.lock != "header mutex" && lock.lock != "queue mutex") {
                throw CommandError(ExitFailure, Quote(name) +
                                                    " cannot be used: " + Printable(report.detail) +
                                                    "; remove the slot with slotctl rm");
            }
        }
        if (report.queue.state == SlotPartState::Ok) {
            existingMaxSize = static_cast<size_t>(report.queue.maxBlockSize);
            existingQueue = static_cast<size_t>(report.queue.capacity);
        }
        if (!typeGiven) {
            type = report.kind == SlotKind::Unknown
                       ? Configuration::Object::Slot::Type::discardingTag
                       : SlotKindText(report.kind);
        }
    }
    return SlotCfg(name, type, boost::posix_time::milliseconds(static_cast<long>(updateMs)),
                   queue != 0 ? static_cast<size_t>(queue) : existingQueue,
                   maxSize != 0 ? static_cast<size_t>(maxSize) : existingMaxSize);
}

}  // namespace slotctl
