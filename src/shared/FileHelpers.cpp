// SPDX-License-Identifier: Apache-2.0
#include <shared/FileHelpers.h>

#include <shared/SharedFolder.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace shared {

std::string TouchFile(const std::string& path) {
    std::string folderPath;
    std::string name;
    if (!SplitFolderAndName(path, folderPath, name)) {
        throw std::runtime_error("Cannot create file " + path + " : not a file name");
    }
    const CheckedFolder folder = CheckedFolder::Open(folderPath);
    // Two rounds: a file made by another process between the look and the creation is looked
    // at again.
    for (int round = 0; round < 2; ++round) {
        struct stat st;
        if (::fstatat(folder.fd(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
            if (!S_ISREG(st.st_mode)) {
                throw std::runtime_error("Cannot use file " + path +
                                         " : something other than a regular file is there");
            }
            return path;
        }
        if (errno != ENOENT) {
            break;
        }
        const int fd =
            ::openat(folder.fd(), name.c_str(),
                     O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, 0644);
        if (fd >= 0) {
            // A file made just now: nobody holds a lock on it, so closing it is harmless.
            ::fchmod(fd, 0644);
            ::close(fd);
            return path;
        }
        if (errno != EEXIST) {
            break;
        }
    }
    throw std::runtime_error("Cannot create file " + path + " : " + std::strerror(errno));
}

std::string FormatNothing(SizedArray& data) {
    return data.empty() ? std::string() : std::string(data.data(), data.size());
}

}  // namespace shared
