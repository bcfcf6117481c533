// SPDX-License-Identifier: Apache-2.0
// The machine-wide claim of a gateway on a slot it writes.
#pragma once

#include <shared/FileLock.h>

#include <string>

namespace SlotGateway {

// One gateway per machine writes a slot from the network. A second one would store each block of
// a reliable slot twice, and on a "both" route each would take the other's writes for local
// states and send them back without end.
//
// The claim is the lock file "<lock folder>/<slot name>.gw" (FSUtils::GetGatewayClaimFileName;
// the folder of the reliable readers' "<name>.lock" files, $SLOT_LOCK_DIR), held through
// shared::FileLock: the kernel drops it when the gateway dies, however it dies. The file is
// removed when the claim ends, while still held; a gateway that opened it just before finds it
// gone and makes a new one. A killed gateway's file is a leftover that slotctl rm removes
// (SlotLeftovers::RemoveGatewayClaimFile) unless a gateway holds it.
class SlotClaim {
public:
    // Throws std::runtime_error naming the holder when another gateway, of this process or
    // another, has the claim, or when the lock file cannot be made safely.
    explicit SlotClaim(const std::string& slotName);
    ~SlotClaim();
    SlotClaim(const SlotClaim&) = delete;
    SlotClaim& operator=(const SlotClaim&) = delete;

    // The lock file of `slotName`'s claim.
    static std::string PathOf(const std::string& slotName);

private:
    const std::string path_;
    shared::FileLock lock_;
};

}  // namespace SlotGateway
