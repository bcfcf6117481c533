#include "Inspect.h"

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
#include <thread>
#include <type_traits>

namespace slotctl {

namespace {

const char* const ShmDirectory = "/dev/shm";
const std::string QueuePrefix = BaseQueueSlot::GetQueueName("");
const std::string FifoSuffix = ".fifo";

// A time limit for one look inside a segment. Generous: the locks involved are held for
// microseconds by live processes, so only a lock left by a dead process runs into it.
const int ProbeTimeoutMs = 3000;

// Boost.Interprocess writes a 32-bit state word at offset 0 of a managed segment or queue and
// sets it to 2 once the creator has built the contents (managed_open_or_create_impl). Opening
// an object whose word is still 0 or 1 spins until it changes, for ever if its creator died, so
// the word is checked with a plain read before Boost is allowed near the object.
const std::uint32_t BoostInitialisedWord = 2;
const std::uint32_t BoostInitialisingWordMax = 1;

// What a forked helper reports about a header segment. Plain bytes: it crosses a pipe.
struct HeaderProbe {
    int state;  // PartState
    char detail[96];
    std::uint64_t managedSize, freeMemory, namedObjects, uniqueObjects;
    std::uint64_t counts[4];  // elements found of each named object (0: absent)
    boost::posix_time::ptime lastWrite;
    std::uint64_t outputDataSize;
    std::int64_t outputHandle;
};

struct QueueProbe {
    int state;
    char detail[96];
    std::uint64_t capacity, maxBlockSize, waiting;
};

static_assert(std::is_trivially_copyable<HeaderProbe>::value, "HeaderProbe crosses a pipe");
static_assert(std::is_trivially_copyable<QueueProbe>::value, "QueueProbe crosses a pipe");

template <class Probe>
void SetDetail(Probe& probe, const std::string& text) {
    std::strncpy(probe.detail, text.c_str(), sizeof(probe.detail) - 1);
    probe.detail[sizeof(probe.detail) - 1] = '\0';
}

// Runs `body` in a forked child and returns what it reports. When the child does not answer
// within the time limit it is killed and the result is Busy; when it dies (a crash on a
// damaged object) the result is Foreign.
template <class Probe, class Body>
Probe RunProbe(Body body) {
    Probe result{};
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        result.state = static_cast<int>(PartState::Busy);
        SetDetail(result, std::string("cannot make a pipe: ") + std::strerror(errno));
        return result;
    }
    const pid_t pid = ::fork();
    if (pid < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        result.state = static_cast<int>(PartState::Busy);
        SetDetail(result, std::string("cannot fork: ") + std::strerror(errno));
        return result;
    }
    if (pid == 0) {
        ::close(fds[0]);
        Probe probe{};
        try {
            body(probe);
        } catch (const std::exception& e) {
            probe.state = static_cast<int>(PartState::Foreign);
            SetDetail(probe, e.what());
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
    result = Probe{};
    if (timedOut) {
        result.state = static_cast<int>(PartState::Busy);
        SetDetail(result, "no answer within " + std::to_string(ProbeTimeoutMs / 1000) +
                              " s: a lock inside it is held (its holder may have died)");
    } else {
        result.state = static_cast<int>(PartState::Foreign);
        SetDetail(result, WIFSIGNALED(status) ? "damaged: reading it killed the helper (signal " +
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

HeaderProbe ProbeHeader(const std::string& name, std::uint64_t fileSize) {
    return RunProbe<HeaderProbe>([&](HeaderProbe& probe) {
        // Read-write: find() takes the segment manager's lock, which lives in the segment.
        shared::SlotSegment segment(boost::interprocess::open_only, name.c_str());
        probe.managedSize = segment.get_size();
        // The size the segment manager records (plus its offset) must be the object's size: a
        // cheap test that this is a managed segment before following any offset stored in it.
        if (probe.managedSize != fileSize) {
            probe.state = static_cast<int>(PartState::Foreign);
            SetDetail(probe, "not a managed segment");
            return;
        }
        HeaderProbe* out = &probe;
        auto look = [&segment, out] {
            out->counts[0] = segment.find<boost::posix_time::ptime>("last_write_tstamp").second;
            out->counts[1] = segment.find<unsigned int>("output_buffer_data_size").second;
            out->counts[2] = segment.find<int>("output_buffer_handle").second;
            out->counts[3] = segment.find<shared::InterprocCondition>("cond_on_write").second;
            out->namedObjects = segment.get_num_named_objects();
            out->uniqueObjects = segment.get_num_unique_objects();
            out->freeMemory = segment.get_free_memory();
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
            probe.state = static_cast<int>(PartState::Busy);
            SetDetail(probe, "its segment lock stays held (its holder may have died)");
            return;
        }
        if (probe.counts[0] + probe.counts[1] + probe.counts[2] + probe.counts[3] == 0) {
            probe.state = static_cast<int>(PartState::Foreign);
            SetDetail(probe, "a managed segment without a slot header");
            return;
        }
        // Read without the header mutex, as the library's GetLastWriteTime does.
        if (probe.counts[0] != 0) {
            probe.lastWrite = *segment.find<boost::posix_time::ptime>("last_write_tstamp").first;
        }
        if (probe.counts[1] != 0) {
            probe.outputDataSize = *segment.find<unsigned int>("output_buffer_data_size").first;
        }
        if (probe.counts[2] != 0) {
            probe.outputHandle = *segment.find<int>("output_buffer_handle").first;
        }
        probe.state = static_cast<int>(PartState::Ok);
    });
}

QueueProbe ProbeQueue(const std::string& queueName, std::uint64_t fileSize) {
    return RunProbe<QueueProbe>([&](QueueProbe& probe) {
        BaseQueueSlot::MessageQueue queue(boost::interprocess::open_only, queueName.c_str());
        probe.capacity = queue.get_max_msg();
        probe.maxBlockSize = queue.get_max_msg_size();
        // Plausible sizes first: get_num_msg() locks a mutex at a fixed place in the header.
        if (probe.capacity == 0 || probe.capacity > fileSize ||
            (probe.maxBlockSize != 0 && probe.capacity > fileSize / probe.maxBlockSize)) {
            probe.state = static_cast<int>(PartState::Foreign);
            SetDetail(probe, "not a message queue");
            return;
        }
        probe.waiting = queue.get_num_msg();
        if (probe.waiting > probe.capacity) {
            probe.state = static_cast<int>(PartState::Foreign);
            SetDetail(probe, "not a message queue");
            return;
        }
        probe.state = static_cast<int>(PartState::Ok);
    });
}

HeaderInfo InspectHeader(const std::string& name) {
    HeaderInfo info;
    info.state = PreCheck(name, info.fileSize, info.detail);
    if (info.state != PartState::Ok) {
        return info;
    }
    const HeaderProbe probe = ProbeHeader(name, info.fileSize);
    info.state = static_cast<PartState>(probe.state);
    info.detail = probe.detail;
    info.managedSize = probe.managedSize;
    info.freeMemory = probe.freeMemory;
    info.namedObjects = probe.namedObjects;
    info.uniqueObjects = probe.uniqueObjects;
    info.hasWriteTime = probe.counts[0] != 0;
    info.hasDataSize = probe.counts[1] != 0;
    info.hasHandle = probe.counts[2] != 0;
    info.hasCondition = probe.counts[3] != 0;
    info.writeTimeBytes = probe.counts[0] * sizeof(boost::posix_time::ptime);
    info.dataSizeBytes = probe.counts[1] * sizeof(unsigned int);
    info.handleBytes = probe.counts[2] * sizeof(int);
    info.conditionBytes = probe.counts[3] * sizeof(shared::InterprocCondition);
    info.lastWrite = info.hasWriteTime ? probe.lastWrite : boost::posix_time::ptime();
    info.outputDataSize = probe.outputDataSize;
    info.outputHandle = probe.outputHandle;
    return info;
}

QueueInfo InspectQueue(const std::string& queueName) {
    QueueInfo info;
    info.state = PreCheck(queueName, info.fileSize, info.detail);
    if (info.state != PartState::Ok) {
        return info;
    }
    const QueueProbe probe = ProbeQueue(queueName, info.fileSize);
    info.state = static_cast<PartState>(probe.state);
    info.detail = probe.detail;
    info.capacity = probe.capacity;
    info.maxBlockSize = probe.maxBlockSize;
    info.waiting = probe.waiting;
    return info;
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

std::vector<std::string> ListDirectory(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) {
        return names;
    }
    while (dirent* entry = ::readdir(d)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    ::closedir(d);
    return names;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

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
        const bool complete =
            header.hasWriteTime && header.hasDataSize && header.hasHandle && header.hasCondition;
        return complete ? "slot" : "damaged";
    }
    if (header.state == PartState::Ok && queue.state == PartState::Absent) {
        return "header-only";
    }
    if (queue.state == PartState::Ok && header.state == PartState::Absent) {
        return "queue-only";
    }
    for (PartState s : {header.state, queue.state}) {
        if (s == PartState::NoAccess) {
            return "no-access";
        }
    }
    for (PartState s : {header.state, queue.state}) {
        if (s == PartState::Busy) {
            return "busy";
        }
    }
    for (PartState s : {header.state, queue.state}) {
        if (s == PartState::Unfinished) {
            return "unfinished";
        }
    }
    return "damaged";
}

SlotReport InspectSlot(const std::string& name) {
    SlotReport report;
    report.name = name;
    report.header = InspectHeader(name);
    report.queue = InspectQueue(BaseQueueSlot::GetQueueName(name));
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
    const std::vector<std::string> objects = ListDirectory(ShmDirectory);
    std::map<std::string, bool> present;
    for (const std::string& name : objects) {
        present[name] = true;
    }
    std::map<std::string, bool> isHeader;
    for (const std::string& name : objects) {
        HeaderInfo header = InspectHeader(name);
        if (header.state == PartState::Ok || header.state == PartState::Busy) {
            isHeader[name] = true;
            entry(name).header = header;
        } else if (header.state != PartState::Foreign &&
                   present.count(BaseQueueSlot::GetQueueName(name)) != 0) {
            // Cannot look inside, but its queue is there: list the pair as what it seems.
            entry(name).header = header;
        }
    }
    for (const std::string& name : objects) {
        if (!StartsWith(name, QueuePrefix) || isHeader.count(name) != 0) {
            continue;
        }
        const std::string slotName = name.substr(QueuePrefix.size());
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
        if (report.header.state == PartState::Absent && present.count(slotName) != 0) {
            // The header is there but could not be recognised as one.
            report.header = InspectHeader(slotName);
        }
    }
    const std::string pipeDir = [] {
        const std::string any = FileUtils::NamedPipeCreator::ConstructPipeFilename("x");
        return any.substr(0, any.rfind('/'));
    }();
    for (const std::string& file : ListDirectory(pipeDir)) {
        const std::string path = pipeDir + "/" + file;
        if (EndsWith(file, FifoSuffix) && file.size() > FifoSuffix.size() && IsFifo(path)) {
            entry(file.substr(0, file.size() - FifoSuffix.size())).pipePath = path;
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
