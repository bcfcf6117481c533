// SPDX-License-Identifier: Apache-2.0
// Fuzzes slot names and pipe names: a slot of each type is created, written, read and removed
// under an arbitrary name, and the pipe and lock file paths of that name are built and used.
// Properties:
//  - the shared-memory objects made are "<name>" and "queue_<name>" and nothing else, and
//    SlotFactory::RemoveSlot leaves none of them behind;
//  - nothing is created outside the pipe folder or the lock folder, whatever the name holds
//    ("..", '/', control characters).
// Input: byte 0 chooses the slot type (bits 0-1), whether the name gets this process's tag in
// front (bit 2; otherwise the name is used as it stands) and whether a reliable reader is made
// (bit 3). The rest is the name.
#include "FuzzSupport.h"

#include <FileUtils/FSUtils.h>
#include <FileUtils/NamedPipeCreator.h>
#include <Slot/ISlotConfiguration.h>
#include <Slot/SlotFactory.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

using fuzzsupport::Escaped;
using fuzzsupport::Fail;

namespace {

// A small slot: blocks of at most 16 bytes, two in the queue.
SlotCfg SmallSlotConfig(const std::string& name, const std::string& type) {
    return SlotCfg(name, type, boost::posix_time::milliseconds(10), 2, 16);
}

bool Exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

std::set<std::string> Entries(const std::string& dir) {
    std::set<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            names.insert(e->d_name);
        }
        ::closedir(d);
    }
    return names;
}

// The shared-memory objects that carry this process's tag, or the name when it is used as it
// stands.
std::set<std::string> ShmObjectsOf(const std::string& mark) {
    std::set<std::string> found;
    for (const std::string& entry : Entries("/dev/shm")) {
        if (!mark.empty() && entry.find(mark) != std::string::npos) {
            found.insert(entry);
        }
    }
    return found;
}

bool LeavesFolder(const std::string& path, const std::string& folder) {
    const std::filesystem::path normal = std::filesystem::path(path).lexically_normal();
    return normal.parent_path() != std::filesystem::path(folder);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::QuietLogging();
    fuzzsupport::UsePrivateFolders();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    if (size == 0 || size > 300) {
        return 0;
    }
    static const char* const types[] = {"discarding", "reliable", "posix-pipe", ""};
    const std::string type = types[data[0] & 3];
    const bool tagged = (data[0] & 4) != 0;
    const bool withReader = (data[0] & 8) != 0 && type == "reliable";
    const std::string raw(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::string name = tagged ? fuzzsupport::ProcessTag() + raw : raw;
    const fuzzsupport::SharedFolders& folders = fuzzsupport::UsePrivateFolders();

    // Where a name that leaves a folder would put its file. Such a file that is there already
    // belongs to someone else: the input is skipped rather than risk it.
    const std::string pipePath = FileUtils::NamedPipeCreator::ConstructPipeFilename(name);
    const std::string lockPath = FileUtils::FSUtils::GetSingletonFileLockName(name);
    std::vector<std::string> outside;
    for (const auto& [path, folder] :
         {std::make_pair(pipePath, folders.pipes), std::make_pair(lockPath, folders.locks)}) {
        if (LeavesFolder(path, folder)) {
            if (Exists(path)) {
                return 0;
            }
            outside.push_back(path);
        }
    }
    // A raw name that is already a shared-memory object is someone else's.
    const std::string shmMark = tagged ? fuzzsupport::ProcessTag() : std::string();
    if (!tagged && (Exists("/dev/shm/" + name) || Exists("/dev/shm/queue_" + name))) {
        return 0;
    }
    fuzzsupport::NoteSlotInUse(name);
    const std::set<std::string> rootBefore = Entries(fuzzsupport::PrivateRoot());

    std::set<std::string> made;
    {
        const SlotCfg cfg = SmallSlotConfig(name, type);
        try {
            boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
            slot->WriteData("block", 5);
            char buffer[16];
            slot->ReadData(buffer, sizeof(buffer));
            if (withReader) {
                INotifierPtr reader = SlotFactory::CreateSlotReader(&cfg);
            }
        } catch (const std::exception&) {
            // Refusing a name is fine; what counts is what is left on the machine.
        }
        if (type == "posix-pipe" && FileUtils::NamedPipeCreator::CreateIfNeeded(pipePath)) {
            if (!Exists(pipePath)) {
                Fail("CreateIfNeeded reports a FIFO that is not there: " + Escaped(pipePath));
            }
        }
        made = ShmObjectsOf(shmMark);
    }
    if (!tagged && (Exists("/dev/shm/" + name) || Exists("/dev/shm/queue_" + name))) {
        made.insert(name);
    }
    SlotFactory::RemoveSlot(name);

    std::string broken;
    for (const std::string& object : made) {
        if (object != name && object != "queue_" + name) {
            broken += " made shared-memory object " + Escaped(object) + ";";
            SlotFactory::RemoveSlot(object);
        }
    }
    for (const std::string& object : ShmObjectsOf(shmMark)) {
        broken += " left shared-memory object " + Escaped(object) + ";";
        SlotFactory::RemoveSlot(object);
    }
    if (!tagged && (Exists("/dev/shm/" + name) || Exists("/dev/shm/queue_" + name))) {
        broken += " left the slot's shared memory;";
        SlotFactory::RemoveSlot(name);
    }
    for (const std::string& path : outside) {
        if (Exists(path)) {
            broken += " made " + Escaped(path) + " outside its folder;";
            ::unlink(path.c_str());
        }
    }
    for (const std::string& entry : Entries(fuzzsupport::PrivateRoot())) {
        if (rootBefore.count(entry) == 0) {
            broken += " made " + Escaped(fuzzsupport::PrivateRoot() + "/" + entry) + ";";
        }
    }
    ::unlink(pipePath.c_str());
    ::unlink(lockPath.c_str());
    if (!broken.empty()) {
        Fail("name \"" + Escaped(name) + "\", type \"" + type + "\":" + broken);
    }
    return 0;
}
