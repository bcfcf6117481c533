// SPDX-License-Identifier: Apache-2.0
#include "SlotAttachments.h"

#include <Slot/SlotNames.h>
#include <Slot/SlotSurvey.h>

#include <FileUtils/FSUtils.h>
#include <shared/FileLock.h>
#include <shared/MutexOwner.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>
#include <unordered_map>
#include <utility>

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

// What one path is to one of the slots asked for.
enum class Part { Header, Queue, Pipe };
struct Use {
    size_t slot;
    Part part;
};
typedef std::unordered_map<std::string, std::vector<Use>> PathUses;
// A file as device and inode: how a mapping is matched to the objects asked for.
typedef std::pair<dev_t, ino_t> FileId;
typedef std::map<FileId, std::vector<Use>> FileUses;

void Mark(SlotAttachment& process, Part part) {
    process.header = process.header || part == Part::Header;
    process.queue = process.queue || part == Part::Queue;
    process.pipe = process.pipe || part == Part::Pipe;
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
    return FindMany({{name, pipePath}}).front();
}

std::vector<SlotAttachmentList> SlotAttachments::FindMany(
    const std::vector<SlotAttachmentQuery>& slots) {
    std::vector<SlotAttachmentList> lists(slots.size());
    // Each path of a slot's objects, and what it is to which slot: slot "queue_x"'s header is
    // slot "x"'s queue.
    PathUses uses;
    std::vector<std::string> lockFiles(slots.size());
    std::vector<bool> valid(slots.size(), false);
    for (size_t i = 0; i < slots.size(); ++i) {
        const std::string& name = slots[i].name;
        if (Slot::SlotNameProblem(name)) {
            continue;
        }
        valid[i] = true;
        uses[Slot::ShmPath(Slot::HeaderObjectName(name))].push_back({i, Part::Header});
        uses[Slot::ShmPath(Slot::QueueObjectName(name))].push_back({i, Part::Queue});
        if (!slots[i].pipePath.empty()) {
            uses[slots[i].pipePath].push_back({i, Part::Pipe});
        }
        try {
            lockFiles[i] = FileUtils::FSUtils::SingletonFileLockNameWithoutCreating(name);
        } catch (const std::exception&) {
        }
    }
    // The same objects as files: mappings are matched by device and inode. An object replaced
    // after this is a different file, and a mapping of the one it replaced is no attachment.
    FileUses files;
    for (const auto& path : uses) {
        struct stat st;
        if (::fstatat(AT_FDCWD, path.first.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode)) {
            std::vector<Use>& fileUses = files[FileId{st.st_dev, st.st_ino}];
            fileUses.insert(fileUses.end(), path.second.begin(), path.second.end());
        }
    }
    // Per slot, the processes attached to it.
    std::vector<std::map<pid_t, SlotAttachment>> found(slots.size());
    unsigned unreadable = 0;

    DIR* proc = uses.empty() ? nullptr : ::opendir("/proc");
    while (const dirent* entry = proc == nullptr ? nullptr : ::readdir(proc)) {
        if (!IsPid(entry->d_name)) {
            continue;
        }
        const std::string dir = std::string("/proc/") + entry->d_name;
        const pid_t pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        // This process's attachments, per slot.
        std::map<size_t, SlotAttachment> seen;
        auto mark = [&](const std::vector<Use>& pathUses) {
            for (const Use& use : pathUses) {
                SlotAttachment& process = seen[use.slot];
                process.pid = pid;
                Mark(process, use.part);
            }
        };
        bool mapsRead = false;
        const std::string maps = ReadSmallFile(dir + "/maps", mapsRead);
        for (size_t start = 0; start < maps.size();) {
            size_t end = maps.find('\n', start);
            if (end == std::string::npos) {
                end = maps.size();
            }
            // By device and inode: the path column writes a newline in a name as "\012",
            // which a name may also hold literally. The line alone is parsed (a scan of the
            // rest of the map for each line would take time quadratic in its length).
            const shared::FileIdentity file =
                shared::FileOfMapsLine(maps.substr(start, end - start).c_str());
            const auto it = file.known ? files.find(FileId{file.device, file.inode}) : files.end();
            if (it != files.end()) {
                mark(it->second);
            }
            start = end + 1;
        }
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
                const auto it = uses.find(std::string(target, static_cast<size_t>(n)));
                if (it == uses.end()) {
                    continue;
                }
                // A header or queue open for reading only is an inspector's look.
                std::vector<Use> attached;
                bool readOnlyKnown = false, readOnly = false;
                for (const Use& use : it->second) {
                    if (use.part != Part::Pipe) {
                        if (!readOnlyKnown) {
                            readOnly = OpenReadOnly(dir, fd->d_name);
                            readOnlyKnown = true;
                        }
                        if (readOnly) {
                            continue;
                        }
                    }
                    attached.push_back(use);
                }
                mark(attached);
            }
            ::closedir(fds);
        }
        if (!mapsRead || !fdsRead) {
            // Gone meanwhile, or another user's process.
            struct stat st;
            if (::stat(dir.c_str(), &st) == 0) {
                ++unreadable;
            }
            continue;
        }
        for (const auto& slot : seen) {
            found[slot.first][pid] = slot.second;
        }
    }
    if (proc != nullptr) {
        ::closedir(proc);
    }

    // Who each process is (user, command), looked up once; nothing when it ended meanwhile.
    std::map<pid_t, std::optional<std::pair<uid_t, std::string>>> who;
    for (size_t i = 0; i < slots.size(); ++i) {
        if (!valid[i]) {
            continue;
        }
        lists[i].unreadable = unreadable;
        // The reader lock's holder as the lock itself tells it: a process that holds no
        // descriptor we could see still counts.
        if (!lockFiles[i].empty()) {
            const pid_t holder = shared::FileLock::Holder(lockFiles[i]);
            if (holder > 0) {
                SlotAttachment& process = found[i][holder];
                process.pid = holder;
                process.reader = true;
            }
        }
        for (auto& entry : found[i]) {
            SlotAttachment& process = entry.second;
            auto known = who.find(process.pid);
            if (known == who.end()) {
                const std::string dir = "/proc/" + std::to_string(process.pid);
                struct stat st;
                known = who.emplace(process.pid, std::nullopt).first;
                if (::stat(dir.c_str(), &st) == 0) {
                    known->second = std::make_pair(st.st_uid, CommandOf(dir));
                }
            }
            if (!known->second) {
                continue;  // ended meanwhile
            }
            process.uid = known->second->first;
            process.command = known->second->second;
            lists[i].processes.push_back(process);
        }
    }
    return lists;
}
