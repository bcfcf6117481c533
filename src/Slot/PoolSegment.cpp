// SPDX-License-Identifier: Apache-2.0
#include <Slot/PoolSegment.h>

#include <Slot/AbortSlotCreationException.h>
#include <Slot/SlotNames.h>

#include <shared/AtForkMutex.h>
#include <shared/CrashPoint.h>
#include <shared/MutexOwner.h>
#include <shared/RobustMutex.h>
#include <shared/SharedFolder.h>
#include <shared/WriteOutcome.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <vector>

namespace Slot {

namespace {

constexpr unsigned ReaperShift = 32;
// How long a reaper waits for the writers' mutex (a live writer holds it for a few stores).
constexpr long ReapLockSeconds = 2;

std::uint64_t Word(pid_t pid) {
    return AttachInUse | (static_cast<std::uint64_t>(pid) & AttachPidMask);
}

bool AddOverflows(std::uint64_t a, std::uint64_t b, std::uint64_t& out) {
    return __builtin_add_overflow(a, b, &out);
}

bool MulOverflows(std::uint64_t a, std::uint64_t b, std::uint64_t& out) {
    return __builtin_mul_overflow(a, b, &out);
}

std::string Errno(int error) {
    return std::strerror(error);
}

// Open-file-description locks on one byte: they belong to the descriptor's open file
// description, so another description of the same process conflicts with them, closing other
// descriptors does not drop them, and the kernel drops them when the last descriptor of the
// description closes (its process died).
int LockOneByte(int fd, short type, std::uint64_t byte) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(byte);
    lock.l_len = 1;
    return ::fcntl(fd, F_OFD_SETLK, &lock) == 0 ? 0 : errno;
}

// The lock descriptors of this process's attachments (owner locks) and segments (reaper
// locks). A child forked without exec would share each description, and with it its locks: the
// entry of a parent that died first would look alive to every judge that goes by the lock until
// the child ended, and so would a reaper lock of a parent that died while reaping. So the child
// closes its copies at once (the parent's descriptors keep the locks) and marks them closed, so
// that its copies of the attachments and segments close nothing later (a segment without its
// descriptor takes every owner for alive and reaps nothing). The fork takes the registry's
// lock, so no descriptor is between its open and its registration then.
std::vector<int*>* attachmentFds = nullptr;  // never freed: usable during static teardown

void InitAttachmentFds() {
    attachmentFds = new std::vector<int*>;
}

void CloseAttachmentFdsInChild() {
    for (int* fd : *attachmentFds) {
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
    }
}

using AttachmentFdsLock = shared::AtForkMutex<InitAttachmentFds, CloseAttachmentFdsInChild>::Lock;

bool TryLockByte(int fd, std::uint64_t byte) {
    return LockOneByte(fd, F_WRLCK, byte) == 0;
}

// Whether LockOneByte's error means that another description holds the lock.
bool HeldElsewhere(int error) {
    return error == EAGAIN || error == EACCES;
}

void UnlockByte(int fd, std::uint64_t byte) {
    LockOneByte(fd, F_UNLCK, byte);
}

[[noreturn]] void Refuse(const std::string& name, const std::string& why) {
    throw AbortSlotCreationException("Cannot open pool '" + name + "': " + why);
}

// The same refusal, for a file that went (or was replaced) while it was opened: the opener
// tries again.
[[noreturn]] void RefuseGone(const std::string& name, const std::string& why) {
    throw PoolGoneException("Cannot open pool '" + name + "': " + why);
}

const char* const KeepsDisappearing = "it keeps disappearing while it is opened";
// How often Open looks for the pool (or makes it) before it gives up on one that keeps
// disappearing.
constexpr int OpenAttempts = 8;

const char* KindName(std::uint32_t kind) {
    return kind == LatestKind ? "latest" : "queue";
}

// Closes a descriptor on scope exit.
struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

// How many names a creator tries for its temporary: another user may have planted entries in
// the shared folder under names it guessed, which this user cannot remove.
constexpr int TemporaryNameAttempts = 16;

std::atomic<std::uint64_t> temporaryCounter{0};

// A temporary's name that other users cannot predict: the prefix, the creator's pid (for whoever
// reads the folder) and 64 random bits.
std::string TemporaryName() {
    std::uint64_t bits = 0;
    if (::getrandom(&bits, sizeof(bits), GRND_NONBLOCK) != static_cast<ssize_t>(sizeof(bits))) {
        // No entropy yet (early boot): the clock and a count, hard to guess still; a name that is
        // taken is replaced by another.
        bits = static_cast<std::uint64_t>(
                   std::chrono::steady_clock::now().time_since_epoch().count()) ^
               (temporaryCounter.fetch_add(1) * 0x9e3779b97f4a7c15ull);
    }
    char random[17];
    std::snprintf(random, sizeof(random), "%016llx", static_cast<unsigned long long>(bits));
    return PoolTemporaryPrefix + std::to_string(::getpid()) + "-" + random;
}

// Removes temporaries left by creators that died before renaming their pool into place. A
// creator holds a lock on its temporary (its pid may be another pid namespace's): one
// without it is stale. One removed between its creation and its lock is made again.
void RemoveStaleTemporaries(int folderFd) {
    const int dirFd = ::openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0) {
        return;
    }
    DIR* dir = ::fdopendir(dirFd);
    if (dir == nullptr) {
        ::close(dirFd);
        return;
    }
    const std::string prefix = PoolTemporaryPrefix;
    std::vector<std::string> stale;
    while (dirent* entry = ::readdir(dir)) {
        const std::string file = entry->d_name;
        if (file.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        Fd fd(::openat(dirfd(dir), file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat st;
        if (fd.fd >= 0 && ::fstat(fd.fd, &st) == 0 && S_ISREG(st.st_mode) &&
            !PoolByteLocked(fd.fd, PoolCreatorLockByte)) {
            stale.push_back(file);
        }
    }
    ::closedir(dir);
    for (const std::string& file : stale) {
        ::unlinkat(folderFd, file.c_str(), 0);
    }
}

// Makes the pool file complete under a temporary name, then renames it into place. False when
// another process's pool won the name meanwhile.
bool CreatePoolFile(int folderFd, const PoolConfig& config, const PoolGeometry& geometry) {
    RemoveStaleTemporaries(folderFd);
    std::string temporary;
    // The creator's lock is held on a descriptor of its own, registered from its open (a child
    // forked meanwhile closes its copy), not on the one the file is mapped through: a mapping
    // keeps its description, and a lock on it, alive in every child forked with it, and a dead
    // creator's temporary would never look stale.
    struct RegisteredFd {
        int fd = -1;
        ~RegisteredFd() {
            AttachmentFdsLock registry;
            std::vector<int*>& fds = *attachmentFds;
            fds.erase(std::remove(fds.begin(), fds.end(), &fd), fds.end());
            if (fd >= 0) {
                ::close(fd);
            }
        }
    } lockFd;
    int error = 0;
    // A name that is taken (planted, or a collision) is replaced by another.
    for (int attempt = 0; attempt < TemporaryNameAttempts && lockFd.fd < 0; ++attempt) {
        temporary = TemporaryName();
        AttachmentFdsLock registry;
        attachmentFds->reserve(attachmentFds->size() + 1);
        lockFd.fd = ::openat(folderFd, temporary.c_str(),
                             O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        error = errno;
        if (lockFd.fd >= 0) {
            attachmentFds->push_back(&lockFd.fd);
        } else if (error != EEXIST) {
            break;
        }
    }
    if (lockFd.fd < 0) {
        Refuse(config.name, "cannot create " + PoolPath(temporary) + ": " + Errno(error));
    }
    TryLockByte(lockFd.fd, PoolCreatorLockByte);
    // The descriptor it is mapped through. A temporary taken for a dead creator's before its
    // lock (removed, or another made under the name) is made again.
    auto discard = [&] { ::unlinkat(folderFd, temporary.c_str(), 0); };
    Fd fd(::openat(folderFd, temporary.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.fd < 0 && errno != ENOENT) {
        error = errno;
        discard();
        Refuse(config.name, "cannot create " + PoolPath(temporary) + ": " + Errno(error));
    }
    struct stat created;
    struct stat mapped;
    if (fd.fd < 0 || ::fstat(lockFd.fd, &created) != 0 || ::fstat(fd.fd, &mapped) != 0 ||
        created.st_dev != mapped.st_dev || created.st_ino != mapped.st_ino) {
        return false;
    }
    // The slots' mode: readers write their holder bits, so only the owner (and root) attach.
    // Another user who could write the file could also truncate it under its users (SIGBUS).
    ::fchmod(fd.fd, 0644);
    const std::size_t size = static_cast<std::size_t>(geometry.totalSize);
    const int rc = ::posix_fallocate(fd.fd, 0, static_cast<off_t>(size));
    if (rc != 0) {
        discard();
        throw AbortSlotCreationException("Cannot reserve " + std::to_string(size) +
                                         " bytes for pool '" + config.name + "': " + Errno(rc));
    }
    void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.fd, 0);
    if (base == MAP_FAILED) {
        const int error = errno;
        discard();
        Refuse(config.name, "cannot map " + std::to_string(size) + " bytes: " + Errno(error));
    }
    // The file is all zeros: every block Free, every attachment free, no latest block.
    PoolHeader* header = static_cast<PoolHeader*>(base);
    header->magic = PoolMagic;
    header->version = PoolLayoutVersion;
    header->kind = config.kind == "latest" ? LatestKind : QueueKind;
    header->maxBlockSize = config.maxBlockSize;
    header->blockCount = config.blockCount;
    header->stride = geometry.stride;
    header->attachmentOffset = geometry.attachmentOffset;
    header->blockTableOffset = geometry.blockTableOffset;
    header->ringOffset = geometry.ringOffset;
    header->dataOffset = geometry.dataOffset;
    header->totalSize = geometry.totalSize;
    header->writerMutexBits = PoolPointerBits;
    try {
        shared::InitRobustMutex(reinterpret_cast<pthread_mutex_t*>(header->writerMutex));
    } catch (const std::exception& e) {
        ::munmap(base, size);
        discard();
        Refuse(config.name, std::string("cannot make its mutex: ") + e.what());
    }
    ::munmap(base, size);
    if (::renameat2(folderFd, temporary.c_str(), folderFd, config.name.c_str(), RENAME_NOREPLACE) !=
        0) {
        const int error = errno;
        discard();
        // EEXIST: another process's pool won the name; ENOENT: the temporary was taken for a
        // dead creator's before its lock was taken.
        if (error == EEXIST || error == ENOENT) {
            return false;
        }
        Refuse(config.name, "cannot rename it into place: " + Errno(error));
    }
    return true;
}

shared::CheckedFolder OpenFolder(const std::string& name, mode_t createMode) {
    try {
        return shared::CheckedFolder::Open(PoolDirectory(), createMode);
    } catch (const std::exception& e) {
        Refuse(name, e.what());
    }
}

}  // namespace

bool ComputePoolGeometry(std::uint64_t maxBlockSize, std::uint64_t blockCount, PoolGeometry& out) {
    PoolGeometry g;
    std::uint64_t rounded = 0;
    if (AddOverflows(maxBlockSize, 63, rounded)) {
        return false;
    }
    g.stride = rounded & ~std::uint64_t(63);
    g.attachmentOffset = sizeof(PoolHeader);
    g.blockTableOffset = g.attachmentOffset + MaxPoolAttachments * sizeof(PoolAttachmentSlot);
    std::uint64_t table = 0;
    std::uint64_t ring = 0;
    std::uint64_t data = 0;
    if (MulOverflows(blockCount, sizeof(PoolBlockSlot), table) ||
        AddOverflows(g.blockTableOffset, table, g.ringOffset) ||
        MulOverflows(blockCount, sizeof(std::uint64_t), ring) ||
        AddOverflows(g.ringOffset, ring, data) || AddOverflows(data, 63, data)) {
        return false;
    }
    g.dataOffset = data & ~std::uint64_t(63);
    std::uint64_t blocks = 0;
    if (MulOverflows(blockCount, g.stride, blocks) ||
        AddOverflows(g.dataOffset, blocks, g.totalSize)) {
        return false;
    }
    out = g;
    return true;
}

std::optional<std::string> PoolConfigProblem(const PoolConfig& config) {
    if (std::optional<std::string> problem = SlotNameProblem(config.name)) {
        return "the name " + *problem;
    }
    const std::string temporary = PoolTemporaryPrefix;
    if (config.name.compare(0, temporary.size(), temporary) == 0) {
        return "the name starts with \"" + temporary + "\", which is reserved";
    }
    if (!PoolFactory::PoolKindIsValid(config.kind)) {
        return "the kind '" + config.kind + "' is not \"latest\" or \"queue\"";
    }
    if (config.maxBlockSize < 1 || config.maxBlockSize > MaxPoolBlockSize) {
        return "the block size " + std::to_string(config.maxBlockSize) + " is not in 1.." +
               std::to_string(MaxPoolBlockSize);
    }
    if (config.blockCount < 1 || config.blockCount > MaxPoolBlocks) {
        return "the block count " + std::to_string(config.blockCount) + " is not in 1.." +
               std::to_string(MaxPoolBlocks);
    }
    // The latest block is never reclaimed (it stays for readers that come later): a single
    // block could be published once only.
    if (config.kind == "latest" && config.blockCount < 2) {
        return "the block count " + std::to_string(config.blockCount) + " is not in 2.." +
               std::to_string(MaxPoolBlocks) + ": a \"latest\" pool keeps its latest block";
    }
    PoolGeometry g;
    if (!ComputePoolGeometry(config.maxBlockSize, config.blockCount, g) ||
        g.totalSize > std::numeric_limits<std::size_t>::max() ||
        g.totalSize > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
        return std::string("the pool is too large to map in this process");
    }
    return std::nullopt;
}

std::string LatestWordProblem(std::uint64_t latest, std::uint64_t nextSequence) {
    if ((latest >> 8) > nextSequence) {
        return "the latest word names sequence " + std::to_string(latest >> 8) +
               ", beyond the last one handed out (" + std::to_string(nextSequence) + ")";
    }
    return std::string();
}

std::string PoolHeaderProblem(const PoolHeader& header, std::uint64_t fileSize) {
    if (header.magic != PoolMagic) {
        return "not a pool file (bad magic)";
    }
    if (header.version != PoolLayoutVersion) {
        return "layout version " + std::to_string(header.version) + ", expected " +
               std::to_string(PoolLayoutVersion);
    }
    if (header.kind != LatestKind && header.kind != QueueKind) {
        return "unknown kind " + std::to_string(header.kind);
    }
    if (header.blockCount < 1 || header.blockCount > MaxPoolBlocks || header.maxBlockSize < 1 ||
        header.maxBlockSize > MaxPoolBlockSize) {
        return "block count " + std::to_string(header.blockCount) + " or size " +
               std::to_string(header.maxBlockSize) + " out of range";
    }
    PoolGeometry g;
    if (!ComputePoolGeometry(header.maxBlockSize, header.blockCount, g) ||
        g.stride != header.stride || g.attachmentOffset != header.attachmentOffset ||
        g.blockTableOffset != header.blockTableOffset || g.ringOffset != header.ringOffset ||
        g.dataOffset != header.dataOffset || g.totalSize != header.totalSize) {
        return "inconsistent geometry";
    }
    if (g.totalSize > fileSize) {
        return "the file has " + std::to_string(fileSize) + " bytes, the pool needs " +
               std::to_string(g.totalSize);
    }
    if (g.totalSize > std::numeric_limits<std::size_t>::max()) {
        return "too large to map in this process";
    }
    return std::string();
}

namespace {

// Reads /proc/<pid>/stat into `text` (empty when it cannot be read: the process ended meanwhile).
// False when it cannot be opened. One descriptor, once: a second open for the same answer could
// fail alone (no descriptor left) and make a live process look like another one.
bool ReadProcStat(pid_t pid, std::string& text) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    if (!in.is_open()) {
        return false;
    }
    if (!std::getline(in, text)) {
        text.clear();
    }
    return true;
}

}  // namespace

PidNamespace OwnPidNamespace() {
    PidNamespace ns;
    struct stat st;
    if (::stat("/proc/self/ns/pid", &st) == 0) {
        ns.device = static_cast<std::uint64_t>(st.st_dev);
        ns.inode = static_cast<std::uint64_t>(st.st_ino);
    }
    return ns;
}

bool PoolByteLocked(int fd, std::uint64_t byte) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(byte);
    lock.l_len = 1;
    if (::fcntl(fd, F_OFD_GETLK, &lock) != 0) {
        return true;
    }
    return lock.l_type != F_UNLCK;
}

std::uint64_t PoolProcessStartTime(pid_t pid) {
    std::string text;
    return ReadProcStat(pid, text) ? shared::StartTimeOfStatLine(text) : 0;
}

bool PoolProcessGone(pid_t pid, std::uint64_t startTime) {
    if (pid <= 0) {
        return true;
    }
    std::string text;
    if (!ReadProcStat(pid, text)) {
        return !(::kill(pid, 0) == 0 || errno == EPERM);
    }
    if (text.empty()) {
        return true;  // ended while being read
    }
    const std::size_t close = text.rfind(')');
    if (close == std::string::npos || close + 2 >= text.size()) {
        return false;
    }
    const char state = text[close + 2];
    if (state == 'X' || state == 'x') {
        return true;
    }
    // A line without a start time is not taken for another process's.
    const std::uint64_t started = shared::StartTimeOfStatLine(text);
    return startTime != 0 && started != 0 && started != startTime;
}

PoolSegment::PoolSegment(const std::string& name, int fd, void* base, std::size_t size,
                         const PoolHeader& checked, shared::WriteCounters* counters)
    : name_(name),
      fd_(fd),
      base_(base),
      size_(size),
      header_(static_cast<PoolHeader*>(base)),
      attachments_(reinterpret_cast<PoolAttachmentSlot*>(static_cast<unsigned char*>(base) +
                                                         checked.attachmentOffset)),
      blocks_(reinterpret_cast<PoolBlockSlot*>(static_cast<unsigned char*>(base) +
                                               checked.blockTableOffset)),
      ring_(reinterpret_cast<std::atomic<std::uint64_t>*>(static_cast<unsigned char*>(base) +
                                                          checked.ringOffset)),
      data_(static_cast<unsigned char*>(base) + checked.dataOffset),
      stride_(static_cast<std::size_t>(checked.stride)),
      kind_(static_cast<PoolKind>(checked.kind)),
      maxBlockSize_(static_cast<std::size_t>(checked.maxBlockSize)),
      blockCount_(static_cast<unsigned>(checked.blockCount)),
      counters_(counters),
      logger_(log4cxx::Logger::getLogger("Slot.Pool")) {
    writerWatch_.kind = shared::RobustMutexKind();
}

PoolSegment::~PoolSegment() {
    {
        AttachmentFdsLock registry;
        std::vector<int*>& fds = *attachmentFds;
        fds.erase(std::remove(fds.begin(), fds.end(), &fd_), fds.end());
    }
    if (fd_ >= 0) {  // closed at a fork in a child
        ::close(fd_);
    }
    ::munmap(base_, size_);
}

std::shared_ptr<PoolSegment> PoolSegment::OpenExisting(const std::string& name) {
    if (std::optional<std::string> problem = SlotNameProblem(name)) {
        Refuse(name, "the name " + *problem);
    }
    shared::CheckedFolder folder = OpenFolder(name, 0);
    // O_NONBLOCK: a FIFO planted under the name is refused below instead of waited on.
    Fd fd(::openat(folder.fd(), name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.fd < 0 && errno == ENOENT) {
        RefuseGone(name, Errno(errno));
    }
    if (fd.fd < 0) {
        Refuse(name, Errno(errno));
    }
    struct stat st;
    if (::fstat(fd.fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        Refuse(name, "not a regular file");
    }
    // The folder is open to all: a file planted by another user (or one others may write)
    // could be rewritten or truncated under its users (SIGBUS). A pool of this user's own
    // that others may write was made by an earlier build: it is made 0644, as pools now are.
    if (std::optional<std::string> problem = shared::SharedWriteProblem(fd.fd, st, "the file")) {
        Refuse(name, *problem);
    }
    const std::uint64_t fileSize = static_cast<std::uint64_t>(st.st_size);
    if (fileSize < sizeof(PoolHeader)) {
        Refuse(name, "the file has " + std::to_string(fileSize) + " bytes, less than a header");
    }
    PoolHeader copy;
    if (::pread(fd.fd, &copy, sizeof(copy), 0) != static_cast<ssize_t>(sizeof(copy))) {
        Refuse(name, "cannot read its header");
    }
    const std::string problem = PoolHeaderProblem(copy, fileSize);
    if (!problem.empty()) {
        Refuse(name, problem);
    }
    if (copy.kind == QueueKind && copy.writerMutexBits != PoolPointerBits) {
        Refuse(name, "it is a \"queue\" pool of " + std::to_string(copy.writerMutexBits) +
                         "-bit processes, this one is " + std::to_string(PoolPointerBits) + "-bit");
    }
    // Only the checked size is mapped; the geometry is read from the mapping again and must
    // match what was checked (a writer may not change it, but nothing shared is trusted).
    const std::size_t size = static_cast<std::size_t>(copy.totalSize);
    void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.fd, 0);
    if (base == MAP_FAILED) {
        Refuse(name, "cannot map " + std::to_string(size) + " bytes: " + Errno(errno));
    }
    const PoolHeader* mapped = static_cast<const PoolHeader*>(base);
    if (std::memcmp(mapped, &copy, offsetof(PoolHeader, publishCount)) != 0) {
        ::munmap(base, size);
        Refuse(name, "its geometry changed while it was opened");
    }
    // The owners' locks are tested and the reaper locks taken through a description of the
    // file of their own. The mapping's description lives on in every child forked with the
    // mapping, and a lock on it with it; this one is closed in such a child at the fork. From
    // its open to its registration, no fork. Until the segment owns the mapping and the
    // descriptor, a throw (out of memory) gives them back here; after, the shared pointer
    // deletes the segment if it throws.
    PoolSegment* segment = nullptr;
    shared::WriteCounters* const counters = shared::WriteCountersFor(name);
    {
        AttachmentFdsLock registry;
        attachmentFds->reserve(attachmentFds->size() + 1);
        Fd lockFd(
            ::openat(folder.fd(), name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat again;
        if (lockFd.fd < 0 || ::fstat(lockFd.fd, &again) != 0 || again.st_dev != st.st_dev ||
            again.st_ino != st.st_ino) {
            const int error = errno;
            ::munmap(base, size);
            if (lockFd.fd >= 0) {
                RefuseGone(name, "it was removed and made again while it was opened");
            }
            const std::string why = "cannot open it again for its locks: " + Errno(error);
            if (error == ENOENT) {
                RefuseGone(name, why);
            }
            Refuse(name, why);
        }
        try {
            segment = new PoolSegment(name, lockFd.fd, base, size, copy, counters);
        } catch (...) {
            ::munmap(base, size);
            throw;
        }
        lockFd.fd = -1;
        attachmentFds->push_back(&segment->fd_);  // room reserved above: does not throw
    }
    return std::shared_ptr<PoolSegment>(segment);
}

std::shared_ptr<PoolSegment> PoolSegment::Open(const PoolConfig& config) {
    if (std::optional<std::string> problem = PoolConfigProblem(config)) {
        Refuse(config.name, *problem);
    }
    PoolGeometry geometry;
    ComputePoolGeometry(config.maxBlockSize, config.blockCount, geometry);
    shared::CheckedFolder folder = OpenFolder(config.name, 01777);
    // A pool appears whole (renamed into place) or not at all; a creator that loses the name
    // to another opens the winner's pool.
    // A pool removed (or removed and made again) while it is opened is looked for again.
    for (int attempt = 0; attempt < OpenAttempts; ++attempt) {
        const int fd = ::openat(folder.fd(), config.name.c_str(),
                                O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) {
            ::close(fd);
            std::shared_ptr<PoolSegment> segment;
            try {
                segment = OpenExisting(config.name);
            } catch (const PoolGoneException&) {
                continue;
            }
            if (KindName(segment->kind()) != config.kind) {
                Refuse(config.name, std::string("it is a \"") + KindName(segment->kind()) +
                                        "\" pool, not \"" + config.kind + "\"");
            }
            return segment;
        }
        if (errno != ENOENT) {
            Refuse(config.name, Errno(errno));
        }
        CreatePoolFile(folder.fd(), config, geometry);
    }
    Refuse(config.name, KeepsDisappearing);
}

std::shared_ptr<PoolAttachment> AttachToPool(const PoolConfig& config) {
    try {
        return std::make_shared<PoolAttachment>(PoolSegment::Open(config));
    } catch (const PoolGoneException&) {
    }
    try {
        return std::make_shared<PoolAttachment>(PoolSegment::Open(config));
    } catch (const PoolGoneException&) {
        Refuse(config.name, KeepsDisappearing);
    }
}

int PoolSegment::Reopen() {
    // The name, not /proc/self/fd: /proc may show another pid namespace's processes. The file
    // found must be this mapping's (not a pool made since under the same name).
    shared::CheckedFolder folder = OpenFolder(name_, 0);
    Fd fd(::openat(folder.fd(), name_.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.fd < 0) {
        const int error = errno;
        const std::string why = "cannot open it again for the attachment's lock: " + Errno(error);
        if (error == ENOENT) {
            RefuseGone(name_, why);
        }
        Refuse(name_, why);
    }
    struct stat mine;
    struct stat found;
    if (::fstat(fd_, &mine) != 0 || ::fstat(fd.fd, &found) != 0) {
        Refuse(name_, "it was removed and made again while it was opened");
    }
    if (mine.st_dev != found.st_dev || mine.st_ino != found.st_ino) {
        RefuseGone(name_, "it was removed and made again while it was opened");
    }
    const int kept = fd.fd;
    fd.fd = -1;
    return kept;
}

unsigned PoolSegment::Attach(int& lockFd) {
    ReapDead();
    const pid_t me = ::getpid();
    const std::uint64_t start = PoolProcessStartTime(me);
    const PidNamespace ns = OwnPidNamespace();
    // From the open of the descriptor to its registration, no fork: a child would keep it. Room
    // first, so that registering cannot throw once the entry is taken.
    AttachmentFdsLock registry;
    attachmentFds->reserve(attachmentFds->size() + 1);
    Fd fd(Reopen());
    for (unsigned i = 0; i < MaxPoolAttachments; ++i) {
        // The lock comes before the entry: an entry in use without its owner's lock is one
        // whose owner died, also when it died before writing its namespace.
        if (attachments_[i].word.load() != 0) {
            continue;
        }
        const int error = LockOneByte(fd.fd, F_WRLCK, PoolOwnerLockByte(i));
        if (HeldElsewhere(error)) {
            continue;
        }
        if (error != 0) {
            Refuse(name_, "cannot lock its attachment entry: " + Errno(error));
        }
        std::uint64_t expected = 0;
        if (attachments_[i].word.compare_exchange_strong(expected, Word(me))) {
            // The start time before the namespace: a judge that finds the namespace its own
            // finds the start time too, and never goes by the pid number alone.
            attachments_[i].startTime.store(start);
            attachments_[i].pidNamespaceDevice.store(ns.device);
            attachments_[i].pidNamespace.store(ns.inode);
            lockFd = fd.fd;
            fd.fd = -1;
            attachmentFds->push_back(&lockFd);
            return i;
        }
        UnlockByte(fd.fd, PoolOwnerLockByte(i));
    }
    throw AbortSlotCreationException("Cannot attach to pool '" + name_ +
                                     "': " + std::to_string(MaxPoolAttachments) +
                                     " writers and readers are attached already");
}

void PoolSegment::Detach(unsigned index, int& lockFd) {
    std::uint64_t expected = Word(::getpid());
    // A child forked with the attachment leaves the parent's entry alone: its copy of the lock
    // descriptor was closed at the fork (-1). The pid alone does not tell: the child may since
    // have attached an object of its own and been given the same entry, freed by the parent.
    if (lockFd >= 0 && attachments_[index].word.load() == expected) {
        attachments_[index].startTime.store(0);
        attachments_[index].pidNamespace.store(0);
        attachments_[index].pidNamespaceDevice.store(0);
        attachments_[index].word.compare_exchange_strong(expected, 0);
    }
    // Closing the descriptor drops the entry's lock, after the entry is free. In a forked
    // child it was closed at the fork (-1).
    AttachmentFdsLock registry;
    std::vector<int*>& fds = *attachmentFds;
    fds.erase(std::remove(fds.begin(), fds.end(), &lockFd), fds.end());
    if (lockFd >= 0) {
        ::close(lockFd);
        lockFd = -1;
    }
}

void PoolSegment::TryReclaim(unsigned index) {
    PoolBlockSlot& b = blocks_[index];
    std::uint64_t state = b.state.load();
    if (kind() == LatestKind) {
        if ((state & StateMask) != StatePublished) {
            return;
        }
        const std::uint64_t latest = header_->latest.load();
        if (latest != 0 && (latest & 0xff) == index) {
            return;
        }
    } else if ((state & StateMask) != StateConsumed) {
        return;
    }
    if (b.holders.load() != 0) {
        return;
    }
    b.state.compare_exchange_strong(state, StateFree);
}

void PoolSegment::TryReclaimAll() {
    for (unsigned i = 0; i < blockCount(); ++i) {
        TryReclaim(i);
    }
}

void PoolSegment::SweepOrphans() {
    for (unsigned i = 0; i < blockCount(); ++i) {
        std::uint64_t state = blocks_[i].state.load();
        if ((state & StateMask) != StatePublished) {
            continue;
        }
        // The state is read before the counters: a block the reader pops meanwhile was marked
        // Consumed before head moved past it, so the exchange below fails for it.
        const std::uint64_t sequence = state & ~StateMask;
        const std::uint64_t head = header_->head.load();
        const std::uint64_t tail = header_->tail.load();
        if (tail - head > blockCount()) {
            MarkDamaged("the ring's counters are out of range");
            return;
        }
        bool queued = false;
        for (std::uint64_t n = head; n != tail && !queued; ++n) {
            queued = ring(n).load() == BlockRef(sequence, i);
        }
        if (!queued) {
            blocks_[i].state.compare_exchange_strong(state, StateFree);
        }
    }
}

bool PoolOwnerAlive(int fd, unsigned index, const PoolAttachmentSlot& entry, std::uint64_t word,
                    const PidNamespace& judge) {
    // The lock goes with the owner's descriptor: when the process dies, and also when it execs
    // (the descriptor is close-on-exec) although its pid and start time stay. A process whose
    // main thread ended shows as a zombie while its other threads run on, and keeps the lock.
    if (!PoolByteLocked(fd, PoolOwnerLockByte(index))) {
        return false;
    }
    // The lock held, a pid of this namespace that is gone or names a later process still tells
    // a dead owner (whose lock a process it made without the fork handlers, not yet exec'd,
    // keeps). Another namespace's pid means nothing here, and an entry whose namespace is not
    // written yet is judged by its lock alone.
    const std::uint64_t startTime = entry.startTime.load();
    return !EntryPidNamespace(entry).SameAs(judge) ||
           !PoolProcessGone(static_cast<pid_t>(word & AttachPidMask), startTime);
}

bool PoolSegment::OwnerAlive(unsigned index, std::uint64_t word, const PidNamespace& mine) {
    return PoolOwnerAlive(fd_, index, attachments_[index], word, mine);
}

namespace {

// The process that an attachment entry names, as the entry recorded it: entries of one process
// record the same pid, start time and pid namespace.
struct EntryOwner {
    std::uint64_t pid;
    std::uint64_t startTime;
    PidNamespace ns;

    bool operator==(const EntryOwner& other) const {
        return pid == other.pid && startTime == other.startTime && ns.inode == other.ns.inode &&
               ns.device == other.ns.device;
    }
};

// A dead process of one reaping pass and the blocks its entries returned.
struct ReapedProcess {
    EntryOwner owner;
    unsigned blocks;
};

}  // namespace

unsigned PoolSegment::ReapDead() {
    const pid_t me = ::getpid();
    const PidNamespace ns = OwnPidNamespace();
    // One ERROR line per dead process, after the pass: a process with several attachments (a
    // writer and a reader) has one entry each. Entries of one process that two reapers reap at
    // the same time are logged by each. A fixed array: no allocation that could throw while a
    // reaper lock is held.
    std::array<ReapedProcess, MaxPoolAttachments> reaped;
    unsigned processes = 0;
    for (unsigned i = 0; i < MaxPoolAttachments; ++i) {
        const std::uint64_t bit = 1ull << i;
        std::uint64_t word = attachments_[i].word.load();
        if ((word & AttachInUse) == 0) {
            continue;
        }
        // Another thread of this process reaps it (its reaper lock, on this description, would
        // not keep this thread out).
        if (reapingHere_.fetch_or(bit) & bit) {
            continue;
        }
        // A reaper holds its lock from before it marks the entry until after it frees it: a
        // marked entry without it was left by a reaper that died.
        const bool dead = (word & AttachReaping) ? !PoolByteLocked(fd_, PoolReaperLockByte(i))
                                                 : !OwnerAlive(i, word, ns);
        if (dead && TryLockByte(fd_, PoolReaperLockByte(i))) {
            // Judged again under the reaper lock: meanwhile another reaper may have freed the
            // entry and a new owner taken it (with the same pid number, in another namespace).
            const bool still = attachments_[i].word.load() == word &&
                               ((word & AttachReaping) || !OwnerAlive(i, word, ns));
            const std::uint64_t mine = AttachInUse | AttachReaping |
                                       (static_cast<std::uint64_t>(me) << ReaperShift) |
                                       (word & AttachPidMask);
            if (still && attachments_[i].word.compare_exchange_strong(word, mine)) {
                // An owner of this process that freed the entry and took it again after the
                // judgement (the same word) holds its lock again: the entry goes back to it.
                if ((word & AttachReaping) == 0 && OwnerAlive(i, word, ns)) {
                    std::uint64_t marked = mine;
                    attachments_[i].word.compare_exchange_strong(marked, word);
                } else {
                    // Read before ReapEntry clears the entry; a dead owner writes it no more.
                    const EntryOwner owner{word & AttachPidMask, attachments_[i].startTime.load(),
                                           EntryPidNamespace(attachments_[i])};
                    const unsigned blocks = ReapEntry(i, mine);
                    ReapedProcess* const end = reaped.data() + processes;
                    ReapedProcess* const same = std::find_if(
                        reaped.data(), end,
                        [&](const ReapedProcess& process) { return process.owner == owner; });
                    if (same == end) {
                        reaped[processes++] = ReapedProcess{owner, blocks};
                    } else {
                        same->blocks += blocks;
                    }
                }
            }
            UnlockByte(fd_, PoolReaperLockByte(i));
        }
        reapingHere_.fetch_and(~bit);
    }
    for (unsigned n = 0; n < processes; ++n) {
        LOG4CXX_ERROR(logger_, "Pool '" << name_ << "': process " << reaped[n].owner.pid
                                        << " died; " << reaped[n].blocks
                                        << " block(s) it held or had loaned returned to the pool");
    }
    return processes;
}

unsigned PoolSegment::ReapEntry(unsigned index, std::uint64_t mine) {
    shared::StopPoint("pool-reaping");
    const std::uint64_t bit = 1ull << index;
    header_->sleepers.fetch_and(~bit);
    unsigned returned = 0;
    for (unsigned i = 0; i < blockCount(); ++i) {
        if (blocks_[i].holders.fetch_and(~bit) & bit) {
            ++returned;
        }
        std::uint64_t loaned = StateLoaned | index;
        if (blocks_[i].state.load() != loaned) {
            continue;
        }
        // A latest-kind writer may have died after naming its block the latest, before marking
        // it published: readers may have taken it, and hold it still when a later publish has
        // replaced it. So the block becomes published, and TryReclaimAll below frees it unless
        // it is the latest or held (its holders' releases free it later). An unpublished loan
        // is never named the latest, so no reader holds it and it is freed at once.
        std::uint64_t next = StateFree;
        if (kind() == LatestKind) {
            const std::uint64_t latest = header_->latest.load();
            next = latest != 0 && (latest & 0xff) == i
                       ? StatePublished | (latest >> 8)
                       : StatePublished | (blocks_[i].sequence.load() & ~StateMask);
        }
        if (blocks_[i].state.compare_exchange_strong(loaned, next)) {
            ++returned;
        }
    }
    if (kind() == QueueKind) {
        // Nobody claims for this entry while it is being reaped: no newer claim can name it.
        std::uint64_t claim = header_->readerClaim.load();
        if (ClaimedEntry(claim) == index + 1) {
            header_->readerClaim.compare_exchange_strong(claim, ClaimGivenUp(claim));
        }
        auto repair = [this](pid_t) { SweepOrphans(); };
        try {
            if (shared::TimedLockRecoveringFor(writerMutex(), std::chrono::seconds(ReapLockSeconds),
                                               repair, writerWatch())) {
                SweepOrphans();
                shared::UnlockRobust(writerMutex(), writerWatch());
            }
        } catch (const std::exception& e) {
            MarkDamaged(std::string("the writers' lock: ") + e.what());
        }
    }
    TryReclaimAll();
    attachments_[index].startTime.store(0);
    attachments_[index].pidNamespace.store(0);
    attachments_[index].pidNamespaceDevice.store(0);
    attachments_[index].word.compare_exchange_strong(mine, 0);
    return returned;
}

void PoolSegment::WakeSleepers() {
    ::syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&header_->publishCount), FUTEX_WAKE,
              INT_MAX, nullptr, nullptr, 0);
}

void PoolSegment::Nudge() {
    ::syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&header_->publishCount), FUTEX_WAKE,
              INT_MAX, nullptr, nullptr, 0);
}

void PoolSegment::Sleep(std::uint32_t seen, long timeoutNs, std::uint64_t bit) {
    // A bit, not a count: a reader killed asleep leaves it set, and only its reaper can know
    // which to clear. Left set, it would cost every later publish a wake-up call.
    header_->sleepers.fetch_or(bit);
    if (header_->publishCount.load() == seen) {
        timespec timeout = {static_cast<time_t>(timeoutNs / 1000000000L), timeoutNs % 1000000000L};
        ::syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&header_->publishCount), FUTEX_WAIT,
                  seen, &timeout, nullptr, 0);
    }
    header_->sleepers.fetch_and(~bit);
}

void PoolSegment::MarkDamaged(const std::string& why) {
    if (!damaged_.exchange(true)) {
        LOG4CXX_ERROR(logger_, "Pool '" << name_ << "' is damaged: " << why);
    }
}

PoolAttachment::PoolAttachment(std::shared_ptr<PoolSegment> segment)
    : segment_(std::move(segment)), index_(segment_->Attach(lockFd_)) {}

PoolAttachment::~PoolAttachment() {
    segment_->Detach(index_, lockFd_);
}

}  // namespace Slot
