// SPDX-License-Identifier: Apache-2.0
#include <shared/FileLock.h>

#include <boost/interprocess/exceptions.hpp>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace shared {

namespace {

void ThrowSystemError() {
    throw boost::interprocess::interprocess_exception(
        boost::interprocess::error_info(boost::interprocess::system_error_code()));
}

int SetLock(int fd, short type, int command) {
    struct flock fl = {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;  // whole file
    fl.l_pid = 0;  // required by OFD locks
    return ::fcntl(fd, command, &fl);
}

void WritePid(int fd) {
    char text[32];
    const int n = std::snprintf(text, sizeof(text), "%ld\n", static_cast<long>(::getpid()));
    if (::ftruncate(fd, 0) == 0 && ::pwrite(fd, text, static_cast<size_t>(n), 0) == n) {
        return;
    }
    // The pid is only informative; a full disk does not refuse the lock.
}

}  // namespace

FileLock::FileLock() : fd_(-1) {}

FileLock::FileLock(const char* path) : fd_(::open(path, O_RDWR | O_CLOEXEC)) {
    if (fd_ < 0) {
        ThrowSystemError();
    }
}

FileLock::~FileLock() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

FileLock::FileLock(FileLock&& other) noexcept : fd_(other.fd_) {
    other.fd_ = -1;
}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

bool FileLock::try_lock() {
    if (SetLock(fd_, F_WRLCK, F_OFD_SETLK) == 0) {
        WritePid(fd_);
        return true;
    }
    if (errno == EAGAIN || errno == EACCES) {
        return false;
    }
    ThrowSystemError();
    return false;
}

void FileLock::lock() {
    while (SetLock(fd_, F_WRLCK, F_OFD_SETLKW) != 0) {
        if (errno != EINTR) {
            ThrowSystemError();
        }
    }
    WritePid(fd_);
}

void FileLock::unlock() {
    if (fd_ < 0) {
        return;
    }
    if (::ftruncate(fd_, 0) != 0) {
        // Stale pid text is harmless: Holder() asks the lock first.
    }
    SetLock(fd_, F_UNLCK, F_OFD_SETLK);
}

pid_t FileLock::Holder(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    struct flock fl = {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    pid_t holder = 0;
    if (::fcntl(fd, F_OFD_GETLK, &fl) == 0 && fl.l_type != F_UNLCK) {
        char text[32] = {0};
        const ssize_t n = ::pread(fd, text, sizeof(text) - 1, 0);
        holder = n > 0 ? static_cast<pid_t>(std::atol(text)) : 0;
        if (holder <= 0) {
            holder = -1;
        }
    }
    ::close(fd);
    return holder;
}

}  // namespace shared
