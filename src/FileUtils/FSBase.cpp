// SPDX-License-Identifier: Apache-2.0
#include <FileUtils/FSBase.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace FileUtils {

namespace {

const int kFileMode = 0666;

int OpenFile(const std::string& path, bool fifo, bool truncate) {
    if (fifo) {
        return ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }
    // O_NONBLOCK: should a FIFO appear at the path meanwhile, the open does not wait for it.
    return ::open(path.c_str(),
                  O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC | (truncate ? O_TRUNC : 0),
                  kFileMode);
}

bool IsFifo(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode);
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
      openedBefore_(false),
      droppingOnFullPipe_(false),
      pipeFullTimeout_(boost::posix_time::seconds(1)),
      writeCounters_(nullptr),
      blockOutcome_(shared::WriteOutcome::None) {}

FSBase::~FSBase() {
    boost::mutex::scoped_lock lock(mutex_);
    CloseLocked();
}

void FSBase::Reopen() {
    boost::mutex::scoped_lock lock(mutex_);
    ReopenLocked();
}

bool FSBase::IsOpen() const {
    boost::mutex::scoped_lock lock(mutex_);
    return fd_ >= 0;
}

std::string FSBase::GetFileName() const {
    boost::mutex::scoped_lock lock(mutex_);
    return fileName_;
}

void FSBase::SetPipeFullTimeout(const boost::posix_time::time_duration& timeout) {
    boost::mutex::scoped_lock lock(mutex_);
    pipeFullTimeout_ = timeout;
}

std::string FSBase::MakeFileName() const {
    if (!timestamped_) {
        return base_;
    }
    return base_ + "_" +
           boost::posix_time::to_iso_string(boost::posix_time::second_clock::universal_time());
}

void FSBase::ReopenLocked() {
    const std::string name = MakeFileName();
    const bool fifo = IsFifo(name);
    int fd = OpenFile(name, fifo, !append_ && !openedBefore_);
    if (fd < 0) {
        throw std::runtime_error("Cannot open '" + name + "' : " + std::strerror(errno));
    }
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        const int error = errno;
        ::close(fd);
        throw std::runtime_error("Cannot open '" + name + "' : " + std::strerror(error));
    }
    if (S_ISFIFO(st.st_mode) && !fifo) {
        // A FIFO replaced the file between the look and the open: open it as a pipe.
        ::close(fd);
        fd = OpenFile(name, true, false);
        if (fd < 0) {
            throw std::runtime_error("Cannot open '" + name + "' : " + std::strerror(errno));
        }
    }
    // The new stream is open before the old one closes, so a pipe nobody else holds keeps the
    // bytes it buffers.
    const int old = fd_;
    fd_ = fd;
    isFifo_ = S_ISFIFO(st.st_mode);
    isRegular_ = S_ISREG(st.st_mode);
    fileName_ = name;
    openedBefore_ = true;
    droppingOnFullPipe_ = false;
    if (old >= 0) {
        ::close(old);
    }
}

void FSBase::CloseLocked() {
    if (fd_ < 0) {
        return;
    }
    int unread = 0;
    if (!isFifo_ || ::ioctl(fd_, FIONREAD, &unread) != 0 || unread <= 0) {
        ::close(fd_);
        fd_ = -1;
        return;
    }
    // Bytes are waiting. They are lost with the pipe if no other process has it open for
    // reading: find out through a write-only descriptor of the same pipe, which polls POLLERR
    // once our read-write descriptor is gone and no reader is left.
    const std::string self = "/proc/self/fd/" + std::to_string(fd_);
    int probe = ::open(self.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ::close(fd_);
    fd_ = -1;
    bool readerLeft = false;
    if (probe >= 0) {
        pollfd p = {probe, POLLOUT, 0};
        readerLeft = ::poll(&p, 1, 0) >= 0 && (p.revents & POLLERR) == 0;
        ::close(probe);
    }
    if (!readerLeft && logger_->isWarnEnabled()) {
        LOG4CXX_WARN(logger_, "Closing named pipe '" << fileName_ << "' that no reader has open: "
                                                     << unread << " unread bytes are lost");
    }
}

bool FSBase::PrepareStreamLocked() {
    return fd_ >= 0;
}

bool FSBase::FileIsStillInPlaceLocked() const {
    if (fd_ < 0 || !isRegular_) {
        return true;
    }
    struct stat opened;
    struct stat named;
    if (::fstat(fd_, &opened) != 0) {
        return true;
    }
    if (::stat(fileName_.c_str(), &named) != 0) {
        return false;
    }
    return opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
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
    WriteAllLocked(data, size);
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

bool FSBase::WriteAllLocked(const char* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd_, data + done, size - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            FailWriteLocked(n < 0 ? errno : EIO, size - done, size);
            return false;
        }
    }
    return true;
}

void FSBase::WritePipeLocked(const char* data, size_t size) {
    const boost::posix_time::ptime deadline =
        boost::posix_time::microsec_clock::universal_time() +
        (droppingOnFullPipe_ ? boost::posix_time::time_duration() : pipeFullTimeout_);
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
        if (n < 0 && errno != EAGAIN) {
            FailWriteLocked(errno, size - done, size);
            return;
        }
        const long long left =
            (deadline - boost::posix_time::microsec_clock::universal_time()).total_milliseconds();
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
    for (unsigned int i = maxFileIndex_; i > 0; --i) {
        const std::string from = current + "." + std::to_string(i - 1);
        const std::string to = current + "." + std::to_string(i);
        // A missing older file is not an error.
        std::rename(from.c_str(), to.c_str());
    }
    const std::string rotated = current + ".0";
    if (std::rename(current.c_str(), rotated.c_str()) != 0 && logger_->isErrorEnabled()) {
        LOG4CXX_ERROR(logger_, "Cannot rotate '" << current << "' : " << std::strerror(errno));
    } else if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "Rotated '" << current << "' to '" << rotated << "'");
    }
    try {
        ReopenLocked();
    } catch (const std::exception& e) {
        if (logger_->isErrorEnabled()) {
            LOG4CXX_ERROR(logger_, "Cannot reopen after rotation : " << e.what());
        }
    }
}

}  // namespace FileUtils
