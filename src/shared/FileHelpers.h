// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>
#include <shared/SizedArray.h>

#include <sys/types.h>
#include <string>

namespace shared {

// No owner to give a file to (TouchFile).
constexpr uid_t kNoOwner = static_cast<uid_t>(-1);

// Makes sure a regular file exists at `path` and returns the path to open. A missing file is
// created empty with mode 0600 (set with fchmod, whatever the umask): only its owner and root can
// open it, so no other user can take a lock on it. When the process runs as root and `owner` is
// a user other than root, the new file is given to `owner` (fchown on the descriptor that created
// it, before any other user can open it), so that user can still claim it. The folder is a
// CheckedFolder and the file is created with O_CREAT|O_EXCL|O_NOFOLLOW, so a planted symlink,
// dangling or not, is never followed. An existing file is not opened at all: opening and closing a
// descriptor of a file would drop the process's classic fcntl locks on it. Throws
// std::runtime_error when the folder is unsafe, when something other than a regular file is at
// `path`, or when the file cannot be created. A FileLock of this process never loses its lock to
// the creation.
SHARED_EXPORT std::string TouchFile(const std::string& path, uid_t owner = kNoOwner);

// The formatting function that adds nothing: the array's bytes as they are.
SHARED_EXPORT std::string FormatNothing(SizedArray& data);

}  // namespace shared
