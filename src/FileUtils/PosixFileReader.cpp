// SPDX-License-Identifier: Apache-2.0
#include <FileUtils/PosixFileReader.h>

#include <shared/SharedFolder.h>
#include <shared/SizedArray.h>

#include <boost/bind/bind.hpp>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <stdexcept>

namespace FileUtils {

namespace {

const unsigned kDefaultChunk = 65536;

std::string NameFromPath(const std::string& path) {
    std::string::size_type slash = path.rfind('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    static const std::string suffix = ".fifo";
    if (name.size() >= suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        name.erase(name.size() - suffix.size());
    }
    return name;
}

// The buffer the reader reads into: `size` bytes, or, when this process cannot allocate that
// much (a max size of several GiB on a 32-bit host), the largest halving of it down to 64 KiB
// that it can. A pipe is a byte stream, so smaller chunks lose nothing; logged once at WARN.
shared::SizedArray ChunkBuffer(unsigned size, const std::string& path,
                               const log4cxx::LoggerPtr& logger) {
    for (unsigned chunk = size;; chunk = std::max(chunk / 2, std::min(size, kDefaultChunk))) {
        try {
            shared::SizedArray buffer(chunk);
            if (chunk < size && logger->isWarnEnabled()) {
                LOG4CXX_WARN(logger, "No memory for chunks of " << size << " bytes from '" << path
                                                                << "', reading chunks of "
                                                                << chunk);
            }
            return buffer;
        } catch (const std::bad_alloc&) {
            if (chunk <= kDefaultChunk) {
                throw;
            }
        }
    }
}

// Opens `name` in the checked folder `dir` read-write, or read-only when only that is allowed
// for a regular file, without following a symlink; it must be a FIFO or a regular file of root
// or the user. `st` receives its status.
int OpenInFolder(int dir, const std::string& name, const std::string& path, struct stat& st) {
    const int flags = O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;
    int fd = ::openat(dir, name.c_str(), O_RDWR | flags);
    if (fd < 0 && errno == EACCES) {
        // A regular file we may only read: read-write is only needed for pipes.
        fd = ::openat(dir, name.c_str(), O_RDONLY | flags);
    }
    if (fd < 0) {
        throw std::runtime_error(
            "Cannot open '" + path +
            "' : " + (errno == ELOOP ? "a symlink is in the way" : std::strerror(errno)));
    }
    if (::fstat(fd, &st) != 0 || !(S_ISFIFO(st.st_mode) || S_ISREG(st.st_mode)) ||
        !shared::OwnedByRootOrMe(st)) {
        ::close(fd);
        throw std::runtime_error("Cannot open '" + path +
                                 "' : not a named pipe or regular file of root or this user");
    }
    return fd;
}

// Opens the pipe (or file) at `path` relative to its checked folder, which `folder` keeps, and
// `name` its entry there.
int OpenChecked(const std::string& path, shared::CheckedFolder& folder, std::string& name,
                struct stat& st) {
    std::string folderPath;
    if (!shared::SplitFolderAndName(path, folderPath, name)) {
        throw std::runtime_error("Cannot open '" + path + "' : not a file name");
    }
    try {
        folder = shared::CheckedFolder::Open(folderPath);
    } catch (const std::exception& e) {
        throw std::runtime_error("Cannot open '" + path + "' : " + e.what());
    }
    return OpenInFolder(folder.fd(), name, path, st);
}

int ToMilliseconds(const boost::posix_time::time_duration& period) {
    const long long ms = period.total_milliseconds();
    if (ms < 1) {
        return 1;
    }
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

}  // namespace

PosixFileReader::PosixFileReader(const std::string& path, unsigned size,
                                 const boost::posix_time::time_duration& period)
    : path_(path),
      name_(NameFromPath(path)),
      size_(size == 0 ? kDefaultChunk : size),
      periodMs_(ToMilliseconds(period)),
      logger_(log4cxx::Logger::getLogger("Slot.Reader")),
      fd_(-1),
      isFifo_(false),
      device_(0),
      inode_(0),
      refusedDevice_(0),
      refusedInode_(0),
      waitingUnsubscribers_(0),
      stopping_(false) {
    struct stat st;
    fd_ = OpenChecked(path, folder_, leaf_, st);
    isFifo_ = S_ISFIFO(st.st_mode);
    device_ = st.st_dev;
    inode_ = st.st_ino;
    if (::pipe2(wakeFds_, O_NONBLOCK | O_CLOEXEC) != 0) {
        const int error = errno;
        ::close(fd_);
        throw std::runtime_error("Cannot create wake-up pipe : " +
                                 std::string(std::strerror(error)));
    }
    try {
        thread_ = boost::thread(boost::bind(&PosixFileReader::Run, this));
    } catch (...) {
        // No thread (out of threads or memory): the destructor will not run, so nothing stays.
        ::close(wakeFds_[0]);
        ::close(wakeFds_[1]);
        ::close(fd_);
        throw;
    }
}

PosixFileReader::~PosixFileReader() {
    if (Inherited()) {
        // A forked child's copy: the thread is the parent's (joining its handle would wait for
        // ever) and a wake-up would reach it through the shared self-pipe. The handle is left
        // alone for good; the descriptors closed below are the child's own.
        if (thread_.joinable()) {
            static_cast<void>(new boost::thread(boost::move(thread_)));
        }
    } else {
        stopping_ = true;
        Wake();
        thread_.interrupt();
        thread_.join();
    }
    ::close(wakeFds_[0]);
    ::close(wakeFds_[1]);
    ::close(fd_);
}

bool PosixFileReader::OnOwnThread() const {
    return boost::this_thread::get_id() == thread_.get_id();
}

// In a forked child's copy the subscription calls return at once: deliveryMutex_ may be held
// there for good, and a wake-up would reach the parent's thread.
void PosixFileReader::subscribe(shared::ISubscriber* subscriber) {
    if (Inherited()) {
        return;
    }
    shared::Notifier::subscribe(subscriber);
    if (subscriber != nullptr) {
        Wake();
    }
}

boost::recursive_mutex::scoped_lock PosixFileReader::LockForUnsubscribe() {
    // Counted while waiting, so that the thread, which takes deliveryMutex_ again right after
    // each delivery, lets it go first (the mutex is not fair).
    ++waitingUnsubscribers_;
    try {
        boost::recursive_mutex::scoped_lock lock(deliveryMutex_);
        --waitingUnsubscribers_;
        return lock;
    } catch (...) {
        --waitingUnsubscribers_;
        throw;
    }
}

void PosixFileReader::unsubscribe(shared::ISubscriber* subscriber) {
    if (Inherited()) {
        return;
    }
    boost::recursive_mutex::scoped_lock lock(LockForUnsubscribe());
    shared::Notifier::unsubscribe(subscriber);
}

void PosixFileReader::unsubscribeAll() {
    if (Inherited()) {
        return;
    }
    boost::recursive_mutex::scoped_lock lock(LockForUnsubscribe());
    shared::Notifier::unsubscribeAll();
}

void PosixFileReader::Wake() {
    const char byte = 1;
    // A full self-pipe already holds a wake-up; nothing is lost by ignoring EAGAIN.
    while (::write(wakeFds_[1], &byte, 1) < 0 && errno == EINTR) {
    }
}

bool PosixFileReader::WaitReadable(int timeoutMs, bool wantData, bool* idle) {
    pollfd fds[2] = {{wakeFds_[0], POLLIN, 0}, {fd_, POLLIN, 0}};
    const int r = ::poll(fds, wantData ? 2 : 1, timeoutMs);
    if (idle != nullptr) {
        *idle = r == 0;
    }
    if (r > 0 && (fds[0].revents & POLLIN) != 0) {
        char drain[64];
        while (::read(wakeFds_[0], drain, sizeof(drain)) > 0) {
        }
    }
    return !stopping_;
}

void PosixFileReader::Pause() {
    // Interruptible pause: the destructor's wake-up ends it early.
    WaitReadable(periodMs_, false);
}

void PosixFileReader::Run() {
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "Reader thread started for '" << path_ << "'");
    }
    shared::SizedArray buffer;  // kept across the restarts of the loop after an error
    try {
        while (!stopping_) {
            try {
                if (buffer.empty()) {
                    buffer = ChunkBuffer(size_, path_, logger_);
                }
                ReadLoop(buffer);
            } catch (const boost::thread_interrupted&) {
                if (stopping_) {
                    throw;
                }
                // Thrown by a subscriber, not by the destructor's interrupt: reading goes on.
                if (logger_->isErrorEnabled()) {
                    LOG4CXX_ERROR(logger_, "boost::thread_interrupted from a subscriber in '"
                                               << name_ << "', reading goes on");
                }
                Pause();
            } catch (const std::exception& e) {
                if (logger_->isErrorEnabled()) {
                    LOG4CXX_ERROR(logger_, "std::exception in '" << name_ << "' : " << e.what());
                }
                Pause();
            } catch (...) {
                if (logger_->isErrorEnabled()) {
                    LOG4CXX_ERROR(logger_, "Unknown exception in '" << name_ << "'");
                }
                Pause();
            }
        }
    } catch (const boost::thread_interrupted&) {
    }
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "Reader thread stopped for '" << path_ << "'");
    }
}

