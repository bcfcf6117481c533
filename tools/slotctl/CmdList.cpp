// SPDX-License-Identifier: Apache-2.0
// slotctl ls / info: what is there, as the library's inspection sees it, without disturbing it.
#include "Cli.h"
#include "Commands.h"
#include "Json.h"
#include "Names.h"
#include "Recording.h"

#include <Slot/SlotAttachments.h>
#include <Slot/SlotSurvey.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>

namespace slotctl {

namespace {

bool PartReadable(const SlotPartReport& part) {
    return part.state == SlotPartState::Ok || part.state == SlotPartState::Damaged ||
           part.state == SlotPartState::Unfinished;
}

// A part this user cannot use: it exists, but cannot be opened read-write.
const SlotPartReport* UnusablePart(const SlotReport& report) {
    for (const SlotPartReport* part : {static_cast<const SlotPartReport*>(&report.header),
                                       static_cast<const SlotPartReport*>(&report.queue)}) {
        if (part->state == SlotPartState::NoAccess ||
            (part->state != SlotPartState::Absent && part->state != SlotPartState::Foreign &&
             !part->writable)) {
            return part;
        }
    }
    return nullptr;
}

// One word for listings: "slot", "pipe", "header-only", "queue-only", "no-access", "busy",
// "dead-holder", "unfinished", "damaged".
std::string StateWord(const SlotReport& report) {
    switch (report.state) {
        case SlotState::Healthy:
            return UnusablePart(report) != nullptr ? "no-access" : "slot";
        case SlotState::Half:
            return report.header.state == SlotPartState::Absent ? "queue-only" : "header-only";
        default:
            return SlotStateText(report.state);
    }
}

std::string KindWord(const SlotReport& report) {
    return report.kind == SlotKind::Unknown ? "" : SlotKindText(report.kind);
}

bool QueueKnown(const SlotReport& report) {
    return report.queue.capacity != 0;
}

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

std::string LastWriteText(const SlotReport& report) {
    if (!PartReadable(report.header) || !report.header.Has(SlotImage::LastWriteTime)) {
        return "-";
    }
    return FormatTime(report.header.lastWrite);
}

// The part that tells the slot's owner and age: the header segment, else the queue; nullptr for
// a FIFO alone.
const SlotPartReport* MainPart(const SlotReport& report) {
    if (report.header.state != SlotPartState::Absent) {
        return &report.header;
    }
    if (report.queue.state != SlotPartState::Absent) {
        return &report.queue;
    }
    return nullptr;
}

// Owner uid and age of the slot (its header's, or its queue's, or its FIFO's); false when
// unknown.
bool OwnerAndAge(const SlotReport& report, uid_t& owner, double& age) {
    if (const SlotPartReport* part = MainPart(report)) {
        owner = part->owner;
        age = part->ageSeconds;
        return true;
    }
    struct stat st;
    if (!report.pipePath.empty() && ::lstat(report.pipePath.c_str(), &st) == 0) {
        owner = st.st_uid;
        timespec now;
        ::clock_gettime(CLOCK_REALTIME, &now);
        age = static_cast<double>(now.tv_sec - st.st_ctim.tv_sec);
        return true;
    }
    return false;
}

std::string UserName(uid_t uid) {
    struct passwd entry;
    struct passwd* found = nullptr;
    char buffer[4096];
    if (::getpwuid_r(uid, &entry, buffer, sizeof(buffer), &found) == 0 && found != nullptr) {
        return Printable(found->pw_name);
    }
    return std::to_string(uid);
}

// "12s", "5m", "3h", "2d": since the object was made (its status change time).
std::string AgeText(double seconds) {
    if (seconds < 0) {
        return "-";
    }
    const auto s = static_cast<std::uint64_t>(seconds);
    if (s < 120) {
        return std::to_string(s) + "s";
    }
    if (s < 7200) {
        return std::to_string(s / 60) + "m";
    }
    if (s < 172800) {
        return std::to_string(s / 3600) + "h";
    }
    return std::to_string(s / 86400) + "d";
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

void AddHolder(Json& json, const SlotReport& report) {
    json.Key("holder");
    const SlotLockReport* shown = nullptr;
    for (const SlotLockReport& lock : report.heldLocks) {
        if (shown == nullptr || (lock.HolderDead() && !shown->HolderDead())) {
            shown = &lock;
        }
    }
    if (shown == nullptr) {
        json.Null();
        return;
    }
    json.BeginObject();
    json.Key("lock").String(shown->lock);
    json.Key("pid").SignedNumber(shown->HolderDead() ? shown->thread : shown->process);
    json.Key("alive").Bool(!shown->HolderDead());
    json.EndObject();
}

void AddSummary(Json& json, const SlotReport& report) {
    json.Key("name").String(report.name);
    json.Key("state").String(StateWord(report));
    const std::string kind = KindWord(report);
    json.Key("kind");
    kind.empty() ? json.Null() : json.String(kind);
    const bool queueKnown = QueueKnown(report);
    json.Key("max_block_size");
    queueKnown ? json.Number(report.queue.maxBlockSize) : json.Null();
    json.Key("waiting");
    queueKnown ? json.Number(report.queue.waiting) : json.Null();
    json.Key("capacity");
    queueKnown ? json.Number(report.queue.capacity) : json.Null();
    json.Key("last_write");
    const std::string lastWrite = LastWriteText(report);
    lastWrite == "-" ? json.Null() : json.String(lastWrite);
    json.Key("reader");
    if (report.kind == SlotKind::Reliable) {
        json.BeginObject();
        json.Key("lock_file").String(report.readerLockFile);
        json.Key("held").Bool(report.readerPid != 0);
        json.Key("pid");
        report.readerPid > 0 ? json.SignedNumber(report.readerPid) : json.Null();
        json.EndObject();
    } else {
        json.Null();
    }
    json.Key("pipe");
    report.pipePath.empty() ? json.Null() : json.String(report.pipePath);
    AddHolder(json, report);
    uid_t owner = 0;
    double age = -1;
    const bool known = OwnerAndAge(report, owner, age);
    json.Key("owner");
    known ? json.String(UserName(owner)) : json.Null();
    json.Key("uid");
    known ? json.Number(owner) : json.Null();
    json.Key("age_seconds");
    known&& age >= 0 ? json.Number(static_cast<std::uint64_t>(age)) : json.Null();
    json.Key("detail");
    report.detail.empty() ? json.Null() : json.String(report.detail);
}

void AddPart(Json& json, const SlotPartReport& part) {
    json.Key("object").String(part.path);
    json.Key("state").String(SlotPartStateText(part.state));
    json.Key("detail");
    part.detail.empty() ? json.Null() : json.String(part.detail);
    json.Key("size").Number(part.size);
}

std::string InfoJson(const SlotReport& report) {
    Json json;
    json.BeginObject();
    AddSummary(json, report);
    const SlotHeaderReport& h = report.header;
    json.Key("header").BeginObject();
    AddPart(json, h);
    if (PartReadable(h)) {
        json.Key("free").Number(h.freeBytes);
        json.Key("named_objects").Number(h.namedObjects);
        json.Key("unique_objects").Number(h.uniqueObjects);
        json.Key("objects").BeginObject();
        for (int i = 0; i < SlotImage::HeaderObjectCount; ++i) {
            json.Key(SlotImage::HeaderObjectNames[i]);
            h.Has(SlotImage::HeaderObject(i)) ? json.Number(h.objectBytes[i]) : json.Null();
        }
        json.EndObject();
        json.Key("output_buffer_data_size").Number(h.outputDataSize);
        json.Key("output_buffer_handle").SignedNumber(h.outputHandle);
        json.Key("output_buffer_size").Number(h.outputBufferSize);
    }
    json.EndObject();
    json.Key("queue").BeginObject();
    AddPart(json, report.queue);
    json.EndObject();
    json.Key("locks").BeginArray();
    for (const SlotLockReport& lock : report.heldLocks) {
        json.BeginObject();
        json.Key("lock").String(lock.lock);
        json.Key("thread").SignedNumber(lock.thread);
        json.Key("pid");
        lock.HolderDead() ? json.Null() : json.SignedNumber(lock.process);
        json.Key("alive").Bool(!lock.HolderDead());
        json.EndObject();
    }
    json.EndArray();
    const SlotAttachmentList attached = SlotAttachments::Find(report.name, report.pipePath);
    json.Key("attached").BeginArray();
    for (const SlotAttachment& process : attached.processes) {
        json.BeginObject();
        json.Key("pid").SignedNumber(process.pid);
        json.Key("uid").Number(process.uid);
        json.Key("command").String(process.command);
        json.Key("header").Bool(process.header);
        json.Key("queue").Bool(process.queue);
        json.Key("pipe").Bool(process.pipe);
        json.Key("reader").Bool(process.reader);
        json.EndObject();
    }
    json.EndArray();
    json.Key("unreadable_processes").Number(attached.unreadable);
    json.EndObject();
    return json.Text();
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
    if (PartReadable(h) && h.Has(SlotImage::LastWriteTime)) {
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
        const std::string values[SlotImage::HeaderObjectCount] = {
            FormatTime(h.lastWrite), std::to_string(h.outputDataSize),
            std::to_string(h.outputHandle) + " (buffer of " + std::to_string(h.outputBufferSize) +
                " bytes)",
            ""};
        for (int i = 0; i < SlotImage::HeaderObjectCount; ++i) {
            out << "    " << Padded(SlotImage::HeaderObjectNames[i], 25);
            if (h.Has(SlotImage::HeaderObject(i))) {
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

}  // namespace

int RunList(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("ls", args, {}, {"json"});
    arguments.ExpectOperands(0, 0, "no operands");
    const std::vector<SlotReport> reports = SlotSurvey::ListSlots();
    if (arguments.Has("json")) {
        Json json;
        json.BeginArray();
        for (const SlotReport& report : reports) {
            json.BeginObject();
            AddSummary(json, report);
            json.EndObject();
        }
        json.EndArray();
        std::cout << json.Text() << std::endl;
        return ExitOk;
    }
    size_t nameWidth = 4;
    for (const SlotReport& report : reports) {
        nameWidth = std::max(nameWidth, std::min<size_t>(Printable(report.name).size(), 48));
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
            "  " + Padded(LastWriteText(report), 27) + "  " +
            Padded(ownerKnown ? UserName(owner) : "-", 8) + "  " +
            RightAligned(ownerKnown ? AgeText(age) : "-", 4) + "  " +
            (note.empty() ? ReaderText(report) : Padded(ReaderText(report), 10) + "  " + note);
        out << line << "\n";
    }
    std::cout << out.str() << std::flush;
    return ExitOk;
}

int RunInfo(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("info", args, {}, {"json"});
    arguments.ExpectOperands(1, 1, "one slot name or recording");
    const std::string name = arguments.Operands()[0];
    if (IsRecordingFile(name)) {
        if (arguments.Has("json")) {
            throw UsageError("info: --json is for slots; a recording is summarised as text");
        }
        return RecordingInfo(name);
    }
    CheckSlotName(name);
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
        std::cout << InfoJson(report) << std::endl;
    } else {
        std::ostringstream out;
        PrintInfo(out, report);
        std::cout << out.str() << std::flush;
    }
    return ExitOk;
}

}  // namespace slotctl
