// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/SlotClaim.h>

#include <FileUtils/FSUtils.h>
#include <shared/FileHelpers.h>
#include <shared/SharedFolder.h>

#include <unistd.h>
#include <stdexcept>

namespace SlotGateway {

std::string SlotClaim::PathOf(const std::string& slotName) {
    // Shorter than the readers' ".lock", so every slot name fits the file name limit.
    return FileUtils::FSUtils::GetSingletonFileLockDirectory() + "/" + slotName + ".gw";
}

SlotClaim::SlotClaim(const std::string& slotName) : path_(PathOf(slotName)) {
    // A file removed by the claim's last holder between this open and the lock is refused
    // without a holder: open the new one.
    for (int attempt = 0; attempt < 3; ++attempt) {
        lock_ = shared::FileLock(shared::TouchFile(path_).c_str());
        if (lock_.try_lock()) {
            return;
        }
        const pid_t holder = shared::FileLock::Holder(path_);
        if (holder != 0) {
            throw std::runtime_error(
                "slot '" + slotName + "' is already written by another gateway on this machine (" +
                (holder > 0 ? "pid " + std::to_string(holder) : std::string("pid unknown")) +
                ", lock file '" + path_ + "')");
        }
    }
    throw std::runtime_error("slot '" + slotName + "': cannot claim lock file '" + path_ + "'");
}

SlotClaim::~SlotClaim() {
    std::string folderPath, file;
    if (shared::SplitFolderAndName(path_, folderPath, file)) {
        try {
            const shared::CheckedFolder folder = shared::CheckedFolder::Open(folderPath);
            ::unlinkat(folder.fd(), file.c_str(), 0);
        } catch (const std::exception&) {
            // An unsafe folder: the file stays, as a reader's lock file does.
        }
    }
    lock_.unlock();
}

}  // namespace SlotGateway
