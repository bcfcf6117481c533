// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <FileUtils/Export.h>

#include <string>

namespace FileUtils {

// Where the named pipes of posix-pipe slots live, and their creation.
class FILEUTILS_EXPORT NamedPipeCreator {
public:
    // "<dir>/<name>.fifo", dir = $SLOT_PIPE_DIR when set, else /tmp/libslot-pipes. The
    // directory is created on demand with mode 01777, so pipes of every user can live in it.
    static std::string ConstructPipeFilename(const std::string& name);

    // Creates a FIFO at `path` (mode 0666 less the umask) unless one is there already. False
    // when it cannot be made, also when a file that is not a FIFO (a regular file, a directory)
    // is in the way; the reason is logged at ERROR on logger "FileUtils". Safe against another
    // process creating the same FIFO at the same time.
    static bool CreateIfNeeded(const std::string& path);
};

}  // namespace FileUtils
