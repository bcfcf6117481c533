// SPDX-License-Identifier: Apache-2.0
#include "Names.h"

#include <Slot/SlotNames.h>
#include <Slot/SlotReportJson.h>

#include <sys/stat.h>
#include <cstdint>

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

std::string AgeText(double seconds) {
    if (seconds < 0) {
        return "-";
    }
    const auto s = static_cast<std::uint64_t>(seconds);
    if (s < 120) {
        return std::to_string(s) + "s";
    }
    if (s < 7200) {
        return std::to_string(s / 60) + "m";
    }
    if (s < 172800) {
        return std::to_string(s / 3600) + "h";
    }
    return std::to_string(s / 86400) + "d";
}

}  // namespace slotctl
