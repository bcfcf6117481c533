// SPDX-License-Identifier: Apache-2.0
#include <shared/MutexOwner.h>

#include <sys/sysmacros.h>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>

namespace shared {

pid_t MutexOwnerThread(const pthread_mutex_t* mutex) {
    // glibc keeps the owner's thread id in __data.__owner for every mutex kind; the lock word
    // itself loses it when the kernel marks a robust mutex's owner dead.
    return __atomic_load_n(&mutex->__data.__owner, __ATOMIC_RELAXED);
}

bool MutexLooksSane(const pthread_mutex_t* mutex, int kind) {
    for (int attempt = 0; attempt < 4; ++attempt) {
        const int actualKind = __atomic_load_n(&mutex->__data.__kind, __ATOMIC_RELAXED);
        const pid_t owner = __atomic_load_n(&mutex->__data.__owner, __ATOMIC_RELAXED);
        const unsigned int count = __atomic_load_n(&mutex->__data.__count, __ATOMIC_RELAXED);
        const int word = __atomic_load_n(&mutex->__data.__lock, __ATOMIC_RELAXED);
        if (actualKind != kind) {
            return false;
        }
        if (word != 0 || (owner == 0 && count == 0)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
    return false;
}

pid_t ProcessOfThread(pid_t tid) {
    if (tid <= 0) {
        return 0;
    }
    const std::string path = "/proc/" + std::to_string(tid) + "/status";
    FILE* status = std::fopen(path.c_str(), "re");
    if (status == nullptr) {
        return 0;
    }
    pid_t pid = 0;
    char line[256];
    bool zombie = false;
    while (std::fgets(line, sizeof line, status) != nullptr) {
        if (std::strncmp(line, "State:", 6) == 0) {
            // A zombie holds no lock any more: its robust list was handled when it exited.
            zombie = std::strchr(line, 'Z') != nullptr || std::strchr(line, 'X') != nullptr;
        } else if (std::sscanf(line, "Tgid: %d", &pid) == 1) {
            break;
        }
    }
    std::fclose(status);
    return zombie ? 0 : pid;
}

int ProcessMapsFile(pid_t pid, const std::string& path) {
    if (pid <= 0) {
        return -1;
    }
    FILE* maps = std::fopen(("/proc/" + std::to_string(pid) + "/maps").c_str(), "re");
    if (maps == nullptr) {
        return -1;
    }
    // Each line ends with the mapped file's path, " (deleted)" added once it was unlinked.
    const std::string deleted = path + " (deleted)";
    auto endsWith = [](const std::string& line, const std::string& end) {
        return line.size() > end.size() && line[line.size() - end.size() - 1] == ' ' &&
               line.compare(line.size() - end.size(), end.size(), end) == 0;
    };
    int found = 0;
    bool read = false;
    std::string line;
    char chunk[512];
    while (std::fgets(chunk, sizeof chunk, maps) != nullptr) {
        read = true;
        line += chunk;
        if (line.empty() || line.back() != '\n') {
            continue;
        }
        line.pop_back();
        if (endsWith(line, path) || endsWith(line, deleted)) {
            found = 1;
            break;
        }
        line.clear();
    }
    std::fclose(maps);
    // A map that opens but is empty belongs to a process without an address space (a kernel
    // thread, or a zombie): it maps nothing. One we may not read does not open at all.
    return read ? found : 0;
}

namespace {

// One line of a /proc/<pid>/maps file: "start-end perms offset major:minor inode [path]", the
// numbers in hex except the inode.
struct MapsLine {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    unsigned major = 0;
    unsigned minor = 0;
    std::uint64_t inode = 0;
};

bool ParseMapsLine(const char* text, MapsLine& line) {
    return std::sscanf(text, "%" SCNx64 "-%" SCNx64 " %*s %*s %x:%x %" SCNu64, &line.start,
                       &line.end, &line.major, &line.minor, &line.inode) == 5;
}

// The file a parsed line maps; an anonymous mapping shows inode 0 and is no file.
FileIdentity FileOf(const MapsLine& line) {
    FileIdentity file;
    if (line.inode != 0) {
        file.device = makedev(line.major, line.minor);
        file.inode = static_cast<ino_t>(line.inode);
        file.known = true;
    }
    return file;
}

// Calls `visit` with each line of /proc/<pid>/maps until it returns true. Returns -1 when the
// map cannot be opened, 0 when it held no line, 1 otherwise. Only the start of a line is
// parsed; the rest of a long one (its path) is skipped.
template <class Visit>
int ForEachMapsLine(const std::string& process, Visit visit) {
    FILE* maps = std::fopen(("/proc/" + process + "/maps").c_str(), "re");
    if (maps == nullptr) {
        return -1;
    }
    bool read = false;
    bool lineStart = true;
    char chunk[512];
    while (std::fgets(chunk, sizeof chunk, maps) != nullptr) {
        read = true;
        const bool startsLine = lineStart;
        lineStart = std::strchr(chunk, '\n') != nullptr;
        MapsLine line;
        if (startsLine && ParseMapsLine(chunk, line) && visit(line)) {
            break;
        }
    }
    std::fclose(maps);
    return read ? 1 : 0;
}

}  // namespace

FileIdentity FileOfMapsLine(const char* text) {
    MapsLine line;
    return ParseMapsLine(text, line) ? FileOf(line) : FileIdentity();
}

FileIdentity FileMappedAt(const void* address) {
    const std::uint64_t at = reinterpret_cast<std::uintptr_t>(address);
    FileIdentity file;
    ForEachMapsLine("self", [&](const MapsLine& line) {
        if (at < line.start || at >= line.end) {
            return false;
        }
        file = FileOf(line);
        return true;
    });
    return file;
}

int ProcessMapsFile(pid_t pid, const FileIdentity& file) {
    if (pid <= 0 || !file.known) {
        return -1;
    }
    int found = 0;
    const int read = ForEachMapsLine(std::to_string(pid), [&](const MapsLine& line) {
        found = line.inode == file.inode && line.major == major(file.device) &&
                        line.minor == minor(file.device)
                    ? 1
                    : 0;
        return found == 1;
    });
    // A map that opens but is empty belongs to a process without an address space (a kernel
    // thread, or a zombie): it maps nothing. One we may not read does not open at all.
    return read < 0 ? -1 : found;
}

std::uint64_t StartTimeOfStatLine(const std::string& line) {
    const std::size_t close = line.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    std::istringstream fields(line.substr(close + 1));
    std::string field;
    // After the command: state (field 3) ... starttime (field 22).
    for (int i = 3; i <= 22 && (fields >> field); ++i) {
        if (i == 22) {
            return std::strtoull(field.c_str(), nullptr, 10);
        }
    }
    return 0;
}

}  // namespace shared
