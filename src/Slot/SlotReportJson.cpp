// SPDX-License-Identifier: Apache-2.0
#include <Slot/SlotReportJson.h>

#include <Slot/PoolSegment.h>
#include <Slot/SlotAttachments.h>
#include <Slot/SlotNames.h>
#include <Slot/SlotText.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <pwd.h>
#include <sys/stat.h>
#include <cstdint>
#include <ctime>
#include <utility>

namespace Slot {

bool PartReadable(const SlotPartReport& part) {
    return part.state == SlotPartState::Ok || part.state == SlotPartState::Damaged ||
           part.state == SlotPartState::Unfinished;
}

bool QueueKnown(const SlotReport& report) {
    return report.queue.capacity != 0;
}

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

std::string StateWord(const SlotReport& report) {
    switch (report.state) {
        case SlotState::Healthy:
            return UnusablePart(report) != nullptr ? SlotStateText(SlotState::NoAccess) : "slot";
        case SlotState::Half:
            return report.header.state == SlotPartState::Absent ? "queue-only" : "header-only";
        default:
            return SlotStateText(report.state);
    }
}

std::vector<std::string> StateWords() {
    std::vector<std::string> words;
    for (SlotState state :
         {SlotState::Absent, SlotState::Pipe, SlotState::DeadHolder, SlotState::NoAccess,
          SlotState::Damaged, SlotState::Unfinished, SlotState::Busy}) {
        words.push_back(SlotStateText(state));
    }
    for (const char* word : {"header-only", "queue-only", "slot"}) {
        words.push_back(word);
    }
    return words;
}

std::string KindWord(const SlotReport& report) {
    return report.kind == SlotKind::Unknown ? "" : SlotKindText(report.kind);
}

std::vector<std::string> KindWords() {
    std::vector<std::string> words;
    for (SlotKind kind : {SlotKind::Discarding, SlotKind::Reliable, SlotKind::PosixPipe}) {
        words.push_back(SlotKindText(kind));
    }
    return words;
}

std::vector<std::string> PartStateWords() {
    std::vector<std::string> words;
    for (SlotPartState state :
         {SlotPartState::Absent, SlotPartState::Ok, SlotPartState::NoAccess,
          SlotPartState::Unfinished, SlotPartState::Damaged, SlotPartState::Foreign}) {
        words.push_back(SlotPartStateText(state));
    }
    return words;
}

std::string TimeText(const boost::posix_time::ptime& time) {
    if (time.is_special()) {
        return "never";
    }
    return boost::posix_time::to_iso_extended_string(time) + "Z";
}

std::string LastWriteText(const SlotReport& report) {
    if (!PartReadable(report.header) || !report.header.Has(LastWriteTime)) {
        return "";
    }
    return TimeText(report.header.lastWrite);
}

namespace {

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

}  // namespace

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

namespace {

// The held lock a listing names: a dead holder's before a live one's.
void AddHolder(JsonWriter& json, const SlotReport& report) {
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

void AddPart(JsonWriter& json, const SlotPartReport& part) {
    json.Key("object").String(part.path);
    json.Key("state").String(SlotPartStateText(part.state));
    json.Key("detail");
    part.detail.empty() ? json.Null() : json.String(part.detail);
    json.Key("size").Number(part.size);
}

}  // namespace

void AddListEntry(JsonWriter& json, const SlotReport& report) {
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
    lastWrite.empty() ? json.Null() : json.String(lastWrite);
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

std::string ListJson(const std::vector<SlotReport>& reports) {
    JsonWriter json;
    json.BeginArray();
    for (const SlotReport& report : reports) {
        json.BeginObject();
        AddListEntry(json, report);
        json.EndObject();
    }
    json.EndArray();
    return json.Text();
}

std::string InfoJson(const SlotReport& report) {
    JsonWriter json;
    json.BeginObject();
    AddListEntry(json, report);
    const SlotHeaderReport& h = report.header;
    json.Key("header").BeginObject();
    AddPart(json, h);
    if (PartReadable(h)) {
        json.Key("free").Number(h.freeBytes);
        json.Key("named_objects").Number(h.namedObjects);
        json.Key("unique_objects").Number(h.uniqueObjects);
        json.Key("objects").BeginObject();
        for (int i = 0; i < HeaderObjectCount; ++i) {
            json.Key(HeaderObjectNames[i]);
            h.Has(HeaderObject(i)) ? json.Number(h.objectBytes[i]) : json.Null();
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

namespace {

void AddPid(JsonWriter& json, const PoolReport& report, pid_t pid) {
    json.BeginObject();
    json.Key("pid").SignedNumber(pid);
    json.Key("alive").Bool(report.Alive(pid));
    json.EndObject();
}

void AddPids(JsonWriter& json, const PoolReport& report, const std::vector<pid_t>& pids) {
    json.BeginArray();
    for (pid_t pid : pids) {
        AddPid(json, report, pid);
    }
    json.EndArray();
}

}  // namespace

void AddPoolEntry(JsonWriter& json, const PoolReport& report) {
    json.Key("name").String(report.name);
    json.Key("pool").Bool(true);
    json.Key("state").String(report.state);
    json.Key("detail");
    report.problem.empty() ? json.Null() : json.String(report.problem);
    // The geometry is known when the header passed its checks (the kind is set with it).
    const bool known = !report.kind.empty();
    json.Key("kind");
    known ? json.String(report.kind) : json.Null();
    json.Key("block_size");
    known ? json.Number(report.maxBlockSize) : json.Null();
    json.Key("block_count");
    known ? json.Number(report.blockCount) : json.Null();
    for (const auto& count :
         {std::make_pair("free", report.freeBlocks), std::make_pair("loaned", report.loanedBlocks),
          std::make_pair("waiting", report.waitingBlocks),
          std::make_pair("held", report.heldBlocks)}) {
        json.Key(count.first);
        known ? json.Number(count.second) : json.Null();
    }
    json.Key("last_sequence");
    known ? json.Number(report.lastSequence) : json.Null();
    json.Key("holders");
    AddPids(json, report, report.holders);
    json.Key("reader");
    if (report.kind == "queue" && report.queueReader != 0) {
        AddPid(json, report, report.queueReader);
    } else {
        json.Null();
    }
    // Their pids mean nothing here: counted, not listed.
    json.Key("other_pid_namespaces").BeginObject();
    json.Key("attached").Number(report.otherNamespaceAttached);
    json.Key("dead").Number(report.otherNamespaceDead);
    json.Key("holders").Number(report.otherNamespaceHolders);
    json.Key("reader").Bool(report.queueReaderInOtherNamespace);
    json.EndObject();
}

std::string ListJson(const std::vector<SlotReport>& slots, const std::vector<PoolReport>& pools) {
    JsonWriter json;
    json.BeginArray();
    for (const SlotReport& report : slots) {
        json.BeginObject();
        AddListEntry(json, report);
        json.EndObject();
    }
    for (const PoolReport& report : pools) {
        json.BeginObject();
        AddPoolEntry(json, report);
        json.EndObject();
    }
    json.EndArray();
    return json.Text();
}

std::string PoolListJson(const std::vector<PoolReport>& pools) {
    return ListJson({}, pools);
}

std::string PoolInfoJson(const PoolReport& report) {
    JsonWriter json;
    json.BeginObject();
    AddPoolEntry(json, report);
    json.Key("file").String(PoolPath(report.name));
    json.Key("file_size");
    report.exists ? json.Number(report.fileSize) : json.Null();
    json.Key("attached");
    AddPids(json, report, report.attached);
    json.EndObject();
    return json.Text();
}

}  // namespace Slot
