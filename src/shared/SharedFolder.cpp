// SPDX-License-Identifier: Apache-2.0
#include <shared/SharedFolder.h>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace shared {

namespace {

[[noreturn]] void ThrowUnsafe(const std::string& path, const std::string& reason) {
    throw std::runtime_error("Unsafe folder '" + path + "': " + reason);
}

[[noreturn]] void ThrowCannotOpen(const std::string& path, int error) {
    throw std::runtime_error("Cannot open folder '" + path + "' : " + std::strerror(error));
}

// Closes a descriptor unless released.
struct FdGuard {
    int fd;
    explicit FdGuard(int f) : fd(f) {}
    ~FdGuard() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    int release() {
        const int f = fd;
        fd = -1;
        return f;
    }
};

void CheckFolder(int fd, const std::string& path, const std::string& shown) {
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        ThrowCannotOpen(path, errno);
    }
    if (!S_ISDIR(st.st_mode)) {
        ThrowUnsafe(path, "'" + shown + "' is not a folder");
    }
    if (!OwnedByRootOrMe(st)) {
        ThrowUnsafe(path, "'" + shown + "' belongs to uid " + std::to_string(st.st_uid));
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0) {
        ThrowUnsafe(path, "'" + shown + "' is writable by others and not sticky");
    }
}

std::vector<std::string> Components(const std::string& path) {
    std::vector<std::string> parts;
    std::string::size_type start = 0;
    while (start <= path.size()) {
        std::string::size_type slash = path.find('/', start);
        if (slash == std::string::npos) {
            slash = path.size();
        }
        const std::string part = path.substr(start, slash - start);
        if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        start = slash + 1;
    }
    return parts;
}

// Creates `name` in `parent` as a folder of the effective user with mode `mode`. Made 0700
// first and opened without following symlinks, so that nobody can slip in between mkdir and
// chmod. A folder that someone else made meanwhile is left to the caller's checks.
void CreateFolder(int parent, const std::string& name, mode_t mode, const std::string& path) {
    if (::mkdirat(parent, name.c_str(), 0700) != 0) {
        if (errno == EEXIST) {
            return;
        }
        ThrowCannotOpen(path, errno);
    }
    FdGuard made(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (made.fd >= 0 && ::fstat(made.fd, &st) == 0 && st.st_uid == ::geteuid()) {
        ::fchmod(made.fd, mode);
    }
}

}  // namespace

bool OwnedByRootOrMe(const struct stat& st) {
    return st.st_uid == 0 || st.st_uid == ::geteuid();
}

std::optional<std::string> SharedWriteProblem(int fd, const struct stat& st,
                                              const std::string& shown) {
    if (!OwnedByRootOrMe(st)) {
        return shown + " belongs to uid " + std::to_string(st.st_uid) +
               ", not to root or this user";
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 &&
        (st.st_uid != ::geteuid() || ::fchmod(fd, 0644) != 0)) {
        return "others may write " + shown + " (mode " + ModeText(st.st_mode) + ")";
    }
    return std::nullopt;
}

std::string ShmDirectory() {
    return "/dev/shm";
}

std::string ShmPath(const std::string& object) {
    return ShmDirectory() + "/" + object;
}

std::string ModeText(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof(text), "%04o", static_cast<unsigned int>(mode & 07777));
    return text;
}

bool SplitFolderAndName(const std::string& path, std::string& folder, std::string& name) {
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos) {
        folder = ".";
        name = path;
    } else {
        folder = slash == 0 ? "/" : path.substr(0, slash);
        name = path.substr(slash + 1);
    }
    return !name.empty() && name != "." && name != "..";
}

CheckedFolder CheckedFolder::Open(const std::string& path, mode_t createMode) {
    if (path.empty()) {
        ThrowUnsafe(path, "empty path");
    }
    const bool absolute = path[0] == '/';
    FdGuard current(::open(absolute ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (current.fd < 0) {
        ThrowCannotOpen(path, errno);
    }
    std::string shown = absolute ? "/" : "";
    if (absolute) {
        CheckFolder(current.fd, path, shown);
    }
    const std::vector<std::string> parts = Components(path);
    for (size_t i = 0; i < parts.size(); ++i) {
        const std::string& part = parts[i];
        if (part == "..") {
            ThrowUnsafe(path, "'..' is not allowed in the path");
        }
        shown += (shown.empty() || shown == "/" ? "" : "/") + part;
        const int flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        int next = ::openat(current.fd, part.c_str(), flags);
        if (next < 0 && errno == ENOENT && createMode != 0 && i + 1 == parts.size()) {
            CreateFolder(current.fd, part, createMode, path);
            next = ::openat(current.fd, part.c_str(), flags);
        }
        if (next < 0) {
            if (errno == ENOTDIR || errno == ELOOP) {
                ThrowUnsafe(path, "'" + shown + "' is a symlink or not a folder");
            }
            ThrowCannotOpen(path, errno);
        }
        FdGuard guard(next);
        CheckFolder(next, path, shown);
        ::close(current.fd);
        current.fd = guard.release();
    }
    CheckedFolder folder;
    folder.fd_ = current.release();
    folder.path_ = path;
    return folder;
}

CheckedFolder::~CheckedFolder() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

CheckedFolder::CheckedFolder(CheckedFolder&& other) noexcept
    : fd_(other.fd_), path_(std::move(other.path_)) {
    other.fd_ = -1;
}

CheckedFolder& CheckedFolder::operator=(CheckedFolder&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = other.fd_;
        path_ = std::move(other.path_);
        other.fd_ = -1;
    }
    return *this;
}

}  // namespace shared
