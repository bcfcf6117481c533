// SPDX-License-Identifier: Apache-2.0
#pragma once
// Blocks written and read under a slot's own lock, as the slot's users do.

#include <Slot/ISlot.h>

#include <algorithm>
#include <string>
#include <vector>

namespace testsupport {

// Holds a slot's lock for a scope, also when the call under it throws.
struct HeldLock {
    explicit HeldLock(IBaseSlot& slot) : lock(*slot.GetLockable()) { lock.lock(); }
    ~HeldLock() { lock.unlock(); }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;
    shared::ILockable& lock;
};

inline void WriteBlock(IBaseSlot& slot, const std::string& data) {
    HeldLock held(slot);
    slot.WriteData(data.data(), data.size());
}

// Reads one block through a direct call, without the lock, into a heap buffer of exactly `size`
// bytes (the slot's max data size when 0), so that ASan sees any copy beyond it.
inline std::string ReadDirect(IBaseSlot& slot, size_t size = 0) {
    std::vector<char> buffer(size != 0 ? size : std::max<size_t>(1, slot.GetMaxDataSize()));
    const size_t n = slot.ReadData(buffer.data(), buffer.size());
    if (n > buffer.size()) {  // a count beyond the copy: fails any comparison, and says why
        return "<ReadData returned " + std::to_string(n) + " for " + std::to_string(buffer.size()) +
               " bytes>";
    }
    return std::string(buffer.data(), n);
}

// The same under the slot's lock.
inline std::string ReadBlock(IBaseSlot& slot, size_t size = 0) {
    HeldLock held(slot);
    return ReadDirect(slot, size);
}

}  // namespace testsupport
