// SPDX-License-Identifier: Apache-2.0
#include "SlotOptions.h"

#include "Probe.h"

#include <Slot/ConfigurationTags.h>

#include <climits>

namespace slotctl {

namespace {

const size_t DefaultMaxSize = 65536;
const size_t DefaultQueue = 16;
const std::uint64_t DefaultUpdateMs = 100;

void RefuseUnusable(const std::string& object, PartState state, const std::string& detail) {
    switch (state) {
        case PartState::Absent:
        case PartState::Ok:
            return;
        case PartState::NoAccess:
            throw CommandError(ExitFailure, "cannot open " + ShmPath(object) + ": " + detail);
        case PartState::Foreign:
            throw CommandError(ExitFailure,
                               ShmPath(object) + " is not part of a slot: it is " + detail);
        case PartState::Busy:
        case PartState::Unfinished:
            throw CommandError(ExitFailure, ShmPath(object) + " cannot be used: " + detail +
                                                "; remove the slot with slotctl rm");
    }
}

}  // namespace

std::set<std::string> SlotValuedOptions(std::initializer_list<std::string> more) {
    std::set<std::string> valued = {"type", "max-size", "queue", "update-time"};
    valued.insert(more);
    return valued;
}

ToolSlotConfig ResolveSlot(const Arguments& arguments, const std::string& name) {
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
        const SlotReport report = InspectSlot(name);
        RefuseUnusable(name, report.header.state, report.header.detail);
        RefuseUnusable(QueueObject(name), report.queue.state, report.queue.detail);
        if (report.queue.state == PartState::Ok) {
            existingMaxSize = static_cast<size_t>(report.queue.maxBlockSize);
            existingQueue = static_cast<size_t>(report.queue.capacity);
        }
        if (!typeGiven) {
            const std::string kind = report.Kind();
            type = kind.empty() ? Configuration::Object::Slot::Type::discardingTag : kind;
        }
    }
    return ToolSlotConfig(name, type, maxSize != 0 ? static_cast<size_t>(maxSize) : existingMaxSize,
                          queue != 0 ? static_cast<size_t>(queue) : existingQueue,
                          boost::posix_time::milliseconds(static_cast<long>(updateMs)));
}

}  // namespace slotctl
