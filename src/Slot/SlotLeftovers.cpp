// SPDX-License-Identifier: Apache-2.0
#include <Slot/SlotLeftovers.h>

#include <Slot/SlotNames.h>

#include <FileUtils/FSUtils.h>
#include <shared/FileLock.h>
#include <shared/SharedFolder.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// Slot names, which map to a file directly in the lock folder; other names have no lock file.
bool HasLockFile(const std::string& name) {
    return !Slot::SlotNameProblem(name);
}

bool Exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

bool HasSharedMemory(const std::string& name) {
    return Exists(Slot::ShmPath(Slot::HeaderObjectName(name))) ||
           Exists(Slot::ShmPath(Slot::QueueObjectName(name)));
}

// Removes the lock file at `path` (of slot `name`) unless a process holds it.
LeftoverRemoval RemoveUnheldLockFile(const std::string& name, const std::string& path) {
    LeftoverRemoval result;
    if (!HasLockFile(name)) {
        return result;
    }
    result.path = path;
    std::string folderPath;
    std::string file;
    shared::SplitFolderAndName(result.path, folderPath, file);
    struct stat folderStat;
    if (::lstat(folderPath.c_str(), &folderStat) != 0 && errno == ENOENT) {
        return result;  // no lock folder, so no lock file; it is not made for a look
    }
    try {
        const shared::CheckedFolder folder = shared::CheckedFolder::Open(folderPath);
        struct stat st;
        if (::fstatat(folder.fd(), file.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT) {
                result.outcome = LeftoverOutcome::Failed;
                result.detail = std::strerror(errno);
            }
            return result;
        }
        if (!S_ISREG(st.st_mode)) {
            result.outcome = LeftoverOutcome::Failed;
            result.detail = "not a plain file";
            return result;
        }
        // FileLock refuses anything but a plain file of one link in a checked folder. A remover's
        // claim: a reader that meets it waits for the unlink and claims the next file.
        shared::FileLock claim(result.path.c_str());
        if (!claim.TryLockForRemoval()) {
            result.outcome = LeftoverOutcome::Held;
            result.holder = shared::FileLock::Holder(result.path);
            return result;
        }
        // Unlinked while claimed: a reader that comes now finds no file and makes a new one.
        if (::unlinkat(folder.fd(), file.c_str(), 0) != 0) {
            result.outcome = LeftoverOutcome::Failed;
            result.detail = std::strerror(errno);
            return result;
        }
        result.outcome = LeftoverOutcome::Removed;
    } catch (const std::exception& e) {
        result.outcome = LeftoverOutcome::Failed;
        result.detail = e.what();
    }
    return result;
}

// Slot names whose lock file "<name><suffix>" lies in the lock folder, unheld, while the slot
// is gone; sorted.
std::vector<std::string> OrphanedLockFiles(const std::string& suffix) {
    std::vector<std::string> names;
    const std::string folderPath = FileUtils::FSUtils::SingletonFileLockDirectoryWithoutCreating();
    try {
        const shared::CheckedFolder folder = shared::CheckedFolder::Open(folderPath);
        const int fd = ::openat(folder.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR* dir = fd >= 0 ? ::fdopendir(fd) : nullptr;
        if (dir == nullptr) {
            if (fd >= 0) {
                ::close(fd);
            }
            return names;
        }
        while (const dirent* entry = ::readdir(dir)) {
            const std::string file = entry->d_name;
            if (file.size() <= suffix.size() ||
                file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0) {
                continue;
            }
            const std::string name = file.substr(0, file.size() - suffix.size());
            struct stat st;
            if (::fstatat(folder.fd(), file.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
                !S_ISREG(st.st_mode) || HasSharedMemory(name) ||
                shared::FileLock::Holder(folderPath + "/" + file) != 0) {
                continue;
            }
            names.push_back(name);
        }
        ::closedir(dir);
    } catch (const std::exception&) {
        // An unsafe or missing folder holds nothing of ours to remove.
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

LeftoverRemoval SlotLeftovers::RemoveReaderLockFile(const std::string& name) {
    return RemoveUnheldLockFile(name,
                                FileUtils::FSUtils::SingletonFileLockNameWithoutCreating(name));
}

LeftoverRemoval SlotLeftovers::RemoveGatewayClaimFile(const std::string& name) {
    return RemoveUnheldLockFile(name,
                                FileUtils::FSUtils::GatewayClaimFileNameWithoutCreating(name));
}

std::vector<std::string> SlotLeftovers::OrphanedReaderLockFiles() {
    return OrphanedLockFiles(FileUtils::FSUtils::kLockFileSuffix);
}

std::vector<std::string> SlotLeftovers::OrphanedGatewayClaimFiles() {
    return OrphanedLockFiles(FileUtils::FSUtils::kGatewayClaimFileSuffix);
}
