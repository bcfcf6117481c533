// SPDX-License-Identifier: Apache-2.0
#include "SlotOptions.h"

#include "Names.h"
#include "PoolTarget.h"

#include <Slot/AbortSlotCreationException.h>
#include <Slot/ConfigurationTags.h>
#include <Slot/SlotSurvey.h>

#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <climits>
#include <memory>

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

// An existing slot keeps its kind: an explicit --type of another kind is refused (a discarding
// writer would throw a reliable slot's waiting blocks away). A queue of one block is what a
// reliable slot made with --queue 1 has too, so "reliable" is not refused there.
void RefuseOtherKind(const std::string& command, const std::string& name, const SlotReport& report,
                     const std::string& type) {
    if (report.kind == SlotKind::Unknown) {
        return;
    }
    const std::string asked =
        type.empty() ? Configuration::Object::Slot::Type::discardingTag : type;
    const std::string kind = SlotKindText(report.kind);
    if (asked == kind || (report.kind == SlotKind::Discarding &&
                          asked == Configuration::Object::Slot::Type::reliableTag)) {
        return;
    }
    throw CommandError(ExitFailure, command + ": the slot " + Quote(name) + " is a " + kind +
                                        " slot, not " + Quote(asked));
}

// Whether a process other than this one, and alive, holds one of the locks `report` found held.
// This process's own helper may be the one inside: only another holder counts.
bool HeldByAnother(const SlotReport& report) {
    for (const SlotLockReport& lock : report.heldLocks) {
        if (!lock.HolderDead() && lock.process != ::getpid()) {
            return true;
        }
    }
    return false;
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
    const SlotReport report = SlotSurvey::InspectSlot(name);
    if (!report.HasSharedMemory() && report.pipePath.empty()) {
        CheckSlotTarget(arguments.Command(), name);
    }
    if (typeGiven) {
        RefuseOtherKind(arguments.Command(), name, report, type);
    }
    if (!typeGiven || type != pipeType) {
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

WaitResult OpenSlotInterruptibly(const std::string& name, const std::function<void()>& open,
                                 int limitMs, std::chrono::steady_clock::time_point started) {
    int leftMs = -1;
    if (limitMs >= 0) {
        const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - started);
        leftMs = static_cast<int>(std::max<long long>(0, limitMs - spent.count()));
    }
    // Set once the wait has ended first: the helper then gives up at its next failure.
    const auto waitEnded = std::make_shared<std::atomic<bool>>(false);
    const WaitResult result = RunInterruptibly(
        [name, open, waitEnded] {
            bool held = false;  // a look found the lock held after an earlier try
            for (;;) {
                try {
                    open();
                    return;
                } catch (const AbortSlotCreationException&) {
                    // A look finds a lock held only when it stays held for about 100 ms (it
                    // looks again meanwhile): tries are that far apart at least. A holder seen
                    // before that has let go since gets one more try.
                    const bool heldNow = HeldByAnother(SlotSurvey::InspectSlot(name));
                    if (waitEnded->load() || !(heldNow || held)) {
                        throw;
                    }
                    held = heldNow;
                }
            }
        },
        leftMs);
    if (result != WaitResult::Ready) {
        waitEnded->store(true);
    }
    return result;
}

std::string HeldLockNote(const std::string& name) {
    return HeldByAnother(SlotSurvey::InspectSlotAtOnce(name)) ? " (its lock is held)" : "";
}

std::string PipeLossText(std::uint64_t bytes) {
    return std::to_string(bytes) + (bytes == 1 ? " unread byte" : " unread bytes") +
           " lost: no reader had the pipe open when it was closed";
}

}  // namespace slotctl
