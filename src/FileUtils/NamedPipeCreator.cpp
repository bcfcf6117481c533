// SPDX-License-Identifier: Apache-2.0
#include <FileUtils/NamedPipeCreator.h>

#include <FileUtils/FSUtils.h>

#include <log4cxx/logger.h>

#include <sys/stat.h>
#include <cerrno>
#include <cstring>

namespace FileUtils {

namespace {

enum class PathState { Missing, Fifo, Other, Error };

PathState Inspect(const std::string& path, int& error) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        error = errno;
        return error == ENOENT ? PathState::Missing : PathState::Error;
    }
    return S_ISFIFO(st.st_mode) ? PathState::Fifo : PathState::Other;
}

bool Fail(const std::string& path, const char* reason) {
    log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger("FileUtils");
    if (logger->isErrorEnabled()) {
        LOG4CXX_ERROR(logger, "Cannot create named pipe '" << path << "' : " << reason);
    }
    return false;
}

}  // namespace

std::string NamedPipeCreator::ConstructPipeFilename(const std::string& name) {
    const std::string dir =
        FSUtils::DirectoryFromEnvironment("SLOT_PIPE_DIR", "/tmp/libslot-pipes");
    FSUtils::EnsureSharedDirectory(dir);
    return dir + "/" + name + ".fifo";
}

bool NamedPipeCreator::CreateIfNeeded(const std::string& path) {
    int error = 0;
    switch (Inspect(path, error)) {
        case PathState::Fifo:
            return true;
        case PathState::Other:
            return Fail(path, "a file that is not a FIFO is in the way");
        case PathState::Error:
            return Fail(path, std::strerror(error));
        case PathState::Missing:
            break;
    }
    if (::mkfifo(path.c_str(), 0666) == 0) {
        return true;
    }
    error = errno;
    // Another process may have made it between our look and mkfifo.
    if (error == EEXIST && Inspect(path, error) == PathState::Fifo) {
        return true;
    }
    return Fail(path,
                error == EEXIST ? "a file that is not a FIFO is in the way" : std::strerror(error));
}

}  // namespace FileUtils
