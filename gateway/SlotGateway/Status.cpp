// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/Status.h>

#include <shared/MutexOwner.h>
#include <shared/SharedFolder.h>

#include <nlohmann/json.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <sstream>

namespace SlotGateway {

namespace {

// The document's "time": UTC, whole seconds.
constexpr const char* kTimeFormat = "%Y-%m-%dT%H:%M:%SZ";

}  // namespace

std::string StatusDocument(const std::string& gatewayName, std::uint64_t gatewayId, bool stopped,
                           unsigned intervalMs, const std::vector<RouteStatus>& routes) {
    nlohmann::json slots = nlohmann::json::array();
    for (const RouteStatus& status : routes) {
        const Route& route = status.route;
        slots.push_back({{"name", route.name},
                         {"type", route.TypeText()},
                         {"direction", ToString(route.direction)},
                         {"domain", route.domain},
                         {"partition", route.partition},
                         {"topic", route.topic},
                         {"matched_readers", status.matchedReaders},
                         {"matched_writers", status.matchedWriters},
                         {"sending", status.sending},
                         {"forwarded", status.counters.forwarded},
                         {"received", status.counters.received},
                         {"retried", status.counters.retried},
                         {"refused", status.counters.refused},
                         {"dropped", status.counters.dropped},
                         {"echoes_skipped", status.counters.echoes},
                         {"duplicates_skipped", status.counters.duplicates}});
    }
    std::ostringstream id;
    id << std::hex << std::setw(16) << std::setfill('0') << gatewayId;
    const std::time_t now = std::time(nullptr);
    char stamp[32] = {};
    std::tm utc;
    gmtime_r(&now, &utc);
    std::strftime(stamp, sizeof stamp, kTimeFormat, &utc);
    nlohmann::json document = {{"gateway", gatewayName},
                               {"id", id.str()},
                               {"pid", getpid()},
                               {"time", stamp},
                               {"status_interval_ms", intervalMs},
                               {"stopped", stopped},
                               {"slots", slots}};
    return document.dump(2) + "\n";
}

namespace {

constexpr const char* kTemporaryInfix = ".tmp.";
constexpr std::size_t kTemporarySuffix = 6;  // characters after the infix

// A name for a temporary of `name`, random: "<name>.tmp.XXXXXX".
std::string TemporaryName(const std::string& name) {
    static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    unsigned char random[kTemporarySuffix];
    if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        const auto seed = static_cast<std::uint64_t>(std::time(nullptr)) ^
                          (static_cast<std::uint64_t>(getpid()) << 20) ^
                          reinterpret_cast<std::uintptr_t>(&random);
        for (std::size_t i = 0; i < sizeof random; ++i) {
            random[i] = static_cast<unsigned char>(seed >> (i * 8));
        }
    }
    std::string result = name + kTemporaryInfix;
    for (const unsigned char byte : random) {
        result += kChars[byte % (sizeof kChars - 1)];
    }
    return result;
}

}  // namespace

std::string WriteFileAtomically(const std::string& path, const std::string& text) {
    std::string folderPath, name;
    if (!shared::SplitFolderAndName(path, folderPath, name)) {
        return path + ": not a file name";
    }
    shared::CheckedFolder folder;
    try {
        folder = shared::CheckedFolder::Open(folderPath);
    } catch (const std::exception& e) {
        return e.what();
    }
    // A new file of a name nobody has (O_EXCL, O_NOFOLLOW), so that nothing someone else keeps
    // in a shared folder is removed or written.
    std::string temporary;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        temporary = TemporaryName(name);
        fd = openat(folder.fd(), temporary.c_str(),
                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd < 0 && errno != EEXIST) {
            break;
        }
    }
    const std::string shown = folderPath + "/" + temporary;
    if (fd < 0 || fchmod(fd, 0644) != 0) {
        const std::string error = shown + ": " + std::strerror(errno);
        if (fd >= 0) {
            close(fd);
            unlinkat(folder.fd(), temporary.c_str(), 0);
        }
        return error;
    }
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            const std::string error = shown + ": " + std::strerror(errno);
            close(fd);
            unlinkat(folder.fd(), temporary.c_str(), 0);
            return error;
        }
        done += static_cast<std::size_t>(n);
    }
    close(fd);
    if (renameat(folder.fd(), temporary.c_str(), folder.fd(), name.c_str()) != 0) {
        const std::string error = path + ": " + std::strerror(errno);
        unlinkat(folder.fd(), temporary.c_str(), 0);
        return error;
    }
    return "";
}

