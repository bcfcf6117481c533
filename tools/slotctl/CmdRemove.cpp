// SPDX-License-Identifier: Apache-2.0
// slotctl rm: removes slots through the library, and the posix-pipe FIFO of the same name.
#include "Cli.h"
#include "Commands.h"
#include "Names.h"
#include "PoolTarget.h"
#include "Signals.h"

#include <FileUtils/FSUtils.h>
#include <FileUtils/NamedPipeCreator.h>
#include <Slot/PoolFactory.h>
#include <Slot/PoolSurvey.h>
#include <Slot/SlotAttachments.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotLeftovers.h>
#include <Slot/SlotNames.h>
#include <Slot/SlotReportJson.h>
#include <Slot/SlotSurvey.h>

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <iostream>
#include <utility>

namespace slotctl {

namespace {

// Slots that nobody can use as they are: half slots, unfinished objects whose creator is gone
// or slow, and slots whose lock a dead process holds. Removing them frees the name for a new
// slot.
bool IsStale(const SlotReport& report) {
    return report.state == SlotState::Half || report.state == SlotState::Unfinished ||
           report.state == SlotState::DeadHolder;
}

std::string StaleWhat(const SlotReport& report) {
    switch (report.state) {
        case SlotState::Half:
            return "a half slot";
        case SlotState::Unfinished:
            return "unfinished";
        case SlotState::DeadHolder:
            return "held by dead pid " + std::to_string(report.deadHolder);
        default:
            return SlotStateText(report.state);
    }
}

// A process's command line for a message: its first 80 characters, made Printable, and "..."
// when there was more.
std::string ShortCommand(const std::string& command) {
    constexpr size_t kCharacters = 80;
    const std::vector<size_t> starts = CharacterStarts(command);
    if (starts.size() <= kCharacters) {
        return Printable(command);
    }
    return Printable(command.substr(0, starts[kCharacters])) + "...";
}

// The processes other than this one that use the slot, as "pid 4711 (slotctl read orders)".
// Only a process still attached after a short while counts: an inspection such as another
// slotctl's "ls" opens the objects for milliseconds and must not make the slot look in use.
std::vector<std::string> Users(const SlotReport& report) {
    const auto attached = [&report] {
        std::vector<SlotAttachment> others;
        for (SlotAttachment& process :
             SlotAttachments::Find(report.name, report.pipePath).processes) {
            if (process.pid != ::getpid()) {
                others.push_back(std::move(process));
            }
        }
        return others;
    };
    std::vector<SlotAttachment> lasting = attached();
    constexpr int kChecks = 10;
    for (int check = 0; check < kChecks && !lasting.empty(); ++check) {
        ::usleep(50 * 1000);
        const std::vector<SlotAttachment> now = attached();
        std::vector<SlotAttachment> still;
        for (const SlotAttachment& process : now) {
            if (std::any_of(lasting.begin(), lasting.end(), [&process](const SlotAttachment& was) {
                    return was.pid == process.pid;
                })) {
                still.push_back(process);
            }
        }
        lasting = std::move(still);
    }
    std::vector<std::string> users;
    for (const SlotAttachment& process : lasting) {
        users.push_back("pid " + std::to_string(process.pid) + " (" +
                        ShortCommand(process.command) + ": " + process.What() + ")");
    }
    return users;
}

// Removes the reliable reader's lock file of `name` and the claim file of a gateway that wrote
// it when nobody holds them (SlotLeftovers): a reader that ended, or a gateway that was killed,
// leaves its file behind. A held one is left to its holder (noted in `kept`); the removed ones
// are added to `removed`, for the "removed" line.
void RemoveOrphanLockFiles(const std::string& name, std::vector<std::string>& removed,
                           std::vector<std::string>& failed, std::vector<std::string>& kept) {
    const std::pair<LeftoverRemoval, const char*> removals[] = {
        {SlotLeftovers::RemoveReaderLockFile(name), "a reader"},
        {SlotLeftovers::RemoveGatewayClaimFile(name), "a gateway"}};
    for (const auto& [removal, holder] : removals) {
        const std::string what = "lock file " + Printable(removal.path);
        switch (removal.outcome) {
            case LeftoverOutcome::Removed:
                removed.push_back(what);
                break;
            case LeftoverOutcome::Held:
                kept.push_back(what + " (held by " +
                               (removal.holder > 0 ? "pid " + std::to_string(removal.holder)
                                                   : std::string(holder)) +
                               ")");
                break;
            case LeftoverOutcome::Failed:
                failed.push_back(what + " (" + Printable(removal.detail) + ", left alone)");
                break;
            case LeftoverOutcome::Absent:
                break;
        }
    }
}

// Names whose reader lock file or gateway claim file nobody holds while their slot is gone,
// sorted, each once.
std::vector<std::string> OrphanLockFileNames() {
    std::vector<std::string> names = SlotLeftovers::OrphanedReaderLockFiles();
    const std::vector<std::string> claims = SlotLeftovers::OrphanedGatewayClaimFiles();
    names.insert(names.end(), claims.begin(), claims.end());
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

// Whether `name` has a reader lock file or gateway claim file that nobody holds while its slot
// is gone.
bool HasOrphanLockFile(const std::string& name) {
    const std::vector<std::string> orphans = OrphanLockFileNames();
    return std::find(orphans.begin(), orphans.end(), name) != orphans.end();
}

// Removes the lock files that a reliable slot's reader or a killed gateway left behind after the
// slot itself was removed (by SlotFactory::RemoveSlot alone, or by an older slotctl); prints one
// line.
bool RemoveOrphanOnly(const std::string& name) {
    std::vector<std::string> removed;
    std::vector<std::string> failed;
    std::vector<std::string> kept;
    RemoveOrphanLockFiles(name, removed, failed, kept);
    if (!removed.empty()) {
        std::cout << "removed " << Quote(name) << " (no slot left): " << Join(removed) << "\n";
    }
    if (!kept.empty()) {
        std::cerr << "slotctl: kept " << Join(kept) << "\n";
    }
    if (!failed.empty()) {
        std::cerr << "slotctl: could not remove " << Quote(name) << ": " << Join(failed) << "\n";
    }
    return failed.empty() && kept.empty();
}

// Removes the name's objects; prints one line; false on failure.
bool RemoveOne(SlotReport report, bool staleOnly, double minAge, bool force) {
    const std::string name = report.name;
    bool header = report.header.state != SlotPartState::Absent;
    bool queue = report.queue.state != SlotPartState::Absent;
    if (report.state == SlotState::Absent && HasOrphanLockFile(name)) {
        return RemoveOrphanOnly(name);
    }
    if (staleOnly) {
        if (!IsStale(report)) {
            std::cerr << "slotctl: " << Quote(name)
                      << " is not stale (neither half, unfinished nor held by a dead process: "
                      << SlotStateText(report.state) << "), left as it is\n";
            return false;
        }
        const double age = report.AgeSeconds();
        if (age >= 0 && age < minAge) {
            std::cerr << "slotctl: " << Quote(name) << " is " << StaleWhat(report) << " but only "
                      << static_cast<int>(age) << " s old"
                      << (report.state == SlotState::DeadHolder ? " (see --min-age)"
                                                                : " (it may be being created)")
                      << ", left as it is\n";
            return false;
        }
    }
    // A foreign object is never touched: "rm abc" must not remove some other program's
    // "queue_abc".
    const SlotPartReport* foreign = report.header.state == SlotPartState::Foreign
                                        ? static_cast<const SlotPartReport*>(&report.header)
                                    : report.queue.state == SlotPartState::Foreign
                                        ? static_cast<const SlotPartReport*>(&report.queue)
                                        : nullptr;
    if (foreign != nullptr || (!header && !queue && report.pipePath.empty())) {
        const std::string reason =
            foreign != nullptr ? foreign->path + " is " + foreign->detail + "; nothing removed"
                               : "there is no " + ShmPath(name) + " or " +
                                     ShmPath(QueueObject(name)) + " and no named pipe of that name";
        std::cerr << "slotctl: " << Quote(name) << " is not a slot: " << Printable(reason) << "\n";
        return false;
    }
    // Removing a slot under running processes leaves them on objects nobody else can reach.
    const std::vector<std::string> users = Users(report);
    if (staleOnly) {
        // Finding the users took a while, in which a writer may have made the slot whole or
        // repaired its lock and stored blocks: what is removed is what is stale now.
        report = SlotSurvey::InspectSlot(name);
        if (!IsStale(report)) {
            std::cout << "left " << Quote(name)
                      << " (no longer stale: " << SlotStateText(report.state) << ")\n";
            return true;
        }
        header = report.header.state != SlotPartState::Absent;
        queue = report.queue.state != SlotPartState::Absent;
    }
    if (!users.empty()) {
        if (!force) {
            std::cerr << "slotctl: " << Quote(name) << " is in use by " << users.size()
                      << (users.size() == 1 ? " process: " : " processes: ") << Join(users)
                      << "; not removed (--force removes it anyway)\n";
            return false;
        }
        std::cerr << "slotctl: warning: removing " << Quote(name) << " while in use by "
                  << Join(users) << "\n";
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
        } parts[] = {{header, report.header.object, "header segment"},
                     {queue, report.queue.object, "queue"}};
        for (const auto& part : parts) {
            if (!part.was) {
                continue;
            }
            (ShmExists(part.object) ? failed : removed)
                .push_back(std::string(part.what) + " " + Printable(ShmPath(part.object)));
        }
    }
    // A FIFO is never stale: --stale leaves it.
    if (!report.pipePath.empty() && !staleOnly) {
        const std::string problem = FileUtils::NamedPipeCreator::Remove(report.pipePath);
        if (problem.empty()) {
            removed.push_back("named pipe " + Printable(report.pipePath));
        } else {
            failed.push_back("named pipe " + Printable(report.pipePath) + " (" +
                             Printable(problem) + ")");
        }
    }
    {
        std::vector<std::string> kept;
        RemoveOrphanLockFiles(name, removed, failed, kept);
        if (!kept.empty()) {
            std::cerr << "slotctl: kept " << Join(kept) << "\n";
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

// Removes the pool `name`'s file; prints one line; false on failure. A pool that live processes
// are attached to is removed only with `force`; with `staleOnly`, only a damaged pool is.
bool RemovePoolOne(const std::string& name, bool staleOnly, bool force) {
    const Slot::PoolReport report = Slot::SurveyPool(name);
    const std::string path = Printable(Slot::PoolPath(name));
    if (!report.exists) {
        std::cerr << "slotctl: " << Quote(name) << " is not a pool: there is no " << path << "\n";
        return false;
    }
    if (staleOnly && report.state != "damaged") {
        std::cerr << "slotctl: the pool " << Quote(name)
                  << " is not stale (not damaged), left as it is\n";
        return false;
    }
    std::vector<std::string> users;
    for (pid_t pid : report.attached) {
        const std::string user = "pid " + std::to_string(pid);
        if (pid != ::getpid() && report.Alive(pid) &&
            std::find(users.begin(), users.end(), user) == users.end()) {
            users.push_back(user);
        }
    }
    const std::size_t othersAlive = report.otherNamespaceAttached - report.otherNamespaceDead;
    if (othersAlive != 0) {
        users.push_back(std::to_string(othersAlive) +
                        (othersAlive == 1 ? " process" : " processes") +
                        " of other pid namespaces");
    }
    if (!users.empty()) {
        if (!force) {
            std::cerr << "slotctl: the pool " << Quote(name) << " is in use by " << Join(users)
                      << "; not removed (--force removes it anyway)\n";
            return false;
        }
        std::cerr << "slotctl: warning: removing the pool " << Quote(name) << " while in use by "
                  << Join(users) << "\n";
    }
    if (report.folderRefused) {
        std::cerr << "slotctl: could not remove " << path << ": " << Printable(report.problem)
                  << "\n";
        return false;
    }
    if (!Slot::PoolFactory::RemovePool(name)) {
        std::cerr << "slotctl: could not remove " << path
                  << (::geteuid() != 0 ? " (not the owner?)" : "") << "\n";
        return false;
    }
    std::cout << "removed " << Quote(name) << ": pool " << path << "\n";
    return true;
}

}  // namespace

int RunRemove(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("rm", args, {"min-age"}, TargetFlags({"stale", "force"}));
    const bool stale = arguments.Has("stale");
    const bool force = arguments.Has("force");
    const double minAge = arguments.GetSeconds("min-age", 5.0, 0.0, 1e9);
    if (!stale) {
        arguments.ExpectOperands(1, SIZE_MAX, "one or more slot names");
    }
    for (const std::string& name : arguments.Operands()) {
        CheckSlotName(name);
    }
    bool ok = true;
    if (arguments.Operands().empty()) {
        // --stale alone: every stale slot on the machine; young ones are skipped quietly.
        size_t found = 0;
        for (const SlotReport& report : SlotSurvey::ListSlots()) {
            if (IsStale(report)) {
                ++found;
                // Another user's objects are theirs (or root's) to remove: the folder's sticky
                // bit refuses the removal anyway.
                uid_t owner = 0;
                double created = 0;
                if (::geteuid() != 0 && Slot::OwnerAndAge(report, owner, created) &&
                    owner != ::geteuid()) {
                    std::cout << "left " << Quote(report.name) << " (" << StaleWhat(report)
                              << ", uid " << owner << "'s)\n";
                    continue;
                }
                const double age = report.AgeSeconds();
                if (age >= 0 && age < minAge) {
                    std::cout << "left " << Quote(report.name) << " (" << StaleWhat(report)
                              << ", only " << static_cast<int>(age) << " s old)\n";
                    continue;
                }
                ok = RemoveOne(report, true, minAge, force) && ok;
            }
        }
        // Lock files of reliable readers and gateways whose slot is gone.
        for (const std::string& name : OrphanLockFileNames()) {
            ++found;
            struct stat st;
            uid_t owner = ::geteuid();
            for (const std::string& lockFile :
                 {FileUtils::FSUtils::SingletonFileLockNameWithoutCreating(name),
                  FileUtils::FSUtils::GatewayClaimFileNameWithoutCreating(name)}) {
                if (::lstat(lockFile.c_str(), &st) == 0 && st.st_uid != ::geteuid()) {
                    owner = st.st_uid;
                }
            }
            if (::geteuid() != 0 && owner != ::geteuid()) {
                std::cout << "left " << Quote(name) << " (no slot left; its lock file is uid "
                          << owner << "'s)\n";
                continue;
            }
            ok = RemoveOrphanOnly(name) && ok;
        }
        // Damaged pools: nobody can use them. Those in a refused folder are not this user's
        // to remove (their files may be sound).
        for (const std::string& name : Slot::ListPools()) {
            const Slot::PoolReport pool = Slot::SurveyPool(name);
            if (pool.state == "damaged" && !pool.folderRefused) {
                ++found;
                ok = RemovePoolOne(name, true, force) && ok;
            }
        }
        if (found == 0) {
            std::cout << "no stale slots\n";
        }
    } else {
        for (const std::string& name : arguments.Operands()) {
            ok = (MeansPool(arguments, "rm", name)
                      ? RemovePoolOne(name, stale, force)
                      : RemoveOne(SlotSurvey::InspectSlot(name), stale, minAge, force)) &&
                 ok;
        }
    }
    std::cout << std::flush;
    // A stop does not cut the removals short, but the status tells that one came.
    if (StopSignals::Received()) {
        return ExitInterrupted;
    }
    return ok ? ExitOk : ExitFailure;
}

}  // namespace slotctl