void PosixFileReader::ReadLoop(const shared::SizedArray& buffer) {
    while (!stopping_) {
        boost::this_thread::interruption_point();
        while (waitingUnsubscribers_ > 0 && !stopping_) {
            boost::this_thread::yield();  // until they hold deliveryMutex_
        }
        ssize_t n = 0;
        int error = 0;
        {
            // Checked, read and delivered under deliveryMutex_: the last subscriber cannot leave
            // between the check and the delivery, so no byte is read for nobody.
            boost::recursive_mutex::scoped_lock lock(deliveryMutex_);
            if (!hasSubscribers()) {
                n = -2;
            } else {
                n = ::read(fd_, buffer.data(), buffer.size());
                error = errno;
                if (n > 0) {
                    notify(name_, buffer.data(), static_cast<unsigned int>(n));
                    continue;
                }
            }
        }
        if (n == -2) {
            WaitReadable(-1, false);
        } else if (n == 0) {
            // End of a regular file (a pipe held read-write never ends): look again later.
            Pause();
        } else if (error == EAGAIN || error == EINTR) {
            bool idle = false;
            if (WaitReadable(periodMs_, true, &idle) && idle) {
                FollowPipeMadeAgain();
            }
        } else {
            if (logger_->isErrorEnabled()) {
                LOG4CXX_ERROR(logger_,
                              "Read error on '" << path_ << "' : " << std::strerror(error));
            }
            Pause();
        }
    }
}

