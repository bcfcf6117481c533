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
    // The same path with nothing created, for those that only look (surveys, slotctl): a look
    // must not make the shared folder, which would then belong to whoever looked first and be
    // refused to root's and every other user's pipes. A missing folder holds no pipes.
    static std::string PipeFilenameWithoutCreating(const std::string& name);

    // Creates a FIFO at `path` (mode 0644 less the umask: nobody but the owner can write into
    // it; other users can read it, and so take bytes from it, unless the umask removes the read
    // bits) unless one is there already. An existing FIFO of the effective user that group or
    // others may write to (made by an older version under umask 0) loses those write bits.
    // False when it cannot be made, also when
    // - the path does not stay in its folder: a ".." component, a folder below the pipe folder,
    //   or "<name>.fifo" with an empty name, "." or ".." (slot names "../x", "a/b", "", ".",
    //   "..");
    // - the folder fails the checks of shared::CheckedFolder;
    // - something that is not a FIFO (a regular file, a folder, a symlink) is in the way, or a
    //   FIFO of another user than root or the effective user (which could hand this process's
    //   blocks to that user, or feed it theirs).
    // The reason is logged at ERROR on logger "FileUtils". Nothing at the path is followed, and
    // nothing is changed but those write bits. Safe against another process creating the same FIFO
    // at the same time.
    static bool CreateIfNeeded(const std::string& path);

    // Whether a FIFO stands at `path`, looked up as CreateIfNeeded does: in a folder that passes
    // the checks of shared::CheckedFolder, the entry itself not followed.
    static bool IsPipe(const std::string& path);
    // Removes the FIFO at `path`, looked up the same way, so that a symlinked folder or entry
    // never leads the removal elsewhere. Empty when removed, else why not.
    static std::string Remove(const std::string& path);
};

}  // namespace FileUtils
