// SPDX-License-Identifier: Apache-2.0
#include "Names.h"

#include <Slot/SlotNames.h>
#include <Slot/SlotReportJson.h>

#include <sys/stat.h>

namespace slotctl {

std::string QueueObject(const std::string& name) {
    return Slot::QueueObjectName(name);
}

std::string ShmPath(const std::string& object) {
    return Slot::ShmPath(object);
}

bool ShmExists(const std::string& object) {
    struct stat st;
    return ::lstat(ShmPath(object).c_str(), &st) == 0;
}

std::string FormatTime(const boost::posix_time::ptime& time) {
    return Slot::TimeText(time);
}

}  // namespace slotctl
