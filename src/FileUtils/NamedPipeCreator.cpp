// SPDX-License-Identifier: Apache-2.0
#include <FileUtils/NamedPipeCreator.h>

#include <FileUtils/FSUtils.h>
#include <shared/SharedFolder.h>

#include <log4cxx/logger.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <exception>

namespace FileUtils {

namespace {

const char kFifoSuffix[] = ".fifo";
// Never writable by group or others, so that nobody but the owner can put bytes into another
// user's stream. Others may read: a root writer with a non-root reader is a supported use.
const mode_t kFifoMode = 0644;
const mode_t kWritableByOthers = S_IWGRP | S_IWOTH;
const char kInTheWay[] = "a file that is not a FIFO is in the way";

std::string PipeDirectory() {
    return FSUtils::DirectoryFromEnvironment("SLOT_PIPE_DIR", "/tmp/libslot-pipes");
}

bool Fail(const std::string& path, const std::string& reason) {
    log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger("FileUtils");
    if (logger->isErrorEnabled()) {
        LOG4CXX_ERROR(logger, "Cannot create named pipe '" << path << "' : " << reason);
    }
    return false;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// A pipe's path names an entry directly in its folder, and a pipe of the pipe folder is
// "<name>.fifo" with a name that is neither empty nor "." nor "..": names like "../x", "a/b",
// "", "." and ".." do not stay in the pipe folder.
bool StaysInItsFolder(const std::string& path, const std::string& folder, const std::string& leaf) {
    const std::string dir = PipeDirectory();
    if (folder != dir && folder.compare(0, dir.size() + 1, dir + "/") == 0) {
        return false;  // in a folder below the pipe folder
    }
    if (path.find("/../") != std::string::npos || path.compare(0, 3, "../") == 0) {
        return false;
    }
    if (EndsWith(leaf, kFifoSuffix)) {
        const std::string stem = leaf.substr(0, leaf.size() - (sizeof(kFifoSuffix) - 1));
        if (stem.empty() || stem == "." || stem == "..") {
            return false;
        }
    }
    return true;
}

// Opens the folder of `path` with the checks of shared::CheckedFolder and finds the FIFO in it,
// nothing followed. Empty when found (`folder` and `leaf` are then set), else why not.
std::string FindPipe(const std::string& path, shared::CheckedFolder& folder, std::string& leaf) {
    std::string folderPath;
    if (!shared::SplitFolderAndName(path, folderPath, leaf)) {
        return "not a path of a named pipe";
    }
    try {
        folder = shared::CheckedFolder::Open(folderPath);
    } catch (const std::exception& e) {
        return e.what();
    }
    struct stat st;
    if (::fstatat(folder.fd(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return std::strerror(errno);
    }
    return S_ISFIFO(st.st_mode) ? std::string() : "not a named pipe";
}

// Takes the group and other write bits from our own FIFO `leaf` in `folder`, made so by an
// older version under umask 0. The entry is opened without following it and looked at through
// that descriptor, so the change reaches exactly the FIFO that was checked. Best effort: the
// pipe stays usable when it fails.
void TightenOwnFifo(const shared::CheckedFolder& folder, const std::string& leaf) {
    const int fd = ::openat(folder.fd(), leaf.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode) && st.st_uid == ::geteuid() &&
        (st.st_mode & kWritableByOthers) != 0) {
        // fchmod does not take an O_PATH descriptor; its /proc/self/fd entry names the same
        // inode and is not a path anybody else can redirect.
        const std::string self = "/proc/self/fd/" + std::to_string(fd);
        (void)::chmod(self.c_str(), st.st_mode & 07777 & ~kWritableByOthers);
    }
    ::close(fd);
}

}  // namespace

bool NamedPipeCreator::IsPipe(const std::string& path) {
    shared::CheckedFolder folder;
    std::string leaf;
    return FindPipe(path, folder, leaf).empty();
}

std::string NamedPipeCreator::Remove(const std::string& path) {
    shared::CheckedFolder folder;
    std::string leaf;
    std::string problem = FindPipe(path, folder, leaf);
    if (problem.empty() && ::unlinkat(folder.fd(), leaf.c_str(), 0) != 0) {
        problem = std::strerror(errno);
    }
    return problem;
}

std::string NamedPipeCreator::ConstructPipeFilename(const std::string& name) {
    FSUtils::EnsureSharedDirectory(PipeDirectory());
    return PipeFilenameWithoutCreating(name);
}

std::string NamedPipeCreator::PipeFilenameWithoutCreating(const std::string& name) {
    return PipeDirectory() + "/" + name + kFifoSuffix;
}

bool NamedPipeCreator::CreateIfNeeded(const std::string& path) {
    std::string folderPath;
    std::string leaf;
    if (!shared::SplitFolderAndName(path, folderPath, leaf) ||
        !StaysInItsFolder(path, folderPath, leaf)) {
        return Fail(path, "the name does not stay in the pipe folder");
    }
    shared::CheckedFolder folder;
    try {
        folder = shared::CheckedFolder::Open(folderPath);
    } catch (const std::exception& e) {
        return Fail(path, e.what());
    }
    // Two rounds: a FIFO made by another process between our look and mkfifoat is looked at
    // again. Nothing is followed: a symlink at the name counts as a file in the way.
    for (int round = 0; round < 2; ++round) {
        struct stat st;
        if (::fstatat(folder.fd(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
            if (!S_ISFIFO(st.st_mode)) {
                return Fail(path, kInTheWay);
            }
            if (!shared::OwnedByRootOrMe(st)) {
                return Fail(path,
                            "a named pipe of uid " + std::to_string(st.st_uid) + " is in the way");
            }
            if ((st.st_mode & kWritableByOthers) != 0 && st.st_uid == ::geteuid()) {
                TightenOwnFifo(folder, leaf);
            }
            return true;
        }
        if (errno != ENOENT) {
            return Fail(path, std::strerror(errno));
        }
        if (::mkfifoat(folder.fd(), leaf.c_str(), kFifoMode) == 0) {
            return true;
        }
        if (errno != EEXIST) {
            return Fail(path, std::strerror(errno));
        }
    }
    return Fail(path, kInTheWay);
}

}  // namespace FileUtils
