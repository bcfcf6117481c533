// SPDX-License-Identifier: Apache-2.0
#include "PoolTarget.h"

#include <Slot/SlotReportJson.h>
#include <Slot/SlotSurvey.h>

namespace slotctl {

std::set<std::string> TargetFlags(std::set<std::string> more) {
    more.insert({"pool", "slot"});
    return more;
}

bool SlotExists(const std::string& name) {
    const SlotReport slot = SlotSurvey::InspectSlot(name);
    return slot.HasSharedMemory() || !slot.pipePath.empty();
}

bool MeansPool(const Arguments& arguments, const std::string& command, const std::string& name) {
    CheckSlotName(name);
    if (arguments.Has("pool") && arguments.Has("slot")) {
        throw UsageError(command + ": --pool and --slot exclude each other");
    }
    if (arguments.Has("pool") || arguments.Has("slot")) {
        return arguments.Has("pool");
    }
    if (arguments.Has("type")) {
        return Slot::PoolFactory::PoolKindIsValid(arguments.Get("type"));
    }
    if (!Slot::SurveyPool(name).exists) {
        return false;
    }
    if (SlotExists(name)) {
        throw UsageError(command + ": " + Quote(name) +
                         " is both a slot and a pool: say which with --slot or --pool");
    }
    return true;
}

Slot::PoolConfig ResolvePool(const Arguments& arguments, const std::string& command,
                             const std::string& name) {
    const Slot::PoolReport report = Slot::SurveyPool(name);
    Slot::PoolConfig config;
    config.name = name;
    if (report.exists) {
        if (report.state != "healthy") {
            // A refused folder is not this user's to clear: its owner or root removes it.
            throw CommandError(
                ExitFailure,
                command + ": the pool " + Quote(name) +
                    " cannot be used: " + Printable(report.problem) +
                    (report.folderRefused ? "; the folder's owner or root must remove the folder"
                                          : "; remove it with slotctl rm --pool"));
        }
        config.kind = report.kind;
        config.maxBlockSize = report.maxBlockSize;
        config.blockCount = report.blockCount;
        const std::string asked = arguments.Get("type", report.kind);
        if (asked != report.kind) {
            throw CommandError(ExitFailure, command + ": the pool " + Quote(name) + " is a " +
                                                report.kind + " pool, not " + Quote(asked));
        }
        return config;
    }
    CheckPoolTarget(command, name);
    config.kind = arguments.Get("type", "latest");
    if (!Slot::PoolFactory::PoolKindIsValid(config.kind)) {
        throw UsageError(command + ": a pool's --type is latest or queue, not " +
                         Quote(config.kind));
    }
    config.maxBlockSize =
        static_cast<std::size_t>(arguments.GetNumber("max-size", 65536, 1, Slot::MaxPoolBlockSize));
    config.blockCount =
        static_cast<std::size_t>(arguments.GetNumber("queue", 16, 1, Slot::MaxPoolBlocks));
    if (const auto problem = Slot::PoolConfigProblem(config)) {
        throw UsageError(command + ": " + Printable(*problem));
    }
    return config;
}

void CheckPoolTarget(const std::string& command, const std::string& name) {
    if (!Slot::SurveyPool(name).exists && SlotExists(name)) {
        throw CommandError(ExitFailure, command + ": " + Quote(name) +
                                            " is a slot, not a pool (a pool of that name would "
                                            "make it both)");
    }
}

void CheckSlotTarget(const std::string& command, const std::string& name) {
    if (Slot::SurveyPool(name).exists && !SlotExists(name)) {
        throw CommandError(ExitFailure, command + ": " + Quote(name) +
                                            " is a pool, not a slot (a slot of that name would "
                                            "make it both)");
    }
}

std::string PidText(const Slot::PoolReport& report, pid_t pid) {
    return (report.Alive(pid) ? "pid " : "dead pid ") + std::to_string(pid);
}

}  // namespace slotctl
