// SPDX-License-Identifier: Apache-2.0
#include <Slot/SlotObjectFile.h>

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Slot {

SlotObjectFile::~SlotObjectFile() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

int SlotObjectFile::Open(const std::string& path) {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    status_ = {};
    size_ = 0;
    fd_ = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) {
        return errno;
    }
    if (::fstat(fd_, &status_) != 0) {
        status_ = {};  // no regular file
    }
    if (IsRegularFile()) {
        size_ = static_cast<std::uint64_t>(status_.st_size);
        pages_.assign(CachedPages, Page());  // nothing of a file opened before
    }
    return 0;
}

std::size_t SlotObjectFile::ReadFile(std::uint64_t offset, void* out, std::size_t length) const {
    std::size_t done = 0;
    while (done < length) {
        const ssize_t n = ::pread(fd_, static_cast<char*>(out) + done, length - done,
                                  static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;  // shrunk meanwhile
        }
        done += static_cast<std::size_t>(n);
    }
    return done;
}

bool SlotObjectFile::ReadAt(std::uint64_t offset, void* out, std::size_t length) const {
    if (fd_ < 0 || offset > size_ || length > size_ - offset) {
        return false;
    }
    if (length >= PageBytes) {
        return ReadFile(offset, out, length) == length;
    }
    unsigned char* to = static_cast<unsigned char*>(out);
    while (length > 0) {
        const std::uint64_t number = offset / PageBytes;
        const std::size_t within = static_cast<std::size_t>(offset % PageBytes);
        Page& page = pages_[number % CachedPages];
        if (page.valid == 0 || page.number != number) {
            page.number = number;
            page.valid = ReadFile(number * PageBytes, page.bytes,
                                  static_cast<std::size_t>(std::min<std::uint64_t>(
                                      PageBytes, size_ - number * PageBytes)));
        }
        const std::size_t take = std::min(length, PageBytes - within);
        if (within + take > page.valid) {
            return false;
        }
        std::memcpy(to, page.bytes + within, take);
        to += take;
        offset += take;
        length -= take;
    }
    return true;
}

}  // namespace Slot
