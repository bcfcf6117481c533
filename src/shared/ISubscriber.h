// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

namespace shared {

// Receives notifications: a name, a pointer to bytes and their count. The bytes are valid only
// during the call; a subscriber that needs them later copies them.
//
// The count is size_t here and unsigned int in INotifier::notify. On the 32-bit target both are
// the same 32-bit type; on x86_64 a block never exceeds 32 bits, so the notifier widens it.
class ISubscriber {
public:
    virtual void onNotify(const std::string& name, const void* data, size_t size) = 0;
    virtual ~ISubscriber() {}
};

}  // namespace shared
