#include <FileUtils/SharedDirectory.h>

#include <sys/stat.h>
#include <cstdlib>

namespace FileUtils {
namespace detail {

void EnsureSharedDirectory(const std::string& dir) {
    if (::mkdir(dir.c_str(), 01777) == 0) {
        ::chmod(dir.c_str(), 01777);
    }
}

std::string DirectoryFromEnvironment(const char* name, const std::string& fallback) {
    const char* value = std::getenv(name);
    return (value != nullptr && *value != '\0') ? std::string(value) : fallback;
}

}  // namespace detail
}  // namespace FileUtils
