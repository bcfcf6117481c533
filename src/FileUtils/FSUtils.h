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
};

}  // namespace FileUtils
