// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <sys/types.h>
#include <string>

namespace shared {

// Whole-file write lock on an open file description (Linux F_OFD_SETLK), with the interface of
// boost::interprocess::file_lock.
//
// Why not boost::interprocess::file_lock: classic fcntl locks belong to the process, so a second
// lock object on the same file in the same process "succeeds", and closing ANY descriptor of the
// file in the process silently drops the lock. An OFD lock belongs to its own descriptor: a
// second FileLock on the same file, in this or another process, is refused, and other
// descriptors opening and closing the file do not affect it. The kernel drops it when the
// descriptor is closed or the process dies.
//
// While locked, the file holds the owner's pid as text (OFD locks do not report an owner),
// so tools can tell who holds it.
class SHARED_EXPORT FileLock {
public:
    FileLock();
    // Opens an existing file; throws boost::interprocess::interprocess_exception on failure.
    explicit FileLock(const char* path);
    ~FileLock();

    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    FileLock(FileLock&& other) noexcept;
    FileLock& operator=(FileLock&& other) noexcept;

    // Non-blocking; false when another descriptor holds the lock.
    bool try_lock();
    void lock();
    void unlock();

    // Pid written by the holder of the lock on `path`, 0 when nobody holds it, -1 when it is
    // held but the holder is unknown.
    static pid_t Holder(const std::string& path);

private:
    int fd_;
};

}  // namespace shared
