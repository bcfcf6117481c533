// SPDX-License-Identifier: Apache-2.0
#include "Probe.h"

#include "Cli.h"

#include <Slot/BoostInterprocess/BaseQueueSlot.h>

#include <FileUtils/FSUtils.h>
#include <FileUtils/NamedPipeCreator.h>
#include <shared/FileLock.h>
#include <shared/InterprocCondition.h>
#include <shared/SharedMemory.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/exceptions.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <thread>
#include <type_traits>

namespace slotctl {

namespace {

const char* const ShmDirectory = "/dev/shm";

// A time limit for one look inside a segment. Generous: the locks involved are held for
// microseconds by live processes, so only a lock left by a dead process runs into it.
const int ProbeTimeoutMs = 3000;

// Boost.Interprocess writes a 32-bit state word at offset 0 of a managed segment or queue and
// sets it to 2 once the creator has built the contents (managed_open_or_create_impl). Opening
// an object whose word is still 0 or 1 spins until it changes, for ever if its creator died, so
// the word is checked with a plain read before Boost is allowed near the object.
const std::uint32_t BoostInitialisedWord = 2;
const std::uint32_t BoostInitialisingWordMax = 1;

// What a forked helper reports about an object: its state and, when Ok, its contents.
template <class Contents>
struct Probe {
    PartState state;
    char detail[96];
    Contents contents;
};

template <class Contents>
void SetOutcome(Probe<Contents>& probe, PartState state, const std::string& detail) {
    probe.state = state;
    std::strncpy(probe.detail, detail.c_str(), sizeof(probe.detail) - 1);
    probe.detail[sizeof(probe.detail) - 1] = '\0';
}

// Runs `body` in a forked child and returns what it reports. When the child does not answer
// within the time limit it is killed and the result is Busy; when it dies (a crash on a
// damaged object) the result is Foreign.
template <class Contents, class Body>
Probe<Contents> RunProbe(Body body) {
    static_assert(std::is_trivially_copyable<Probe<Contents>>::value, "a probe crosses a pipe");
    Probe<Contents> result{};
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        SetOutcome(result, PartState::Busy,
                   std::string("cannot make a pipe: ") + std::strerror(errno));
        return result;
    }
    const pid_t pid = ::fork();
    if (pid < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        SetOutcome(result, PartState::Busy, std::string("cannot fork: ") + std::strerror(errno));
        return result;
    }
    if (pid == 0) {
        ::close(fds[0]);
        Probe<Contents> probe{};
        try {
            body(probe);
        } catch (const std::exception& e) {
            SetOutcome(probe, PartState::Foreign, e.what());
        }
        const char* bytes = reinterpret_cast<const char*>(&probe);
        size_t done = 0;
        while (done < sizeof(probe)) {
            const ssize_t n = ::write(fds[1], bytes + done, sizeof(probe) - done);
            if (n <= 0) {
                break;
            }
            done += static_cast<size_t>(n);
        }
        ::_exit(0);
    }
    ::close(fds[1]);
    char* bytes = reinterpret_cast<char*>(&result);
    size_t done = 0;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(ProbeTimeoutMs);
    bool timedOut = false;
    while (done < sizeof(result)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timedOut = true;
            break;
        }
        pollfd p = {fds[0], POLLIN, 0};
        const int r = ::poll(&p, 1, static_cast<int>(left.count()));
        if (r < 0 && errno == EINTR) {
            continue;
        }
        if (r <= 0) {
            timedOut = r == 0;
            break;
        }
        const ssize_t n = ::read(fds[0], bytes + done, sizeof(result) - done);
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    ::close(fds[0]);
    if (timedOut) {
        ::kill(pid, SIGKILL);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (done == sizeof(result)) {
        return result;
    }
    result = Probe<Contents>{};
    if (timedOut) {
        SetOutcome(result, PartState::Busy,
                   "no answer within " + std::to_string(ProbeTimeoutMs / 1000) +
                       " s: a lock inside it is held (its holder may have died)");
    } else {
        SetOutcome(result, PartState::Foreign,
                   WIFSIGNALED(status) ? "damaged: reading it killed the helper (signal " +
                                             std::to_string(WTERMSIG(status)) + ")"
                                       : std::string("unreadable"));
    }
    return result;
}

// Checks an object with plain file operations before Boost opens it.
PartState PreCheck(const std::string& name, std::uint64_t& fileSize, std::string& detail) {
    const std::string path = ShmPath(name);
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        return PartState::Absent;
    }
    if (!S_ISREG(st.st_mode)) {
        detail = "not a regular file";
        return PartState::Foreign;
    }
    fileSize = static_cast<std::uint64_t>(st.st_size);
    bool writable = true;
    int fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0 && (errno == EACCES || errno == EPERM || errno == EROFS)) {
        writable = false;
        detail = std::strerror(errno);
        fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    }
    if (fd < 0) {
        detail = std::strerror(errno);
        return errno == ENOENT ? PartState::Absent : PartState::NoAccess;
    }
    std::uint32_t word = 0;
    const ssize_t n = ::pread(fd, &word, sizeof(word), 0);
    ::close(fd);
    if (fileSize == 0 || (n == sizeof(word) && word <= BoostInitialisingWordMax)) {
        detail = "not initialised: being created, or its creator died while creating it";
        return PartState::Unfinished;
    }
    if (n != sizeof(word) || word != BoostInitialisedWord || fileSize < 64) {
        detail = "not a Boost.Interprocess object";
        return PartState::Foreign;
    }
    return writable ? PartState::Ok : PartState::NoAccess;
}

