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

    // The folder of those lock files, created on demand as above (without a trailing '/').
    static std::string GetSingletonFileLockDirectory();

    // The same path and folder with nothing created, for those that only look (surveys,
    // slotctl): a look must not make the shared folder, which would then belong to whoever
    // looked first and be refused to root's and every other user's readers. A missing folder
    // holds no lock files.
    static std::string SingletonFileLockNameWithoutCreating(const std::string& name);
    static std::string SingletonFileLockDirectoryWithoutCreating();

    // Path of the file of the machine-wide claim of the gateway that writes slot `name`, in the
    // same folder (created on demand as above; not by the WithoutCreating form):
    // "<dir>/<name>.gw", shorter than ".lock", so that every slot name fits the file name limit.
    static std::string GetGatewayClaimFileName(const std::string& name);
    static std::string GatewayClaimFileNameWithoutCreating(const std::string& name);

    // The suffixes of those two files' names.
    static constexpr const char* kLockFileSuffix = ".lock";
    static constexpr const char* kGatewayClaimFileSuffix = ".gw";

    // Makes sure the directory `dir` exists. One created here gets mode 01777 (set with fchmod,
    // so the umask does not matter): every user's processes can create their files in it, and
    // the sticky bit keeps them from removing each other's. It is reached as a
    // shared::CheckedFolder, so it and every folder above it must be real folders of root or of
    // the user, sticky when others may write to them; a folder made by another user is not
    // used. An existing directory is left as it is. Failure is not reported: the later opening
    // of a file in it checks the folder again and fails with the reason.
    static void EnsureSharedDirectory(const std::string& dir);

    // The value of environment variable `name` when set and not empty, else `fallback`.
    static std::string DirectoryFromEnvironment(const char* name, const std::string& fallback);
};

}  // namespace FileUtils
