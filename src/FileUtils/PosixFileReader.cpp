// SPDX-License-Identifier: Apache-2.0
#include <FileUtils/PosixFileReader.h>

#include <shared/SizedArray.h>

#include <boost/bind/bind.hpp>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstring>
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
      fd_(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)),
      subscribed_(false),
      stopping_(false) {
    if (fd_ < 0 && errno == EACCES) {
        // A regular file we may only read: read-write is only needed for pipes.
        fd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    if (fd_ < 0) {
        throw std::runtime_error("Cannot open '" + path + "' : " + std::strerror(errno));
    }
    if (::pipe2(wakeFds_, O_NONBLOCK | O_CLOEXEC) != 0) {
        const int error = errno;
        ::close(fd_);
        throw std::runtime_error("Cannot create wake-up pipe : " +
                                 std::string(std::strerror(error)));
    }
    thread_ = boost::thread(boost::bind(&PosixFileReader::Run, this));
}

PosixFileReader::~PosixFileReader() {
    stopping_ = true;
    Wake();
    thread_.interrupt();
    thread_.join();
    ::close(wakeFds_[0]);
    ::close(wakeFds_[1]);
    ::close(fd_);
}

void PosixFileReader::subscribe(shared::ISubscriber* subscriber) {
    shared::Notifier::subscribe(subscriber);
    if (subscriber != nullptr && !subscribed_.exchange(true)) {
        Wake();
    }
}

void PosixFileReader::Wake() {
    const char byte = 1;
    // A full self-pipe already holds a wake-up; nothing is lost by ignoring EAGAIN.
    while (::write(wakeFds_[1], &byte, 1) < 0 && errno == EINTR) {
    }
}

bool PosixFileReader::WaitReadable(int timeoutMs, bool wantData) {
    pollfd fds[2] = {{wakeFds_[0], POLLIN, 0}, {fd_, POLLIN, 0}};
    const int r = ::poll(fds, wantData ? 2 : 1, timeoutMs);
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
    try {
        while (!stopping_) {
            try {
                ReadLoop();
            } catch (const boost::thread_interrupted&) {
                throw;
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

void PosixFileReader::ReadLoop() {
    shared::SizedArray buffer(size_);
    while (!stopping_) {
        boost::this_thread::interruption_point();
        if (!subscribed_) {
            WaitReadable(-1, false);
            continue;
        }
        const ssize_t n = ::read(fd_, buffer.data(), size_);
        if (n > 0) {
            notify(name_, buffer.data(), static_cast<unsigned int>(n));
        } else if (n == 0) {
            // End of a regular file (a pipe held read-write never ends): look again later.
            Pause();
        } else if (errno == EAGAIN || errno == EINTR) {
            WaitReadable(periodMs_, true);
        } else {
            const int error = errno;
            if (logger_->isErrorEnabled()) {
                LOG4CXX_ERROR(logger_,
                              "Read error on '" << path_ << "' : " << std::strerror(error));
            }
            Pause();
        }
    }
}

}  // namespace FileUtils
