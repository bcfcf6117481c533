// SPDX-License-Identifier: Apache-2.0
#include <Slot/WindowsPipe/WindowsPipeServerSlot.h>

WindowsPipeServerSlot::WindowsPipeServerSlot(const ISlotConfiguration*) {}

WindowsPipeServerSlot::~WindowsPipeServerSlot() {}

size_t WindowsPipeServerSlot::ReadData(void*, size_t) {
    return 0;
}

void WindowsPipeServerSlot::WriteData(const void*, size_t) {}

std::string WindowsPipeServerSlot::GetName() const {
    return std::string();
}

size_t WindowsPipeServerSlot::GetMaxDataSize() const {
    return 0;
}

bool WindowsPipeServerSlot::GetLastReadRes() const {
    return false;
}

void WindowsPipeServerSlot::WaitForConnectionOrReinitPipeIfNeeded() {}
