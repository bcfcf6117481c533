// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/SlotActivity.h>

#include <cstdint>
#include <string>

namespace slotctl {

// Writes to a slot between two samples of its write counter; 0 when the counter went back,
// which means the slot was made anew meanwhile.
std::uint32_t WritesSince(const SlotActivitySample& before, const SlotActivitySample& after);

// Bytes of `writes` writes, estimated from the size of the last block a reader took (the header
// keeps no other size). False when that size is unknown: no block taken since the slot was
// opened.
bool EstimatedBytes(std::uint32_t writes, const SlotActivitySample& after, double& bytes);

// `value` with `decimals` decimals.
std::string Fixed(double value, int decimals);

// "12.34 MB/s", "5.60 kB/s", "12 B/s".
std::string BytesPerSecondText(double perSecond);

}  // namespace slotctl
