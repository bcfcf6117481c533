// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/SlotClaim.h>

#include <FileUtils/FSUtils.h>
#include <shared/SharedFolder.h>

#include <unistd.h>
#include <stdexcept>

namespace SlotGateway {

std::string SlotClaim::PathOf(const std::string& slotName) {
    return FileUtils::FSUtils::GetGatewayClaimFileName(slotName);
}

SlotClaim::SlotClaim(const std::string& slotName) : path_(PathOf(slotName)) {
    // A file removed by the claim's last holder meanwhile is made and claimed again by Claim.
    pid_t holder = 0;
    switch (lock_.Claim(path_, &holder)) {
        case shared::FileLock::ClaimOutcome::Claimed:
            return;
        case shared::FileLock::ClaimOutcome::Held:
            throw std::runtime_error(
                "slot '" + slotName + "' is already written by another gateway on this machine (" +
                (holder > 0 ? "pid " + std::to_string(holder) : std::string("pid unknown")) +
                ", lock file '" + path_ + "')");
        case shared::FileLock::ClaimOutcome::Unsettled:
            break;
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
