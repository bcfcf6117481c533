// SPDX-License-Identifier: Apache-2.0
#include "ShmObject.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace testsupport {

Bytes ReadObject(const std::string& name) {
    Bytes bytes;
    const int fd = ::shm_open(name.c_str(), O_RDONLY, 0);
    if (fd < 0) {
        return bytes;
    }
    struct stat st;
    if (::fstat(fd, &st) == 0) {
        bytes.resize(static_cast<size_t>(st.st_size));
        if (!bytes.empty() && ::pread(fd, bytes.data(), bytes.size(), 0) != st.st_size) {
            bytes.clear();
        }
    }
    ::close(fd);
    return bytes;
}

bool WriteObject(const std::string& name, const Bytes& bytes, mode_t mode) {
    int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, mode);
    // A new object gets exactly `mode`, whatever the umask; an existing one keeps its own.
    bool ok = fd >= 0 && ::fchmod(fd, mode) == 0;
    if (fd < 0) {
        fd = ::shm_open(name.c_str(), O_RDWR, 0);
        ok = fd >= 0;
    }
    if (!ok) {
        if (fd >= 0) {
            ::close(fd);
        }
        return false;
    }
    ok = ::ftruncate(fd, static_cast<off_t>(bytes.size())) == 0;
    if (ok && !bytes.empty()) {
        ok = ::pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
    }
    ::close(fd);
    return ok;
}

MappedObject::MappedObject(const std::string& name, bool writable) {
    const int fd = ::shm_open(name.c_str(), writable ? O_RDWR : O_RDONLY, 0);
    if (fd < 0) {
        return;
    }
    struct stat st;
    if (::fstat(fd, &st) == 0 && st.st_size > 0) {
        void* at = ::mmap(nullptr, static_cast<size_t>(st.st_size),
                          writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
        if (at != MAP_FAILED) {
            bytes = static_cast<unsigned char*>(at);
            size = static_cast<size_t>(st.st_size);
        }
    }
    ::close(fd);
}

MappedObject::~MappedObject() {
    if (bytes != nullptr) {
        ::munmap(bytes, size);
    }
}

}  // namespace testsupport
