// SPDX-License-Identifier: Apache-2.0
#include <Slot/SlotNames.h>

#include <shared/SharedFolder.h>

#include <climits>

namespace Slot {

namespace {

const char* const QueuePrefix = "queue_";

}  // namespace

static_assert(MaxSlotNameLength == NAME_MAX - sizeof("queue_") + 1,
              "the queue's name is a file name too");

const char* const HeaderObjectNames[HeaderObjectCount] = {
    "last_write_tstamp", "output_buffer_data_size", "output_buffer_handle", "cond_on_write"};

std::string HeaderObjectName(const std::string& slot) {
    return slot;
}

std::string QueueObjectName(const std::string& slot) {
    return QueuePrefix + slot;
}

std::optional<std::string> SlotNameProblem(const std::string& name) {
    if (name.empty()) {
        return std::string("is empty");
    }
    if (name == "." || name == "..") {
        return std::string("is not a file name");
    }
    if (name.find('/') != std::string::npos) {
        return std::string("contains '/'");
    }
    if (name.find('\0') != std::string::npos) {
        return std::string("contains a NUL byte");  // the system would cut the name short
    }
    if (name.size() > MaxSlotNameLength) {
        return "is longer than " + std::to_string(MaxSlotNameLength) + " characters";
    }
    return std::nullopt;
}

std::string ShmDirectory() {
    return shared::ShmDirectory();
}

std::string ShmPath(const std::string& object) {
    return shared::ShmPath(object);
}

const char* const PoolFolderName = "libslot-pools";
const char* const PoolTemporaryPrefix = ".libslot-new-";

std::string PoolDirectory() {
    return ShmPath(PoolFolderName);
}

std::string PoolPath(const std::string& name) {
    return PoolDirectory() + "/" + name;
}

}  // namespace Slot