size_t ObjectsFound(const HeaderContents& contents) {
    return static_cast<size_t>(std::count_if(std::begin(contents.objectBytes),
                                             std::end(contents.objectBytes),
                                             [](std::uint64_t bytes) { return bytes != 0; }));
}

// Finds the named object `object`: records its size in `contents` and returns its address
// (nullptr when it is missing).
template <class T>
const T* FindObject(shared::SlotSegment& segment, HeaderObject object, HeaderContents& contents) {
    const std::pair<T*, shared::SlotSegment::size_type> found =
        segment.find<T>(HeaderObjectNames[object]);
    contents.objectBytes[object] = found.second * sizeof(T);
    return found.first;
}

Probe<HeaderContents> ProbeHeader(const std::string& name, std::uint64_t fileSize) {
    return RunProbe<HeaderContents>([&](Probe<HeaderContents>& probe) {
        // Read-write: find() takes the segment manager's lock, which lives in the segment.
        shared::SlotSegment segment(boost::interprocess::open_only, name.c_str());
        // The size the segment manager records (plus its offset) must be the object's size: a
        // cheap test that this is a managed segment before following any offset stored in it.
        if (segment.get_size() != fileSize) {
            SetOutcome(probe, PartState::Foreign, "not a managed segment");
            return;
        }
        HeaderContents& contents = probe.contents;
        const boost::posix_time::ptime* lastWrite = nullptr;
        const unsigned int* dataSize = nullptr;
        const int* handle = nullptr;
        auto look = [&] {
            lastWrite = FindObject<boost::posix_time::ptime>(segment, LastWriteTime, contents);
            dataSize = FindObject<unsigned int>(segment, OutputDataSize, contents);
            handle = FindObject<int>(segment, OutputHandle, contents);
            FindObject<shared::InterprocCondition>(segment, WriteCondition, contents);
            contents.namedObjects = segment.get_num_named_objects();
            contents.uniqueObjects = segment.get_num_unique_objects();
            contents.freeMemory = segment.get_free_memory();
        };
        // The segment manager's lock is only tried, so a lock left by a dead process is
        // reported instead of waited for.
        bool looked = false;
        for (int attempt = 0; attempt < 100 && !looked; ++attempt) {
            looked = segment.get_segment_manager()->try_atomic_func(look);
            if (!looked) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        if (!looked) {
            SetOutcome(probe, PartState::Busy,
                       "its segment lock stays held (its holder may have died)");
            return;
        }
        if (ObjectsFound(contents) == 0) {
            SetOutcome(probe, PartState::Foreign, "a managed segment without a slot header");
            return;
        }
        // Read without the header mutex, as the library's GetLastWriteTime does.
        if (lastWrite != nullptr) {
            contents.lastWrite = *lastWrite;
        }
        if (dataSize != nullptr) {
            contents.outputDataSize = *dataSize;
        }
        if (handle != nullptr) {
            contents.outputHandle = *handle;
        }
        SetOutcome(probe, PartState::Ok, "");
    });
}

Probe<QueueContents> ProbeQueue(const std::string& queueName, std::uint64_t fileSize) {
    return RunProbe<QueueContents>([&](Probe<QueueContents>& probe) {
        BaseQueueSlot::MessageQueue queue(boost::interprocess::open_only, queueName.c_str());
        QueueContents& contents = probe.contents;
        contents.capacity = queue.get_max_msg();
        contents.maxBlockSize = queue.get_max_msg_size();
        // Plausible sizes first: get_num_msg() locks a mutex at a fixed place in the header.
        if (contents.capacity == 0 || contents.capacity > fileSize ||
            (contents.maxBlockSize != 0 && contents.capacity > fileSize / contents.maxBlockSize)) {
            SetOutcome(probe, PartState::Foreign, "not a message queue");
            return;
        }
        contents.waiting = queue.get_num_msg();
        if (contents.waiting > contents.capacity) {
            SetOutcome(probe, PartState::Foreign, "not a message queue");
            return;
        }
        SetOutcome(probe, PartState::Ok, "");
    });
}

// Checks the object `name` with file operations and, when they find nothing wrong, looks
// inside it with `probe`.
template <class Contents>
PartInfo<Contents> InspectPart(const std::string& name,
                               Probe<Contents> (*probe)(const std::string&, std::uint64_t)) {
    PartInfo<Contents> info;
    info.state = PreCheck(name, info.fileSize, info.detail);
    if (info.state == PartState::Ok) {
        const Probe<Contents> found = probe(name, info.fileSize);
        info.state = found.state;
        info.detail = found.detail;
        static_cast<Contents&>(info) = found.contents;
    }
    return info;
}

HeaderInfo InspectHeader(const std::string& name) {
    return InspectPart(name, ProbeHeader);
}

QueueInfo InspectQueue(const std::string& queueName) {
    return InspectPart(queueName, ProbeQueue);
}

bool IsFifo(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode);
}

