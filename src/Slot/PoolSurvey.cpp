// SPDX-License-Identifier: Apache-2.0
#include <Slot/PoolSurvey.h>

#include <Slot/PoolSegment.h>
#include <Slot/SlotNames.h>

#include <shared/SharedFolder.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <tuple>

namespace Slot {

namespace {

void Damaged(PoolReport& report, const std::string& why) {
    if (report.problem.empty()) {
        report.problem = why;
    }
    report.state = "damaged";
}

void AddPid(std::vector<pid_t>& pids, pid_t pid) {
    if (std::find(pids.begin(), pids.end(), pid) == pids.end()) {
        pids.push_back(pid);
    }
}

// A process of another pid namespace: its namespace and its pid there.
using ForeignProcess = std::tuple<std::uint64_t, std::uint64_t, pid_t>;

// Reads `size` bytes from the start of the file; false when it ends before.
bool ReadAll(int fd, unsigned char* into, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t got = ::pread(fd, into + done, size - done, static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

// Counts what a copy of the pool's tables shows (read, not mapped: the file may shrink while it
// is read). The geometry is the `checked` copy's: the file may be rewritten while it is read. `fd`
// is the file's descriptor, to test the locks of other pid namespaces' processes.
void Count(PoolReport& report, unsigned char* base, const PoolHeader& checked, int fd) {
    PoolHeader& header = *reinterpret_cast<PoolHeader*>(base);
    auto* attachments = reinterpret_cast<PoolAttachmentSlot*>(base + checked.attachmentOffset);
    auto* blocks = reinterpret_cast<PoolBlockSlot*>(base + checked.blockTableOffset);
    const unsigned count = static_cast<unsigned>(checked.blockCount);
    const PidNamespace mine = OwnPidNamespace();
    pid_t pids[MaxPoolAttachments] = {};
    bool foreign[MaxPoolAttachments] = {};
    ForeignProcess foreignProcess[MaxPoolAttachments];
    std::set<ForeignProcess> foreignAttached;
    std::set<ForeignProcess> foreignDead;
    std::set<ForeignProcess> foreignHolders;
    std::set<pid_t> livePids;
    std::set<pid_t> deadPids;
    for (unsigned i = 0; i < MaxPoolAttachments; ++i) {
        const std::uint64_t word = attachments[i].word.load();
        if ((word & AttachInUse) == 0) {
            continue;
        }
        const pid_t pid = static_cast<pid_t>(word & AttachPidMask);
        const PidNamespace theirs = EntryPidNamespace(attachments[i]);
        // Judged as a reaper would; an entry being reaped is one whose owner died.
        const bool dead =
            (word & AttachReaping) || !PoolOwnerAlive(fd, i, attachments[i], word, mine);
        if (theirs.SameAs(mine)) {
            pids[i] = pid;
            report.attached.push_back(pid);
            (dead ? deadPids : livePids).insert(pid);
            continue;
        }
        foreign[i] = true;
        foreignProcess[i] = ForeignProcess(theirs.device, theirs.inode, pid);
        foreignAttached.insert(foreignProcess[i]);
        if (dead) {
            foreignDead.insert(foreignProcess[i]);
        }
    }
    // A pid with a live entry is a live process (a dead one's number taken again).
    for (pid_t pid : deadPids) {
        if (livePids.count(pid) == 0) {
            report.dead.push_back(pid);
        }
    }
    const auto addHolder = [&](std::uint64_t entry) {
        if (pids[entry] != 0) {
            AddPid(report.holders, pids[entry]);
        } else if (foreign[entry]) {
            foreignHolders.insert(foreignProcess[entry]);
        }
    };
    for (unsigned i = 0; i < count; ++i) {
        const std::uint64_t state = blocks[i].state.load();
        const std::uint64_t holders = blocks[i].holders.load();
        switch (state & StateMask) {
            case StateFree:
                ++report.freeBlocks;
                break;
            case StateLoaned: {
                ++report.loanedBlocks;
                const std::uint64_t owner = state & ~StateMask;
                if (owner >= MaxPoolAttachments) {
                    Damaged(report, "block " + std::to_string(i) + " is loaned to entry " +
                                        std::to_string(owner));
                } else {
                    addHolder(owner);
                }
                break;
            }
            default:
                break;
        }
        if (holders != 0) {
            ++report.heldBlocks;
            for (unsigned a = 0; a < MaxPoolAttachments; ++a) {
                if ((holders >> a) & 1u) {
                    addHolder(a);
                }
            }
        }
    }
    // A queue entry's sequence is its ring position + 1: the last one pushed is the tail.
    report.lastSequence =
        checked.kind == QueueKind ? header.tail.load() : header.nextSequence.load();
    for (unsigned i = 0; i < count && report.lastSequence != 0; ++i) {
        if (blocks[i].sequence.load() == report.lastSequence) {
            report.lastPublishNs = blocks[i].publishTimeNs.load();
        }
    }
    if (checked.kind == LatestKind) {
        const std::uint64_t latest = header.latest.load();
        if (latest != 0) {
            const std::string problem = LatestWordProblem(latest, header.nextSequence.load());
            if ((latest & 0xff) >= count) {
                Damaged(report, "the latest word names block " + std::to_string(latest & 0xff));
            } else if (!problem.empty()) {
                Damaged(report, problem);
            } else {
                report.waitingBlocks = 1;
            }
        }
    } else {
        const std::uint64_t head = header.head.load();
        const std::uint64_t tail = header.tail.load();
        if (tail - head > count) {
            Damaged(report, "the ring's counters are out of range");
        } else {
            report.waitingBlocks = static_cast<std::size_t>(tail - head);
        }
        const unsigned claim = ClaimedEntry(header.readerClaim.load());
        if (claim > MaxPoolAttachments) {
            Damaged(report, "the reader claim names entry " + std::to_string(claim - 1));
        } else if (claim != 0) {
            report.queueReader = pids[claim - 1];
            report.queueReaderInOtherNamespace = foreign[claim - 1];
        }
    }
    report.otherNamespaceAttached = foreignAttached.size();
    report.otherNamespaceHolders = foreignHolders.size();
    report.otherNamespaceDead = foreignDead.size();
}

// The pools' folder as it is, without the checks of CheckedFolder (that refused it: another
// user's, see docs/pools.md), for looking at its entries only; -1 when it cannot be opened.
int OpenRefusedFolder(int flags) {
    return ::open(PoolDirectory().c_str(), flags | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// The names of the pools of the folder `dirFd` (closed), sorted.
std::vector<std::string> PoolNames(int dirFd) {
    std::vector<std::string> names;
    DIR* dir = dirFd < 0 ? nullptr : ::fdopendir(dirFd);
    if (dir == nullptr) {
        if (dirFd >= 0) {
            ::close(dirFd);
        }
        return names;
    }
    const std::string temporary = PoolTemporaryPrefix;
    while (dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && name.compare(0, temporary.size(), temporary) != 0) {
            names.push_back(name);
        }
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

PoolReport SurveyPool(const std::string& name) {
    PoolReport report;
    report.name = name;
    report.state = "missing";
    if (SlotNameProblem(name)) {
        return report;
    }
    int fd = -1;
    try {
        shared::CheckedFolder folder = shared::CheckedFolder::Open(PoolDirectory());
        // O_NONBLOCK: a FIFO planted under the name is reported, not waited on.
        fd = ::openat(folder.fd(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    } catch (const std::exception& e) {
        // A folder that is there but refused: a pool in it is not missing, it cannot be used.
        const int dirFd = OpenRefusedFolder(O_PATH);
        struct stat st;
        if (dirFd >= 0 && ::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
            report.exists = true;
            report.folderRefused = true;
            Damaged(report, e.what());
        }
        if (dirFd >= 0) {
            ::close(dirFd);
        }
        return report;
    }
    if (fd < 0) {
        return report;
    }
    report.exists = true;
    report.state = "healthy";
    struct stat st;
    PoolHeader header;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        Damaged(report, "not a regular file");
    } else if (static_cast<std::uint64_t>(st.st_size) < sizeof(PoolHeader) ||
               ::pread(fd, &header, sizeof(header), 0) != static_cast<ssize_t>(sizeof(header))) {
        report.fileSize = static_cast<std::uint64_t>(st.st_size);
        Damaged(report,
                "the file has " + std::to_string(st.st_size) + " bytes, less than a header");
    } else {
        report.fileSize = static_cast<std::uint64_t>(st.st_size);
        const std::string problem = PoolHeaderProblem(header, report.fileSize);
        if (!problem.empty()) {
            Damaged(report, problem);
        } else {
            report.kind = header.kind == LatestKind ? "latest" : "queue";
            report.maxBlockSize = static_cast<std::size_t>(header.maxBlockSize);
            report.blockCount = static_cast<std::size_t>(header.blockCount);
            // Only the tables are read, into a copy: a mapping of a file that shrinks while
            // it is read faults (SIGBUS). Their size follows from the checked geometry, at
            // most that of the largest block count.
            PoolGeometry largest;
            ComputePoolGeometry(1, MaxPoolBlocks, largest);
            const std::size_t size = static_cast<std::size_t>(header.dataOffset);
            void* base = nullptr;
            if (size > largest.dataOffset || ::posix_memalign(&base, 64, size) != 0) {
                Damaged(report, "cannot read its tables of " + std::to_string(size) + " bytes");
            } else {
                std::unique_ptr<void, decltype(&std::free)> copy(base, &std::free);
                if (!ReadAll(fd, static_cast<unsigned char*>(base), size)) {
                    Damaged(report, "the file shrank while it was read");
                } else if (std::memcmp(base, &header, offsetof(PoolHeader, publishCount)) != 0) {
                    Damaged(report, "its geometry changed while it was read");
                } else {
                    Count(report, static_cast<unsigned char*>(base), header, fd);
                }
            }
        }
    }
    ::close(fd);
    return report;
}

std::vector<std::string> ListPools() {
    try {
        shared::CheckedFolder folder = shared::CheckedFolder::Open(PoolDirectory());
        return PoolNames(::openat(folder.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    } catch (const std::exception&) {
        // Refused (or missing): its names are listed all the same, and SurveyPool says why
        // their pools cannot be used.
        return PoolNames(OpenRefusedFolder(O_RDONLY));
    }
}

}  // namespace Slot
