// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>

#include <string>

// Passes one string value between processes by slot name, in one call. Always a "discarding"
// slot with blocks of at most 65536 bytes; no slot is kept open between calls. Opening a slot
// resets its header, so Read yields the block waiting in the queue, or "" when none waits.
class SLOT_EXPORT SimpleSlotRW {
public:
    explicit SimpleSlotRW(const std::string& name);

    std::string Read();
    void Write(const std::string& data);

private:
    std::string name_;
};
