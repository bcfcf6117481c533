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

const char kLockSuffix[] = ".lock";
const size_t kLockSuffixLength = sizeof(kLockSuffix) - 1;

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

}  // namespace

LeftoverRemoval SlotLeftovers::RemoveReaderLockFile(const std::string& name) {
    LeftoverRemoval result;
    if (!HasLockFile(name)) {
        return result;
    }
    result.path = FileUtils::FSUtils::SingletonFileLockNameWithoutCreating(name);
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

std::vector<std::string> SlotLeftovers::OrphanedReaderLockFiles() {
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
            if (file.size() <= kLockSuffixLength ||
                file.compare(file.size() - kLockSuffixLength, kLockSuffixLength, kLockSuffix) !=
                    0) {
                continue;
            }
            const std::string name = file.substr(0, file.size() - kLockSuffixLength);
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
