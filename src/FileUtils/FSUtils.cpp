// SPDX-License-Identifier: Apache-2.0
#include <FileUtils/FSUtils.h>

#include <shared/SharedFolder.h>

#include <sys/stat.h>
#include <cstdlib>
#include <exception>

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
    GetSingletonFileLockDirectory();
    return SingletonFileLockNameWithoutCreating(name);
}

std::string FSUtils::GetSingletonFileLockDirectory() {
    const std::string dir = SingletonFileLockDirectoryWithoutCreating();
    EnsureSharedDirectory(dir);
    return dir;
}

std::string FSUtils::SingletonFileLockNameWithoutCreating(const std::string& name) {
    return SingletonFileLockDirectoryWithoutCreating() + "/" + name + kLockFileSuffix;
}

std::string FSUtils::GetGatewayClaimFileName(const std::string& name) {
    GetSingletonFileLockDirectory();
    return GatewayClaimFileNameWithoutCreating(name);
}

std::string FSUtils::GatewayClaimFileNameWithoutCreating(const std::string& name) {
    return SingletonFileLockDirectoryWithoutCreating() + "/" + name + kGatewayClaimFileSuffix;
}

std::string FSUtils::SingletonFileLockDirectoryWithoutCreating() {
    return DirectoryFromEnvironment("SLOT_LOCK_DIR", DefaultLockDirectory());
}

void FSUtils::EnsureSharedDirectory(const std::string& dir) {
    try {
        shared::CheckedFolder::Open(dir, 01777);
    } catch (const std::exception&) {
        // Reported by the opening of the file in it, which checks the folder again.
    }
}

std::string FSUtils::DirectoryFromEnvironment(const char* name, const std::string& fallback) {
    const char* value = std::getenv(name);
    return (value != nullptr && *value != '\0') ? std::string(value) : fallback;
}

}  // namespace FileUtils
