// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <FileUtils/Export.h>

#include <string>

namespace FileUtils {

class FILEUTILS_EXPORT FSUtils {
public:
    // Path of the lock file that stands for `name`; every process of the machine gets the same
    // path for the same name. The directory is $SLOT_LOCK_DIR when set, else /run/lock/libslot
    // (/tmp/libslot-locks on systems without /run/lock); it is created on demand with mode
    // 01777. The file itself is not created: "<dir>/<name>.lock".
    static std::string GetSingletonFileLockName(const std::string& name);

    // Makes sure the directory `dir` exists. One created here gets mode 01777 (set with chmod,
    // so the umask does not matter): every user's processes can create their files in it, and
    // the sticky bit keeps them from removing each other's. An existing directory is left as
    // it is. Failure is not reported: the later open or mkfifo in it fails with the reason.
    static void EnsureSharedDirectory(const std::string& dir);

    // The value of environment variable `name` when set and not empty, else `fallback`.
    static std::string DirectoryFromEnvironment(const char* name, const std::string& fallback);
};

}  // namespace FileUtils
