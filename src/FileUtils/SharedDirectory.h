#pragma once

#include <string>

namespace FileUtils {
namespace detail {

// Makes sure `dir` exists. A directory created here gets mode 01777 (set with chmod, so the
// umask does not matter): every user's processes can create their files in it, and the sticky
// bit keeps them from removing each other's. An existing directory is left as it is. Failure is
// not reported here: the caller's later open or mkfifo fails with a meaningful error instead.
void EnsureSharedDirectory(const std::string& dir);

// Value of the environment variable `name` when it is set and not empty, else `fallback`.
std::string DirectoryFromEnvironment(const char* name, const std::string& fallback);

}  // namespace detail
}  // namespace FileUtils
