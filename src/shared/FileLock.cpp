// SPDX-License-Identifier: Apache-2.0
#include <shared/FileLock.h>

#include <shared/AtForkMutex.h>
#include <shared/FileHelpers.h>
#include <shared/SharedFolder.h>

#include <boost/interprocess/exceptions.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

namespace shared {

// One per lock file and process. All fields are guarded by the registry mutex.
struct FileLockEntry {
    int fd;
    dev_t dev;
    ino_t ino;
    bool writable;           // fd is read-write: the claim is an exclusive lock
    unsigned int refs;       // FileLock objects that share fd
    const FileLock* holder;  // the FileLock that holds the process's lock, or null
    bool removal;            // the holder's claim is a remover's (TryLockForRemoval)
};

namespace {

struct Registry {
    std::vector<FileLockEntry*>* entries;  // never freed: usable during static teardown
    // Descriptors of files that already had an entry when they were opened again (only when
    // a file is swapped in under another name during the open). Closing one would drop the
    // process's lock on that file, so they stay open.
    std::vector<int>* parked;
};

Registry registry = {nullptr, nullptr};

void InitRegistry() {
    registry.entries = new std::vector<FileLockEntry*>;
    registry.parked = new std::vector<int>;
}

// The child holds no record lock: forget every holder.
void ForgetHoldersInChild() {
    for (FileLockEntry* entry : *registry.entries) {
        entry->holder = nullptr;
        entry->removal = false;
    }
}

using RegistryLock = AtForkMutex<InitRegistry, ForgetHoldersInChild>::Lock;

[[noreturn]] void Throw(const std::string& text) {
    throw boost::interprocess::interprocess_exception(text.c_str());
}

[[noreturn]] void ThrowErrno(const std::string& path, int error) {
    Throw("Cannot open lock file '" + path + "' : " + std::strerror(error));
}

FileLockEntry* Find(dev_t dev, ino_t ino) {
    for (FileLockEntry* entry : *registry.entries) {
        if (entry->dev == dev && entry->ino == ino) {
            return entry;
        }
    }
    return nullptr;
}

// A range of the file's bytes; a length of 0 runs to the end, however far the file grows.
struct Range {
    off_t start;
    off_t length;
};

// A claimant locks the whole file; a remover locks from an offset far beyond any content (lock
// files stay empty) to the end. Each excludes the other, and only a claimant's lock covers the
// bytes before that offset. The offset fits a 32-bit off_t.
const off_t kRemovalStart = off_t(1) << 30;
const Range kWholeFile = {0, 0};
const Range kClaimantOnly = {0, kRemovalStart};
const Range kRemoval = {kRemovalStart, 0};

// How long Claim waits for removers before it gives up. A remover holds the file only for an
// unlink, so this is reached only when one is stopped or starved between its lock and unlink.
const std::chrono::seconds kRemovalPatience(1);

// Lock files are their owner's alone (and root's): a process that can open one can lock it,
// and any lock refuses every claimant.
const mode_t kLockFileMode = 0600;

int SetLock(int fd, short type, Range range = kWholeFile) {
    struct flock fl = {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = range.start;
    fl.l_len = range.length;
    return ::fcntl(fd, F_SETLK, &fl);
}

// Pid of another process that holds a lock on `range` of the file, 0 when none, -1 when
// unknown. With `anyKind` open-file-description locks count too (F_OFD_GETLK): such a lock names
// no process, and its holder writes its pid into the file.
pid_t OtherHolder(int fd, bool anyKind = false, Range range = kWholeFile) {
    struct flock fl = {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = range.start;
    fl.l_len = range.length;
    if (::fcntl(fd, anyKind ? F_OFD_GETLK : F_GETLK, &fl) != 0 || fl.l_type == F_UNLCK) {
        return 0;
    }
    if (fl.l_pid > 0 || !anyKind) {
        return fl.l_pid > 0 ? fl.l_pid : -1;
    }
    char text[32] = {0};
    const ssize_t n = ::pread(fd, text, sizeof(text) - 1, 0);
    char* end = nullptr;
    const long pid = n > 0 ? std::strtol(text, &end, 10) : 0;
    return pid > 0 && pid < (1L << 22) && end != text ? static_cast<pid_t>(pid) : -1;
}

// The registry's entry for the lock file at `path`, opened when there is none (the caller
// holds the registry lock). With `keep` false a newly opened file is not registered: its
// descriptor is returned in `temporary` and the caller closes it. With `missing` given, a file
// that is not there, or is unlinked while it is opened, gives null and sets *missing instead of
// throwing.
FileLockEntry* Acquire(const std::string& path, bool keep, int& temporary,
                       bool* missing = nullptr) {
    temporary = -1;
    std::string folderPath;
    std::string name;
    if (!SplitFolderAndName(path, folderPath, name)) {
        Throw("Lock file path '" + path + "' does not name a file");
    }
    CheckedFolder folder;
    try {
        folder = CheckedFolder::Open(folderPath);
    } catch (const std::exception& e) {
        Throw(e.what());
    }
    struct stat st;
    if (::fstatat(folder.fd(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT && missing != nullptr) {
            *missing = true;
            return nullptr;
        }
        ThrowErrno(path, errno);
    }
    if (!S_ISREG(st.st_mode)) {
        Throw("Lock file '" + path + "' is not a regular file");
    }
    if (FileLockEntry* entry = Find(st.st_dev, st.st_ino)) {
        return entry;
    }
    // Read-write only on our own files; another user's lock file is never opened for writing.
    bool writable = st.st_uid == ::geteuid();
    const int common = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int fd = ::openat(folder.fd(), name.c_str(), (writable ? O_RDWR : O_RDONLY) | common);
    if (fd < 0 && writable && errno == EACCES) {
        writable = false;
        fd = ::openat(folder.fd(), name.c_str(), O_RDONLY | common);
    }
    if (fd < 0 && errno == EACCES) {
        Throw("Cannot open lock file '" + path + "' : it belongs to uid " +
              std::to_string(st.st_uid) + " with mode " + ModeText(st.st_mode) +
              ", which no reader of another user can use; its owner or root can remove it");
    }
    if (fd < 0) {
        if (errno == ENOENT && missing != nullptr) {
            *missing = true;
            return nullptr;
        }
        ThrowErrno(path, errno);
    }
    struct stat opened;
    if (::fstat(fd, &opened) != 0) {
        const int error = errno;
        ::close(fd);
        ThrowErrno(path, error);
    }
    if (FileLockEntry* entry = Find(opened.st_dev, opened.st_ino)) {
        registry.parked->push_back(fd);
        return entry;
    }
    // Not registered, so this process holds no lock on it: closing fd is harmless.
    if (opened.st_nlink == 0 && missing != nullptr) {
        ::close(fd);
        *missing = true;
        return nullptr;
    }
    if (!S_ISREG(opened.st_mode) || opened.st_nlink != 1 ||
        (writable && opened.st_uid != ::geteuid())) {
        ::close(fd);
        Throw("Lock file '" + path + "' is not a plain file of one link (refused)");
    }
    // An own lock file that others can open (made by an older version) could let them lock it:
    // only its owner and root may.
    if (writable && (opened.st_mode & 077) != 0) {
        ::fchmod(fd, kLockFileMode);
    }
    if (!keep) {
        temporary = fd;
        return nullptr;
    }
    FileLockEntry* entry =
        new FileLockEntry{fd, opened.st_dev, opened.st_ino, writable, 0, nullptr, false};
    registry.entries->push_back(entry);
    return entry;
}

// Why a lock attempt on `entry` by a FileLock that does not hold it was refused (the caller
// holds the registry lock). `holder` gets the claimant's pid.
enum class Refusal {
    Gone,      // the file was unlinked since it was opened
    Claimant,  // a claimant holds it
    Remover,   // only a remover holds it
    Released   // nobody holds it any more
};

Refusal WhyRefused(const FileLockEntry& entry, pid_t& holder) {
    struct stat st;
    if (::fstat(entry.fd, &st) != 0 || st.st_nlink == 0) {
        return Refusal::Gone;
    }
    if (entry.holder != nullptr) {
        holder = ::getpid();
        return entry.removal ? Refusal::Remover : Refusal::Claimant;
    }
    holder = OtherHolder(entry.fd, false, kClaimantOnly);
    if (holder != 0) {
        return Refusal::Claimant;
    }
    return OtherHolder(entry.fd, false, kRemoval) != 0 ? Refusal::Remover : Refusal::Released;
}

}  // namespace

std::string TouchFile(const std::string& path, uid_t owner) {
    std::string folderPath;
    std::string name;
    if (!SplitFolderAndName(path, folderPath, name)) {
        throw std::runtime_error("Cannot create file " + path + " : not a file name");
    }
    const CheckedFolder folder = CheckedFolder::Open(folderPath);
    // Two rounds: a file made by another process between the look and the creation is looked
    // at again.
    for (int round = 0; round < 2; ++round) {
        struct stat st;
        if (::fstatat(folder.fd(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
            if (!S_ISREG(st.st_mode)) {
                throw std::runtime_error("Cannot use file " + path +
                                         " : something other than a regular file is there");
            }
            return path;
        }
        if (errno != ENOENT) {
            break;
        }
        // Closing a descriptor of the file drops this process's lock on it. Under the registry's
        // lock no FileLock of this process can open and lock the file before the close; other
        // processes' locks are not affected.
        RegistryLock lock;
        const int fd = ::openat(folder.fd(), name.c_str(),
                                O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC,
                                kLockFileMode);
        if (fd >= 0) {
            ::fchmod(fd, kLockFileMode);
            // Given away before any other user can open it.
            if (owner != kNoOwner && owner != 0 && ::geteuid() == 0 &&
                ::fchown(fd, owner, static_cast<gid_t>(-1)) != 0) {
                // Left root's: the owner's claims are refused until the file is removed.
            }
            ::close(fd);
            return path;
        }
        if (errno != EEXIST) {
            break;
        }
    }
    throw std::runtime_error("Cannot create file " + path + " : " + std::strerror(errno));
}

FileLock::FileLock() : entry_(nullptr) {}

FileLock::FileLock(const char* path) : entry_(nullptr) {
    RegistryLock lock;
    int temporary = -1;
    entry_ = Acquire(path, true, temporary);
    ++entry_->refs;
}

FileLock::~FileLock() {
    Release();
}

FileLock::FileLock(FileLock&& other) noexcept : entry_(nullptr) {
    *this = std::move(other);
}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
    if (this != &other) {
        Release();
        RegistryLock lock;
        entry_ = other.entry_;
        other.entry_ = nullptr;
        if (entry_ != nullptr && entry_->holder == &other) {
            entry_->holder = this;
        }
    }
    return *this;
}

void FileLock::Release() {
    if (entry_ == nullptr) {
        return;
    }
    unlock();
    RegistryLock lock;
    if (--entry_->refs == 0) {
        // The last user: the process holds no lock on the file, so the descriptor may go.
        ::close(entry_->fd);
        std::vector<FileLockEntry*>& entries = *registry.entries;
        entries.erase(std::remove(entries.begin(), entries.end(), entry_), entries.end());
        delete entry_;
    }
    entry_ = nullptr;
}

bool FileLock::OpenExisting(const std::string& path) {
    Release();
    RegistryLock lock;
    int temporary = -1;
    bool missing = false;
    entry_ = Acquire(path, true, temporary, &missing);
    if (entry_ == nullptr) {
        return false;
    }
    ++entry_->refs;
    return true;
}

bool FileLock::try_lock() {
    return Lock(false);
}

bool FileLock::TryLockForRemoval() {
    return Lock(true);
}

bool FileLock::Lock(bool removal) {
    if (entry_ == nullptr) {
        Throw("FileLock without a file");
    }
    RegistryLock lock;
    if (entry_->holder != nullptr) {
        return entry_->holder == this;
    }
    const Range range = removal ? kRemoval : kWholeFile;
    if (SetLock(entry_->fd, entry_->writable ? F_WRLCK : F_RDLCK, range) != 0) {
        if (errno == EAGAIN || errno == EACCES) {
            return false;
        }
        Throw(std::string("Cannot lock : ") + std::strerror(errno));
    }
    // A shared lock excludes exclusive claimants but not other shared ones: keep it only when
    // no other process holds any lock. Of two shared claimants, the later one to look sees the
    // earlier one's lock, so both cannot succeed.
    if (!entry_->writable && OtherHolder(entry_->fd) != 0) {
        SetLock(entry_->fd, F_UNLCK);
        return false;
    }
    // A file removed between the open and the lock (a leftover being cleaned up) can be claimed
    // by nobody else any more: such a claim would not exclude the next claimant.
    struct stat st;
    if (::fstat(entry_->fd, &st) != 0 || st.st_nlink == 0) {
        SetLock(entry_->fd, F_UNLCK);
        return false;
    }
    entry_->holder = this;
    entry_->removal = removal;
    return true;
}

void FileLock::unlock() {
    if (entry_ == nullptr) {
        return;
    }
    RegistryLock lock;
    if (entry_->holder == this) {
        SetLock(entry_->fd, F_UNLCK);
        entry_->holder = nullptr;
        entry_->removal = false;
    }
}

FileLock::ClaimOutcome FileLock::Claim(const std::string& path, pid_t* holder, uid_t owner) {
    const auto deadline = std::chrono::steady_clock::now() + kRemovalPatience;
    for (int round = 0;; ++round) {
        // A file missing at the opening was removed since TouchFile made or found it.
        bool pause = round > 0;
        if (OpenExisting(TouchFile(path, owner))) {
            if (try_lock()) {
                return ClaimOutcome::Claimed;
            }
            pid_t other = 0;
            Refusal why;
            {
                RegistryLock lock;
                why = WhyRefused(*entry_, other);
            }
            if (why == Refusal::Claimant) {
                if (holder != nullptr) {
                    *holder = other;
                }
                return ClaimOutcome::Held;
            }
            // A remover needs the processor to finish its unlink.
            pause = pause || why == Refusal::Remover;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return ClaimOutcome::Unsettled;
        }
        if (pause) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

pid_t FileLock::Holder(const std::string& path) {
    RegistryLock lock;
    int temporary = -1;
    FileLockEntry* entry = nullptr;
    try {
        entry = Acquire(path, false, temporary);
    } catch (const std::exception&) {
        return 0;
    }
    if (entry != nullptr && entry->holder != nullptr) {
        return ::getpid();
    }
    const pid_t holder = OtherHolder(entry != nullptr ? entry->fd : temporary);
    if (temporary >= 0) {
        ::close(temporary);
    }
    return holder;
}

pid_t FileLock::AnyHolder(const std::string& path) {
    RegistryLock lock;
    struct stat st;
    if (::fstatat(AT_FDCWD, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) {
        return 0;
    }
    if (const FileLockEntry* entry = Find(st.st_dev, st.st_ino)) {
        return entry->holder != nullptr ? ::getpid() : OtherHolder(entry->fd, true);
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return 0;
    }
    if (const FileLockEntry* entry = Find(st.st_dev, st.st_ino)) {
        // Swapped in under this name since the look: closing fd would drop our lock.
        registry.parked->push_back(fd);
        return entry->holder != nullptr ? ::getpid() : OtherHolder(entry->fd, true);
    }
    const pid_t holder = OtherHolder(fd, true);
    // Not registered, so this process holds no lock on it: closing fd is harmless.
    ::close(fd);
    return holder;
}

}  // namespace shared
