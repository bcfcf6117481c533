// SPDX-License-Identifier: Apache-2.0
// slotctl ls / info: what is there, as the library's inspection sees it, without disturbing it.
#include "Cli.h"
#include "Commands.h"
#include "Names.h"
#include "PoolTarget.h"
#include "Recording.h"

#include <Slot/PoolSurvey.h>
#include <Slot/SlotAttachments.h>
#include <Slot/SlotNames.h>
#include <Slot/SlotReportJson.h>
#include <Slot/SlotSurvey.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>

namespace slotctl {

using Slot::InfoJson;
using Slot::KindWord;
using Slot::LastWriteText;
using Slot::ListJson;
using Slot::OwnerAndAge;
using Slot::PartReadable;
using Slot::QueueKnown;
using Slot::StateWord;
using Slot::UnusablePart;
using Slot::UserName;

namespace {

std::string ReaderText(const SlotReport& report) {
    if (report.kind != SlotKind::Reliable) {
        return "-";
    }
    if (report.readerPid == 0) {
        return "none";
    }
    if (report.readerPid < 0) {
        return "held";
    }
    return "pid " + std::to_string(report.readerPid);
}

// The last write for the table, "-" when the header does not tell it.
std::string LastWriteCell(const SlotReport& report) {
    const std::string text = LastWriteText(report);
    return text.empty() ? "-" : text;
}

// What a held lock means, for the NOTE column and for info.
std::string LockText(const SlotLockReport& lock) {
    if (lock.HolderDead()) {
        return lock.lock + " held by dead pid " + std::to_string(lock.thread);
    }
    return lock.lock + " held by pid " + std::to_string(lock.process);
}

std::string NoteText(const SlotReport& report) {
    if (report.state == SlotState::DeadHolder || report.state == SlotState::Busy) {
        for (const SlotLockReport& lock : report.heldLocks) {
            if (lock.HolderDead() == (report.state == SlotState::DeadHolder)) {
                return LockText(lock);
            }
        }
    }
    return "";
}

void PrintPart(std::ostream& out, const SlotPartReport& part) {
    out << "  " << Padded("state", 16) << SlotPartStateText(part.state);
    if (!part.detail.empty()) {
        out << " (" << Printable(part.detail) << ")";
    }
    out << "\n";
    if (part.state != SlotPartState::Absent) {
        out << "  " << Padded("size", 16) << part.size << " bytes";
    }
}

void PrintInfo(std::ostream& out, const SlotReport& report) {
    const SlotHeaderReport& h = report.header;
    const SlotQueueReport& q = report.queue;
    const std::string kind = KindWord(report);
    const std::string state = StateWord(report);
    out << "slot " << Quote(report.name) << "\n";
    out << "  " << Padded("state", 16) << state;
    if (state == "header-only") {
        out << " (half slot: the queue " << Quote(QueueObject(report.name)) << " is missing)";
    } else if (state == "queue-only") {
        out << " (half slot: the header segment " << Quote(report.name) << " is missing)";
    } else if (!report.detail.empty()) {
        out << " (" << Printable(report.detail) << ")";
    }
    out << "\n";
    out << "  " << Padded("kind", 16) << (kind.empty() ? "unknown" : kind);
    if (QueueKnown(report)) {
        out << " (queue capacity " << q.capacity << ")";
    }
    out << "\n";
    if (QueueKnown(report)) {
        out << "  " << Padded("max block size", 16) << q.maxBlockSize << " bytes\n";
        out << "  " << Padded("blocks waiting", 16) << q.waiting << " of " << q.capacity << "\n";
    }
    if (PartReadable(h) && h.Has(Slot::LastWriteTime)) {
        out << "  " << Padded("last write", 16) << FormatTime(h.lastWrite);
        if (!h.lastWrite.is_special()) {
            const boost::posix_time::time_duration age =
                boost::posix_time::microsec_clock::universal_time() - h.lastWrite;
            char ago[64];
            std::snprintf(ago, sizeof(ago), " (%.1f s ago)",
                          static_cast<double>(age.total_milliseconds()) / 1000.0);
            out << ago;
        } else {
            out << " (not written since it was last opened)";
        }
        out << "\n";
    }
    if (report.kind == SlotKind::Reliable) {
        out << "  " << Padded("reader", 16);
        if (report.readerPid == 0) {
            out << "none";
        } else if (report.readerPid < 0) {
            out << "held by an unknown process";
        } else {
            out << "pid " << report.readerPid;
        }
        out << " (lock file " << Printable(report.readerLockFile) << ")\n";
    }
    for (const SlotLockReport& lock : report.heldLocks) {
        out << "  " << Padded("lock", 16) << LockText(lock)
            << (lock.HolderDead() ? " (its holder is gone: slotctl rm --stale removes the slot)"
                                  : "")
            << "\n";
    }
    if (!report.pipePath.empty()) {
        out << "  " << Padded("named pipe", 16) << Printable(report.pipePath) << "\n";
    }
    uid_t owner = 0;
    double age = -1;
    if (OwnerAndAge(report, owner, age)) {
        out << "  " << Padded("owner", 16) << UserName(owner) << " (uid " << owner << ")\n";
        out << "  " << Padded("age", 16) << AgeText(age) << "\n";
    }
    const SlotAttachmentList attached = SlotAttachments::Find(report.name, report.pipePath);
    out << "  " << Padded("attached", 16) << attached.processes.size()
        << (attached.processes.size() == 1 ? " process" : " processes");
    if (attached.unreadable != 0) {
        out << " (" << attached.unreadable
            << (attached.unreadable == 1 ? " other process" : " other processes")
            << " could not be looked at)";
    }
    out << "\n";
    for (const SlotAttachment& process : attached.processes) {
        out << "    " << RightAligned(std::to_string(process.pid), 7) << "  "
            << Padded(UserName(process.uid), 8) << "  " << Padded(process.What(), 26) << "  "
            << Printable(process.command.substr(0, 200)) << "\n";
    }
    if (!report.HasSharedMemory()) {
        return;
    }
    out << "header segment " << Printable(h.path) << "\n";
    PrintPart(out, h);
    if (h.state != SlotPartState::Absent) {
        if (PartReadable(h)) {
            out << " (" << h.freeBytes << " free)";
        }
        out << "\n";
    }
    if (PartReadable(h)) {
        out << "  " << Padded("named objects", 16) << h.namedObjects << " (and " << h.uniqueObjects
            << " unique: the header mutex)\n";
        const std::string values[Slot::HeaderObjectCount] = {
            FormatTime(h.lastWrite), std::to_string(h.outputDataSize),
            std::to_string(h.outputHandle) + " (buffer of " + std::to_string(h.outputBufferSize) +
                " bytes)",
            ""};
        for (int i = 0; i < Slot::HeaderObjectCount; ++i) {
            out << "    " << Padded(Slot::HeaderObjectNames[i], 25);
            if (h.Has(Slot::HeaderObject(i))) {
                out << RightAligned(std::to_string(h.objectBytes[i]), 3) << " bytes";
                if (!values[i].empty()) {
                    out << "  " << values[i];
                }
            } else {
                out << "MISSING";
            }
            out << "\n";
        }
    }
    out << "queue " << Printable(q.path) << "\n";
    PrintPart(out, q);
    if (q.state != SlotPartState::Absent) {
        out << "\n";
    }
    if (QueueKnown(report)) {
        out << "  " << Padded("capacity", 16) << q.capacity << " blocks of up to " << q.maxBlockSize
            << " bytes\n";
    }
}

// Pids of `report` as "pid 1, dead pid 2"; "-" for none.
std::string PidsText(const Slot::PoolReport& report, const std::vector<pid_t>& pids) {
    std::vector<std::string> texts;
    for (pid_t pid : pids) {
        texts.push_back(PidText(report, pid));
    }
    return texts.empty() ? "-" : Join(texts);
}

// Processes of other pid namespaces, whose pids mean nothing here: "2 in other pid namespaces
// (1 dead)"; empty for none.
std::string OtherNamespacesText(std::size_t count, std::size_t dead) {
    if (count == 0) {
        return std::string();
    }
    std::string text = std::to_string(count) +
                       (count == 1 ? " in another pid namespace" : " in other pid namespaces");
    if (dead != 0) {
        text += " (" + std::to_string(dead) + " dead)";
    }
    return text;
}

// PidsText, then those of other pid namespaces.
std::string PoolProcessesText(const Slot::PoolReport& report, const std::vector<pid_t>& pids,
                              std::size_t otherCount, std::size_t otherDead) {
    const std::string others = OtherNamespacesText(otherCount, otherDead);
    if (others.empty()) {
        return PidsText(report, pids);
    }
    return pids.empty() ? others : PidsText(report, pids) + ", " + others;
}

std::string PoolReaderText(const Slot::PoolReport& report) {
    if (report.kind != "queue") {
        return "-";
    }
    if (report.queueReaderInOtherNamespace) {
        return "in another pid namespace";
    }
    return report.queueReader == 0 ? "none" : PidText(report, report.queueReader);
}

// The pools' table, printed below the slots' when there are pools.
void PrintPools(std::ostream& out, const std::vector<Slot::PoolReport>& pools) {
    size_t nameWidth = 4;
    for (const Slot::PoolReport& report : pools) {
        nameWidth = std::max(nameWidth,
                             std::min<size_t>(CharacterStarts(Printable(report.name)).size(), 48));
    }
    out << Padded("POOL", nameWidth) << "  " << Padded("KIND", 6) << "  " << Padded("STATE", 7)
        << "  " << RightAligned("BLOCK", 9) << "  " << RightAligned("FREE", 5) << "  "
        << RightAligned("LOANED", 6) << "  " << RightAligned("WAITING", 7) << "  "
        << RightAligned("HELD", 5) << "  " << Padded("READER", 10) << "  HOLDERS\n";
    for (const Slot::PoolReport& report : pools) {
        const bool known = !report.kind.empty();
        auto count = [&](std::size_t n) { return known ? std::to_string(n) : std::string("-"); };
        std::string line =
            Padded(Printable(report.name), nameWidth) + "  " +
            Padded(known ? report.kind : "-", 6) + "  " + Padded(report.state, 7) + "  " +
            RightAligned(count(report.maxBlockSize), 9) + "  " +
            RightAligned(known ? count(report.freeBlocks) + "/" + count(report.blockCount) : "-",
                         5) +
            "  " + RightAligned(count(report.loanedBlocks), 6) + "  " +
            RightAligned(count(report.waitingBlocks), 7) + "  " +
            RightAligned(count(report.heldBlocks), 5) + "  " + Padded(PoolReaderText(report), 10) +
            "  " + PoolProcessesText(report, report.holders, report.otherNamespaceHolders, 0);
        if (!report.problem.empty()) {
            line += "  (" + Printable(report.problem) + ")";
        }
        out << line << "\n";
    }
}

void PrintPoolInfo(std::ostream& out, const Slot::PoolReport& report) {
    out << "pool " << Quote(report.name) << "\n";
    out << "  " << Padded("state", 16) << report.state;
    if (!report.problem.empty()) {
        out << " (" << Printable(report.problem) << ")";
    }
    out << "\n";
    out << "  " << Padded("file", 16) << Printable(Slot::PoolPath(report.name)) << " ("
        << report.fileSize << " bytes)\n";
    if (!report.kind.empty()) {
        out << "  " << Padded("kind", 16) << report.kind << "\n";
        out << "  " << Padded("blocks", 16) << report.blockCount << " of up to "
            << report.maxBlockSize << " bytes\n";
        out << "  " << Padded("free", 16) << report.freeBlocks << "\n";
        out << "  " << Padded("loaned", 16) << report.loanedBlocks << "\n";
        out << "  " << Padded("waiting", 16) << report.waitingBlocks << "\n";
        out << "  " << Padded("held", 16) << report.heldBlocks << "\n";
        out << "  " << Padded("last sequence", 16) << report.lastSequence << "\n";
        if (report.kind == "queue") {
            out << "  " << Padded("reader", 16) << PoolReaderText(report) << "\n";
        }
    }
    out << "  " << Padded("holders", 16)
        << PoolProcessesText(report, report.holders, report.otherNamespaceHolders, 0) << "\n";
    out << "  " << Padded("attached", 16)
        << PoolProcessesText(report, report.attached, report.otherNamespaceAttached,
                             report.otherNamespaceDead)
        << "\n";
}

}  // namespace

int RunList(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("ls", args, {}, {"json", "names"});
    arguments.ExpectOperands(0, 0, "no operands");
    if (arguments.Has("json") && arguments.Has("names")) {
        throw UsageError("ls: --json and --names exclude each other");
    }
    const std::vector<SlotReport> reports = SlotSurvey::ListSlots();
    std::vector<Slot::PoolReport> pools;
    for (const std::string& pool : Slot::ListPools()) {
        pools.push_back(Slot::SurveyPool(pool));
    }
    if (arguments.Has("json")) {
        PrintOut(ListJson(reports, pools) + "\n");
        return ExitOk;
    }
    if (arguments.Has("names")) {
        // The names alone, whole (the table cuts its column short), for scripts and the shell's
        // completion.
        std::string names;
        for (const SlotReport& report : reports) {
            names += Printable(report.name) + "\n";
        }
        for (const Slot::PoolReport& pool : pools) {
            names += Printable(pool.name) + "\n";
        }
        PrintOut(names);
        return ExitOk;
    }
    size_t nameWidth = 4;
    for (const SlotReport& report : reports) {
        nameWidth = std::max(nameWidth,
                             std::min<size_t>(CharacterStarts(Printable(report.name)).size(), 48));
    }
    std::ostringstream out;
    out << Padded("NAME", nameWidth) << "  " << Padded("KIND", 10) << "  " << Padded("STATE", 11)
        << "  " << RightAligned("MAX BLOCK", 9) << "  " << RightAligned("WAITING", 11) << "  "
        << Padded("LAST WRITE", 27) << "  " << Padded("OWNER", 8) << "  " << RightAligned("AGE", 4)
        << "  " << Padded("READER", 10) << "  NOTE\n";
    for (const SlotReport& report : reports) {
        const bool queueKnown = QueueKnown(report);
        const std::string kind = KindWord(report);
        const std::string note = NoteText(report);
        uid_t owner = 0;
        double age = -1;
        const bool ownerKnown = OwnerAndAge(report, owner, age);
        std::string line =
            Padded(Printable(report.name), nameWidth) + "  " +
            Padded(kind.empty() ? "-" : kind, 10) + "  " + Padded(StateWord(report), 11) + "  " +
            RightAligned(queueKnown ? std::to_string(report.queue.maxBlockSize) : "-", 9) + "  " +
            RightAligned(queueKnown ? std::to_string(report.queue.waiting) + "/" +
                                          std::to_string(report.queue.capacity)
                                    : "-",
                         11) +
            "  " + Padded(LastWriteCell(report), 27) + "  " +
            Padded(ownerKnown ? UserName(owner) : "-", 8) + "  " +
            RightAligned(ownerKnown ? AgeText(age) : "-", 4) + "  " +
            (note.empty() ? ReaderText(report) : Padded(ReaderText(report), 10) + "  " + note);
        out << line << "\n";
    }
    if (!pools.empty()) {
        out << "\n";
        PrintPools(out, pools);
    }
    PrintOut(out.str());
    return ExitOk;
}

int RunInfo(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("info", args, {}, TargetFlags({"json"}));
    arguments.ExpectOperands(1, 1, "one slot name or recording");
    const std::string name = arguments.Operands()[0];
    if (IsRecordingFile(name)) {
        if (arguments.Has("json")) {
            throw UsageError("info: --json is for slots; a recording is summarised as text");
        }
        return RecordingInfo(name);
    }
    RefuseMissingRecording("open", name);
    if (MeansPool(arguments, "info", name)) {
        const Slot::PoolReport report = Slot::SurveyPool(name);
        if (!report.exists) {
            throw CommandError(ExitFailure, Quote(name) + " is not a pool: there is no " +
                                                Printable(Slot::PoolPath(name)));
        }
        if (arguments.Has("json")) {
            PrintOut(Slot::PoolInfoJson(report) + "\n");
        } else {
            std::ostringstream out;
            PrintPoolInfo(out, report);
            PrintOut(out.str());
        }
        return ExitOk;
    }
    const SlotReport report = SlotSurvey::InspectSlot(name);
    if (const SlotPartReport* part = UnusablePart(report)) {
        throw CommandError(ExitFailure,
                           "cannot open " + Printable(part->path) + ": " +
                               (part->detail.empty() ? "Permission denied" : part->detail));
    }
    auto noSlotPart = [](const SlotPartReport& part) {
        return part.state == SlotPartState::Absent || part.state == SlotPartState::Foreign;
    };
    if (noSlotPart(report.header) && noSlotPart(report.queue) && report.pipePath.empty()) {
        std::string reason;
        if (!report.HasSharedMemory()) {
            reason = "there is no " + ShmPath(name) + " or " + ShmPath(QueueObject(name)) +
                     " and no named pipe of that name";
        } else {
            const SlotPartReport& part = report.header.state == SlotPartState::Foreign
                                             ? static_cast<const SlotPartReport&>(report.header)
                                             : report.queue;
            reason = part.path + " is " + part.detail;
        }
        throw CommandError(ExitFailure, Quote(name) + " is not a slot: " + Printable(reason));
    }
    if (arguments.Has("json")) {
        PrintOut(InfoJson(report) + "\n");
    } else {
        std::ostringstream out;
        PrintInfo(out, report);
        PrintOut(out.str());
    }
    return ExitOk;
}

}  // namespace slotctl
