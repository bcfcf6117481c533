// SPDX-License-Identifier: Apache-2.0
#include <FileUtils/FSUtils.h>

#include <sys/stat.h>
#include <cstdlib>

namespace FileUtils {

namespace {

std::string DefaultLockDirectory() {
    struct stat st;
    // Decided by the existence of /run/lock alone, so that all processes agree.
    if (::stat("/run/lock", &st) == 0 && S_ISDIR(st.st_mode)) {
        return "/run/lock/libslot";
    }
    return "/tmp/libslot-locks";
}

}  // namespace

std::string FSUtils::GetSingletonFileLockName(const std::string& name) {
    const std::string dir = DirectoryFromEnvironment("SLOT_LOCK_DIR", DefaultLockDirectory());
    EnsureSharedDirectory(dir);
    return dir + "/" + name + ".lock";
}

void FSUtils::EnsureSharedDirectory(const std::string& dir) {
    if (::mkdir(dir.c_str(), 01777) == 0) {
        ::chmod(dir.c_str(), 01777);
    }
}

std::string FSUtils::DirectoryFromEnvironment(const char* name, const std::string& fallback) {
    const char* value = std::getenv(name);
    return (value != nullptr && *value != '\0') ? std::string(value) : fallback;
}

}  // namespace FileUtils