void AddReaderLock(SlotReport& report) {
    if (report.Kind() != "reliable") {
        return;
    }
    report.lockPath = FileUtils::FSUtils::GetSingletonFileLockName(report.name);
    report.readerPid = shared::FileLock::Holder(report.lockPath);
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

}  // namespace

const char* const HeaderObjectNames[HeaderObjectCount] = {
    "last_write_tstamp", "output_buffer_data_size", "output_buffer_handle", "cond_on_write"};

const char* PartStateText(PartState state) {
    switch (state) {
        case PartState::Absent:
            return "absent";
        case PartState::Ok:
            return "ok";
        case PartState::NoAccess:
            return "no access";
        case PartState::Busy:
            return "busy";
        case PartState::Unfinished:
            return "unfinished";
        case PartState::Foreign:
            return "not a slot part";
    }
    return "?";
}

bool SlotReport::HasSharedMemory() const {
    return header.state != PartState::Absent || queue.state != PartState::Absent;
}

bool SlotReport::IsHalf() const {
    const bool headerThere = header.state == PartState::Ok;
    const bool queueThere = queue.state == PartState::Ok;
    return (headerThere && queue.state == PartState::Absent) ||
           (queueThere && header.state == PartState::Absent);
}

std::string SlotReport::Kind() const {
    if (queue.state == PartState::Ok) {
        return queue.capacity == 1 ? "discarding" : "reliable";
    }
    if (!HasSharedMemory() && !pipePath.empty()) {
        return "posix-pipe";
    }
    return "";
}

std::string SlotReport::State() const {
    if (!HasSharedMemory()) {
        return pipePath.empty() ? "absent" : "pipe";
    }
    if (header.state == PartState::Ok && queue.state == PartState::Ok) {
        return ObjectsFound(header) == HeaderObjectCount ? "slot" : "damaged";
    }
    if (header.state == PartState::Ok && queue.state == PartState::Absent) {
        return "header-only";
    }
    if (queue.state == PartState::Ok && header.state == PartState::Absent) {
        return "queue-only";
    }
    // The worst state of either part, in this order.
    const struct {
        PartState state;
        const char* word;
    } worst[] = {{PartState::NoAccess, "no-access"},
                 {PartState::Busy, "busy"},
                 {PartState::Unfinished, "unfinished"}};
    for (const auto& w : worst) {
        if (header.state == w.state || queue.state == w.state) {
            return w.word;
        }
    }
    return "damaged";
}

