// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

// Symbols of the project's shared libraries are hidden unless marked with this macro.
#define SHARED_EXPORT __attribute__((visibility("default")))

// The libraries use 64-bit file offsets in 32-bit builds too (files and pools past 2 GiB), and
// classes of their headers (and the Boost.Interprocess types inside them) change size with it:
// a program built without them would allocate those objects too small.
static_assert(sizeof(off_t) == 8,
              "libSlot needs -D_FILE_OFFSET_BITS=64 (find_package(Slot) and pkg-config add it)");
