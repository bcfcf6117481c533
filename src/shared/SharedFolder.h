// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <sys/stat.h>
#include <sys/types.h>
#include <optional>
#include <string>

namespace shared {

// A folder that files are created and opened in, reached without following any symlink and
// checked component by component from the root (or from the working folder for a relative
// path). Every component must be:
// - a real folder, not a symlink;
// - owned by root or by the effective user;
// - sticky when its group or others may write to it (so nobody else can rename or remove what
//   the user puts there).
// Files are then opened relative to fd() with O_NOFOLLOW, so that a component swapped after
// the check cannot redirect them: the descriptor keeps pointing at the folder that was checked.
//
// Ownership: the object owns its O_PATH descriptor and closes it. It is not thread-safe to
// share one object between threads that move or destroy it; fd() may be used by any thread.
class SHARED_EXPORT CheckedFolder {
public:
    // Throws std::runtime_error "Unsafe folder '<path>': <reason>" when a component fails the
    // checks, "Cannot open folder '<path>' : <errno text>" when it cannot be reached. With
    // `createMode` != 0 a missing last component is created with that mode (set with fchmod,
    // so the umask does not matter; e.g. 01777 for a folder shared by every user).
    static CheckedFolder Open(const std::string& path, mode_t createMode = 0);

    CheckedFolder() : fd_(-1) {}
    ~CheckedFolder();
    CheckedFolder(CheckedFolder&& other) noexcept;
    CheckedFolder& operator=(CheckedFolder&& other) noexcept;
    CheckedFolder(const CheckedFolder&) = delete;
    CheckedFolder& operator=(const CheckedFolder&) = delete;

    int fd() const { return fd_; }
    const std::string& path() const { return path_; }

private:
    int fd_;
    std::string path_;
};

// Splits `path` into its folder and its last component. False when the last component is
// empty, "." or "..", i.e. when the path does not name an entry of a folder.
SHARED_EXPORT bool SplitFolderAndName(const std::string& path, std::string& folder,
                                      std::string& name);

// True when `st` belongs to root or to the effective user.
SHARED_EXPORT bool OwnedByRootOrMe(const struct stat& st);

// Why this process must not map the file open as `fd` (`st` its fstat) read-write, or nothing
// when it may: its owner could rewrite or truncate it under this process (SIGBUS), so it must
// belong to root or to the effective user, and group and others must not write it. One of the
// effective user's own that others may write (made so by an earlier build) is made 0644 and may
// be used. `shown` names the file in the answer: "<shown> belongs to uid N, not to root or this
// user", "others may write <shown> (mode 0666)".
SHARED_EXPORT std::optional<std::string> SharedWriteProblem(int fd, const struct stat& st,
                                                            const std::string& shown);

// The folder where the system shows POSIX shared-memory objects: "/dev/shm".
SHARED_EXPORT std::string ShmDirectory();

// Where the system shows the POSIX shared-memory object `object`: "/dev/shm/<object>".
SHARED_EXPORT std::string ShmPath(const std::string& object);

// The permission bits of `mode` as four octal digits ("0644"), as error texts show them.
SHARED_EXPORT std::string ModeText(mode_t mode);

}  // namespace shared
