// SPDX-License-Identifier: Apache-2.0
#include <Slot/SlotSurvey.h>

#include <Slot/BoostInterprocess/SlotImage.h>
#include <Slot/SlotNames.h>
#include <Slot/SlotObjectFile.h>

#include <FileUtils/FSUtils.h>
#include <FileUtils/NamedPipeCreator.h>
#include <shared/FileLock.h>
#include <shared/MutexOwner.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <thread>

namespace {

// A lock that a live process holds is normally released within microseconds, so before calling
// a slot busy it is looked at again, this many times, this far apart.
const int BusyLooks = 20;
const std::chrono::milliseconds BusyPause(5);

// What the file system says about `object`, in `part`; true with `file` open for reading when it
// is a regular file this process may read, else false with the part's state and detail set.
bool OpenObject(const std::string& object, SlotPartReport& part, Slot::SlotObjectFile& file) {
    part.object = object;
    part.path = Slot::ShmPath(object);
    struct stat st;
    if (object.empty() || object.find('/') != std::string::npos ||
        ::lstat(part.path.c_str(), &st) != 0) {
        return false;
    }
    part.owner = st.st_uid;
    part.mode = st.st_mode & 07777;
    part.size = static_cast<std::uint64_t>(st.st_size);
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    part.ageSeconds = static_cast<double>(now.tv_sec - st.st_ctim.tv_sec) +
                      static_cast<double>(now.tv_nsec - st.st_ctim.tv_nsec) / 1e9;
    if (!S_ISREG(st.st_mode)) {
        part.state = SlotPartState::Foreign;
        part.detail = "not a regular file";
        return false;
    }
    part.writable = ::faccessat(AT_FDCWD, part.path.c_str(), W_OK, AT_EACCESS) == 0;
    if (const int error = file.Open(part.path)) {
        part.state = error == ENOENT ? SlotPartState::Absent : SlotPartState::NoAccess;
        part.detail = std::strerror(error);
        return false;
    }
    if (!file.IsRegularFile()) {
        part.state = SlotPartState::Foreign;
        part.detail = "not a regular file";
        return false;
    }
    part.size = file.Size();
    return true;
}

SlotPartState PartStateOf(SlotImage::Verdict verdict) {
    switch (verdict) {
        case SlotImage::Verdict::Unfinished:
            return SlotPartState::Unfinished;
        case SlotImage::Verdict::Foreign:
            return SlotPartState::Foreign;
        case SlotImage::Verdict::Damaged:
            return SlotPartState::Damaged;
        case SlotImage::Verdict::Valid:
            return SlotPartState::Ok;
    }
    return SlotPartState::Foreign;
}

void AddLock(std::vector<SlotLockReport>& locks, const char* lock, pid_t thread) {
    if (thread <= 0) {
        return;
    }
    SlotLockReport held;
    held.lock = lock;
    held.thread = thread;
    held.process = shared::ProcessOfThread(thread);
    locks.push_back(held);
}

// Reads the header segment and fills its report and its held locks.
void InspectHeader(const std::string& name, SlotHeaderReport& header,
                   std::vector<SlotLockReport>& locks) {
    static_cast<SlotPartReport&>(header) = SlotPartReport();
    Slot::SlotObjectFile file;
    if (!OpenObject(name, header, file)) {
        return;
    }
    const SlotImage::HeaderImage image = SlotImage::ParseHeader(file);
    header.state = PartStateOf(image.verdict);
    header.detail = image.problem;
    if (image.verdict == SlotImage::Verdict::Foreign || !image.hasManager) {
        return;
    }
    header.freeBytes = image.freeBytes;
    header.namedObjects = image.namedCount;
    header.uniqueObjects = image.uniqueCount;
    for (int i = 0; i < SlotImage::HeaderObjectCount; ++i) {
        header.objectBytes[i] = image.objects[i].value.present ? image.objects[i].value.size : 0;
    }
    header.lastWrite = image.lastWrite;
    header.outputDataSize = image.outputDataSize;
    header.outputHandle = image.outputHandle;
    header.outputBufferSize = image.outputBuffer.present ? image.outputBuffer.size : 0;
    // The owners recorded in a damaged segment are as untrustworthy as the rest of it.
    if (image.verdict == SlotImage::Verdict::Damaged) {
        return;
    }
    AddLock(locks, "header mutex", image.headerMutexOwnerThread);
    AddLock(locks, "segment index mutex", image.indexMutexOwnerThread);
    AddLock(locks, "segment allocator mutex", image.allocatorMutexOwnerThread);
}

void InspectQueue(const std::string& object, SlotQueueReport& queue,
                  std::vector<SlotLockReport>& locks) {
    static_cast<SlotPartReport&>(queue) = SlotPartReport();
    Slot::SlotObjectFile file;
    if (!OpenObject(object, queue, file)) {
        return;
    }
    const SlotImage::QueueImage image = SlotImage::ParseQueue(file);
    queue.state = PartStateOf(image.verdict);
    queue.detail = image.problem;
    if (image.verdict == SlotImage::Verdict::Foreign || !image.hasControlBlock) {
        return;
    }
    if (image.countsValid) {
        queue.capacity = image.capacity;
        queue.maxBlockSize = image.maxMessageSize;
        queue.waiting = image.waiting;
    }
    if (image.verdict == SlotImage::Verdict::Damaged) {
        return;
    }
    AddLock(locks, "queue mutex", image.mutexOwnerThread);
}

bool IsThere(const SlotPartReport& part) {
    return part.state != SlotPartState::Absent;
}

// The overall state, from the parts and the locks.
void Decide(SlotReport& report) {
    const SlotPartReport* parts[] = {&report.header, &report.queue};
    const char* what[] = {"the header segment", "the queue"};
    auto firstPart = [&](SlotPartState state) -> int {
        for (int i = 0; i < 2; ++i) {
            if (parts[i]->state == state) {
                return i;
            }
        }
        return -1;
    };
    auto partDetail = [&](int i) {
        return std::string(what[i]) + " " + parts[i]->path + ": " + parts[i]->detail;
    };
    if (report.queue.capacity != 0) {
        report.kind = report.queue.capacity == 1 ? SlotKind::Discarding : SlotKind::Reliable;
    }
    if (!report.HasSharedMemory()) {
        report.state = report.pipePath.empty() ? SlotState::Absent : SlotState::Pipe;
        report.kind = report.pipePath.empty() ? SlotKind::Unknown : SlotKind::PosixPipe;
        return;
    }
    for (const SlotLockReport& lock : report.heldLocks) {
        if (lock.HolderDead()) {
            report.state = SlotState::DeadHolder;
            report.deadHolder = lock.thread;
            // A dead thread's process cannot be told any more: the lock records only the thread
            // id, which is the process id of a single-threaded (or main-thread) holder.
            report.detail = "its " + lock.lock + " is held by thread " +
                            std::to_string(lock.thread) + ", which no longer exists";
            return;
        }
    }
    int i = firstPart(SlotPartState::NoAccess);
    if (i >= 0) {
        report.state = SlotState::NoAccess;
        report.detail = partDetail(i);
        return;
    }
    i = firstPart(SlotPartState::Damaged);
    if (i < 0) {
        i = firstPart(SlotPartState::Foreign);
    }
    if (i >= 0) {
        report.state = SlotState::Damaged;
        report.detail = partDetail(i);
        if (parts[i]->state == SlotPartState::Foreign) {
            report.detail = std::string(what[i]) + " " + parts[i]->path +
                            " is not a slot part: " + parts[i]->detail;
        }
        return;
    }
    i = firstPart(SlotPartState::Unfinished);
    if (i >= 0) {
        report.state = SlotState::Unfinished;
        report.detail = partDetail(i);
        return;
    }
    if (!IsThere(report.header) || !IsThere(report.queue)) {
        report.state = SlotState::Half;
        report.detail = IsThere(report.header)
                            ? "half slot: the queue " + report.queue.path + " is missing"
                            : "half slot: the header segment " + report.header.path + " is missing";
        return;
    }
    if (!report.heldLocks.empty()) {
        const SlotLockReport& lock = report.heldLocks.front();
        report.state = SlotState::Busy;
        report.detail = "its " + lock.lock + " is held by pid " + std::to_string(lock.process);
        return;
    }
    report.state = SlotState::Healthy;
}

bool AnyLiveHolder(const std::vector<SlotLockReport>& locks) {
    for (const SlotLockReport& lock : locks) {
        if (!lock.HolderDead()) {
            return true;
        }
    }
    return false;
}

std::set<std::string> ListDirectory(const std::string& dir) {
    std::set<std::string> names;
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) {
        return names;
    }
    while (dirent* entry = ::readdir(d)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.insert(name);
        }
    }
    ::closedir(d);
    return names;
}

