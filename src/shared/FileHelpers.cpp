// SPDX-License-Identifier: Apache-2.0
#include <shared/FileHelpers.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace shared {

std::string TouchFile(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) {
        return path;
    }
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        throw std::runtime_error("Cannot create file " + path + " : " + std::strerror(errno));
    }
    ::close(fd);
    return path;
}

std::string FormatNothing(SizedArray& data) {
    return data.empty() ? std::string() : std::string(data.data(), data.size());
}

}  // namespace shared
