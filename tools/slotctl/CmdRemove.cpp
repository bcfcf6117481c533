// SPDX-License-Identifier: Apache-2.0
// slotctl rm: removes slots through the library, and the posix-pipe FIFO of the same name.
#include "Cli.h"
#include "Commands.h"
#include "Probe.h"

#include <Slot/SlotFactory.h>

#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <iostream>

namespace slotctl {

namespace {

// Removes the name's objects; prints one line; false on failure.
bool RemoveOne(const SlotReport& report, bool staleOnly, double minAge) {
    const std::string& name = report.name;
    const std::string queueName = QueueObject(name);
    const bool header = report.header.state != PartState::Absent;
    const bool queue = report.queue.state != PartState::Absent;
    if (staleOnly) {
        if (!report.IsHalf()) {
            std::cerr << "slotctl: " << Quote(name) << " is not a half slot (" << report.State()
                      << "), left as it is\n";
            return false;
        }
        const double age = ShmAgeSeconds(header ? name : queueName);
        if (age >= 0 && age < minAge) {
            std::cerr << "slotctl: " << Quote(name) << " is a half slot only "
                      << static_cast<int>(age)
                      << " s old (it may be being created), left as it is\n";
            return false;
        }
    }
    // A foreign object is never touched: "rm abc" must not remove some other program's
    // "queue_abc".
    const bool foreign =
        report.header.state == PartState::Foreign || report.queue.state == PartState::Foreign;
    if (foreign || (!header && !queue && report.pipePath.empty())) {
        std::cerr << "slotctl: " << Quote(name) << " is not a slot: " << report.NotASlotReason()
                  << (foreign ? "; nothing removed" : "") << "\n";
        return false;
    }
    std::vector<std::string> removed;
    std::vector<std::string> failed;
    if (header || queue) {
        SlotFactory::RemoveSlot(name);
        // RemoveSlot's result is true only when both parts went; say what happened to each.
        const struct {
            bool was;
            std::string object;
            const char* what;
        } parts[] = {{header, name, "header segment"}, {queue, queueName, "queue"}};
        for (const auto& part : parts) {
            if (!part.was) {
                continue;
            }
            (ShmExists(part.object) ? failed : removed)
                .push_back(std::string(part.what) + " " + ShmPath(part.object));
        }
    }
    if (!report.pipePath.empty()) {
        if (::unlink(report.pipePath.c_str()) == 0) {
            removed.push_back("named pipe " + report.pipePath);
        } else {
            failed.push_back("named pipe " + report.pipePath + " (" + std::strerror(errno) + ")");
        }
    }
    if (!removed.empty()) {
        std::cout << "removed " << Quote(name) << ": " << Join(removed) << "\n";
    }
    if (!failed.empty()) {
        std::cerr << "slotctl: could not remove " << Quote(name) << ": " << Join(failed)
                  << (::geteuid() != 0 ? " (not the owner?)" : "") << "\n";
        return false;
    }
    return true;
}

}  // namespace

int RunRemove(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("rm", args, {"min-age"}, {"stale"});
    const bool stale = arguments.Has("stale");
    const double minAge = arguments.GetSeconds("min-age", 5.0, 0.0, 1e9);
    if (!stale) {
        arguments.ExpectOperands(1, SIZE_MAX, "one or more slot names");
    }
    for (const std::string& name : arguments.Operands()) {
        CheckSlotName(name);
    }
    bool ok = true;
    if (arguments.Operands().empty()) {
        // --stale alone: every half slot on the machine.
        size_t found = 0;
        for (const SlotReport& report : ScanSlots()) {
            if (report.IsHalf()) {
                ++found;
                ok = RemoveOne(report, true, minAge) && ok;
            }
        }
        if (found == 0) {
            std::cout << "no half slots\n";
        }
    } else {
        for (const std::string& name : arguments.Operands()) {
            ok = RemoveOne(InspectSlot(name), stale, minAge) && ok;
        }
    }
    std::cout << std::flush;
    return ok ? ExitOk : ExitFailure;
}

}  // namespace slotctl
