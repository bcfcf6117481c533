// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <pthread.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

namespace shared {

// Who holds a process-shared pthread mutex, read without taking or changing the lock, so that a
// lock left by a dead process can be told from one that a live process holds. The answer is a
// snapshot: the owner may change right after it is read.

// Kernel thread id that glibc records as the owner of `mutex`, 0 when it records none. A robust
// mutex whose owner died keeps that thread id until the next locker takes it over.
SHARED_EXPORT pid_t MutexOwnerThread(const pthread_mutex_t* mutex);

// False when the bytes of `mutex` cannot be a pthread mutex of kind `kind` (glibc's __kind, e.g.
// 128 for a process-shared normal mutex) in a state glibc would produce: a wrong kind, or a free
// lock word with an owner or a recursion count (glibc asserts on those, and its other paths
// follow the kind). Checked a few times over a millisecond, as other processes may be locking
// it meanwhile.
SHARED_EXPORT bool MutexLooksSane(const pthread_mutex_t* mutex, int kind);

// Process of the thread `tid` (its thread-group id), or 0 when no such thread lives.
SHARED_EXPORT pid_t ProcessOfThread(pid_t tid);

// Whether the live process `pid` maps the file `path` (e.g. "/dev/shm/<object>"): 1 yes, 0 no
// (also a kernel thread, whose map is empty), -1 unknown (its memory map cannot be read, e.g.
// another user's process). Compares the path as the kernel prints it, which escapes a newline
// in a name as "\012": use the device and inode form for objects whose names a user chose.
SHARED_EXPORT int ProcessMapsFile(pid_t pid, const std::string& path);

// A file as the kernel identifies it: its device and inode number (a stat's st_dev, st_ino).
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool known = false;
};

// The file that one line of a /proc/<pid>/maps maps (its device and inode fields); not known for
// anonymous memory (inode 0) or a line that does not parse.
SHARED_EXPORT FileIdentity FileOfMapsLine(const char* line);

// The start time (field 22, clock ticks after boot) of a /proc/<pid>/stat line; 0 when it has
// none. The command in parentheses may hold spaces and parentheses: fields follow the last ')'.
SHARED_EXPORT std::uint64_t StartTimeOfStatLine(const std::string& line);

// The file that this process maps at `address`, from /proc/self/maps; not known when nothing
// file-backed is mapped there or the map cannot be read.
SHARED_EXPORT FileIdentity FileMappedAt(const void* address);

// As ProcessMapsFile, by the file's device and inode: unlike a path these are printed as
// numbers, so every name matches, also one that holds a newline or ends in " (deleted)", and a
// file of the same name made since is not taken for the one that `file` names.
SHARED_EXPORT int ProcessMapsFile(pid_t pid, const FileIdentity& file);

}  // namespace shared
