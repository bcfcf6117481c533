// SPDX-License-Identifier: Apache-2.0
#include "LogConfiguration.h"

#include <log4cxx/propertyconfigurator.h>
#include <log4cxx/xml/domconfigurator.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace shared {

namespace {

// Why `path` cannot be read; empty when it can. Only a regular file: log4cxx opens the path
// again with a blocking open, which a FIFO without a writer would hold for ever. The look itself
// is non-blocking for the same reason.
std::string ReadProblem(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return std::strerror(errno);
    }
    struct stat st;
    const bool statted = ::fstat(fd, &st) == 0;
    ::close(fd);
    if (statted && S_ISDIR(st.st_mode)) {
        return std::strerror(EISDIR);
    }
    return statted && S_ISREG(st.st_mode) ? "" : "not a regular file";
}

bool EndsWithXml(const std::string& path) {
    const std::string xml = ".xml";
    return path.size() >= xml.size() &&
           path.compare(path.size() - xml.size(), xml.size(), xml) == 0;
}

}  // namespace

std::optional<std::string> ConfigureLoggingFromFile(const std::string& path) {
    const std::string problem = ReadProblem(path);
    if (!problem.empty()) {
        return "cannot read log configuration '" + path + "': " + problem;
    }
    if (EndsWithXml(path)) {
        log4cxx::xml::DOMConfigurator::configure(path);
    } else {
        log4cxx::PropertyConfigurator::configure(path);
    }
    return std::nullopt;
}

}  // namespace shared
