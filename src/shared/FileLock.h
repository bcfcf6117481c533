// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>
#include <shared/FileHelpers.h>

#include <sys/types.h>
#include <string>

namespace shared {

struct FileLockEntry;

// Exclusive claim on a lock file, held by this process through a classic fcntl record lock, with
// the try_lock/unlock interface of boost::interprocess::file_lock.
//
// Why classic record locks: they belong to the process that took them. A child forked from the
// holder never holds them, and the kernel drops them when the holder dies. (Open-file-description
// locks are shared with children forked without exec and outlive the holder while such a child
// lives.)
//
// Their pitfall is that closing ANY descriptor of the file in the process drops the process's
// lock. So the process keeps exactly one descriptor per lock file, in a registry keyed by device
// and inode: every FileLock of the same file shares it, and it is closed only when the last
// FileLock of the file goes. The registry also knows which FileLock holds the lock, so a second
// FileLock of the same file in the same process is refused, like one in another process.
//
// Lock files are made with mode 0600 (see TouchFile), and an own file that others could open
// is made 0600 when it is opened. A lock file of another user can be opened only by root (or
// when it was left readable by an older version): the lock is taken on a descriptor that is
// read-write when the file belongs to the effective user and read-only otherwise; nothing is
// ever written to the file. Through a read-write descriptor the claim is an exclusive lock.
// Through a read-only one it is a shared lock that is kept only when F_GETLK then shows no lock
// of any other process; two such claimants racing may both be refused, never both accepted.
//
// The file is opened relative to a checked folder (CheckedFolder) with O_NOFOLLOW and must be a
// regular file with one link; anything else is refused.
//
// Claimants and removers. A claimant (try_lock, Claim) locks the whole file. A remover, which
// claims the file only to unlink it (TryLockForRemoval), locks a range far beyond any content:
// the two exclude each other as before, and a claimant that meets a lock can tell from its range
// whether a claimant or a remover holds it. Claim tries again when the file was removed under it
// or only a remover holds it, and gives up at once when a claimant holds it.
//
// Thread safety: the registry is guarded by a mutex held only for the non-blocking open, lock,
// unlock and close steps; try_lock and unlock may be called on any thread, also on different
// ones. A child forked from the process starts with no lock held.
class SHARED_EXPORT FileLock {
public:
    FileLock();
    // Opens the existing lock file at `path`; throws boost::interprocess::interprocess_exception
    // when it cannot be opened or is not a plain file in a checked folder.
    explicit FileLock(const char* path);
    ~FileLock();

    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    FileLock(FileLock&& other) noexcept;
    FileLock& operator=(FileLock&& other) noexcept;

    // Non-blocking; false when another process, or another FileLock of this process, holds the
    // lock, or when the file was removed since it was opened. True again when this object
    // already holds it.
    bool try_lock();
    // Non-blocking, like try_lock, for a claim taken only to unlink the file while it is held:
    // it excludes claimants and other removers as try_lock does, but a Claim that meets it
    // waits for the removal and claims the file made after it.
    bool TryLockForRemoval();
    // Releases the lock if this object holds it.
    void unlock();

    enum class ClaimOutcome {
        Claimed,   // this object holds the lock on the file now at the path
        Held,      // a claimant (of this process or another) holds it
        Unsettled  // nobody claimed it: it kept being removed, or its remover never finished
    };
    // Makes the lock file at `path` if it is missing (TouchFile), opens it into this object
    // (dropping what this object held before) and takes it with try_lock. A lock file removed
    // under the claim (between the making, the opening and the lock) is made and opened again,
    // and a remover's claim is waited out, all within a bounded time; a claimant's lock ends the
    // attempt at once. With Held, `holder` (when given) gets the holder's pid, -1 when unknown.
    // Throws what TouchFile and the constructor throw for an unsafe or unusable file.
    // A file made by a root process is given to `owner` (see TouchFile).
    ClaimOutcome Claim(const std::string& path, pid_t* holder = nullptr, uid_t owner = kNoOwner);

    // Pid of the process that holds the lock on `path`, 0 when nobody holds it (or the file is
    // missing or refused), -1 when it is held but the holder is unknown.
    static pid_t Holder(const std::string& path);

    // For surveys: who holds any lock on `path`, classic or open-file-description (whose holder
    // names no process, so its pid is read from the file, where such holders write it): 0
    // nobody (or no regular file there), -1 held by an unknown process. The folder need not be
    // checked; the file is opened read-only without following a link and nothing is created.
    // Safe in a process that holds the lock: the registry's descriptor is used, none is closed.
    static pid_t AnyHolder(const std::string& path);

private:
    void Release();
    bool Lock(bool removal);
    // Opens the existing lock file at `path` into this object; false when it is missing.
    bool OpenExisting(const std::string& path);

    FileLockEntry* entry_;  // shared with the other FileLocks of the file; guarded by the registry
};

}  // namespace shared
