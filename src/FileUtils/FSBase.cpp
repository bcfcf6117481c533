// SPDX-License-Identifier: Apache-2.0
#include <FileUtils/FSBase.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace FileUtils {

namespace {

const int kFileMode = 0666;
const int kCommonFlags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
// Unread writes remembered one by one; more are merged into the newest, which only counts
// their pages for longer.
const size_t kMaxUnreadWrites = 1024;

[[noreturn]] void ThrowCannotOpen(const std::string& name, const std::string& reason) {
    throw std::runtime_error("Cannot open '" + name + "' : " + reason);
}

// Opens `leaf` in the checked folder `dir` as what it is now: a FIFO read-write, a regular file
// or a character device write-only and appending; creates a missing regular file. The kind
// seen before the open must be the kind opened, else the entry was swapped and is looked at
// again. `st` receives the opened file's status, `created` whether it was made here. With
// `pipeOnly` only an existing FIFO is opened: -1 when the name is missing, nothing is created.
int OpenInFolder(int dir, const std::string& leaf, const std::string& name, struct stat& st,
                 bool& created, bool pipeOnly) {
    struct stat folder;
    if (::fstat(dir, &folder) != 0) {
        ThrowCannotOpen(name, std::strerror(errno));
    }
    const bool shared = (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    for (int round = 0; round < 5; ++round) {
        created = false;
        struct stat seen;
        int fd = -1;
        if (::fstatat(dir, leaf.c_str(), &seen, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT) {
                ThrowCannotOpen(name, std::strerror(errno));
            }
            if (pipeOnly) {
                return -1;
            }
            fd = ::openat(dir, leaf.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | kCommonFlags,
                          kFileMode);
            if (fd < 0 && errno == EEXIST) {
                continue;
            }
            created = fd >= 0;
            seen.st_mode = S_IFREG;
        } else if (pipeOnly && !S_ISFIFO(seen.st_mode)) {
            ThrowCannotOpen(name, "not a named pipe");
        } else if (S_ISFIFO(seen.st_mode)) {
            fd = ::openat(dir, leaf.c_str(), O_RDWR | kCommonFlags);
        } else if (S_ISREG(seen.st_mode) || S_ISCHR(seen.st_mode)) {
            fd = ::openat(dir, leaf.c_str(), O_WRONLY | O_APPEND | kCommonFlags);
        } else {
            ThrowCannotOpen(name, "not a regular file, a named pipe or a device");
        }
        if (fd < 0) {
            if (errno == ELOOP) {
                ThrowCannotOpen(name, "a symlink is in the way");
            }
            if (errno == ENOENT || errno == ENXIO) {
                continue;  // removed, or a FIFO swapped in for a file: look again
            }
            ThrowCannotOpen(name, std::strerror(errno));
        }
        if (::fstat(fd, &st) != 0) {
            const int error = errno;
            ::close(fd);
            ThrowCannotOpen(name, std::strerror(error));
        }
        if ((st.st_mode & S_IFMT) != (seen.st_mode & S_IFMT)) {
            ::close(fd);
            continue;
        }
        if (shared && !shared::OwnedByRootOrMe(st)) {
            ::close(fd);
            ThrowCannotOpen(name, "it belongs to uid " + std::to_string(st.st_uid) +
                                      " in a folder that others may write to");
        }
        if (shared && S_ISREG(st.st_mode) && st.st_nlink != 1) {
            ::close(fd);
            ThrowCannotOpen(name, "it has more than one link in a folder that others may write to");
        }
        return fd;
    }
    ThrowCannotOpen(name, "it keeps changing while it is opened");
}

// Puts a new empty file in the place of `leaf` (a rename: the old file is not changed) and
// returns it opened; -1 when that fails.
int ReplaceWithEmptyFile(int dir, const std::string& leaf, struct stat& st) {
    static std::atomic<unsigned int> counter{0};
    const std::string temporary =
        "." + leaf + "." + std::to_string(::getpid()) + "." + std::to_string(counter++) + ".new";
    const int fd = ::openat(dir, temporary.c_str(),
                            O_WRONLY | O_CREAT | O_EXCL | O_APPEND | kCommonFlags, kFileMode);
    if (fd < 0) {
        return -1;
    }
    if (::renameat(dir, temporary.c_str(), dir, leaf.c_str()) != 0 || ::fstat(fd, &st) != 0) {
        ::unlinkat(dir, temporary.c_str(), 0);
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

FSBase::FSBase(const IFileOutputCfg& cfg)
    : logger_(log4cxx::Logger::getLogger("Slot.Writer")),
      base_(cfg.GetTargetFilenameBase()),
      timestamped_(cfg.GetTimestampedFilenameFlag()),
      append_(cfg.GetAppendFlag()),
      rotate_(cfg.GetRotateFlag()),
      maxSize_(cfg.GetMaxSize()),
      maxFileIndex_(cfg.GetMaxFileIndex()),
      fd_(-1),
      isFifo_(false),
      isRegular_(false),
      openedDevice_(0),
      openedInode_(0),
      openedBefore_(false),
      droppingOnFullPipe_(false),
      pipeOnly_(false),
      pipeFullTimeout_(boost::posix_time::seconds(1)),
      writeCounters_(nullptr),
      blockOutcome_(shared::WriteOutcome::None),
      unreadWriteBytes_(0),
      unreadKnown_(false) {}

FSBase::~FSBase() {
    boost::mutex::scoped_lock lock(mutex_);
    CloseLocked();
}

void FSBase::Reopen() {
    boost::mutex::scoped_lock lock(mutex_);
    OpenLocked(MakeFileName());
}

bool FSBase::IsOpen() const {
    boost::mutex::scoped_lock lock(mutex_);
    return fd_ >= 0;
}

std::string FSBase::GetFileName() const {
    boost::mutex::scoped_lock lock(mutex_);
    return fileName_;
}

void FSBase::SetNamedPipeOnly() {
    boost::mutex::scoped_lock lock(mutex_);
    pipeOnly_ = true;
}

void FSBase::SetPipeFullTimeout(const boost::posix_time::time_duration& timeout) {
    boost::mutex::scoped_lock lock(mutex_);
    pipeFullTimeout_ = timeout;
}

boost::posix_time::ptime FSBase::FileNameTime() const {
    return boost::posix_time::second_clock::universal_time();
}

std::string FSBase::MakeFileName() const {
    if (!timestamped_) {
        return base_;
    }
    return base_ + "_" + boost::posix_time::to_iso_string(FileNameTime());
}

void FSBase::ReopenLocked() {
    // The name it has: a time-stamped output goes on in the same chain of rotated files.
    OpenLocked(fileName_.empty() ? MakeFileName() : fileName_);
}

void FSBase::OpenLocked(const std::string& name) {
    std::string folderPath;
    std::string leaf;
    if (!shared::SplitFolderAndName(name, folderPath, leaf)) {
        ThrowCannotOpen(name, "not a file name");
    }
    shared::CheckedFolder folder;
    try {
        folder = shared::CheckedFolder::Open(folderPath);
    } catch (const std::exception& e) {
        ThrowCannotOpen(name, e.what());
    }
    struct stat st;
    bool created = false;
    int fd = OpenInFolder(folder.fd(), leaf, name, st, created, pipeOnly_);
    if (fd < 0) {
        // A pipe output whose pipe is gone: an open pipe is kept (as when it is written to); a
        // file in its place would stand in the way of the next reader's pipe.
        if (fd_ >= 0 && isFifo_) {
            return;
        }
        ThrowCannotOpen(name, std::strerror(ENOENT));
    }
    if (!append_ && !openedBefore_ && S_ISREG(st.st_mode) && !created && st.st_size != 0) {
        struct stat fresh;
        const int empty = ReplaceWithEmptyFile(folder.fd(), leaf, fresh);
        ::close(fd);
        if (empty < 0) {
            ThrowCannotOpen(name, std::string("cannot start it empty : ") + std::strerror(errno));
        }
        fd = empty;
        st = fresh;
    }
    // The new stream is open before the old one closes, so a pipe nobody else holds keeps the
    // bytes it buffers.
    const int old = fd_;
    const bool oldIsFifo = isFifo_;
    const std::string oldName = fileName_;
    fd_ = fd;
    isFifo_ = S_ISFIFO(st.st_mode);
    isRegular_ = S_ISREG(st.st_mode);
    openedDevice_ = st.st_dev;
    openedInode_ = st.st_ino;
    fileName_ = name;
    folder_ = std::move(folder);
    leaf_ = leaf;
    openedBefore_ = true;
    droppingOnFullPipe_ = false;
    ForgetPipeWritesLocked();
    if (isFifo_) {
        pipeOnly_ = true;
    }
    if (old >= 0) {
        // The pipe left behind (removed and made again) loses its unread bytes like one closed.
        CloseStreamLocked(old, oldIsFifo, oldName);
    }
}

void FSBase::CloseLocked() {
    if (fd_ < 0) {
        return;
    }
    const int fd = fd_;
    fd_ = -1;
    CloseStreamLocked(fd, isFifo_, fileName_);
}

void FSBase::CloseStreamLocked(int fd, bool isFifo, const std::string& fileName) {
    int unread = 0;
    if (!isFifo || ::ioctl(fd, FIONREAD, &unread) != 0 || unread <= 0) {
        ::close(fd);
        return;
    }
    // Bytes are waiting. They are lost with the pipe if no other process has it open for
    // reading: find out through a write-only descriptor of the same pipe, which polls POLLERR
    // once our read-write descriptor is gone and no reader is left.
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    int probe = ::open(self.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ::close(fd);
    bool readerLeft = false;
    if (probe >= 0) {
        pollfd p = {probe, POLLOUT, 0};
        readerLeft = ::poll(&p, 1, 0) >= 0 && (p.revents & POLLERR) == 0;
        ::close(probe);
    }
    if (readerLeft) {
        return;
    }
    // Counted whatever the log level: programs learn of the loss from the counts.
    if (writeCounters_ != nullptr) {
        shared::RecordBytesLostAtClose(writeCounters_, static_cast<std::uint64_t>(unread));
    }
    if (logger_->isWarnEnabled()) {
        LOG4CXX_WARN(logger_, "Closing named pipe '" << fileName << "' that no reader has open: "
                                                     << unread << " unread bytes are lost");
    }
}

bool FSBase::PrepareStreamLocked() {
    return fd_ >= 0;
}

bool FSBase::FileIsStillInPlaceLocked() const {
    if (fd_ < 0 || !(isRegular_ || isFifo_)) {
        return true;
    }
    struct stat named;
    if (::fstatat(folder_.fd(), leaf_.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
        // A file that was moved away (rotated) is made anew. A pipe that is gone keeps being
        // written: a file in its place would stand in the way of the next reader's pipe.
        return isFifo_;
    }
    // A pipe removed and made again (by a new reader) is another pipe: what goes into the old
    // one reaches nobody.
    if (isFifo_ && !S_ISFIFO(named.st_mode)) {
        return true;
    }
    return named.st_dev == openedDevice_ && named.st_ino == openedInode_;
}

void FSBase::SetWriteOutcomeName(const std::string& slotName) {
    shared::WriteCounters* counters = shared::WriteCountersFor(slotName);
    boost::mutex::scoped_lock lock(mutex_);
    writeCounters_ = counters;
}

void FSBase::WriteBlock(const char* data, size_t size) {
    boost::mutex::scoped_lock lock(mutex_);
    if (!PrepareStreamLocked()) {
        if (logger_->isWarnEnabled()) {
            LOG4CXX_WARN(logger_, "Stream of '" << (fileName_.empty() ? base_ : fileName_)
                                                << "' is not open, block of " << size
                                                << " bytes dropped");
        }
        if (writeCounters_ != nullptr) {
            shared::RecordWriteOutcome(writeCounters_, shared::WriteOutcome::Failed);
        }
        return;
    }
    // The writing steps below change this when they drop or fail the block.
    blockOutcome_ = shared::WriteOutcome::Stored;
    if (isFifo_) {
        WritePipeLocked(data, size);
    } else if (isRegular_) {
        WriteRegularFileLocked(data, size);
    } else {
        WriteAllLocked(data, size);
    }
    if (writeCounters_ != nullptr) {
        shared::RecordWriteOutcome(writeCounters_, blockOutcome_);
    }
}

void FSBase::RecordEmptyBlock() {
    boost::mutex::scoped_lock lock(mutex_);
    if (writeCounters_ != nullptr) {
        shared::RecordWriteOutcome(writeCounters_, shared::WriteOutcome::Stored);
    }
}

void FSBase::WriteRegularFileLocked(const char* data, size_t size) {
    if (maxSize_ != 0) {
        if (size > maxSize_) {
            if (logger_->isWarnEnabled()) {
                LOG4CXX_WARN(logger_,
                             "Block of " << size << " bytes is larger than the maximum size of "
                                         << maxSize_ << " bytes of '" << fileName_ << "', dropped");
            }
            blockOutcome_ = shared::WriteOutcome::Refused;
            return;
        }
        struct stat st;
        const bool known = ::fstat(fd_, &st) == 0;
        if (known && static_cast<unsigned long long>(st.st_size) + size > maxSize_ && rotate_) {
            RotateLocked();
            if (fd_ < 0) {
                blockOutcome_ = shared::WriteOutcome::Failed;
                return;
            }
        }
        if (::fstat(fd_, &st) == 0 &&
            static_cast<unsigned long long>(st.st_size) + size > maxSize_) {
            if (logger_->isWarnEnabled()) {
                LOG4CXX_WARN(logger_, "'" << fileName_ << "' reached its maximum size of "
                                          << maxSize_ << " bytes, block of " << size
                                          << " bytes dropped");
            }
            blockOutcome_ = shared::WriteOutcome::Refused;
            return;
        }
    }
    // The size before the block, so that a block that fails part way can be cut off again.
    struct stat before;
    WriteAllLocked(data, size, ::fstat(fd_, &before) == 0 ? before.st_size : -1);
}

void FSBase::FailWriteLocked(int error, size_t dropped, size_t size) {
    if (logger_->isErrorEnabled()) {
        LOG4CXX_ERROR(logger_, "Write to '" << fileName_ << "' failed : " << std::strerror(error)
                                            << ", " << dropped << " of " << size
                                            << " bytes of a block dropped");
    }
    blockOutcome_ = shared::WriteOutcome::Failed;
    // Closed, so that an auto-reopening stream opens the file anew.
    CloseLocked();
}

bool FSBase::WriteAllLocked(const char* data, size_t size, off_t undoTo) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd_, data + done, size - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        const int error = n < 0 ? errno : EIO;
        if (done > 0 && undoTo >= 0) {
            // Cut off only this block's bytes: when the file has grown by anything else
            // meanwhile (another appender), it is left as it is.
            struct stat st;
            std::string problem = "the file has changed";
            if (::fstat(fd_, &st) == 0 && st.st_size == undoTo + static_cast<off_t>(done)) {
                if (::ftruncate(fd_, undoTo) == 0) {
                    done = 0;
                } else {
                    problem = std::strerror(errno);
                }
            }
            if (done > 0 && logger_->isErrorEnabled()) {
                LOG4CXX_ERROR(logger_, "Cannot cut off the "
                                           << done << " bytes written of a failed block from '"
                                           << fileName_ << "' : " << problem);
            }
        }
        FailWriteLocked(error, size - done, size);
        return false;
    }
    return true;
}

bool FSBase::WaitForPipeRoomLocked(size_t size, size_t pageSize, long long timeoutMs) {
    const int capacity = ::fcntl(fd_, F_GETPIPE_SZ);
    if (capacity <= 0) {
        return true;  // unknown: let the write find out
    }
    const size_t pages = static_cast<size_t>(capacity) / pageSize;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int pauseMs = 1;
    for (;;) {
        int unread = 0;
        if (::ioctl(fd_, FIONREAD, &unread) != 0) {
            return true;
        }
        if (PipeHasRoomLocked(unread <= 0 ? 0 : static_cast<size_t>(unread), size, pageSize,
                              pages)) {
            return true;
        }
        const long long left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                   deadline - std::chrono::steady_clock::now())
                                   .count();
        if (left <= 0) {
            return false;
        }
        // poll() reports POLLOUT as soon as one page is free, which may be too little: look
        // again after a short pause.
        ::poll(nullptr, 0, static_cast<int>(std::min<long long>(left, pauseMs)));
        pauseMs = std::min(pauseMs * 2, 20);
    }
}

bool FSBase::PipeHasRoomLocked(size_t unread, size_t size, size_t pageSize, size_t pages) {
    if (unread == 0) {
        // An empty pipe takes any block up to its size, which the caller has made sure of.
        unreadWrites_.clear();
        unreadWriteBytes_ = 0;
        unreadKnown_ = true;
        return true;
    }
    if (!unreadKnown_ || unread > unreadWriteBytes_) {
        // Bytes of others: their pages are unknown.
        ForgetPipeWritesLocked();
        return false;
    }
    // Reading goes in order: the writes read to their end are the oldest ones, and their pages
    // are free. A write read in part still holds its pages.
    size_t read = unreadWriteBytes_ - unread;
    while (!unreadWrites_.empty() && unreadWrites_.front().bytes <= read) {
        read -= unreadWrites_.front().bytes;
        unreadWriteBytes_ -= unreadWrites_.front().bytes;
        unreadWrites_.pop_front();
    }
    size_t busy = 0;
    for (const PipeWrite& write : unreadWrites_) {
        busy += write.pages;
    }
    return busy + (size + pageSize - 1) / pageSize <= pages;
}

void FSBase::NotePipeWriteLocked(size_t requested, size_t written, size_t pageSize) {
    if (!unreadKnown_) {
        return;
    }
    if (written != requested) {
        // Cut short: another writer took pages this writer did not count.
        ForgetPipeWritesLocked();
        return;
    }
    // The kernel puts a write's first (bytes % page) bytes into the last page when they fit
    // there, and the rest into pages of its own: at most ceil(bytes / page) pages.
    const PipeWrite write = {written, (written + pageSize - 1) / pageSize};
    if (unreadWrites_.size() < kMaxUnreadWrites || unreadWrites_.empty()) {
        unreadWrites_.push_back(write);
    } else {
        unreadWrites_.back().bytes += write.bytes;
        unreadWrites_.back().pages += write.pages;
    }
    unreadWriteBytes_ += written;
}

void FSBase::ForgetPipeWritesLocked() {
    unreadWrites_.clear();
    unreadWriteBytes_ = 0;
    unreadKnown_ = false;
}

void FSBase::WritePipeLocked(const char* data, size_t size) {
    if (size == 0) {
        return;
    }
    const long long timeoutMs = droppingOnFullPipe_ ? 0 : pipeFullTimeout_.total_milliseconds();
    const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    if (size > PIPE_BUF) {
        const int capacity = ::fcntl(fd_, F_GETPIPE_SZ);
        const size_t needed = (size + page - 1) / page * page;
        if (capacity > 0 && needed > static_cast<size_t>(capacity) &&
            (needed > INT_MAX || ::fcntl(fd_, F_SETPIPE_SZ, static_cast<int>(needed)) < 0)) {
            if (logger_->isErrorEnabled()) {
                LOG4CXX_ERROR(logger_, "Block of " << size << " bytes is larger than named pipe '"
                                                   << fileName_ << "' can hold (" << capacity
                                                   << " bytes), dropped");
            }
            // Not a full pipe: no retry could ever store it.
            blockOutcome_ = shared::WriteOutcome::Failed;
            return;
        }
        if (!WaitForPipeRoomLocked(size, page, timeoutMs)) {
            droppingOnFullPipe_ = true;
            if (logger_->isWarnEnabled()) {
                LOG4CXX_WARN(logger_, "Named pipe '" << fileName_ << "' is full, block of " << size
                                                     << " bytes dropped");
            }
            blockOutcome_ = shared::WriteOutcome::Refused;
            return;
        }
    }
    // Up to PIPE_BUF a write is all or nothing. A larger block has room now; should another
    // writer take it first, the started block is finished within a new time-out rather than
    // cut short.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd_, data + done, size - done);
        if (n > 0) {
            NotePipeWriteLocked(size - done, static_cast<size_t>(n), page);
            if (done == 0 && static_cast<size_t>(n) < size) {
                deadline = std::chrono::steady_clock::now() +
                           std::chrono::milliseconds(pipeFullTimeout_.total_milliseconds());
            }
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno != EAGAIN) {
            FailWriteLocked(errno, size - done, size);
            return;
        }
        const long long left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                   deadline - std::chrono::steady_clock::now())
                                   .count();
        if (left <= 0) {
            break;
        }
        pollfd p = {fd_, POLLOUT, 0};
        ::poll(&p, 1, left > INT_MAX ? INT_MAX : static_cast<int>(left));
    }
    if (done == size) {
        droppingOnFullPipe_ = false;
        return;
    }
    droppingOnFullPipe_ = true;
    // A whole block dropped is a refusal; a block cut short has damaged the byte stream.
    blockOutcome_ = done == 0 ? shared::WriteOutcome::Refused : shared::WriteOutcome::Failed;
    if (logger_->isWarnEnabled()) {
        if (done == 0) {
            LOG4CXX_WARN(logger_, "Named pipe '" << fileName_ << "' is full, block of " << size
                                                 << " bytes dropped");
        } else {
            LOG4CXX_WARN(logger_, "Named pipe '" << fileName_ << "' is full, " << (size - done)
                                                 << " of " << size << " bytes of a block dropped");
        }
    }
}

void FSBase::RotateLocked() {
    const std::string current = fileName_;
    CloseLocked();
    // Renamed inside the folder that was checked when the file was opened.
    const int dir = folder_.fd();
    // Each older file moves up one index, the oldest over the last. A missing older file is not
    // an error; one that cannot move stops the rotation, since the next move would overwrite it:
    // the current file stays, full, and refuses blocks until a rotation succeeds.
    bool moved = true;
    for (unsigned int i = maxFileIndex_; i > 0 && moved; --i) {
        const std::string from = leaf_ + "." + std::to_string(i - 1);
        const std::string to = leaf_ + "." + std::to_string(i);
        if (::renameat(dir, from.c_str(), dir, to.c_str()) != 0 && errno != ENOENT) {
            moved = false;
            if (logger_->isErrorEnabled()) {
                LOG4CXX_ERROR(logger_, "Cannot rotate '" << current << "." << (i - 1)
                                                         << "' : " << std::strerror(errno));
            }
        }
    }
    const std::string rotated = current + ".0";
    if (moved && ::renameat(dir, leaf_.c_str(), dir, (leaf_ + ".0").c_str()) != 0) {
        moved = false;
        if (logger_->isErrorEnabled()) {
            LOG4CXX_ERROR(logger_, "Cannot rotate '" << current << "' : " << std::strerror(errno));
        }
    }
    if (moved && logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "Rotated '" << current << "' to '" << rotated << "'");
    }
    // The same name again (a time-stamped one included): its older files are the ones that were
    // just moved up, so the number of files stays bounded by the maximum index.
    try {
        OpenLocked(current);
    } catch (const std::exception& e) {
        if (logger_->isErrorEnabled()) {
            LOG4CXX_ERROR(logger_, "Cannot reopen after rotation : " << e.what());
        }
    }
}

}  // namespace FileUtils