void PosixFileReader::FollowPipeMadeAgain() {
    if (!isFifo_) {
        return;
    }
    struct stat named;
    if (::fstatat(folder_.fd(), leaf_.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISFIFO(named.st_mode) || (named.st_dev == device_ && named.st_ino == inode_) ||
        (named.st_dev == refusedDevice_ && named.st_ino == refusedInode_)) {
        // Still our pipe, or only gone (it is kept: writers that hold it may still write), or
        // something that was already refused.
        return;
    }
    struct stat st;
    int fd = -1;
    try {
        fd = OpenInFolder(folder_.fd(), leaf_, path_, st);
    } catch (const std::exception& e) {
        // Said once for each pipe refused, not on every idle wake-up.
        refusedDevice_ = named.st_dev;
        refusedInode_ = named.st_ino;
        if (logger_->isErrorEnabled()) {
            LOG4CXX_ERROR(logger_, "std::exception in '" << name_ << "' : " << e.what());
        }
        return;
    }
    int unread = 0;
    if (!S_ISFIFO(st.st_mode) || ::ioctl(fd_, FIONREAD, &unread) != 0 || unread > 0) {
        // Swapped meanwhile, or bytes came into the old pipe after all: those are read first,
        // and the name is looked at again at the next idle wake-up.
        ::close(fd);
        return;
    }
    ::close(fd_);
    fd_ = fd;
    device_ = st.st_dev;
    inode_ = st.st_ino;
    if (logger_->isInfoEnabled()) {
        LOG4CXX_INFO(logger_, "Named pipe '" << path_ << "' was made again, reading the new one");
    }
}

}  // namespace FileUtils
