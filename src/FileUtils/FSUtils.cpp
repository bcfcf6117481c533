#include <FileUtils/FSUtils.h>

#include <FileUtils/SharedDirectory.h>

#include <sys/stat.h>

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
    const std::string dir =
        detail::DirectoryFromEnvironment("SLOT_LOCK_DIR", DefaultLockDirectory());
    detail::EnsureSharedDirectory(dir);
    return dir + "/" + name + ".lock";
}

}  // namespace FileUtils
