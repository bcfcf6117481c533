// SPDX-License-Identifier: Apache-2.0
#include "WriteRate.h"

#include <cstdio>

namespace slotctl {

std::uint32_t WritesSince(const SlotActivitySample& before, const SlotActivitySample& after) {
    const std::uint32_t writes = SlotActivity::WritesBetween(before, after);
    return writes > (1u << 31) ? 0 : writes;
}

bool EstimatedBytes(std::uint32_t writes, const SlotActivitySample& after, double& bytes) {
    bytes = static_cast<double>(writes) * after.outputDataSize;
    return after.hasOutput && !(after.outputDataSize == 0 && writes != 0);
}

std::string Fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

std::string BytesPerSecondText(double perSecond) {
    if (perSecond >= 1e6) {
        return Fixed(perSecond / 1e6, 2) + " MB/s";
    }
    if (perSecond >= 1e3) {
        return Fixed(perSecond / 1e3, 2) + " kB/s";
    }
    return Fixed(perSecond, 0) + " B/s";
}

}  // namespace slotctl