unsigned RemoveStaleTemporaries(const std::string& path) {
    std::string folderPath, name;
    if (!shared::SplitFolderAndName(path, folderPath, name)) {
        return 0;
    }
    shared::CheckedFolder folder;
    try {
        folder = shared::CheckedFolder::Open(folderPath);
    } catch (const std::exception&) {
        return 0;
    }
    const int listFd = openat(folder.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = listFd >= 0 ? fdopendir(listFd) : nullptr;
    if (dir == nullptr) {
        if (listFd >= 0) {
            close(listFd);
        }
        return 0;
    }
    const std::string prefix = name + kTemporaryInfix;
    unsigned removed = 0;
    while (const dirent* entry = readdir(dir)) {
        const std::string entryName = entry->d_name;
        struct stat st;
        if (entryName.size() == prefix.size() + kTemporarySuffix &&
            entryName.compare(0, prefix.size(), prefix) == 0 &&
            fstatat(folder.fd(), entryName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode) && st.st_uid == geteuid() &&
            unlinkat(folder.fd(), entryName.c_str(), 0) == 0) {
            ++removed;
        }
    }
    closedir(dir);
    return removed;
}

namespace {

// The start of process `pid` in seconds since the epoch (/proc/<pid>/stat's start time after
// boot, /proc/stat's boot time), or -1 when unknown.
double ProcessStart(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) {
        return -1;
    }
    const std::uint64_t startTicks = shared::StartTimeOfStatLine(line);
    std::ifstream machine("/proc/stat");
    unsigned long long bootTime = 0;
    while (std::getline(machine, line)) {
        if (line.compare(0, 6, "btime ") == 0) {
            bootTime = std::strtoull(line.c_str() + 6, nullptr, 10);
        }
    }
    const long ticksPerSecond = sysconf(_SC_CLK_TCK);
    if (startTicks == 0 || bootTime == 0 || ticksPerSecond <= 0) {
        return -1;
    }
    return static_cast<double>(bootTime) + static_cast<double>(startTicks) / ticksPerSecond;
}

// What the table's first line adds about the writer of a document written at `written` by `pid`
// every `intervalMs` (0: not told), at `now`: "" while it looks current.
std::string Liveness(pid_t pid, std::time_t written, unsigned intervalMs, std::time_t now) {
    if (pid > 0) {
        // A pid taken by a process started after the document was written (with a second's
        // slack for the stamp's resolution) is not the writer's.
        const double start = written >= 0 ? ProcessStart(pid) : -1;
        if ((::kill(pid, 0) != 0 && errno == ESRCH) || (start >= 0 && start > written + 1.0)) {
            return " (not running)";
        }
    }
    if (written >= 0 && intervalMs > 0) {
        const double age = std::difftime(now, written);
        // Three intervals, and a second more for the stamp's resolution.
        if (age * 1000.0 > 3.0 * intervalMs + 1000.0) {
            return " (last written " + std::to_string(static_cast<long long>(age)) + " s ago)";
        }
    }
    return "";
}

// The document's "time" in seconds since the epoch, or -1.
std::time_t ParseTime(const std::string& text) {
    std::tm utc{};
    const char* end = strptime(text.c_str(), kTimeFormat, &utc);
    if (end == nullptr || *end != '\0') {
        return -1;
    }
    return timegm(&utc);
}

}  // namespace

std::string FormatStatus(const std::string& text, std::time_t now) {
    const nlohmann::json document = nlohmann::json::parse(text);
    const pid_t pid = document.value("pid", 0);
    const std::string time = document.value("time", "?");
    std::ostringstream out;
    out << "gateway " << document.value("gateway", "?") << " (id " << document.value("id", "?")
        << ", pid " << pid << ") at " << time
        << (document.value("stopped", false) ? ", stopped" : "")
        << Liveness(pid, ParseTime(time), document.value("status_interval_ms", 0u), now) << "\n";
    out << std::left << std::setw(24) << "slot" << std::setw(12) << "type" << std::setw(13)
        << "direction" << std::setw(24) << "topic" << std::right << std::setw(6) << "peers"
        << std::setw(11) << "forwarded" << std::setw(11) << "received" << std::setw(9) << "retried"
        << std::setw(9) << "refused" << std::setw(9) << "dropped"
        << "\n";
    for (const auto& slot : document.at("slots")) {
        const unsigned peers =
            slot.value("matched_readers", 0u) + slot.value("matched_writers", 0u);
        out << std::left << std::setw(24) << slot.value("name", "") << std::setw(12)
            << slot.value("type", "") << std::setw(13) << slot.value("direction", "")
            << std::setw(24) << slot.value("topic", "") << std::right << std::setw(6) << peers
            << std::setw(11) << slot.value("forwarded", 0ull) << std::setw(11)
            << slot.value("received", 0ull) << std::setw(9) << slot.value("retried", 0ull)
            << std::setw(9) << slot.value("refused", 0ull) << std::setw(9)
            << slot.value("dropped", 0ull) << "\n";
    }
    return out.str();
}

}  // namespace SlotGateway
