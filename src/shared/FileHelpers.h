// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>
#include <shared/SizedArray.h>

#include <string>

namespace shared {

// Makes sure a regular file exists at `path` and returns the path to open. A missing file is
// created empty with mode 0644 (set with fchmod, so the umask does not matter: every user can
// read it, which is all another user's FileLock needs). The folder is a CheckedFolder and the
// file is created with O_CREAT|O_EXCL|O_NOFOLLOW, so a planted symlink, dangling or not, is
// never followed. An existing file is not opened at all: opening and closing a descriptor of a
// file would drop the process's classic fcntl locks on it. Throws std::runtime_error when the
// folder is unsafe, when something other than a regular file is at `path`, or when the file
// cannot be created. A FileLock of this process never loses its lock to the creation.
SHARED_EXPORT std::string TouchFile(const std::string& path);

// The formatting function that adds nothing: the array's bytes as they are.
SHARED_EXPORT std::string FormatNothing(SizedArray& data);

}  // namespace shared
