// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/ISlotConfiguration.h>

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <string>

// Server end of a Windows named pipe. This platform has no such pipes: every operation returns
// at once and nothing is ever read, so a WindowsPipeReader on it never delivers data. The stub
// ships because the library's exported API names this class and WindowsPipeReader: programs
// written against that API build and link here unchanged (the factory refuses "win-pipe").
//
// What a working server slot must do, and WindowsPipeReader relies on:
// WaitForConnectionOrReinitPipeIfNeeded blocks until a client is connected (re-creating a
// broken pipe); ReadData reads up to `size` bytes, blocking until data comes, and returns their
// number; GetLastReadRes tells whether that read succeeded; GetName is the pipe's name;
// GetMaxDataSize is the largest block.
class SLOT_EXPORT WindowsPipeServerSlot {
public:
    explicit WindowsPipeServerSlot(const ISlotConfiguration* cfg);
    ~WindowsPipeServerSlot();

    size_t ReadData(void* buffer, size_t size);
    void WriteData(const void* data, size_t size);
    std::string GetName() const;
    size_t GetMaxDataSize() const;
    bool GetLastReadRes() const;
    void WaitForConnectionOrReinitPipeIfNeeded();

private:
    boost::shared_ptr<void> pipe_;  // the pipe handle where there is one; empty here
};