// Whether a part makes its name worth listing: a recognisable slot part, or an unfinished
// object with the library's permissions.
bool ListablePart(const SlotPartReport& part) {
    switch (part.state) {
        case SlotPartState::Ok:
        case SlotPartState::Damaged:
            return true;
        case SlotPartState::Unfinished:
            return part.mode == 0644;
        default:
            return false;
    }
}

}  // namespace

const char* SlotPartStateText(SlotPartState state) {
    switch (state) {
        case SlotPartState::Absent:
            return "absent";
        case SlotPartState::Ok:
            return "ok";
        case SlotPartState::NoAccess:
            return "no access";
        case SlotPartState::Unfinished:
            return "unfinished";
        case SlotPartState::Damaged:
            return "damaged";
        case SlotPartState::Foreign:
            return "not a slot part";
    }
    return "?";
}

const char* SlotStateText(SlotState state) {
    switch (state) {
        case SlotState::Absent:
            return "absent";
        case SlotState::Pipe:
            return "pipe";
        case SlotState::DeadHolder:
            return "dead-holder";
        case SlotState::NoAccess:
            return "no-access";
        case SlotState::Damaged:
            return "damaged";
        case SlotState::Unfinished:
            return "unfinished";
        case SlotState::Half:
            return "half";
        case SlotState::Busy:
            return "busy";
        case SlotState::Healthy:
            return "healthy";
    }
    return "?";
}

