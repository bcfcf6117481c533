// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>

#include <stdexcept>
#include <string>

// Raised when a slot, reader or writer cannot be made.
class SLOT_EXPORT AbortSlotCreationException : public std::logic_error {
public:
    explicit AbortSlotCreationException(const std::string& message) : std::logic_error(message) {}
    ~AbortSlotCreationException() override;
};
