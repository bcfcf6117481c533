// SPDX-License-Identifier: Apache-2.0
#include "SlotAttachments.h"

#include <Slot/SlotNames.h>
#include <Slot/SlotSurvey.h>

#include <FileUtils/FSUtils.h>
#include <shared/FileLock.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <map>

namespace {

// Whether `text` is all digits (a /proc entry of a process).
bool IsPid(const char* text) {
    if (*text == '\0') {
        return false;
    }
    for (; *text != '\0'; ++text) {
        if (*text < '0' || *text > '9') {
            return false;
        }
    }
    return true;
}

std::string ReadSmallFile(const std::string& path, bool& ok) {
    std::ifstream in(path, std::ios::binary);
    ok = static_cast<bool>(in);
    std::string text;
    if (ok) {
        char buffer[4096];
        while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0) {
            text.append(buffer, static_cast<size_t>(in.gcount()));
            if (text.size() > (std::size_t(64) << 20)) {
                break;  // no maps file is this large; do not read for ever
            }
        }
    }
    return text;
}

std::string CommandOf(const std::string& proc) {
    bool ok = false;
    std::string line = ReadSmallFile(proc + "/cmdline", ok);
    while (!line.empty() && line.back() == '\0') {
        line.pop_back();
    }
    for (char& c : line) {
        if (c == '\0') {
            c = ' ';
        }
    }
    if (line.empty()) {
        line = ReadSmallFile(proc + "/comm", ok);
        while (!line.empty() && line.back() == '\n') {
            line.pop_back();
        }
        if (!line.empty()) {
            line = "[" + line + "]";
        }
    }
    return line;
}

// Whether descriptor `fd` of the process at `proc` is open for reading only, as its fdinfo tells.
// The library opens a slot's objects for reading and writing; a read-only descriptor is an
// inspector's look (slotctl and the survey read the objects with pread), not an attachment.
bool OpenReadOnly(const std::string& proc, const char* fd) {
    bool ok = false;
    const std::string info = ReadSmallFile(proc + "/fdinfo/" + fd, ok);
    const size_t at = info.find("flags:");
    if (!ok || at == std::string::npos) {
        return false;  // gone meanwhile: counted as it was seen
    }
    const unsigned long flags = std::strtoul(info.c_str() + at + 6, nullptr, 8);
    return (flags & O_ACCMODE) == O_RDONLY;
}

// The path column of each line of a maps file: what follows the fifth field.
void MappedPaths(const std::string& maps, const std::string& header, const std::string& queue,
                 SlotAttachment& process) {
    size_t start = 0;
    while (start < maps.size()) {
        size_t end = maps.find('\n', start);
        if (end == std::string::npos) {
            end = maps.size();
        }
        // address perms offset dev inode, then spaces, then the path.
        size_t at = start;
        for (int field = 0; field < 5 && at < end; ++field) {
            at = maps.find(' ', at);
            if (at == std::string::npos || at >= end) {
                at = end;
                break;
            }
            ++at;
        }
        while (at < end && maps[at] == ' ') {
            ++at;
        }
        const std::string path = maps.substr(at, end - at);
        if (path == header) {
            process.header = true;
        } else if (path == queue) {
            process.queue = true;
        }
        start = end + 1;
    }
}

}  // namespace

std::string SlotAttachment::What() const {
    std::string what;
    auto add = [&what](bool has, const char* text) {
        if (has) {
            what += what.empty() ? "" : ", ";
            what += text;
        }
    };
    add(header, "header");
    add(queue, "queue");
    add(pipe, "pipe");
    add(reader, "reader lock");
    return what;
}

SlotAttachmentList SlotAttachments::Find(const std::string& name, const std::string& pipePath) {
    SlotAttachmentList list;
    if (Slot::SlotNameProblem(name)) {
        return list;
    }
    const std::string header = Slot::ShmPath(Slot::HeaderObjectName(name));
    const std::string queue = Slot::ShmPath(Slot::QueueObjectName(name));
    std::string lockFile;
    try {
        lockFile = FileUtils::FSUtils::GetSingletonFileLockName(name);
    } catch (const std::exception&) {
    }
    std::map<pid_t, SlotAttachment> found;

    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) {
        return list;
    }
    while (const dirent* entry = ::readdir(proc)) {
        if (!IsPid(entry->d_name)) {
            continue;
        }
        const std::string dir = std::string("/proc/") + entry->d_name;
        SlotAttachment process;
        process.pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        bool mapsRead = false;
        MappedPaths(ReadSmallFile(dir + "/maps", mapsRead), header, queue, process);
        bool fdsRead = false;
        if (DIR* fds = ::opendir((dir + "/fd").c_str())) {
            fdsRead = true;
            const int fdsDir = ::dirfd(fds);
            while (const dirent* fd = ::readdir(fds)) {
                if (!IsPid(fd->d_name)) {
                    continue;
                }
                char target[PATH_MAX];
                const ssize_t n = ::readlinkat(fdsDir, fd->d_name, target, sizeof(target) - 1);
                if (n <= 0) {
                    continue;
                }
                const std::string path(target, static_cast<size_t>(n));
                if ((path == header || path == queue) && OpenReadOnly(dir, fd->d_name)) {
                    continue;
                }
                process.header = process.header || path == header;
                process.queue = process.queue || path == queue;
                process.pipe = process.pipe || (!pipePath.empty() && path == pipePath);
            }
            ::closedir(fds);
        }
        if (!mapsRead || !fdsRead) {
            // Gone meanwhile, or another user's process.
            struct stat st;
            if (::stat(dir.c_str(), &st) == 0) {
                ++list.unreadable;
            }
            continue;
        }
        if (process.header || process.queue || process.pipe) {
            found[process.pid] = process;
        }
    }
    ::closedir(proc);

    // The reader lock's holder as the lock itself tells it: a process that holds no descriptor
    // we could see still counts.
    if (!lockFile.empty()) {
        const pid_t holder = shared::FileLock::Holder(lockFile);
        if (holder > 0) {
            SlotAttachment& process = found[holder];
            process.pid = holder;
            process.reader = true;
        }
    }
    for (auto& entry : found) {
        SlotAttachment& process = entry.second;
        const std::string dir = "/proc/" + std::to_string(process.pid);
        struct stat st;
        if (::stat(dir.c_str(), &st) != 0) {
            continue;  // ended meanwhile
        }
        process.uid = st.st_uid;
        process.command = CommandOf(dir);
        list.processes.push_back(process);
    }
    return list;
}