std::string SlotReport::NotASlotReason() const {
    if (!HasSharedMemory()) {
        return "there is no " + ShmPath(name) + " or " + ShmPath(QueueObject(name)) +
               " and no named pipe of that name";
    }
    const bool byHeader = header.state == PartState::Foreign;
    return ShmPath(byHeader ? name : QueueObject(name)) + " is " +
           (byHeader ? header.detail : queue.detail);
}

SlotReport InspectSlot(const std::string& name) {
    SlotReport report;
    report.name = name;
    report.header = InspectHeader(name);
    report.queue = InspectQueue(QueueObject(name));
    const std::string pipe = FileUtils::NamedPipeCreator::ConstructPipeFilename(name);
    if (IsFifo(pipe)) {
        report.pipePath = pipe;
    }
    AddReaderLock(report);
    return report;
}

std::vector<SlotReport> ScanSlots() {
    std::map<std::string, SlotReport> slots;
    auto entry = [&slots](const std::string& name) -> SlotReport& {
        SlotReport& report = slots[name];
        report.name = name;
        return report;
    };
    const std::set<std::string> objects = ListDirectory(ShmDirectory);
    std::set<std::string> headers;
    for (const std::string& name : objects) {
        HeaderInfo header = InspectHeader(name);
        if (header.state == PartState::Ok || header.state == PartState::Busy) {
            headers.insert(name);
            entry(name).header = header;
        } else if (header.state != PartState::Foreign && objects.count(QueueObject(name)) != 0) {
            // Cannot look inside, but its queue is there: list the pair as what it seems.
            entry(name).header = header;
        }
    }
    const std::string queuePrefix = QueueObject("");
    for (const std::string& name : objects) {
        if (!StartsWith(name, queuePrefix) || headers.count(name) != 0) {
            continue;
        }
        const std::string slotName = name.substr(queuePrefix.size());
        if (slotName.empty()) {
            continue;
        }
        QueueInfo queue = InspectQueue(name);
        if (queue.state == PartState::Foreign) {
            continue;
        }
        if (queue.state != PartState::Ok && queue.state != PartState::Busy &&
            slots.count(slotName) == 0) {
            continue;  // an object we cannot read whose header is not there either
        }
        SlotReport& report = entry(slotName);
        report.queue = queue;
        if (report.header.state == PartState::Absent && objects.count(slotName) != 0) {
            // The header is there but could not be recognised as one.
            report.header = InspectHeader(slotName);
        }
    }
    // "<dir>/<name>.fifo": the directory and the suffix of the library's named pipes.
    const std::string anyPipe = FileUtils::NamedPipeCreator::ConstructPipeFilename("");
    const std::string pipeDir = anyPipe.substr(0, anyPipe.rfind('/'));
    const std::string fifoSuffix = anyPipe.substr(pipeDir.size() + 1);
    for (const std::string& file : ListDirectory(pipeDir)) {
        const std::string path = pipeDir + "/" + file;
        if (EndsWith(file, fifoSuffix) && file.size() > fifoSuffix.size() && IsFifo(path)) {
            entry(file.substr(0, file.size() - fifoSuffix.size())).pipePath = path;
        }
    }
    std::vector<SlotReport> result;
    for (auto& item : slots) {
        AddReaderLock(item.second);
        result.push_back(item.second);
    }
    return result;
}

std::string QueueObject(const std::string& name) {
    return BaseQueueSlot::GetQueueName(name);
}

std::string ShmPath(const std::string& name) {
    return std::string(ShmDirectory) + "/" + name;
}

bool ShmExists(const std::string& name) {
    struct stat st;
    return ::lstat(ShmPath(name).c_str(), &st) == 0;
}

double ShmAgeSeconds(const std::string& name) {
    struct stat st;
    if (::lstat(ShmPath(name).c_str(), &st) != 0) {
        return -1;
    }
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec - st.st_ctim.tv_sec) +
           static_cast<double>(now.tv_nsec - st.st_ctim.tv_nsec) / 1e9;
}

std::string FormatTime(const boost::posix_time::ptime& time) {
    if (time.is_special()) {
        return "never";
    }
    return boost::posix_time::to_iso_extended_string(time) + "Z";
}

}  // namespace slotctl