const char* SlotKindText(SlotKind kind) {
    switch (kind) {
        case SlotKind::Unknown:
            return "unknown";
        case SlotKind::Discarding:
            return "discarding";
        case SlotKind::Reliable:
            return "reliable";
        case SlotKind::PosixPipe:
            return "posix-pipe";
    }
    return "?";
}

bool SlotReport::HasSharedMemory() const {
    return IsThere(header) || IsThere(queue);
}

double SlotReport::AgeSeconds() const {
    double age = -1;
    for (const SlotPartReport* part : {static_cast<const SlotPartReport*>(&header),
                                       static_cast<const SlotPartReport*>(&queue)}) {
        if (IsThere(*part) && part->ageSeconds >= 0 && (age < 0 || part->ageSeconds < age)) {
            age = part->ageSeconds;
        }
    }
    return age;
}

namespace {

// InspectSlot, looking at the locks up to `looks` times while a live process holds one.
SlotReport Inspect(const std::string& name, int looks) {
    SlotReport report;
    report.name = name;
    // A name the system cannot hold has no objects; "queue_" alone is not its queue either.
    if (Slot::SlotNameProblem(name)) {
        return report;
    }
    const std::string queueName = Slot::QueueObjectName(name);
    for (int look = 0; look < looks; ++look) {
        if (look > 0) {
            std::this_thread::sleep_for(BusyPause);
        }
        report.heldLocks.clear();
        InspectHeader(name, report.header, report.heldLocks);
        InspectQueue(queueName, report.queue, report.heldLocks);
        if (!AnyLiveHolder(report.heldLocks)) {
            break;
        }
    }
    const std::string pipe = FileUtils::NamedPipeCreator::PipeFilenameWithoutCreating(name);
    if (FileUtils::NamedPipeCreator::IsPipe(pipe)) {
        report.pipePath = pipe;
    }
    Decide(report);
    if (report.kind == SlotKind::Reliable) {
        report.readerLockFile = FileUtils::FSUtils::SingletonFileLockNameWithoutCreating(name);
        report.readerPid = shared::FileLock::AnyHolder(report.readerLockFile);
    }
    return report;
}

}  // namespace

SlotReport SlotSurvey::InspectSlot(const std::string& name) {
    return Inspect(name, BusyLooks);
}

SlotReport SlotSurvey::InspectSlotAtOnce(const std::string& name) {
    return Inspect(name, 1);
}

std::vector<SlotReport> SlotSurvey::ListSlots() {
    const std::string queuePrefix = Slot::QueueObjectName("");
    // Every name an object could belong to: as a header segment, and as a queue.
    std::set<std::string> candidates;
    for (const std::string& object : ListDirectory(Slot::ShmDirectory())) {
        candidates.insert(object);
        if (object.size() > queuePrefix.size() &&
            object.compare(0, queuePrefix.size(), queuePrefix) == 0) {
            candidates.insert(object.substr(queuePrefix.size()));
        }
    }
    // "<dir>/<name>.fifo": the directory and the suffix of the library's named pipes.
    const std::string anyPipe = FileUtils::NamedPipeCreator::PipeFilenameWithoutCreating("");
    const std::string pipeDir = anyPipe.substr(0, anyPipe.rfind('/'));
    const std::string fifoSuffix = anyPipe.substr(pipeDir.size() + 1);
    std::set<std::string> pipes;
    for (const std::string& file : ListDirectory(pipeDir)) {
        if (file.size() > fifoSuffix.size() &&
            file.compare(file.size() - fifoSuffix.size(), fifoSuffix.size(), fifoSuffix) == 0 &&
            FileUtils::NamedPipeCreator::IsPipe(pipeDir + "/" + file)) {
            const std::string name = file.substr(0, file.size() - fifoSuffix.size());
            pipes.insert(name);
            candidates.insert(name);
        }
    }
    std::vector<SlotReport> slots;
    for (const std::string& name : candidates) {
        SlotReport report = InspectSlot(name);
        const bool queueNamed = name.compare(0, queuePrefix.size(), queuePrefix) == 0;
        // An unfinished object "queue_<x>" is listed once, as the queue of slot <x>.
        const bool ambiguous = queueNamed && report.header.state == SlotPartState::Unfinished &&
                               !IsThere(report.queue);
        // Both parts of a name, neither foreign: a slot even when they cannot be read.
        const bool pair = IsThere(report.header) && IsThere(report.queue) &&
                          report.header.state != SlotPartState::Foreign &&
                          report.queue.state != SlotPartState::Foreign;
        const bool listed =
            !ambiguous && (ListablePart(report.header) || ListablePart(report.queue) || pair ||
                           pipes.count(name) != 0);
        if (listed) {
            slots.push_back(report);
        }
    }
    return slots;
}
